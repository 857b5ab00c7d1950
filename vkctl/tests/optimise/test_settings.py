"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

from pathlib import Path

import pytest
from small_loops import write_small

from vkctl.optimise import read_settings
from vkctl.prepare import CaseFileError


@pytest.mark.parametrize(
    ("settings", "message"),
    [
        ("volume = 1.5", "volume in [optimise] must be at most 1"),
        ("volume = 0", "volume in [optimise] must be above 0"),
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
