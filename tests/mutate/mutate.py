"""Puts small faults into lines that the tests cover, one at a time, and tells which ones live.

Everything happens in a copy under build/mutate, which is built with counters: they tell which lines
each test covers when it runs without a fault. Then, for each fault, the tests that cover its line run
until one fails: tests named after the file first, then those that are quick and cover little else.
The faults are drawn by the seed, and spread over the folders.

What came of each fault is kept: a run that is broken off goes on where it was. A fault that was found
is tried again when its file has changed, one that lived when anything has.
"""
import argparse
import collections
import concurrent.futures
import dataclasses
import fcntl
import hashlib
import json
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time

import mutations
import suite

FOLDERS = {
    "morvik": "morvik/src/",
    "trelanwire": "trelan/trelanwire/",
    "trelanloop": "trelan/trelanloop/",
    "trelanlib": "trelan/trelanlib/",
    "trelanbus": "trelan/trelanbus/",
    "trelanctl": "trelan/trelanctl/",
}
KILLED, ALIVE, BROKEN = "killed", "alive", "not compiling"
UNTESTED = ("tests/mutate/", "docs/", "benchmarks/", "examples/", "packaging/")
BUILD_SECONDS = 600
MAX_ADDRESS_SPACE = 16 << 30
FLAGS = "-O0 -w --coverage -fprofile-update=prefer-atomic"
CONSTANT = re.compile(r"\bconst(?:expr)?\b.*?\b([A-Z][A-Z0-9_]+)\b\s*(?:=|\{)")
# How long to wait for a test that usually takes this long: a fault may make it hang.
PATIENCE = 3
MORE_PATIENCE = 10
LATE = re.compile(r": more than \d+ s$")


def parse():
    parser = argparse.ArgumentParser(prog="./dev mutate", description=__doc__.split("\n")[0])
    parser.add_argument("--count", type=int, default=240, help="faults to try (%(default)s)")
    parser.add_argument("--seed", default="1", help="other faults are drawn for another one")
    parser.add_argument("--only", metavar="PATH", default="", help="a file, or a folder with its own")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(),
                        help="programs to run at once (%(default)s)")
    parser.add_argument("--budget", type=float, default=40, metavar="SECONDS",
                        help="what the tests of one fault may take together (%(default)s); those "
                             "named after the file are run in any case")
    parser.add_argument("--list", action="store_true", help="only list the faults")
    return parser.parse_args()


def read(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def digest(*texts):
    return hashlib.sha1("\0".join(texts).encode()).hexdigest()


def quiet(command, **more):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          errors="replace", **more)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command[:4])} ... failed:\n{done.stdout[-4000:]}")
    return done.stdout


def copy_sources(target):
    """Makes a folder hold what git knows or would; returns a digest of what tests depend on."""
    listed = quiet(["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"])
    wanted, parts = {path for path in listed.split("\0") if os.path.isfile(path)}, []
    for root, _, names in os.walk(target):
        for name in names:
            if os.path.relpath(os.path.join(root, name), target) not in wanted:
                os.remove(os.path.join(root, name))
    for path in sorted(wanted):
        copy = os.path.join(target, path)
        with open(path, "rb") as file:
            content = file.read()
        if not path.startswith(UNTESTED) and not path.endswith(".md"):
            parts += [path, hashlib.sha1(content).hexdigest()]
        if os.path.isfile(copy):
            with open(copy, "rb") as file:
                if file.read() == content:
                    continue
        os.makedirs(os.path.dirname(copy), exist_ok=True)
        shutil.copy(path, copy)
    return digest(*parts)


def build_all(source, build, jobs):
    if not os.path.isfile(os.path.join(build, "build.ninja")):
        quiet(["cmake", "-S", source, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=",
               f"-DCMAKE_CXX_FLAGS={FLAGS}", "-DTRELAN_WERROR=OFF", "-DTRELAN_EXAMPLES=OFF",
               "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON"])
    quiet(["ninja", "-C", build, "-j", str(jobs)])


def folder_of(path):
    for folder, prefix in FOLDERS.items():
        if path.startswith(prefix) and path.endswith((".cpp", ".h")):
            return folder
    return None


class Coverage:
    """Which tests run which lines, and how long they take."""

    def __init__(self, work, jobs):
        self.work, self.jobs = work, jobs
        self.build = os.path.join(work, "counting")
        self.units = []
        self.lines = {}  # path: line: numbers of units
        self.counted = {}  # path: lines with a counter, even if no unit runs them

    def measure(self, source, tree):
        path = os.path.join(self.work, "coverage.json")
        print("building the tests", flush=True)
        build_all(source, self.build, self.jobs)
        kept = json.loads(read(path)) if os.path.isfile(path) else {}
        if kept.get("tree") != tree or "counted" not in kept:
            units, counted = self._run_all()
            kept = {"tree": tree, "units": units, "counted": counted}
            with open(path, "w", encoding="utf-8") as file:
                json.dump(kept, file)
        self.counted = {path: set(lines) for path, lines in kept["counted"].items()}
        for unit in suite.find_units(self.build):
            if unit.name not in kept["units"]:
                continue
            unit.seconds, covered = kept["units"][unit.name]
            unit.breadth = sum(map(len, covered.values()))
            for source_path, lines in covered.items():
                for line in lines:
                    self.lines.setdefault(source_path, {}).setdefault(line, []).append(
                        len(self.units))
            self.units.append(unit)

    def _run_all(self):
        results, counters = {}, suite.Counters(self.build)

        def judge(unit):
            with tempfile.TemporaryDirectory(dir=self.work) as folder:
                fault = suite.run(unit, unit.limit, folder)
                if fault:
                    print(f"left out, as it fails without a fault: {unit.name}: {fault}", flush=True)
                    return
                covered = counters.covered(folder)
            results[unit.name] = (unit.seconds, {
                path: sorted(lines) for path, lines in covered.items() if folder_of(path)})

        units = list(suite.find_units(self.build))
        print(f"running {len(units)} tests for the lines that they cover", flush=True)
        with concurrent.futures.ThreadPoolExecutor(self.jobs) as pool:
            list(pool.map(judge, units))
        return results, {path: sorted(lines) for path, lines in counters.counted.items()
                         if folder_of(path)}

    def plan(self, path, numbers, budget):
        """The tests to run for a file, in this order: its own, and others within the budget."""
        stem = os.path.splitext(os.path.basename(path))[0]

        def is_own(unit):
            return unit.name.split("::")[0] in (f"tst_{stem}", f"tst_{stem}_prompt")
        ordered = sorted((self.units[number] for number in numbers),
                         key=lambda unit: (not is_own(unit), unit.seconds * unit.breadth, unit.name))
        chosen = []
        for unit in ordered:
            budget -= unit.seconds
            if budget >= 0 or is_own(unit):
                chosen.append(unit)
        return chosen


@dataclasses.dataclass
class Mutant:
    path: str
    line: int
    mutation: mutations.Mutation
    text: str  # of the file without it
    rank: str
    covering: set  # numbers of units

    def key(self):
        return digest(self.path, self.text, str(self.mutation))

    def changed(self):
        return self.text[:self.mutation.start] + self.mutation.text + self.text[self.mutation.end:]

    def show(self):
        old = self.text[self.mutation.start:self.mutation.end]
        line = self.text.split("\n")[self.line - 1].strip()
        new = " ".join(self.mutation.text.split())
        old = " ".join(old.split())
        if self.mutation.kind == "removal":
            return f"{self.path}:{self.line}: removed: {old}"
        return f"{self.path}:{self.line}: {self.mutation.kind}: {old} -> {new} in: {line}"


def covering(path, line, code_lines, coverage, uses):
    """Numbers of the units that run a line. A statement of several lines has counters at some of
    them only; a constant is covered where it is used."""
    lines, counted = coverage.lines.get(path, {}), coverage.counted.get(path, ())
    constant = CONSTANT.search(code_lines[line - 1])
    if constant:
        return {number for user, at in uses[constant[1]]
                for number in coverage.lines.get(user, {}).get(at, ())}
    while line not in counted and line > 1 and not code_lines[line - 2].rstrip().endswith(
            (";", "{", "}", ":")) and code_lines[line - 2].strip():
        line -= 1
    return set(lines.get(line, ()))


def find_mutants(source, coverage, seed, only):
    """One mutant for each line that has any, by folder, in the order of the draw."""
    paths = sorted(path for path in coverage.lines if path.startswith(only))
    codes = {path: mutations.code_of(read(os.path.join(source, path))).split("\n")
             for path in coverage.lines}
    uses = collections.defaultdict(list)
    for path, lines in codes.items():
        for number, line in enumerate(lines, 1):
            for name in set(re.findall(r"\b[A-Z][A-Z0-9_]+\b", line)):
                uses[name].append((path, number))
    found = {folder: [] for folder in FOLDERS}
    for path in paths:
        text = read(os.path.join(source, path))
        by_line, seen = {}, collections.Counter()
        for mutation in mutations.mutations(text):
            line = text.count("\n", 0, mutation.start) + 1
            content = codes[path][line - 1].strip()
            seen[content, mutation.text] += 1
            # Not by its place, so that the draw is the same when something else has changed.
            rank = digest(seed, path, content, mutation.kind, mutation.text,
                          str(seen[content, mutation.text]))
            mutant = Mutant(path, line, mutation, text, rank, set())
            by_line.setdefault(line, []).append(mutant)
        for line, mutants in by_line.items():
            units = covering(path, line, codes[path], coverage, uses)
            if units:
                mutant = min(mutants, key=lambda one: one.rank)
                mutant.covering = units
                found[folder_of(path)].append(mutant)
    return {folder: sorted(mutants, key=lambda one: one.rank)
            for folder, mutants in found.items() if mutants}


def shares(found, count):
    """How many of each folder: in proportion to its lines, but a tenth of all at least."""
    total = sum(len(mutants) for mutants in found.values())
    return {folder: min(len(mutants), max(count // 10, round(count * len(mutants) / total)))
            for folder, mutants in found.items()}


class Judge:
    """Builds with one fault and runs the tests that may find it."""

    def __init__(self, source, coverage, options):
        self.source, self.coverage, self.options = source, coverage, options

    def judge(self, mutant):
        """Verdict, what found it or how much was run, and how long it took."""
        start = time.monotonic()
        path = os.path.join(self.source, mutant.path)
        with open(path, "w", encoding="utf-8") as file:
            file.write(mutant.changed())
        try:
            verdict, reason = self._find(mutant)
        finally:
            with open(path, "w", encoding="utf-8") as file:
                file.write(mutant.text)
        return verdict, reason, round(time.monotonic() - start, 1)

    def _find(self, mutant):
        units = self.coverage.plan(mutant.path, mutant.covering, self.options.budget)
        built, left = set(), list(units)
        while left:
            # Programs are linked when their turn comes, with all of their tests that come next.
            targets = set(left[0].targets)
            if not targets <= built:
                if not self._build(targets):
                    return BROKEN, ""
                built |= targets
            ready = [unit for unit in left if set(unit.targets) <= built]
            left = [unit for unit in left if not set(unit.targets) <= built]
            fault = self._run(ready)
            if fault:
                return KILLED, fault
        return ALIVE, f"{len(units)} of {len(mutant.covering)} tests"

    def _build(self, targets):
        try:
            return subprocess.run(
                ["ninja", "-C", self.coverage.build, "-j", str(self.options.jobs), *sorted(targets)],
                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                timeout=BUILD_SECONDS).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def _run(self, units):
        """What fails first; an empty text if nothing does."""
        stop, faults = threading.Event(), []

        def one(unit):
            if stop.is_set():
                return
            usual = unit.seconds
            limit = min(unit.limit, PATIENCE * usual + MORE_PATIENCE)
            with tempfile.TemporaryDirectory(dir=self.coverage.work) as folder:
                fault = suite.run(unit, limit, folder, stop)
            unit.seconds = usual
            if fault and not stop.is_set():
                stop.set()
                faults.append(f"{unit.name}: {fault}")
        with concurrent.futures.ThreadPoolExecutor(self.options.jobs) as pool:
            list(pool.map(one, units))
        return faults[0] if faults else ""


class Results:
    """What came of each mutant, one line of JSON for each, as soon as it is known."""

    def __init__(self, path, tree):
        self.path, self.tree, self.known = path, tree, {}
        if os.path.isfile(path):
            for line in read(path).splitlines():
                entry = json.loads(line)
                if entry["verdict"] != ALIVE or entry["tree"] == tree:
                    self.known[entry["key"]] = entry
                else:
                    self.known.pop(entry["key"], None)

    def add(self, mutant, verdict, reason, seconds):
        entry = {"key": mutant.key(), "tree": self.tree, "verdict": verdict, "reason": reason,
                 "seconds": seconds, "what": mutant.show()}
        self.known[entry["key"]] = entry
        with open(self.path, "a", encoding="utf-8") as file:
            file.write(json.dumps(entry) + "\n")
        return entry


def in_turns(found, wanted):
    """Folder and mutant, so that every folder is done with the same share at any time."""
    turns = [(place / max(1, wanted[folder]), folder, mutant)
             for folder, mutants in found.items() for place, mutant in enumerate(mutants)]
    return [turn[1:] for turn in sorted(turns, key=lambda turn: turn[:2])]


def try_all(found, wanted, judge, results):
    """By folder, what came of the mutants: as many as wanted that compile."""
    done = {folder: [] for folder in found}
    total, number, start = sum(wanted.values()), 0, time.monotonic()
    for folder, mutant in in_turns(found, wanted):
        if sum(entry["verdict"] != BROKEN for entry in done[folder]) == wanted[folder]:
            continue
        entry = results.known.get(mutant.key())
        if not entry:
            entry = results.add(mutant, *judge.judge(mutant))
            print(f"[{number + 1}/{total} {time.monotonic() - start:.0f} s] "
                  f"{entry['verdict']} in {entry['seconds']} s: {entry['what']}"
                  f"\n    {entry['reason']}".rstrip(), flush=True)
        number += entry["verdict"] != BROKEN
        done[folder].append(entry)
    return done


def report(done):
    row = "{:<12}{:>8}{:>8}{:>8}{:>10}{:>16}".format
    print("\n" + row("folder", "faults", "killed", "alive", "alive, %", "not compiling"))
    totals = collections.Counter()
    for folder, entries in [*done.items(), ("all", None)]:
        counts = totals if entries is None else collections.Counter(
            entry["verdict"] for entry in entries)
        compiled = counts[KILLED] + counts[ALIVE]
        print(row(folder, compiled, counts[KILLED], counts[ALIVE],
                  f"{100 * counts[ALIVE] / max(1, compiled):.1f}", counts[BROKEN]))
        if entries is not None:
            totals.update(counts)
    late = sum(bool(LATE.search(entry["reason"])) for entries in done.values() for entry in entries)
    print(f"\n{late} of them were killed by the time that a test took")
    print("\nalive:")
    for entries in done.values():
        for entry in entries:
            if entry["verdict"] == ALIVE:
                print(f"{entry['what']}\n    {entry['reason']}")


def main():
    options = parse()
    work = os.path.abspath("build/mutate")
    source = os.path.join(work, "source")
    os.makedirs(source, exist_ok=True)
    lock = open(os.path.join(work, "lock"), "w", encoding="utf-8")
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        sys.exit("./dev mutate is running already")
    # For everything that is started here: a fault may let a program take all the memory there is.
    resource.setrlimit(resource.RLIMIT_AS, (MAX_ADDRESS_SPACE, MAX_ADDRESS_SPACE))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    tree = copy_sources(source)
    coverage = Coverage(work, options.jobs)
    coverage.measure(source, tree)
    found = find_mutants(source, coverage, options.seed, options.only)
    if not found:
        sys.exit(f"no test covers a line of \"{options.only}\" that could be changed")
    wanted = shares(found, options.count)
    if options.list:
        for folder, mutants in found.items():
            print(*(mutant.show() for mutant in mutants[:wanted[folder]]), sep="\n")
        return
    results = Results(os.path.join(work, "results.jsonl"), tree)
    report(try_all(found, wanted, Judge(source, coverage, options), results))


if __name__ == "__main__":
    main()
