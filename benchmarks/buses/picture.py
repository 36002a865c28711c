#!/usr/bin/env python3
"""Draws what ./dev bench --peers has measured: how long a publish takes, bus by bus.

picture.py FIGURES.json PICTURE.svg, where the figures are build/bench/peers.json or a file of its
form. The picture is plain SVG with a background of its own, for light and dark pages."""

import json
import math
import sys
from xml.sax.saxutils import escape

from report import FREE, Results, number, size_name

# In this order, as far as they were measured; the label is for somebody who has not read the page.
ROWS = {
    "prompt-light": "Trelan, Prompt + Light",
    "paced-classic": "Trelan, the default",
    "relay": "raw relay, no codec",
    "dbus": "QtDBus",
    "mosquitto": "mosquitto, QoS 1",
    "nats": "nats-server",
    "remoteobjects": "Qt Remote Objects",
}
OWN = ("prompt-light", "paced-classic")
MEASURES = [("acknowledged", "published, until the server has acknowledged it"),
            ("delivered", "published, until the program of one subscriber has the map")]

WIDTH, MARGIN, LABELS, VALUES = 860, 16, 170, 130
HEAD, ROW, GAP, FOOT = 84, 20, 30, 40
OWN_COLOUR, COLOUR, FAINT, TEXT = "#0b62a8", "#6b6b6b", "#d8d8d8", "#1c1c1c"
FONT = "font-family='DejaVu Sans, Verdana, sans-serif' font-size='12'"


class Axis:
    """Microseconds on a logarithmic scale, in whole decades."""

    def __init__(self, values, left, right):
        self.first = math.floor(math.log10(min(values)))
        self.last = math.ceil(math.log10(max(values)))
        self._left, self._right = left, right

    def at(self, value):
        share = (math.log10(value) - self.first) / (self.last - self.first)
        return self._left + share * (self._right - self._left)

    def ticks(self):
        return [10 ** power for power in range(self.first, self.last + 1)]


def time_name(microseconds):
    if microseconds >= 1000000:
        return f"{number(microseconds / 1000000)} s"
    if microseconds >= 1000:
        return f"{number(microseconds / 1000)} ms"
    return f"{number(microseconds)} µs"


def text(x, y, words, colour=TEXT, more=""):
    return f"<text x='{x:.1f}' y='{y:.1f}' fill='{colour}' {FONT} {more}>{escape(words)}</text>"


def line(x1, y1, x2, y2, colour, width=1):
    return (f"<line x1='{x1:.1f}' y1='{y1:.1f}' x2='{x2:.1f}' y2='{y2:.1f}' stroke='{colour}' "
            f"stroke-width='{width}'/>")


def mark(measure, x, y, colour):
    """A disc for what is acknowledged, a ring for what is delivered."""
    fill = colour if measure == "acknowledged" else "white"
    return (f"<circle cx='{x:.1f}' cy='{y:.1f}' r='4.5' fill='{fill}' stroke='{colour}' "
            f"stroke-width='2'/>")


def legend(run):
    parts = [text(MARGIN, 24, "How long a publish takes, on one machine", more="font-weight='bold'")]
    x = MARGIN + 5
    for measure, words in MEASURES:
        parts += [mark(measure, x, 43, COLOUR), text(x + 10, 47, words)]
        x += 330
    parts.append(text(MARGIN, 67, f"Median; the line goes to the 99th percentile. Version "
                      f"{run['version']}, {run['date']}, {run['cpus']} CPUs.", COLOUR))
    return parts


def rows_of(run, size):
    """What there is to draw of one content: bus, and median and 99th percentile by measure."""
    results, rows = Results(run), []
    for bus in ROWS:
        times = {measure: [results.get(bus, FREE, size, f"{measure}.{p}_us") for p in ("p50", "p99")]
                 for measure, _ in MEASURES}
        if all(value is not None for pair in times.values() for value in pair):
            rows.append((bus, times))
    return rows


def draw_row(bus, times, axis, y):
    colour = OWN_COLOUR if bus in OWN else COLOUR
    parts = [text(MARGIN, y + 4, ROWS[bus], colour if bus in OWN else TEXT)]
    for measure, (median, slow) in times.items():
        parts.append(line(axis.at(median), y, axis.at(slow), y, colour, 2))
    parts += [mark(measure, axis.at(median), y, colour) for measure, (median, _) in times.items()]
    values = ", ".join(time_name(median) for median, _ in times.values())
    parts.append(text(WIDTH - MARGIN, y + 4, values, colour, "text-anchor='end'"))
    return parts


def draw(run):
    """None if nothing of it was measured."""
    groups = [(size, rows_of(run, size)) for size in run["sizes"]]
    values = [value for _, rows in groups for _, times in rows
              for pair in times.values() for value in pair]
    if not values:
        return None
    axis = Axis(values, MARGIN + LABELS, WIDTH - MARGIN - VALUES)
    height = HEAD + sum(GAP + ROW * len(rows) for _, rows in groups) + FOOT
    parts = [f"<svg xmlns='http://www.w3.org/2000/svg' width='{WIDTH}' height='{height}' "
             f"viewBox='0 0 {WIDTH} {height}'>",
             f"<rect width='{WIDTH}' height='{height}' rx='6' fill='white'/>", *legend(run)]
    bottom = height - FOOT
    for tick in axis.ticks():
        parts += [line(axis.at(tick), HEAD, axis.at(tick), bottom, FAINT),
                  text(axis.at(tick), bottom + 18, time_name(tick), COLOUR, "text-anchor='middle'")]
    y = HEAD
    for size, rows in groups:
        parts.append(text(MARGIN, y + GAP - 10, f"content of {size_name(size)}",
                          more="font-weight='bold'"))
        y += GAP
        for bus, times in rows:
            parts += draw_row(bus, times, axis, y + ROW / 2)
            y += ROW
    return "\n".join(parts + ["</svg>"]) + "\n"


def main(drawing, usage, missing):
    """The program of a picture: FIGURES.json PICTURE.svg."""
    if len(sys.argv) != 3:
        print(usage, file=sys.stderr)
        return 2
    with open(sys.argv[1], encoding="utf-8") as file:
        run = json.load(file)
    drawn = drawing(run)
    if drawn is None:
        print(f"{sys.argv[0]}: the figures do not have {missing}", file=sys.stderr)
        return 1
    with open(sys.argv[2], "w", encoding="utf-8") as file:
        file.write(drawn)
    return 0


if __name__ == "__main__":
    sys.exit(main(draw, __doc__, "the time of a publish"))
