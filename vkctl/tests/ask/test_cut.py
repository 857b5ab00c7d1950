"""Section forces against statics, beam theory and free bodies."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from stress.states import STEEL, WOOD, strained_box

from vkctl.ask import AskError, Solved, cut, reactions
from vkctl.ask.reactions import Vector
from vkctl.basics.types import Array
from vkctl.directory.formats import NamedSet
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box
from vkctl.shapes.forces import nodal_masses
from vkctl.shapes.topology import TYPES
from vkctl.stress.forces import internal_forces

from .models import DIRECT, PRESENCE, bar, model_of, solve
from .test_extremes import solved_to

KINDS = ("tet4", "hex8", "tet10")
ROUNDING = 1e-6
HALF_A_DIGIT = 2.0**-24  # that a number of single precision may be off, of its own size
X = (1.0, 0.0, 0.0)


def rounding(
    model: Model, solved: Solved, point: Vector, normal: Vector, about: Vector
) -> tuple[float, float]:
    """How far a cut's force and moment may be off since displacements are of single precision.

    The stiffness is symmetric: what a displacement adds to a component of the force is the force at
    its place when all nodes beyond the plane are moved by 1 that way, or turned for a moment.
    """
    axis = np.array(normal)
    distances = (model.nodes - point) @ (axis / np.linalg.norm(axis))
    beyond = distances > 1e-9
    cut_through = [
        number
        for code in TYPES
        for number, row in zip(*model.elements.of_type(code), strict=True)
        if beyond[row - 1].any() and not beyond[row - 1].all()
    ]
    size = np.abs(np.asarray(solved.results.displacements, np.float64))

    def most(moved: Array) -> float:
        shifted = solved_to(model, np.where(beyond[:, None], moved, 0.0)).solution
        pulls = internal_forces(shifted, np.array(cut_through))
        return HALF_A_DIGIT * float((np.abs(pulls).reshape(size.shape) * size).sum())

    arms = model.nodes - about
    return (
        float(np.linalg.norm([most(np.broadcast_to(way, arms.shape)) for way in np.eye(3)])),
        float(np.linalg.norm([most(np.cross(way, arms)) for way in np.eye(3)])),
    )


@pytest.fixture(scope="module", params=KINDS)
def cantilever(
    request: pytest.FixtureRequest, tmp_path_factory: pytest.TempPathFactory
) -> tuple[Model, Solved]:
    """A tip force of (6, 2, -1) at (8, 1, 0.5)."""
    part = bar(request.param)
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (3.0, 1.0, -0.5)))
    return solve(model_of(part, case), tmp_path_factory.mktemp("cantilever"))


@pytest.mark.parametrize("place", (0.0, 0.3, 2.5, 3.0, 7.0, 7.9))
def test_a_cantilever_has_the_section_forces_of_a_beam(
    cantilever: tuple[Model, Solved], place: float
) -> None:
    found = cut(*cantilever, (place, 0.2, 0.1), X)
    assert found.area == pytest.approx(2.0, rel=1e-6)
    assert found.centre == pytest.approx((place, 1.0, 0.5), abs=1e-6)
    assert found.about == found.centre
    arm = 8.0 - place
    force, moment = rounding(*cantilever, (place, 0.2, 0.1), X, (place, 1.0, 0.5))
    assert force < 6e-4 and moment < 6e-4
    assert found.resultant.force == pytest.approx((6.0, 2.0, -1.0), abs=force)
    assert found.resultant.moment == pytest.approx((0.0, arm, 2.0 * arm), abs=moment)
    assert found.axial == pytest.approx(6.0, abs=force)
    assert found.shear == pytest.approx(np.hypot(2.0, 1.0), abs=force)
    assert found.torsion == pytest.approx(0.0, abs=moment)
    assert found.bending == pytest.approx(arm * np.hypot(1.0, 2.0), abs=moment)


def test_turned_round_the_plane_cuts_the_opposite_forces(cantilever: tuple[Model, Solved]) -> None:
    point, about = (3.3, 0.0, 0.0), (1.0, 2.0, 3.0)
    force, moment = (2 * off for off in rounding(*cantilever, point, (2, 1, 0.5), about))
    one = cut(*cantilever, point, (2, 1, 0.5), about)
    other = cut(*cantilever, point, (-2, -1, -0.5), about)
    assert other.axial == pytest.approx(one.axial, abs=force)
    assert np.add(one.resultant.force, other.resultant.force) == pytest.approx(0.0, abs=force)
    assert np.add(one.resultant.moment, other.resultant.moment) == pytest.approx(0.0, abs=moment)


@pytest.mark.parametrize("normal", ((1.0, 0.0, 0.0), (1.0, 0.6, -0.4), (3.0, -1.0, 2.0)))
def test_an_oblique_plane_cuts_the_same_force(
    cantilever: tuple[Model, Solved], normal: tuple[float, float, float]
) -> None:
    found = cut(*cantilever, (4.0, 1.0, 0.5), normal)
    axis = np.array(normal) / np.linalg.norm(normal)
    force, _ = rounding(*cantilever, (4.0, 1.0, 0.5), normal, (4.0, 1.0, 0.5))
    assert found.resultant.force == pytest.approx((6.0, 2.0, -1.0), abs=force)
    assert found.area == pytest.approx(2.0 / axis[0], rel=1e-6)
    assert found.axial == pytest.approx(axis @ (6.0, 2.0, -1.0), abs=force)


@pytest.mark.parametrize("kind", (*KINDS, "mixed"))
@pytest.mark.parametrize("seed", (1, 2, 3))
def test_a_cut_balances_all_that_is_behind_it(tmp_path: Path, kind: str, seed: int) -> None:
    part = box(kind, (6, 3, 3), (6.0, 3.0, 3.0), distortion=0.05)  # type: ignore[arg-type]
    part.elements.materials[:] = np.where(part.centroids()[:, 1] < 1.5, 1, 2)
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "z", 0.03)
    case.support(part.face("z+"), directions="y")
    case.load(*part.traction("x+", (0.5, -1.0, 0.0)))
    case.load(np.arange(1, len(part.nodes) + 1), (0.0, 0.0, -0.01), section=3)
    case.heat(np.arange(1, len(part.nodes) + 1), part.nodes[:, 1] * 2.0)
    model = Model(part.nodes, part.elements, [STEEL, WOOD], [case], options=dict(DIRECT))
    model.set_level(np.hypot(part.nodes[:, 0] - 3.1, part.nodes[:, 2] - 1.4) - 0.9)
    random = np.random.default_rng(seed)
    found = cut(*solve(model, tmp_path), random.uniform(1.0, 2.0, 3), random.normal(size=3))
    assert found.behind is not None
    assert np.linalg.norm(found.resultant.force) > 0.1
    assert found.behind.relative_force < ROUNDING
    assert found.behind.relative_moment < ROUNDING


@pytest.mark.parametrize("kind", KINDS)
def test_a_heated_bar_between_walls_is_pressed_everywhere(tmp_path: Path, kind: str) -> None:
    part = bar(kind)
    swollen = Material.isotropic(1000.0, 0.0, expansion=1e-3, initial_strain=2e-3)
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "x")
    case.heat(np.arange(1, len(part.nodes) + 1), 50.0)
    solution = solve(model_of(part, case, swollen), tmp_path)
    press = 1000.0 * (1e-3 * 50.0 + 2e-3) * 2.0 * PRESENCE
    for place in (1.0, 3.7, 6.5):
        found = cut(*solution, (place, 0, 0), X)
        assert found.axial == pytest.approx(-press, rel=1e-6)
        assert found.behind is not None and found.behind.loads.force == (0.0, 0.0, 0.0)


@pytest.mark.parametrize("kind", KINDS)
def test_a_bar_heated_on_one_side_only_cuts_no_force(tmp_path: Path, kind: str) -> None:
    part = bar(kind)
    case = LoadCase().prescribe(part.face("x-"))
    case.heat(np.arange(1, len(part.nodes) + 1), 50.0 * part.nodes[:, 1] ** 2)
    model, solution = solve(model_of(part, case), tmp_path)
    found = cut(model, solution, (4.3, 0, 0), X)
    largest = 1000.0 * 1e-3 * 200.0 * 2.0
    assert np.abs(found.resultant.force).max() < 1e-6 * largest
    assert np.abs(found.resultant.moment).max() < 1e-6 * largest


def hanging(kind: str, directory: Path) -> tuple[Model, Solved]:
    """A bar of weight 1.5 per volume along x, held at x = 0."""
    part = bar(kind)
    weights = nodal_masses(part.nodes, part.elements, np.full(len(part.elements), 1.5))
    case = LoadCase().prescribe(part.face("x-"))
    numbers = np.arange(1, len(part.nodes) + 1)
    case.load(numbers, weights[:, None] * np.array(X), section=3)
    return solve(model_of(part, case), directory)


@pytest.mark.parametrize("kind", ("tet4", "hex8"))
def test_a_body_force_adds_up_and_steps_at_nodes(tmp_path: Path, kind: str) -> None:
    solution = hanging(kind, tmp_path)
    for layer in range(8):
        middle = layer + 0.5
        # Half of each layer's weight stands at its nodes on either side: exact in the middle.
        for place in (layer + 0.1, middle, layer + 0.9):
            found = cut(*solution, (place, 0, 0), X)
            assert found.axial == pytest.approx(1.5 * 2.0 * (8.0 - middle), rel=1e-5)
            assert found.beside > 0
    behind = cut(*solution, (0.0, 0, 0), X).behind
    assert behind is not None
    assert behind.supports.force[0] == pytest.approx(-1.5 * 16.0, rel=1e-5)


def test_a_plane_through_the_supports_cuts_off_the_reactions(tmp_path: Path) -> None:
    part = bar("hex8")
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (3.0, 0.0, -0.5)))
    model, solution = solve(model_of(part, case), tmp_path)
    held = reactions(model, solution).total
    found = cut(model, solution, (0.0, 0, 0), X, about=(0, 0, 0))
    assert np.add(found.resultant.force, held.force) == pytest.approx(0.0, abs=1e-6)
    assert np.add(found.resultant.moment, held.moment) == pytest.approx(0.0, abs=1e-5)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("normal", ((1.0, 0.0, 0.0), (0.0, 1.0, 0.0), (1.0, 0.7, -0.5)))
def test_a_uniform_stress_cuts_stress_times_area(
    kind: str, normal: tuple[float, float, float]
) -> None:
    """Along x only, so that the sides carry nothing."""
    part = strained_box(kind, (6, 4, 3))
    model = Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.0)], [LoadCase()])
    shift = part.nodes * (0.01, 0.0, 0.0)
    found = cut(model, solved_to(model, shift), (1.4, 0.9, 0.45), normal)
    axis = np.array(normal) / np.linalg.norm(normal)
    force = 10.0 * PRESENCE * axis[0] * found.area
    # A plane along x separates layers of elements, whose nodes pull at each other unevenly.
    if axis[0] == 0:
        assert found.axial == pytest.approx(0.0, abs=1e-9)
    else:
        assert found.resultant.force == pytest.approx((force, 0.0, 0.0), rel=1e-6, abs=1e-9)


def test_sets_of_elements_carry_their_shares(tmp_path: Path) -> None:
    part = bar("hex8")
    upper = np.flatnonzero(part.centroids()[:, 2] > 0.5) + 1
    lower = np.flatnonzero(part.centroids()[:, 2] < 0.5) + 1
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0.0, 0.0, -0.5)))
    model, solution = solve(model_of(part, case), tmp_path)
    whole = cut(model, solution, (4.5, 0, 0), X)
    shares = [
        cut(model, solution, (4.5, 0, 0), X, whole.about, NamedSet(name, "element", numbers))
        for name, numbers in (("upper", upper), ("lower", lower))
    ]
    assert shares[0].axial > 1.0 and shares[1].axial < -1.0  # bent down: pulled above
    assert shares[0].behind is None and shares[0].set == "upper"
    for k in range(3):
        forces = [one.resultant.force[k] for one in shares]
        assert sum(forces) == pytest.approx(whole.resultant.force[k], abs=1e-9)
        moments = [one.resultant.moment[k] for one in shares]
        assert sum(moments) == pytest.approx(whole.resultant.moment[k], abs=1e-9)
    assert sum(one.area for one in shares) == pytest.approx(whole.area)


@pytest.mark.parametrize("kind", KINDS)
def test_the_section_ends_where_the_level_field_does(kind: str) -> None:
    part = strained_box(kind, (5, 4, 3))
    model = Model(part.nodes, part.elements, [STEEL], [LoadCase()])
    model.set_level(1.3 - part.nodes[:, 1] + 0.2 * part.nodes[:, 2])
    shift = np.zeros_like(part.nodes)
    found = cut(model, solved_to(model, shift), (1.45, 0, 0), X)
    # Material from y = 0 to 1.3 + z / 5, z from 0 to 1.
    assert found.area == pytest.approx(1.4, rel=1e-5)
    height = np.linspace(0, 1, 20001)
    width = 1.3 + 0.2 * height
    centre = (1.45, np.mean(width**2 / 2) / 1.4, np.mean(width * height) / 1.4)
    assert found.centre == pytest.approx(centre, rel=1e-4)


def test_a_plane_in_the_void_has_no_area_and_takes_its_point() -> None:
    part = bar("hex8")
    model = model_of(part, LoadCase())
    model.set_level(4.1 - part.nodes[:, 0])
    found = cut(model, solved_to(model, np.zeros_like(part.nodes)), (6.5, 1.0, 0.5), X)
    assert (found.area, found.centre, found.about) == (0.0, None, (6.5, 1.0, 0.5))


@pytest.mark.parametrize(
    ("point", "normal", "sentence"),
    [
        ((9.0, 0.0, 0.0), X, "cuts no element"),
        ((8.0, 0.0, 0.0), X, "cuts no element"),
        ((4.0, 0.0, 0.0), (0.0, 0.0, 0.0), "normal of a plane"),
    ],
)
def test_what_is_no_cut_is_refused(
    point: tuple[float, float, float], normal: tuple[float, float, float], sentence: str
) -> None:
    part = bar("hex8")
    model = model_of(part, LoadCase())
    with pytest.raises(AskError, match=sentence):
        cut(model, solved_to(model, np.zeros_like(part.nodes)), point, normal)
