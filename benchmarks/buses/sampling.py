"""What processes do with their processor time, sampled by perf."""

import os
import re
import signal
import subprocess
import time

from processes import PATIENCE_S, Failure

# The parts of a process's time.
SYSTEM, WAKING, CODEC, REST = PARTS = ("system", "waking", "codec", "rest")

RATE = 3989  # samples in a second: a prime, so that they do not keep step with messages

# To switch to another process, to wake one, and the calls that do nothing but wait.
WAKING_FRAME = re.compile(
    r"(__)?schedule$|try_to_wake_up|ttwu_|sock_def_readable|finish_task_switch|"
    r"__(x64|arm64)_sys_(p?poll|epoll_p?wait2?|p?select6?|futex\w*|clock_nanosleep|nanosleep|"
    r"sched_yield)$")
# Between maps and bytes: this bus at either side and in between, and the programs of those that carry
# nothing but bytes. What other servers do with a frame is not told apart.
CODEC_FRAME = re.compile(
    r"simdjson::|Payload::(un)?pack\b|"
    r"bus::(json|jsontext|payload|base64|zstream|frameformat|pushes|replies)::|"
    r"bus::(requests::publish|EnvelopeWriter|SharedBeginning|MessageBody|JsonInspector)\b")


def part_of(frames):
    """Of a sample, whose frames are pairs of address and name, the innermost first."""
    inside = [name for address, name in frames if is_kernel(address)]
    if any(WAKING_FRAME.match(name) for name in inside):
        return WAKING
    if any("syscall" in name.lower() for name in inside):
        return SYSTEM
    return CODEC if any(CODEC_FRAME.match(name) for _, name in frames) else REST


def is_kernel(address):
    return int(address, 16) >> 63


class Sampler:
    """Samples one processor while it is entered.

    The processor and not the processes: perf would set a timer at each switch between them, which
    takes as long as the switch itself."""

    def __init__(self, processor, path):
        self._path = path
        self._command = ["perf", "record", "-q", "-a", "-C", str(processor), "-e", "cpu-clock",
                         "-F", str(RATE), "--call-graph", "dwarf", "-o", path]
        self._process = None

    def __enter__(self):
        self._process = subprocess.Popen(self._command, stderr=subprocess.PIPE, text=True)
        end = time.monotonic() + PATIENCE_S
        while not (os.path.exists(self._path) and os.path.getsize(self._path)):
            if self._process.poll() is not None or time.monotonic() > end:
                raise Failure(f"perf does not sample: {self._process.communicate()[0]}")
            time.sleep(0.01)
        return self

    def __exit__(self, *_):
        self._process.send_signal(signal.SIGINT)
        self._process.communicate()

    def shares(self, pids):
        """Which share each of the parts has in the time of these processes together."""
        script = subprocess.run(
            ["perf", "script", "-i", self._path, "--pid", ",".join(map(str, pids)),
             "-F", "pid,ip,sym", "--no-inline"], check=True, capture_output=True, text=True).stdout
        counts = dict.fromkeys(PARTS, 0)
        for sample in script.split("\n\n"):
            frames = [line.split(None, 1) for line in sample.strip("\n").split("\n")[1:]]
            if frames:
                counts[part_of(frames)] += 1
        total = sum(counts.values())
        if not total:
            raise Failure("perf has no samples of a process")
        return {part: count / total for part, count in counts.items()}
