"""What a device has taken and not given back after the longest queues, a day of a radio, and sessions and
volume steps by the thousand."""
import ctypes
import itertools
import os
import pathlib
import socketserver
import subprocess
import threading
import time

import memory
from lab import Device, wait_for, write_wav, one_second
from rows import CARD, CD, SETTLED, Row

# Of a large buffer: it is filled that much less often, and a day passes in a minute.
FAST_CARD = ("--buffer", "4000", "--speed", "2000", "--patient")
TRACKS = 20_000           # as many as a session has
PLAYLIST = 4 << 20        # bytes: as many as are read
STATION = (32_000, 16)    # one channel, 32 kbit/s
HEARD = 100               # of the tracks of a long queue
WARM = 30                 # times, after which each thread and library that is needed is there
SESSION = 0.3             # s that one is heard: of more than some in a second the device refuses the next
ICY_INTERVAL = 8192
TITLES = 50               # intervals that one lasts


class Station(socketserver.ThreadingTCPServer):
    """An MP3 without an end, with titles, as fast as it is taken. `frames`: whole ones, said again and
    again."""

    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, frames):
        super().__init__(("127.0.0.1", 0), self.Listener)
        self.frames = frames
        self.url = f"http://127.0.0.1:{self.server_address[1]}/live"
        threading.Thread(target=self.serve_forever, daemon=True).start()

    class Listener(socketserver.StreamRequestHandler):
        def handle(self):
            while self.rfile.readline().strip():
                pass
            self.wfile.write(b"HTTP/1.0 200 OK\r\nContent-Type: audio/mpeg\r\nicy-name: Station\r\n"
                             b"icy-metaint: %d\r\n\r\n" % ICY_INTERVAL)
            frames = self.server.frames
            twice, at = frames * (ICY_INTERVAL // len(frames) + 2), 0
            try:
                for n in itertools.count():
                    title = b"StreamTitle='Title %d';" % (n // TITLES) if n % TITLES == 0 else b""
                    blocks = (len(title) + 15) // 16
                    self.wfile.write(twice[at:at + ICY_INTERVAL] + bytes([blocks]) + title.ljust(16 * blocks, b"\0"))
                    at = (at + ICY_INTERVAL) % len(frames)
            except OSError:
                pass  # it has heard enough


class Held:
    """What a device holds at rest: memory, threads and descriptors."""

    def __init__(self, device):
        time.sleep(max(memory.OVER, SETTLED))
        of = pathlib.Path(f"/proc/{device.pid}")
        self.memory = memory.Reading(device.pid)
        self.counts = len(os.listdir(of / "task")), len(os.listdir(of / "fd"))

    def __str__(self):
        return f"{self.memory.dirty / memory.MB:.2f} MB, {self.counts[0]} and {self.counts[1]}"


def stop(device):
    device.stop()
    wait_for("the card's end", lambda: device.card.state() != "RUNNING")


def row(what, before, after):
    return Row(f"kept: private dirty memory, threads and descriptors before and after {what}",
               "+ 0.5 MB, as many", f"{before}; {after}",
               after.memory.dirty <= before.memory.dirty + memory.LEFT and
               all(late <= early for early, late in zip(before.counts, after.counts)))


def queue_of(lab, track):
    """A folder of the longest queue, of one short track."""
    folder = lab.new_folder("queue")
    for n in range(TRACKS):
        os.link(track, folder / f"{n:05}.wav")
    return folder


def playlist_of(folder):
    """A playlist of its tracks, beside it, with titles so long that it is as large as is read."""
    path = folder / "longest.m3u"
    line = "../" + folder.name + "/{:05}.wav\n"
    comment = "#EXTINF:1," + "x" * (PLAYLIST // TRACKS - len(line.format(0)) - 11) + "\n"
    path.write_text("".join(comment + line.format(n) for n in range(TRACKS)))
    return path


def long_queues(lab, track):
    folder = queue_of(lab, track)
    playlist = playlist_of(folder)
    for what, content in ((f"a queue of {TRACKS} tracks", folder),
                          (f"a playlist of {playlist.stat().st_size / (1 << 20):.1f} MiB", playlist)):
        with Device(lab, lab.card(*FAST_CARD)) as device:
            device.play(track)
            stop(device)
            before = Held(device)
            device.play(content)
            wait_for("tracks that have been played", lambda: device.card.frames_played() > HEARD * CD[0], 120)
            stop(device)
            # What was stopped can be played again: its queue goes with the next session.
            device.play(track)
            stop(device)
            yield row(what, before, Held(device))


def radio(lab, hours):
    folder = lab.new_folder("station")
    wav = write_wav(folder / "minute.wav", one_second(*STATION, channels=1), *STATION, 60, channels=1)
    subprocess.run(["lame", "--quiet", "-t", "--nores", "--cbr", "-b", "32", "-m", "m", wav, folder / "mp3"],
                   check=True)
    with Station((folder / "mp3").read_bytes()) as station:
        with Device(lab, lab.card(*FAST_CARD)) as device:
            device.play(station.url)
            wait_for("sound", lambda: device.card.frames_played() > WARM * STATION[0])
            stop(device)
            before, begun = Held(device), device.card.frames_played()
            device.play(station.url)
            wait_for(f"{hours} hours", lambda: device.card.frames_played() - begun > hours * 3600 * STATION[0],
                     600, 0.1)
            stop(device)
            yield row(f"{hours} hours of a radio", before, Held(device))
        station.shutdown()


def many(lab, device, count, do, what):
    """Beginning once it has been done often enough to have all that it needs."""
    for n in range(WARM):
        do(n)
    stop(device)
    before = Held(device)
    for n in range(count):
        do(n)
    stop(device)
    return row(f"{count} {what}", before, Held(device))


def sessions_and_steps(lab, music, count):
    contents = [music.wav[CD], music.flac[CD]]
    with Device(lab, lab.card(*CARD)) as device:
        def begin(n):
            played = device.card.frames_played()
            device.play(contents[n % len(contents)])
            wait_for("sound", lambda: device.card.state() == "RUNNING" and device.card.frames_played() > played)
            time.sleep(SESSION)

        def step(n):
            if device.card.state() != "RUNNING":
                device.play(contents[0])
            device.bus.call("org.mpris.MediaPlayer2.nuvio_connect", "/org/mpris/MediaPlayer2",
                            "org.freedesktop.DBus.Properties", "Set", "ssv", b"org.mpris.MediaPlayer2.Player",
                            b"Volume", b"d", ctypes.c_double(n % 100 / 100))

        yield many(lab, device, count, begin, "sessions one after the other")
        yield many(lab, device, 10 * count, step, "volume steps")


def kept(lab, music, is_quick):
    short = write_wav(lab.folder / "second.wav", one_second(*CD), *CD, 1)
    yield from long_queues(lab, short)
    yield from sessions_and_steps(lab, music, 100 if is_quick else 1000)
    yield from radio(lab, 1 if is_quick else 24)
