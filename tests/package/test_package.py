"""The packages as a device has them: installed into a clean root, looked at there, and removed. That
they play, and the unit, are ./dev vm's.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "tools/run"))
import own_device  # noqa: E402
from own_device import PATIENCE  # noqa: E402

BUILD = pathlib.Path(os.environ["NUVIO_BUILD"])
ROOT = pathlib.Path(os.environ["NUVIO_ROOT"])
CARD = "/var/lib/nuvio-connect/card"
PATH = "PATH=/usr/sbin:/usr/bin:/sbin:/bin"
PACKAGES = ["nuvio-connect", "nuvio-connect-core-local", "nuvio-connect-core-ffmpeg",
            "nuvio-connect-host-linux", "nuvio-connect-reader", "nuvio-connect-tools",
            "nuvio-connect-controller", "nuvio-connect-dev"]
UNIT = "usr/lib/systemd/system/nuvio-connect.service"


def run(*words, check=True):
    result = subprocess.run(words, text=True, capture_output=True, timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{words}: {result.stdout}{result.stderr}")
    return result


def in_root(*words, options=(), variables=(), check=True):
    return run("chroot", *options, ROOT, "env", "-i", PATH, *variables, *words, check=check)


def setUpModule():
    run("ip", "link", "set", "lo", "up")
    run("mount", "--make-rprivate", "/")
    run("mount", "-t", "proc", "proc", ROOT / "proc")
    run("mount", "-t", "sysfs", "sysfs", ROOT / "sys")
    run("mount", "--rbind", "/dev", ROOT / "dev")
    run("mount", "-t", "tmpfs", "tmpfs", ROOT / "run")


class Installed(unittest.TestCase):
    # In the order of their names: the last takes the packages off.

    def test_1_files_are_where_they_belong_and_the_secret_is_kept(self):
        self.assertEqual(in_root("stat", "-c", "%U:%G:%a", "/etc/nuvio-connect/settings.conf")
                         .stdout.strip(), "root:nuvio-connect:640")
        self.assertIn("/etc/nuvio-connect/settings.conf", in_root(
            "dpkg-query", "-W", "-f=${Conffiles}", "nuvio-connect-host-linux").stdout)
        self.assertIn("audio", in_root("id", "-nG", "nuvio-connect").stdout.split())
        for path in ("usr/share/man/man8/nuvio-connect.8", UNIT,
                     "usr/share/dbus-1/system.d/nuvio-connect.conf",
                     "usr/share/bash-completion/completions/nuvio-connect",
                     "usr/lib/*/nuvio-connect/server_periods.conf"):
            self.assertTrue(list(ROOT.glob(path)), path)
        self.assertTrue((ROOT / "etc/systemd/system/multi-user.target.wants/nuvio-connect.service")
                        .is_symlink(), "the unit is not enabled")

    def test_2_programs_name_their_libraries_and_nothing_of_the_machine_that_built_them(self):
        binaries = [ROOT / "usr/bin/nuvio-connect", ROOT / "usr/bin/simcardctl",
                    ROOT / "usr/bin/nuvio-connect-controller",
                    *ROOT.glob("usr/libexec/nuvio-connect/*"),
                    *ROOT.glob("usr/lib/*/libnuvio_*.so.?.?.?"),
                    *ROOT.glob("usr/lib/*/nuvio-connect/**/*.so")]
        self.assertEqual(len(binaries), 15)
        for path in binaries:
            self.assertNotRegex(run("readelf", "-d", path).stdout, "RPATH|RUNPATH", path)
            self.assertFalse(str(BUILD.parents[1]).encode() in path.read_bytes(), path)
        self.assertIn("libnuvio_connect.so.1", run("readelf", "-d", binaries[0]).stdout)
        # What takes strangers' bytes apart is mended by the distribution, so it is not linked in.
        reader = ROOT / "usr/libexec/nuvio-connect/nuvio-connect-reader"
        self.assertIn("libexpat.so.1", run("readelf", "-d", reader).stdout)

    def test_3_the_unit_is_sound_and_lets_the_service_do_little(self):
        result = run("systemd-analyze", "verify", "--man=no", f"--root={ROOT}",
                     "nuvio-connect.service", "nuvio-connect@kitchen.service",
                     "nuvio-connect-controller.service")
        self.assertNotIn("nuvio-connect", result.stderr)
        self.assertIn("\nEnvironment=NUVIO_SETTINGS=/etc/nuvio-connect/%i.conf ",
                      (ROOT / UNIT.replace(".", "@.")).read_text())
        for unit in UNIT, UNIT.replace(".service", "-controller.service"):
            exposure = run("systemd-analyze", "security", "--offline=true", "--threshold=18",
                           "--no-pager", ROOT / unit)
            print(exposure.stdout.splitlines()[-1])

    def test_4_check_says_what_is_missing_and_the_packaged_card_is_one(self):
        words = ("nuvio-connect", "--check")
        account = ("--userspec=nuvio-connect:nuvio-connect", "--groups=audio")
        lines = re.findall(r"(?m)^(\w+) +(\w+)", in_root(*words, options=account, check=False).stdout)
        self.assertEqual(lines, [("FAIL", subject) for subject in
                                 ("settings", "output", "mixer", "bus", "avahi")])
        in_root("simcardctl", "create", CARD)
        self.addCleanup(shutil.rmtree, ROOT / CARD[1:])
        in_root("chown", "-R", "nuvio-connect", CARD)
        found = in_root(*words, options=account, variables=[f"ALSA_CONFIG_PATH={CARD}/asound.conf"],
                        check=False).stdout
        self.assertRegex(found, r"ok +output .*\nok +mixer ")

    def test_5_layers_built_on_the_installed_headers_hold_the_rules_and_the_service_plays_on_them(self):
        examples = ROOT / "usr/share/doc/nuvio-connect-dev/examples"
        build = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, build)
        run("cmake", "-S", examples, "-B", build, f"-DCMAKE_PREFIX_PATH={ROOT}/usr",
            *os.environ["NUVIO_CROSS"].split())
        run("cmake", "--build", build)
        # A device maker's package takes the place of both layers.
        maker = ROOT / "maker"
        libraries = maker / next(ROOT.glob("usr/lib/*/libnuvio_host.so.1")).parent.relative_to(ROOT)
        libraries.mkdir(parents=True)
        (maker / "DEBIAN").mkdir()
        self.addCleanup(shutil.rmtree, maker)
        (maker / "DEBIAN/control").write_text(
            "Package: maker-layers\nVersion: 1\nArchitecture: all\nMaintainer: m <m@localhost>\n"
            "Description: layers\nProvides: nuvio-connect-core, nuvio-connect-host\n")
        for library in ("libnuvio_connect.so.1", "libnuvio_host.so.1"):
            shutil.copy(build / library, libraries)
        in_root("dpkg-deb", "-b", "/maker", "/maker.deb")
        self.addCleanup((ROOT / "maker.deb").unlink)
        in_root("dpkg", "-r", "--force-depends", *PACKAGES[1:4])
        in_root("dpkg", "-i", "/maker.deb")
        self.assertEqual(in_root("dpkg", "--audit").stdout, "")
        for layer, library in (("core", "libnuvio_connect.so.1"), ("host", "libnuvio_host.so.1")):
            result = in_root("nuvio-connect-conformance", f"--{layer}",
                             f"/{libraries.relative_to(maker)}/{library}")
            self.assertIn("0 rules fail", result.stdout)
        self.play_a_session()
        in_root("dpkg", "-r", "--force-depends", "maker-layers")

    def play_a_session(self):
        in_root("simcardctl", "create", CARD)
        self.addCleanup(shutil.rmtree, ROOT / CARD[1:])
        service = subprocess.Popen(["chroot", ROOT, "env", "-i", PATH,
                                    f"ALSA_CONFIG_PATH={CARD}/asound.conf", "nuvio-connect"])
        self.addCleanup(service.kill)
        own_device.wait_for("HTTP answers", lambda: own_device.answers(8000, service))
        self.assertEqual(own_device.connect(8000, "tone"), 200)
        recordings = ROOT / CARD[1:] / "recordings"
        own_device.wait_for("a second of sound", lambda: any(
            raw.stat().st_size > 44100 * 4 for raw in recordings.iterdir()))
        self.assertEqual(own_device.end(service), 0)

    def test_6_nothing_is_left_after_a_purge(self):
        for made in "alsa.conf", "kitchen.alsa.conf":
            (ROOT / "etc/nuvio-connect" / made).write_text("# as --setup makes it\n")
        in_root("dpkg", "-P", *PACKAGES)
        left = [path for pattern in ("etc/nuvio-connect*", "var/lib/nuvio-connect*",
                                     "usr/bin/nuvio*", "usr/libexec/nuvio*", "usr/include/nuvio*", "usr/lib/*/*nuvio*", "usr/share/*/*nuvio*",
                                     "etc/systemd/system/*/nuvio*", "usr/lib/systemd/system/nuvio*")
                for path in ROOT.glob(pattern)]
        self.assertEqual(left, [])
