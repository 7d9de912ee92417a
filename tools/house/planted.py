"""Whether houses find what they are for: the faults of planted.txt, one at a time, each in houses of new numbers
until one of them finds it."""
import collections
import concurrent.futures
import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "mutants"))
import mutants  # noqa: E402: copies the tree and builds in it

Fault = collections.namedtuple("Fault", "what path found planted")
PROGRAMS = ["nuvio-connect", "nuvio-connect-fetcher", "nuvio-connect-reader", "nuvio-connect-controller", "simcardctl"]


def read_faults(words):
    for block in (HERE / "planted.txt").read_text().split("\n\n"):
        lines = block.strip("\n").splitlines()
        if len(lines) == 4 and (not words or any(word in lines[0] for word in words)):
            yield Fault(lines[0][2:], lines[1], *(text.replace("\\n", "\n") for text in lines[2:]))


def lost(fault, tree=mutants.TOP):
    return fault.found not in (tree / fault.path).read_text()


def build():
    for command in (["cmake", "--preset", "package"],
                    ["cmake", "--build", "--preset", "package", "--target", *PROGRAMS]):
        done = subprocess.run(command, cwd=mutants.TREE, capture_output=True, text=True)
        if done.returncode != 0:
            return done.stdout[-2000:] + done.stderr[-2000:]
    return None


def first_that_finds(houses, plans, jobs):
    """The first house, in their order, that finds something, and how many lived."""
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        plans = list(plans)
        for at in range(0, len(plans), jobs):
            for number, house in enumerate(pool.map(lambda each: houses.live(*each), plans[at:at + jobs]), at + 1):
                if house.found:
                    return house, number
    return None, len(plans)


def plant_all(make_houses, plans, words, jobs):
    """`make_houses`: of a build folder. Those that no house found."""
    faults = list(read_faults(words))
    strayed = [fault.what for fault in faults if lost(fault)]
    if strayed:
        raise SystemExit("house: no such text any more: " + "; ".join(strayed))
    mutants.copy_tree()
    if failure := build():
        raise SystemExit(f"house: does not compile\n{failure}")
    house, _ = first_that_finds(make_houses(mutants.TREE / "build/package"), plans, jobs)
    if house is not None:
        raise SystemExit(f"house: {house.name} finds {house.found[0]} where nothing is planted")
    missed = []
    for fault in faults:
        path = mutants.TREE / fault.path
        content = path.read_text()
        path.write_text(content.replace(fault.found, fault.planted, 1))
        try:
            if failure := build():
                raise SystemExit(f"house: {fault.what} does not compile\n{failure}")
            house, count = first_that_finds(make_houses(mutants.TREE / "build/package"), plans, jobs)
        finally:
            path.write_text(content)
        if house is None:
            missed.append(fault.what)
            print(f"not in {count}: {fault.what}", flush=True)
        else:
            first = house.found[0]
            print(f"in {count}, house {house.name}: {fault.what}: {first.rule} in {first.place}: {first.text[:120]}",
                  flush=True)
    print(f"{len(faults) - len(missed)} of {len(faults)} planted faults found")
    return missed
