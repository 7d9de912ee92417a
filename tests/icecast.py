"""Icecast in a folder of its own, on loopback, and the station that feeds it."""
import base64
import contextlib
import os
import pathlib
import socket
import subprocess
import threading
import urllib.parse

from web_server import free_ports

CONF = """
<icecast>
    <limits><source-timeout>60</source-timeout><burst-size>16384</burst-size></limits>
    <authentication><source-password>source</source-password></authentication>
    <hostname>localhost</hostname>
    <listen-socket><port>{port}</port><bind-address>127.0.0.1</bind-address></listen-socket>
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
BEGIN_OF_OGG = b"OggS\0\2"


class Radio:
    """Sends `content`, which may grow, once, `rate` bytes a second. When Icecast is back, it goes on
    where it was, or with the next Ogg stream, which has to be there then."""

    def __init__(self, folder, content, content_type, rate):
        self.content, self.content_type, self.rate = content, content_type, rate
        self.port, = free_ports(1)
        self.url = f"http://127.0.0.1:{self.port}/live"
        self.conf = pathlib.Path(folder) / "icecast.xml"
        self.conf.write_text(CONF.format(port=self.port,
                                         owner=OWNER if os.geteuid() == 0 else ""))
        self.process = None
        self.has_ended = threading.Event()
        self.station = threading.Thread(target=self.feed)
        self.start()
        self.station.start()

    def start(self):
        self.process = subprocess.Popen(["icecast2", "-c", self.conf], stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)

    def kill(self):
        process, self.process = self.process, None
        process.kill()
        process.wait()

    def end(self):
        self.has_ended.set()
        self.station.join()
        self.kill()

    def ask(self, head):
        """The connection, when Icecast has answered with 200."""
        login = base64.b64encode(b"source:source").decode()
        peer = socket.create_connection(("127.0.0.1", self.port))
        peer.sendall(f"{head}\r\nAuthorization: Basic {login}\r\n\r\n".encode())
        if b" 200 " not in peer.recv(4096):
            peer.close()
            raise ConnectionError(head)
        return peer

    def feed(self):
        sent, piece = 0, self.rate // 10
        while not self.has_ended.wait(0.3):
            process = self.process
            with contextlib.suppress(OSError), self.ask(
                    "PUT /live HTTP/1.1\r\nHost: localhost\r\nIce-Name: Station\r\n"
                    f"Content-Type: {self.content_type}") as peer:
                if self.content.startswith(BEGIN_OF_OGG):
                    sent = self.content.index(BEGIN_OF_OGG, sent)
                while not self.has_ended.wait(0.1):
                    content = self.content  # it may grow while nobody is there to take it
                    if self.process is not process:
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
