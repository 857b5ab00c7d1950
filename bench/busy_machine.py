#!/usr/bin/env python3
"""How much a run on all processors loses against one on one thread, beside programs that keep the
processors busy: medians, their ratio, and what the run took on free processors.

    bench/busy_machine.py --program build/release/vk_rund --cells 32 16 16 --neighbours 0 2 8

The two kinds of run take turns. With --together N so many runs of the same kind start at once,
each in a directory of its own, and the time until the last one has ended counts. Neighbours are
shells in an endless loop; they are started here, so that they belong to the same session as the
runs, between whose programs the system shares out the processors. What the environment says holds
for the runs: try another waiting policy by OMP_WAIT_POLICY or GOMP_SPINCOUNT.
"""

from __future__ import annotations

import argparse
import contextlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

import numpy as np

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "vkctl" / "src"))

from vkctl.directory.model import LoadCase, Material, Model, write  # noqa: E402
from vkctl.shapes.boxes import box  # noqa: E402

MODES = {1: "iterative", 2: "direct"}
ALL, ONE = 0, 1  # Sys.MaxNumCompThreads
SETTLING = 0.3  # seconds until the system has spread new neighbours over the processors


def prepare(directory: Path, cells: tuple[int, int, int], mode: int) -> None:
    """A clamped box of hexahedra with a pull at its other end."""
    part = box("hex8", cells, size=(float(cells[0]), float(cells[1]), float(cells[2])))
    case = LoadCase().prescribe(part.face("x-"))
    case.load(*part.traction("x+", (0.0, 0.0, -1.0)))
    model = Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case])
    model.options = {"Sys.ComputationMode": mode}
    write(model, directory)


def request(directory: Path, threads: int) -> None:
    """Have the next run solve the load case from nothing."""
    flags = np.fromfile(directory / "mxs.lcflags", "<i4")
    flags[1] = 1
    flags.tofile(directory / "mxs.lcflags")
    for left in directory.glob("ws.*"):
        left.unlink()
    options = directory / "vk_rund_cmd.txt"
    kept = [line for line in options.read_text().splitlines() if "MaxNumCompThreads" not in line]
    options.write_text("\n".join([*kept, f"Sys.MaxNumCompThreads={threads}", ""]))


@contextlib.contextmanager
def neighbours(count: int) -> Iterator[None]:
    """So many programs that do nothing but compute."""
    shells = [subprocess.Popen(["sh", "-c", "while :; do :; done"]) for _ in range(count)]
    try:
        time.sleep(SETTLING if shells else 0.0)
        yield
    finally:
        for shell in shells:
            shell.kill()
        for shell in shells:
            shell.wait()


def seconds(program: Path, directories: list[Path], threads: int) -> float:
    """Runs in all directories at once, until the last one has ended."""
    for directory in directories:
        request(directory, threads)
    begin = time.perf_counter()
    runs = [subprocess.Popen([program, directory]) for directory in directories]
    ends = [run.wait() for run in runs]
    taken = time.perf_counter() - begin
    if any(ends):
        sys.exit(f"{program} ended with status {max(ends)}")
    return taken


def compare(program: Path, directories: list[Path], count: int, runs: int) -> tuple[float, float]:
    """Medians of the times on all processors and on one thread, beside `count` neighbours."""
    times: dict[int, list[float]] = {ALL: [], ONE: []}
    with neighbours(count):
        for _ in range(runs):
            for threads, found in times.items():
                found.append(seconds(program, directories, threads))
    return statistics.median(times[ALL]), statistics.median(times[ONE])


def measure(arguments: argparse.Namespace, folder: Path, mode: int) -> None:
    first = folder / f"{mode}-1"
    prepare(first, tuple(arguments.cells), mode)
    copies = [folder / f"{mode}-{i}" for i in range(2, arguments.together + 1)]
    for copy in copies:
        shutil.copytree(first, copy)
    for program in arguments.program:
        for count in arguments.neighbours:
            both = compare(program.resolve(), [first, *copies], count, arguments.runs)
            print(
                f"{program}  {MODES[mode]:9}  {arguments.together} at once  {count} neighbours  "
                f"all threads {both[0]:7.3f} s  one thread {both[1]:7.3f} s  "
                f"ratio {both[0] / both[1]:5.2f}",
                flush=True,
            )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--program", type=Path, nargs="+", default=[ROOT / "build/release/vk_rund"])
    parser.add_argument("--cells", type=int, nargs=3, default=(32, 16, 16))
    parser.add_argument("--modes", type=int, nargs="+", default=(1, 2), choices=MODES)
    parser.add_argument("--neighbours", type=int, nargs="+", default=(0, 2, 8))
    parser.add_argument("--together", type=int, default=1, help="runs that start at once")
    parser.add_argument("--runs", type=int, default=5, help="of each kind")
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="vk_busy_") as name:
        for mode in arguments.modes:
            measure(arguments, Path(name), mode)


if __name__ == "__main__":
    main()
