"""Whether a house was as it is to be, from its papers: what was pressed, what was told, what was heard.

Each rule yields what breaks it: the time, the place and a text.
"""
import collections
import datetime
import functools
import re

import music
from papers import (HASTE, MENDING, PROBED, Papers, breaks, late_of, may_be_logged, moves_the_music, plays_the_radio,
                    word_of)

Finding = collections.namedtuple("Finding", "at place rule text")

# s that a position on the page may be off: nobody knows how long the quickest message was under way, all the less
# before a second one, which comes within so many s.
TOLD_LATE = 0.6
FIRST_LATE, FIRST = 1.5, 11
PROMPT = 0.25  # s after which a seek, a pause or a stop is heard
ASKED_AGAIN = 25  # s after which a device whose channel does not come back has been asked why
FOLLOWS, GAP = 3, 0.3  # s within which another recording belongs to what ended, and between tracks of two rates
CONTINUED = 0.7  # s between where a track was left off and where it goes on
LOOPED = 1  # s before a track's end at which it is known what follows
TITLED = 8  # s from a station's telling its title to what is heard then
LENGTH_OF = {number: frames / rate for number, _, rate, frames in music.tracks()}
LENGTHS = LENGTH_OF.values()


def no_frame_is_lost(papers):
    for name, room in papers.rooms.items():
        for earlier, recording in zip([None, *room.recordings], room.recordings):
            before = None
            if earlier is not None and earlier.stretches and recording.stretches and \
                    recording.time_of(0) - earlier.time_of(earlier.count) < FOLLOWS:
                before = earlier.stretches[-1]  # a track of another rate
            for stretch in recording.stretches:
                at = recording.time_of(stretch.at)
                is_radio = music.RADIO in (stretch.track, before.track if before else 0)
                if stretch.track < 0:
                    yield Finding(at, name, "frames", f"{stretch} in {recording.path.name}")
                elif not (before is not None and before.is_at_end() and is_a_beginning(stretch)):
                    causes = papers.movers(name, at, is_radio)
                    if not causes:
                        yield Finding(at, name, "frames", f"{stretch} behind {before}, in {recording.path.name}")
                    elif stretch.track > 0 and not may_begin_at(papers, causes, recording, stretch):
                        yield Finding(at, name, "jump", f"to {stretch} behind {before}, in {recording.path.name}: "
                                      f"none of {sorted(set(map(word_of, causes)))} goes there")
                before = stretch
            if before is not None and not before.is_at_end():
                at = recording.time_of(recording.count)
                if not papers.movers(name, at, before.track == music.RADIO) and not papers.is_lost(name, at + 0.001):
                    yield Finding(at, name, "frames", f"ends with {before}, in {recording.path.name}")
            is_radio = any(stretch.track == music.RADIO for stretch in recording.stretches)
            if int(recording.about["underruns"]) and not any(
                    breaks(step) for at in recording.seconds for step in papers.movers(name, at, is_radio)):
                yield Finding(recording.seconds[0], name, "underruns",
                              f"{recording.about['underruns']} in {recording.path.name}")


def is_of_the_network(step):
    return step["do"] == "line" or step.get("program") in ("web", "controller")


def is_a_beginning(stretch):
    """A radio begins wherever it is then."""
    return stretch.first == 0 or stretch.track == music.RADIO


def is_target_of(step, recording, stretch):
    """It begins with the very frame that a seek was for."""
    return word_of(step) == "seek" and stretch.first == step["command"]["position_ms"] * recording.rate // 1000


def may_begin_at(papers, causes, recording, stretch):
    """At a track's beginning, at a seek's place, or where it was heard before; a transfer that breaks takes nothing
    away."""
    if all(is_of_the_network(step) for step in causes):
        return False
    if is_a_beginning(stretch) or any(is_target_of(step, recording, stretch) or word_of(step) == "seek by"
                                      for step in causes):
        return True
    at, first = recording.time_of(stretch.at), stretch.first / recording.rate
    return any(abs(second - first) <= CONTINUED for second in papers.left_off(stretch.track, at))


def a_seek_is_prompt(papers):
    """Where the music went to what a seek was for, it did so at once, or with the press that let it play again."""
    for name, room in papers.rooms.items():
        for recording in room.recordings:
            for stretch in recording.stretches[1:]:
                at = recording.time_of(stretch.at)
                movers = papers.movers(name, at)
                late = at - max((step.get("done", at) for step in movers), default=at)
                if late > PROMPT and any(is_target_of(step, recording, stretch) for step in movers) and \
                        not any(papers.causes(name, at, breaks)):
                    yield Finding(at, name, "late", f"{stretch}, {late:.3f} s after its seek")


def the_position_shown_is_heard(papers):
    for name, room in papers.rooms.items():
        linked = None
        for at, told, device in papers.moments(name):
            linked = (told if linked is None else linked) if device["connected"] else None
            is_radio = plays_the_radio(device)
            if device["state"] != "playing" or not papers.is_quiet(name, told, at, is_radio=is_radio) or \
                    papers.is_lost(name, at):
                continue
            late = FIRST_LATE if linked is None or at < linked + FIRST else TOLD_LATE
            now, shown = room.at(at), device["position_ms"] / 1000 + at - told
            if now is None:
                if room.at(at - 1) is None and room.at(at + 1) is None:
                    yield Finding(at, name, "position", f"playing at {shown:.3f} s, and nothing is heard")
            elif now[0] != music.RADIO and abs(now[1] - shown) > late and not (
                    now[1] < late and any(abs(end - shown) < late for end in LENGTHS)):
                yield Finding(at, name, "position", f"{shown:.3f} s are shown, {now[1]:.3f} of track {now[0]} heard")


def a_pause_stands_still(papers):
    """The position that is shown of a pause is the one that was heard last."""
    for name, room in papers.rooms.items():
        for at, device in papers.states_of(name):
            if device["state"] != "paused" or device["session"] != "us" or not papers.is_quiet(name, at, at):
                continue
            pressed = papers.last_pressed(name, at)
            if pressed is None or word_of(pressed) != "pause" or \
                    not papers.is_quiet(name, pressed["begun"], at, pressed):
                continue
            before, _ = papers.told_last(name, pressed["begun"])
            if before is None or before["state"] != "playing":  # in a pause it is moved, and nothing heard
                continue
            _, last = room.last_before(at)
            shown = device["position_ms"] / 1000
            if last is not None and abs(last - shown) > TOLD_LATE and not plays_the_radio(device):
                yield Finding(at, name, "position", f"paused at {shown:.3f} s, {last:.3f} was heard last")
                break


def a_station_is_titled(papers):
    """What a station tells of itself is shown where it is heard."""
    told = [step for step in papers.steps.values() if step["do"] == "title" and "done" in step]
    for name in papers.names:
        for step, following in zip(told, [*told[1:], {"begun": papers.closed}]):
            at = step["done"] + TITLED
            before, _ = papers.told_last(name, step["begun"])
            device, _ = papers.told_last(name, at)
            is_heard = all(each and each["state"] == "playing" and plays_the_radio(each) for each in (before, device))
            if not is_heard or following["begun"] <= at or not papers.is_quiet(name, step["begun"], at, is_radio=True):
                continue
            if device["track"]["title"] != step["title"]:
                yield Finding(at, name, "title", f"{device['track']['title']} {TITLED} s after it was {step['title']}")


def tracks_follow_each_other(papers):
    """Where a track has ended and the next one is of another rate, it is heard at once; of the same rate there is no
    gap at all, which is a matter of frames."""
    for name, room in papers.rooms.items():
        for one, other in zip(room.recordings, room.recordings[1:]):
            if not one.stretches or not other.stretches or not one.stretches[-1].is_at_end():
                continue
            end, begin = one.time_of(one.count), other.time_of(0)
            if begin - end < FOLLOWS and not any(papers.causes(name, begin, may_be_logged)) and \
                    not any(papers.causes(name, begin, moves_the_music)):
                if one.rate == other.rate:
                    yield Finding(begin, name, "gap", f"{begin - end:.3f} s between two tracks of {one.rate} Hz")
                elif begin - end > GAP:
                    yield Finding(begin, name, "gap", f"{begin - end:.3f} s between two tracks")


def a_looped_track_comes_again(papers):
    for name, room in papers.rooms.items():
        for recording in room.recordings:
            for before, stretch in zip(recording.stretches, recording.stretches[1:]):
                at = recording.time_of(stretch.at)
                device, _ = papers.told_last(name, at - LOOPED)
                if before.is_at_end() and stretch.track != before.track and device is not None and \
                        device.get("loop") == "one" and device["session"] == "us" and device["state"] == "playing" and \
                        papers.is_quiet(name, at - LOOPED, at) and not papers.is_lost(name, at) and \
                        not any(papers.causes(name, at, lambda step: "loop" in settings_of(step))):
                    yield Finding(at, name, "loop", f"{stretch} behind {before}, which was to be looped")


def another_source_is_alone(papers):
    """While another source has the output nothing is heard of this one."""
    for name, room in papers.rooms.items():
        taken = None
        for step in papers.steps.values():
            if step.get("room") != name or step["do"] != "panel" or "done" not in step:
                continue
            if step["member"] == "TakeOutput" and was_taken(step):
                taken = step["done"] + PROMPT
            elif step["member"] == "GiveBackOutput" and taken is not None:
                others = [each for each in papers.steps.values() if papers.concerns(each, name) and "begun" in each and
                          taken - HASTE < each["begun"] < step["begun"] and moves_the_music(each) and
                          each.get("member") != "TakeOutput"]
                until = min([step["begun"], *(each["begun"] for each in others)])
                at = (taken + until) / 2
                if taken < until and room.at(at) is not None:
                    yield Finding(at, name, "source", f"{room.at(at)} is heard while another source has the output")
                taken = None


def the_end_is_as_told(papers):
    """When all is quiet and mended, the page shows what is heard."""
    for name, room in papers.rooms.items() if not papers.ends_early else ():
        device, since = papers.told_last(name, papers.closed - 0.5)
        now = room.at(papers.closed - 0.5)
        if device is None or device["reach"] != "reached":
            yield Finding(papers.closed, name, "end", "is not reached at the end")
        elif device["session"] == "us" and (device["state"] == "playing") != (now is not None):
            yield Finding(papers.closed, name, "end", f"is shown as {device['state']} since {since:.3f}; "
                          f"{'nothing' if now is None else now} is heard")
        elif device["session"] == "us" and not device["connected"] and \
                not any(breaks(step) and papers.concerns(step, name) and step.get("done", 0) > papers.closed - ASKED_AGAIN
                        for step in papers.steps.values()):
            yield Finding(papers.closed, name, "end", "its channel is not there")
        elif is_linked(device) and now is not None and not (device.get("track") and device["queue_length"]):
            yield Finding(papers.closed, name, "end", "is shown without its track or its queue")


def tracks_of(what):
    """The numbers of the tracks that a word of a press means."""
    if what == f"station:{music.STATION}":
        yield music.RADIO
    for number, path, _, _ in music.tracks():
        album = path.split("/")[0]
        if what in (f"/music/{path}", f"/music/{album}", f"search:{music.ALBUMS[int(album)][0]}"):
            yield number


def was_taken(step):
    """By the controller, or by the device where it was pressed there."""
    return isinstance(step.get("result"), list) and step["result"][0] in (200, 0)


def is_linked(device):
    return device is not None and device["session"] == "us" and device["connected"]


def was_paused(papers, step):
    device, _ = papers.told_last(step["room"], step["begun"])
    return device is not None and device["state"] == "paused"


def what_is_pressed_is_heard(papers):
    """Of a press on a device that is left alone then: what it is to lead to in the time promised."""
    for name, room in papers.rooms.items():
        for step in papers.steps.values():
            if step.get("room") != name or not was_taken(step):
                continue
            word = word_of(step)
            is_radio = step["do"] == "play" and music.RADIO in tracks_of(step["what"][0])
            late = PROMPT if word in ("pause", "stop", "seek") else HASTE + PROBED * is_radio
            at = step["done"] + late
            if not papers.is_quiet(name, step["begun"] - 0.02, at, step, is_radio) or papers.is_lost(name, at) or \
                    papers.is_refused(name, at):
                continue
            now, before = room.at(at), room.at(step["begun"])
            if music.RADIO in (each[0] for each in (now, before) if each) and not papers.is_quiet(
                    name, step["begun"] - 0.02, at, step, is_radio=True):
                continue
            if word in ("pause", "stop") and now is not None:
                yield Finding(at, name, "heard", f"track {now[0]} at {now[1]:.3f} s, {late} s after a {word}")
            elif word == "seek" and before is not None and before[0] != music.RADIO:
                target = step["command"]["position_ms"] / 1000
                goes_on = any(end < target + 0.1 for end in LENGTHS)
                if (now is None or now[0] == before[0]) and not goes_on and not (
                        now is not None and target - 0.05 <= now[1] <= target + at - step["begun"]):
                    yield Finding(at, name, "heard", f"{now}, {late} s after a seek to {target}")
            elif word in ("next", "previous", "queue_jump") and before is not None and now == before:
                yield Finding(at, name, "heard", f"{now}, {late} s after {word}")
            elif word == "play" and now is None and before is None and step["is_ours"] and was_paused(papers, step):
                yield Finding(at, name, "heard", f"nothing, {late} s after play")
            elif step["do"] == "play" and step["where"] == "now":
                if now is None or now[0] not in tracks_of(step["what"][0]):
                    yield Finding(at, name, "heard", f"{now}, {late} s after {step['what']} was to play")
            elif step["do"] == "session":
                if now is None or now[0] not in tracks_of(f"/music/{step['path']}"):
                    yield Finding(at, name, "heard", f"{now}, {late} s after the session of {step['path']}")
                elif is_linked(papers.told_last(name, step["begun"])[0]):
                    shown = papers.told_last(name, at)[0]["session"]
                    if shown != "other":
                        yield Finding(at, name, "owner", f"is shown as {shown}'s, {late} s after another's session")


def an_undo_goes_back(papers):
    """What played when a queue was taken away plays on from there once that is undone."""
    for name, room in papers.rooms.items():
        steps = [step for step in papers.steps.values() if "begun" in step and papers.concerns(step, name) and
                 (moves_the_music(step) or word_of(step) == "clear")]
        for before, step in zip(steps, steps[1:]):
            if word_of(step) != "undo" or word_of(before) not in ("clear", "play now") or not before["is_ours"] or \
                    not was_taken(before) or not was_taken(step):
                continue
            at = step["done"] + HASTE
            then, now = room.at(before["begun"] - 0.02), room.at(at)
            told, _ = papers.told_last(name, before["begun"])
            alone = all(each in (before, step) or each["begun"] > at or
                        each.get("done", at) + late_of(each, False) < before["begun"] for each in steps)
            if then is None or then[0] == music.RADIO or told["state"] != "playing" or not alone:
                continue
            if LENGTH_OF.get(then[0], 0) - then[1] < 2 * HASTE or papers.is_refused(name, at):
                continue
            if now is None or now[0] != then[0] or not then[1] - 0.1 < now[1] < then[1] + 2 * HASTE:
                yield Finding(at, name, "undo", f"{now}, {HASTE} s after an undo; before it was {then}")


LOOPS = {"off": "None", "one": "Track", "all": "Playlist"}
# A media player's, by the page's names and as the page has them.
PLAYER_SETTINGS = {"Volume": ("volume", lambda text: round(float(text) * 100)),
                   "Shuffle": ("shuffle", lambda text: text == "true"),
                   "LoopStatus": ("loop", lambda text: {own: page for page, own in LOOPS.items()}[text])}


def settings_of(step):
    """What a press sets, by the page's names."""
    if step["do"] == "command" and step["command"]["command"] in ("volume", "mute", "shuffle", "loop"):
        return {key: value for key, value in step["command"].items() if key != "command"}
    if step["do"] == "mpris" and step["member"] == "Set":
        key, read = PLAYER_SETTINGS[word_of(step)]
        return {key: read(step["words"][2].split(":")[-1])}
    return {}


def may_set(step, key):
    """It may change what a press had set."""
    if key in ("shuffle", "loop"):
        return moves_the_music(step) and word_of(step) not in (
            "play", "pause", "toggle", "next", "previous", "stop", "seek", "seek by", "queue_jump", "queue_remove")
    return breaks(step) or word_of(step) in ("volume", "Volume", "mute", "SetMute", "session", "move")


def is_set_to(shown, wanted, step_of_volume):
    """A mixer has its own steps."""
    return shown == wanted or (type(wanted) is int and shown is not None and abs(shown - wanted) <= step_of_volume)


def what_was_set_stays(papers):
    """From a second after a press until another one may change it the page shows what was pressed."""
    for name in papers.names:
        told = list(papers.states_of(name))
        for step in papers.steps.values():
            if step.get("room") != name or not was_taken(step):
                continue
            for key, wanted in settings_of(step).items():
                others = [each for each in papers.steps.values() if each is not step and "begun" in each and
                          papers.concerns(each, name) and (key in settings_of(each) or may_set(each, key)) and
                          each.get("done", papers.closed) + (MENDING if breaks(each) else HASTE) > step["begun"]]
                until = min([papers.closed, *(each["begun"] for each in others)])
                for at, device in told:
                    shown = device.get(key)
                    if shown is not None and step["done"] + 1 < at < until and device["session"] == "us" and \
                            device["connected"] and \
                            not is_set_to(shown, wanted, papers.step_of_volume(name)):
                        yield Finding(at, name, "set", f"{key} is shown as {shown}, {at - step['done']:.1f} s after it "
                                      f"was set to {wanted}")
                        break


STATES = {"playing": ["Playing"], "paused": ["Paused"], "stopped": ["Stopped", "Paused"]}


def all_show_the_same(papers):
    """At the end page, device and card agree on what is set and on what plays."""
    for event in papers.of_kind("player"):
        name = event["room"]
        device, told = papers.told_last(name, event["at"])
        if device is None or device["session"] != "us" or not device["connected"]:
            continue
        if event["PlaybackStatus"] is None:
            yield Finding(event["at"], name, "same", "its media player does not answer")
            continue
        position = device["position_ms"] / 1000
        is_stopped = device["state"] == "stopped"  # a device is told its modes while it has the output
        is_away = papers.card_was_away(name)
        is_unknown = device.get("volume") is None or is_away
        if device["state"] == "playing":
            position += event["at"] - told
        volume, muted = re.search(r"element +present, volume (\d+) \d+, (on|off)", event["card"]).groups()
        volume = int(volume) * papers.step_of_volume(name)
        for what, page, own, is_same in [
                ("state", device["state"], event["PlaybackStatus"],
                 event["PlaybackStatus"] in STATES.get(device["state"], [event["PlaybackStatus"]])),
                ("shuffle", device["shuffle"], event["Shuffle"], is_stopped or
                 str(device["shuffle"]).lower() == event["Shuffle"]),
                ("loop", device["loop"], event["LoopStatus"], is_stopped or
                 LOOPS[device["loop"]] == event["LoopStatus"]),
                ("volume", device.get("volume"), event["Volume"], is_away if device.get("volume") is None else
                 abs(float(event["Volume"]) * 100 - device["volume"]) <= 1),
                ("card's volume", device.get("volume"), volume, is_unknown or
                 abs(device["volume"] - volume) <= papers.step_of_volume(name)),
                ("muted", device["muted"], muted, is_unknown or device["muted"] == (muted == "off")),
                ("position", position, event["Position"], device["state"] != "playing" or
                 abs(position - int(event["Position"]) / 1e6) < TOLD_LATE + 0.2)]:
            if not is_same:
                yield Finding(event["at"], name, "same", f"{what}: the page shows {page}, the device {own}")


def queues_are_as_edited(papers):
    for name in papers.names:
        for step in papers.steps.values():
            if step.get("room") != name or step["do"] != "queue" or not was_taken(step) or len(step["result"]) < 3:
                continue
            if papers.is_refused(name, step["begun"]):
                continue  # the next track ends the session
            if any(each is not step and papers.concerns(each, name) and each.get("begun", papers.closed) < step["done"]
                   and each.get("done", papers.closed) + HASTE > step["begun"] for each in papers.steps.values()):
                continue
            edit = step["result"][2]
            wanted = list(edit["items"])
            moves = step["edit"] == "move" and edit["item"] != edit["before"]
            if moves or step["edit"] == "remove":
                wanted.remove(edit["item"])
            if moves:
                wanted.insert(wanted.index(edit["before"]), edit["item"])
            if edit["after"] != wanted:
                yield Finding(step["done"], name, "queue", f"{edit['after']} after {step['edit']} of {edit['item']} before "
                              f"{edit['before']} in {edit['items']}")


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
                    each.get("program") == "controller" or each["do"] == "disk"
                    for each in papers.causes(name, step["done"], breaks)):
                yield Finding(step["done"], name, "answer", f"{status} to step {step['step']}, {step['do']}: {said}")
        elif step["do"] in ("card", "line") and isinstance(result, str) and "Error" in result:
            yield Finding(step["done"], name, "answer", result)


def nobody_ends_unasked(papers):
    asked = collections.Counter()
    for event in papers.events:
        if event["kind"] == "begun" and papers.steps[event["step"]]["do"] == "end":
            step = papers.steps[event["step"]]
            asked[step["place"], step["program"]] += 1
            if step["program"] == "bus":  # which Avahi does not outlive
                asked[step["place"], "avahi"] += 1
        elif event["kind"] == "ended" and event["at"] < papers.closed:
            key = event["place"], event["program"]
            asked[key] -= 1
            if asked[key] < 0:
                yield Finding(event["at"], event["place"], "ended", f"{event['program']}: {event['status']}")
        is_over = papers.ends_early and event["at"] >= papers.closed
        if event["kind"] == "ended" and event["program"] in ("device", "controller") and not is_over and \
                event["status"] not in (0, -9):
            yield Finding(event["at"], event["place"], "ended", f"{event['program']}: {event['status']}")


# Of the page and of who was told something a controller has connections yet.
MORE = {"device": {"descriptors": 3, "threads": 2, "kib": 2000},
        "controller": {"descriptors": 6, "threads": 2, "kib": 6000}}


def nothing_is_left_behind(papers):
    begin = {}
    restarted = {(step.get("place"), step.get("program")) for step in papers.steps.values() if step["do"] == "end"}
    for event in papers.of_kind("usage"):
        key = event["place"], event["program"]
        if event["when"] == "begin":
            begin[key] = event
        elif key not in restarted and "kib" in event:
            for what, more in MORE[key[1]].items():
                if event[what] > begin[key][what] + more:
                    yield Finding(event["at"], key[0], "left", f"{key[1]}: {what} {begin[key][what]} to {event[what]}")


LOGGED = re.compile(r"^(\d{8} [\d:.]+) \[[\d.]+\] (ERROR|WARNING) (.*)")
# Beside what may_be_logged() tells: a radio that is to be sought in, and the last moment of a track, behind which the
# next one is opened anew.
BY_PRESSES = {"can't be positioned": lambda step: word_of(step).startswith("seek"),
              "Unable to get buffered frame count": moves_the_music}
OF_A_CARD = ("ALSA", "The renderer reports a playback error")
# What each start says of a card with several formats and no platform's output file system.
AT_START = ("Nuvio outputfs = Invalid", "SND_PCM_FORMAT_")


def may_lead_to(line, step):
    return may_be_logged(step) or any(words in line and may(step) for words, may in BY_PRESSES.items())


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
            if any(words in line for words in OF_A_CARD) and papers.card_was_away(name):
                continue
            may = functools.partial(may_lead_to, line)
            if not any(papers.is_refused(name, at) or
                       any(papers.causes(name, at, may, plays_the_radio(papers.told_last(name, at)[0])))
                       for at in candidates):
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


RULES = [no_frame_is_lost, a_seek_is_prompt, what_is_pressed_is_heard, an_undo_goes_back, the_position_shown_is_heard,
         a_pause_stands_still, a_station_is_titled, tracks_follow_each_other, a_looped_track_comes_again,
         another_source_is_alone, the_end_is_as_told, what_was_set_stays, all_show_the_same, queues_are_as_edited,
         revisions_grow, answers_are_those_of_the_api, nobody_ends_unasked, nothing_is_left_behind, errors_have_causes]


def check(folder):
    papers = Papers(folder)
    found = [finding for rule in RULES for finding in rule(papers)]
    return sorted(found, key=lambda finding: finding.at), papers
