"""The whole device through hours of a looping playlist, on a card whose clock runs as fast as the
machine can follow. A controller and the owner look in all the while.

Short by default; NUVIO_LONG=1 plays a day, NUVIO_SOAK_HOURS as many hours as it says.
"""
import hashlib
import os
import pathlib
import random
import re
import statistics
import subprocess
import sys
import time
import wave

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))
from device import CD, EMULATOR, DeviceTest, memory_of, wait_for  # noqa: E402

HOURS = float(os.environ.get("NUVIO_SOAK_HOURS", 24 if "NUVIO_LONG" in os.environ else 1.75))
HIGH = 96000
ROUND_SECONDS = 2100  # of audio
# The host takes a second or two to show a track: none may be shorter than that.
SPEED = 300
# What an allocator may keep of a daemon's worst moment. An emulator's and a sanitizer's own memory
# is no part of the promise.
ALLOWED_GROWTH_KIB = 1024
MEMORY_IS_ITS_OWN = not EMULATOR and not os.environ.get("NUVIO_SANITIZE")


def write_noise(path, seconds, rate, *heard):
    """Writes stereo noise of 16 bits and adds it to the digests."""
    noise = random.Random(path.name)
    with wave.open(str(path), "wb") as out:
        out.setparams((2, 2, rate, 0, "NONE", None))
        for _ in range(seconds):
            samples = noise.randbytes(rate * 4)
            out.writeframesraw(samples)
            for each in heard:
                each.update(samples)


class LongSession(DeviceTest):
    card_options = ["--patient"]

    def make_playlist(self):
        """Two tracks of one format, one of them packed, and one of another. Notes how many frames a
        round of them has, and the frames of each recording that may come of it by their digest:
        the first two join, unless the second is opened so late on a busy machine that the card,
        hundreds of times as fast, has played all of the first."""
        first, second, joined, alone = (hashlib.blake2b() for _ in range(4))
        write_noise(self.music / "1.wav", 900, CD, first, joined)
        write_noise(self.music / "2.wav", 600, CD, second, joined)
        write_noise(self.music / "3.wav", 600, HIGH, alone)
        subprocess.run(["flac", "-s", "-0", "--delete-input-file", self.music / "2.wav"], check=True)
        (self.music / "all.m3u").write_text("1.wav\n2.flac\n3.wav\n")
        self.expected = {first.hexdigest(): 900 * CD, second.hexdigest(): 600 * CD,
                         joined.hexdigest(): 1500 * CD, alone.hexdigest(): 600 * HIGH}
        self.round_frames = 1500 * CD + 600 * HIGH

    def frames(self):
        """Frames that the card was given, has played and has dropped so far."""
        line = re.search(r"written (\d+), played (\d+), dropped (\d+) frames; \d+ drops, "
                         r"(\d+) underruns", self.card("show"))
        return [int(n) for n in line.groups()]

    def check_recordings(self):
        """Compares what has been recorded to its end with the files, and makes room for more."""
        for text in sorted((self.folder / "card/recordings").glob("*.txt")):
            if "closed=0" in text.read_text():
                continue
            data = text.with_suffix(".raw")
            with open(data, "rb") as raw:
                found = hashlib.file_digest(raw, hashlib.blake2b).hexdigest()
            self.assertIn(found, self.expected, f"{text.read_text()} is not what the files hold")
            self.compared.append(self.expected[found])
            text.unlink()
            data.unlink()

    def look_in(self, n):
        """One of the things that clients do all day."""
        self.assertEqual(self.request("GET", "/get-display-info")[0], 200)
        self.assertEqual(self.request("GET", "/get-connect-info")[0], 200)
        self.player("metadata")
        self.player("volume", f"0.{n % 9 + 1}")
        self.card("volume", str(n % 256))

    def test_hours_of_a_looping_playlist_use_nothing_up_and_lose_nothing(self):
        self.make_playlist()
        self.start()
        begin = time.monotonic()
        self.assertEqual(self.connect(self.music / "all.m3u"), 200)
        wait_for("sound", lambda: self.player("status") == "Playing")
        self.player("loop", "Playlist")
        wait_for("loop", lambda: self.player("loop") == "Playlist")
        self.card("speed", str(SPEED))
        wanted = HOURS * 3600 / ROUND_SECONDS * self.round_frames
        self.compared = []  # the recordings' frames
        samples = []
        while (played := self.frames()[1]) < wanted or len(samples) < 12:
            self.check_recordings()
            self.look_in(len(samples))
            if played > self.round_frames:
                of = pathlib.Path(f"/proc/{self.daemon.pid}")
                samples.append((memory_of(self.daemon, "RssAnon"), len(os.listdir(of / "task")),
                                len(os.listdir(of / "fd"))))
            time.sleep(0.05)
        self.player("loop", "None")
        wait_for("the session's end", lambda: self.log_count("nothing is left to play"), 300)
        wait_for("the last recording's end", lambda: not self.open_recordings(), 300)
        self.check_recordings()
        self.report(time.monotonic() - begin, samples)

        rounds = round(sum(self.compared) / self.round_frames)
        self.assertEqual(sum(self.compared), rounds * self.round_frames)
        self.assertEqual(self.frames(), [sum(self.compared)] * 2 + [0, 0])
        self.assert_flat(samples)
        queued = [int(n) for n in re.findall(r"Queue size after push = (\d+)", self.log())]
        self.assertLess(max(queued), 50, "commands pile up")
        self.assertEqual(self.stop()[0], 0)

    def report(self, seconds, samples):
        hours = sum(self.compared) / self.round_frames * ROUND_SECONDS / 3600
        print(f"\nsoak: {hours:.2f} h of audio, all compared with the files, in {seconds:.0f} s: "
              f"{sum(self.compared)} frames, {len(self.compared)} openings of the card; KiB, threads "
              f"and descriptors {samples[len(samples) // 4]} -> {samples[-1]}, {len(samples)} samples")

    def assert_flat(self, samples):
        """What is held most of the time, and memory at the most, is in the last half as in the first
        one, of a round each at least: a request, a change of track or the card between two formats
        holds more or less for a moment. What is lost with each track is three a round."""
        half = len(samples) // 2
        memory, *others = zip(*samples)
        for name, held in zip(("threads", "descriptors"), others):
            self.assertLessEqual(statistics.median_low(held[-half:]),
                                 statistics.median_low(held[:half]) + 1, name)
        if MEMORY_IS_ITS_OWN:
            self.assertLess(max(memory[-half:]), max(memory[:half]) + ALLOWED_GROWTH_KIB)
