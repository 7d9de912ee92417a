"""The service ends well wherever it is in a session, and starts again.

A round takes the device to one point of a session and ends it there a random moment later.
NUVIO_SEED repeats a run; NUVIO_LONG=1 makes it some hundred rounds.
"""
import ctypes
import itertools
import json
import os
import pathlib
import random
import re
import signal
import socket
import subprocess
import threading
import time
from functools import partial

from device import (CD, EMULATOR, PANEL, PATIENCE, DeviceTest, WebServer, program, signal_samples, wait_for,
                    write_wav)

ROUNDS = 300 if "NUVIO_LONG" in os.environ else 22
PTRACE_ATTACH, PTRACE_DETACH, WALL = 16, 17, 0x40000000
MAX_SECONDS = 10  # to end, on a busy machine with sanitizers


class Lifecycle(DeviceTest):
    def setUp(self):
        super().setUp()
        self.seed = int(os.environ.get("NUVIO_SEED", random.SystemRandom().randrange(1 << 32)))
        self.random = random.Random(self.seed)
        print(f"NUVIO_SEED={self.seed}", flush=True)
        self.long = self.folder / "long.wav"
        write_wav(self.long, signal_samples(20 * CD), CD)
        write_wav(self.folder / "short.wav", signal_samples(CD // 2), CD)
        for name, *formats in ("album", (CD, 2), (CD, 2)), ("mixed", (CD, 2), (96000, 3)):
            (self.folder / name).mkdir()
            for n, (rate, size) in enumerate(formats):
                write_wav(self.folder / f"{name}/{n}.wav", signal_samples(rate, 0, rate), rate, size)

    # ---- Where the end finds the device: each returns the longest time it waits there, in s --

    def starting(self):
        self.start(wait=False)
        return 0.4

    def idle(self):
        self.start()
        return 0.1

    def in_a_request(self):
        self.start()
        self.half_open = socket.create_connection(("127.0.0.1", self.port))
        self.addCleanup(self.half_open.close)
        self.half_open.sendall(b"POST /connect-to-nconnect HTTP/1.1\r\nHost: localhost\r\n"
                               b"Content-Length: 400\r\n\r\n{\"session_id\": ")
        return 0.3

    def joining_a_session(self):
        self.start()
        threading.Thread(target=self.connect_quietly, daemon=True).start()
        return 0.05

    def connect_quietly(self):
        try:
            self.connect(self.folder / "album")
        except (OSError, json.JSONDecodeError):
            pass  # the device ended first

    def waiting_to_rename(self):
        self.start()
        self.run_tool(PANEL, "rename", f"Name {self.random.random()}")
        self.wait_for_log("[DEVICENAME] Waiting 500ms before update")
        return 0.6

    def playing(self):
        self.start()
        self.play(self.long)
        return 0.5

    def paused(self):
        self.playing()
        self.player("pause")
        return 0.3

    def seeking(self):
        self.playing()
        self.player("position", "15")
        return 0.05

    def losing_the_output(self):
        self.playing()
        self.run_tool(PANEL, "take-output")
        return 0.1

    def on_the_way(self, content, line, longest):
        self.start()
        self.connect(self.folder / content)
        self.wait_for_log(line)
        return longest

    POINTS = [starting, idle, in_a_request, joining_a_session, waiting_to_rename, playing, paused,
              seeking, losing_the_output,
              # Waits for a title, drains, hands over, changes the format.
              partial(on_the_way, content="long.wav", line="update playbackstatus", longest=2.2),
              partial(on_the_way, content="short.wav", line="Playback has finished", longest=0.2),
              partial(on_the_way, content="album", line="Playback is nearly finished", longest=0.8),
              partial(on_the_way, content="mixed", line="Playback has finished", longest=0.3)]

    def test_it_does_without_standard_descriptors(self):
        self.daemon = subprocess.Popen(
            ["sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh", *program("nuvio-connect")],
            env=self.environment)
        wait_for("HTTP answers", self.answers)
        for n in range(3):  # under an emulator below its root
            self.assertRegex(os.readlink(f"/proc/{self.daemon.pid}/fd/{n}"), "/dev/null$")
        self.assertEqual(self.stop()[0], 0)

    def test_a_taken_port_is_asked_for_again_and_nothing_is_announced_before(self):
        with socket.create_server(("", self.port)):
            self.start(wait=False)
            self.wait_for_log("asking again in 2 s")
            self.assertEqual(self.log_count("Unable to start HTTP server"), 2)
            self.assertEqual(self.log_count("Starting Avahi advertising"), 0)
        wait_for("HTTP answers", self.answers)
        self.wait_for_log("Starting Avahi advertising")

    def test_with_too_few_threads_it_ends_as_failed_or_asks_again(self):
        limited = ["setpriv", "--reuid=61183", "--regid=61183", "--clear-groups", "--inh-caps=-all"]
        daemon = program("nuvio-connect")
        if EMULATOR or subprocess.run([*limited, "test", "-x", *daemon], check=False).returncode:
            self.skipTest("needs root, and a build that others may run")
        subprocess.run(["chmod", "-R", "a+rwX", self.folder], check=True)

        def is_decided():
            try:
                return self.log_count("asking again") or self.answers()
            except AssertionError:
                return True  # it has ended

        for limit in itertools.count(1):
            with self.log_path.open("wb") as log:
                self.daemon = subprocess.Popen([*limited, "prlimit", f"--nproc={limit}", *daemon],
                                               env=self.environment, stdout=log, stderr=log)
            wait_for("an end, a line or an answer", is_decided)
            status, _ = self.stop()
            failed = re.search("no thread to be had|thread not started", self.log())
            self.assertEqual(status, 1 if failed else 0, self.log())
            if not failed and not self.log_count("asking again"):
                return

    def test_a_device_that_is_killed_leaves_no_reader_and_no_fetcher(self):
        server = WebServer(str(self.folder))
        self.addCleanup(server.kill)
        self.start()
        self.play(f"{server.url}/{self.long.name}")
        self.pause()
        tasks = pathlib.Path(f"/proc/{self.daemon.pid}/task")
        readers = [pathlib.Path(f"/proc/{pid}/exe") for task in tasks.iterdir()
                   for pid in (task / "children").read_text().split()]
        self.assertEqual(len(readers), 2)
        self.daemon.kill()
        self.daemon.wait()
        self.daemon = None
        wait_for("no reader", lambda: not any(os.path.exists(reader) for reader in readers))

    def test_the_journal_is_told_the_level_of_each_line(self):
        self.log_path.touch()
        log = self.log_path.stat()
        self.environment["JOURNAL_STREAM"] = f"{log.st_dev}:{log.st_ino}"
        self.start()
        self.assertRegex(self.log(), r"(?m)^<6>\d{8} .*\] INFO ")
        self.assertNotRegex(self.log(), r"(?m)^\d{8} ")

    def test_a_service_manager_is_told_what_plays_and_whether_the_loop_turns(self):
        self.environment |= {"NOTIFY_SOCKET": str(self.folder / "notify"), "WATCHDOG_USEC": "600000"}
        manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(manager.close)
        manager.bind(self.environment["NOTIFY_SOCKET"])
        manager.settimeout(PATIENCE)

        def heard(seconds):
            end = time.monotonic() + seconds
            messages = []
            while (left := end - time.monotonic()) > 0:
                manager.settimeout(left)
                try:
                    messages.append(manager.recv(1000).decode())
                except TimeoutError:
                    pass
            return messages

        self.start()
        self.assertEqual(manager.recv(1000), b"WATCHDOG_USEC=0", "watched before there is a loop")
        self.play(self.long)
        text = "\n".join(heard(4))
        self.assertRegex(text, "WATCHDOG_USEC=600000\nWATCHDOG=1\n")
        self.assertIn("READY=1\n", text)
        self.assertRegex(text, "STATUS=Stopped\n(.*\n)*STATUS=Playing: long")
        # The loop's thread alone is stopped, as a hung library would.
        tasks = pathlib.Path(f"/proc/{self.daemon.pid}/task")
        loop = next(int(task.name) for task in tasks.iterdir()
                    if (task / "comm").read_text() == "NuvioConnectSta\n")
        libc = ctypes.CDLL(None, use_errno=True)
        self.assertEqual(libc.ptrace(PTRACE_ATTACH, loop, None, None), 0, "may not be traced here")
        os.waitpid(loop, WALL)
        heard(0.1)
        self.assertNotIn("WATCHDOG=1", heard(2))
        libc.ptrace(PTRACE_DETACH, loop, None, None)
        self.assertIn("WATCHDOG=1", heard(4))
        self.assertEqual(self.stop()[0], 0)
        self.assertEqual([text for text in heard(0.1) if text != "WATCHDOG=1"],
                         ["STOPPING=1", "WATCHDOG_USEC=0"])

    def test_the_end_is_quick_and_clean_at_every_point_of_a_session(self):
        points = itertools.chain(self.POINTS, iter(lambda: self.random.choice(self.POINTS), None))
        for number, point in enumerate(itertools.islice(points, ROUNDS)):
            with self.subTest(round=number, point=str(point), seed=self.seed):
                self.log_path.unlink(missing_ok=True)
                time.sleep(self.random.uniform(0, point(self)))
                status, seconds = self.stop()
                # What ends before the service has begun is ended by the signal itself.
                has_begun = "MAIN TO START NUVIO CONNECT END" in self.log()
                ended = (0,) if has_begun else (0, -signal.SIGTERM)
                self.assertIn(status, ended, self.log()[-3000:])
                self.assertLess(seconds, MAX_SECONDS)
                self.assertNotIn("loop not closed", self.log())
        self.start()
        self.play(self.long)
