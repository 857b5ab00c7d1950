"""Values of a case file by key, such as "loads.push.value.z"."""

from __future__ import annotations

import tomllib
from typing import Any

from vkctl.basics.words import did_you_mean

Place = tuple[str | int, ...]  # names of tables and keys, positions (from 0) in lists

_AXES = ("x", "y", "z")
_NAMED_BY = "name"  # key that tells the tables of a list apart


class KeyMistakeError(ValueError):
    """A key that stands for no single value of the case file; the text goes on after the key."""

    def __init__(self, text: str, suggestion: str = "") -> None:
        super().__init__(text)
        self.suggestion = suggestion


def split_key(key: str) -> list[str]:
    """Parts of a dotted key, quoted ones as in TOML."""
    try:
        said = tomllib.loads(f"{key} = 0")
    except (tomllib.TOMLDecodeError, RecursionError):
        raise KeyMistakeError("is no key: write names with dots between them") from None
    parts: list[str] = []
    inside: Any = said
    while isinstance(inside, dict):
        if len(inside) != 1:
            raise KeyMistakeError("is more than one key")
        (name, inside), *_ = inside.items()
        parts.append(name)
    return parts


def find(said: dict[str, Any], key: str) -> tuple[Place, Any]:
    """Place and value of a key in what a case file says."""
    parts = split_key(key)
    place: list[str | int] = []
    value: Any = said
    while parts:
        if isinstance(value, dict):
            name, taken = _in_table(value, parts)
            place.append(name)
            value = value[name]
        elif isinstance(value, list):
            position, taken = _in_list(value, parts[0]), 1
            place.append(position)
            value = value[position]
        else:
            above = ".".join(map(str, place))
            raise KeyMistakeError(f"goes too deep: {above} is {_kind(value)} in the case file")
        parts = parts[taken:]
    if isinstance(value, dict):
        inside = did_you_mean("", value)
        raise KeyMistakeError("is a whole table of the case file: name one of its keys", inside)
    if isinstance(value, list):
        raise KeyMistakeError(
            f"is a list of {len(value)} in the case file: name one of its entries",
            f"such as {key}.{'z' if _is_vector(value) else 1}",
        )
    return tuple(place), value


def _in_table(table: dict[str, Any], parts: list[str]) -> tuple[str, int]:
    """The key that the first parts name, and how many: names of options have dots in them."""
    for count in range(len(parts), 0, -1):
        name = ".".join(parts[:count])
        if name in table:
            return name, count
    raise KeyMistakeError(f"isn't in the case file: no {parts[0]!r}", did_you_mean(parts[0], table))


def _in_list(entries: list[Any], part: str) -> int:
    if _is_vector(entries) and part in _AXES:
        return _AXES.index(part)
    names = [entry.get(_NAMED_BY) if isinstance(entry, dict) else None for entry in entries]
    if part in names:
        return names.index(part)
    if part.isdecimal() and 1 <= int(part) <= len(entries):
        return int(part) - 1
    known = [name for name in names if isinstance(name, str)]
    hint = did_you_mean(part, known) if known else f"entries count from 1 to {len(entries)}"
    raise KeyMistakeError(f"isn't in the case file: no entry {part!r} of the list", hint)


def _is_vector(entries: list[Any]) -> bool:
    return len(entries) == len(_AXES) and not any(isinstance(e, dict | list) for e in entries)


def _kind(value: object) -> str:
    return "a text" if isinstance(value, str) else f"the value {value!r}"


def put(said: dict[str, Any], place: Place, value: object) -> None:
    """Set the value at a place that `find` gave."""
    inside: Any = said
    for step in place[:-1]:
        inside = inside[step]
    inside[place[-1]] = value
