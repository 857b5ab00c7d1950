"""Input files that are missing, short, corrupt or odd, and places where results can't go."""

from __future__ import annotations

import os
import re
import stat
import struct
from pathlib import Path

import numpy as np
import oracle
import pytest
from models import MATERIALS, part, pulled, tiny, tiny_case, written
from runs import (
    BAD_LOG,
    BAD_RUN,
    LOG,
    OPTIONS,
    compare_files,
    fails,
    lcflags,
    run,
    set_options,
    solves,
    start,
    stopped,
)

from vkctl.directory.model import LoadCase

BINARY = (
    *("mxs.lcdata", "mxs.lcflags"),
    *("mx.mats", "mx.nodes", "mxs.nodeflags", "mxs.tpadr", "mx.elems", "mxs.elemflags", "mxs.tp"),
    *("mxs.lcmap.0001", "mxs.sadr"),
)
INPUTS = (OPTIONS, *BINARY)
BIG = 2**31 - 1


def whole(directory: Path) -> Path:
    """A small model with something in each table of each file."""
    model, mesh = part("mixed")
    case = pulled(mesh).heat(mesh.face("y+"), 5.0).load(mesh.face("y+"), (0, 1, 0), section=3)
    case.support(mesh.face("x+"))
    return written(directory, model, case, Sys_ComputationMode=1)


def patch(directory: Path, name: str, offset: int, form: str, *values: int) -> None:
    path = Path(directory, name)
    data = bytearray(path.read_bytes())
    struct.pack_into("<" + form, data, offset, *values)
    path.write_bytes(data)


def invalid(directory: Path, name: str) -> None:
    fails(directory, f"Invalid index in file: {name}")
    assert not list(directory.glob("ws.*"))


# --- files that can't be read ---------------------------------------------------------------------


@pytest.mark.parametrize("name", INPUTS)
def test_a_missing_input_file_is_named(tmp_path, name):
    directory = whole(tmp_path)
    Path(directory, name).unlink()
    fails(directory, f"Error opening file: {name}")


@pytest.mark.parametrize("name", INPUTS)
def test_a_directory_in_the_place_of_an_input_file_is_an_opening_error(tmp_path, name):
    directory = whole(tmp_path)
    Path(directory, name).unlink()
    Path(directory, name).mkdir()
    fails(directory, f"Error opening file: {name}")


@pytest.mark.parametrize("name", INPUTS)
def test_a_device_in_the_place_of_an_input_file_is_an_opening_error(tmp_path, name):
    directory = whole(tmp_path)
    Path(directory, name).unlink()
    Path(directory, name).symlink_to("/dev/zero")
    fails(directory, f"Error opening file: {name}")


def test_a_pipe_in_the_place_of_an_input_file_is_an_opening_error_and_no_wait(tmp_path):
    directory = whole(tmp_path)
    Path(directory, "mx.nodes").unlink()
    os.mkfifo(Path(directory, "mx.nodes"))
    fails(directory, "Error opening file: mx.nodes")


@pytest.mark.parametrize("name", INPUTS)
def test_an_input_file_may_be_a_link(tmp_path, name):
    directory = whole(tmp_path / "work")
    Path(directory, name).rename(tmp_path / "elsewhere")
    Path(directory, name).symlink_to("../elsewhere")
    solves(directory)
    assert Path(directory, name).is_symlink()


@pytest.mark.parametrize("name", BINARY)
def test_a_short_input_file_is_named_wherever_it_ends(tmp_path, name):
    directory = whole(tmp_path)
    path = Path(directory, name)
    data = path.read_bytes()
    size = len(data)
    parts = {0, 1, 3, 4, 7, 8, 11, 12, 15, 16, size // 3, size // 2, size - 4, size - 1}
    for length in sorted(parts):
        if length < size:
            path.write_bytes(data[:length])
            fails(directory, f"Error reading file: {name}")
    path.write_bytes(data)
    run(directory)


@pytest.mark.parametrize("name", BINARY)
def test_bytes_behind_the_end_are_not_looked_at(tmp_path, name):
    directory = whole(tmp_path)
    with open(Path(directory, name), "ab") as stream:
        stream.write(b"more" * 100)
    solves(directory)


def count_places(directory: Path, name: str) -> list[int]:
    """Offsets of the int32 counts of a file."""
    data = Path(directory, name).read_bytes()
    if name in ("mx.mats", "mx.nodes"):
        return [4]
    if name == "mx.elems":
        return chain(data, 4, 8, 16, 32, 40)
    if name.startswith("mxs.lcmap"):
        return chain(data, 0, 56, 16, 16, 8)
    return [0]


def chain(data: bytes, first: int, *sizes: int) -> list[int]:
    places = [first]
    for size in sizes[:-1]:
        count = struct.unpack_from("<i", data, places[-1])[0]
        assert count > 0
        places.append(places[-1] + 4 + count * size)
    return places


@pytest.mark.parametrize("count", [BIG, 2**28, 10**6])
@pytest.mark.parametrize("name", BINARY)
def test_a_corrupt_count_is_a_short_file_before_it_takes_memory(tmp_path, name, count):
    directory = whole(tmp_path)
    path = Path(directory, name)
    data = path.read_bytes()
    for place in count_places(directory, name):
        path.write_bytes(data)
        patch(directory, name, place, "i", count)
        fails(directory, f"Error reading file: {name}")


@pytest.mark.parametrize("entries", [2**62, 2**40, BIG, 2**63 - 1])
def test_a_corrupt_count_of_matrix_entries_is_a_short_file(tmp_path, entries):
    directory = whole(tmp_path)
    patch(directory, "mxs.sadr", 8, "q", entries)
    fails(directory, "Error reading file: mxs.sadr")


@pytest.mark.parametrize("size", [0, 3, 4, 7, 100])
def test_a_short_earlier_criterion_is_an_error_when_it_is_blended(tmp_path, size):
    directory = whole(tmp_path)
    set_options(directory, Sta_ResponseDumpFac=0.5)
    Path(directory, "ws.tcval.0001").write_bytes(b"\1" * size)
    fails(directory, "Error reading file: ws.tcval.0001")
    assert lcflags(directory)[0] == [1]


@pytest.mark.parametrize("size", [0, 2, 4, 5, 80, -4, -1])
@pytest.mark.parametrize("name", ["yielding", "compression only"])
def test_a_state_file_that_is_cut_short_means_ones_and_a_new_matrix(tmp_path, name, size):
    model, mesh = part("mixed")
    model.materials = [MATERIALS[name]]
    directory = written(tmp_path, model, pulled(mesh), pulled(mesh))
    count = len(model.elements)
    data = np.int32(count).tobytes() + np.full(count, 0.5, "<f4").tobytes()
    Path(directory, "ws.mstate.0002").write_bytes(data[:size])
    expected = solves(directory)
    assert [c.new_matrix for c in expected.cases] == [True, True]


def test_a_state_file_is_not_read_where_no_material_has_a_state(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "ws.mstate.0001").write_bytes(b"ab")
    run(directory)
    assert Path(directory, "ws.mstate.0001").read_bytes() == b"ab"


# --- indices --------------------------------------------------------------------------------------

RECORDS, TABLE = 8, 8 + 2 * 8 + 4  # places of the element records and the first table of `tiny`


@pytest.mark.parametrize("index", [0, -1, 2, 32767, -32768])
def test_a_material_that_is_not_there_is_an_invalid_index(tmp_path, index):
    directory = tiny(tmp_path)
    patch(directory, "mx.elems", RECORDS + 8, "h", index)
    invalid(directory, "mx.elems")


@pytest.mark.parametrize("index", [0, -1, 3, BIG, -BIG])
def test_a_connectivity_row_that_is_not_there_is_an_invalid_index(tmp_path, index):
    directory = tiny(tmp_path)
    patch(directory, "mx.elems", RECORDS + 4, "i", index)
    invalid(directory, "mx.elems")


@pytest.mark.parametrize("code", [41, 60])
def test_a_row_of_another_types_table_is_an_invalid_index(tmp_path, code):
    directory = tiny(tmp_path)
    patch(directory, "mx.elems", RECORDS + 2, "h", code)
    invalid(directory, "mx.elems")


@pytest.mark.parametrize("place", [0, 3, 7])
@pytest.mark.parametrize("node", [0, -1, 6, BIG, -BIG])
def test_a_node_of_an_element_that_is_not_there_is_an_invalid_index(tmp_path, node, place):
    directory = tiny(tmp_path)
    patch(directory, "mx.elems", TABLE + 4 * place, "i", node)
    invalid(directory, "mx.elems")


@pytest.mark.parametrize("index", [4, BIG])
def test_a_design_point_that_is_not_there_is_an_invalid_index(tmp_path, index):
    directory = tiny(tmp_path)
    Path(directory, "mxs.tp").write_bytes(np.int32(3).tobytes() + bytes(12))
    patch(directory, "mxs.tpadr", 4 + 4 * 2, "i", index)
    invalid(directory, "mxs.tpadr")


def test_any_design_point_is_an_invalid_index_where_there_are_none(tmp_path):
    directory = tiny(tmp_path)
    patch(directory, "mxs.tpadr", 4, "i", 1)
    invalid(directory, "mxs.tpadr")


def test_negative_design_points_are_none(tmp_path):
    directory = tiny(tmp_path)
    patch(directory, "mxs.tpadr", 4, "5i", 0, -1, -BIG, -(2**31), 0)
    solves(directory)


@pytest.mark.parametrize("count", [-1, -7, -(2**31)])
def test_a_negative_count_of_design_points_is_none(tmp_path, count):
    none = tiny(tmp_path / "none", Sys_MaxNumCompThreads=1)
    directory = tiny(tmp_path / "negative", Sys_MaxNumCompThreads=1)
    Path(directory, "mxs.tp").write_bytes(np.int32(count).tobytes())
    for place in (none, directory):
        patch(place, "mxs.tpadr", 4, "5i", 0, -1, -BIG, -(2**31), 0)
        run(place)
    assert Path(directory, "ws.tcval.0001").read_bytes() == np.int32(count).tobytes()
    for stem in ("ws.amsval", "ws.disval", "ws.comval", "ws.sstate"):
        name = f"{stem}.0001"
        assert Path(directory, name).read_bytes() == Path(none, name).read_bytes()


def test_any_design_point_is_an_invalid_index_where_their_count_is_negative(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.tp").write_bytes(np.int32(-1).tobytes())
    patch(directory, "mxs.tpadr", 4, "5i", 0, 1, 0, 0, 0)
    invalid(directory, "mxs.tpadr")


def test_more_element_flags_than_elements_are_an_invalid_index(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.elemflags").write_bytes(np.int32(3).tobytes() + bytes(6))
    invalid(directory, "mxs.elemflags")


def cased(directory: Path) -> Path:
    """`tiny` with one row in each section of the map, the constraints two."""
    case = LoadCase().prescribe(1).support(2).load(4, (1, 2, 3)).load(5, (1, 0, 0), section=3)
    return tiny(directory, case.prescribe((2, 3)).heat(4, 1.0))


@pytest.mark.parametrize("node", [0, -1, 6, BIG, -(2**31)])
@pytest.mark.parametrize(
    "place", [4 + 4, 4 + 56 + 4, 4 + 224 + 4, 4 + 224 + 4 + 16 + 4, 4 + 224 + 2 * 20 + 4]
)
def test_a_node_of_the_map_that_is_not_there_is_an_invalid_index(tmp_path, place, node):
    directory = cased(tmp_path)
    run(directory)
    for path in directory.glob("ws.*"):
        path.unlink()
    patch(directory, "mxs.lcflags", 4, "i", 1)
    patch(directory, "mxs.lcmap.0001", place, "i", node)
    invalid(directory, "mxs.lcmap.0001")


MARKED = 0x800
NODE_OF_LAST_FORCE = 4 + 3 * 56 + 4 + 16 + 4  # in the map of `tiny_case` and a force in section 3


def beyond_the_model(directory: Path, *flags: int, node: int) -> Path:
    """`tiny` with flags for more nodes than the model has, and a force on `node`."""
    directory = tiny(directory, tiny_case().load(5, (50, 60, 70), section=3))
    words = np.array((0, 0, 0, 0, 0, *flags), "<i2")
    Path(directory, "mxs.nodeflags").write_bytes(np.int32(len(words)).tobytes() + words.tobytes())
    patch(directory, "mxs.lcmap.0001", NODE_OF_LAST_FORCE, "i", node)
    return directory


@pytest.mark.parametrize("node", [6, 8])
def test_a_force_on_a_marked_node_beyond_the_model_is_skipped(tmp_path, node):
    directory = beyond_the_model(tmp_path, MARKED, 0, -1, node=node)
    expected = solves(directory)
    assert expected.cases[0].loads.tolist() == [1, 2, 3]


@pytest.mark.parametrize("node", [7, 9])
def test_a_force_on_a_node_beyond_the_model_that_is_not_marked_is_an_invalid_index(tmp_path, node):
    directory = beyond_the_model(tmp_path, MARKED, ~MARKED, -1, node=node)
    invalid(directory, "mxs.lcmap.0001")


def test_nodes_without_equations_need_no_flags(tmp_path):
    directory = tiny(tmp_path, LoadCase().prescribe((3, 4, 5), "xyz", 0.01).load(1, (1, 2, 3)))
    whole = Path(directory, "mxs.nodeflags").read_bytes()
    expected = oracle.simulate(directory)
    Path(directory, "mxs.nodeflags").write_bytes(np.int32(2).tobytes() + whole[4:8])
    run(directory)
    compare_files(directory, expected)


def test_a_node_with_an_equation_but_without_flags_is_an_invalid_index(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.nodeflags").write_bytes(np.int32(4).tobytes() + bytes(8))
    invalid(directory, "mxs.nodeflags")


def test_the_node_of_a_prescribing_row_of_no_direction_is_not_looked_at(tmp_path):
    case = tiny_case().prescribe(5, 0, 1.0)
    directory = tiny(tmp_path, case)
    patch(directory, "mxs.lcmap.0001", 4 + 3 * 56, "hHi", 0, 0xFFF8, 77)
    solves(directory)


def test_a_kept_numbering_of_a_row_that_is_gone_is_an_invalid_index_of_the_map(tmp_path):
    first = LoadCase().prescribe((1, 2, 3)).prescribe(5, "z", 0.1).load(4, (1, 2, 3))
    directory = tiny(tmp_path, first, tiny_case())
    fails(directory, "Invalid index in file: mxs.lcmap.0002")
    assert lcflags(directory)[0] == [3, 1]


def test_a_kept_numbering_takes_any_row_that_is_there(tmp_path):
    first = LoadCase().prescribe((1, 2, 3)).prescribe(5, "z", 0.1).load(4, (1, 2, 3))
    second = LoadCase().prescribe((1, 2, 3), "xyz", 7.0).support(5, offsets=0.2)
    solves(tiny(tmp_path, first, second, Sta_SupportStiffness=40.0))


@pytest.mark.parametrize("number", [0, -1, 3, BIG, -(2**31)])
def test_a_load_case_in_the_run_order_that_is_not_there_is_an_invalid_index(tmp_path, number):
    directory = tiny(tmp_path, tiny_case(), tiny_case())
    patch(directory, "mxs.lcdata", 8 + 8, "i", number)
    fails(directory, "Invalid index in file: mxs.lcdata")


def test_more_flags_than_load_cases_are_an_invalid_index_of_the_load_cases(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.lcflags").write_bytes(np.array((2, 1, 1, 0, 0), "<i4").tobytes())
    fails(directory, "Invalid index in file: mxs.lcdata")


def structure(directory: Path) -> tuple[int, int]:
    """Rows and entries of `mxs.sadr`."""
    rows, _, entries = struct.unpack_from("<iiq", Path(directory, "mxs.sadr").read_bytes())
    return rows, entries


@pytest.mark.parametrize("column", [0, -1, 16, BIG])
def test_a_matrix_column_that_is_not_there_is_an_invalid_index(tmp_path, column):
    directory = tiny(tmp_path)
    rows, entries = structure(directory)
    start_of_last = 16 + 4 * entries + 8 * (rows - 3)
    place = struct.unpack_from("<q", Path(directory, "mxs.sadr").read_bytes(), start_of_last)[0]
    patch(directory, "mxs.sadr", 16 + 4 * place, "i", column)
    invalid(directory, "mxs.sadr")


@pytest.mark.parametrize("value", [0, -1, 10**12, 2])
@pytest.mark.parametrize("row", [9, 12, 15])
def test_a_matrix_row_that_starts_outside_or_before_the_last_is_an_invalid_index(
    tmp_path, row, value
):
    directory = tiny(tmp_path)
    _, entries = structure(directory)
    patch(directory, "mxs.sadr", 16 + 4 * entries + 8 * row, "q", value)
    invalid(directory, "mxs.sadr")


@pytest.mark.parametrize("rows", [12, 18])
def test_a_structure_of_other_rows_than_the_model_is_an_invalid_index(tmp_path, rows):
    directory = tiny(tmp_path)
    old, entries = structure(directory)
    data = Path(directory, "mxs.sadr").read_bytes()
    columns = np.frombuffer(data, "<i4", entries, 16)
    starts = np.frombuffer(data, "<i8", old + 1, 16 + 4 * entries)
    more = np.arange(old + 1, rows + 1)
    starts = np.append(starts[: rows + 1], starts[-1] + np.arange(1, len(more) + 1))
    columns = np.append(columns, more)[: starts[-1] - 1]
    head = struct.pack("<iiq", rows, 15, len(columns))
    Path(directory, "mxs.sadr").write_bytes(
        head + columns.astype("<i4").tobytes() + starts.astype("<i8").tobytes()
    )
    invalid(directory, "mxs.sadr")


def test_negative_counts_are_empty_tables(tmp_path):
    directory = tiny(tmp_path)
    patch(directory, "mx.mats", 4, "i", -1)
    invalid(directory, "mx.elems")


def test_header_words_are_ignored(tmp_path):
    directory = tiny(tmp_path)
    for name in ("mx.mats", "mx.nodes", "mx.elems"):
        patch(directory, name, 0, "i", -123456789)
    solves(directory)


# --- places for results ---------------------------------------------------------------------------

OUTPUTS = ("tcval", "amsval", "disval", "comval", "mstate", "sstate")


def stateful(directory: Path) -> Path:
    model, mesh = part()
    model.materials = [MATERIALS["yielding"]]
    return written(directory, model, pulled(mesh))


@pytest.mark.parametrize("stem", OUTPUTS)
def test_a_directory_in_the_place_of_a_result_is_an_opening_error(tmp_path, stem):
    directory = stateful(tmp_path)
    Path(directory, f"ws.{stem}.0001").mkdir()
    fails(directory, f"Error opening file: ws.{stem}.0001")
    done = OUTPUTS[: OUTPUTS.index(stem)]
    there = {path.name for path in directory.glob("ws.*") if path.is_file()}
    assert there == {f"ws.{name}.0001" for name in done}
    assert lcflags(directory)[0] == [1]


@pytest.fixture(params=["pipe", "read pipe", "socket", "link to a pipe", "link to a link"])
def odd(request):
    """Makes something that a writer would wait for, or would lose a result in."""
    readers = []

    def make(path: Path) -> None:
        behind, between = Path(f"{path}-"), Path(f"{path}+")
        if request.param == "socket":
            os.mknod(path, stat.S_IFSOCK | 0o600)
        elif "pipe" in request.param and "link" not in request.param:
            os.mkfifo(path)
        else:
            os.mkfifo(behind)
            between.symlink_to(behind.name)
            path.symlink_to(between.name if request.param == "link to a link" else behind.name)
        if request.param == "read pipe":
            readers.append(os.open(path, os.O_RDONLY | os.O_NONBLOCK))

    yield make
    for reader in readers:
        os.close(reader)


@pytest.mark.parametrize("stem", OUTPUTS)
def test_a_pipe_or_socket_in_the_place_of_a_result_is_refused_and_not_waited_for(
    tmp_path, stem, odd
):
    directory = stateful(tmp_path)
    place = Path(directory, f"ws.{stem}.0001")
    odd(place)
    before = place.lstat().st_mode, place.lstat().st_ino
    fails(directory, f"Error opening file: {place.name}")
    assert (place.lstat().st_mode, place.lstat().st_ino) == before
    assert lcflags(directory)[0] == [1]


def test_a_pipe_or_socket_in_the_place_of_the_log_is_refused_and_not_waited_for(tmp_path, odd):
    directory = stateful(tmp_path)
    odd(Path(directory, LOG))
    reason = stopped(start(directory), BAD_LOG)
    assert re.fullmatch(rf'cannot open the log "{LOG}" \(it is a (pipe|socket)\)', reason)
    assert list(directory.glob("ws.*")) == []


def test_a_pipe_or_socket_in_the_place_of_the_flags_is_refused_and_not_waited_for(tmp_path, odd):
    directory = stateful(tmp_path)
    Path(directory, "mxs.lcflags").unlink()
    odd(Path(directory, "mxs.lcflags"))
    fails(directory, "Error opening file: mxs.lcflags")


@pytest.mark.parametrize("stem", OUTPUTS)
def test_a_full_device_is_a_flushing_error_and_named(tmp_path, stem):
    directory = stateful(tmp_path)
    Path(directory, f"ws.{stem}.0001").symlink_to("/dev/full")
    fails(directory, "Error flushing file unit: 400")
    assert lcflags(directory)[0] == [1]
    told = f"Error flushing file unit: 400 (ws.{stem}.0001: No space left on device)"
    assert stopped(start(directory), BAD_RUN) == told


@pytest.mark.parametrize("stem", OUTPUTS)
def test_a_result_is_written_through_a_link(tmp_path, stem):
    directory = stateful(tmp_path / "work")
    place = Path(directory, f"ws.{stem}.0001")
    place.symlink_to(f"../{stem}")
    solves(directory)
    assert place.is_symlink()
    assert (tmp_path / stem).stat().st_size > 4


def test_a_result_replaces_a_longer_file_through_a_link(tmp_path):
    directory = tiny(tmp_path / "work")
    target = tmp_path / "elsewhere"
    target.write_bytes(bytes(10000))
    Path(directory, "ws.disval.0001").symlink_to(target)
    solves(directory)


@pytest.mark.parametrize("stem", OUTPUTS)
def test_a_null_device_takes_a_result(tmp_path, stem):
    directory = stateful(tmp_path)
    Path(directory, f"ws.{stem}.0001").symlink_to("/dev/null")
    run(directory)
    assert lcflags(directory)[0] == [3]


def test_flags_are_rewritten_through_a_link(tmp_path):
    directory = tiny(tmp_path / "work", tiny_case(), tiny_case())
    Path(directory, "mxs.lcflags").rename(tmp_path / "flags")
    Path(directory, "mxs.lcflags").symlink_to("../flags")
    solves(directory)
    assert Path(directory, "mxs.lcflags").is_symlink()
    assert os.listdir(tmp_path / "work").count("mxs.lcflags") == 1
    assert sorted(os.listdir(tmp_path)) == ["flags", "work"]


def test_what_a_link_leads_to_is_replaced_and_not_overwritten(tmp_path):
    directory = tiny(tmp_path / "work")
    Path(directory, "mxs.lcflags").rename(tmp_path / "flags")
    Path(directory, "mxs.lcflags").symlink_to("../flags")
    os.link(tmp_path / "flags", tmp_path / "kept")
    before = Path(tmp_path, "kept").read_bytes()
    run(directory)
    assert lcflags(directory)[0] == [3]
    assert Path(tmp_path, "kept").read_bytes() == before


def test_a_link_into_a_folder_that_is_not_there_is_an_opening_error(tmp_path):
    directory = tiny(tmp_path / "work")
    Path(directory, "ws.disval.0001").symlink_to("../nowhere/disval")
    fails(directory, "Error opening file: ws.disval.0001")
    assert lcflags(directory)[0] == [1]


def test_a_run_leaves_nothing_but_its_files(tmp_path):
    directory = stateful(tmp_path)
    before = set(os.listdir(directory))
    run(directory)
    new = {f"ws.{stem}.0001" for stem in OUTPUTS} | {"vk_rund_log.txt"}
    assert set(os.listdir(directory)) == before | new


def test_an_error_is_told_once_on_standard_error(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mx.nodes").unlink()
    told = "Error opening file: mx.nodes (No such file or directory)"
    assert stopped(start(directory), BAD_RUN) == told
