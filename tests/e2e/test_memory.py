"""A run that memory or threads are refused to ends told, or with the right results.

A sample of the requests; `refusals.py` refuses all of them.
"""

from __future__ import annotations

import resource
from collections import Counter
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

import numpy as np
import pytest
from models import STEEL, pulled, random, tiny, written
from oracle import simulate
from refusals import FROM_THERE, ONCE, Sweep, library, limited, refuse, sweep_of
from runs import BAD_RUN, compare_files, comval, log_lines, same, sstate

from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.boxes import Kind, box
from vkctl.shapes.elements import Elements


@pytest.fixture(scope="module", autouse=True)
def unsanitized(program) -> None:
    """A sanitizer brings an allocator of its own, which nothing is refused to from outside."""
    code = Path(program).read_bytes()
    if b"__asan_init" in code or b"__tsan_init" in code:
        pytest.skip("the sanitizer's allocator is not the system's")


@pytest.fixture(scope="module")
def shim(tmp_path_factory) -> Path:
    return library(tmp_path_factory.mktemp("shim"))


@pytest.fixture(scope="module", params=[(1, 1), (1, 2), (2, 1), (2, 2)], ids=str)
def sweep(request, tmp_path_factory, program, shim) -> Sweep:
    return sweep_of(program, tmp_path_factory.mktemp("sweep"), shim, *request.param)


@pytest.mark.parametrize("how", [ONCE, FROM_THERE])
def test_a_run_that_memory_is_refused_to_ends_told_or_with_the_right_results(sweep, how):
    """Every request of a sample; the sample is another one for each way and number of threads."""
    step = 19 if how == ONCE else 23
    place = 1
    while True:
        end, wrong, _ = sweep.refusing(how, place)
        if not end.refused:
            break
        assert not wrong, f"place {place}: {wrong}, {end.err}"
        place += step
    assert place > 150, "hardly anything was refused"


def test_a_run_without_any_memory_says_so(sweep):
    end, wrong, last = sweep.refusing(FROM_THERE, 60)
    assert not wrong
    assert last == "Error<Msg:Error allocating arrays.>"
    assert end.err.splitlines()[-1].startswith("1010: Error allocating arrays.")


@pytest.fixture
def few_addresses(program) -> Iterator[None]:
    """A limit that is far, but is one: threads are tried before the team is started."""
    old = resource.getrlimit(resource.RLIMIT_AS)
    resource.setrlimit(resource.RLIMIT_AS, (1 << 40, old[1]))
    yield
    resource.setrlimit(resource.RLIMIT_AS, old)


@pytest.mark.parametrize("mode", [1, 2])
@pytest.mark.usefixtures("few_addresses")
def test_a_run_makes_do_with_the_threads_that_it_can_have(tmp_path, program, shim, mode):
    directory = tiny(tmp_path / "work", Sys_MaxNumCompThreads=2, Sys_ComputationMode=mode)
    expected = simulate(directory)
    end = refuse(program, directory, shim, REFUSE_AT=1, REFUSE_ONLY="t")
    assert (end.status, end.err, end.refused) == (0, "", True)
    compare_files(directory, expected)


def test_a_thread_that_is_refused_unexpectedly_ends_the_run_told(tmp_path, program, shim):
    directory = tiny(tmp_path / "work", Sys_MaxNumCompThreads=2, Sys_ComputationMode=1)
    end = refuse(program, directory, shim, REFUSE_FROM=1, REFUSE_ONLY="t")
    assert end.refused
    assert end.status == BAD_RUN & 0xFF
    assert log_lines(directory)[-1].startswith("Error<Msg:")
    assert "1010: " in end.err


@pytest.fixture
def to_be_loaded(program: Path) -> int:
    """Megabytes of addresses that program and libraries take before anything is done.

    oneMKL is part of the program, the open libraries stand beside it.
    """
    return max(80, (program.stat().st_size >> 20) + 8)


@pytest.mark.parametrize("beyond", [*range(15, 170, 12), *range(180, 440, 40)])
def test_a_factor_beyond_the_address_space_is_an_error_of_the_direct_solver(
    tmp_path, program, to_be_loaded, beyond
):
    """In automatic mode the run goes on without it."""
    mesh = box("hex8", (16, 16, 16), (16.0, 16.0, 16.0))
    model = Model(mesh.nodes, mesh.elements, [STEEL])
    directory = written(tmp_path / "work", model, pulled(mesh), Sys_MaxNumCompThreads=2)
    end = limited(program, directory, to_be_loaded + beyond)
    lines = log_lines(directory)
    if end.status == 0:
        refused = any(line.endswith("error. Not enough memory.>") for line in lines)
        assert f"Info<Msg:IMode: {1 if refused else 2}>" in lines
        assert lines[-1] == "Info<Msg:Tool.vk_rund.End >"
    else:
        # Less than the model itself takes.
        assert end.status == BAD_RUN & 0xFF
        assert lines[-1].startswith("Error<Msg:Error allocating")
        assert not any(line.startswith("Info<Msg:EstDecMemReq") for line in lines)


# --- the copy of the matrix in blocks ------------------------------------------------------------

# Values of a triangle of it: blocks of nine, and one more. Nothing else asks for as many twice.
BLOCK, MORE = 72, 8
# Vectors of the iteration on the copy, and of the plain sweeps.
COPY_VECTORS, PLAIN_VECTORS = 7, 4
SHUFFLED_CELLS: dict[Kind, tuple[int, int, int]] = {
    "tet4": (9, 8, 7),
    "hex8": (9, 8, 7),
    "tet10": (5, 4, 3),
}
# State files hold single precision: one unit in the last place of the largest.
STATE_ROUNDING = 2.0**-23


@dataclass(frozen=True)
class Solve:
    """What a run says of its solve, and the bytes of the arrays that it asked for."""

    count: int
    quality: float
    displacements: np.ndarray
    sizes: Counter[int]


def shuffled(kind: Kind, directory: Path, threads: int) -> Path:
    """A box of solid and void with some components of some nodes fixed, solved iteratively.

    The order of the nodes is one of chance, as that of no mesh is: levels are wide then, so that
    a team finds work in each.
    """
    mesh = box(kind, SHUFFLED_CELLS[kind], (3.0, 2.0, 1.5), distortion=0.1)
    chance = random(3)
    place = chance.permutation(len(mesh.nodes))  # [node] its new number, from 0
    points = np.empty_like(mesh.nodes)
    points[place] = mesh.nodes
    table = place[getattr(mesh.elements, kind) - 1] + 1
    model = Model(points, Elements.from_tables(**{kind: table}), [STEEL])
    solid = np.sin(4.0 * points).prod(axis=1) > -0.2
    model.set_level(np.where(solid, 1.0, -1.0) * chance.uniform(0.2, 1.0, len(points)))
    case = LoadCase(pattern=1)
    for direction, share in (("x", 1), ("y", 2), ("yz", 5)):
        case.prescribe(place[mesh.face("x-") - 1][::share] + 1, direction)
    inside = np.setdiff1d(np.arange(len(points)) + 1, place[mesh.face("x-") - 1] + 1)[::29]
    for direction, nodes in zip(("y", "xz", "z"), np.array_split(inside, 3), strict=True):
        case.prescribe(nodes, direction, (1e-3, -2e-3, 3e-3))
    case.load(place[mesh.face("x+") - 1] + 1, (1.0, 2.0, -3.0))
    options = {"Sys_ComputationMode": 1, "Sys_MaxNumCompThreads": threads}
    return written(directory, model, case, **options)


def solved(program: Path, directory: Path, shim: Path, refused_bytes: int = 0) -> Solve:
    sizes = directory.with_suffix(".sizes")
    end = refuse(program, directory, shim, REFUSE_SIZES=str(sizes), REFUSE_BYTES=refused_bytes)
    assert (end.status, end.err, end.refused) == (0, "", refused_bytes > 0)
    (count,) = (line for line in log_lines(directory) if line.startswith("Info<Msg:ICount: "))
    return Solve(
        int(count.removeprefix("Info<Msg:ICount: ").removesuffix(">")),
        comval(directory, 1)[0],
        sstate(directory, 1),
        Counter(np.fromfile(sizes, "<i8").tolist()),
    )


@pytest.mark.parametrize("threads", [1, 2, 3, 16])
@pytest.mark.parametrize("kind", SHUFFLED_CELLS)
def test_plain_sweeps_agree_with_those_on_the_copy_of_the_matrix_that_is_refused(
    tmp_path, program, shim, kind, threads
):
    """Count and quality to the digit, displacements to what their files hold.

    What the runs ask memory for tells that they were solved in two ways.
    """
    fast = solved(program, shuffled(kind, tmp_path / "fast", threads), shim)
    triangle = max(n for n, times in fast.sizes.items() if n % BLOCK == MORE and times == 2)
    plain = solved(program, shuffled(kind, tmp_path / "plain", threads), shim, triangle)
    assert max((fast.sizes - plain.sizes).values()) >= COPY_VECTORS
    assert max((plain.sizes - fast.sizes).values()) == PLAIN_VECTORS
    assert (plain.count, plain.quality) == (fast.count, fast.quality)
    assert plain.count > 20
    assert plain.quality == 1.0
    same(plain.displacements, fast.displacements, STATE_ROUNDING)
