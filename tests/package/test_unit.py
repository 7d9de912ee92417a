"""The unit under a systemd of its own, which runs as the first process of the root."""
import pathlib
import shutil
import subprocess

from root import ALSA_CONFIG, CARD, LINES_OF_CHECK, PATH, ROOT, RootTest, findings, run, wait_for

UNIT = "nuvio-connect"
DROP_IN = ROOT / "etc/systemd/system/nuvio-connect.service.d"

BOOT = f"""set -e
mount --make-rprivate /
mount --bind {ROOT} {ROOT}
cd {ROOT}
mount -t proc proc proc
mount -t sysfs sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs tmpfs dev
mkdir dev/pts dev/shm
for name in null zero full random urandom; do
    touch dev/$name
    mount --bind /dev/$name dev/$name
done
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp
mkdir run/old
pivot_root . run/old
umount -l /run/old
exec env -i container=other {PATH} /lib/systemd/systemd --log-target=journal
"""


def first_child(pid):
    children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return children[0] if children else None


class Unit(RootTest):
    @classmethod
    def setUpClass(cls):
        run("ip", "link", "set", "lo", "up")
        cls.unshare = subprocess.Popen(
            ["unshare", "--mount", "--pid", "--ipc", "--uts", "--cgroup", "--fork", "--kill-child",
             "sh", "-c", BOOT], stdin=subprocess.DEVNULL)
        cls.addClassCleanup(cls.power_off)
        cls.init = wait_for("first process", lambda: first_child(cls.unshare.pid))
        wait_for("start of the system", lambda: cls.systemctl(
            "is-active", "multi-user.target", check=False).stdout.strip() == "active")

    @classmethod
    def power_off(cls):
        cls.unshare.kill()
        cls.unshare.wait()

    @classmethod
    def inside(cls, *words, **more):
        return run("nsenter", "-t", cls.init, "-m", "-p", "-i", "-u", "-C",
                   "-r", "-w", "env", "-i", PATH, *words, **more)

    @classmethod
    def systemctl(cls, *words, **more):
        return cls.inside("systemctl", *words, **more)

    def state(self, *names):
        return [self.systemctl("show", UNIT, "-p", name, "--value").stdout.strip()
                for name in names]

    def setUp(self):
        super().setUp()
        self.set_up_device()
        DROP_IN.mkdir()
        self.addCleanup(shutil.rmtree, DROP_IN)
        (DROP_IN / "card.conf").write_text(f"[Service]\nEnvironment=ALSA_CONFIG_PATH={ALSA_CONFIG}\n")
        self.systemctl("daemon-reload")
        self.systemctl("reset-failed", UNIT)
        self.addCleanup(self.systemctl, "stop", UNIT)

    def test_it_plays_bit_exactly_with_few_rights(self):
        self.systemctl("restart", UNIT)
        self.play_and_compare()
        status = self.inside("cat", f"/proc/{self.state('MainPID')[0]}/status").stdout.split("\n")
        fields = dict(line.split(":\t", 1) for line in status if ":\t" in line)
        account = self.inside("id", "-u", UNIT).stdout.strip()
        self.assertEqual(set(fields["Uid"].split()), {account})
        self.assertEqual((int(fields["CapBnd"], 16), fields["NoNewPrivs"], fields["Seccomp"]),
                         (0, "1", "2"))
        self.systemctl("stop", UNIT)
        self.assertEqual(self.state("ActiveState", "Result"), ["inactive", "success"])

    def test_the_unit_sees_what_check_sees(self):
        check = self.inside("env", f"ALSA_CONFIG_PATH={ALSA_CONFIG}", "nuvio-connect", "--check")
        self.assertEqual(findings(check), [("ok", subject) for subject in LINES_OF_CHECK])

    def test_after_a_crash_it_is_back(self):
        self.systemctl("restart", UNIT)
        before = self.state("MainPID")
        self.systemctl("kill", "--kill-whom=main", "--signal=SEGV", UNIT)
        wait_for("another process", lambda: self.state("NRestarts", "ActiveState") ==
                 ["1", "active"])
        self.assertNotEqual(self.state("MainPID"), before)

    def test_switched_off_it_counts_as_started_and_ended(self):
        self.settings(feature__nuvio_connect=0)
        self.systemctl("restart", UNIT)  # fails where the start counts as failed
        wait_for("end", lambda: self.state("ActiveState") == ["inactive"])
        self.assertEqual(self.state("Result", "NRestarts"), ["success", "0"])

    def test_the_panel_is_for_root_and_those_of_the_sound(self):
        self.systemctl("restart", UNIT)
        wait_for("panel", lambda: self.inside("nuvio-connect-panel", "status",
                                              check=False).returncode == 0)
        as_nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups")
        with_sound = ("setpriv", "--reuid=nobody", "--regid=nogroup", "--groups=audio")
        self.assertNotEqual(self.inside(*as_nobody, "nuvio-connect-panel", "pause",
                                        check=False).returncode, 0)
        self.inside(*with_sound, "nuvio-connect-panel", "pause")
