"""What the service takes, measured inside the machine: its memory, threads' stacks, programs' sizes, its
start, and the processor's time. measure.py NANOSECONDS, of an instruction there, writes what table.py reads.

The time is that of the service's control group, the readers' and that in the kernel included: what a longer
track takes more than a shorter one, so without start and end.
"""
import json
import pathlib
import shutil
import subprocess
import sys
import time

SHARE = pathlib.Path("/srv/share")
sys.path[1:1] = [str(SHARE / part) for part in ("tests/cards", "bench", "tools/run")]
import lab  # noqa: E402
import memory  # noqa: E402
import own_device  # noqa: E402
import table  # noqa: E402
import test_vm  # noqa: E402

MUSIC = pathlib.Path("/srv/measured")  # the unit has temporary folders of its own
GROUP = pathlib.Path("/sys/fs/cgroup/system.slice/nuvio-connect.service")
SETTLED, FILLED, OVER = 5, 14, 4  # s after a start, until all that is read ahead is there, after the end
REST = 60  # s
STARTS = 5
TIMES = 3  # of each track: what else the service does meanwhile only adds
MB = 1024  # KiB
SERVER = "http://127.0.0.1:8001"
FULL = 100
ROWS = {  # What is played at which volume, which is one in software
    "WAV 44.1/16": (f"{MUSIC}/44100-16-{{}}.wav", FULL),
    "WAV 192/24": (f"{MUSIC}/192000-24-{{}}.wav", FULL),
    "FLAC 44.1/16": (f"{MUSIC}/44100-16-{{}}.flac", FULL),
    "FLAC 192/24": (f"{MUSIC}/192000-24-{{}}.flac", FULL),
    "WAV 44.1/16 over HTTP": (f"{SERVER}/44100-16-{{}}.wav", FULL),
    "WAV 44.1/16, volume in software at 50 %": (f"{MUSIC}/44100-16-{{}}.wav", 50),
}
PROGRAMS = ("usr/bin/nuvio-connect", "usr/lib/*/libnuvio_connect.so.1", "usr/lib/*/libnuvio_host.so.1",
            "usr/lib/*/libnuvio_connect_channel.so*", "usr/libexec/nuvio-connect/nuvio-connect-fetcher",
            "usr/libexec/nuvio-connect/nuvio-connect-reader")


def used_us():
    return int((GROUP / "cpu.stat").read_text().split()[1])


def is_open():
    """Asked of the driver: an answer of the service's would count."""
    return "closed" not in pathlib.Path("/proc/asound/Loop/pcm0p/sub0/status").read_text()


class Service:
    """Started anew."""

    def __init__(self):
        test_vm.run("systemctl", "restart", test_vm.UNIT)
        test_vm.wait("HTTP answers", test_vm.answers)
        self.pid = int(test_vm.state("MainPID")[0])
        time.sleep(SETTLED)

    def reading(self):
        reading = memory.Reading(self.pid)
        return {"resident": reading.resident / MB, "dirty": reading.dirty / MB, "stacks": reading.depths}

    def play(self, content, meanwhile=lambda: None):
        """The time it takes until it rests again."""
        before = used_us()
        status = own_device.connect(test_vm.PORT, content, content)
        assert status == 200, (content, status)
        test_vm.wait("the card opens", is_open)
        found = meanwhile()
        test_vm.wait("the card closes", lambda: not is_open())
        time.sleep(OVER)
        return used_us() - before, found

    def read_playing(self):
        time.sleep(FILLED)
        return self.reading()

    def row(self, content, volume):
        test_vm.run("nuvio-connect-panel", "volume", str(volume))
        seconds = table.SHORT, table.LONG
        self.play(content.format(seconds[0]))  # loads what is loaded once
        assert f"[{volume}%]" in test_vm.run("amixer", "-c", "Loop", "sget", "Nuvio")
        short = min(self.play(content.format(seconds[0]))[0] for _ in range(TIMES))
        runs = [self.play(content.format(seconds[1]), self.read_playing) for _ in range(TIMES)]
        long, playing = min(runs, key=lambda run: run[0])
        return {"playing": playing, "after": self.reading(), "us": (long - short) / (seconds[1] - seconds[0])}


def start():
    """Seconds and its processor's time until it answers, without the unit's walls; the unit is stopped."""
    begin = time.monotonic()
    with subprocess.Popen(["nuvio-connect"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as device:
        test_vm.wait("HTTP answers", test_vm.answers)
        took = time.monotonic() - begin, lab.cpu_ns(device.pid) / 1000
        device.terminate()
    return took


def measure(ns):
    test_vm.set_up("Loop")
    service = Service()
    before, idle = used_us(), service.reading()
    time.sleep(REST)
    result = {"ns": ns, "idle": idle, "rest_us": (used_us() - before) / REST, "rows": {}}
    for name, (content, volume) in ROWS.items():
        result["rows"][name] = Service().row(content, volume)
        print(name, result["rows"][name], flush=True)
    test_vm.run("systemctl", "stop", test_vm.UNIT)
    result["starts"] = [start() for _ in range(STARTS)]
    result["sizes"] = {path.name: path.stat().st_size / 1024 for pattern in PROGRAMS
                       for path in pathlib.Path("/").glob(pattern)}
    return result


def main():
    shutil.copytree(SHARE / "music/measured", MUSIC, dirs_exist_ok=True)
    server = subprocess.Popen(["busybox", "httpd", "-f", "-p", "8001", "-h", MUSIC])
    try:
        (SHARE / table.RESULT).write_text(json.dumps(measure(int(sys.argv[1]))))
    finally:
        server.kill()


if __name__ == "__main__":
    main()
