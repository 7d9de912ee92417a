#!/usr/bin/env python3
"""Draws which folder includes which, and fails where an arrow points up the list in rooms.txt.

usage: graph.py ROOMS [PICTURE.svg]   (the picture by Graphviz' dot, arrows between folders)
"""
import collections
import pathlib
import re
import subprocess
import sys

INCLUDE = re.compile(r'^\s*#include "([^"]+)"', re.MULTILINE)
TREES = ("common", "src", "cores", "hosts", "controller", "kit", "tools/simcard")
ROOTS = ("src", "cores", "hosts/linux", "kit", "tools/simcard", ".")


def read_rooms(path):
    """The rooms, highest first, and the arrows that may point up."""
    rooms, exceptions = [], set()
    for line in pathlib.Path(path).read_text(encoding="utf-8").splitlines():
        words = line.split("#")[0].split()
        if words[1:2] == ["->"]:
            exceptions.add((words[0], words[2]))
        elif words:
            rooms.append(words[0])
    return rooms, exceptions


def target_of(source, name):
    """The file of this tree that an include names, as the compiler would find it; else None."""
    for folder in (source.parent, *map(pathlib.Path, ROOTS)):
        if (folder / name).is_file():
            return (folder / name).resolve().relative_to(pathlib.Path.cwd())
    return None


def arrows():
    found = collections.defaultdict(list)
    for tree in TREES:
        for source in sorted(pathlib.Path(tree).rglob("*")):
            if source.suffix not in (".h", ".cpp"):
                continue
            for name in INCLUDE.findall(source.read_text(encoding="utf-8")):
                target = target_of(source, name)
                if target is not None and target.parent != source.parent:
                    found[str(source.parent), str(target.parent)].append(f"{source}: {target}")
    return found


def draw(found, exceptions, picture):
    lines = ["digraph rooms { rankdir=TB; node [shape=box, fontname=sans];"]
    for (start, end), places in sorted(found.items()):
        style = ", color=red" if (start, end) in exceptions else ""
        lines.append(f'"{start}" -> "{end}" [label={len(places)}{style}];')
    subprocess.run(["dot", "-Tsvg", "-o", picture], input="\n".join([*lines, "}"]), text=True,
                   check=True)


def main():
    rooms, exceptions = read_rooms(sys.argv[1])
    found = arrows()
    place = {room: index for index, room in enumerate(rooms)}
    wrong = [f"no room in the list: {room}" for room in
             sorted({room for arrow in found for room in arrow} - place.keys())]
    wrong += [f"exception that nothing needs: {' -> '.join(arrow)}"
              for arrow in sorted(exceptions - found.keys())]
    for arrow, places in sorted(found.items()):
        start, end = (place.get(room, 0) for room in arrow)
        if start > end and arrow not in exceptions:
            wrong += [f"points up: {' -> '.join(arrow)}: {where}" for where in places]
    if len(sys.argv) > 2:
        draw(found, exceptions, sys.argv[2])
    print("\n".join(wrong) or f"graph: {len(found)} arrows between folders, none up but "
          f"{len(exceptions)} by name")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
