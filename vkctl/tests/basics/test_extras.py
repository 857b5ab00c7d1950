"""Parts that an installation may lack: what is said, and what needs none of them."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest
from fake_solver import small_box
from typer.testing import CliRunner

from vkctl.basics.extras import MissingPartError, need
from vkctl.cli import app

runner = CliRunner()
HEAVY = (
    *("gmsh", "pyvista", "vtk", "vtkmodules", "matplotlib", "mpl_toolkits", "PIL"),
    *("distributed", "dask", "dask_jobqueue", "cryptography"),
)


@pytest.fixture
def bare(monkeypatch: pytest.MonkeyPatch) -> None:
    """An interpreter in which none of the heavy modules can be found."""
    for name in [n for n in sys.modules if n.partition(".")[0] in HEAVY]:
        monkeypatch.delitem(sys.modules, name)

    class Hidden:
        def find_spec(self, name: str, path: object = None, target: object = None) -> None:
            if name.partition(".")[0] in HEAVY:
                raise ModuleNotFoundError(f"No module named {name!r}", name=name)

    monkeypatch.setattr(sys, "meta_path", [Hidden(), *sys.meta_path])


def test_a_part_that_is_there_is_given() -> None:
    assert need("PIL.Image").__name__ == "PIL.Image"


@pytest.mark.parametrize(
    ("name", "words"),
    [
        ("gmsh", "Gmsh: pip install 'vkctl[mesh]'"),
        ("pyvista", "VTK and PyVista: pip install 'vkctl[view]'"),
        ("vtkmodules.vtkCommonCore", "VTK and PyVista: pip install 'vkctl[view]'"),
        ("matplotlib.pyplot", "Matplotlib: pip install 'vkctl[view]'"),
        ("PIL.Image", "Pillow: pip install 'vkctl[view]'"),
        ("distributed", "Dask: pip install 'vkctl[cluster]'"),
        ("dask_jobqueue", "Dask-Jobqueue: pip install 'vkctl[cluster]'"),
    ],
)
def test_a_missing_part_is_told_with_how_to_get_it(bare: None, name: str, words: str) -> None:
    with pytest.raises(MissingPartError) as caught:
        need(name)
    assert str(caught.value) == f"This needs {words}"


def test_a_broken_part_is_not_taken_for_a_missing_one(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    (tmp_path / "gmsh.py").write_text("import no_such_module_of_its_own\n")
    monkeypatch.syspath_prepend(tmp_path)
    monkeypatch.delitem(sys.modules, "gmsh", raising=False)
    with pytest.raises(ModuleNotFoundError, match="no_such_module_of_its_own"):
        need("gmsh")


def test_commands_refuse_in_one_sentence(bare: None, tmp_path: Path) -> None:
    small_box(tmp_path / "part")
    (tmp_path / "part.step").write_text("ISO-10303-21;\n")
    (tmp_path / "cases.toml").write_text(
        "part = 'part.step'\n[materials.m]\nE = 1.0\nnu = 0.3\n"
        "[supports.s]\nset = 'all'\n[loads.l]\ntype = 'gravity'\nvalue = [0, 0, 1]\n"
    )
    part, cases = str(tmp_path / "part"), str(tmp_path / "cases.toml")
    for words, arguments in (
        ("Gmsh", ["new", str(tmp_path / "part.step"), cases, str(tmp_path / "work")]),
        ("Dask", ["run", part, "--on", "local:2"]),
        ("VTK and PyVista", ["export", part, str(tmp_path / "out.vtu")]),
        ("VTK and PyVista", ["optimise", cases, str(tmp_path / "work")]),
        ("Gmsh", ["optimise", "--no-pictures", cases, str(tmp_path / "work")]),
    ):
        result = runner.invoke(app, arguments)
        assert result.exit_code == 2, (arguments, result.output, result.exception)
        assert result.stderr.startswith(f"This needs {words}: pip install ")
        assert result.stderr.count("\n") == 1


def test_no_module_of_the_package_imports_a_heavy_part() -> None:
    source = (
        "import importlib, pkgutil, sys, vkctl\n"
        "for found in pkgutil.walk_packages(vkctl.__path__, 'vkctl.'):\n"
        "    if found.name != 'vkctl.__main__':\n"
        "        importlib.import_module(found.name)\n"
        f"print(sorted({set(HEAVY)!r} & set(sys.modules)))\n"
    )
    done = subprocess.run(
        [sys.executable, "-c", source], capture_output=True, text=True, env=os.environ, check=True
    )
    assert done.stdout.strip() == "[]"
