#!/usr/bin/env python3
"""Plants the faults of mutants.txt one at a time and counts those that the tests see.

  tools/mutants/mutants.py [--list] [AREA|TEXT...]   all of them, or those of an area or with a text

Works in a copy of the tree under build/mutants, which it keeps, so that only what a fault touches is
built again. A fault whose text stands nowhere, or that does not compile, is no measure of anything:
the run fails and names it. Those that survive fail it too.
"""
import collections
import os
import pathlib
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
TREE = TOP / "build/mutants"
PATIENCE = 300  # s for an area's tests; a fault that hangs them is seen

# The folders with the texts, and the fast tests of them.
Area = collections.namedtuple("Area", "folders targets tests")
AREAS = {
    "media": Area(["src/media"], ["renderer_test", "random_driver_test"],
                  ["renderer_test", "random_driver_test"]),
    "bridge": Area(["src/bridge", "src/startup"], ["bridge_test", "golden_life"],
                   ["bridge_test", "golden_log_test"]),
    "advertising": Area(["src/advertising"], ["avahi_libuv_poll_test", "advertiser_host"],
                        ["avahi_libuv_poll_test", "advertising_test"]),
}


def read_mutants(words):
    text = pathlib.Path(__file__).with_name("mutants.txt").read_text()
    for block in text.split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("# ") and line]
        if lines:
            area, found, planted = lines
            if not words or area in words or any(word in found for word in words):
                yield area, found, planted


def place_of(area, text):
    for folder in AREAS[area].folders:
        for path in sorted((TREE / folder).rglob("*")):
            if path.suffix in (".cpp", ".h") and text in path.read_text():
                return path
    return None


def copy_tree():
    """Files that have not changed keep their times: they are not built again."""
    files = subprocess.run(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                           cwd=TOP, check=True, capture_output=True).stdout.split(b"\0")
    present = [name for name in files if name and os.path.exists(os.path.join(os.fsencode(TOP), name))]
    TREE.mkdir(parents=True, exist_ok=True)
    for name in map(os.fsdecode, present):
        content = (TOP / name).read_bytes()
        target = TREE / name
        if not target.exists() or target.read_bytes() != content:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(content)
            target.chmod((TOP / name).stat().st_mode)


def build(targets):
    command = ["cmake", "--build", "--preset", "debug", "--target", *targets]
    return subprocess.run(command, cwd=TREE, capture_output=True, text=True)


def tests_fail(area):
    command = ["ctest", "--test-dir", "build/debug", "--stop-on-failure",
               "-R", "^(" + "|".join(AREAS[area].tests) + ")$"]
    run = subprocess.Popen(command, cwd=TREE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           start_new_session=True)
    try:
        return run.wait(PATIENCE) != 0
    except subprocess.TimeoutExpired:
        os.killpg(run.pid, signal.SIGKILL)
        run.wait()
        return True


def outcome_of(area, found, planted):
    path = place_of(area, found)
    if path is None:
        return "found nowhere"
    content = path.read_text()
    path.write_text(content.replace(found, planted, 1))
    try:
        if build(AREAS[area].targets).returncode != 0:
            return "does not compile"
        return "killed" if tests_fail(area) else "survived"
    finally:
        path.write_text(content)


def main():
    words = [word for word in sys.argv[1:] if word != "--list"]
    mutants = list(read_mutants(words))
    if "--list" in sys.argv:
        for mutant in mutants:
            print("{}: {} -> {}".format(*(text.strip() for text in mutant)))
        return 0
    copy_tree()
    subprocess.run(["cmake", "--preset", "debug"], cwd=TREE, check=True, stdout=subprocess.DEVNULL)
    for area in sorted({mutant[0] for mutant in mutants}):
        result = build(AREAS[area].targets)
        if result.returncode != 0 or tests_fail(area):
            sys.exit(f"mutants: the tests of {area} fail without any fault\n{result.stdout[-2000:]}")
    counts = collections.Counter()
    for area, found, planted in mutants:
        begin = time.monotonic()
        outcome = outcome_of(area, found, planted)
        counts[outcome] += 1
        print(f"{outcome:16} {time.monotonic() - begin:4.0f} s  {area}: {found.strip()} -> "
              f"{planted.strip()}", flush=True)
    print(f"mutants: {counts['killed']} of {len(mutants)} killed" +
          "".join(f", {count} {name}" for name, count in counts.items() if name != "killed"))
    return 0 if counts["killed"] == len(mutants) else 1


if __name__ == "__main__":
    sys.exit(main())
