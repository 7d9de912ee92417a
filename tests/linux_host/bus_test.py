"""The Linux host on a message bus of the test's own, driven by ordinary clients: playerctl, busctl
and the panel script. linux_host_service plays the part of the service.
"""
import os
import pathlib
import queue
import re
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))
from device import PATIENCE, program, wait_for  # noqa: E402

PANEL = pathlib.Path(__file__).parents[2] / "tools/panel/panel"
HOST = "org.nuvioconnect.Host1 /org/nuvioconnect/Host1 org.nuvioconnect.Host1"
MPRIS = "org.mpris.MediaPlayer2.nuvio_connect /org/mpris/MediaPlayer2 org.mpris.MediaPlayer2"
PLAYER = f"{MPRIS}.Player"


class Child:
    """A process whose lines are read with patience."""

    def __init__(self, words, environment, pass_fds=()):
        self.process = subprocess.Popen(words, env=environment, text=True, bufsize=1,
                                        pass_fds=pass_fds,
                                        errors="surrogateescape", stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        self.lines = queue.Queue()
        self.reader = threading.Thread(target=self.read)
        self.reader.start()

    def read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def say(self, line):
        self.process.stdin.write(line + "\n")

    def next_line(self):
        return self.lines.get(timeout=PATIENCE)

    def skip_to(self, text):
        while text not in self.next_line():
            pass

    def end(self):
        self.process.kill()
        self.process.wait()
        self.reader.join()
        self.process.stdin.close()
        self.process.stdout.close()


class Bus(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="nuvio-bus-"))
        self.addCleanup(shutil.rmtree, self.folder)
        self.socket = self.folder / "run/deep/bus"
        self.environment = dict(
            os.environ, DBUS_SESSION_BUS_ADDRESS=f"unix:path={self.socket}",
            DBUS_SYSTEM_BUS_ADDRESS=f"unix:path={self.folder}/none",
            NUVIO_SETTINGS=str(self.folder / "settings.conf"),
            NUVIO_STATE_DIR=str(self.folder / "state"))
        (self.folder / "settings.conf").write_text(
            "feature.nuvio_connect = 1\nhost.allow_loopback = 1\nhost.friendly_name = Radio\n")

    def child(self, *words, pass_fds=(), **variables):
        child = Child(words, self.environment | variables, pass_fds)
        self.addCleanup(child.end)
        return child

    def start_bus(self):
        self.socket.parent.mkdir(parents=True)
        self.child("dbus-daemon", "--session", "--nofork", "--nopidfile",
                   f"--address=unix:path={self.socket}")

    def start_service(self):
        self.service = self.child(*program("linux_host_service"))
        self.assertEqual(self.service.next_line(), "ready 1")

    def wait_for_host(self):
        wait_for("player", lambda: self.client(f"busctl --user get-property {PLAYER} CanControl")
                 == "b true" and self.succeeds(f"busctl --user get-property {HOST} Muted"))

    def start(self):
        self.start_bus()
        self.start_service()
        self.wait_for_host()

    def play(self):
        """A session plays the track "One" of 200 s by "Band"."""
        self.start()
        self.tell("source")
        self.assertEqual(self.heard(), "granted")
        self.tell("state 0", "track One|Band|Album|200000|/art/one 1.png|0|0")
        self.wait_for_answer("playerctl metadata title", "One")

    def tell(self, *orders):
        for order in orders:
            self.service.say(order)

    def heard(self):
        """The next line from the service, alerts of messages that are only logged left out."""
        while (line := self.service.next_line()) in ("alert 64", "alert 63", "alert 51"):
            pass
        return line

    def assert_silence(self):
        """Nothing more has been heard: an answer to a question of ours comes next."""
        self.tell("read 9999")
        self.assertEqual(self.heard(), "9999=")

    def call(self, command):
        return subprocess.run(shlex.split(command), env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE)

    def client(self, command):
        return self.call(command).stdout.rstrip("\n")

    def succeeds(self, command):
        return self.call(command).returncode == 0

    def wait_for_answer(self, command, answer):
        wait_for(f"{command}: {answer}", lambda: self.client(command) == answer)

    def assert_become(self, commands):
        """What each command comes to in the service."""
        for command, expected in commands:
            with self.subTest(command):
                self.assertTrue(self.succeeds(command))
                self.assertEqual(self.heard(), expected)

    def sleeps(self):
        """How often the host's threads have gone to sleep; a sanitizer's own does not count."""
        main = self.service.process.pid
        states = [(task / "status").read_text() for task in pathlib.Path(f"/proc/{main}/task").iterdir()]
        return sum(int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", state, re.M)[1])
                   for state in states if re.search(rf"^Name:\thost-|^Pid:\t{main}$", state, re.M))

    def assert_idle(self):
        """Sleeps through a time in which a poll of any kind would show."""
        before = self.sleeps()
        time.sleep(2.5)
        self.assertEqual(self.sleeps(), before)

    def test_players_show_what_the_service_reports(self):
        self.play()
        follower = self.child("playerctl", "metadata", "--follow", "--format",
                              "{{title}}/{{status}}")
        follower.skip_to("One/Playing")
        self.assertEqual(self.client("playerctl metadata --format "
                                     "'{{artist}}|{{album}}|{{mpris:length}}|{{mpris:artUrl}}'"),
                         "Band|Album|200000000|file:///art/one%201.png")
        self.tell("track One|Band|Album|200000|/art/one 1.png|1|2")
        self.wait_for_answer("playerctl shuffle", "On")
        self.assertEqual(self.client("playerctl loop"), "Playlist")
        self.tell("volume 40")
        self.wait_for_answer("playerctl volume", "0.400000")
        self.tell("state 2", "position 61250")
        self.wait_for_answer("playerctl position", "61.250000")
        follower.skip_to("One/Paused")

        self.tell("track \udcff||||||")  # a byte that no bus would carry
        self.wait_for_answer("playerctl metadata title", "\ufffd")
        self.tell("clear", "drop")
        self.wait_for_answer(f"busctl --user get-property {PLAYER} Metadata", "a{sv} 0")
        self.wait_for_answer("playerctl status", "Stopped")
        self.assertFalse(self.succeeds("playerctl next"))  # nobody to do it

    def test_player_calls_become_commands_in_order(self):
        self.play()
        self.tell("state 2", "position 10000")
        self.wait_for_answer("playerctl position", "10.000000")
        self.assert_become([
            ("playerctl play", "event RESUME"),
            ("playerctl pause", "event PAUSE"),
            ("playerctl stop", "event STOP"),
            ("playerctl next", "event NEXT"),
            ("playerctl previous", "event PREV"),
            ("playerctl position 30.5", "event SEEK:30500"),
            ("playerctl position 10+", "event SEEK:40500"),  # from where it will be
            ("playerctl position 100-", "event SEEK:0"),
            ("playerctl position 300+", "event NEXT"),  # past the end
            ("playerctl volume 0.55", "volume 55"),
            ("playerctl volume 7", "volume 100"),
            ("playerctl shuffle on", "event SHUFFLE:ON"),
            ("playerctl shuffle off", "event SHUFFLE:OFF"),
            ("playerctl loop none", "event REPEAT:OFF"),
            ("playerctl loop track", "event REPEAT:ONE"),
            ("playerctl loop playlist", "event REPEAT:ALL"),
            ("playerctl play-pause", "event RESUME"),  # paused now
            ("playerctl play-pause", "event PAUSE"),   # although it has not reported
            (f"busctl --user set-property {PLAYER} Rate d 0", "event PAUSE")])
        self.assertEqual(self.client("playerctl volume"), "1.000000")

    def test_player_calls_that_make_no_sense_are_refused_or_ignored(self):
        self.play()
        call = f"busctl --user call {PLAYER}"
        change = f"busctl --user set-property {PLAYER}"
        track = self.client("playerctl metadata mpris:trackid").strip("'")
        for ignored in ("/org/nuvioconnect/track/99 1000000", "/ 0", f"{track} 200000001",
                        f"-- {track} -1"):
            self.assertTrue(self.succeeds(f"{call} SetPosition ox {ignored}"), ignored)
        self.assertIn("controller", self.client(f"{call} OpenUri s file:///x"))
        self.assertIn("None, Track", self.client(f"{change} LoopStatus s Sometimes"))
        self.assertFalse(self.succeeds(f"{change} Volume d nan"))
        self.assertFalse(self.succeeds(f"{change} Volume s loud"))
        self.assert_become([(f"{call} Seek x 9223372036854775807", "event NEXT"),
                            (f"{call} Seek x -- -9223372036854775808", "event SEEK:0")])
        self.tell("track Endless|||0||0|0")
        self.wait_for_answer("playerctl metadata title", "Endless")
        self.assert_become([(f"{call} Seek x 9223372036854775807", "event SEEK:2147483647")] * 2)
        self.assert_silence()

    def test_jumps_of_the_position_and_changes_of_messages_are_signalled(self):
        self.play()
        monitor = self.child("dbus-monitor", "--session",
                             "type=signal,path=/org/mpris/MediaPlayer2",
                             "type=signal,path=/org/nuvioconnect/Host1")
        monitor.skip_to("NameAcquired")  # connected before anything happens
        self.tell("position 90000")
        monitor.skip_to("member=Seeked")
        self.assertIn("int64 ", monitor.next_line())
        # The next line is the next signal's: the position has no other.
        self.assertTrue(self.succeeds(f"busctl --user call {HOST} WriteMessage is 200 twelve"))
        for part in "member=MessageChanged", "int32 200", 'string "twelve"':
            self.assertIn(part, monitor.next_line())

    def test_the_panel_does_the_rest(self):
        self.start()
        self.assertIn("No source", self.client(f"{PANEL} standby"))
        self.assertTrue(self.succeeds(f"{PANEL} refuse-next"))
        for answer in "refused", "granted":
            self.tell("source")
            self.assertEqual(self.heard(), answer)
        self.assert_become([(f"{PANEL} {command}", expected) for command, expected in (
            ("mute", "event MUTE"), ("standby", "event STANDBYON"), ("volume 30", "volume 30"),
            ("take-output 4", "switch"), ("shutdown", "alert 37"),
            ("rename 'Living: Room'", "alert 90"), ("network down", "net 1 0"),
            ("network up 2", "net 2 1"))])
        self.assertEqual(self.client(f"{PANEL} read 50"), '"4"')
        self.assertTrue(self.succeeds(f"{PANEL} give-back"))
        self.assertEqual(self.client(f"{PANEL} read 50"), '"0"')
        self.assertTrue(self.succeeds(f"{PANEL} rename 'Living: Room'"))  # no news
        self.assertEqual(self.client(f"busctl --user get-property {MPRIS} Identity"),
                         's "Living: Room"')
        self.tell("network 1")
        self.assertEqual(self.heard(), "network 1 0")
        self.assertIn("Wireless        true", self.client(f"{PANEL} status"))
        self.assertIn("no value", self.client(f"{PANEL} read 9999"))
        for command, status in (("seek 5", 1), ("rename ''", 1), ("write 70000 x", 1),
                                ("volume 101", 2), ("frobnicate", 2)):
            self.assertEqual(self.call(f"{PANEL} {command}").returncode, status, command)
        self.assert_silence()

    def test_a_bus_that_comes_later_is_found_and_nothing_is_polled_meanwhile(self):
        self.start_service()  # not even the socket's folder is there
        time.sleep(3)         # past the few tries after the start
        self.assert_idle()
        self.start_bus()
        self.wait_for_host()
        time.sleep(0.5)
        self.assert_idle()
        self.service.process.send_signal(signal.SIGTERM)
        self.service.skip_to("ended")
        self.service.process.stdin.close()
        self.assertEqual(self.service.process.wait(PATIENCE), 0)

    def test_a_bus_that_drops_the_first_connection_is_found(self):
        self.socket.parent.mkdir(parents=True)
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.socket))
            listener.listen()
            self.start_service()
            listener.accept()[0].close()
            # The same socket, now served: nothing in its folder tells.
            self.child("sh", "-c", f"exec 3<&{listener.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "
                       "dbus-daemon --session --address=systemd: --nofork --nopidfile",
                       pass_fds=[listener.fileno()])
        self.wait_for_host()

    def test_without_settings_it_fails_and_says_why(self):
        (self.folder / "settings.conf").unlink()
        answer = subprocess.run(program("linux_host_service"), text=True, stderr=subprocess.PIPE,
                                env=self.environment, stdin=subprocess.DEVNULL, timeout=PATIENCE)
        self.assertIn("cannot read the settings", answer.stderr)
        self.assertEqual(answer.returncode, 1)

    def test_a_second_device_takes_a_name_of_its_own(self):
        self.start()
        second = self.child(*program("linux_host_service"),
                            NUVIO_STATE_DIR=str(self.folder / "second"))
        self.wait_for_answer("playerctl -l", "nuvio_connect\nnuvio_connect.instance"
                             f"{second.process.pid}")


if __name__ == "__main__":
    unittest.main()
