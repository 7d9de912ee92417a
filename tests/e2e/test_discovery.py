"""The playing device on the network, while the Avahi daemon under it goes and comes back."""
import os
import pathlib
import signal
import subprocess
import unittest

from device import DeviceTest, signal_samples, wait_for, write_wav

FIND = pathlib.Path(__file__).parents[2] / "tools/find/find"
BUS_CONFIG = """<busconfig><type>system</type><listen>unix:path={bus}</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>"""
AVAHI_CONFIG = "[server]\nallow-interfaces=lo\n[publish]\npublish-workstation=no\n"
# Its run folder is its own, so that it may run beside the machine's.
AVAHI = ["unshare", "--mount", "sh", "-c",
         "mount -t tmpfs none /run && mkdir /run/avahi-daemon && exec avahi-daemon -f \"$0\" "
         "--no-drop-root --no-chroot --no-rlimits"]


class Discovery(DeviceTest):
    def setUp(self):
        super().setUp()
        if os.geteuid() != 0 or subprocess.run(["unshare", "--mount", "true"],
                                               capture_output=True).returncode != 0:
            self.skipTest("no mount namespaces here")
        (self.folder / "avahi.conf").write_text(AVAHI_CONFIG)
        (self.folder / "system.conf").write_text(BUS_CONFIG.format(bus=self.folder / "system"))
        system_bus = subprocess.Popen(["dbus-daemon", "--nofork", "--nopidfile",
                                       f"--config-file={self.folder}/system.conf"])
        self.addCleanup(self.end, system_bus)
        wait_for("system bus", (self.folder / "system").exists)
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.folder}/system"
        self.start_avahi()

    def start_avahi(self):
        self.avahi = subprocess.Popen([*AVAHI, self.folder / "avahi.conf"], env=self.environment,
                                      stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, self.avahi)

    def found(self):
        return "Kitchen" in (self.run_tool(FIND, check=False) or "")

    def test_a_restarted_avahi_daemon_has_the_device_again_and_the_music_does_not_notice(self):
        write_wav(self.music / "long.wav", signal_samples(40 * 96000, 0, 96000, 3_000_000), 96000,
                  sample_bytes=3)
        self.start()
        wait_for("found", self.found)
        self.play(self.music)
        for end in signal.SIGKILL, signal.SIGTERM:
            self.avahi.send_signal(end)
            self.avahi.wait()
            self.start_avahi()
            wait_for("found again", self.found)
        self.assertEqual(self.player("status"), "Playing")
        self.assertEqual(self.recordings()[0].underruns, 0)


if __name__ == "__main__":
    unittest.main()
