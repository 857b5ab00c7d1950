"""Results and the part as files for other programs: .vtu, .pvd, .stl and .3mf."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from xml.sax.saxutils import quoteattr

from vkctl.basics.types import PathLike
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, name_of
from vkctl.directory.model import read
from vkctl.directory.results import read_results, solved

from .files import write_grid
from .grid import mesh_grid, results_grid, solved_or_fail
from .part_file import PART_SUFFIXES, part_of, write_part

SUFFIXES = (".vtu", ".pvd", *PART_SUFFIXES)


def export(directory: PathLike, out: PathLike, case: int | None = None) -> list[Path]:
    """Write a working directory's results to `out`, by its suffix; returns the files written.

    .vtu: mesh with all fields of load case `case`, the first solved one if not given; of a model
    without results the mesh with its own fields. .pvd: a series over the solved load cases, one
    .vtu each in a folder beside. .stl and .3mf: the part, the closed surface of level zero;
    `part_of` and `write_part` do that with more to choose and more to tell.
    """
    target = Path(out)
    if target.suffix == ".vtu":
        return [_export_vtu(directory, target, case)]
    if target.suffix == ".pvd":
        return _export_series(directory, target)
    if target.suffix in PART_SUFFIXES:
        write_part(part_of(directory), target, directory)
        return [target]
    raise ValueError(f"{target.name}: the suffix must be one of {', '.join(SUFFIXES)}")


def _export_vtu(directory: PathLike, target: Path, case: int | None) -> Path:
    model = read(directory)
    numbers = solved(directory)
    if case is not None and case not in numbers:
        raise ValueError(f"load case {case} has no results in {directory}")
    if numbers:
        grid = results_grid(model, read_results(directory, case or numbers[0]))
    else:
        grid = mesh_grid(model)
    write_grid(grid, target)
    return target


def _export_series(directory: PathLike, target: Path) -> list[Path]:
    model = read(directory)
    folder = target.with_suffix("")
    folder.mkdir(parents=True, exist_ok=True)
    steps: list[tuple[float, Path]] = []
    names = []
    for number in solved_or_fail(directory):
        step = folder / f"case_{number:04d}.vtu"
        write_grid(results_grid(model, read_results(directory, number)), step)
        steps.append((float(number), step))
        names.append(name_of(number, case_names(model)))
    write_series(target, steps, names)
    return [target, *(step for _, step in steps)]


def write_series(
    target: Path, steps: list[tuple[float, Path]], names: Sequence[str] | None = None
) -> None:
    """Write a .pvd file: (time, file) of each step, and its name; paths relative to its folder."""
    lines = [
        f'    <DataSet timestep="{time:g}" group="" part="0" '
        + (f"name={quoteattr(name)} " if name else "")
        + f"file={quoteattr(path.relative_to(target.parent).as_posix())}/>"
        for (time, path), name in zip(steps, names or [""] * len(steps), strict=True)
    ]
    text = "\n".join(
        (
            '<?xml version="1.0"?>',
            '<VTKFile type="Collection" version="0.1" byte_order="LittleEndian">',
            "  <Collection>",
            *lines,
            "  </Collection>",
            "</VTKFile>\n",
        )
    )
    with formats.replacing(target) as stream:
        stream.write(text.encode())
