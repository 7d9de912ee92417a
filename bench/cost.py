#!/usr/bin/env python3
"""What the device costs in instructions, free of the machine's noise: cost.py BUILD [--accept] [NAME...]

Called by ./dev cost. Counts by callgrind, the daemon's and its readers' together: a second of each kind of
audio and of rest (a longer run less a shorter one, so without start and end), and a start. Compares with
bench/cost.txt and exits with 1 where a row has risen by more than it may; --accept writes that file anew,
for the commit that makes a row dearer and says why. NAME: only these rows.
"""
import argparse
import concurrent.futures
import os
import pathlib
import platform
import re
import subprocess
import sys
import time

from lab import Device, Lab, one_second, to_flac, wait_for, write_wav
from web_server import WebServer

KEPT = pathlib.Path(__file__).resolve().parent / "cost.txt"
MOST = 2  # %, by which a row may rise
# ... where a library is not of the version that the file names: what a point release of Debian's changes
# is nobody's commit.
MOST_ELSEWHERE = 5
# By how much more than 0.1 % two runs may differ, in %: few instructions, and a busy machine shifts when the
# loop wakes, how much a call brings from the network and what a start is done with when it is counted.
NOISE = {"WAV 44.1/16": 6, "WAV 44.1/16 over HTTP": 2, "a second of rest": 100, "a start": 1}
PACKAGES = ("g++-12 libc6 libstdc++6 valgrind flac libasound2 libavahi-client3 libcivetweb1 libcjson1 libcurl4 "
            "libdbus-1-3 libflac12 libmd0 libsndfile1 libsoxr0 libssl3 libsystemd0 libtag1v5 libuv1 libwebsockets17").split()
# A card that waits for data: a run that comes late on a busy machine is no other run.
CARD = ("--buffer", "1000", "--patient", "--speed")
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


class Run:
    """A device under callgrind, from its start to its end. `span`: what bench/counted.cpp is told."""

    def __init__(self, lab, speed, work, **span):
        self.folder = folder = lab.new_folder("callgrind")
        reader, counted = lab.build / "bin/nuvio-connect-reader", lab.build / "lib/libbench_counted.so"
        # It gets nobody's environment; the empty file says that there is one more to wait for.
        wrapped = folder / reader.name
        wrapped.write_text(f"""#!/bin/sh
: >{folder}/reader.$$
LD_PRELOAD={counted} exec {" ".join(callgrind(f"{folder}/reader.%p"))} {reader} "$@"
""")
        wrapped.chmod(0o755)
        marks = ("--zero-before=cost_begins", "--dump-before=cost_ends") if span else ()
        environment = {"LD_PRELOAD": str(counted), "NUVIO_READERS": str(folder), "NUVIO_READER_UNFILTERED": "1",
                       "NUVIO_COUNTED": str(folder / "frames"), **span}
        with Device(lab, lab.card(*CARD, str(speed)), callgrind(folder / "daemon", *marks),
                    environment=environment) as device:
            work(device)

    def daemon(self):
        """The instructions of the span, or all."""
        dump = self.folder / "daemon.1"
        return total(dump if dump.exists() else self.folder / "daemon")

    def frames(self):
        return int((self.folder / "frames").read_text())

    def readers(self):
        return sum(wait_for(f"count of {path.name}", lambda: total(path)) for path in self.folder.glob("reader.*"))


class Track:
    """A second of audio, played as it is heard. Of the daemon it is counted in the middle of a track; of
    the readers, which are ahead of what is heard, as what a longer track takes more than a shorter one."""

    FROM, SHORT = 5, 10

    def __init__(self, format, suffix, seconds, is_remote=False):
        self.format, self.suffix, self.seconds, self.is_remote = format, suffix, seconds, is_remote

    def content(self, lab, server, seconds):
        path = lab.new_folder("track") / "track.wav"
        write_wav(path, one_second(*self.format), *self.format, seconds)
        path = to_flac(path) if self.suffix == ".flac" else path
        return f"{server.url}/{path.relative_to(lab.folder)}" if self.is_remote else path

    def run(self, lab, server, seconds, speed, **span):
        content = self.content(lab, server, seconds)

        def play(device):
            device.play(content)
            wait_for("end of the track", device.is_over, 120, 0.1)
        return Run(lab, speed, play, **span)

    def __call__(self, lab, server):
        rate, last = self.format[0], self.FROM + self.seconds
        length = last + 5
        with concurrent.futures.ThreadPoolExecutor() as beside:
            shorter = beside.submit(self.run, lab, server, self.SHORT, 4)
            long = self.run(lab, server, length, 1, NUVIO_COUNT_FRAMES=f"{self.FROM * rate}-{last * rate}")
            short = shorter.result()
        return (long.daemon() / long.frames() * rate
                + (long.readers() - short.readers()) / (length - self.SHORT))


def rest(lab, _):
    run = Run(lab, 1, lambda device: time.sleep(31), NUVIO_COUNT_MS="10000-30000")
    return run.daemon() / 20


# With the first answer, and what goes on a little longer than that.
def start(lab, _):
    return Run(lab, 1, lambda device: time.sleep(2)).daemon()


ROWS = {
    "WAV 44.1/16": Track(CD, ".wav", 40),
    "WAV 192/24": Track(HI_RES, ".wav", 40),
    "FLAC 44.1/16": Track(CD, ".flac", 10),
    "FLAC 192/24": Track(HI_RES, ".flac", 10),
    # Two times in which three quarters of the read-ahead are used up, from the middle of one on.
    "WAV 44.1/16 over HTTP": Track(CD, ".wav", 36, is_remote=True),
    "a second of rest": rest,
    "a start": start,
}
# At once those that leave each other room: what comes late on a busy machine wakes oftener.
ROUNDS = [["a start"], ["FLAC 44.1/16", "FLAC 192/24"],
          ["WAV 44.1/16", "WAV 192/24", "WAV 44.1/16 over HTTP", "a second of rest"]]


def measure(lab, names):
    """Instructions by row."""
    server = WebServer(str(lab.new_folder("web")), root=str(lab.folder))
    lab.stack.callback(server.kill)
    figures = {}
    for wanted in ([name for name in each if name in names] for each in ROUNDS):
        with concurrent.futures.ThreadPoolExecutor(len(ROWS)) as pool:
            figures |= zip(wanted, pool.map(lambda name: round(ROWS[name](lab, server)), wanted))
    return {name: figures[name] for name in ROWS if name in figures}


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


def compare(figures, kept, most):
    """Prints both; the rows that have risen by more than `most` % and their noise."""
    risen = []
    for name, figure in figures.items():
        change = 100 * (figure / kept[name] - 1) if name in kept else 0
        is_risen = change > most + NOISE.get(name, 0)
        risen += [name] if is_risen else []
        print(f"{name:<24}{figure:>12}{kept.get(name, '-'):>12}{change:>+8.2f} %{'  RISEN' if is_risen else ''}")
    return risen


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--accept", action="store_true", help="write bench/cost.txt anew")
    parser.add_argument("names", nargs="*", metavar="NAME", help=", ".join(ROWS))
    options = parser.parse_args()
    # A build to be installed looks for them elsewhere.
    os.environ["NUVIO_SIMCARD_PLUGIN_DIR"] = str(options.build.resolve() / "lib/alsa-lib")
    with Lab(options.build) as lab:
        figures = measure(lab, options.names or list(ROWS))
    kept, others = read_kept()
    if options.accept:
        write_kept(kept | figures)
        return 0
    differing = sorted(set(circumstances()) ^ set(others))
    if differing:
        print(f"cost: not as where bench/cost.txt was written, so {MOST_ELSEWHERE} % are allowed: "
              + ", ".join(differing))
    risen = compare(figures, kept, MOST_ELSEWHERE if differing else MOST)
    if risen:
        print(f"cost: dearer: {', '.join(risen)}. Where that is meant: ./dev cost --accept, and say why.")
    return 1 if risen else 0


if __name__ == "__main__":
    sys.exit(main())
