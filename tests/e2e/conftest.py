"""The program under test: VK_RUND, by default the release build."""

from __future__ import annotations

import importlib.util
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

import program_under_test
import pytest

ROOT = Path(__file__).resolve().parents[2]
if importlib.util.find_spec("vkctl") is None:
    sys.path.insert(0, str(ROOT / "vkctl" / "src"))
sys.path.insert(0, str(Path(__file__).parent))
pytest.register_assert_rewrite("runs")

MEMORY = Path("/dev/shm")
ENOUGH = 1 << 30


@pytest.hookimpl(tryfirst=True)
def pytest_configure(config: pytest.Config) -> None:
    """Work in memory, where syncing a file costs nothing; `--basetemp` chooses another place."""
    if config.option.basetemp or not os.access(MEMORY, os.W_OK):
        return
    if shutil.disk_usage(MEMORY).free >= ENOUGH:
        config.option.basetemp = tempfile.mkdtemp(prefix="vk_e2e_", dir=MEMORY)
        config.add_cleanup(lambda: shutil.rmtree(config.option.basetemp, ignore_errors=True))


@pytest.fixture(scope="session", autouse=True)
def program() -> Path:
    """Path of the program, made absolute for helpers that read VK_RUND."""
    path = program_under_test.program()
    if not os.access(path, os.X_OK):
        pytest.exit(f"no program at {path}: build it, or tell its path in VK_RUND", 2)
    os.environ["VK_RUND"] = str(path)
    return path


def loaded_first(folder: Path, program: Path, source: str) -> str:
    """Value of LD_PRELOAD for a source of this folder; a sanitizer's run-time wants to be first."""
    target = folder / f"{source}.so"
    path = Path(__file__).with_name(source)
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-O1", "-shared", "-fPIC", "-o", target, path, "-ldl"], check=True)
    linked = subprocess.run(["ldd", program], capture_output=True, text=True, check=True).stdout
    return " ".join([*re.findall(r"=> (\S*/lib[at]san\S*)", linked), str(target)])


@pytest.fixture(scope="session")
def preload(tmp_path_factory: pytest.TempPathFactory, program: Path) -> str:
    """`file_operations.c`, for LD_PRELOAD."""
    return loaded_first(tmp_path_factory.mktemp("preload"), program, "file_operations.c")


@pytest.fixture(scope="session")
def register_preload(tmp_path_factory: pytest.TempPathFactory, program: Path) -> str:
    """`control_register.c`, for LD_PRELOAD."""
    return loaded_first(tmp_path_factory.mktemp("register"), program, "control_register.c")
