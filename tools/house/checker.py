"""Whether a house was as it is to be, from its papers: what was pressed, what was told, what was heard.

Each rule yields what breaks it: the time, the place and a text.
"""
import collections
import datetime
import re

import music
from papers import HASTE, Papers, breaks, may_be_logged, moves_the_music

Finding = collections.namedtuple("Finding", "at place rule text")

# s that a position on the page may be off: nobody knows how long the first message was under way.
TOLD_LATE = 0.6
PROMPT = 0.5  # s after which a seek, a pause or a stop is heard
LENGTHS = [frames / rate for _, _, rate, frames in music.tracks()]


def no_frame_is_lost(papers):
    for name, room in papers.rooms.items():
        for recording in room.recordings:
            before = None
            for stretch in recording.stretches:
                at = recording.time_of(stretch.at)
                if stretch.track < 0:
                    yield Finding(at, name, "frames", f"{stretch} in {recording.path.name}")
                elif before is not None and not (before.is_at_end() and stretch.first == 0) and \
                        not any(papers.causes(name, at, moves_the_music)):
                    yield Finding(at, name, "frames", f"{stretch} behind {before}, in {recording.path.name}")
                before = stretch
            if before is not None and not before.is_at_end():
                at = recording.time_of(recording.count)
                if not any(papers.causes(name, at, moves_the_music)) and not papers.is_lost(name, at + 0.001):
                    yield Finding(at, name, "frames", f"ends with {before}, in {recording.path.name}")
            if int(recording.about["underruns"]) and not any(
                    breaks(step) and moves_the_music(step) for at in recording.seconds[::100]
                    for step in papers.causes(name, at)):
                yield Finding(recording.seconds[0], name, "underruns",
                              f"{recording.about['underruns']} in {recording.path.name}")


def the_position_shown_is_heard(papers):
    for name, room in papers.rooms.items():
        for at, told, device in papers.moments(name):
            if device["state"] != "playing" or not papers.is_quiet(name, told, at) or papers.is_lost(name, at):
                continue
            now, shown = room.at(at), device["position_ms"] / 1000 + at - told
            if now is None:
                if room.at(at - 1) is None and room.at(at + 1) is None:
                    yield Finding(at, name, "position", f"playing at {shown:.3f} s, and nothing is heard")
            elif abs(now[1] - shown) > TOLD_LATE and not (
                    now[1] < TOLD_LATE and any(abs(end - shown) < TOLD_LATE for end in LENGTHS)):
                yield Finding(at, name, "position", f"{shown:.3f} s are shown, {now[1]:.3f} of track {now[0]} heard")


def the_end_is_as_told(papers):
    """When all is quiet and mended, the page shows what is heard."""
    for name, room in papers.rooms.items() if not papers.ends_early else ():
        device = None
        for at, told in papers.states_of(name):
            if at < papers.closed:
                device, since = told, at
        now = room.at(papers.closed - 0.5)
        if device is None or device["reach"] != "reached":
            yield Finding(papers.closed, name, "end", "is not reached at the end")
        elif device["session"] == "us" and (device["state"] == "playing") != (now is not None):
            yield Finding(papers.closed, name, "end", f"is shown as {device['state']} since {since:.3f}; "
                          f"{'nothing' if now is None else now} is heard")
        elif device["session"] == "us" and not device["connected"]:
            yield Finding(papers.closed, name, "end", "its channel is not there")


def tracks_of(what):
    """The numbers of the tracks that a word of a press means."""
    for number, path, _, _ in music.tracks():
        album = path.split("/")[0]
        if what in (f"/music/{path}", f"/music/{album}", f"search:{music.ALBUMS[int(album)][0]}"):
            yield number


def what_is_pressed_is_heard(papers):
    """Of a press on a device that is left alone then: what it is to lead to in the time promised."""
    for name, room in papers.rooms.items():
        for step in papers.steps.values():
            result = step.get("result")
            if step.get("room") != name or not isinstance(result, list) or result[0] != 200:
                continue
            word = step.get("command", {}).get("command")
            late = PROMPT if word in ("pause", "stop", "seek") else HASTE
            at = step["done"] + late
            if not papers.is_quiet(name, step["begun"] - 0.02, at, step) or papers.is_lost(name, at):
                continue
            now, before = room.at(at), room.at(step["begun"])
            if word in ("pause", "stop") and now is not None:
                yield Finding(at, name, "heard", f"track {now[0]} at {now[1]:.3f} s, {late} s after a {word}")
            elif word == "seek" and before is not None and now is not None and now[0] == before[0]:
                target = step["command"]["position_ms"] / 1000
                if not target - 0.05 <= now[1] <= target + at - step["begun"]:
                    yield Finding(at, name, "heard", f"{now[1]:.3f} s, {late} s after a seek to {target}")
            elif step["do"] == "play" and step["where"] == "now":
                if now is None or now[0] not in tracks_of(step["what"][0]):
                    yield Finding(at, name, "heard", f"{now}, {late} s after {step['what']} was to play")
            elif step["do"] == "session":
                if now is None or now[0] not in tracks_of(f"/music/{step['path']}"):
                    yield Finding(at, name, "heard", f"{now}, {late} s after the session of {step['path']}")


PRESSED = {"volume": "volume", "mute": "muted", "shuffle": "shuffle", "loop": "loop"}


def the_last_press_counts(papers):
    steps = {room["name"]: 100 / int(room["card"][-1].split("..")[1]) for room in papers.plan["rooms"]}
    for name in papers.names:
        last = {}
        for step in papers.steps.values():
            if papers.concerns(step, name) and step["do"] in ("play", "move", "session", "shell", "end", "card"):
                for key in ("shuffle", "loop"):
                    last.pop(key, None)  # a session of its own, or another's word
                if step["do"] in ("shell", "card", "move", "end"):
                    last.clear()
            elif step["do"] == "command" and step["room"] == name and step["command"]["command"] in PRESSED:
                if isinstance(step.get("result"), list) and step["result"][0] == 200:
                    last[PRESSED[step["command"]["command"]]] = step
        told = [device for at, device in papers.states_of(name) if at < papers.closed]
        if not told or told[-1]["session"] != "us":
            continue
        for key, step in last.items():
            wanted, shown = step["command"][key], told[-1].get(key)
            # A mixer has its own steps.
            if shown != wanted and not (key == "volume" and shown is not None and abs(shown - wanted) <= steps[name]):
                yield Finding(step["done"], name, "press", f"{key} was set to {wanted}, and is shown as {shown}")


def revisions_grow(papers):
    for name in papers.names:
        before = None
        for at, device in papers.states_of(name):
            revision = device.get("queue_revision") if device["session"] == "us" else None
            if None not in (before, revision) and revision < before and not any(papers.causes(name, at)):
                yield Finding(at, name, "revision", f"{revision} behind {before}")
            before = revision


MEMBERS = {"play": {"undo"}, "command": {"undo"}, "move": {"undo", "left"}}


def answers_are_those_of_the_api(papers):
    for step in papers.steps.values():
        if "done" not in step and not papers.ends_early:
            yield Finding(step.get("begun", 0), step.get("room", ""), "answer", f"none to {step}")
        if "done" not in step:
            continue
        name, result = step.get("room", ""), step["result"]
        if step["do"] in MEMBERS and isinstance(result, list):
            status, said = result
            strange = set(said) - MEMBERS[step["do"]] if status == 200 else set()
            if strange:
                yield Finding(step["done"], name, "answer", f"to step {step['step']}, {step['do']}: {said}")
            if status not in (200, 404, 409) and not any(
                    each.get("program") == "controller" for each in papers.causes(name, step["done"], breaks)):
                yield Finding(step["done"], name, "answer", f"{status} to step {step['step']}, {step['do']}: {said}")
        elif step["do"] in ("card", "line") and isinstance(result, str) and "Error" in result:
            yield Finding(step["done"], name, "answer", result)


def nobody_ends_unasked(papers):
    asked = collections.Counter()
    for event in papers.events:
        if event["kind"] == "begun" and papers.steps[event["step"]]["do"] == "end":
            step = papers.steps[event["step"]]
            asked[step["place"], step["program"]] += 1
        elif event["kind"] == "ended" and event["at"] < papers.closed:
            key = event["place"], event["program"]
            asked[key] -= 1
            if asked[key] < 0:
                yield Finding(event["at"], event["place"], "ended", f"{event['program']}: {event['status']}")
        if event["kind"] == "ended" and event["program"] in ("device", "controller") and event["status"] not in (0, -9):
            yield Finding(event["at"], event["place"], "ended", f"{event['program']}: {event['status']}")


def nothing_is_left_behind(papers):
    begin = {}
    restarted = {(step.get("place"), step.get("program")) for step in papers.steps.values() if step["do"] == "end"}
    for event in papers.of_kind("usage"):
        key = event["place"], event["program"]
        if event["when"] == "begin":
            begin[key] = event
        elif key not in restarted and "kib" in event:
            for what, more in (("descriptors", 3), ("threads", 2), ("kib", 6000 if key[1] == "controller" else 2000)):
                if event[what] > begin[key][what] + more:
                    yield Finding(event["at"], key[0], "left", f"{key[1]}: {what} {begin[key][what]} to {event[what]}")


LOGGED = re.compile(r"^(\d{8} [\d:.]+) \[[\d.]+\] (ERROR|WARNING) (.*)")
# What each start says of a card with several formats and no platform's output file system.
AT_START = ("Nuvio outputfs = Invalid", "SND_PCM_FORMAT_")


def errors_have_causes(papers):
    ahead = papers.of_kind("opened")[0]["wall"] - papers.opened
    offsets = [(step["begun"], step["by"]) for step in papers.steps.values() if step["do"] == "clock"]
    for name in papers.names:
        for line in (papers.folder / name / "device.log").read_text(errors="replace").splitlines():
            match = LOGGED.match(line)
            if not match or match[3].startswith("SampleApp: ") and match[3][11:].startswith(AT_START):
                continue
            told = datetime.datetime.strptime(match[1], "%Y%m%d %H:%M:%S.%f").replace(tzinfo=datetime.timezone.utc)
            wall = told.timestamp()
            candidates = [wall - ahead - sum(by for _, by in offsets[:count]) for count in range(len(offsets) + 1)]
            if not any(any(papers.causes(name, at, may_be_logged)) for at in candidates):
                yield Finding(candidates[0], name, "log", match[2] + " " + match[3])


def what_was_kept(before, after):
    """Of two lives with a power cut between them: what was acknowledged in the first one is there in the second."""
    [recalled] = after.of_kind("recalled")
    named = {}
    for step in before.steps.values():
        if step["do"] != "keep" or not isinstance(step.get("result"), list) or step["result"][0] != 200:
            continue
        body, room = step["body"], step.get("room")
        if step["path"] == "name":
            named[room] = step
        elif (step["path"] == "stations" and body["name"] not in recalled["stations"]) or \
                (step["path"] == "alarms" and [room, body["time"]] not in recalled["alarms"]):
            yield Finding(step["done"], room or "", "kept", f"{step['path']} {body} is gone after the power cut")
    for room, step in named.items():
        if recalled["names"].get(room) != step["body"]["name"]:
            yield Finding(step["done"], room, "kept", f"was called {step['body']['name']}, and is called "
                          f"{recalled['names'].get(room)} after the power cut")


def how_far_apart(papers):
    """Of the pair that was given one session at the same moment: how much later the second one was heard, in ms, at
    the first and the last frame that both played of it; none where there is no such pair."""
    heard_of = []
    for name in papers.plan["pair"]:
        track, recording = papers.rooms[name].first_stretch()
        if track is None:
            return None
        heard_of.append((track, recording))
    if not heard_of:
        return None
    first = max(stretch.first for stretch, _ in heard_of)
    last = min(stretch.first + stretch.count for stretch, _ in heard_of) - 1
    ways = [[recording.time_of(stretch.at + frame - stretch.first) for stretch, recording in heard_of]
            for frame in (first, last)]
    return [(second - one) * 1000 for one, second in ways] + [(last - first) / heard_of[0][1].rate]


RULES = [no_frame_is_lost, what_is_pressed_is_heard, the_position_shown_is_heard, the_end_is_as_told,
         the_last_press_counts, revisions_grow, answers_are_those_of_the_api, nobody_ends_unasked,
         nothing_is_left_behind, errors_have_causes]


def check(folder):
    papers = Papers(folder)
    found = [finding for rule in RULES for finding in rule(papers)]
    return sorted(found, key=lambda finding: finding.at), papers
