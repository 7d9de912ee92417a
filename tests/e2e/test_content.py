"""Content from a network that fails: what the card played is compared with what the server has."""
import fcntl
import itertools
import json
import os
import pathlib
import random
import signal
import subprocess
import threading
import time
import unittest

from device import (BUILD, CD, EMULATOR, DeviceTest, Radio, WebServer, program, signal_samples, wait_for,
                    write_wav)
from scripted_server import ScriptedServer

HAS_MODULE = bool(list(BUILD.glob("lib/libnuvio_connect_ffmpeg.so*")))
SERVER = """
    server {{
        listen 127.0.0.1:{port};
        location /slow/ {{ alias {d}/music/; limit_rate 300k; }}
        location /asked/ {{
            alias {d}/music/;
            if ($http_authorization != "Bearer api") {{ return 401; }}
        }}
        location /refused/ {{ alias {d}/music/; if ($uri ~ "2.wav") {{ return 401; }} }}
    }}
"""


class Content(DeviceTest):
    def setUp(self):
        super().setUp()
        self.environment.update(NUVIO_READ_AHEAD_KIB="128", NUVIO_NETWORK_PATIENCE_S="6")

    def web(self, *tracks):
        (self.music / "list.m3u").write_text("".join(f"{name}\n" for name in tracks))
        self.server = WebServer(str(self.folder), SERVER)
        self.addCleanup(self.server.kill)
        return self.server.url

    def wait_for_sound(self, seconds):
        wait_for(f"{seconds} s of sound", lambda: self.position() >= seconds)

    def test_a_file_that_changes_is_passed_over_and_not_mixed(self):
        first, second = self.track("1.wav", 14), self.track("2.wav", 2, 14 * CD)
        self.start()
        self.play(self.web("1.wav", "2.wav") + "/slow/list.m3u")
        self.server.kill()
        (self.music / "1.wav").write_bytes(b"other")
        self.server.start()
        self.wait_for_end()
        played = self.played()
        self.assertTrue(played.endswith(second) and first.startswith(played[:-len(second)]))
        self.assertLess(len(played), len(first))
        self.assertIn("ends early: the file changed meanwhile", self.log())

    def test_a_server_that_stays_away_ends_the_session_after_three_tracks(self):
        source = self.track("1.wav", 14)
        for n in range(2, 6):
            self.track(f"{n}.wav", 1)
        self.environment["NUVIO_NETWORK_PATIENCE_S"] = "2"
        self.start()
        self.play(self.web(*(f"{n}.wav" for n in range(1, 6))) + "/slow/list.m3u")
        self.server.kill()
        self.wait_for_log("its server or disk is gone")
        self.wait_for_end()
        self.assertTrue(len(self.played()) > CD and source.startswith(self.played()))
        self.assertEqual([self.log_count(f"Skipping {self.server.url}/slow/{n}.wav")
                          for n in range(1, 6)], [0, 1, 1, 0, 0])

    def test_what_a_server_does_while_a_track_is_opened_ends_no_more_than_that_track(self):
        self.track("a.wav", 4)
        for name in ("a.mp3", "a.ogg", "a.flac", "a.m4a", "b.wav"):
            self.run_tool("ffmpeg", "-v", "error", "-i", self.music / "a.wav", self.music / name)
        reached = threading.Event()

        def answer(handler, first):
            name, kind, place = handler.path.strip("/").split(",")
            content, place = (self.music / name).read_bytes(), int(place)
            lie = {"long": 100_000, "short": 3000 - len(content)}.get(kind, 0)
            if kind == "error" and first >= place or place < 0:
                reached.set()
                return handler.head(500) if kind == "error" else time.sleep(2)
            if kind == "blind":  # no length, no ranges: nothing tells that it is the same again
                handler.head(200)
                first = 0
            else:
                handler.head_from(first, len(content) + lie + first % 7 * (kind == "other"))
            if first < place:
                handler.wfile.write(content[first:place])
            reached.set()
            if kind in ("stall", "blind"):
                time.sleep(1)
            elif kind == "drip":
                for n in range(max(first, place), len(content)):
                    handler.wfile.write(content[n:n + 1])
                    time.sleep(0.01)
            elif kind != "cut":
                handler.wfile.write(content[max(first, place):])

        cells = list(itertools.product(
            ("a.wav", "a.mp3", "a.ogg", "a.flac", "a.m4a"),
            ("stall", "blind", "cut", "drip", "error", "long", "short", "other"),
            (-1, 0, 10, 200, 5000, 60_000)))
        dice = random.Random(4)
        self.start()
        with ScriptedServer(answer) as server:
            for cell in cells if "NUVIO_LONG" in os.environ else dice.sample(cells, 40):
                reached.clear()
                self.connect(server.url + ",".join(map(str, cell)), session=str(cell))
                reached.wait(1)
                time.sleep(0.26 + dice.random() / 10)  # four sessions a second are taken
                self.connect(self.music / "b.wav", session="b")
                time.sleep(0.26)
                self.assertIsNone(self.daemon.poll(), cell)
        self.play(self.music / "b.wav")

    def test_the_token_opens_its_endpoint_and_one_that_is_over_ends_the_session(self):
        source = self.track("1.wav", 2) + self.track("2.wav", 2, 2 * CD)
        self.start()
        self.play(self.web("1.wav", "2.wav") + "/asked/list.m3u")
        self.wait_for_end()
        self.assertTrue(self.played() == source)
        self.connect(self.server.url + "/refused/list.m3u")
        self.wait_for_log("its token is not accepted any more")
        self.wait_for_end()
        self.assertTrue(self.played() == source + source[:len(source) // 2])

    def encode(self, name, seconds, start=0, title=()):
        """The encoded bytes and what is heard of them."""
        self.track("encoded.wav", seconds, start)
        probe, file = program("network_probe"), self.music / name
        subprocess.run([*probe, "encode", self.music / "encoded.wav", file, *title], check=True)
        heard = subprocess.run([*probe, "decode", f"{self.server.url}/music/{name}"],
                               capture_output=True).stdout
        return file.read_bytes(), heard

    def radio(self, content, content_type, seconds):
        self.environment["NUVIO_NETWORK_PATIENCE_S"] = "30"
        radio = Radio(self.folder, content, content_type, len(content) // seconds)
        self.addCleanup(radio.end)
        self.start()
        wait_for("station", radio.is_on_air)
        return radio

    def heard_until_now(self):
        self.player("stop")
        wait_for("end of the recordings", lambda: not self.open_recordings())
        return self.played()

    def wait_for_title(self, title):
        wait_for(f"title {title}", lambda: self.player("metadata", "title") == title)

    def test_an_ogg_radio_plays_on_through_pieces_and_its_servers_death(self):
        self.web()
        pieces = [self.encode(f"{n}.ogg", 5, 5 * n * CD, [f"{n}"]) for n in range(4)]
        radio = self.radio(b"".join(content for content, _ in pieces[:3]), "application/ogg", 13)
        self.play(radio.url)
        self.wait_for_title("2")
        self.assertEqual(self.player("metadata", "artist"), "Band")
        self.wait_for_sound(self.position() + 1)
        radio.kill()
        radio.content += pieces[3][0]
        radio.start()
        self.wait_for_title("3")
        self.wait_for_sound(self.position() + 1)
        played = self.heard_until_now()
        for n, least in [(1, 5), (2, 1), (3, 1)]:
            at = played.find(pieces[n][1][:4096])
            same = os.path.commonprefix([played[at:], pieces[n][1]])
            self.assertTrue(at > 0 and len(same) >= least * 4 * CD, f"{n}: {len(same)} at {at}")

    def test_a_radio_plays_on_when_its_server_dies(self):
        self.web()
        content, source = self.encode("1.mp3", 40)
        radio = self.radio(content, "audio/mpeg", 35)
        radio.tell("Größe")
        self.play(radio.url)
        self.wait_for_title("Größe")
        self.assertEqual(self.player("metadata", "album"), "Station")
        self.assertIn(self.player("metadata", "mpris:length"), (None, "0", ""))
        before = self.position()
        self.player("position", "1")
        self.wait_for_sound(before + 1)
        radio.kill()
        time.sleep(1)
        radio.start()
        wait_for("station", radio.is_on_air)
        radio.tell("It's 2")
        self.wait_for_title("It's 2")
        self.wait_for_sound(self.position() + 2)
        played = self.heard_until_now()
        self.assertGreater(len(played), 4 * 4 * CD)
        # Decoders round by where they began: not every piece is the same to the bit.
        place, found, pieces = 0, 0, range(0, len(played) - 256, 1024)
        for at in pieces:
            there = source.find(played[at:at + 256], place)
            place, found = (there, found + 1) if there >= 0 else (place, found)
        self.assertTrue(found > 0.95 * len(pieces) or EMULATOR, f"{found} of {len(pieces)} pieces")

    @unittest.skipUnless(HAS_MODULE, "no libavformat for this machine")
    def test_a_radio_in_segments_plays_what_its_station_sends(self):
        self.track("a.wav", 60)
        station = subprocess.Popen(
            ["ffmpeg", "-v", "error", "-re", "-i", "a.wav", "-c:a", "aac", "-f", "hls", "-hls_time", "1",
             "-hls_list_size", "6", "live.m3u8"], cwd=self.music, stdin=subprocess.DEVNULL)
        self.addCleanup(self.end, station)
        url = self.web()
        wait_for("station", (self.music / "live4.ts").exists)
        self.start()
        self.play(f"{url}/music/live.m3u8")
        self.wait_for_sound(12)
        played = self.heard_until_now()

        def sent_from(first):
            names = "|".join(f"live{n}.ts" for n in range(first, 30) if (self.music / f"live{n}.ts").exists())
            return subprocess.run(["ffmpeg", "-v", "error", "-i", f"concat:{names}", "-f", "s16le", "-"],
                                  cwd=self.music, stdout=subprocess.PIPE, check=True).stdout

        self.assertGreater(len(played), 11 * 4 * CD)
        self.assertTrue(EMULATOR or any(sent_from(n).startswith(played) for n in range(1, 8)))
        self.assertEqual(self.log_count("left out") + self.log_count("unheard"), 0)

    def test_covers_are_shown_whatever_keeps_them(self):
        picture = b"\x89PNG\r\n\x1a\n" + bytes(range(256)) * 9
        (self.music / "cover.png").write_bytes(picture)
        (self.folder / "files").mkdir()
        song = self.folder / "files/song.flac"
        self.track("1.wav", 60)
        subprocess.run(["flac", "-s", "-0", f"--picture=3|image/png||1x1x24|{self.music}/cover.png",
                        "-o", song, self.music / "1.wav"], check=True)
        url = self.web("1.wav")
        elsewhere = f"http://localhost:{self.server.port}/cover.png"
        for title, image in [("asked", f"{url}/asked/cover.png"), ("elsewhere", elsewhere)]:
            (self.music / f"{title}.jspf").write_text(json.dumps({"playlist": {"track": [
                {"location": "1.wav", "title": title, "creator": "Band", "image": image}]}}))
        self.start()

        def shown(title):
            self.wait_for_title(title)
            return wait_for("cover", lambda: self.player("metadata", "mpris:artUrl"))

        for content, title in [(song, "song"), (url + "/asked/asked.jspf", "asked")]:
            self.connect(content)
            art = shown(title)
            self.assertTrue(art.startswith(f"file://{self.folder}/state/cover-"), art)
            self.assertEqual(pathlib.Path(art[7:]).read_bytes(), picture)
        self.assertEqual(self.player("metadata", "artist"), "Band")
        self.connect(url + "/asked/elsewhere.jspf")
        self.assertEqual(shown("elsewhere"), elsewhere)
        wait_for("no cover is left", lambda: not list((self.folder / "state").glob("cover-*")))

    def test_a_disk_that_hangs_silences_neither_the_next_session_nor_the_next_track(self):
        first, third = self.track("1.wav", 1), self.track("3.wav", 2, CD)
        self.track("2.wav", 1)
        good = self.folder / "good.wav"
        other = write_wav(good, signal_samples(3 * CD), CD)
        # Whoever opens a file that another process has leased waits, as on a disk that hangs.
        handler = signal.signal(signal.SIGIO, signal.SIG_IGN)
        self.addCleanup(signal.signal, signal.SIGIO, handler)
        with open(self.music / "2.wav", "r+b") as hung:
            fcntl.fcntl(hung, fcntl.F_SETLEASE, fcntl.F_WRLCK)
            self.start()
            self.play(self.music)
            wait_for("the track that hangs", lambda: self.log_count("Nothing else to play"))
            self.connect(good, session="second")
            wait_for("sound", lambda: len(self.recordings()) == 2 and not self.open_recordings())
            self.connect(self.music, session="third")
            wait_for("sound", lambda: len(self.recordings()) == 4 and not self.open_recordings())
            self.assertTrue([r.data for r in self.recordings()] == [first, other, first, third])
            self.assertLess(self.stop()[1], 10, "the end waits for the disk")
