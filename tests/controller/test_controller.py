"""The controller from outside: by its command line, as a device, and as a peer that means no good."""
import contextlib
import http.server
import json
import os
import select
import signal
import socket
import struct
import subprocess
import threading
import time

from house import ALBUMS, PATIENCE, SECONDS, SESAME, HouseTest, e2e, free_port, memory_of, wait_for


class CommandLine(HouseTest):
    rooms = ["Kitchen", "Bath & Böden/50%"]

    def test_music_is_handed_to_two_devices_and_driven_from_a_shell(self):
        kitchen, bath = self.devices
        self.start_all()
        self.command("play", "Kitchen", "night boats")
        self.command("play", self.rooms[1], self.music / "1")
        for name in self.rooms:
            wait_for("sound", lambda name=name: self.shown(name).get("position_ms", 0) > 2500)
        for device, album in (kitchen, 0), (bath, 1):
            wait_for("the recording", lambda: self.heard(device, album, 0))
        self.assertTrue(self.shown("Kitchen")["bit_exact"])
        self.command("queue", "Kitchen", "add", "köln")
        whole = self.command("queue", "Kitchen")
        self.command("queue", "Kitchen", "clear")
        self.command("undo", "Kitchen")
        self.assertEqual(self.command("queue", "Kitchen"), whole)
        self.command("queue", "Kitchen", "remove", 3, 4)
        wait_for("all of it without a break", lambda: self.heard(kitchen, 0, 0, 7))

        self.command("seek", "Kitchen", SECONDS - 3)
        wait_for("the next track, on both sides", lambda: self.shown("Kitchen")["track"]["title"].endswith("2") and
                 kitchen.position() < SECONDS / 2, 10)
        wait_for("the first one's word", lambda: self.shown("Kitchen").get("played") == {
            "title": "Night Boats 1", "verified": "sought or paused"})
        self.assert_position(kitchen, lambda: self.shown("Kitchen")["position_ms"] / 1000)
        self.command("volume", "Kitchen", 30)
        wait_for("the card's volume", lambda: "[30%]" in kitchen.amixer("sget", "Master"))
        self.command("volume", "kitchen", "-10")
        wait_for("the card's volume", lambda: "[20%]" in kitchen.amixer("sget", "Master"))
        self.command("pause", "Kitchen")
        wait_for("a pause", lambda: "paused" in self.command("status", "Kitchen"))
        self.command("mute", self.rooms[1], "on")
        wait_for("silence", lambda: self.shown(self.rooms[1])["muted"])

        self.command("queue", "Kitchen", "add", "köln")
        self.command("queue", "Kitchen", "move", 3, 1)
        self.command("queue", "Kitchen", "remove", 2)
        self.command("queue", "Kitchen", "jump", 1)
        queue = json.loads(self.ask("/api/devices/Kitchen/queue")[2])["items"]
        self.assertEqual([item["title"] for item in queue], ["Köln, früh 1", "Night Boats 2", "Köln, früh 2"])
        self.command("playlists", "save", "Kitchen", "Night/Köln")
        self.command("play", "Kitchen", "night-köln")
        self.assertEqual([line[7:9] for line in self.command("queue", "Kitchen").splitlines()], ["Kö", "Ni", "Kö"])
        # In a library's order, from its second track on.
        album = f"album:{self.first_album()['id']}"
        status, _, _ = self.ask("/api/devices/Kitchen/play", {"what": [album], "start": 1})
        self.assertEqual(status, 200)
        wait_for("two tracks, the second one playing", lambda: [
            line[0] for line in self.command("queue", "Kitchen").splitlines()] == [" ", ">"])
        # Shuffled it begins there all the same, be it in a queue or with a session; without a place anywhere.
        def place_of(start):
            self.ask("/api/devices/Kitchen/play", {"what": [str(self.music)] * 20, "start": start})
            wait_for("all of it", lambda: (self.shown("Kitchen").get("state"), len(
                self.command("queue", "Kitchen").splitlines())) == ("playing", 120))
            return [line[0] for line in self.command("queue", "Kitchen").splitlines()].index(">")
        self.command("shuffle", "Kitchen", "on")
        self.assertEqual(place_of(70), 70)
        self.command("leave", "Kitchen")
        self.assertEqual(place_of(80), 80)
        wait_for("another beginning", lambda: place_of(None) > 0)
        self.command("play", "Kitchen", "night boats")
        self.command("shuffle", "Kitchen", "off")
        for words, status, why in (
                ("pause Cellar", 1, "there are: Bath & Böden/50%, Kitchen"), ("seek Kitchen soon", 2, "usage"),
                ("seek Kitchen 90", 1, "over at 0:20"), ("volume Kitchen 150", 2, "0 to 100, not 150"),
                ("queue Kitchen jump 9", 1, "no place 9"), ("loop Kitchen twice", 1, "loop"),
                ("play Kitchen nonsense", 1, "all of these words: nonsense")):
            result = self.run_command(*words.split())
            self.assertEqual((result.returncode, why in result.stderr), (status, True), result)
        found = json.loads(self.ask("/api/library/search?q=shanty&kind=tracks&count=3")[2])
        self.assertEqual((len(found["tracks"]), found["total"]), (3, {"artists": 0, "albums": 2, "tracks": 4, "playlists": 0}))

        for shelf, name in ("genres", "Shanty"), ("composers", "Ida Quill"):
            self.assertEqual(json.loads(self.ask(f"/api/library/{shelf}")[2]), {shelf: [{"name": name, "albums": 2}]})
        heard = json.loads(self.ask("/api/library/albums?sort=played&composer=x")[2])["albums"]
        self.assertEqual({album["title"] for album in heard}, {album for album, _, _ in ALBUMS})

        # The Avahi daemon under them goes and comes back, and the music does not notice.
        self.command("loop", "Kitchen", "all")
        for end in signal.SIGKILL, signal.SIGTERM:
            self.avahi.send_signal(end)
            self.avahi.wait()
            self.avahi = kitchen.start_own("avahi")
            wait_for("both found again", lambda: all(
                f'"friendly_name":"{name}"' in (self.command("find", check=False) or "") for name in self.rooms))
        played = wait_for("a track's end", lambda: self.shown(self.rooms[1]).get("played"), SECONDS)
        # A part of a file, as its sheet names them.
        self.assertEqual(played, {"title": "Köln, früh 1", "verified": "no sum in the file"})
        before = kitchen.position()
        wait_for("music", lambda: abs(kitchen.position() - before) > 0.5)
        self.assertEqual({recording.underruns for recording in kitchen.recordings()}, {0})
        self.command("connect", "Kitchen", kitchen.folder / "library/1")
        wait_for("that it is said", lambda: "another controller" in self.command("status", "Kitchen"))
        kept, uuid = self.folder / "state-of-controller/sessions.json", self.shown("Kitchen")["id"]
        wait_for("its token's end", lambda: uuid not in kept.read_text())
        self.assertIsNone(self.command("connect", "Cellar", "x", check=False))
        second = subprocess.run([*e2e.program("nuvio-connect-controller"), "serve", "--music", self.music, "--port",
                                 str(free_port()), "--state", kept.parent], env=self.environment,
                                capture_output=True, text=True, timeout=30)
        self.assertEqual(second.returncode, 1)
        self.assertIn("another controller keeps its state in", second.stderr)


class Honesty(HouseTest):
    rooms = ["Kitchen"]

    def wait_for_state(self, state, seconds=PATIENCE):
        return wait_for(state, lambda: self.shown("Kitchen").get("state") == state and self.shown("Kitchen"), seconds)

    def test_what_is_not_heard_is_not_said_to_play(self):
        kitchen = self.devices[0]
        self.start_all()
        nobody = f"http://127.0.0.1:{free_port()}/radio"
        for state in "free", "stopped":  # without a session, and with one
            result = self.run_command("play", "Kitchen", nobody)
            self.assertEqual((result.returncode, result.stderr.startswith(f"play: {nobody}: Failed to connect")),
                             (1, True), result)
            self.assertEqual(self.wait_for_state(state)["asked"], {"title": nobody})
            self.assertEqual(self.command("play", "Kitchen", "night boats"), "Kitchen plays Night Boats 1\n")
            self.assertEqual([self.shown("Kitchen").get(key) for key in ("state", "asked", "problem")],
                             ["playing", None, ""])
        self.command("play", "--no-wait", "Kitchen", nobody)
        self.assertIn(self.shown("Kitchen")["state"], ("asked", "opening"))
        self.command("play", "Kitchen", "night boats")
        # Stopped it is as silent as behind a cable that was pulled.
        kitchen.daemon.send_signal(signal.SIGSTOP)
        place = self.wait_for_state("gone", 20)["position_ms"]
        time.sleep(0.2)
        self.assertEqual(self.shown("Kitchen")["position_ms"], place)
        kitchen.daemon.send_signal(signal.SIGCONT)
        self.wait_for_state("playing", 20)
        self.command("pause", "Kitchen")
        # What it does not answer it may do later all the same; a second try is no second time.
        whole = self.command("queue", "Kitchen")
        self.command("queue", "Kitchen", "clear")
        kitchen.daemon.send_signal(signal.SIGSTOP)
        self.assertIn("the device does not answer", self.run_command("undo", "Kitchen").stderr)
        self.wait_for_state("gone")
        kitchen.daemon.send_signal(signal.SIGCONT)
        wait_for("what was taken", lambda: self.command("undo", "Kitchen", check=False) is not None, 20)
        self.assertEqual(self.command("queue", "Kitchen"), whole)


class Alarms(HouseTest):
    def restart_with_seven_in(self, seconds):
        """By the controller's clock it is seven in so many seconds from now; that moment."""
        self.stop_controller()
        seven = int(time.time()) + seconds
        west = (seven - 7 * 3600) % 86400  # of Greenwich
        self.environment["TZ"] = f"HERE{west // 3600}:{west // 60 % 60}:{west % 60}"
        self.start_controller()
        return seven

    def test_a_device_wakes_who_sleeps_there_or_says_why_not(self):
        kitchen, attic = self.devices
        attic.environment["NUVIO_NETWORK_PATIENCE_S"] = "2"
        self.start_all()
        self.command("play", "Kitchen", "köln")
        self.command("volume", "Kitchen", 80)
        self.command("mute", "Kitchen", "on")
        self.command("sleep", "Kitchen", "end")
        album = self.first_album()  # the third one, by name
        self.command("alarm", "Kitchen", "07:00", "sat-thu,fri", f"album:{album['id']}", "--volume", 30)
        listed = self.command("alarm", "Attic", "7:00", "http://127.0.0.1:9/radio")
        for words, why in (("25:00 x", "usage"), ("07:00 zzz", "all of these words"), ("07:00 mon,wo x", "usage"),
                           ("off 9", "no alarm 9"), ("07:00 b --volume 101", "0 to 100")):
            self.assertIn(why, self.run_command("alarm", "Kitchen", *words.split()).stderr)
        seven = self.restart_with_seven_in(4)
        wait_for("the alarm", lambda: self.shown("Kitchen").get("track", {}).get("album") == album["title"])
        self.assertGreaterEqual(time.time(), seven)
        wait_for("it on the card", lambda: self.heard(kitchen, 2, 0, 1))
        self.assertIn("[30%] [on]", kitchen.amixer("sget", "Master"))
        self.assertIsNone(self.shown("Kitchen").get("sleep"))
        self.command("undo", "Kitchen")
        self.assertIn("Köln", self.command("queue", "Kitchen"))
        wait_for("anything", lambda: self.shown("Attic").get("state") == "playing" and not self.state()["alarms"][1]["on"])
        self.assertRegex(self.command("alarm", "attic"), "once .* off .*Failed to connect.*; something else was played")
        self.assertAlmostEqual(self.state()["alarms"][0]["in_ms"] / 1000, 86400 - (time.time() - seven), delta=60)

        # One that is away is said to be, and woken when it comes.
        attic.daemon.send_signal(signal.SIGKILL)
        attic.daemon.wait()
        self.command("alarm", "Attic", "on", listed.split()[0])
        self.restart_with_seven_in(2)
        wait_for("it", lambda: self.state()["alarms"][1]["failure"] == "Attic was not there at 07:00")
        attic.start()
        wait_for("anything", lambda: self.shown("Attic").get("state") == "playing" and not self.state()["alarms"][1]["on"])
        self.command("alarm", "Attic", "remove", listed.split()[0])
        self.assertEqual([alarm["device_name"] for alarm in self.state()["alarms"]], ["Kitchen"])


class Addresses(HouseTest):
    rooms = ["Kitchen"]

    def test_a_device_at_an_ipv6_address_alone_is_shown_with_what_it_lacks(self):
        subprocess.run(["ip", "address", "add", "fd00::5/128", "dev", "lo"], check=True)
        self.start_all()
        port = str(free_port())
        for path in "get-display-info", "get-connect-info":
            (self.folder / path).write_text('{"model_display_name": "Sixth", "current_session_id": ""}')
        for words in (["python3", "-m", "http.server", "--bind", "::", "--directory", self.folder, port],
                      ["avahi-publish", "-a", "-R", "sixth.local", "fd00::5"],
                      ["avahi-publish", "-s", "-H", "sixth.local", "Sixth", "_nuvio-connect._tcp", port, "path=/"]):
            process = subprocess.Popen(words, env=self.environment, stdout=subprocess.DEVNULL,
                                       stderr=subprocess.DEVNULL)
            self.addCleanup(process.wait)
            self.addCleanup(process.kill)
        wait_for("the device", lambda: self.shown("Sixth").get("reach") == "reached")
        self.assertEqual([self.shown("Sixth")[key] for key in ("model", "addresses")], ["Sixth", ["fd00::5"]])
        status, _, body = self.ask("/api/devices/Sixth/play", {"what": [str(self.music)]})
        self.assertEqual((status, "IPv4" in json.loads(body)["error"]), (409, True), body)


class Peers(HouseTest):
    rooms = ["Kitchen"]
    options = ["--password", "sesame", "--base", "/music"]

    def sessions(self):
        return json.loads((self.folder / "state-of-controller/sessions.json").read_text())

    def token(self):
        return self.sessions()[0]["token"]

    def publish(self, name, port, *entries):
        process = subprocess.Popen(["avahi-publish", "-s", name, "_nuvio-connect._tcp", str(port), *entries],
                                   env=self.environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.devices[0].end, process)
        return process

    def socket(self, data=b"", address="127.0.0.1", source=("127.0.0.3", 0)):
        connection = socket.socket()
        self.addCleanup(connection.close)
        connection.settimeout(PATIENCE)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        connection.bind(source)
        connection.connect((address, self.port))
        connection.sendall(data)
        return connection

    def assert_shared(self, request, share, most):
        """Of so many at once those of one address have `share`, all have `most`, and the others a refusal."""
        held = [self.socket(request.encode(), source=(f"127.0.0.{3 + i // 20}", 0)) for i in range(40)]

        def is_shared():
            heard = select.select(held, [], [], 0)[0]
            refused = [each in heard and b" 503 " in each.recv(20, socket.MSG_PEEK) for each in held]
            return 20 - share <= sum(refused[:20]) < 20 and 40 - most <= sum(refused) < 40
        wait_for(f"refusals of {request}", is_shared)
        self.assertIsNotNone(self.state())
        for each in held:
            each.close()

    def test_content_is_for_a_sessions_token_and_the_page_for_who_knows_the_password(self):
        self.options = ["--base", "/music"]
        (self.folder / "nuvio-connect-controller.password").write_text("sesame\n")
        self.environment["CREDENTIALS_DIRECTORY"] = str(self.folder)
        self.start_all()
        self.environment["NUVIO_CONTROLLER_PASSWORD"] = "sesame"
        self.command("play", "Kitchen", "night boats")
        wait_for("sound", lambda: self.shown("Kitchen").get("position_ms", 0) > 500)
        album = self.first_album()
        track = f"/music/content/{album['tracks'][0]['id']}.flac"
        bearer = {"Authorization": f"Bearer {self.token()}"}
        _, headers, whole = self.ask(track, headers=bearer)
        self.assertIn(whole, [path.read_bytes() for path in self.music.glob("*/*.flac")])
        for more, status, body in [
                ({"Range": "bytes=100-199"}, 206, whole[100:200]), ({"Range": "bytes=-5"}, 206, whole[-5:]),
                ({"Range": f"bytes={len(whole)}-"}, 416, None), ({"If-None-Match": headers["ETag"]}, 304, b""),
                ({"Range": "bytes=0-9", "If-Range": headers["ETag"]}, 206, whole[:10]),
                ({"Range": "bytes=0-9", "If-Range": '"another"'}, 200, whole),
                ({"Range": "bytes=-99999999"}, 206, whole), ({"Range": "bytes=0-99999999"}, 206, whole),
                ({"Range": "bytes=-0"}, 416, None), *(({"Range": text}, 200, whole) for text in (
                    "bytes=5-4", "bytes=0-1,5-6", "items=0-1", "bytes=--5", "bytes=-", "bytes=9999999999999999999-"))]:
            answer = self.ask(track, headers={**bearer, **more})
            self.assertEqual((answer[0], answer[2] if body is not None else None), (status, body), more)
        self.assertEqual(self.ask(track, headers=bearer, method="HEAD")[1]["Content-Length"], str(len(whole)))
        cover = f"/music/cover/{album['id']}"
        self.assertEqual(self.ask(cover, headers=bearer)[2][:4], b"\x89PNG")
        for size in (320, 1000):
            status, headers, small = self.ask(f"{cover}?size={size}", headers=bearer)
            self.assertEqual((status, headers["Content-Type"], small[:3]), (200, "image/jpeg", b"\xff\xd8\xff"))
            known = {**bearer, "If-None-Match": headers["ETag"]}
            self.assertEqual(self.ask(f"{cover}?size={size}", headers=known)[0], 304)
        self.assertEqual(self.ask(f"{cover}?size=7", headers=bearer)[0], 400)
        for path in (track, "/content/1.jspf", "/channel", "/api/events", "/api/state", "/", "/cover/1"):
            for headers in ({}, {"Authorization": "Bearer x"}, {"Authorization": "Basic eDp4"}):
                upgrade = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
                           "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="}
                self.assertEqual(self.ask(path, headers={**headers, **upgrade})[0], 401, path)
        page = self.ask("/music/", headers=SESAME)
        cookie = page[1]["Set-Cookie"].split(";")[0]
        for others, status in (("", 200), ("x_nuvio_controller=y; nuvio_controller=old; ", 200), ("x_", 401)):
            self.assertEqual(self.ask("/api/state", headers={"Cookie": others + cookie})[0], status, others)
        for foreign in ({"Origin": "http://evil.example"}, {"Host": "evil.example"},
                        {"Sec-Fetch-Site": "cross-site"}, {"Sec-Fetch-Site": "cross-site", "Sec-Fetch-Mode": "navigate"}):
            for path in (track, "/", "/api/state", "/channel"):
                status = 200 if path == "/" and "Sec-Fetch-Mode" in foreign else 403
                self.assertEqual(self.ask(path, headers={**SESAME, **foreign})[0], status, (path, foreign))
        known = {"Cookie": cookie}
        for headers, status in (SESAME, 403), (known, 426), ({**known, "Upgrade": "websocket"}, 426):
            self.assertEqual(self.ask("/api/events", headers=headers)[0], status, headers)
        form = {**SESAME, "Content-Type": "text/plain; x=application/json"}
        self.assertEqual(self.ask("/api/library/scan", {}, form)[0], 415)
        self.assertEqual(self.ask("/content/../../etc/passwd", headers=bearer)[0] // 100, 4)
        self.command("leave", "Kitchen")
        self.assertEqual((self.ask(track, headers=bearer)[0], self.sessions()), (401, []))

    def test_a_late_refusal_takes_back_no_session_that_came_after_it(self):
        offers, paths, fetched, second_is_taken = [], set(), [], threading.Event()

        def fetch(offer):
            content = offer["jwt_api"]
            path = content["endpoint"].partition(str(self.port))[2]
            return self.ask(path, headers={"Authorization": "Bearer " + content["jwt"]})[0]

        class Device(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                paths.add(self.path)
                self.send_response(200)
                self.end_headers()

            def do_POST(self):
                offers.append(json.loads(self.rfile.read(int(self.headers["Content-Length"]))))
                if len(offers) == 1:
                    second_is_taken.wait(1)
                    time.sleep(0.1)
                    self.send_error(500)
                else:
                    fetched.extend(map(fetch, offers[1:]))
                    self.do_GET()
                    second_is_taken.set()

            def log_message(self, *_):
                pass

        self.start_all()
        server = http.server.ThreadingHTTPServer(("", 0), Device)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        threading.Thread(target=server.serve_forever).start()
        self.publish("Late", server.server_port, "path=/cgi-bin/reboot?now=1&x=")
        wait_for("Late", lambda: self.shown("Late"))
        play = ("/api/devices/Late/play", {"what": ["http://x"] * 5000}, SESAME)
        first = threading.Thread(target=self.ask, args=play)
        first.start()
        wait_for("the first offer", lambda: offers)
        self.assertEqual(self.ask(*play)[0], 200)
        first.join()
        self.assertEqual([each["id"] for each in self.sessions()], [offers[1]["session_id"]])
        self.assertEqual(self.ask(*play)[0], 200)
        # Until the third one is taken the second one's music goes on.
        self.assertEqual(fetched + [fetch(offers[1])], [200, 200, 200, 401])
        self.assertLessEqual(paths, {"/get-display-info", "/get-connect-info", "/connect-to-nconnect"})

    def test_a_crowd_of_announcements_hides_nobody_for_good(self):
        crowd = [self.publish(f"Crowd {number}", 9) for number in range(64)]
        self.start_controller()
        wait_for("the crowd", lambda: len(self.state()["devices"]) == len(crowd))
        self.devices[0].start()
        self.devices[0].end(crowd[0])
        wait_for("its turn", lambda: self.shown("Kitchen"))

    def test_a_device_that_never_answers_does_not_hold_up_the_end(self):
        self.start_all()
        silent = socket.create_server(("", 0))
        self.addCleanup(silent.close)
        self.publish("Silent", silent.getsockname()[1], "device_uuid=Kitchen")
        self.publish("Z Copy", silent.getsockname()[1], "device_uuid=" + self.shown("Kitchen")["id"])
        wait_for("what the copy says", lambda: "'Z Copy' says that it is" in self.log_path.read_text())
        self.assertEqual(self.shown("Kitchen")["port"], self.devices[0].port)
        mute = socket.create_server(("", 0))
        self.addCleanup(mute.close)
        self.publish("Mute", mute.getsockname()[1])
        held = [silent.accept()[0], mute.accept()[0]]
        for each in held:  # neither waits until the other one is given up
            each.recv(65536)
            each.setblocking(False)
            self.assertRaises(BlockingIOError, each.recv, 1)
        # What it says of itself brings it nothing that is meant for another one.
        self.assertEqual(self.ask("/api/devices/Kitchen/play", {"what": ["http://x/"]}, SESAME)[0], 404)
        threading.Thread(target=self.ask, args=("/api/devices/Silent/play", {"what": ["http://x/"]}, SESAME)).start()
        held.append(silent.accept())
        begin = time.monotonic()
        self.stop_controller()
        self.assertLess(time.monotonic() - begin, 6)

    def test_no_peer_can_hold_grow_or_end_it(self):
        self.options = []
        self.start_all()
        self.command("play", "Kitchen", "night boats")
        upgrade = ("Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                   "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")
        before = memory_of(self.controller)
        frames = [b"\x81\xff" + struct.pack(">Q", 1 << 30) + b"abcd", b"\x81\xff" + b"\xff" * 12,
                  b"\x81\xfe\xff\xffabcd", b"\x81\xff" + struct.pack(">Q", 65536) + b"abcd",
                  b"\x00\x80abcd" * 1000]
        request = f"HTTP/1.1\r\nHost: 127.0.0.1\r\n{upgrade}"
        post = "HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: "
        for frame in frames:
            page = self.socket(f"GET /api/events {request}\r\n".encode() + frame)
            device = self.socket(f"GET /channel {request}Authorization: Bearer {self.token()}\r\n"
                                 "Sec-WebSocket-Protocol: nuvio-session.v1\r\n\r\n".encode() + frame)
            for each in page, device:
                with contextlib.suppress(OSError):
                    for _ in range(200):
                        each.sendall(b"\xaa" * 65536)
        # Two pages from one place, the first of which leaves its descriptor to a third: that one stays
        # when the second goes.
        first = self.socket()
        second = self.socket(f"GET /api/events {request}\r\n".encode(), "127.0.0.2", first.getsockname())
        self.assertIn(b" 101 ", second.recv(64))
        first.shutdown(socket.SHUT_WR)
        while first.recv(1):
            pass
        third = self.socket(f"GET /api/events {request}\r\n".encode())
        self.assertIn(b" 101 ", third.recv(64))
        second.close()
        unread = self.socket(f"POST /api/library/scan {post}9\r\n\r\n".encode())
        while unread.recv(65536):
            pass  # it ends within PATIENCE, though none of the body comes
        third.sendall(b"\x89\x80abcd")
        said = b""
        while b"\x8a\0" not in said:  # the ping's answer, among states
            piece = third.recv(65536)
            self.assertTrue(piece, "cut off in the second's place")
            said += piece
        slow = [self.socket(b"GET / HTTP/1.1\r\nX: ") for _ in range(100)]

        def is_answered():
            for each in slow:
                with contextlib.suppress(OSError):
                    each.send(b"x")
            return self.state()
        wait_for("an answer beside slow peers", is_answered, pause=0.2)
        self.command("pause", "Kitchen", check=False)  # a slow machine's music is over by now
        events = f"GET /api/events {request}\r\n"
        for _ in range(20):  # what fails after a place was found for it gives that back
            failed = self.socket(events.replace("Version: 13", "Version: 1").encode())
            while failed.recv(99):
                pass
        self.assert_shared(events, 12, 16)
        version = -1
        while version != self.state()["version"]:
            version = self.state()["version"]
            time.sleep(1)
        self.assert_shared(f"GET /api/state?after={version} HTTP/1.1\r\nHost: x\r\n\r\n", 12, 16)
        self.assert_shared(f"POST /api/devices/x/play {post}9\r\n\r\n{{", 12, 16)
        self.assert_shared(events, 12, 16)
        track = self.first_album()["tracks"][0]["id"]
        for path in self.music.glob("*/*.flac"):
            os.truncate(path, 1 << 28)  # more than any buffer holds
        self.assert_shared(f"GET /content/{track}.flac HTTP/1.1\r\nHost: x\r\n"
                           f"Authorization: Bearer {self.token()}\r\n\r\n", 3, 3)
        deep = '{"a":' * 5000 + "1" + "}" * 5000
        for body in (deep, r'{"a":"\\","what":' + "[" * 999, "[]", "", "{" + '"x":1,' * 20_000 + '"y":1}', '{"what":[5,null,"album:-1"]}'):
            connection = self.socket(f"POST /api/devices/Kitchen/play {post}{len(body)}\r\n\r\n{body}".encode())
            self.assertRegex(connection.recv(65536), rb"^HTTP/1.1 4\d\d ")
        if not self.devices[0].is_sanitized():
            self.assertLess(memory_of(self.controller), before + 15 * 1024)
        self.assertEqual(self.shown("Kitchen")["name"], "Kitchen")
