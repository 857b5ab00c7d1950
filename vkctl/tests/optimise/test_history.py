"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

import csv
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from other_holder import other_holder
from PIL import Image

from vkctl.optimise import history
from vkctl.optimise.history import HistoryRow

ROOT = Path(__file__).resolve().parents[3]


def test_the_history_is_a_table(drawn: tuple[Path, str]) -> None:
    with open(drawn[0] / "history.csv", newline="") as stream:
        rows = list(csv.DictReader(stream))
    assert list(rows[0]) == [
        "step", "objective", "volume", "target", "change", "quality", "seconds",
        "mode", "iterations", "solving", "energy_1", "energy_2",
    ]  # fmt: skip
    assert [int(row["step"]) for row in rows] == [1, 2, 3, 4]
    assert [float(row["target"]) for row in rows] == pytest.approx([1.0, 0.85, 0.7, 0.6])
    for row in rows:
        mean = 0.5 * (float(row["energy_1"]) + float(row["energy_2"]))
        assert float(row["objective"]) == pytest.approx(mean)


def test_the_chart_is_not_blank(drawn: tuple[Path, str]) -> None:
    with Image.open(drawn[0] / "history.png") as picture:
        pixels = np.asarray(picture.convert("RGB")).reshape(-1, 3)
    blue = (pixels == (31, 119, 180)).all(axis=1)  # the objective's line
    assert blue.sum() > 200 and (pixels == 255).all(axis=1).mean() < 0.99


def test_the_chart_of_the_least_mass_shows_energies_and_the_volume_once(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    rows = [
        HistoryRow(step, volume, volume, volume, 0.1, 1.0, 1.0, {1: 2.0 / volume})
        for step, volume in ((1, 1.0), (2, 0.8))
    ]
    axes: list[Any] = []
    monkeypatch.setattr(history, "write_figure", lambda figure, *_: axes.extend(figure.axes))
    history.draw_history(rows, tmp_path / "chart.png", ["pulled"])
    left, right = [[line.get_ydata().tolist() for line in one.lines] for one in axes]
    assert left == [[2.0, 2.5]] and right == [[1.0, 0.8]]


def test_the_lock_is_no_file_that_could_be_a_link(tmp_path: Path) -> None:
    folder = tmp_path / "optimise"
    folder.mkdir()
    (tmp_path / "victim").write_text("precious")
    (folder / "lock").symlink_to(tmp_path / "victim")
    with history.locked(tmp_path):
        assert [path.name for path in folder.iterdir()] == ["lock"]
    assert (tmp_path / "victim").read_text() == "precious"


def test_another_loop_is_told_with_its_process(tmp_path: Path) -> None:
    (tmp_path / "optimise").mkdir()
    with other_holder(tmp_path / "optimise") as pid:
        with pytest.raises(history.LockedError, match=rf"works on .* \(process {pid}\)"):
            with history.locked(tmp_path):
                pass
    with history.locked(tmp_path):
        pass


def test_the_note_of_a_preparation_is_not_made_through_a_link(tmp_path: Path) -> None:
    folder = tmp_path / "optimise"
    folder.mkdir()
    (folder / "preparing").symlink_to(tmp_path / "made")
    history.begin_preparing(tmp_path)
    assert history.is_half_prepared(tmp_path) and not (tmp_path / "made").exists()
    history.end_preparing(tmp_path)
    assert not history.is_half_prepared(tmp_path)
