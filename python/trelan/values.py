"""The values that travel: objects, changes, messages and commands, and how a message says them."""

from __future__ import annotations

import enum
from dataclasses import dataclass, field
from typing import Any, Dict, Mapping, Optional, Union

from . import frames
from .errors import ProtocolError

Content = Dict[str, Any]

LOGGED = 1
STORED = 2
PERMANENT = 4
NEEDS_ANSWER = 4


@dataclass(frozen=True)
class Object:
    """An object as its publisher sent it. ``time`` is in milliseconds since the epoch."""

    name: str
    content: Content
    publisher: str = ""
    time: int = 0
    uid: str = ""


class Kind(enum.Enum):
    """What a change says about an object."""

    NOW = "now"
    """The object is stored, and nothing has changed: this is the value that it has."""
    CHANGED = "changed"
    """The object was published, and is stored unless the bus does not tell (see
    ``Bus.missing``)."""
    EVENT = "event"
    """The object was published and is not stored: it is gone with this change."""
    REMOVED = "removed"
    """The object was removed. Its content is empty; the publisher is whoever has removed it, and
    empty if that happened while there was no connection."""


@dataclass(frozen=True)
class Change(Object):
    """What a watch gives: an object, and what has happened to it."""

    kind: Kind = Kind.CHANGED

    @property
    def removed(self) -> bool:
        """Whether the object is gone."""
        return self.kind is Kind.REMOVED


@dataclass(frozen=True)
class Message:
    """A text that another client has sent to this one."""

    sender: str
    text: str
    time: int = 0
    uid: str = ""


@dataclass(frozen=True)
class Command:
    """A command that another client has sent to this one. An answer has a ``parent``."""

    sender: str
    name: str
    params: Any = field(default_factory=dict)
    needs_answer: bool = False
    parent: Optional[str] = None
    time: int = 0
    uid: str = ""


@dataclass(frozen=True)
class Removal:
    """The text of a message that tells of the removal of an object."""

    name: str


@dataclass(frozen=True)
class Marker:
    """The text of a message behind the last value that answers a subscription."""

    wildcard: str


Said = Union[Change, Removal, Marker, Message, Command]


def milliseconds(value: Any) -> int:
    """The time in ``dt``, or 0 if it is none."""
    try:
        return int(value)
    except (TypeError, ValueError, OverflowError):
        return 0


def object_of(data: Any) -> Object:
    """The object in an answer of ``loadObject``."""
    if not isinstance(data, dict) or not isinstance(data.get("nm"), str):
        raise ProtocolError("an object has no name")
    content = data.get("cnt", {})
    if not isinstance(content, dict):
        raise ProtocolError(f"the content of {data['nm']!r} is no object")
    return Object(data["nm"], content, str(data.get("p", "")), milliseconds(data.get("dt")),
                  str(data.get("uid", "")))


def command_text(name: str, params: Mapping[str, Any], parent: Optional[str] = None) -> str:
    """The text of a command, or of the answer to the command with the uid ``parent``."""
    command: Dict[str, Any] = {"__name__": name, "__params__": params}
    if parent is not None:
        command["__parent__"] = parent
    return frames.dump({"__cmd__": command})


def said(data: Mapping[str, Any]) -> Said:
    """What a delivery says. A text that is none of the known ones is a Message."""
    sender, text, uid = str(data.get("s", "")), data.get("msg", ""), str(data.get("uid", ""))
    if not isinstance(text, str):
        raise ProtocolError("the text of a message is none")
    time = milliseconds(data.get("dt"))
    message = Message(sender, text, time, uid)
    if not text.lstrip(" \t\r\n").startswith("{"):
        return message
    try:
        body = frames.load(text)
    except ProtocolError:
        return message
    if "__cmd__" in body:
        needs_answer = bool(milliseconds(data.get("ops", 0)) & NEEDS_ANSWER)
        return _command(body, message, needs_answer) or message
    return _notification(body, message) or message


def _command(body: Mapping[str, Any], message: Message, needs_answer: bool) -> Optional[Command]:
    inner = body["__cmd__"]
    if len(body) != 1 or not isinstance(inner, dict) or not isinstance(inner.get("__name__"), str):
        return None
    parent = inner.get("__parent__")
    return Command(message.sender, inner["__name__"], inner.get("__params__", {}), needs_answer,
                   parent if isinstance(parent, str) and parent else None, message.time,
                   message.uid)


def _notification(body: Mapping[str, Any], message: Message) -> Optional[Said]:
    reason, name, content = body.get("__reason__"), body.get("__name__"), body.get("__context__")
    if reason == "sub" and isinstance(name, str) and isinstance(content, dict):
        stored = {"now": Kind.NOW, "changed": Kind.CHANGED}
        kind = stored.get(str(body.get("__stored__")), Kind.EVENT)
        return Change(name, content, message.sender, message.time, message.uid, kind)
    if reason == "removed" and isinstance(name, str):
        return Removal(name)
    if reason == "told" and isinstance(body.get("__sub__"), str):
        return Marker(body["__sub__"])
    return None
