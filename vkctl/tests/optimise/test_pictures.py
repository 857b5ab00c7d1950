"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

from itertools import pairwise
from pathlib import Path

import numpy as np
import pytest
import pyvista
from PIL import Image

from vkctl.optimise import read_history
from vkctl.optimise.pictures import shown_steps

ROOT = Path(__file__).resolve().parents[3]


def test_the_series_shows_the_part_getting_smaller(drawn: tuple[Path, str]) -> None:
    reader = pyvista.get_reader(drawn[0] / "part.pvd")
    assert reader.time_values == [1.0, 2.0, 3.0, 4.0]
    volumes = []
    for time_value in reader.time_values:
        reader.set_active_time_value(time_value)
        volumes.append(reader.read()[0].volume)
    assert volumes[0] == pytest.approx(72.0, rel=1e-3)
    rows = read_history(drawn[0].parent)
    assert volumes == pytest.approx([72.0 * row.volume for row in rows], rel=0.05)


def test_the_animation_has_a_frame_per_step_and_moves(drawn: tuple[Path, str]) -> None:
    with Image.open(drawn[0] / "part.gif") as film:
        frames = []
        for k in range(getattr(film, "n_frames", 1)):
            film.seek(k)
            frame = film.convert("RGB")
            assert len(frame.getcolors(1 << 24) or ()) > 20
            frames.append(np.asarray(frame).astype(int))
    assert len(frames) == 4
    for before, after in pairwise(frames):
        assert (np.abs(after - before).max(axis=2) > 30).sum() > 500


def test_long_histories_are_thinned_and_keep_their_end() -> None:
    assert shown_steps(3) == [1, 2, 3]
    assert shown_steps(100, 10) == [1, 11, 21, 31, 41, 51, 61, 71, 81, 91, 100]
