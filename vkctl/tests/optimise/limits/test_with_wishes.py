"""Limits together with wishes: both hold in the part that the loop ends with."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from small_loops import NOBODY, VK_RUND, write_small

from vkctl.directory.formats import read_sets
from vkctl.directory.model import read
from vkctl.optimise import OptimiseError, optimise, read_settings
from vkctl.optimise.design import make_design
from vkctl.optimise.limits.table import read_weighed
from vkctl.optimise.loop import Optimised

# A plate of 12 x 6, clamped at its left end and pulled down at its lower right corner: with all
# material its compliance is 43 and the corner goes down by 43.
MASS = "goal = 'mass'\nreduction = 0.05\nsteps = 14\nmode = 'direct'\n"
PRINTED = "overhang = { direction = [0, 1, 0] }\n"
WISHES = {
    "symmetry": "symmetry = [{ point = [0, 3, 0], normal = [0, 1, 0] }]\n",
    "draw": "draw = { directions = [0, 1, 0], parting = [0, 3, 0] }\n",
    "overhang": PRINTED,
}
LIMITS = {
    "compliance": "compliance = { at_most = 60 }\n",
    "displacement": "displacement = { set = 'tip', direction = [0, -1, 0], at_most = 60 }\n",
    "stress": "stress = { at_most = 2.0, away_from = ['wall', 'tip'] }\n",
}


def run_small(folder: Path, settings: str) -> Optimised:
    return optimise(write_small(folder, settings), folder / "d", vk_rund=VK_RUND)


def has_its_wishes(done: Optimised, cases: Path) -> bool:
    model = read(done.directory)
    settings = read_settings(cases)
    kept = [one.own_nodes() for one in read_sets(done.directory) or [] if one.name in settings.keep]
    nodes = np.concatenate([NOBODY, *kept])
    shape = make_design(model, settings.radius, nodes, wishes=settings.wishes).shape
    return np.allclose(shape.begun(done.levels), done.levels, atol=1e-5)


@pytest.mark.parametrize(
    ("wish", "limit"),
    [
        pytest.param("symmetry", "displacement", marks=pytest.mark.thorough),
        pytest.param("draw", "stress", marks=pytest.mark.thorough),
        ("overhang", "compliance"),
    ],
)
def test_the_least_mass_holds_its_limit_and_has_its_wish(
    tmp_path: Path, wish: str, limit: str
) -> None:
    settings = f"keep = ['tip']\n{MASS}{WISHES[wish]}[optimise.limits]\n{LIMITS[limit]}"
    done = run_small(tmp_path, settings)
    assert has_its_wishes(done, tmp_path / "cases.toml")
    assert done.pieces.broken == ()
    rows = read_weighed(done.directory)
    assert min(row.ratio for row in rows[-4:]) < 1.005
    assert max(row.ratio for row in rows[-4:]) < 1.1
    assert done.rows[-1].volume < 0.85


def test_the_volume_follows_limits_from_what_the_wishes_leave(tmp_path: Path) -> None:
    """A target that nothing can reach would have to come down again before the volume does."""
    void = "void = ['far']\nthickness = { far = 2.5 }\n"
    limits = "[optimise.limits]\nstress = { at_most = 0.01 }\n"
    done = run_small(tmp_path, f"{MASS.replace('14', '4')}{void}{limits}")
    fullest = done.rows[0].volume
    assert fullest < 0.9
    assert all(row.volume <= fullest + 2e-3 for row in done.rows)
    assert done.rows[-1].volume == pytest.approx(fullest, abs=2e-3)
    assert max(row.target for row in done.rows) <= fullest + 0.051
    assert done.told[0].endswith("came nearest to its limits")
    assert done.told[1].endswith("the limit isn't met")


def test_a_limit_that_all_material_left_by_the_wishes_cannot_meet_is_told(tmp_path: Path) -> None:
    settings = f"{MASS}void = ['far']\n[optimise.limits]\ncompliance = {{ at_most = 40 }}\n"
    with pytest.raises(OptimiseError, match="all material that the wishes leave, 9.* %, the compl"):
        run_small(tmp_path, settings)
