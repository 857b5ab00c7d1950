"""What it costs a small model's runs that folders are synced: bench/sync_cost.py FOLDER [RUNS].

FOLDER lies on the disk to be measured. Runs with folders never synced, synced after every renaming,
and synced before the flags and behind them, as the program does, take turns, so that a disk that
becomes slower does so for all.
"""

from __future__ import annotations

import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import numpy as np

HERE = Path(__file__).parent
sys.path.insert(0, str(HERE.parent / "vkctl" / "src"))

from vkctl.directory.model import LoadCase, Material, Model, write  # noqa: E402
from vkctl.shapes.boxes import box  # noqa: E402

PROGRAM = os.environ.get("VK_RUND", HERE.parent / "build" / "release" / "vk_rund")
HOWS = ("never", "each", "as it is")


def prepare(directory: Path) -> None:
    """One load case of eight nodes."""
    mesh = box("tet4", (1, 1, 1))
    model = Model(mesh.nodes, mesh.elements, [Material.isotropic(1000.0, 0.3)])
    force = np.array((1.0, 0.0, 0.0))
    model.load_cases = [LoadCase().prescribe(mesh.face("x-")).load(mesh.face("x+"), force)]
    model.options = {"Sys.ComputationMode": 1, "Sys.MaxNumCompThreads": 1}
    write(model, directory)


def seconds(directory: Path, library: Path, how: str, flags: bytes) -> float:
    """One run that solves the load case anew, requested by these flags."""
    Path(directory, "mxs.lcflags").write_bytes(flags)
    environment = os.environ | {"LD_PRELOAD": str(library), "SYNC_FOLDERS": how}
    begin = time.perf_counter()
    subprocess.run([PROGRAM, directory], env=environment, check=True)
    return time.perf_counter() - begin


def main(folder: str, runs: int) -> None:
    with tempfile.TemporaryDirectory(dir=folder) as name:
        library, directory = Path(name, "sync_cost.so"), Path(name, "work")
        source = HERE / "sync_cost.c"
        subprocess.run(["cc", "-shared", "-fPIC", "-o", library, source, "-ldl"], check=True)
        prepare(directory)
        flags = Path(directory, "mxs.lcflags").read_bytes()
        times: dict[str, list[float]] = {how: [] for how in HOWS}
        for _ in range(runs):
            for how in HOWS:
                times[how].append(seconds(directory, library, how, flags))
    for how in HOWS:
        low, middle, high = statistics.quantiles(times[how], n=4)
        spread = f"middle half: {1e3 * low:.2f} to {1e3 * high:.2f}"
        print(f"{how:9} {1e3 * middle:7.2f} ms a run ({spread})")


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 1000)
