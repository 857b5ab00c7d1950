#!/usr/bin/env python3
"""Where the time and memory of a run go: a box of one kind of element, run by the program as a
whole and stage by stage by the benchmark, in each of the modes asked for; or, with --passes, the
rates of the element passes alone, for each kind of element and number of threads, in a body of
material throughout and in one whose level field crosses zero.

    bench/run_stages.py --build build/release --cells 40 40 40 --modes 2 1
    bench/run_stages.py --build build/release --passes

Needs numpy; the working directory is written by vkctl.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "vkctl" / "src"))

from vkctl.directory.model import LoadCase, Material, Model, write  # noqa: E402
from vkctl.shapes.boxes import Kind, box, renumbered  # noqa: E402
from vkctl.shapes.ordering import in_colours  # noqa: E402

STAGES = (
    "1_read",
    "2_prepare",
    "3_structure",
    "4_assembly",
    "5_solver_setup",
    "6_solve",
    "7_response_write",
    "8_state_write",
)


# About 300,000 equations.
PASS_CELLS: dict[Kind, tuple[int, int, int]] = {
    "hex8": (72, 36, 36),
    "tet4": (72, 36, 36),
    "tet10": (36, 18, 18),
}


def write_box(
    directory: Path,
    kind: Kind,
    cells: tuple[int, int, int],
    mode: int,
    threads: int = 0,
    crossing: bool = False,
    coloured: bool = False,
) -> None:
    """A clamped box with a pull at its other end, all of material unless the level crosses zero.

    Hexahedra may be numbered in colours, as vkctl numbers what it meshes, else nodes run along x.
    """
    part = box(kind, cells, size=(float(cells[0]), float(cells[1]), float(cells[2])))
    if coloured:
        part = renumbered(part, in_colours(part.nodes, part.elements.hex8 - 1))
    case = LoadCase().prescribe(part.face("x-"))
    case.load(*part.traction("x+", (0.0, 0.0, -1.0)))
    model = Model(part.nodes, part.elements, [Material.isotropic(210000.0, 0.3)], [case])
    if crossing:
        model.set_level(part.nodes[:, 2] / cells[2] - 0.49)
    model.options = {
        "Sys.ComputationMode": mode,
        "Sys.AvailableMemGB": 1000.0,
        "Sys.MaxNumCompThreads": threads,
    }
    write(model, directory)


def peak_bytes(pid: int) -> int:
    """Peak resident memory so far of a running process; 0 once it has ended."""
    # The figure that wait4 gives counts this interpreter's own memory before the exec.
    try:
        lines = Path(f"/proc/{pid}/status").read_text().splitlines()
    except OSError:
        return 0
    found = [line.split()[1] for line in lines if line.startswith("VmHWM:")]
    return 1024 * int(found[0]) if found else 0


def run_whole(program: Path, directory: Path) -> tuple[float, float]:
    """Wall-clock seconds and peak resident GB of the program on the directory."""
    peak = 0
    start = time.perf_counter()
    with subprocess.Popen([program, directory]) as process:
        while process.poll() is None:
            peak = max(peak, peak_bytes(process.pid))
            time.sleep(0.005)
    seconds = time.perf_counter() - start
    if process.returncode != 0:
        sys.exit(f"{program} ended with status {process.returncode}")
    return seconds, peak / 1e9


def run_benchmark(program: Path, name: str, directory: Path) -> dict[str, float]:
    """Counters of the benchmark."""
    done = subprocess.run(
        [program, f"--benchmark_filter=^{name}", "--benchmark_format=json"],
        env={**os.environ, "VK_BENCH_DIR": str(directory)},
        capture_output=True,
        text=True,
        check=True,
    )
    counters: dict[str, float] = json.loads(done.stdout)["benchmarks"][0]
    return counters


def report(mode: int, wall: float, peak: float, found: dict[str, float]) -> None:
    total = sum(found[name] for name in STAGES)
    print(
        f"mode {mode}: {found['equations']:.0f} equations, "
        f"{found['iterations']:.0f} iterations, whole run {wall:.2f} s"
    )
    for name in STAGES:
        print(f"  {name:17} {found[name]:9.3f} s {100 * found[name] / total:6.1f} %")
    print(f"  assembly {found['elements_per_s'] / 1e6:.2f} million elements/s")
    print(f"  reading {found['read_GBs']:.2f} GB/s, page cache {found['cache_GBs']:.2f} GB/s")
    print(f"  peak {peak:.3f} GB, arrays without factor {found['arrays_GB']:.3f} GB")
    if "bare_factor" in found:
        bare = found["bare_analysis"] + found["bare_factor"] + found["bare_solves"]
        print(
            f"  bare analysis {found['bare_analysis']:.2f}, factor {found['bare_factor']:.2f}, "
            f"solves {found['bare_solves']:.2f}; whole run / bare {wall / bare:.3f}, "
            f"stages / bare {found['bare_ratio']:.3f}"
        )


def report_passes(program: Path) -> None:
    print("million elements/s, best of five     matrix  forces  response   structure")
    for kind, cells in PASS_CELLS.items():
        for threads in (1, 2):
            for crossing in (False, True):
                with tempfile.TemporaryDirectory(prefix="vk_passes_") as name:
                    write_box(Path(name), kind, cells, 1, threads, crossing)
                    found = run_benchmark(program, "BM_Passes", Path(name))
                rates = [found[f"{key}_per_s"] / 1e6 for key in ("elements", "forces", "response")]
                level = "crossing level" if crossing else "material"
                print(
                    f"{kind:6} {threads} threads, {level:15} "
                    + " ".join(f"{rate:8.2f}" for rate in rates)
                    + f" {1000 * found['structure']:8.0f} ms"
                )


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", type=Path, required=True, help="folder of vk_rund and vk_bench")
    parser.add_argument("--kind", default="tet4", choices=tuple(PASS_CELLS))
    parser.add_argument("--passes", action="store_true", help="the element passes' rates instead")
    parser.add_argument("--cells", type=int, nargs=3, default=(30, 30, 30))
    parser.add_argument("--modes", type=int, nargs="+", default=(2,), choices=(1, 2))
    arguments = parser.parse_args()
    if arguments.passes:
        report_passes(arguments.build.resolve() / "vk_bench")
        return
    for mode in arguments.modes:
        with tempfile.TemporaryDirectory(prefix="vk_stages_") as name:
            directory = Path(name)
            write_box(directory, arguments.kind, tuple(arguments.cells), mode)
            wall, peak = run_whole(arguments.build.resolve() / "vk_rund", directory)
            for state in directory.glob("ws.*"):
                state.unlink()  # a start vector would leave nothing to solve
            found = run_benchmark(arguments.build.resolve() / "vk_bench", "BM_Run", directory)
            report(mode, wall, peak, found)


if __name__ == "__main__":
    main()
