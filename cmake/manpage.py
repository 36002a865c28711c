"""Makes a man page of what a program says of itself.

Usage: manpage.py PROGRAM SECTION VERSION OUTPUT [SEE-ALSO...]

Reads "PROGRAM --help", and "PROGRAM COMMAND --help" of each command named there. The pages cannot
tell anything else than the program does.
"""
import os
import re
import subprocess
import sys

COLUMN = 30  # where the help texts have their descriptions
INTERNAL = "-h,--help"


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


class Help:
    """A help text taken apart: summary, usage, sections of (term, description), and the end."""

    def __init__(self, program, *words):
        text = subprocess.run([program, *words, "--help"], check=True, capture_output=True,
                              encoding="utf-8", stdin=subprocess.DEVNULL).stdout
        lines = text.splitlines()
        self.summary = lines[0]
        self.usage = lines[1].replace("Usage: " + program, "Usage: " + os.path.basename(program))
        self.usage = self.usage[len("Usage: "):]
        self.sections, self.footer = {}, []
        self._read(lines[2:])

    def _read(self, lines):
        entries = None
        for number, line in enumerate(lines):
            following = lines[number + 1] if number + 1 < len(lines) else ""
            if re.fullmatch(r"\w[\w ]*:", line):
                entries = self.sections.setdefault(line[:-1], [])
            elif line.startswith(" " * COLUMN):
                entries[-1][1] = (entries[-1][1] + " " + line.strip()).strip()
            elif line.startswith("  "):
                whole = following.startswith(" " * COLUMN) or len(line) <= COLUMN
                term, text = (line, "") if whole else (line[:COLUMN], line[COLUMN:])
                entries.append([term.strip(), text.strip()])
            elif line:
                self.footer.append(line)


def entry_lines(entries):
    for term, text in entries:
        if not term.startswith(INTERNAL):
            yield from (".TP", ".B " + roff(term), roff(text or " "))


def page(program, section, version, see_also):
    main, name = Help(program), os.path.basename(program)
    summary = main.summary.rstrip(".")
    yield f'.TH {name.upper()} {section} "" "Trelan {version}"'
    yield from (".SH NAME", f"{name} \\- {roff(summary)}",
                ".SH SYNOPSIS", roff(main.usage))
    exits = [line for line in main.footer if line.startswith("Exit codes: ")]
    text = [line for line in main.footer if line not in exits]
    yield from (".SH DESCRIPTION", roff(main.summary))
    for title, entries in main.sections.items():
        if title != "Subcommands":
            yield f".SH {title.upper()}"
            yield from entry_lines(entries)
    if text:
        yield ".PP"
        yield from map(roff, text)
    if "Subcommands" in main.sections:
        yield ".SH COMMANDS"
        for command, _ in main.sections["Subcommands"]:
            own = Help(program, command)
            yield from (".SS " + roff(own.usage), roff(own.summary[0].upper() + own.summary[1:] + "."))
            for entries in own.sections.values():
                yield from entry_lines(entries)
    if exits:
        yield from (".SH EXIT STATUS", roff(exits[0][len("Exit codes: "):]))
    if see_also:
        yield from (".SH SEE ALSO", roff(", ".join(see_also)))


def main():
    program, section, version, output, *see_also = sys.argv[1:]
    with open(output, "w", encoding="utf-8") as file:
        file.write("\n".join(page(program, section, version, see_also)) + "\n")


main()
