"""Processes of a measurement: started, talked to by lines, and always ended again."""

import os
import resource
import select
import subprocess
import time

PATIENCE_S = 90


class Failure(Exception):
    """What a process has not done, for people."""


class Program:
    """A process that says "ready", with words after it, when it can be used."""

    def __init__(self, command, log):
        self._command = command
        self._rest = b""
        with open(log, "ab") as errors:
            self._process = subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, bufsize=0)

    @property
    def pid(self):
        return self._process.pid

    def await_ready(self):
        words = self.read_line().split()
        if words[:1] != ["ready"]:
            raise Failure(f"{' '.join(self._command)} is not ready")
        return words[1:]

    def ask(self, line):
        self._process.stdin.write(line.encode() + b"\n")
        return self.read_line()

    def read_line(self):
        output = self._process.stdout.fileno()
        end = time.monotonic() + PATIENCE_S
        while b"\n" not in self._rest:
            if not select.select([output], [], [], max(0, end - time.monotonic()))[0]:
                raise Failure(f"no word from {' '.join(self._command)}")
            piece = os.read(output, 65536)
            if not piece:
                raise Failure(f"{' '.join(self._command)} has ended")
            self._rest += piece
        line, self._rest = self._rest.split(b"\n", 1)
        return line.decode()

    def has_ended(self):
        return self._process.poll() is not None

    def end(self):
        self._process.terminate()
        try:
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()


def cpu_seconds(pid):
    """User and system time of a process, all its threads, to the nanosecond."""
    clock_of_process = ((~pid) << 3) | 2
    return time.clock_gettime(clock_of_process)


def pss_kib(pid):
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as lines:
        for line in lines:
            if line.startswith("Pss:"):
                return int(line.split()[1])
    raise Failure("no memory figures of the server")


class OtherPrograms:
    """How much of the processors others have taken since this was made, in percent."""

    def __init__(self):
        self._start = time.monotonic()
        self._busy, self._own = self._busy_seconds(), self._own_seconds()

    def percent(self):
        """Without the processes that were started and have not ended yet."""
        others = self._busy_seconds() - self._busy - (self._own_seconds() - self._own)
        return max(0, 100 * others / (time.monotonic() - self._start) / os.cpu_count())

    @staticmethod
    def _busy_seconds():
        with open("/proc/stat", encoding="ascii") as lines:
            user, nice, system, _idle, _wait, irq, softirq = lines.readline().split()[1:8]
        ticks = sum(int(time_used) for time_used in (user, nice, system, irq, softirq))
        return ticks / os.sysconf("SC_CLK_TCK")

    @staticmethod
    def _own_seconds():
        return sum(usage.ru_utime + usage.ru_stime for usage in map(
            resource.getrusage, (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN)))
