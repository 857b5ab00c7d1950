"""Fixtures that tests of several rooms take; helpers lie beside this file."""

from __future__ import annotations

import os
import shutil
import signal
import sys
from pathlib import Path

import numpy as np
import pytest
from fake_solver import small_box
from new_parts import brick, plate
from small_loops import TWO_CASES, VK_RUND, write_small
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.optimise.pictures import beside

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tools"))

# What is printed is read as it comes without a terminal, whatever those who start the tests have.
for name in ("FORCE_COLOR", "NO_COLOR", "TTY_COMPATIBLE", "TTY_INTERACTIVE", "COLUMNS", "LINES"):
    os.environ.pop(name, None)

# Tests that a shell started in the background ignore Ctrl-C, and so would what they start.
if signal.getsignal(signal.SIGINT) is signal.SIG_IGN:
    signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture
def pair(tmp_path):
    """Two equal directories with results of two load cases, 16 nodes, 18 elements."""
    first = tmp_path / "first"
    small_box(first)
    for number in (1, 2):
        totals = np.zeros(1, formats.TOTALS)[0]
        totals["LoadCase"], totals["Kind"], totals["ARQua"] = number, 1, 1.0
        totals["SEner"], totals["R"] = 2.0, (0, 0, -4.0)
        formats.write_totals(first, number, totals)
        shift = np.linspace(0, 1, 48).reshape(16, 3)
        formats.write_displacements(first, number, shift)
        formats.write_magnitude(first, number, np.linalg.norm(shift, axis=1))
        formats.write_stress(first, number, np.linspace(-2, 3, 16))
        formats.write_criterion(first, number, np.linspace(1, 2, 5))
        formats.write_element_state(first, number, np.ones(18))
    second = tmp_path / "second"
    shutil.copytree(first, second)
    return first, second


@pytest.fixture(scope="module")
def block(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return brick(tmp_path_factory.mktemp("block"), "hex8") / "part.msh"


@pytest.fixture(scope="module")
def curved(tmp_path_factory: pytest.TempPathFactory) -> Path:
    return plate(tmp_path_factory.mktemp("plate"))


@pytest.fixture(scope="module")
def drawn(tmp_path_factory: pytest.TempPathFactory) -> tuple[Path, str]:
    """Folder of a loop of four steps run by the command, and what it printed."""
    folder = tmp_path_factory.mktemp("drawn")
    cases = write_small(folder, "reduction = 0.15\n", TWO_CASES)
    command = ["optimise", str(cases), str(folder / "d"), "--volume", "0.6", "--steps", "4"]
    with pytest.MonkeyPatch.context() as patch:
        # On a busy machine too all frames are drawn: within 10 s beside, or after the loop.
        patch.setattr(beside, "_LEAST", 600.0)
        patch.setattr(beside, "_PATIENCE", -590.0)
        shown = CliRunner().invoke(app, [*command, "--vk-rund", str(VK_RUND)])
    assert shown.exit_code == 0, shown.output
    return folder / "d" / "optimise", shown.output


@pytest.fixture
def directory(tmp_path):
    target = tmp_path / "part"
    small_box(target)
    return target
