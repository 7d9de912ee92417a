"""What must never get worse, counted and not timed: the way of a sample and a device that sleeps.

NUVIO_BUILD names the build tree.
"""
import os
import pathlib
import re
import time
import unittest

import memory
import rows
from lab import Device, Lab, Window, family, one_second, wait_for, write_wav
from web_server import WebServer

SPURIOUS = 1.5  # wake-ups a second that a busy machine may add
SLACK = memory.MB / 4  # of private dirty memory, for what others' libraries do


class Check(unittest.TestCase):
    def setUp(self):
        self.lab = self.enterContext(Lab(pathlib.Path(os.environ["NUVIO_BUILD"])))

    def track(self, rate, bits, seconds):
        path = self.lab.folder / f"{rate}-{bits}.wav"
        return write_wav(path, one_second(rate, bits), rate, bits, seconds)

    def test_nothing_is_copied_or_allocated_from_the_offer_to_the_card(self):
        for rate, bits in (rows.CD, rows.HI_RES):
            with self.subTest(rate=rate, bits=bits):
                counts = rows.whole_track(self.lab, self.track(rate, bits, 10))
                self.assertGreater(counts["writes"], 10)
                self.assertEqual(counts["bytes_taken"], 10 * rate * (4 if bits == 16 else 8))
                self.assertEqual(counts["foreign_writes"], 0)
                self.assertEqual(counts["allocations_before_write"], 0)

    def test_a_card_is_filled_when_half_of_it_has_played(self):
        card = self.lab.card(*rows.CARD)
        with Device(self.lab, card, probe=True) as device:
            device.play(self.track(*rows.CD, 20))
            time.sleep(3)
            before = device.probe.read()
            window = Window(device.pid, 6)
            offers = (device.probe.read()["offers"] - before["offers"]) / window.seconds
        # Twice a second, with a block of the decoder's or two, and no wake-up for the card's room.
        self.assertLess(offers, 7)
        self.assertLess(window.by_thread[rows.LOOP_THREAD], 2.5 + SPURIOUS)

    def test_an_idle_device_sleeps(self):
        with Device(self.lab, self.lab.card(*rows.CARD)) as device:
            time.sleep(2)
            window = Window(device.pid, 8)
        self.assertLess(window.wakeups, 1 + SPURIOUS, window.by_thread)

    def test_a_session_over_leaves_a_device_that_sleeps(self):
        with Device(self.lab, self.lab.card(*rows.CARD, "--speed", "10", "--patient")) as device:
            device.play(self.track(*rows.CD, 4))
            wait_for("end of the session", device.is_over)
            time.sleep(4)
            window = Window(device.pid, 6)
        self.assertLess(window.wakeups, 1 + SPURIOUS, window.by_thread)

    def test_memory_is_taken_when_it_is_needed_and_given_back(self):
        os.sync()  # pages of a library that was just built are dirty
        server = WebServer(str(self.lab.new_folder("web")), root=str(self.lab.folder))
        self.addCleanup(server.kill)
        track = self.track(*rows.CD, 30)
        with Device(self.lab, self.lab.card(*rows.CARD)) as device:
            time.sleep(rows.SETTLED)
            idle = memory.Reading(device.pid)
            self.assertLess(idle.dirty, memory.IDLE[1] + SLACK, idle.by_kind())
            for content, ahead in ((track, 0), (f"{server.url}/{track.name}", memory.READ_AHEAD)):
                device.play(content)
                time.sleep(rows.SETTLED)
                playing = memory.Reading(device.pid)
                device.stop()
                time.sleep(memory.OVER)
                after = memory.Reading(device.pid)
                self.assertLess(playing.dirty, memory.PLAYING[1] + ahead + SLACK, playing.by_kind())
                self.assertLess(after.dirty, idle.dirty + memory.LEFT, after.by_kind())
                self.assertEqual(family(device.pid), [device.pid])
            mapped = pathlib.Path(f"/proc/{device.pid}/maps").read_text()
        # What the network takes is another process's, which has ended.
        self.assertIsNone(re.search("lib(curl|websockets|ssl|crypto)", mapped))
        # Beside what is built for debugging.
        libraries = sum(size for kind, (size, _) in idle.kinds.items() if kind.startswith("libraries"))
        self.assertLess(libraries, 7.5 * memory.MB, idle.by_kind())


if __name__ == "__main__":
    unittest.main()
