"""The house's music: each frame says which one of which track it is, so that whoever hears it knows.

16 bits, stereo. Right are the low 16 bits of the frame's number in its track; left its other bits in the
lowest five, above them the track's number, from 1 on. The radio's station sends noise as MP3, which is known
again by itself.
"""
import array
import functools
import pathlib
import random
import subprocess
import tempfile
import wave

HIGH = 5  # bits of the frame's number that are left
ALBUMS = [("Night Boats", "Ada Fern", "flac", 44100, (21, 18, 24)),
          ("Long Shadows", "Trio Laub", "wav", 48000, (26, 19)),
          ("Short Notes", "Ida Quill", "flac", 44100, (5, 4, 7, 5))]
STATION = "House"
RADIO = 1000  # what stands for it among the numbers of tracks
RADIO_RATE, RADIO_SECONDS = 44100, 120
RADIO_BYTES_A_SECOND = 16000


def tracks():
    """Number, path below the music folder, rate, frames."""
    number = 0
    for album, (_, _, kind, rate, lengths) in enumerate(ALBUMS):
        for place, seconds in enumerate(lengths):
            number += 1
            yield number, f"{album}/{place}.{kind}", rate, seconds * rate


def frames_of(number, count):
    """What a card plays of a track."""
    samples = array.array("H", bytes(4 * count))
    samples[1::2] = array.array("H", (frame & 0xFFFF for frame in range(count)))
    samples[::2] = array.array("H", (number << HIGH | frame >> 16 for frame in range(count)))
    return samples.tobytes()


def write_wav(path, rate, frames):
    with wave.open(str(path), "wb") as out:
        out.setparams((2, 2, rate, 0, "NONE", ""))
        out.writeframes(frames)


def write_music(folder):
    for (number, path, rate, count) in tracks():
        album, artist, kind, _, _ = ALBUMS[int(path[0])]
        target = pathlib.Path(folder) / path
        target.parent.mkdir(parents=True, exist_ok=True)
        wav = target.with_suffix(".wav")
        write_wav(wav, rate, frames_of(number, count))
        if kind == "flac":
            tags = {"ALBUM": album, "ARTIST": artist, "TITLE": f"{album} {path[2]}", "TRACKNUMBER": int(path[2]) + 1}
            subprocess.run(["flac", "--silent", "--force", "--delete-input-file",
                            *(f"-T{key}={value}" for key, value in tags.items()), "-o", target, wav], check=True)


def write_radio(target):
    """What the station sends."""
    with tempfile.NamedTemporaryFile(suffix=".wav") as wav:
        write_wav(wav.name, RADIO_RATE, random.Random(RADIO).randbytes(4 * RADIO_RATE * RADIO_SECONDS))
        subprocess.run(["lame", "--quiet", "--scale", "0.1", "-t", "--nores", "--cbr",
                        "-b", f"{8 * RADIO_BYTES_A_SECOND // 1000}", wav.name, target], check=True)


@functools.cache
def frames_of_the_radio():
    """What a card plays of it, but for the rounding."""
    with tempfile.NamedTemporaryFile(suffix=".mp3") as file:
        write_radio(file.name)
        return subprocess.run(["mpg123", "--quiet", "--stdout", file.name], check=True, capture_output=True).stdout
