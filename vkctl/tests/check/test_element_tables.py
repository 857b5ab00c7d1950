"""Faults that `vkctl.check.element_tables` tells."""

import numpy as np
import pytest

from vkctl.directory import formats, model

from .faults import (
    assert_stops,
    assert_told,
    collection,
    sound,
    with_coordinates,
    with_level,
    with_table,
)

FAULTS, provokes = collection()


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


@provokes("element-material", "error", "(3)", "1 material", stops=True)
def an_element_of_no_material(directory):
    with_table(directory, lambda t: t.records["MaterialIndex"].__setitem__(2, 2))


@provokes("element-row", "error", "(1)", stops=True)
def an_element_outside_its_table(directory):
    with_table(directory, lambda t: t.records["ConnIndex"].__setitem__(0, 19))


@provokes("element-node", "error", "(2)", "1 to 16", stops=True)
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


@provokes("element-none", "error", "no degrees of freedom", stops=True)
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


@provokes("element-flat", "error", stops=True)
def elements_smaller_than_single_precision_tells(directory):
    def shrink(nodes, part):
        nodes *= 1e-40

    with_coordinates(directory, shrink)


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


@provokes("level-index", "error", "(16)", "above 3", stops=True)
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


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
