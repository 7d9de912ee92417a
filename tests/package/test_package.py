"""The packages as a device has them: installed into a clean root, run there under the service's own
account without a service manager, and removed.
"""
import shutil
import signal
import socket
import subprocess

from root import (ALSA_CONFIG, BUILD, CARD, LINES_OF_CHECK, PATH, PATIENCE, ROOT, SETTINGS,
                  RootTest, findings, in_root, run, wait_for)

PACKAGES = ["nuvio-connect", "nuvio-connect-core-local", "nuvio-connect-host-linux",
            "nuvio-connect-tools", "nuvio-connect-controller", "nuvio-connect-core-ffmpeg"]
UNIT = "usr/lib/systemd/system/nuvio-connect.service"
ACCOUNT = ("--userspec=nuvio-connect:nuvio-connect", "--groups=audio")
NOTIFY = ROOT / "run/notify"
SERVICE = f"ALSA_CONFIG_PATH={ALSA_CONFIG}", "NOTIFY_SOCKET=/run/notify"


def setUpModule():
    run("ip", "link", "set", "lo", "up")
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "proc", "proc", ROOT / "proc")
    run("mount", "-t", "sysfs", "sysfs", ROOT / "sys")
    run("mount", "--rbind", "/dev", ROOT / "dev")
    run("mount", "-t", "tmpfs", "tmpfs", ROOT / "run")


class Installed(RootTest):
    def setUp(self):
        super().setUp()
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
                    ROOT / "usr/bin/nuvio-connect-controller",
                    *ROOT.glob("usr/lib/*/libnuvio_*.so.?"),
                    *ROOT.glob("usr/lib/*/nuvio-connect/simcard/*.so")]
        self.assertEqual(len(binaries), 8)
        for path in binaries:
            self.assertNotRegex(run("readelf", "-d", path).stdout, "RPATH|RUNPATH", path)
            self.assertFalse(str(BUILD.parents[1]).encode() in path.read_bytes(), path)
        self.assertIn("libnuvio_connect.so.1", run("readelf", "-d", binaries[0]).stdout)

    def test_3_the_unit_is_sound_and_lets_the_service_do_little(self):
        result = run("systemd-analyze", "verify", "--man=no", f"--root={ROOT}",
                     "nuvio-connect.service", "nuvio-connect-controller.service")
        self.assertNotIn("nuvio-connect", result.stderr)
        for unit in UNIT, UNIT.replace(".service", "-controller.service"):
            exposure = run("systemd-analyze", "security", "--offline=true", "--threshold=18",
                           "--no-pager", ROOT / unit)
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

    def test_6_a_controller_beside_it_finds_the_device(self):
        self.set_up_device()
        self.start_bus_and_avahi()
        self.start("nuvio-connect", options=ACCOUNT, variables=SERVICE)
        self.start("nuvio-connect-controller", "serve", "--music", "/srv/music", "--state", "/run/c")
        wait_for("the device, free", lambda: "free" in in_root(
            "nuvio-connect-controller", "devices", check=False).stdout)

    def test_7_a_device_makers_layers_take_the_place_of_both(self):
        maker = ROOT / "maker"
        (maker / "DEBIAN").mkdir(parents=True)
        self.addCleanup(shutil.rmtree, maker)
        (maker / "DEBIAN/control").write_text(
            "Package: maker-layers\nVersion: 1\nArchitecture: all\nMaintainer: m <m@localhost>\n"
            "Description: layers\nProvides: nuvio-connect-core, nuvio-connect-host\n")
        in_root("dpkg-deb", "-b", "/maker", "/maker.deb")
        self.addCleanup((ROOT / "maker.deb").unlink)
        in_root("dpkg", "-i", "/maker.deb")
        in_root("dpkg", "-r", *PACKAGES[1:3], PACKAGES[-1])
        self.assertEqual(in_root("dpkg", "--audit").stdout, "")

    def test_8_nothing_is_left_after_a_purge(self):
        in_root("dpkg", "-P", *PACKAGES)
        left = [path for pattern in ("etc/nuvio-connect*", "var/lib/nuvio-connect*",
                                     "usr/bin/nuvio*", "usr/lib/*/*nuvio*", "usr/share/*/*nuvio*",
                                     "etc/systemd/system/*/nuvio*", "usr/lib/systemd/system/nuvio*")
                for path in ROOT.glob(pattern)]
        self.assertEqual(left, [])
