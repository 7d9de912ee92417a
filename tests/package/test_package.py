"""The packages as a device has them: installed into a clean root (NUVIO_ROOT), run there under the
service's own account, and removed. Runs in namespaces of its own, made by whoever starts it.
"""
import http.client
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import stat
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import Recording, signal_samples, wait_for, write_wav  # noqa: E402

BUILD = pathlib.Path(os.environ["NUVIO_BUILD"])
ROOT = pathlib.Path(os.environ["NUVIO_ROOT"])
PATIENCE = 30  # s
PACKAGES = ["nuvio-connect", "nuvio-connect-core-local", "nuvio-connect-host-linux",
            "nuvio-connect-tools"]
RATE = 44100
PORT = 8000
ACCOUNT = ("--userspec=nuvio-connect:nuvio-connect", "--groups=audio")
CARD = "/var/lib/nuvio-connect/card"
SETTINGS = ROOT / "etc/nuvio-connect/settings.conf"


def command(*words, options=(), **variables):
    environment = [f"{name}={value}" for name, value in variables.items()]
    return ["chroot", *options, ROOT, "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
            *environment, *words]


def run(*words, check=True, **more):
    result = subprocess.run(command(*words, **more), text=True, capture_output=True,
                            timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{words}: {result.stdout}{result.stderr}")
    return result


def mount(*words):
    subprocess.run(["mount", *words], check=True)


def setUpModule():
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    mount("--make-rprivate", "/")
    mount("-t", "proc", "proc", ROOT / "proc")
    mount("-t", "sysfs", "sysfs", ROOT / "sys")
    mount("--rbind", "/dev", ROOT / "dev")
    mount("-t", "tmpfs", "tmpfs", ROOT / "run")


class Installed(unittest.TestCase):
    def settings(self, **more):
        text = SETTINGS.read_text()
        for name, value in more.items():
            key = name.replace("__", ".")
            text = re.sub(rf"(?m)^#?{re.escape(key)} =.*$", f"{key} = {value}", text)
        SETTINGS.write_text(text)

    def setUp(self):
        self.children = []
        self.addCleanup(self.end_children)
        self.packaged_settings = SETTINGS.read_text()
        self.addCleanup(self.restore_settings)

    def restore_settings(self):
        if SETTINGS.exists():
            SETTINGS.write_text(self.packaged_settings)

    def start(self, *words, **more):
        child = subprocess.Popen(command(*words, **more))
        self.children.append(child)
        return child

    def end_children(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
            child.wait(PATIENCE)

    def start_system(self):
        """What a machine runs beside the service."""
        (ROOT / "run/dbus").mkdir(exist_ok=True)
        (ROOT / "run/dbus/system_bus_socket").unlink(missing_ok=True)
        (ROOT / "run/dbus/pid").unlink(missing_ok=True)
        self.start("dbus-daemon", "--system", "--nofork", "--nopidfile")
        wait_for("system bus", (ROOT / "run/dbus/system_bus_socket").exists)
        self.start("avahi-daemon", "--no-rlimits", "--no-chroot", "--no-drop-root")
        wait_for("Avahi", lambda: "FAIL  avahi" not in self.check_service().stdout)

    def make_card(self):
        run("simcardctl", "create", CARD)
        run("chown", "-R", "nuvio-connect:nuvio-connect", "/var/lib/nuvio-connect")
        with open(ROOT / CARD[1:] / "asound.conf", "a") as config:
            config.write('pcm.default.hint { show on description "Simulated card" }\n')

    def check_service(self, *options):
        return run("nuvio-connect", *(options or ["--check"]), check=False, options=ACCOUNT,
                   ALSA_CONFIG_PATH=f"{CARD}/asound.conf")

    def request(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", PORT, timeout=PATIENCE)
        try:
            connection.request(method, path, body)
            return connection.getresponse().status
        finally:
            connection.close()

    def answers(self):
        try:
            return self.request("GET", "/get-display-info") == 200
        except OSError:
            return False

    # ---- Tests, in the order of their names: the last takes the packages off --------------------

    def test_1_files_are_where_they_belong_and_the_secret_is_kept(self):
        info = SETTINGS.stat()
        group = run("stat", "-c", "%U:%G:%a", "/etc/nuvio-connect/settings.conf").stdout.strip()
        self.assertEqual(group, "root:nuvio-connect:640")
        self.assertIn("/etc/nuvio-connect/settings.conf",
                      run("dpkg-query", "-W", "-f=${Conffiles}", "nuvio-connect-host-linux").stdout)
        self.assertIn("audio", run("id", "-nG", "nuvio-connect").stdout.split())
        self.assertTrue(stat.S_ISREG(info.st_mode))
        for path in ("usr/share/man/man8/nuvio-connect.8", "usr/lib/systemd/system/nuvio-connect.service",
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
            dynamic = subprocess.run(["readelf", "-d", path], text=True, capture_output=True,
                                     check=True).stdout
            self.assertNotRegex(dynamic, "RPATH|RUNPATH", path)
            self.assertFalse(str(BUILD.parents[1]).encode() in path.read_bytes(), path)
        self.assertIn("libnuvio_connect.so.1", subprocess.run(
            ["readelf", "-d", binaries[0]], text=True, capture_output=True).stdout)
        for package in PACKAGES[1:]:
            depends = run("dpkg-query", "-W", "-f=${Depends}", package).stdout
            self.assertIn("libc6 (>=", depends, package)

    def test_3_the_unit_is_sound_and_lets_the_service_do_little(self):
        unit = "usr/lib/systemd/system/nuvio-connect.service"
        result = subprocess.run(["systemd-analyze", "verify", "--man=no", f"--root={ROOT}",
                                 "nuvio-connect.service"], text=True, capture_output=True)
        # The root has no units of systemd's own, so only what the unit itself says counts.
        self.assertNotRegex(result.stderr, r"nuvio-connect\.service:\d+")
        result = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=20",
                                 "--no-pager", ROOT / unit], text=True, capture_output=True)
        print(result.stdout.splitlines()[-1] if result.stdout else result.stderr)
        self.assertEqual(result.returncode, 0, "more than 2.0 exposed")

    def test_4_check_says_what_is_missing_until_nothing_is(self):
        shutil.rmtree(ROOT / CARD[1:], ignore_errors=True)
        result = self.check_service()
        self.assertEqual(result.returncode, 1)
        self.assertEqual(re.findall(r"(?m)^(\w+) +(\w+)", result.stdout),
                         [("FAIL", subject) for subject in
                          ("settings", "output", "mixer", "bus", "avahi")], result.stdout)

        self.settings(feature__nuvio_connect__app_id="id", feature__nuvio_connect__app_secret="s")
        self.make_card()
        self.start_system()
        result = self.check_service()
        self.assertEqual(re.findall(r"(?m)^(\w+) +(\w+)", result.stdout),
                         [("ok", subject) for subject in
                          ("settings", "output", "mixer", "bus", "avahi")], result.stdout)
        self.assertEqual(result.returncode, 0)
        self.assertRegex(self.check_service("--list-devices").stdout,
                         r"default\n +Simulated card\n(?s:.*)default\n +Master\n")

    def test_5_a_session_plays_bit_exactly_under_the_services_account(self):
        self.settings(feature__nuvio_connect__app_id="id", feature__nuvio_connect__app_secret="s",
                      host__allow_loopback=1, alsa__output_device="default")
        self.make_card()
        self.start_system()
        music = ROOT / "srv/music"
        music.mkdir(parents=True, exist_ok=True)
        expected = write_wav(music / "1.wav", signal_samples(2 * RATE), RATE)
        expected += write_wav(music / "2.wav", signal_samples(RATE, 2 * RATE), RATE)
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        (ROOT / "run/notify").unlink(missing_ok=True)
        manager.bind(str(ROOT / "run/notify"))
        manager.settimeout(PATIENCE)
        (ROOT / "run/notify").chmod(0o777)

        daemon = self.start("nuvio-connect", options=ACCOUNT, NOTIFY_SOCKET="/run/notify",
                            ALSA_CONFIG_PATH=f"{CARD}/asound.conf")
        self.assertEqual(manager.recv(100), b"READY=1")
        wait_for("HTTP answers", self.answers)
        wait_for("device on the system bus", lambda: "org.nuvioconnect.Host1" in run(
            "dbus-send", "--system", "--print-reply", "--dest=org.freedesktop.DBus", "/",
            "org.freedesktop.DBus.ListNames").stdout)
        self.assertEqual(self.request("POST", "/connect-to-nconnect", json.dumps({
            "session_id": "s", "become_active": True,
            "jwt_api": {"endpoint": "/srv/music", "jwt": "a", "exp": 4102444800},
            "jwt_nconnect": {"endpoint": "wss://x/", "jwt": "b", "exp": 4102444800}})), 200)
        recording = wait_for("recording of the session", self.finished_recording)
        self.assertEqual((recording.format, recording.rate, recording.underruns),
                         ("S16_LE", RATE, 0))
        self.assertTrue(recording.data == expected, "not the two tracks end to end")

        daemon.send_signal(signal.SIGTERM)
        self.assertEqual(daemon.wait(PATIENCE), 0)
        self.assertEqual(manager.recv(100), b"STOPPING=1")

    @staticmethod
    def finished_recording():
        """Of what was played; trying the card leaves empty ones."""
        for text in (ROOT / CARD[1:] / "recordings").glob("*.txt"):
            if "closed=1" in text.read_text() and "frames=0" not in text.read_text().split():
                return Recording(text)
        return None

    def test_6_switched_off_the_service_ends_well_also_for_a_manager_that_waits(self):
        self.settings(feature__nuvio_connect=0)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            (ROOT / "run/notify").unlink(missing_ok=True)
            manager.bind(str(ROOT / "run/notify"))
            (ROOT / "run/notify").chmod(0o777)
            manager.settimeout(PATIENCE)
            self.assertEqual(run("nuvio-connect", options=ACCOUNT,
                                 NOTIFY_SOCKET="/run/notify").returncode, 0)
            self.assertEqual(manager.recv(100), b"READY=1\nSTOPPING=1")

    def test_7_a_device_makers_layers_take_the_place_of_both(self):
        maker = ROOT / "maker"
        (maker / "DEBIAN").mkdir(parents=True)
        self.addCleanup(shutil.rmtree, maker)
        (maker / "DEBIAN/control").write_text(
            "Package: maker-layers\nVersion: 1\nArchitecture: all\nMaintainer: m <m@localhost>\n"
            "Description: layers\nProvides: nuvio-connect-core, nuvio-connect-host\n")
        run("dpkg-deb", "-b", "/maker", "/maker.deb")
        run("dpkg", "-i", "/maker.deb")
        self.addCleanup((ROOT / "maker.deb").unlink)
        run("dpkg", "-r", *PACKAGES[1:3])
        self.assertEqual(run("dpkg", "--audit").stdout, "")

    def test_8_nothing_is_left_after_a_purge(self):
        run("dpkg", "-P", *PACKAGES)
        left = [path for pattern in ("etc/nuvio-connect*", "var/lib/nuvio-connect*", "usr/bin/nuvio*",
                                     "usr/lib/*/libnuvio*", "usr/lib/*/nuvio-connect*",
                                     "etc/systemd/system/*/nuvio*", "usr/share/doc/nuvio*")
                for path in ROOT.glob(pattern)]
        self.assertEqual(left, [])


if __name__ == "__main__":
    unittest.main()
