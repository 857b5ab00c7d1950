"""Exports and pictures onto a full disk: a sentence, status 2, the old file whole."""

from __future__ import annotations

import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest
from PIL import Image
from results_on_disk import make_model, write_results

from vkctl.view.deformed import picture

pytestmark = pytest.mark.thorough

# A process whose files can't grow beyond a size: what a full disk does to it, with another reason.
LIMITED = """
import resource, sys
resource.setrlimit(resource.RLIMIT_FSIZE, (4000, 4000))
from vkctl.cli import app
app(sys.argv[1:])
"""


@pytest.fixture(scope="module")
def solved(tmp_path_factory: pytest.TempPathFactory) -> Path:
    directory = tmp_path_factory.mktemp("full") / "dir"
    write_results(make_model(), directory, (1, 2))
    return directory


@pytest.mark.parametrize("name", ["out.vtu", "out.stl", "out.png"])
def test_a_file_that_does_not_fit_ends_in_one_sentence_and_the_old_one_stays(
    solved: Path, tmp_path: Path, name: str
) -> None:
    target = tmp_path / name
    target.write_text("old")
    command = ["plot", solved, "-o", target] if name == "out.png" else ["export", solved, target]
    done = subprocess.run(
        [sys.executable, "-c", LIMITED, *map(str, command)],
        capture_output=True,
        text=True,
        check=False,
        timeout=300,
    )
    assert done.returncode == 2, done.stderr
    (line,) = done.stderr.splitlines()
    assert "larger than files may be here" in line and name in line
    assert target.read_text() == "old"
    assert [path.name for path in tmp_path.iterdir()] == [name]


def test_a_series_that_does_not_fit_leaves_no_half_step(solved: Path, tmp_path: Path) -> None:
    done = subprocess.run(
        [sys.executable, "-c", LIMITED, "export", str(solved), str(tmp_path / "all.pvd")],
        capture_output=True,
        text=True,
        check=False,
        timeout=300,
    )
    assert done.returncode == 2 and len(done.stderr.splitlines()) == 1, done.stderr
    assert not [path for path in tmp_path.rglob("*") if path.is_file()]


def test_pictures_are_drawn_into_the_file_whatever_link_has_its_name(
    solved: Path, tmp_path: Path
) -> None:
    (tmp_path / "precious").write_text("old")
    (tmp_path / "deformed.png").symlink_to(tmp_path / "precious")
    picture(solved, tmp_path / "deformed.png")
    assert (tmp_path / "precious").read_text() == "old"
    with Image.open(tmp_path / "deformed.png") as drawn:
        assert np.ptp(np.asarray(drawn.convert("L"))) > 100
