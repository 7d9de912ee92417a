"""A web server that answers as no real one does."""
import contextlib
import http.server
import threading


class ScriptedServer(http.server.ThreadingHTTPServer):
    """Calls `answer(handler, first byte asked)` for each request. `keeps`: connections."""

    def __init__(self, answer, keeps=False):
        self.connections = 0

        class Handler(http.server.BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1" if keeps else "HTTP/1.0"

            def do_GET(self):
                asked = self.headers.get("Range", "bytes=0-")
                with contextlib.suppress(ConnectionError):
                    answer(self, int(asked.split("=")[1].rstrip("-")))
                self.close_connection = not keeps

            def head(self, status, **fields):
                self.send_response(status)
                for name, value in fields.items():
                    self.send_header(name.replace("_", "-"), value)
                self.end_headers()

            def head_from(self, first, total):
                """The head of a file's bytes from the first one asked on."""
                self.head(206 if first else 200, Content_Length=total - first,
                          Content_Range=f"bytes {first}-{total - 1}/{total}")

            def log_message(self, *_):
                pass
        super().__init__(("127.0.0.1", 0), Handler)
        self.daemon_threads = True
        self.url = f"http://127.0.0.1:{self.server_port}/"
        threading.Thread(target=self.serve_forever, args=(0.05,), daemon=True).start()

    def process_request(self, *arguments):
        self.connections += 1
        super().process_request(*arguments)

    def __exit__(self, *arguments):
        self.shutdown()
        super().__exit__(*arguments)
