"""The card's period, and what ours and aplay, on the same one and the same buffer and with the same file,
cost on it."""
import functools

from lab import Aplay, Device
from rows import CD, DECODER_TURN, HI_RES, Row, in_turn, label, median_of

TURNS = 4  # of a whole buffer, at least, in what is measured: it is filled where half of it has played
PERIODS_MS = (5, 10, 20, 50, 125, 250, 500)


def buffer_of(period_ms):
    """Of eight periods, as a program without wishes gets one from most cards; the short ones have more."""
    return max(8 * period_ms, 400)


def aplay_on(period_ms):
    return ("--period-time", str(1000 * period_ms), "--buffer-time", str(1000 * buffer_of(period_ms)))


def periods(lab, music, rounds):
    for period in PERIODS_MS:
        buffer = buffer_of(period)
        card = ("--buffer", str(buffer), "--periods", str(buffer // period))
        aplay = functools.partial(Aplay, options=aplay_on(period), converts=True)
        seconds = max(DECODER_TURN, TURNS * buffer / 1000)
        for format in (CD, HI_RES):
            windows = in_turn(lab, (Device, aplay), music.wav[format], card, rounds, seconds)
            (cpu, wakeups), (their_cpu, their_wakeups) = (
                (median_of(measured, "cpu_ms"), median_of(measured, "wakeups")) for measured in windows.values())
            underruns = sum(window.underruns for window in windows[Device])
            yield Row(f"periods of {period} ms, buffer of {buffer} ms, WAV {label(*format)}: CPU per second of audio",
                      "<= aplay with the same, no underrun",
                      f"{cpu:.2f} ms, aplay {their_cpu:.2f} ms: {cpu / their_cpu:.2f} x; wake-ups a second "
                      f"{wakeups:.1f}, aplay {their_wakeups:.1f}; underruns {underruns}",
                      cpu <= their_cpu and underruns == 0)
