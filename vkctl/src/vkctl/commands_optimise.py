"""The command `vkctl optimise`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer
from rich.console import Console


def optimise_command(
    cases: Annotated[Path, typer.Argument(help="case file (.toml) that names its part")],
    directory: Annotated[Path, typer.Argument(help="working directory, made if missing")],
    volume: Annotated[
        float | None, typer.Option(min=0.001, max=1.0, help="target part of the design volume")
    ] = None,
    steps: Annotated[int | None, typer.Option(min=1, help="largest number of steps")] = None,
    vk_rund: Annotated[Path | None, typer.Option("--vk-rund", help="the solver")] = None,
    animate: Annotated[bool, typer.Option(help="draw an animation at the end")] = True,
) -> None:
    """Optimise the part for stiffness; started again, it goes on where it stopped."""
    from .new.mesh import PartError
    from .new.schema import CaseFileError
    from .optimise import OptimiseError, StepShown, history, optimise, pictures
    from .run import BusyError, NotFoundError

    console = Console(highlight=False)

    def show(step: StepShown) -> None:
        row = step.row
        console.print(
            f"step {row.step} of {step.steps}: objective {row.objective:.6g}, "
            f"volume {row.volume:.3f} (target {row.target:.3f}), "
            f"change {row.change:.4f}, {row.seconds:.1f} s",
            soft_wrap=True,
        )

    try:
        done = optimise(
            cases, directory, volume=volume, steps=steps, vk_rund=vk_rund, on_step=show
        )
    except (CaseFileError, PartError, OptimiseError, NotFoundError, BusyError, OSError) as error:
        Console(stderr=True, highlight=False).print(str(error), markup=False, soft_wrap=True)
        raise typer.Exit(2) from None
    end = "converged" if done.converged else "ended at the step limit"
    console.print(f"{end} after {len(done.rows)} steps, objective {done.rows[-1].objective:.6g}")
    folder = history.folder_of(directory)
    history.draw_history(done.rows, folder / history.CHART)
    pictures.write_part_series(directory, len(done.rows))
    if animate:
        pictures.write_animation(directory, len(done.rows))
    console.print(f"history, chart, series and animation in {folder}", soft_wrap=True)


def register(app: typer.Typer) -> None:
    """Add the command to the application."""
    app.command("optimise")(optimise_command)
