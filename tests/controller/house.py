"""A house of its own: two devices on simulated cards, a controller with music, and an Avahi daemon,
all of them real, on the loopback interface of this machine."""
import http.client
import json
import pathlib
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
import device as e2e  # noqa: E402
import music  # noqa: E402
from device import PATIENCE, WebServer, memory_of, wait_for  # noqa: E402, F401

SECONDS = 20  # of each track
SESAME = {"Authorization": "Basic eDpzZXNhbWU="}  # the password that some of the tests set
ALBUMS = [("Night Boats", "Ada Fern", (30, 90, 140)), ("Köln, früh", "Trio Laub", (150, 80, 30)),
          ("<script>alert(1)</script>", "<img src=x onerror=alert(2)>", (60, 120, 60))]


class Room(e2e.DeviceTest):
    """One device; its owner is another test. Its mixer has a step for every fifth percent."""

    card_options = ["--range", "0..20"]

    def runTest(self):
        """What a TestCase must have; never run."""

    def show_log_of_a_failure(self):
        """The owner shows it."""


class HouseTest(unittest.TestCase):
    rooms = ["Kitchen", "Attic"]
    options = []

    def setUp(self):
        self.devices = [self.make_room(name) for name in self.rooms]
        self.folder = self.devices[0].folder
        self.environment = self.devices[0].environment
        self.devices[0].start_discovery()
        for each in self.devices:
            each.environment["DBUS_SYSTEM_BUS_ADDRESS"] = self.environment["DBUS_SYSTEM_BUS_ADDRESS"]
        self.music = self.folder / "library"
        self.make_music()
        self.port = e2e.own_device.free_port()
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
        """Three albums of two tracks; played: what a card plays of each, by album and track."""
        self.played = {}
        for number, (album, artist, colour) in enumerate(ALBUMS):
            folder = self.music / f"{number}"
            folder.mkdir(parents=True)
            for track in range(2):
                flac, self.played[number, track] = music.encode(SECONDS, start=(number * 2 + track) * 50_000)
                (folder / f"{track}.flac").write_bytes(music.tagged(
                    flac, music.png(colour), title=f"{album} {track + 1}", artist=artist, album=album,
                    albumartist=artist, tracknumber=track + 1, date=2001 + number))

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
                               None if body is None else json.dumps(body), headers or {})
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

    def command(self, *words, check=True):
        """Output of the command line; None when it fails."""
        result = subprocess.run(
            [*e2e.program("nuvio-connect-controller"), *map(str, words)], text=True, capture_output=True,
            env=dict(self.environment, NUVIO_CONTROLLER=f"http://127.0.0.1:{self.port}"), timeout=60)
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

    def heard(self, device, number, track, seconds=2):
        """Whether a card's recordings have this much of a track from its beginning, bit for bit."""
        wanted = self.played[number, track][:int(seconds * 44100) * 4]
        return any(wanted in recording.data for recording in device.recordings())
