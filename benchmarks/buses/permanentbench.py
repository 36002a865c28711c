#!/usr/bin/env python3
"""Measures permanent publishes, and other servers that keep what they are given beside them: see
docs/performance.md, "Permanent publishes"."""

import contextlib
import json
import os
import signal
import subprocess
import sys
import tempfile

import busbench
import report
import servers
from busbench import Bus, Peer
from processes import Failure

SIZES = [286, 4096]
MEASURES = ["pipelined", "acknowledged"]
OWN = [Bus("permanent", "permanent objects", servers.permanent_trelanbusd)]
PEERS = [
    Peer("redis", "Redis, AOF, always", servers.redis_server),
    Peer("jetstream", "JetStream, not synced", servers.jetstream),
    Peer("jetstream-sync", "JetStream, synchronous files", servers.synchronous_jetstream),
]
GOALS = {"redis": "Redis", "jetstream-sync": "JetStream, synchronous files"}
SYNCS = ["fsync", "fdatasync"]

COLUMNS = [
    ("single, µs", ["acknowledged.p50_us", "acknowledged.p99_us"]),
    ("single/s", ["acknowledged.per_s"]),
    ("pipelined/s", ["pipelined.per_s"]),
    ("syncs for a single one", ["acknowledged.syncs"]),
    ("pipelined", ["pipelined.syncs"]),
    ("CPU of a single one, µs", ["acknowledged.cpu_us"]),
    ("pipelined", ["pipelined.cpu_us"]),
]


class Run(busbench.Run):
    """Each content has a folder of its own, where all names have a value when single ones are
    measured."""

    def _measure_bus(self, bus, cpus, first):
        for size in self._options.sizes:
            with self._session(bus) as session:
                for name in MEASURES:
                    self._add(bus, cpus, size, name, session.measure(
                        name, size, 0, self._options.milliseconds))

    def count_syncs(self):
        """In sessions apart, since strace takes time."""
        for bus in self._buses:
            for size in self._options.sizes:
                with self._session(bus) as session:
                    for name in MEASURES:
                        calls = session.server_calls(name, size, self._options.milliseconds)
                        self._add(bus, report.FREE, size, name,
                                  {"syncs": sum(calls.get(call, 0) for call in SYNCS)})

    @contextlib.contextmanager
    def _session(self, bus):
        with tempfile.TemporaryDirectory(prefix="permanentbench") as folder, \
                busbench.Session(bus, self._options, folder) as session:
            yield session


def file_system(folder):
    return subprocess.run(["stat", "-f", "-c", "%T", folder], check=True, capture_output=True,
                          text=True).stdout.strip()


def can_write_synchronously():
    """Whether the file system lets a folder make every write wait for the disk."""
    with tempfile.TemporaryDirectory(prefix="permanentbench") as probe:
        return subprocess.run(["chattr", "+S", probe], check=False).returncode == 0


def goals(run):
    results = report.Results(run)
    found = [report.goal(f"{label}, single: its time / ours", report.FREE, size, results.ratio(
        peer, "permanent", report.FREE, size, "acknowledged.p50_us"), 1, False)
             for peer, label in GOALS.items() for size in run["sizes"]]
    return [line for line in found if line]


def table(run):
    results = report.Results(run)
    rows = [[report.size_name(size), label] +
            [" / ".join(report.number(results.get(name, report.FREE, size, measure))
                        for measure in measures) for _, measures in COLUMNS]
            for size in run["sizes"] for name, label in run["buses"].items()]
    return report.markdown(["content", "server"] + [column for column, _ in COLUMNS], rows, 2)


def measure(options, buses):
    if options.peers and not can_write_synchronously():
        print("permanentbench: nothing can make JetStream sync always here", file=sys.stderr)
        buses = [bus for bus in buses if bus.name != "jetstream-sync"]
    run = Run(options, buses)
    run.measure()
    try:
        if not options.smoke:
            run.count_syncs()
    except (Failure, OSError) as failure:
        print(f"permanentbench: syncs are not counted: {failure}", file=sys.stderr)
    result = run.result()
    result.update(file_system=file_system(options.build), goals=goals(result))
    return result


def parse(arguments):
    options = busbench.parse(arguments)
    options.sizes = options.sizes[:1] if options.smoke else SIZES
    options.processors = [report.FREE]
    options.system_calls = options.profile = False  # syncs are counted in any case
    return options


def main():
    options = parse(sys.argv[1:])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that no process stays
    tempfile.tempdir = os.path.abspath(options.build)  # /tmp may be no disk
    try:
        if not options.smoke and file_system(options.build) in ("tmpfs", "ramfs"):
            raise Failure(f"{options.build} is not on a disk")
        result = measure(options, OWN + (PEERS if options.peers else []))
    except (Failure, OSError, subprocess.CalledProcessError) as failure:
        print(f"permanentbench: {failure}", file=sys.stderr)
        return 1
    parts = [report.heading(result) + f" The disk has {result['file_system']}.", table(result)]
    text = "\n\n".join(parts + [report.goals_table(result)] * bool(result["goals"])) + "\n"
    if options.out:
        with open(options.out + ".json", "w", encoding="utf-8") as file:
            json.dump(result, file, indent=1)
        with open(options.out + ".md", "w", encoding="utf-8") as file:
            file.write(text)
    if options.into:
        busbench.insert(text, options.into, "permanent figures")
    print("\n" + text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
