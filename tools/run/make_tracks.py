#!/usr/bin/env python3
"""Makes three tracks of about 8 s to try the device with: make_tracks.py FOLDER

Tracks 1 and 2 (44.1 kHz, 16 bit) are cut from one continuous signal, at a sample where it does not
cross zero: a gap or a lost frame between them is heard as a click. Track 3 is 96 kHz, 24 bit.
"""
import array
import math
import pathlib
import subprocess
import sys
import wave


def glide(seconds, rate, low, high, peak):
    """Stereo samples of a tone that glides from low to high Hz, its octave on the right."""
    samples = array.array("i")
    frames = int(seconds * rate)
    slope = (high - low) / (2 * seconds)
    for n in range(frames):
        t = n / rate
        phase = 2 * math.pi * (low + slope * t) * t
        samples.append(int(peak * math.sin(phase)))
        samples.append(int(peak * math.sin(2 * phase)))
    return samples


def pack(samples, sample_bytes):
    if sample_bytes == 2:
        return array.array("h", samples).tobytes()
    return b"".join((s & 0xFFFFFF).to_bytes(3, "little") for s in samples)


def write(folder, number, title, samples, rate, sample_bytes):
    path = folder / f"{number:02} {title}.wav"
    with wave.open(str(path), "wb") as out:
        out.setnchannels(2)
        out.setsampwidth(sample_bytes)
        out.setframerate(rate)
        out.writeframes(pack(samples, sample_bytes))
    subprocess.run(
        ["flac", "--totally-silent", "--delete-input-file", f"--tag=TITLE={title}",
         "--tag=ARTIST=Nuvio Test Ensemble", "--tag=ALBUM=Seams", f"--tag=TRACKNUMBER={number}",
         str(path)],
        check=True)


def main():
    folder = pathlib.Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    continuous = glide(16.1, 44100, 110, 440, 12000)
    cut = 2 * (8 * 44100 + 123)
    write(folder, 1, "First half", continuous[:cut], 44100, 2)
    write(folder, 2, "Second half", continuous[cut:], 44100, 2)
    write(folder, 3, "High resolution", glide(8, 96000, 220, 880, 3_000_000), 96000, 3)


if __name__ == "__main__":
    main()
