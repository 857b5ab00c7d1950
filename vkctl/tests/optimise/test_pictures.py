"""The optimisation loop: what it arrives at, what it leaves behind, what it survives."""

from __future__ import annotations

import os
import shutil
import signal
from itertools import pairwise
from pathlib import Path

import numpy as np
import pytest
import pyvista
from PIL import Image
from small_loops import VK_RUND, write_small

from vkctl.optimise import history, optimise, read_history
from vkctl.optimise.pictures import beside, frames, painter, shown_steps
from vkctl.optimise.pictures.frames import coarse_to_fine
from vkctl.view.plot import View

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


def test_frames_are_drawn_from_coarse_to_fine() -> None:
    assert coarse_to_fine([1, 2, 3, 4, 5, 6, 7, 8, 9]) == [9, 1, 5, 3, 7, 2, 4, 6, 8]
    assert coarse_to_fine([1]) == [1] and coarse_to_fine([1, 2]) == [2, 1]
    for count in range(1, 50):
        assert sorted(coarse_to_fine(range(1, count + 1))) == list(range(1, count + 1))


@pytest.fixture(scope="module")
def done(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """Directory of a loop of five steps that nothing is drawn of."""
    folder = tmp_path_factory.mktemp("done")
    cases = write_small(folder, "steps = 5\nreduction = 0.1\n")
    return optimise(cases, folder / "d", vk_rund=VK_RUND).directory


@pytest.fixture
def undrawn(done: Path, tmp_path: Path) -> Path:
    return Path(shutil.copytree(done, tmp_path / "d"))


def drawn_steps(directory: Path) -> list[int]:
    return [step for step in range(1, 6) if frames.is_drawn(directory, step)]


def test_without_time_the_first_and_the_last_step_are_shown(undrawn: Path) -> None:
    with frames.studio(undrawn) as at:
        frames.draw_missing(at, 5, 0.0)
    frames.join(undrawn, 5)
    assert drawn_steps(undrawn) == [1, 5]
    assert pyvista.get_reader(undrawn / "optimise" / "part.pvd").time_values == [1.0, 5.0]
    with Image.open(undrawn / "optimise" / "part.gif") as film:
        assert getattr(film, "n_frames", 1) == 2


def test_an_animation_of_another_size_leaves_the_loops_own_frames_alone(undrawn: Path) -> None:
    view = View(field="level", size=(200, 150), marks=False)
    with Image.open(frames.write_animation(undrawn, 5, 3, view)) as film:
        assert getattr(film, "n_frames", 1) == 3 and film.size == (200, 150)
    assert drawn_steps(undrawn) == []


def test_only_what_is_missing_is_drawn(undrawn: Path) -> None:
    old = 10**9
    levels = [history.levels_file(undrawn, step) for step in range(1, 6)]
    with frames.studio(undrawn) as at:
        frames.draw_missing(at, 5, np.inf)
        made = [frames.picture_file(undrawn, step) for step in range(1, 6)]
        for path in (*levels, *made, *(path.with_suffix(".vtp") for path in made)):
            os.utime(path, (old, old))
        os.utime(levels[2], (old + 1, old + 1))  # the third step has other levels now
        assert drawn_steps(undrawn) == [1, 2, 4, 5]
        frames.draw_missing(at, 5, np.inf)
    assert [path.stat().st_mtime > old + 1 for path in made] == [False, False, True, False, False]


def test_meanwhile_finished_steps_are_drawn_that_the_loop_will_show(undrawn: Path) -> None:
    assert painter.wanted(undrawn, 5, 0) == []
    assert painter.wanted(undrawn, 5, 3) == [1, 3, 2]
    assert painter.wanted(undrawn, 80, 5) == [1, 5, 3]
    with frames.studio(undrawn) as at:
        frames.draw_step(at, 3)
    assert painter.wanted(undrawn, 5, 3) == [1, 2]


@pytest.mark.thorough
def test_a_process_that_draws_may_be_killed_and_still_there_are_pictures(undrawn: Path) -> None:
    with beside.painter(undrawn) as drawing:
        drawing.finished(1, 5)
        assert drawing.process is not None
        first = drawing.process
        first.kill()
        assert drawing.finish(read_history(undrawn)) is None
        assert drawing.process.pid != first.pid
    assert {1, 5} <= set(drawn_steps(undrawn))
    assert all((undrawn / "optimise" / name).exists() for name in ("history.png", "part.gif"))


def test_the_process_that_draws_ends_with_the_loop(undrawn: Path) -> None:
    with pytest.raises(KeyboardInterrupt), beside.painter(undrawn) as drawing:
        drawing.finished(1, 5)
        process = drawing.process
        raise KeyboardInterrupt
    assert process is not None and process.returncode == -signal.SIGKILL


def test_a_picture_that_fails_is_told_and_ends_nothing(undrawn: Path) -> None:
    frames.surface_file(undrawn, 5).mkdir(parents=True)  # where a file is to be written
    with beside.painter(undrawn) as drawing:
        words = drawing.finish(read_history(undrawn))
    assert words is not None and words.startswith("the pictures can't be drawn: ")
    assert "step_0005.vtp" in words
    assert (undrawn / "optimise" / "history.png").exists()


@pytest.mark.parametrize(("seconds", "allowed"), [(0.0, 1.0), (20.0, 1.0), (1000.0, 30.0)])
def test_frames_take_a_small_share_of_the_loops_time(seconds: float, allowed: float) -> None:
    assert beside.budget(seconds) == pytest.approx(allowed)
