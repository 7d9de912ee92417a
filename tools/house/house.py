#!/usr/bin/env python3
"""A house of devices, and what happens in it, from one number; the same number makes the same house.

What each house left is in build/house/NUMBER: events, logs and recordings. docs/house.md says more."""
import argparse
import collections
import concurrent.futures
import hashlib
import itertools
import json
import lzma
import os
import pathlib
import shutil
import sys
import time

import checker
import image
import machine
import planted
import script

HERE = pathlib.Path(__file__).resolve().parent
LIMIT = 20       # s of this machine's for one of the house's
AFTERWARDS = 8   # s that a house lives after a power cut
SHOWN = 12       # findings of a house
SHRINKING = 600  # s
XZ, ELF = b"\xfd7zXZ\0", b"\x7fELF"


def uncompressed(kernel):
    """Debian's kernel unpacks itself for as long as all the rest of its start takes."""
    unpacked = kernel / "vmlinux"
    if not unpacked.exists():
        data, at = (kernel / "vmlinuz").read_bytes(), -1
        while not unpacked.exists():
            at = data.find(XZ, at + 1)
            if at < 0:
                return kernel / "vmlinuz"
            try:
                found = lzma.LZMADecompressor().decompress(data[at:])
            except lzma.LZMAError:
                continue
            if found.startswith(ELF):
                unpacked.write_bytes(found)
    return unpacked


def digest_of(folder):
    """Of all that a house left."""
    whole = hashlib.sha256()
    for path in sorted(path for path in folder.rglob("*") if path.is_file()):
        whole.update(f"{path.relative_to(folder)} {path.stat().st_size}\n".encode())
        whole.update(path.read_bytes())
    return whole.hexdigest()


class Houses:
    """Any number of them at once; each of its own folder. `until`, `leaves`: as of machine.run()."""

    def __init__(self, build, until=machine.NEVER, leaves="nothing"):
        self.until, self.leaves = until, leaves
        self.folder = build.parent / "house"
        kernel = image.fetch_kernel(self.folder / "kernel")
        self.kernel = uncompressed(kernel)
        self.base = image.make_image(build, kernel).archive()

    def live_once(self, folder, plan, disk=None, since=0):
        """From one start of the machine to its end: what was found, and the papers."""
        folder.mkdir(exist_ok=True)
        own = image.Image()
        own.add("/house.json", json.dumps(plan, indent=1).encode())
        lived = cut(plan, self.until) if self.until < plan["seconds"] else plan
        (folder / "plan.json").write_text(json.dumps(lived, indent=1))
        initrd = folder / "initrd"
        initrd.write_bytes(self.base + own.archive())
        try:
            machine.run(folder, self.kernel, initrd, disk or folder / "disk", plan["seed"],
                        LIMIT * (plan["seconds"] + 60), since, self.until, self.leaves)
        finally:
            initrd.unlink()
        return checker.check(folder)

    def live(self, name, plan):
        """What is to be said of the house, in that folder, and what was wrong with it."""
        folder = self.folder / name
        shutil.rmtree(folder, ignore_errors=True)
        folder.mkdir(parents=True)
        began = time.monotonic()
        try:
            machine.make_disk(folder / "disk")
            found, papers = self.live_once(folder, plan)
            if "cut" in plan and plan["seconds"] <= self.until:
                since = papers.closed + 1
                again = {"seed": plan["seed"], "seconds": AFTERWARDS, "rooms": plan["rooms"], "pair": [], "steps": []}
                after, papers_after = self.live_once(folder / "afterwards", again, folder / "disk", since)
                found += after + list(checker.what_was_kept(papers, papers_after))
        except Exception as error:  # noqa: BLE001: a house that can't be read is a finding
            console = folder / "console"
            told = console.read_text(errors="replace")[-2000:] if console.exists() else ""
            return House(name, [checker.Finding(0, "", "machine", f"{error!r} {told}")], "", "")
        finally:
            (folder / "disk").unlink(missing_ok=True)
        apart = checker.how_far_apart(papers)
        said = f"{len(plan['steps'])} steps in {plan['seconds']:.0f} s, which took {time.monotonic() - began:.0f}"
        if apart:
            said += "; one session in {} and {}: {:+.3f} ms apart, {:+.3f} after {:.1f} s".format(*plan["pair"], *apart)
        return House(name, found, said, digest_of(folder))


House = collections.namedtuple("House", "name found said digest")


def show(house):
    print(f"house {house.name}: {house.said}; {house.digest[:12]}; {len(house.found)} findings")
    for each in house.found[:SHOWN]:
        print(f"  {each.at:8.3f} {each.place:8} {each.rule:10} {each.text}")
    if len(house.found) > SHOWN:
        print(f"  and {len(house.found) - SHOWN} more")
    sys.stdout.flush()


def live_all(houses, plans, jobs, twice):
    """The names of those that failed; `plans`: names and plans, which may have no end; `twice`: of which ones it is
    looked at whether they are the same again."""
    failed = []

    def one(name, plan):
        house = houses.live(name, plan)
        if name in twice and houses.live(f"{name}-again", plan).digest != house.digest:
            house.found.append(checker.Finding(0, "", "machine", "the same number made another house"))
        return house
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        running = set()
        for each in itertools.chain(plans, [None]):
            if each is not None:
                running.add(pool.submit(one, *each))
            while running and (each is None or len(running) >= jobs):
                done, running = concurrent.futures.wait(running, return_when=concurrent.futures.FIRST_COMPLETED)
                for house in (run.result() for run in done):
                    show(house)
                    failed += [house.name] if house.found else []
    return failed


def signature(house):
    return {(each.place, each.rule) for each in house.found}


def shrink(houses, name, plan):
    """Steps are left out, half of them first, as long as one of the rules is broken where it was before."""
    wanted = signature(houses.live(name, plan))
    end = time.monotonic() + SHRINKING
    size = len(plan["steps"]) // 2
    while wanted and size and time.monotonic() < end:
        at = 0
        while at < len(plan["steps"]) and time.monotonic() < end:
            shorter = dict(plan, steps=plan["steps"][:at] + plan["steps"][at + size:])
            house = houses.live(f"{name}-shrunk", shorter)
            if wanted & signature(house):
                plan = shorter
                print(f"{len(plan['steps'])} steps are left", flush=True)
            else:
                at += size
        size //= 2
    path = houses.folder / name / "shrunk.json"
    path.write_text(json.dumps(plan, indent=1))
    print(f"{len(plan['steps'])} steps: {path}")


def cut(plan, until):
    """As it was lived until then."""
    plan = {key: value for key, value in plan.items() if key != "cut"}
    return dict(plan, seconds=until, is_cut=True, steps=[step for step in plan["steps"] if step["at"] < until])


def known():
    """Those that once failed, and others that are always run: number, devices, minutes."""
    for line in (HERE / "numbers.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            number, devices, minutes = line.split()
            yield number, script.write(int(number), int(devices), float(minutes))


def new_ones(hours, devices, minutes):
    end, first = time.monotonic() + hours * 3600, int(time.time())
    for number in itertools.count(first):
        if time.monotonic() > end:
            return
        yield str(number), script.write(number, devices, minutes)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("numbers", type=int, nargs="*")
    parser.add_argument("--devices", type=int, default=8)
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--twice", action="store_true", help="each a second time: is it the same?")
    parser.add_argument("--until", type=float, default=machine.NEVER, help="end it so many seconds after it was opened")
    parser.add_argument("--leaves", choices=machine.LEAVES, default="nothing",
                        help="then: what devices and controller have in memory, or what ran when")
    parser.add_argument("--plan", type=pathlib.Path, help="of this file")
    parser.add_argument("--shrink", action="store_true", help="leave out what its failure does not need")
    parser.add_argument("--known", action="store_true", help="those of numbers.txt, the first one twice")
    parser.add_argument("--night", type=float, metavar="HOURS", help="new ones, for so long")
    parser.add_argument("--planted", nargs="*", metavar="WORD", help="whether the numbers find the faults of planted.txt")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    options = parser.parse_args()
    plans = [(str(number), script.write(number, options.devices, options.minutes)) for number in options.numbers]
    if options.plan:
        plans.append((options.plan.stem, json.loads(options.plan.read_text())))
    if options.planted is not None:
        return 1 if planted.plant_all(Houses, plans, options.planted, options.jobs) else 0
    houses = Houses(options.build.resolve(), options.until, options.leaves)
    if options.shrink:
        for name, plan in plans:
            shrink(houses, name, plan)
        return 0
    failed = []
    if options.known:
        ever = list(known())
        failed += live_all(houses, ever, options.jobs, {ever[0][0]})
    if options.night:
        plans = itertools.chain(plans, new_ones(options.night, options.devices, options.minutes))
    failed += live_all(houses, plans, options.jobs, set(map(str, options.numbers)) if options.twice else set())
    print("not as they are to be:", " ".join(failed) or "none")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
