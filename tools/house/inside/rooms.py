"""What stands in the house: rooms with a device each, at lines of their own to the house's switch, and the
closet with controller and web server. Each room and the closet have a message bus and an Avahi daemon."""
import ctypes
import json
import os
import pathlib
import resource
import signal
import socket
import subprocess
import threading

import icecast
import music
import own_device
import web_server
import witness

LIBC = ctypes.CDLL(None, use_errno=True)
NEW_MOUNTS, NEW_NAMES, NEW_NET = 0x00020000, 0x04000000, 0x40000000
PRIVATE = 1 << 18 | 1 << 14  # MS_PRIVATE, MS_REC
HOUSE = pathlib.Path("/house")
DISK = pathlib.Path("/disk")
MUSIC = pathlib.Path("/music")
RADIO = pathlib.Path("/radio.mp3")
CLOSET = "10.7.0.1"
DEVICE_PORT, CONTROLLER_PORT, WEB_PORT, RADIO_PORT = 8000, 8090, 8080, 8000
BURST = 65536  # bytes of the radio that a device is ahead of what the station plays
BUS = """<busconfig><type>system</type><listen>unix:path={bus}</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/><allow send_destination="*"/>
<allow receive_sender="*"/></policy></busconfig>
"""
AVAHI = """[server]
allow-interfaces={interface}
use-ipv6=no
host-name={name}
[publish]
publish-workstation=no
"""


TRACE = pathlib.Path("/sys/kernel/tracing")


def begin_trace():
    """What runs when, noted by the kernel whether somebody wants it afterwards or not."""
    (TRACE / "buffer_size_kb").write_text("16384")
    (TRACE / "trace_clock").write_text("mono")
    for event in ("sched/sched_switch", "sched/sched_wakeup", "signal/signal_generate"):
        (TRACE / f"events/{event}/enable").write_text("1")


def keep_trace():
    (TRACE / "tracing_on").write_text("0")
    (HOUSE / "trace").write_bytes((TRACE / "trace").read_bytes())


def check(result, what):
    if result != 0:
        raise OSError(ctypes.get_errno(), what)


def ip(*lines):
    subprocess.run(["ip", "-batch", "-"], input="\n".join(lines), text=True, check=True)


class Process:
    """One of the house's, which may be ended and started again. Any thread."""

    def __init__(self, place, name, command):
        self.place, self.name, self.command = place, name, command
        self.log = place.folder / f"{name}.log"
        self.lock = threading.Lock()
        self.running = None
        self.is_asked_to_end = False

    def start(self):
        if self.is_asked_to_end:
            self.running.wait()
        with self.lock:
            self.is_asked_to_end = False
            if self.running is not None and self.running.poll() is None:
                return False
            with open(self.log, "ab") as log:
                self.running = subprocess.Popen(
                    list(map(str, self.command)), env=self.place.environment, stdin=subprocess.DEVNULL, stdout=log,
                    stderr=log, preexec_fn=self.place.enter, cwd=self.place.folder)
            witness.note("started", place=self.place.name, program=self.name)
            threading.Thread(target=self.wait, args=(self.running,), daemon=True).start()
            return True

    def wait(self, process):
        witness.note("ended", place=self.place.name, program=self.name, status=process.wait())

    def end(self, how=signal.SIGTERM):
        with self.lock:
            if self.running is None or self.running.poll() is not None:
                return False
            self.is_asked_to_end = True
            self.running.send_signal(how)
        self.running.wait()
        return True

    def usage(self, when):
        """KiB of memory that is in no file, descriptors and threads."""
        of = pathlib.Path(f"/proc/{self.running.pid}")
        try:
            text = (of / "smaps_rollup").read_text()
            (self.place.folder / f"{self.name}.smaps-{when}").write_text((of / "smaps").read_text())
            own = sum(int(line.split()[1]) for line in text.splitlines() if line.startswith("Anonymous:"))
            return {"kib": own, "descriptors": len(os.listdir(of / "fd")), "threads": len(os.listdir(of / "task"))}
        except OSError:
            return None


class Place:
    """Somewhere with a network interface."""

    nice = 0

    def __init__(self, name, address, interface):
        self.name, self.address, self.interface = name, address, interface
        self.folder = HOUSE / name
        self.folder.mkdir(parents=True)
        bus = f"unix:path={self.folder}/bus"
        self.environment = {
            "PATH": os.environ["PATH"], "HOME": "/root", "LD_LIBRARY_PATH": "/nuvio/lib",
            "DBUS_SYSTEM_BUS_ADDRESS": bus, "DBUS_SESSION_BUS_ADDRESS": bus, "NUVIO_MUSIC_FOLDERS": "/",
            "NUVIO_SIMCARD_PLUGIN_DIR": "/nuvio/lib"}
        (self.folder / "bus.conf").write_text(BUS.format(bus=self.folder / "bus"))
        (self.folder / "avahi.conf").write_text(AVAHI.format(interface=interface, name=name.lower()))
        self.bus = Process(self, "bus", ["dbus-daemon", "--nofork", "--nopidfile",
                                         f"--config-file={self.folder}/bus.conf"])
        self.avahi = Process(self, "avahi", ["avahi-daemon", "-f", self.folder / "avahi.conf", "--no-drop-root",
                                             "--no-chroot", "--no-rlimits"])
        self.processes = {"bus": self.bus, "avahi": self.avahi}
        self.network = None

    def enter(self):
        """In a process that is to be of this place: its network, its name and a /run of its own."""
        if self.network is not None:
            check(LIBC.setns(self.network, NEW_NET), "setns")
        check(LIBC.unshare(NEW_MOUNTS | NEW_NAMES), "unshare")
        check(LIBC.mount(b"none", b"/", None, PRIVATE, None), "mount /")
        check(LIBC.mount(b"run", b"/run", b"tmpfs", 0, None), "mount /run")
        os.mkdir("/run/avahi-daemon")
        socket.sethostname(self.name.lower())
        os.nice(self.nice)

    def start(self):
        self.bus.start()
        self.start_avahi()

    def start_avahi(self):
        own_device.wait_for(f"the bus of {self.name}", (self.folder / "bus").exists)
        self.avahi.start()


class Room(Place):
    nice = -10  # what would be a processor of its own comes before those who press

    def __init__(self, number, plan):
        self.line = f"line{number}"
        super().__init__(plan["name"], f"10.7.0.{number + 10}", "eth0")
        ip(f"netns add {self.name}", f"link add {self.line} type veth peer name eth0 netns {self.name}",
           f"link set {self.line} master switch up")
        self.network = os.open(f"/run/netns/{self.name}", os.O_RDONLY)
        subprocess.run(["ip", "-batch", "-"], check=True, text=True, preexec_fn=lambda: check(
            LIBC.setns(self.network, NEW_NET), "setns"), input=f"link set lo up\naddress add {self.address}/24 "
            "broadcast + dev eth0\nlink set eth0 up\nroute add default via 10.7.0.1\n")
        self.card = self.folder / "card"
        self.environment.update(ALSA_CONFIG_PATH=str(self.card / "asound.conf"),
                                NUVIO_SETTINGS=str(self.folder / "settings.conf"))
        self.simcard("create", *plan["card"])
        own_device.write_settings(self.folder, DEVICE_PORT, host__friendly_name=self.name, host__model="House",
                                  host__state_dir=DISK / self.name, host__bus="system", host__allow_loopback=0)
        self.device = Process(self, "device", ["/nuvio/bin/nuvio-connect"])
        self.processes["device"] = self.device

    def simcard(self, verb, *words):
        result = subprocess.run(["/nuvio/bin/simcardctl", verb, self.card, *map(str, words)], text=True,
                                env=self.environment, capture_output=True)
        if result.returncode != 0:
            raise RuntimeError(f"simcardctl {verb}: {result.stderr}")
        return result.stdout

    def call(self, name, path, member, *words):
        """A method of who has that name on the room's message bus: status and what it said."""
        done = subprocess.run(["dbus-send", "--system", "--print-reply=literal", "--reply-timeout=20000",
                               f"--dest={name}", path, member, *words], text=True, env=self.environment,
                              capture_output=True)
        return done.returncode, (done.stdout + done.stderr).strip()

    def start(self):
        super().start()
        self.device.start()


class Closet(Place):
    def __init__(self):
        ip("link add switch type bridge", f"address add {CLOSET}/24 broadcast + dev switch", "link set switch up",
           "link set lo up")
        super().__init__("Closet", CLOSET, "switch")
        (self.folder / "nginx.conf").write_text(web_server.CONF.format(
            d=self.folder, root=MUSIC, servers=f"server {{ listen {CLOSET}:{WEB_PORT}; }}"))
        self.controller = Process(self, "controller", [
            "/nuvio/bin/nuvio-connect-controller", "serve", "--music", MUSIC, "--port", CONTROLLER_PORT,
            "--state", DISK / self.name])
        self.web = Process(self, "web", ["nginx", "-p", self.folder, "-c", self.folder / "nginx.conf"])
        icecast.write_conf(self.folder / "icecast.xml", RADIO_PORT, CLOSET, BURST)
        self.radio = Process(self, "radio", ["icecast2", "-c", self.folder / "icecast.xml"])
        self.station = icecast.Station((CLOSET, RADIO_PORT), RADIO.read_bytes(), "audio/mpeg",
                                       music.RADIO_BYTES_A_SECOND)
        self.processes.update(controller=self.controller, web=self.web, radio=self.radio)

    def start(self):
        super().start()
        self.web.start()
        self.radio.start()
        self.station.begin()
        self.controller.start()


class House:
    def __init__(self, plan):
        self.closet = Closet()
        self.rooms = {room["name"]: Room(number, room) for number, room in enumerate(plan["rooms"])}
        self.places = {"Closet": self.closet, **self.rooms}

    def start(self):
        for place in self.places.values():
            place.start()

    def dump(self):
        """Devices and controller leave their memory, for a debugger."""
        pathlib.Path("/proc/sys/kernel/core_pattern").write_text("core")
        ours = [place.processes[name] for place in self.places.values() for name in ("device", "controller")
                if name in place.processes]
        ours = [process.running for process in ours if process.running is not None and process.running.poll() is None]
        for process in ours:
            process.send_signal(signal.SIGSTOP)
        for process in ours:
            resource.prlimit(process.pid, resource.RLIMIT_CORE, (resource.RLIM_INFINITY,) * 2)
            process.send_signal(signal.SIGABRT)
            process.send_signal(signal.SIGCONT)
            process.wait()

    def freeze(self):
        """Where the power is about to be cut: nobody does anything any more."""
        for process in (each for place in self.places.values() for each in place.processes.values()):
            if process.running is not None and process.running.poll() is None:
                process.running.send_signal(signal.SIGSTOP)


def plan():
    return json.loads(pathlib.Path("/house.json").read_text())
