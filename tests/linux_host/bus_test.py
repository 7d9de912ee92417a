"""The device on a message bus of the test's own, driven by ordinary clients: playerctl, busctl and
the panel script. What becomes of their calls is read from the daemon's log.
"""
import os
import pathlib
import re
import shlex
import socket
import subprocess
import sys
import time
import wave

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))
from device import PANEL, PATIENCE, DeviceTest, own_device, program, wait_for  # noqa: E402

HOST = "org.nuvioconnect.Host1 /org/nuvioconnect/Host1 org.nuvioconnect.Host1"
POLICY = pathlib.Path(__file__).parents[2] / "packaging/dbus/nuvio-connect.conf"
MESSAGES = f"{HOST}.Messages"
MPRIS = "org.mpris.MediaPlayer2.nuvio_connect /org/mpris/MediaPlayer2 org.mpris.MediaPlayer2"
PLAYER = f"{MPRIS}.Player"
# Posted by the device itself.
REPORTS = "POST_PLAYSTATUS", "VOLUME_STATUS", "MUTE_STATE", "SHUFFLE_REPEAT"


class Bus(DeviceTest):
    def setUp(self):
        super().setUp()
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={self.folder}/none"
        self.write_settings(host__metrics_socket=self.folder / "metrics", host__bus_messages=1)
        self.events_seen = 0

    def begin_session(self):
        """The track "One" of 200 s by "Band" plays, two others follow."""
        album = self.folder / "one 1"
        album.mkdir()
        (album / "cover.jpg").write_bytes(b"\xff\xd8\xff")
        for n, title in enumerate(("One", "Two", "Three")):
            path = album / f"{n}.wav"
            with wave.open(str(path), "wb") as out:
                out.setparams((1, 2, 8000, 0, "NONE", ""))
                out.writeframes(bytes(200 * 8000 * 2))
            subprocess.run(["flac", "-s", "--delete-input-file", f"--tag=TITLE={title}",
                            "--tag=ARTIST=Band", "--tag=ALBUM=Album", path], check=True)
        if self.daemon is None:
            self.start()
        self.play(album)
        self.wait_for_answer("playerctl metadata title", "One")
        self.events()

    def call(self, command):
        return subprocess.run(shlex.split(command), env=self.environment, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE)

    def client(self, command):
        return self.call(command).stdout.rstrip("\n")

    def succeeds(self, command):
        return self.call(command).returncode == 0

    def wait_for_answer(self, command, answer):
        wait_for(f"{command}: {answer}", lambda: self.client(command) == answer)

    def wait_for_host(self):
        self.wait_for_answer(f"busctl --user get-property {PLAYER} CanControl", "b true")
        wait_for("host", lambda: self.succeeds(f"busctl --user get-property {HOST} Muted"))

    def follow(self, *words):
        """The file that a client which goes on listening writes to."""
        path = self.folder / words[0]
        with open(path, "wb") as out:
            follower = subprocess.Popen(words, env=self.environment, stdout=out)
        self.addCleanup(self.end, follower)
        return path

    def events(self):
        """What the clients have made the service do since the last call."""
        events = [event for event in re.findall(r"Received event = (.*)", self.log())
                  if event not in REPORTS]
        new, self.events_seen = events[self.events_seen:], len(events)
        return new

    def assert_become(self, commands):
        """What each command comes to in the service, and nothing else; a playback that begins anew
        brings volume and mute state with it."""
        for command, expected in commands:
            with self.subTest(command):
                self.assertTrue(self.succeeds(command))
                events = []
                wait_for(f"{command}: {expected}",
                         lambda: events.extend(self.events()) or expected in events)
                self.assertEqual([event for event in events if event == expected or
                                  not event.startswith(("VOLUME:", "MUTE:"))], [expected])

    def sleeps(self):
        """How often the host's threads have gone to sleep; a sanitizer's own does not count."""
        main = self.daemon.pid
        states = [(task / "status").read_text()
                  for task in pathlib.Path(f"/proc/{main}/task").iterdir()]
        return sum(int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", state, re.M)[1])
                   for state in states if re.search(rf"^Name:\thost-|^Pid:\t{main}$", state, re.M))

    def assert_idle(self):
        """Comes to sleep through a time in which a poll of any kind would show."""
        def is_asleep():
            before = self.sleeps()
            time.sleep(2.5)
            return self.sleeps() == before
        wait_for("sleep", is_asleep)

    def test_players_show_what_the_service_reports(self):
        self.begin_session()
        shown = self.follow("playerctl", "metadata", "--follow", "--format", "{{title}}/{{status}}")
        wait_for("follower", lambda: "One/Playing" in shown.read_text())
        self.assertEqual(self.client("playerctl metadata --format "
                                     "'{{artist}}|{{album}}|{{mpris:length}}|{{mpris:artUrl}}'"),
                         f"Band|Album|200000000|file://{self.folder}/one%201/cover.jpg")
        track = self.client("playerctl metadata mpris:trackid")
        for word, value in ("shuffle", "On"), ("loop", "Playlist"), ("volume", "0.400000"):
            self.player(word, value)
            self.wait_for_answer(f"playerctl {word}", value)
        self.player("pause")
        wait_for("follower", lambda: "One/Paused" in shown.read_text())
        self.assertEqual(self.client("playerctl metadata mpris:trackid"), track)
        self.player("position", "61.25")
        self.wait_for_answer("playerctl position", "61.250000")
        self.run_tool(PANEL, "standby")
        self.wait_for_answer(f"busctl --user get-property {PLAYER} Metadata", "a{sv} 0")
        self.wait_for_answer("playerctl status", "Stopped")
        self.assertFalse(self.succeeds("playerctl next"))  # nobody to do it

    def test_player_calls_become_commands_in_order(self):
        self.begin_session()
        self.assert_become([("playerctl pause", "PAUSE")])
        self.wait_for_answer("playerctl status", "Paused")
        self.assert_become([
            ("playerctl volume 0.55", "VOLUME:55"),
            ("playerctl volume 7", "VOLUME:100"),
            ("playerctl position 30.5", "SEEK:30500"),
            ("playerctl position 10+", "SEEK:40500"),  # from where it will be
            ("playerctl position 100-", "SEEK:0"),
            ("playerctl previous", "PREV"),
            ("playerctl position 300+", "NEXT"),  # past the end
            ("playerctl next", "NEXT"),
            ("playerctl shuffle on", "SHUFFLE:ON"),
            ("playerctl shuffle off", "SHUFFLE:OFF"),
            ("playerctl loop none", "REPEAT:OFF"),
            ("playerctl loop track", "REPEAT:ONE"),
            ("playerctl loop playlist", "REPEAT:ALL")])
        self.wait_for_answer("playerctl volume", "1.000000")  # a report of the one before may come late
        self.wait_for_answer("playerctl metadata title", "Three")  # and its state before it
        self.assert_become([
            ("playerctl play-pause", "RESUME"),
            ("playerctl play-pause", "PAUSE"),  # although it may not have reported
            (f"busctl --user set-property {PLAYER} Rate d 0", "PAUSE"),
            ("playerctl play", "RESUME"),
            ("playerctl stop", "STOP")])

    def test_player_calls_that_make_no_sense_are_refused_or_ignored(self):
        self.begin_session()
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
        self.assert_become([(f"{call} Seek x -- -9223372036854775808", "SEEK:0"),
                            (f"{call} Seek x 9223372036854775807", "NEXT")])

    def test_what_changes_is_signalled_and_of_the_position_the_jumps(self):
        self.begin_session()
        signals = self.follow("dbus-monitor", "--session",
                              "type=signal,path=/org/mpris/MediaPlayer2",
                              "type=signal,path=/org/nuvioconnect/Host1")
        wait_for("monitor", lambda: "NameAcquired" in signals.read_text())
        self.player("position", "90")
        wait_for("Seeked", lambda: re.search(r"member=Seeked\n +int64 (89|90)\d{6}\n",
                                             signals.read_text()))
        self.assertTrue(self.succeeds(f"busctl --user call {MESSAGES} WriteMessage is 200 twelve"))
        wait_for("message", lambda: re.search(r'member=MessageChanged\n +int32 200\n +string "twelve"',
                                              signals.read_text()))
        for command, names in (("rename Attic", ("Identity", "DeviceName")), ("mute", ("Muted",)),
                               ("volume 35", ("Volume",)), ("network down", ("Wired", "Wireless")),
                               ("take-output 4", ("CurrentSource", "PlaybackStatus"))):
            before = len(signals.read_text())
            self.assertTrue(self.succeeds(f"{PANEL} {command}"), command)
            for name in names:
                wait_for(name, lambda name=name, before=before: re.search(
                    rf'member=PropertiesChanged(\n .*)*"{name}"', signals.read_text()[before:]))
        self.assertNotIn('"Position"', signals.read_text())

    def test_the_panel_does_the_rest(self):
        self.start()
        self.assertIn("No source", self.client(f"{PANEL} standby"))
        self.begin_session()
        self.assert_become([(f"{PANEL} {command}", expected) for command, expected in (
            ("mute", "MUTE"), ("volume 30", "VOLUME:30"), ("take-output 4", "ONSOURCESWITCH"),
            ("rename 'Living: Room'", "DEVICENAME:Living: Room"))])
        self.assertEqual(self.client(f"{PANEL} read 50"), '"4"')
        self.assertTrue(self.succeeds(f"{PANEL} give-back"))
        self.assertEqual(self.client(f"{PANEL} read 50"), '"0"')
        self.assertTrue(self.succeeds(f"{PANEL} rename 'Living: Room'"))  # no news
        self.assertEqual(self.client(f"busctl --user get-property {MPRIS} Identity"),
                         's "Living: Room"')
        for state in "down", "up 2":
            self.assertTrue(self.succeeds(f"{PANEL} network {state}"))
        self.wait_for_log("NeshAlert iface = 2 , Status = 1")
        self.assertIn("Wireless        true", self.client(f"{PANEL} status"))
        self.assertIn("no value", self.client(f"{PANEL} read 9999"))
        for message in ("-1 x", f"1 {'x' * 9000}", "64 loud", "50 31", "63 mute",  # 50: its own
                        "90 'a VOLUME:90 room'", "90 ' blank at the front'"):
            self.assertFalse(self.succeeds(f"busctl --user call {MESSAGES} WriteMessage is -- {message}"))
        for command, status in (("take-output 31", 1), ("take-output 0", 1), ("take-output 256", 1),
                                ("seek 5", 1), ("rename ''", 1), ("write 70000 x", 1),
                                ("volume 101", 2), ("frobnicate", 2)):
            self.assertEqual(self.call(f"{PANEL} {command}").returncode, status, command)
        self.assertEqual(self.events(), [])

    def test_raw_messages_are_offered_only_where_a_setting_says_so(self):
        self.write_settings()
        self.start()
        wait_for("host", lambda: self.succeeds(f"busctl --user get-property {HOST} Muted"))
        for command in "read 50", "write 200 x":
            self.assertIn("Unknown", self.client(f"{PANEL} {command}"))

    def without_bus(self):
        """Not even the folder of its socket is there."""
        self.end(self.bus)
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={self.folder}/run/deep/bus"
        return self.folder / "run/deep"

    def test_a_bus_that_comes_later_or_anew_is_found_and_nothing_is_polled_meanwhile(self):
        folder = self.without_bus()
        self.start(player=False)
        self.assert_idle()
        folder.mkdir(parents=True)
        bus, _ = own_device.start_bus(folder)
        self.wait_for_host()
        self.assert_idle()
        self.end(bus)
        self.track("one.wav", 40)
        self.assertEqual(self.connect(self.music), 200)
        self.wait_for_log("Playback state changed")
        self.addCleanup(self.end, own_device.start_bus(folder)[0])
        self.wait_for_answer("playerctl status", "Playing")
        self.wait_for_answer("playerctl metadata title", "one")

    def test_a_bus_that_drops_the_first_connection_is_found(self):
        folder = self.without_bus()
        folder.mkdir(parents=True)
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(folder / "bus"))
            listener.listen()
            self.start(wait=False)
            listener.accept()[0].close()
            # The same socket, now served: nothing in its folder tells.
            bus = subprocess.Popen(
                ["sh", "-c", f"exec 3<&{listener.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "
                 "dbus-daemon --session --address=systemd: --nofork --nopidfile"],
                pass_fds=[listener.fileno()])
            self.addCleanup(self.end, bus)
        self.wait_for_host()

    def test_without_settings_it_fails_and_says_why(self):
        os.mkfifo(self.folder / "pipe")
        for path in self.folder / "absent", self.folder, self.folder / "pipe":
            answer = self.call(f"env NUVIO_SETTINGS={path} {shlex.join(program('nuvio-connect'))}")
            self.assertIn(f"cannot read the settings in {path}:", answer.stdout)
            self.assertEqual(answer.returncode, 1)

    def on_a_bus_with_our_policy(self):
        """As the system's: nobody may own or call what no policy names. We are the account."""
        self.end(self.bus)
        policy = POLICY.read_text()
        (self.folder / "policy.conf").write_text(
            policy.replace('user="root"', f'user="{os.geteuid()}"'))
        address = f"unix:path={self.folder}/system-bus"
        (self.folder / "bus.conf").write_text(
            f"""<busconfig><type>system</type><listen>{address}</listen><auth>EXTERNAL</auth>
            <policy context="default"><allow user="*"/><deny own="*"/>
            <deny send_type="method_call"/><allow receive_type="method_call"/>
            <allow send_type="signal"/><allow receive_type="signal"/>
            <allow send_type="method_return"/><allow send_type="error"/>
            <allow receive_type="method_return"/><allow receive_type="error"/>
            <allow send_destination="org.freedesktop.DBus"/></policy>
            <include>policy.conf</include></busconfig>""")
        bus = subprocess.Popen(["dbus-daemon", "--nofork", "--nopidfile", "--config-file",
                                self.folder / "bus.conf"], stderr=subprocess.DEVNULL)
        self.addCleanup(self.end, bus)
        wait_for("bus", (self.folder / "system-bus").exists)
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = address

    def test_a_second_device_takes_a_name_of_its_own(self):
        self.on_a_bus_with_our_policy()
        self.start()
        folder = self.folder / "second"
        folder.mkdir()
        own_device.write_settings(folder, own_device.free_port())
        second = subprocess.Popen(program("nuvio-connect"), stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL, env=self.environment |
                                  {"NUVIO_SETTINGS": str(folder / "settings.conf")})
        self.addCleanup(self.end, second)
        instance = f"nuvio_connect.instance{second.pid}"
        self.wait_for_answer("playerctl -l", f"nuvio_connect\n{instance}")
        for player in "nuvio_connect", instance:
            self.assertEqual(self.client(f"playerctl -p {player} status"), "Stopped")
        host = HOST.replace(" ", f".instance{second.pid} ", 1)
        self.assertEqual(self.client(f"busctl --user call {host} SetMute b true"), "")
        self.wait_for_answer(f"busctl --user get-property {host} Muted", "b true")
