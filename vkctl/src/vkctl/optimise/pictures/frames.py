"""Frames of a loop: for a step the part's surface and a picture of it, both drawn once and kept."""

from __future__ import annotations

import time
from collections.abc import Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, replace
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import PathLike
from vkctl.basics.units import unit_of
from vkctl.directory import formats
from vkctl.directory.case_names import read_case_names, read_units
from vkctl.directory.model import Model, read
from vkctl.view.export import write_series
from vkctl.view.files import write_film, write_grid
from vkctl.view.film import Film, as_mesh, cut_out, film, frame
from vkctl.view.plot import View

from .. import history

if TYPE_CHECKING:
    import pyvista

MOST_FRAMES = 40
_FRAME = View(field="level", size=(900, 600), marks=False)
_FRAME_MILLISECONDS = 150
_LAST_MILLISECONDS = 2000


def shown_steps(steps: int, most: int = MOST_FRAMES) -> list[int]:
    """At most `most` of the steps 1 .. `steps`, evenly spread, the last one always."""
    stride = -(-steps // most)
    return sorted({*range(1, steps + 1, stride), steps} - {0})


def coarse_to_fine(steps: Sequence[int]) -> list[int]:
    """The last, the first, the one in the middle, those in the middles of what is left, ..."""
    found = [*steps[-1:], *(steps[:1] if len(steps) > 1 else ())]
    gaps = [(0, len(steps) - 1)]
    while gaps:
        first, last = gaps.pop(0)
        middle = (first + last) // 2
        if first < middle:
            found.append(steps[middle])
            gaps += [(first, middle), (middle, last)]
        elif first + 1 < last:
            gaps.append((middle, last))
    return found


@dataclass(frozen=True)
class Studio:
    """What the frames of a loop are made with."""

    directory: Path
    model: Model
    film: Film


@contextmanager
def studio(directory: PathLike, view: View = _FRAME) -> Iterator[Studio]:
    model = read(directory)
    folder = _folder(directory)
    folder.mkdir(exist_ok=True)
    for unfinished in folder.glob(".*.tmp"):  # a process that was killed was writing them
        unfinished.unlink(missing_ok=True)
    with film(model, view) as opened:
        yield Studio(Path(directory), model, opened)


def surface_file(directory: PathLike, step: int) -> Path:
    return _folder(directory) / f"step_{step:04d}.vtp"


def picture_file(directory: PathLike, step: int) -> Path:
    return surface_file(directory, step).with_suffix(".png")


def _folder(directory: PathLike) -> Path:
    return (history.folder_of(directory) / history.SERIES).with_suffix("")


def is_drawn(directory: PathLike, step: int) -> bool:
    """Whether a step has its surface and its picture, made of the levels that it has now."""
    try:
        levels = history.levels_file(directory, step).stat().st_mtime_ns
        files = surface_file(directory, step), picture_file(directory, step)
        return all(file.stat().st_mtime_ns >= levels for file in files)
    except FileNotFoundError:
        return False


def draw_step(at: Studio, step: int) -> None:
    """Write the surface of the part at a step, and a picture of it."""
    mesh = _mesh(at, step)
    write_grid(mesh, surface_file(at.directory, step), quickly=True)
    with formats.replacing(picture_file(at.directory, step)) as stream:
        _picture(at, mesh, step).save(stream, format="PNG")


def _mesh(at: Studio, step: int) -> pyvista.PolyData:
    levels = history.load_array(history.levels_file(at.directory, step), len(at.model.tp))
    return as_mesh(cut_out(at.film, replace(at.model, tp=levels.astype(np.float32))))


def _picture(at: Studio, mesh: pyvista.PolyData, step: int) -> Any:
    """A picture of Pillow, of few colours."""
    images = need("PIL.Image")
    picture = images.fromarray(frame(at.film, mesh, f"step {step}"))
    return picture.quantize(256, images.Quantize.FASTOCTREE)


def draw_missing(at: Studio, steps: int, seconds: float) -> None:
    """Draw shown steps from coarse to fine, the last and the first, and others while there is time.

    The time is the processor's: how many frames there are doesn't depend on what else goes on.
    """
    begun = time.process_time()
    for place, step in enumerate(coarse_to_fine(shown_steps(steps))):
        if place >= 2 and time.process_time() - begun >= seconds:
            break
        if not is_drawn(at.directory, step):
            draw_step(at, step)


def join(directory: PathLike, steps: int) -> None:
    """Series and animation of those shown steps that are drawn."""
    if drawn := [step for step in shown_steps(steps) if is_drawn(directory, step)]:
        _write_series(directory, drawn)
        _write_film(directory, [_opened(directory, step) for step in drawn])


def _write_series(directory: PathLike, steps: Sequence[int]) -> Path:
    target = history.folder_of(directory) / history.SERIES
    write_series(target, [(float(step), surface_file(directory, step)) for step in steps])
    return target


def _opened(directory: PathLike, step: int) -> Any:
    with need("PIL.Image").open(picture_file(directory, step)) as picture:
        picture.load()
        return picture


def _write_film(directory: PathLike, pictures: Sequence[Any]) -> Path:
    target = history.folder_of(directory) / history.ANIMATION
    durations = [_FRAME_MILLISECONDS] * (len(pictures) - 1) + [_LAST_MILLISECONDS]
    write_film(pictures, target, durations)
    return target


def write_chart(directory: PathLike) -> None:
    """Chart of the history, with the names and the unit that the directory knows."""
    names, unit = read_case_names(directory), unit_of(read_units(directory), "energy")
    picture = history.folder_of(directory) / history.CHART
    history.draw_history(history.read_history(directory), picture, names, unit)


def write_part_series(directory: PathLike, steps: int) -> Path:
    """Surface of the part after each shown step, as .vtp files and their .pvd."""
    with studio(directory) as at:
        draw_missing(at, steps, np.inf)
    return _write_series(directory, shown_steps(steps))


def write_animation(
    directory: PathLike, steps: int, most: int = MOST_FRAMES, view: View = _FRAME
) -> Path:
    """A .gif of the part over the steps."""
    with studio(directory, view) as at:
        shown = shown_steps(steps, most)
        return _write_film(directory, [_picture(at, _mesh(at, step), step) for step in shown])
