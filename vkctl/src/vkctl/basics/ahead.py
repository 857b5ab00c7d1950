"""Modules that take long to load, loaded while something else is waited for."""

from __future__ import annotations

from contextlib import suppress
from importlib import import_module
from threading import Thread


def load_ahead(module: str) -> None:
    """Load a module on a thread. What imports it first waits for that, and is told what fails."""
    Thread(target=_load, args=(module,), name=f"loading {module}").start()


def _load(module: str) -> None:
    with suppress(Exception):
        import_module(module)
