#!/usr/bin/env python3
"""Measures the bus, and others beside it: see docs/performance.md, "Beside other buses"."""

import argparse
import contextlib
import datetime
import json
import os
import platform
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

import breakdown
import picture
import report
import sampling
import servers
import systemcalls
from processes import Failure, OtherPrograms, Program, cpu_seconds, pss_kib

SIZES = [286, 4096, 65536]
IDLE_CLIENTS, IDLE_S = 10, 2.0
FAN_OUT = 32
PROFILE_MS = 3000
TRACED_TIMES = 5  # as long, for what strace slows down

# What is measured: the name of a figure, the kind of it in the program, and how many receivers.
ACKNOWLEDGED = [("acknowledged", "acknowledged", 0), ("pipelined", "pipelined", 0)]
DELIVERED = [("delivered", "passed", 1)]
FANNED_OUT = [("last", "passed", FAN_OUT), ("streamed", "streamed", FAN_OUT)]
CALLED = [("called", "called", 1)]
AWAITED = [("awaited", "awaited", 1)]
ATTENDED = [("attended", "attended", 1)] + AWAITED
ALL = ACKNOWLEDGED + DELIVERED + ATTENDED + FANNED_OUT


class Bus:
    program = "busbench"

    def __init__(self, name, label, server, measures=None, idle=False, slow=False, own_way=False):
        self.name, self.label, self.server = name, label, server
        self.measures = measures or ALL
        self.idle = idle  # whether its server is looked at while nothing happens
        self.slow = slow  # so that one round, with free processors, is enough
        self.own_way = own_way  # what receivers get is something else than what is acknowledged


OWN = [
    Bus("prompt-light", "Prompt + Light", servers.trelanbusd, idle=True),
    Bus("prompt-classic", "Prompt + Classic", servers.trelanbusd),
    Bus("controllers", "two controllers, Prompt + Light", servers.trelanbusd,
        DELIVERED + AWAITED),
    Bus("client", "TrelanClient", servers.trelanbusd, ALL + CALLED),
    Bus("paced-classic", "Paced + Classic", servers.trelanbusd, 
        ACKNOWLEDGED + DELIVERED + ATTENDED, slow=True),
    Bus("relay", "raw relay, no codec", servers.embedded("relay"), idle=True),
]


class Peer(Bus):
    program = "peers/busbench_peers"

    def __init__(self, name, label, server, measures=None, own_way=False):
        super().__init__(name, label, server, measures, idle=True, own_way=own_way)


PEERS = [
    Peer("dbus", "QtDBus", servers.dbus_daemon, ALL + CALLED, own_way=True),
    Peer("mosquitto", "mosquitto QoS 1", servers.mosquitto),
    Peer("nats", "nats-server", servers.nats_server),
    Peer("remoteobjects", "Qt Remote Objects", servers.embedded("remoteobjects")),
]
# What programs of Qt alone may prefer to JSON.
STREAMS = [
    Peer("mosquitto-stream", "mosquitto QoS 1, QDataStream", servers.mosquitto),
    Peer("nats-stream", "nats-server, QDataStream", servers.nats_server),
]


class Session:
    """One server with its publisher, and receivers when they are asked for."""

    def __init__(self, bus, options, folder):
        self._bus = bus
        bench = os.path.join(options.build, "benchmarks/buses", bus.program)
        self._setting = servers.Setting(options.build, bench, options.unpacked, folder)
        self._arrivals = self._setting.path("arrivals")
        self._ends = contextlib.ExitStack()

    def __enter__(self):
        with contextlib.ExitStack() as ends:
            self._server = self._bus.server(self._setting)
            ends.callback(self._server.end)
            pids = ",".join(str(pid) for pid in self._server.pids)
            self._publisher = self._start("publish", self._arrivals, pids)
            ends.callback(self._publisher.end)
            self._publisher.await_ready()
            self._ends = ends.pop_all()
        return self

    def __exit__(self, *_):
        self._ends.close()

    @contextlib.contextmanager
    def receivers(self, number):
        if number == 0:
            yield None
            return
        program = self._start("receive", self._arrivals, str(number))
        try:
            program.await_ready()
            yield program
        finally:
            program.end()

    def measure(self, kind, size, receivers, milliseconds):
        answer = json.loads(
            self._publisher.ask(f"{kind} {size} {receivers} {milliseconds}"))
        if not answer:
            raise Failure(f"{self._bus.label}: {kind} of {size} B has failed")
        return answer

    def system_calls(self, kind, size, milliseconds):
        """Of each process for a message, with one receiver; no time is taken."""
        with self.receivers(1) as receiver:
            processes = self._processes(receiver)
            with contextlib.ExitStack() as watching:
                counters = {who: watching.enter_context(
                    systemcalls.Counter(pids, self._setting.path(who + "calls")))
                    for who, pids in processes.items()}
                sent = self.measure(kind, size, 1, milliseconds)["sent"]
            return {who + "calls": sum(counter.calls().values()) / sent
                    for who, counter in counters.items()}

    def server_calls(self, kind, size, milliseconds):
        """System calls of the server for a message that nobody receives, by name."""
        with systemcalls.Counter(self._server.pids, self._setting.path("calls")) as counter:
            sent = self.measure(kind, size, 0, milliseconds)["sent"]
        return {call: number / sent for call, number in counter.calls().items()}

    def parts(self, kind, size, milliseconds, path):
        """The shares of what each process does, with one receiver, all on one processor."""
        with self.receivers(1) as receiver:
            self.measure(kind, size, 1, milliseconds // 10)
            with sampling.Sampler(max(os.sched_getaffinity(0)), path) as sampler:
                self.measure(kind, size, 1, milliseconds)
            return {who + part: share for who, pids in self._processes(receiver).items()
                    for part, share in sampler.shares(pids).items()}

    def _processes(self, receiver):
        return {"": self._server.pids, "publisher_": [self._publisher.pid],
                "receivers_": [receiver.pid]}

    def idle(self):
        """Milliseconds of processor time in a second, and MiB, with idle clients."""
        with self.receivers(IDLE_CLIENTS):
            time.sleep(0.5)  # for what connecting has left to do
            before = sum(cpu_seconds(pid) for pid in self._server.pids)
            time.sleep(IDLE_S)
            used = sum(cpu_seconds(pid) for pid in self._server.pids) - before
            memory = sum(pss_kib(pid) for pid in self._server.pids)
            return {"cpu_ms_per_s": used * 1000 / IDLE_S, "pss_mib": memory / 1024}

    def _start(self, role, *arguments):
        command = [self._setting.bench, role, self._bus.name, *arguments, *self._server.address]
        return Program(command, self._setting.path("log"))


class Run:
    """Collects every figure of every round."""

    def __init__(self, options, buses):
        self._options, self._buses = options, buses
        self._rounds = {}
        self._others = OtherPrograms()

    def measure(self):
        for number in range(self._options.rounds):
            for cpus in self._options.processors:
                for bus in self._buses:
                    if bus.slow and (number > 0 or cpus != report.FREE):
                        continue
                    print(f"round {number + 1} of {self._options.rounds}, {cpus}: {bus.label}",
                          file=sys.stderr)
                    with processors(cpus):
                        self._measure_bus(bus, cpus, first=number == 0)
        if self._options.system_calls:
            self._count_system_calls()
        if self._options.profile:
            self._sample()

    def _count_system_calls(self):
        """For the smallest content. The processes are slowed down, so this comes last."""
        for cpus in self._options.processors:
            for bus in self._buses:
                kinds = [] if bus.slow else [kind for kind in ATTENDED if kind in bus.measures]
                if not kinds:
                    continue
                print(f"system calls, {cpus}: {bus.label}", file=sys.stderr)
                with processors(cpus), tempfile.TemporaryDirectory(prefix="busbench") as folder, \
                        Session(bus, self._options, folder) as session:
                    for name, kind, _ in kinds:
                        size = self._options.sizes[0]
                        self._add(bus, cpus, size, name, session.system_calls(
                            kind, size, self._options.milliseconds * TRACED_TIMES))

    def _sample(self):
        """What each process does for a message of the smallest content, where its time has to be
        told apart: all on one processor."""
        name, kind, _ = ATTENDED[0]
        for bus in self._buses:
            if bus.name not in breakdown.ROWS:
                continue
            print(f"profile: {bus.label}", file=sys.stderr)
            with processors(report.ONE_CPU), tempfile.TemporaryDirectory(prefix="busbench") as \
                    folder, Session(bus, self._options, folder) as session:
                size = self._options.sizes[0]
                self._add(bus, report.ONE_CPU, size, name, session.parts(
                    kind, size, PROFILE_MS, os.path.join(folder, "perf.data")))

    def _measure_bus(self, bus, cpus, first):
        with tempfile.TemporaryDirectory(prefix="busbench") as folder, \
                Session(bus, self._options, folder) as session:
            if bus.idle and first and cpus == report.FREE and self._options.idle:
                self._add(bus, cpus, 0, "idle", session.idle())
            for receivers in sorted({r for _, _, r in bus.measures}):
                with session.receivers(receivers):
                    for name, kind, count in bus.measures:
                        for size in self._options.sizes if count == receivers else []:
                            self._add(bus, cpus, size, name, session.measure(
                                kind, size, count, self._options.milliseconds))

    def _add(self, bus, cpus, size, name, figures):
        for figure, value in figures.items():
            key = (bus.name, cpus, size, f"{name}.{figure}")
            self._rounds.setdefault(key, []).append(value)

    def result(self):
        figures = [
            {"bus": bus, "cpus": cpus, "bytes": size, "measure": measure,
             "value": statistics.median(values), "rounds": values}
            for (bus, cpus, size, measure), values in self._rounds.items()]
        run = {
            "version": version(self._options.build), "date": str(datetime.date.today()),
            "cpus": os.cpu_count(), "architecture": platform.machine(),
            "others_percent": self._others.percent(), "rounds": self._options.rounds,
            "milliseconds": self._options.milliseconds, "processors": self._options.processors,
            "sizes": self._options.sizes,
            "buses": {bus.name: bus.label for bus in self._buses},
            "figures": figures + self._deliveries(figures)}
        run["goals"] = report.goals(run)
        return run

    def _deliveries(self, figures):
        """Server time of a delivery: what a publish takes more when somebody receives it."""
        results = report.Results({"figures": figures})
        found = []
        for bus in self._buses:
            for cpus in self._options.processors:
                for size in self._options.sizes:
                    whole = results.get(bus.name, cpus, size, "delivered.cpu_us")
                    publish = 0 if bus.own_way else \
                        results.get(bus.name, cpus, size, "acknowledged.cpu_us")
                    if whole is not None and publish is not None:
                        found.append({"bus": bus.name, "cpus": cpus, "bytes": size,
                                      "measure": "delivery.cpu_us", "value": whole - publish})
        return found


@contextlib.contextmanager
def processors(cpus):
    """What is started inside runs on these."""
    allowed = os.sched_getaffinity(0)
    if cpus == report.ONE_CPU:
        os.sched_setaffinity(0, {max(allowed)})
    try:
        yield
    finally:
        os.sched_setaffinity(0, allowed)


def version(build):
    daemon = os.path.join(build, "trelan/trelanbusd/trelanbusd")
    return subprocess.run([daemon, "--version"], check=True, capture_output=True,
                          text=True).stdout.split()[-1]


def compare(before, after):
    runs = []
    for path in (before, after):
        with open(path, encoding="utf-8") as file:
            runs.append(json.load(file))
    print(report.comparison(*runs))


def insert(text, path, mark="figures"):
    """Replaces what an earlier run has left in a document."""
    with open(path, encoding="utf-8") as file:
        parts = re.split(f"(<!-- {mark} -->\n|<!-- end of {mark} -->)", file.read())
    parts[2] = "\n" + text + "\n"
    with open(path, "w", encoding="utf-8") as file:
        file.write("".join(parts))


def keep(run, document):
    """The figures of a document, and what is drawn of them, in the folder of its name."""
    folder = os.path.splitext(document)[0]
    os.makedirs(folder, exist_ok=True)
    for name, text in (("figures.json", report.kept(run)), ("publish.svg", picture.draw(run)),
                       ("message.svg", breakdown.draw(run))):
        if text:
            with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
                file.write(text)


def parse(arguments):
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", help="folder of the build")
    parser.add_argument("--out", help="file for the figures, without .json and .md")
    parser.add_argument("--peers", action="store_true", help="other buses, too")
    parser.add_argument("--data-streams", action="store_true",
                        help="those that carry bytes with QDataStream, too, beside JSON")
    parser.add_argument("--unpacked", default="/", help="folder of the peers' unpacked packages")
    parser.add_argument("--into", metavar="DOCUMENT",
                        help="put the tables between its marks, and figures and picture beside it")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--milliseconds", type=int, default=200, help="for each figure of a round")
    parser.add_argument("--only", nargs="+", metavar="BUS", help="leave the others out",
                        choices=[bus.name for bus in OWN + PEERS + STREAMS])
    parser.add_argument("--system-calls", action="store_true",
                        help="count those of a message, too, with strace and after all else")
    parser.add_argument("--profile", action="store_true",
                        help="find out, with perf and after all else, what takes the time")
    parser.add_argument("--smoke", action="store_true", help="only whether it works")
    parser.add_argument("--compare", nargs=2, metavar=("BEFORE", "AFTER"),
                        help="files of two runs")
    options = parser.parse_args(arguments)
    options.processors, options.sizes, options.idle = [report.FREE, report.ONE_CPU], SIZES, True
    if options.smoke:
        options.rounds, options.milliseconds, options.idle = 1, 5, False
        options.processors, options.sizes = [report.FREE], SIZES[:1]
        options.only = ["prompt-light", "controllers", "client", "relay"]
    return options


def main():
    options = parse(sys.argv[1:])
    if options.compare:
        compare(*options.compare)
        return 0
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # so that no process stays
    buses = OWN + (PEERS if options.peers else []) + (STREAMS if options.data_streams else [])
    run = Run(options, [bus for bus in buses if not options.only or bus.name in options.only])
    try:
        run.measure()
    except (Failure, OSError) as failure:
        print(f"busbench: {failure}", file=sys.stderr)
        return 1
    result = run.result()
    text = report.whole(result)
    if options.out:
        with open(options.out + ".json", "w", encoding="utf-8") as file:
            json.dump(result, file, indent=1)
        with open(options.out + ".md", "w", encoding="utf-8") as file:
            file.write(text)
    if options.into:
        insert(text, options.into)
        keep(result, options.into)
    print("\n" + text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
