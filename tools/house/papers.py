"""What a house left, read: its plan, what happened, what was told, what was heard."""
import json
import pathlib

import heard

HASTE = 1.5   # s after a press within which what is heard may change
MENDING = 20  # s after something was mended, or broke, within which what is heard may
FAULTS = {"end", "start", "card", "line", "clock"}


def moves_the_music(step):
    """What is heard of a room may jump, end or begin by it."""
    what = step["do"]
    if what == "command":
        return step["command"]["command"] in ("play", "next", "previous", "seek", "stop", "pause")
    if what == "play":
        return step["where"] == "now" or not step["is_ours"]
    if what in ("end", "start"):
        return step["program"] in ("device", "controller", "web")
    return what in ("move", "session", "shell", "card", "line")


def breaks(step):
    return step["do"] in FAULTS


def may_be_logged(step):
    return breaks(step) or step["do"] in ("session", "play", "move")


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
            step["do"] == "clock" or name in step.get("words", [])

    def is_lost(self, name, at):
        """What a card played then was still in memory when its device was killed."""
        killed = [event["at"] for event in self.of_kind("ended")
                  if event["place"] == name and event["program"] == "device" and event["status"] == -9]
        killed += [self.closed] if "cut" in self.plan else []
        return any(at <= end and not any(
            recording.seconds and at <= recording.seconds[-1] <= end for recording in self.rooms[name].recordings)
            for end in killed)

    def causes(self, name, at, may=lambda step: True):
        """The steps that may have had an effect on a room at that time."""
        for step in self.steps.values():
            if "begun" in step and self.concerns(step, name) and may(step):
                late = MENDING if step["do"] in FAULTS else HASTE
                if step["begun"] - 0.02 <= at <= step.get("done", float("inf")) + late:
                    yield step
        if at >= self.closed:
            yield {"do": "close"}

    def is_quiet(self, name, begin, end, but=None):
        """Nothing that may change what a room plays, but that step, is under way or has its effects meanwhile."""
        return end < self.closed and not any(
            moves_the_music(step) and self.concerns(step, name) and step is not but and "begun" in step and
            step["begun"] <= end and begin <= step.get("done", float("inf")) + (MENDING if breaks(step) else HASTE)
            for step in self.steps.values())

    def states_of(self, name):
        """What a page was told of a room, each with its time."""
        for event in self.of_kind("told"):
            for device in event["state"]["devices"]:
                if device["announced_name"] == name:
                    yield event["at"], device

    def moments(self, name):
        """Four a second: the time, and what a page was told of a room last, and when."""
        told = list(self.states_of(name))
        for (since, device), (until, _) in zip(told, [*told[1:], (self.closed, None)]):
            for n in range(int((until - since) * 4) + 1):
                yield since + n / 4, since, device
