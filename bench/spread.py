#!/usr/bin/env python3
"""What `vkctl run --on` costs beyond the solver's own time, and what two workers gain.

A scheduler and two workers of one core each are started on the loopback, as a user starts them, and
solve the patterns of boxes on a disk that they share with `vkctl`:

overhead   many small patterns on one worker: the time of the whole run, less the solver's own as
           its logs tell it, by unit
together   16 patterns of some 30,000 equations on two workers, against two plain runs side by side,
           each on half of the patterns, on one thread
"""

from __future__ import annotations

import argparse
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "vkctl" / "tests"))

from cluster_work import Processes, awaited, scheduler

from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.running.run import find_vk_rund
from vkctl.shapes.boxes import box
from vkctl.spread.place import opened
from vkctl.spread.run import run_on
from vkctl.spread.where import parse_where

WORKER = ["--nthreads", "1", "--memory-limit", "4GB"]


def patterns_box(directory: Path, patterns: int, cells: int) -> Path:
    """A cube of hexahedra; each pattern holds one node more than the one before."""
    part = box("hex8", (cells, cells, cells))
    load_cases = []
    for pattern in range(1, patterns + 1):
        case = LoadCase(pattern).load(*part.traction("x+", (0, 0, -1.0 * pattern)))
        case.prescribe(part.face("x-"))
        load_cases.append(case.prescribe(part.face("z-")[:pattern]))
    directory.mkdir(parents=True)
    options: dict[str, float] = {"Sys.MaxNumCompThreads": 1, "Sys.ComputationMode": 2}
    steel = Material.isotropic(1e3, 0.3)
    write(Model(part.nodes, part.elements, [steel], load_cases, options=options), directory)
    return directory


def again(directory: Path, numbers: range) -> None:
    """Have these load cases run anew, and no others."""
    words, values = formats.read_loadcase_flags(directory)
    words[:] = formats.LOADCASE_EXCLUDED
    for number in numbers:
        words[number - 1] = formats.LOADCASE_REQUESTED
    formats.write_loadcase_flags(directory, words, values)
    for path in directory.glob("ws.*"):
        path.unlink()


@contextmanager
def cluster(folder: Path, workers: int) -> Iterator[Processes]:
    with scheduler(folder / "cluster", worker_options=WORKER) as started:
        for _ in range(workers):
            started.add_worker()
        with opened(parse_where(started.address)) as place:
            place.client.wait_for_workers(workers, timeout=120)
            awaited(lambda: all(w.memory_gb for w in place.workers()))
        yield started


def solver_seconds(directory: Path) -> float:
    """What plain runs of each pattern alone take, as a unit's run does: the sum."""
    total = 0.0
    for number in range(1, len(formats.read_loadcases(directory)) + 1):
        again(directory, range(number, number + 1))
        begun = time.monotonic()
        subprocess.run([find_vk_rund(), directory], check=True)
        total += time.monotonic() - begun
    return total


def overhead(folder: Path, units: int, cells: int, repeats: int) -> None:
    directory = patterns_box(folder / "small", units, cells)
    every = range(1, units + 1)
    found = []
    with cluster(folder, 1) as started:
        for _ in range(repeats):
            alone = solver_seconds(directory)
            again(directory, every)
            seconds = spread_seconds(directory, started.address)
            found.append((seconds - alone) / units * 1e3)
            print(f"  {units} units: solver {alone:.2f} s, spread {seconds:.2f} s", flush=True)
    print(f"overhead a unit: median {statistics.median(found):.0f} ms, least {min(found):.0f} ms")


def spread_seconds(directory: Path, address: str) -> float:
    """A run on a scheduler that is there, from the connection on to its end."""
    begun = time.monotonic()
    result = run_on(directory, address)
    assert result.ok, result.advice
    return time.monotonic() - begun


def together(folder: Path, cells: int, repeats: int) -> None:
    first = patterns_box(folder / "first", 16, cells)
    second, whole = folder / "second", folder / "whole"
    shutil.copytree(first, second)
    shutil.copytree(first, whole)
    equations = 3 * len(formats.read_nodes(first))
    ratios = []
    with cluster(folder, 2) as started:
        for _ in range(repeats):
            plain = beside(first, second)
            again(whole, range(1, 17))
            begun = time.monotonic()
            vkctl("run", whole, "--on", started.address)
            spread = time.monotonic() - begun
            ratios.append(spread / plain)
            print(f"  plain {plain:.2f} s, spread {spread:.2f} s, {spread / plain:.3f}", flush=True)
    print(
        f"16 patterns of about {equations} equations on two workers: median "
        f"{statistics.median(ratios):.3f} of two plain runs side by side, least {min(ratios):.3f}"
    )


def beside(first: Path, second: Path) -> float:
    """Two plain runs side by side, each on half of the patterns."""
    again(first, range(1, 9))
    again(second, range(9, 17))
    begun = time.monotonic()
    words = [sys.executable, "-m", "vkctl", "--quiet", "run"]
    runs = [subprocess.Popen([*words, str(d)]) for d in (first, second)]
    assert [r.wait() for r in runs] == [0, 0]
    return time.monotonic() - begun


def vkctl(*words: object) -> None:
    subprocess.run([sys.executable, "-m", "vkctl", "--quiet", *map(str, words)], check=True)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("what", nargs="*", default=["overhead", "together"])
    parser.add_argument("--folder", type=Path, help="a folder on the disk to measure on")
    parser.add_argument("--units", type=int, default=40, help="of overhead")
    parser.add_argument("--small", type=int, default=5, help="cells a side of overhead's box")
    parser.add_argument("--cells", type=int, default=21, help="cells a side of together's box")
    parser.add_argument("--repeats", type=int, default=3)
    said = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=said.folder) as name:
        if "overhead" in said.what:
            overhead(Path(name), said.units, said.small, said.repeats)
        if "together" in said.what:
            together(Path(name), said.cells, said.repeats)


if __name__ == "__main__":
    main()
