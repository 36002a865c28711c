"""A bus for the tests, and peers that do what no bus should.

The environment says where the programs are: TRELANBUSD and TRELANCTL."""

import asyncio
import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import trelan
from trelan import frames

GOLDEN = pathlib.Path(__file__).resolve().parents[2] / "tests/support/golden"
LIMIT = 30.0


def golden(name):
    return json.loads((GOLDEN / name).read_text(encoding="utf-8"))


class Daemon:
    """trelanbusd, on ports of its own that it keeps when it is started again."""

    def __init__(self, *options):
        self._options = options
        self._folder = tempfile.TemporaryDirectory()
        self.ports = {"query_port": 0, "message_port": 0}
        self.start()

    def start(self):
        self._process = subprocess.Popen(
            [os.environ["TRELANBUSD"], "--data", self._folder.name, *self._options,
             "--query-port", str(self.ports["query_port"]),
             "--msg-port", str(self.ports["message_port"])], stderr=subprocess.PIPE, text=True)
        said = ""
        for line in self._process.stderr:
            said += line
            listens = re.search(r"listens on [\d.]+:(\d+) and [\d.]+:(\d+)", line)
            if listens:
                self.ports = dict(zip(self.ports, map(int, listens.groups())))
                return
        raise AssertionError(f"the bus does not start: {said}")

    def kill(self):
        self._process.kill()
        self._process.communicate()

    def end(self):
        self.kill()
        self._folder.cleanup()

    def control(self, *arguments):
        """Options and arguments of the tool."""
        return [os.environ["TRELANCTL"], "--query-port", str(self.ports["query_port"]),
                "--msg-port", str(self.ports["message_port"]), *arguments]


class BusTest(unittest.IsolatedAsyncioTestCase):
    """A test around one daemon; whatever it awaits has to come within the limit."""

    OPTIONS = ()

    def setUp(self):
        self.daemon = Daemon(*self.OPTIONS)
        self.addCleanup(self.daemon.end)

    def connect(self, name=None, **more):
        return trelan.connect(name, **{**self.daemon.ports, "timeout": LIMIT, **more})

    async def within(self, work, limit=LIMIT):
        return await asyncio.wait_for(work, limit)

    async def relayed(self, **kind):
        """Relays in front of both channels, and their ports."""
        relays = [Relay(port, **kind) for port in self.daemon.ports.values()]
        for relay in relays:
            await relay.start()
            self.addCleanup(relay.cut)
        return relays, dict(zip(self.daemon.ports, (relay.port for relay in relays)))

    async def next(self, watch):
        """The next change, short: kind, name and content."""
        change = await self.within(watch.__anext__())
        return change.kind.value, change.name, change.content

    async def control(self, *arguments):
        process = await asyncio.create_subprocess_exec(
            *self.daemon.control(*arguments), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        out, errors = await self.within(process.communicate())
        self.assertEqual(process.returncode, 0, errors)
        return out.decode()


class Peer:
    """A server of one channel that answers as a function says: envelope in, envelopes out.

    None for an envelope ends the connection, and bytes leave as they are. The peer remembers what
    it was sent."""

    def __init__(self, answer):
        self._answer = answer
        self.asked = []
        self.came = asyncio.Event()

    async def start(self):
        self._server = await asyncio.start_server(self._serve, "127.0.0.1", 0)
        return self._server.sockets[0].getsockname()[1]

    async def _serve(self, reader, writer):
        decoder = frames.Decoder()
        while True:
            data = await reader.read(65536)
            if not data:
                break
            for frame in decoder.feed(data):
                envelope = frames.unpack(frame.payload)
                self.asked.append(envelope)
                self.came.set()
                for answer in self._answer(envelope):
                    if answer is None:
                        break
                    if isinstance(answer, bytes):
                        writer.write(answer)
                        continue
                    kind = frames.REPLY if "result" in answer else frames.REQUEST
                    writer.write(frames.encode(kind, answer))
                else:
                    continue
                writer.close()
                return
        writer.close()

    async def asked_for(self, wanted):
        """Waits until an envelope came that a function wants."""
        while True:
            for envelope in self.asked:
                if wanted(envelope):
                    return envelope
            self.came.clear()
            await asyncio.wait_for(self.came.wait(), LIMIT)

    def end(self):
        self._server.close()


class Relay:
    """Stands between client and daemon: as it is, as a bus of former times, or cut off.

    `ignores` loses the key `features` on the way, as a bus does that does not know it; `refuses`
    answers such a handshake as a bus may that takes no unknown keys."""

    def __init__(self, port, ignores=False, refuses=False):
        self._upstream = port
        self._ignores = ignores
        self._refuses = refuses
        self._writers = set()
        self.port = 0
        self.refused = 0

    async def start(self):
        self._server = await asyncio.start_server(self._serve, "127.0.0.1", self.port)
        self.port = self._server.sockets[0].getsockname()[1]

    def cut(self):
        """Ends all connections, and takes none until it is started again."""
        self._server.close()
        for writer in self._writers:
            writer.transport.abort()

    async def _serve(self, reader, writer):
        upstream, upwriter = await asyncio.open_connection("127.0.0.1", self._upstream)
        pair = {writer, upwriter}
        self._writers |= pair
        try:
            await asyncio.gather(self._forward(reader, writer, upwriter),
                                 self._copy(upstream, writer))
        except OSError:
            pass
        finally:
            self._writers -= pair
            for one in pair:
                one.close()

    async def _forward(self, reader, writer, upwriter):
        decoder, first = frames.Decoder(), True
        while True:
            data = await reader.read(65536)
            if not data:
                upwriter.close()
                return
            for frame in decoder.feed(data):
                envelope = frames.unpack(frame.payload)
                if first and self._refuses and "features" in envelope["data"]:
                    self.refused += 1
                    writer.write(frames.reply("handshake", {}, 2, "what is this?"))
                    continue
                if first and self._ignores:
                    envelope["data"].pop("features", None)
                first = False
                upwriter.write(frames.encode(frame.kind, envelope))

    @staticmethod
    async def _copy(reader, writer):
        while True:
            data = await reader.read(65536)
            if not data:
                writer.close()
                return
            writer.write(data)
