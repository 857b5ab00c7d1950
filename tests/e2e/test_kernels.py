"""The instruction sets of the kernels: each solves alike, and the program tells which it takes."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from models import KINDS, part, pulled, written
from runs import solves, sstate, start

from vkctl.shapes.boxes import Kind

FLAGS = next(
    (
        set(line.split())
        for line in Path("/proc/cpuinfo").read_text().splitlines()
        if line.startswith("flags")
    ),
    set[str](),
)
WITHOUT_512 = "glibc.cpu.hwcaps=-AVX512F"
WITHOUT_256 = f"{WITHOUT_512},-AVX2"


def best(*left_alone: str) -> str:
    """The set that is left to the program."""
    features = FLAGS - set(left_alone)
    if not features >= {"avx2", "fma"}:
        return "portable"
    return "AVX-512" if features >= {"avx512f", "avx512dq", "avx512vl"} else "AVX2"


SETS = [("", best()), (WITHOUT_512, best("avx512f")), (WITHOUT_256, best("avx512f", "avx2"))]


@pytest.mark.parametrize(("tunables", "name"), SETS)
def test_the_program_tells_the_instruction_set_that_it_takes(tunables: str, name: str) -> None:
    told = start("--version", GLIBC_TUNABLES=tunables)
    assert told.out.endswith(f", kernels: {name}\n")


@pytest.mark.parametrize("kind", KINDS)
def test_every_instruction_set_solves_alike(tmp_path: Path, kind: Kind) -> None:
    model, mesh = part(kind)
    solutions = []
    for number, (tunables, _) in enumerate(SETS):
        directory = written(tmp_path / str(number), model, pulled(mesh))
        solves(directory, GLIBC_TUNABLES=tunables)
        solutions.append(sstate(directory, 1))
    for solution in solutions[1:]:
        np.testing.assert_allclose(solution, solutions[0], rtol=2e-5, atol=1e-9)
