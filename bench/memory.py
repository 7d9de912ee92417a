"""Where the device's memory is: the daemon's, its readers' and its fetcher's mappings, idle, while it plays from
the disk and over the network, and afterwards. A page that several have is one page of the machine's; in the parts by
mapping it counts in each of them."""
import collections
import os
import pathlib
import sys
import time

import rows
from lab import Device, family, mappings, resident_kb, wait_for
from rows import CARD, CD, Row
from web_server import WebServer

sys.path.append(str(pathlib.Path(__file__).resolve().parents[1] / "tests"))
from certificate import make_certificate  # noqa: E402

MB = 1024  # KiB
IDLE, PLAYING = (9 * MB, 1.5 * MB), (13 * MB, 3 * MB)  # resident, private dirty
READ_AHEAD = 4 * MB
TLS_STATE = MB / 2  # of a connection, its server's certificate and what OpenSSL sets up for the first one
LEFT = MB / 2  # more than idle, once a session is over
FILLED = 14    # s until a card and what is decoded ahead have been full
OVER = 4       # s until what a session held is given back
TLS = "server {{ listen 127.0.0.1:{port} ssl; ssl_certificate {d}/cert; ssl_certificate_key {d}/key; }}"


def is_library(name):
    return ".so" in name


def stacks(pid):
    """The mappings of the threads' stacks, by their threads' names. A thread that runs tells no place."""
    places = mappings(pid)
    found = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        words = (task / "syscall").read_text().split()
        at = int(words[-2], 16) if len(words) > 2 else 0
        for mapping in places:
            if mapping.begin <= at < mapping.end:
                found.setdefault((task / "comm").read_text().strip(), []).append(mapping)
    return found


def kind_of(mapping, of_stacks):
    name = os.path.basename(mapping.name)
    if mapping in of_stacks or name == "[stack]":
        return "stacks"
    if name.startswith("memfd:"):
        return "what both see"
    if name.startswith(("libnuvio", "nuvio-connect")):
        return "own code"
    return f"libraries of the {'C++ runtime' if is_runtime(name) else 'system'}" if is_library(name) else "heap"


def is_runtime(name):
    return name.startswith(("libc.so", "libstdc++", "libm.so", "libgcc_s", "ld-"))


class Reading:
    """What a device holds at one moment."""

    def __init__(self, pid):
        self.kinds, self.libraries = collections.defaultdict(lambda: [0, 0]), 0
        self.depths = {}
        for each in family(pid):
            of_threads = stacks(each)
            on_stacks = [mapping for many in of_threads.values() for mapping in many]
            for mapping in mappings(each):
                kind = self.kinds[kind_of(mapping, on_stacks)]
                kind[0] += mapping.resident
                kind[1] += mapping.dirty
            if each == pid:
                self.libraries = len({m.name for m in mappings(each) if is_library(m.name)})
                self.depths = {name: max(m.resident for m in many) for name, many in of_threads.items()}
        self.dirty = sum(dirty for _, dirty in self.kinds.values())
        self.resident = resident_kb(pid)

    def __str__(self):
        return f"{self.resident / MB:.1f} and {self.dirty / MB:.2f} MB"

    def by_kind(self):
        ordered = sorted(self.kinds.items(), key=lambda each: -each[1][0])
        return ", ".join(f"{kind} {resident / MB:.1f} ({dirty / MB:.2f})"
                         for kind, (resident, dirty) in ordered)

    def is_within(self, resident, dirty):
        return self.resident <= resident and self.dirty <= dirty


def row(what, reading, most):
    return Row(f"resident and private dirty memory, {what}", f"<= {most[0] / MB:.1f} and {most[1] / MB:.1f} MB",
               str(reading), reading.is_within(*most))


def memory(lab, music):
    folder = lab.new_folder("tls")
    make_certificate(folder, "IP:127.0.0.1")
    plain, tls = WebServer(str(lab.new_folder("web")), root=str(lab.folder)), WebServer(
        str(folder), TLS, root=str(lab.folder))
    lab.stack.callback(plain.kill)
    lab.stack.callback(tls.kill)
    track = music.wav[CD]
    over_http = tuple(most + READ_AHEAD for most in PLAYING)
    over_tls = tuple(most + TLS_STATE for most in over_http)
    contents = {"a WAV file": (track, PLAYING), "a FLAC file": (music.flac[CD], PLAYING),
                "a WAV over HTTP": (f"{plain.url}/{track.name}", over_http),
                "a WAV over HTTPS": (f"{tls.url.replace('http', 'https')}/{track.name}", over_tls)}
    os.sync()  # pages of a library that was just built are dirty
    depths = collections.Counter()
    for n, (what, (content, most)) in enumerate(contents.items()):
        with Device(lab, lab.card(*CARD), environment={"NUVIO_NETWORK_AUTHORITIES": f"{folder}/cert"}) as device:
            time.sleep(rows.SETTLED)
            idle = Reading(device.pid)
            if n == 0:
                yield row("idle", idle, IDLE)
                yield Row(f"... {idle.libraries} libraries", "", idle.by_kind())
            device.play(content)
            time.sleep(FILLED)
            playing = Reading(device.pid)
            depths |= collections.Counter(playing.depths)
            yield row(f"playing {what}, all processes", playing, most)
            yield Row(f"... {playing.libraries} libraries", "", playing.by_kind())
            device.stop()
            wait_for("end of the other processes", lambda: len(family(device.pid)) == 1)
            time.sleep(OVER)
            after = Reading(device.pid)
            yield row(f"after {what}", after, (idle.resident + LEFT, idle.dirty + LEFT))
            yield Row(f"... {after.libraries} libraries", "", after.by_kind())
    yield Row("threads' stacks, KiB that were touched at most", "",
              ", ".join(f"{name} {depth}" for name, depth in depths.most_common()))
