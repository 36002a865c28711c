"""Whether there is a bus, and why not."""

from __future__ import annotations

import enum
from dataclasses import dataclass

from .errors import Refused, TrelanError, WrongPort


class Status(enum.Enum):
    """Whether there is a bus."""

    CONNECTING = "connecting"
    CONNECTED = "connected"
    AWAY = "away"
    CLOSED = "closed"


class Reason(enum.Enum):
    """Why there is no bus."""

    NONE = ""
    NO_BUS = "no bus"
    REFUSED = "refused"
    NAME_TAKEN = "name taken over"
    WRONG_PORT = "port of the other channel"


@dataclass(frozen=True)
class State:
    """Whether there is a bus, since when (``time.time()``), and why not."""

    status: Status
    since: float
    reason: Reason = Reason.NONE
    text: str = ""


def reason_of(error: TrelanError) -> Reason:
    """The reason that an attempt to connect has failed for, or a connection has ended for."""
    if isinstance(error, Refused):
        return Reason.REFUSED
    return Reason.WRONG_PORT if isinstance(error, WrongPort) else Reason.NO_BUS
