#!/usr/bin/env python3
"""Every line that the service logs in one eventful life (life.cpp), with its priority, and every call
that it makes of the platform and the SDK, compared with log.txt.

A line of log.txt: the thread, the level or who is called, the text. In each step the threads stand
one after the other, as only the lines of one thread have an order. What comes any number of times
stands at the end, once. Times, numbers of threads and the like are left out.

When the service has learned to say something else: look at what differs, then
golden_log_test.py --accept.
"""
import collections
import difflib
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

GOLDEN = pathlib.Path(__file__).with_name("log.txt")
BUILD = pathlib.Path(os.environ.get("NUVIO_BUILD", GOLDEN.parents[2] / "build/debug"))
# What a thread says first tells which one it is; the test's own is the platform's.
THREADS = {"main": "MAIN TO START", "start-up": "threadloop start", "loop": "threadUV loop",
           "command": "Waking up", "http": "API endpoint", "platform": None, "stdout": None}
LINE = re.compile(r"^(?P<unended>.*?)(?:\d{8} [\d:.]+ )?\[\d+\.(?P<thread>\d+)\] (?P<text>.*)$")
VARIES = [(r"Queue size (\w+) (\w+) = \d+", r"Queue size \1 \2 = N"), (r"\d+ms", "Nms"),
          (r"Vanta_\d+|\b[0-9a-f]{12}$", "SERIAL"), (r"(deviceinfo =) 2\d{4}\b", r"\1 PORT"),
          (r"descriptor count: \d+", "descriptor count: N"), (r"write 49 \d+", "write 49 N"),
          (r"Received event = .*", r"Received event = WORD\\n")]
ANY_TIMES = re.compile("Waking up|on_event_loop|write 49|resume_audio_delivery|Received event|"
                       "before push|Audio playback is paused")
LEFT_OUT = re.compile(r"MARK\d|Nuvio sSerialNumber")  # the life's own, and of some machines only


def name_threads(output):
    names = {}
    for found in filter(None, map(LINE.match, output.splitlines())):
        for name, text in THREADS.items():
            if text and text in found["text"]:
                names.setdefault(found["thread"], name)
    return names


def in_order(output):
    names = name_threads(output)
    text, step, any_times = "", collections.defaultdict(list), set()
    last = []  # the lines that the last one was put to

    def show(thread, line):
        nonlocal last
        last = []
        if LEFT_OUT.search(line):
            return
        for what, by in VARIES:
            line = re.sub(what, by, line)
        if ANY_TIMES.search(line):
            any_times.add(f"{thread:9} {line}")
        else:
            last = step[thread]
            last.append(line)

    for line in [*output.splitlines(), "== any number of times"]:
        found = LINE.match(line)
        if line.startswith("== "):
            text += "".join(f"{thread:9} {line}".rstrip() + "\n"
                            for thread in THREADS for line in step.pop(thread, []))
            text += f"\n{line}\n"
        elif found:
            if found["unended"]:  # a text without a line end
                show("stdout", found["unended"])
            show(names.get(found["thread"], "platform"), found["text"])
        elif line:
            show("stdout", line)
        elif last:  # a text that ends in a line end
            last[-1] += r"\n"
    return text + "\n".join(sorted(any_times)) + "\n"


def main():
    program = BUILD / "bin/golden_life"
    with tempfile.TemporaryDirectory() as folder:
        output = pathlib.Path(folder, "output")
        with output.open("ab") as file:
            life = subprocess.run([*shlex.split(os.environ.get("NUVIO_EMULATOR", "")), program, folder],
                                  stdout=file, check=False)
        said = in_order(output.read_text())
    if "--accept" in sys.argv:
        GOLDEN.write_text(said)
    wanted = GOLDEN.read_text().splitlines()
    print("\n".join(difflib.unified_diff(wanted, said.splitlines(), "log.txt", "said", n=1)))
    return 1 if life.returncode or said.splitlines() != wanted else 0


if __name__ == "__main__":
    sys.exit(main())
