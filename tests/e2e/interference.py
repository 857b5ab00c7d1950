"""Runs that `file_operations.c` steps in at, and what they may leave behind."""

from __future__ import annotations

import os
import shutil
import signal
import struct
import subprocess
from collections.abc import Callable, Iterator
from dataclasses import dataclass
from itertools import count
from pathlib import Path

import numpy as np
import numpy.typing as npt
from models import MATERIALS, pulled, tiny, tiny_case, written
from program_under_test import Outcome
from runs import lcflags, run, same, start

from vkctl.directory.model import Model
from vkctl.shapes.boxes import box

REQUESTED, DONE = 1, 3


def interfered(directory: Path, preload: str, **where: int | str) -> Outcome:
    """A run under `file_operations.c`, told by its variables where to do what."""
    return start(directory, LD_PRELOAD=preload, **{name: str(v) for name, v in where.items()})


def killed(directory: Path, preload: str, **where: int) -> bool:
    """Run until killed at a place; False if the run came to its end before it."""
    outcome = interfered(directory, preload, **where)
    assert outcome.status in (0, -signal.SIGKILL), outcome
    return outcome.status != 0


def stopping(
    directory: Path, preload: str, place: int, **where: int | str
) -> subprocess.Popen[str] | None:
    """A run that waits at its operation `place`; None if it came to its end before it."""
    environment = os.environ | {name: str(value) for name, value in where.items()}
    process = subprocess.Popen(
        [os.environ["VK_RUND"], directory],
        env=environment | {"LD_PRELOAD": preload, "STOP_AT": str(place)},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
    )
    _, status = os.waitpid(process.pid, os.WUNTRACED)
    if os.WIFSTOPPED(status):
        return process
    process.returncode = os.waitstatus_to_exitcode(status)
    assert process.communicate() == ("", "")
    assert process.returncode == 0
    return None


@dataclass(frozen=True)
class Operation:
    call: str
    descriptor: int
    name: str
    other: str
    size: int
    done: bool
    content: bytes


def recorded(directory: Path, preload: str, target: Path) -> list[Operation]:
    """The file operations of a whole run."""
    assert interfered(directory, preload, RECORD=str(target)) == Outcome(0, "", "")
    return list(_operations(target.read_bytes()))


def _operations(text: bytes) -> Iterator[Operation]:
    place = 0
    while place < len(text):
        end = text.index(b"\n", place)
        call, descriptor, name, other, size, done = text[place:end].decode().split("\t")
        place = end + 1
        content = b""
        if call == "write" and done == "1":
            content = text[place : place + int(size)]
            place += int(size) + 1
        yield Operation(call, int(descriptor), name, other, int(size), done == "1", content)


# --- directories ----------------------------------------------------------------------------------


def fresh(directory: Path) -> Path:
    """Two load cases of two patterns."""
    cases = tiny_case(force=(9.0, -9.0, 5.0)), tiny_case(2, force=(-7.0, 8.0, 6.0))
    first = Path(directory, "first")
    return tiny(first, *cases, Sys_ComputationMode=1, Sys_MaxNumCompThreads=1)


def rerun(directory: Path) -> Path:
    """Load cases solved before under other loads and now requested anew, with element states,
    blended criteria and a level field."""
    first = Path(directory, "first")
    mesh = box("tet4", (1, 1, 1))
    model = Model(mesh.nodes, mesh.elements, [MATERIALS["yielding"]])
    model.set_level(np.linspace(-0.2, 1.0, 8))
    options = {"Sys_ComputationMode": 1, "Sys_MaxNumCompThreads": 1, "Sta_ResponseDumpFac": 0.5}
    written(first, model, pulled(mesh), pulled(mesh, 2), **options)
    run(first)
    written(first, model, pulled(mesh, force=(9, 1, 1)), pulled(mesh, 2, force=(2, 9, 2)))
    return first


def linked(directory: Path) -> Path:
    """The flags, a result that is there and one that isn't lie in another folder."""
    first = rerun(directory)
    inner = Path(first, "inner")
    inner.mkdir()
    for name in ("mxs.lcflags", "ws.disval.0001"):
        Path(first, name).rename(inner / name)
        Path(first, name).symlink_to(f"inner/{name}")
    Path(first, "ws.amsval.0002").unlink()
    Path(first, "ws.amsval.0002").symlink_to("inner/stress")
    return first


PREPARED: tuple[Callable[[Path], Path], ...] = (fresh, rerun, linked)


@dataclass(frozen=True)
class Prepared:
    """A directory to be copied, and its results before and after a whole run."""

    first: Path
    reference: Path
    before: dict[str, bytes]
    after: dict[str, bytes]


def prepared(directory: Path, prepare: Callable[[Path], Path]) -> Prepared:
    first, reference = prepare(directory), Path(directory, "reference")
    shutil.copytree(first, reference, symlinks=True)
    run(reference)
    return Prepared(first, reference, results(first), results(reference))


def copies(case: Prepared, directory: Path) -> Iterator[tuple[int, Path]]:
    """1, 2, 3, ... and a fresh copy for each, for as long as somebody asks."""
    for place in count(1):
        shutil.copytree(case.first, directory, symlinks=True)
        yield place, directory
        shutil.rmtree(directory)


# --- what may be left -----------------------------------------------------------------------------


def is_unfinished(name: str) -> bool:
    return "~" in name


def results(directory: Path) -> dict[str, bytes]:
    """Results and states, links to nothing left out."""
    paths = (p for p in directory.glob("ws.*") if not is_unfinished(p.name) and p.exists())
    return {path.name: path.read_bytes() for path in paths}


def check_whole(directory: Path, case: Prepared) -> list[int]:
    """Flags whole and in order, returned; each result absent, as it was, or whole and new."""
    flags, values = lcflags(directory)
    check_flags(flags)
    assert values == [0.0, 0.0]
    check_results(results(directory), flags, case)
    return flags


def check_flags(flags: list[int]) -> None:
    assert flags in ([REQUESTED, REQUESTED], [DONE, REQUESTED], [DONE, DONE])


def check_results(now: dict[str, bytes], flags: list[int], case: Prepared) -> None:
    assert set(now) <= set(case.after)
    for name in case.after:
        check_result(name, now.get(name), flags[int(name[-4:]) - 1] == DONE, case)


def check_result(name: str, now: bytes | None, done: bool, case: Prepared) -> None:
    """Of a load case that is done: whole and new. Otherwise: that, or as it was."""
    before, after = case.before.get(name), case.after[name]
    if now == before and not done:
        return
    assert now is not None, name
    assert len(now) == len(after), name
    same(words(now), words(after), 1e-3)


def words(data: bytes) -> npt.NDArray[np.float32]:
    """The file's content as reals; a count in front is a tiny one of them."""
    return np.frombuffer(data, "<f4")


def flags_of(content: bytes) -> list[int]:
    """Flags in the bytes of mxs.lcflags, which have to be whole."""
    number = struct.unpack_from("<i", content)[0]
    assert len(content) == 4 + 8 * number
    return list(struct.unpack_from(f"<{number}i", content, 4))
