"""Sizes together with patterns and regions, measured on parts of each element type."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path
from typing import Literal

import numpy as np
import pytest
from small_loops import VK_RUND, write_small
from wished_boxes import plate

from vkctl.basics.types import Array
from vkctl.directory.model import Material, Model, read
from vkctl.optimise import Optimised, measured_sizes, optimise, read_settings
from vkctl.optimise.wishes.entries import Cyclic, Plane, SizeWishes
from vkctl.optimise.wishes.images import images
from vkctl.optimise.wishes.sampling import Field
from vkctl.optimise.wishes.sizes import THIN, make_sized
from vkctl.prepare import CaseFileError
from vkctl.shapes.boxes import box
from vkctl.view.grid import mesh_grid

STEP = 0.2  # of the measure's grid: a third of an edge
MIRROR = Plane((12.0, 12.0, 0.0), (0.0, 1.0, 0.0))
SYMMETRY = "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]\n"
CYCLIC = "cyclic = { point = [6, 3, 0], axis = [0, 0, 1], count = 2 }\n"
REGIONS = "keep = ['tip']\nvoid = ['top_tip']\nthickness = { tip = 1.0, top_tip = 1.0 }\n"
ALL = "sizes = { member = 1.3, hole = 1.3, thickest = 3.0 }\n"


def alike(part: Model, levels: Array, one: Array) -> bool:
    """Whether a field has the same levels at the images of all nodes."""
    image = part.nodes @ one[:3, :3].T + one[:3, 3]
    order = [np.lexsort(np.round(nodes, 3).T) for nodes in (part.nodes, image)]
    return bool(np.allclose(levels[order[0]], levels[order[1]], atol=1e-6))


@pytest.mark.parametrize(
    "pattern", [images((MIRROR,), None), images((), Cyclic((12, 12, 0), (0, 0, 1), 4))]
)
@pytest.mark.parametrize("width", [2.0, 2.4, 2.9])
def test_a_member_is_no_thinner_for_its_images(width: float, pattern: Array) -> None:
    """Bars that the grid has no middle of: the mean of balls and their images would be thinner."""
    cross = plate(lambda x, y: 0.5 * width - np.minimum(np.abs(x - 12), np.abs(y - 12)))
    nothing = np.zeros(len(cross.nodes), np.bool_)
    field = Field(cross, cross.nodes, 1.0)
    sized = make_sized(field, SizeWishes(member=4.0), nothing, nothing, pattern)
    levels = np.clip(cross.tp.astype(np.float64), -1.0, 1.0)
    made = replace(sized, centres=sized.begun(levels, THIN)).sized(levels)
    cross.tp = made.astype(np.float32)
    found = measured_sizes(cross).member
    assert found is not None and 4.0 - 1e-6 <= found <= 5.0
    assert all(alike(cross, made, one) for one in pattern)


def run_fine(folder: Path, kind: Literal["hex8", "tet4", "tet10"], wishes: str) -> Optimised:
    """Of the small part with 20 x 10 x 1 hexahedra, or tetrahedra in their places."""
    cases = write_small(folder, "steps = 18\nvolume = 0.55\nreduction = 0.08\n" + wishes)
    part = box(kind, (20, 10, 1), (12.0, 6.0, 0.6))
    model = Model(part.nodes, part.elements, [Material.isotropic(1.0, 0.3)])
    mesh_grid(model).save(folder / "part.vtu")
    return optimise(cases, folder / "d", vk_rund=VK_RUND)


CASES = [
    ("hex8", SYMMETRY),
    pytest.param("hex8", CYCLIC, marks=pytest.mark.thorough),
    pytest.param("hex8", REGIONS, marks=pytest.mark.thorough),
    pytest.param("tet4", SYMMETRY, marks=pytest.mark.thorough),
    ("tet4", REGIONS),
    pytest.param("tet10", CYCLIC, marks=pytest.mark.thorough),
    pytest.param("tet10", REGIONS, marks=pytest.mark.thorough),
]


@pytest.mark.parametrize(("kind", "others"), CASES)
def test_a_loop_has_its_sizes_beside_patterns_and_regions(
    kind: Literal["hex8", "tet4", "tet10"], others: str, tmp_path: Path
) -> None:
    done = run_fine(tmp_path, kind, others + ALL)
    assert done.sizes is not None and done.sizes.member is not None
    assert done.sizes.thickest is not None
    assert done.sizes.thickest <= 3.0
    assert done.sizes.member >= 1.3 - STEP
    assert not done.pieces.broken
    levels, part = done.levels, read(done.directory)
    if others == SYMMETRY:
        assert alike(part, levels, images((Plane((0, 3, 0), (0, 1, 0)),), None)[1])
    if others == REGIONS:
        x, y, _ = part.nodes.T
        corners = (x > 11.5) & (y < 0.5), (x > 11.5) & (y > 5.5)
        assert (levels[corners[0]] == 1.0).all() and (levels[corners[1]] == -1.0).all()


@pytest.mark.parametrize(
    "other",
    [
        "extruded = { direction = [0, 0, 1] }",
        "draw = { directions = [0, 0, 1] }",
        "overhang = { direction = [0, 1, 0] }",
    ],
)
@pytest.mark.parametrize("size", ["member = 3", "hole = 3", "thickest = 3"])
def test_sizes_beside_what_has_members_of_any_size_are_refused(
    size: str, other: str, tmp_path: Path
) -> None:
    cases = write_small(tmp_path, f"sizes = {{ {size} }}\n{other}\n")
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert f"sizes doesn't go together with {other.split()[0]}" in str(problem)
