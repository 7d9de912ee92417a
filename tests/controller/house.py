"""A house of its own: two devices on simulated cards, a controller with music, and an Avahi daemon,
all of them real, on the loopback interface of this machine."""
import functools
import http.client
import json
import pathlib
import signal
import struct
import subprocess
import sys
import unittest
import zlib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
import device as e2e  # noqa: E402
from device import PATIENCE, WebServer, memory_of, wait_for  # noqa: E402, F401
from own_device import free_port  # noqa: E402

SECONDS = 20  # of each track
SESAME = {"Authorization": "Basic eDpzZXNhbWU="}  # the password that some of the tests set
ALBUMS = [("Night Boats", "Ada Fern", (30, 90, 140)), ("Köln, früh", "Trio Laub", (150, 80, 30)),
          ("<script>alert(1)</script>", "<img src=x onerror=alert(2)>", (60, 120, 60))]
signal_samples = functools.lru_cache(e2e.signal_samples)  # each test plays the same


def png(colour, size=300):
    """A picture of one colour with a stripe, so that albums can be told apart."""
    row = b"".join(bytes(colour) if (x // 30) % 3 else bytes(255 - c for c in colour) for x in range(size))

    def chunk(name, body):
        return struct.pack(">I", len(body)) + name + body + struct.pack(">I", zlib.crc32(name + body))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress((b"\0" + row) * size, 9)) + chunk(b"IEND", b""))


class Room(e2e.DeviceTest):
    """One device; its owner is another test. Its mixer has a step for every fifth percent, and its
    card the buffer for a machine that does a house's work: all devices, the controller, a browser."""

    card_options = ["--range", "0..20", "--buffer", "1000"]


class HouseTest(unittest.TestCase):
    rooms = ["Kitchen", "Attic"]
    options = []

    def setUp(self):
        self.devices = [self.make_room(name) for name in self.rooms]
        self.folder = self.devices[0].folder
        self.environment = self.devices[0].environment
        self.avahi = self.devices[0].start_discovery()
        for each in self.devices:
            each.environment["DBUS_SYSTEM_BUS_ADDRESS"] = self.environment["DBUS_SYSTEM_BUS_ADDRESS"]
        self.music = self.folder / "library"
        self.make_music()
        self.port = free_port()
        self.log_path = self.folder / "controller.log"
        self.controller = None
        self.addCleanup(e2e.show_failure_of, self, self.log_path,
                        *(each.log_path for each in self.devices))
        self.addCleanup(self.stop_controller)

    def make_room(self, name):
        room = Room()
        room.settings = {"host.friendly_name": name, "host.model": name}
        self.addCleanup(room.doCleanups)
        room.setUp()
        return room

    def make_music(self):
        """Three albums of two tracks, one of them a file with a CUE sheet; played: what a card plays of
        each, by album and track."""
        self.played = {}
        for number, (album, artist, colour) in enumerate(ALBUMS):
            folder = self.music / f"{number}"
            folder.mkdir(parents=True)
            wav, cover = self.folder / "track.wav", self.folder / "cover"
            cover.write_bytes(png(colour))
            for track in range(2):
                samples = signal_samples(SECONDS * e2e.CD, (number * 2 + track) * 50_000)
                self.played[number, track] = e2e.write_wav(wav, samples, e2e.CD)
                tags = {"title": f"{album} {track + 1}", "artist": artist, "album": album, "albumartist": artist,
                        "tracknumber": track + 1, "date": 2001 + number, "genre": "Shanty", "composer": "Ida Quill"}
                if number == 1:
                    continue
                subprocess.run(["flac", "-s", f"--picture={cover}", *(f"-T{tag}={tags[tag]}" for tag in tags),
                                "-o", folder / f"{track}.flac", wav], check=True)
            if number == 1:
                samples = [signal_samples(SECONDS * e2e.CD, (2 + track) * 50_000) for track in range(2)]
                e2e.write_wav(wav, samples[0] + samples[1], e2e.CD)
                subprocess.run(["flac", "-s", f"--picture={cover}", "-TDATE=2002", "-o", folder / "0.flac", wav],
                               check=True)
                (folder / "0.cue").write_text(
                    f'PERFORMER "{artist}"\nTITLE "{album}"\nFILE "0.wav" WAVE\n' + "".join(
                        f'TRACK {track + 1} AUDIO\nTITLE "{album} {track + 1}"\n'
                        f'INDEX 01 00:{track * SECONDS}:00\n' for track in range(2)))

    # ---- The controller -----------------------------------------------------------------------

    def start_controller(self):
        with open(self.log_path, "ab") as log:
            self.controller = subprocess.Popen(
                [*e2e.program("nuvio-connect-controller"), "serve", "--music", self.music,
                 "--port", str(self.port), "--state", self.folder / "state-of-controller", *self.options],
                env=self.environment, stdout=log, stderr=log)
        wait_for("page", lambda: self.state() is not None)

    def stop_controller(self, how=signal.SIGTERM):
        if self.controller is not None:
            self.controller.send_signal(how)
            status = self.controller.wait(PATIENCE)
            self.controller = None
            log = self.log_path.read_text(errors="replace")
            self.assertNotRegex(log, e2e.SANITIZER)
            self.assertIn(status, (0, -signal.SIGKILL), log)

    def ask(self, path, body=None, headers=None, method=None):
        """Status, headers and body of the answer."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=PATIENCE)
        try:
            connection.request(method or ("GET" if body is None else "POST"), path,
                               None if body is None else json.dumps(body),
                               {**({} if body is None else {"Content-Type": "application/json"}), **(headers or {})})
            answer = connection.getresponse()
            return answer.status, dict(answer.getheaders()), answer.read()
        finally:
            connection.close()

    def state(self):
        try:
            status, _, body = self.ask("/api/state", headers=SESAME)
        except OSError:
            return None
        return json.loads(body) if status == 200 else None

    def shown(self, name):
        """What the controller says of a device; {} before it is known."""
        return next((each for each in self.state()["devices"] if each["name"] == name), {})

    def first_album(self):
        """What the API tells of it: its id, its tracks."""
        [album] = json.loads(self.ask("/api/library/albums?count=1", headers=SESAME)[2])["albums"]
        return json.loads(self.ask(f"/api/library/albums/{album['id']}", headers=SESAME)[2])

    def run_command(self, *words):
        return subprocess.run(
            [*e2e.program("nuvio-connect-controller"), *map(str, words)], text=True, capture_output=True,
            env=dict(self.environment, NUVIO_CONTROLLER=f"http://127.0.0.1:{self.port}"), timeout=60)

    def command(self, *words, check=True):
        """Output of the command line; None when it fails."""
        result = self.run_command(*words)
        if check and result.returncode != 0:
            raise AssertionError(f"{words}: {result.stdout}{result.stderr}")
        return result.stdout if result.returncode == 0 else None

    def start_all(self):
        for each in self.devices:
            each.start()
        self.start_controller()
        for name in self.rooms:
            wait_for(name, lambda name=name: self.shown(name).get("reach") == "reached")
        wait_for("library", lambda: self.state()["library"]["tracks"] == 2 * len(ALBUMS) and
                 not self.state()["library"]["scanning"])

    def assert_position(self, device, seconds):
        """What `seconds` tells is where the device is, however long asking takes."""
        before, told, after = device.position(), seconds(), device.position()
        self.assertTrue(before - 1 < told < after + 1, (before, told, after))

    def heard(self, device, number, track, seconds=2, since=None):
        """Whether a card's recordings have this much of a track from its beginning, bit for bit; `since`:
        the bytes of a recording, by its name, that were there before."""
        wanted = self.played[number, track][:int(seconds * e2e.CD) * 4]
        return any(wanted in recording.data[(since or {}).get(recording.name, 0):] for recording in device.recordings())
