"""The cantilever and the command line around it."""

import pytest
from results_on_disk import solved_box

from vkctl.directory import formats, model
from vkctl.directory.summary import summary, summary_values


def test_summary_tells_log_and_results(tmp_path):
    solved_box(tmp_path)
    text = summary(tmp_path)
    assert text.splitlines() == [
        "load case 1: iterative, 17 iterations, quality 1.000, 1.5 s",
        "results of load case 1:",
        "  largest displacement 0.01",
        "  strain energy        0",
        "  element mean stress  -2 to 3",
        "  sum of loads         (0, 0, -4)",
        "the whole run took 2.0 s",
    ]


def test_summary_of_a_stopped_run_ends_with_the_error(tmp_path):
    solved_box(tmp_path)
    (tmp_path / formats.LOG_FILE).write_text("Error<Msg:Error opening file: mx.mats>\n")
    assert summary(tmp_path).endswith("the run stopped: Error opening file: mx.mats")


def test_sums_of_forces_that_cancel_are_told_as_zero_and_kept_for_programs(tmp_path):
    solved_box(tmp_path)
    cases, order = model.read_load_cases(tmp_path)
    cases[0].forces2 = model.forces([1, 2], [[0, 5, 0], [0, -5, 0]])
    model.write_load_cases(cases, tmp_path, order)
    totals = formats.read_totals(tmp_path, 1)
    totals["R"] = -3.4e-13, 2.9e-14, 0.0
    formats.write_totals(tmp_path, 1, totals)
    assert "sum of loads         (0, 0, 0)" in summary(tmp_path)
    raw = summary_values(tmp_path)["results"][0]["applied_load"]
    assert raw == pytest.approx([-3.4e-13, 2.9e-14, 0.0], rel=1e-6, abs=0)
