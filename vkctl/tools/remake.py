"""Optimise the examples and remake the pictures and numbers of docs/optimisation.md.

    python vkctl/tools/remake.py [EXAMPLE ...] [tutorial]

`tutorial` runs the commands of docs/tutorial.md and remakes its pictures. Working directories are
left in run/examples of the checkout; a loop that stopped goes on.
"""

from __future__ import annotations

import shutil
import subprocess
import sys
from dataclasses import replace
from pathlib import Path

import tutorial
from PIL import Image

from vkctl.directory.model import read
from vkctl.directory.results import read_results
from vkctl.optimise import Optimised, history, optimise, write_animation
from vkctl.optimise.limits.aggregates import nodal_forces
from vkctl.view.plot import View, plot

ROOT = Path(__file__).resolve().parents[2]
SOURCES = ROOT / "vkctl" / "examples"
PICTURES = ROOT / "docs" / "optimise"
EXAMPLES = (
    "cantilever",
    "mbb-beam",
    "mbb-beam-sizes",
    "mbb-beam-thickest",
    "l-bracket",
    "l-bracket-stress",
    "bracket",
    "wheel",
    "beam",
    "printed-cantilever",
    "arch",
)
ANIMATED = "mbb-beam"
STRESSED = "l-bracket-stress"  # shown by its stress
_WITHOUT_HISTORY = (STRESSED, "arch", "mbb-beam-sizes", "mbb-beam-thickest")  # theirs is on no page
_VIEW = View(size=(900, 600))
_FRAME = View(field="level", size=(560, 360), marks=False)


def compliance(directory: Path, number: int) -> float:
    """Work of the nodal forces of a load case over its displacements."""
    moved = read_results(directory, number).displacements
    if moved is None:
        raise ValueError(f"load case {number} of {directory} was solved too poorly")
    return float((nodal_forces(read(directory), number) * moved).sum())


def remake(name: str) -> Optimised:
    directory = ROOT / "run" / "examples" / name
    done = optimise(SOURCES / f"{name}.toml", directory)
    view = replace(_VIEW, field="von_mises") if name == STRESSED else _VIEW
    plot(directory, PICTURES / f"{name}.png", view=view)
    if name not in _WITHOUT_HISTORY:
        history.draw_history(done.rows, PICTURES / f"{name}-history.png")
    if name == ANIMATED:
        film = write_animation(directory, done.rows[-1].step, 15, _FRAME)
        film.replace(PICTURES / f"{name}.gif")
    return done


def remake_tutorial() -> None:
    page = ROOT / "docs" / "tutorial.md"
    directory = ROOT / "run" / "examples" / "tutorial"
    shutil.rmtree(directory, ignore_errors=True)
    tutorial.set_up(page, SOURCES, directory)
    for command in tutorial.commands(page):
        print(f"$ {command}", flush=True)
        done = subprocess.run(command, shell=True, cwd=directory)
        # Status 1 of `vkctl check` are warnings, which the page tells of.
        if done.returncode != 0 and not (done.returncode == 1 and "vkctl check" in command):
            raise SystemExit(f"{command} ended with status {done.returncode}")
    target = page.with_suffix("")
    target.mkdir(exist_ok=True)
    made = [*directory.glob("*.png"), directory / "work" / "optimise" / "history.png"]
    for path in made:
        with Image.open(path) as picture:
            picture.thumbnail((800, 800))
            picture.convert("RGB").save(target / path.name, optimize=True)


def main() -> None:
    PICTURES.mkdir(parents=True, exist_ok=True)
    for name in sys.argv[1:] or (*EXAMPLES, "tutorial"):
        if name == "tutorial":
            remake_tutorial()
            continue
        done = remake(name)
        last = done.rows[-1]
        work = [f"{compliance(done.directory, number):.5g}" for number in last.energies]
        end = "converged" if done.converged else "not converged"
        print(
            f"{name}: {end} in {last.step} steps, {sum(r.seconds for r in done.rows):.0f} s; "
            f"volume {last.volume:.3f}, strain energy {done.rows[0].objective:.5g} -> "
            f"{last.objective:.5g}, compliance {', '.join(work)}",
            flush=True,
        )


if __name__ == "__main__":
    main()
