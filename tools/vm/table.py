"""The table of docs/integrating.md of what measure.py found."""
import collections
import json
import textwrap

SHORT, LONG = 10, 40  # s of the two tracks of one kind
RESULT = "measured.json"
WIDTH = 110
BEGIN, END = "<!-- ./dev vm armhf -->\n", "<!-- vm -->\n"
HEAD = """| | MB, playing | afterwards | M instructions a second of audio |
|---|---|---|---|
"""


def text_of(reading):
    return f"{reading['resident']:.1f} ({reading['dirty']:.1f})"


def millions(us, ns):
    return f"{us * 1000 / ns / 1e6:.2g}"


def listed(figures):
    return ", ".join(f"{name} {figure:.0f}" for name, figure in figures.items())


def item(text):
    return textwrap.fill(text, WIDTH, initial_indent="- ", subsequent_indent="  ", break_on_hyphens=False) + "\n"


def lines_of(found):
    ns = found["ns"]
    yield f"| nothing | {text_of(found['idle'])} | | {millions(found['rest_us'], ns)} a second |\n"
    for name, row in found["rows"].items():
        yield f"| {name} | {text_of(row['playing'])} | {text_of(row['after'])} | {millions(row['us'], ns)} |\n"
    yield "\n"
    starts = sorted(found["starts"])
    seconds, us = starts[len(starts) // 2]
    yield item(f"From the program's start to its first HTTP answer: {seconds * 1000:.0f} ms, "
               f"{millions(us, ns)} M instructions (the middle of {len(starts)}).")
    yield item(f"Stripped, KiB: {listed(found['sizes'])}.")
    depths = collections.Counter()
    for row in found["rows"].values():
        depths |= collections.Counter(row["playing"]["stacks"])
    yield item(f"Threads' stacks, KiB touched: {listed(dict(depths.most_common()))}.")


def write(result, page):
    """Into the page, in the place of the one before."""
    text = page.read_text()
    at, end = text.index(BEGIN) + len(BEGIN), text.index(END)
    page.write_text(text[:at] + HEAD + "".join(lines_of(json.loads(result.read_text()))) + text[end:])
