#!/usr/bin/env python3
"""Draws what ./dev bench --peers --profile has measured: where the time of a message goes.

breakdown.py FIGURES.json PICTURE.svg, where the figures are build/bench/peers.json or a file of its
form. A bar is the processor time of a process for a message, as it was measured without perf; its
parts have the shares of perf's samples."""

from picture import COLOUR, FAINT, MARGIN, TEXT, WIDTH, line, main, text
from report import ONE_CPU, Results, number, size_name
from sampling import CODEC, PARTS, REST, SYSTEM, WAKING

ROWS = {"prompt-light": "Trelan, Prompt + Light", "mosquitto": "mosquitto, QoS 1",
        "relay": "raw relay, no codec"}
PROCESSES = {"publisher_": "publisher", "": "server", "receivers_": "subscriber"}
NAMES = {SYSTEM: "system calls", WAKING: "wake-ups, and waiting", CODEC: "codec", REST: "the rest"}
COLOURS = {SYSTEM: "#0b62a8", WAKING: "#86b6dc", CODEC: "#e08a1e", REST: "#b9b9b9"}
ON_COLOURS = {SYSTEM: "#ffffff", WAKING: TEXT, CODEC: TEXT, REST: TEXT}

LABELS, VALUES = 90, 60
HEAD, ROW, BAR, GAP, FOOT = 84, 24, 17, 30, 40
ROOM = 26  # in a bar for its figure
TICK_US = 5


def parts_of(results, bus, size):
    """Microseconds of each part by process; None if they were not measured."""
    found = {}
    for process in PROCESSES:
        used = results.get(bus, ONE_CPU, size, f"attended.{process}cpu_us")
        shares = [results.get(bus, ONE_CPU, size, f"attended.{process}{part}") for part in PARTS]
        if used is None or None in shares:
            return None
        found[process] = {part: used * share for part, share in zip(PARTS, shares)}
    return found


def rectangle(x, y, width, height, colour):
    return f"<rect x='{x:.1f}' y='{y:.1f}' width='{width:.1f}' height='{height}' fill='{colour}'/>"


def legend(run):
    size = size_name(run["sizes"][0])
    parts = [text(MARGIN, 24, f"Where the time of a message goes: {size}, acknowledged and delivered",
                  more="font-weight='bold'")]
    x = MARGIN
    for part in PARTS:
        parts += [rectangle(x, 36, 12, 12, COLOURS[part]), text(x + 18, 47, NAMES[part])]
        x += 180
    parts.append(text(MARGIN, 67, f"Processor time in µs, all processes on one CPU. Version "
                      f"{run['version']}, {run['date']}.", COLOUR))
    return parts


def draw_bar(process, parts, scale, y):
    drawn = [text(MARGIN, y + BAR - 4, PROCESSES[process])]
    x = MARGIN + LABELS
    for part, time in parts.items():
        drawn.append(rectangle(x, y, time * scale, BAR, COLOURS[part]))
        if time * scale >= ROOM:
            drawn.append(text(x + time * scale / 2, y + BAR - 4, f"{time:.1f}", ON_COLOURS[part],
                              "text-anchor='middle'"))
        x += time * scale
    return drawn + [text(x + 6, y + BAR - 4, number(sum(parts.values())), more="font-weight='bold'")]


def draw(run):
    """None if nothing of it was measured."""
    results = Results(run)
    groups = {bus: parts_of(results, bus, run["sizes"][0]) for bus in ROWS}
    groups = {bus: found for bus, found in groups.items() if found}
    if not groups:
        return None
    most = max(sum(parts.values()) for found in groups.values() for parts in found.values())
    scale = (WIDTH - 2 * MARGIN - LABELS - VALUES) / most
    bottom = HEAD + len(groups) * (GAP + ROW * len(PROCESSES))
    height = bottom + FOOT
    drawn = [f"<svg xmlns='http://www.w3.org/2000/svg' width='{WIDTH}' height='{height}' "
             f"viewBox='0 0 {WIDTH} {height}'>",
             f"<rect width='{WIDTH}' height='{height}' rx='6' fill='white'/>", *legend(run)]
    for tick in range(0, int(most) + 1, TICK_US):
        x = MARGIN + LABELS + tick * scale
        drawn += [line(x, HEAD, x, bottom, FAINT),
                  text(x, bottom + 18, f"{tick} µs", COLOUR, "text-anchor='middle'")]
    y = HEAD
    for bus, found in groups.items():
        whole = sum(sum(parts.values()) for parts in found.values())
        drawn.append(text(MARGIN, y + GAP - 10, f"{ROWS[bus]}: {number(whole)} µs",
                          more="font-weight='bold'"))
        y += GAP
        for process, parts in found.items():
            drawn += draw_bar(process, parts, scale, y)
            y += ROW
    return "\n".join(drawn + ["</svg>"]) + "\n"


if __name__ == "__main__":
    raise SystemExit(main(draw, __doc__, "what takes the time of a message"))
