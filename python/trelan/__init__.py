"""A client of the Trelan bus in pure Python, on asyncio.

    async with trelan.connect("thermometer") as bus:
        await bus.publish("room.kitchen", {"celsius": 21.5})
        async for room in bus.watch("room.*"):
            print(room.name, room.content)
"""

from .client import MESSAGE_PORT, QUERY_PORT, Bus, connect
from .errors import (AnswerError, NobodyThere, NotConnected, ProtocolError, Refused, TimedOut,
                     TooSlow, TrelanError, WrongPort)
from .state import Reason, State, Status
from .values import Change, Command, Kind, Message, Object
from .watch import Watch
from .wildcards import matches

__all__ = [
    "MESSAGE_PORT", "QUERY_PORT", "AnswerError", "Bus", "Change", "Command", "Kind", "Message",
    "NobodyThere", "NotConnected", "Object", "ProtocolError", "Reason", "Refused", "State",
    "Status", "TimedOut", "TooSlow", "TrelanError", "Watch", "WrongPort", "connect", "matches",
]
