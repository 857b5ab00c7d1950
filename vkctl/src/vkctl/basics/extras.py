"""Heavy parts that an installation may go without, loaded where they are needed."""

from __future__ import annotations

import importlib
import importlib.util
from types import ModuleType

# Module: how it is called in a sentence, and the extra of the package that brings it.
_PARTS = {
    "gmsh": ("Gmsh", "mesh"),
    "pyvista": ("VTK and PyVista", "view"),
    "vtk": ("VTK and PyVista", "view"),
    "vtkmodules": ("VTK and PyVista", "view"),
    "matplotlib": ("Matplotlib", "view"),
    "mpl_toolkits": ("Matplotlib", "view"),
    "PIL": ("Pillow", "view"),
    "distributed": ("Dask", "cluster"),
    "dask": ("Dask", "cluster"),
    "dask_jobqueue": ("Dask-Jobqueue", "cluster"),
    "cryptography": ("cryptography", "cluster"),
    "duckdb": ("DuckDB", "study"),
}


class MissingPartError(Exception):
    """A part of the companion isn't installed; the text says how to get it."""


def check_installed(name: str) -> None:
    """MissingPartError where the package of the module `name` can't be found; nothing is loaded."""
    package = name.partition(".")[0]
    try:
        found = importlib.util.find_spec(package) is not None
    except ModuleNotFoundError:
        found = False
    if not found:
        raise _missing(package)


def need(name: str) -> ModuleType:
    """The module `name`, or MissingPartError where its package isn't installed."""
    package = name.partition(".")[0]
    try:
        return importlib.import_module(name)
    except ModuleNotFoundError as error:
        if error.name is None or error.name.partition(".")[0] not in _PARTS:
            raise
        raise _missing(package) from None


def _missing(package: str) -> MissingPartError:
    title, extra = _PARTS[package]
    return MissingPartError(f"This needs {title}: pip install 'vkctl[{extra}]'")
