"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

from pathlib import Path

import pytest
from small_loops import write_small

from vkctl.optimise import optimise, read_settings
from vkctl.prepare import CaseFileError


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("volume = 1.5", "volume in [optimise] must be at most 1"),
        ("volume = 0", "volume in [optimise] must be above 0"),
        ("volume = []", "volume in [optimise] is an empty list; name one volume or several"),
        ("volume = [0.5, 1.5]", "must be above 0 and at most 1"),
        ("volume = [0.5, 'x']", "must be a number"),
        ("steps = 0", "steps in [optimise] must be at least 1"),
        ("steps = 2.5", "steps in [optimise] must be a whole number"),
        ("move = 2", "move in [optimise] must be at most 1"),
        ("radius = -1", "radius in [optimise] must be above 0"),
        ("tolerance = 'small'", "tolerance in [optimise] must be a number"),
        ("combine = 'worse'", "did you mean 'worst'?"),
        ("volum = 0.5", "unknown key 'volum' in [optimise]; did you mean 'volume'?"),
        ("weights = { dwn = 2.0 }", "no load case is named 'dwn'; did you mean 'down'?"),
        ("weights = { down = 0.0 }", "down in [optimise.weights] must be above 0"),
    ],
)
def test_mistakes_of_the_settings_are_told_by_line(
    tmp_path: Path, settings: str, message: str
) -> None:
    cases = write_small(tmp_path, settings + "\n")
    line = cases.read_text().splitlines().index(settings) + 1
    with pytest.raises(CaseFileError) as raised:
        read_settings(cases)
    (problem,) = raised.value.problems
    assert message in str(problem)
    assert problem.line == line


def test_a_list_of_volumes_is_sorted_and_one_of_one_is_that_volume(tmp_path: Path) -> None:
    several = read_settings(write_small(tmp_path, "volume = [0.4, 0.9, 0.4]\n"))
    assert several.volumes == (0.9, 0.4)
    one = read_settings(write_small(tmp_path, "volume = [0.4]\n"))
    assert (one.volume, one.volumes) == (0.4, ())


def test_the_function_wants_one_of_several_volumes(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "volume = [0.4, 0.9]\nsteps = 1\n")
    with pytest.raises(ValueError, match="give the one to optimise for"):
        optimise(cases, tmp_path / "d")
