#!/usr/bin/env python3
"""Measures the device in a build tree and writes the table: run.py BUILD [--quick] [--only NAME]

Called by ./dev bench. Prints each row when it is known and writes all of them to bench/results.md.
Exit status 1 when a goal is missed.
"""
import argparse
import datetime
import os
import pathlib
import re
import subprocess
import sys
import time

import cost
import kept
import memory
import periods
import rows
from lab import Lab

HERE = pathlib.Path(__file__).resolve().parent


def measurements(lab, options):
    """Name and rows, in the order of the table."""
    quick = options.quick
    music = rows.Music(lab, 40)  # mpd decodes up to 23 s ahead, and then as it plays
    rounds, window = (1 if quick else 4), rows.DECODER_TURN
    armhf = HERE.parent / "build/armhf"
    return {
        "playing": lambda: rows.playing(lab, music, rounds, window),
        "periods": lambda: periods.periods(lab, music, 1 if quick else 3),
        "memory": lambda: memory.memory(lab, music),
        "stock": lambda: rows.stock(lab, music, 1 if quick else 3, window),
        "network": lambda: rows.network(lab, music, 1 if quick else 3),
        "servers": lambda: rows.on_servers(lab, music, 5 if quick else 10),
        "instructions": lambda: instructions(lab),
        "offers": lambda: rows.offers(lab, music),
        "system-calls": lambda: rows.system_calls(lab, music, 3),
        "allocations": lambda: rows.steady_allocations(lab, music, 3 if quick else 6),
        "inside": lambda: rows.inside(lab),
        "idle": lambda: rows.idle(lab, 5 if quick else 12),
        "start": lambda: rows.start(lab, 3 if quick else 11),
        "commands": lambda: rows.commands(lab, music, 4, 2 if quick else 8,
                                          20 if quick else 150),
        "remote": lambda: rows.remote_commands(lab, music, 20 if quick else 150),
        "http": lambda: rows.http_latency(lab, music, 3 if quick else 10),
        "transitions": lambda: rows.transitions(lab),
        "growth": lambda: rows.growth(lab, music, 1 if quick else 3, window),
        "kept": lambda: kept.kept(lab, music, quick),
        "hours": lambda: rows.hours(lab, 6 if quick else 10),
        "size": lambda: [*rows.sizes(lab, lab.build, "amd64", "strip"),
                         *rows.sizes(lab, armhf, "armhf", "arm-linux-gnueabihf-strip")],
    }


def instructions(lab):
    for name, figure in cost.measure(lab, cost.ROWS).items():
        yield rows.Row(f"instructions, the daemon's and its readers', {name}", "", f"{figure / 1e6:.2f} M")


def machine():
    model = re.search(r"^model name\s*:\s*(.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return f"{model[1] if model else os.uname().machine}, {os.cpu_count()} cores"


def package_versions():
    names = ["alsa-utils", "mpd", "libasound2", "libuv1", "libcivetweb1", "libsndfile1", "libflac12"]
    result = subprocess.run(["dpkg-query", "-W", "-f", "${Package} ${Version}\\n", *names],
                            text=True, capture_output=True)
    return ", ".join(result.stdout.split("\n")[:-1])


def git(*words):
    return subprocess.run(["git", "-C", HERE, *words], text=True, capture_output=True).stdout.strip()


def commit():
    changed = git("status", "--porcelain", "--untracked-files=no", "--", ":/", ":!results.md")
    return (git("rev-parse", "--short", "HEAD") or "unknown") + ("-dirty" if changed else "")


def verdict(row):
    return "" if row.is_met is None else "met" if row.is_met else "MISSED"


def write_results(path, table):
    lines = [
        "# Measured",
        "",
        f"- {datetime.date.today()}, commit {commit()}",
        f"- {machine()}; Linux {os.uname().release.split('-')[0]}",
        f"- {package_versions()}",
        "- Made by `./dev bench`. Players in turn on one kind of simulated card (ring buffer of 1 s,",
        "  periods of 125 ms for a program without wishes) unless a row says another, recording off but",
        "  for the transitions; medians; the files were read once before. CPU and wake-ups are those of",
        "  all threads, from `/proc`, user and system time together. Of the file of 24 bits aplay has samples",
        "  that were unpacked for it; in the rows of periods, the file, which ALSA's plug unpacks.",
        "",
        "| what | goal | measured | |",
        "|---|---|---|---|",
        *(f"| {row.what} | {row.goal} | {row.measured} | {verdict(row)} |" for row in table),
        "",
    ]
    path.write_text("\n".join(lines))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="short runs, to try the bench itself")
    parser.add_argument("--only", action="append", help="only this measurement; may be repeated")
    parser.add_argument("--output", type=pathlib.Path, help="default: bench/results.md, or none "
                        "with --quick or --only")
    options = parser.parse_args()
    table = []
    with Lab(options.build) as lab:
        everything = measurements(lab, options)
        for name in options.only or everything:
            begin = time.monotonic()
            for row in everything[name]():
                table.append(row)
                print(f"{row.what:<76} {row.goal:<18} {row.measured}  {verdict(row)}", flush=True)
            print(f"-- {name} took {time.monotonic() - begin:.0f} s", file=sys.stderr, flush=True)
    output = options.output or (None if options.quick or options.only else HERE / "results.md")
    if output:
        write_results(output, table)
    return any(row.is_met is False for row in table)


if __name__ == "__main__":
    sys.exit(main())
