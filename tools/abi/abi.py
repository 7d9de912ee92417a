#!/usr/bin/env python3
"""Whether a core or a host that was built yesterday still fits: compares what the headers declare
now with the description that was committed for the interface's version (libabigail).

usage: abi.py check | accept      (accept writes a version's description where there is none yet)
"""
import pathlib
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

HERE = pathlib.Path(__file__).resolve().parent
SOURCE = HERE.parents[1]
VERSIONS = SOURCE / "cmake/interfaces.cmake"
OURS = re.compile(r"nuv_|android$|CoreInterface|HostInterface|sp<|Vector<")


def version(layer):
    return re.search(rf"NUVIO_{layer.upper()}_INTERFACE (\d+)", VERSIONS.read_text())[1]


def run(*words, **more):
    return subprocess.run([str(word) for word in words], check=True, **more)


def bare(element, namespace=()):
    """Of the types that are not the interface's own only the names: they are the compiler's."""
    for child in element:
        name = child.get("name", "")
        if child.tag == "namespace-decl":
            bare(child, (*namespace, name))
        elif child.tag in ("class-decl", "union-decl", "enum-decl") and not (
                OURS.match(name) or namespace[:1] == ("android",)):
            for part in list(child):
                child.remove(part)
            kept = {key: child.attrib[key] for key in ("name", "is-struct", "visibility", "id")
                    if key in child.attrib}
            child.attrib.clear()
            child.attrib.update(kept | {"is-declaration-only": "yes"})
            if child.tag == "enum-decl":
                child.tag = "class-decl"


def keep_reached(corpus):
    """Drops what no part of the interface refers to."""
    by_id = {element.get("id"): element for element in corpus.iter() if element.get("id")}
    reached = set()
    pending = [element for element in corpus.iter("var-decl") if element.get("mangled-name")]
    while pending:
        for element in pending.pop().iter():
            for key, value in element.attrib.items():
                if key.endswith("type-id") and value not in reached:
                    reached.add(value)
                    pending.append(by_id[value])

    def is_needed(element):
        return any(part.get("id") in reached or part.get("mangled-name") == "kInterface"
                   for part in element.iter())

    def prune(parent):
        for child in list(parent):
            if child.tag == "namespace-decl":
                prune(child)
            if not is_needed(child):
                parent.remove(child)
    for unit in corpus.iter("abi-instr"):
        prune(unit)


def describe(layer, folder):
    library, description = folder / f"{layer}.so", folder / f"{layer}.xml"
    flags = run("pkg-config", "--cflags", "libuv", capture_output=True, text=True).stdout.split()
    run("g++", "-std=c++20", "-g", "-femit-class-debug-always", "-shared", "-fPIC",
        *flags, "-I", SOURCE / "src",
        "-I", HERE.parent, "-o", library, HERE / f"{layer}.cpp")
    run("abidw", "--no-corpus-path", "--no-comp-dir-path", "--no-show-locs", "--no-elf-needed",
        "--out-file", description, library)
    tree = ET.parse(description)
    bare(tree.getroot().find("abi-instr"))
    keep_reached(tree.getroot())
    for unit in tree.iter("abi-instr"):
        unit.set("path", f"{layer}.cpp")
    tree.write(description)
    return description


def compare(layer, folder):
    committed = HERE / f"{layer}.{version(layer)}.xml"
    now = describe(layer, folder)
    if not committed.exists():
        return committed, now, None, "there is no description of this version yet\n"
    result = subprocess.run(["abidiff", committed, now], capture_output=True, text=True)
    return committed, now, result.returncode, result.stdout + result.stderr


def main(action):
    failed = False
    with tempfile.TemporaryDirectory() as name:
        for layer in ("core", "host"):
            committed, now, status, text = compare(layer, pathlib.Path(name))
            if status == 0:
                print(f"abi: {layer}: as described in {committed.name}")
            elif action == "accept" and status is None:
                committed.write_bytes(now.read_bytes())
                print(f"abi: {layer}: {committed.name} written")
            else:
                failed = True
                print(f"abi: {layer}: not as described in {committed.name}; what may change when: "
                      f"docs/integrating.md\n{text}")
    return 1 if failed else 0


if __name__ == "__main__":
    if sys.argv[1:] not in (["check"], ["accept"]):
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1]))
