"""The four commands from a STEP file to a report, typed as the page has them, in a real browser."""

from __future__ import annotations

import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest
import tutorial
from program_under_test import program

from vkctl.ask import extremes, open_study, reactions, regions, solutions
from vkctl.ask.extremes import case_fields

pytestmark = pytest.mark.thorough

ROOT = Path(__file__).resolve().parents[3]
EXAMPLES = ROOT / "vkctl" / "examples"
PAGE = ROOT / "docs" / "first-report.md"


@pytest.fixture(scope="module")
def folder(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The reader's folder when the page is to be opened."""
    directory = tmp_path_factory.mktemp("link")
    shutil.copy(EXAMPLES / "link.step", directory)
    (directory / "link.toml").write_text("".join(tutorial.blocks(PAGE, "toml")))
    for command in tutorial.commands(PAGE)[:-1]:
        name, *arguments = command.split()
        assert name == "vkctl"
        known = {"VK_RUND": str(program()), "PATH": "/usr/bin:/bin"}
        done = subprocess.run(
            [sys.executable, "-m", "vkctl", *arguments],
            cwd=directory,
            env=known,
            capture_output=True,
            text=True,
        )
        assert done.returncode == 0, f"{command}\n{done.stdout}{done.stderr}"
    return directory


def test_it_takes_four_commands_and_the_last_opens_what_the_third_wrote() -> None:
    commands = tutorial.commands(PAGE)
    assert len(commands) == 4
    assert commands[2].split()[-1] == commands[3].split()[-1]


def test_its_case_file_is_that_of_the_example() -> None:
    assert "".join(tutorial.blocks(PAGE, "toml")) == (EXAMPLES / "link.toml").read_text()


def test_the_peak_is_that_of_a_plate_with_a_hole_and_the_reactions_balance(folder: Path) -> None:
    """The factor of a hole of 16 in a plate of 40 on the mean stress beside it, by the formula."""
    study = open_study(folder / "work")
    pull = next(solutions(study))
    [peak] = extremes(
        study.model, case_fields(study.model, pull), regions(study.model)[:1], ["von_mises"]
    )
    s = 1 - 16 / 40
    wanted = (2 + 0.284 * s - 0.6 * s**2 + 1.32 * s**3) * 12000 / (24 * 8)
    assert peak.value == pytest.approx(wanted, rel=0.02)
    assert abs(peak.place[0] - 60) < 2
    found = reactions(study.model, pull)
    assert found.total.force == pytest.approx((-12000.0, 0.0, 0.0), abs=0.1)


def test_the_report_says_what_the_page_says(folder: Path) -> None:
    report = (folder / "link.html").read_text(encoding="utf-8")
    words = re.sub(r"<[^>]*>|\s+", " ", report)
    shown = PAGE.read_text()
    for number in ("165.4 MPa", "2.147"):
        assert number in shown
    found = re.search(r"largest von Mises stress\s+([\d.]+) MPa", words)
    assert found is not None
    assert float(found[1]) == pytest.approx(165.4, rel=0.02)
    safety = re.search(r"least safety factor\s+([\d.]+)", words)
    assert safety is not None
    assert float(safety[1]) == pytest.approx(355 / float(found[1]), rel=1e-3)
