"""The bare end of a session's channel, for what a library would not do: send without a pause, never
read, break off, and note the time of the very call."""
import base64
import contextlib
import hashlib
import json
import re
import socket
import struct

MAGIC = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"
TEXT = 0x81


class RawServer:
    """Listens for one device at a time; `url` is what a session names."""

    def __init__(self, timeout=30):
        self.timeout = timeout
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.listener.settimeout(timeout)
        self.url = f"ws://localhost:{self.listener.getsockname()[1]}/"

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.listener.close()

    def accept(self, answer=None):
        """Takes a device's connection; `answer` instead of the handshake's."""
        peer = self.listener.accept()[0]
        peer.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        peer.settimeout(self.timeout)
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            if not (piece := peer.recv(4096)):
                raise ConnectionError("gone before it had asked")
            head += piece
        key = re.search(rb"Sec-WebSocket-Key: (\S+)", head, re.I)[1]
        accept = base64.b64encode(hashlib.sha1(key + MAGIC).digest()).decode()
        peer.sendall(answer or (
            "HTTP/1.1 101 x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Protocol: nuvio-session.v1\r\n"
            f"Sec-WebSocket-Accept: {accept}\r\n\r\n").encode())
        return peer


def head(kind, size):
    """What stands before a frame's bytes; `kind`: its first byte."""
    length = bytes([size]) if size < 126 else b"\x7e" + struct.pack(">H", size) \
        if size < 65536 else b"\x7f" + struct.pack(">Q", size)
    return bytes([kind]) + length


def frame(text, kind=TEXT):
    data = text.encode() if isinstance(text, str) else text
    return head(kind, len(data)) + data


def frames(peer):
    """What a device sends, until it is gone: kind and bytes of each frame."""
    with contextlib.suppress(ConnectionError), peer.makefile("rb") as stream:
        while len(begin := stream.read(2)) == 2:
            size = begin[1] & 0x7f
            if size > 125:
                size = int.from_bytes(stream.read(2 if size == 126 else 8), "big")
            mask = stream.read(4)
            data = stream.read(size)
            yield begin[0] & 0xf, bytes(b ^ mask[i % 4] for i, b in enumerate(data))


def command(name, id="1", **arguments):
    return frame(json.dumps({"type": "command", "id": id, "command": name, **arguments}))
