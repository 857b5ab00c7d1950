"""Models and load cases, written to a directory and read back."""

from dataclasses import replace

import numpy as np
import pytest

from vkctl.directory import formats
from vkctl.directory.model import (
    LoadCase,
    Material,
    Model,
    dof_mask,
    elastic,
    forces,
    materials_to_records,
    prescribed,
    read,
    set_flags,
    write,
)
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements
from vkctl.shapes.topology import TET4


def whole_model():
    part = box("mixed", (3, 2, 2))
    materials = [
        Material.isotropic(1000.0, 0.25, name="plain", expansion=0.5, initial_strain=0.125),
        Material.yielding(1000.0, 0.25, 8.0, hardening_ratio=0.5, limit_stress=2.0),
        Material.compression_only(500.0, 0.0),
        Material.orthotropic(
            (1.0, 2.0, 3.0), (0.25, 0.125, 0.5), (4.0, 5.0, 6.0), expansions=(0.5, 1.5, 2.5)
        ),
    ]
    part.elements.materials[:] = 1 + np.arange(len(part.elements)) % 4
    first = LoadCase(pattern=2).prescribe(part.face("x-"), "xy", (0.0, 0.5, 0.0))
    first.support(part.face("x+"), axes=np.diag((1.0, 2.0, 0.5)), offsets=0.25, directions="xz")
    first.load([3, 5, 3], [(1, 0, 0), (0, 1, 0), (0, 0, 1)]).load([7], (1, 2, 3), section=3)
    first.heat([1, 2], [10.0, 20.0])
    second = LoadCase(flags=formats.LOADCASE_REQUESTED | 64, value=0.75, reserved=b"other")
    model = Model(part.nodes, part.elements, materials, [first, second], run_order=np.array([2, 1]))
    assert model.node_flags is not None
    model.node_flags[3] = formats.NODE_NO_LOADS
    model.exclude_elements([2])
    model.set_level([1.0, -2.0], nodes=[4, 9])
    model.options = {"Sys.ComputationMode": 2, "Sta.SupportStiffness": 3.5}
    return model


def test_a_whole_model_survives_writing_and_reading(tmp_path):
    model = whole_model()
    write(model, tmp_path)
    back = read(tmp_path)
    assert np.array_equal(back.nodes, model.nodes.astype(np.float32))
    records = materials_to_records(model.materials)
    assert np.array_equal(materials_to_records(back.materials), records)
    assert back.materials[3] == replace(
        model.materials[3], hardening_ratio=float(np.float32(0.001))
    )
    for name in ("type_codes", "materials", "conn_index", "tet4", "hex8", "tet10"):
        assert np.array_equal(getattr(back.elements, name), getattr(model.elements, name)), name
    for name in ("node_flags", "element_flags", "node_tp_index", "tp", "run_order"):
        assert np.array_equal(getattr(back, name), getattr(model, name)), name
    assert back.options == model.options
    assert len(back.load_cases) == 2
    for one, other in zip(back.load_cases, model.load_cases, strict=True):
        for name in ("pattern", "kind", "flags", "value", "reserved"):
            assert getattr(one, name) == getattr(other, name), name
        for name in ("constraints", "forces2", "forces3", "scalars"):
            assert np.array_equal(getattr(one, name), getattr(other, name)), name


def test_a_written_directory_has_every_input_file(tmp_path):
    write(whole_model(), tmp_path / "new")
    assert sorted(p.name for p in (tmp_path / "new").iterdir()) == [
        "mx.elems",
        "mx.mats",
        "mx.nodes",
        "mxs.elemflags",
        "mxs.lcdata",
        "mxs.lcflags",
        "mxs.lcmap.0001",
        "mxs.lcmap.0002",
        "mxs.nodeflags",
        "mxs.sadr",
        "mxs.tp",
        "mxs.tpadr",
        "vk_rund_cmd.txt",
    ]


@pytest.mark.parametrize(
    ("material", "flag", "state"),
    [
        (Material.isotropic(1, 0), 0x100, False),
        (Material.yielding(1, 0, 1), 0x200, True),
        (Material.compression_only(1, 0), 0x400, True),
        (Material.orthotropic((1, 1, 1), (0, 0, 0), (1, 1, 1)), 0x800, False),
    ],
)
def test_each_kind_of_material_has_its_flag(material, flag, state):
    assert material.flags == flag
    assert material.has_state is state


def test_prescribed_and_elastic_records():
    row = prescribed([4], "xz", (1.0, 2.0, 3.0))[0]
    assert (row["Kind"], row["DofMask"], row["Node"]) == (0, 5, 4)
    assert row["Value"].tolist() == [1.0, 2.0, 3.0]
    row = elastic([6], axes=[[0, 1, 0], [0, 0, 2], [3, 0, 0]], offsets=(0.5, 0, 0))[0]
    assert (row["Kind"], row["DofMask"], row["Node"]) == (1, 7, 6)
    assert row["Axis"].tolist() == [[0, 1, 0], [0, 0, 2], [3, 0, 0]]


def test_directions_other_than_xyz_are_refused():
    assert [dof_mask(d) for d in ("x", "y", "z", "zyx", "")] == [1, 2, 4, 7, 0]
    with pytest.raises(ValueError, match="'xw'"):
        dof_mask("xw")


def test_a_force_list_names_each_node_once():
    records = forces([5, 2, 5], [(1, 0, 0), (0, 2, 0), (0, 0, 4)])
    assert records["Node"].tolist() == [2, 5]
    assert records["Force"].tolist() == [[0, 2, 0], [1, 0, 4]]
    case = LoadCase().load([1], (1, 1, 1)).load([1, 2], (1, 0, 0))
    assert case.forces2["Force"].tolist() == [[2, 1, 1], [1, 0, 0]]


def test_which_load_cases_run():
    requested, done, excluded = 1, 2, 4
    assert LoadCase().will_run
    assert not LoadCase(flags=0).will_run
    assert not LoadCase(flags=requested | done).will_run
    assert not LoadCase(flags=requested | excluded).will_run
    assert not LoadCase(kind=2).will_run


def test_flags_are_changed_in_place(tmp_path):
    write(whole_model(), tmp_path)
    set_flags(tmp_path, {1: 1 | 2, 2: 2 | 64})
    assert formats.read_loadcase_flags(tmp_path)[0].tolist() == [3, 66]
    set_flags(tmp_path, clear_done=True)
    flags, values = formats.read_loadcase_flags(tmp_path)
    assert flags.tolist() == [1, 64]
    assert values.tolist() == [0.0, 0.75]


def test_a_run_order_must_name_each_load_case_once(tmp_path):
    model = whole_model()
    model.run_order = [1, 1]
    with pytest.raises(ValueError, match="not a permutation"):
        write(model, tmp_path)


def test_counts_that_disagree_name_the_file(tmp_path):
    write(whole_model(), tmp_path)
    formats.write_tp_index(tmp_path, [0])
    with pytest.raises(formats.FormatError, match="mxs.tpadr: 1 values, not"):
        read(tmp_path)


def test_elements_of_a_type_follow_their_connectivity_rows():
    elements = Elements.from_tables(tet4=[[1, 2, 3, 4], [5, 6, 7, 8]], hex8=[range(11, 19)])
    elements.conn_index[:2] = 2, 1
    numbers, rows = elements.of_type(TET4)
    assert numbers.tolist() == [1, 2]
    assert rows.tolist() == [[5, 6, 7, 8], [1, 2, 3, 4]]
    elements.conn_index[0] = 0
    with pytest.raises(IndexError):
        elements.of_type(TET4)


def test_labels_survive_writing_and_reading_and_go_with_their_model(tmp_path):
    model = whole_model()
    count, elements = len(model.nodes), len(model.elements)
    model.labels = formats.Labels(np.arange(count) * 10 + 2**40, np.arange(elements)[::-1])
    write(model, tmp_path)
    back = read(tmp_path)
    assert back.labels is not None
    assert np.array_equal(back.labels.nodes, model.labels.nodes)
    assert np.array_equal(back.labels.elements, model.labels.elements)
    write(back, tmp_path / "copy")
    copied = formats.read_labels(tmp_path / "copy")
    assert copied is not None and np.array_equal(copied.nodes, model.labels.nodes)
    write(replace(model, labels=None), tmp_path)
    assert read(tmp_path).labels is None and not (tmp_path / "vkctl.labels").exists()


def test_labels_of_another_model_or_cut_short_are_refused(tmp_path):
    model = whole_model()
    count, elements = len(model.nodes), len(model.elements)
    write(model, tmp_path)
    formats.write_labels(tmp_path, formats.Labels(np.arange(count), np.arange(elements - 1)))
    with pytest.raises(formats.FormatError, match=f"labels: .* not {count} and {elements}"):
        read(tmp_path)
    formats.write_labels(tmp_path, formats.Labels(np.arange(count), np.arange(elements)))
    content = (tmp_path / "vkctl.labels").read_bytes()
    (tmp_path / "vkctl.labels").write_bytes(content[:-1])
    with pytest.raises(formats.ShortFileError, match="element labels"):
        read(tmp_path)
