"""Content over the network: every case compares what arrives with what the server has."""
import os
import random
import shlex
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import wave

sys.path[:0] = [os.path.join(os.path.dirname(__file__), place) for place in ("..", "../../tools/run")]
from bad_line import BadLine  # noqa: E402
from scripted_server import ScriptedServer  # noqa: E402
from web_server import WebServer, free_ports  # noqa: E402

PROBE = [*shlex.split(os.environ.get("NUVIO_EMULATOR", "")),
         os.path.join(os.environ["NUVIO_BUILD"], "bin", "network_probe")]
SERVERS = """
    server {{
        listen 127.0.0.1:{port}; listen 127.0.0.1:{tls} ssl http2;
        ssl_certificate {d}/cert.pem; ssl_certificate_key {d}/key.pem;
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


def openssl(directory):
    def run(*arguments):
        subprocess.run(["openssl", *arguments], cwd=directory, check=True, capture_output=True)
    run("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
        "-keyout", "ca.key", "-out", "ca.pem", "-subj", "/CN=authority", "-days", "9")
    run("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
        "-keyout", "key.pem", "-out", "request.pem", "-subj", "/CN=server")
    with open(f"{directory}/names", "w") as names:
        names.write("subjectAltName=IP:127.0.0.1\n")
    run("x509", "-req", "-in", "request.pem", "-CA", "ca.pem", "-CAkey", "ca.key",
        "-CAcreateserial", "-extfile", "names", "-out", "cert.pem", "-days", "9")


class Result:
    def __init__(self, process):
        self.body, log = process.communicate(timeout=60)
        self.log = log.decode()
        if process.returncode != 0:  # also what a sanitizer found
            raise AssertionError(self.log)
        fields = dict(line.split("=", 1) for line in self.log.splitlines() if "=" in line)
        self.failure, self.error = fields.get("failure"), fields.get("error")
        self.titles = [line[6:] for line in self.log.splitlines() if line.startswith("title=")]


def start(command, url, *arguments, wrapper=()):
    return subprocess.Popen([*wrapper, *PROBE, command, url, *arguments], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)


class Network(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.directory.cleanup)
        cls.d = cls.directory.name
        openssl(cls.d)
        cls.tls, cls.other = free_ports(2)
        cls.file = random.Random(1).randbytes(1_500_000)
        cls.write("file", cls.file)
        cls.server = WebServer(cls.d, SERVERS, tls=cls.tls, other=cls.other)
        cls.addClassCleanup(cls.server.kill)
        cls.base = cls.server.url
        cls.secure = f"https://127.0.0.1:{cls.tls}"
        cls.authority = f"authorities={cls.d}/ca.pem"

    @classmethod
    def write(cls, name, content):
        with open(f"{cls.d}/{name}", "wb") as out:
            out.write(content if isinstance(content, bytes) else content.encode())

    def read(self, url, *arguments):
        return Result(start("read", url if "//" in url else self.base + url, *arguments))

    def test_bytes_are_the_files(self):
        parts = ["0:5000", "1400000:20000", "1499990:100", "100:4000", "700000:300000", "0:1000"]
        wanted = b"".join(self.file[int(p):int(p) + int(n)]
                          for p, n in (part.split(":") for part in parts))
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

    def test_decoded_bit_for_bit(self):
        samples = self.file[:1_200_000]
        with wave.open(f"{self.d}/sound.wav", "wb") as sound:
            sound.setparams((2, 2, 44100, 0, "NONE", ""))
            sound.writeframes(samples)
        subprocess.run(["flac", "--silent", f"{self.d}/sound.wav"], check=True)
        parts = ["200000:5000", "10:2000", "299000:1000"]
        wanted = b"".join(samples[4 * int(p):4 * (int(p) + int(n))]
                          for p, n in (part.split(":") for part in parts))
        for place in ["plain", "noranges"]:
            for name in ["sound.wav", "sound.flac"]:
                for arguments, body in [([], samples), (["read_ahead=1", *parts], wanted)]:
                    with self.subTest(place=place, name=name, arguments=arguments):
                        result = Result(start("decode", f"{self.base}/{place}/{name}", *arguments))
                        self.assertEqual((result.failure, result.body == body), ("none", True),
                                         result.log)
        self.assertEqual(Result(start("decode", f"{self.base}/plain/nginx.conf")).body, b"")

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

    def test_wrong_lengths(self):
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

        for answer in [too_long, in_pieces, without]:
            with self.subTest(answer=answer.__name__), ScriptedServer(answer) as server:
                result = self.read(server.url)
                self.assertEqual((result.failure, result.body == content), ("none", True),
                                 result.log)

    def test_a_stalled_connection_is_made_anew(self):
        content, requests = self.file[:50000], []

        def answer(handler, first):
            requests.append(first)
            handler.head_from(first, len(content))
            handler.wfile.write(content[first:first + 20000] if len(requests) == 1
                                else content[first:])
            if len(requests) == 1:
                time.sleep(30)

        with ScriptedServer(answer) as server:
            result = self.read(server.url, "stalled_s=1", "give_up_ms=9000")
            self.assertEqual((result.failure, result.body == content), ("none", True), result.log)
            self.assertEqual(requests, [0, 20000])

    def test_cancel_ends_every_wait(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            urls = [f"http://127.0.0.1:{silent.getsockname()[1]}/", "/busy", "/slow/file",
                    "http://127.0.0.1:1/"]
            for url in urls:
                with self.subTest(url=url):
                    begun = time.monotonic()
                    self.assertEqual(self.read(url, "cancel_after_ms=300").failure, "cancelled")
                    self.assertLess(time.monotonic() - begun, 5)  # others wait for 10 and 60

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
        self.write("self.m3u", "self.m3u\n")
        self.write("nested.m3u", "a.m3u\nd\n")
        self.write("hls.m3u", "#EXTM3U\n#EXT-X-TARGETDURATION:5\npiece\n")
        p = f"{self.base}/plain"
        a = [f"{p}/file%20one|Ä title||||0", f"{self.base}/etc/x|||||0"]
        for name, tracks in [
                ("file", [f"{p}/file|||||0"]), ("a.m3u", a),
                ("b", [f"{other}/echo|||||0", f"{p}/two|Two||||4000"]),
                ("c.xspf", [f"{self.base}/c?a=1&b=2|T|C|A|{p}/i.png|5", f"{p}/e|||||0"]),
                ("d", [f"{p}/x|J|C|A|{p}/i|7", f"{p}/y|||||0"]), ("bomb.xspf", []), ("self.m3u", []), ("hls.m3u", []),
                ("nested.m3u", [*a, f"{p}/d|||||0"])]:
            with self.subTest(name=name):
                result = Result(start("tracks", f"{p}/{name}"))
                self.assertEqual(result.body.decode().splitlines(), tracks, result.log)
                self.assertEqual(result.failure == "none", bool(tracks), result.log)
