#!/usr/bin/env python3
"""The iterative mode held against what bounds it, each figure as a ratio of one run: the memory's
speed, the plain sweeps on the matrix itself, one thread, and CalculiX where `ccx` is installed.

    bench/iterative.py --build oneMKL=build/release --build open=build/release-open --write t.md

Needs both programs of a build (vk_rund and vk_bench), numpy, and Gmsh for the bracket. For figures
that can be compared, let nothing else run. The best of three runs counts.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, replace
from pathlib import Path

import numpy as np
from run_stages import ROOT, run_benchmark, run_whole, write_box

from vkctl.directory.formats import Mode
from vkctl.directory.log import digest, read_log
from vkctl.directory.model import read, set_flags, write
from vkctl.prepare import MeshOptions, build_model, make_mesh, read_cases, read_part
from vkctl.running.run import set_run_options

RUNS = 3
EXAMPLES = ROOT / "vkctl" / "examples"
SHARED = Path("/dev/shm")

# Cells of boxes of hexahedra, by what they are called.
BOXES = {"box": (72, 36, 36), "million": (120, 60, 60), "large": (184, 92, 92)}

# The bracket as `vkctl new` numbers it and as Gmsh does: order of the tetrahedra and their size.
BRACKETS = {"tet4": (1, 1.6), "tet10": (2, 3.4)}

# At most of an iteration's time by that of reading both triangles once, and of plain sweeps.
READING_GOAL = "1.7"
PLAIN_GOALS = {"tet4": "0.35", "tet10": "0.40"}


@dataclass(frozen=True)
class Whole:
    """The program as a whole on a directory: best wall clock, largest memory, iterations."""

    seconds: float
    peak_gb: float
    iterations: int


Row = tuple[str, str, float, str]  # build, what, figure, unit or goal


@contextmanager
def folder() -> Iterator[Path]:
    place = SHARED if SHARED.is_dir() else None
    with tempfile.TemporaryDirectory(prefix="vk_iterative_", dir=place) as name:
        yield Path(name)


def run_best(build: Path, directory: Path, mode: Mode, threads: int, runs: int = RUNS) -> Whole:
    set_run_options(directory, threads=threads, mode=mode)
    seconds, peaks = [], []
    for _ in range(runs):
        for state in directory.glob("ws.*"):
            state.unlink()  # a start vector would leave nothing to solve
        set_flags(directory, clear_done=True)
        wall, peak = run_whole(build / "vk_rund", directory)
        seconds.append(wall)
        peaks.append(peak)
    log = digest(read_log(directory))
    return Whole(min(seconds), max(peaks), int(log.load_cases[0].iterations or 0))


def iteration(build: Path, directory: Path, threads: int) -> dict[str, float]:
    """Counters of the benchmark of one iteration."""
    set_run_options(directory, threads=threads, mode="iterative")
    for state in directory.glob("ws.*"):
        state.unlink()
    counters = run_benchmark(build / "vk_bench", "BM_Iterative", directory)
    if "iteration" not in counters:
        sys.exit(f"{directory}: the benchmark gave no figures: {counters}")
    return counters


# --- CalculiX --------------------------------------------------------------------------------


def write_deck(directory: Path, deck: Path) -> None:
    """The model of a directory of hexahedra as a deck of the iterative solver with scaling."""
    model = read(directory)
    case = model.load_cases[0]
    lines = ["*NODE"]
    lines += [f"{n},{x!r},{y!r},{z!r}" for n, (x, y, z) in enumerate(model.nodes.tolist(), 1)]
    lines.append("*ELEMENT,TYPE=C3D8,ELSET=ALL")
    rows = enumerate(model.elements.hex8.tolist(), 1)
    lines += [f"{n}," + ",".join(map(str, row)) for n, row in rows]
    lines += ["*MATERIAL,NAME=M", "*ELASTIC", "210000.,0.3", "*SOLID SECTION,ELSET=ALL,MATERIAL=M"]
    lines.append("*BOUNDARY")
    lines += [f"{n},1,3" for n in np.unique(case.constraints["Node"]).tolist()]
    lines += ["*STEP", "*STATIC,SOLVER=ITERATIVE SCALING", "*CLOAD"]
    for record in (*case.forces2, *case.forces3):
        forces = enumerate(record["Force"].tolist(), 1)
        lines += [f"{record['Node']},{d},{f!r}" for d, f in forces if f]
    lines += ["*NODE FILE", "U", "*EL FILE", "S", "*END STEP", ""]
    deck.write_text("\n".join(lines))


def calculix_seconds(ccx: str, directory: Path, threads: int) -> float:
    with folder() as place:
        write_deck(directory, place / "deck.inp")
        best = float("inf")
        for _ in range(RUNS):
            start = time.perf_counter()
            subprocess.run(
                [ccx, "deck"],
                cwd=place,
                env={**os.environ, "OMP_NUM_THREADS": str(threads)},
                stdout=subprocess.DEVNULL,
                check=True,
            )
            best = min(best, time.perf_counter() - start)
        return best


# --- the figures -----------------------------------------------------------------------------


def box_rows(
    name: str, build: Path, which: str, coloured: bool, ccx_seconds: float, threads: int
) -> list[Row]:
    with folder() as directory:
        write_box(directory, "hex8", BOXES[which], 1, coloured=coloured)
        whole = run_best(build, directory, "iterative", threads, RUNS if which == "box" else 1)
        found = iteration(build, directory, threads)
    order_of = "numbered by vkctl" if coloured else "nodes along x"
    title = f"hexahedra, {found['equations']:,.0f} equations, {order_of}"
    rows = [
        (name, f"{title}: whole run, {whole.iterations} iterations", whole.seconds, "s"),
        (name, f"{title}: peak memory", whole.peak_gb, "GB"),
        *iteration_rows(name, title, found, READING_GOAL, ""),
    ]
    if ccx_seconds:
        rows.append((name, f"{title}: whole run / CalculiX", whole.seconds / ccx_seconds, "0.20"))
    return rows


def iteration_rows(
    name: str, title: str, found: dict[str, float], reading_goal: str, plain_goal: str
) -> list[Row]:
    return [
        (name, f"{title}: one iteration", 1e3 * found["iteration"], "ms"),
        (
            name,
            f"{title}: iteration / reading both triangles once",
            found["iteration"] / found["reading"],
            reading_goal,
        ),
        (
            name,
            f"{title}: iteration / plain sweeps",
            found["iteration"] / found["plain_iteration"],
            plain_goal,
        ),
        (name, f"{title}: preparation, in iterations", found["setup"] / found["iteration"], "3"),
    ]


def bracket_rows(name: str, build: Path, kind: str, meshed: bool, threads: int) -> list[Row]:
    order, size = BRACKETS[kind]
    part = read_part(EXAMPLES / "bracket.step", MeshOptions(size=size, order=order))
    cases = read_cases(EXAMPLES / "bracket.toml")
    model = build_model(make_mesh(replace(part, meshed=meshed)), cases).model
    model.load_cases, model.run_order = model.load_cases[:1], None
    with folder() as directory:
        write(model, directory)
        one = iteration(build, directory, 1)
        team = iteration(build, directory, threads)
        whole = run_best(build, directory, "iterative", threads)
    order_of = "numbered by vkctl" if meshed else "in Gmsh's order"
    title = f"bracket, {kind}, {team['equations']:,.0f} equations, {order_of}"
    return [
        (name, f"{title}: whole run, {whole.iterations} iterations", whole.seconds, "s"),
        (name, f"{title}: peak memory", whole.peak_gb, "GB"),
        *iteration_rows(name, title, team, "", PLAIN_GOALS[kind]),
        (name, f"{title}: {threads} threads / one", team["iteration"] / one["iteration"], "1"),
    ]


def direct_rows(name: str, build: Path) -> list[Row]:
    with folder() as directory:
        write_box(directory, "tet4", (30, 30, 30), 2)
        ratios = []
        for _ in range(RUNS):
            wall, peak = run_whole(build / "vk_rund", directory)
            for state in directory.glob("ws.*"):
                state.unlink()
            found = run_benchmark(build / "vk_bench", "BM_Run", directory)
            set_flags(directory, clear_done=True)
            bare = found["bare_analysis"] + found["bare_factor"] + found["bare_solves"]
            ratios.append(wall / bare)
    title = f"direct mode, {found['equations']:,.0f} equations"
    return [
        (name, f"{title}: whole run / bare analysis, factor, solves", min(ratios), "1.10"),
        (name, f"{title}: peak memory", peak, "GB"),
    ]


def measured(
    builds: dict[str, Path], only: list[str], ccx: str | None, threads: int
) -> Iterator[Row]:
    seconds = 0.0
    if ccx and "box" in only:
        with folder() as directory:
            write_box(directory, "hex8", BOXES["box"], 1)
            seconds = calculix_seconds(ccx, directory, threads)
    for name, build in builds.items():
        for which in BOXES:
            if which not in only:
                continue
            for coloured in (True, False) if which == "box" else (True,):
                beside = seconds if which == "box" else 0.0
                yield from box_rows(name, build, which, coloured, beside, threads)
        for kind in BRACKETS:
            if kind in only:
                for meshed in (False, True):
                    yield from bracket_rows(name, build, kind, meshed, threads)
        if "direct" in only:
            yield from direct_rows(name, build)


def line_of(row: Row) -> str:
    name, what, figure, unit = row
    goal = unit[:1].isdigit()
    shown = f"{figure:.3g}" + ("" if goal or not unit else f" {unit}")
    return f"| {name} | {what} | {shown} | {unit if goal else ''} |"


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument(
        "--build",
        action="append",
        metavar="[NAME=]FOLDER",
        help="folder of vk_rund and vk_bench, may be given for each back end (build/release)",
    )
    parser.add_argument("--threads", type=int, default=os.cpu_count() or 1)
    parser.add_argument("--large", action="store_true", help="also 4.77 million equations: 6 GB")
    parser.add_argument(
        "--only", nargs="+", choices=[*BOXES, *BRACKETS, "direct"], help="these figures alone"
    )
    parser.add_argument("--ccx", default=shutil.which("ccx"), help="CalculiX's program")
    parser.add_argument("--write", type=Path, help="the table as Markdown")
    given = parser.parse_args()
    builds = {}
    for text in given.build or ["build/release"]:
        name, found, path = text.rpartition("=")
        builds[name if found else Path(path).name] = Path(path).resolve()
    only = given.only or ["box", "million", *BRACKETS, "direct"] + ["large"] * given.large
    lines = ["| build | what | figure | goal at most |", "|---|---|---|---|"]
    print("\n".join(lines))
    for row in measured(builds, only, given.ccx, given.threads):
        lines.append(line_of(row))
        print(lines[-1], flush=True)
    if given.write:
        given.write.write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
