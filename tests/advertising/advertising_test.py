"""The advertiser on a real network: two hosts joined by a veth pair, each with its own D-Bus and
Avahi daemon, and avahi-browse as the controller.

Everything runs in namespaces (network, mounts, processes): when this program ends, in whatever way,
the kernel ends all that it started and drops interfaces and files with them.
"""

import functools
import itertools
import os
import pathlib
import re
import signal
import subprocess
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
import device as e2e  # noqa: E402

RUN = pathlib.Path("/run")  # a tmpfs of our own
SERVICE_TYPE = "_nuvio-connect._tcp"
UUID = "0a1b2c3d-0000-4000-8000-000000000001"
ENTRIES = ["path=/", f"device_uuid={UUID}", "sdk_version=1.2.3", "type=SPEAKER"]
# avahi-browse prints the last entry of the record first.
TXT = " ".join(f'"{entry}"' for entry in reversed(ENTRIES))
# How long the network may take to reach a state, probes and announcements included.
PATIENCE_S = 60
BROWSE_S = 10
IDLE_S = 4
wait_for = functools.partial(e2e.wait_for, seconds=PATIENCE_S)

AVAHI_CONFIG = """
[server]
host-name={name}
domain-name=house
allow-interfaces={interface}
[publish]
publish-workstation=no
publish-hinfo=no
"""


class Host:
    """A machine on the network; host a is where this program runs itself."""

    starts = itertools.count(1)

    def __init__(self, name, interface, address, process):
        self.address = address
        self.directory = RUN / name
        self.directory.mkdir()
        self.prefix = ["nsenter", f"--target={process}", "--net", "--mount", "--"]
        self.environment = {
            **os.environ, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.directory}/system-bus"}
        self.bus = self.avahi = None
        (self.directory / "avahi.conf").write_text(
            AVAHI_CONFIG.format(name=name, interface=interface))
        for command in (f"ip address add {address}/24 dev {interface}",
                        f"ip link set {interface} up", "ip link set lo up", "mkdir -p /run/avahi-daemon",
                        "mount -t tmpfs tmpfs /run/avahi-daemon"):
            subprocess.run(self.prefix + command.split(), check=True)

    def spawn(self, log, *command, **options):
        with open(log, "ab") as output:
            return subprocess.Popen(self.prefix + list(command), env=self.environment,
                                    stdout=output, stderr=output, **options)

    def start_bus(self):
        socket = self.directory / "system-bus"
        socket.unlink(missing_ok=True)
        self.bus = self.spawn(self.directory / "bus.log", e2e.OWN_DAEMON, "system-bus", self.directory)
        wait_for("a bus", socket.exists)

    def start_avahi(self):
        """Until it is up: one that is ended while it starts can leave an empty file for its process
        id, and then none starts any more, or never ends because its bus went."""
        log = self.directory / f"avahi-{next(self.starts)}.log"
        self.avahi = self.spawn(log, "avahi-daemon", "--no-drop-root", "--no-chroot",
                                "--no-rlimits", f"--file={self.directory}/avahi.conf")
        wait_for("Avahi", lambda: "Server startup complete" in log.read_text())

    def start(self):
        self.start_bus()
        self.start_avahi()

    def stop_avahi(self, signal_number=signal.SIGTERM):
        self.avahi.send_signal(signal_number)
        self.avahi.wait(PATIENCE_S)

    def stop(self):
        self.bus.terminate()
        self.bus.wait(PATIENCE_S)
        self.stop_avahi()

    def browse(self):
        """What this host's daemon resolves: {name: {(protocol, port, txt)}}."""
        try:
            result = subprocess.run(["avahi-browse", "-rpt", "--no-db-lookup", SERVICE_TYPE],
                                    env=self.environment, check=False, capture_output=True,
                                    text=True, timeout=BROWSE_S)
        except subprocess.TimeoutExpired:
            return {}  # it waits for ever for a record that was withdrawn under it
        found = {}
        for line in result.stdout.splitlines():
            if line.startswith("="):
                _, _, protocol, name, _, _, _, _, port, txt = line.split(";", 9)
                found.setdefault(name, set()).add((protocol, int(port), txt))
        return found

    def sees(self, *names):
        """Waits until exactly these are there, by their names as avahi-browse escapes them."""
        wait_for(f"{self.address} sees {names}", lambda: set(self.browse()) == set(names))

    def sees_kitchen_as(self, protocols, port):
        wanted = {(protocol, port, TXT) for protocol in protocols}
        wait_for(f"{self.address} sees {wanted}", lambda: self.browse().get("Kitchen") == wanted)


class Device:
    """A running advertiser_host."""

    numbers = itertools.count(1)

    def __init__(self, host, *commands):
        self.log = host.directory / f"device-{next(self.numbers)}.log"
        self.process = host.spawn(self.log, *e2e.program("advertiser_host"), stdin=subprocess.PIPE)
        self.tell(*commands)

    def tell(self, *commands):
        for command in commands:
            self.process.stdin.write(f"{command}\n".encode())
        self.process.stdin.flush()

    def says(self, text, times=1):
        wait_for(f"{times} x '{text}'", lambda: self.log.read_text().count(text) >= times)

    def wake_ups(self):
        """How often the program's main thread has gone to sleep so far."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.M)[1])

    def end(self):
        """The orderly end; True: all released, nothing left on the loop, no sanitizer report."""
        self.process.stdin.close()
        return self.process.wait(PATIENCE_S) == 0

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE_S)


class Advertising(unittest.TestCase):
    """Devices are on host b and looked for from host a, unless said otherwise."""

    @classmethod
    def setUpClass(cls):
        if os.getpid() != 1:
            raise unittest.SkipTest("not in namespaces of its own")
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", RUN], check=True)
        own = os.readlink("/proc/self/ns/net")
        other = subprocess.Popen(["unshare", "--net", "--mount", "sleep", "infinity"])
        wait_for("a namespace", lambda: os.readlink(f"/proc/{other.pid}/ns/net") != own)
        subprocess.run(f"ip link add veth-a type veth peer name veth-b netns {other.pid}".split(),
                       check=True)
        cls.a = Host("alpha", "veth-a", "10.77.0.1", os.getpid())
        cls.b = Host("beta", "veth-b", "10.77.0.2", other.pid)

    def setUp(self):
        for host in (self.a, self.b):
            host.start()
            self.addCleanup(host.stop)

    def device(self, host, *commands):
        device = Device(host, *commands)
        self.addCleanup(device.kill)
        return device

    def assert_sleeps(self, device, seconds=IDLE_S, wake_ups=1):
        """Comes to a time with no more than that; what polls never does."""
        def sleeps():
            before = device.wake_ups()
            time.sleep(seconds)
            return device.wake_ups() - before <= wake_ups
        wait_for("sleep", sleeps)

    def test_publishes_what_is_asked_for_as_long_as_it_is_asked_for(self):
        device = self.device(self.b, "stop", "port 4711", "start Kitchen")
        self.a.sees_kitchen_as({"IPv4", "IPv6"}, 4711)
        device.says("Asked for by .house")
        self.assert_sleeps(device)
        device.tell("stop", "start Bath.")
        self.a.sees("Bath\\.")
        device.tell("stop", "ipv6 0", "start Kitchen")
        self.a.sees_kitchen_as({"IPv4"}, 4711)
        self.assertTrue(device.end())
        self.a.sees()

    def test_devices_of_one_name_get_unique_names_and_keep_them(self):
        first = self.device(self.a, "start Kitchen")
        first.says("ESTABLISHED")
        second = self.device(self.b, "start Kitchen")
        second.says("WARNING SampleApp: Unable to add service 'Kitchen' to the Avahi entry group "
                    "because of collision, trying 'Kitchen #2'")
        second.says("ESTABLISHED")
        third = self.device(self.b, "port 8081", "start Kitchen #2")
        third.says("trying 'Kitchen #3'")  # its own daemon refuses at once
        for host in (self.a, self.b):
            host.sees("Kitchen", "Kitchen\\032\\0352", "Kitchen\\032\\0353")
        first.kill()
        self.b.stop_avahi()
        self.a.sees()
        self.b.start_avahi()
        self.a.sees("Kitchen\\032\\0352", "Kitchen\\032\\0353")
        self.assertTrue(second.end() and third.end())

    def test_a_daemon_that_comes_late_or_back_finds_the_device_waiting(self):
        self.b.stop_avahi()
        device = self.device(self.b, "start Kitchen")
        for restart, end in enumerate((signal.SIGKILL, signal.SIGTERM, None), 1):
            device.says("CONNECTING", restart)
            self.assert_sleeps(device)
            # Host a may still remember the old record: the port tells them apart.
            device.tell(f"port {restart}")
            self.b.start_avahi()
            self.a.sees_kitchen_as({"IPv4", "IPv6"}, restart)
            if end is not None:
                self.b.stop_avahi(end)
                device.says("FAILURE", restart)
        self.assertTrue(device.end())

    def test_a_bus_that_comes_late_or_back_is_found_again(self):
        no_client = "ERROR SampleApp: Unable to create Avahi client: "
        self.b.stop()
        device = self.device(self.b, "start Kitchen")
        device.says(no_client)
        self.assert_sleeps(device, 10, wake_ups=2)  # tries after 3 and 9 s, not each 3
        self.assertEqual(device.log.read_text().count("Unable to create Avahi client"), 1)
        self.b.start()
        self.a.sees("Kitchen")
        self.b.stop()
        device.says(no_client, 2)
        device.tell("stop", "start Bath")  # with the next attempt pending
        device.says(no_client, 3)
        self.b.start()
        self.a.sees("Bath")
        self.b.stop()
        device.says(no_client, 4)
        self.assertTrue(device.end())
        self.b.start()

    def test_what_cannot_be_published_is_logged_survived_and_tried_again(self):
        device = self.device(self.b, "uuid", "start Kitchen")
        device.says("ERROR SampleApp: Unable to retrieve the device UUID")
        device.tell("stop", f"uuid {'x' * 116}", "start Kitchen")
        device.says("ERROR SampleApp: Unable to publish the service: TXT entry 'device_uuid' "
                    "does not fit")
        self.a.sees()
        device.tell(f"uuid {'x' * 115}")
        self.b.stop_avahi()
        self.b.start_avahi()
        self.a.sees("Kitchen")
        device.tell("stop", f"start {'x' * 64}")
        device.says("to the Avahi entry group: Invalid service name")
        self.assertTrue(device.end())
