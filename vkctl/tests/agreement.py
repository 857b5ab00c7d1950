"""Random small directories that go through `vkctl check` and the solver, which must agree.

What the solver refuses the check must call an error, so what the check passes must run. As a
program this goes on for as long as it is told, and keeps the directories that it was told apart by:

    python vkctl/tests/agreement.py --count 100000 --seed 1 --keep build/disagreements
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from collections import Counter
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from functools import partial
from pathlib import Path
from typing import Any

import numpy as np

if __name__ == "__main__":
    sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "support"))

import program_under_test

from vkctl.basics.types import Array
from vkctl.check import check
from vkctl.directory import formats
from vkctl.directory.formats import OPTIONS
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.shapes.boxes import box

TIMEOUT = 120  # seconds of a run, which takes milliseconds
STOPPED, NO_LOG, ENDLESS = 1010 & 0xFF, 1005 & 0xFF, 1000  # statuses of runs
_MEMORY = Path("/dev/shm")
Random = np.random.Generator


@dataclass(frozen=True)
class Verdict:
    """What both said to one directory."""

    seed: int
    status: int  # of the solver; negative for a signal, ENDLESS for none
    errors: tuple[str, ...]  # codes of the check
    failure: str = ""  # of the check itself

    @property
    def agreed(self) -> bool:
        stopped = self.status in (STOPPED, NO_LOG) and bool(self.errors)
        return not self.failure and (self.status == 0 or stopped)


# --- sound directories ------------------------------------------------------------------------


def _materials(random: Random) -> list[Material]:
    kinds: list[Callable[[], Material]] = [
        lambda: Material.isotropic(1000.0, 0.3),
        lambda: Material.isotropic(2.0, 0.0, expansion=1e-5),
        lambda: Material.yielding(1000.0, 0.3, 5.0),
        lambda: Material.compression_only(1000.0, 0.2),
        lambda: Material.orthotropic((9.0, 5.0, 4.0), (0.2, 0.1, 0.3), (2.0, 2.5, 3.0)),
    ]
    return [kinds[k]() for k in random.integers(len(kinds), size=random.integers(1, 4))]


def _load_case(random: Random, part: object, nodes: int) -> LoadCase:
    side = str(random.choice(("x-", "y-", "z-")))
    case = LoadCase(pattern=int(random.integers(1, 3)))
    if side == "x-" or random.random() < 0.7:
        case.prescribe(part.face("x-"))  # type: ignore[attr-defined]
        case.pattern = 1
    else:
        case.support(part.face(side))  # type: ignore[attr-defined]
        case.pattern = 2 + ("y-", "z-").index(side)
    numbers = random.permutation(nodes)[:3] + 1
    case.load(numbers, random.normal(size=3).round(2))
    if random.random() < 0.4:
        case.load(numbers[:1], (0, 1, 0), section=3)
    if random.random() < 0.4:
        case.heat(numbers, random.integers(-20, 50, 3))
    return case


def sound_directory(directory: Path, random: Random) -> None:
    """A model that runs, with something in each table of each file more often than not."""
    kind = str(random.choice(("tet4", "hex8", "tet10", "mixed")))
    long = {"tet10": 1, "mixed": 3}.get(kind, int(random.integers(1, 4)))
    cells = (long, 1, 1)
    part = box(kind, cells, tuple(map(float, cells)))  # type: ignore[arg-type]
    count = len(part.nodes)
    materials = _materials(random)
    part.elements.materials[:] = random.integers(1, len(materials) + 1, len(part.elements))
    cases = [_load_case(random, part, count) for _ in range(random.integers(1, 4))]
    mode = int(random.integers(3))
    options: dict[str, float] = {"Sys.MaxNumCompThreads": 1, "Sys.ComputationMode": mode}
    if random.random() < 0.3:
        options["Sta.ResponseDumpFac"] = 0.5
    whole = Model(part.nodes, part.elements, materials, cases, options=options)
    if random.random() < 0.6:
        nodes = random.permutation(count)[: random.integers(1, count + 1)] + 1
        whole.set_level(random.normal(0.6, 0.5, len(nodes)), nodes)
    if random.random() < 0.3 and whole.node_flags is not None:
        whole.node_flags[random.integers(count)] |= formats.NODE_NO_LOADS
    if random.random() < 0.3 and whole.element_flags is not None:
        whole.element_flags[random.integers(len(part.elements))] |= formats.ELEMENT_NO_LEVEL
    whole.run_order = random.permutation(len(cases)) + 1 if random.random() < 0.3 else None
    write(whole, directory)
    if random.random() < 0.5:
        _earlier_run(directory, random, whole)


def _earlier_run(directory: Path, random: Random, whole: Model) -> None:
    """Results and states that a run would have left of the first load case."""
    nodes, elements = len(whole.nodes), len(whole.elements)
    shift = 1e-3 * random.normal(size=(nodes, 3)).astype(np.float32)
    formats.write_displacements(directory, 1, shift)
    formats.write_magnitude(directory, 1, np.linalg.norm(shift, axis=1))
    formats.write_element_state(directory, 1, random.uniform(0.1, 1.0, elements))
    formats.write_criterion(directory, 1, random.uniform(size=len(whole.tp)))
    formats.write_stress(directory, 1, random.normal(size=nodes))
    totals = np.zeros(1, formats.TOTALS)[0]
    totals["LoadCase"], totals["Kind"], totals["ARQua"] = 1, 1, 1.0
    formats.write_totals(directory, 1, totals)
    if random.random() < 0.3:
        flags, values = formats.read_loadcase_flags(directory)
        flags[0] |= formats.LOADCASE_DONE
        formats.write_loadcase_flags(directory, flags, values)


# --- mutations --------------------------------------------------------------------------------

_WORDS = (0, 1, 2, 3, -1, 4, 7, 8, 40, 41, 60, 128, 256, 2047, 65536, 2**31 - 1, -(2**31))
_REALS = (0.0, -1.0, 1.0, 0.5, 1e-3, 1e10, -1e10, 1e30, 3e38, 1e-30, 1e-42, np.nan, np.inf, -np.inf)


def _spoil_bytes(path: Path, random: Random) -> None:
    """A word, a half word, a real or a bit of a file, counts more often than the rest."""
    content = bytearray(path.read_bytes())
    if len(content) < 4:
        return
    place = int(random.integers(min(len(content), 24) if random.random() < 0.4 else len(content)))
    place = min(place, len(content) - 4) // 4 * 4
    old = int.from_bytes(content[place : place + 4], "little", signed=True)
    match random.integers(6):
        case 0:
            value = int(random.choice(_WORDS))
            content[place : place + 4] = value.to_bytes(4, "little", signed=True)
        case 1:
            near = (old + int(random.integers(-2, 3)) + 2**31) % 2**32 - 2**31
            content[place : place + 4] = near.to_bytes(4, "little", signed=True)
        case 2:
            half = place + 2 * int(random.integers(2))
            value = int(random.choice((0, 1, 2, 4, 40, 41, 60, 256, 32767, 65535)))
            content[half : half + 2] = value.to_bytes(2, "little")
        case 3:
            content[place : place + 4] = np.float32(random.choice(_REALS)).tobytes()
        case 4:
            content[place + int(random.integers(4))] ^= 1 << int(random.integers(8))
        case 5:
            other = int(random.integers(len(content) // 4)) * 4
            content[place : place + 4] = content[other : other + 4]
    path.write_bytes(content)


# Reader, writer, and the arrays of what is read, of the files that have records.
_MAP = 1  # number of the load case whose file is among them
_TABLES: tuple[tuple[Any, Any, Callable[[Any], list[Array]]], ...] = (
    (formats.read_materials, formats.write_materials, lambda v: [v]),
    (formats.read_nodes, formats.write_nodes, lambda v: [v]),
    (formats.read_elements, formats.write_elements, lambda v: [v.records, v.tet4, v.hex8, v.tet10]),
    (formats.read_node_flags, formats.write_node_flags, lambda v: [v]),
    (formats.read_element_flags, formats.write_element_flags, lambda v: [v]),
    (formats.read_tp_index, formats.write_tp_index, lambda v: [v]),
    (formats.read_tp, formats.write_tp, lambda v: [v]),
    (formats.read_structure, formats.write_structure, lambda v: [v.columns, v.row_start]),
    (formats.read_loadcases, formats.write_loadcases, lambda v: [v]),
    (
        formats.read_loadcase_flags,
        lambda directory, v: formats.write_loadcase_flags(directory, *v),
        lambda v: [v[0]],
    ),
    (
        lambda directory: formats.read_loadcase_map(directory, _MAP),
        lambda directory, v: formats.write_loadcase_map(directory, _MAP, v),
        lambda v: [v.constraints, v.forces2, v.forces3, v.scalars],
    ),
)


def _tables(directory: Path) -> Iterator[tuple[Array, Callable[[], None]]]:
    """Arrays of the files that can be read, and what writes each back."""
    for read, write_back, arrays in _TABLES:
        try:
            content = read(directory)
        except (OSError, formats.FormatError):
            continue
        for array in arrays(content):
            if len(array):
                yield array, partial(write_back, directory, content)


def _spoil_field(directory: Path, random: Random) -> None:
    """One number of one table: another one near it, a bit turned, or one of the odd ones."""
    tables = list(_tables(directory))
    if not tables:
        return
    array, write_back = tables[random.integers(len(tables))]
    if array.dtype.names:
        names = [name for name in array.dtype.names if array[name].dtype.kind in "iuf"]
        array = array[names[random.integers(len(names))]]
    place = np.unravel_index(random.integers(array.size), array.shape)
    old, kind = array[place], array.dtype
    if kind.kind == "f":
        array[place] = old * random.choice((-1, 2, 1e6)) if random.random() < 0.3 else _real(random)
    else:
        near, turned = int(old) + random.integers(-2, 3), int(old) ^ (1 << random.integers(12))
        chosen = (int(near), int(turned), int(random.choice(_WORDS)))[random.integers(3)]
        array[place] = np.array(chosen, np.int64).astype(kind)
    write_back()


def _real(random: Random) -> float:
    return float(random.choice(_REALS))


def _spoil_length(path: Path, random: Random) -> None:
    content = path.read_bytes()
    if random.random() < 0.3:
        path.write_bytes(content + bytes(int(random.integers(1, 40))))
    else:
        path.write_bytes(content[: random.integers(len(content) + 1)])


def _spoil_place(path: Path, random: Random) -> None:
    """Something else where the file was."""
    path.unlink()
    match random.integers(6):
        case 0:
            path.mkdir()
        case 1:
            path.symlink_to("nowhere")
        case 2:
            os.mkfifo(path)
        case 3:
            path.touch()
        case 4:
            path.symlink_to("/dev/null")
        case 5:
            return


_NUMBERS = ("1", "+3", "-2", "0.5", "1d0", "1e", "nan", "2*3", "1e60", "99999999999", '"4"', "0x8")
_BETWEEN = ("=", " = ", "=\t", "==", " ", "")
_BEHIND = ("", "", " rest", ",", "/2", "\r", "\r\r", "\0", ";", " " * 520, "\xa0", "e5", "*")


def random_option_line(random: Random) -> str:
    """A line that is likely to be one, with what may be wrong with it."""

    def pick(words: tuple[str, ...]) -> str:
        return words[random.integers(len(words))]

    key, number = pick(tuple(OPTIONS)), pick(_NUMBERS)
    if random.random() < 0.3:
        letters = "0123456789+-.eEdD ,/\t*"
        number = "".join(pick(tuple(letters)) for _ in range(random.integers(1, 8)))
    if random.random() < 0.1:
        number = str(random.choice(_WORDS))
    line = pick(("", "", "", " ", "\t", "*", "\ufeff", " " * 500)) + key + pick(_BETWEEN) + number
    return line + pick(_BEHIND)


def _spoil_options(path: Path, random: Random) -> None:
    lines = path.read_bytes().decode("latin-1").split("\n")
    lines.insert(int(random.integers(len(lines) + 1)), random_option_line(random))
    path.write_bytes("\n".join(lines).encode("latin-1", "replace"))


def spoil(directory: Path, random: Random) -> None:
    """One change of one file."""
    files = sorted(path for path in directory.iterdir() if path.is_file())
    options = directory / formats.OPTIONS_FILE
    draw = random.random()
    if draw < 0.1 and options in files:
        _spoil_options(options, random)
    elif draw < 0.5 or not files:
        _spoil_field(directory, random)
    else:
        path = files[random.integers(len(files))]
        hows = (_spoil_length, _spoil_place) if path == options else (_spoil_bytes,) * 8
        hows = (*hows, _spoil_length, _spoil_place)
        hows[random.integers(len(hows))](path, random)


# --- both programs ----------------------------------------------------------------------------


def prepare(directory: Path, seed: int) -> None:
    """The directory of a seed: sound, then spoilt once or twice, or not at all."""
    random = np.random.default_rng(seed)
    sound_directory(directory, random)
    for _ in range(random.choice((0, 1, 2), p=(0.04, 0.7, 0.26))):
        spoil(directory, random)


def judge(directory: Path, seed: int) -> Verdict:
    """What the check, and then the solver, say to the directory."""
    errors: tuple[str, ...] = ()
    failure = ""
    try:
        errors = tuple(sorted({finding.code for finding in check(directory).of("error")}))
    except Exception as trouble:
        failure = repr(trouble)
    try:
        status = program_under_test.start(directory, timeout=TIMEOUT, OMP_THREAD_LIMIT="1").status
    except subprocess.TimeoutExpired:
        status = ENDLESS
    return Verdict(seed, status, errors, failure)


def verdicts(seeds: Iterator[int], keep: Path | None = None) -> Iterator[Verdict]:
    """One verdict a seed; directories that they disagree about are prepared in `keep`."""
    for seed in seeds:
        place = _MEMORY if os.access(_MEMORY, os.W_OK) else None
        with tempfile.TemporaryDirectory(prefix="vk_agree_", dir=place) as folder:
            directory = Path(folder, "d")
            prepare(directory, seed)
            verdict = judge(directory, seed)
        if keep is not None and not verdict.agreed:
            shutil.rmtree(keep / str(seed), ignore_errors=True)
            prepare(keep / str(seed), seed)
        yield verdict


def main() -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").split("\n")[0])
    parser.add_argument("--count", type=int, default=10_000, help="directories")
    parser.add_argument("--seed", type=int, default=0, help="of the first one")
    parser.add_argument("--keep", type=Path, help="folder for directories they disagree about")
    given = parser.parse_args()
    begun, apart, ran = time.monotonic(), 0, Counter[str]()
    stopped, statuses = Counter[str](), Counter[int]()
    for verdict in verdicts(iter(range(given.seed, given.seed + given.count)), given.keep):
        statuses[verdict.status] += 1
        (ran if verdict.status == 0 else stopped).update(verdict.errors)
        if not verdict.agreed:
            apart += 1
            print(verdict, flush=True)
    print(
        f"{given.count} directories in {time.monotonic() - begun:.0f} s, statuses {dict(statuses)}"
    )
    print(f"{apart} that they disagree about")
    for code in sorted({*ran, *stopped}):
        print(f"  {code}: the run stopped {stopped[code]} times, ended normally {ran[code]} times")
    return 1 if apart else 0


if __name__ == "__main__":
    sys.exit(main())
