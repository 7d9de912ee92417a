"""What one number makes of a house: its rooms, and what happens in it and when. Pure."""
import random

import music

NAMES = ["Kitchen", "Attic", "Bath", "Cellar", "Den", "Hall", "Loft", "Porch", "Study", "Yard"]
CARDS = [(340, 4), (500, 4), (1000, 8)]  # ms of buffer, periods
QUIET = 14  # s at the end, when nothing happens and all is mended
WARM = 1    # s before the first thing
TOGETHER = 20  # s for which two rooms are left to themselves, with the same session
PAIRS = 0.25  # of the houses have one
CUTS = 0.3  # of the houses end by a power cut
PACE = 6    # s between two things that happen in one room, on average
TEMPERS = [0, 0, 0.5, 1, 2]  # how much breaks in a house, of what is pressed


class Script:
    def __init__(self, seed, count, minutes):
        self.rng = random.Random(seed)
        self.seed, self.seconds = seed, 60 * minutes
        self.rooms = [self.room(name) for name in self.rng.sample(NAMES, count)]
        self.names = [room["name"] for room in self.rooms]
        self.steps = []
        self.busy = {}  # what is broken: until when
        self.sessions = self.kept = 0
        # Two that are given one session at the same moment.
        self.pair = self.rng.sample(self.names, 2) if count >= 4 and self.rng.random() < PAIRS else []

    def room(self, name):
        buffer, periods = self.rng.choice(CARDS)
        speed = 1 + self.rng.uniform(-100, 100) / 1e6
        return {"name": name, "card": ["--speed", f"{speed:.7f}", "--buffer", str(buffer), "--periods", str(periods),
                                       "--range", self.rng.choice(["0..31", "0..100", "0..255"])]}

    # ---- What a person does --------------------------------------------------------------------

    def what(self):
        number = self.rng.randrange(len(music.ALBUMS))
        return self.rng.choice([f"search:{music.ALBUMS[number][0]}", f"/music/{number}",
                                f"/music/{self.rng.choice(list(music.tracks()))[1]}"])

    def play(self):
        return {"do": "play", "room": self.rng.choice(self.names), "what": [self.what()],
                "where": self.rng.choice(["now", "now", "now", "next", "end"])}

    def command(self):
        name, arguments = self.rng.choice([
            ("play", {}), ("play", {}), ("pause", {}), ("next", {}), ("previous", {}), ("stop", {}),
            *[("seek", {"position_ms": self.rng.randrange(0, 15_000)})] * 3,
            ("volume", {"volume": self.rng.randrange(101)}),
            ("volume", {"volume": self.rng.randrange(101)}), ("mute", {"muted": self.rng.random() < 0.5}),
            ("shuffle", {"shuffle": self.rng.random() < 0.5}),
            ("loop", {"loop": self.rng.choice(["off", "one", "all"])})])
        return {"do": "command", "room": self.rng.choice(self.names), "command": {"command": name, **arguments}}

    def shell(self):
        room = self.rng.choice(self.names)
        return {"do": "shell", "room": room, "words": self.rng.choice([
            ["pause", room], ["resume", room], ["next", room], ["volume", room, f"+{self.rng.randrange(9)}"],
            ["seek", room, "+3"], ["queue", room], ["devices"],
            ["play", room, music.ALBUMS[self.rng.randrange(3)][0], "--no-wait"]])}

    def move(self):
        room, to = self.rng.sample(self.names, 2)
        return {"do": "move", "room": room, "to": to}

    def session(self):
        self.sessions += 1
        return {"do": "session", "room": self.rng.choice(self.names), "session": f"stranger-{self.sessions}",
                "from": self.rng.choice(["web", "disk"]), "path": self.rng.choice(list(music.tracks()))[1]}

    def keep(self):
        """What is to be there for good, once it was acknowledged; each by a word of its own."""
        self.kept += 1
        return self.rng.choice([
            {"do": "keep", "path": "stations", "body": {"name": f"Station {self.kept}", "url": "http://10.7.0.1/"}},
            {"do": "keep", "room": self.rng.choice(self.names), "path": "alarms", "body": {
                "time": f"23:{self.kept % 60:02}", "days": ["mon"], "what": f"search:{music.ALBUMS[0][0]}"}},
            {"do": "keep", "room": self.rng.choice(self.names), "path": "name", "body": {"name": f"Room {self.kept}"}}])

    # ---- What breaks: two steps, the second one mends it ----------------------------------------

    def restart(self):
        place, program = self.rng.choice([("Closet", "controller"), ("Closet", "web"), ("Closet", "avahi"),
                                          *((name, program) for name in self.names for program in ("device", "avahi"))])
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
            self.add(self.rng.uniform(WARM, WARM + 2),
                     {"do": "play", "room": name, "what": [self.what()], "where": "now"})
        at, last = WARM + 2, self.seconds - QUIET
        pressed = [(self.play, 8), (self.command, 12), (self.shell, 3), (self.move, 1), (self.session, 2),
                   (self.keep, 1.5)]
        temper = self.rng.choice(TEMPERS)
        broken = [(self.restart, 2 * temper), (self.pull_card, temper), (self.bad_line, temper),
                  (self.clock, 0.3 * temper)]
        while at < last:
            self.names = everyone if at > WARM + TOGETHER else self.names
            kinds, weights = zip(*pressed, *broken)
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
            at += self.rng.expovariate(len(self.rooms) / PACE)
        is_cut = self.rng.random() < CUTS
        if is_cut:
            self.cut_power()
        self.steps.sort(key=lambda step: step["at"])
        return {"seed": self.seed, "seconds": self.seconds, **({"cut": True} if is_cut else {}),
                "rooms": self.rooms, "pair": self.pair,
                "steps": [{"step": number, **step} for number, step in enumerate(self.steps)]}


def write(seed, count, minutes):
    return Script(seed, count, minutes).write()
