"""Runs to which memory or threads are refused, and what they may leave behind.

As a command (`scripts/refuse_memory.sh PROGRAM`) every request of a run is refused in turn: of two
small load cases in both computation modes, on one thread and two, once and from there on. Then come
limits of the address space.
"""

from __future__ import annotations

import argparse
import collections
import concurrent.futures
import itertools
import os
import resource
import shutil
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from functools import partial
from pathlib import Path

import numpy as np
from models import tiny, tiny_case
from runs import BAD_LOG, BAD_RUN, LOG, lcflags, log_lines

DONE = 3
# The watch over the maths library ends a wait after half a minute of doing nothing.
TIMEOUT = 100
FRAMES = ("Info<Msg:", "Data<Key:", "Warning<Msg:", "Error<Msg:")
TOLD = (0, BAD_RUN & 0xFF, BAD_LOG & 0xFF)
ONCE, FROM_THERE = "REFUSE_AT", "REFUSE_FROM"


@dataclass(frozen=True)
class End:
    """How a run ended: status and standard error, and whether anything was refused to it."""

    status: int
    err: str
    refused: bool


def library(folder: Path) -> Path:
    """The library that refuses, compiled."""
    target = folder / "refuse_memory.so"
    source = Path(__file__).with_name("refuse_memory.c")
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-O1", "-shared", "-fPIC", "-o", target, source, "-ldl"], check=True)
    return target


def prepared(directory: Path, mode: int, threads: int) -> Path:
    """Two load cases of two patterns."""
    return tiny(
        directory,
        *(tiny_case(force=(9.0, -9.0, 5.0)), tiny_case(2, force=(-7.0, 8.0, 6.0))),
        Sys_ComputationMode=mode,
        Sys_MaxNumCompThreads=threads,
    )


def refuse(program: Path, directory: Path, shim: Path, **refusal: str | int) -> End:
    """A run with the library loaded; `refusal` holds its variables."""
    mark = directory.with_suffix(".refused")
    variables = {"LD_PRELOAD": shim, "REFUSE_MARK": mark} | refusal
    environment = os.environ | {key: str(value) for key, value in variables.items()}
    done = start(program, directory, environment)
    refused = mark.exists()
    mark.unlink(missing_ok=True)
    return End(done.returncode, done.stderr, refused)


def limited(program: Path, directory: Path, megabytes: int) -> End:
    """A run in an address space of this size."""
    size = megabytes << 20
    done = start(
        program,
        directory,
        {**os.environ},
        lambda: resource.setrlimit(resource.RLIMIT_AS, (size, size)),
    )
    return End(done.returncode, done.stderr, True)


def start(
    program: Path,
    directory: Path,
    environment: dict[str, str],
    prepare: Callable[[], None] | None = None,
) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [program, directory],
        env=environment,
        capture_output=True,
        text=True,
        errors="replace",
        timeout=TIMEOUT,
        check=False,
        preexec_fn=prepare,
    )


def results(directory: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in directory.glob("ws.*.[0-9]*")}


def faults(directory: Path, end: End, reference: dict[str, bytes]) -> list[str]:
    """What is wrong with an end and what it left: nothing if it was told or the results are right.

    What the libraries print themselves may stand on standard error besides.
    """
    wrong = [f"half a line or none: {line}" for line in bad_lines(directory)]
    wrong += faults_of_end(directory, end)
    left = results(directory)
    wrong += [f"{name} is torn" for name in left if not same(left[name], reference.get(name))]
    for number, flag in enumerate(lcflags(directory)[0], 1):
        lacking = [
            name for name in reference if name.endswith(f"{number:04d}") and name not in left
        ]
        if flag == DONE and lacking:
            wrong.append(f"load case {number} is marked done without {lacking}")
    return wrong


def faults_of_end(directory: Path, end: End) -> list[str]:
    last = log_lines(directory)[-1:] if lines_of(directory) else []
    if end.status == 0:
        whole = last == ["Info<Msg:Tool.vk_rund.End >"] and set(lcflags(directory)[0]) == {DONE}
        return [] if whole else ["status 0 in the middle of the run"]
    for code in (BAD_RUN, BAD_LOG):
        if end.status == code & 0xFF:
            told = any(line.startswith(f"{code}: ") for line in end.err.splitlines())
            logged = not last or last[0].startswith("Error<Msg:") or code == BAD_LOG
            places = {"on standard error": told, "in the log": logged}
            return [f"not told {place}" for place, good in places.items() if not good]
    return [f"status {end.status}"]


def lines_of(directory: Path) -> str:
    path = Path(directory, LOG)
    return path.read_text() if path.exists() else ""


def bad_lines(directory: Path) -> list[str]:
    text = lines_of(directory)
    if not text:
        return []
    *lines, rest = text.split("\n")
    return [line for line in lines if not line.startswith(FRAMES) or line[-1] != ">"] + [rest] * (
        rest != ""
    )


def same(left: bytes, right: bytes | None) -> bool:
    """Whole, and equal but for the order of sums."""
    if right is None or len(left) != len(right):
        return False
    a, b = np.frombuffer(left, "<f4"), np.frombuffer(right, "<f4")
    return bool(np.allclose(a, b, rtol=0, atol=1e-3 * float(np.abs(b).max(initial=0.0))))


# --- every request in turn ------------------------------------------------------------------------


@dataclass(frozen=True)
class Sweep:
    """The runs of one prepared directory, each with another refusal."""

    program: Path
    first: Path  # prepared
    reference: dict[str, bytes]
    shim: Path

    def one(self, name: str, trial: Callable[[Path], End]) -> tuple[End, list[str], str]:
        """One run in a directory of its own: its end, what was wrong, its last line."""
        directory = self.first.with_name(f"{self.first.name}_{name}")
        shutil.copytree(self.first, directory)
        try:
            end = trial(directory)
            last = (lines_of(directory).split("\n")[:-1] or [""])[-1]
            return end, faults(directory, end, self.reference), last
        except subprocess.TimeoutExpired:
            return End(-1, "", True), [f"no end within {TIMEOUT} s"], ""
        finally:
            shutil.rmtree(directory)

    def refusing(self, how: str, place: int) -> tuple[End, list[str], str]:
        def trial(directory: Path) -> End:
            return refuse(self.program, directory, self.shim, **{how: place})

        return self.one(f"{how}_{place}", trial)

    def limiting(self, megabytes: int) -> tuple[End, list[str], str]:
        def trial(directory: Path) -> End:
            return limited(self.program, directory, megabytes)

        return self.one(f"limit_{megabytes}", trial)


def sweep_of(program: Path, folder: Path, shim: Path, mode: int, threads: int) -> Sweep:
    first = prepared(folder / f"mode{mode}_threads{threads}", mode, threads)
    reference = folder / f"{first.name}_reference"
    shutil.copytree(first, reference)
    subprocess.run([program, reference], check=True, capture_output=True, timeout=TIMEOUT)
    return Sweep(program, first, results(reference), shim)


def places(sweep: Sweep, how: str) -> Iterator[tuple[int, list[str], str]]:
    """Every place in turn, until nothing was refused any more."""
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for first in itertools.count(1, 50):
            block = range(first, first + 50)
            runs = pool.map(partial(sweep.refusing, how), block)
            for place, (end, wrong, last) in zip(block, runs, strict=True):
                if not end.refused:
                    return
                yield place, wrong, last if end.status else "(right results)"


def limits(sweep: Sweep, sizes: range) -> Iterator[tuple[int, list[str], str]]:
    """Every size from the first that the program's libraries can be loaded in."""
    for size in sizes:
        end, wrong, last = sweep.limiting(size)
        if end.status in TOLD:
            yield size, wrong, last if end.status else "(right results)"
        elif end.status == -1 or last:
            yield size, wrong, last


def report(title: str, rows: Iterable[tuple[int, list[str], str]]) -> int:
    """Prints how the runs ended; the number of those that shouldn't have."""
    ends: collections.Counter[str] = collections.Counter()
    failures = 0
    for place, wrong, last in rows:
        ends[last] += 1
        failures += bool(wrong)
        for fault in wrong:
            print(f"  {title}, place {place}: {fault}")
    print(f"{title}: {sum(ends.values())} runs, {failures} wrong", flush=True)
    for text, number in ends.most_common():
        print(f"  {number:5d}  {text or '(before the log)'}")
    return failures


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", type=Path)
    program = parser.parse_args().program.resolve()
    failures = 0
    with tempfile.TemporaryDirectory(dir="/dev/shm") as name:
        shim = library(Path(name))
        for mode, threads in itertools.product((1, 2), (1, 2)):
            sweep = sweep_of(program, Path(name), shim, mode, threads)
            title = f"mode {mode}, {threads} threads"
            failures += report(f"{title}, refused once", places(sweep, ONCE))
            failures += report(f"{title}, refused from there on", places(sweep, FROM_THERE))
            failures += report(f"{title}, address space (MB)", limits(sweep, range(40, 700, 10)))
    return failures != 0


if __name__ == "__main__":
    sys.exit(main())
