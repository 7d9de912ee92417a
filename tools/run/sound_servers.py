"""A PulseAudio or a PipeWire of one's own in a folder, with a null sink named "null", and the ALSA
configuration that makes it the default. For tests and the bench.

The plug-ins of PipeWire for ALSA, which Debian can't install beside PulseAudio's, are looked for in the
folder NUVIO_ALSA_PLUG_INS (build/sound-servers, made by ./dev sound-servers).
"""
import os
import pathlib
import subprocess
import time

PLUG_INS = pathlib.Path(os.environ.get("NUVIO_ALSA_PLUG_INS", "/nowhere"))


def before_others():
    """A machine's own server runs with real-time priority."""
    if os.geteuid() == 0:
        os.nice(-10)


# In us, as ALSA's own alsa.conf has it.
STOCK_PERIOD = 5000


class SoundServer:
    """Not running until start. `environment` is for its clients, too."""

    def __init__(self, folder, rate, sample_format="s16le", shortest_period=STOCK_PERIOD):
        self.folder, self.rate, self.sample_format = folder, rate, sample_format
        self.run_dir = folder / "run"
        self.run_dir.mkdir(mode=0o700)
        (folder / "asound.conf").write_text("".join(
            f'{kind}_type.{self.plug_in} {{ lib "{library}" }}\n' for kind in ("pcm", "ctl")
            for library in PLUG_INS.rglob(f"libasound_module_{kind}_{self.plug_in}.so")) +
            f"pcm.default {{ type {self.plug_in} }}\nctl.default {{ type {self.plug_in} }}\n" +
            f"defaults.pcm.minperiodtime {shortest_period}\n")
        self.environment = {"XDG_RUNTIME_DIR": str(self.run_dir),
                            "PULSE_SERVER": f"unix:{self.run_dir}/pulse/native",
                            "XDG_CONFIG_HOME": str(folder / "config"), "HOME": str(folder),
                            "ALSA_CONFIG_PATH": str(folder / "asound.conf")}
        self.processes = []

    def spawn(self, *command):
        with open(self.folder / "server.log", "ab") as log:
            self.processes.append(subprocess.Popen(
                command, env=dict(os.environ, **self.environment), stdout=log, stderr=log,
                preexec_fn=before_others))

    def pactl(self, *words):
        """Its output, or nothing when it fails."""
        result = subprocess.run(["pactl", *words], env=dict(os.environ, **self.environment),
                                text=True, capture_output=True, timeout=30)
        return result.stdout if result.returncode == 0 else ""

    def wait_for(self, text, *words):
        end = time.monotonic() + 30
        while text not in self.pactl(*words):
            if time.monotonic() > end:
                raise AssertionError(f"{self.plug_in}: no {text} in {words}")
            time.sleep(0.02)

    def signal(self, number):
        for process in self.processes:
            process.send_signal(number)

    def kill(self):
        for process in self.processes:
            process.kill()
            process.wait()
        self.processes = []


class PulseAudio(SoundServer):
    plug_in = "pulse"

    def start(self):
        (self.run_dir / "pulse").mkdir(exist_ok=True)
        self.spawn("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--use-pid-file=no",
                   "-L", f"module-native-protocol-unix socket={self.run_dir}/pulse/native",
                   "-L", f"module-null-sink sink_name=null rate={self.rate} "
                   f"format={self.sample_format} norewinds=1")
        self.wait_for("null", "list", "short", "sinks")


class PipeWire(SoundServer):
    """With its PulseAudio side, which pactl and parec use."""
    plug_in = "pipewire"

    def start(self):
        # At any other rate than the track's the server converts.
        rate = self.folder / "config/pipewire/pipewire.conf.d/rate.conf"
        rate.parent.mkdir(parents=True, exist_ok=True)
        rate.write_text(f"context.properties = {{ default.clock.rate = {self.rate} }}\n")
        for program in ("pipewire", "wireplumber", "pipewire-pulse"):
            self.spawn(program)
        self.wait_for("Server Name", "info")
        self.pactl("load-module", "module-null-sink", "sink_name=null", f"rate={self.rate}")
        self.pactl("set-default-sink", "null")
        self.wait_for("null", "list", "short", "sinks")
