"""Several volumes one after the other: what stiffness costs in material."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

from vkctl.basics.extras import need
from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.view.files import write_figure

from .loop import Optimised
from .settings import read_settings

TABLE = "pareto.csv"
CHART = "pareto.png"


def folder_of_volume(directory: PathLike, volume: float) -> Path:
    """Where the loop of a volume works: a directory of its own."""
    return Path(directory, f"volume-{volume:g}")


def parse_volumes(text: str) -> list[float]:
    """Such as "0.5,0.4,0.3", the largest first; ValueError where they are no volumes."""
    try:
        volumes = [float(part) for part in text.split(",")]
    except ValueError:
        raise ValueError(f"volumes are numbers between commas, not {text!r}") from None
    for volume in volumes:
        if not 0 < volume <= 1:
            raise ValueError(f"a volume must be above 0 and at most 1, not {volume:g}")
    return sorted(set(volumes), reverse=True)


def volumes_of(cases: PathLike) -> list[float] | list[None]:
    """Those of a case file, the largest first; one None where it asks for no more than one."""
    return list(read_settings(cases).volumes) or [None]


def write_row(directory: PathLike, done: Sequence[Optimised], volumes: Sequence[float]) -> Path:
    """The table of finished loops, a row for each of their volumes."""
    path = Path(directory, TABLE)
    lines = ["target,volume,objective,steps,converged,directory"]
    for volume, one in zip(volumes, done, strict=False):
        last = one.rows[-1]
        words = (repr(last.volume), repr(last.objective), str(last.step), str(one.converged))
        lines.append(f"{volume:g},{','.join(words)},{one.directory.name}")
    with formats.replacing(path) as stream:
        stream.write(("\n".join(lines) + "\n").encode())
    return path


def draw_row(directory: PathLike, done: Sequence[Optimised], unit: str = "") -> Path:
    """Chart of the objective over the volume."""
    need("matplotlib").use("Agg")
    pyplot = need("matplotlib.pyplot")
    path = Path(directory, CHART)
    figure, axes = pyplot.subplots(figsize=(6, 4), layout="constrained")
    last = [one.rows[-1] for one in done]
    axes.plot([row.volume for row in last], [row.objective for row in last], "o-")
    axes.set_xlabel("part of the design volume")
    axes.set_ylabel(f"strain energy in {unit}" if unit else "strain energy")
    axes.set_ylim(bottom=0)
    axes.grid(alpha=0.3)
    write_figure(figure, path, 110)
    pyplot.close(figure)
    return path
