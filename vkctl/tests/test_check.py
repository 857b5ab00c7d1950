"""Each message of the check is provoked here, and a sound directory draws none."""

import json
import re
import shutil
from pathlib import Path

import numpy as np
import pytest
from fake_solver import small_box
from typer.testing import CliRunner

from vkctl import check as check_package
from vkctl.check import check
from vkctl.check.dissection import factor_size
from vkctl.check.estimates import check_estimate
from vkctl.check.inputs import read_inputs
from vkctl.check.structure import size_findings
from vkctl.check.supports import describe_motions
from vkctl.cli import app
from vkctl.directory import formats, model
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.directory.structure import build_structure, node_neighbours
from vkctl.running.run import run
from vkctl.shapes.boxes import box

runner = CliRunner()


def sound(kind="tet4", count=1, **changes):
    """A model without fault: a clamped box with a force; `changes` replace fields of Model."""
    part = box(kind, (3, 1, 1), (3.0, 1.0, 1.0))
    cases = []
    for _ in range(count):
        case = LoadCase(pattern=1).prescribe(part.face("x-"))
        cases.append(case.load(part.corner("x+", "y+", "z+"), (0, 0, -1.0)))
    fields = {
        "nodes": part.nodes,
        "elements": part.elements,
        "materials": [Material.isotropic(1000.0, 0.3)],
        "load_cases": cases,
        **changes,
    }
    return Model(**fields), part


def findings_of(directory):
    return {(f.code, f.severity): f for f in check(directory).findings}


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10", "mixed"])
def test_a_sound_directory_draws_no_message(tmp_path, kind):
    model.write(sound(kind)[0], tmp_path)
    report = check(tmp_path)
    assert report.findings == [] and report.status == 0
    assert report.counts["load_cases_to_run"] == 1


def test_checking_changes_nothing(tmp_path):
    model.write(sound()[0], tmp_path)
    before = {path.name: path.stat().st_mtime_ns for path in tmp_path.iterdir()}
    check(tmp_path)
    assert {path.name: path.stat().st_mtime_ns for path in tmp_path.iterdir()} == before


# --- one provocation for each message ---------------------------------------------------------

PROVOCATIONS = {}


def provokes(code, severity, *words):
    """Register a function that writes a directory with one fault."""

    def register(function):
        PROVOCATIONS[function.__name__] = (code, severity, words, function)
        return function

    return register


def alter(directory, read, write, change):
    """Rewrite a file after `change` has worked on its content."""
    content = read(directory)
    changed = change(content)
    write(directory, content if changed is None else changed)


def cut(directory, name, by=4):
    path = Path(directory, name)
    path.write_bytes(path.read_bytes()[:-by])


def with_case(directory, change, **changes):
    """Write the sound model after `change` has worked on its load case and its mesh."""
    whole, part = sound(**changes)
    change(whole.load_cases[0], part)
    model.write(whole, directory)


def with_material(directory, material):
    model.write(sound(materials=[material])[0], directory)


def with_options(directory, text):
    model.write(sound()[0], directory)
    Path(directory, formats.OPTIONS_FILE).write_text(text)


def with_level(directory, values, nodes=None):
    whole, _ = sound()
    whole.set_level(values, nodes)
    model.write(whole, directory)


def with_coordinates(directory, change, kind="tet4"):
    whole, part = sound(kind)
    change(whole.nodes, part)
    model.write(whole, directory)


def with_table(directory, change):
    model.write(sound()[0], directory)
    alter(directory, formats.read_elements, formats.write_elements, change)


def with_records(directory, change, count=1):
    model.write(sound(count=count)[0], directory)
    alter(directory, formats.read_loadcases, formats.write_loadcases, change)


def with_structure(directory, change):
    model.write(sound()[0], directory)
    alter(directory, formats.read_structure, formats.write_structure, change)


@provokes("directory-missing", "error", "There is no directory")
def no_directory(directory):
    directory.rmdir()


for _name in [
    "mx.mats",
    "mx.nodes",
    "mx.elems",
    "mxs.nodeflags",
    "mxs.tpadr",
    "mxs.elemflags",
    "mxs.tp",
    "mxs.sadr",
    "mxs.lcdata",
    "mxs.lcflags",
    "mxs.lcmap.0001",
    "vk_rund_cmd.txt",
]:

    def _remove(directory, name=_name):
        model.write(sound()[0], directory)
        Path(directory, name).unlink()

    _remove.__name__ = f"missing_{_name}"
    provokes("file-missing", "error", _name)(_remove)

    if _name != "vk_rund_cmd.txt":

        def _shorten(directory, name=_name):
            model.write(sound()[0], directory)
            cut(directory, name, 1)

        _shorten.__name__ = f"short_{_name}"
        provokes("file-short", "error", _name)(_shorten)

        def _lengthen(directory, name=_name):
            model.write(sound()[0], directory)
            with open(Path(directory, name), "ab") as stream:
                stream.write(b"12345")

        _lengthen.__name__ = f"long_{_name}"
        provokes("file-long", "warning", _name, "5 bytes")(_lengthen)


@provokes("file-unreadable", "error", "mx.nodes")
def a_folder_in_place_of_a_file(directory):
    model.write(sound()[0], directory)
    Path(directory, "mx.nodes").unlink()
    Path(directory, "mx.nodes").mkdir()


@provokes("format-number", "error", "127")
def another_format_number(directory):
    model.write(sound()[0], directory)
    path = Path(directory, "mxs.lcdata")
    content = bytearray(path.read_bytes())
    content[4] = 127
    path.write_bytes(content)


@provokes("file-unfinished", "note", "ws.tcval.0001~")
def a_file_of_a_killed_run(directory):
    model.write(sound()[0], directory)
    Path(directory, "ws.tcval.0001~").touch()


# Options.


@provokes("option-unknown", "warning", "Sta.BStresExp", "Did you mean Sta.BStressExp?")
def an_unknown_key(directory):
    with_options(directory, "Sta.BStresExp=3\n")


@provokes("option-unknown", "warning", "Did you mean Sys.ComputationMode?")
def a_key_in_another_case(directory):
    with_options(directory, "sys.computationmode=2\n")


@provokes("option-clamped", "warning", "Sys.ComputationMode=7", "becomes 2", "line 2")
def an_option_out_of_range(directory):
    with_options(directory, "* comment\n Sys.ComputationMode = 7\n")


@provokes("option-clamped", "warning", "becomes 0.99")
def a_blend_of_one(directory):
    with_options(directory, "Sta.ResponseDumpFac=1.0\n")


@provokes("option-unreadable", "error", "Sta.BStressExp", "whole number")
def an_option_that_is_no_number(directory):
    with_options(directory, "Sta.BStressExp=x\n")


@provokes("option-unreadable", "error", "Sta.BStressExp")
def a_key_without_a_value(directory):
    with_options(directory, "Sta.BStressExp\n")


@provokes("option-empty", "note", "keeps its value")
def a_separator_for_a_value(directory):
    with_options(directory, "Sta.BStressExp=,\n")


@provokes("option-twice", "warning", "Sta.BStressExp", "line 2")
def an_option_given_twice(directory):
    with_options(directory, "Sta.BStressExp=3\nSta.BStressExp=4\n")


@provokes("option-prefix", "warning", "Sta.BStressExponent")
def a_key_that_begins_with_another(directory):
    with_options(directory, "Sta.BStressExponent=3\n")


@provokes("option-long-line", "warning", "512")
def a_line_too_long(directory):
    with_options(directory, "Sta.BStressExp=3" + " " * 600 + "\n")


@provokes("option-threads", "note", "Sys.MaxNumCompThreads=100")
def more_threads_than_there_are(directory):
    with_options(directory, "Sys.MaxNumCompThreads=100\n")


# Materials.


@provokes("material-kind", "error", "no kind")
def a_material_without_kind(directory):
    with_material(directory, Material(name="air", e=1.0, nu=0.3))


@provokes("material-modulus", "error", "modulus 0")
def a_material_without_modulus(directory):
    with_material(directory, Material.isotropic(0.0, 0.3))


@provokes("material-modulus", "error", "1000, 0, 1000")
def an_orthotropic_material_without_a_modulus(directory):
    with_material(directory, Material.orthotropic((1e3, 0, 1e3), (0.2,) * 3, (400,) * 3))


@provokes("material-poisson", "error", "0.5")
def an_incompressible_material(directory):
    with_material(directory, Material.isotropic(1000.0, 0.5))


@provokes("material-incompressible", "warning", "0.499")
def a_nearly_incompressible_material(directory):
    with_material(directory, Material.isotropic(1000.0, 0.499))


@provokes("material-poisson", "error", "no elastic body")
def orthotropic_ratios_that_are_too_large(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (0.6,) * 3, (400,) * 3))


@provokes("material-poisson", "error", "negative energy")
def orthotropic_ratios_of_negative_energy(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (-1.1,) * 3, (400,) * 3))


@provokes("material-shear", "error", "shear moduli 400, 0, 400")
def an_orthotropic_material_without_shear_stiffness(directory):
    with_material(directory, Material.orthotropic((1e3,) * 3, (0.2,) * 3, (400, 0, 400)))


@provokes("material-two-kinds", "note", "orthotropic values hold")
def a_material_of_two_kinds(directory):
    material = Material.orthotropic((1e3,) * 3, (0.2,) * 3, (400,) * 3)
    material.flags |= formats.MATERIAL_ISOTROPIC
    with_material(directory, material)


@provokes("material-yield", "warning", "yield stress is 0")
def a_yielding_material_without_yield_stress(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 0.0))


@provokes("material-hardening", "warning", "ratio 2")
def a_material_that_hardens_above_its_stiffness(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0, hardening_ratio=2.0))


@provokes("material-limit", "warning", "limit stress 0")
def a_material_without_limit_stress(directory):
    with_material(directory, Material.isotropic(1000.0, 0.3, limit_stress=0.0))


@provokes("material-modulus", "error", "1e+37")
def a_modulus_too_large_for_single_precision(directory):
    with_material(directory, Material.isotropic(1e37, 0.3))


@provokes("material-contrast", "warning", "from 0.1 to 200000")
def moduli_of_two_unit_systems(directory):
    whole, _ = sound(materials=[Material.isotropic(2e5, 0.3), Material.isotropic(0.1, 0.3)])
    whole.elements.materials[0] = 2
    model.write(whole, directory)


@provokes("material-state", "note", "from run to run")
def a_material_with_a_state(directory):
    with_material(directory, Material.compression_only(1000.0, 0.3))


@provokes("material-unused", "note", "material 2")
def a_material_that_no_element_has(directory):
    materials = [Material.isotropic(1000.0, 0.3), Material.isotropic(0.0, 0.9)]
    model.write(sound(materials=materials)[0], directory)


# Mesh.


@provokes("count-nodes", "error", "mxs.nodeflags has 15 values", "16 nodes")
def node_flags_of_another_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_node_flags(directory, np.zeros(15))


@provokes("count-nodes", "error", "mxs.tpadr has 17 values")
def design_points_of_another_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_tp_index(directory, np.zeros(17))


@provokes("count-elements", "error", "17 values", "18 elements")
def element_flags_of_another_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_element_flags(directory, np.zeros(17))


@provokes("element-material", "error", "(3)", "1 material")
def an_element_of_no_material(directory):
    with_table(directory, lambda t: t.records["MaterialIndex"].__setitem__(2, 2))


@provokes("element-row", "error", "(1)")
def an_element_outside_its_table(directory):
    with_table(directory, lambda t: t.records["ConnIndex"].__setitem__(0, 19))


@provokes("element-node", "error", "(2)", "1 to 16")
def an_element_with_a_node_that_is_not_there(directory):
    with_table(directory, lambda t: t.tet4.__setitem__((1, 0), 17))


@provokes("element-type", "warning", "(4)", "type 99")
def an_element_of_unknown_type(directory):
    with_table(directory, lambda t: t.records["TypeCode"].__setitem__(3, 99))


@provokes("element-row-unused", "note", "1 row of 4-node tetrahedra")
def a_row_without_element(directory):
    with_table(directory, lambda t: t.records["ConnIndex"].__setitem__(3, 1))


@provokes("element-double", "warning", "(18)")
def two_elements_on_the_same_nodes(directory):
    with_table(directory, lambda t: t.tet4.__setitem__(17, t.tet4[0, [1, 2, 0, 3]]))


@provokes("element-excluded", "note", "2 elements")
def elements_left_out(directory):
    whole, _ = sound()
    whole.exclude_elements([1, 2])
    model.write(whole, directory)


@provokes("element-none", "error", "no degrees of freedom")
def every_element_left_out(directory):
    whole, _ = sound()
    whole.exclude_elements(np.arange(1, 19))
    model.write(whole, directory)


@provokes("element-collapsed", "error", "(5)")
def an_element_with_a_node_twice(directory):
    with_table(directory, lambda t: t.tet4.__setitem__((4, 1), t.tet4[4, 0]))


@provokes("element-mirrored", "error", "(3)", "swap two nodes")
def an_element_turned_inside_out(directory):
    with_table(directory, lambda t: t.tet4.__setitem__(2, t.tet4[2, [1, 0, 2, 3]]))


@provokes("element-flat", "error", "no volume")
def elements_without_volume(directory):
    def flatten(nodes, part):
        nodes[part.corner("x+", "y+", "z+") - 1] = nodes[part.corner("x+", "y+", "z-") - 1]

    with_coordinates(directory, flatten)


@provokes("element-inverted", "error", "negative Jacobian at integration points")
def a_folded_tetrahedron(directory):
    def fold(nodes, part):
        nodes[part.elements.tet10[0, 4] - 1] += (0.0, 0.9, 0.4)

    with_coordinates(directory, fold, "tet10")


@provokes("element-inverted", "error", "negative Jacobian at integration points")
def a_folded_hexahedron(directory):
    def fold(nodes, part):
        nodes[part.corner("x+", "y+", "z+") - 1] = (2.1, 0.1, 0.1)

    with_coordinates(directory, fold, "hex8")


@provokes("element-distorted", "warning", "at a corner", "(3)")
def a_dented_hexahedron(directory):
    def dent(nodes, part):
        nodes[part.corner("x+", "y+", "z+") - 1] = (2.6, 0.6, 0.6)

    with_coordinates(directory, dent, "hex8")


@provokes("element-sliver", "warning", "slivers")
def slivers(directory):
    with_coordinates(directory, lambda nodes, part: nodes.__imul__((1.0, 1.0, 1e-3)))


@provokes("node-not-finite", "error", "(5)")
def a_coordinate_that_is_no_number(directory):
    with_coordinates(directory, lambda nodes, part: nodes.__setitem__((4, 1), np.nan))


@provokes("node-unused", "warning", "(17)")
def a_node_without_element(directory):
    _, part = sound()
    nodes = np.concatenate((part.nodes, [(5.0, 5.0, 5.0)]))
    model.write(sound(nodes=nodes)[0], directory)


@provokes("node-inactive", "note", "left out only")
def nodes_of_excluded_elements_only(directory):
    whole, _ = sound()
    whole.exclude_elements(np.arange(13, 19))
    model.write(whole, directory)


@provokes("level-index", "error", "(16)", "above 3")
def a_design_point_that_is_not_there(directory):
    model.write(sound()[0], directory)
    formats.write_tp(directory, [1.0, 1.0, 1.0])
    formats.write_tp_index(directory, [1, 2, 3] + 12 * [0] + [4])


@provokes("level-not-finite", "error", "(2)")
def a_level_that_is_no_number(directory):
    with_level(directory, [1.0, np.inf] + 14 * [1.0])


@provokes("level-zero", "warning", "zero")
def levels_of_zero(directory):
    with_level(directory, 0.0)


@provokes("level-empty", "warning", "no material")
def negative_levels_everywhere(directory):
    with_level(directory, -1.0)


@provokes("level-untouched", "note", "1 design point of 3")
def a_design_point_without_node(directory):
    model.write(sound()[0], directory)
    formats.write_tp(directory, [1.0, 1.0, 1.0])
    formats.write_tp_index(directory, [1, 2] + 14 * [0])


# Structure.


@provokes("structure-rows", "error", "45 rows", "48")
def a_structure_of_another_mesh(directory):
    def drop_a_node(s):
        return formats.RawStructure(s.columns, s.row_start[:-3], s.max_bandwidth)

    with_structure(directory, drop_a_node)


@provokes("structure-starts", "error", "row 4")
def row_starts_that_fall(directory):
    with_structure(directory, lambda s: s.row_start.__setitem__(4, s.row_start[3]))


@provokes("structure-column", "error", "row 2")
def a_column_outside(directory):
    with_structure(directory, lambda s: s.columns.__setitem__(s.row_start[2] - 2, 49))


@provokes("structure-diagonal", "error", "row 1")
def a_row_without_diagonal(directory):
    with_structure(directory, lambda s: s.columns.__setitem__(0, 2))


@provokes("structure-order", "error", "row 4")
def unsorted_columns(directory):
    def swap(s):
        second = s.row_start[3]
        s.columns[[second, second + 1]] = s.columns[[second + 1, second]]

    with_structure(directory, swap)


@provokes("structure-missing", "error", "1 couplings", "1 with 2")
def a_structure_without_a_coupling(directory):
    whole, part = sound()
    kept = [t for t in part.elements.used_tables() if len(t)]
    structure = build_structure(16, kept)
    row = np.repeat(np.arange(48), np.diff(structure.row_start))
    gone = (row // 3 == 0) & ((structure.columns - 1) // 3 == 1)
    lengths = np.bincount(row[~gone], minlength=48)
    start = np.concatenate(([1], 1 + np.cumsum(lengths)))
    model.write(whole, directory, formats.RawStructure(structure.columns[~gone], start, 9))


@provokes("structure-extra", "note", "share no element")
def a_structure_with_couplings_too_many(directory):
    whole, _ = sound()
    everything = np.arange(1, 17)[None]
    model.write(whole, directory, build_structure(16, [everything]))


# Table of load cases.


@provokes("count-cases", "error", "has 2 load cases", "has 1")
def flags_of_more_load_cases(directory):
    model.write(sound()[0], directory)
    formats.write_loadcase_flags(directory, [1, 1])


@provokes("order-outside", "error", "position 1")
def a_run_order_that_leads_outside(directory):
    with_records(directory, lambda r: r["RunOrder"].__setitem__(0, 2))


@provokes("order-incomplete", "warning", "(2)")
def a_run_order_that_leaves_one_out(directory):
    with_records(directory, lambda r: r["RunOrder"].__setitem__(1, 1), 2)


@provokes("case-kind", "warning", "(1)")
def a_load_case_of_another_kind(directory):
    with_records(directory, lambda r: r["Kind"].__setitem__(0, 3))


@provokes("case-number", "error", "(10000)", "mxs.lcmap.****")
def too_many_load_cases(directory):
    model.write(sound()[0], directory)
    records = np.repeat(formats.read_loadcases(directory), 10000)
    records["RunOrder"] = np.arange(1, 10001)
    formats.write_loadcases(directory, records)
    formats.write_loadcase_flags(directory, 9999 * [4] + [1])


@provokes("nothing-requested", "warning", "does nothing")
def no_load_case_requested(directory):
    model.write(sound()[0], directory)
    model.set_flags(directory, {1: 0})


@provokes("all-done", "note", "does nothing")
def every_load_case_done(directory):
    model.write(sound()[0], directory)
    model.set_flags(directory, {1: 3})


@provokes("pattern-zero-first", "error", "Load case 1")
def the_first_pattern_is_zero(directory):
    with_records(directory, lambda r: r["PatternIndex"].__setitem__(0, 0))


@provokes("pattern-zero", "warning", "(2)")
def a_later_pattern_is_zero(directory):
    with_records(directory, lambda r: r["PatternIndex"].__setitem__(1, 0), 2)


@provokes("pattern-components", "error", "Load cases 1 and 2", "1 node (4)")
def load_cases_of_a_pattern_with_other_components(directory):
    whole, part = sound(count=2)
    whole.load_cases[1].prescribe(part.corner("x+", "y-", "z-"), "z")
    model.write(whole, directory)


@provokes("pattern-values", "error", "load case 2", "1 node (4)")
def a_prescribed_value_that_the_first_load_case_has_as_zero(directory):
    whole, part = sound(count=2)
    for case, value in zip(whole.load_cases, (0.0, 0.1), strict=True):
        case.prescribe(part.corner("x+", "y-", "z-"), "z", value)
    model.write(whole, directory)


@provokes("pattern-values", "error", "2 nodes (4, 8)")
def prescribed_rows_in_another_order(directory):
    whole, part = sound(count=2)
    for case, nodes in zip(whole.load_cases, ([4, 8], [8, 4]), strict=True):
        case.prescribe(nodes, "z", [[0.1], [0.2]])
    whole.load_cases[1].constraints["Value"][-2:] = [[0.2] * 3, [0.1] * 3]
    model.write(whole, directory)


@provokes("pattern-supports", "error", "elastic supports")
def load_cases_of_a_pattern_with_other_springs(directory):
    whole, _ = sound(count=2)
    whole.load_cases[1].support([4])
    model.write(whole, directory)


# Load cases.


@provokes("case-node", "error", "1 constraints", "17")
def a_constraint_on_no_node(directory):
    with_case(directory, lambda case, part: case.prescribe(17))


@provokes("case-node", "error", "1 forces of the second list", "outside 1 to 16")
def a_force_on_no_node(directory):
    with_case(directory, lambda case, part: case.load(99, (1, 0, 0), section=3))


@provokes("case-node", "error", "1 temperatures", "-1")
def a_temperature_of_no_node(directory):
    with_case(directory, lambda case, part: case.heat(-1, 20.0))


@provokes("constraint-idle", "note", "1 constraint row")
def a_constraint_in_no_direction(directory):
    with_case(directory, lambda case, part: case.prescribe(4, 0))


@provokes("constraint-not-finite", "error", "finite")
def a_prescribed_value_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.prescribe(4, "z", np.nan))


@provokes("constraint-twice", "warning", "1 node (4)")
def two_values_for_a_component(directory):
    with_case(directory, lambda case, part: case.prescribe([4, 4], "z", [[0.1], [0.2]]))


@provokes("constraint-unused", "warning", "(17)")
def a_constraint_on_an_unused_node(directory):
    nodes = np.concatenate((sound()[1].nodes, [(5.0, 5.0, 5.0)]))
    with_case(directory, lambda case, part: case.prescribe(17), nodes=nodes)


@provokes("all-fixed", "error", "no degrees of freedom")
def everything_prescribed(directory):
    with_case(directory, lambda case, part: case.prescribe(np.arange(1, 17)))


@provokes("support-no-stiffness", "warning", "1 elastic support")
def springs_without_stiffness(directory):
    options = {"Sta.SupportStiffness": 0.0}
    with_case(directory, lambda case, part: case.support(4), options=options)


@provokes("support-axis", "warning", "1 node (4)")
def a_spring_without_direction(directory):
    with_case(directory, lambda case, part: case.support(4, np.zeros((3, 3))))


@provokes("support-scaled", "note", "1 node (4)")
def a_spring_with_a_long_axis(directory):
    with_case(directory, lambda case, part: case.support(4, 2 * np.eye(3)))


@provokes("force-twice", "error", "Force list 2", "1 node (16)")
def a_node_twice_in_a_force_list(directory):
    def repeat(case, part):
        case.forces2 = np.concatenate((case.forces2, case.forces2))

    with_case(directory, repeat)


@provokes("force-not-finite", "error", "1 node (4)")
def a_force_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.load(4, (np.inf, 0, 0)))


@provokes("force-fixed", "warning", "0.5 of the load", "1 node (1)")
def half_the_load_on_a_clamped_node(directory):
    with_case(directory, lambda case, part: case.load(1, (0, 0, -1.0)))


@provokes("force-fixed", "note", "1 node (1)")
def a_little_load_on_a_clamped_node(directory):
    with_case(directory, lambda case, part: case.load(1, (0, 0, -1e-3)))


@provokes("force-unused", "warning", "(17)")
def a_force_on_an_unused_node(directory):
    nodes = np.concatenate((sound()[1].nodes, [(5.0, 5.0, 5.0)]))
    with_case(directory, lambda case, part: case.load(17, (1, 0, 0)), nodes=nodes)


@provokes("force-marked", "warning", "(16)", "bit 11")
def a_force_on_a_marked_node(directory):
    flags = np.zeros(16, np.int16)
    flags[15] = formats.NODE_NO_LOADS
    model.write(sound(node_flags=flags)[0], directory)


@provokes("force-in-void", "warning", "1 node (16)")
def a_force_in_the_void(directory):
    with_level(directory, np.where(sound()[1].nodes[:, 0] > 1.5, -1.0, 1.0))


@provokes("load-none", "warning", "no load")
def a_load_case_without_load(directory):
    def unload(case, part):
        case.forces2 = case.forces2[:0]

    with_case(directory, unload)


@provokes("temperature-not-finite", "error", "finite")
def a_temperature_that_is_no_number(directory):
    with_case(directory, lambda case, part: case.heat(4, np.nan))


@provokes("temperature-twice", "warning", "1 node (4)")
def two_temperatures_of_a_node(directory):
    with_case(directory, lambda case, part: case.heat([4, 4], [20.0, 30.0]))


@provokes("temperature-no-effect", "warning", "no material expands")
def temperatures_without_expansion(directory):
    with_case(directory, lambda case, part: case.heat(4, 20.0))


# Supports.


def supported(change, kind="tet4", **changes):
    """A model whose supports `change` puts in place of the clamped side."""
    whole, part = sound(kind, **changes)
    case = whole.load_cases[0]
    case.constraints = case.constraints[:0]
    change(case, part)
    return whole


@provokes("rigid-body", "error", "The part is not held", "no support at all")
def a_part_without_supports(directory):
    model.write(supported(lambda case, part: None), directory)


@provokes("rigid-body", "error", "it can slide along y and z and turn about x.")
def a_part_held_in_one_direction(directory):
    model.write(supported(lambda case, part: case.prescribe(part.face("x-"), "x")), directory)


@provokes("rigid-body", "error", "it can turn about y.")
def a_part_on_a_hinge(directory):
    model.write(supported(lambda c, part: c.prescribe(part.edge("x-", "z-"))), directory)


@provokes("rigid-body", "error", "it can turn about every axis.")
def a_part_on_a_point(directory):
    model.write(supported(lambda case, part: case.prescribe(1)), directory)


@provokes("rigid-body", "error", "it can slide along z.")
def springs_that_act_in_two_directions(directory):
    model.write(supported(lambda c, part: c.support(part.face("x-"), directions="xy")), directory)


def two_boxes(gap):
    """Two boxes of a mesh; only the first is clamped, the second lies behind a gap."""
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes = np.concatenate((part.nodes, part.nodes + (3.0 + gap, 0, 0)))
    rows = np.concatenate((part.elements.tet4, part.elements.tet4 + 16))
    return sound(nodes=nodes, elements=model.Elements.from_tables(tet4=rows))[0]


@provokes("rigid-body", "error", "Part 2 of 2 (16 nodes, node 17", "no support at all")
def a_second_part_without_supports(directory):
    model.write(two_boxes(1.0), directory)


@provokes("rigid-body", "error", "4 nodes of it coincide", "merge them?")
def a_second_part_that_only_touches(directory):
    model.write(two_boxes(0.0), directory)


@provokes("rigid-body-more", "error", "2 more parts")
def many_loose_parts(directory):
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes = np.concatenate([part.nodes + (5.0 * k, 0, 0) for k in range(6)])
    rows = np.concatenate([part.elements.tet4 + 16 * k for k in range(6)])
    whole, _ = sound(nodes=nodes, elements=model.Elements.from_tables(tet4=rows))
    model.write(whole, directory)


def joined(*shared, count=2):
    """A clamped box with others behind it that have only the nodes `shared` (y, z) in common."""
    part = box("tet4", (3, 1, 1), (3.0, 1.0, 1.0))
    nodes, rows = [part.nodes], [part.elements.tet4]
    for k in range(1, count):
        moved = part.nodes + (3.0 * k, 0, 0)
        numbers = np.arange(1, 17) + 16 * k
        for y, z in shared:
            numbers[part.corner("x-", f"y{y}", f"z{z}") - 1] = part.corner(
                "x+", f"y{y}", f"z{z}"
            ) + 16 * (k - 1)
        nodes.append(moved)
        rows.append(numbers[part.elements.tet4 - 1])
    elements = model.Elements.from_tables(tet4=np.concatenate(rows))
    return sound(nodes=np.concatenate(nodes), elements=elements)[0]


@provokes("hinge", "error", "16 nodes hangs on the rest at 1 node (4)", "turn about every axis")
def a_piece_on_a_single_node(directory):
    model.write(joined("--"), directory)


@provokes("hinge", "error", "at 2 nodes (4, 8)", "it can turn about y.")
def a_piece_on_an_edge(directory):
    model.write(joined("--", "+-"), directory)


@provokes("hinge-more", "error", "2 more pieces")
def a_chain_of_pieces(directory):
    model.write(joined("--", count=6), directory)


@provokes("hinge-many", "warning", "300 pieces")
def very_many_pieces(directory):
    model.write(joined("--", count=300), directory)


# Files of earlier runs.


@provokes("state-displacements", "warning", "too short", "starts from zero")
def displacements_of_a_smaller_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.zeros((15, 3)))


@provokes("state-displacements", "warning", "longer")
def displacements_of_a_larger_mesh(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.zeros((17, 3)))


@provokes("state-elements", "warning", "17 elements", "ignored")
def an_element_state_of_another_mesh(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, np.ones(17))


@provokes("state-elements", "error", "too short")
def an_element_state_cut_short(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, np.ones(18))
    cut(directory, "ws.mstate.0001")


@provokes("state-elements", "error", "1 element (4)", "damaged")
def an_element_state_of_zero(directory):
    with_material(directory, Material.yielding(1000.0, 0.3, 5.0))
    formats.write_element_state(directory, 1, [1.0] * 3 + [0.0] + [1.0] * 14)


@provokes("state-displacements", "error", "nothing to start from")
def displacements_that_are_no_numbers(directory):
    model.write(sound()[0], directory)
    formats.write_displacements(directory, 1, np.full((16, 3), np.nan))


@provokes("state-criterion", "error", "fewer values")
def a_criterion_of_fewer_design_points(directory):
    with_level(directory, 1.0)
    formats.write_options(directory, {"Sta.ResponseDumpFac": 0.5})
    formats.write_criterion(directory, 1, np.ones(15))


@provokes("state-criterion", "warning", "more values")
def a_criterion_of_more_design_points(directory):
    with_level(directory, 1.0)
    formats.write_options(directory, {"Sta.ResponseDumpFac": 0.5})
    formats.write_criterion(directory, 1, np.ones(17))


# Units and estimates.


@provokes("units-size", "warning", "looks like Pa", "millimetres")
def pascals_with_millimetres(directory):
    part = box("tet4", (3, 1, 1), (300.0, 100.0, 100.0))
    materials = [Material.isotropic(2.1e11, 0.3)]
    model.write(sound(nodes=part.nodes, materials=materials)[0], directory)


@provokes("units-size", "warning", "looks like MPa", "metres")
def megapascals_with_metres(directory):
    part = box("tet4", (3, 1, 1), (0.3, 0.1, 0.1))
    materials = [Material.isotropic(2.1e5, 0.3)]
    model.write(sound(nodes=part.nodes, materials=materials)[0], directory)


@provokes("units-load", "warning", "mean strain of 1.1")
def a_force_that_is_too_large(directory):
    with_case(directory, lambda case, part: case.load(16, (0, 0, -9999.0)))


@provokes("units-displacement", "warning", "displacement of 30")
def a_displacement_beyond_the_size(directory):
    with_case(directory, lambda case, part: case.prescribe(4, "z", 30.0))


@provokes("units-temperature", "warning", "strain of 0.24")
def a_temperature_that_doubles_the_part(directory):
    materials = [Material.isotropic(1000.0, 0.3, expansion=0.012)]
    with_case(directory, lambda case, part: case.heat(4, 20.0), materials=materials)


@provokes("memory-budget", "warning", "go on iteratively")
def a_budget_that_is_too_small(directory):
    with_options(directory, "Sys.AvailableMemGB=1e-7\n")


@provokes("memory-no-budget", "note", "whatever memory")
def no_budget(directory):
    with_options(directory, "Sys.AvailableMemGB=0\n")


@pytest.mark.parametrize("name", sorted(PROVOCATIONS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    code, severity, words, spoil = PROVOCATIONS[name]
    directory = tmp_path / "part"
    directory.mkdir()
    spoil(directory)
    found = [f for f in check(directory).findings if (f.code, f.severity) == (code, severity)]
    texts = " ".join(f"{f.message} {f.where} {f.hint}" for f in found)
    assert found, f"{code} was not found"
    for word in words:
        assert word in texts


def test_sizes_that_no_test_can_write_are_judged_by_their_number():
    assert [f.code for f in size_findings(499_999_999)] == []
    assert [f.code for f in size_findings(500_000_000)] == ["structure-64bit"]
    assert [f.code for f in size_findings(2**31)] == ["structure-too-large"]


def test_a_run_that_needs_more_memory_than_is_free_is_told(tmp_path, monkeypatch):
    model.write(sound()[0], tmp_path)
    inputs, _ = read_inputs(tmp_path)
    monkeypatch.setattr("vkctl.check.estimates.memory_available_gb", lambda: 0.5)
    values = {"iterative": 0.0, "factor_gb": 3.0, "memory_gb": 4.0}
    (finding,) = check_estimate(inputs, values)
    assert finding.code == "memory-machine" and "4 GB, 0.5 GB are free" in finding.message


def _codes_in_source():
    sources = Path(check_package.__file__).parent.glob("*.py")
    calls = re.compile(r'\b(?:error|warning|note|kind)\(\s*"([a-z0-9-]+)"')
    return {code for source in sources for code in calls.findall(source.read_text())}


def test_every_message_is_provoked_by_a_test():
    elsewhere = {"structure-64bit", "structure-too-large", "memory-machine"}
    assert _codes_in_source() == {p[0] for p in PROVOCATIONS.values()} | elsewhere


def test_every_message_is_in_the_documentation():
    page = Path(__file__).parents[2] / "docs" / "how-to.md"
    told = set(re.findall(r"^\| `([a-z0-9-]+)` \|", page.read_text(), re.MULTILINE))
    assert told == _codes_in_source()


# --- what the solver says to the same faults --------------------------------------------------


@pytest.mark.parametrize(
    "spoil",
    [
        an_element_of_no_material,
        an_element_outside_its_table,
        an_element_with_a_node_that_is_not_there,
        a_design_point_that_is_not_there,
        a_run_order_that_leads_outside,
        the_first_pattern_is_zero,
        a_force_on_no_node,
        everything_prescribed,
        every_element_left_out,
        an_option_that_is_no_number,
        another_format_number,
        a_criterion_of_fewer_design_points,
        an_element_state_cut_short,
        unsorted_columns,
        displacements_that_are_no_numbers,
    ],
    ids=lambda function: function.__name__,
)
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, spoil):
    spoil(tmp_path)
    assert check(tmp_path).status == 2
    assert run(tmp_path).status == 242


def test_a_misread_prescribed_value_is_what_the_solver_takes(tmp_path):
    a_prescribed_value_that_the_first_load_case_has_as_zero(tmp_path)
    assert run(tmp_path).ok
    assert formats.read_displacements(tmp_path, 2)[3, 2] == 0.0


def _damage(directory, random):
    """Overwrite, cut or lengthen a file somewhere."""
    files = sorted(path for path in directory.iterdir() if path.stat().st_size)
    path = files[random.integers(len(files))]
    content = bytearray(path.read_bytes())
    place = int(random.integers(len(content))) // 4 * 4
    match random.integers(4):
        case 0:
            content[place] = random.integers(256)
        case 1:
            number = random.choice((0, 1, -1, 2**31 - 1, -(2**31), 65536))
            content[place : place + 4] = int(number).to_bytes(4, "little", signed=True)
        case 2:
            undefined = np.float32(random.choice((np.nan, np.inf, 3e38)))
            content[place : place + 4] = undefined.tobytes()
        case 3:
            del content[place:]
    path.write_bytes(content)


@pytest.mark.filterwarnings("error")
def test_damaged_files_never_break_the_check(tmp_path):
    part = box("mixed", (3, 1, 1), (3.0, 1.0, 1.0))
    case = LoadCase().prescribe(part.face("x-")).support([5]).load(7, (0, 0, -1)).heat(3, 5.0)
    materials = [Material.yielding(1e3, 0.3, 5.0)]
    whole = Model(
        part.nodes, part.elements, materials, [case], options={"Sta.ResponseDumpFac": 0.5}
    )
    whole.set_level(part.nodes[:, 1] - 0.3)
    model.write(whole, tmp_path / "sound")
    formats.write_displacements(tmp_path / "sound", 1, 0 * part.nodes)
    formats.write_element_state(tmp_path / "sound", 1, np.ones(len(part.elements)))
    formats.write_criterion(tmp_path / "sound", 1, whole.tp)
    worst = []
    for seed in range(60):
        damaged = shutil.copytree(tmp_path / "sound", tmp_path / str(seed))
        _damage(damaged, np.random.default_rng(seed))
        worst.append(check(damaged).status)
    assert 10 < worst.count(2) < 60


# --- supports ---------------------------------------------------------------------------------


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10"])
def test_three_points_held_in_three_two_and_one_directions_are_enough(tmp_path, kind):
    def hold(case, part):
        case.prescribe(part.corner("x-", "y-", "z-"), "xyz")
        case.prescribe(part.corner("x+", "y-", "z-"), "yz")
        case.prescribe(part.corner("x-", "y+", "z-"), "z")

    model.write(supported(hold, kind), tmp_path)
    assert ("rigid-body", "error") not in findings_of(tmp_path)


def test_springs_and_prescribed_displacements_hold_together(tmp_path):
    def hold(case, part):
        case.prescribe(part.face("x-"), "x")
        case.support([1, 5], np.eye(3)[[1, 2, 0]], directions="xy")

    model.write(supported(hold), tmp_path)
    assert ("rigid-body", "error") not in findings_of(tmp_path)
    formats.write_options(tmp_path, {"Sta.SupportStiffness": 0.0})
    assert ("rigid-body", "error") in findings_of(tmp_path)


def test_far_from_the_origin_the_same_supports_hold(tmp_path):
    whole, _ = sound()
    whole.nodes += 1000.0
    model.write(whole, tmp_path)
    assert check(tmp_path).findings == []


def test_each_pattern_is_looked_at(tmp_path):
    whole, _ = sound(count=2)
    whole.load_cases[1].pattern = 2
    whole.load_cases[1].constraints = whole.load_cases[1].constraints[:0]
    model.write(whole, tmp_path)
    found = findings_of(tmp_path)[("rigid-body", "error")]
    assert found.where == "load case 2, pattern 2"


def test_pieces_that_share_three_nodes_hold_each_other(tmp_path):
    model.write(joined("--", "+-", "-+"), tmp_path)
    assert not [f for f in check(tmp_path).findings if f.severity == "error"]


def test_motions_off_the_axes_are_told_by_their_vectors():
    slide = np.zeros((6, 1))
    slide[:2, 0] = np.sqrt(0.5)
    assert describe_motions(slide) == "it can slide along (0.707, 0.707, 0)"


# --- estimates --------------------------------------------------------------------------------


@pytest.mark.parametrize("kind", ["tet4", "hex8"])
def test_equations_and_entries_come_out_as_the_solver_counts_them(tmp_path, kind):
    part = box(kind, (8, 5, 5))
    case = LoadCase().prescribe(part.face("x-")).load(part.corner("x+", "y+", "z+"), (0, 0, -1e-3))
    model.write(sound(nodes=part.nodes, elements=part.elements, load_cases=[case])[0], tmp_path)
    values = check(tmp_path).estimate
    assert values["equations"] == 3 * 8 * 36
    free = part.nodes[:, 0] > 0
    start, neighbours = node_neighbours(len(free), part.elements.used_tables())
    row = np.repeat(np.arange(len(free)), np.diff(start))
    kept = free[row] & free[neighbours]
    diagonal = row == neighbours
    assert values["entries"] == 9 * (kept & ~diagonal).sum() + 6 * (kept & diagonal).sum()


def test_the_factor_estimate_is_near_what_the_solver_reports(tmp_path):
    part = box("tet4", (16, 12, 12))
    case = LoadCase().prescribe(part.face("x-")).load(part.corner("x+", "y+", "z+"), (0, 0, -1e-3))
    model.write(sound(nodes=part.nodes, elements=part.elements, load_cases=[case])[0], tmp_path)
    estimated = check(tmp_path).estimate
    reported = run(tmp_path).log.load_cases[0].memory_estimate_gb
    assert estimated["factor_gb"] == pytest.approx(reported, rel=0.3)


def test_a_dense_part_has_the_factor_of_a_dense_matrix():
    points = np.random.default_rng(1).random((40, 3))
    a, b = np.triu_indices(40, 1)
    assert factor_size(points, (a, b)).entries == 120 * 121 / 2


def test_a_chain_has_a_factor_that_grows_with_its_length():
    def entries(count):
        points = np.zeros((count, 3))
        points[:, 0] = np.arange(count)
        return factor_size(points, (np.arange(count - 1), np.arange(1, count)), 1).entries

    assert entries(4000) / entries(1000) == pytest.approx(4.0, rel=0.05)


# --- command ----------------------------------------------------------------------------------


def test_the_exit_status_tells_the_worst_finding(tmp_path):
    model.write(sound()[0], tmp_path / "good")
    assert runner.invoke(app, ["check", str(tmp_path / "good")]).exit_code == 0
    with_options(tmp_path / "odd", "Nonsense=1\n")
    odd = runner.invoke(app, ["check", str(tmp_path / "odd")])
    assert odd.exit_code == 1 and "0 errors, 1 warning, 0 notes." in odd.output
    shutil.copytree(tmp_path / "odd", tmp_path / "bad")
    Path(tmp_path, "bad", "mx.mats").unlink()
    bad = runner.invoke(app, ["check", str(tmp_path / "bad")])
    assert bad.exit_code == 2 and bad.output.startswith("error  mx.mats is missing.")


def test_json_holds_findings_counts_and_estimate(tmp_path):
    small_box(tmp_path)
    Path(tmp_path, formats.OPTIONS_FILE).write_text("Nonsense=1\n")
    result = runner.invoke(app, ["check", str(tmp_path), "--json"])
    report = json.loads(result.output)
    assert result.exit_code == report["status"] == 1
    assert report["findings"][0]["code"] == "option-unknown"
    assert set(report["findings"][0]) == {"code", "severity", "message", "where", "hint"}
    assert report["counts"]["nodes"] == 16
    assert report["estimate"]["equations"] == 36
