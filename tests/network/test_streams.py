"""Streams in segments (HLS): what is heard of them is compared with what ffmpeg decodes."""
import array
import os
import pathlib
import re
import struct
import subprocess
import tempfile
import time
import unittest

from test_network import HAS_MODULE, Result, error_of, start

from device import CD, WebServer, signal_samples, write_wav
from scripted_server import ScriptedServer

SEGMENTS = 8  # of about a second
KINDS = {"adts": ["-f", "segment", "-segment_time", "1", "-segment_format", "adts", "-segment_list",
                  "list.m3u8", "-segment_list_type", "m3u8", "%d.aac"],
         **{kind: ["-f", "hls", "-hls_time", "1", "-hls_list_size", "0", "-hls_segment_type", container,
                   "-hls_flags", flags, "list.m3u8"]
            for kind, container, flags in [("mpegts", "mpegts", "+program_date_time"),
                                           ("fmp4", "fmp4", "+program_date_time"),
                                           ("ranges", "mpegts", "single_file"),
                                           ("fmp4ranges", "fmp4", "single_file")]}}
VERSIONS = """#EXTM3U
#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID="far",NAME="a, b",DEFAULT=YES,URI="/nowhere/1"
#EXT-X-STREAM-INF:BANDWIDTH=900000,CODECS="avc1.4d401f,mp4a.40.2",RESOLUTION=640x360
/nowhere/2
#EXT-X-STREAM-INF:BANDWIDTH=64000,CODECS="mp4a.40.5"
/nowhere/3
#EXT-X-STREAM-INF:CODECS="mp4a.40.2",BANDWIDTH=128000
adts/list.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=640000,CODECS="ec-3"
/nowhere/4
"""


def id3(title, artist):
    frames = b"".join(name + struct.pack(">I2x", len(text) + 1) + b"\0" + text
                      for name, text in [(b"TIT2", title), (b"TPE1", artist)])
    return b"ID3\3\0\0\0\0" + bytes([len(frames) >> 7, len(frames) & 127]) + frames


def section_packet(pid, table):
    """A packet of MPEG-TS with a table, which gets its sum."""
    crc = 0xffffffff
    for byte in table:
        crc ^= byte << 24
        for _ in range(8):
            crc = (crc << 1 ^ (0x04c11db7 if crc >> 31 else 0)) & 0xffffffff
    body = struct.pack(">BHBB", 0x47, 0x4000 | pid, 0x10, 0) + table + struct.pack(">I", crc)
    return body.ljust(188, b"\xff")


def with_timed_id3(segment, tag):
    """Of a segment that ffmpeg made, with one more kind of packets in it, one of which is the tag."""
    streams = b"\x0f\xe1\x00\xf0\x00" + b"\x15\xe1\x01\xf0\x0f" + \
        b"\x26\x0d\xff\xffID3 \xffID3 \0\x0f"
    table = b"\x00\x01\xc1\x00\x00\xe1\x00\xf0\x00" + streams
    table = b"\x02" + struct.pack(">H", 0xb000 | len(table) + 4) + table
    pes = b"\0\0\1\xbd" + struct.pack(">H", 8 + len(tag)) + b"\x84\x80\5" + segment_time(segment) + tag
    stuffing = 184 - len(pes)
    packet = b"\x47\x41\x01\x30" + bytes([stuffing - 1, 0]) + b"\xff" * (stuffing - 2) + pes
    packets = [segment[at:at + 188] for at in range(0, len(segment), 188)]
    is_table = [struct.unpack(">H", each[1:3])[0] & 0x1fff == 0x1000 for each in packets]
    return b"".join(section_packet(0x1000, table) + packet if changes else each
                    for each, changes in zip(packets, is_table, strict=True))


def segment_time(segment):
    """The first of sound that is told, as it is coded."""
    at = segment.index(b"\0\0\1\xc0")
    return segment[at + 9:at + 14]


def playlist(first, segments, more=""):
    """Of segments, each with its title, from a number on."""
    return (f"#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:{first}\n{more}" + "".join(
        f"#EXTINF:1,{title}\n{name}\n" for name, title in segments)).encode()


@unittest.skipUnless(HAS_MODULE, "no libavformat for this machine")
class Streams(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.directory.cleanup)
        cls.d = pathlib.Path(cls.directory.name)
        write_wav(cls.d / "signal.wav", signal_samples(SEGMENTS * CD), CD)
        for kind, options in KINDS.items():
            (cls.d / kind).mkdir()
            subprocess.run(["ffmpeg", "-v", "error", "-i", "../signal.wav", "-c:a", "aac", "-aac_pns", "0",
                            "-b:a", "128k", *options], cwd=cls.d / kind, check=True)
        (cls.d / "versions.m3u8").write_text(VERSIONS)
        cls.server = WebServer(cls.d)
        cls.addClassCleanup(cls.server.kill)

    def setUp(self):
        self.answers = {}  # by path: bytes, a status, where to, or a list of them for one request each
        self.scripted = server = ScriptedServer(self.answer, keeps=True)
        self.addCleanup(server.__exit__, None, None, None)
        self.url = server.url
        self.asked = []

    def answer(self, handler, _):
        path = handler.path[1:]
        self.asked.append((path, handler.headers["Authorization"]))
        content = self.answers.get(path, 404)
        if content is None:
            time.sleep(12)
        if isinstance(content, list):
            content = content.pop(0) if len(content) > 1 else content[0]
        if isinstance(content, int):
            return handler.head(content, Content_Length=0)
        if isinstance(content, str):
            return handler.head(302, Location=content, Content_Length=0)
        handler.head(200, Content_Length=len(content), Content_Type="application/vnd.apple.mpegurl")
        handler.wfile.write(content)

    def decode(self, url, *arguments):
        result = Result(start("decode", url, *arguments))
        about, *self.news = [line for line in result.log.splitlines() if "=" in line]
        self.about = about if self.news else ""
        return result

    def segments(self, kind="adts", ending="{}.aac"):
        return [(self.d / kind / ending.format(n)).read_bytes() for n in range(SEGMENTS)]

    def assert_heard(self, heard, source):
        """The samples are those that ffmpeg decodes; it leaves out what it knows an encoder put before."""
        wanted = array.array("h", subprocess.run(
            ["ffmpeg", "-v", "error", "-i", source, "-f", "s16le", "-"], cwd=self.d,
            stdout=subprocess.PIPE, check=True).stdout)
        heard = array.array("h", heard)
        extra = len(heard) - len(wanted)
        self.assertIn(extra, (0, 2 * 1024))
        self.assertGreater(len(wanted), 2 * CD)
        self.assertLessEqual(max(abs(h - w) for h, w in zip(heard[extra:], wanted, strict=True)), 1)

    def test_one_that_is_whole_is_heard_whole_whatever_its_segments(self):
        for name, source in [*((f"{kind}/list.m3u8", f"{kind}/list.m3u8") for kind in KINDS),
                             ("versions.m3u8", "adts/list.m3u8")]:
            with self.subTest(name):
                result = self.decode(f"{self.server.url}/{name}")
                self.assertEqual(result.failure, "none", result.log)
                frames = int(re.search("44100 Hz ([0-9]*) frames 01", result.log)[1])
                self.assertLess(abs(frames - len(result.body) // 4), CD // 20)
                self.assert_heard(result.body, source)
                self.assert_sought(name, result.body)

    def assert_sought(self, name, whole, at_the_end=True):
        """From there on is heard what is there in the whole."""
        last = len(whole) // 4
        places = [100, 5 * CD + 777, 3 * CD, 0, last - 1500, last - 3][:6 if at_the_end else 4]
        heard = self.decode(f"{self.server.url}/{name}", *(f"{place}:1500" for place in places)).body
        self.assertTrue(heard == b"".join(whole[4 * place:4 * (place + 1500)] for place in places), name)

    def test_rounded_lengths_are_none_where_the_container_tells_times(self):
        for kind in "mpegts", "fmp4":
            whole = self.decode(f"{self.server.url}/{kind}/list.m3u8").body
            exact = (self.d / kind / "list.m3u8").read_text()
            for rounded in "1.1", "0.9":
                (self.d / kind / "rounded.m3u8").write_text(re.sub("EXTINF:[0-9.]*", f"EXTINF:{rounded}", exact))
                self.assert_sought(f"{kind}/rounded.m3u8", whole, at_the_end=False)

    def test_one_connection_serves_the_segments_and_a_server_that_hangs_holds_no_seek(self):
        self.answers = {f"{n}": segment for n, segment in enumerate(self.segments())}
        self.answers["list"] = playlist(0, [(f"{n}", "") for n in range(SEGMENTS)], "#EXT-X-ENDLIST\n")
        whole = self.decode(self.url + "list")
        self.assertGreater(len(self.asked), SEGMENTS)
        self.assertLessEqual(self.scripted.connections, 3)  # of the playlist, before and after a seek
        self.answers["2"] = None
        begun = time.monotonic()
        heard = self.decode(self.url + "list", "0:9000", f"{5 * CD}:9000")
        at = whole.body.find(heard.body[-4 * 9000:]) // 4
        self.assertLess(abs(at - 5 * CD), CD // 20)
        self.assertLess(time.monotonic() - begun, 8)  # a stall lasts 10 s

    def play_live(self, segments):
        """Of all segments the fifth is not to be had, and for a while the playlist is not."""
        elsewhere = self.url.replace("127.0.0.1", "localhost")
        names = [(f"{elsewhere}{n}", f"Song {n // 5}") for n in range(SEGMENTS)]
        self.answers = {f"{n}": segments[n] for n in range(SEGMENTS) if n != 4}
        lists = [playlist(max(0, end - 4), names[:end][-4:]) for end in range(4, SEGMENTS + 1)]
        self.answers["list"] = [*lists[:2], 404, *lists[2:], lists[-1] + b"#EXT-X-ENDLIST"]
        result = self.decode(self.url + "list", "token=good")
        self.assertEqual(sorted(self.news), [
            "error=", "failure=none", "live_title=Song 1",
            "note=a segment is left out: the server answers 404", "own_title=Tag|Band"])
        self.assertTrue(self.about.endswith(" 10 Song 0"), self.about)
        (self.d / "heard").write_bytes(b"".join(segments[n] for n in (1, 2, 3, 5, 6, 7)))
        self.assert_heard(result.body, "heard")
        self.assertEqual([path for path, _ in self.asked].count("4"), 2)
        self.assertEqual({auth for path, auth in self.asked if path == "list"}, {"Bearer good"})
        self.assertEqual({auth for path, auth in self.asked if path != "list"}, {None})

    def test_a_live_one_goes_on_over_reloads_and_what_is_missing(self):
        segments = self.segments()
        segments[7] = id3(b"Tag", b"Band") + segments[7]
        self.play_live(segments)
        segments = self.segments("mpegts", "list{}.ts")
        segments[7] = with_timed_id3(segments[7], id3(b"Tag", b"Band"))
        self.asked.clear()
        self.play_live(segments)

    def test_a_live_one_whose_segments_went_by_or_have_other_numbers(self):
        segments = self.segments()
        self.answers = {f"there/{n}": content for n, content in enumerate(segments)}
        names = [(f"{n}", "") for n in range(SEGMENTS)]
        self.answers["there/list"] = [playlist(0, names[:4]), 404, playlist(5, names[5:]),
                                      playlist(0, names[:2], "#EXT-X-ENDLIST\n")]
        self.answers["list"] = "there/list"
        result = self.decode(self.url + "list")
        self.assertEqual(self.news, ["note=segments went by unheard: 1", "note=its segments are numbered anew",
                                     "failure=none", "error="])
        (self.d / "heard").write_bytes(b"".join(segments[n] for n in (1, 2, 3, 5, 6, 7, 0, 1)))
        self.assert_heard(result.body, "heard")

    def test_where_it_is_cut_it_is_opened_anew(self):
        def encode(kind, name, *more):
            (self.d / name).mkdir()
            subprocess.run(["ffmpeg", "-v", "error", "-i", "../signal.wav", "-c:a", "aac", *more,
                            *KINDS[kind]], cwd=self.d / name, check=True)

        def parts(ending, *names):
            """What is heard of the first segments of each, one after the other."""
            lines = ["#EXTM3U\n#EXT-X-TARGETDURATION:1\n"]
            for name in names:
                init = f"#EXT-X-MAP:URI=\"{name}/init.mp4\"\n" * (self.d / name / "init.mp4").exists()
                lines += ["#EXT-X-DISCONTINUITY\n", init, *(
                    f"#EXTINF:1,\n{name}/{ending.format(n)}\n" for n in range(3))]
            (self.d / "cut.m3u8").write_text("".join(lines) + "#EXT-X-ENDLIST\n")
            return self.decode(f"{self.server.url}/cut.m3u8").body

        encode("fmp4", "other4", "-b:a", "96k")
        encode("mpegts", "others", "-b:a", "96k", "-mpegts_start_pid", "0x300")
        encode("adts", "deep", "-ar", "48000")
        for kind, other, ending in [("fmp4", "other4", "list{}.m4s"), ("mpegts", "others", "list{}.ts")]:
            first, second, heard = parts(ending, kind), parts(ending, other), parts(ending, kind, other)
            self.assertEqual(self.news, ["failure=none", "error="])
            self.assertEqual(len(heard), len(first) + len(second), kind)
            self.assertTrue(heard.startswith(first), kind)
            heard, second = (array.array("h", part) for part in (heard[len(first):], second))
            self.assertLess(error_of(heard[4096:], second[4096:]), 0.001, kind)
        self.assertTrue(parts("{}.aac", "adts", "deep") == parts("{}.aac", "adts"))
        parts("{}.aac", "adts", "deep")
        self.assertEqual(self.news, ["failure=none", "error=it goes on in another format"])

    def test_what_ends_one(self):
        self.answers["0"] = self.segments()[0]
        there, nowhere = [("0", "")], [("nowhere", "")]
        key = "#EXT-X-KEY:METHOD=AES-128,URI=\"key\"\n"
        versions = b"#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=1\nlist\n"
        for content, failure, error, frames in [
                (playlist(0, there, key), "unusable", "the stream is encrypted", 0),
                (playlist(0, there, key + "#EXT-X-KEY:METHOD=NONE\n#EXT-X-ENDLIST\n"), "none", "", 44),
                (versions, "unusable", "its playlist leads to no segments", 0),
                (versions.replace(b"list", b"file:///x"), "unusable", "its playlist names no web address", 0),
                (versions[:8] + b"#EXT-X-VERSION:3\n", "unusable", "names nothing that can be played", 0),
                (playlist(0, there, "#\n" * 2_200_000), "unusable", "the playlist is too large", 0),
                (playlist(0, 9 * nowhere, "#EXT-X-ENDLIST\n"), "missing", "the server answers 404", 0),
                ([playlist(n, 3 * there) for n in range(2)] + [401], "refused", "the server answers 401", 176),
                (playlist(0, 3 * there), "unreachable", "nothing new in its playlist", 132)]:
            with self.subTest(error):
                self.asked.clear()
                self.answers["list"] = content
                result = self.decode(self.url + "list", "give_up_ms=2500")
                self.assertEqual((result.failure, len(result.body)), (failure, 4096 * frames), result.log)
                self.assertIn(error, result.error)
                self.assertLess(len(self.asked), 20)
        begun = time.monotonic()
        self.answers["list"] = playlist(0, 3 * there).replace(b":1", b":60")
        self.assertEqual(len(self.decode(self.url + "list", "0:2000").body), 8000)
        self.assertLess(time.monotonic() - begun, 30, "it waited for the next segments")


if __name__ == "__main__":
    unittest.main()
