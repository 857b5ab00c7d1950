"""A study of many variants of a small part, with one of its processes killed every few seconds.

    bench/study_kills.py [--variants 1000] [--every 20] [--jobs N] [--on WHERE] [--program VK_RUND]

Prints a line: variants, kills, rows that are missing, twice or failed, how far the results are from
what a linear part must give, and the time. Status 1 unless every variant has one right row.
"""

from __future__ import annotations

import argparse
import csv
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

from vkctl.shapes.boxes import box

CASES = """
part = "part.inp"

[materials.unit]
E = 1.0
nu = 0.3

[face_sets.foot]
plane = {{ point = [0, 0, 0], normal = [1, 0, 0] }}

[face_sets.tip]
plane = {{ point = [{length}, 0, 0], normal = [1, 0, 0] }}

[supports.foot]
set = "foot"

[loads.tip]
type = "force"
set = "tip"
value = [0, 0, 1.0]
"""
STUDY = """
cases = "cases.toml"
keep = "none"

[parameters.force]
key = "loads.tip.value.z"
between = [0.5, 2.0]

[parameters.modulus]
key = "materials.unit.E"
between = [0.5, 2.0]

[sample]
count = {count}
seed = 1

[results.energy]
value = "strain_energy"

[results.stress]
value = "von_mises"
"""
_CELLS = (12, 3, 3)
_SIZE = (12.0, 3.0, 3.0)
_SINGLE = 1e-4  # of values that are stored in single precision, after a solve to about as much


def write_inputs(folder: Path, count: int) -> Path:
    """Part, case file and study file."""
    part = box("hex8", _CELLS, _SIZE)
    lines = ["*NODE"]
    lines += [f"{n}, {x}, {y}, {z}" for n, (x, y, z) in enumerate(part.nodes.tolist(), 1)]
    lines.append("*ELEMENT, TYPE=C3D8")
    rows = enumerate(part.elements.hex8.tolist(), 1)
    lines += [f"{n}, " + ", ".join(map(str, row)) for n, row in rows]
    (folder / "part.inp").write_text("\n".join(lines) + "\n")
    (folder / "cases.toml").write_text(CASES.format(length=_SIZE[0]))
    path = folder / "study.toml"
    path.write_text(STUDY.format(count=count))
    return path


def below(pid: int) -> list[int]:
    """Processes that a process has started, and those that they have."""
    found = []
    for path in Path("/proc").glob("[0-9]*/stat"):
        try:
            parent = int(path.read_text().rpartition(")")[2].split()[1])
        except OSError:
            continue
        if parent == pid:
            child = int(path.parent.name)
            found += [child, *below(child)]
    return found


def kill_one(study: int, chance: random.Random) -> bool:
    """Kill a process of a study other than its own; whether there was one."""
    victims = below(study)
    if not victims:
        return False
    try:
        os.kill(chance.choice(victims), signal.SIGKILL)
    except ProcessLookupError:
        return False
    return True


def run(command: list[str], every: float, chance: random.Random) -> tuple[int, float]:
    """Kills and seconds of a study."""
    start = last = time.monotonic()
    kills = 0
    process = subprocess.Popen(command)
    while process.poll() is None:
        time.sleep(0.05)
        if time.monotonic() - last >= every:
            last = time.monotonic()
            kills += kill_one(process.pid, chance)
    return kills, time.monotonic() - start


def judge(out: Path, count: int) -> tuple[int, int, int, float]:
    """Rows missing, twice and failed, and the largest error of what scales with the parameters."""
    lines = (out / "journal.jsonl").read_text().splitlines()
    times = Counter(json.loads(line)["number"] for line in lines)
    with open(out / "results.csv", newline="") as stream:
        rows = list(csv.DictReader(stream))
    numbers = Counter(int(row["variant"]) for row in rows)
    missing = sum(not (times[n] and numbers[n]) for n in range(1, count + 1))
    twice = sum(times[n] > 1 or numbers[n] > 1 for n in range(1, count + 1))
    done = [row for row in rows if row["status"] == "done"]
    unit = [
        (float(r["energy"]) * float(r["modulus"]) / float(r["force"]) ** 2,
         float(r["stress"]) / float(r["force"]))
        for r in done
    ]  # fmt: skip
    error = (
        max(max(values) / min(values) - 1 for values in zip(*unit, strict=True)) if unit else 1.0
    )
    return missing, twice, len(rows) - len(done), error


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--variants", type=int, default=1000)
    parser.add_argument("--every", type=float, default=20.0, help="seconds between two kills")
    parser.add_argument("--jobs", type=int, help="variants at a time")
    parser.add_argument("--on", help="where, as of vkctl study")
    parser.add_argument("--program", help="the solver")
    given = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        path, out = write_inputs(folder, given.variants), folder / "out"
        command = [sys.executable, "-m", "vkctl", "study", str(path), str(out), "--no-pictures"]
        for option, value in (("jobs", given.jobs), ("on", given.on), ("vk-rund", given.program)):
            command += [] if value is None else [f"--{option}", str(value)]
        kills, seconds = run(command, given.every, random.Random(1))
        missing, twice, failed, error = judge(out, given.variants)
    print(
        f"{given.variants} variants, {kills} kills, {missing} missing, {twice} twice, "
        f"{failed} failed, largest error {error:.1e}, {seconds:.0f} s"
    )
    return 0 if not (missing or twice or failed) and error < _SINGLE else 1


if __name__ == "__main__":
    sys.exit(main())
