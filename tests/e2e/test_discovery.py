"""The playing device on the network, while the Avahi daemon under it goes and comes back."""
import signal

from device import DeviceTest, program, signal_samples, wait_for, write_wav

CONTROLLER = program("nuvio-connect-controller")
NAME = "Bath & Böden."


class Discovery(DeviceTest):
    settings = {"host.friendly_name": NAME}

    def setUp(self):
        super().setUp()
        self.avahi = self.start_discovery()

    def found(self):
        return NAME in (self.run_tool(*CONTROLLER, "find", check=False) or "")

    def test_a_restarted_avahi_daemon_has_the_device_again_and_the_music_does_not_notice(self):
        write_wav(self.music / "long.wav", signal_samples(40 * 96000, 0, 96000, 3_000_000), 96000,
                  sample_bytes=3)
        self.start()
        wait_for("found", self.found)
        self.assertIn(f'"friendly_name":"{NAME}"', self.run_tool(*CONTROLLER, "find"))
        self.run_tool(*CONTROLLER, "connect", NAME, self.music)
        wait_for("sound", lambda: self.player("status") == "Playing" and self.position() > 0.2)
        self.assertIsNone(self.run_tool(*CONTROLLER, "connect", "Kitchen", "x", check=False))
        for end in signal.SIGKILL, signal.SIGTERM:
            self.avahi.send_signal(end)
            self.avahi.wait()
            self.avahi = self.start_own("avahi")
            wait_for("found again", self.found)
        self.assertEqual(self.player("status"), "Playing")
        self.assertEqual(self.recordings()[0].underruns, 0)
