"""The measurements: each function yields rows of the table."""
import concurrent.futures
import contextlib
import ctypes
import gc
import http.client
import json
import multiprocessing
import os
import random
import re
import shutil
import statistics
import subprocess
import threading
import time

from lab import (Aplay, Device, Mpd, ServerCard, Window, cpu_ns, dirty_kb, end, one_second, read_once, sound_servers, to_flac,
                 wait_for, write_wav)
import raw_websocket  # noqa: I001  lab has told where it is
from web_server import WebServer

# A ring buffer of one second, as sound cards have: a program without wishes gets periods of 125 ms,
# which is what aplay asks for. The device fills it when half has played, and wakes for its room.
CARD = ("--buffer", "1000")
WAKEUPS_PER_SECOND = 4
# s from one turn of the local core's decoder to the next, at 44.1/16: a window of this length holds one
# turn, wherever it begins.
DECODER_TURN = 3.715
SETTLED = 4  # s after which a player has shown the track and kept its settings
LOOP_THREAD = "NuvioConnectSta"  # as its name is cut by the kernel
# What `nuvio-connect --setup --card default` sets as the shortest period by default, in us: the plug-ins
# of the sound servers then ask for less of their servers' attention.
SETUP_PERIOD_US = 250_000
# As ALSA's stock defaults make it of a USB card: the smallest period of at least 5 ms, then the largest
# buffer.
STOCK_CARD = ("--buffer", "2000", "--periods", "400")

CD = (44100, 16)
HI_RES = (192000, 24)


class Row:
    def __init__(self, what, goal, measured, is_met=None):
        self.what, self.goal, self.measured, self.is_met = what, goal, measured, is_met


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * percent / 100))]


def label(rate, bits):
    return f"{rate / 1000:g}/{bits}"


def median_of(windows, field):
    return statistics.median(getattr(window, field) for window in windows)


class Music:
    """The files, made once."""

    def __init__(self, lab, seconds):
        self.wav, self.flac = {}, {}
        for rate, bits in (CD, (48000, 24), (96000, 24), HI_RES):
            path = lab.folder / f"{rate}-{bits}.wav"
            second = one_second(rate, bits)
            self.wav[rate, bits] = write_wav(path, second, rate, bits, seconds)
            if (rate, bits) == HI_RES:
                # For aplay, which does not unpack the 3-byte samples of the file by itself.
                path.with_suffix(".raw").write_bytes(second * seconds)
                read_once(path.with_suffix(".raw"))
        for format in (CD, HI_RES):
            self.flac[format] = to_flac(self.wav[format])


# ---- CPU, wake-ups and memory, in turn with the peers -------------------------------------------


def play_once(lab, player, file, card_options, seconds):
    card = lab.card(*card_options)
    with player(lab, card) as running:
        running.play(file)
        time.sleep(SETTLED)
        window = Window(running.pid, seconds)
        window.underruns = card.underruns()
        running.stop()
    return window


def in_turn(lab, players, file, card_options, rounds, seconds):
    """Windows by player: A B A B."""
    windows = {player: [] for player in players}
    for _ in range(rounds):
        for player in players:
            windows[player].append(play_once(lab, player, file, card_options, seconds))
    return windows


def against(lab, peer, file, what, goal, card_options, rounds, seconds):
    windows = in_turn(lab, (Device, peer), file, card_options, rounds, seconds)
    ours, theirs = (median_of(windows[player], "cpu_ms") for player in (Device, peer))
    row = Row(f"CPU per second of audio, {what}", f"<= {goal} x {peer.name}",
              f"{ours:.2f} ms, {peer.name} {theirs:.2f} ms: {ours / theirs:.2f} x",
              ours <= goal * theirs)
    return row, windows


def playing(lab, music, rounds, seconds):
    ours, mpd = [], []
    for format in (CD, HI_RES):
        row, windows = against(lab, Aplay, music.wav[format], f"WAV {label(*format)}", 1.5, CARD,
                               rounds, seconds)
        ours += windows[Device]
        yield row
    for format in (CD, HI_RES):
        row, windows = against(lab, Mpd, music.flac[format], f"FLAC {label(*format)}", 0.7, CARD,
                               rounds, seconds)
        ours += windows[Device]
        mpd += windows[Mpd]
        yield row
    by_thread = {name: statistics.median(window.by_thread.get(name, 0) for window in ours)
                 for name in sorted(ours[0].by_thread)}
    loop = by_thread[LOOP_THREAD]
    yield Row("wake-ups a second, playing, the loop's thread", f"<= {WAKEUPS_PER_SECOND} + 1",
              f"{loop:.1f}", loop <= WAKEUPS_PER_SECOND + 1.05)
    threads = ", ".join(f"{name} {count:.1f}" for name, count in by_thread.items() if count >= 0.1)
    yield Row("... all threads", "", f"{median_of(ours, 'wakeups'):.1f} ({threads})")
    rss, rss_mpd = (max(window.rss_kb for window in w) for w in (ours, mpd))
    yield Row("resident memory, playing", "<= 1/4 of mpd",
              f"{rss / 1024:.1f} MB, mpd {rss_mpd / 1024:.1f} MB: {rss / rss_mpd:.2f}",
              4 * rss <= rss_mpd)
    underruns = sum(window.underruns for window in ours)
    yield Row("underruns in all of this", "0", str(underruns), underruns == 0)


# s from one refill of a track's read-ahead (three quarters of 4 MiB) to the next, WAV 44.1/16.
REFILL_TURN = 0.75 * 4 * 1024 * 1024 / (44100 * 4)


def network(lab, music, rounds):
    """A track over HTTP, over one burst of the network each, beside a player that does the same, and from the disk."""
    server = WebServer(str(lab.new_folder("web")), root=str(lab.folder))
    lab.stack.callback(server.kill)
    path = music.wav[CD]
    url = f"{server.url}/{path.name}"
    ways = [(Device, path), (Device, url), (Mpd, url)]
    windows = [[] for _ in ways]
    for _ in range(rounds):
        for (player, content), measured in zip(ways, windows):
            measured.append(play_once(lab, player, content, CARD, REFILL_TURN))
    file, ours, mpd = (median_of(measured, "cpu_ms") for measured in windows)
    yield Row(f"CPU per second of audio, WAV {label(*CD)} over HTTP", "<= 0.7 x mpd",
              f"{ours:.2f} ms, mpd {mpd:.2f} ms: {ours / mpd:.2f} x; from the disk {file:.2f} ms", ours <= 0.7 * mpd)
    wakeups = median_of(windows[1], "wakeups")
    yield Row("wake-ups a second, playing over HTTP, all threads", "<= 12", f"{wakeups:.1f}", wakeups <= 12)


def stock(lab, music, rounds, seconds):
    """A card with ALSA's stock defaults, beside players that ask for periods of their own."""
    means = {player: [] for player in (Device, Aplay, Mpd)}
    wakeups = {player: [] for player in means}
    for format in (CD, HI_RES):
        windows = in_turn(lab, means, music.wav[format], STOCK_CARD, rounds, seconds)
        for player, measured in windows.items():
            means[player].append(median_of(measured, "cpu_ms"))
            wakeups[player].append(median_of(measured, "wakeups"))
    ours, aplay, mpd = (statistics.mean(cpu) for cpu in means.values())
    yield Row("card with ALSA's stock defaults (periods of 5 ms, buffer of 2 s), WAV: CPU per second "
              "of audio, mean of 44.1/16 and 192/24", "<= aplay",
              f"{ours:.2f} ms, aplay {aplay:.2f} ms, mpd {mpd:.2f} ms", ours <= aplay)
    most = max(wakeups[Device])
    yield Row("... wake-ups a second at 44.1/16 and 192/24, of all threads", "<= 12", "; ".join(
        f"{player.name} {', '.join(f'{count:.0f}' for count in counts)}"
        for player, counts in wakeups.items()), most <= 12)


def idle(lab, seconds):
    with Device(lab, lab.card(*CARD)) as device:
        time.sleep(2)
        window = Window(device.pid, seconds)
    threads = ", ".join(f"{name} {count:.1f}"
                        for name, count in sorted(window.by_thread.items()) if count)
    yield Row("wake-ups a second, idle, all threads", "<= 1",
              f"{window.wakeups:.1f} ({threads})", window.wakeups <= 1)
    yield Row("CPU idle", "", f"{window.cpu_ms:.3f} ms a second")


def on_servers(lab, music, seconds):
    """As a new user has them, and with the periods that --setup makes, for all."""
    for kind in (sound_servers.PulseAudio, sound_servers.PipeWire):
        for period_us in (sound_servers.STOCK_PERIOD, SETUP_PERIOD_US):
            means = {}
            for player in (Device, Aplay, Mpd):
                windows = []
                for format in (CD, HI_RES):
                    with (ServerCard(lab, kind, *format, period_us) as card,
                          player(lab, card) as running):
                        running.play(music.wav[format])
                        time.sleep(SETTLED)
                        windows.append(Window(running.pid, seconds))
                        running.stop()
                means[player] = statistics.mean(window.cpu_ms for window in windows)
                wakeups = ", ".join(f"{window.wakeups:.0f}" for window in windows)
                if player is Device:
                    wakeups += "; of the loop's thread " + ", ".join(
                        f"{window.by_thread[LOOP_THREAD]:.0f}" for window in windows)
                yield Row(f"{kind.plug_in}, {'--setup' if period_us == SETUP_PERIOD_US else 'as installed'}, "
                          f"{player.name}: wake-ups a second at 44.1/16 and 192/24, of all threads",
                          "", wakeups)
            ours, others = means[Device], means[Aplay]
            yield Row("... CPU per second of audio, mean of both", "<= aplay",
                      f"{ours:.2f} ms, aplay {others:.2f} ms, mpd {means[Mpd]:.2f} ms",
                      ours <= others)


# ---- The way of a sample ------------------------------------------------------------------------


def whole_track(lab, file):
    """The probe's counters for one track from its first sample to its last, on a fast clock."""
    card = lab.card(*CARD, "--speed", "10", "--patient")
    with Device(lab, card, probe=True) as device:
        device.play(file)
        wait_for("end of the track", device.is_over)
        return device.probe.read()


def offers(lab, music):
    for format in (CD, HI_RES):
        counts = whole_track(lab, music.wav[format])
        yield Row(f"whole track {label(*format)}: {counts['offers']} offers, copies on the way",
                  "0", f"{counts['foreign_writes']} of {counts['writes']} writes",
                  counts["writes"] > 0 and counts["foreign_writes"] == 0)
        yield Row("... allocations, offer to snd_pcm_writei", "0",
                  f"{counts['allocations_before_write']} (after it, until the return: "
                  f"{counts['allocations_in_offer'] - counts['allocations_before_write']}, "
                  "the position's report once a second)", counts["allocations_before_write"] == 0)


def steady_allocations(lab, music, seconds):
    with Device(lab, lab.card(*CARD), probe=True) as device:
        device.play(music.wav[CD])
        time.sleep(3.5)  # past the track's announcement
        before = device.probe.read()
        time.sleep(seconds)
        after = device.probe.read()
    rate = (after["allocations"] - before["allocations"]) / seconds
    yield Row("allocations a second, playing, whole process", "", f"{rate:.1f}")


class CallBorders:
    """Sorts the system calls of one thread's strace by where they were made."""

    def __init__(self):
        self.in_offer = self.in_alsa = False
        self.wrote = False
        self.offers = 0
        self.calls = {"offer": {}, "after write": {}, "ALSA": {}, "loop": {}}

    def add(self, line):
        marker = re.match(r"fcntl\(-1, 0x6e0(\d)", line)
        if marker:
            which = int(marker[1])
            if which <= 2:
                self.in_offer, self.wrote = which == 1, False
                self.offers += which == 1
            else:
                self.in_alsa = which == 3
                self.wrote = self.wrote or which == 4
            return
        name = re.match(r"(\w+)\(", line)
        if name is None:
            return
        place = ("ALSA" if self.in_alsa else "loop" if not self.in_offer
                 else "after write" if self.wrote else "offer")
        self.calls[place][name[1]] = self.calls[place].get(name[1], 0) + 1


def system_calls(lab, music, seconds):
    if shutil.which("strace") is None:
        yield Row("system calls on the way", "0 but ALSA's", "no strace here")
        return
    with Device(lab, lab.card(*CARD), probe=True, marks=True) as device:
        device.play(music.wav[CD])
        time.sleep(3.5)
        trace = device.folder / "trace"
        tracer = subprocess.Popen(["strace", "-ff", "-o", trace, "-p", str(device.pid)],
                                  stderr=subprocess.DEVNULL)
        time.sleep(seconds)
        end(tracer)
    threads = []
    for path in device.folder.glob("trace.*"):
        borders = CallBorders()
        for line in path.read_text(errors="replace").splitlines():
            borders.add(line)
        threads.append(borders)
    loop = max(threads, key=lambda borders: borders.offers)
    names = lambda place: ", ".join(f"{name} {count / loop.offers:.1f}" for name, count in
                                    sorted(loop.calls[place].items())) or "none"
    own = sum(loop.calls["offer"].values())
    yield Row(f"system calls, offer to snd_pcm_writei, our own ({loop.offers} offers)", "0",
              str(own), loop.offers > 0 and own == 0)
    yield Row("... an offer: in ALSA (the simulated card's)", "", names("ALSA"))
    yield Row("... an offer: after the write, until the return", "", names("after write"))
    yield Row("... an offer: the loop's thread outside of offers", "", names("loop"))


def inside(lab):
    result = lab.folder / "inside.json"
    subprocess.run([lab.build / "bin/inside_bench", f"--benchmark_out={result}",
                    "--benchmark_out_format=json", "--benchmark_min_time=0.3"], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    times = {}
    for bench in json.loads(result.read_text())["benchmarks"]:
        if "error_message" in bench:
            raise RuntimeError(f"{bench['name']}: {bench['error_message']}")
        times[bench["name"].split("/")[0]] = bench["cpu_time"]
    own = times["BM_OfferOwnCode"]
    yield Row("an offer down to snd_pcm_writei and back, our own code", "<= 300 ns",
              f"{own:.0f} ns", own <= 300)
    yield Row("... with the simulated card behind it", "",
              f"{times['BM_OfferOnSimulatedCard']:.0f} ns")
    yield Row("a controller's request parsed", "", f"{times['BM_ConnectRequestParse']:.0f} ns")
    yield Row("a log line", "", f"{times['BM_LogLine']:.0f} ns")


# ---- Start, commands, HTTP ----------------------------------------------------------------------


def start(lab, times):
    took = []
    for _ in range(times):
        with Device(lab, lab.card(*CARD), probe=True) as device:
            took.append((device.answered_ns - device.probe.read()["main_ns"]) / 1e6)
    yield Row(f"from main to answering HTTP, of {times} starts", "<= 50 ms",
              f"median {statistics.median(took):.0f} ms, longest {max(took):.0f} ms",
              statistics.median(took) <= 50)


def http_load(port, rate, stop, result):
    """Both GETs in turn on connections of their own, `rate` a second, until told to stop; sends the
    seconds each took."""
    gc.disable()
    took = {"/get-display-info": [], "/get-connect-info": []}
    due = time.monotonic()
    while not stop.is_set():
        for path in took:
            begin = time.monotonic()
            connection = http.client.HTTPConnection("127.0.0.1", port, timeout=10)
            connection.request("GET", path)
            answer = connection.getresponse()
            answer.read()
            connection.close()
            if answer.status != 200:
                raise RuntimeError(f"{path}: {answer.status}")
            took[path].append(time.monotonic() - begin)
            due += 1 / rate
            time.sleep(max(0, due - time.monotonic()))
    result.put(took)


@contextlib.contextmanager
def under_load(device, rate):
    """Yields a dictionary that holds the times when the load is over."""
    stop, result, took = multiprocessing.Event(), multiprocessing.Queue(), {}
    load = multiprocessing.Process(target=http_load, args=(device.port, rate, stop, result))
    load.start()
    try:
        yield took
    finally:
        stop.set()
        if load.is_alive():
            took |= result.get(timeout=20)
        load.join()


def http_latency(lab, music, seconds):
    card = lab.card(*CARD)
    with Device(lab, card) as device:
        device.play(music.wav[HI_RES])
        with under_load(device, 200) as took:
            time.sleep(seconds)
        underruns = card.underruns()
    for path, times in took.items():
        p99 = percentile(times, 99) * 1000
        yield Row(f"GET {path}, p99 of {len(times)} at 200 requests a second, playing 192/24",
                  "<= 2 ms", f"{p99:.2f} ms (median {statistics.median(times) * 1000:.2f})",
                  p99 <= 2)
    yield Row("... underruns meanwhile", "0", str(underruns), underruns == 0)


def time_to_drop(device, press):
    """ms from the call on the bus to the end of snd_pcm_drop."""
    drops = device.probe.read()["drops"]
    sent = press()
    wait_for("PCM dropped", lambda: device.probe.read()["drops"] > drops, pause=0.001)
    return (device.probe.read()["last_drop_ns"] - sent) / 1e6


def pauses(lab, music, times, rate):
    """Presses of pause, each once the command thread has done its wait for the track's texts."""
    with Device(lab, lab.card(*CARD), probe=True) as device:
        device.play(music.wav[HI_RES])
        took = []
        with under_load(device, rate) if rate else contextlib.nullcontext():
            for _ in range(times):
                time.sleep(1.2 + 0.125 * random.random())
                took.append(time_to_drop(device, lambda: device.press("Pause")))
                time.sleep(1.2)
                device.press("Play")
                wait_for("playing again", lambda: device.card.state() == "RUNNING")
    return took


def seeks(lab, music, times, rate):
    with Device(lab, lab.card(*CARD), probe=True) as device:
        device.play(music.wav[HI_RES])
        time.sleep(3.5)
        took = []
        with under_load(device, rate):
            for n in range(times):
                offset = 1_000_000 if n % 2 == 0 else -1_000_000
                took.append(time_to_drop(
                    device, lambda: device.press("Seek", "x", ctypes.c_int64(offset))))
                time.sleep(0.05 + 0.02 * random.random())
    return took


def commands(lab, music, devices, times, seek_times):
    # Several devices at once, for a pause is followed by waits; one of them under the full load.
    with concurrent.futures.ThreadPoolExecutor(devices) as pool:
        jobs = [pool.submit(pauses, lab, music, times, 200 if n == 0 else 0)
                for n in range(devices)]
        took = [ms for job in jobs for ms in job.result()]
    p99 = percentile(took, 99)
    yield Row(f"PAUSE sent over the bus to PCM dropped, p99 of {len(took)}, 192/24, HTTP load",
              "<= 5 ms", f"{p99:.2f} ms (median {statistics.median(took):.2f})", p99 <= 5)
    took = seeks(lab, music, seek_times, 200)
    p99 = percentile(took, 99)
    yield Row(f"SEEK the same way, p99 of {len(took)}", "<= 5 ms",
              f"{p99:.2f} ms (median {statistics.median(took):.2f})", p99 <= 5)


def remote_commands(lab, music, times):
    """From a session's server, alone and while it has the device take and tell long lists."""
    lists = raw_websocket.command("queue_insert", tracks=[
        {"url": f"file://{music.wav[HI_RES]}", "title": "x" * 60}] * 400)
    with raw_websocket.RawServer() as server:
        card = lab.card(*CARD)
        with Device(lab, card, probe=True) as device:
            device.play(music.wav[HI_RES], server.url)
            with server.accept() as peer:
                threading.Thread(target=read_all, args=(peer,), daemon=True).start()
                time.sleep(3.5)
                for what, before in (("", b""), (", behind a list of 400 tracks", lists)):
                    yield from remote_latency(device, peer, what, before, times)
            underruns = card.underruns()
    yield Row("... underruns meanwhile", "0", str(underruns), underruns == 0)


def read_all(peer):
    with contextlib.suppress(OSError):
        while peer.recv(65536):
            pass


def remote_latency(device, peer, what, before, times):
    for name, count, done, argument in (
            ("seek to PCM dropped", "drops", "last_drop_ns", lambda n: {
                "position_ms": 5000 + n % 2 * 5000}),
            ("volume to mixer written", "volumes", "last_volume_ns", lambda n: {
                "volume": 20 + n % 2 * 20})):
        took = []
        for n in range(times):
            counted = device.probe.read()[count]
            words = raw_websocket.command(name.split()[0], **argument(n))
            if before:
                peer.sendall(before)
            sent = time.monotonic_ns()
            peer.sendall(words)
            wait_for(name, lambda: device.probe.read()[count] > counted, pause=0.001)
            took.append((device.probe.read()[done] - sent) / 1e6)
            time.sleep(0.06 + 0.02 * random.random())
        p99 = percentile(took, 99)
        yield Row(f"remote {name}{what}, p99 of {times}, playing 192/24", "<= 10 ms",
                  f"{p99:.2f} ms (median {statistics.median(took):.2f})", p99 <= 10)


# ---- Transitions --------------------------------------------------------------------------------


def join(lab, rate, bits):
    """Two tracks of one format; a text that says what is between them, and whether that is nothing."""
    folder = lab.new_folder("music")
    expected = b""
    for n in range(2):
        second = one_second(rate, bits, seed=n + 1)
        write_wav(folder / f"{n}.wav", second, rate, bits, 2)
        expected += second * 2
    card = lab.card(*CARD, record=True)
    with Device(lab, card) as device:
        device.play(folder)
        wait_for("end of both tracks", device.is_over)
        underruns = card.underruns()
    recordings = card.recordings()
    frame = 4 if bits == 16 else 8
    extra = (sum(map(len, recordings)) - len(expected)) // frame
    is_exact = recordings == [expected] and underruns == 0
    return f"{label(rate, bits)} {extra}" + ("" if is_exact else " (not bit for bit)"), is_exact


def transitions(lab):
    formats = [(rate, bits) for rate in (44100, 48000, 96000, 192000) for bits in (16, 24)]
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        results = list(pool.map(lambda format: join(lab, *format), formats))
    yield Row("same format: frames between two tracks, bit for bit", "0 at each",
              "; ".join(text for text, _ in results), all(is_exact for _, is_exact in results))

    folder = lab.new_folder("music")
    write_wav(folder / "0.wav", one_second(*CD), *CD, 2)
    write_wav(folder / "1.wav", one_second(*HI_RES), *HI_RES, 2)
    with Device(lab, lab.card(*CARD), probe=True) as device:
        device.play(folder)
        wait_for("the other format", lambda: device.probe.read()["reopened_ns"])
        times = device.probe.read()
    drain = (times["drain_end_ns"] - times["drain_begin_ns"]) / 1e6
    reopen = (times["reopened_ns"] - times["drain_end_ns"]) / 1e6
    yield Row("other format (44.1/16 to 192/24): the gap", "drain + reopen",
              f"drain {drain:.0f} ms (the last of the track is heard meanwhile), then {reopen:.1f} "
              "ms to the first write")


# ---- Growth -------------------------------------------------------------------------------------


def growth(lab, music, rounds, seconds):
    few, many = lab.new_folder("few"), lab.new_folder("many")
    for folder, count in ((few, 10), (many, 10_000)):
        for n in range(count):
            os.link(music.wav[CD], folder / f"{n:05}.wav")
    contents = {"48": music.wav[48000, 24], "96": music.wav[96000, 24], "192": music.wav[HI_RES],
                "few": few, "many": many}
    windows = {name: [] for name in contents}
    for _ in range(rounds):
        for name, content in contents.items():
            windows[name].append(play_once(lab, Device, content, CARD, seconds))
    cpu = {name: median_of(each, "cpu_ms") for name, each in windows.items()}
    yield Row("growth: CPU per second of audio at 48, 96, 192 kHz/24", "linear",
              f"{cpu['48']:.2f}, {cpu['96']:.2f}, {cpu['192']:.2f} ms",
              cpu["192"] <= 1.1 * 4 * cpu["48"])
    yield Row("growth: CPU with 10 and with 10,000 tracks in the folder and queue", "flat",
              f"{cpu['few']:.2f} and {cpu['many']:.2f} ms", cpu["many"] <= 1.2 * cpu["few"])
    yield Row("... resident memory with 10 and with 10,000", "",
              " and ".join(f"{windows[name][-1].rss_kb / 1024:.1f}" for name in ("few", "many"))
              + " MB")


def hours(lab, count):
    """`count` hours of low-rate audio on a clock as fast as the machine can follow."""
    folder = lab.new_folder("hours")
    rate, seconds = 8000, 3600
    write_wav(folder / "00.wav", one_second(rate, 16, 1), rate, 16, seconds, 1)
    for n in range(1, count):
        os.link(folder / "00.wav", folder / f"{n:02}.wav")
    card = lab.card(*CARD, "--speed", "2000", "--patient")
    readings = []
    with Device(lab, card) as device:
        device.play(folder)
        for hour in range(1, count):
            wait_for(f"hour {hour}", lambda: card.frames_played() >= hour * seconds * rate, 120, 0.05)
            readings.append((cpu_ns(device.pid), dirty_kb(device.pid)))
    cpu = [(b[0] - a[0]) / 1e6 / 3600 for a, b in zip(readings, readings[1:])]
    early, late = (statistics.median(part) for part in (cpu[:len(cpu) // 2], cpu[len(cpu) // 2:]))
    first, last = readings[0], readings[-1]
    yield Row(f"growth: {count} hours on a fast clock, CPU per second of audio, first and second half",
              "flat", f"{early:.3f} and {late:.3f} ms", late <= 1.2 * early)
    yield Row("... private dirty memory after 1 hour and at the end", "flat, <= 4 MB",
              f"{first[1] / 1024:.2f} and {last[1] / 1024:.2f} MB",
              last[1] <= min(4096, first[1] + 256))


# ---- Sizes --------------------------------------------------------------------------------------


def sizes(lab, build, architecture, strip):
    names = ("bin/nuvio-connect", "lib/libnuvio_connect.so", "lib/libnuvio_host.so")
    if shutil.which(strip) is None or not all((build / name).exists() for name in names):
        yield Row(f"size, {architecture}", "", "not built here")
        return
    texts = []
    for name in names:
        stripped = lab.folder / f"stripped-{architecture}"
        subprocess.run([strip, "-o", stripped, build / name], check=True)
        texts.append(f"{name.split('/')[1]} {stripped.stat().st_size / 1024:.0f} KiB")
    yield Row(f"size, {architecture}, stripped", "", ", ".join(texts))
