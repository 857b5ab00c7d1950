"""The cantilever and the command line around it."""

from results_on_disk import solved_box

from vkctl.directory import formats
from vkctl.directory.summary import summary


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
