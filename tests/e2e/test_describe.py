"""The program's description of itself, against what it does."""

from __future__ import annotations

import json
import os
import re
import shutil
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from models import MATERIALS, part, pulled, tiny, written
from runs import (
    BAD_ARGUMENTS,
    BAD_DIRECTORY,
    BAD_LOG,
    BAD_RUN,
    LOG,
    clear_done,
    counted,
    fails,
    log_lines,
    run,
    start,
)

ROOT = Path(__file__).resolve().parents[2]
FORMS = {
    **{"char": "S1", "int16": "<i2", "uint16": "<u2", "int32": "<i4", "uint32": "<u4"},
    **{"int64": "<i8", "float32": "<f4"},
}

Described = dict[str, Any]  # the description, or an object in it


@pytest.fixture(scope="module")
def described() -> Described:
    found: Described = json.loads(start("--describe").out)
    return found


def form(entry: Described) -> np.dtype:
    """One row of a plain item, or a field."""
    return np.dtype((FORMS[entry["type"]], tuple(entry.get("shape", ()))))


def row(described: Described, item: Described) -> np.dtype:
    if "record" not in item:
        return form(item)
    record = next(r for r in described["records"] if r["name"] == item["record"])
    fields = record["fields"]
    return np.dtype(
        {
            "names": [f["name"] for f in fields],
            "formats": [form(f) for f in fields],
            "offsets": [f["offset"] for f in fields],
            "itemsize": record["bytes"],
        }
    )


@dataclass
class Item:
    """An item as it was found in a file, from byte `start` up to byte `end`."""

    values: np.ndarray
    start: int
    end: int


def parse(described: Described, file: Described, data: bytes) -> dict[str, Item]:
    """A file's items, by nothing but the description."""
    found: dict[str, Item] = {}
    place = 0
    for item in file["items"]:
        rows = 1
        if "count" in item:
            rows = max(int(found[item["count"]].values[0]), 0) + item.get("more", 0)
        if "condition" in item and found[item["condition"]].values[0] <= 0:
            rows = 0
        kind = row(described, item)
        values = np.frombuffer(data, kind, rows, place)
        found[item["name"]] = Item(values, place, place + rows * kind.itemsize)
        place += rows * kind.itemsize
    return found


def named(described: Described, file: Described, number: int) -> str:
    rule = described["loadCaseNumber"]
    if "name" in file:
        return str(file["name"])
    digits = f"{number:0{rule['digits']}}" if number <= rule["highest"] else rule["otherwise"]
    return str(file["stem"]) + digits


@pytest.fixture
def whole(tmp_path) -> Path:
    """A small model with something in each table of each file."""
    model, mesh = part("mixed")
    model.materials = [MATERIALS["yielding"]]
    case = pulled(mesh).heat(mesh.face("y+"), 5.0).load(mesh.face("y+"), (0, 1, 0), section=3)
    case.support(mesh.face("x+"))
    return written(tmp_path, model, case, Sys_ComputationMode=1)


def test_the_description_is_one_document_of_stable_order_and_needs_no_directory(tmp_path):
    first, second = start("--describe", cwd=tmp_path), start("--describe", cwd="/")
    assert (first.status, first.err) == (0, "")
    assert first == second
    assert json.loads(first.out)["schema"] == 1
    assert first.out.endswith("}\n")
    assert list(tmp_path.iterdir()) == []


def test_help_names_the_description():
    assert "--describe" in start("--help").out


def test_a_description_that_cannot_be_written_is_a_failure():
    with open("/dev/full", "w") as full:
        done = subprocess.run([os.environ["VK_RUND"], "--describe"], stdout=full, check=False)
    assert done.returncode == 1


def test_the_version_is_the_programs(described):
    assert start("--version").out.startswith(f"vk_rund {described['version']},")


def test_the_stops_are_those_of_the_program(described):
    codes = {stop["name"]: (stop["code"], stop["status"]) for stop in described["stops"]}
    assert codes == {
        "arguments": (BAD_ARGUMENTS, 233),
        "directory": (BAD_DIRECTORY, 236),
        "log": (BAD_LOG, 237),
        "error": (BAD_RUN, 242),
    }


def test_every_option_is_read_under_its_key_and_in_its_type(tmp_path, described):
    directory = tiny(tmp_path)
    file = directory / described["options"]["file"]
    kept = file.read_text()
    for option in described["options"]["keys"]:
        file.write_text(kept + f"{option['key']}=x\n")
        outcome = start(directory)
        assert f"{option['key']}=x" in outcome.err
        file.write_text(kept + f"{option['key']}=1.0\n")
        assert (start(directory).status == 0) == (option["type"] == "float32")


def test_a_comment_and_the_end_of_a_line_are_where_the_description_says(tmp_path, described):
    directory = tiny(tmp_path)
    options = described["options"]
    file, key = directory / options["file"], options["keys"][0]["key"]
    kept = file.read_text()
    file.write_text(f"{kept}{options['comment']}{key}=x\n")
    run(directory)
    line = f"{key}=1"
    file.write_text(kept + line + " " * (options["lineLength"] - len(line)) + "x\n")
    run(directory)
    padded = f"{key}=".ljust(options["lineLength"] - 1)
    file.write_text(kept + padded + "1\n")
    run(directory)
    file.write_text(kept + padded + " 1\n")
    assert start(directory).status != 0


# What an info line ends in has its blank even where nothing follows; a data line has its own field.
TAILS = {
    "info": {"none": " ", "int32": r"-?\d+", "float32": r"\d+\.\d{5}", "text": r"\S+ "},
    "data": {"int32": r"-?\d+", "float32": r"-?\d\.\d{6}E[+-]\d\d"},
}


def line_pattern(described: Described, line: Described) -> str:
    frame = next(f for f in described["log"]["frames"] if f["name"] == line["frame"])
    parts = frame["begin"], line["text"], frame.get("value", ""), frame["end"]
    begin, text, value, end = map(re.escape, parts)
    return f"{begin}{text}{value}{TAILS[line['frame']][line['tail']]}{end}"


def test_the_log_of_a_run_has_the_described_lines_in_their_order(tmp_path, described):
    directory = tiny(tmp_path)
    run(directory)
    assert described["log"]["file"] == LOG
    lines = described["log"]["lines"]
    expected = [line for line in lines if not line["text"].startswith("SysConfig: Im8")]
    patterns = [line_pattern(described, line) for line in expected]
    written = log_lines(directory)
    for line, pattern in zip(written, patterns, strict=True):
        assert re.fullmatch(pattern, line), pattern


def test_errors_and_warnings_have_the_described_frames(tmp_path, described):
    frames = {frame["name"]: frame for frame in described["log"]["frames"]}
    directory = tiny(tmp_path)
    (directory / described["options"]["file"]).unlink()
    start(directory)
    last = log_lines(directory)[-1]
    assert last.startswith(frames["error"]["begin"] + "Error opening file")
    assert last.endswith(frames["error"]["end"])
    assert frames["warning"]["begin"] == "Warning<Msg:"


def test_the_limits_are_those_of_the_program(described):
    limits = {limit["name"]: limit["value"] for limit in described["limits"]}
    assert limits == {
        "threads": 16,
        "stop quality": 0.5,
        "warning quality": 0.9,
        "keep quality": 0.9,
    }


def documents(root: Path, *arguments: str) -> tuple[int, str, str]:
    command = [sys.executable, str(root / "scripts" / "describe_docs.py"), *arguments]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def copied(tmp_path) -> Path:
    """The documents and their script, to be changed."""
    (tmp_path / "scripts").mkdir()
    shutil.copy(ROOT / "scripts" / "describe_docs.py", tmp_path / "scripts")
    shutil.copytree(ROOT / "docs", tmp_path / "docs")
    return Path(tmp_path)


def test_the_documents_have_the_tables_of_the_program():
    assert documents(ROOT, "--check") == (0, "", "")


def test_a_table_that_differs_is_named_and_written_anew(copied):
    page = copied / "docs" / "options.md"
    kept = page.read_text()
    page.write_text(kept.replace("| 4 | 1 .. 24 |", "| 5 | 1 .. 24 |"))
    told = 'docs/options.md: not as the program describes it: "options".'
    assert documents(copied, "--check") == (1, f"{told} Run scripts/describe_docs.py.\n", "")
    assert page.read_text() != kept
    assert documents(copied)[0] == 0
    assert page.read_text() == kept


@pytest.mark.parametrize(
    ("old", "new", "told"),
    [
        ("generated: options", "generated: opinions", 'nothing called "opinions"'),
        ("<!-- end -->", "", "a generated table has no end, or an end no beginning"),
        ("<!-- generated: options -->", "", "a generated table has no end, or an end no beginning"),
    ],
)
def test_marks_that_lead_nowhere_are_told(copied, old, new, told):
    page = copied / "docs" / "options.md"
    page.write_text(page.read_text().replace(old, new))
    status, out, err = documents(copied, "--check")
    assert (status, out) == (2, "")
    assert err.startswith("docs/options.md: ")
    assert told in err


def test_a_program_that_cannot_be_asked_is_named(copied):
    status, _, err = documents(copied, "--check", "no/such/program")
    assert status == 2
    assert err.startswith("no/such/program can't be asked: ")


def test_the_example_of_the_page_reads_a_result(whole, described):
    run(whole)
    page = (ROOT / "docs" / "file-formats.md").read_text()
    example = page.split("```python\n")[1].split("```")[0]
    path = f"{Path(os.environ['VK_RUND']).parent}:{os.environ['PATH']}"
    done = subprocess.run(
        [sys.executable, "-c", example],
        cwd=whole,
        env={**os.environ, "PATH": path},
        capture_output=True,
        text=True,
        check=True,
    )
    assert float(done.stdout) == pytest.approx(counted(whole, "ws.amsval", 1).max(), rel=1e-6)


def test_every_file_of_a_run_is_described_to_its_last_byte(whole, described):
    run(whole)
    names = {named(described, file, 1): file for file in described["files"]}
    text = {described["options"]["file"], LOG}
    assert {path.name for path in whole.iterdir()} == set(names) | text
    for name, file in names.items():
        data = Path(whole, name).read_bytes()
        items = parse(described, file, data)
        assert list(items.values())[-1].end == len(data), name
        assert all(len(item.values) for item in items.values()), name


def test_a_run_writes_the_files_that_are_said_to_be_written(whole, described):
    before = {path.name: path.stat().st_mtime_ns for path in whole.iterdir()}
    run(whole)
    after = {path.name: path.stat().st_mtime_ns for path in whole.iterdir()}
    written = {name for name, time in after.items() if before.get(name) != time}
    files = [file for file in described["files"] if file["written"]]
    assert written == {named(described, file, 1) for file in files} | {LOG}


def test_messages_about_files_have_the_described_units(described):
    units = {unit["name"]: unit["value"] for unit in described["units"]}
    assert units == {"options": 101, "read": 200, "write": 400}


def test_the_files_say_what_the_run_was_given(whole, described):
    run(whole)
    files = {file.get("name", file.get("stem")): file for file in described["files"]}

    def read(name: str) -> dict[str, np.ndarray]:
        file = files[name]
        data = Path(whole, named(described, file, 1)).read_bytes()
        return {key: item.values for key, item in parse(described, file, data).items()}

    elements = read("mx.elems")
    codes = {t["name"]: t["code"] for t in described["elementTypes"]}
    assert set(elements["Elements"]["TypeCode"]) == set(codes.values())
    for kind in described["elementTypes"]:
        table = elements[kind["table"]]
        assert table.shape[1] == kind["nodes"]
        assert len(table) == (elements["Elements"]["TypeCode"] == kind["code"]).sum()
    nodes = read("mx.nodes")["NumNodes"][0]
    assert max(elements[t["table"]].max() for t in described["elementTypes"]) == nodes
    flags = next(i for i in files["mxs.lcflags"]["items"] if i["name"] == "LoadCaseFlags")
    bits = {bit["name"]: bit["mask"] for bit in flags["bits"]}
    assert read("mxs.lcflags")["LoadCaseFlags"].tolist() == [bits["requested"] | bits["done"]]
    totals = read("ws.comval.")["Totals"][0]
    quality, energy = [line.split("Value:")[1] for line in log_lines(whole) if "<Key:" in line][1:3]
    assert float(quality[:-1]) == totals["ARQua"] == 1.0
    assert float(energy[:-1]) == pytest.approx(totals["SEner"], rel=1e-6)
    assert read("ws.sstate.")["ValueCount"][0] == 3 * nodes


def input_files(described: Described) -> list[Described]:
    """Files that have to be there in full; the state of an earlier run need not."""
    return [file for file in described["files"] if not named(described, file, 1).startswith("ws.")]


def test_a_file_cut_within_any_item_is_too_short_for_the_reader(whole, described):
    for file in input_files(described):
        name = named(described, file, 1)
        path = Path(whole, name)
        data = path.read_bytes()
        for item in parse(described, file, data).values():
            path.write_bytes(data[: item.end - 1])
            fails(whole, f"Error reading file: {name}")
        path.write_bytes(data + b"more")
    run(whole)


def test_every_count_governs_the_rows_that_are_said_to_follow(whole, described):
    for file in input_files(described):
        name = named(described, file, 1)
        path = Path(whole, name)
        data = path.read_bytes()
        items = parse(described, file, data)
        for count in {item["count"] for item in file["items"] if "count" in item}:
            place, more = items[count].start, items[count].values + (1 << 20)
            path.write_bytes(data[:place] + more.tobytes() + data[items[count].end :])
            fails(whole, f"Error reading file: {name}")
        path.write_bytes(data)
    run(whole)


@pytest.mark.parametrize("count", [0, -1])
def test_a_table_of_no_rows_has_no_bytes(whole, described, count):
    """Forces and temperatures can be missing; what follows them must still be found."""
    file = next(f for f in described["files"] if f.get("stem") == "mxs.lcmap.")
    path = Path(whole, named(described, file, 1))
    data = path.read_bytes()
    items = parse(described, file, data)
    for name in ("NodalForces2", "NodalForces3"):
        table = items[name]
        head = np.int32(count).tobytes()
        path.write_bytes(data[: table.start - 4] + head + data[table.end :])
        assert list(parse(described, file, path.read_bytes()).values())[-1].end == len(
            path.read_bytes()
        )
        run(whole)
        clear_done(whole)
