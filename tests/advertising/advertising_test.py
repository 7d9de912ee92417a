"""The advertiser on a real network: two hosts joined by a veth pair, each with its own D-Bus and
Avahi daemon, and avahi-browse as the controller.

usage: advertising_test.py ADVERTISER_HOST FIND_DIRECTORY [unittest arguments]

Everything runs in namespaces made here (network, mounts, processes): when this program ends, in
whatever way, the kernel ends all that it started and drops interfaces and files with them. Ends
with 77 (skipped) where such namespaces cannot be made.
"""

import http.server
import itertools
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest

SKIPPED = 77
INSIDE = "--inside-namespaces"
RUN = pathlib.Path("/run")  # a tmpfs of our own
SERVICE_TYPE = "_nuvio-connect._tcp"
UUID = "0a1b2c3d-0000-4000-8000-000000000001"
# As avahi-browse prints it: the last entry of the record first.
TXT = f'"type=SPEAKER" "sdk_version=1.2.3" "device_uuid={UUID}" "path=/"'
# How long the network may take to reach a state, probes and announcements included.
PATIENCE_S = 30
IDLE_S = 4

BUS_CONFIG = """
<busconfig>
  <type>system</type>
  <listen>unix:path={directory}/bus</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/>
    <allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
</busconfig>
"""

AVAHI_CONFIG = """
[server]
host-name={name}
use-ipv4=yes
use-ipv6=yes
allow-interfaces={interface}
[publish]
publish-workstation=no
publish-hinfo=no
"""


def wait_for(what, condition):
    deadline = time.monotonic() + PATIENCE_S
    while time.monotonic() < deadline:
        result = condition()
        if result:
            return result
        time.sleep(0.1)
    raise AssertionError(f"not within {PATIENCE_S} s: {what}")


def stop(process, sig=signal.SIGTERM):
    if process is not None and process.poll() is None:
        process.send_signal(sig)
        process.wait(PATIENCE_S)


def unescape(name):
    """avahi-browse writes a byte as a backslash and three digits, or a backslash before it."""
    return re.sub(
        rb"\\(\d{3}|.)",
        lambda found: bytes([int(found[1])]) if len(found[1]) == 3 else found[1],
        name.encode(),
    ).decode()


class Host:
    """A machine on the network; the first one is where this program runs itself."""

    def __init__(self, name, interface, address, namespaces):
        self.name = name
        self.address = address.partition("/")[0]
        self.directory = RUN / name
        self.directory.mkdir()
        self.prefix = ["nsenter", "--target", str(namespaces), "--net", "--mount", "--"]
        self.environment = dict(
            os.environ, DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={self.directory}/bus"
        )
        self.bus = self.avahi = None
        (self.directory / "bus.conf").write_text(BUS_CONFIG.format(directory=self.directory))
        (self.directory / "avahi.conf").write_text(
            AVAHI_CONFIG.format(name=name, interface=interface)
        )
        self.run("ip", "address", "add", address, "dev", interface)
        self.run("ip", "link", "set", interface, "up")
        self.run("ip", "link", "set", "lo", "up")
        self.run("mkdir", "-p", "/run/avahi-daemon")
        self.run("mount", "-t", "tmpfs", "tmpfs", "/run/avahi-daemon")

    def run(self, *command):
        subprocess.run(self.prefix + list(command), check=True)

    def spawn(self, log, *command):
        with open(self.directory / log, "ab") as output:
            return subprocess.Popen(
                self.prefix + list(command), env=self.environment, stdout=output, stderr=output
            )

    def start_bus(self):
        if self.bus is not None and self.bus.poll() is None:
            return
        (self.directory / "bus").unlink(missing_ok=True)
        self.bus = self.spawn(
            "bus.log", "dbus-daemon", f"--config-file={self.directory}/bus.conf", "--nofork",
            "--nopidfile",
        )
        wait_for("a bus", (self.directory / "bus").exists)

    def stop_bus(self):
        stop(self.bus)

    def start_avahi(self):
        if self.avahi is not None and self.avahi.poll() is None:
            return
        self.avahi = self.spawn(
            "avahi.log", "avahi-daemon", "--no-drop-root", "--no-chroot", "--no-rlimits",
            "-f", str(self.directory / "avahi.conf"),
        )

    def stop_avahi(self, sig=signal.SIGTERM):
        stop(self.avahi, sig)

    def browse(self):
        """What this host's daemon resolves: {name: {(protocol, port, txt)}}, other hosts' only."""
        result = subprocess.run(
            ["avahi-browse", "-rpt", SERVICE_TYPE], env=self.environment, check=False,
            capture_output=True, text=True, timeout=PATIENCE_S,
        )
        found = {}
        for line in result.stdout.splitlines():
            if line.startswith("="):
                _, _, protocol, name, _, _, _, _, port, txt = line.split(";", 9)
                name = unescape(name)
                found.setdefault(name, set()).add((protocol, int(port), txt))
        return found

    def wait_for_names(self, *names):
        wait_for(f"{self.name} sees {names}", lambda: set(self.browse()) == set(names))


class Device:
    """A running advertiser_host."""

    program = None
    numbers = itertools.count(1)

    def __init__(self, host):
        self.log = host.directory / f"device-{next(self.numbers)}.log"
        with open(self.log, "ab") as output:
            self.process = subprocess.Popen(
                host.prefix + [self.program], env=host.environment, stdin=subprocess.PIPE,
                stdout=output, stderr=output, text=True,
            )

    def tell(self, *commands):
        self.process.stdin.write("".join(f"{command}\n" for command in commands))
        self.process.stdin.flush()

    def said(self, text):
        return self.log.read_text().count(text)

    def wait_until_said(self, text, times=1):
        wait_for(f"'{text}' x {times}", lambda: self.said(text) >= times)

    def wake_ups(self):
        """How often the program's main thread has slept so far."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.M)[1])

    def end(self):
        """The orderly end: everything released, nothing left on the loop, no sanitizer report."""
        self.process.stdin.close()
        return self.process.wait(PATIENCE_S)

    def kill(self):
        stop(self.process, signal.SIGKILL)


HOSTS = {}
FIND = None  # the folder of the commands find and connect


def setUpModule():
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", str(RUN)], check=True)
    other = subprocess.Popen(["unshare", "--net", "--mount", "sleep", "infinity"])
    own_network = os.readlink("/proc/self/ns/net")
    wait_for("the other host",
             lambda: os.readlink(f"/proc/{other.pid}/ns/net") != own_network)
    subprocess.run(
        ["ip", "link", "add", "veth-a", "type", "veth", "peer", "name", "veth-b", "netns",
         str(other.pid)], check=True,
    )
    HOSTS["a"] = Host("alpha", "veth-a", "10.77.0.1/24", os.getpid())
    HOSTS["b"] = Host("beta", "veth-b", "10.77.0.2/24", other.pid)


def txt_on_the_wire(name, own_address):
    """The bytes of an answer to a one-shot multicast query for an instance's TXT record."""
    labels = [name, *SERVICE_TYPE.split("."), "local"]
    question = b"".join(bytes([len(label)]) + label.encode() for label in labels)
    query = struct.pack("!6H", 1, 0, 1, 0, 0, 0) + question + struct.pack("!BHH", 0, 16, 1)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as querier:
        querier.bind((own_address, 0))
        querier.setsockopt(
            socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(own_address)
        )
        querier.settimeout(PATIENCE_S)
        querier.sendto(query, ("224.0.0.251", 5353))
        return querier.recv(9000)


class Controller(http.server.BaseHTTPRequestHandler):
    """A device's local HTTP server; keeps what was posted."""

    posted = []

    def do_GET(self):
        self.answer(json.dumps({"asked": self.path}).encode())

    def do_POST(self):
        body = self.rfile.read(int(self.headers["Content-Length"]))
        self.posted.append((self.path, json.loads(body)))
        self.answer(b"")

    def answer(self, body):
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class Advertising(unittest.TestCase):
    """Host a publishes (this program's own network), host b browses, unless said otherwise."""

    def setUp(self):
        self.a, self.b = HOSTS["a"], HOSTS["b"]
        for host in (self.a, self.b):
            host.start_bus()
            host.start_avahi()

    def device(self, host, *commands):
        device = Device(host)
        self.addCleanup(device.kill)
        device.tell(*commands)
        return device

    def end(self, *devices):
        for device in devices:
            self.assertEqual(device.end(), 0, device.log.read_text())

    def test_four_txt_entries_in_order_and_the_port_are_published_for_both_protocols(self):
        device = self.device(self.b, "port 4711", "start Kitchen")
        self.a.wait_for_names("Kitchen")
        self.assertEqual(self.a.browse()["Kitchen"],
                         {("IPv4", 4711, TXT), ("IPv6", 4711, TXT)})
        entries = [b"path=/", b"device_uuid=" + UUID.encode(), b"sdk_version=1.2.3", b"type=SPEAKER"]
        self.assertIn(b"".join(bytes([len(entry)]) + entry for entry in entries),
                      txt_on_the_wire("Kitchen", self.a.address))
        self.end(device)

    def test_without_ipv6_in_the_http_server_the_device_is_published_for_ipv4_only(self):
        device = self.device(self.a, "ipv6 off", "start Kitchen")
        self.b.wait_for_names("Kitchen")
        self.assertEqual(self.b.browse()["Kitchen"], {("IPv4", 8080, TXT)})
        self.end(device)

    def test_stop_withdraws_and_the_next_start_publishes_the_name_it_is_given(self):
        device = self.device(self.a, "stop", "start Kitchen")
        self.b.wait_for_names("Kitchen")
        device.tell("stop")
        self.b.wait_for_names()
        device.tell("start Bath & Böden 50% \\.")
        self.b.wait_for_names("Bath & Böden 50% \\.")
        self.end(device)
        self.b.wait_for_names()

    def test_the_end_of_the_process_withdraws_the_device(self):
        device = self.device(self.a, "start Kitchen")
        self.b.wait_for_names("Kitchen")
        device.kill()
        self.b.wait_for_names()

    def test_one_name_on_two_hosts_becomes_two_and_the_second_outlives_its_daemon(self):
        first = self.device(self.a, "start Kitchen")
        first.wait_until_said("ESTABLISHED")
        second = self.device(self.b, "start Kitchen")
        for host in (self.a, self.b):
            host.wait_for_names("Kitchen", "Kitchen #2")
        self.assertEqual(second.said("WARNING SampleApp: Unable to add service 'Kitchen' to the "
                                     "Avahi entry group because of collision, trying 'Kitchen #2'"),
                         1)
        self.b.stop_avahi()
        first.tell("stop")
        self.a.wait_for_names()
        self.b.start_avahi()
        self.a.wait_for_names("Kitchen #2")
        self.end(first, second)

    def test_one_name_twice_on_one_host_becomes_two(self):
        first = self.device(self.a, "start Kitchen")
        first.wait_until_said("ESTABLISHED")
        second = self.device(self.a, "start Kitchen")
        self.b.wait_for_names("Kitchen", "Kitchen #2")
        self.end(first, second)

    def test_a_daemon_that_comes_late_or_back_finds_the_device_waiting(self):
        self.a.stop_avahi()
        device = self.device(self.a, "start Kitchen")
        device.wait_until_said("CONNECTING")
        self.a.start_avahi()
        self.b.wait_for_names("Kitchen")
        for again, end in enumerate((signal.SIGKILL, signal.SIGTERM), 1):
            self.a.stop_avahi(end)
            device.wait_until_said("FAILURE", again)
            device.wait_until_said("CONNECTING", 1 + again)
            self.assert_idle(device)
            # The other host may still remember the old record: the port tells them apart.
            port = 9000 + again
            device.tell(f"port {port}")
            self.a.start_avahi()
            wait_for(f"port {port}", lambda: {("IPv4", port, TXT), ("IPv6", port, TXT)}
                     == self.b.browse().get("Kitchen"))
        self.end(device)

    def test_a_bus_that_comes_late_or_back_is_found_again(self):
        self.stop_all(self.a)
        device = self.device(self.a, "start Kitchen")
        device.wait_until_said("Unable to create Avahi client: ")
        self.start_all(self.a)
        self.b.wait_for_names("Kitchen")
        self.stop_all(self.a)
        device.wait_until_said("ERROR SampleApp: Unable to create Avahi client: ", 2)
        # Stop and start while the next attempt is pending, then an end in that state.
        device.tell("stop", "start Bath")
        self.start_all(self.a)
        self.b.wait_for_names("Bath")
        self.stop_all(self.a)
        device.wait_until_said("ERROR SampleApp: Unable to create Avahi client: ", 4)
        self.end(device)

    def test_what_cannot_be_published_is_logged_survived_and_tried_again(self):
        device = self.device(self.a, "uuid", "start Kitchen")
        device.wait_until_said("ERROR SampleApp: Unable to retrieve the device UUID")
        device.tell("stop", f"uuid {'x' * 116}", "start Kitchen")
        device.wait_until_said("ERROR SampleApp: Unable to publish the service: TXT entry "
                               "'device_uuid' does not fit")
        self.b.wait_for_names()
        device.tell(f"uuid {'x' * 115}")
        self.a.stop_avahi()
        self.a.start_avahi()
        self.b.wait_for_names("Kitchen")
        device.tell("stop", f"start {'x' * 64}")
        device.wait_until_said("to the Avahi entry group: Invalid service name")
        self.end(device)

    def assert_idle(self, device):
        time.sleep(1)
        before = device.wake_ups()
        time.sleep(IDLE_S)
        self.assertLessEqual(device.wake_ups() - before, 1)

    def test_a_published_device_sleeps(self):
        device = self.device(self.a, "start Kitchen")
        self.b.wait_for_names("Kitchen")
        self.assert_idle(device)
        self.end(device)

    def test_find_shows_the_device_and_connect_hands_it_a_session(self):
        server = http.server.ThreadingHTTPServer((self.a.address, 0), Controller)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        device = self.device(self.a, f"port {server.server_port}", "start Bath & Böden.")
        self.b.wait_for_names("Bath & Böden.")
        shown = self.controller("find").stdout
        for line in ("Bath & Böden.", f"{self.a.address} port {server.server_port}",
                     "TXT      path=/\n  TXT      device_uuid=", '{"asked": "/get-display-info"}',
                     '{"asked": "/get-connect-info"}'):
            self.assertIn(line, shown)
        self.controller("connect", "Bath & Böden.", "file:///music/a.flac")
        (path, session), = Controller.posted
        self.assertEqual(path, "/connect-to-nconnect")
        self.assertEqual(session["jwt_api"]["endpoint"], "file:///music/a.flac")
        self.assertGreater(session["jwt_api"]["exp"], time.time())
        self.assertIs(session["become_active"], True)
        unknown = self.controller("connect", "Kitchen", "x", check=False)
        self.assertEqual(unknown.returncode, 1)
        self.assertIn("found: 'Bath & Böden.'", unknown.stderr)
        self.end(device)

    def controller(self, command, *arguments, check=True):
        return subprocess.run([str(FIND / command), *arguments], env=self.a.environment,
                              capture_output=True, text=True, check=check)

    @staticmethod
    def stop_all(host):
        host.stop_bus()
        host.stop_avahi()

    @staticmethod
    def start_all(host):
        host.start_bus()
        host.start_avahi()


def namespaces():
    user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
    return ["unshare", *user, "--net", "--mount", "--pid", "--fork", "--kill-child",
            "--mount-proc", "--"]


def main():
    if INSIDE not in sys.argv:
        probe = subprocess.run(namespaces() + ["true"], capture_output=True, text=True, check=False)
        if probe.returncode != 0:
            print(f"skipped: cannot make namespaces: {probe.stderr.strip()}")
            sys.exit(SKIPPED)
        command = namespaces() + [sys.executable, *sys.argv, INSIDE]
        os.execvp(command[0], command)
    sys.argv.remove(INSIDE)
    Device.program = sys.argv.pop(1)
    global FIND
    FIND = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main(verbosity=2, warnings="ignore")


if __name__ == "__main__":
    main()
