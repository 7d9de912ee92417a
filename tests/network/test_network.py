"""Content over the network: every case compares what arrives with what the server has."""
import array
import itertools
import math
import os
import pathlib
import random
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

sys.path[:0] = [os.path.join(os.path.dirname(__file__), place) for place in ("..", "../e2e")]
from bad_line import BadLine  # noqa: E402
from certificate import make_certificate  # noqa: E402
from device import BUILD, CD, EMULATOR, WebServer, program, signal_samples, write_wav  # noqa: E402
from scripted_server import ScriptedServer  # noqa: E402
from web_server import free_ports  # noqa: E402

HAS_MODULE = bool(list(BUILD.glob("lib/libnuvio_connect_ffmpeg.so*")))
# The last two would play if the module opened what a file names.
NO_SOUND = {"none.wav": "RIFF", "hls.m4a": "#EXTM3U\n#EXT-X-TARGETDURATION:5\n#EXTINF:5,\n16.wav\n",
            "list.m4a": "ffconcat version 1.0\nfile 16.wav\n"}
SERVERS = """
    server {{
        listen 127.0.0.1:{port}; listen 127.0.0.1:{tls} ssl http2;
        ssl_certificate {d}/cert; ssl_certificate_key {d}/key;
        location /plain/ {{ alias {d}/; }}
        location /noranges/ {{ alias {d}/; max_ranges 0; }}
        location /slow/ {{ alias {d}/; limit_rate 400k; }}
        location /slownoranges/ {{ alias {d}/; limit_rate 400k; max_ranges 0; }}
        location /echo {{ return 200 "$http_authorization"; }}
        location /protocol {{ return 200 $server_protocol; }}
        location /there {{ return 302 http://127.0.0.1:{other}/echo; }}
        location /back {{ return 302 http://127.0.0.1:{other}/back; }}
        location /here {{ return 307 echo; }}
        location /loop {{ return 302 /loop; }}
        location /tofile {{ return 302 file:///etc/passwd; }}
        location /refused {{ return 401; }}
        location /busy {{ return 503; }}
    }}
    server {{
        listen 127.0.0.1:{other};
        location /echo {{ return 200 "other:$http_authorization"; }}
        location /back {{ return 302 http://127.0.0.1:{port}/echo; }}
    }}
"""


class Result:
    def __init__(self, process):
        self.body, log = process.communicate(timeout=60)
        self.log = log.decode()
        if process.returncode != 0:  # also what a sanitizer found
            raise AssertionError(self.log)
        fields = dict(line.split("=", 1) for line in self.log.splitlines() if "=" in line)
        self.failure, self.error = fields.get("failure"), fields.get("error")


def start(command, url, *arguments, wrapper=()):
    return subprocess.Popen([*wrapper, *program("network_probe"), command, url, *arguments],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def fetchers_below(pid):
    """Of a process and those that it has started."""
    found = []
    for children in pathlib.Path(f"/proc/{pid}/task").glob("*/children"):
        for child in children.read_text().split():
            is_one = "fetcher" in os.path.basename(os.readlink(f"/proc/{child}/exe"))
            found += [int(child)] if is_one else fetchers_below(child)
    return found


def pieces(content, parts, unit=1):
    """Of some content what "FIRST:COUNT" name, of so many bytes each; 0: all that is left."""
    pairs = [[unit * int(number) for number in part.split(":")] for part in parts]
    return b"".join(content[first:first + count if count else None] for first, count in pairs)


def error_of(heard, wanted):
    """How much of half a second's power is missing or too much."""
    pairs = list(zip(heard[:CD], wanted[:CD], strict=True))
    return sum((h - w) ** 2 for h, w in pairs) / sum(w * w for _, w in pairs)


def tone(seconds):
    return 0.4 * math.sin(2 * math.pi * 441 * seconds)


def with_delay_told(content, *delay_padding_frames):
    """An MPEG-4 file's bytes with what iTunes notes of its encoder at the end of its last atom."""
    def atom(name, *parts):
        body = b"".join(parts)
        return struct.pack(">I", 8 + len(body)) + name + body

    text = b" 00000000 %08X %08X %016X" % delay_padding_frames
    names = atom(b"mean", b"\0\0\0\0com.apple.iTunes"), atom(b"name", b"\0\0\0\0iTunSMPB")
    told = atom(b"ilst", atom(b"----", *names, atom(b"data", struct.pack(">2I", 1, 0), text)))
    told = atom(b"udta", atom(b"meta", bytes(4), atom(b"hdlr", bytes(8), b"mdirappl", bytes(9)), told))
    at = content.rindex(b"moov") - 4
    size = struct.pack(">I", len(content) - at + len(told))
    return content[:at] + size + content[at + 4:] + told


def dsd_files(count):
    """A second-order modulator's bits of the tone on both channels, `count` bytes each, and something
    behind the sound, as files have it."""
    rate, first, second, lowest_first = 64 * CD, 0, 0, bytearray()
    for at in range(0, 8 * count, 8):
        bits = 0
        for bit in range(8):
            out = 1 if second >= 0 else -1
            first += tone((at + bit) / rate) - out
            second += first - 2 * out
            bits |= (out > 0) << bit
        lowest_first.append(bits)
    highest_first = lowest_first.translate(bytes(int(f"{n:08b}"[::-1], 2) for n in range(256)))
    blocks = b"".join(2 * lowest_first[n:n + 4096] for n in range(0, count, 4096))

    def chunk(name, body):
        return name + struct.pack(">Q", len(body)) + body

    about = b"SND " + chunk(b"FS  ", struct.pack(">I", rate)) + chunk(b"CHNL", b"\0\2SLFTSRGT") + \
        chunk(b"CMPR", b"DSD \x0fnot compressed.")
    sound = b"".join(bytes([byte, byte]) for byte in highest_first)
    return {"a.dsf": b"DSD " + struct.pack("<Q16x", 28) + b"fmt " + struct.pack(
                "<Q6IQI4x", 52, 1, 0, 2, 2, rate, 1, 8 * count, 4096) + b"data" + struct.pack(
                "<Q", 12 + len(blocks)) + blocks + b"x" * 30000,
            "a.dff": chunk(b"FRM8", b"DSD " + chunk(b"FVER", b"\1\5\0\0") + chunk(b"PROP", about) +
                           chunk(b"DSD ", sound) + chunk(b"ID3 ", b"x" * 30000))}


class Network(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.directory.cleanup)
        cls.d = cls.directory.name
        make_certificate(cls.d, "IP:127.0.0.1")
        cls.tls, cls.other = free_ports(2)
        cls.file = random.Random(1).randbytes(1_500_000)
        cls.write("file", cls.file)
        cls.server = WebServer(cls.d, SERVERS, tls=cls.tls, other=cls.other)
        cls.addClassCleanup(cls.server.kill)
        cls.base = cls.server.url
        cls.secure = f"https://127.0.0.1:{cls.tls}"
        cls.places = [cls.d, f"{cls.base}/plain"]
        cls.authority = f"authorities={cls.d}/cert"

    @classmethod
    def write(cls, name, content):
        with open(f"{cls.d}/{name}", "wb") as out:
            out.write(content if isinstance(content, bytes) else content.encode())

    def read(self, url, *arguments):
        return Result(start("read", url if "//" in url else self.base + url, *arguments))

    def test_bytes_are_the_files(self):
        parts = ["0:5000", "1400000:20000", "1499990:100", "100:4000", "700000:300000", "0:1000"]
        wanted = pieces(self.file, parts)
        for url, arguments, body in [
                ("/plain/file", [], self.file),
                ("/plain/file", ["read_ahead=1", "pause_ms=500"], self.file),
                ("/plain/file", ["read_ahead=200000", *parts], wanted),
                ("/plain/file", parts, wanted),
                ("/plain/file", ["900000:0"], self.file[900000:]),
                ("/plain/file", ["1500000:5", "99000000:5"], b""),
                ("/noranges/file", [], self.file),
                ("/noranges/file", ["read_ahead=1", *parts], wanted),
                ("/slow/file", ["read_ahead=150000", "1400000:0"], self.file[1400000:]),
                (self.secure + "/protocol", [self.authority], b"HTTP/2.0"),
                (self.secure + "/plain/file", [self.authority, "read_ahead=1", "pause_ms=500"],
                 self.file),
                (self.secure + "/plain/file", [self.authority, "read_ahead=1", *parts], wanted)]:
            with self.subTest(url=url, arguments=arguments):
                result = self.read(url, *arguments)
                self.assertEqual((result.failure, result.body == body), ("none", True), result.log)

    @unittest.skipIf(EMULATOR, "an emulated program has a folder of its own there")
    def test_the_systems_authorities_are_those_of_its_folder_and_of_its_file(self):
        name = subprocess.run(["openssl", "x509", "-hash", "-noout", "-in", f"{self.d}/cert"], check=True,
                              text=True, capture_output=True).stdout.strip() + ".0"
        for files, failure in [({name: "cert"}, "none"), ({"ca-certificates.crt": "cert"}, "none"),
                               ({"12345678.0": "file", "ca-certificates.crt": "cert"}, "none"),
                               ({"12345678.0": "file"}, "unusable")]:
            with self.subTest(files=files), tempfile.TemporaryDirectory() as folder:
                for place, content in files.items():
                    shutil.copy(f"{self.d}/{content}", f"{folder}/{place}")
                inside = ["unshare", "--mount", "--map-root-user", "sh", "-c",
                          'mount --bind "$0" /etc/ssl/certs && exec "$@"', folder]
                result = Result(start("read", self.secure + "/plain/file", wrapper=inside))
                self.assertEqual((result.failure, result.body == self.file), (failure, failure == "none"),
                                 result.log)

    def decode(self, name, *arguments, tells="", place=None):
        """What is heard of a file on the disk, or of the URL; it is told as it is."""
        result = Result(start("decode", f"{place or self.d}/{name}", *arguments))
        self.assertEqual(result.failure, "none", result.log)
        self.assertIn(tells, result.log)
        return result.body

    def ffmpeg(self, source, name, *options, before=()):
        subprocess.run(["ffmpeg", "-v", "error", *before, "-i", source, *options, "-metadata",
                        "title=Song", name], cwd=self.d, check=True)

    def test_lossless_files_are_exact_without_ranges_with_a_page_lost_and_of_any_width(self):
        noise = array.array("h", self.file[:1_200_000])
        whole = write_wav(f"{self.d}/16.wav", noise, CD)
        deep = array.array("i", [256 * sample + sample % 256 for sample in noise])
        subprocess.run(["flac", "--silent", "16.wav"], cwd=self.d, check=True)
        parts, names = ["0:0", "200000:5000", "1:2000", "299990:0", "10:5000"], ["16.flac"]
        if HAS_MODULE:
            for name, codec in [("16.m4a", "alac"), ("16.oga", "flac")]:
                self.ffmpeg("16.wav", name, "-c:a", codec)
            # A frame's place is not counted from the beginning, where a page is lost.
            torn = bytearray(pathlib.Path(self.d, "16.oga").read_bytes())
            torn[50_000] ^= 1
            self.write("torn.oga", bytes(torn))
            self.assertTrue(self.decode("torn.oga", parts[1]) == pieces(whole, parts[1:2], 4))
            names += ["16.m4a"]
        for name in names:
            heard = self.decode(name, "read_ahead=1", *parts, place=f"{self.base}/noranges", tells=(
                f"44100 Hz 300000 frames 01 {'Song' * (name == '16.m4a')}\n"))
            self.assertTrue(heard == pieces(whole, parts, 4), name)
        some = self.file[:240_000]
        for name, channels, codec, content, samples in [
                ("1.wav", "1", "u8", some, array.array("h", [256 * (b - 128) for b in some])),
                ("3.wav", "3", "s32le", array.array("i", [256 * s + 7 for s in deep[:60_000]])
                 .tobytes(), deep[:60_000]),
                ("8.aiff", "8", "s16be", some, array.array("h", noise[:120_000])),
                ("float.wav", "1", "f32le", struct.pack("<6f", 0, 0.5, -0.5, 1.5, -1.5, math.nan),
                 array.array("i", [0, 1 << 22, -1 << 22, (1 << 23) - 1, -1 << 23, 0]))]:
            self.write("raw", content)
            self.ffmpeg("raw", name, "-c:a", f"pcm_{codec}",
                        before=("-f", codec.replace("be", "le"), "-ar", "384000", "-ac", channels))
            self.assertTrue(self.decode(name, tells="384000 Hz") == samples.tobytes(), name)
        for name, text in NO_SOUND.items():
            self.write(name, text)
            self.assertEqual(Result(start("decode", f"{self.d}/{name}")).body, b"")

    def test_what_lies_before_a_place_in_an_mp3_is_not_fetched(self):
        write_wav(f"{self.d}/noise.wav", 3 * array.array("h", self.file[:1_200_000]), CD)
        parts = ["800000:2000", "880000:0", "700000:3000"]
        for is_constant, rate in [(True, ["-b:a", "320k"]), (False, ["-q:a", "0"]),
                                  (False, ["-q:a", "0", "-write_xing", "0"])]:
            self.ffmpeg("noise.wav", "a.mp3", *rate, "-y")
            heard, wanted, asked = self.far_and_near("a.mp3", parts)
            self.assertLessEqual(max(abs(h - w) for h, w in zip(heard, wanted, strict=True)), 1)
            self.assertEqual(any(0.3 < place < 0.7 for place in asked), not is_constant, asked)

    def test_a_far_place_in_a_long_mp3_of_a_varying_rate_is_gone_to_by_its_table(self):
        noise = array.array("h", random.Random(1).randbytes(4 * 8_400_000))
        for begin in range(0, len(noise), 2_400_000):  # some of it quiet, and of fewer bits
            noise[begin:begin + 1_200_000] = array.array(
                "h", (sample // 256 for sample in noise[begin:begin + 1_200_000]))
        write_wav(f"{self.d}/noise.wav", noise, CD)
        frames = len(noise) // 2
        self.ffmpeg("noise.wav", "a.mp3", "-q:a", "0", "-y")
        places = [frames * 8 // 10, frames * 8 // 10 + 90_000, frames * 78 // 100, frames - 90_000]
        parts = [f"{place}:{n}" for place, n in zip(places, [100_000, 2000, 2000, 0])]
        heard, _, asked = self.far_and_near("a.mp3", parts)
        self.assertFalse(any(0.01 < place < 0.76 for place in asked), asked)
        whole, heard = self.decode("a.mp3"), heard.tobytes()
        later = []
        for place, at in zip(places, [0, 100_000, 102_000, 104_000]):  # a pause is behind the first
            found = whole.find(heard[4 * at + 400:4 * at + 4000])
            later.append((found - 400) // 4 - place)
        self.assertTrue(all(0 <= frames < len(whole) // 4 // 100 for frames in later), later)
        self.assertEqual(later[0], later[1])
        self.assertIn(whole[-4000:], heard[-14_000:])  # nothing is missing

    def far_and_near(self, name, parts):
        """What is heard of a file's parts over a network and from the disk, and which places in it, of 1,
        were asked for."""
        content, asked = pathlib.Path(self.d, name).read_bytes(), []

        def in_pieces(handler, first):
            asked.append(first / len(content))
            handler.head_from(first, len(content))
            handler.wfile.write(content[first:first + 100_000])

        with ScriptedServer(in_pieces) as server:
            return *(array.array("h", self.decode(at, "read_ahead=1", *parts, place=place))
                     for at, place in [("", server.url), (name, self.d)]), asked

    @unittest.skipUnless(HAS_MODULE, "no libavformat for this machine")
    def test_lossy_sound_is_the_signal_and_an_aac_radio_is_joined_in_a_frame(self):
        frames, frame = 3 * CD + 123, 2 * 1024
        source = signal_samples(frames)
        write_wav(f"{self.d}/signal.wav", source, CD)
        for name in ("b.m4a", "a.aac"):
            self.ffmpeg("signal.wav", name, "-c:a", "aac", "-b:a", "256k", "-use_editlist", "0")
        plain = pathlib.Path(self.d, "b.m4a")
        plain.write_bytes(with_delay_told(plain.read_bytes(), 1024, 700, frames))
        for place, first in itertools.product(self.places, [0, 70001]):
            heard = array.array("h", self.decode("b.m4a", f"{first}:0", place=place))
            self.assertEqual(len(heard), 2 * (frames - first), first)
            skipped = 0 if first else 4 * frame  # the encoder too has a run-in
            wanted = source[2 * first + skipped:]
            self.assertLess(error_of(heard[skipped:], wanted), 0.001, "a shift by a frame is more")
        content = pathlib.Path(self.d, "a.aac").read_bytes()
        self.ffmpeg("signal.wav", "mono.aac", "-ac", "1")
        mono = pathlib.Path(self.d, "mono.aac").read_bytes()
        self.write("b.aac", mono[:int.from_bytes(mono[3:6], "big") >> 5 & 0x1fff] + content)
        heard = array.array("h", self.decode("b.aac"))  # its first frame alone lacks a channel
        self.assertLess(error_of(heard[6 * frame:], source[4 * frame:]), 0.001)
        content = content[777:]

        def on_air(handler, _):
            handler.wfile.write(b"ICY 200 OK\r\nicy-name:Station\r\nicy-metaint:999\r\n\r\n")
            for at in range(0, len(content), 999):
                handler.wfile.write(content[at:at + 999] + b"\2StreamTitle='On air';".ljust(33, b"\0"))

        with ScriptedServer(on_air) as server:
            heard = array.array("h", self.decode("", f"0:{2 * CD}", place=server.url,
                                                 tells="44100 Hz 0 frames 10 On airStation\n"))
        self.assertEqual(len(heard), 4 * CD)
        errors = [error_of(heard[4 * frame:], source[n * frame:]) for n in range(4, 12)]
        self.assertLess(min(errors), 0.001)  # of one it is where it was joined

    def test_lossy_files_are_heard_whole_and_the_same_from_any_frame_on(self):
        loud = self.file[:20 * CD]
        write_wav(f"{self.d}/uneven.wav", array.array("h", bytes(40 * CD) + loud), CD)
        self.ffmpeg("uneven.wav", "uneven.mp3", "-q:a", "4", "-write_xing", "0")
        ogg = []
        for name in ("0.ogg", "1.ogg", "2.ogg"):
            self.ffmpeg("uneven.wav", name, "-c:a", "libvorbis")
            ogg.append(pathlib.Path(self.d, name).read_bytes())
        self.write("1.ogg", ogg[1][:-9000])  # as a radio's server breaks off
        self.write("chain.ogg", ogg[0] + ogg[1][:-9000] + ogg[2])
        joined = b"".join(self.decode(f"{n}.ogg") for n in range(3))
        self.assertGreater(len(joined), 160 * CD)
        for name, frames in [("uneven.mp3", 576 * 1152), ("chain.ogg", len(joined) // 4)]:
            whole = self.decode(name, tells=f"{frames} frames 01 Song\n")
            self.assertTrue(whole == joined or name == "uneven.mp3")
            parts = [f"{frame}:3000" for frame in (frames - 4000, 1, frames - 500_000, 555_555)]
            for place in self.places:
                self.assertTrue(self.decode(name, place=place) == whole, (name, place))
                heard = self.decode(name, *parts, place=place)
                self.assertTrue(heard == pieces(whole, parts, 4), (name, place))

    @unittest.skipUnless(HAS_MODULE, "no libavformat for this machine")
    def test_dsd_is_the_signal_at_an_eighth_of_its_rate(self):
        frames, rate, delay = 40 * 4096, 8 * CD, 5.5  # of the filter, in frames
        for name, content in dsd_files(frames).items():
            self.write(name, content)
        for name, place, first in itertools.product(["a.dsf", "a.dff"], self.places, [0, 50001]):
            heard = array.array("i", self.decode(name, f"{first}:0", place=place, tells=(
                f"{rate} Hz {frames} frames 01")))
            self.assertEqual(len(heard), 2 * (frames - first))
            wanted = [2**23 * tone((first + 100 + n // 2 - delay) / rate) for n in range(2 * CD)]
            self.assertLess(error_of(heard[200:], wanted), 0.002)

    def test_the_token_reaches_its_own_origin_alone(self):
        for url, body in [("/echo", b"Bearer good"), ("/here", b"Bearer good"),
                          ("/there", b"other:"), ("/back", b"Bearer good")]:
            with self.subTest(url=url):
                self.assertEqual(self.read(url, "token=good").body, body)

    def test_what_ends_it(self):
        quick = "give_up_ms=1500"
        for url, arguments, failure in [
                ("/refused", ["token=old"], "refused"), ("/none", [], "missing"),
                ("/loop", [], "unusable"), ("/tofile", [], "unusable"),
                ("/busy", [quick], "unreachable"), ("http://127.0.0.1:1/", [quick], "unreachable"),
                ("/echo", ["token=a\r\nHost: b"], "unusable"),
                ("file:///etc/passwd", [], "unusable"), ("ftp://127.0.0.1/", [], "unusable"),
                (self.secure + "/plain/file", [], "unusable")]:
            with self.subTest(url=url):
                result = self.read(url, *arguments)
                self.assertEqual((result.failure, result.body), (failure, b""), result.log)
                self.assertTrue(result.error)
        nowhere = ["unshare", "--net", "--map-root-user"]
        if subprocess.run([*nowhere, "true"], capture_output=True).returncode == 0:
            result = Result(start("read", "http://music.example/", quick, wrapper=nowhere))
            self.assertEqual(result.failure, "unreachable", "a name that nobody answers")

    def test_goes_on_when_the_server_is_back(self):
        for url in [self.base + "/slow/file", self.base + "/slownoranges/file",
                    self.secure + "/slow/file"]:
            with self.subTest(url=url):
                process = start("read", url, self.authority)
                time.sleep(0.8)
                self.server.kill()
                time.sleep(1)
                self.server.start()
                result = Result(process)
                self.assertEqual((result.failure, result.body == self.file), ("none", True),
                                 result.log)

    def test_a_line_that_is_late_cut_and_dead_for_a_while(self):
        for scheme, port in [("http", self.server.port), ("https", self.tls)]:
            with self.subTest(scheme):
                line = BadLine(port, 0.05, 800_000, 600_000)
                process = start("read", f"{scheme}://127.0.0.1:{line.port}/plain/file", "stalled_s=1",
                                self.authority)
                time.sleep(1)
                line.is_down = True
                time.sleep(2.5)
                line.is_down = False
                result = Result(process)
                self.assertEqual((result.failure, result.body == self.file), ("none", True),
                                 result.log)
                self.assertGreater(line.cuts, 1)

    def test_a_fetcher_that_is_killed_or_hangs_costs_no_byte(self):
        for number in signal.SIGKILL, signal.SIGSTOP:
            with self.subTest(number):
                process = start("read", self.base + "/slow/file", "stalled_s=1")
                time.sleep(0.8)
                fetcher, = fetchers_below(process.pid)
                if "NUVIO_READER_UNFILTERED" not in os.environ:
                    self.assertRegex(pathlib.Path(f"/proc/{fetcher}/status").read_text(), "Seccomp:\t2")
                os.kill(fetcher, number)
                result = Result(process)
                self.assertEqual((result.failure, result.body == self.file), ("none", True),
                                 result.log)
                self.assertFalse(os.path.exists(f"/proc/{fetcher}"))

    def test_names_that_nobody_answers_hold_a_dozen_threads_and_no_source(self):
        self.write("resolv.conf", "nameserver 127.0.0.1")
        silent = ("import socket, subprocess, sys; names = socket.socket(type=socket.SOCK_DGRAM); "
                  "names.bind(('127.0.0.1', 53)); sys.exit(subprocess.call(sys.argv[1:]))")
        wrapper = ["unshare", "--net", "--mount", "--map-root-user", "sh", "-ec",
                   f"ip link set lo up; mount --bind {self.d}/resolv.conf /etc/resolv.conf; exec \"$@\"", "-",
                   sys.executable, "-c", silent]
        if subprocess.run([*wrapper, "true"], capture_output=True).returncode != 0:
            self.skipTest("no namespaces here")
        process = start("abandon", "http://music.example/", "0:40", wrapper=wrapper)
        most = 0
        while process.poll() is None:
            try:
                most = max([most, *(len(os.listdir(f"/proc/{pid}/task")) for pid in fetchers_below(process.pid))])
            except OSError:
                pass  # one has just ended
            time.sleep(0.01)
        self.assertEqual(Result(process).log.count("failure=none"), 40)
        self.assertTrue(8 < most <= 14, most)  # with its own, and of one that is still wanted

    def test_servers_that_break_off_or_say_a_wrong_length(self):
        content = self.file[:60000]

        def too_long(handler, first):
            if first >= len(content):
                return handler.head(416, Content_Range=f"bytes */{len(content)}")
            handler.head_from(first, 90000)
            handler.wfile.write(content[first:])

        def in_pieces(handler, first):  # the connection breaks each 7000 bytes
            handler.head_from(first, len(content))
            handler.wfile.write(content[first:first + 7000])

        def without(handler, first):
            handler.head(200)
            handler.wfile.write(content)

        def stalled(handler, first):
            handler.head_from(first, len(content))
            handler.wfile.write(content[first:first + 40000])
            time.sleep(90)  # longer than anybody here waits

        for answer in [too_long, in_pieces, without, stalled]:
            with self.subTest(answer=answer.__name__), ScriptedServer(answer) as server:
                result = self.read(server.url, "stalled_s=1", "give_up_ms=9000")
                self.assertEqual((result.failure, result.body == content), ("none", True),
                                 result.log)

        def dripping(handler, first):
            handler.head_from(first, len(content))
            for at in range(first, first + 200):
                handler.wfile.write(content[at:at + 1])
                time.sleep(0.1)

        with ScriptedServer(dripping) as server:
            result = self.read(server.url, "give_up_ms=2000", "0:60")
        self.assertIn("failure=unreachable\nerror=too slow", result.log)
        asked = []

        def too_long_from_the_start(handler, first):
            asked.append(first)
            handler.head(200, Content_Length=90000)
            handler.wfile.write(content)

        with ScriptedServer(too_long_from_the_start) as server:
            result = self.read(server.url, "give_up_ms=2000")
        self.assertEqual((result.failure, result.body == content), ("unreachable", True), result.log)
        self.assertLess(len(asked), 12, "each time it sends all of it")

    def test_cancel_ends_every_wait(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            urls = [f"http://127.0.0.1:{silent.getsockname()[1]}/", "/busy", "/slow/file",
                    "http://127.0.0.1:1/"]
            for url in urls:
                with self.subTest(url=url):
                    begun = time.monotonic()
                    self.assertEqual(self.read(url, "cancel_after_ms=300").failure, "cancelled")
                    self.assertLess(time.monotonic() - begun, 5)  # others wait for 10 and 60

    def flac_with_sheet(self, name, second):
        """Of two tracks, behind a cover."""
        write_wav(f"{self.d}/sheet.wav", signal_samples(2 * CD), CD)
        self.write("inside.cue", "FILE a WAVE\nTRACK 1 AUDIO\nINDEX 1 00:00:00\n"
                   f"TRACK 2 AUDIO\nINDEX 1 {second}\n")
        self.write("cover", "x" * 900_000)
        for command in ([["flac", "-s", "-f", "-o", name, "sheet.wav"],
                         ["metaflac", "--import-picture-from=3|image/jpeg||9x9x24|cover", name],
                         ["metaflac", "--import-cuesheet-from=inside.cue", name]]):
            subprocess.run(command, cwd=self.d, check=True)

    def test_playlists(self):
        other = f"http://127.0.0.1:{self.other}"
        local = "file:///etc/passwd"
        self.write("a.m3u", f"#EXTM3U\n#EXTINF:3,Ä title\nfile one\n{local}\n/etc/x\n")
        self.write("b", f"[Playlist]\nFile2=two\nTitle2=Two\nLength2=4\nFile1={other}/echo\n"
                        f"File3={local}\n")
        self.write("c.xspf", '<?xml version="1.0"?><playlist xmlns="http://xspf.org/ns/0/">'
                   '<title>no</title><trackList><track><location>../c?a=1&amp;b=2</location>'
                   '<title>T</title><creator>C</creator><album>A</album><image>i.png</image>'
                   f'<duration>5</duration></track><track><location>{local}</location></track>'
                   '<track><location>e</location><x><title>deeper</title></x></track>'
                   '</trackList></playlist>')
        self.write("d", '{"playlist":{"track":[{"location":["x"],"title":"J","creator":"C",'
                   f'"album":"A","image":"i","duration":7}},{{"location":"{local}"}},{{"a":1}},{{"location":"y"}}]}}}}')
        self.write("bomb.xspf", '<!DOCTYPE p [<!ENTITY a "aaaa">]><playlist><trackList><track>'
                   '<location>&a;</location></track></trackList></playlist>')
        track = "<trackList><track><location>file</location></track></trackList>"
        self.write("deep.xspf", f"<playlist>{track}{'<a>' * 100_000}{'</a>' * 100_000}{track}</playlist>")
        self.write("wide", '{"playlist":{"x":[' + "1," * 70_000 + '1],"track":[{"location":"file"}]}}')
        self.write("self.m3u", "self.m3u\n")
        self.write("nested.m3u", "a.m3u\nd\n")
        self.write("hls.m3u", "#EXTM3U\n#EXT-X-TARGETDURATION:5\npiece\n")
        sheet = ("REM GENRE x\r\nPERFORMER Band\r\nFILE \"CD 1\\a #1.flac\" WAVE\r\n  TRACK 01 AUDIO\r\n"
                 "    TITLE One\r\n    INDEX 01 00:00:00\r\n  TRACK 02 AUDIO\r\n    INDEX 01 00:01:%s\r\n"
                 f"FILE {other}/echo WAVE\r\n  TRACK 03 AUDIO\r\n    INDEX 01 00:00:00\r\n")
        self.write("sheet", sheet % "30")
        self.write("faulty.cue", sheet % "75")
        for name, second in ("inside.flac", "00:01:00"), ("beyond.flac", "59:01:00"):
            self.flac_with_sheet(name, second)
        p = f"{self.base}/plain"
        a = [f"{p}/file%20one|Ä title||||0", f"{self.base}/etc/x|||||0"]
        for name, tracks in [
                ("file", [f"{p}/file|||||0"]), ("a.m3u", a),
                ("b", [f"{other}/echo|||||0", f"{p}/two|Two||||4000"]),
                ("c.xspf", [f"{self.base}/c?a=1&b=2|T|C|A|{p}/i.png|5", f"{p}/e|||||0"]),
                ("deep.xspf", [f"{p}/file|||||0"]), ("wide", []),
                ("d", [f"{p}/x|J|C|A|{p}/i|7", f"{p}/y|||||0"]), ("bomb.xspf", []), ("self.m3u", []),
                ("inside.flac", [f"{p}/inside.flac#t=0.000000,1.000000|Track 1||||1000",
                                 f"{p}/inside.flac#t=1.000000|Track 2||||0"]),
                ("beyond.flac", [f"{p}/beyond.flac|||||0"]),
                ("hls.m3u", [f"{p}/hls.m3u|||||0"]), ("faulty.cue", []),
                ("sheet", [f"{p}/CD%201/a%20%231.flac#t=0.000000,1.400000|One|Band|||1400",
                           f"{p}/CD%201/a%20%231.flac#t=1.400000|Track 2|Band|||0",
                           f"{other}/echo|Track 3|Band|||0"]),
                ("nested.m3u", [*a, f"{p}/d|||||0"])]:
            with self.subTest(name=name):
                result = Result(start("tracks", f"{p}/{name}"))
                self.assertEqual(result.body.decode().splitlines(), tracks, result.log)
                self.assertEqual(result.failure == "none", bool(tracks), result.log)
                self.assertEqual("line 8: no time" in result.error, name == "faulty.cue", result.log)
                self.assertEqual("last track begins" in result.error, name == "beyond.flac", result.log)
