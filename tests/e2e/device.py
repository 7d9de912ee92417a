"""The whole device in a folder of its own: daemon, simulated card, message bus, music.

Everything is driven from outside, with the clients people use: curl's requests, playerctl, busctl,
amixer. The build tree under test is named by NUVIO_BUILD; NUVIO_EMULATOR is the command that runs
its programs when they are another machine's.
"""
import array
import contextlib
import math
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import wave

TREE = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TREE / "tools/run"), str(TREE / "tests")]
import own_device  # noqa: E402
from icecast import Radio  # noqa: E402, F401
from own_device import PATIENCE, wait_for  # noqa: E402,F401
from web_server import WebServer  # noqa: E402, F401

BUILD = pathlib.Path(os.environ["NUVIO_BUILD"])
EMULATOR = shlex.split(os.environ.get("NUVIO_EMULATOR", ""))
PANEL = TREE / "tools/panel/panel"
OWN_DAEMON = TREE / "tools/run/own_daemon.sh"
CD = 44100  # frames a second
SANITIZER = "(Thread|Address|Leak)Sanitizer|runtime error:"


def program(name):
    """The beginning of a command that runs a program of the build tree."""
    return [*EMULATOR, str(BUILD / "bin" / name)]


def signal_samples(frames, start=0, rate=44100, peak=12000):
    """Stereo samples of one endless signal that never repeats within a test."""
    samples = array.array("i")
    for n in range(start, start + frames):
        t = n / rate
        samples.append(int(peak * math.sin(2 * math.pi * (110 + 40 * t) * t)))
        samples.append(int(peak * math.sin(2 * math.pi * (333 + 17 * t) * t)))
    return samples


def write_wav(path, samples, rate, sample_bytes=2):
    """Writes stereo samples; returns the bytes that the card must play for them."""
    with wave.open(str(path), "wb") as out:
        out.setparams((2, sample_bytes, rate, 0, "NONE", ""))
        if sample_bytes == 2:
            played = array.array("h", samples).tobytes()
            out.writeframes(played)
        else:
            played = samples.tobytes()
            out.writeframes(b"".join((s & 0xFFFFFF).to_bytes(3, "little") for s in samples))
    return played


def show_failure_of(test, *logs):
    """The last lines of these files, where the test has failed, if it is one that is run."""
    result = test._outcome and test._outcome.result
    if result and any(each is test for each, _ in [*result.failures, *result.errors]):
        for log in filter(pathlib.Path.exists, logs):
            print(log, *log.read_text(errors="replace").splitlines()[-150:], sep="\n")


def memory_of(process, field="VmRSS"):
    """KiB of a running process."""
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    return int(re.search(rf"(?m)^{field}:\s+(\d+) kB$", status)[1])


class Recording:
    """What the card played between one opening and the next."""

    def __init__(self, text_path):
        self.name = text_path.stem
        fields = dict(re.findall(r"^(\w+)[ =:]+(\S+)", text_path.read_text(), re.M))
        self.format = fields["format"]
        self.rate = int(fields["rate"])
        self.underruns = int(fields["underruns"])
        self.data = text_path.with_suffix(".raw").read_bytes()


class DeviceTest(unittest.TestCase):
    """A device that is made anew for each test and taken apart afterwards, whatever happens."""

    card_options = []
    settings = {}

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="nuvio-e2e-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.music = self.folder / "music"
        self.music.mkdir()
        self.port = own_device.free_port()
        self.daemon = None
        self.environment = own_device.environment(
            self.folder, self.folder / "card/asound.conf", NUVIO_LOG_STDERR="1")
        self.environment["NUVIO_MUSIC_FOLDERS"] = str(self.folder)
        self.card("create", *self.card_options)
        self.start_bus()
        self.write_settings(**self.settings)
        self.log_path = self.folder / "daemon.log"
        self.addCleanup(self.end_daemon)

    # ---- Making and ending ------------------------------------------------------------------

    def start_bus(self):
        self.bus, _ = own_device.start_bus(self.folder)
        self.addCleanup(self.end, self.bus)

    end = staticmethod(own_device.end)

    def start_own(self, what):
        """A daemon of the machine's a second time: "system-bus" or, on that, "avahi"."""
        process = subprocess.Popen([OWN_DAEMON, what, self.folder], env=self.environment,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, process)
        if what == "system-bus":
            wait_for("system bus", (self.folder / what).exists)
            self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.folder}/{what}"
        return process

    def start_discovery(self):
        """A system bus and, which is returned, an Avahi daemon; skips the test where none can be."""
        if os.geteuid() != 0 or subprocess.run(["unshare", "--mount", "true"],
                                               capture_output=True).returncode != 0:
            self.skipTest("no mount namespaces here")
        self.start_own("system-bus")
        return self.start_own("avahi")

    def write_settings(self, **more):
        own_device.write_settings(self.folder, self.port,
                                  **{"host.friendly_name": "Kitchen", **more})

    def start(self, wait=True, player=True):
        with open(self.log_path, "ab") as log:
            self.daemon = subprocess.Popen(program("nuvio-connect"), env=self.environment,
                                           stdout=log, stderr=log, start_new_session=True)
        # Peers and other tests are other machines: they don't take the device's processor time.
        with contextlib.suppress(OSError):
            os.setpriority(os.PRIO_PROCESS, self.daemon.pid, -19)
            pathlib.Path(f"/proc/{self.daemon.pid}/autogroup").write_text("-19")  # of sessions, where the kernel has them
        if wait:
            wait_for("HTTP answers", self.answers)
            if player:
                wait_for("media player on the bus", lambda: self.player("status") is not None)

    def stop(self):
        """Ends the daemon as a service manager does; returns exit status and seconds it took."""
        begin = time.monotonic()
        self.daemon.send_signal(signal.SIGTERM)
        status = self.daemon.wait(PATIENCE)
        self.daemon = None
        return status, time.monotonic() - begin

    def end_daemon(self):
        """What is left of the device ends well too: here a sanitizer reports what it found."""
        try:
            if self.daemon is not None and self.daemon.poll() is None:
                self.assertEqual(self.stop()[0], 0, "the daemon did not end well")
            if self.log_path.exists():
                self.assertNotRegex(self.log(), SANITIZER)
        finally:
            if self.daemon is not None and self.daemon.poll() is None:
                self.daemon.kill()
                self.daemon.wait()
            show_failure_of(self, self.log_path)

    # ---- What people do ---------------------------------------------------------------------

    def track(self, name, seconds, start=0):
        """A piece of the signal among the music; the bytes that the card plays for it."""
        return write_wav(self.music / name, signal_samples(int(seconds * CD), start), CD)

    def run_tool(self, *command, check=True):
        result = subprocess.run([str(word) for word in command], env=self.environment, text=True,
                                capture_output=True, timeout=PATIENCE)
        if check and result.returncode != 0:
            raise AssertionError(f"{command}: {result.stdout}{result.stderr}")
        return result.stdout.strip() if result.returncode == 0 else None

    def card(self, verb, *words):
        return self.run_tool(*program("simcardctl"), verb, self.folder / "card", *words)

    def amixer(self, *words):
        config = self.folder / "card/asound-tools.conf"
        return self.run_tool("env", f"ALSA_CONFIG_PATH={config}", "amixer", *words)

    def player(self, *words):
        """Output of playerctl, or None when it fails."""
        return self.run_tool("playerctl", "-p", "nuvio_connect", *words, check=False)

    def wait_for_status(self, status):
        wait_for(f"status {status}", lambda: self.player("status") == status)

    def pause(self):
        pauses = self.log_count("Pausing playback")
        self.player("pause")
        self.wait_for_log("Pausing playback", pauses + 1)
        self.wait_for_status("Paused")

    def resume(self):
        self.player("play")
        self.wait_for_status("Playing")

    def request(self, method, path, body=None):
        return own_device.request(self.port, method, path, body)

    def answers(self):
        return own_device.answers(self.port, self.daemon)

    def connect(self, content, **how):
        return own_device.connect(self.port, content, **how)

    def play(self, content):
        self.assertEqual(self.connect(content), 200)
        wait_for("sound", lambda: self.player("status") == "Playing" and self.position() > 0.2)

    # ---- What there is to see ---------------------------------------------------------------

    def log(self):
        return self.log_path.read_text(errors="replace")

    def log_count(self, text):
        return self.log().count(text)

    def wait_for_log(self, text, count=1):
        wait_for(f"log: {text}", lambda: self.log_count(text) >= count)

    def is_sanitized(self):
        maps = pathlib.Path(f"/proc/{self.daemon.pid}/maps").read_text()
        return "libasan" in maps or "libtsan" in maps

    def position(self):
        return float(self.player("position") or 0)

    def recordings(self):
        return [Recording(path) for path in sorted((self.folder / "card/recordings").glob("*.txt"))]

    def played(self):
        """All that the card has played, end to end."""
        return b"".join(recording.data for recording in self.recordings())

    def wait_for_end(self, seconds=PATIENCE):
        """Until all has been heard: the card is drained and closed after the log says so."""
        wait_for("end of the session",
                 lambda: self.log_count("Nothing else to play, stopping playback"), seconds)
        wait_for("end of the recordings", lambda: not self.open_recordings(), seconds)

    def open_recordings(self):
        return [text for text in (self.folder / "card/recordings").glob("*.txt")
                if "closed=0" in text.read_text()]
