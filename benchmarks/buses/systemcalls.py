"""System calls of running processes, counted by strace."""

import signal
import subprocess

from processes import Failure


class Counter:
    """Counts while it is entered, which slows the processes down many times over."""

    def __init__(self, pids, path):
        self._pids, self._path = pids, path
        self._process = None

    def __enter__(self):
        command = ["strace", "-f", "-c", "-U", "calls,name", "-o", self._path]
        for pid in self._pids:
            command += ["-p", str(pid)]
        self._process = subprocess.Popen(command, stderr=subprocess.PIPE, text=True)
        for _ in self._pids:
            said = self._process.stderr.readline()
            if "attached" not in said:
                self.__exit__()
                raise Failure(f"strace does not attach: {said.strip()}")
        return self

    def __exit__(self, *_):
        self._process.send_signal(signal.SIGINT)
        self._process.communicate()

    def calls(self):
        """How many there were, by name."""
        with open(self._path, encoding="ascii") as lines:
            rows = [line.split() for line in lines]
        return {row[1]: int(row[0]) for row in rows
                if len(row) == 2 and row[0].isdigit() and row[1] != "total"}
