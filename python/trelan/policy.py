"""What is remembered, what waits, and for how long: decisions without sockets and without tasks."""

from __future__ import annotations

import hashlib
import json
import random
from collections import OrderedDict, deque
from typing import Deque, Dict, Generic, List, Optional, Tuple, TypeVar

from . import wildcards
from .errors import TooSlow
from .values import Change, Kind, Object

T = TypeVar("T")

REMEMBERED_DELIVERIES = 128
"""At least 100, so that all that the bus can send twice is recognised."""


class Seen:
    """Remembers the last deliveries, since what was not acknowledged in time comes again.

    A message is remembered beyond a connection. A notification is not: no bus delivers it on another
    one, and a publisher that comes back may publish a value once more under its uid.
    """

    def __init__(self, most: int = REMEMBERED_DELIVERIES) -> None:
        self._most = most
        self._keys: Dict[Tuple[str, str, int], None] = {}
        self._connection = 0

    def begin_connection(self) -> None:
        self._connection += 1

    def is_new(self, sender: str, uid: str, is_notification: bool = False) -> bool:
        """Whether this delivery is seen for the first time. It is remembered from now on."""
        key = (sender, uid, self._connection if is_notification else 0)
        if key in self._keys:
            return False
        self._keys[key] = None
        if len(self._keys) > self._most:
            del self._keys[next(iter(self._keys))]
        return True


class Backoff:
    """How long to wait ahead of the next attempt: not at all, then 50 ms, doubling to 5 s.

    Half of each pause is left to chance, so that the clients of a bus that was restarted do not
    come at one moment. A name that was taken by another program pauses from 5 s to a minute, since
    both would take it from each other without an end.
    """

    FIRST = 0.05
    LONGEST = 5.0
    FIRST_TAKEN = 5.0
    LONGEST_TAKEN = 60.0

    def __init__(self) -> None:
        self._failures = 1  # the first attempt has no connection ahead of it
        self._taken = 0

    def succeeded(self) -> None:
        """A connection was accepted."""
        self._failures = 0

    def lasted(self) -> None:
        """A connection has lasted, so that nobody fights for its name."""
        self._taken = 0

    def after_failure(self) -> float:
        """Seconds to wait after an attempt that has failed, or after a connection that has
        ended."""
        self._failures += 1
        if self._failures == 1:
            return 0.0
        pause = min(self.FIRST * 2.0 ** min(self._failures - 2, 30), self.LONGEST)
        return pause * random.uniform(0.5, 1.0)

    def after_taken(self) -> float:
        """Seconds to wait after another program has taken the name over."""
        pause = min(self.FIRST_TAKEN * 2.0 ** min(self._taken, 30), self.LONGEST_TAKEN)
        self._taken += 1
        return pause * random.uniform(1.0, 1.2)


def fingerprint(value: Object) -> bytes:
    """Tells a value from another one: of one publication it is always equal."""
    content = json.dumps(value.content, sort_keys=True)
    text = f"{value.publisher}\n{value.time}\n{content}"
    return hashlib.blake2b(text.encode("utf-8", "surrogatepass"), digest_size=16).digest()


class Knowledge:
    """What a watch knows of the stored objects that its wildcards take in.

    Values and markers go in, and what the application has to hear comes out. It knows as many names
    as the bus has objects, and of each value a few bytes. Subscriptions are counted up; an object
    that was not told since subscription N is gone when the marker of N comes.
    """

    def __init__(self) -> None:
        self._told: Dict[str, Tuple[bytes, int]] = {}

    def __len__(self) -> int:
        return len(self._told)

    def told(self, change: Change, subscription: int) -> Optional[Change]:
        """Takes a stored value in. Gives it back unless the application has seen just this one."""
        known = self._told.get(change.name)
        mark = fingerprint(change)
        self._told[change.name] = (mark, subscription)
        if change.kind is Kind.NOW and known is not None and known[0] == mark:
            return None
        return change

    def heard(self, change: Change) -> None:
        """Takes a notification in of which nobody says whether it is stored.

        It does not make an object known, since an event would be taken for removed later.
        """
        known = self._told.get(change.name)
        if known is not None:
            self._told[change.name] = (fingerprint(change), known[1])

    def removed(self, removal: Change) -> Optional[Change]:
        """Takes a removal in. Gives it back unless the application takes the object for removed."""
        return removal if self._told.pop(removal.name, None) is not None else None

    def marked(self, wildcard: str, subscription: int) -> List[Change]:
        """The marker of a subscription has come: the removals that nobody told."""
        takes_in = wildcards.compiled(wildcard)
        gone = [name for name, (_, told) in self._told.items()
                if told < subscription and takes_in(name)]
        for name in gone:
            del self._told[name]
        return [Change(name, {}, kind=Kind.REMOVED) for name in gone]


class Waiting(Generic[T]):
    """Messages that wait for a slow reader: at a bound the oldest is dropped, and counted."""

    def __init__(self, most: int = 1000, most_bytes: int = 16 * 1024 * 1024) -> None:
        self._most = most
        self._most_bytes = most_bytes
        self._items: Deque[Tuple[T, int]] = deque()
        self._bytes = 0
        self.dropped = 0

    def __len__(self) -> int:
        return len(self._items)

    def put(self, item: T, size: int) -> None:
        """Lets an item of about so many bytes wait."""
        self._items.append((item, size))
        self._bytes += size
        while len(self._items) > self._most or (
                self._bytes > self._most_bytes and len(self._items) > 1):
            self.take()
            self.dropped += 1

    def take(self) -> T:
        """The item that has waited longest."""
        item, size = self._items.popleft()
        self._bytes -= size
        return item


class WaitingChanges:
    """Changes that wait for a slow reader.

    A few wait one by one. From then on only the newest change of a stored object waits, in the
    place of the one before, so that a reader skips values, and ends with the newest of each object.
    Events cannot stand for each other: at a bound the oldest is dropped, and counted.
    """

    ONE_BY_ONE = 200

    def __init__(self, most_events: int = 1000, most_bytes: int = 16 * 1024 * 1024,
                 most_names: int = 100_000) -> None:
        self._most_events = most_events
        self._most_bytes = most_bytes
        self._most_names = most_names
        self._items: OrderedDict[int, Change] = OrderedDict()  # in the order of their numbers
        self._newest: Dict[str, int] = {}
        self._events: Deque[Tuple[int, int]] = deque()  # number and size
        self._event_bytes = 0
        self._next = 0
        self.dropped = 0

    def __len__(self) -> int:
        return len(self._items)

    def put(self, change: Change) -> None:
        """Lets the change of a stored object wait."""
        place = self._newest.get(change.name)
        if place is None or len(self._items) < self.ONE_BY_ONE:
            if len(self._newest) >= self._most_names:
                raise TooSlow(f"changes of {self._most_names} objects wait, and nobody takes them")
            place = self._number()
        self._items[place] = change
        self._newest[change.name] = place

    def put_event(self, change: Change, size: int) -> None:
        """Lets an event of about so many bytes wait."""
        number = self._number()
        self._items[number] = change
        self._events.append((number, size))
        self._event_bytes += size
        while len(self._events) > self._most_events or (
                self._event_bytes > self._most_bytes and len(self._events) > 1):
            oldest, size = self._events.popleft()
            del self._items[oldest]
            self._event_bytes -= size
            self.dropped += 1

    def take(self) -> Change:
        """The change that has waited longest."""
        number, change = self._items.popitem(last=False)
        if self._events and self._events[0][0] == number:
            self._event_bytes -= self._events.popleft()[1]
        elif self._newest.get(change.name) == number:
            del self._newest[change.name]
        return change

    def _number(self) -> int:
        self._next += 1
        return self._next
