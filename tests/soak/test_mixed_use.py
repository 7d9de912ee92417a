"""What means harm, all at once, to two devices and a controller in use: servers of tracks and of
channels that stall, lie and die, peers that storm and send what they should not, a card that fails.
Nobody ends, nothing stays behind, and afterwards a track is heard bit for bit. Half a minute by
default; NUVIO_LONG=1 takes ten, NUVIO_MIXED_MINUTES as many as it says.
NUVIO_SEED has each player do again what it did.
"""
import collections
import contextlib
import http.client
import json
import os
import pathlib
import random
import re
import socket
import ssl
import struct
import sys
import threading
import time
import traceback

import websockets

sys.path[:0] = [str(pathlib.Path(__file__).parents[1] / area) for area in ("controller", "channel", "e2e")]
import house  # noqa: E402
from bad_line import BadLine  # noqa: E402
from certificate import make_certificate  # noqa: E402
from device import EMULATOR, PATIENCE, WebServer, wait_for  # noqa: E402
from raw_websocket import RawServer, frame  # noqa: E402
from raw_websocket import command as raw_command  # noqa: E402
from scripted_server import ScriptedServer  # noqa: E402
from server import Server  # noqa: E402
from test_hostile import DISPLAY_INFO, SESSION, post  # noqa: E402

MINUTES = float(os.environ.get("NUVIO_MIXED_MINUTES", 10 if os.environ.keys() & {
    "NUVIO_LONG", "NUVIO_SOAK_HOURS"} else 0.5))
SEED = int(os.environ.get("NUVIO_SEED", random.randrange(10**6)))
# Private memory: of a device, whose unit allows 64 MB, 19 MB were seen at most and 5 afterwards; of the
# controller, whose unit allows 128, 29.
PEAK_KIB, KEPT_KIB, CONTROLLER_KIB = 32 * 1024, 8 * 1024, 64 * 1024
ERRORS = "EIO EPIPE ENODEV EBADFD EAGAIN EINTR ESTRPIPE EBUSY".split()
COMMANDS = [("play", {}), ("pause", {}), ("next", {}), ("previous", {}), ("seek", {"position_ms": 9000}),
            ("volume", {"volume": 40}), ("mute", {"muted": False}), ("loop", {"loop": "all"}),
            ("shuffle", {"shuffle": True}), ("queue_jump", {"item": 1}), ("queue_read", {"first": 0}),
            ("queue_move", {"items": [1]}), ("queue_remove", {"items": [2]}), ("stop", {}), ("leave", {})]


def usage(process):
    """KiB of memory that is its own, threads and descriptors."""
    of = pathlib.Path(f"/proc/{process.pid}")
    sizes = re.findall(r"^Private_(?:Clean|Dirty): +(\d+) kB$", (of / "smaps_rollup").read_text(), re.M)
    return sum(map(int, sizes)), len(os.listdir(of / "task")), len(os.listdir(of / "fd"))


def excerpt(log):
    """What a sanitizer has said last, or whoever wrote."""
    lines = log.read_text(errors="replace").splitlines()
    said = [n for n, line in enumerate(lines) if re.search("ERROR: .*Sanitizer|runtime error:", line)]
    return "\n".join(line[:250] for line in (lines[said[-1]:][:60] if said else lines[-12:]))


class MixedUse(house.HouseTest):
    def setUp(self):
        super().setUp()
        make_certificate(self.folder, "DNS:localhost")
        self.tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self.tls.load_cert_chain(self.folder / "cert", self.folder / "key")
        for each in self.devices:
            each.environment.update(NUVIO_NETWORK_AUTHORITIES=str(self.folder / "cert"),
                                    NUVIO_MUSIC_FOLDERS=str(self.folder))
        self.kitchen = self.devices[0]
        web = WebServer(str(self.folder), root=str(self.music))
        self.addCleanup(web.kill)
        self.lying = ScriptedServer(self.serve_badly)
        self.addCleanup(self.lying.__exit__)
        self.track = (self.music / "0/0.flac").read_bytes()
        self.honest = [web.url, f"http://127.0.0.1:{BadLine(web.port, 0.2, 400_000, 300_000).port}"]
        self.over = threading.Event()
        self.counts, self.findings, self.peaks = collections.Counter(), [], collections.Counter()

    # ---- Who plays along ------------------------------------------------------------------------

    def content(self, rng):
        path = rng.choice(["0/0.flac", "1/0.flac", "2/1.flac"])
        return rng.choice([self.music / path, self.music, *(f"{url}/{path}" for url in self.honest),
                           *[f"{self.lying.url}{rng.randrange(10**6)}.{kind}" for kind in ("flac", "m3u")] * 2])

    def knows_albums(self):
        said = json.loads(self.ask("/api/library/albums?count=3")[2])
        self.albums = [each["id"] for each in said["albums"]]
        return len(self.albums) == 3

    def be_a_listener(self, rng):
        path = f"/api/devices/{rng.choice(self.rooms)}"
        self.ask(f"{path}/play", {"what": [f"album:{rng.choice(self.albums)}"],
                                  "where": rng.choice(["now", "now", "next", "end"])})
        for name, arguments in rng.choices(COMMANDS, k=rng.randrange(5)):
            self.ask(f"{path}/command", {"command": name, **arguments})
            time.sleep(rng.random())

    def be_a_storm(self, rng):
        room, often = rng.choice(self.devices), rng.choice([5, 1 / 4])
        for n in range(rng.randrange(40 if often > 1 else 3)):
            room.connect(self.content(rng), session=f"storm{n}", active=rng.random() < 0.9)
            time.sleep(rng.random() / often)

    def be_a_session(self, rng):
        room = rng.choice(self.devices)
        with contextlib.closing(Server(tls=rng.choice([self.tls, None]))) as server:
            room.connect(self.content(rng), remote=server.url)
            time.sleep(0.3 + rng.random())
            with contextlib.suppress(websockets.ConnectionClosed):
                for name, arguments in rng.choices(COMMANDS, k=rng.randrange(60) if server.socket else 0):
                    server.begin(name, **arguments)
                    time.sleep(rng.random() / 5)

    def be_a_hostile_session(self, rng):
        room = rng.choice(self.devices)
        with RawServer(timeout=2) as server:
            room.connect(self.content(rng), remote=server.url)
            with contextlib.suppress(OSError), server.accept() as peer:
                for name, arguments in rng.choices(COMMANDS, k=rng.randrange(1, 40)):
                    text, one = "x" * int(10 ** rng.uniform(0, 6.7)), raw_command(name, **arguments)
                    peer.sendall(rng.choice([
                        one, one * 300, frame(text), frame("[" * len(text)), frame(text, rng.randrange(256)),
                        frame(text[:99], rng.choice([1, 2, 0, 0x80])), b"\x89\0" * 999, rng.randbytes(99),
                        b"\x81\x7f" + struct.pack(">Q", rng.getrandbits(rng.randrange(64))), one[:rng.randrange(20)]]))
                    time.sleep(rng.random() / 4)
                if rng.random() < 0.5:  # closed with a reset
                    peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def serve_badly(self, handler, first):
        rng = random.Random(f"{SEED}{handler.path}{first}")
        if handler.path.endswith("m3u"):
            handler.head(200, Content_Type="audio/x-mpegurl")
            return handler.wfile.write("".join(f"/{rng.randrange(10**6)}.flac\n" for _ in range(9)).encode())
        way = rng.choice(["stall", "lie", "fail", "cut", "drip", "redirect", "silent", "garbage", "honest"])
        self.counts[way] += 1
        some = rng.randrange(len(self.track))
        if way == "silent":
            self.over.wait(rng.random() * 20)
        elif way == "fail":
            handler.head(rng.choice([401, 404, 416, 500, 503]))
        elif way == "redirect":
            handler.head(302, Location=rng.choice([handler.path, f"/{some}.flac", "file:///etc/passwd"]))
        elif way == "garbage":
            handler.wfile.write(rng.randbytes(some))
        else:
            handler.head_from(first, len(self.track) + (way == "lie") * rng.randrange(-10**5, 10**6))
            end, piece = len(self.track) if way in ("lie", "honest") else some, 500 if way == "drip" else 65536
            for n in range(first, end, piece):
                handler.wfile.write(self.track[n:min(n + piece, end)])
                self.over.wait(0.05)
            self.over.wait((way == "stall") * rng.random() * 20)

    def be_hostile(self, rng):
        deep = "[" * rng.choice([31, 33, 900, 999, 1000, 30_000])
        body = rng.choice(['{"a":"\\\\","what":%s' % deep, deep, SESSION.decode() * 9, "{" + '"x":1,' * 9999]).encode()
        data = rng.choice([post(body), post(body, rng.getrandbits(70)), post(SESSION, more=b"Content-Length: 5\r\n"),
                           rng.randbytes(5000), DISPLAY_INFO * 50, b"GET / HTTP/1.1\r\nX: " + b"x" * 100_000])
        data = data.replace(b"/connect-to-nconnect", rng.choice([
            b"/connect-to-nconnect", b"/api/devices/Kitchen/play", b"/api/devices/Attic/command"]))
        data = data.replace(b"Content-Length", b"Content-Type: application/json\r\nContent-Length", 1)
        port = rng.choice([self.port, *(each.port for each in self.devices)])
        with contextlib.ExitStack() as crowd:
            for _ in range(rng.choice([1, 1, 1, 5, 100])):
                with contextlib.suppress(OSError):
                    peer = crowd.enter_context(socket.create_connection(("127.0.0.1", port), 1))
                    peer.sendall(data[:rng.choice([len(data), rng.randrange(len(data))])])
            time.sleep(rng.random() * 2)

    def be_a_bad_card(self, rng):
        operations = self.kitchen.card("operations").split()
        fault = ["fault", rng.choice(operations), rng.choice(ERRORS), str(rng.randrange(20)),
                 rng.choice(["1", "3", "20", "forever"]), rng.choice(["0", "0", "150"])]
        self.kitchen.card(*rng.choice([
            ["underrun"], ["gone"], ["suspend", rng.choice(["works", "unsupported", "stuck"])],
            ["short", "7", "9", "99"], ["element", "remove"], ["volume", "7"], ["speed", "0.1"], *[fault] * 5]))
        self.over.wait(rng.random() * 5)
        for words in ("clear", "plug", "speed 1", "element restore"):
            self.kitchen.card(*words.split())

    # ---- What must hold -------------------------------------------------------------------------

    def idle(self, room):
        """What a device uses that has played two seconds of a track as they are and has stopped."""
        time.sleep(4)  # a key pressed before waits up to 3 s for its turn, and would pause what follows
        for text in set((room.folder / "card/recordings").glob("*.txt")) - set(room.open_recordings()):
            text.unlink()
            text.with_suffix(".raw").unlink()
        for patience in (15, 15, PATIENCE):  # on a busy machine that key may come later still
            # Guests may have left the same track playing: who stops that one doesn't stop what was just asked for.
            since = {each.name: len(each.data) for each in room.recordings()}
            wait_for("a session", lambda: room.connect(f"{self.honest[0]}/0/1.flac") == 200)
            with contextlib.suppress(AssertionError if patience < PATIENCE else ()):
                wait_for("the track", lambda: self.heard(room, 0, 1, since=since), patience, 1)
                break
        room.player("stop")
        time.sleep(3)
        return usage(room.daemon)

    def act(self, play):
        rng = random.Random(f"{SEED} {play.__name__}")
        while not self.over.wait(rng.random() / 2):
            self.counts[play.__name__] += 1
            try:
                play(rng)
            except (ConnectionError, http.client.HTTPException):
                pass  # refused, as there are too many
            except Exception:
                self.find(traceback.format_exc(limit=-3))

    def find(self, what):
        self.findings.append(what)
        print(f"soak: {what}", flush=True)

    def look_around(self):
        """False: somebody has ended."""
        for owner, field in [(self, "controller"), *((room, "daemon") for room in self.devices)]:
            process = getattr(owner, field)
            if process.poll() is not None:
                self.find(f"{field} ended with {process.returncode}: {excerpt(owner.log_path)}")
                return False
            with contextlib.suppress(ProcessLookupError, FileNotFoundError):
                self.peaks[field] = max(self.peaks[field], usage(process)[0])
        return True

    def test_nobody_ends_nothing_grows_and_a_track_is_a_track(self):
        print(f"\nsoak: seed {SEED}", flush=True)
        self.start_all()
        wait_for("the library", self.knows_albums)
        before = [self.idle(room) for room in self.devices]
        players = [threading.Thread(target=self.act, args=(getattr(self, name),))
                   for name in dir(self) if name.startswith("be_")]
        for player in players:
            player.start()
        end = time.monotonic() + MINUTES * 60
        try:
            while self.look_around() and time.monotonic() < end:
                time.sleep(0.2)
        finally:
            self.over.set()
            for player in players:
                player.join()
        after = [self.idle(room) for room in self.devices] if self.look_around() else []
        print(f"\nsoak: mixed use for {MINUTES:g} min: {dict(self.counts)}; KiB, threads and descriptors "
              f"{before} -> {after}, at most {dict(self.peaks)} KiB")
        self.assertEqual(self.findings, [])
        for room, (_, *held) in zip(self.devices, before):
            wait_for("as much as before", lambda: all(
                now <= then + 1 for now, then in zip(usage(room.daemon)[1:], held)))
        if not self.kitchen.is_sanitized() and not EMULATOR:
            self.assertLess(self.peaks["controller"], CONTROLLER_KIB)
            self.assertLess(self.peaks["daemon"], PEAK_KIB)
            # Once they hold no more than before: a line that was dead may be waited for until then.
            self.assertLess(max(usage(room.daemon)[0] for room in self.devices), KEPT_KIB)
