"""The servers of the buses: how each is started, which processes it is, where clients find it."""

import os
import time

from processes import PATIENCE_S, Failure, Program


class Server:
    """Started processes of a server. `pids` are those whose time and memory count."""

    def __init__(self, programs, address):
        self.programs = programs
        self.pids = [programs[0].pid]
        self.address = address

    def end(self):
        for program in reversed(self.programs):
            program.end()


class Setting:
    """Where the programs are, and a folder for what one server needs."""

    def __init__(self, build, bench, folder):
        self.build = build
        self.bench = bench
        self.folder = folder

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, command):
        return Program(command, self.path("log"))


def await_file(program, path):
    end = time.monotonic() + PATIENCE_S
    while not os.path.exists(path):
        if program.has_ended() or time.monotonic() > end:
            raise Failure("a server has not started")
        time.sleep(0.002)


def embedded(bus):
    """The role "serve" of the program that measures."""

    def start(setting):
        program = setting.start([setting.bench, "serve", bus])
        return Server([program], program.await_ready())

    return start


def trelanbusd(setting):
    ports = setting.path("ports")
    program = setting.start([
        os.path.join(setting.build, "trelan/trelanbusd/trelanbusd"), "--query-port", "0",
        "--msg-port", "0", "--port-file", ports, "--log-level", "warning"])
    await_file(program, ports)
    with open(ports, encoding="ascii") as lines:
        return Server([program], [line.strip().split("=")[1] for line in lines])
