"""What lies between a device and a server that is far away: a proxy on loopback."""
import asyncio
import contextlib
import socket
import threading


class BadLine:
    """Hands on what comes `late` seconds late and `rate` bytes a second, and cuts each connection after
    `cut_after` bytes of answer. While `is_down` nothing passes, and nobody is told."""

    def __init__(self, port, late=0, rate=10**8, cut_after=10**12):
        self.server, self.late, self.rate, self.cut_after = port, late, rate, cut_after
        self.is_down = False
        self.cuts = 0
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=asyncio.run, args=(self.serve(),), daemon=True).start()

    async def serve(self):
        await (await asyncio.start_server(self.join, sock=self.listener)).serve_forever()

    async def join(self, from_device, to_device):
        with contextlib.suppress(OSError):
            from_server, to_server = await asyncio.open_connection("127.0.0.1", self.server)
            await asyncio.gather(self.hand_on(from_device, to_server, 10**12),
                                 self.hand_on(from_server, to_device, self.cut_after))

    async def hand_on(self, reader, writer, left):
        def send(piece):
            if not writer.is_closing():
                writer.write(piece)

        later = asyncio.get_running_loop().call_later
        with contextlib.suppress(OSError):
            while not writer.is_closing() and left > 0 and (
                    piece := await reader.read(min(left, 8192))):
                while self.is_down:
                    await asyncio.sleep(0.05)
                later(self.late, send, piece)
                left -= len(piece)
                await asyncio.sleep(len(piece) / self.rate)
        self.cuts += left == 0
        later(self.late, writer.close)
