"""`vkctl new` on parts that are too large or take long: told first, ended when asked."""

from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from vkctl.prepare.part import MeshOptions
from vkctl.prepare.readers.element_count import Extents, Face, expected, fitting_size

CASES = """
[mesh]
size = {size}
order = 1
[materials.steel]
E = 210000.0
nu = 0.3
[supports.clamp]
set = "surface:1"
"""
PATIENCE = 300  # seconds that nothing takes unless it hangs


Command = Callable[..., subprocess.Popen[str]]


@pytest.fixture
def command(tmp_path: Path) -> Iterator[Command]:
    """Starts `vkctl new` of a cube, which ends with the test; its temporary files go into tmp."""
    started: list[subprocess.Popen[str]] = []

    def start(edge: float, size: float) -> subprocess.Popen[str]:
        (tmp_path / "tmp").mkdir()
        script = f'SetFactory("OpenCASCADE");\nBox(1) = {{0, 0, 0, {edge}, {edge}, {edge}}};\n'
        (tmp_path / "cube.geo").write_text(script)
        (tmp_path / "cases.toml").write_text(CASES.format(size=size))
        names = [str(tmp_path / name) for name in ("cube.geo", "cases.toml", "run")]
        process = subprocess.Popen(
            [sys.executable, "-m", "vkctl", "new", *names],
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            env={**os.environ, "TMPDIR": str(tmp_path / "tmp")},
        )
        started.append(process)
        return process

    yield start
    for process in started:
        process.kill()
        process.wait()


def children(process: int) -> list[int]:
    text = Path(f"/proc/{process}/task/{process}/children").read_text()
    return [int(word) for word in text.split()]


def is_running(process: int) -> bool:
    try:
        state = Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0]
    except OSError:
        return False
    return state not in "ZX"


def wait_for_the_end_of(process: int) -> None:
    until = time.monotonic() + PATIENCE
    while is_running(process):
        assert time.monotonic() < until, "the reading process outlives its parent"
        time.sleep(0.02)


def left_behind(folder: Path) -> list[str]:
    """What there is besides the inputs and the empty folder for temporary files."""
    given = {"cube.geo", "cases.toml", "tmp"}
    return [str(path) for path in folder.rglob("*") if path.name not in given]


def test_a_part_of_200_metres_in_sizes_of_10_is_refused_with_the_size_that_fits(
    command: Command, tmp_path: Path
) -> None:
    out, error = command(200_000.0, 10.0).communicate(timeout=PATIENCE)
    (line,) = error.splitlines()
    assert "elements of size 10 at most expected" in line and "--no-limits" in line
    found = re.search(r"size = ([0-9.e+]+) in \[mesh\] would fit", line)
    assert found is not None and 100 < float(found[1]) < 100_000
    assert not out and not left_behind(tmp_path)


def test_what_is_expected_is_told_before_it_is_meshed(command: Command, tmp_path: Path) -> None:
    process = command(10.0, 2.0)
    out, error = process.communicate(timeout=PATIENCE)
    assert process.returncode == 0, error
    found = re.search(r"about ([0-9,]+) elements of size 2 at most expected", error)
    made = re.search(r"([0-9]+) elements", out)
    assert found is not None and made is not None
    assert float(found[1].replace(",", "")) == pytest.approx(float(made[1]), rel=0.5)
    assert not list((tmp_path / "tmp").iterdir())


@pytest.mark.parametrize(
    ("number", "words"), [(signal.SIGINT, "Interrupted"), (signal.SIGTERM, "Terminated")]
)
def test_a_long_meshing_ends_when_asked_and_leaves_nothing(
    command: Command, tmp_path: Path, number: signal.Signals, words: str
) -> None:
    process = command(10.0, 0.1)
    assert process.stderr is not None
    assert process.stderr.readline().startswith("about ")
    (worker,) = children(process.pid)
    time.sleep(0.5)  # into the meshing
    process.send_signal(number)
    _, error = process.communicate(timeout=PATIENCE)
    assert process.returncode == 128 + number, error
    assert error == f"{words}: nothing is written.\n"
    wait_for_the_end_of(worker)
    assert not left_behind(tmp_path)


def test_the_meshing_ends_with_a_command_that_is_killed(command: Command) -> None:
    process = command(10.0, 0.1)
    assert process.stderr is not None
    assert process.stderr.readline().startswith("about ")
    (worker,) = children(process.pid)
    process.kill()
    process.communicate(timeout=PATIENCE)
    wait_for_the_end_of(worker)


def test_the_size_that_fits_fits_and_half_of_it_does_not() -> None:
    cube = Extents(1e6, tuple(Face(1e4) for _ in range(6)))
    options = MeshOptions(order=2)
    size = fitting_size(cube, 0.1, options, 1e9)
    assert size is not None
    assert expected(cube, size, options).bytes <= 1e9 < expected(cube, size / 2, options).bytes


def test_no_size_fits_where_curvature_demands_more_than_there_is() -> None:
    pipe = Extents(1e6, (Face(1e4, radius=1e-3),))
    options = MeshOptions(per_circle=100)
    assert fitting_size(pipe, 1.0, options, 1e9) is None
    assert fitting_size(pipe, 1.0, MeshOptions(), 1e9) is not None
