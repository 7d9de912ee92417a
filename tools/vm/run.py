#!/usr/bin/env python3
"""Boots the machine that make_image.sh made, by software emulation, and lets it run
tests/cards/test_vm.py and, on 32-bit ARM, tools/vm/measure.py: run.py ARCHITECTURE FOLDER [--short]

The short form is a single boot. The folder `share` is the machine's /srv/share: in go the tests, the music
and `boots`, what each boot runs; out come log, status, journal and measured.json, which goes to
docs/integrating.md. A file `ask` there with "pull" or "plug" in it pulls the USB card or plugs it in; it is
gone when that is done. hda.wav, usb.wav and, plugged in again, usb-again.wav are what the two
cards played.
"""
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import time

import table

SOURCE = pathlib.Path(__file__).resolve().parents[2]
LIMIT = 900  # s, for all of it; an idle machine needs a fifth, one with a load of 15 five minutes
USB_CARD = {"driver": "usb-audio", "id": "usbcard", "audiodev": "usb", "bus": "usb.0"}
ASKED = {"pull": ("device_del", {"id": "usbcard"}),
         "plug": ("device_add", dict(USB_CARD, audiodev="usb-again"))}
RECORDINGS = ("hda", "usb", "usb-again")
QUIET = 200  # peak of the music that goes over a slow line: it compresses well
CARD_RATE = 48000  # Hz, the only one that the emulated USB card has
FRAME = 4  # bytes
WAV_HEADER = 44  # bytes


# On one processor that takes as long for each instruction: times are counts of them, alike on any host.
# What the machine waits for is skipped.
NS_PER_INSTRUCTION_LOG2 = 2
TESTS = "tests/cards/test_vm.py -v"


class Machine:
    def __init__(self, options, console, has_cards, boots, short_boots):
        self.options, self.console, self.has_cards = options.split(), console, has_cards
        self.boots, self.short_boots = boots, short_boots

    def command_line(self, folder):
        return [*self.options, "-nodefaults", "-display", "none",
                "-serial", f"file:{folder}/console", "-qmp", f"unix:{folder}/monitor,server,nowait",
                "-kernel", f"{folder}/vmlinuz", "-initrd", f"{folder}/initrd.img",
                "-append", f"root=/dev/vda rw console={self.console} mitigations=off quiet",
                "-drive", f"file={folder}/disk.img,format=raw,if=virtio,cache=unsafe",
                "-virtfs", f"local,path={folder}/share,mount_tag=share,security_model=none",
                *(self.cards(folder) if self.has_cards else [])]

    def cards(self, folder):
        devices = ["intel-hda", "hda-output,audiodev=hda,use-timer=off", "qemu-xhci,id=usb",
                   ",".join("=".join(pair) if pair[0] != "driver" else pair[1]
                            for pair in USB_CARD.items())]
        backends = [f"wav,id={name},path={folder}/{name}.wav,out.frequency={CARD_RATE}"
                    for name in RECORDINGS]
        return [*(word for backend in backends for word in ("-audiodev", backend)),
                *(word for device in devices for word in ("-device", device))]


MACHINES = {
    "amd64": Machine("qemu-system-x86_64 -accel tcg,thread=multi -cpu max -smp 2 -m 1024", "ttyS0", True,
                     [f"{TESTS} Unit Loop Cards Network", f"{TESTS} AfterReboot"],
                     [f"{TESTS} Unit Loop Cards"]),
    # Its kernel has no driver for HDA.
    "armhf": Machine("qemu-system-arm -M virt -cpu cortex-a7 -m 512 "
                     f"-icount shift={NS_PER_INSTRUCTION_LOG2},sleep=off", "ttyAMA0", False,
                     [f"{TESTS} Unit Loop", f"{TESTS} AfterReboot",
                      f"tools/vm/measure.py {1 << NS_PER_INSTRUCTION_LOG2}"],
                     [f"{TESTS} Unit Loop"]),
}


class Monitor:
    def __init__(self, path):
        self.connection = socket.socket(socket.AF_UNIX)
        self.connection.connect(str(path))
        self.stream = self.connection.makefile("rw")
        self.stream.readline()
        self.execute("qmp_capabilities", {})

    def execute(self, command, arguments):
        """Returns when the command has been answered, which may be before it has been done."""
        self.stream.write(json.dumps({"execute": command, "arguments": arguments}))
        self.stream.flush()
        while True:
            answer = json.loads(self.stream.readline())
            if "error" in answer:
                raise RuntimeError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return


def set_up_share(folder, boots):
    sys.path.insert(0, str(SOURCE / "tests/e2e"))
    os.environ.setdefault("NUVIO_BUILD", str(folder))  # which device.py wants to know
    from device import signal_samples, write_wav
    share = folder / "share"
    shutil.rmtree(share, ignore_errors=True)
    for part in ("tests/cards", "tools/run"):
        shutil.copytree(SOURCE / part, share / part)
    (share / "boots").write_text("".join(f"{boot}\n" for boot in boots))
    # Folder, then the tracks in it: rate, bytes of a sample, seconds.
    music = {"cd": [(44100, 2, 2.0), (44100, 2, 1.5)], "studio": [(96000, 3, 2.0)],
             "card": [(CARD_RATE, 2, 3.04)], "long": [(CARD_RATE, 2, 40.0)]}
    if "Network" in boots[0]:
        music["line"] = [(44100, 2, 60.0)]
    for name, tracks in music.items():
        (share / "music" / name).mkdir(parents=True)
        played, start = b"", 0
        for number, (rate, size, seconds) in enumerate(tracks):
            frames = int(rate * seconds)
            peak = QUIET if name == "line" else 12000 if size == 2 else 3_000_000
            samples = signal_samples(frames, start, rate, peak)
            played += write_wav(share / "music" / name / f"{number}.wav", samples, rate, size)
            start += frames
        (share / f"{name}.expected").write_bytes(played)
    if "line" in music:
        subprocess.run(["flac", "--totally-silent", "--delete-input-file",
                        share / "music/line/0.wav"], check=True)
    if "measure" in boots[-1]:
        add_measured(share)
    return share


def add_measured(share):
    """What tools/vm/measure.py needs."""
    sys.path.insert(0, str(SOURCE / "bench"))
    from lab import one_second, to_flac, write_wav
    for part in ("tools/vm", "bench"):
        shutil.copytree(SOURCE / part, share / part)
    shutil.copy(SOURCE / "tests/certificate.py", share / "tests")  # which bench/memory.py imports
    for rate, bits in ((44100, 16), (192000, 24)):
        for seconds in (table.SHORT, table.LONG):
            track = share / f"music/measured/{rate}-{bits}-{seconds}.wav"
            track.parent.mkdir(exist_ok=True)
            to_flac(write_wav(track, one_second(rate, bits), rate, bits, seconds))


def serve(machine, folder, share):
    """Until the machine is off or its time is over."""
    end = time.monotonic() + LIMIT
    monitor = None
    ask = share / "ask"
    while machine.poll() is None and time.monotonic() < end:
        if monitor is None and (folder / "monitor").exists():
            monitor = Monitor(folder / "monitor")
        if monitor is not None and ask.exists() and ask.read_text() in ASKED:
            monitor.execute(*ASKED[ask.read_text()])
            ask.unlink()
        time.sleep(0.1)
    if machine.poll() is None:
        machine.kill()
        machine.wait()
        print(f"vm: not done within {LIMIT} s; the end of {folder}/console:")
        print("\n".join((folder / "console").read_text(errors="replace").splitlines()[-20:]))


def exact_pieces(folder, recording):
    """How many pieces of 10 ms of the track "card" came out bit for bit, and of how many."""
    played = (folder / f"{recording}.wav").read_bytes()
    expected = (folder / "share/card.expected").read_bytes().strip(b"\0")
    size = CARD_RATE // 100 * FRAME
    pieces = [expected[at:at + size] for at in range(0, len(expected) - size, size)]
    return sum(piece in played for piece in pieces), len(pieces)


def seconds_of_sound(recording):
    if not recording.exists():
        return 0
    return len(recording.read_bytes()[WAV_HEADER:].strip(b"\0")) / (CARD_RATE * FRAME)


def heard_enough(folder):
    """What the emulated cards played."""
    passed = True
    for name in ("hda", "usb"):
        exact, pieces = exact_pieces(folder, name)
        print(f"vm: {name}: {exact} of {pieces} pieces of 10 ms bit for bit")
        # A host that is too busy runs the emulated cards late, and they lose pieces; another rate,
        # level or format leaves none.
        passed = passed and exact > pieces / 2
    again = seconds_of_sound(folder / "usb-again.wav")
    print(f"vm: usb: {again:.1f} s of sound after it was plugged in again")
    return passed and again > 0.1


def main():
    machine, folder = MACHINES[sys.argv[1]], pathlib.Path(sys.argv[2]).resolve()
    boots = machine.short_boots if "--short" in sys.argv[3:] else machine.boots
    share = set_up_share(folder, boots)
    for name in ("monitor", *(f"{recording}.wav" for recording in RECORDINGS)):
        (folder / name).unlink(missing_ok=True)
    begin = time.monotonic()
    with subprocess.Popen(machine.command_line(folder), stdin=subprocess.DEVNULL) as process:
        try:
            serve(process, folder, share)
        finally:
            if process.poll() is None:
                process.kill()
    log, status = share / "log", share / "status"
    print(log.read_text(errors="replace") if log.exists() else "vm: no test has run")
    passed = status.exists() and status.read_text().split() == ["0"] * len(boots)
    if machine.has_cards:
        passed = heard_enough(folder) and passed
    if passed and "measure" in boots[-1]:
        table.write(share / table.RESULT, SOURCE / "docs/integrating.md")
    print(f"vm: {'passed' if passed else 'FAILED'} in {time.monotonic() - begin:.0f} s")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
