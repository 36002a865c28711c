"""The tests of a build, function by function: what they take, what they cover, how they end."""
import dataclasses
import hashlib
import json
import os
import re
import select
import signal
import subprocess
import threading
import time

FAILURE = re.compile(r"^(?:FAIL!|XPASS|QFATAL) ")
LEFT_OUT = {"soak", "soak-asan"}  # labels of what takes too long
MAX_OUTPUT = 50 << 20


@dataclasses.dataclass
class Unit:
    """A function of a test program, or a test that is not made of functions."""
    name: str
    build: str
    argv: list
    targets: list  # that have to be built for it
    environment: dict
    folder: str
    fatal: re.Pattern
    limit: float  # seconds that the test may take
    seconds: float = 0  # that it took
    breadth: int = 0  # lines that it covers


def is_built(path):
    return os.path.isfile(path) and os.access(path, os.X_OK)


def functions_of(program):
    listed = subprocess.run([program, "-functions"], check=True, capture_output=True, text=True)
    return [line[:-2] for line in listed.stdout.split() if line.endswith("()")]


def find_units(build):
    """All tests of a build that consist of programs it has built."""
    shown = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], check=True,
                           capture_output=True, text=True)
    for test in json.loads(shown.stdout)["tests"]:
        command = test.get("command", [])
        properties = {entry["name"]: entry["value"] for entry in test.get("properties", [])}
        programs = [word for word in command
                    if word.startswith(build + os.sep) and is_built(word)]
        if not programs or LEFT_OUT & set(properties.get("LABELS", [])):
            continue
        environment = dict(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", []))
        fatal = "|".join(properties.get("FAIL_REGULAR_EXPRESSION", [])) or r"(?!)"
        unit = Unit(test["name"], build, command, [os.path.relpath(word, build) for word in programs],
                    environment, properties["WORKING_DIRECTORY"], re.compile(fatal),
                    properties.get("TIMEOUT", 60))
        if not os.path.basename(command[0]).startswith("tst_"):
            yield unit
            continue
        for function in functions_of(command[0]):
            yield dataclasses.replace(unit, name=f"{unit.name}::{function}",
                                      argv=[command[0], function])


def read_lines(process, deadline, stop):
    """The lines that a process writes; None instead of the next one when its time is over."""
    rest, total = b"", 0
    while True:
        if stop.is_set() or time.monotonic() > deadline or total > MAX_OUTPUT:
            yield None
            return
        if not select.select([process.stdout], [], [], 0.1)[0]:
            if process.poll() is not None:  # what it has started may still hold the pipe
                break
            continue
        data = os.read(process.stdout.fileno(), 1 << 16)
        if not data:
            break
        total += len(data)
        *lines, rest = (rest + data).split(b"\n")
        yield from (line.decode(errors="replace") for line in lines)
    yield rest.decode(errors="replace")


def run(unit, limit, folder, stop=threading.Event()):
    """Runs a unit until its first failure, which is returned; an empty text if there is none. Its
    counters go to a folder."""
    start = time.monotonic()
    counters = {"GCOV_PREFIX": folder, "GCOV_PREFIX_STRIP": str(unit.build.count(os.sep))}
    process = subprocess.Popen(
        unit.argv, cwd=unit.folder, env={**os.environ, **unit.environment, **counters},
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        start_new_session=True)
    verdict = ""
    try:
        for line in read_lines(process, start + limit, stop):
            if line is None:
                verdict = "stopped" if stop.is_set() else f"more than {limit:.0f} s"
            elif FAILURE.search(line) or unit.fatal.search(line):
                verdict = line.strip()
            if verdict:
                break
        if not verdict and process.wait(max(1, start + limit - time.monotonic())) != 0:
            verdict = f"ends with {process.returncode}"
    except subprocess.TimeoutExpired:
        verdict = f"more than {limit:.0f} s"
    finally:
        end_group(process)
        process.stdout.close()
    unit.seconds = time.monotonic() - start
    return verdict


def end_group(process):
    """Ends a process, and what it started and left behind."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


class Counters:
    """Reads the counters that units leave, each in a folder, when they run in an instrumented build.

    Most programs load much more than they run, so that many files of counters are alike; to read one
    takes long.
    """

    def __init__(self, build):
        self.build = build
        self.known = {}  # of a file and its content: path: lines
        self.counted = {}  # path: lines with a counter, even if nothing has run them

    def covered(self, folder):
        """Which lines of which sources of the libraries were run."""
        files, unknown = [], {}
        for path in self._files(folder):
            with open(os.path.join(folder, path), "rb") as file:
                key = path, hashlib.sha1(file.read()).digest()
            files.append(key)
            if key not in self.known:
                unknown[path] = key
                notes = path[:-len("gcda")] + "gcno"
                os.symlink(os.path.join(self.build, notes), os.path.join(folder, notes))
        if unknown:
            self._read(folder, unknown)
        lines = {}
        for key in files:
            for source, covered in self.known[key].items():
                lines.setdefault(source, set()).update(covered)
        return lines

    def _files(self, folder):
        for root, _, names in os.walk(folder):
            path = os.path.relpath(root, folder)
            if path.startswith(("morvik", "trelan")) and "_autogen" not in path:
                yield from (os.path.join(path, name) for name in names if name.endswith(".gcda"))

    def _read(self, folder, unknown):
        shown = subprocess.run(["gcov", "--json-format", "--stdout", "--relative-only", *unknown],
                               capture_output=True, text=True, check=True, cwd=folder)
        for report in filter(None, shown.stdout.splitlines()):
            entry = json.loads(report)
            for file in entry["files"]:
                self.counted.setdefault(file["file"], set()).update(
                    line["line_number"] for line in file["lines"])
            self.known[unknown[entry["data_file"]]] = {
                file["file"]: [line["line_number"] for line in file["lines"] if line["count"] > 0]
                for file in entry["files"]}
