"""A root (NUVIO_ROOT) with the packages in it, and the device that runs there."""
import http.client
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import Recording, signal_samples, wait_for, write_wav  # noqa: E402

BUILD = pathlib.Path(os.environ["NUVIO_BUILD"])
ROOT = pathlib.Path(os.environ["NUVIO_ROOT"])
PATIENCE = 30  # s
RATE = 44100
PORT = 8000
STATE = "/var/lib/nuvio-connect"
CARD = f"{STATE}/card"
ALSA_CONFIG = f"{CARD}/asound.conf"
SETTINGS = ROOT / "etc/nuvio-connect/settings.conf"
PATH = "PATH=/usr/sbin:/usr/bin:/sbin:/bin"
LINES_OF_CHECK = ("settings", "output", "mixer", "bus", "avahi")


def run(*words, check=True):
    result = subprocess.run(words, text=True, capture_output=True, timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{words}: {result.stdout}{result.stderr}")
    return result


def in_root(*words, options=(), variables=(), check=True):
    return run("chroot", *options, ROOT, "env", "-i", PATH, *variables, *words, check=check)


def findings(check):
    """What each line of --check says of its subject."""
    return re.findall(r"(?m)^(\w+) +(\w+)", check.stdout)


class RootTest(unittest.TestCase):
    """Leaves the settings as they were packaged."""

    def setUp(self):
        self.packaged_settings = SETTINGS.read_text()
        self.addCleanup(self.restore_settings)

    def restore_settings(self):
        if SETTINGS.exists():
            SETTINGS.write_text(self.packaged_settings)

    def settings(self, **more):
        text = SETTINGS.read_text()
        for name, value in more.items():
            key = name.replace("__", ".")
            text = re.sub(rf"(?m)^#?{re.escape(key)} =.*$", f"{key} = {value}", text)
        SETTINGS.write_text(text)

    def set_up_device(self):
        """Settings, card and music, as a person sets a device up."""
        self.settings(feature__nuvio_connect__app_id="id", feature__nuvio_connect__app_secret="s",
                      host__allow_loopback=1)
        in_root("mkdir", "-p", STATE)
        in_root("simcardctl", "create", CARD, "--patient")
        in_root("chown", "-R", "nuvio-connect:nuvio-connect", STATE)
        with open(ROOT / ALSA_CONFIG[1:], "a") as config:
            config.write('pcm.default.hint { show on description "Simulated card" }\n')
        music = ROOT / "srv/music"
        music.mkdir(parents=True, exist_ok=True)
        self.expected = write_wav(music / "1.wav", signal_samples(2 * RATE), RATE)
        self.expected += write_wav(music / "2.wav", signal_samples(RATE, 2 * RATE), RATE)

    @staticmethod
    def request(method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=PATIENCE)
        try:
            connection.request(method, path, body)
            return connection.getresponse().status
        except OSError:
            return None
        finally:
            connection.close()

    def play_and_compare(self):
        wait_for("HTTP answers", lambda: self.request("GET", "/get-display-info") == 200)
        self.assertEqual(self.request("POST", "/connect-to-nconnect", json.dumps({
            "session_id": "s", "become_active": True,
            "jwt_api": {"endpoint": "/srv/music", "jwt": "a", "exp": 4102444800},
            "jwt_nconnect": {"endpoint": "", "jwt": "b", "exp": 4102444800}})), 200)
        recording = wait_for("recording of the session", self.finished_recording)
        self.assertEqual((recording.format, recording.rate, recording.underruns),
                         ("S16_LE", RATE, 0))
        self.assertTrue(recording.data == self.expected, "not the two tracks end to end")

    @staticmethod
    def finished_recording():
        """Of what was played; trying the card leaves empty ones."""
        for text in (ROOT / CARD[1:] / "recordings").glob("*.txt"):
            if "closed=1" in text.read_text() and "frames=0" not in text.read_text().split():
                return Recording(text)
        return None
