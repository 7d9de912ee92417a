"""Makes the files that kinds.txt names, says what they should sound like, and tells two sounds apart."""
import array
import pathlib
import struct
import subprocess
from typing import NamedTuple

PCM = {"u8": "u8", "s16": "s16le", "s24": "s24le", "s32": "s32le", "f32": "f32le", "f64": "f64le"}
CUE = 'FILE "a" WAVE\n TRACK 01 AUDIO\n  INDEX 01 00:00:00\n TRACK 02 AUDIO\n  INDEX 01 00:01:00\n'
ID3 = b"ID3\4\0\0" + bytes([0, 0, 7, 104]) + b"TIT2\0\0\0\2\0\0\3a" + bytes(1000 - 12)
APE = b"APETAGEX" + struct.pack("<4I8x", 2000, 32, 0, 0)


def run(command, **words):
    """The output of a command whose {words} are replaced."""
    done = subprocess.run([word.format(**words) for word in command.split()], capture_output=True)
    if done.returncode != 0 and not done.stdout:
        raise AssertionError(f"{command}: {done.stderr.decode(errors='replace').strip()[-300:]}")
    return done.stdout


# ---- What is done to a file after its encoder ---------------------------------------------------

def riff_with(content, chunk):
    at, size = content.index(b"data"), int.from_bytes(content[4:8], "little") + len(chunk)
    return content[:4] + struct.pack("<I", size) + content[8:at] + chunk + content[at:]


def without_length(content, size=bytes(4)):
    if content.startswith(b"fLaC"):
        return content[:21] + bytes([content[21] & 0xf0]) + bytes(4) + content[26:]
    at = content.index(b"data") + 4
    return content[:4] + size + content[8:at] + size + content[at + 4:]


MANGLES = {
    "truncated": lambda content: content[:-1],
    "junk_after": lambda content: content + b"junk" * 7001 + b"x",
    "id3_before": lambda content: ID3 + content,
    "id3_after": lambda content: content + b"TAG" + b"a".ljust(125, b"\0"),
    "ape_after": lambda content: content + APE + bytes(2000 - 32) + APE,
    "odd_chunk": lambda content: riff_with(content, b"junk" + struct.pack("<I", 7) + b"oddsize\0"),
    "cue_points": lambda content: riff_with(
        content, b"cue " + struct.pack("<2I", 28, 1) + struct.pack("<2I4s3I", 1, 100, b"data", 0, 0, 100)),
    "no_length": without_length,
    "length_of_all_ones": lambda content: without_length(content, b"\xff" * 4),
}


# ---- Kinds and files ----------------------------------------------------------------------------

class Kind(NamedTuple):
    name: str
    encoder: str
    ending: str
    command: str
    decoder: str  # "": the samples themselves
    not_promised: str = ""


class File:
    def __init__(self, kind, text, texts):
        """`texts`: what words of the table stand for."""
        self.kind, self.is_in_part = kind, text.startswith("*")
        self.name, _, accepted = text.strip("* ").partition(" = ")
        self.accepted = texts.get(accepted, accepted)
        what, *words = self.name.split()
        rate, self.samples, channels = what.split("/")
        self.rate, self.channels = int(rate), int(channels)
        self.mangles = [word[1:] for word in words if word[1:] in MANGLES]
        self.options = " ".join(word for word in words if word[1:] not in MANGLES)
        self.step = 1 if kind.decoder else 0


def all_files():
    kind, texts, files, listed = None, {}, [], ""
    for line in (pathlib.Path(__file__).parent / "kinds.txt").read_text().splitlines():
        if " := " in line:
            texts.update([line.split(" := ")])
        elif "|" in line:
            kind = Kind(*(texts.get(word.strip(), word.strip()) for word in line.split("|")))
        elif line.startswith(" "):
            listed += line
        if listed and not line.endswith(";"):
            files += [File(kind, text.strip(), texts) for text in listed.split(";")]
            listed = ""
    return files


def files_of(words):
    """Those of the kinds and encoders that are named, or of the part that ./dev test plays."""
    return [file for file in all_files() if (
        {"all", file.kind.name, file.kind.encoder} & words if words else file.is_in_part)]


class Samples(NamedTuple):
    """As the card gets them."""
    data: bytes
    is_deep: bool
    channels: int

    @property
    def frame_bytes(self):
        return (4 if self.is_deep else 2) * self.channels

    def numbers(self):
        return array.array("i" if self.is_deep else "h", self.data)

    def frames(self, begin, end):
        return self._replace(data=self.data[begin * self.frame_bytes:end * self.frame_bytes])


def as_delivered(raw, samples, channels):
    if samples in ("u8", "s16"):
        data = raw if samples == "s16" else array.array("h", [(byte - 128) << 8 for byte in raw]).tobytes()
        return Samples(data, False, channels)
    if samples == "s24":
        padded = bytearray(len(raw) // 3 * 4)
        for n in range(3):
            padded[n + 1::4] = raw[n::3]
        raw = bytes(padded)
    if samples in ("f32", "f64"):
        full, numbers = 1 << 23, array.array("f" if samples == "f32" else "d", raw)
        numbers = [max(-full, min(full - 1, round(number * full))) for number in numbers]
    else:
        numbers = [number >> 8 for number in array.array("i", raw)]
    return Samples(array.array("i", numbers).tobytes(), True, channels)


class Zoo:
    """The files of a folder, made when they are asked for."""

    def __init__(self, folder, seconds):
        """`seconds`: of the two tracks of each kind, which were one."""
        self.folder, self.seconds, self.sources = folder, seconds, {}
        self.turn = 0
        (folder / "cue").write_text(CUE)
        run(f"ffmpeg -v error -f lavfi -i color=red:s=300x300 -frames:v 1 {folder}/cover.png")

    def source(self, rate, samples, channels):
        """A WAV file of each track, and its samples."""
        pcm, name = PCM[samples], f"{rate}-{samples}-{channels}"
        if name not in self.sources:
            sweeps = "|".join(f"0.3*sin(2*PI*t*({110 + 50 * n}+{90 - 7 * n}*t))+0.1*random({n})-0.05"
                              for n in range(channels))
            # Doubles that are floats, as they are decoded.
            raw = run(f"ffmpeg -v error -f lavfi -i aevalsrc={sweeps}:s={rate}:d={sum(self.seconds) + 1} -f "
                      f"{pcm.replace('f64', 'f32')} -")
            raw = array.array("d", array.array("f", raw)).tobytes() if samples == "f64" else raw
            frame, seam, pairs = len(raw) // rate // (sum(self.seconds) + 1), self.seconds[0] * rate + 77, []
            for piece in raw[:seam * frame], raw[seam * frame:(seam + self.seconds[1] * rate) * frame]:
                wav = self.folder / f"{name}-{len(pairs)}.wav"
                subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", pcm, "-ar", str(rate), "-ac",
                                str(channels), "-i", "-", "-c:a", f"pcm_{pcm}", wav], input=piece, check=True)
                pairs.append((wav, as_delivered(piece, samples, channels)))
            self.sources[name] = pairs
        return self.sources[name]

    def make(self, file):
        """The paths of both tracks, and what each should sound like."""
        paths, sounds, self.turn = [], [], 1 - self.turn  # those before may still be played
        for wav, samples in self.source(file.rate, file.samples, file.channels):
            path = self.folder / f"{self.turn}{len(paths)}.{file.kind.ending}"
            path.unlink(missing_ok=True)
            run(file.kind.command.replace("{options}", file.options), wav=wav, out=path,
                cue=self.folder / "cue", picture=self.folder / "cover.png")
            for mangle in file.mangles:
                if mangle != "truncated" or not paths:
                    path.write_bytes(MANGLES[mangle](path.read_bytes()))
            paths.append(path)
            sounds.append(self.decoded(file, path, samples) if file.kind.decoder else samples)
        return paths, sounds

    def decoded(self, file, path, samples):
        """By the other decoder, which leaves on what an MPEG-4 file says to be none of the sound."""
        raw = run(file.kind.decoder, file=path, raw="s16le")
        raw = raw[raw.index(b"data") + 8:] if raw.startswith(b"RIFF") else raw
        sound = as_delivered(raw, file.samples if "WavPack" in file.kind.name else "s16", file.channels)
        run_in = 1024 * file.kind.name.endswith("no edit list")
        return sound if "M4A" not in file.kind.name else sound.frames(
            0, len(samples.data) // samples.frame_bytes + run_in)


# ---- Sounds -------------------------------------------------------------------------------------

def first_difference(these, those, step):
    """How many numbers are the same before it, and in all that both have."""
    return next((n for n, (one, other) in enumerate(zip(these, those)) if abs(one - other) > step),
                min(len(these), len(those)))


def difference(heard, wanted, step):
    """Nothing, or in which way the bytes differ from the samples by more than a step."""
    if heard == wanted.data:
        return ""
    off = [abs(h - w) for h, w in zip(wanted._replace(data=heard).numbers(), wanted.numbers())]
    wrong = [n // wanted.channels for n, each in enumerate(off) if each > step]
    frames = (len(heard) - len(wanted.data)) / wanted.frame_bytes
    return ", ".join(filter(None, [
        frames and f"{frames:+g} frames at the end",
        wrong and f"off by {max(off)} from frame {wrong[0]} to {wrong[-1]} of {len(off) // wanted.channels}"]))


def lost_by_pauses(heard, whole, step, most):
    """What of the samples is lost, or heard twice in more than `most` frames, in what was heard with
    pauses."""
    numbers, wanted, channels = whole._replace(data=heard).numbers(), whole.numbers(), whole.channels
    at = place = 0
    while True:
        same = first_difference(numbers[at:], wanted[place:], step) // channels * channels
        at, place = at + same, place + same
        if at == len(numbers):
            left = (len(wanted) - place) // channels
            return f"{left} frames missing at the end" * bool(left)
        some = numbers[at:at + 64 * channels]
        again = next((first for first in range(place - channels, place - most * channels, -channels)
                      if first_difference(some, wanted[first:first + len(some)], step) == len(some)), None)
        if again is None:
            return f"by a pause something else at frame {place // channels}"
        place = again
