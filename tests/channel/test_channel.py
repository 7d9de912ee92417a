"""A session controlled from elsewhere: commands, answers, what the device tells, and how it takes a
server that dies, storms or lies."""
import contextlib
import json
import os
import pathlib
import random
import ssl
import struct
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import (CD, EMULATOR, DeviceTest, WebServer, memory_of, signal_samples,  # noqa: E402
                    wait_for, write_wav)
from certificate import make_certificate  # noqa: E402
from raw_websocket import RawServer, frame, frames, head  # noqa: E402
from raw_websocket import command as raw_command  # noqa: E402
from server import Server  # noqa: E402

SECONDS = 20


class Channel(DeviceTest):
    card_options = ["--buffer", "1000"]  # a flood takes of a busy machine what is left of it

    def setUp(self):
        super().setUp()
        second = signal_samples(CD)
        for name in "abcd":
            write_wav(self.music / f"{name}.wav", second * SECONDS, CD)
        self.start(player=False)

    def server(self, **options):
        server = Server(**options)
        self.addCleanup(server.close)
        return server

    def hand_over(self, server, content="a.wav", active=True, **how):
        count = server.connections
        self.assertEqual(self.connect(self.music / content, active=active, remote=server.url,
                                      **how), 200)
        server.wait("state", lambda: server.connections > count and server.last("state"))

    def cpu_s(self):
        times = pathlib.Path(f"/proc/{self.daemon.pid}/stat").read_text().rsplit(")")[1].split()[11:13]
        return sum(map(int, times)) / os.sysconf("SC_CLK_TCK")

    def tracks(self, names):
        return [{"url": f"file://{self.music}/{name}.wav", "title": name.upper()}
                for name in names]

    # ---- What is told and asked -------------------------------------------------------------

    def test_a_session_is_told_and_controlled(self):
        server = self.server()
        self.hand_over(server, session="living-room", active=False)
        self.assertEqual(server.paths, ["/session?key=1"])
        hello = server.last("hello")
        self.assertEqual((hello["session"], hello["device"]["name"]), ("living-room", "Kitchen"))
        state = server.until("state", playback="stopped", active=False, item=0, position_ms=0)
        self.assertFalse(state["has_next"])
        self.assertEqual(server.last("track")["item"], None)
        self.assertEqual(server.last("queue")["items"][0]["url"], f"file://{self.music}/a.wav")

        # Each row: a command, its answer, and what it leads to.
        rows = [
            ("pause", {}, "invalid_state", {"playback": "stopped"}),
            ("next", {}, "not_found", {"playback": "stopped"}),
            ("previous", {}, "not_found", {"playback": "stopped"}),
            ("stop", {}, "invalid_state", {"playback": "stopped"}),
            ("play", {}, "ok", {"playback": "playing", "active": True}),
            ("seek", {"position_ms": 5000}, "ok", {"playback": "playing"}),
            ("pause", {}, "ok", {"playback": "paused"}),
            ("play", {}, "ok", {"playback": "playing"}),
            ("volume", {"volume": 31}, "ok", {"volume": 31}),
            ("mute", {"muted": True}, "ok", {"muted": True, "volume": 31}),
            ("mute", {"muted": False}, "ok", {"muted": False}),
            ("loop", {"loop": "one"}, "ok", {"loop": "one"}),
            ("shuffle", {"shuffle": True}, "ok", {"shuffle": True, "loop": "one"}),
            ("stop", {}, "ok", {"playback": "stopped", "item": 0}),
            ("seek", {"position_ms": 1}, "invalid_state", {"playback": "stopped"}),
        ]
        for command, arguments, answer, state in rows:
            with self.subTest(command, **arguments):
                self.assertEqual(server.ask(command, **arguments), answer)
                told = server.until("state", **state)
                if command == "seek" and answer == "ok":
                    told = server.wait("the place", lambda: (
                        m := server.last("state"))["position_ms"] >= 5000 and m)
                    self.assertLess(told["position_ms"], 7000)
                    self.assertLess(abs(told["taken_ms"] - time.time() * 1000), 60_000)
                if command == "volume":
                    wait_for("the card's volume", lambda: "31%" in self.amixer("sget", "Master"))
        track = next(m for m in server.said if m["type"] == "track" and m["item"] == 0)
        self.assertEqual(track["duration_ms"], SECONDS * 1000)
        self.assertEqual(track["format"], {"rate_hz": CD, "channels": 2, "bits": 16})
        self.assertEqual(server.ask("leave"), "ok")
        server.wait("goodbye", lambda: server.closes == [1000])
        self.assertEqual(server.said[-1], {"type": "goodbye", "reason": "left"})

    def test_the_queue_is_changed_while_it_plays(self):
        server = self.server()
        self.hand_over(server)
        server.until("state", playback="playing")
        beginning = self.log_count("Stopping playback")
        rows = [
            ("queue_insert", {"tracks": self.tracks("bcd")}, "ok", [0, 1, 2, 3], 0),
            ("queue_insert", {"tracks": self.tracks("b"), "before": 2}, "ok", [0, 1, 4, 2, 3], 0),
            ("queue_move", {"items": [3, 0], "before": 1}, "ok", [3, 0, 1, 4, 2], 0),
            ("queue_move", {"items": [4], "before": 4}, "ok", [3, 0, 1, 4, 2], 0),
            ("queue_remove", {"items": [3, 4]}, "ok", [0, 1, 2], 0),
            ("queue_remove", {"items": [9]}, "not_found", [0, 1, 2], 0),
            ("queue_move", {"items": [1], "before": 9}, "not_found", [0, 1, 2], 0),
            ("queue_remove", {"items": [0, 1, 2]}, "invalid_state", [0, 1, 2], 0),
            ("queue_jump", {"item": 2}, "ok", [0, 1, 2], 2),
            ("previous", {}, "ok", [0, 1, 2], 1),
            ("queue_remove", {"items": [1]}, "ok", [0, 2], 2),
            ("queue_insert", {"tracks": [{"url": "a.wav"}]}, "not_allowed", [0, 2], 2),
            ("queue_replace", {"tracks": self.tracks("cdb"), "start": 1}, "ok", [5, 6, 7], 6),
        ]
        for row, (command, arguments, answer, items, current) in enumerate(rows):
            with self.subTest(command, row=row):
                self.assertEqual(server.ask(command, **arguments), answer)
                server.wait(f"items {items}", lambda: server.items() == items)
                server.until("state", item=current, playback="playing")
                server.until("track", item=current)
            if row == 5:  # none of these has touched what is heard
                self.assertEqual(self.log_count("Stopping playback"), beginning)
        self.assertEqual(server.ask("queue_read", first=2), "ok")
        server.until("queue", first=2, length=3)
        self.assertEqual(server.items(), [7])
        # A track that can't be played is told of, and passed over.
        bad = [{"url": "/etc/passwd"}, {"url": f"file://{self.music}/none.wav"}]
        self.assertEqual(server.ask("queue_replace", tracks=bad + self.tracks("a")), "ok")
        server.until("state", item=10, playback="playing")
        self.assertEqual([m["item"] for m in server.said if m["type"] == "error"], [8, 9])

    def test_what_a_session_may_name_is_what_its_own_content_may_be(self):
        web = WebServer(str(self.folder))
        self.addCleanup(web.kill)
        root = f"{web.url}/music"
        server = self.server()
        self.hand_over(server)
        remote = [{"url": f"{root}/b.wav", "title": "B", "artist": "me", "duration_ms": 7}]
        self.assertEqual(server.ask("queue_replace", tracks=remote), "ok")
        server.until("track", item=1, duration_ms=SECONDS * 1000)
        self.assertEqual(server.last("queue")["items"], [{"item": 1, **remote[0]}])
        self.assertEqual(self.connect(f"{root}/c.wav", remote=server.url), 200)
        server.wait("the other session", lambda: server.connections == 2 and server.last("state"))
        server.until("state", playback="playing")
        self.assertEqual(server.ask("queue_insert", tracks=self.tracks("a")), "not_allowed")
        self.assertEqual(server.ask("queue_insert", tracks=remote), "ok")

    def test_a_long_list_is_told_in_parts(self):
        server = self.server()
        self.hand_over(server)
        for part in range(6):
            tracks = self.tracks("b") * 500
            for n, track in enumerate(tracks):
                track["title"] = f"{part}-{n}"
            self.assertEqual(server.ask("queue_insert", tracks=tracks), "ok")
        server.until("queue", length=3001)
        seen = server.items()
        while len(seen) < 3001:
            self.assertEqual(server.ask("queue_read", first=len(seen)), "ok")
            seen += server.wait("the next part", lambda: server.last("queue")["first"] ==
                                len(seen) and server.items())
        self.assertEqual(seen, list(range(3001)))
        self.assertEqual(server.ask("queue_jump", item=2900), "ok")
        before = len(server.said)
        self.assertEqual(server.ask("queue_move", items=[0]), "ok")
        part = server.wait("a part", lambda: [message for message in server.said[before:]
                                              if message["type"] == "queue"])[-1]
        self.assertIn(2900, [track["item"] for track in part["items"]])

    # ---- Connections ------------------------------------------------------------------------

    def test_a_server_that_dies_is_found_again_and_told_everything_anew(self):
        server = self.server()
        self.hand_over(server)
        port = server.port
        server.end()
        self.wait_for_log("connection lost")
        time.sleep(1)
        again = self.server(port=port)
        again.until("state", playback="playing", item=0)
        self.assertEqual([m["type"] for m in again.said[:4]], ["hello", "queue", "track", "state"])
        # On change only, but for the position.
        count = len(again.said)
        again.wait("the position", lambda: len(again.said) > count)
        before, after = again.said[count - 1], again.said[count]
        place, clock = (after[name] - before[name] for name in ("position_ms", "taken_ms"))
        self.assertEqual({**before, "position_ms": 0, "taken_ms": 0},
                         {**after, "position_ms": 0, "taken_ms": 0})
        self.assertGreaterEqual(clock, 9_900)
        # Where the machine is too busy for the music it is late, never early.
        self.assertTrue(clock / 2 < place < clock + 500, (before, after))
        self.assertEqual(again.ask("pause"), "ok")
        again.until("state", playback="paused")
        # The device ends: it says so, and does not wait for anyone.
        self.assertEqual(self.stop()[0], 0)
        again.wait("goodbye", lambda: again.closes)
        self.assertEqual(again.said[-1], {"type": "goodbye", "reason": "shutdown"})
        self.start(player=False)

    def test_a_new_session_takes_over_and_one_that_plays_nothing_does_not(self):
        first, second, declined = self.server(), self.server(), self.server()
        self.hand_over(first)
        first.until("state", playback="playing")
        (self.music / "none.wav").write_text("no sound")
        self.connect(self.music / "none.wav", remote=declined.url)
        declined.wait("goodbye", lambda: declined.closes == [1000])
        why = declined.said[0].pop("reason")
        self.assertEqual(declined.said, [{"type": "error", "error": "session_failed"},
                                         {"type": "goodbye", "reason": "not_joined"}])
        self.wait_for_log(f"none.wav: {why}")
        self.assertEqual(first.ask("seek", position_ms=1000), "ok")
        self.hand_over(second, "b.wav", session="other")
        first.wait("goodbye", lambda: first.closes == [1000])
        self.assertEqual(first.said[-1]["reason"], "taken_over")
        second.until("state", playback="playing")
        self.assertEqual((first.connections, second.connections), (1, 1))

    def test_who_is_not_the_sessions_server_hears_nothing(self):
        cases = {
            "refuses the token": dict(token="other"),
            "can't reach": dict(subprotocols=("chat",)),
        }
        for line, options in cases.items():
            server = self.server(**options)
            self.connect(self.music / "a.wav", remote=server.url)
            self.wait_for_log(line)
            self.assertFalse(server.said)
        for url in ["", "http://localhost/", "ws://", "ws://a@b/", "ws://[::1", "ws://h:0/", "wss://x y/"]:
            self.assertEqual(self.connect(self.music / "a.wav", remote=url), 200)
            time.sleep(0.5)
        # A token's end is the end of the remote control alone; so is the server's wish.
        server = self.server()
        self.hand_over(server, remote_expiry=int(time.time()) + 3)
        server.wait("goodbye", lambda: server.closes == [1000])
        self.assertEqual(server.said[-1]["reason"], "token_expired")
        self.hand_over(server)
        server.run(server.socket.close(1008))
        self.wait_for_log("the server wants no more of it")
        count = server.connections
        time.sleep(2)
        self.assertEqual(server.connections, count)
        self.assertEqual(self.request("GET", "/get-connect-info")[0], 200)

    def tls(self):
        """A server's, which the device trusts from its next start on."""
        make_certificate(self.folder, "DNS:localhost")
        self.environment["NUVIO_NETWORK_AUTHORITIES"] = str(self.folder / "cert")
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(self.folder / "cert", self.folder / "key")
        return tls

    def test_tls_and_its_authorities_and_no_redirections(self):
        server = self.server(tls=self.tls())
        self.connect(self.music / "a.wav", remote=server.url)
        self.wait_for_log("can't reach localhost")
        self.assertEqual(server.paths, [])
        self.stop()
        self.start(player=False)
        self.hand_over(server)
        self.connect(self.music / "a.wav", remote=server.url.replace("localhost", "127.0.0.1"))
        self.wait_for_log("can't reach 127.0.0.1")
        # A server that leads elsewhere: the token does not go there.
        with RawServer(timeout=1) as elsewhere, RawServer() as leading:
            self.connect(self.music / "a.wav", remote=leading.url)
            with leading.accept(f"HTTP/1.1 302 x\r\nLocation: {elsewhere.url}\r\n"
                                "Content-Length: 0\r\n\r\n".encode()):
                self.wait_for_log("can't reach localhost", 2)
            with self.assertRaises(TimeoutError):
                elsewhere.accept()

    def test_the_device_ends_well_in_every_state_of_its_channels(self):
        speaking, rng = self.server(tls=self.tls()), random.Random(3)
        with RawServer() as silent, RawServer() as gone:
            gone.listener.close()
            urls = [speaking.url, silent.url, "wss://no-such-host.invalid/",
                    *(server.url.replace("ws:", "wss:") for server in (silent, gone))]
            for n in range(150 if "NUVIO_LONG" in os.environ else 15):
                self.assertEqual(self.stop()[0], 0, n)
                # The system's authorities take a while to read.
                trust = {} if n % 2 else {"NUVIO_NETWORK_AUTHORITIES": str(self.folder / "cert")}
                self.environment = {**self.environment, "NUVIO_NETWORK_AUTHORITIES": "", **trust}
                self.start(player=False)
                for url in rng.choices(urls, [16, 1, 1, 1, 1], k=rng.choice([1, 3, 4])):
                    self.connect(self.music / "a.wav", session=url, remote=url)
                    time.sleep(rng.choice([0, 0.1, 0.26]))
                # The others wait for one whose server does not answer.
                speaking.loop.call_soon_threadsafe(time.sleep, rng.choice([0, 0, 0.8, 1.5]))

    # ---- Hostile servers --------------------------------------------------------------------

    def test_messages_that_are_none_leave_the_session_alone(self):
        server = self.server(max_size=None)
        self.hand_over(server)
        command = {"type": "command", "id": "x", "command": "queue_insert"}
        cases = [
            "", "{", "[]", "null", "{}", "[" * 60_000, "{\"type\":1}", "\"" + "x" * 60_000,
            json.dumps({"type": "command", "command": "stop"}),
            json.dumps({"type": "command", "command": "stop", "id": "x" * 65}),
            json.dumps({"type": "command", "command": "stop", "id": 7}),
            '{"type":"command","command":"stop","id":"a\\u0000b"}',
        ]
        refused = [
            {**command, "command": "explode"}, {**command, "command": "seek"},
            {**command, "command": "seek", "position_ms": -1},
            {**command, "command": "seek", "position_ms": 1e300},
            {**command, "command": "seek", "position_ms": 0.5},
            {**command, "command": "volume", "volume": 101},
            {**command, "command": "mute", "muted": 1},
            {**command, "command": "loop", "loop": "twice"},
            {**command, "tracks": []}, {**command, "tracks": [{}]}, {**command, "tracks": [1]},
            {**command, "tracks": [{"url": "/a"}] * 501},
            {**command, "tracks": [{"url": "/" * 3000}]},
            {**command, "tracks": [{"url": "/a"}], "before": "0"},
            {**command, "command": "queue_replace", "tracks": [{"url": "/a"}], "start": 1},
            {**command, "command": "queue_remove", "items": [0, 0]},
        ]
        for text in cases:
            server.send(text)
        for n, message in enumerate(refused):
            server.send(json.dumps({**message, "id": f"r{n}"}))
        answers = [server.answer(f"r{n}")["error"] for n in range(len(refused))]
        self.assertEqual(answers, ["unknown_command"] + ["bad_message"] * (len(refused) - 1))
        self.assertEqual(len([m for m in server.said if m["type"] == "error"]), len(cases))
        # This one ends the connection, which comes back.
        server.send("x" * 70_000)
        server.wait("the end", lambda: server.closes == [1009])
        server.wait("again", lambda: server.connections == 2 and server.last("state"))
        self.assertEqual(server.last("state")["playback"], "playing")

    def test_frames_of_any_size_cut_anywhere_end_no_more_than_their_connection(self):
        text, binary, more, close, ping, pong = 0x81, 0x82, 0x80, 0x88, 0x89, 0x8a
        open_text, open_more = 0x01, 0x00
        taken, gone = "taken", None  # else the code that the device closes with
        limit, mb = 65536, 1 << 20
        def of(kind, size):
            return frame(b"x" * size, kind)
        # What is sent, and what becomes of it.
        rows = [(of(text, size), taken) for size in (0, 1, 125, 126, limit - 1, limit)]
        rows += [(of(text, size), 1009) for size in (limit + 1, 2 * limit, 200_000, mb, 100 * mb)]
        rows += [(of(binary, size), 1003) for size in (0, 1, limit, limit + 1, 200_000, 100 * mb)]
        rows += [
            (frame(b"\xff" * 100), 1007), (frame(b"\xff" * limit), 1007),
            (frame(b"\xff" * limit) + of(text, limit) * 3 + of(ping, 125), 1007),
            # In pieces, with others between them.
            (of(open_text, 100) + of(open_more, 0) * 1000 + of(ping, 125) + of(more, 100), taken),
            (of(open_text, limit) + of(ping, 125) + of(more, 0), taken),
            (of(open_text, limit) + of(ping, 125) + of(open_more, 1) + of(more, 200_000), 1009),
            (of(open_text, 1000) + of(open_more, 1000) * 1000, 1009),
            (of(open_text, 10) + of(text, 10), gone), (of(more, 10), gone),
            # What the library answers itself, also behind what is refused.
            (of(ping, 0) + of(ping, 125) * 500 + of(pong, 0) + of(pong, 125), taken),
            (of(ping, 126), gone), (of(close, 126), gone), (head(ping, limit), gone),
            (of(close, 0), gone), (frame(struct.pack(">H", 3000) + b"x" * 123, close), 3000),
            (of(binary, 200_000) + frame(struct.pack(">H", 3000) + b"x" * 123, close), 1003),
            (of(text, mb) + of(ping, 125) * 100 + of(close, 125), 1009),
            # What is no frame, and lengths that do not come.
            (b"\x83\x00", gone), (b"\x8f\x00", gone), (b"\xf1\x01x", gone), (b"\xff" * mb, gone),
            (b"\x81\x7f" + b"\xff" * 8 + b"x" * mb, gone),
            (b"\x81\x7f\x7f" + b"\xff" * 7 + b"x" * mb, 1009),
            # Masked; where a word has 32 bits the library takes the lower ones alone.
            (b"\x82\xff\x00\x00\x00\x01\x7f\xff\xff\xff" + b"\x05" * 4 + b"x" * mb, 1003),
        ]
        rng = random.Random(11)
        for n, (sent, outcome) in enumerate(rows):
            with self.subTest(sent=sent[:16], size=len(sent)), RawServer() as server:
                time.sleep(0.26)  # four sessions a second are taken
                self.assertEqual(self.connect(self.music / "a.wav", session=f"s{n}",
                                              remote=server.url), 200)
                with server.accept() as peer:
                    with contextlib.suppress(ConnectionError):
                        rest = sent + raw_command("shuffle", shuffle=True)
                        for _ in range(3):
                            cut = rng.randrange(len(rest))
                            peer.sendall(rest[:cut])
                            rest = rest[cut:]
                            time.sleep(0.01)
                        peer.sendall(rest)
                    heard = next((code for kind, data in frames(peer) for code in [
                        taken if kind == 1 and b'"answer"' in data else
                        struct.unpack(">H", data[:2])[0] if kind == 8 and data else None]
                        if code), gone)
                    self.assertEqual(heard, outcome)
                self.assertIsNone(self.daemon.poll(), "the device has ended")
        time.sleep(0.26)
        self.hand_over(self.server())

    def test_storms_neither_stop_the_music_nor_grow_the_device(self):
        server = self.server(max_size=None)
        self.hand_over(server, "")
        before = memory_of(self.daemon)
        rng = random.Random(5)

        commands = [("queue_read", {"first": 0}), ("queue_jump", {"item": 1}), ("next", {}),
                    ("previous", {}), ("seek", {"position_ms": 9000}), ("play", {})]
        begin = time.monotonic()
        ids = [server.begin(command, **arguments)
               for command, arguments in rng.choices(commands, k=400)]
        server.answer(ids[-1])
        self.assertGreater(time.monotonic() - begin, 400 / 50 * 0.6, "more than the rate were taken")
        self.assertEqual([m["id"] for m in server.said if m["type"] == "answer"], ids)
        server.until("state", playback="playing")
        # What is no command: it takes the device no more than a part of a core.
        with RawServer(timeout=4) as pinging:
            self.connect(self.music / "a.wav", remote=pinging.url)
            with pinging.accept() as peer:
                used, begin, sent = self.cpu_s(), time.monotonic(), 0
                while time.monotonic() - begin < 4:
                    sent += peer.send((b"\x89\0\x8a\0" * 50_000)[sent % 4:])
                self.assertLess((self.cpu_s() - used) / (time.monotonic() - begin), 0.4)
        # A server that does not read the answers to what it asks.
        (self.music / "long.m3u").write_text("a.wav\n" * 2000)
        with RawServer(timeout=1) as silent:
            self.connect(self.music / "long.m3u", remote=silent.url)
            with silent.accept() as peer:
                with self.assertRaises(TimeoutError, msg="the device reads whatever comes"):
                    for _ in range(200_000):
                        peer.sendall(raw_command("queue_read", first=0))
                wait_for("the end", lambda: self.log_count("the server does not read"), 60)
        # Sanitizers keep what was freed, and an emulator's memory is its own.
        limit_mb = 512 if self.is_sanitized() or EMULATOR else 12
        self.assertLess(memory_of(self.daemon) - before, limit_mb * 1024)
        self.assertEqual(sum(r.underruns for r in self.recordings()), 0)
