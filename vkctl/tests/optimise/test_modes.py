"""The solver's mode in a step, and what is tried where a step can't be solved."""

from __future__ import annotations

import math
from pathlib import Path

import numpy as np
import pytest
from small_loops import VK_RUND, script, write_small

from vkctl.directory import formats
from vkctl.optimise import HistoryRow, OptimiseError, optimise, read_history
from vkctl.optimise.modes import next_mode

FORBIDDEN = "nobody may ask for an estimate here"


def rows_of(*steps: tuple[str, float], quality: float = 1.0) -> list[HistoryRow]:
    return [
        HistoryRow(k, 1.0, 0.5, 0.5, 0.1, quality, seconds, {1: 1.0}, mode, 100, seconds)
        for k, (mode, seconds) in enumerate(steps, 1)
    ]


def unasked(_: float) -> bool:
    raise AssertionError(FORBIDDEN)


def test_a_loop_begins_without_a_factor() -> None:
    assert next_mode([], unasked) == "iterative"


def test_steps_of_an_earlier_version_that_noted_no_mode_count_as_none() -> None:
    assert next_mode(rows_of(("", 0.0), ("", 0.0)), unasked) == "iterative"


def test_short_steps_are_not_worth_an_estimate() -> None:
    assert next_mode(rows_of(("iterative", 0.4)), unasked) == "iterative"


@pytest.mark.parametrize(
    ("estimated", "expected"), [(1.9, "direct"), (2.1, "iterative"), (math.inf, "iterative")]
)
def test_a_factor_is_tried_where_it_may_be_faster(estimated: float, expected: str) -> None:
    assert next_mode(rows_of(("iterative", 1.0)), lambda seconds: estimated < seconds) == expected


def test_the_faster_mode_stays_once_both_are_measured() -> None:
    slow_factor = rows_of(("iterative", 1.0), ("direct", 3.0), ("iterative", 1.5))
    assert next_mode(slow_factor, unasked) == "iterative"
    fast_factor = rows_of(("iterative", 3.0), ("direct", 1.0), ("direct", 1.1))
    assert next_mode(fast_factor, unasked) == "direct"


def test_a_factor_is_taken_when_iterations_have_risen_above_its_time() -> None:
    risen = rows_of(("iterative", 1.0), ("direct", 3.0), ("iterative", 2.0), ("iterative", 3.1))
    assert next_mode(risen, unasked) == "direct"


def test_the_slower_mode_is_looked_at_again_after_ten_steps_if_it_was_close() -> None:
    close = rows_of(("iterative", 1.5), *[("direct", 1.0)] * 9)
    assert next_mode(close, unasked) == "direct"
    assert next_mode([*close, *rows_of(*[("direct", 1.0)] * 11)[10:]], unasked) == "iterative"
    far = rows_of(("iterative", 2.5), *[("direct", 1.0)] * 30)
    assert next_mode(far, unasked) == "direct"


def test_after_a_step_at_the_iteration_limit_all_have_a_factor() -> None:
    poor = rows_of(("iterative", 1.0), quality=0.95)
    assert next_mode(poor, unasked) == "direct"
    assert (
        next_mode([*poor, *rows_of(("iterative", 1.0), ("direct", 9.0))[1:]], unasked) == "direct"
    )


def mode_in(directory: Path) -> float:
    return formats.read_options(directory).get("Sys.ComputationMode", 0)


@pytest.mark.parametrize("mode", ["iterative", "direct"])
def test_the_case_files_mode_is_taken_and_the_options_file_given_back(
    mode: str, tmp_path: Path
) -> None:
    cases = write_small(tmp_path, f"steps = 2\nmode = '{mode}'\n")
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert [row.mode for row in read_history(tmp_path / "d")] == [mode, mode]
    assert mode_in(tmp_path / "d") == 0


def test_the_options_files_mode_is_taken_where_the_case_file_names_none(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 1\n", mode=None)
    cases.write_text(
        cases.read_text().replace("[options]\n", '[options]\n"Sys.ComputationMode" = 2\n')
    )
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert [row.mode for row in read_history(tmp_path / "d")] == ["direct"]
    assert mode_in(tmp_path / "d") == 2


def test_a_killed_loop_that_goes_on_gives_the_options_files_own_mode_back(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\n", mode=None)
    killed = script(tmp_path / "killed", "kill -9 $$")
    with pytest.raises(OptimiseError):
        optimise(cases, tmp_path / "d", vk_rund=killed)
    formats.update_options(tmp_path / "d", {"Sys.ComputationMode": 1})  # as a killed loop leaves it
    optimise(cases, tmp_path / "d", vk_rund=VK_RUND)
    assert mode_in(tmp_path / "d") == 0


# A solver that doesn't converge: with the mode and the step's directory in "$mode" and "$1".
FAILING = """
mode=$(sed -n 's/^Sys.ComputationMode=//p' "$1/vk_rund_cmd.txt")
echo "$mode" >> "$1/asked"
{condition} || exec "$real" "$1"
printf 'Info<Msg:Tool.vk_rund.Start >\\nData<Key:LCaseId><Value:1>\\n' > "$1/vk_rund_log.txt"
printf 'Error<Msg:{message} >\\n' >> "$1/vk_rund_log.txt"
exit 242
"""
NO_CONVERGENCE = "No convergence in static response analysis process."


def failing(path: Path, condition: str, message: str = NO_CONVERGENCE) -> Path:
    return script(path, FAILING.replace("{condition}", condition).replace("{message}", message))


def asked(directory: Path) -> list[str]:
    return (directory / "asked").read_text().split()


def test_a_step_that_fails_without_a_factor_is_retried_with_one(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\n", mode=None)
    optimise(cases, tmp_path / "d", vk_rund=failing(tmp_path / "solver", '[ "$mode" = 1 ]'))
    assert asked(tmp_path / "d")[:2] == ["1", "2"]
    assert [row.mode for row in read_history(tmp_path / "d")] == ["direct", "direct"]


def test_a_step_whose_factor_has_no_memory_is_retried_without(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 1\nmode = 'direct'\n")
    message = "Stiffness matrix factorization error. Not enough memory."
    solver = failing(tmp_path / "solver", '[ "$mode" = 2 ]', message)
    optimise(cases, tmp_path / "d", vk_rund=solver)
    assert [row.mode for row in read_history(tmp_path / "d")] == ["iterative"]


def test_a_step_that_fails_in_both_modes_moves_less(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\nreduction = 0.1\n")
    # Step 2 fails twice: in both modes with the levels of the whole move.
    second = '[ -e "$1/optimise/levels.0002.npy" ] && [ "$(wc -l < "$1/asked")" -le 3 ]'
    optimise(cases, tmp_path / "d", vk_rund=failing(tmp_path / "solver", second))
    assert asked(tmp_path / "d") == ["1", "1", "2", "1"]
    whole = optimise(cases, tmp_path / "whole", vk_rund=VK_RUND)
    first, shorter, full = (
        np.load(tmp_path / d / "optimise" / f"levels.000{k}.npy")
        for d, k in (("d", 1), ("d", 2), ("whole", 2))
    )
    assert np.abs(shorter - first).mean() < 0.75 * np.abs(full - first).mean()
    assert read_history(tmp_path / "d")[1].target == whole.rows[1].target


# A solver whose iterations end at their limit, far from the solution, and that may have no factor.
POOR = """
mode=$(sed -n 's/^Sys.ComputationMode=//p' "$1/vk_rund_cmd.txt")
echo "$mode" >> "$1/asked"
if [ "$mode" = 2 ] && [ -n "{no_factor}" ]; then
  printf 'Info<Msg:Tool.vk_rund.Start >\\nData<Key:LCaseId><Value:1>\\n' > "$1/vk_rund_log.txt"
  printf 'Error<Msg:Stiffness matrix factorization error. >\\n' >> "$1/vk_rund_log.txt"
  exit 242
fi
"$real" "$1"
[ "$mode" = 1 ] || exit 0
printf '\\315\\314\\114\\077' | dd of="$1/ws.comval.0001" bs=1 seek=8 conv=notrunc 2> /dev/null
rm "$1/ws.sstate.0001"
"""


@pytest.mark.parametrize(
    ("no_factor", "modes", "mode"),
    [("", ["1", "2"], "direct"), ("1", ["1", "2", "1"], "iterative")],
)
def test_a_step_whose_iterations_end_too_early_is_solved_with_a_factor_if_there_may_be_one(
    no_factor: str, modes: list[str], mode: str, tmp_path: Path
) -> None:
    cases = write_small(tmp_path, "steps = 1\n", mode=None)
    solver = script(tmp_path / "solver", POOR.replace("{no_factor}", no_factor))
    (row,) = optimise(cases, tmp_path / "d", vk_rund=solver).rows
    assert asked(tmp_path / "d") == modes
    assert row.mode == mode
    assert row.quality == pytest.approx(1.0 if mode == "direct" else 0.8)


def test_a_loop_gives_up_with_the_first_failure_where_nothing_helps(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 2\nreduction = 0.1\n")
    second = '[ -e "$1/optimise/levels.0002.npy" ]'
    with pytest.raises(OptimiseError, match=r"^step 2: The solution did not converge"):
        optimise(cases, tmp_path / "d", vk_rund=failing(tmp_path / "solver", second))
    assert asked(tmp_path / "d") == ["1"] + ["1", "2"] * 3
    assert len(read_history(tmp_path / "d")) == 1
    assert len(optimise(cases, tmp_path / "d", vk_rund=VK_RUND).rows) == 2


def test_a_failure_that_is_not_the_solves_is_not_retried(tmp_path: Path) -> None:
    cases = write_small(tmp_path, "steps = 1\n", mode=None)
    solver = failing(tmp_path / "solver", "true", "Error flushing file: 400")
    with pytest.raises(OptimiseError, match="could not be written"):
        optimise(cases, tmp_path / "d", vk_rund=solver)
    assert asked(tmp_path / "d") == ["1"]
