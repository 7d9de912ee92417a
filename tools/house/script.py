"""What one number makes of a house: its rooms, and what happens in it and when. Pure."""
import random

import music

NAMES = ["Kitchen", "Attic", "Bath", "Cellar", "Den", "Hall", "Loft", "Porch", "Study", "Yard"]
CARDS = [(340, 4), (500, 4), (1000, 8)]  # ms of buffer, periods
QUIET = 12  # s at the end, when nothing happens but a radio's new title, and all is mended
WARM = 1    # s before the first thing
BEGIN = 0.65  # s for each room's beginning to play, or two for all: one processor has all of them
TOGETHER = 20  # s for which two rooms are left to themselves, with the same session
PAIRS = 0.25  # of the houses have one
CUTS = 0.3  # of the houses end by a power cut
PACE = 4    # s between two things that happen in one room, on average, but for hurries
RADIO = 0.1  # of what is to play
HURRIES = 0.3  # of the presses come right behind the one before, mostly in the same room
TEMPERS = [0, 0, 0.5, 1, 2]  # how much breaks in a house, of what is pressed


class Script:
    def __init__(self, seed, count, minutes):
        self.rng = random.Random(seed)
        self.seed, self.seconds = seed, 60 * minutes
        self.rooms = [self.room(name) for name in self.rng.sample(NAMES, count)]
        self.names = [room["name"] for room in self.rooms]
        self.steps = []
        self.busy = {}  # what is broken: until when
        self.sessions = self.kept = self.titles = 0
        self.last, self.is_hurried = self.names[0], False
        # Two that are given one session at the same moment.
        self.pair = self.rng.sample(self.names, 2) if count >= 4 and self.rng.random() < PAIRS else []

    def room(self, name):
        buffer, periods = self.rng.choice(CARDS)
        speed = 1 + self.rng.uniform(-100, 100) / 1e6
        return {"name": name, "card": ["--speed", f"{speed:.7f}", "--buffer", str(buffer), "--periods", str(periods),
                                       "--range", self.rng.choice(["0..31", "0..100", "0..255"])]}

    # ---- What a person does --------------------------------------------------------------------

    def somewhere(self):
        self.last = self.last if self.is_hurried and self.rng.random() < 0.7 else self.rng.choice(self.names)
        return self.last

    def what(self):
        number = self.rng.randrange(len(music.ALBUMS))
        if self.rng.random() < RADIO:
            return f"station:{music.STATION}"
        return self.rng.choice([f"search:{self.title()}", f"/music/{number}",
                                f"/music/{self.rng.choice(list(music.tracks()))[1]}"])

    def title(self):
        """Of an album whose files say it."""
        return self.rng.choice([title for title, _, kind, _, _ in music.ALBUMS if kind == "flac"])

    def play(self):
        return {"do": "play", "room": self.somewhere(), "what": [self.what()],
                "where": self.rng.choice(["now", "now", "now", "next", "end"])}

    def command(self):
        name, arguments = self.rng.choice([
            ("play", {}), ("play", {}), ("pause", {}), ("next", {}), ("previous", {}), ("stop", {}),
            *[("seek", {"position_ms": self.rng.randrange(0, 15_000)})] * 3,
            ("volume", {"volume": self.rng.randrange(101)}),
            ("volume", {"volume": self.rng.randrange(101)}), ("mute", {"muted": self.rng.random() < 0.5}),
            ("shuffle", {"shuffle": self.rng.random() < 0.5}),
            ("loop", {"loop": self.rng.choice(["off", "one", "all"])})])
        return {"do": "command", "room": self.somewhere(), "command": {"command": name, **arguments}}

    def shell(self):
        room = self.somewhere()
        return {"do": "shell", "room": room, "words": self.rng.choice([
            ["pause", room], ["resume", room], ["next", room], ["volume", room, f"+{self.rng.randrange(9)}"],
            ["seek", room, "+3"], ["queue", room], ["devices"],
            ["play", room, self.title(), "--no-wait"]])}

    def move(self):
        room, to = self.rng.sample(self.names, 2)
        return {"do": "move", "room": room, "to": to}

    def tell_title(self):
        """What the radio's station says that it plays."""
        self.titles += 1
        return {"do": "title", "title": f"Song {self.titles}"}

    def queue(self):
        """Items by how far into the queue they are; the director knows which they are then."""
        return {"do": "queue", "room": self.somewhere(), "edit": self.rng.choice(["remove", "move", "move", "jump"]),
                "item": self.rng.random(), "before": self.rng.random()}

    def undo(self):
        return {"do": "undo", "room": self.somewhere(), "what": self.rng.choice(["clear", "undo", "undo"])}

    def mpris(self):
        """At the device itself: as any player on its message bus is pressed."""
        member, words = self.rng.choice([
            ("Pause", []), ("Play", []), ("PlayPause", []), ("Next", []), ("Previous", []), ("Stop", []),
            ("Seek", [f"int64:{self.rng.choice([-3, 2, 4])}000000"]),
            *[("Set", ["string:org.mpris.MediaPlayer2.Player", f"string:{name}", f"variant:{value}"]) for name, value in [
                ("Volume", f"double:0.{self.rng.randrange(10)}"),
                ("Shuffle", "boolean:" + self.rng.choice(["true", "false"])),
                ("LoopStatus", "string:" + self.rng.choice(["None", "Track", "Playlist"]))]]])
        return {"do": "mpris", "room": self.somewhere(), "member": member, "words": words}

    def panel(self):
        member, words = self.rng.choice([
            ("SetMute", ["boolean:true"]), ("SetMute", ["boolean:false"]), ("Standby", []), ("RefuseNextRequest", [])])
        return {"do": "panel", "room": self.somewhere(), "member": member, "words": words}

    def session(self):
        self.sessions += 1
        return {"do": "session", "room": self.somewhere(), "session": f"stranger-{self.sessions}",
                "from": self.rng.choice(["web", "disk"]), "path": self.rng.choice(list(music.tracks()))[1]}

    def keep(self):
        """What is to be there for good, once it was acknowledged; each by a word of its own."""
        self.kept += 1
        return self.rng.choice([
            {"do": "keep", "path": "stations", "body": {"name": f"Station {self.kept}", "url": "http://10.7.0.1/"}},
            {"do": "keep", "room": self.somewhere(), "path": "alarms", "body": {
                "time": f"23:{self.kept % 60:02}", "days": ["mon"], "what": f"search:{music.ALBUMS[0][0]}"}},
            {"do": "keep", "room": self.somewhere(), "path": "name", "body": {"name": f"Room {self.kept}"}}])

    # ---- What breaks: two steps, the second one mends it ----------------------------------------

    def restart(self):
        place, program = self.rng.choice([("Closet", "controller"), ("Closet", "web"), ("Closet", "avahi"),
                                          ("Closet", "radio"), *((name, program) for name in self.names
                                                                 for program in ("device", "avahi", "bus"))])
        what = {"place": place, "program": program}
        return ({"do": "end", "how": self.rng.choice(["term", "kill"]), **what}, {"do": "start", **what},
                (place, program), self.rng.uniform(0.1, 4))

    def pull_card(self):
        room = self.rng.choice(self.names)
        out, back = self.rng.choice([(["gone"], ["plug"]), (["element", "remove"], ["element", "restore"])])
        return ({"do": "card", "room": room, "words": out}, {"do": "card", "room": room, "words": back},
                (room, "card"), self.rng.uniform(0.2, 5))

    def bad_line(self):
        room = self.rng.choice(self.names)
        words = self.rng.choice([["loss", "100%"], ["delay", "80ms", "20ms"], ["delay", "10ms", "loss", "3%"],
                                 ["rate", "3mbit"]])
        return ({"do": "line", "room": room, "words": words}, {"do": "line", "room": room, "words": []},
                (room, "line"), self.rng.uniform(0.5, 8))

    def other_source(self):
        """What is connected to the device besides is listened to for a while."""
        room = self.rng.choice(self.names)
        return ({"do": "panel", "room": room, "member": "TakeOutput", "words": [f"int32:{self.rng.randrange(1, 9)}"]},
                {"do": "panel", "room": room, "member": "GiveBackOutput", "words": []},
                (room, "output"), self.rng.uniform(0.2, 5))

    def full_disk(self):
        return {"do": "disk", "full": True}, {"do": "disk", "full": False}, ("disk",), self.rng.uniform(1, 6)

    def clock(self):
        by = self.rng.choice([-3600, -40, 40, 3600])
        return {"do": "clock", "by": by}, {"do": "clock", "by": -by}, ("clock",), self.rng.uniform(1, 10)

    def add(self, at, step):
        self.steps.append({"at": round(at, 3), **step})

    def cut_power(self):
        """In some houses the power is cut in the midst of it all, behind something that was to be kept."""
        self.seconds = round(self.rng.uniform(WARM + 5, self.seconds - QUIET), 3)
        self.steps = [step for step in self.steps if step["at"] < self.seconds]
        for _ in range(3):
            self.add(self.seconds - self.rng.uniform(0.05, 1.5), self.keep())

    def write(self):
        everyone, self.names = self.names, [name for name in self.names if name not in self.pair]
        for name in self.pair:
            self.add(WARM, {"do": "session", "room": name, "session": "together", "from": "disk", "path": "0/0.flac"})
        for name in self.names:
            self.add(self.rng.uniform(WARM, WARM + max(2, BEGIN * len(self.names))),
                     {"do": "play", "room": name, "what": [self.what()], "where": "now"})
        at, last = WARM + 2, self.seconds - QUIET
        pressed = [(self.play, 6), (self.command, 14), (self.queue, 4), (self.undo, 2), (self.mpris, 4),
                   (self.panel, 0.7), (self.shell, 1.5), (self.move, 1), (self.session, 1.5), (self.keep, 1.5),
                   (self.tell_title, 1)]
        temper = self.rng.choice(TEMPERS)
        broken = [(self.restart, 2 * temper), (self.pull_card, temper), (self.bad_line, temper),
                  (self.other_source, 0.7 * temper), (self.clock, 0.3 * temper), (self.full_disk, 0.3 * temper)]
        while True:
            self.names = everyone if at > WARM + TOGETHER else self.names
            kinds, weights = zip(*pressed, *broken)
            self.is_hurried = self.rng.random() < HURRIES
            at += self.rng.uniform(0.01, 0.3) if self.is_hurried else self.rng.expovariate(len(self.rooms) / PACE)
            if at >= last:
                break
            [make] = self.rng.choices(kinds, weights)
            made = make()
            if isinstance(made, dict):
                self.add(at, made)
            else:
                first, second, key, seconds = made
                end = min(at + seconds, last)
                if self.busy.get(key, 0) < at:
                    self.busy[key] = end + 1
                    self.add(at, first)
                    self.add(end, second)
        is_cut = self.rng.random() < CUTS
        if is_cut:
            self.cut_power()
        else:
            self.add(last + 1, self.tell_title())
        self.steps.sort(key=lambda step: step["at"])
        return {"seed": self.seed, "seconds": self.seconds, **({"cut": True} if is_cut else {}),
                "rooms": self.rooms, "pair": self.pair,
                "steps": [{"step": number, **step} for number, step in enumerate(self.steps)]}


def write(seed, count, minutes):
    return Script(seed, count, minutes).write()
