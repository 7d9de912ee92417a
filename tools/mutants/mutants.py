#!/usr/bin/env python3
"""Plants the faults of mutants.txt one at a time and counts those that the tests see.

  tools/mutants/mutants.py [--list] [AREA|TEXT...]   all of them, or those of an area or with a text

Works in a copy of the tree under build/mutants, which it keeps, so that only what a fault touches is
built again, and runs the tests of the fault's area until one fails, which it names. A fault whose
text stands nowhere, or that does not compile, is no measure of anything: the run fails and names it.
Those that survive fail it too.
"""
import collections
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
TREE = TOP / "build/mutants"
PATIENCE = 400  # s for one test; a fault that hangs it is seen

# The folders with the texts, and the tests of them, the quickest first.
Area = collections.namedtuple("Area", "folders tests")
AREAS = {
    "media": Area(["src/media"], ["renderer_test", "random_driver_test"]),
    "utility": Area(["src/utility"], ["renderer_test", "random_driver_test"]),
    "sink": Area(["src/media/sink"], ["sink_test", "fault_matrix_test"]),
    "bridge": Area(["src/bridge", "src/startup"], ["bridge_test", "golden_log_test",
                                                  "platform_faults_test"]),
    "advertising": Area(["src/advertising"], ["avahi_libuv_poll_test", "advertising_test"]),
    "core": Area(["cores/local"], ["local_core_parts_test", "local_core_test"]),
    "host": Area(["hosts/linux"], ["linux_host_configuration_test", "linux_host_services_test",
                                   "bus_test"]),
    "common": Area(["common"], ["files_test", "reader_test", "linux_host_configuration_test"]),
    "reader": Area(["reader"], ["reader_test"]),
    "library": Area(["controller/library"], ["controller_library_test"]),
    "devices": Area(["controller/session", "controller/discovery", "controller/device"],
                    ["controller_session_test"]),
    "page": Area(["controller/page"], ["test_page"]),
    "web": Area(["controller/web"], ["test_controller", "test_page"]),
    "card": Area(["tools/simcard"], ["sink_test", "fault_matrix_test"]),
}
DEVICE = ["nuvio-connect", "simcardctl"]  # the targets of what drives it from outside
TARGETS = {"advertising_test": ["advertiser_host"], "bus_test": DEVICE,
           "golden_log_test": ["golden_life"], "test_page": [*DEVICE, "nuvio-connect-controller"],
           "test_controller": [*DEVICE, "nuvio-connect-controller"],
           "test_playback": DEVICE, "test_host": DEVICE, "test_long_session": DEVICE,
           "test_network": ["network_probe"],
           "test_zoo": [*DEVICE, "network_probe", "nuvio_connect_ffmpeg"]}

Mutant = collections.namedtuple("Mutant", "area tests found planted")


def read_mutants(words):
    text = pathlib.Path(__file__).with_name("mutants.txt").read_text()
    for block in text.split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("# ") and line]
        if lines:
            head, found, planted = lines
            area, *more = head.split()
            if not words or area in words or any(word in found for word in set(words) - set(AREAS)):
                yield Mutant(area, AREAS[area].tests + more, found, planted)


def place_of(tree, mutant):
    for folder in AREAS[mutant.area].folders:
        for path in sorted((tree / folder).rglob("*")):
            if path.suffix in (".cpp", ".h", ".ts", ".tsx") and mutant.found in path.read_text():
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


def build(tests):
    targets = [target for test in tests for target in TARGETS.get(test, [test])]
    command = ["cmake", "--build", "--preset", "debug", "--target", *targets]
    return subprocess.run(command, cwd=TREE, capture_output=True, text=True)


def failure_of(test):
    """What of a test fails first, or None."""
    run = subprocess.Popen(["ctest", "--test-dir", "build/debug", "--output-on-failure", "-R",
                            f"^{test}$"], cwd=TREE, text=True, errors="replace",
                           env=dict(os.environ, GTEST_FAIL_FAST="1"), start_new_session=True,
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        output, _ = run.communicate(timeout=PATIENCE)
    except subprocess.TimeoutExpired:
        os.killpg(run.pid, signal.SIGKILL)
        run.communicate()
        return f"{test}: no end"
    if run.returncode == 0:
        return None
    names = re.findall(r"(?m)^(?:\[  FAILED  \]|FAIL:|ERROR:|\[ RUN      \]) ([^\s,]+)", output)
    return f"{test}: {names[-1] if names else 'fails'}"


def first_failure(tests):
    return next(filter(None, map(failure_of, tests)), None)


def outcome_of(mutant):
    path = place_of(TREE, mutant)
    content = path.read_text()
    path.write_text(content.replace(mutant.found, mutant.planted, 1))
    try:
        if build(mutant.tests).returncode != 0:
            return "does not compile", None
        failure = first_failure(mutant.tests)
        return "killed" if failure else "survived", failure
    finally:
        path.write_text(content)


def main():
    words = [word for word in sys.argv[1:] if word != "--list"]
    mutants = list(read_mutants(words))
    lost = [mutant.found for mutant in mutants if place_of(TOP, mutant) is None]
    if lost:
        sys.exit("\n".join(["mutants: found nowhere:", *lost]))
    if "--list" in sys.argv:
        for mutant in mutants:
            print(f"{mutant.area}: {mutant.found.strip()} -> {mutant.planted.strip()}")
        return 0
    copy_tree()
    subprocess.run(["cmake", "--preset", "debug"], cwd=TREE, check=True, stdout=subprocess.DEVNULL)
    tests = sorted({test for mutant in mutants for test in mutant.tests})
    result = build(tests)
    if result.returncode != 0:
        sys.exit(f"mutants: does not compile without any fault\n{result.stdout[-2000:]}")
    if failure := first_failure(tests):
        sys.exit(f"mutants: fails without any fault: {failure}")
    counts = collections.Counter()
    for mutant in mutants:
        begin = time.monotonic()
        outcome, failure = outcome_of(mutant)
        counts[outcome] += 1
        print(f"{outcome:16} {time.monotonic() - begin:4.0f} s  {mutant.area}: "
              f"{mutant.found.strip()} -> {mutant.planted.strip()}" +
              (f"  by {failure}" if failure else ""), flush=True)
    print(f"mutants: {counts['killed']} of {len(mutants)} killed" +
          "".join(f", {count} {name}" for name, count in counts.items() if name != "killed"))
    return 0 if counts["killed"] == len(mutants) else 1


if __name__ == "__main__":
    sys.exit(main())
