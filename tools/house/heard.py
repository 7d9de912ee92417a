"""What a room's card was heard to play, and when, from its recordings."""
import bisect
import functools
import pathlib

import music

FRAME = 4  # bytes
SURE = 16  # frames by which the radio is known
JOINED = 4608  # frames at most of a stream's beginning that its decoder makes otherwise
WINDOW = 4096  # frames
STRANGE = 16  # frames of no track, behind which the radio is not sought in a recording any more
ROUNDED = 2  # by which a sample of the radio may be off


@functools.cache
def track(number):
    """Frames of that track, as a card plays them, and its rate; none where there is no such track."""
    for each, _, rate, count in music.tracks():
        if each == number:
            return music.frames_of(number, count), rate
    return None


def frame_at(data, frame):
    """Track and place of a recorded frame; track 0 is silence."""
    left, right = (int.from_bytes(data[frame * FRAME + at:frame * FRAME + at + 2], "little") for at in (0, 2))
    return left >> music.HIGH, (left & (1 << music.HIGH) - 1) << 16 | right


def common(data, at, other, first):
    """How many frames from `at` are those of the other from `first` on."""
    most = min(len(data) // FRAME - at, len(other) // FRAME - first)
    low, high = 0, most  # `low` frames are the same
    while low < high:
        middle = (low + high + 1) // 2
        if data[(at + low) * FRAME:(at + middle) * FRAME] == other[(first + low) * FRAME:(first + middle) * FRAME]:
            low = middle
        else:
            high = middle - 1
    return low


def samples(data, frame):
    return (int.from_bytes(data[at:at + 2], "little", signed=True) for at in (frame * FRAME, frame * FRAME + 2))


def common_but_for_rounding(data, at, other, first):
    """As common(); decoders of lossy music round by where they began."""
    count, most = 0, min(len(data) // FRAME - at, len(other) // FRAME - first)
    while count < most:
        window = min(WINDOW, most - count)
        same = common(data[(at + count) * FRAME:(at + count + window) * FRAME], 0,
                      other[(first + count) * FRAME:(first + count + window) * FRAME], 0)
        count += same
        if same < window:
            if any(abs(one - wanted) > ROUNDED for one, wanted in zip(
                    samples(data, at + count), samples(other, first + count))):
                break
            count += 1
    return count


def radio_at(data, at):
    """Where in what the station sends that is, and for how long; a decoder's first frames are taken for it too."""
    radio = music.frames_of_the_radio()
    for ahead in range(0, JOINED, SURE):
        known = data[(at + ahead) * FRAME:(at + ahead + SURE) * FRAME]
        place = radio.find(known) if len(known) == SURE * FRAME and any(known) else -1
        if place >= 0 and place % FRAME == 0:
            first = place // FRAME
            return first, ahead + common_but_for_rounding(data, at + ahead, radio, first)
    return 0, 0


class Stretch:
    """Frames of one track in their order, without a gap."""

    def __init__(self, track_number, first, count, at):
        self.track, self.first, self.count, self.at = track_number, first, count, at

    def is_at_end(self):
        known = track(self.track)
        return known is not None and (self.first + self.count) * FRAME == len(known[0])

    def __str__(self):
        if self.track < 0:
            return f"{self.count} frames of no track"
        if self.track == music.RADIO:
            begin, end = (frame / music.RADIO_RATE for frame in (self.first, self.first + self.count))
            return f"the radio, {begin:.3f} s to {end:.3f}"
        return f"track {self.track}, frames {self.first} to {self.first + self.count}"


class Recording:
    def __init__(self, path):
        self.path = path
        data = path.read_bytes()
        text = path.with_suffix(".txt").read_text()
        self.about = dict(line.split("=", 1) for line in text.splitlines())
        self.rate = int(self.about["rate"])
        whole, _, _ = path.with_suffix(".times").read_text().rpartition("\n")  # a device that was killed wrote no end
        lines = [line.split() for line in whole.splitlines()]
        self.frames, self.seconds = [int(frame) for frame, _ in lines], [int(ns) / 1e9 for _, ns in lines]
        self.count = min(len(data) // FRAME, self.frames[-1] if self.frames else 0)
        self.stretches = list(self.split(data[:self.count * FRAME]))

    def split(self, data):
        at = unknown = 0  # frames of no track
        while at < self.count:
            number, first = frame_at(data, at)
            known = track(number)
            count = common(data, at, known[0], first) if known else 0
            if count < SURE:
                of_radio, frames = radio_at(data, at) if unknown < STRANGE else (0, 0)
                if frames:
                    number, first, count = music.RADIO, of_radio, frames
                elif count == 0 and (number, first) != (0, 0) and self.count < JOINED:
                    number, first, count = music.RADIO, 0, self.count - at  # it ended before it could be known
                elif count == 0:
                    number, first, count = (0 if number == first == 0 else -1), 0, 1
                    unknown += number < 0
                    while at + count < self.count and (
                            frame_at(data, at + count) == (0, 0) if number == 0 else
                            unknown >= STRANGE and track(frame_at(data, at + count)[0]) is None):
                        count += 1
            yield Stretch(number, first, count, at)
            at += count

    def time_of(self, frame):
        """When that many frames had been heard, as late as possible where the card stood still then."""
        after = min(bisect.bisect_right(self.frames, frame), len(self.frames) - 1)
        before = max(after - 1, 0)
        if self.frames[after] <= frame:
            return self.seconds[after]
        share = (frame - self.frames[before]) / (self.frames[after] - self.frames[before])
        return self.seconds[before] + share * (self.seconds[after] - self.seconds[before])

    def frame_at_time(self, at):
        """How many frames had been heard then; none outside of the recording."""
        if not self.seconds or not self.seconds[0] <= at <= self.seconds[-1]:
            return None
        after = min(bisect.bisect_right(self.seconds, at), len(self.seconds) - 1)
        before = after - 1
        passed = self.seconds[after] - self.seconds[before]
        share = (at - self.seconds[before]) / passed if passed else 0
        return self.frames[before] + share * (self.frames[after] - self.frames[before])

    def stands_at(self, at):
        """The card stood still then."""
        after = bisect.bisect_right(self.seconds, at)
        return not 0 < after < len(self.seconds) or self.frames[after] == self.frames[after - 1]


class Room:
    def __init__(self, folder):
        self.recordings = [Recording(path) for path in sorted(pathlib.Path(folder).glob("card/recordings/*.raw"))
                           if path.with_suffix(".times").exists()]

    def first_stretch(self):
        """What was heard first, and in which recording."""
        return next(((recording.stretches[0], recording) for recording in self.recordings if recording.stretches),
                    (None, None))

    def last_before(self, at):
        """Track and second of what was heard last before a time."""
        last = (None, None)
        for recording in self.recordings:
            if recording.seconds and recording.seconds[0] <= at:
                frame = recording.frame_at_time(min(at, recording.seconds[-1]))
                for stretch in recording.stretches:
                    if stretch.at < frame:
                        last = stretch.track, (stretch.first + min(frame - stretch.at, stretch.count)) / recording.rate
        return last

    def at(self, at):
        """Track and second of what is heard at a time; none where nothing is."""
        for recording in self.recordings:
            frame = recording.frame_at_time(at)
            if frame is not None and not recording.stands_at(at):
                for stretch in recording.stretches:
                    if stretch.at <= frame < stretch.at + stretch.count:
                        return stretch.track, (stretch.first + frame - stretch.at) / recording.rate
        return None
