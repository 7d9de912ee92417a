"""Icecast in a folder of its own, and the station that feeds it."""
import base64
import contextlib
import os
import pathlib
import socket
import subprocess
import threading
import time
import urllib.parse

from web_server import free_ports

CONF = """
<icecast>
    <limits><source-timeout>60</source-timeout><burst-size>{burst}</burst-size></limits>
    <authentication><source-password>source</source-password></authentication>
    <hostname>localhost</hostname>
    <listen-socket><port>{port}</port><bind-address>{address}</bind-address></listen-socket>
    <paths>
        <logdir>/</logdir>
        <webroot>/usr/share/icecast2/web</webroot><adminroot>/usr/share/icecast2/admin</adminroot>
    </paths>
    <logging><accesslog>-</accesslog><errorlog>-</errorlog></logging>
    {owner}
</icecast>
"""
# It does not run as root, but takes another user's rights by itself.
OWNER = "<security><changeowner><user>nobody</user><group>nogroup</group></changeowner></security>"
BURST = 16384  # bytes that who begins to listen is sent at once
BEGIN_OF_OGG = b"OggS\0\2"
PIECE = 0.1  # s


def write_conf(path, port, address="127.0.0.1", burst=BURST):
    path.write_text(CONF.format(port=port, address=address, burst=burst, owner=OWNER if os.geteuid() == 0 else ""))


class Station:
    """Sends `content`, which may grow, once, `rate` bytes a second. When Icecast is back, it goes on
    where it was, or with the next Ogg stream, which has to be there then."""

    def __init__(self, address, content, content_type, rate):
        self.address, self.content, self.content_type, self.rate = address, content, content_type, rate
        self.url = f"http://{address[0]}:{address[1]}/live"
        self.interruptions = 0
        self.has_ended = threading.Event()
        self.feeding = threading.Thread(target=self.feed, daemon=True)

    def begin(self):
        self.feeding.start()

    def end(self):
        self.has_ended.set()
        self.feeding.join()

    def ask(self, head):
        """The connection, when Icecast has answered with 200."""
        login = base64.b64encode(b"source:source").decode()
        peer = socket.create_connection(self.address)
        peer.sendall(f"{head}\r\nAuthorization: Basic {login}\r\n\r\n".encode())
        if b" 200 " not in peer.recv(4096):
            peer.close()
            raise ConnectionError(head)
        return peer

    def feed(self):
        sent, piece = 0, int(self.rate * PIECE)
        while not self.has_ended.wait(0.3):
            before = self.interruptions
            with contextlib.suppress(OSError), self.ask(
                    "PUT /live HTTP/1.1\r\nHost: localhost\r\nIce-Name: Station\r\n"
                    f"Content-Type: {self.content_type}") as peer:
                if self.content.startswith(BEGIN_OF_OGG):
                    sent = self.content.index(BEGIN_OF_OGG, sent)
                due = time.monotonic() + PIECE
                while not self.has_ended.wait(max(0.0, due - time.monotonic())):
                    due += PIECE
                    content = self.content  # it may grow while nobody is there to take it
                    if self.interruptions != before:
                        break
                    peer.sendall(content[sent:sent + piece])
                    sent = min(sent + piece, len(content))

    def is_on_air(self):
        with contextlib.suppress(OSError), self.ask("GET /live HTTP/1.0"):
            return True
        return False

    def tell(self, title):
        self.ask("GET /admin/metadata?mount=/live&mode=updinfo&charset=UTF-8&song="
                 f"{urllib.parse.quote(title)} HTTP/1.0").close()


class Radio(Station):
    """With an Icecast of its own, on loopback, which may be killed and started again."""

    def __init__(self, folder, content, content_type, rate):
        port, = free_ports(1)
        super().__init__(("127.0.0.1", port), content, content_type, rate)
        self.conf = pathlib.Path(folder) / "icecast.xml"
        write_conf(self.conf, port)
        self.process = None
        self.start()
        self.begin()

    def start(self):
        self.process = subprocess.Popen(["icecast2", "-c", self.conf], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)

    def kill(self):
        self.interruptions += 1
        self.process.kill()
        self.process.wait()

    def end(self):
        super().end()
        self.kill()
