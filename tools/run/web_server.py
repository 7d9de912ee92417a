#!/usr/bin/env python3
"""nginx in a folder of its own, on loopback. As a program it serves music as a controller does:

  web_server.py WORK MUSIC   serves the file or folder until it is ended, keeps its own files in the
                             folder WORK and prints the URL to hand to a device
"""
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import urllib.parse

CONF = """
daemon off; master_process off; pid {d}/nginx.pid; error_log {d}/nginx.log;
events {{}}
http {{
    access_log off; default_type application/octet-stream; root "{root}";
    client_body_temp_path {d}/t1; proxy_temp_path {d}/t2; fastcgi_temp_path {d}/t3;
    uwsgi_temp_path {d}/t4; scgi_temp_path {d}/t5;
    types {{ audio/x-mpegurl m3u m3u8; application/xspf+xml xspf; audio/flac flac; audio/wav wav; }}
    {servers}
}}
"""


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


class WebServer:
    """Keeps its files in `folder` and serves `root` (default: the same) on `self.port`; `servers` is
    the text of its server blocks, with `{port}` where that goes."""

    def __init__(self, folder, servers="server {{ listen 127.0.0.1:{port}; }}", root=None, **words):
        self.folder = folder
        self.port, = free_ports(1)
        self.url = f"http://127.0.0.1:{self.port}"
        self.process = None
        with open(f"{folder}/nginx.conf", "w") as conf:
            servers = servers.format(d=folder, port=self.port, **words)
            conf.write(CONF.format(d=folder, servers=servers, root=root or folder))
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            ["nginx", "-p", self.folder, "-c", f"{self.folder}/nginx.conf"],
            stderr=subprocess.DEVNULL)
        for _ in range(200):
            try:
                return socket.create_connection(("127.0.0.1", self.port)).close()
            except OSError:
                time.sleep(0.05)
        raise AssertionError("nginx does not listen")

    def kill(self):
        if self.process:
            self.process.kill()
            self.process.wait()
            self.process = None


AUDIO = (".wav", ".flac", ".ogg", ".oga", ".opus", ".mp3", ".aif", ".aiff", ".au", ".w64", ".caf",
         ".m4a", ".aac", ".wv", ".dsf", ".dff")
WITH_LIST = "server {{ listen 127.0.0.1:{port}; location = /tracks.m3u8 {{ root {d}; }} }}"


def serve(work, music):
    root = music if music.is_dir() else music.parent
    found = sorted(path for path in music.rglob("*")
                   if path.suffix.lower() in AUDIO) if music.is_dir() else [music]
    tracks = [urllib.parse.quote(str(path.relative_to(root))) for path in found]
    (work / "tracks.m3u8").write_text("".join(f"{track}\n" for track in tracks))
    # As SIGTERM comes at any time, nginx must not be left behind.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit())
    server = WebServer(str(work), WITH_LIST, root=str(root))
    try:
        print(f"{server.url}/{'tracks.m3u8' if music.is_dir() else tracks[0]}", flush=True)
        server.process.wait()
    finally:
        server.kill()


if __name__ == "__main__":
    if len(sys.argv) != 3 or not os.path.exists(sys.argv[2]):
        sys.exit(__doc__)
    serve(pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]))
