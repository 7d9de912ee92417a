"""A session's server in the test's hands: real WebSockets on a thread of its own, every message of
the device checked against the schema."""
import asyncio
import http
import json
import pathlib
import threading

import jsonschema
import websockets

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"
SCHEMA = json.loads((DOCS / "session.schema.json").read_text())
SUBPROTOCOL = "nuvio-session.v1"
PATIENCE = 30  # s


def validator(part):
    return jsonschema.Draft202012Validator({"$ref": f"#/$defs/{part}", "$defs": SCHEMA["$defs"]})


FROM_DEVICE, TO_DEVICE = validator("from_device"), validator("to_device")


class Server:
    """Takes one device at a time; `said` has all that it said since the last connection."""

    def __init__(self, port=0, token="nc", subprotocols=(SUBPROTOCOL,), tls=None, **options):
        self.said, self.connections, self.closes, self.ids = [], 0, [], 0
        self.token, self.faults, self.socket, self.paths = token, [], None, []
        self.news = threading.Condition()
        self.loop = asyncio.new_event_loop()
        self.thread = threading.Thread(target=self.loop.run_forever, daemon=True)
        self.thread.start()
        self.listener = self.run(self._listen(port, subprotocols, tls, options))
        self.port = self.listener.sockets[0].getsockname()[1]
        self.url = f"{'wss' if tls else 'ws'}://localhost:{self.port}/session?key=1"

    async def _listen(self, port, subprotocols, tls, options):
        return await websockets.serve(self._serve, "127.0.0.1", port, subprotocols=subprotocols,
                                      ssl=tls, process_request=self._admit, **options)

    async def _admit(self, path, headers):
        self.paths.append(path)
        return None if headers.get("Authorization") == f"Bearer {self.token}" else (
            http.HTTPStatus.UNAUTHORIZED, [], b"")

    async def _serve(self, socket):
        with self.news:
            self.socket, self.said = socket, []
            self.connections += 1
            self.news.notify_all()
        try:
            async for text in socket:
                message = json.loads(text)
                faults = [fault.message for fault in FROM_DEVICE.iter_errors(message)]
                with self.news:
                    self.faults += [(text, faults)] * bool(faults)
                    self.said.append(message)
                    self.news.notify_all()
        except websockets.ConnectionClosed:
            pass
        with self.news:
            self.closes.append(socket.close_code)
            self.news.notify_all()

    def run(self, coroutine):
        return asyncio.run_coroutine_threadsafe(coroutine, self.loop).result(PATIENCE)

    def wait(self, what, condition, seconds=PATIENCE):
        with self.news:
            if not self.news.wait_for(condition, seconds):
                raise AssertionError(f"not within {seconds} s: {what}; heard {self.said[-8:]}")
            return condition()

    # ---- What a server does -----------------------------------------------------------------

    def send(self, text):
        self.run(self.socket.send(text))

    def begin(self, command, **arguments):
        """Sends a command; its id."""
        self.ids += 1
        message = {"type": "command", "id": str(self.ids), "command": command, **arguments}
        TO_DEVICE.validate(message)
        self.send(json.dumps(message))
        return message["id"]

    def answer(self, id):
        return self.wait(f"answer {id}", lambda: next(
            (m for m in self.said if m["type"] == "answer" and m["id"] == id), None))

    def ask(self, command, **arguments):
        """The device's answer: "ok", or why not."""
        answer = self.answer(self.begin(command, **arguments))
        return "ok" if answer["ok"] else answer["error"]

    def last(self, type):
        return next((m for m in reversed(self.said) if m["type"] == type), None)

    def until(self, type, **wanted):
        """The newest message of the type, once it has these members."""
        def holds():
            message = self.last(type)
            return message and all(message.get(k) == v for k, v in wanted.items()) and message
        return self.wait(f"{type} {wanted}", holds)

    def items(self):
        return [entry["item"] for entry in self.last("queue")["items"]]

    def end(self):
        """The server dies: no closing words."""
        async def stop():
            self.listener.close()
            for socket in list(self.listener.websockets):
                socket.transport.abort()
            await self.listener.wait_closed()
        self.run(stop())

    def close(self):
        self.end()
        self.loop.call_soon_threadsafe(self.loop.stop)
        self.thread.join(PATIENCE)
        self.loop.close()
        assert not self.faults, f"against the schema: {self.faults[:3]}"
