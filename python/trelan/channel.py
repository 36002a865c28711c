"""The two connections to a bus: requests and answers on one, deliveries and acknowledgements on the
other. Whether and when to connect again is decided elsewhere."""

from __future__ import annotations

import asyncio
import logging
from collections import deque
from dataclasses import dataclass
from typing import Any, AsyncIterator, Deque, Dict, FrozenSet, List, Mapping, Tuple

from . import frames
from .errors import (INCORRECT_SIZE, ClosedByBus, NotConnected, ProtocolError, Refused,
                     TrelanError, WrongPort)

LOG = logging.getLogger("trelan.client")

READ_SIZE = 256 * 1024
MOST_IN_FLIGHT = 64
"""Requests that have left without an answer; the others wait in their callers."""
SILENCE = 30.0
"""Seconds for which a bus may leave a request without an answer. No later one could be answered
before it, so that the connection is of no use any more."""
CLOSING = 1.0
"""The longest that closing a connection takes, in seconds."""


@dataclass(frozen=True)
class Greeting:
    """What a bus has answered to the handshake."""

    features: FrozenSet[str] = frozenset()
    instance: str = ""


class Connection:
    """A stream of frames. Ends with NotConnected or ProtocolError, whoever has ended it."""

    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._reader = reader
        self._writer = writer
        self._decoder = frames.Decoder()
        self._lock = asyncio.Lock()
        self._early: List[frames.Frame] = []
        host, port = writer.get_extra_info("sockname")[:2]
        self.address = f"{host}:{port}"

    @classmethod
    async def open(cls, host: str, port: int, time_limit: float) -> Connection:
        """Connects; NotConnected if nobody listens there."""
        try:
            return cls(*await asyncio.wait_for(asyncio.open_connection(host, port), time_limit))
        except asyncio.TimeoutError:
            raise NotConnected(
                f"no bus at {host}:{port}: no connection in {time_limit:g} s") from None
        except OSError as error:
            raise NotConnected(f"no bus at {host}:{port}: {error.strerror or error}") from None

    async def send(self, data: bytes) -> None:
        """Writes, and waits while the peer reads too slowly."""
        async with self._lock:
            self.write(data)
            try:
                await self._writer.drain()
            except OSError as error:
                raise NotConnected(f"the connection ended: {error}", sent=True) from None

    def write(self, data: bytes) -> None:
        """Writes without waiting, for who limits by other means how much that can be."""
        if self._writer.is_closing():
            raise NotConnected("the connection has ended")
        self._writer.write(data)

    async def read(self) -> List[frames.Frame]:
        """The frames that have come; at least one read from the socket, and possibly no frame."""
        try:
            data = await self._reader.read(READ_SIZE)
        except OSError as error:
            raise ClosedByBus(f"the connection ended: {error}") from None
        if not data:
            raise ClosedByBus("the bus has closed the connection")
        return self._decoder.feed(data)

    async def greet(self, data: Mapping[str, Any], channel: str, time_limit: float) -> Greeting:
        """Introduces the client, before anything else; nothing else than the answer comes then."""
        try:
            await self.send(frames.request("handshake", data))
            return await asyncio.wait_for(self._greeting(channel), time_limit)
        except asyncio.TimeoutError:
            raise NotConnected(f"the bus does not answer in {time_limit:g} s") from None

    async def _greeting(self, channel: str) -> Greeting:
        answered: List[frames.Frame] = []
        while not answered:
            answered = await self.read()
        self._early = answered[1:]
        data = answer_of(frames.unpack(answered[0].payload))
        other = data.get("channel", channel)
        if other != channel:
            raise WrongPort(
                f"this is the port of the {other} channel, not of the {channel} channel")
        listed = data.get("features")
        features = frozenset(filter(lambda one: isinstance(one, str), listed)) \
            if isinstance(listed, list) else frozenset()
        return Greeting(features, str(data.get("instance", "")))

    async def batches(self) -> AsyncIterator[List[frames.Frame]]:
        """What comes behind the greeting, a read at a time, until the connection ends."""
        yield self._early
        while True:
            yield await self.read()

    async def close(self) -> None:
        """Closes the connection, in a second at most."""
        self._writer.close()
        try:
            await asyncio.wait_for(self._writer.wait_closed(), CLOSING)
        except (asyncio.TimeoutError, OSError):
            self._writer.transport.abort()


def answer_of(envelope: Mapping[str, Any]) -> Dict[str, Any]:
    """The data of a reply; Refused if its code is not 0."""
    result = envelope.get("result")
    code = result.get("code") if isinstance(result, dict) else None
    if not isinstance(code, int) or isinstance(code, bool):
        raise ProtocolError("a reply has no code")
    if code != 0:
        raise Refused(code, str(envelope["result"].get("description", "")))
    data = envelope.get("data", {})
    if not isinstance(data, dict):
        raise ProtocolError("the data of a reply is no object")
    return data


def _fail(answer: asyncio.Future[Dict[str, Any]], error: Exception) -> None:
    if not answer.done():
        answer.set_exception(error)
        answer.exception()  # whoever waited may have given up, and then nobody fetches it


class QueryChannel:
    """Sends requests, several at once, and hands the answers to whom they are for."""

    def __init__(self, connection: Connection) -> None:
        self._connection = connection
        self._turns = asyncio.Semaphore(MOST_IN_FLIGHT)
        self._waiting: Deque[Tuple[str, asyncio.Future[Dict[str, Any]], float]] = deque()
        self._loop = asyncio.get_running_loop()
        self._ended = ""  # why, once it has

    async def ask(self, operation: str, data: Mapping[str, Any]) -> Dict[str, Any]:
        """The data of the answer. Refused if the bus refuses, NotConnected if it goes away."""
        request = frames.request(operation, data)
        async with self._turns:
            if self._ended:
                raise NotConnected(self._ended)
            answer: asyncio.Future[Dict[str, Any]] = self._loop.create_future()
            # A caller that gives up leaves its place in the row, since the answer still comes.
            self._waiting.append((operation, answer, self._loop.time()))
            try:
                await self._connection.send(request)
            except NotConnected:
                answer.cancel()
                raise
            return await answer

    async def run(self) -> None:
        """Reads answers until the connection ends, and says why it did."""
        watchdog = self._loop.create_task(self._watch_silence())
        reason = "the connection was closed"
        try:
            async for batch in self._connection.batches():
                for frame in batch:
                    self._settle(frame)
        except TrelanError as error:
            reason = str(error)
            raise
        finally:
            self._ended = reason
            watchdog.cancel()
            for _, answer, _ in self._waiting:
                _fail(answer, NotConnected(reason, sent=True))
            self._waiting.clear()

    def _settle(self, frame: frames.Frame) -> None:
        if not self._waiting:
            raise ProtocolError("an answer has come that nobody waits for")
        operation, answer, _ = self._waiting[0]
        try:
            envelope = frames.unpack(frame.payload)
        except ProtocolError as error:  # of this answer alone: the stream is still in step
            self._waiting.popleft()
            _fail(answer, error)
            return
        answered = envelope.get("operation")
        if answered not in (operation, ""):
            raise ProtocolError(f"{operation} was asked, and {answered!r} is answered")
        self._waiting.popleft()
        try:
            data = answer_of(envelope)
        except TrelanError as error:
            _fail(answer, error)
            if isinstance(error, Refused) and error.code == INCORRECT_SIZE and not answered:
                # The bus has not read the request, and looks at nothing else on this connection.
                raise NotConnected("a request was too large for the bus") from None
            return
        if not answer.done():
            answer.set_result(data)

    async def _watch_silence(self) -> None:
        while True:
            await asyncio.sleep(SILENCE / 4)
            if self._waiting and self._loop.time() - self._waiting[0][2] > SILENCE:
                LOG.warning("The bus has not answered %s for %g s", self._waiting[0][0], SILENCE)
                await self._connection.close()

    async def close(self) -> None:
        """Ends the connection, and with it run()."""
        await self._connection.close()


class MessageChannel:
    """Takes deliveries, and acknowledges each before it hands it on."""

    def __init__(self, connection: Connection) -> None:
        self._connection = connection

    async def batches(self) -> AsyncIterator[List[Dict[str, Any]]]:
        """The data of the deliveries, a read at a time, until the connection ends."""
        async for batch in self._connection.batches():
            deliveries = [data for data in map(_delivery, batch) if data is not None]
            if deliveries:
                await self._connection.send(b"".join(map(_acknowledgement, deliveries)))
                yield deliveries

    async def close(self) -> None:
        """Ends the connection, and with it batches()."""
        await self._connection.close()


def _delivery(frame: frames.Frame) -> Any:
    try:
        envelope = frames.unpack(frame.payload)
    except ProtocolError as error:
        LOG.warning("A delivery cannot be read: %s", error)
        return None
    data = envelope.get("data")
    if frame.kind != frames.REQUEST or envelope.get("operation") != "sendMessage" \
            or not isinstance(data, dict):
        LOG.warning("A frame on the message channel is no delivery")
        return None
    return data


def _acknowledgement(data: Mapping[str, Any]) -> bytes:
    return frames.reply("sendMessage", {"sender": data.get("s", ""), "reciever": data.get("r", ""),
                                        "uid": data.get("uid", "")})
