"""What a house left, read: its plan, what happened, what was told, what was heard."""
import json
import pathlib

import heard

HASTE = 1.5   # s after a press within which what is heard may change
MENDING = 4  # s after something was mended, or broke, within which what is heard may
PROBED = 1  # s more that it takes until a radio is heard
HELD = 12  # s more of the radio, of which a device has no more than what it was sent at once
FAULTS = {"end", "start", "card", "line", "clock", "disk"}
PLAYER = {"Pause": "pause", "Play": "play", "PlayPause": "toggle", "Next": "next", "Previous": "previous",
          "Stop": "stop", "Seek": "seek by"}
SETTING = {"volume", "mute", "shuffle", "loop", "name", "queue", "devices", "SetMute", "Volume", "Shuffle",
           "LoopStatus", "queue_move", "clear"}


def word_of(step):
    """What is pressed, whoever presses it; empty where nothing is."""
    what = step["do"]
    if what == "command":
        return step["command"]["command"]
    if what == "mpris":
        return step["words"][1][7:] if step["member"] == "Set" else PLAYER[step["member"]]
    if what == "shell":
        return {"resume": "play", "play": "play now", "seek": "seek by"}.get(step["words"][0], step["words"][0])
    if what == "play":
        return f"play {step['where'] if step['is_ours'] else 'now'}"
    return {"queue": f"queue_{step.get('edit')}", "undo": step.get("what"), "panel": step.get("member"), "move": "move",
            "session": "session"}.get(what, "")


def moves_the_music(step):
    """What is heard of a room may jump, end or begin by it."""
    if step["do"] in ("end", "start"):
        return step["program"] in ("device", "controller", "web")
    return step["do"] in ("card", "line") or (
        bool(word_of(step)) and word_of(step) not in SETTING | {"play next", "play end"})


def moves_the_radio(step):
    """Icecast ends who sends and who listens by the clock that is set."""
    return moves_the_music(step) or step["do"] == "clock" or step.get("program") == "radio"


def breaks(step):
    return step["do"] in FAULTS


def late_of(step, is_radio):
    """s from what happens to its last effects."""
    if breaks(step):
        return MENDING + HELD * is_radio
    return HASTE + PROBED * is_radio


def may_be_logged(step):
    return breaks(step) or step["do"] in ("session", "play", "move", "undo", "panel")


def plays_the_radio(device):
    return device is not None and not device.get("track", {}).get("seekable", True)


class Papers:
    def __init__(self, folder):
        folder = pathlib.Path(folder)
        self.folder = folder / "house"
        self.plan = json.loads((folder / "plan.json").read_text())
        self.events = [json.loads(line) for line in (self.folder / "events").read_text().splitlines()]
        self.steps = {step["step"]: dict(step) for step in self.plan["steps"]}
        for event in self.events:
            if event["kind"] in ("begun", "done"):
                self.steps[event["step"]][event["kind"]] = event["at"]
                self.steps[event["step"]].update({"result": event["result"]} if "result" in event else {})
        self.ends_early = bool({"is_cut", "cut"} & self.plan.keys())
        for step in self.steps.values():
            step["is_ours"] = self.session_at(step.get("room"), step.get("begun", 0)) == "us"
        self.names = [room["name"] for room in self.plan["rooms"]]
        self.rooms = {name: heard.Room(self.folder / name) for name in self.names}
        self.opened, self.closed = (self.of_kind(kind)[0]["at"] if self.of_kind(kind) else float("inf")
                                    for kind in ("opened", "closed"))

    def session_at(self, name, at):
        """Whose session a page was told of last."""
        session = None
        for event in self.of_kind("told"):
            if event["at"] > at:
                break
            session = next((each["session"] for each in event["state"]["devices"] if each["announced_name"] == name),
                           None)
        return session

    def of_kind(self, *kinds):
        return [event for event in self.events if event["kind"] in kinds]

    def concerns(self, step, name):
        return name in (step.get("room"), step.get("to"), step.get("place")) or step.get("place") == "Closet" or \
            step["do"] in ("clock", "disk") or name in step.get("words", [])

    def is_lost(self, name, at):
        """What a card played then was still in memory when its device was killed."""
        killed = [event["at"] for event in self.of_kind("ended")
                  if event["place"] == name and event["program"] == "device" and event["status"] == -9]
        killed += [self.closed] if self.ends_early else []
        return any(at <= end and not any(
            recording.seconds and at <= recording.seconds[-1] <= end for recording in self.rooms[name].recordings)
            for end in killed)

    def causes(self, name, at, may=lambda step: True, is_radio=False):
        """The steps that may have had an effect on a room at that time."""
        for step in self.steps.values():
            if "begun" in step and self.concerns(step, name) and may(step):
                if step["begun"] - 0.02 <= at <= step.get("done", float("inf")) + late_of(step, is_radio):
                    yield step
        if at >= self.closed:
            yield {"do": "close"}

    def movers(self, name, at, is_radio=False):
        """Those by which what is heard may have jumped, ended or begun."""
        return list(self.causes(name, at, moves_the_radio if is_radio else moves_the_music, is_radio))

    def is_quiet(self, name, begin, end, but=None, is_radio=False):
        """Nothing that may change what a room plays, but that step, is under way or has its effects meanwhile."""
        moves = moves_the_radio if is_radio else moves_the_music
        return end < self.closed and not any(
            moves(step) and self.concerns(step, name) and step is not but and "begun" in step and
            step["begun"] <= end and begin <= step.get("done", float("inf")) + late_of(step, is_radio)
            for step in self.steps.values())

    def states_of(self, name):
        """What a page was told of a room, each with its time."""
        for event in self.of_kind("told"):
            for device in event["state"]["devices"]:
                if device["announced_name"] == name:
                    yield event["at"], device

    def last_pressed(self, name, at):
        """The last step before that which may have moved a room's music."""
        before = [step for step in self.steps.values()
                  if step.get("begun", at) < at and self.concerns(step, name) and moves_the_music(step)]
        return max(before, key=lambda step: step["begun"], default=None)

    def told_last(self, name, at):
        """What the page was told of a room last before that, and when; none where there was nothing."""
        last = (None, None)
        for told, device in self.states_of(name):
            if told <= at:
                last = device, told
        return last

    def step_of_volume(self, name):
        """Of a room's mixer, in percent."""
        [room] = [room for room in self.plan["rooms"] if room["name"] == name]
        return 100 / int(room["card"][-1].split("..")[1])

    def is_refused(self, name, at):
        """Of the output it was said that the next request for it is refused, and nothing has begun since."""
        begun = [recording.seconds[0] for recording in self.rooms[name].recordings if recording.seconds]
        return any(step.get("member") == "RefuseNextRequest" and step["room"] == name and step.get("begun", at) < at and
                   not any(step["begun"] < begin < at for begin in begun) for step in self.steps.values())

    def card_was_away(self, name):
        """Or its mixer: it is looked for again, and missed again, only where the card is needed."""
        return any(step["do"] == "card" and step["room"] == name and "begun" in step for step in self.steps.values())

    def left_off(self, track, at):
        """The seconds of a track at which a room that had played it until then, or lately, left it; and those that it
        was sought to where it did not play."""
        for step in self.steps.values():
            if word_of(step) == "seek" and step.get("begun", at) < at:
                device, _ = self.told_last(step["room"], step["begun"])
                if device is not None and device["state"] != "playing":
                    yield step["command"]["position_ms"] / 1000
        for room in self.rooms.values():
            for recording in room.recordings:
                for stretch in recording.stretches:
                    if stretch.track == track and recording.time_of(stretch.at) < at:
                        count = min(recording.frame_at_time(at) or recording.count, stretch.at + stretch.count)
                        yield (stretch.first + count - stretch.at) / recording.rate

    def moments(self, name):
        """Four a second: the time, and what a page was told of a room last, and when."""
        told = list(self.states_of(name))
        for (since, device), (until, _) in zip(told, [*told[1:], (self.closed, None)]):
            for n in range(int((until - since) * 4) + 1):
                yield since + n / 4, since, device
