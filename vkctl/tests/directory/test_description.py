"""What vkctl knows of the solver's files, options and codes is what the solver says of itself."""

from __future__ import annotations

import dataclasses
import json
import subprocess
from collections.abc import Callable, Iterator
from typing import Any

import numpy as np
import program_under_test
import pytest

from vkctl.directory import formats
from vkctl.directory.formats import MODES
from vkctl.directory.log import digest, parse_line
from vkctl.directory.results import POOR_QUALITY, STOP_QUALITY
from vkctl.running.advice import explain_status
from vkctl.running.progress import stage
from vkctl.shapes import topology

DESCRIBED = json.loads(subprocess.check_output([program_under_test.program(), "--describe"]))

FILES = {file.get("name", file.get("stem")): file for file in DESCRIBED["files"]}
RECORDS = {record["name"]: record for record in DESCRIBED["records"]}
KINDS = {
    **{"char": "S1", "int16": "<i2", "uint16": "<u2", "int32": "<i4", "uint32": "<u4"},
    **{"int64": "<i8", "float32": "<f4"},
}
DTYPES = {
    "MaterialRecord": formats.MATERIAL,
    "NodeRecord": formats.NODE,
    "ElementRecord": formats.ELEMENT,
    "LoadCaseRecord": formats.LOADCASE,
    "NodalConstraintRecord": formats.CONSTRAINT,
    "NodalForceRecord": formats.FORCE,
    "NodalScalarPair": formats.SCALAR,
    "TotalsRecord": formats.TOTALS,
}


def row(entry: dict[str, Any]) -> np.dtype[Any]:
    """One row of an item, or a field, by the description."""
    if "record" not in entry:
        return np.dtype((KINDS[entry["type"]], tuple(entry.get("shape", ()))))
    record = RECORDS[entry["record"]]
    fields = record["fields"]
    return np.dtype(
        {
            "names": [field["name"] for field in fields],
            "formats": [row(field) for field in fields],
            "offsets": [field["offset"] for field in fields],
            "itemsize": record["bytes"],
        }
    )


# --- records --------------------------------------------------------------------------------------


def values(dtype: np.dtype[Any]) -> Iterator[tuple[int, str]]:
    """Place and type of every single number of a record; of text and of what is not read, bytes."""
    for kind, offset, *_ in (dtype.fields or {}).values():
        base, shape = kind.subdtype or (kind, ())
        if base.kind in "SV":
            base, shape = np.dtype("V1"), (kind.itemsize,)
        for i in range(int(np.prod(shape))):
            yield offset + i * base.itemsize, base.str


def names(dtype: np.dtype[Any]) -> dict[str, tuple[int, int]]:
    return {name: (field[1], field[0].itemsize) for name, field in (dtype.fields or {}).items()}


def test_every_record_has_its_dtype():
    assert set(DTYPES) == set(RECORDS)


@pytest.mark.parametrize("name", RECORDS)
def test_a_record_has_the_same_numbers_at_the_same_places(name):
    dtype = DTYPES[name]
    described = row({"record": name})
    assert dtype.itemsize == described.itemsize
    mine = dict(values(dtype))
    unread = {place for place, kind in mine.items() if kind == "|V1"}
    theirs = {place: kind for place, kind in values(described) if place not in unread}
    assert theirs == {place: kind for place, kind in mine.items() if place not in unread}
    for field in RECORDS[name]["fields"]:
        if field["offset"] in unread:
            assert field["meaning"] == "not read"


@pytest.mark.parametrize("name", RECORDS)
def test_a_field_of_the_same_bytes_has_the_same_name(name):
    """Fields of one record may be grouped (E1, E2, E3), but not swapped or renamed."""
    mine, theirs = names(DTYPES[name]), names(row({"record": name}))
    assert all(mine[key] == theirs[key] for key in mine.keys() & theirs.keys())
    by_place = {place: key for key, place in theirs.items()}
    assert all(by_place.get(place, key) == key for key, place in mine.items())


def test_a_material_left_unset_has_the_described_defaults():
    expected = np.zeros(1, row({"record": "MaterialRecord"}))
    for field in RECORDS["MaterialRecord"]["fields"]:
        value = field["default"]
        letters = np.frombuffer(value.encode(), "S1") if isinstance(value, str) else value
        expected[field["name"]] = np.reshape(letters, field.get("shape", ()))
    assert formats.default_materials(1).tobytes() == expected.tobytes()


# --- files ----------------------------------------------------------------------------------------


def made(file: dict[str, Any], random: np.random.Generator) -> dict[str, np.ndarray]:
    """The items of a file of random content, by the description; no two tables of one length."""
    items: dict[str, np.ndarray] = {}
    counts = {entry["count"] for entry in file["items"] if "count" in entry}
    rows = 3  # divisible by the three components of a displacement
    for entry in file["items"]:
        kind = row(entry)
        if entry["name"] in counts:
            rows += 3
            content = np.array([rows], kind).tobytes()
        elif "count" not in entry and "codes" in entry:
            content = np.array([entry["codes"][0]["code"]], kind).tobytes()
        else:
            length = int(items[entry["count"]][0]) + entry.get("more", 0) if "count" in entry else 1
            content = random.integers(65, 91, length * kind.itemsize, np.uint8).tobytes()
        items[entry["name"]] = np.frombuffer(content, kind)
    return items


def flat(read: Any) -> bytes:
    """What a reader returned, in the order of the file."""
    if dataclasses.is_dataclass(read):
        return b"".join(flat(getattr(read, field.name)) for field in dataclasses.fields(read))
    if isinstance(read, tuple):
        return b"".join(map(flat, read))
    return b"" if isinstance(read, int) else read.tobytes()


# How a file is read and written; with the number of a load case where its name has one.
PLAIN: dict[str, tuple[Callable[..., Any], Callable[..., Any]]] = {
    "mxs.lcdata": (formats.read_loadcases, formats.write_loadcases),
    "mxs.lcflags": (formats.read_loadcase_flags, formats.write_loadcase_flags),
    "mx.mats": (formats.read_materials, formats.write_materials),
    "mx.nodes": (formats.read_nodes, formats.write_nodes),
    "mxs.nodeflags": (formats.read_node_flags, formats.write_node_flags),
    "mxs.tpadr": (formats.read_tp_index, formats.write_tp_index),
    "mx.elems": (formats.read_elements, formats.write_elements),
    "mxs.elemflags": (formats.read_element_flags, formats.write_element_flags),
    "mxs.tp": (formats.read_tp, formats.write_tp),
    "mxs.sadr": (formats.read_structure, formats.write_structure),
}
NUMBERED: dict[str, tuple[Callable[..., Any], Callable[..., Any]]] = {
    "mxs.lcmap.": (formats.read_loadcase_map, formats.write_loadcase_map),
    "ws.sstate.": (formats.read_displacements, formats.write_displacements),
    "ws.mstate.": (formats.read_element_state, formats.write_element_state),
    "ws.tcval.": (formats.read_criterion, formats.write_criterion),
    "ws.amsval.": (formats.read_stress, formats.write_stress),
    "ws.disval.": (formats.read_magnitude, formats.write_magnitude),
    "ws.comval.": (formats.read_totals, formats.write_totals),
}


def test_every_file_has_a_reader_and_a_writer():
    assert {name for name, file in FILES.items() if "name" in file} == set(PLAIN)
    assert {name for name, file in FILES.items() if "stem" in file} == set(NUMBERED)


@pytest.mark.parametrize("name", FILES)
def test_a_file_made_by_the_description_is_read_and_written_to_the_byte(tmp_path, name):
    file, number = FILES[name], () if name in PLAIN else (7,)
    items = made(file, np.random.default_rng(1))
    path = tmp_path / (name if not number else formats.numbered(name.rstrip("."), 7))
    content = b"".join(values.tobytes() for values in items.values())
    path.write_bytes(content)

    read_file, write_file = (PLAIN if name in PLAIN else NUMBERED)[name]
    read = read_file(tmp_path, *number)
    tables = [item for item in file["items"] if "count" in item or "record" in item]
    assert flat(read) == b"".join(items[item["name"]].tobytes() for item in tables)

    path.unlink()
    more = {"header": int(items["Header"][0])} if "Header" in items else {}
    write_file(tmp_path, *number, *(read if isinstance(read, tuple) else (read,)), **more)
    assert path.read_bytes() == content


def test_numbers_in_file_names_are_written_alike():
    rule = DESCRIBED["loadCaseNumber"]
    highest = rule["highest"]
    assert formats.numbered("a", 7) == "a." + "7".zfill(rule["digits"])
    assert formats.numbered("a", highest) == f"a.{highest}"
    assert formats.numbered("a", highest + 1) == "a." + rule["otherwise"]


# --- codes ----------------------------------------------------------------------------------------


def item(file: str, name: str) -> dict[str, Any]:
    return next(entry for entry in FILES[file]["items"] if entry["name"] == name)


def field(record: str, name: str) -> dict[str, Any]:
    return next(entry for entry in RECORDS[record]["fields"] if entry["name"] == name)


def bits(entry: dict[str, Any]) -> dict[str, int]:
    return {bit["name"]: bit["mask"] for bit in entry["bits"]}


def codes(entry: dict[str, Any]) -> dict[str, int]:
    return {code["name"]: code["code"] for code in entry["codes"]}


def test_bits_have_the_described_masks():
    assert bits(field("MaterialRecord", "MaterialFlags")) == {
        "isotropic": formats.MATERIAL_ISOTROPIC,
        "yielding": formats.MATERIAL_YIELDING,
        "compression only": formats.MATERIAL_COMPRESSION_ONLY,
        "orthotropic": formats.MATERIAL_ORTHOTROPIC,
    }
    assert bits(item("mxs.nodeflags", "NodeFlags")) == {"marked": formats.NODE_NO_LOADS}
    assert bits(item("mxs.elemflags", "ElementFlags")) == {
        "ignores level": formats.ELEMENT_NO_LEVEL,
        "excluded": formats.ELEMENT_EXCLUDED | formats.ELEMENT_EXCLUDED_ALSO,
    }
    assert bits(item("mxs.lcflags", "LoadCaseFlags")) == {
        "requested": formats.LOADCASE_REQUESTED,
        "done": formats.LOADCASE_DONE,
        "excluded": formats.LOADCASE_EXCLUDED,
    }
    kind = bits(field("NodalConstraintRecord", "Kind"))
    assert kind == {"elastic support": formats.CONSTRAINT_PENALTY}


def test_codes_have_the_described_values():
    types = {"tet4": topology.TET4, "tet10": topology.TET10, "hex8": topology.HEX8}
    assert codes(field("ElementRecord", "TypeCode")) == types
    nodes = {entry["code"]: entry["nodes"] for entry in DESCRIBED["elementTypes"]}
    assert nodes == topology.NODES_PER_TYPE
    assert codes(item("mxs.lcdata", "Format")) == {"format": formats.LOADCASE_FORMAT}
    assert codes(field("LoadCaseRecord", "Kind")) == {"static": formats.LOADCASE_STATIC}


def test_quality_limits_have_the_described_values():
    limits = {limit["name"]: limit["value"] for limit in DESCRIBED["limits"]}
    assert (limits["stop quality"], limits["warning quality"]) == (STOP_QUALITY, POOR_QUALITY)


def test_every_stop_is_explained():
    unknown = explain_status(1).sentence.replace(" 1,", " {},")
    assert len(DESCRIBED["stops"]) == 4
    for stop in DESCRIBED["stops"]:
        assert explain_status(stop["status"]).sentence != unknown.format(stop["status"])


# --- the log --------------------------------------------------------------------------------------


def test_the_log_has_the_described_name():
    assert DESCRIBED["log"]["file"] == formats.LOG_FILE


def log_line(line: dict[str, Any]) -> str:
    """A line of a log as the description has it, with some value."""
    frame = next(f for f in DESCRIBED["log"]["frames"] if f["name"] == line["frame"])
    tail = {"none": " ", "int32": "1", "float32": "1.00000", "text": "00:00:01.000 "}[line["tail"]]
    if "SysConfig" in line["text"]:
        tail = "1/0.01/0.02 "
    return str(frame["begin"] + line["text"] + frame.get("value", "") + tail + frame["end"])


@pytest.mark.parametrize("line", DESCRIBED["log"]["lines"], ids=lambda line: line["text"])
def test_every_line_of_a_log_is_understood(line):
    record = parse_line(log_line(line))
    assert record.frame == line["frame"]
    assert line["text"].startswith(record.key or record.text)
    assert (record.value == "") == (line["tail"] == "none")


def test_the_described_lines_tell_the_stage_of_a_run():
    """A run's lines one after another lead through its stages, the last of them the end."""
    records = [parse_line(log_line(line)) for line in DESCRIBED["log"]["lines"]]
    log = digest(records)
    assert log.ended
    assert log.seconds == 1.0
    assert all(value is not None for value in dataclasses.asdict(log.load_cases[0]).values())
    described = {field["name"] for field in RECORDS["TotalsRecord"]["fields"]} - {
        "LoadCase",
        "Kind",
    }
    assert set(log.load_cases[0].data) == described
    stages = [stage(records[:i]) for i in range(1, len(records) + 1)]
    assert list(dict.fromkeys(stages)) == [
        "reading the model",
        "reading the load case",
        "reading the structure",
        "assembling",
        "factorising",
        "response",
        "next load case",
        "ended",
    ]


# --- options --------------------------------------------------------------------------------------


def test_the_options_file_has_the_described_name():
    assert DESCRIBED["options"]["file"] == formats.OPTIONS_FILE


def test_options_have_the_described_keys_types_defaults_and_limits():
    types = {"int32": int, "float32": float}
    described = {
        option["key"]: formats.Option(
            types[option["type"]], option["default"], option.get("lowest"), option.get("highest")
        )
        for option in DESCRIBED["options"]["keys"]
    }
    assert formats.OPTIONS == described
    assert list(formats.OPTIONS) == list(described)


def test_modes_have_the_described_codes():
    mode = next(o for o in DESCRIBED["options"]["keys"] if o["key"] == "Sys.ComputationMode")
    assert codes(mode) == MODES
