"""The whole device on a sound server of its own, with a null sink whose monitor is recorded.

Needs NUVIO_BUILD, the build tree under test, and NUVIO_ALSA_PLUG_INS, a folder with PipeWire's
plug-ins for ALSA; ./dev sound-servers gives both.
"""
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import DeviceTest, program, signal_samples, wait_for, write_wav  # noqa: E402

CD = 44100   # frames a second
FRAME = 4    # bytes
REPEATED = CD * FRAME // 50  # bytes of 20 ms
ENDING = 64 * FRAME
SIGNAL = signal_samples(40 * CD)
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
        """Starts a recording of what is heard; where it is written."""
        path = self.folder / "heard.raw"
        with open(path, "wb") as out:
            recorder = subprocess.Popen(
                ["parec", "--raw", "--device=null.monitor", "--format=s16le", f"--rate={CD}",
                 "--channels=2", "--latency-msec=10"], env=self.environment, stdout=out)
        self.addCleanup(self.end, recorder)
        wait_for("recorder", lambda: "Source Output #" in (self.pactl("list", "source-outputs") or ""))
        return path

    def track(self, name, begin, end):
        """Some seconds of the signal; the bytes to be heard."""
        return write_wav(self.music / name, SIGNAL[int(begin * CD) * 2:int(end * CD) * 2], CD)

    def begin(self, *lengths):
        """Plays tracks that follow each other in the signal; sets their bytes and the recording."""
        begin, self.source = 0, b""
        for length in lengths:
            self.source += self.track(f"{begin:02}.wav", begin, begin + length)
            begin += length
        self.heard = self.record()
        self.start()
        self.play(self.music)

    def place(self):
        """How many seconds of the signal have been heard: the end of the recording, in the source."""
        tail = self.heard.read_bytes()
        tail = tail[:len(tail) // FRAME * FRAME][-400 * FRAME:]
        at = self.source.find(tail)
        return at < 0 or not tail.strip(b"\0") or (at + len(tail)) / FRAME / CD

    def expect_all_heard(self, *parts):
        """These seconds of the signal, from ... to ..., one after the other, with silence between; at
        most 20 ms of it twice wherever it was cut."""
        heard = self.heard.read_bytes()
        at = 0
        for begin, end in parts or [(0, len(self.source) / FRAME / CD)]:
            place, end = int(begin * CD) * FRAME, int(end * CD) * FRAME
            first = place = len(self.source) - len(self.source[place:].lstrip(b"\0"))
            while place < end - ENDING:
                at = (len(heard) - len(heard[at:].lstrip(b"\0"))) // FRAME * FRAME
                piece = heard[at:at + 64 * FRAME]
                again = self.source.find(piece, max(first, place - REPEATED))
                if not piece or not first <= again <= place:
                    seen = self.source.find(piece) if piece else len(self.source)
                    self.fail(f"{(seen - place) / FRAME / CD:.3f} s are left out after "
                              f"{place / FRAME / CD:.3f} s of the signal")
                same = len(os.path.commonprefix([heard[at:], self.source[again:end]]))
                at, place = at + same, again + same

    def status(self, wanted):
        wait_for(wanted, lambda: self.player("status") == wanted)

    def pause(self):
        pauses = self.log_count("Pausing playback")
        self.player("pause")
        self.wait_for_log("Pausing playback", pauses + 1)
        self.status("Paused")

    def resume(self):
        self.player("play")
        self.status("Playing")

    # ---- The cases ---------------------------------------------------------------------------

    def test_two_tracks_come_out_end_to_end_bit_for_bit(self):
        told = subprocess.run([*program("nuvio-connect"), "--setup", "--card", "default"], text=True,
                              env=self.environment, stdout=subprocess.PIPE).stdout
        self.assertRegex(told, r"ok +output +.*'default_default' .* 192000 Hz, 24 bit; .*\nok +mixer ")
        seam = 1.5 + 77 / CD
        expected = (self.track("1.wav", 0, seam) + self.track("2.wav", seam, 2.5)).strip(b"\0")
        heard = self.record()
        self.start()
        self.connect(self.music)
        wait_for("both tracks, end to end", lambda: expected in heard.read_bytes())

    def test_pauses_lose_nothing(self):
        self.begin(4, 3)
        self.pause()
        self.resume()
        self.pause()
        self.resume()
        wait_for("the hand-over", lambda: self.place() > 3.7)
        self.pause()
        time.sleep(0.5)
        self.resume()
        wait_for("the last second", lambda: self.place() > 6.2)
        self.pause()
        self.resume()
        self.wait_for_end()
        self.expect_all_heard()

    def test_seek_next_and_stop(self):
        self.begin(20, 5, 5)
        self.player("position", "18")
        wait_for("seeked", lambda: self.place() > 18.2)
        self.pause()
        self.player("position", "10")
        self.resume()
        wait_for("seeked while paused", lambda: 10.2 < self.place() < 12)
        self.player("next")
        wait_for("the next track", lambda: 20.2 < self.place() < 22)
        self.assertLess(self.position(), 2)
        self.player("next")
        wait_for("the last track", lambda: self.place() > 25.2)
        self.pause()
        self.player("stop")
        self.status("Stopped")
        time.sleep(0.3)
        self.assertEqual(self.heard.read_bytes()[-CD:].strip(b"\0"), b"", "silence")

    def test_the_position_is_what_is_heard(self):
        self.begin(6, 6)
        errors = {}
        while self.place() < 11:
            at = self.place()
            if at is not True:
                errors[at] = self.position() + (6 if at > 6 else 0) - at
            time.sleep(0.1)
        print({round(at, 2): round(error, 3) for at, error in errors.items()})

    def test_volume_goes_both_ways(self):
        self.begin(20)
        self.player("volume", "0.4")
        wait_for("sink at 40 %", lambda: " 40% " in (self.pactl("get-sink-volume", "null") or ""))
        self.pactl("set-sink-volume", "null", "70%")
        wait_for("player at 0.7", lambda: abs(float(self.player("volume")) - 0.7) < 0.015)

    def test_a_server_that_is_killed_ends_the_session_or_is_replaced_during_a_pause(self):
        self.begin(8)
        self.kill_server()
        self.status("Stopped")
        self.start_server()
        self.heard = self.record()
        self.play(self.music)
        wait_for("sound", lambda: self.place() > 1)
        self.pause()
        self.kill_server()
        self.start_server()
        self.heard = self.record()
        self.resume()
        self.wait_for_end()
        self.assertIn(self.source[-5 * CD * FRAME:].strip(b"\0"), self.heard.read_bytes())

    def test_a_server_that_comes_late_plays_with_its_volume(self):
        self.kill_server()
        self.track("1.wav", 0, 20)
        self.start()
        self.connect(self.music)
        self.wait_for_log("Unable to open ALSA audio sink")
        self.start_server()
        self.play(self.music)
        self.player("volume", "0.4")
        wait_for("sink at 40 %", lambda: " 40% " in (self.pactl("get-sink-volume", "null") or ""))

    def test_a_server_that_hangs_holds_nothing_up(self):
        for verb in ("pause", "next", "stop", "volume"):
            with self.subTest(verb):
                self.begin(10, 10)
                self.signal_server(signal.SIGSTOP)
                self.player(verb, *["0.3"] * (verb == "volume"))
                time.sleep(0.5)
                begin = time.monotonic()
                self.assertTrue(self.answers())
                self.assertLess(time.monotonic() - begin, 1)
                status, seconds = self.stop()
                self.signal_server(signal.SIGCONT)
                self.assertEqual(status, 0)
                print(verb, seconds)


class PulseAudio(SoundServer, DeviceTest):
    plug_in = "pulse"

    def start_server(self):
        (self.run_dir / "pulse").mkdir(exist_ok=True)
        self.server = self.spawn(
            "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
            "--disable-shm", "-L", f"module-native-protocol-unix socket={self.run_dir}/pulse/native",
            "-L", f"module-null-sink sink_name=null rate={CD} format=s16le norewinds=1")
        wait_for("sound server", lambda: "null" in (self.pactl("list", "short", "sinks") or ""))

    def signal_server(self, number):
        self.server.send_signal(number)

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

    def signal_server(self, number):
        for process in self.server:
            process.send_signal(number)

    def kill_server(self):
        for process in self.server:
            process.kill()
            process.wait()


if __name__ == "__main__":
    unittest.main()
