"""Makes a man page of what a program says of itself.

Usage: manpage.py PROGRAM SECTION VERSION OUTPUT [SEE-ALSO...]

Reads "PROGRAM --help", and "PROGRAM COMMAND --help" of each command named there. A page cannot tell
anything else than its program does.
"""
import os
import re
import subprocess
import sys

COLUMN = 30  # where the help texts have their descriptions, behind two blanks
INTERNAL = "-h,--help"
TITLES = {"Exit codes": "EXIT STATUS"}


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


class Help:
    """A help text taken apart: summary, usage, sections of (term, description), and other text."""

    def __init__(self, program, *words):
        text = subprocess.run([program, *words, "--help"], check=True, capture_output=True,
                              encoding="utf-8", stdin=subprocess.DEVNULL).stdout
        lines = text.splitlines()
        usage = next(number for number, line in enumerate(lines) if line.startswith("Usage: "))
        self.summary = " ".join(lines[:usage])
        self.usage = lines[usage][len("Usage: "):]
        self.sections, self.text = {}, []
        self._read(lines[usage + 1:])

    def _read(self, lines):
        entries = None
        for line in lines:
            if re.fullmatch(r"\w[\w ]*:", line):
                entries = self.sections.setdefault(line[:-1], [])
            elif line.startswith(" " * COLUMN):
                entries[-1][1] = (entries[-1][1] + " " + line.strip()).strip()
            elif line.startswith("  "):
                gap = line[COLUMN - 2:COLUMN] == "  "
                term, text = (line[:COLUMN], line[COLUMN:]) if gap else (line, "")
                entries.append([term.strip(), text.strip()])
            elif line:
                self.text.append(line)


def entry_lines(entries):
    for term, text in entries:
        if not term.startswith(INTERNAL):
            yield from (".TP", ".B " + roff(term), roff(text or " "))


def command_lines(program, command):
    own = Help(program, command)
    yield from (".SS " + roff(own.usage), roff(own.summary[0].upper() + own.summary[1:] + "."))
    for title, entries in own.sections.items():
        if title not in ("Arguments", "Options"):
            yield from (".PP", roff(title) + ":")
        yield from entry_lines(entries)


def page(program, section, version, see_also):
    main, name = Help(program), os.path.basename(program)
    yield f'.TH {name.upper()} {section} "" "Trelan {version}"'
    yield from (".SH NAME", f"{name} \\- {roff(main.summary.rstrip('.'))}",
                ".SH SYNOPSIS", roff(main.usage),
                ".SH DESCRIPTION", roff(main.summary))
    if main.text:
        yield ".PP"
        yield from map(roff, main.text)
    for title, entries in main.sections.items():
        yield f".SH {TITLES.get(title, title.upper())}"
        if title == "Commands":
            for command, _ in entries:
                yield from command_lines(program, command)
        else:
            yield from entry_lines(entries)
    if see_also:
        yield from (".SH SEE ALSO", roff(", ".join(see_also)))


def main():
    program, section, version, output, *see_also = sys.argv[1:]
    with open(output, "w", encoding="utf-8") as file:
        file.write("\n".join(page(program, section, version, see_also)) + "\n")


main()
