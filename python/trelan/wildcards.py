"""What a wildcard takes in, by the steps that docs/protocol.md lists."""

from __future__ import annotations

from functools import lru_cache
from typing import Callable, List


def matches(name: str, wildcard: str) -> bool:
    """Whether a wildcard takes in a name."""
    return compiled(wildcard)(name)


def is_plain(wildcard: str) -> bool:
    """Whether a wildcard takes in the name that it is, and no other."""
    return wildcard != "*" and not (_has_star_form(wildcard) or _has_plus_form(wildcard))


@lru_cache(maxsize=4096)
def compiled(wildcard: str) -> Callable[[str], bool]:
    """The matcher of a wildcard, for who asks often."""
    if wildcard == "*":
        return bool
    if not wildcard or is_plain(wildcard) or not _is_well_formed(wildcard):
        return lambda name: name == wildcard != ""
    segments = wildcard.split(".")
    literal = ".".join(segment for segment in segments if segment not in ("+", "*"))
    star_form = _has_star_form(wildcard)

    def takes_in(name: str) -> bool:
        if name == wildcard:
            return True
        if not name or literal not in name:
            return False
        count = name.count(".") + 1
        if star_form:
            enough = count >= len(segments) and wildcard[-1] == "*"
            return enough and _fits(name, wildcard, segments)
        return count == len(segments) and _fits(name, wildcard, segments)

    return takes_in


def _has_star_form(wildcard: str) -> bool:
    return wildcard.startswith("*.") or wildcard.endswith(".*")


def _has_plus_form(wildcard: str) -> bool:
    return wildcard.startswith("+.") or wildcard.endswith(".+") or ".+." in wildcard


def _is_well_formed(wildcard: str) -> bool:
    first, last = wildcard.find("+."), wildcard.rfind(".+")
    if first > 0 and wildcard[first - 1] != ".":
        return False
    if last >= 0 and wildcard[last + 2:last + 3] not in ("", "."):
        return False
    return not (wildcard.startswith(".") or wildcard.endswith("."))


def _fits(name: str, wildcard: str, segments: List[str]) -> bool:
    names = name.split(".")
    wanted = segments
    if wildcard[0] == "*":
        anchor = 1
        while anchor < len(segments) and segments[anchor] == "+":
            anchor += 1
        rest = segments[anchor:]
        if not rest or not rest[0] or rest == ["*"]:
            return True
        if rest[0] == "*" or rest[0] not in names:
            return False
        wanted = ["+"] * names.index(rest[0]) + rest
    if wildcard[-1] == "*":
        wanted = wanted[:-1]
        wanted += ["+"] * (len(names) - len(wanted))
    return len(wanted) == len(names) and all(
        theirs in ("+", ours) for ours, theirs in zip(names, wanted))
