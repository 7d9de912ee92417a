"""What a page and a stranger's controller say to the house over HTTP."""
import base64
import http.client
import json
import socket
import struct

import witness


def ask(address, port, method, path, body=None, timeout=60):
    """Status and the answer's JSON; 0 and why where there was none."""
    connection = http.client.HTTPConnection(address, port, timeout=timeout)
    try:
        connection.request(method, path, None if body is None else json.dumps(body),
                           {} if body is None else {"Content-Type": "application/json"})
        answer = connection.getresponse()
        text = answer.read()
        try:
            return answer.status, json.loads(text)
        except ValueError:
            return answer.status, text.decode(errors="replace")
    except (OSError, http.client.HTTPException) as error:
        return 0, str(error)
    finally:
        connection.close()


def read_exactly(stream, count):
    data = stream.read(count)
    if len(data) < count:
        raise ConnectionError("over")
    return data


def messages(address, port):
    """Those of /api/events, until the connection ends."""
    with socket.create_connection((address, port), timeout=60) as connection:
        connection.settimeout(None)
        key = base64.b64encode(b"a page of a house").decode()
        connection.sendall(f"GET /api/events HTTP/1.1\r\nHost: {address}:{port}\r\nUpgrade: websocket\r\n"
                           f"Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {key}\r\n"
                           "\r\n".encode())
        stream = connection.makefile("rb")
        while stream.readline() not in (b"\r\n", b""):
            pass
        whole = b""
        while True:
            first, length = read_exactly(stream, 2)
            if length == 126:
                [length] = struct.unpack(">H", read_exactly(stream, 2))
            elif length == 127:
                [length] = struct.unpack(">Q", read_exactly(stream, 8))
            body = read_exactly(stream, length)
            if first & 0x0F in (0, 1, 2):
                whole += body
                if first & 0x80:
                    yield json.loads(whole)
                    whole = b""
            elif first & 0x0F == 9:  # a ping; an answer of no mask's effect
                connection.sendall(bytes([0x8A, 0x80 | length]) + bytes(4) + body)
            elif first & 0x0F == 8:
                return


def watch(address, port, stop):
    """Notes what a page is told, and comes again like one."""
    while not stop.is_set():
        try:
            for message in messages(address, port):
                witness.note("told", state=message)
        except (OSError, ValueError) as error:
            witness.note("page", lost=str(error))
        stop.wait(1)
