"""Limits and the worst load case: what the loop arrives at, where the answer is known."""

from __future__ import annotations

import signal
from functools import partial
from pathlib import Path

import numpy as np
import pytest
from killing import in_child, killed_before
from small_loops import ONE_CASE, TWO_CASES, VK_RUND, write_small

from vkctl.directory import formats
from vkctl.optimise import OptimiseError, optimise
from vkctl.optimise.limits.table import HELD, LIMITS, read_weighed
from vkctl.optimise.loop import Optimised
from vkctl.prepare import CaseFileError

EXAMPLES = Path(__file__).resolve().parents[3] / "examples"

# Two columns of 2 each on a floor; the left one is pressed in two load cases.
COLUMNS = "".join(
    f"""
[node_sets.{name}]
where = "x > {x + 0.01} and x < {x + 1.99} and y > 5.99"

[loads.{name}]
type = "force"
set = "{name}"
value = [0, -1, 0]
"""
    for name, x in (("left", 2), ("right", 8))
) + "".join(
    f'\n[[load_case]]\nname = "{name}"\nloads = ["{load}"]\n'
    for name, load in (("left", "left"), ("left again", "left"), ("right", "right"))
)
MASS = "goal = 'mass'\nreduction = 0.05\n[optimise.limits]\n"


def run_small(folder: Path, settings: str, load_cases: str = ONE_CASE, **more) -> Optimised:
    cases = write_small(folder, settings, load_cases)
    return optimise(cases, folder / "d", vk_rund=VK_RUND, **more)


@pytest.mark.thorough
def test_the_least_mass_of_a_compliance_is_the_volume_whose_stiffest_part_has_it(
    tmp_path: Path,
) -> None:
    """Both problems have the same solutions; a half percent of the limit is left to spare.

    Means over five steps: on so coarse a mesh a step changes the compliance by a percent or two.
    """
    stiffest = run_small(tmp_path / "stiffest", "volume = 0.6\nreduction = 0.05\nsteps = 20\n")
    compliance = 2 * np.mean([row.energies[1] for row in stiffest.rows[-5:]])
    done = run_small(tmp_path, f"steps = 25\n{MASS}compliance = {{ at_most = {compliance} }}\n")
    rows = read_weighed(done.directory)[-5:]
    assert np.mean([row.value for row in rows]) == pytest.approx(compliance, rel=0.015)
    assert np.mean([row.volume for row in done.rows[-5:]]) == pytest.approx(0.6, abs=0.015)
    assert done.rows[-1].objective == done.rows[-1].volume


def test_limits_of_two_load_cases_hold_and_one_is_used_up(tmp_path: Path) -> None:
    limits = (
        'displacement = [{ set = "tip", direction = [0, -2, 0], at_most = 60, load_case = "down" }]'
        '\ncompliance = { at_most = 55, load_case = "along" }\n'
    )
    done = run_small(tmp_path, f"steps = 40\nmode = 'direct'\n{MASS}{limits}", TWO_CASES)
    nodes = {one.name: one.numbers for one in formats.read_sets(done.directory) or []}
    moved = formats.read_displacements(done.directory, 1)[nodes["tip"] - 1, 1]
    pulled = formats.read_displacements(done.directory, 2)[nodes["top_tip"] - 1, 0]
    down, along = [row for row in read_weighed(done.directory) if row.step == len(done.rows)]
    assert down.value == pytest.approx(-moved.min(), rel=1e-5)
    assert along.value == pytest.approx(2 * pulled.mean(), rel=1e-3)
    assert 0.95 < max(down.ratio, along.ratio) < 1.005
    assert done.rows[-1].volume < 0.85
    assert [told.split(":")[0] for told in done.told[-2:]] == [
        "displacement of tip in down",
        "compliance in along",
    ]


def test_a_limit_that_all_material_cannot_meet_is_told(tmp_path: Path) -> None:
    with pytest.raises(OptimiseError, match="with all material the compliance in down is 4"):
        run_small(tmp_path, f"{MASS}compliance = [{{ at_most = 1.0 }}]\n")


@pytest.mark.thorough
def test_a_stress_limit_that_all_material_breaks_at_a_notch_is_met_with_less(
    tmp_path: Path,
) -> None:
    """Of the L-bracket of the examples, on elements twice as large."""
    geometry = (EXAMPLES / "l-bracket.geo").read_text()
    geometry = geometry.replace("h = 2.5", "h = 5").replace("Layers{2}", "Layers{1}")
    (tmp_path / "l-bracket.geo").write_text(geometry)
    text = (EXAMPLES / "l-bracket-stress.toml").read_text()
    cases = tmp_path / "cases.toml"
    text = text.replace("body_steps = 12\n", "")
    cases.write_text(text.replace("at_most = 50.0", "at_most = 40.0"))
    done = optimise(cases, tmp_path / "d", steps=30, vk_rund=VK_RUND)
    rows = read_weighed(done.directory)
    assert done.rows[0].volume == 1.0 and rows[0].ratio > 1.02
    assert rows[-1].ratio <= HELD and done.rows[-1].volume < 0.75


@pytest.mark.thorough
def test_the_worst_of_equal_columns_makes_them_equally_stiff(tmp_path: Path) -> None:
    """One is loaded twice: the sum would favour it, the largest energy must not."""
    found = {}
    for combine in ("worst", "weighted"):
        settings = (
            f"volume = 0.4\nreduction = 0.06\nsteps = 24\ncombine = '{combine}'\n"
            "keep = ['left', 'right']\n"
        )
        cases = write_small(tmp_path / combine, settings, COLUMNS)
        cases.write_text(cases.read_text().replace('where = "x < 0.01"', 'where = "y < 0.01"'))
        found[combine] = optimise(cases, tmp_path / combine / "d", vk_rund=VK_RUND)
    energies = found["worst"].rows[-1].energies
    assert energies[1] == pytest.approx(energies[3], rel=0.01)
    weights = [row.weight for row in read_weighed(found["worst"].directory)[-3:]]
    assert weights == pytest.approx([0.25, 0.25, 0.5], abs=0.02)
    favoured = found["weighted"].rows[-1].energies
    assert favoured[3] > 1.1 * energies[3] and favoured[1] < 0.9 * energies[1]


@pytest.mark.thorough
def test_a_killed_loop_with_limits_goes_on_as_if_nothing_had_happened(tmp_path: Path) -> None:
    settings = f"steps = 3\n{MASS}displacement = [{{ set = 'tip', at_most = 100 }}]\n"
    cases = write_small(tmp_path, settings)
    expected = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND)
    for number in (40, 60):
        directory = tmp_path / f"d{number}"
        code = in_child(killed_before, partial(optimise, cases, directory, vk_rund=VK_RUND), number)
        assert code in (0, -signal.SIGKILL)
        done = optimise(cases, directory, vk_rund=VK_RUND)
        assert [r.volume for r in done.rows] == pytest.approx(
            [r.volume for r in expected.rows], rel=1e-4
        )
        rows = [read_weighed(one) for one in (directory, tmp_path / "whole")]
        assert [row.step for row in rows[0]] == [1, 2, 3]
        assert [r.value for r in rows[0]] == pytest.approx([r.value for r in rows[1]], rel=1e-4)
        assert done.levels == pytest.approx(expected.levels, abs=1e-3)


@pytest.mark.parametrize("text", ["step,term\n1,a\n", "step,term,value\n1,a,x\n", "\xff"])
def test_a_damaged_table_of_weights_is_told(tmp_path: Path, text: str) -> None:
    (tmp_path / "optimise").mkdir()
    (tmp_path / "optimise" / LIMITS).write_text(text, encoding="latin-1")
    with pytest.raises(formats.FormatError, match="no table of what was weighed"):
        read_weighed(tmp_path)


@pytest.mark.parametrize(
    ("limits", "words"),
    [
        ("displacement = [{ set = 'tipp', at_most = 1 }]", "there is no set 'tipp'"),
        ("stress = { at_most = 1, away_from = 'wall', distance = 99 }", "looks at nothing"),
    ],
)
def test_limits_that_the_model_cannot_have_are_told(
    tmp_path: Path, limits: str, words: str
) -> None:
    with pytest.raises(OptimiseError, match=words):
        run_small(tmp_path, f"{MASS}{limits}\n")


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("goal = 'weight'", "goal in [optimise] can't be 'weight'"),
        ("goal = 'mass'", "goal in [optimise] needs limits; add them to [optimise.limits]"),
        ("limits.compliance = { at_most = 0 }", "at_most in [optimise.limits.compliance] must be"),
        ("limits.stres = { at_most = 1 }", "unknown key 'stres' in [optimise.limits]"),
        ("limits.displacement = { at_most = 1 }", "[optimise.limits.displacement] has no 'set'"),
        (
            "limits.compliance = [{ at_most = 1, load_case = 'dwn' }]",
            "no load case is named 'dwn'; did you mean 'down'?",
        ),
    ],
)
def test_mistakes_of_limits_are_told_by_line(tmp_path: Path, settings: str, message: str) -> None:
    cases = write_small(tmp_path, settings + "\n")
    with pytest.raises(CaseFileError) as raised:
        optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    (problem,) = raised.value.problems
    assert message in str(problem)
    assert problem.line == cases.read_text().splitlines().index(settings) + 1


def test_the_least_mass_takes_no_volume(tmp_path: Path) -> None:
    cases = write_small(tmp_path, f"{MASS}compliance = [{{ at_most = 200 }}]\n")
    with pytest.raises(ValueError, match="no volume can be given with goal = 'mass'"):
        optimise(cases, tmp_path / "d", volume=0.3, vk_rund=VK_RUND)
    assert not (tmp_path / "d").exists()
