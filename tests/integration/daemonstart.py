#!/usr/bin/env python3
"""How the daemon takes what it is started with: sockets, descriptors, limits, the journal.

Called with trelanbusd and trelanctl. Everything that is started here is ended here."""
import os
import resource
import socket
import subprocess
import sys
import tempfile

BUSD, CTL = sys.argv[1:]
ANY_PORTS = ["--query-port", "0", "--msg-port", "0"]


def listening():
    sock = socket.socket()
    sock.bind(("127.0.0.1", 0))
    sock.listen()
    return sock


def start(arguments=(), sockets=(), prepare=lambda: None, **variables):
    """The daemon, with the sockets from descriptor 3 on, as a service manager starts it."""
    def exec_with_own_pid():
        prepare()
        kept = [os.dup(sock.fileno()) for sock in sockets]
        for number, descriptor in enumerate(kept):
            os.dup2(descriptor, 3 + number)
        if sockets:
            variables.update(LISTEN_FDS=str(len(sockets)), LISTEN_PID=str(os.getpid()))
        os.execve(BUSD, [BUSD, *arguments], {**os.environ, **variables})

    # close_fds would close the sockets. What Python has opened ends with exec anyway.
    return subprocess.Popen([BUSD], preexec_fn=exec_with_own_pid, close_fds=False,
                            stderr=subprocess.PIPE, text=True)


def first_lines(daemon):
    """What it says until it listens, or until it ends."""
    lines = []
    for line in daemon.stderr:
        lines.append(line)
        if "listens on" in line:
            break
    return "".join(lines)


def end(daemon):
    daemon.terminate()
    daemon.communicate(timeout=30)
    assert daemon.returncode == 0, daemon.returncode


def check(name, wanted, text):
    assert wanted in text, f"{name}: {wanted!r} is not in {text!r}"
    print("ok:", name)


def takes_sockets(names, query, message):
    """A client that was there first is served, on the channel it came for."""
    sockets = [listening(), listening()]
    port = sockets[query].getsockname()[1]
    early = subprocess.Popen([CTL, "--query-port", str(port), "pub", "a.b", "c=1"])
    with tempfile.NamedTemporaryFile() as ports:
        daemon = start(["--port-file", ports.name], sockets, LISTEN_FDNAMES=names)
        assert early.wait(timeout=30) == 0
        first_lines(daemon)  # the file is there
        expected = f"query={port}\nmsg={sockets[message].getsockname()[1]}\n"
        with open(ports.name, encoding="ascii") as written:
            check(f"sockets named {names!r}", expected, written.read())
    end(daemon)


def refuses_sockets(name, sockets, reason):
    daemon = start(sockets=sockets)
    errors = daemon.communicate(timeout=30)[1]
    assert daemon.returncode == 1, (name, daemon.returncode)
    check(name, reason, errors)


def says(name, wanted, arguments=(), **settings):
    daemon = start([*ANY_PORTS, *arguments], **settings)
    check(name, wanted, first_lines(daemon))
    end(daemon)


def occupies_closed_descriptors():
    """Its log must not go to whichever client got descriptor 2."""
    with tempfile.TemporaryDirectory() as folder:
        ports = os.path.join(folder, "ports")
        daemon = start([*ANY_PORTS, "--port-file", ports], prepare=lambda: os.closerange(0, 3))
        while not os.path.exists(ports):
            assert daemon.poll() is None
        taken = {os.readlink(f"/proc/{daemon.pid}/fd/{number}") for number in range(3)}
        assert taken == {"/dev/null"}, taken
    end(daemon)
    print("ok: closed standard descriptors")


def limit(soft, hard):
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def raises_limit():
    daemon = start(ANY_PORTS, prepare=limit(64, 2000))
    lines = first_lines(daemon)
    assert "descriptors" not in lines, lines
    check("limit raised", "(1088, 2000)", str(resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)))
    end(daemon)


def own_journal():
    status = os.fstat(2)
    os.environ["JOURNAL_STREAM"] = f"{status.st_dev}:{status.st_ino}"


takes_sockets("trelanbusd.socket:trelanbusd.socket", 0, 1)
takes_sockets("messages:query", 1, 0)
refuses_sockets("one socket", [listening()], "hand over two sockets")
refuses_sockets("not listening", [listening(), socket.socket()], "no TCP socket that listens")
refuses_sockets("not TCP", [socket.socket(type=socket.SOCK_DGRAM), listening()], "no TCP socket")
occupies_closed_descriptors()
raises_limit()
says("limit too low", "1024 connections need 1088 descriptors, and the limit is 100",
     prepare=limit(64, 100))
says("journal of another", " info trelanbusd", JOURNAL_STREAM="1:1")
says("journal", "<6>trelanbusd", prepare=own_journal)
