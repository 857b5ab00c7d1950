"""The part over the steps: a .pvd series of its surface, and an animation."""

from __future__ import annotations

from pathlib import Path

from vkctl.basics.extras import need
from vkctl.basics.types import PathLike
from vkctl.view.export import write_series
from vkctl.view.files import write_film, write_grid
from vkctl.view.grid import part_surface
from vkctl.view.plot import View, drawn

from . import history
from .loop import model_at

MOST_FRAMES = 40
_FRAME = View(field="level", size=(900, 600), marks=False)
_FRAME_MILLISECONDS = 150
_LAST_MILLISECONDS = 2000


def shown_steps(steps: int, most: int = MOST_FRAMES) -> list[int]:
    """At most `most` of the steps 1 .. `steps`, evenly spread, the last one always."""
    stride = -(-steps // most)
    return sorted({*range(1, steps + 1, stride), steps} - {0})


def write_part_series(directory: PathLike, steps: int) -> Path:
    """Surface of the part after each shown step, as .vtp files and their .pvd."""
    target = history.folder_of(directory) / history.SERIES
    target.with_suffix("").mkdir(exist_ok=True)
    entries = []
    for step in shown_steps(steps):
        path = target.with_suffix("") / f"step_{step:04d}.vtp"
        write_grid(part_surface(model_at(directory, step)), path)
        entries.append((float(step), path))
    write_series(target, entries)
    return target


def write_animation(
    directory: PathLike, steps: int, most: int = MOST_FRAMES, view: View = _FRAME
) -> Path:
    """A .gif of the part over the steps."""
    images = need("PIL.Image")
    frames = []
    for step in shown_steps(steps, most):
        picture = images.fromarray(drawn(model_at(directory, step), {}, view, f"step {step}"))
        frames.append(picture.convert("P", palette=images.Palette.ADAPTIVE))
    target = history.folder_of(directory) / history.ANIMATION
    durations = [_FRAME_MILLISECONDS] * (len(frames) - 1) + [_LAST_MILLISECONDS]
    write_film(frames, target, durations)
    return target
