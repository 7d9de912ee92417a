"""The packages as a device has them: installed into a clean root, run there under the service's own
account without a service manager, and removed.
"""
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import Recording, own_device, signal_samples, wait_for, write_wav  # noqa: E402

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
PACKAGES = ["nuvio-connect", "nuvio-connect-core-local", "nuvio-connect-host-linux",
            "nuvio-connect-tools"]
UNIT = "usr/lib/systemd/system/nuvio-connect.service"
ACCOUNT = ("--userspec=nuvio-connect:nuvio-connect", "--groups=audio")
NOTIFY = ROOT / "run/notify"
SERVICE = f"ALSA_CONFIG_PATH={ALSA_CONFIG}", "NOTIFY_SOCKET=/run/notify"


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


def setUpModule():
    run("ip", "link", "set", "lo", "up")
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "proc", "proc", ROOT / "proc")
    run("mount", "-t", "sysfs", "sysfs", ROOT / "sys")
    run("mount", "--rbind", "/dev", ROOT / "dev")
    run("mount", "-t", "tmpfs", "tmpfs", ROOT / "run")


class Installed(unittest.TestCase):
    """Leaves the settings as they were packaged."""

    def setUp(self):
        self.packaged_settings = SETTINGS.read_text()
        self.addCleanup(self.restore_settings)
        self.children = []
        self.addCleanup(self.end_children)
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.manager.close)
        NOTIFY.unlink(missing_ok=True)
        self.manager.bind(str(NOTIFY))
        self.manager.settimeout(PATIENCE)
        NOTIFY.chmod(0o777)

    def start(self, *words, options=(), variables=()):
        child = subprocess.Popen(["chroot", *options, ROOT, "env", "-i", PATH, *variables, *words])
        self.children.append(child)
        return child

    def end_children(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
            child.wait(PATIENCE)

    def service(self, *words):
        return in_root("nuvio-connect", *words, options=ACCOUNT, variables=SERVICE, check=False)

    def start_bus_and_avahi(self):
        (ROOT / "run/dbus").mkdir(exist_ok=True)
        bus = ROOT / "run/dbus/system_bus_socket"
        bus.unlink(missing_ok=True)
        self.start("dbus-daemon", "--system", "--nofork", "--nopidfile")
        wait_for("system bus", bus.exists)
        self.start("avahi-daemon", "--no-rlimits", "--no-chroot", "--no-drop-root")
        wait_for("Avahi", lambda: "FAIL  avahi" not in self.service("--check").stdout)

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

    def answers(self):
        try:
            return own_device.request(PORT, "GET", "/get-display-info")[0] == 200
        except OSError:
            return False

    def play_and_compare(self):
        wait_for("HTTP answers", self.answers)
        self.assertEqual(own_device.connect(PORT, "/srv/music"), 200)
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

    # ---- Tests, in the order of their names: the last takes the packages off --------------------

    def test_1_files_are_where_they_belong_and_the_secret_is_kept(self):
        self.assertEqual(in_root("stat", "-c", "%U:%G:%a", "/etc/nuvio-connect/settings.conf")
                         .stdout.strip(), "root:nuvio-connect:640")
        self.assertIn("/etc/nuvio-connect/settings.conf", in_root(
            "dpkg-query", "-W", "-f=${Conffiles}", "nuvio-connect-host-linux").stdout)
        self.assertIn("audio", in_root("id", "-nG", "nuvio-connect").stdout.split())
        for path in ("usr/share/man/man8/nuvio-connect.8", UNIT,
                     "usr/share/dbus-1/system.d/nuvio-connect.conf",
                     "usr/share/bash-completion/completions/nuvio-connect"):
            self.assertTrue((ROOT / path).is_file(), path)
        self.assertTrue((ROOT / "etc/systemd/system/multi-user.target.wants/nuvio-connect.service")
                        .is_symlink(), "the unit is not enabled")

    def test_2_programs_name_their_libraries_and_nothing_of_the_machine_that_built_them(self):
        binaries = [ROOT / "usr/bin/nuvio-connect", ROOT / "usr/bin/simcardctl",
                    *ROOT.glob("usr/lib/*/libnuvio_*.so.?"),
                    *ROOT.glob("usr/lib/*/nuvio-connect/simcard/*.so")]
        self.assertEqual(len(binaries), 6)
        for path in binaries:
            self.assertNotRegex(run("readelf", "-d", path).stdout, "RPATH|RUNPATH", path)
            self.assertFalse(str(BUILD.parents[1]).encode() in path.read_bytes(), path)
        self.assertIn("libnuvio_connect.so.1", run("readelf", "-d", binaries[0]).stdout)

    def test_3_the_unit_is_sound_and_lets_the_service_do_little(self):
        result = run("systemd-analyze", "verify", "--man=no", f"--root={ROOT}",
                     "nuvio-connect.service")
        self.assertNotIn("nuvio-connect", result.stderr)
        exposure = run("systemd-analyze", "security", "--offline=true", "--threshold=18",
                       "--no-pager", ROOT / UNIT)
        print(exposure.stdout.splitlines()[-1])

    def test_4_check_says_what_is_missing_until_nothing_is(self):
        shutil.rmtree(ROOT / CARD[1:], ignore_errors=True)
        (ROOT / "run/dbus/system_bus_socket").unlink(missing_ok=True)
        result = self.service("--check")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(findings(result), [("FAIL", subject) for subject in LINES_OF_CHECK])
        self.set_up_device()
        self.start_bus_and_avahi()
        result = self.service("--check")
        self.assertEqual(findings(result), [("ok", subject) for subject in LINES_OF_CHECK])
        self.assertEqual(result.returncode, 0)
        self.assertRegex(self.service("--list-devices").stdout,
                         r"default\n +Simulated card\n(?s:.*)default\n +Master\n")

    def test_5_a_session_plays_bit_exactly_under_the_services_account(self):
        self.set_up_device()
        self.start_bus_and_avahi()
        daemon = self.start("nuvio-connect", options=ACCOUNT, variables=SERVICE)
        message = self.manager.recv(100)
        while message in (b"READY=1", b"STOPPING=1"):  # what the checks before have left
            message = self.manager.recv(100)
        self.assertEqual(message, b"READY=1\nSTATUS=Running")
        self.play_and_compare()
        daemon.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(PATIENCE), 0)
        self.assertEqual(self.manager.recv(100), b"STOPPING=1")

    def test_6_a_device_makers_layers_take_the_place_of_both(self):
        maker = ROOT / "maker"
        (maker / "DEBIAN").mkdir(parents=True)
        self.addCleanup(shutil.rmtree, maker)
        (maker / "DEBIAN/control").write_text(
            "Package: maker-layers\nVersion: 1\nArchitecture: all\nMaintainer: m <m@localhost>\n"
            "Description: layers\nProvides: nuvio-connect-core, nuvio-connect-host\n")
        in_root("dpkg-deb", "-b", "/maker", "/maker.deb")
        self.addCleanup((ROOT / "maker.deb").unlink)
        in_root("dpkg", "-i", "/maker.deb")
        in_root("dpkg", "-r", *PACKAGES[1:3])
        self.assertEqual(in_root("dpkg", "--audit").stdout, "")

    def test_7_nothing_is_left_after_a_purge(self):
        in_root("dpkg", "-P", *PACKAGES)
        left = [path for pattern in ("etc/nuvio-connect*", "var/lib/nuvio-connect*",
                                     "usr/bin/nuvio*", "usr/lib/*/*nuvio*", "usr/share/*/*nuvio*",
                                     "etc/systemd/system/*/nuvio*", "usr/lib/systemd/system/nuvio*")
                for path in ROOT.glob(pattern)]
        self.assertEqual(left, [])
