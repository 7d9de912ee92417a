"""A bench of one's own: a simulated card, music files, the players to compare, and their readings.

Every process here is started by this module and ended by its id. A player is played on a card of
its own, whose recording is off unless asked for.
"""
import array
import collections
import contextlib
import ctypes
import math
import mmap
import os
import pathlib
import random
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import threading
import time
import wave

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tools/run"))
import own_device  # noqa: E402
import sound_servers  # noqa: E402
from own_device import end, wait_for  # noqa: E402

PAGE = os.sysconf("SC_PAGESIZE") // 1024  # KiB
Mapping = collections.namedtuple("Mapping", "begin end name resident dirty")
OWN_DAEMON = pathlib.Path(__file__).resolve().parents[1] / "tools/run/own_daemon.sh"


# ---- Music --------------------------------------------------------------------------------------


def one_second(rate, bits, channels=2, seed=0):
    """A glide with a little noise, as the card is to play it: 24 bits in 4 bytes."""
    noise = random.Random(seed)
    scale = 0.4 * (1 << (bits - 1))
    samples = array.array("i")
    for n in range(rate):
        t = n / rate
        for channel in range(channels):
            tone = math.sin(2 * math.pi * (110 + 200 * (channel + 1) * t) * t)
            samples.append(int(scale * (tone + 0.01 * noise.uniform(-1, 1))))
    return array.array("h" if bits == 16 else "i", samples).tobytes()


def write_wav(path, second, rate, bits, seconds, channels=2):
    """Repeats one second of PCM; returns the path, read once."""
    if bits == 24:
        packed = bytearray(len(second) // 4 * 3)
        for byte in range(3):
            packed[byte::3] = second[byte::4]
        second = bytes(packed)
    with wave.open(str(path), "wb") as out:
        out.setnchannels(channels)
        out.setsampwidth(bits // 8)
        out.setframerate(rate)
        for _ in range(seconds):
            out.writeframesraw(second)
    return read_once(path)


def to_flac(wav):
    flac = wav.with_suffix(".flac")
    subprocess.run(["flac", "--totally-silent", "-f", "-o", flac, wav], check=True)
    return read_once(flac)


def read_once(path):
    """Into the page cache."""
    with open(path, "rb") as file:
        while file.read(1 << 20):
            pass
    return path


# ---- Readings of a process ----------------------------------------------------------------------


def family(pid):
    """A process and those that it has started: a device's readers and its fetcher do a part of its work."""
    children = "".join(path.read_text() for path in pathlib.Path(f"/proc/{pid}/task").glob("*/children"))
    return [pid, *map(int, children.split())]


def tasks(pid):
    for each in family(pid):
        with contextlib.suppress(OSError):
            yield from pathlib.Path(f"/proc/{each}/task").iterdir()


def cpu_ns(pid):
    """CPU time of all threads, also those that have ended: the processes' own clocks."""
    total = 0
    for each in family(pid):
        with contextlib.suppress(OSError):
            total += time.clock_gettime_ns((~each << 3) | 2)
    return total


def wakeups(pid):
    """Voluntary context switches by thread: the first of a name, and all the others of it as "NAME
    etc.", as a library's threads that got no name of their own have that of their maker."""
    counts = {}
    for task in sorted(tasks(pid), key=lambda task: int(task.name)):
        with contextlib.suppress(OSError):
            status = (task / "status").read_text()
            name = re.search(r"^Name:\s*(.*)$", status, re.M)[1]
            count = int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", status, re.M)[1])
            name += " etc." if name in counts else ""
            counts[name] = counts.get(name, 0) + count
    return counts


def mappings(pid):
    """Of one process; sizes in KiB."""
    head = re.compile(r"^([0-9a-f]+)-([0-9a-f]+) \S+ \S+ \S+ \S+ *(.*)$")
    found = []
    for line in pathlib.Path(f"/proc/{pid}/smaps").read_text().splitlines():
        if begins := head.match(line):
            found.append([int(begins[1], 16), int(begins[2], 16), begins[3], 0, 0])
        elif line.startswith("Rss:"):
            found[-1][3] = int(line.split()[1])
        elif line.startswith("Private_Dirty:"):
            found[-1][4] = int(line.split()[1])
    return [Mapping(*each) for each in found]


def pages(pid):
    """The machine's pages that the process has; none where root alone is told which."""
    page, place = PAGE * 1024, (1 << 55) - 1
    with open(f"/proc/{pid}/pagemap", "rb") as file:
        for mapping in mappings(pid):
            if mapping.begin >> 63:  # the kernel's
                continue
            file.seek(mapping.begin // page * 8)
            entries = file.read((mapping.end - mapping.begin) // page * 8)
            yield from (entry & place for entry, in struct.iter_unpack("Q", entries) if entry >> 63 and entry & place)


def resident_kb(pid):
    """Of a process and those that it has started; a page that several of them have counts once."""
    found = set()
    for each in family(pid):
        with contextlib.suppress(OSError):
            found.update(pages(each))
    return len(found) * PAGE or sum(mapping.resident for each in family(pid) for mapping in mappings(each))


def dirty_kb(pid):
    """Private dirty memory of a process and those that it has started."""
    dirty = 0
    for each in family(pid):
        with contextlib.suppress(OSError):
            dirty += sum(mapping.dirty for mapping in mappings(each))
    return dirty


class Window:
    """What a process used between two moments, in one second."""

    def __init__(self, pid, seconds):
        begin, cpu, switches = time.monotonic(), cpu_ns(pid), wakeups(pid)
        time.sleep(seconds)
        self.cpu_ms = (cpu_ns(pid) - cpu) / 1e6
        self.seconds = time.monotonic() - begin
        self.cpu_ms /= self.seconds
        self.by_thread = {name: (count - switches.get(name, 0)) / self.seconds
                          for name, count in wakeups(pid).items()}
        self.wakeups = sum(self.by_thread.values())
        self.rss_kb = resident_kb(pid)


# ---- The card -----------------------------------------------------------------------------------


class Card:
    def __init__(self, build, folder, *options, record=False):
        self.tool = build / "bin/simcardctl"
        self.folder = folder
        self.run("create", *options, *([] if record else ["--no-record"]))

    def run(self, verb, *words):
        return subprocess.run([self.tool, verb, self.folder, *words], check=True, text=True,
                              capture_output=True).stdout

    def environment(self, tool=False):
        name = "asound-tools.conf" if tool else "asound.conf"
        return {"ALSA_CONFIG_PATH": str(self.folder / name)}

    def frames_played(self):
        return int(re.search(r"^totals .* played (\d+)", self.run("show"), re.M)[1])

    def underruns(self):
        return int(re.search(r"(\d+) underruns", self.run("show"))[1])

    def state(self):
        return re.search(r"^stream\s+(\w+)", self.run("show"), re.M)[1]

    def recordings(self):
        """What was played, a stretch of bytes from one opening to the next."""
        return [path.read_bytes() for path in sorted((self.folder / "recordings").glob("*.raw"))]


class ServerCard:
    """A sound server of its own, in the place of a card; a context manager."""

    def __init__(self, lab, kind, rate, bits, period_us):
        self.folder = folder = lab.new_folder("server")
        self.server = kind(folder, rate, "s16le" if bits == 16 else "s24-32le", period_us)
        self.bus = Bus(folder)
        self.server.environment["DBUS_SESSION_BUS_ADDRESS"] = self.bus.address

    def __enter__(self):
        self.server.start()
        return self

    def __exit__(self, *error):
        self.server.kill()
        self.bus.end()

    def environment(self, tool=False):
        own_bus = () if tool else ("DBUS_SESSION_BUS_ADDRESS",)
        return {name: value for name, value in self.server.environment.items()
                if name not in own_bus}

    def state(self):
        return "RUNNING" if self.server.pactl("list", "short", "sink-inputs") else "SETUP"

    def underruns(self):
        return 0  # a server keeps them to itself


# ---- Players ------------------------------------------------------------------------------------


class Lab:
    """A temporary folder and everything started in it; a context manager."""

    def __init__(self, build):
        self.build = build.resolve()
        self.stack = contextlib.ExitStack()
        self.lock = threading.Lock()
        self.names = 0

    def __enter__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="nuvio-bench-"))
        self.stack.callback(shutil.rmtree, self.folder, ignore_errors=True)
        self.discovery = self.start_discovery()
        return self

    def start_discovery(self):
        """A system bus with Avahi on it, for root; without one a device looks for it every 3 s. The
        environment that names the bus."""
        if os.geteuid() != 0:
            return {}
        environment = {"DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.folder}/system-bus"}
        self.start([OWN_DAEMON, "system-bus", self.folder])
        wait_for("system bus", (self.folder / "system-bus").exists)
        self.start([OWN_DAEMON, "avahi", self.folder], env=dict(os.environ, **environment))
        return environment

    def start(self, command, **options):
        self.stack.callback(end, subprocess.Popen(command, stdin=subprocess.DEVNULL,
                                                  stdout=subprocess.DEVNULL,
                                                  stderr=subprocess.DEVNULL, **options))

    def __exit__(self, *error):
        self.stack.close()

    def new_folder(self, name):
        with self.lock:
            self.names += 1
            folder = self.folder / f"{name}-{self.names}"
        folder.mkdir()
        return folder

    def card(self, *options, record=False):
        return Card(self.build, self.new_folder("card"), *options, record=record)


class Aplay:
    """Of samples that the card does not take it gets a copy that was unpacked for it; or, where it `converts`,
    the file, through ALSA's plug."""

    name = "aplay"

    def __init__(self, lab, card, wrapper=(), options=(), converts=False):
        self.card, self.wrapper, self.options, self.converts = card, wrapper, options, converts
        self.process = None

    def __enter__(self):
        return self

    def __exit__(self, *error):
        self.stop()

    def play(self, path):
        raw = path.with_suffix(".raw")
        file = [path]
        if raw.exists():
            file = ["-D", "plug:default", path] if self.converts else [
                "-t", "raw", "-f", "S24_LE", "-r", path.stem.split("-")[0], "-c", "2", raw]
        self.process = subprocess.Popen([*self.wrapper, "aplay", "-q", *self.options, *file],
                                        stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        env=dict(os.environ, **self.card.environment(tool=True)))
        self.pid = self.process.pid
        wait_for("aplay plays", lambda: self.card.state() == "RUNNING")

    def stop(self):
        if self.process:
            end(self.process)

    def is_over(self):
        return self.process.poll() is not None


class Mpd:
    name = "mpd"

    def __init__(self, lab, card, wrapper=()):
        self.card, self.wrapper = card, wrapper
        self.folder = lab.new_folder("mpd")
        (self.folder / "music").mkdir()
        self.socket = self.folder / "socket"
        (self.folder / "mpd.conf").write_text(f"""
music_directory "{self.folder}/music"
playlist_directory "{self.folder}"
db_file "{self.folder}/database"
log_file "{self.folder}/log"
bind_to_address "{self.socket}"
zeroconf_enabled "no"
audio_output {{
    type "alsa"
    name "card"
    device "default"
    mixer_type "none"
}}
""")

    def __enter__(self):
        self.process = subprocess.Popen(
            [*self.wrapper, "mpd", "--no-daemon", self.folder / "mpd.conf"], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            env=dict(os.environ, **self.card.environment(tool=True)))
        self.pid = self.process.pid
        wait_for("mpd answers", lambda: self.mpc("status", check=False))
        return self

    def __exit__(self, *error):
        end(self.process)

    def mpc(self, *words, check=True):
        result = subprocess.run(["mpc", "-h", self.socket, *words], check=check, text=True,
                                capture_output=True)
        return result.returncode == 0 and result.stdout

    def play(self, content):
        """A file, or a URL."""
        if isinstance(content, pathlib.Path):
            with wave.open(str(content.with_suffix(".wav"))) as wav:
                self.frames, self.rate = wav.getnframes(), wav.getframerate()
        self.mpc("add", content)
        self.mpc("play")
        wait_for("mpd plays", lambda: self.card.state() == "RUNNING")

    def is_over(self):
        """Nearly: it is to be stopped before it drains, for it waits for the end of a drain by asking
        the card without a pause."""
        return self.card.frames_played() >= self.frames - 1.5 * self.rate

    def stop(self):
        self.mpc("stop")
        self.mpc("clear")


class Bus:
    """A message bus, and one client connection on which methods are called."""

    def __init__(self, folder):
        self.process, self.address = own_device.start_bus(folder)
        self.library = ctypes.CDLL("libsystemd.so.0")
        self.client = None

    def connect(self):
        self.client = ctypes.c_void_p()
        lib = self.library
        for result in (lib.sd_bus_new(ctypes.byref(self.client)),
                       lib.sd_bus_set_address(self.client, self.address.encode()),
                       lib.sd_bus_set_bus_client(self.client, 1), lib.sd_bus_start(self.client)):
            if result < 0:
                raise OSError(-result, "message bus")

    def call(self, destination, path, interface, member, types="", *values):
        """Returns once the answer is there; the time of sending, in monotonic ns."""
        if self.client is None:
            self.connect()
        sent = time.monotonic_ns()
        result = self.library.sd_bus_call_method(
            self.client, destination.encode(), path.encode(), interface.encode(), member.encode(),
            None, None, types.encode(), *values)
        if result < 0:
            raise OSError(-result, f"{member} on the bus")
        return sent

    def end(self):
        end(self.process)


class Device:
    """The daemon on a bus of its own."""

    name = "nuvio-connect"

    def __init__(self, lab, card, wrapper=(), probe=False, marks=False, environment=None):
        self.lab, self.card, self.wrapper, self.marks = lab, card, wrapper, marks
        self.environment = environment or {}
        self.folder = lab.new_folder("device")
        self.port = own_device.free_port()
        self.probe = Probe(self.folder / "probe") if probe else None
        # Of its own, and as long as the others': no other device of this bench has to give way.
        own_device.write_settings(self.folder, self.port, host__friendly_name=f"Device on {self.port}")

    def __enter__(self):
        self.bus = Bus(self.folder)
        environment = own_device.environment(self.folder, self.card.folder / "asound.conf",
                                             **self.lab.discovery) | self.card.environment() | self.environment
        if self.probe:
            environment |= {"LD_PRELOAD": str(self.lab.build / "lib/libbench_probe.so"),
                            "NUVIO_PROBE": str(self.probe.path)}
        if self.marks:
            environment["NUVIO_PROBE_MARK"] = "1"
        self.log = open(self.folder / "log", "wb")
        self.process = subprocess.Popen([*self.wrapper, self.lab.build / "bin/nuvio-connect"],
                                        env=environment, stdin=subprocess.DEVNULL, stdout=self.log,
                                        stderr=self.log)
        self.pid = self.process.pid
        try:
            wait_for("HTTP answers", self.answers, pause=0.001)
            self.answered_ns = time.monotonic_ns()
        except AssertionError:
            self.__exit__()
            raise
        return self

    def __exit__(self, *error):
        end(self.process)
        self.log.close()
        self.bus.end()

    def log_text(self):
        return (self.folder / "log").read_text(errors="replace")

    def request(self, method, path, body=None):
        return own_device.request(self.port, method, path, body)

    def answers(self):
        return own_device.answers(self.port, self.process)

    def play(self, content, remote=""):
        status = own_device.connect(self.port, content, remote=remote)
        if status != 200:
            raise RuntimeError(f"the session was refused with {status}")
        wait_for("the device plays", lambda: self.card.state() == "RUNNING")

    def press(self, member, types="", *values):
        """One of the media player's methods; the time of sending, in monotonic ns."""
        return self.bus.call("org.mpris.MediaPlayer2.nuvio_connect", "/org/mpris/MediaPlayer2",
                             "org.mpris.MediaPlayer2.Player", member, types, *values)

    def stop(self):
        self.press("Stop")

    def is_over(self):
        return "Nothing else to play, stopping playback" in self.log_text()


class Probe:
    """The counters that bench/probe.cpp keeps in a file."""

    FIELDS = ("offers", "bytes_offered", "bytes_taken", "writes", "foreign_writes",
              "allocations_before_write", "allocations_in_offer", "allocations", "drops",
              "last_drop_ns", "drain_begin_ns", "drain_end_ns", "reopened_ns", "main_ns",
              "volumes", "last_volume_ns")

    def __init__(self, path):
        self.path = path
        path.write_bytes(bytes(8 * len(self.FIELDS)))
        with open(path, "r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 8 * len(self.FIELDS))

    def read(self):
        return dict(zip(self.FIELDS, struct.unpack(f"{len(self.FIELDS)}Q", self.memory[:])))
