"""One version: the build's, which program, companion and distribution tell."""

import re
import subprocess
from importlib.metadata import version
from pathlib import Path

from program_under_test import program
from typer.testing import CliRunner

import vkctl
from vkctl.cli import app

ROOT = Path(__file__).parents[2]


def test_program_companion_and_distribution_agree():
    build = re.search(r"project\(vk_rund VERSION ([0-9.]+) ", (ROOT / "CMakeLists.txt").read_text())
    assert build is not None
    told = subprocess.run([program(), "--version"], capture_output=True, text=True, check=True)
    assert told.stdout.startswith(f"vk_rund {build[1]}, ")
    assert version("vkctl") == vkctl.__version__ == build[1]
    assert CliRunner().invoke(app, ["--version"]).stdout == f"vkctl {build[1]}\n"
