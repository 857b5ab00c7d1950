"""Thin regions of linear elements: what is told of them, and what isn't."""

import re

import numpy as np
import pytest

from vkctl.check import check
from vkctl.directory import model
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box
from vkctl.shapes.elements import Elements

from .faults import assert_told, collection

FAULTS, provokes = collection()


def strip(kind, cells, size, force, change=None):
    """A clamped strip with a force spread over its end."""
    part = box(kind, cells, size)
    if change is not None:
        part.nodes = change(part.nodes)
    case = LoadCase(pattern=1).prescribe(part.face("x-")).load(part.face("x+"), force)
    return Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case])


def told(whole, directory):
    """(elements listed, elements across, percent) of the finding, None where there is none."""
    model.write(whole, directory)
    found = [f for f in check(directory).findings if f.code == "thin-linear"]
    if not found:
        return None
    pattern = r"^(\d+) elements? .* with (\d+) elements? across.* up to (\d+) % too small"
    numbers = re.match(pattern, found[0].message)
    assert numbers, found[0].message
    return tuple(int(number) for number in numbers.groups())


@provokes("thin-linear", "warning", "1 element across", "0.2 thick, 10 long", "10-node tetrahedra")
def a_strip_with_one_hexahedron_across(directory):
    model.write(strip("hex8", (20, 4, 1), (10.0, 2.0, 0.2), (0, 0, -1.0)), directory)


@provokes("thin-linear", "warning", "2 elements across")
def a_strip_with_two_tetrahedra_across(directory):
    model.write(strip("tet4", (40, 8, 2), (10.0, 2.0, 0.5), (0, 0, -1.0)), directory)


@pytest.mark.parametrize("name", FAULTS)
def test_every_fault_is_told(name, tmp_path):
    assert_told(FAULTS[name], tmp_path / "d")


@pytest.mark.parametrize(("cells", "lost"), [((60, 2, 1), 41), ((60, 2, 2), 15), ((6, 1, 1), 97)])
def test_hexahedra_lose_what_the_formula_of_bending_says(cells, lost, tmp_path):
    """A bar of 7.5 by 0.5 by 0.1; the share is of shear in layers of one element's thickness."""
    length = 7.5 * cells[2] / cells[0] / 0.1
    one = (1 + 0.35 * length**2) / 0.91 - 1
    excess = one / cells[2] ** 2
    _, across, percent = told(strip("hex8", cells, (7.5, 0.2, 0.1), (0, 0, -1.0)), tmp_path)
    assert across == cells[2]
    assert percent == round(100 * excess / (1 + excess))


@pytest.mark.parametrize("kind", ["tet4", "hex8", "mixed"])
@pytest.mark.parametrize("cells", [(3, 2, 2), (6, 3, 3), (12, 6, 6)])
def test_a_solid_body_draws_nothing(kind, cells, tmp_path):
    assert told(strip(kind, cells, (2.0, 1.0, 1.0), (0, 0, -1.0)), tmp_path) is None


def test_quadratic_tetrahedra_draw_nothing(tmp_path):
    assert told(strip("tet10", (20, 2, 1), (10.0, 2.0, 0.2), (0, 0, -1.0)), tmp_path) is None


def test_enough_elements_across_draw_nothing(tmp_path):
    assert told(strip("hex8", (100, 1, 4), (10.0, 2.0, 0.4), (0, 0, -1.0)), tmp_path) is None


@pytest.mark.parametrize("kind", ["tet4", "hex8"])
@pytest.mark.parametrize("force", [(1.0, 0, 0), (0, -1.0, 0)])
def test_a_plate_pushed_in_its_plane_draws_nothing(kind, force, tmp_path):
    assert told(strip(kind, (20, 10, 1), (10.0, 5.0, 0.2), force), tmp_path) is None


@pytest.mark.parametrize("kind", ["tet4", "hex8"])
def test_a_plate_that_stands_askew_is_told_as_one_that_lies(kind, tmp_path):
    axis = np.array([0.48, 0.64, 0.6])
    cross = np.cross(np.eye(3), axis)
    turn = np.eye(3) + np.sin(0.7) * cross + (1 - np.cos(0.7)) * cross @ cross
    plate = (kind, (20, 10, 1), (10.0, 5.0, 0.2))
    for name in ("lying", "askew"):
        (tmp_path / name).mkdir()
    lying = told(strip(*plate, np.array([0, 0, -1.0])), tmp_path / "lying")
    askew = strip(*plate, turn @ [0, 0, -1.0], lambda nodes: nodes @ turn.T)
    assert told(askew, tmp_path / "askew") == lying is not None


def test_a_strip_moved_across_by_its_end_is_told_too(tmp_path):
    part = box("hex8", (20, 4, 1), (10.0, 2.0, 0.2))
    case = LoadCase(pattern=1).prescribe(part.face("x-"))
    case.prescribe(part.face("x+"), "z", 0.5)
    whole = Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case])
    assert told(whole, tmp_path) is not None


def test_a_thin_layer_on_a_block_of_another_type_is_no_thin_region(tmp_path):
    """Its lower side lies on tetrahedra."""
    upper = box("hex8", (8, 8, 1), (8.0, 8.0, 0.5))
    lower = box("tet4", (8, 8, 8), (8.0, 8.0, 8.0), (0.0, 0.0, -8.0))
    both = np.concatenate((upper.nodes, lower.nodes))
    nodes, number = np.unique(both, axis=0, return_inverse=True)
    hexahedra = number.ravel()[upper.elements.hex8 - 1] + 1
    tetrahedra = number.ravel()[len(upper.nodes) + lower.elements.tet4 - 1] + 1
    case = LoadCase(pattern=1).prescribe(np.flatnonzero(nodes[:, 2] == nodes[:, 2].min()) + 1)
    case.load(np.flatnonzero(nodes[:, 2] == nodes[:, 2].max()) + 1, (0, 0, -1.0))
    elements = Elements.from_tables(tetrahedra, hexahedra)
    whole = Model(nodes, elements, [Material.isotropic(1000.0, 0.3)], [case])
    assert told(whole, tmp_path) is None


@pytest.mark.parametrize("kind", ["tet4", "hex8"])
def test_both_sides_of_a_thin_region_find_all_its_elements(kind, tmp_path):
    whole = strip(kind, (20, 10, 1), (10.0, 5.0, 0.2), (0, 0, -1.0))
    listed, across, _ = told(whole, tmp_path)
    # Of the six tetrahedra of a cell two have no face on either side.
    assert listed == {"hex8": 200, "tet4": 800}[kind] and across == 1
