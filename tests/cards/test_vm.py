"""The packaged service on the kernel's own sound drivers, inside the machine that ./dev vm boots.

Each card is set up by `nuvio-connect --setup`: snd-aloop, whose other end is recorded here, HDA and
USB, which the emulator records and tools/vm/run.py compares. The long form plays over a bad network
too and boots the machine twice: the class AfterReboot is the second time's.
"""
import contextlib
import ctypes
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import time
import unittest
import zlib

SHARE = pathlib.Path("/srv/share")
sys.path.insert(0, str(SHARE / "tools/run"))
import own_device  # noqa: E402

SETTINGS = pathlib.Path("/etc/nuvio-connect/settings.conf")
UNIT = "nuvio-connect"
CONTROLLER = "nuvio-connect-controller"
PATIENCE = 60  # s: the processor is emulated
PORT = 8000
NAME = "Kitchen of the machine"
PLAYER = ("org.mpris.MediaPlayer2.nuvio_connect", "/org/mpris/MediaPlayer2",
          "org.mpris.MediaPlayer2.Player")


def run(*words, check=True):
    result = subprocess.run(words, text=True, capture_output=True, timeout=PATIENCE)
    if check and result.returncode != 0:
        raise AssertionError(f"{words}: {result.stdout}{result.stderr}")
    return result.stdout.strip()


def wait(what, condition, seconds=PATIENCE):
    return own_device.wait_for(what, condition, seconds)


def state(*names):
    return [run("systemctl", "show", UNIT, "-p", name, "--value") for name in names]


def answers():
    try:
        return own_device.request(PORT, "GET", "/get-display-info")[0] == 200
    except OSError:
        return False


def settings(**values):
    """As a person fills them in."""
    text = SETTINGS.read_text()
    for key, value in values.items():
        text = re.sub(rf"(?m)^#?{re.escape(key.replace('__', '.'))} =.*$",
                      f"{key.replace('__', '.')} = {value}", text)
    SETTINGS.write_text(text)


def set_up(card):
    """What --setup says: all is well from here on."""
    told = run("nuvio-connect", "--setup", "--card", card)
    run("systemctl", "restart", UNIT)
    wait("HTTP answers", answers)
    return told


def player(name):
    return run("busctl", "get-property", *PLAYER, name, check=False).partition(" ")[2].strip('"')


def play(music):
    content = music if "://" in music else f"/srv/share/music/{music}"
    if (status := own_device.connect(PORT, content, music)) != 200:
        raise AssertionError(f"{music}: {status}")
    wait("sound", lambda: player("PlaybackStatus") == "Playing")


def wait_for_end(seconds=PATIENCE):
    wait("end of the session", lambda: player("PlaybackStatus") == "Stopped", seconds)


def hardware_position(card):
    """Frames that the driver has played, or None while nothing is open."""
    text = pathlib.Path(f"/proc/asound/{card}/pcm0p/sub0/status").read_text()
    found = re.search(r"hw_ptr\s*: (\d+)", text) if "RUNNING" in text else None
    return int(found[1]) if found else None


def sounds_on(card):
    first = wait("the card runs", lambda: hardware_position(card))
    wait("the card plays on", lambda: (hardware_position(card) or 0) > first)


def usb(what):
    (SHARE / "ask.new").write_text(what)
    (SHARE / "ask.new").rename(SHARE / "ask")
    cards = pathlib.Path("/proc/asound/cards")  # a folder that goes can't be asked for
    wait(what, lambda: not (SHARE / "ask").exists() and
         ("[USB " in cards.read_text()) == (what == "plug"))
    run("udevadm", "settle")


@contextlib.contextmanager
def recorder(sample_format, rate):
    """Gives the function that tells what the loop card's other end has heard since."""
    path = SHARE / f"heard.{rate}"
    path.unlink(missing_ok=True)
    with subprocess.Popen(
            ["arecord", "-q", "-D", "hw:Loop,1", "-t", "raw", "-f", sample_format, "-r", str(rate),
             "-c", "2", "--buffer-time=4000000", path]) as process:
        try:
            wait("recorder", path.exists)
            yield path.read_bytes
        finally:
            process.kill()


def expected_of(music):
    return (SHARE / f"{music}.expected").read_bytes().strip(b"\0")


def serve(test, folder, *where):
    """The folder's music over HTTP, on port 80 of where that is run."""
    types = pathlib.Path("/run/httpd.conf")
    types.write_text(".flac:audio/flac\n.wav:audio/wav\n")
    server = subprocess.Popen([*where, "busybox", "httpd", "-f", "-c", types, "-h", SHARE / "music" / folder])
    test.addCleanup(server.wait)
    test.addCleanup(server.kill)


class Unit(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        run("systemctl", "stop", CONTROLLER)  # until its test
        settings(feature__nuvio_connect__app_id="id", feature__nuvio_connect__app_secret="secret",
                 feature__nuvio_connect__log=1, host__allow_loopback=1)
        set_up("Loop")

    def test_1_it_is_active_with_few_rights_and_a_folder_of_its_own(self):
        self.assertEqual(state("Type", "ActiveState", "SubState", "StatusText"),
                         ["notify", "active", "running", "Stopped"])
        status = pathlib.Path(f"/proc/{state('MainPID')[0]}/status").read_text()
        fields = dict(re.findall(r"(?m)^(\w+):\t(.*)$", status))
        self.assertEqual(set(fields["Uid"].split()), {run("id", "-u", UNIT)})
        self.assertEqual((int(fields["CapEff"], 16), int(fields["CapBnd"], 16),
                          fields["NoNewPrivs"], fields["Seccomp"]), (0, 0, "1", "2"))
        self.assertEqual(pathlib.Path("/var/lib/nuvio-connect").owner(), UNIT)
        self.assertEqual((SETTINGS.group(), SETTINGS.stat().st_mode & 0o777), (UNIT, 0o640))

    def test_2_a_crash_leaves_the_name(self):
        run("nuvio-connect-panel", "rename", NAME)
        run("systemctl", "restart", UNIT)
        before = state("MainPID")
        run("systemctl", "kill", "--kill-whom=main", "--signal=SEGV", UNIT)
        wait("another process", lambda: state("ActiveState", "NRestarts") == ["active", "1"])
        self.assertNotEqual(state("MainPID"), before)
        wait("HTTP answers", answers)
        self.assertIn(NAME.encode(), own_device.request(PORT, "GET", "/get-display-info")[1])

    def test_3_the_panel_is_for_root_and_those_of_the_sound(self):
        as_nobody = ("setpriv", "--reuid=nobody", "--regid=nogroup")
        pause = ("nuvio-connect-panel", "pause")
        with self.assertRaises(AssertionError):
            run(*as_nobody, "--clear-groups", *pause)
        run(*as_nobody, "--groups=audio", *pause)

    def test_4_a_hook_runs_in_the_sandbox_and_metrics_are_for_the_accounts_group(self):
        folder = pathlib.Path("/run/nuvio-connect")
        told = folder / "told"
        settings(host__metrics_socket=folder / "metrics", host__hook__session=
                 f"/usr/bin/id -un > {told}; touch /etc/x 2>> {told}; echo $NUVIO_VALUE >> {told}")
        self.addCleanup(settings, host__hook__session="", host__metrics_socket="")
        run("systemctl", "restart", UNIT)
        wait("the hook", lambda: told.exists() and told.read_text().endswith("end\n"))
        self.assertRegex(told.read_text(), f"^{UNIT}\n.*Read-only file system\nend\n$")
        ask = ("setpriv", "--reuid=nobody", "--clear-groups", f"--regid={UNIT}", "python3", "-c",
               "import socket; s = socket.socket(socket.AF_UNIX); "
               f"s.connect('{folder}/metrics'); s.send(b'GET /metrics HTTP/1.0\\r\\n\\r\\n'); "
               "print(s.recv(8192).decode())")
        self.assertIn('state{state="stopped"} 1', run(*ask))
        with self.assertRaises(AssertionError):
            run(*(word.replace(UNIT, "nogroup") if "regid" in word else word for word in ask))

    def test_5_a_loop_that_stands_still_is_started_again(self):
        drop_in = pathlib.Path("/run/systemd/system/nuvio-connect.service.d/watchdog.conf")
        drop_in.parent.mkdir(parents=True)
        drop_in.write_text("[Service]\nWatchdogSec=9\n")
        run("systemctl", "daemon-reload")
        self.addCleanup(run, "systemctl", "daemon-reload")
        self.addCleanup(drop_in.unlink)
        run("systemctl", "restart", UNIT)
        wait("HTTP answers", answers)
        main = state("MainPID")[0]
        loop = next(int(task.name) for task in pathlib.Path(f"/proc/{main}/task").iterdir()
                    if (task / "comm").read_text() == "NuvioConnectSta\n")
        attach, any_thread = 16, 0x40000000
        self.assertEqual(ctypes.CDLL(None).ptrace(attach, loop, None, None), 0)

        def has_been_replaced():  # not before its thread, which is traced, has been waited for
            with contextlib.suppress(ChildProcessError):
                os.waitpid(loop, os.WNOHANG | any_thread)
            return state("MainPID")[0] not in (main, "0")

        wait("another process", has_been_replaced)
        self.assertEqual(state("NRestarts"), ["1"])
        self.assertIn("Watchdog timeout", run("journalctl", "-u", UNIT, "-n", "50"))
        wait("HTTP answers", answers)

    def test_6_switched_off_it_counts_as_started_and_ended(self):
        settings(feature__nuvio_connect=0)
        self.addCleanup(settings, feature__nuvio_connect=1)
        run("systemctl", "restart", UNIT)  # fails where the start counts as failed
        wait("end", lambda: state("ActiveState") == ["inactive"])
        self.assertEqual(state("Result"), ["success"])

    def test_7_the_controllers_unit_lets_its_readers_work(self):
        def chunk(kind, data):
            return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

        def ask(path):
            try:
                return own_device.request(8090, "GET", path)[1]
            except OSError:
                return b""

        album = pathlib.Path("/srv/music/album")
        album.mkdir(parents=True)
        shutil.copy(SHARE / "music/cd/0.wav", album)
        (album / "cover.png").write_bytes(
            b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", 1, 1, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", zlib.compress(bytes(4))) + chunk(b"IEND", b""))
        run("systemctl", "start", CONTROLLER)
        self.addCleanup(run, "systemctl", "stop", CONTROLLER)
        wait("the music", lambda: b'"tracks":1' in ask("/api/state"))
        self.assertIn(b'"unreadable":0', ask("/api/state"))
        [shown] = json.loads(ask("/api/library/albums"))["albums"]
        self.assertEqual(ask(f"/cover/{shown['id']}?size=320")[:3], b"\xff\xd8\xff")


class Loop(unittest.TestCase):
    """It takes every rate and format but has no volume: --setup makes one."""

    @classmethod
    def setUpClass(cls):
        cls.told = set_up("Loop")

    def test_1_sessions_come_out_bit_for_bit_with_the_volume_full(self):
        self.assertRegex(self.told, r"ok +output .*'default_Loop' .* 192000 Hz, 24 bit; buffer")
        serve(self, "studio")
        for music, content, sample_format, rate, frame in (
                ("cd", "cd", "S16_LE", 44100, 4),
                ("studio", "http://127.0.0.1/0.wav", "S24_LE", 96000, 8)):
            # In a drain the driver silences the beginning of its last piece instead of what lies
            # behind the music's end. A piece is what its timer was late: 190 ms were seen.
            expected = expected_of(music)[:-frame * rate]
            with self.subTest(music), recorder(sample_format, rate) as heard:
                play(content)
                wait("every bit", lambda: expected in heard())
                wait_for_end()

    def test_2_its_volume_is_the_players(self):
        level = lambda: run("amixer", "-c", "Loop", "sget", "Nuvio", check=False)  # noqa: E731
        play("long")
        run("nuvio-connect-panel", "volume", "20")
        wait("the level", lambda: "20%" in level())
        run("nuvio-connect-panel", "mute")
        wait("mute", lambda: "[off]" in level())
        run("amixer", "-c", "Loop", "sset", "Nuvio", "100%", "unmute")
        wait("the player's volume", lambda: player("Volume") == "1")
        run("nuvio-connect-panel", "stop")
        wait_for_end()

    def test_3_a_pause_is_silent_and_loses_nothing_and_a_new_session_takes_over(self):
        with recorder("S16_LE", 48000) as heard:
            play("long")
            sounds_on("Loop")
            run("nuvio-connect-panel", "pause")
            wait("silence", lambda: hardware_position("Loop") is None)
            run("nuvio-connect-panel", "play")
            sounds_on("Loop")
            paused, resumed = wait("the music around the pause",
                                   lambda: around_the_gap(heard(), expected_of("long")))
        self.assertLessEqual(resumed, paused)
        self.assertLess(paused - resumed, 48000 // 4)  # 20 ms where the processor is no emulated one
        play("cd")
        wait_for_end()


def around_the_gap(heard, expected):
    """Where in the music, in frames, the sound stopped and where it went on; None: not yet heard."""
    frame, piece, rest = 4, 4 * 480, bytes(4 * 4800)
    gap = -(-heard.find(rest, len(heard) - len(heard.lstrip(b"\0"))) // frame) * frame
    end = gap + len(heard[gap:]) - len(heard[gap:].lstrip(b"\0"))
    behind = end // frame * frame + 10 * piece  # the driver may cut the first milliseconds
    if gap < piece or len(heard) < behind + piece:
        return None
    stopped = expected.find(heard[gap - piece:gap])
    went_on = expected.find(heard[behind:behind + piece])
    if stopped < 0 or went_on < 0:
        raise AssertionError(f"other music around the gap: {stopped} {went_on}")
    return (stopped + piece) // frame, (went_on - 10 * piece) // frame


class Cards(unittest.TestCase):
    """HDA has 16 bit alone, USB 48 kHz alone as well."""

    @classmethod
    def tearDownClass(cls):
        set_up("Loop")  # for the next boot

    def test_1_each_plays_by_the_name_that_setup_gave_it(self):
        for card in "HDA", "USB":
            with self.subTest(card):
                told = set_up(card)
                element = re.search(r"(?m)^volume +(.*?)(?: \(in software.*)?$", told)[1]
                self.assertRegex(told, rf"ok +output .*'default_{card}' .* 48000 Hz, 16 bit; buffer")
                run("amixer", "-c", card, "sset", element, "100%", "unmute")
                play("card")
                sounds_on(card)
                output = json.loads(run("nuvio-connect-panel", "status", "--json"))["output"]
                self.assertEqual(output["granted"]["rate"], 48000)
                self.assertIn(f"Hardware PCM card {os.readlink(f'/proc/asound/{card}')[4:]} ",
                              output["path"])
                self.assertIsNot(output["bit_exact"], False, output)  # null with softvol
                wait_for_end()
        journal = run("journalctl", "-u", UNIT)
        self.assertNotIn("Unable to drain", journal)
        # The unit lets each track's reader build its walls, and read.
        self.assertNotIn("no picture: ", journal)

    def test_2_without_a_name_it_lists_the_cards(self):
        self.assertRegex(run("nuvio-connect", "--list-devices"),
                         r"\n  default_USB\n(?s:.*)\n  hw:\d\n +Nuvio\n")
        before = SETTINGS.read_text()
        told = run("nuvio-connect", "--setup", check=False)
        for card in "HDA", "USB", "Loop":
            self.assertIn(f"  {card} ", told)
        self.assertEqual(SETTINGS.read_text(), before)

    def test_3_a_usb_card_pulled_in_mid_track_ends_the_session_and_plays_the_next(self):
        set_up("USB")
        play("long")
        sounds_on("USB")
        usb("pull")
        wait_for_end()
        usb("plug")
        play("long")
        sounds_on("USB")
        self.assertEqual(state("NRestarts"), ["0"])

    def test_4_a_card_in_use_is_named_with_its_user_and_plays_afterwards(self):
        set_up("HDA")
        with subprocess.Popen(["aplay", "-q", "-D", "hw:HDA", "-f", "cd", "/dev/zero"]) as other:
            wait("the other player", lambda: hardware_position("HDA"))
            self.assertRegex(run("nuvio-connect", "--check", check=False),
                             rf"FAIL +output .* aplay \(process {other.pid}\) plays now")
            own_device.connect(PORT, "/srv/share/music/long", "busy")
            wait("an error", lambda: "Device or resource busy" in run("journalctl", "-u", UNIT, "-n50"))
            wait_for_end()
            other.kill()
        play("card")
        sounds_on("HDA")
        self.assertRegex(run("nuvio-connect", "--check", check=False),
                         r"warn +output .* nuvio-connect \(process \d+\) plays on it now")
        wait_for_end()


class Network(unittest.TestCase):
    """A web server behind a line of 1 Mbit/s that delays by 200 ms and loses one packet in twenty."""

    def setUp(self):
        there = ("ip", "netns", "exec", "there")
        run("ip", "netns", "add", "there")
        self.addCleanup(run, "ip", "netns", "del", "there")
        run("ip", "link", "add", "here", "type", "veth", "peer", "name", "there", "netns", "there")
        for where, name, number in ((), "here", 1), (there, "there", 2):
            run(*where, "ip", "address", "add", f"198.51.100.{number}/24", "dev", name)
            run(*where, "ip", "link", "set", name, "up")
        run(*there, "tc", "qdisc", "add", "dev", "there", "root", "netem", "delay", "200ms", "loss", "5%",
            "rate", "1mbit")
        serve(self, "line", *there)

    def test_nothing_is_left_out_when_the_line_is_down_for_20_seconds(self):
        with recorder("S16_LE", 44100) as heard:
            play("http://198.51.100.2/0.flac")
            wait("10 s of sound", lambda: len(heard().strip(b"\0")) > 10 * 44100 * 4)
            run("ip", "link", "set", "here", "down")
            time.sleep(20)
            run("ip", "link", "set", "here", "up")
            wait_for_end(120)
            lost = left_out(heard(), expected_of("line"))
        print(f"pieces of sound: {len(lost)}; frames left out before each: {lost}")
        self.assertLess(sum(lost), 441 * len(lost))  # the driver may cut the first milliseconds


def left_out(heard, expected):
    """Of music with other things in it (silence; what the card plays once more where it runs dry): how
    many frames are left out before each piece. The last second is not looked at, as above."""
    frame, step = 4, 441 * 4
    lost, at, place = [], 0, 0
    while place < len(expected) - 44100 * frame:
        for left in range(0, 10 * step, step):
            begin = place + left
            found = heard.find(expected[begin:begin + step], at)
            if found >= 0:
                break
        else:
            raise AssertionError(f"{len(expected) - place} bytes of music are not there: {lost}")
        lost.append(left // frame)
        same = len(os.path.commonprefix([heard[found:], expected[begin:]]))
        at, place = found + same, begin + same
    return lost


class AfterReboot(unittest.TestCase):
    """The loop card is set up, whose volume is made when its output is first opened."""

    def test_it_is_up_with_its_name_and_plays_with_its_volume(self):
        wait("HTTP answers", answers)
        self.assertIn(NAME.encode(), own_device.request(PORT, "GET", "/get-display-info")[1])
        play("long")
        sounds_on("Loop")
        run("nuvio-connect-panel", "volume", "20")
        wait("the level", lambda: "20%" in run("amixer", "-c", "Loop", "sget", "Nuvio", check=False))
        self.assertIn("ok    mixer", run("nuvio-connect", "--check", check=False))


if __name__ == "__main__":
    unittest.main()
