"""Frames: bytes in, envelopes out, and back. Nothing here knows a socket.

A frame is a header line, the length of the payload on a line, and the payload: base64 over four
bytes of length and a zlib stream, which holds the envelope as JSON.
"""

from __future__ import annotations

import binascii
import json
import re
import struct
import zlib
from dataclasses import dataclass
from typing import Any, Dict, List, Mapping, Optional

from .errors import ProtocolError

REQUEST = "[-REQUEST-]"
REPLY = "[-REPLY-]"

MAX_LINE = 15
"""The longest header or size line, line break included."""

MAX_FRAME = 64 * 1024 * 1024
"""The longest payload that is read. A delivery quotes what was published, so that its frame may be
larger than the largest that the bus takes."""

MAX_INFLATED = 256 * 1024 * 1024
"""The longest text that a payload may inflate to."""

_COMPRESSION = 1  # on one machine, time is dearer than bytes
_FOREIGN = re.compile(rb"[^A-Za-z0-9+/]+")
_SIZE = re.compile(rb"[ \t]*\+?([0-9]+)[ \t\r]*")


@dataclass(frozen=True)
class Frame:
    """What came between two headers: ``kind`` is REQUEST or REPLY, the payload is not unpacked."""

    kind: str
    payload: bytes


def dump(value: Any) -> str:
    """JSON without blanks. NaN and infinite numbers are a ValueError, since JSON has no such
    numbers.

    Whole numbers are written exactly. Half a surrogate pair leaves as an escape, as the bus takes
    it.
    """
    try:
        text = json.dumps(value, ensure_ascii=False, allow_nan=False, separators=(",", ":"))
        text.encode()
    except RecursionError:
        raise ValueError("a value is nested too deep") from None
    except UnicodeEncodeError:
        text = json.dumps(value, allow_nan=False, separators=(",", ":"))
    return text


def _no_constant(name: str) -> Any:
    raise ValueError(f"{name} is no JSON")


def load(text: str) -> Any:
    """The value of a JSON text. Whatever is wrong with the text is a ProtocolError.

    Whole numbers become ``int`` of any size. Nesting beyond what the interpreter can recurse into,
    about 900 levels, is an error like any other.
    """
    try:
        return json.loads(text, parse_constant=_no_constant)
    except (ValueError, RecursionError) as error:
        raise ProtocolError(f"no JSON: {error}") from None


def encode(kind: str, envelope: Mapping[str, Any]) -> bytes:
    """The frame of an envelope."""
    text = dump(envelope).encode()
    packed = struct.pack(">I", len(text)) + zlib.compress(text, _COMPRESSION)
    payload = binascii.b2a_base64(packed, newline=False)
    return b"%s\r\n%d\r\n%s" % (kind.encode(), len(payload), payload)


def request(operation: str, data: Mapping[str, Any]) -> bytes:
    """The frame of a request."""
    return encode(REQUEST, {"operation": operation, "data": data})


def reply(operation: str, data: Mapping[str, Any], code: int = 0, description: str = "") -> bytes:
    """The frame of a reply."""
    return encode(REPLY, {"operation": operation, "data": data,
                          "result": {"code": code, "description": description}})


def _unbase64(payload: bytes) -> bytes:
    # Foreign characters are passed over, and padding may be missing.
    characters = _FOREIGN.sub(b"", payload)
    if len(characters) % 4 == 1:
        characters = characters[:-1]
    return binascii.a2b_base64(characters + b"=" * (-len(characters) % 4))


def unpack(payload: bytes, limit: int = MAX_INFLATED) -> Dict[str, Any]:
    """The envelope in a payload. Never inflates more than the limit."""
    data = _unbase64(payload)
    if int.from_bytes(data[:4], "big") > limit:
        raise ProtocolError(f"a payload declares more than {limit} bytes")
    inflater = zlib.decompressobj()
    try:
        text = inflater.decompress(data[4:], limit + 1)  # the declared length may be anything less
    except zlib.error as error:
        raise ProtocolError(f"no zlib stream: {error}") from None
    if len(text) > limit:
        raise ProtocolError(f"a payload inflates to more than {limit} bytes")
    if not inflater.eof:
        raise ProtocolError("a zlib stream is cut")
    try:
        envelope = load(text.decode())
    except UnicodeDecodeError as error:
        raise ProtocolError(f"no UTF-8: {error}") from None
    if not isinstance(envelope, dict):
        raise ProtocolError("an envelope is no object")
    return envelope


class Decoder:
    """Takes a stream in whatever pieces it arrives, and gives the frames.

    Holds at most one unfinished frame, whose size it knows before it holds any of it. After a
    ProtocolError the stream is out of step, and nothing more can be read from it.
    """

    def __init__(self, limit: int = MAX_FRAME) -> None:
        self._limit = limit
        self._buffer = bytearray()
        self._kind: Optional[str] = None
        self._size: Optional[int] = None

    @property
    def inside(self) -> bool:
        """Whether a frame has begun that has not ended."""
        return bool(self._buffer) or self._kind is not None

    def feed(self, data: bytes) -> List[Frame]:
        """The frames that these bytes complete."""
        self._buffer += data
        frames: List[Frame] = []
        position = 0
        while True:
            if self._kind is None or self._size is None:
                line = self._line(position)
                if line is None:
                    break
                position += len(line)
                self._take(line)
            elif len(self._buffer) - position >= self._size:
                end = position + self._size
                frames.append(Frame(self._kind, bytes(self._buffer[position:end])))
                position = end
                self._kind = self._size = None
            else:
                break
        del self._buffer[:position]
        return frames

    def _line(self, start: int) -> Optional[bytes]:
        end = self._buffer.find(b"\n", start, start + MAX_LINE)
        if end >= 0:
            return bytes(self._buffer[start:end + 1])
        if len(self._buffer) - start >= MAX_LINE:
            raise ProtocolError(
                f"{bytes(self._buffer[start:start + MAX_LINE])!r} is no header and no size line")
        return None

    def _take(self, line: bytes) -> None:
        if self._kind is None:
            word = line.strip(b" \t\r\n").decode("latin-1")
            if word not in (REQUEST, REPLY):
                raise ProtocolError(f"{line!r} is no header line")
            self._kind = word
            return
        size = _SIZE.fullmatch(line[:-1])
        if size is None:
            raise ProtocolError(f"{line!r} is no size line")
        self._size = int(size[1])
        if self._size > self._limit:
            raise ProtocolError(
                f"a payload of {self._size} bytes is above the limit of {self._limit}")
