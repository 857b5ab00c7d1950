"""Reactions against statics and closed forms, on models that the solver has solved."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from stress.states import STEEL, WOOD, given, strained_box

from vkctl.ask import Reactions, reactions
from vkctl.directory.formats import CaseNotes, Condition, NamedSet, NotedCase
from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.boxes import box
from vkctl.stress import integration_points
from vkctl.stress.forces import element_forces, internal_forces

from .models import DIRECT, ELASTIC, PRESENCE, bar, model_of, solve

KINDS = ("tet4", "hex8", "tet10", "mixed")
ROUNDING = 1e-6  # of displacements kept in single precision, in forces that cancel


def force(found: Reactions, name: str) -> tuple[float, float, float]:
    return next(one.resultant.force for one in found.supports if one.support == name)


@pytest.mark.parametrize("kind", KINDS)
def test_the_forces_of_an_element_and_their_moments_cancel(kind: str) -> None:
    part = strained_box(kind)
    model = Model(part.nodes, part.elements, [STEEL], [LoadCase().heat([5, 9], [30.0, -20.0])])
    model.set_level(part.nodes[:, 0] - 1.4)
    x, y, z = part.nodes.T
    shift = 0.01 * np.column_stack((x * y, y * z + x, z * z - x * y))
    for block in element_forces(given(model, shift)):
        size = np.abs(block.forces).sum(axis=(1, 2))
        assert size.max() > 0
        moments = np.cross(part.nodes[block.rows - 1], block.forces).sum(axis=1)
        assert np.all(np.abs(block.forces.sum(axis=1)) <= 1e-12 * size[:, None])
        assert np.all(np.abs(moments) <= 1e-11 * size[:, None])


@pytest.mark.parametrize("kind", KINDS)
def test_nodal_forces_are_the_derivative_of_the_energy(kind: str) -> None:
    part = strained_box(kind, (3, 2, 2))
    model = Model(part.nodes, part.elements, [WOOD], [LoadCase().heat([5, 9], [30.0, -20.0])])
    x, y, z = part.nodes.T
    shift = 0.01 * np.column_stack((x * y, y * z + x, z * z - x * y))
    direction = np.column_stack((y * y, x * z, x - y * z))

    def energy(step: float) -> float:
        # Where the level is 1 everywhere the presence is one number.
        blocks = integration_points(given(model, shift + step * direction))
        return float(PRESENCE * sum((b.at.energies * b.volumes).sum() for b in blocks))

    slope = (energy(0.5) - energy(-0.5)) / 1.0  # of a square function: exact
    forces = internal_forces(given(model, shift))
    assert (forces * direction).sum() == pytest.approx(slope, rel=1e-9)


@pytest.mark.parametrize("kind", KINDS)
def test_a_part_with_a_hole_two_materials_and_heat_balances(tmp_path: Path, kind: str) -> None:
    part = box(kind, (6, 3, 3), (6.0, 3.0, 3.0), distortion=0.05)  # type: ignore[arg-type]
    part.elements.materials[:] = np.where(part.centroids()[:, 1] < 1.5, 1, 2)
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "z", 0.03)
    case.support(part.face("z+"), directions="y")
    case.load(*part.traction("x+", (0.5, -1.0, 0.0)))
    case.load(np.arange(1, len(part.nodes) + 1), (0.0, 0.0, -0.01), section=3)
    case.heat(np.arange(1, len(part.nodes) + 1), part.nodes[:, 1] * 2.0)
    model = Model(part.nodes, part.elements, [STEEL, WOOD], [case], options=dict(DIRECT))
    model.set_level(np.hypot(part.nodes[:, 0] - 3.1, part.nodes[:, 2] - 1.4) - 0.9)
    found = reactions(*solve(model, tmp_path), about=(-1.0, 2.0, 0.5))
    assert {one.kind for one in found.supports} == {"fixed", "prescribed", "elastic"}
    assert found.relative_force < ROUNDING
    assert found.relative_moment < ROUNDING
    assert found.loads.force == pytest.approx((0.5 * 9, -9.0, -0.01 * len(part.nodes)), rel=1e-5)


@pytest.mark.parametrize("kind", ("tet4", "hex8", "tet10"))
def test_a_clamp_carries_the_load_and_its_moment(tmp_path: Path, kind: str) -> None:
    part = bar(kind)
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (3.0, 0.0, -0.5)))
    model, solution = solve(model_of(part, case), tmp_path)
    clamp = reactions(model, solution, about=(0.0, 1.0, 0.5)).supports[0]
    assert (clamp.support, clamp.kind, clamp.nodes) == ("fixed", "fixed", len(part.face("x-")))
    # A tip force of (6, 0, -1) at (8, 1, 0.5).
    assert clamp.resultant.force == pytest.approx((-6.0, 0.0, 1.0), abs=1e-5)
    assert clamp.resultant.moment == pytest.approx((0.0, -8.0, 0.0), abs=1e-4)


@pytest.mark.parametrize("kind", ("tet4", "hex8", "tet10"))
def test_a_prescribed_displacement_takes_what_the_bar_resists(tmp_path: Path, kind: str) -> None:
    part = bar(kind)
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "x", 0.04)
    found = reactions(*solve(model_of(part, case), tmp_path))
    pull = 1000.0 * 2.0 * 0.04 / 8.0 * PRESENCE
    assert force(found, "prescribed")[0] == pytest.approx(pull, rel=1e-6)
    assert force(found, "fixed")[0] == pytest.approx(-pull, rel=1e-6)


def test_heat_between_walls_presses_against_both(tmp_path: Path) -> None:
    part = bar("hex8")
    case = LoadCase().prescribe(part.face("x-")).prescribe(part.face("x+"), "x")
    case.heat(np.arange(1, len(part.nodes) + 1), 50.0)
    found = reactions(*solve(model_of(part, case), tmp_path))
    assert len(found.supports) == 2  # they touch nowhere
    press = 1000.0 * 1e-3 * 50.0 * 2.0 * PRESENCE
    assert sorted(one.resultant.force[0] for one in found.supports) == pytest.approx(
        [-press, press], rel=1e-6
    )
    assert found.loads.force == (0.0, 0.0, 0.0)
    assert found.relative_force < ROUNDING


def test_springs_share_a_load_by_their_leverage(tmp_path: Path) -> None:
    part = bar("hex8")
    case = LoadCase().prescribe(part.edge("x-", "z-"), "xyz")
    springs = part.edge("x+", "z-")
    case.support(springs, axes=2.0 * np.eye(3), offsets=(0.0, 0.0, -0.5), directions="z")
    place = part.select(x=2.0, z=1.0)
    case.load(place, (0.0, 0.0, -30.0 / len(place)))
    model, solution = solve(model_of(part, case), tmp_path)
    found = reactions(model, solution)
    assert force(found, "elastic")[2] == pytest.approx(30.0 * 2.0 / 8.0, rel=1e-5)
    assert force(found, "fixed")[2] == pytest.approx(30.0 * 6.0 / 8.0, rel=1e-5)
    # Three springs of stiffness 2 squared, at rest where 2 u = -0.5.
    sunk = solution.solution.displacements[springs - 1, 2].mean()
    assert force(found, "elastic")[2] == pytest.approx(-3 * 4.0 * (sunk + 0.25), rel=1e-5)


def test_a_spring_at_a_held_component_loads_the_support_there(tmp_path: Path) -> None:
    part = bar("hex8")
    corner = np.array([part.corner("x-", "y-", "z-")])
    case = LoadCase().prescribe(part.face("x-")).support(corner, offsets=7.0, directions="y")
    found = reactions(*solve(model_of(part, case), tmp_path))
    assert force(found, "elastic") == pytest.approx((0.0, 7.0, 0.0))
    assert force(found, "fixed") == pytest.approx((0.0, -7.0, 0.0))


def noted(model: Model, part: object, supports: dict[str, Condition]) -> Model:
    model.notes = CaseNotes(
        "mm-N-MPa", (None,), supports, {}, (NotedCase("bend", tuple(supports)),)
    )
    return model


def test_supports_have_the_names_and_sets_of_the_case_file(tmp_path: Path) -> None:
    part = bar("hex8")
    left, right = part.face("x-"), part.face("x+")
    low = part.face("z-")
    united = np.union1d(left, right)
    case = LoadCase().prescribe(united, "x").prescribe(low, "yz")
    case.load(*part.traction("z+", (0.5, 0.0, -1.0)))
    model = model_of(part, case)
    model.sets = [NamedSet(n, "node", k) for n, k in (("l", left), ("r", right), ("low", low))]
    supports = {"ends": Condition("fixed", ("l", "r")), "keel": Condition("fixed", ("low",))}
    found = reactions(*solve(noted(model, part, supports), tmp_path))
    assert found.name == "bend"
    told = [(one.support, one.set, one.nodes) for one in found.supports]
    assert told == [("ends", "l", 9), ("ends", "r", 9), ("keel", "", 27)]
    assert force(found, "keel")[2] == pytest.approx(16.0, rel=1e-5)
    assert sum(one.resultant.force[0] for one in found.supports[:2]) == pytest.approx(-8.0, 1e-5)
    # Of records that aren't the case file's any more only what they do is known.
    model.load_cases[0].constraints = model.load_cases[0].constraints[::-1]
    other = reactions(*solve(model, tmp_path / "other"))
    assert {one.support for one in other.supports} == {"fixed"}


def test_supports_with_ascending_nodes_keep_their_names(tmp_path: Path) -> None:
    part = bar("hex8")
    left, right = part.face("x-"), part.face("x+")
    first, second = (left, right) if left.max() < right.min() else (left[:4], right[-4:])
    assert first.max() < second.min()
    case = LoadCase().prescribe(first).prescribe(second).load(*part.traction("z+", (0, 0, -1.0)))
    model = model_of(part, case)
    model.sets = [NamedSet("A", "node", first), NamedSet("B", "node", second)]
    supports = {"a": Condition("fixed", ("a",)), "b": Condition("fixed", ("B",))}
    found = reactions(*solve(noted(model, part, supports), tmp_path))
    assert [one.support for one in found.supports] == ["a", "b"]
    assert all(one.resultant.force[2] > 1.0 for one in found.supports)


def test_a_component_that_two_supports_hold_counts_at_the_later_one(tmp_path: Path) -> None:
    part = bar("hex8")
    wall, edge = part.face("x-"), part.edge("x-", "z-")
    case = LoadCase().prescribe(wall).prescribe(edge, "z", -0.01)
    case.load(*part.traction("x+", (0.0, 0.0, -0.5)))
    model = model_of(part, case)
    model.sets = [NamedSet("wall", "node", wall), NamedSet("edge", "node", edge)]
    supports = {
        "wall": Condition("fixed", ("wall",)),
        "edge": Condition("prescribed", ("edge",)),
    }
    found = reactions(*solve(noted(model, part, supports), tmp_path))
    by_name = {one.support: one for one in found.supports}
    assert (by_name["wall"].nodes, by_name["edge"].nodes) == (len(wall), len(edge))
    assert by_name["edge"].resultant.force[:2] == (0.0, 0.0)
    assert abs(by_name["edge"].resultant.force[2]) > 0.1
    assert found.total.force == pytest.approx((0.0, 0.0, 1.0), abs=1e-4)
    assert found.relative_force < ROUNDING


def test_loads_that_reach_nothing_are_told_and_left_out(tmp_path: Path) -> None:
    part = bar("hex8")
    case = LoadCase().prescribe(part.face("x-")).load([30, 40, len(part.nodes) + 1], (0, 0, -2.0))
    model = Model(
        np.vstack((part.nodes, (99.0, 0.0, 0.0))), part.elements, [ELASTIC], [case],
        options=dict(DIRECT),
    )  # fmt: skip
    assert model.node_flags is not None
    model.node_flags[39] |= 1 << 11
    found = reactions(*solve(model, tmp_path))
    assert found.loads.force == (0.0, 0.0, -2.0)
    assert found.notes == [
        "loads of (0, 0, -2) lie at nodes marked to take no loads, and are left out",
        "loads of (0, 0, -2) lie at nodes of no element, and reach nothing",
    ]
    assert found.relative_force < ROUNDING
