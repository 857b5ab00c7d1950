"""What a .vtu file announces, compared with its size before a library takes memory for it."""

from __future__ import annotations

import re
import struct
from base64 import b64decode
from dataclasses import dataclass, field
from pathlib import Path
from typing import IO
from xml.parsers import expat

from ..part import PartError

# Bytes that a byte of the file stands for at most, by how it is packed.
_MOST_PER_BYTE = {"": 1, "vtkZLibDataCompressor": 1040, "vtkLZ4DataCompressor": 260}
_MOST_PER_BYTE_OF_OTHERS = 8000  # LZMA
_MOST_DEPTH = 20  # elements inside of each other
_WIDTHS = {"8": 1, "16": 2, "32": 4, "64": 8}
_CHUNK = 1 << 16
_HEADER_TYPES = {"UInt32": "I", "UInt64": "Q"}
_HEADER_TEXT = 64  # characters of base64 text that hold the first words of a header


@dataclass
class _Array:
    """What one DataArray says of itself, with the first characters of its text."""

    width: int
    components: int
    tuples: int | None
    format: str
    offset: int | None
    text: str = ""


@dataclass
class _Seen:
    """What the file's elements have said so far."""

    size: int
    title: str
    order: str = "<"
    header: str = "I"
    compressor: str = ""
    depth: int = 0
    root: bool = False
    counts: list[int] = field(default_factory=list)  # of the pieces: points and cells
    arrays: list[_Array] = field(default_factory=list)
    open: _Array | None = None
    appended: str = ""  # encoding of the data after the elements
    appended_at: int = 0

    def most(self) -> int:
        """Bytes that the file can hold unpacked."""
        return self.size * _MOST_PER_BYTE.get(self.compressor, _MOST_PER_BYTE_OF_OTHERS)


class _RawDataError(Exception):
    """The elements have ended, bytes follow that are no XML."""


def check_counts(path: Path, title: str) -> None:
    """PartError for a file that announces more than it can hold, or isn't a plain XML file."""
    seen = _Seen(path.stat().st_size, title)
    with open(path, "rb") as stream:
        _parse(stream, seen)
        if not seen.root:
            raise PartError(f"{title}: isn't an XML file of VTK")
        most = seen.most()
        for count in seen.counts:
            if not 0 <= count <= most:
                raise _beyond(seen, f"{count} points or cells")
        if sum(seen.counts) > most:
            raise _beyond(seen, f"{sum(seen.counts)} points and cells")
        for array in seen.arrays:
            _check_array(stream, seen, array)


def _beyond(seen: _Seen, what: str) -> PartError:
    return PartError(f"{seen.title}: announces {what}, which {seen.size} bytes can't hold")


def _parse(stream: IO[bytes], seen: _Seen) -> None:
    parser = expat.ParserCreate()
    parser.buffer_text = True
    parser.StartElementHandler = lambda name, given: _begin(parser, seen, name, given)
    parser.EndElementHandler = lambda name: _end(seen)
    parser.CharacterDataHandler = lambda text: _text(seen, text)
    parser.StartDoctypeDeclHandler = lambda *_: _refuse_declarations(seen)
    try:
        while chunk := stream.read(_CHUNK):
            parser.Parse(chunk)
        parser.Parse(b"", True)
    except _RawDataError:
        return
    except expat.ExpatError as error:
        reason = expat.ErrorString(error.code)
        raise PartError(f"{seen.title}: damaged XML in line {error.lineno}: {reason}") from None


def _refuse_declarations(seen: _Seen) -> None:
    raise PartError(f"{seen.title}: declares entities of XML, which no .vtu file needs")


def _begin(parser: expat.XMLParserType, seen: _Seen, name: str, given: dict[str, str]) -> None:
    seen.depth += 1
    if seen.depth > _MOST_DEPTH:
        raise PartError(f"{seen.title}: elements of XML are nested too deeply")
    if not seen.root:
        _begin_file(seen, name, given)
    elif name == "Piece":
        for key in ("NumberOfPoints", "NumberOfCells"):
            seen.counts.append(_whole(seen, given.get(key, "0")))
    elif name in ("DataArray", "Array"):
        _begin_array(seen, given)
    elif name == "AppendedData":
        seen.appended = given.get("encoding", "raw")
        seen.appended_at = parser.CurrentByteIndex
        raise _RawDataError


def _begin_file(seen: _Seen, name: str, given: dict[str, str]) -> None:
    seen.root = True
    kind = given.get("type", "")
    if name != "VTKFile" or kind != "UnstructuredGrid":
        raise PartError(f"{seen.title} holds a {kind or name}, not an unstructured grid")
    seen.order = ">" if given.get("byte_order") == "BigEndian" else "<"
    seen.header = _HEADER_TYPES.get(given.get("header_type", "UInt32"), "I")
    seen.compressor = given.get("compressor", "")


def _begin_array(seen: _Seen, given: dict[str, str]) -> None:
    width = re.sub(r"\D", "", given.get("type", ""))
    tuples = given.get("NumberOfTuples")
    offset = given.get("offset")
    seen.open = _Array(
        _WIDTHS.get(width, 1),
        _whole(seen, given.get("NumberOfComponents", "1")),
        None if tuples is None else _whole(seen, tuples),
        given.get("format", "ascii").lower(),
        None if offset is None else _whole(seen, offset),
    )
    seen.arrays.append(seen.open)


def _whole(seen: _Seen, text: str) -> int:
    if not re.fullmatch(r"\s*[0-9]{1,18}\s*", text, re.ASCII):
        raise PartError(f"{seen.title}: {text[:40]!r} is no count")
    return int(text)


def _text(seen: _Seen, text: str) -> None:
    if seen.open is not None and len(seen.open.text) < _HEADER_TEXT:
        seen.open.text = (seen.open.text + text.lstrip())[:_HEADER_TEXT]


def _end(seen: _Seen) -> None:
    seen.depth -= 1
    seen.open = None


def _check_array(stream: IO[bytes], seen: _Seen, array: _Array) -> None:
    """Its values, and what the head of its data says there will be."""
    most = seen.most()
    values = max(array.components, 1) * (array.tuples or 0)
    least = 2 if array.format == "ascii" else array.width
    if array.components > most or values * least > most + least:
        raise _beyond(seen, f"an array of {values} values")
    words = _header(stream, seen, array)
    if not words:
        return
    if not seen.compressor:
        if words[0] > seen.size:
            raise _beyond(seen, f"an array of {words[0]} bytes")
    elif words[0] * struct.calcsize(seen.header) > seen.size or words[0] * words[1] > most:
        raise _beyond(seen, f"{words[0]} blocks of {words[1]} bytes")


def _header(stream: IO[bytes], seen: _Seen, array: _Array) -> tuple[int, ...]:
    """The first two numbers in front of an array's data; none for text, or where it is cut."""
    width = struct.calcsize(seen.header)
    if array.format == "binary":
        data = _decoded(array.text.encode("ascii", "replace"))
    elif array.format == "appended" and array.offset is not None:
        start = _start_of_appended(stream, seen) + array.offset
        if start >= seen.size:
            raise PartError(f"{seen.title}: an array lies beyond the end of the file")
        stream.seek(start)
        data = stream.read(_HEADER_TEXT)
        if seen.appended == "base64":
            data = _decoded(data)
    else:
        return ()
    if len(data) < 2 * width:
        return ()
    return struct.unpack(f"{seen.order}2{seen.header}", data[: 2 * width])


def _decoded(text: bytes) -> bytes:
    """The bytes of a piece of base64 text, as far as it is such; padding ends it."""
    head = re.match(rb"[A-Za-z0-9+/]*={0,2}", text)
    whole = head[0] if head else b""
    return b64decode(whole[: len(whole) // 4 * 4])


def _start_of_appended(stream: IO[bytes], seen: _Seen) -> int:
    """Where offsets are counted from: behind the underscore that opens the data."""
    stream.seek(seen.appended_at)
    head = stream.read(_CHUNK)
    mark = head.find(b"_", head.find(b">"))
    if mark < 0:
        raise PartError(f"{seen.title}: the appended data has no beginning")
    return seen.appended_at + mark + 1
