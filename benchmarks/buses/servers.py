"""The servers of the buses: how each is started, which processes it is, where clients find it."""

import os
import socket
import subprocess
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

    def __init__(self, build, bench, peers, folder):
        self.build = build
        self.bench = bench
        self.peers = peers
        self.folder = folder

    def peer(self, *paths):
        """A program of another bus: unpacked for this, or else of the system."""
        for path in [os.path.join(self.peers, path) for path in paths] + \
                [os.path.join("/", path) for path in paths]:
            if os.access(path, os.X_OK):
                return path
        raise Failure(f"there is no {paths[0]}")

    def path(self, name):
        return os.path.join(self.folder, name)

    def start(self, command):
        return Program(command, self.path("log"))


def await_start(program, has_started):
    end = time.monotonic() + PATIENCE_S
    while not has_started():
        if program.has_ended() or time.monotonic() > end:
            program.end()
            raise Failure("a server has not started")
        time.sleep(0.002)


def embedded(bus):
    """The role "serve" of the program that measures."""

    def start(setting):
        program = setting.start([setting.bench, "serve", bus])
        return Server([program], program.await_ready())

    return start


def trelanbusd(setting, *arguments):
    ports = setting.path("ports")
    program = setting.start([
        os.path.join(setting.build, "trelan/trelanbusd/trelanbusd"), "--query-port", "0",
        "--msg-port", "0", "--port-file", ports, "--log-level", "warning", *arguments])
    await_start(program, lambda: os.path.exists(ports))
    with open(ports, encoding="ascii") as lines:
        return Server([program], [line.strip().split("=")[1] for line in lines])


def permanent_trelanbusd(setting):
    return trelanbusd(setting, "--data", setting.path("data"))


# The other buses, at their best: nothing kept on disk, nothing logged, no delay before sending.

DBUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_replies_per_connection">50000</limit>
</busconfig>
"""

MOSQUITTO_CONFIG = """listener {port} 127.0.0.1
allow_anonymous true
set_tcp_nodelay true
max_inflight_messages 0
max_queued_messages 0
persistence false
log_dest none
{user}
"""


def write(path, text):
    with open(path, "w", encoding="ascii") as file:
        file.write(text)
    return path


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def listens(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def dbus_daemon(setting):
    config = write(setting.path("dbus.conf"),
                   DBUS_CONFIG.format(socket=setting.path("dbus.socket")))
    daemon = setting.start(["dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                            f"--config-file={config}"])
    server = Server([daemon], [])
    try:
        server.address = [daemon.read_line()]
        server.programs.append(setting.start([setting.bench, "serve", "dbus", *server.address]))
        server.programs[-1].await_ready()
    except Failure:
        server.end()
        raise
    return server


def mosquitto(setting):
    port = free_port()
    # As root it would become another user, whom nobody has made.
    user = "user root" if os.geteuid() == 0 else ""
    config = write(setting.path("mosquitto.conf"), MOSQUITTO_CONFIG.format(port=port, user=user))
    program = setting.start([setting.peer("usr/sbin/mosquitto"), "-c", config])
    return started(program, port)


def nats_server(setting, *arguments):
    port = free_port()
    program = setting.start([setting.peer("usr/sbin/nats-server", "usr/bin/nats-server"),
                             "-a", "127.0.0.1", "-p", str(port), "-l", setting.path("nats.log"), *arguments])
    return started(program, port)


# Those that keep what they are given. What Redis acknowledges is on disk.

def redis_server(setting):
    port = free_port()
    program = setting.start([
        setting.peer("usr/bin/redis-server"), "--bind", "127.0.0.1", "--port", str(port),
        "--dir", setting.folder, "--logfile", setting.path("redis.log"), "--save", "",
        "--appendonly", "yes", "--appendfsync", "always", "--auto-aof-rewrite-percentage", "0"])
    return started(program, port)


def jetstream(setting):
    return nats_server(setting, "-js", "-sd", setting.path("stream"))


def synchronous_jetstream(setting):
    """Version 2.9 refuses the setting for it: the file system makes every write wait for the disk."""
    os.mkdir(setting.path("stream"))
    subprocess.run(["chattr", "+S", setting.path("stream")], check=True)
    return jetstream(setting)


def started(program, port):
    await_start(program, lambda: listens(port))
    return Server([program], [str(port)])
