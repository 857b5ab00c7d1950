"""A run that memory or threads are refused to ends told, or with the right results.

A sample of the requests; `refusals.py` refuses all of them.
"""

from __future__ import annotations

import resource
from collections.abc import Iterator
from pathlib import Path

import pytest
from models import STEEL, pulled, tiny, written
from oracle import simulate
from refusals import FROM_THERE, ONCE, Sweep, library, limited, refuse, sweep_of
from runs import BAD_RUN, compare_files, log_lines

from vkctl.directory.model import Model
from vkctl.shapes.boxes import box


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
