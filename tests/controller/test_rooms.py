"""What concerns several rooms: the music goes from one to another."""
import json
import signal
import time

from house import SECONDS, HouseTest, WebServer, e2e, wait_for


class Moves(HouseTest):
    rooms = ["Kitchen", "Bath"]

    def queue(self, name):
        return [item["title"] for item in json.loads(self.ask(f"/api/devices/{name}/queue")[2])["items"]]

    def last_sound(self, device):
        """What the card played last, when by the machine's clock, and from where to where in the track."""
        recording = device.recordings()[-1]
        end = max((device.folder / "card/recordings").glob("*.raw")).stat().st_mtime
        seconds, track = len(recording.data) / 4 / e2e.CD, self.played[0, 0]
        places = [track.find(recording.data[at:][:400]) / 4 / e2e.CD for at in (0, -400)]
        self.assertGreaterEqual(min(places), 0, (places, seconds))
        return end - seconds, end, *places

    def test_the_music_goes_on_in_another_room_and_stays_where_that_fails(self):
        kitchen, bath = self.devices
        self.start_all()
        radio = WebServer(str(kitchen.folder), root=str(self.music))
        self.addCleanup(radio.kill)
        self.command("play", "Bath", "köln")
        self.command("play", "Kitchen", f"{radio.url}/2/0.flac", self.music / "0")
        self.command("queue", "Kitchen", "jump", 2)
        self.command("loop", "Kitchen", "all")
        queue = self.queue("Kitchen")
        wait_for("its beginning", lambda: self.shown("Kitchen").get("item") == 1 and kitchen.position() > 2)
        bath.card("fault", "open", "EIO")
        result = self.run_command("move", "Kitchen", "Bath")
        self.assertEqual((result.returncode, "sound card" in result.stderr), (1, True), result)
        bath.card("clear")
        before = kitchen.position()
        wait_for("music", lambda: kitchen.position() > before + 0.5)

        self.command("move", "Kitchen", "Bath")
        self.assertEqual(self.shown("Kitchen")["state"], "free")
        self.assertEqual([self.shown("Bath")[key] for key in ("state", "loop", "shuffle")], ["playing", "all", False])
        self.assertEqual(self.queue("Bath"), queue)
        wait_for("a while", lambda: bath.position() > before + 2)
        bath.pause()
        _, ended, _, left_at = self.last_sound(kitchen)
        began, _, went_on_at, _ = self.last_sound(bath)
        self.assertLess(began - ended, 1, "silence")
        self.assertLess(abs(went_on_at - left_at), 1)

        # Paused it stays, and at a track's end it is the next one that goes on.
        self.command("shuffle", "Bath", "on")
        wait_for("the mode", lambda: self.shown("Bath")["shuffle"])
        at = self.shown("Bath")["position_ms"]
        self.command("move", "Bath", "Kitchen")
        self.assertEqual([self.shown("Kitchen")[key] for key in ("state", "item", "shuffle")], ["paused", 0, True])
        wait_for("the place", lambda: abs(self.shown("Kitchen")["position_ms"] - at) < 50)
        status, _, said = self.ask("/api/devices/Kitchen/command", {"command": "shuffle", "shuffle": False})
        self.assertEqual((status, json.loads(said)), (200, {}))
        wait_for("the mode", lambda: not self.shown("Kitchen")["shuffle"])
        for words in f"seek Kitchen {SECONDS - 1}", "resume Kitchen":
            self.command(*words.split())
        wait_for("its end", lambda: self.shown("Kitchen")["state"] == "playing")
        self.command("move", "Kitchen", "Bath")
        self.assertEqual(self.shown("Bath")["track"]["title"], "Night Boats 2")
        self.assertEqual(self.queue("Bath"), queue)

        # Asleep at the track's end, and after minutes, here brought forward; in both the controller goes meanwhile.
        for words in "sleep Bath end", f"seek Bath {SECONDS - 6}":
            self.command(*words.split())
        self.assertIn("sleeps after this track", self.command("status", "Bath"))
        self.stop_controller()
        self.start_controller()
        wait_for("the end", lambda: self.shown("Bath").get("state") == "paused")
        self.assertEqual([self.shown("Bath")["track"]["title"], self.shown("Bath").get("sleep")], ["Night Boats 2", None])
        self.assertGreater(self.shown("Bath")["position_ms"], (SECONDS - 1) * 1000)
        for words in "sleep Bath 1", "seek Bath 1", "resume Bath":
            self.command(*words.split())
        self.assertIn("sleeps in ", self.command("status", "Bath"))
        self.stop_controller()
        kept = self.folder / "state-of-controller/sessions.json"
        entries = json.loads(kept.read_text())
        kept.write_text(json.dumps([{**each, "sleep_at": time.time() // 1} if "sleep_at" in each else each
                                    for each in entries]))
        self.start_controller()
        wait_for("sleep", lambda: self.shown("Bath").get("state") == "paused")

        # A room that does not hear that it is left keeps nobody from the music in the other one.
        bath.daemon.send_signal(signal.SIGSTOP)
        self.assertIn("Bath was not to be told to leave", self.command("move", "Bath", "Kitchen"))
        self.assertEqual([self.shown("Kitchen")[key] for key in ("state", "item")], ["paused", 0])
        bath.daemon.send_signal(signal.SIGCONT)
