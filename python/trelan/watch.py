"""Watches: what is on its way to who iterates over them."""

from __future__ import annotations

import asyncio
import weakref
from typing import Any, Callable, FrozenSet, Optional, Set

from . import policy, wildcards
from .errors import TrelanError
from .values import Change, Kind


class Feed:
    """What the client puts into a watch. It knows nothing of the watch, which may be gone."""

    def __init__(self, wanted: FrozenSet[str], most_events: int, since: int) -> None:
        self.wanted = wanted
        self.waiting = policy.WaitingChanges(most_events)
        self.arrived = asyncio.Event()
        self.is_whole = asyncio.Event()
        self.closed = False
        self.error: Optional[TrelanError] = None
        self._since = since  # what was subscribed before is of other watches
        self._matchers = [wildcards.compiled(wildcard) for wildcard in wanted]
        self._knowledge = policy.Knowledge()
        self._told: Set[str] = set()

    def takes_in(self, name: str) -> bool:
        """Whether one of the wildcards takes in a name."""
        return any(matcher(name) for matcher in self._matchers)

    def stop(self, error: Optional[TrelanError] = None) -> None:
        """Ends the watch, once what waits was taken."""
        self.closed = True
        self.error = self.error or error
        self.arrived.set()
        self.is_whole.set()

    def lost(self) -> None:
        """The connection has ended, so that changes may be missed from now on."""
        self._told.clear()
        if not self.closed:
            self.is_whole.clear()

    def take(self, change: Change, subscription: int) -> None:
        """Takes a change of a stored object in."""
        if change.kind is Kind.REMOVED:
            self._put(self._knowledge.removed(change))
        else:
            self._put(self._knowledge.told(change, subscription))

    def take_older(self, change: Change, subscription: int) -> None:
        """Takes a value in that was loaded while a later one was notified of."""
        self._knowledge.told(change, subscription)

    def take_event(self, change: Change, size: int) -> None:
        """Takes an event in, or a change of which nobody says whether it is one."""
        if change.kind is not Kind.EVENT:
            self._knowledge.heard(change)
        if not self.closed:
            self.waiting.put_event(change, size)
            self.arrived.set()

    def take_marker(self, wildcard: str, subscription: int) -> None:
        """All values that this wildcard takes in have been told."""
        for removal in self._knowledge.marked(wildcard, subscription):
            self._put(removal)
        if subscription > self._since:
            self._told.add(wildcard)
        if self._told >= self.wanted:
            self.is_whole.set()

    def _put(self, change: Optional[Change]) -> None:
        if change is None or self.closed:
            return
        try:
            self.waiting.put(change)
        except TrelanError as error:
            self.stop(error)
        self.arrived.set()


class Watch:
    """What some wildcards take in: an asynchronous iterator of changes.

    It begins with the values that are stored, as ``Kind.NOW``. After a connection was lost it goes
    on with what differs then: new values, and removals of what is gone. A reader that is slow skips
    values, and ends with the newest of each object; of events that are not stored, the oldest are
    dropped, and ``dropped`` counts them. The watch ends with ``aclose()``, with the bus, or when
    nothing refers to it any more.
    """

    def __init__(self, feed: Feed, release: Callable[[Feed], Any]) -> None:
        self._feed = feed
        self._end = weakref.finalize(self, release, feed)
        self._end.atexit = False

    @property
    def wildcards(self) -> FrozenSet[str]:
        """What is watched."""
        return self._feed.wanted

    @property
    def dropped(self) -> int:
        """How many events were dropped because nobody has taken them in time."""
        return self._feed.waiting.dropped

    async def whole(self) -> None:
        """Waits until every value that is stored has arrived here, on this connection."""
        await self._feed.is_whole.wait()
        if self._feed.error is not None:
            raise self._feed.error

    def __aiter__(self) -> Watch:
        return self

    async def __anext__(self) -> Change:
        feed = self._feed
        while not len(feed.waiting):
            if feed.error is not None:
                raise feed.error
            if feed.closed:
                raise StopAsyncIteration
            feed.arrived.clear()
            await feed.arrived.wait()
        return feed.waiting.take()

    async def __aenter__(self) -> Watch:
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.aclose()

    async def aclose(self) -> None:
        """Ends the watch, and its subscriptions unless other watches need them."""
        self._end()
        self._feed.stop()
