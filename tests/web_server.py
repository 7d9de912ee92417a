"""nginx in a folder of its own, serving that folder on loopback."""
import socket
import subprocess
import time

CONF = """
daemon off; master_process off; pid {d}/nginx.pid; error_log {d}/nginx.log;
events {{}}
http {{
    access_log off; default_type application/octet-stream; root {d};
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
    """Serves `folder` on `self.port`; `servers` is the text of its server blocks, with `{port}`
    where that goes."""

    def __init__(self, folder, servers="server {{ listen 127.0.0.1:{port}; }}", **words):
        self.folder = folder
        self.port, = free_ports(1)
        self.url = f"http://127.0.0.1:{self.port}"
        self.process = None
        with open(f"{folder}/nginx.conf", "w") as conf:
            servers = servers.format(d=folder, port=self.port, **words)
            conf.write(CONF.format(d=folder, servers=servers))
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
