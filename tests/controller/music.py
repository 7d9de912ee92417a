"""Tagged FLAC files, made quickly: one encoding, any number of tags and covers."""
import functools
import pathlib
import struct
import subprocess
import sys
import tempfile
import zlib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))
from device import signal_samples, write_wav  # noqa: E402

HEAD = 4 + 4 + 34  # "fLaC" and the block that describes the stream


@functools.lru_cache
def encode(seconds, rate=44100, start=0):
    """FLAC of the tests' signal without tags, and the bytes that a card plays for it."""
    with tempfile.TemporaryDirectory() as folder:
        wav = pathlib.Path(folder) / "a.wav"
        played = write_wav(wav, signal_samples(int(seconds * rate), start, rate), rate)
        subprocess.run(["flac", "-s", "--no-padding", "--no-seektable", wav], check=True)
        flac = wav.with_suffix(".flac")
        subprocess.run(["metaflac", "--remove-all", "--dont-use-padding", flac], check=True)
        return flac.read_bytes(), played


def block(kind, data, last=False):
    return struct.pack(">I", (0x80 | kind if last else kind) << 24 | len(data)) + data


def tagged(flac, picture=None, **tags):
    """The same sound with tags and, where given, a PNG as its front cover."""
    def text(value):
        value = str(value).encode()
        return struct.pack("<I", len(value)) + value
    comments = text("test") + struct.pack("<I", len(tags)) + b"".join(
        text(f"{name.upper()}={value}") for name, value in tags.items())
    extra = block(4, comments, last=picture is None)
    if picture:
        mime = b"image/png"
        extra += block(6, struct.pack(">II", 3, len(mime)) + mime + struct.pack(">IIIIII", 0, 0, 0, 0, 0,
                                                                              len(picture)) + picture, True)
    head = bytearray(flac[:HEAD])
    head[4] &= 0x7f
    return bytes(head) + extra + flac[HEAD:]


def png(colour, size=300):
    """A picture of one colour with a stripe, so that albums can be told apart."""
    row = b"".join(bytes(colour) if (x // 30) % 3 else bytes(255 - c for c in colour) for x in range(size))
    data = zlib.compress(b"".join(b"\0" + row for _ in range(size)), 9)

    def chunk(name, body):
        return struct.pack(">I", len(body)) + name + body + struct.pack(">I", zlib.crc32(name + body))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", size, size, 8, 2, 0, 0, 0)) +
            chunk(b"IDAT", data) + chunk(b"IEND", b""))
