#!/usr/bin/env python3
"""Runs in a row, many directories at once, and many runs on one directory, all of them told right.

    tests/e2e/soak.py [--row 10000] [--at-once 100] [--rounds 10]

Every run has to end as it should and to leave the same bytes as the first one. Minutes long, so a
command of its own; VK_RUND names another program than the release build.
"""

from __future__ import annotations

import argparse
import shutil
import subprocess
import sys
import tempfile
import time
from collections import Counter
from collections.abc import Callable
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "vkctl" / "src"), str(ROOT / "tests" / "support")]

import models  # noqa: E402
from program_under_test import program  # noqa: E402

from vkctl.directory.model import Model  # noqa: E402

LOG = "vk_rund_log.txt"
FLAGS = "mxs.lcflags"
LOG_STOP = 1005 & 0xFF
TIMEOUT = 600

Results = dict[str, bytes]


def prepare(directory: Path) -> Path:
    """A yielding box of all shapes, under two constraint patterns."""
    part, mesh = models.part("mixed")
    material = models.MATERIALS["yielding"]
    model = Model(part.nodes, part.elements, [material])
    model.set_level(models.random(2).uniform(-0.6, 1.0, len(mesh.nodes)))
    cases = [models.pulled(mesh), models.pulled(mesh, force=(3, 0, 1)), models.pulled(mesh, 2)]
    return models.written(directory, model, *cases, Sys_MaxNumCompThreads=1)


def results(directory: Path) -> Results:
    """Flags and results, which don't depend on the time that a run took."""
    return {path.name: path.read_bytes() for path in directory.glob("ws.*")} | {
        FLAGS: (directory / FLAGS).read_bytes()
    }


def reset(directory: Path, flags: bytes) -> None:
    for path in directory.glob("ws.*"):
        path.unlink()
    (directory / FLAGS).write_bytes(flags)


def start(directory: Path) -> subprocess.Popen[str]:
    return subprocess.Popen(
        [program(), directory], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
    )


def ended(process: subprocess.Popen[str]) -> tuple[int, str]:
    out, err = process.communicate(timeout=TIMEOUT)
    return process.returncode, out + err


def fault(directory: Path, end: tuple[int, str], wanted: Results) -> str:
    """What is wrong with a run that should have solved everything; empty if nothing is."""
    if end != (0, ""):
        return f"ended with {end}"
    if not (directory / LOG).read_text().endswith("Info<Msg:Tool.vk_rund.End >\n"):
        return "the log has no end key"
    found = results(directory)
    names = [name for name in found | wanted if found.get(name) != wanted.get(name)]
    return f"other bytes in {', '.join(sorted(names))}" if names else ""


def in_a_row(directory: Path, flags: bytes, wanted: Results, runs: int) -> Counter[str]:
    faults: Counter[str] = Counter()
    for _ in range(runs):
        reset(directory, flags)
        faults[fault(directory, ended(start(directory)), wanted)] += 1
    return faults


def side_by_side(
    place: Path, model: Path, wanted: Results, count: int, rounds: int
) -> Counter[str]:
    """A directory for each run, all started before the first is waited for."""
    faults: Counter[str] = Counter()
    for _ in range(rounds):
        copies = [place / f"copy{i}" for i in range(count)]
        for copy in copies:
            shutil.copytree(model, copy)
        processes = [start(copy) for copy in copies]
        for copy, process in zip(copies, processes, strict=True):
            faults[fault(copy, ended(process), wanted)] += 1
            shutil.rmtree(copy)
    return faults


def on_one(directory: Path, flags: bytes, wanted: Results, count: int, rounds: int) -> Counter[str]:
    """One run solves; a run beside it is refused, one that comes after it finds all done."""
    faults: Counter[str] = Counter()
    for _ in range(rounds):
        reset(directory, flags)
        ends = [ended(process) for process in [start(directory) for _ in range(count)]]
        for status, text in ends:
            refused = status == LOG_STOP and text.startswith("1005: ") and text.count("\n") == 1
            told = (status, text) == (0, "") or refused
            faults["" if told else f"ended with {(status, text)}"] += 1
        if all(status != 0 for status, _ in ends):
            faults["nobody solved"] += 1
        elif results(directory) != wanted:
            faults["other bytes after runs on one directory"] += 1
    return faults


def tell(what: str, count: Callable[[], Counter[str]]) -> bool:
    begin = time.monotonic()
    faults = count()
    good = faults.pop("", 0)
    seconds = time.monotonic() - begin
    print(f"{what}: {good} as they should be, {faults.total()} not, {seconds:.0f} s", flush=True)
    for text, times in faults.most_common(10):
        print(f"  {times} times: {text}")
    return not faults


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--row", type=int, default=10000, help="runs one after another")
    parser.add_argument("--at-once", type=int, default=100, help="runs started together")
    parser.add_argument("--rounds", type=int, default=10, help="rounds of runs started together")
    asked = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="soak-") as name:
        place = Path(name)
        model = prepare(place / "model")
        flags = (model / FLAGS).read_bytes()
        work = place / "work"
        shutil.copytree(model, work)
        first = ended(start(work))
        wanted = results(work)
        if first != (0, ""):
            print(f"the first run ended with {first}")
            return 1
        count, rounds = asked.at_once, asked.rounds
        good = [
            tell("in a row", lambda: in_a_row(work, flags, wanted, asked.row)),
            tell("side by side", lambda: side_by_side(place, model, wanted, count, rounds)),
            tell("on one directory", lambda: on_one(work, flags, wanted, count, rounds)),
        ]
        return 0 if all(good) else 1


if __name__ == "__main__":
    sys.exit(main())
