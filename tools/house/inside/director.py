"""Has the house built, lets happen what the plan says, each thing at its time, and closes the house."""
import contextlib
import functools
import os
import signal
import subprocess
import threading
import time

import music
import own_device
import page
import rooms
import witness
from rooms import CLOSET, CONTROLLER_PORT, DEVICE_PORT, MUSIC, WEB_PORT

SIGNALS = {"term": signal.SIGTERM, "kill": signal.SIGKILL}
PATIENCE = 60  # s until all devices are there
EDITED = 0.5  # s after which the page has a queue as it was changed
SETTLED = 6   # s after the last session until nothing that it held should be left
CLI = "/nuvio/bin/nuvio-connect-controller"
PLAYER, PLAYER_INTERFACE = "org.mpris.MediaPlayer2.nuvio_connect", "org.mpris.MediaPlayer2.Player"
PANEL = "org.nuvioconnect.Host1"
FAR = 4102444800  # when a session's tokens end


class Director:
    def __init__(self, house):
        self.house = house
        self.ids = {}  # of the devices, by the names that they have given themselves

    def room(self, step):
        return self.house.rooms[step["room"]]

    def api(self, path, body=None):
        return page.ask(CLOSET, CONTROLLER_PORT, "GET" if body is None else "POST", path, body)

    def state(self):
        status, said = self.api("/api/state")
        return said if status == 200 else None

    # ---- What can happen: by the step's "do" ---------------------------------------------------

    def of_device(self, step, what, body):
        return self.api(f"/api/devices/{self.ids[step['room']]}/{what}", body)

    def do_play(self, step):
        return self.of_device(step, "play", {"what": step["what"], "where": step["where"]})

    def do_command(self, step):
        return self.of_device(step, "command", step["command"])

    def do_move(self, step):
        return self.of_device(step, "move", {"to": self.ids[step["to"]]})

    def items(self, step):
        return [each["item"] for each in self.of_device(step, "queue", None)[1].get("items", [])]

    def do_queue(self, step):
        """Also says how the queue was and how it was a moment after."""
        items = self.items(step)
        if len(items) < 2:
            return "nothing to do"
        item, before = (items[int(step[key] * len(items))] for key in ("item", "before"))
        edits = {"remove": {"items": [item]}, "move": {"items": [item], "before": before}, "jump": {"item": item}}
        result = self.of_device(step, "command", {"command": f"queue_{step['edit']}", **edits[step["edit"]]})
        time.sleep(EDITED)
        return [*result, {"items": items, "item": item, "before": before, "after": self.items(step)}]

    def do_undo(self, step):
        return self.of_device(step, step["what"], {})

    def do_mpris(self, step):
        interface = "org.freedesktop.DBus.Properties" if step["member"] == "Set" else PLAYER_INTERFACE
        return self.room(step).call(PLAYER, "/org/mpris/MediaPlayer2", f"{interface}.{step['member']}", *step["words"])

    def do_panel(self, step):
        return self.room(step).call(PANEL, "/org/nuvioconnect/Host1", f"{PANEL}.{step['member']}", *step["words"])

    def do_shell(self, step):
        done = subprocess.run([CLI, *step["words"]], env=self.house.closet.environment | {
            "NUVIO_CONTROLLER": f"http://{CLOSET}:{CONTROLLER_PORT}"}, text=True, capture_output=True)
        return done.returncode, (done.stdout + done.stderr)[-300:]

    def do_session(self, step):
        """As a stranger's controller hands one over."""
        content = {"web": f"http://{CLOSET}:{WEB_PORT}/", "disk": f"{MUSIC}/"}[step["from"]] + step["path"]
        return page.ask(self.room(step).address, DEVICE_PORT, "POST", "/connect-to-nconnect", {
            "session_id": step["session"], "become_active": True,
            "jwt_api": {"endpoint": content, "jwt": "api", "exp": FAR},
            "jwt_nconnect": {"endpoint": "", "jwt": "nc", "exp": FAR}})

    def do_title(self, step):
        self.house.closet.station.tell(step["title"])

    def do_keep(self, step):
        """What is to be there for good."""
        if "room" in step:
            return self.of_device(step, step["path"], step["body"])
        return self.api(f"/api/{step['path']}", step["body"])

    def do_end(self, step):
        return self.house.places[step["place"]].processes[step["program"]].end(SIGNALS[step["how"]])

    def do_start(self, step):
        place = self.house.places[step["place"]]
        started = place.processes[step["program"]].start()
        if step["program"] == "bus":
            place.start_avahi()
        return started

    def do_card(self, step):
        return self.room(step).simcard(*step["words"])

    def do_line(self, step):
        """Of a room: what netem does to it; no words: nothing any more."""
        place = ["dev", self.room(step).line, "root"]
        if step["words"]:
            subprocess.run(["tc", "qdisc", "add", *place, "netem", *step["words"]], check=True)
        else:
            subprocess.run(["tc", "qdisc", "del", *place], check=True)

    def do_disk(self, step):
        """Full to the last block, or as it was."""
        filling = rooms.DISK / "filling"
        if not step["full"]:
            filling.unlink()
            return
        size = 0
        with open(filling, "wb") as file:
            for piece in (1 << 20, 4096):
                with contextlib.suppress(OSError):
                    while True:
                        os.posix_fallocate(file.fileno(), size, piece)
                        size += piece

    def do_clock(self, step):
        time.clock_settime(time.CLOCK_REALTIME, time.time() + step["by"])

    def recall(self):
        """All that was kept, as it is now."""
        state = self.state()
        self.ids = {each["announced_name"]: each["id"] for each in state["devices"]}
        rooms_of = {each["id"]: each["announced_name"] for each in state["devices"]}
        witness.note("recalled", names={each["announced_name"]: each["name"] for each in state["devices"]},
                     alarms=[[rooms_of[each["device"]], each["time"]] for each in state["alarms"]],
                     stations=[each["name"] for each in self.api("/api/stations")[1]["stations"]])

    # ---- The course of a house -----------------------------------------------------------------

    def take(self, step):
        witness.note("begun", step=step["step"])
        try:
            result = getattr(self, f"do_{step['do']}")(step)
        except Exception as error:  # noqa: BLE001: told, whatever it is
            result = repr(error)
        witness.note("done", step=step["step"], result=result)

    def is_complete(self):
        state = self.state()
        if not state or state["library"]["scanning"] or not state["library"]["tracks"]:
            return False
        reached = {each["announced_name"] for each in state["devices"] if each["reach"] == "reached"}
        return reached >= self.house.rooms.keys()

    def measure(self, when):
        for place in self.house.places.values():
            for name, process in place.processes.items():
                if name in ("device", "controller"):
                    witness.note("usage", when=when, place=place.name, program=name, **(process.usage(when) or {}))

    def look_at_the_players(self):
        """What each device says of itself on its message bus."""
        for name, room in self.house.rooms.items():
            told = {}
            for what in ("PlaybackStatus", "Position", "Volume", "Shuffle", "LoopStatus"):
                status, said = room.call(PLAYER, "/org/mpris/MediaPlayer2", "org.freedesktop.DBus.Properties.Get",
                                         f"string:{PLAYER_INTERFACE}", f"string:{what}")
                told[what] = said.split()[-1] if status == 0 else None
            witness.note("player", room=name, card=room.simcard("show"), **told)

    def close(self):
        """All is taken from the devices; a stranger's session, of which nobody may know yet, by one of the house's own."""
        for device in self.state()["devices"]:
            path = f"/api/devices/{device['id']}"
            if device["session"] != "us":
                self.api(f"{path}/play", {"what": [str(MUSIC)], "where": "now"})
            self.api(f"{path}/command", {"command": "leave"})
        time.sleep(SETTLED)
        self.measure("end")
        for place in self.house.places.values():
            for name in ("device", "controller"):
                if name in place.processes:
                    place.processes[name].end()


def run(plan, until, leaves):
    """`until`: when it ends early, in s since it was opened; `leaves`: what it leaves then."""
    rooms.HOUSE.mkdir(exist_ok=True)
    witness.begin(rooms.HOUSE / "events")
    director = Director(rooms.House(plan))
    director.house.start()
    own_device.wait_for("the house", director.is_complete, PATIENCE, pause=0.2)
    director.api("/api/stations", {"name": music.STATION, "url": director.house.closet.station.url})
    time.sleep(2)
    director.measure("begin")
    director.recall()
    stop = threading.Event()
    threading.Thread(target=page.watch, args=(CLOSET, CONTROLLER_PORT, stop), daemon=True).start()
    origin = witness.now()
    witness.note("opened", wall=time.time())
    until += origin
    for step in plan["steps"]:
        time.sleep(max(0.0, min(origin + step["at"], until) - witness.now()))
        if witness.now() >= until:
            break
        threading.Thread(target=functools.partial(director.take, step), daemon=True).start()
    time.sleep(max(0.0, min(origin + plan["seconds"], until) - witness.now()))
    witness.note("closed")
    if leaves == "cores":
        director.house.dump()
        return
    if leaves == "trace":
        rooms.keep_trace()
    if "cut" in plan:
        director.house.freeze()
        return
    director.look_at_the_players()
    director.close()
    stop.set()
