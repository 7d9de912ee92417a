#!/usr/bin/env python3
"""How fast and small the controller is with a large library: docs/controller.md, "Figures".

  bench/library.py BUILD [TRACKS]    BUILD: build/release; TRACKS: 50000
"""
import http.client
import pathlib
import random
import struct
import subprocess
import sys
import tempfile
import time
import wave

HERE = pathlib.Path(__file__).resolve().parents[1]
sys.path.insert(0, str(HERE / "tools/run"))
from own_device import free_port  # noqa: E402

WORDS = ("amber boat cedar delta ember ferry garden harbour island juniper kite lantern meadow night orchard "
         "paper quiet river still tide under velvet winter yellow zephyr").split()
PAGE = "/ /style.css /app.js /worker.js /icon.svg /manifest.json".split()


def tagged(flac, **tags):
    """The same sound with these tags: far quicker than a program for each of so many files."""
    def text(value):
        value = str(value).encode()
        return struct.pack("<I", len(value)) + value
    comments = text("bench") + struct.pack("<I", len(tags)) + b"".join(
        text(f"{name}={value}") for name, value in tags.items())
    head = 4 + 4 + 34  # "fLaC" and the block that describes the stream, here the last but one
    return (flac[:4] + b"\0" + flac[5:head] + struct.pack(">I", 0x84 << 24 | len(comments)) + comments +
            flac[head:])


def make(folder, tracks):
    """Albums of eight tracks or nine, one or two to an artist, with words that many of them share."""
    chance = random.Random(1)
    folder.mkdir(parents=True)
    wav, track = folder / "a.wav", folder / "a.flac"
    with wave.open(str(wav), "wb") as out:
        out.setparams((2, 2, 44100, 0, "NONE", ""))
        out.writeframes(bytes(2205 * 4))
    subprocess.run(["flac", "-s", "--no-padding", "--no-seektable", "--delete-input-file", wav], check=True)
    subprocess.run(["metaflac", "--remove-all", "--dont-use-padding", track], check=True)
    flac = track.read_bytes()
    track.unlink()
    made = albums = 0
    while made < tracks:
        artist = " ".join(chance.sample(WORDS, 2)).title() + f" {albums // 2}"
        album = " ".join(chance.sample(WORDS, 3)).title() + f" {albums}"
        place = folder / artist / album
        place.mkdir(parents=True)
        for number in range(min(8 + albums % 2, tracks - made)):
            title = " ".join(chance.sample(WORDS, 3)).title()
            (place / f"{number:02}.flac").write_bytes(tagged(
                flac, title=title, artist=artist, album=album, albumartist=artist, tracknumber=number + 1, date=2001))
            made += 1
        albums += 1
    return albums


class Controller:
    def __init__(self, build, folder, log):
        self.port = free_port()
        self.begin = time.monotonic()
        self.process = subprocess.Popen([build / "bin/nuvio-connect-controller", "serve", "--music", folder / "music",
                                         "--state", folder / "state", "--port", str(self.port)], stderr=log)

    def get(self, path):
        """The answer's body, its size with the head, and ms."""
        begin = time.monotonic()
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=60)
        connection.request("GET", path, headers={"Accept-Encoding": "gzip"})
        answer = connection.getresponse()
        body = answer.read()
        connection.close()
        return body, len(body) + len(str(answer.headers)), (time.monotonic() - begin) * 1000

    def scanned(self, tracks):
        """Seconds since the start when all is read."""
        while True:
            try:
                body, _, _ = self.get("/api/state")
                if b'"scanning":false' in body and f'"tracks":{tracks},'.encode() in body:
                    return time.monotonic() - self.begin
            except OSError:
                pass
            time.sleep(0.05)

    def memory(self, key="VmRSS"):
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(status.split(key + ":")[1].split()[0]) / 1024

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


def main():
    build, tracks = pathlib.Path(sys.argv[1]), int(sys.argv[2]) if len(sys.argv) > 2 else 50_000
    with tempfile.TemporaryDirectory() as name, open(f"{name}/log", "w") as log:
        folder = pathlib.Path(name)
        print(f"{tracks} tracks, {make(folder / 'music', tracks)} albums")
        with Controller(build, folder, log) as first:
            print(f"first scan            {first.scanned(tracks):6.1f} s   memory {first.memory():.1f} MB, "
                  f"at most {first.memory('VmHWM'):.1f} MB")
        with Controller(build, folder, log) as again:
            print(f"scan without changes  {again.scanned(tracks):6.1f} s")
            questions = "n ni night night+boat quiet+tide+un zephyr+velvet 0 ferry+123 xyz 2001".split()
            times = [again.get("/api/library/search?q=" + each)[2] for each in questions]
            print(f"search                {max(times):6.1f} ms  the slowest of {len(times)}, the first {times[0]:.1f} ms")
            for first_album in range(0, 1000, 100):
                again.get(f"/api/library/albums?first={first_album}&count=100")
            print(f"memory                {again.memory():6.1f} MB  at most {again.memory('VmHWM'):.1f} MB")
            print(f"the page              {sum(again.get(path)[1] for path in PAGE) / 1000:6.1f} KB")


if __name__ == "__main__":
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    main()
