"""From a controller's POST to sound, and the controls on the way."""
import array
import os
import subprocess

from device import CD, DeviceTest, WebServer, signal_samples, wait_for, write_wav

FRAME = 4  # bytes of a 16-bit stereo frame


class Player(DeviceTest):
    def content(self):
        """What the session names: the folder of the tracks."""
        return self.music

    def assert_nothing_lost(self, played, source):
        """The source from start to end, at most 100 ms of it twice wherever it was cut: so long a busy
        machine may take from the look at the queue to its drop."""
        at = place = 0
        while True:
            same = len(os.path.commonprefix([played[at:], source[place:]]))
            at, place = at + same, place + same
            if at == len(played):
                break
            again = source.find(played[at:at + 256])
            self.assertIn(place - again, range(CD * FRAME // 10), f"bytes, after byte {at}")
            place = again
        self.assertEqual(place, len(source))


class Files:
    """What has to sound the same wherever it comes from."""

    def test_tracks_of_one_format_join_bit_exactly_and_another_format_reopens_the_card(self):
        seam = int(2.5 * CD) + 77
        first = write_wav(self.music / "1.wav", signal_samples(seam), CD)
        second = write_wav(self.music / "2.wav", signal_samples(3 * CD, seam), CD)
        third = write_wav(self.music / "3.wav",
                          signal_samples(2 * 96000, 0, 96000, 3_000_000), 96000, sample_bytes=3)
        self.start(player=False)
        self.assertEqual(self.connect(self.content()), 200)
        self.wait_for_end()

        recordings = wait_for("both recordings", lambda: self.recordings()[1:] and self.recordings())
        self.assertEqual([(r.format, r.rate, r.underruns) for r in recordings],
                         [("S16_LE", CD, 0), ("S24_LE", 96000, 0)])
        self.assertTrue(recordings[0].data == first + second, "not the two tracks end to end")
        self.assertTrue(recordings[1].data == third, "not the high-resolution track")

    def test_tracks_shorter_than_the_cards_buffer_all_come_out(self):
        expected = b"".join(self.track(f"{n:02}.wav", 0.1 + 0.03 * n, n * CD) for n in range(8))
        self.start()
        self.connect(self.content())
        # Where the next reader starts more slowly than a track plays the music ends now and then.
        self.wait_for_log("nothing is left to play")
        wait_for("end of the recordings", lambda: not self.open_recordings())
        self.assertTrue(self.played() == expected)

    def test_pauses_lose_nothing(self):
        source = self.track("1.wav", 4) + self.track("2.wav", 3, 4 * CD)
        self.start()
        self.play(self.content())
        for _ in range(2):
            self.pause()
            self.resume()
        # All that is left of a track lies in the card's buffer, then some of the next one as well.
        self.wait_for_log("Audio stream finished")
        self.pause()
        self.resume()
        self.wait_for_end()
        self.assert_nothing_lost(self.played(), source)

    def test_seek_goes_on_at_the_frame_asked_for(self):
        track = self.track("long.wav", 30)
        self.start()
        self.play(self.content())
        self.player("position", "27.5")
        wait_for("seeked", lambda: self.position() >= 27.5)
        self.wait_for_end()
        self.assertTrue(self.recordings()[0].data.endswith(track[int(27.5 * CD) * FRAME:]))


class FromDisk(Files, Player):
    pass


class OverHttp(Files, Player):
    """The same from a web server, as a playlist."""

    def content(self):
        names = sorted(path.name for path in self.music.glob("*.wav"))
        (self.music / "list.m3u").write_text("".join(f"{name}\n" for name in names))
        server = WebServer(str(self.folder))
        self.addCleanup(server.kill)
        return f"{server.url}/music/list.m3u"


class Sheets(Player):
    """One file that is four tracks."""
    BEGINS = [0, 112, 224, 323]  # in 75ths of a second
    SECONDS = 6

    def make(self, name, *how):
        """An album in FLAC; what the card plays for all of it."""
        source = write_wav(self.folder / "album.wav", signal_samples(self.SECONDS * CD), CD)
        self.sheet = "".join(
            f"  TRACK {n + 1:02} AUDIO\r\n    TITLE \"Tr\xe4ck {n + 1}\"\r\n"
            f"    INDEX 01 00:{begin // 75:02}:{begin % 75:02}\r\n"
            for n, begin in enumerate(self.BEGINS))
        self.sheet = (f'REM DATE 1999\r\nPERFORMER "Band"\r\nTITLE "Album"\r\n'
                      f'FILE "C:\\Rips\\{name.upper()}.WAV" WAVE\r\n{self.sheet}')
        (self.folder / "album.cue").write_text(self.sheet, "latin-1")
        self.run_tool("flac", "-s", "-f", *how, "-o", self.music / f"{name}.flac",
                      self.folder / "album.wav")
        return source

    def heard(self, content):
        """All of it, in one recording."""
        ends = self.log_count("Nothing else to play")
        before = len(self.recordings())
        self.assertEqual(self.connect(content), 200)
        self.wait_for_log("Nothing else to play", ends + 1)
        wait_for("end of the recordings", lambda: not self.open_recordings())
        self.assertEqual(len(self.recordings()), before + 1)
        return self.recordings()[-1].data

    def test_the_tracks_of_a_sheet_are_the_file_to_the_sample(self):
        source = self.make("album")
        (self.music / "album.cue").write_text(self.sheet, "latin-1")
        inside = self.make("inside", f"--cuesheet={self.folder}/album.cue")
        (self.music / "remote.cue").write_text(self.sheet.replace("INSIDE.WAV", "album.flac"), "latin-1")
        server = WebServer(str(self.folder))
        self.addCleanup(server.kill)
        self.start()
        for content in [self.music / "album.flac", self.music / "inside.flac", *(
                f"{server.url}/music/{name}" for name in ("remote.cue", "inside.flac"))]:
            self.assertTrue(self.heard(content) == (inside if "inside" in str(content) else source),
                            content)
        # The third one, by the sheet's own name, from its middle on; each plays until the next is asked for.
        self.player("loop", "Track")
        self.play(self.music / "album.cue")
        for title in "Träck 2", "Träck 3":
            self.player("next")
            wait_for(title, lambda title=title: self.player("metadata", "title") == title)
        self.assertEqual(self.player("metadata", "artist"), "Band")
        self.assertEqual(self.player("metadata", "mpris:length"), "1320000")
        self.pause()
        self.player("loop", "None")
        ends = self.log_count("Nothing else to play")
        self.player("position", "0.75")
        self.resume()
        self.wait_for_log("Nothing else to play", ends + 1)
        wait_for("end of the recordings", lambda: not self.open_recordings())
        place = self.BEGINS[2] * 588 + CD * 3 // 4
        self.assertTrue(self.recordings()[-1].data.endswith(source[place * FRAME:]))
        self.assertNotIn("not taken apart", self.log())

    def test_a_broken_sheet_leaves_the_file_whole_and_says_so(self):
        source = self.make("album")
        sheets = {
            "beyond": self.sheet.replace("00:04:23", "00:06:00"),
            "descending": self.sheet.replace("00:04:23", "00:02:73"),
            "many": self.sheet + "TRACK 05 AUDIO\nINDEX 01 00:05:00\n" * 200,
            "rubbish": "\0\xff\x1b" * 4000,
            "elsewhere": self.sheet.replace("ALBUM.WAV", "other.wav"),
        }
        for name, text in sheets.items():
            (self.music / f"{name}.cue").write_text(text, "latin-1")
        self.start()
        self.assertTrue(self.heard(self.music) == source)
        self.assertEqual([self.log_count(f"{name}.cue: not taken apart") for name in sheets],
                         [1] * len(sheets))
        # Among them a good one counts, and what it names is no longer one track.
        (self.music / "good.cue").write_text(self.sheet, "latin-1")
        self.play(self.music)
        wait_for("the first of its tracks", lambda: self.player("metadata", "title") == "Träck 1")


class Sessions(Player):
    def test_what_the_output_lacks_is_converted_or_passed_over_where_that_is_set(self):
        write_wav(self.music / "1.wav", signal_samples(2 * 96000 + 1, 0, 96000, 3_000_000), 96000,
                  sample_bytes=3)
        second = write_wav(self.music / "2.wav", signal_samples(48000, 0, 48000), 48000)
        self.write_settings(alsa__output_rates="48000")
        self.start(player=False)
        self.connect(self.music)
        self.wait_for_end()
        recording, = wait_for("the recording", self.recordings)
        self.assertEqual((recording.format, recording.rate, recording.underruns),
                         ("S16_LE", 48000, 0))
        self.assertEqual(len(recording.data), FRAME * 96001 + len(second))
        self.assertTrue(recording.data.endswith(second), "not joined, or changed too")
        heard = array.array("h", recording.data)
        for was, wanted in zip(heard[960:-960], signal_samples(95000, 480, 48000, 3_000_000 / 256)):
            self.assertLess(abs(was - wanted), 4)
        self.assertIn("96 kHz/24 bit, converted to 48 kHz/16 bit", self.log())
        self.assertEqual(self.stop()[0], 0)

        self.write_settings(alsa__output_rates="48000", local__convert=0)
        self.start(player=False)
        self.connect(self.music)
        self.wait_for_log("above the quality that the output takes")
        # The first device's log has the end in it already.
        wait_for("the second track alone", lambda: self.recordings()[-1].data == second)

    def test_a_track_is_as_loud_as_its_tag_says_and_one_without_is_the_file_s(self):
        wavs = [write_wav(self.music / f"{n}.wav", signal_samples(2 * CD, n * CD), CD) for n in range(2)]
        write_wav(self.music / "2.wav", signal_samples(CD, 0, 96000, 3_000_000), 96000, sample_bytes=3)
        for n, tag in enumerate(["-TREPLAYGAIN_ALBUM_GAIN=-6.0206 dB", "-TTITLE=untouched", "-TTITLE=deep"]):
            subprocess.run(["flac", "-s", "--delete-input-file", tag, self.music / f"{n}.wav"], check=True)
        self.write_settings(local__loudness="album", local__verify="all")
        self.start(player=False)
        self.connect(self.music)
        self.wait_for_end()
        softer, same, _ = wait_for("the recordings", lambda: self.recordings()[2:] and self.recordings())
        self.assertEqual((softer.format, same.format), ("S24_LE", "S16_LE"))
        heard = array.array("i", softer.data)
        self.assertEqual(len(heard), 4 * CD)
        for was, wanted in zip(heard, array.array("h", wavs[0])):
            self.assertLess(abs(was - wanted * 128), 3)
        self.assertTrue(same.data == wavs[1])
        self.assertIn("44.1 kHz/16 bit, 6.0 dB quieter, converted to 44.1 kHz/24 bit", self.log())
        for name in "1.flac: verified", "2.flac: verified":
            self.assertIn(name, self.log())

    def test_a_session_that_cannot_play_is_refused_and_the_music_goes_on(self):
        self.track("long.wav", 60)
        (self.folder / "empty").mkdir()
        (self.folder / "noise.wav").write_bytes(b"RIFF but not really")
        self.start()
        self.play(self.music)
        fifo = self.folder / "fifo.wav"
        os.mkfifo(fifo)
        for name in ["empty", "noise.wav", "fifo.wav"]:
            refused = self.log_count("Not joining session")
            self.assertEqual(self.connect(self.folder / name), 200)  # its disk may be slow
            self.wait_for_log("Not joining session", refused + 1)
        with self.assertRaises(OSError, msg="something reads the FIFO"):
            os.open(fifo, os.O_WRONLY | os.O_NONBLOCK)
        self.assertEqual(self.connect(self.music, session="x" * 257), 500)
        self.assertEqual(self.connect(self.music, expiry=1000), 500)
        before = self.position()
        wait_for("the music goes on", lambda: self.position() > before + 0.5)
        self.assertEqual(self.recordings()[0].underruns, 0)
