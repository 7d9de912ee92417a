"""Every kind of file on a recording card, from the disk and over HTTP, against what another decoder
makes of it.

As a test a few kinds. NUVIO_ZOO names kinds or encoders, or "all", with ';' between: the rows of
docs/content.md that they have are written anew (./dev zoo).
"""
import collections
import concurrent.futures
import itertools
import os
import random
import re
import subprocess
import sys
import time
import unittest

sys.path[:0] = [os.path.join(os.path.dirname(__file__), place) for place in (".", "../channel", "../e2e")]
from device import BUILD, TREE, DeviceTest, WebServer, program, wait_for  # noqa: E402
from server import Server  # noqa: E402
from zoo import Zoo, difference, files_of, lost_by_pauses  # noqa: E402

WANTED = set(filter(None, os.environ.get("NUVIO_ZOO", "").split(";")))
SEEKS, PAUSES = (50, 10) if WANTED else (12, 2)
PIECE = 1500       # frames heard after a seek
FAST = 40          # times, of what is less than BYTES_A_SECOND by that
BYTES_A_SECOND = 20e6
PAGE = TREE / "docs/content.md"
BEGIN, END = "<!-- ./dev zoo -->\n", "<!-- zoo -->\n"
HEAD = """| kind | encoder | files | sound | seam | seeks and pauses | not promised |
|---|---|---|---|---|---|---|
"""


@unittest.skipUnless(list(BUILD.glob("lib/libnuvio_connect_ffmpeg.so*")), "no libavformat for this machine")
class TestZoo(DeviceTest):
    card_options = ["--patient", "--buffer", "400" if WANTED else "100"]  # what is in it is waited for
    settings = {"local__convert": 0}  # its card takes every kind as it is

    def setUp(self):
        super().setUp()
        self.environment["LD_LIBRARY_PATH"] = str(BUILD / "lib")
        self.server = WebServer(str(self.folder), root=str(self.music))
        self.addCleanup(self.server.kill)
        self.channel = Server()
        self.addCleanup(self.channel.close)
        self.zoo = Zoo(self.music, (5, 2) if WANTED else (3, 1))
        self.sessions = 0

    def begin(self, place, paths, speed, **how):
        """A session of the files."""
        self.card("speed", speed)
        for recording in (self.folder / "card/recordings").iterdir():
            recording.unlink()
        self.sessions += 1
        self.at = self.log_path.stat().st_size
        (self.music / "list.m3u").write_text("".join(f"{path.name}\n" for path in paths))
        wait_for("a session", lambda: self.connect(
            f"{place}/list.m3u", session=f"session {self.sessions}", **how) == 200)

    def said(self, text):
        """In the log, since the session began."""
        with open(self.log_path, "rb") as log:
            log.seek(self.at)
            return re.search(text, log.read().decode(errors="replace"))

    def heard(self):
        """All that the card plays until the session ends."""
        wait_for("the end", lambda: self.said("nothing is left to play|Not joining session"), 120)
        wait_for("the recordings", lambda: not self.open_recordings())
        return self.recordings()

    def played(self, file, place, paths, wanted):
        """What was heard, what is wrong with each of the two tracks, and with their seam."""
        fast = min(FAST, BYTES_A_SECOND / file.rate / file.channels / 4)
        # A busy machine opens the second one too late for such a clock.
        for speed in fast, max(fast / 10, 1):
            self.begin(place, paths, speed)
            recordings = self.heard()
            if len(recordings) == 1:
                break
        if not recordings:
            return b"", (self.said("(?:Skipping|Not joining)(?: .*/| ).*") or ["not played"])[0][-150:], ""
        data = b"".join(each.data for each in recordings)
        cut = max(len(data) - len(wanted[1].data), 0)
        wrong = [difference(data[:cut], wanted[0], file.step), difference(data[cut:], wanted[1], file.step)]
        if {each.format for each in recordings} != {"S24_LE" if wanted[0].is_deep else "S16_LE"}:
            wrong.append("of another width")
        if not file.step and recordings[0].rate != file.rate:
            wrong.append("of another rate")
        return data, ", then ".join(filter(None, wrong)), "a gap" * (
            len(recordings) > 1 or recordings[0].underruns > 0)

    def sought(self, place, path, whole, step):
        """Which of the seeks do not land where they should."""
        frames = len(whole.data) // whole.frame_bytes
        dice = random.Random(path.name)
        places = [0, *(dice.randrange(frames) for _ in range(SEEKS - 4)), 0, frames - PIECE, frames - 1]
        done = subprocess.run([*program("network_probe"), "decode", f"{place}/{path.name}", *(
            f"{at}:{min(PIECE, frames - at)}" for at in places)], capture_output=True, env=self.environment)
        at, wrong = 0, []
        for first in places:
            part = whole.frames(first, first + PIECE)
            bad = difference(done.stdout[at:at + len(part.data)], part, step)
            at += len(part.data)
            wrong += [f"to {first}: {bad}"] * bool(bad)
        return f"{len(wrong)} of {len(places)} seeks, of {frames} {wrong[0]}" if wrong else ""

    def paused(self, place, paths, whole, rate, step):
        """What is lost by pauses; half a second may be heard twice, on a busy machine."""
        count = self.channel.connections
        self.begin(place, paths, 1 if WANTED else 3, remote=self.channel.url)
        self.channel.wait("state", lambda: self.channel.connections > count and self.channel.last("state"))
        self.channel.until("state", playback="playing")
        dice = random.Random(paths[0].name)
        for _ in range(PAUSES):
            time.sleep(dice.random() / 10)
            for command, state in ("pause", "paused"), ("play", "playing"):
                if self.channel.ask(command) != "ok":
                    return "a pause ends the session"
                self.channel.until("state", playback=state)
        self.card("speed", FAST)
        data = b"".join(each.data for each in self.heard())
        return lost_by_pauses(data, whole, step, rate // 2)

    def visit(self, file, made):
        """What is not as it should be, by what it concerns."""
        paths, wanted = made.result()
        wrong = collections.defaultdict(list)
        for place in self.music, self.server.url:
            if place == self.music or WANTED:
                data, as_it_is, seam = self.played(file, place, paths, wanted)
                wrong["as"] += [as_it_is] * bool(as_it_is)
                wrong["seam"] += [seam] * bool(seam)
                whole = wanted[0]._replace(data=data[:len(data) - len(wanted[1].data)])
            if len(data) > len(wanted[1].data):
                wrong["seeks"] += filter(None, [self.sought(place, paths[0], whole, file.step)])
        if len(data) > len(wanted[1].data):
            wrong["seeks"] += filter(None, [self.paused(
                place, paths, whole._replace(data=data), file.rate, file.step)])
        return {concerned: texts for concerned, texts in wrong.items() if texts}

    def test_every_kind_is_heard_as_another_decoder_has_it(self):
        self.start(player=False)
        rows = collections.defaultdict(list)
        files = files_of(WANTED)
        maker = concurrent.futures.ThreadPoolExecutor(1)
        self.addCleanup(maker.shutdown, cancel_futures=True)
        next_made = maker.submit(self.zoo.make, files[0])
        for file, next_file in itertools.zip_longest(files, files[1:]):
            made, next_made = next_made, next_file and maker.submit(self.zoo.make, next_file)
            try:
                wrong = self.visit(file, made)
            except (AssertionError, OSError, ValueError) as error:
                wrong = {"as": [str(error)[-300:]]}
            rows[file.kind].append((file, wrong))
            if WANTED:
                print(f"zoo: {file.kind.name}, {file.kind.encoder}, {file.name}: {wrong or 'ok'}", flush=True)
            with self.subTest(f"{file.kind.name}, {file.kind.encoder}, {file.name}"):
                self.assertTrue(bool(wrong) == bool(file.accepted) and "seam" not in wrong, wrong)
        if WANTED:
            write_table({(kind.name, kind.encoder): row_of(kind, files) for kind, files in rows.items()})


def row_of(kind, files):
    def of(concerned, text):
        wrong = sum(concerned in each for _, each in files)
        return f"{text}, but of {wrong}" if wrong else text

    told = dict.fromkeys([*filter(None, [kind.not_promised]), *(
        file.accepted or f"{file.name}: {wrong}" for file, wrong in files if wrong)])
    return [kind.name, kind.encoder, str(len(files)), of("as", "within a step" if kind.decoder else "equal"),
            of("seam", "no gap"), of("seeks", "land"), "; ".join(told)]


def write_table(rows):
    """Into the page, in the place of the rows of the same kinds."""
    page = PAGE.read_text()
    at, end = page.index(BEGIN) + len(BEGIN), page.index(END)
    old = [[cell.strip() for cell in line.strip("|").split("|")] for line in page[at:end].splitlines()[2:]]
    rows = {**{(row[0], row[1]): row for row in old}, **rows}
    order = dict.fromkeys((file.kind.name, file.kind.encoder) for file in files_of({"all"}))
    lines = "".join(f"| {' | '.join(rows[key])} |\n" for key in order if key in rows)
    PAGE.write_text(page[:at] + HEAD + lines + page[end:])


if __name__ == "__main__":
    unittest.main()
