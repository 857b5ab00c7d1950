"""Running the solver: results, live progress, and every way a run can end badly."""

import os
from pathlib import Path

from fake_solver import HEAD, begun, fake_solver, finished
from rich.console import Console

from vkctl.running.run import run
from vkctl.terminal import display


def test_the_live_table_shows_load_cases_and_the_time_left(directory, tmp_path):
    lines = HEAD + finished(1, quality=0.8) + begun(2)
    solver = fake_solver(tmp_path / "s", lines, 'while [ ! -e "$1/go" ]; do sleep 0.01; done')
    tables = []

    def show(progress):
        console = Console(width=100, record=True, file=open(os.devnull, "w"))
        console.print(display.table(progress))
        tables.append(console.export_text())
        if len(progress.log.load_cases) == 2:
            Path(directory, "go").touch()

    run(directory, vk_rund=solver, on_progress=show)
    last = next(text for text in reversed(tables) if "solving" in text)
    assert "0.800" in last and "direct" in last and "1.5 s" in last
    assert "1 of 2 load cases" in last and "left" in last and "GB" in last
