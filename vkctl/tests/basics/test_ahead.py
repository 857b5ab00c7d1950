"""Modules that are loaded beside something else."""

from __future__ import annotations

import sys
import threading
from importlib import import_module

import pytest

from vkctl.basics.ahead import load_ahead


def _loaded(name: str) -> None:
    load_ahead(name)
    for thread in threading.enumerate():
        if thread.name == f"loading {name}":
            thread.join()


def test_a_module_is_there_once_its_thread_has_ended(
    monkeypatch: pytest.MonkeyPatch, tmp_path
) -> None:
    (tmp_path / "heavy_module.py").write_text("weight = 7\n")
    monkeypatch.syspath_prepend(tmp_path)
    _loaded("heavy_module")
    assert sys.modules.pop("heavy_module").weight == 7


def test_a_module_that_fails_is_told_to_what_imports_it_alone(
    monkeypatch: pytest.MonkeyPatch, tmp_path, capfd: pytest.CaptureFixture[str]
) -> None:
    (tmp_path / "broken_module.py").write_text("raise ValueError('broken')\n")
    monkeypatch.syspath_prepend(tmp_path)
    _loaded("broken_module")
    assert capfd.readouterr() == ("", "")
    with pytest.raises(ValueError, match="broken"):
        import_module("broken_module")
