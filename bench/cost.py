#!/usr/bin/env python3
"""What the device costs in instructions, free of the machine's noise: cost.py BUILD [--accept] [NAME...]

Called by ./dev cost. Counts by callgrind, the daemon's, its readers' and its fetcher's together: a second of
each kind of audio (a longer run less a shorter one, so without start and end), a minute of rest, and a start
to the first answer. Compares with bench/cost.txt and exits with 1 where a row has risen by more than it may;
--accept writes that file anew, for the commit that makes a row dearer and says why. NAME: only these rows.

The daemon's clock is bench/stepped_clock.cpp's, and the network waits for it too (bench/counted.cpp), so two
runs differ by 0.1 %, a start, in which other processes have their say, by 0.5.
"""
import argparse
import concurrent.futures
import os
import pathlib
import platform
import re
import struct
import subprocess
import sys

from lab import Device, Lab, family, one_second, own_device, to_flac, wait_for, write_wav
from web_server import WebServer

KEPT = pathlib.Path(__file__).resolve().parent / "cost.txt"
MOST = 2  # %, by which a row may rise
# ... and by so many instructions: at rest next to nothing is done, and a word of the bus or of Avahi, which
# come when they come, is more than 2 % of that. A timer of once a second costs more than this.
BESIDES = {"a minute of rest": 80_000}
# ... where a library is not of the version that the file names: what a point release of Debian's changes
# is nobody's commit.
MOST_ELSEWHERE = 5
TRIES = 3  # of a row that has risen: what comes from outside, or on a busy machine, only adds
PACKAGES = ("g++-12 libc6 libstdc++6 valgrind flac libasound2 libavahi-client3 libcivetweb1 libcjson1 libcurl4 "
            "libdbus-1-3 libflac12 libmd0 libsndfile1 libsoxr0 libssl3 libsystemd0 libtag1v5 libuv1 libwebsockets17").split()
CARD = ("--buffer", "1000", "--patient")
# Of the processor valgrind shows what it always shows where there is AVX2. By that, libc would copy with
# one instruction that is counted once a byte.
PINNED = {"GLIBC_TUNABLES": "glibc.cpu.hwcaps=-ERMS,-FSRM"}
REST, SECOND = 60, 1_000_000_000  # s, ns
CD, HI_RES = (44100, 16), (192000, 24)


# ---- Counting -----------------------------------------------------------------------------------


def callgrind(out, *options):
    """Threads take turns, and addresses are the same each time."""
    return ["setarch", "-R", "valgrind", "-q", "--tool=callgrind", "--fair-sched=yes",
            f"--callgrind-out-file={out}", *options]


def total(path):
    """The instructions of a process that has ended; none yet while it runs."""
    found = re.search(r"^totals: (\d+)", path.read_text(errors="replace"), re.M)
    return int(found[1]) if found else None


class Counted(Device):
    """The daemon, whose clock goes on in steps: the next one once it, its readers and whoever serves it
    are all asleep, so nothing depends on how fast the machine is."""

    MOST_NS, PATIENCE_NS = SECOND, 300 * SECOND  # of a step, and of all for one wish

    def __init__(self, lab, card, wrapper, environment, others):
        super().__init__(lab, card, wrapper)
        self.steps, self.clock = self.folder / "steps", self.folder / "clock"
        os.mkfifo(self.steps)
        self.environment = environment | {"NUVIO_STEPS": str(self.steps), "NUVIO_NOW": str(self.clock)}
        self.others = others

    def __enter__(self):
        super().__enter__()
        self.pipe = open(self.steps, "wb", buffering=0)
        self.step()
        return self

    def __exit__(self, *error):
        if hasattr(self, "pipe"):
            self.pipe.close()
        super().__exit__(*error)

    def answers(self):
        """Asks once, when it listens, is advertised and has nothing else to do."""
        if self.lab.discovery and "entry group state changed: ESTABLISHED" not in self.log_text():
            return False
        listens = re.search(rf"^ *\d+: \w+:{self.port:04X} \w+:\w+ 0A", pathlib.Path(
            f"/proc/{self.pid}/net/tcp").read_text() + pathlib.Path(f"/proc/{self.pid}/net/tcp6").read_text(), re.M)
        return listens and self.is_quiet() and super().answers()

    def asleep(self):
        """How often each thread has gone to sleep; none where one of them is awake."""
        switches = {}
        for pid in (*family(self.pid), self.bus.process.pid, *self.others):
            for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
                status = (task / "status").read_text()
                if not re.search("^State:\t[SZ]", status, re.M):
                    return None
                switches[task.name] = re.findall(r"^\w*voluntary_ctxt_switches:\t(\d+)", status, re.M)
        return switches

    def is_quiet(self):
        """Who sleeps, and did not wake until all had been looked at, slept at the same time."""
        try:
            switches = self.asleep()
            return switches is not None and switches == self.asleep()
        except OSError:
            return False  # one has just ended

    def settle(self):
        wait_for("end of all work", self.is_quiet, 120, 0.0005)

    def now(self):
        """As the last step left it, in ns."""
        return int.from_bytes(self.clock.read_bytes(), "little")

    def step(self, until=0, mark=0):
        """To the next time that is waited for, or until then where nobody waits."""
        self.settle()
        self.pipe.write(struct.pack("qq", until, mark))
        self.settle()
        return self.now()

    def step_to(self, end):
        while self.step(end) < end:
            pass

    def step_while(self, goes_on):
        latest = self.now() + self.PATIENCE_NS
        while goes_on():
            if self.step(self.now() + self.MOST_NS) > latest:
                raise AssertionError(f"not over in time:\n{self.log_text()[-2000:]}")


class Run:
    """A device under callgrind, from its start to its end."""

    def __init__(self, lab, work, others=()):
        self.folder = folder = lab.new_folder("callgrind")
        counted = lab.build / "lib/libbench_counted.so"
        for name in ("nuvio-connect-reader", "nuvio-connect-fetcher"):
            # It gets nobody's environment; the empty file says that there is one more to wait for.
            wrapped = folder / name
            wrapped.write_text(f"""#!/bin/sh
: >{folder}/reader.$$
export {" ".join(f"{name}={value}" for name, value in PINNED.items())}
LD_PRELOAD={counted} exec {" ".join(callgrind(f"{folder}/reader.%p"))} {lab.build / "bin" / name} "$@"
""")
            wrapped.chmod(0o755)
        environment = {"LD_PRELOAD": str(counted), "NUVIO_READERS": str(folder), "NUVIO_READER_UNFILTERED": "1",
                       **PINNED}
        marks = ("--zero-before=cost_begins", "--dump-before=cost_ends")
        with Counted(lab, lab.card(*CARD), callgrind(folder / "daemon", *marks), environment, others) as device:
            work(device)
            device.step(mark=2)

    def daemon(self):
        """The instructions from the first mark, or the start, to the second."""
        return total(self.folder / "daemon.1")

    def readers(self):
        return sum(wait_for(f"count of {path.name}", lambda: total(path)) for path in self.folder.glob("reader.*"))


class Track:
    """A second of audio, played as it is heard. Of the daemon it is counted in the middle of a track; of
    the others, which are ahead of what is heard, as what a longer track takes more than a shorter one."""

    FROM, SHORT = 5, 10

    def __init__(self, format, suffix, seconds, is_remote=False):
        self.format, self.suffix, self.seconds, self.is_remote = format, suffix, seconds, is_remote

    def content(self, lab, server, seconds):
        path = lab.new_folder("track") / "track.wav"
        write_wav(path, one_second(*self.format), *self.format, seconds)
        path = to_flac(path) if self.suffix == ".flac" else path
        return f"{server.url}/{path.relative_to(lab.folder)}" if self.is_remote else path

    def run(self, lab, server, seconds, is_counted=False):
        content = self.content(lab, server, seconds)

        def play(device):
            own_device.connect(device.port, content)
            if is_counted:
                device.step_to(device.now() + self.FROM * SECOND)
                device.step_to(device.step(mark=1) + self.seconds * SECOND)
                device.step(mark=2)
            device.step_while(lambda: not device.is_over())
        return Run(lab, play, [server.process.pid] if self.is_remote else [])

    def __call__(self, lab, server):
        length = self.FROM + self.seconds + 5
        short, long = self.run(lab, server, self.SHORT), self.run(lab, server, length, is_counted=True)
        return long.daemon() / self.seconds + (long.readers() - short.readers()) / (length - self.SHORT)


def rest(lab, _):
    def wait(device):
        device.step_to(device.step(mark=1) + REST * SECOND)
    return Run(lab, wait).daemon()


def start(lab, _):
    return Run(lab, lambda device: None).daemon()


ROWS = {
    "WAV 44.1/16": Track(CD, ".wav", 40),
    "WAV 192/24": Track(HI_RES, ".wav", 40),
    "FLAC 44.1/16": Track(CD, ".flac", 10),
    "FLAC 192/24": Track(HI_RES, ".flac", 10),
    # Two times in which three quarters of the read-ahead are used up, from the middle of one on.
    "WAV 44.1/16 over HTTP": Track(CD, ".wav", 36, is_remote=True),
    "a minute of rest": rest,
    "a start": start,
}


def measure(lab, names):
    """Instructions by row."""
    server = WebServer(str(lab.new_folder("web")), root=str(lab.folder))
    lab.stack.callback(server.kill)
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        return dict(zip(names, pool.map(lambda name: round(ROWS[name](lab, server)), names)))


# ---- The file -----------------------------------------------------------------------------------


def circumstances():
    """What changes the figures besides commits: versions, and the processor that valgrind shows."""
    listed = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *PACKAGES], text=True,
                            capture_output=True).stdout.splitlines()
    flags = pathlib.Path("/proc/cpuinfo").read_text()
    return [*listed, f"processor: {platform.machine()}{', AVX2' if ' avx2 ' in flags else ''}"]


def read_kept():
    """Figures by row, and their circumstances."""
    figures, others = {}, []
    for line in KEPT.read_text().splitlines() if KEPT.exists() else []:
        if line.startswith("#   "):
            others.append(line[4:])
        elif not line.startswith("#"):
            name, figure = line.rsplit(maxsplit=1)
            figures[name] = int(figure)
    return figures, others


def write_kept(figures):
    KEPT.write_text("\n".join([
        "# Instructions, written by ./dev cost --accept and compared with by ./dev cost. Counted with",
        *(f"#   {each}" for each in circumstances()),
        *(f"{name:<24}{figure:>12}" for name, figure in figures.items()), ""]))


def is_risen(name, figure, kept, most):
    """By more than `most` %, or it is not in the file."""
    return figure > kept.get(name, 0) * (1 + most / 100) + BESIDES.get(name, 0)


def say(figures, kept, risen):
    for name, figure in figures.items():
        change = 100 * (figure / kept[name] - 1) if name in kept else 0
        print(f"{name:<24}{figure:>12}{kept.get(name, '-'):>12}{change:>+8.2f} %{'  RISEN' if name in risen else ''}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--accept", action="store_true", help="write bench/cost.txt anew")
    parser.add_argument("names", nargs="*", metavar="NAME", help=", ".join(ROWS))
    options = parser.parse_intermixed_args()
    # A build to be installed looks for them elsewhere.
    os.environ["NUVIO_SIMCARD_PLUGIN_DIR"] = str(options.build.resolve() / "lib/alsa-lib")
    names = [name for name in ROWS if not options.names or name in options.names]
    kept, others = read_kept()
    differing = sorted(set(circumstances()) ^ set(others))
    most = MOST_ELSEWHERE if differing else MOST
    with Lab(options.build) as lab:
        figures, risen, tries = {}, names, 1 if options.accept else TRIES
        while risen and tries > 0:
            tries -= 1
            for name, figure in measure(lab, risen).items():
                figures[name] = min(figure, figures.get(name, figure))
            risen = [name for name in names if is_risen(name, figures[name], kept, most)]
    if options.accept:
        write_kept(kept | figures)
        return 0
    if differing:
        print(f"cost: not as where bench/cost.txt was written, so {MOST_ELSEWHERE} % are allowed: "
              + ", ".join(differing))
    say(figures, kept, risen)
    if risen:
        print(f"cost: dearer: {', '.join(risen)}. Where that is meant: ./dev cost --accept, and say why.")
    return 1 if risen else 0


if __name__ == "__main__":
    sys.exit(main())
