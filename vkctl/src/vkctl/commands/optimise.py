"""The command `vkctl optimise`."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import asdict
from functools import partial
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from vkctl.basics.extras import need
from vkctl.basics.words import printable
from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, On
from vkctl.terminal.reading import NoLimits, TrustScripts
from vkctl.terminal.refusal import refuse, refusing

if TYPE_CHECKING:
    from rich.console import Console, Group

    from vkctl.optimise import Optimised, OptimiseError, StepShown
    from vkctl.optimise.pictures.beside import Painter
    from vkctl.prepare.part import Reading
    from vkctl.running.progress import Progress

_ROWS = 10  # steps shown at a time, the latest
_HEADINGS = ("step", "objective", "volume", "target", "change", "quality", "time")

OnStep = Callable[["StepShown"], None]
OnProgress = Callable[[int, "Progress"], None]


def optimise_command(
    cases: Annotated[Path, typer.Argument(..., help="case file (.toml) that names its part")],
    directory: Annotated[Path, typer.Argument(..., help="working directory, made if missing")],
    volume: Annotated[
        str | None,
        typer.Option(..., help="target part of the design volume, or several: 0.5,0.4,0.3"),
    ] = None,
    steps: Annotated[int | None, typer.Option(..., min=1, help="largest number of steps")] = None,
    on: On = None,
    vk_rund: Annotated[Path | None, typer.Option(..., "--vk-rund", help="the solver")] = None,
    pictures: Annotated[
        bool, typer.Option(..., help="draw chart, series and animation at the end")
    ] = True,
    trust_scripts: TrustScripts = False,
    no_limits: NoLimits = False,
    as_json: AsJson = False,
) -> None:
    """Optimise the part for stiffness or least mass; started again, it goes on.

    Exit status: 0 converged or at the step limit, that of vk_rund where it failed or was
    interrupted, 127 or 126 where it can't be found or executed, 2 for mistakes in the inputs.
    """
    from vkctl.optimise import volumes
    from vkctl.prepare.case_file.mistakes import CaseFileError
    from vkctl.prepare.part import Reading

    console = output.console(silent=as_json)
    with refusing(ValueError, CaseFileError):
        targets = volumes.volumes_of(cases) if volume is None else volumes.parse_volumes(volume)
        for name in ("pyvista", "matplotlib", "PIL") if pictures else ():
            need(name)
    several, finished = len(targets) > 1, []
    for target in targets:
        place = directory
        if several and target is not None:
            place = volumes.folder_of_volume(directory, target)
            console.print(f"volume {target:g}, in {place}", soft_wrap=True)
        finished.append(
            _run(
                console,
                cases,
                place,
                target,
                steps,
                on,
                vk_rund,
                pictures,
                Reading(trust_scripts, not no_limits),
            )
        )
        if several:
            volumes.write_row(directory, finished, [t for t in targets if t is not None])
    if several:
        _conclude_row(console, directory, finished, pictures)
    if as_json:
        told = [values(done) for done in finished]
        output.print_json({"volumes": told} if several else told[0])


def _conclude_row(
    console: Console, directory: Path, finished: list[Optimised], pictures: bool
) -> None:
    from vkctl.optimise import volumes

    if pictures:
        from vkctl.basics.units import unit_of
        from vkctl.directory.case_names import read_units

        unit = unit_of(read_units(finished[0].directory), "energy")
        volumes.draw_row(directory, finished, unit)
    what = "table and chart" if pictures else "table"
    console.print(f"{what} of all volumes in {directory}", soft_wrap=True)


def _run(
    console: Console,
    cases: Path,
    directory: Path,
    volume: float | None,
    steps: int | None,
    on: str | None,
    vk_rund: Path | None,
    pictures: bool,
    reading: Reading,
) -> Optimised:
    """One loop to its end, shown and concluded."""
    from vkctl.optimise import OptimiseError, optimise
    from vkctl.prepare.case_file.mistakes import CaseFileError
    from vkctl.prepare.part import PartError
    from vkctl.running.run import NotFoundError
    from vkctl.spread.where import WhereError

    with _drawing(directory, pictures) as drawing:
        try:
            with (
                refusing(CaseFileError, PartError, WhereError, ValueError),
                _shown(console) as (on_step, on_progress),
            ):
                done = optimise(
                    cases,
                    directory,
                    volume=volume,
                    steps=steps,
                    vk_rund=vk_rund,
                    reading=reading,
                    on_step=partial(_tell, on_step, drawing),
                    on_progress=on_progress,
                    on=on,
                    on_line=partial(_print, console),
                )
        except OptimiseError as error:
            raise refuse(error, _status(error)) from None
        except NotFoundError as error:
            raise refuse(error, error.status) from None
        except KeyboardInterrupt:
            raise refuse("Interrupted: start it again to go on.", 130) from None
        with refusing(ValueError):
            _conclude(console, done, drawing)
    return done


@contextmanager
def _drawing(directory: Path, wanted: bool) -> Iterator[Painter | None]:
    """What draws beside the loop, None where no pictures are wanted."""
    if not wanted:
        yield None
        return
    from vkctl.optimise.pictures.beside import painter

    with painter(directory) as drawing:
        yield drawing


def _tell(on_step: OnStep, drawing: Painter | None, step: StepShown) -> None:
    on_step(step)
    if drawing is not None:
        drawing.finished(step.row.step, step.steps)


def _print(console: Console, line: str) -> None:
    console.print(printable(line), markup=False, soft_wrap=True)


def _status(error: OptimiseError) -> int:
    return 2 if error.run is None else error.run.status or 1


def _conclude(console: Console, done: Optimised, drawing: Painter | None) -> None:
    from vkctl.optimise import history

    end = "converged" if done.converged else "ended at the step limit"
    last, more = done.rows[-1], done.body_steps
    steps = f"{last.step - more} steps" + (f" and {more} that added material" if more else "")
    console.print(
        f"{end} after {steps}: objective {last.objective:.6g}, volume {last.volume:.3f}, "
        f"{100 * done.cut:.3g} % of the elements cut",
        soft_wrap=True,
    )
    for sentence in _about_pieces(done):
        console.print(sentence, markup=False, soft_wrap=True)
    for sentence in (*done.told, *done.told_sizes):
        console.print(printable(sentence), markup=False, soft_wrap=True)
    folder = history.folder_of(done.directory)
    if drawing is None:
        console.print(f"history in {folder}", soft_wrap=True)
    elif failure := drawing.finish(done.rows):
        _print(output.console(stderr=True), failure)
        console.print(f"history in {folder}", soft_wrap=True)
    else:
        console.print(f"history, chart, series and animation in {folder}", soft_wrap=True)


def _about_pieces(done: Optimised) -> list[str]:
    """What there is to say where the part isn't one piece."""
    pieces = done.pieces
    told = [printable(sentence) for sentence in pieces.broken]
    if pieces.count > 1:
        told.append(
            f"the part is {pieces.count} pieces, of which {int(pieces.carrying.sum())} carry loads "
            "to supports; what is kept stays"
        )
    return told


def values(done: Optimised) -> dict[str, Any]:
    """How the loop ended, with its history, for programs."""
    return {
        "directory": str(done.directory),
        "converged": done.converged,
        "cut": done.cut,
        "pieces": done.pieces.count,
        "carrying": int(done.pieces.carrying.sum()),
        "broken": list(done.pieces.broken),
        "limits": done.told,
        "sizes": None if done.sizes is None else asdict(done.sizes),
        "steps": [asdict(row) for row in done.rows],
    }


@contextmanager
def _shown(console: Console) -> Iterator[tuple[OnStep, OnProgress]]:
    """Functions that show the loop: on a terminal a live table, elsewhere a line per step."""
    if not console.is_terminal:
        yield lambda step: _print_step(console, step), lambda *_: None
        return
    from rich.live import Live

    finished: list[StepShown] = []
    with Live(console=console, refresh_per_second=8) as live:

        def on_step(step: StepShown) -> None:
            finished.append(step)
            live.update(table(finished, None))

        def on_progress(step: int, progress: Progress) -> None:
            live.update(table(finished, (step, progress)))

        yield on_step, on_progress


def _print_step(console: Console, step: StepShown) -> None:
    for line in (*step.told, step_line(step), *step.broken):
        console.print(printable(line), markup=False, soft_wrap=True)


def _cells(step: StepShown) -> list[str]:
    row = step.row
    return [
        f"{row.step} of {step.steps}",
        f"{row.objective:.6g}",
        f"{row.volume:.3f}",
        f"{row.target:.3f}",
        f"{row.change:.4f}",
        f"{row.quality:.3f}",
        f"{row.seconds:.1f} s",
    ]


def step_line(step: StepShown) -> str:
    """One finished step in a line."""
    cells = dict(zip(_HEADINGS, _cells(step), strict=True))
    return ", ".join(f"{name} {value}" for name, value in cells.items())


def table(finished: list[StepShown], running: tuple[int, Progress] | None) -> Group:
    """The latest steps, and below them what the solver is doing in the present one."""
    from rich.console import Group
    from rich.table import Table
    from rich.text import Text

    from vkctl.directory.case_names import titled
    from vkctl.terminal.display import state_line

    grid = Table(box=None, pad_edge=False)
    for heading in _HEADINGS:
        grid.add_column(heading, justify="right")
    for step in finished[-_ROWS:]:
        grid.add_row(*_cells(step))
    last = (*finished[-1].told, *finished[-1].broken) if finished else ()
    broken = [Text(printable(sentence)) for sentence in last]
    if running is None:
        return Group(grid, *broken)
    number, progress = running
    case = progress.log.load_cases[-1].number if progress.log.load_cases else None
    where = f"{titled(case, progress.names)}, " if case is not None else ""
    return Group(
        grid, *broken, Text(f"step {number}: {where}{progress.stage}; {state_line(progress)}")
    )
