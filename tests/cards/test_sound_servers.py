"""The whole device on a sound server of its own, with a null sink whose monitor is recorded.

Needs NUVIO_BUILD, the build tree under test, and NUVIO_ALSA_PLUG_INS, a folder with PipeWire's
plug-ins for ALSA; ./dev sound-servers gives both.
"""
import os
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import DeviceTest, signal_samples, wait_for, write_wav  # noqa: E402

CD = 44100
PLUG_INS = pathlib.Path(os.environ.get("NUVIO_ALSA_PLUG_INS", "/nowhere"))


class SoundServer:
    """The cases; a class below for each server says how to start it."""

    def setUp(self):
        super().setUp()
        self.run_dir = self.folder / "run"
        self.run_dir.mkdir(mode=0o700)
        self.pulse = f"unix:{self.run_dir}/pulse/native"
        self.environment |= {"XDG_RUNTIME_DIR": str(self.run_dir), "PULSE_SERVER": self.pulse,
                             "XDG_CONFIG_HOME": str(self.folder / "config"),
                             "HOME": str(self.folder),
                             "ALSA_CONFIG_PATH": str(self.folder / "asound.conf")}
        (self.folder / "asound.conf").write_text(self.plug_ins() + (
            f"pcm.default {{ type {self.plug_in} }}\nctl.default {{ type {self.plug_in} }}\n"))
        self.start_server()

    def plug_ins(self):
        """Where those are that Debian's package can't install beside the other server's."""
        return "".join(f'{kind}_type.{self.plug_in} {{ lib "{library}" }}\n'
                       for kind in ("pcm", "ctl") for library in
                       PLUG_INS.rglob(f"libasound_module_{kind}_{self.plug_in}.so"))

    def spawn(self, *command):
        with open(self.folder / "server.log", "ab") as log:
            process = subprocess.Popen(command, env=self.environment, stdout=log, stderr=log)
        self.addCleanup(self.end, process)
        return process

    def pactl(self, *words, check=False):
        return self.run_tool("pactl", *words, check=check)

    def record(self):
        path = self.folder / "heard.raw"
        with open(path, "wb") as out:
            recorder = subprocess.Popen(
                ["parec", "--raw", "--device=null.monitor", "--format=s16le", f"--rate={CD}",
                 "--channels=2", "--latency-msec=500"], env=self.environment, stdout=out)
        self.addCleanup(self.end, recorder)
        wait_for("recorder", lambda: "Source Output #" in (self.pactl("list", "source-outputs") or ""))
        return path

    def test_two_tracks_come_out_end_to_end_bit_for_bit(self):
        seam = int(1.5 * CD) + 77
        expected = write_wav(self.music / "1.wav", signal_samples(seam), CD)
        expected += write_wav(self.music / "2.wav", signal_samples(CD, seam), CD)
        expected = expected.strip(b"\0")
        heard = self.record()
        self.start()
        self.connect(self.music)
        wait_for("both tracks, end to end", lambda: expected in heard.read_bytes())

    def test_volume_goes_both_ways(self):
        write_wav(self.music / "1.wav", signal_samples(20 * CD), CD)
        self.start()
        self.play(self.music)
        self.player("volume", "0.4")
        wait_for("sink at 40 %", lambda: " 40% " in (self.pactl("get-sink-volume", "null") or ""))
        self.pactl("set-sink-volume", "null", "70%")
        wait_for("player at 0.7", lambda: abs(float(self.player("volume")) - 0.7) < 0.015)

    def test_a_server_that_dies_ends_the_session_and_its_successor_plays_the_next(self):
        expected = write_wav(self.music / "1.wav", signal_samples(5 * CD), CD).strip(b"\0")
        self.start()
        self.play(self.music)
        self.kill_server()
        wait_for("stopped", lambda: self.player("status") == "Stopped")
        self.start_server()
        heard = self.record()
        self.connect(self.music, session="second")
        wait_for("all of the track", lambda: expected in heard.read_bytes())


class PulseAudio(SoundServer, DeviceTest):
    plug_in = "pulse"

    def start_server(self):
        (self.run_dir / "pulse").mkdir(exist_ok=True)
        self.server = self.spawn(
            "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
            "--disable-shm", "-L", f"module-native-protocol-unix socket={self.run_dir}/pulse/native",
            "-L", f"module-null-sink sink_name=null rate={CD} format=s16le norewinds=1")
        wait_for("sound server", lambda: "null" in (self.pactl("list", "short", "sinks") or ""))

    def kill_server(self):
        self.server.kill()
        self.server.wait()


class PipeWire(SoundServer, DeviceTest):
    """With its PulseAudio side, which pactl and parec use."""
    plug_in = "pipewire"

    def start_server(self):
        # At any other rate than the track's the server converts.
        rate = self.folder / "config/pipewire/pipewire.conf.d/rate.conf"
        rate.parent.mkdir(parents=True, exist_ok=True)
        rate.write_text(f"context.properties = {{ default.clock.rate = {CD} }}\n")
        self.server = [self.spawn("pipewire"), self.spawn("wireplumber"),
                       self.spawn("pipewire-pulse")]
        wait_for("sound server", lambda: self.pactl("info"))
        self.pactl("load-module", "module-null-sink", "sink_name=null", f"rate={CD}", check=True)
        self.pactl("set-default-sink", "null", check=True)
        wait_for("sink", lambda: "null" in (self.pactl("list", "short", "sinks") or ""))

    def kill_server(self):
        for process in self.server:
            process.kill()
            process.wait()


if __name__ == "__main__":
    unittest.main()
