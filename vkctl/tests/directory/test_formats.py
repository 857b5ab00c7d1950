"""Bytes of the files: sizes, offsets, round trips, short files."""

import struct

import numpy as np
import pytest

from vkctl.directory import formats


@pytest.mark.parametrize(
    ("dtype", "size"),
    [
        (formats.MATERIAL, 192),
        (formats.NODE, 12),
        (formats.ELEMENT, 8),
        (formats.LOADCASE, 1040),
        (formats.CONSTRAINT, 56),
        (formats.FORCE, 16),
        (formats.SCALAR, 8),
        (formats.TOTALS, 40),
    ],
)
def test_records_have_their_size_on_disk(dtype, size):
    assert dtype.itemsize == size


@pytest.mark.parametrize(
    ("dtype", "offsets"),
    [
        (
            formats.MATERIAL,
            {
                "Name": 0,
                "MaterialFlags": 32,
                "E": 36,
                "Nu": 40,
                "RefValue": 44,
                "YieldStress": 48,
                "HardeningRatio": 52,
                "Expansion": 56,
                "InitialStrain": 60,
                "LimitStress": 64,
                "Moduli": 72,
                "Poisson": 84,
                "Shear": 96,
                "Expansions": 108,
                "Reserved3": 144,
            },
        ),
        (formats.ELEMENT, {"MaterialIndex": 0, "TypeCode": 2, "ConnIndex": 4}),
        (formats.LOADCASE, {"Kind": 0, "PatternIndex": 4, "RunOrder": 8, "Reserved": 12}),
        (formats.CONSTRAINT, {"Kind": 0, "DofMask": 2, "Node": 4, "Value": 8, "Axis": 20}),
        (formats.TOTALS, {"LoadCase": 0, "ARQua": 8, "MaxDis": 24, "R": 28}),
    ],
)
def test_fields_stand_at_their_offsets(dtype, offsets):
    assert {name: dtype.fields[name][1] for name in offsets} == offsets


def test_default_material_holds_the_defaults_of_the_layout(tmp_path):
    formats.write_materials(tmp_path, formats.default_materials(1))
    raw = (tmp_path / "mx.mats").read_bytes()
    record = raw[8:]
    assert struct.unpack("<ii", raw[:8]) == (0, 1)
    assert record[:32] == b" " * 32
    assert struct.unpack("<f", record[52:56])[0] == np.float32(0.001)
    assert struct.unpack("<f", record[64:68])[0] == 1.0
    assert struct.unpack("<12f", record[144:]) == (0, 0, 0, 1) * 3


def test_material_name_is_padded_with_blanks(tmp_path):
    records = formats.default_materials(1)
    records["Name"] = b"steel"
    formats.write_materials(tmp_path, records)
    assert (tmp_path / "mx.mats").read_bytes()[8:40] == b"steel" + b" " * 27


def test_element_file_has_its_tables_in_the_order_40_60_41(tmp_path):
    records = np.array([(1, 40, 1), (1, 60, 1), (1, 41, 1)], formats.ELEMENT)
    tables = formats.ElementTables(records, np.arange(1, 5), np.arange(11, 19), np.arange(21, 31))
    formats.write_elements(tmp_path, tables)
    raw = (tmp_path / "mx.elems").read_bytes()
    words = np.frombuffer(raw[8 + 24 :], "<i4")
    expected = [1, *range(1, 5), 1, *range(11, 19), 1, *range(21, 31)]
    assert words.tolist() == expected
    back = formats.read_elements(tmp_path)
    assert np.array_equal(back.records, records)
    assert back.hex8.tolist() == [list(range(11, 19))]


def test_empty_tables_take_only_their_count(tmp_path):
    none = np.empty(0, np.int32)
    tables = formats.ElementTables(np.empty(0, formats.ELEMENT), none, none, none)
    formats.write_elements(tmp_path, tables)
    assert (tmp_path / "mx.elems").stat().st_size == 5 * 4
    assert formats.read_elements(tmp_path).tet10.shape == (0, 10)


COUNTED = [
    ("mxs.nodeflags", formats.write_node_flags, formats.read_node_flags, np.int16),
    ("mxs.elemflags", formats.write_element_flags, formats.read_element_flags, np.int16),
    ("mxs.tpadr", formats.write_tp_index, formats.read_tp_index, np.int32),
    ("mxs.tp", formats.write_tp, formats.read_tp, np.float32),
]


@pytest.mark.parametrize(("name", "write", "read", "dtype"), COUNTED)
def test_counted_file_round_trip_and_size(tmp_path, name, write, read, dtype):
    values = np.array([-3, 0, 7, 11], dtype)
    write(tmp_path, values)
    assert (tmp_path / name).stat().st_size == 4 + values.nbytes
    assert read(tmp_path).dtype == dtype
    assert np.array_equal(read(tmp_path), values)


NUMBERED = [
    ("ws.mstate.0007", formats.write_element_state, formats.read_element_state),
    ("ws.tcval.0007", formats.write_criterion, formats.read_criterion),
    ("ws.amsval.0007", formats.write_stress, formats.read_stress),
    ("ws.disval.0007", formats.write_magnitude, formats.read_magnitude),
]


@pytest.mark.parametrize(("name", "write", "read"), NUMBERED)
def test_numbered_file_round_trip(tmp_path, name, write, read):
    values = np.array([0.5, -1.25], np.float32)
    write(tmp_path, 7, values)
    assert (tmp_path / name).exists()
    assert np.array_equal(read(tmp_path, 7), values)


def test_displacement_file_has_kind_and_value_count_ahead(tmp_path):
    values = np.arange(6, dtype=np.float32).reshape(2, 3)
    formats.write_displacements(tmp_path, 12, values)
    raw = (tmp_path / "ws.sstate.0012").read_bytes()
    assert struct.unpack("<ii6f", raw) == (1, 6, 0, 1, 2, 3, 4, 5)
    assert np.array_equal(formats.read_displacements(tmp_path, 12), values)


def test_totals_round_trip_in_40_bytes(tmp_path):
    record = np.zeros(1, formats.TOTALS)[0]
    record["LoadCase"], record["Kind"], record["R"] = 3, 1, (1, 2, 3)
    formats.write_totals(tmp_path, 3, record)
    raw = (tmp_path / "ws.comval.0003").read_bytes()
    assert struct.unpack("<ii8f", raw) == (3, 1, 0, 0, 0, 0, 0, 1, 2, 3)
    assert formats.read_totals(tmp_path, 3) == record


def test_numbers_above_four_digits_become_asterisks():
    assert formats.numbered("ws.tcval", 7) == "ws.tcval.0007"
    assert formats.numbered("ws.tcval", 12345) == "ws.tcval.****"


def test_load_case_flags_need_as_many_values_as_flags(tmp_path):
    formats.write_loadcase_flags(tmp_path, [1, 3], [0.25, 0.5])
    flags, values = formats.read_loadcase_flags(tmp_path)
    assert flags.tolist() == [1, 3]
    assert values.tolist() == [0.25, 0.5]
    with pytest.raises(ValueError, match="2 load-case flags but 1 values"):
        formats.write_loadcase_flags(tmp_path, [1, 3], [0.0])


def test_load_case_data_of_another_format_number_is_refused(tmp_path):
    (tmp_path / "mxs.lcdata").write_bytes(struct.pack("<ii", 0, 127))
    with pytest.raises(formats.FormatError, match="format number 127"):
        formats.read_loadcases(tmp_path)


def test_structure_round_trip_and_layout(tmp_path):
    structure = formats.RawStructure(
        np.array([1, 2, 3, 2, 3, 3], np.int32), np.array([1, 4, 6, 7], np.int64), 3
    )
    formats.write_structure(tmp_path, structure)
    raw = (tmp_path / "mxs.sadr").read_bytes()
    assert struct.unpack("<iiq6i4q", raw) == (3, 3, 6, 1, 2, 3, 2, 3, 3, 1, 4, 6, 7)
    back = formats.read_structure(tmp_path)
    assert back.max_bandwidth == 3
    assert np.array_equal(back.columns, structure.columns)
    assert np.array_equal(back.row_start, structure.row_start)


@pytest.mark.parametrize("keep", range(4 + 3 * 4))
def test_every_cut_of_a_counted_file_is_told(tmp_path, keep):
    formats.write_tp(tmp_path, [1, 2, 3])
    path = tmp_path / "mxs.tp"
    path.write_bytes(path.read_bytes()[:keep])
    with pytest.raises(formats.ShortFileError, match="mxs.tp"):
        formats.read_tp(tmp_path)


def test_a_corrupt_count_asks_for_no_memory(tmp_path):
    (tmp_path / "mx.nodes").write_bytes(struct.pack("<ii", 0, 2**31 - 1))
    with pytest.raises(formats.ShortFileError, match="25769803764 bytes, 0 are left"):
        formats.read_nodes(tmp_path)


def test_a_negative_count_is_an_empty_array(tmp_path):
    (tmp_path / "mxs.tp").write_bytes(struct.pack("<i", -5))
    assert len(formats.read_tp(tmp_path)) == 0


def test_a_failed_write_leaves_the_old_file_and_nothing_beside_it(tmp_path):
    formats.write_tp(tmp_path, [1.0])
    with pytest.raises(RuntimeError), formats.replacing(tmp_path / "mxs.tp") as stream:
        stream.write(b"half")
        raise RuntimeError
    assert formats.read_tp(tmp_path).tolist() == [1.0]
    assert [p.name for p in tmp_path.iterdir()] == ["mxs.tp"]


@pytest.mark.parametrize(
    ("line", "expected"),
    [
        ("Sys.AvailableMemGB=0.5", {"Sys.AvailableMemGB": 0.5}),
        ("  Sys.ComputationMode = 2 , 5", {"Sys.ComputationMode": 2}),
        ("Sta.YieldStressFac=1.5D3", {"Sta.YieldStressFac": 1500.0}),
        ("Sta.YieldStressFac=25-1 rest", {"Sta.YieldStressFac": 2.5}),
        ("Sta.BStressExponent=3", {"Sta.BStressExp": 3}),
        ("Sta.BStressExp=/7", {}),
        ("* Sta.BStressExp=7", {}),
        ("Sta.Unknown=x", {}),
        ("", {}),
    ],
)
def test_options_are_read_as_the_solver_reads_them(tmp_path, line, expected):
    (tmp_path / "vk_rund_cmd.txt").write_text(line + "\n")
    assert formats.read_options(tmp_path) == expected


@pytest.mark.parametrize("line", ["Sta.BStressExp", "Sta.BStressExp=2.5", "Sta.BStressExp=  "])
def test_an_option_without_a_readable_value_names_its_line(tmp_path, line):
    (tmp_path / "vk_rund_cmd.txt").write_text("* first\n" + line + "\n")
    with pytest.raises(formats.FormatError, match="line 2: no value"):
        formats.read_options(tmp_path)


def test_options_round_trip_and_unknown_keys_are_refused(tmp_path):
    options = {"Sys.ComputationMode": 1, "Sta.MatSlopeFactor": 123.25, "Sys.AvailableMemGB": -1.0}
    formats.write_options(tmp_path, options)
    assert formats.read_options(tmp_path) == options
    with pytest.raises(KeyError, match="Sys.CompMode"):
        formats.write_options(tmp_path, {"Sys.CompMode": 1})
