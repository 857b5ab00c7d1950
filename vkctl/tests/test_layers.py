"""The rooms of the package import downwards, without circles; a planted offence is found."""

from __future__ import annotations

import importlib.util
from pathlib import Path
from types import ModuleType

import pytest

import vkctl

RULE = Path(__file__).resolve().parents[2] / "scripts" / "check_imports.py"


@pytest.fixture(scope="module")
def rule() -> ModuleType:
    spec = importlib.util.spec_from_file_location("check_imports", RULE)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def planted(directory: Path, files: dict[str, str]) -> Path:
    """A package of these files, every folder with an __init__."""
    for name, text in {"__init__.py": "", **files}.items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        (path.parent / "__init__.py").touch()
        path.write_text(text)
    return directory


def test_the_rooms_import_downwards(rule: ModuleType) -> None:
    source = Path(vkctl.__file__).parent
    assert rule.offences(source) == []
    rooms = {path.name for path in source.iterdir() if (path / "__init__.py").exists()}
    assert rooms == set(rule.LAYERS)


@pytest.mark.parametrize(
    "text",
    [
        "from vkctl.check import findings\n",
        "from ..check.findings import Finding\n",
        "import vkctl.check.findings\n",
        "def late():\n    from vkctl.check.findings import Finding\n",
        "from typing import TYPE_CHECKING\nif TYPE_CHECKING:\n    from ..check import findings\n",
    ],
)
def test_an_import_of_a_room_above_is_found(rule: ModuleType, tmp_path: Path, text: str) -> None:
    source = planted(tmp_path, {"shapes/faces.py": text, "check/findings.py": "Finding = int\n"})
    assert "shapes.faces: check.findings lies above it" in rule.offences(source)


def test_a_circle_inside_a_room_is_found(rule: ModuleType, tmp_path: Path) -> None:
    files = {
        "shapes/a.py": "from .b import x\n",
        "shapes/b.py": "def late():\n    from . import c\n",
        "shapes/c.py": "from vkctl.shapes import a\n",
    }
    source = planted(tmp_path, files)
    assert rule.offences(source) == ["circle: shapes.a -> shapes.b -> shapes.c -> shapes.a"]


def test_a_room_without_a_layer_is_found(rule: ModuleType, tmp_path: Path) -> None:
    source = planted(tmp_path, {"attic/box.py": ""})
    assert "attic.box: its room is no layer" in rule.offences(source)
