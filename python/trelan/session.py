"""A connection to one run of a bus: how it begins, and who has its name when it has ended."""

from __future__ import annotations

import asyncio
import secrets
import time
from dataclasses import dataclass
from typing import Any, Deque, Dict, FrozenSet, List, Mapping, Optional, Set, Tuple

from .channel import Connection, Greeting, MessageChannel, QueryChannel
from .errors import Refused, TrelanError

SOON = 5.0
"""A connection that ends within so many seconds was probably taken over by a program of its
name."""

MOST_UNTOLD = 50
"""Subscriptions that wait for their markers; a bus takes 100 of them."""


@dataclass(frozen=True)
class Settings:
    """Who connects where."""

    name: str
    host: str
    query_port: int
    message_port: int
    transient: bool
    time_limit: float


class Session:
    """Both connections to one run of a bus. They end together, since each is of little use
    alone."""

    def __init__(self, queries: QueryChannel, messages: MessageChannel, greeting: Greeting,
                 addresses: FrozenSet[str]) -> None:
        self.queries = queries
        self.messages = messages
        self.greeting = greeting
        self.addresses = addresses
        self.began = time.monotonic()
        # Subscriptions whose marker has not come yet, by wildcard, in their order.
        self.awaited: Dict[str, Deque[int]] = {}
        self.turns = asyncio.Semaphore(MOST_UNTOLD)
        self.tasks: Set[asyncio.Future[Any]] = set()
        self.loading: List[Set[str]] = []

    def has(self, feature: str) -> bool:
        """Whether the bus can do this."""
        return feature in self.greeting.features

    @property
    def tells(self) -> bool:
        """Whether the bus says what is stored, and when all is told."""
        return self.has("now") and self.has("told")

    async def close(self) -> None:
        """Closes both connections, in a second at most."""
        await asyncio.gather(self.queries.close(), self.messages.close())


async def _greet(settings: Settings, channel: str, name: str,
                 extra: Mapping[str, Any]) -> Tuple[Connection, Greeting]:
    """A connection that the bus has accepted; it is asked for its features unless it refuses
    that."""
    port = settings.query_port if channel == "query" else settings.message_port
    requests: List[Dict[str, Any]] = [{"name": name, "features": True, **extra}, {"name": name}]
    for data in requests:
        connection = await Connection.open(settings.host, port, settings.time_limit)
        try:
            return connection, await connection.greet(data, channel, settings.time_limit)
        except BaseException as error:
            await connection.close()
            if not isinstance(error, Refused) or "features" not in data:
                raise
    raise AssertionError("unreachable")


async def open_session(settings: Settings) -> Session:
    """Both connections, accepted by the bus; else the reason as an exception."""
    # The query connection comes first. Its handshake drops what a former one had subscribed, so
    # that the message connection, which begins after it, brings nothing of former subscriptions.
    queries, greeting = await _greet(settings, "query", settings.name, {})
    try:
        wanted = {"prompt": True, "transient": settings.transient}
        extra = {key: True for key, value in wanted.items() if value and key in greeting.features}
        messages, _ = await _greet(settings, "message", settings.name, extra)
    except BaseException:
        await queries.close()
        raise
    return Session(QueryChannel(queries), MessageChannel(messages), greeting,
                   frozenset((queries.address, messages.address)))


async def taken_by(settings: Settings, session: Session) -> Optional[str]:
    """Who has the name of a session that has ended: an address, "" if unknown, None if nobody.

    Asks under another name, since asking under the own one would take it back.
    """
    soon = time.monotonic() - session.began < SOON
    inquirer = f"{settings.name[:200]}-{secrets.token_hex(4)}"
    try:
        connection, greeting = await _greet(settings, "query", inquirer, {})
    except TrelanError:
        return None  # no bus, which has nothing to do with the name
    queries = QueryChannel(connection)
    reading = asyncio.ensure_future(queries.run())
    try:
        if greeting.instance != session.greeting.instance:
            return None
        if "clients" not in greeting.features:
            return "" if soon else None
        answer = await asyncio.wait_for(queries.ask("clients", {}), settings.time_limit)
        return _holder(answer, settings.name, session.addresses) or ("" if soon else None)
    except (TrelanError, asyncio.TimeoutError):
        return None
    finally:
        await queries.close()
        reading.cancel()
        await asyncio.gather(reading, return_exceptions=True)


def _holder(answer: Mapping[str, Any], name: str, own: FrozenSet[str]) -> str:
    for client in answer.get("clients", []):
        if isinstance(client, dict) and client.get("name") == name:
            address = str(client.get("address", ""))
            return address if client.get("connections") and address not in own else ""
    return ""
