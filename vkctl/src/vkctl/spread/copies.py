"""The copy of a working directory that a unit runs on, where its worker is.

With a file system that both see, the copy lies in the directory itself, in `spread/`, and is made
of links; results are then moved to their place. Without, the files that all units share are sent
to each worker once, by the engine, and kept there by their content; those of one unit travel with
it.
"""

from __future__ import annotations

import hashlib
import os
import secrets
import shutil
from collections.abc import Iterable
from contextlib import suppress
from pathlib import Path

from vkctl.directory import formats
from vkctl.directory.formats import file_names

FOLDER = "spread"  # in the working directory
TOKEN = "token"  # in it: who can read what the user's own vkctl wrote there shares its disk
_STORE = "vkctl-files"  # in a worker's scratch folder

SHARED_FILES = (
    file_names.MATERIALS,
    file_names.NODES,
    file_names.ELEMENTS,
    file_names.NODE_FLAGS,
    file_names.ELEMENT_FLAGS,
    file_names.TP_INDEX,
    file_names.TP,
    file_names.STRUCTURE,
    file_names.LOAD_CASES,
)


def begin_sharing(directory: Path) -> str:
    """Make the folder for copies in a directory; the token that tells who sees it.

    Of an earlier run's copies goes what can go: workers that it left may be at it themselves.
    """
    folder = directory / FOLDER
    if folder.is_symlink():
        folder.unlink()
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(exist_ok=True)
    token = secrets.token_hex(16)
    formats.write_parts(folder / TOKEN, [token.encode()])
    return token


def end_sharing(directory: Path) -> None:
    shutil.rmtree(directory / FOLDER, ignore_errors=True)


def is_shared(directory: Path, token: str) -> bool:
    """Whether this process sees the directory that a token was left in."""
    try:
        return formats.read_regular(directory / FOLDER / TOKEN).decode() == token
    except (OSError, ValueError):
        return False


def inputs_of(directory: Path, load_cases: Iterable[int]) -> list[str]:
    """Names of the files that the runs of these load cases alone read, as far as they are there."""
    stems = (file_names.LOAD_CASE_MAP_STEM, *file_names.READ_BACK_STEMS)
    names = [formats.numbered(stem, number) for number in load_cases for stem in stems]
    return [name for name in names if formats.is_regular(directory / name)]


def results_of(folder: Path, load_case: int) -> list[str]:
    """Names of a load case's results in a folder, the totals last."""
    names = [formats.numbered(stem, load_case) for stem in file_names.RESULT_STEMS]
    return [name for name in names if formats.is_regular(folder / name)]


def link(source: Path, target: Path) -> None:
    """A second name of a file, or a copy where there can't be one; none is changed in place."""
    try:
        os.link(source, target)
    except FileNotFoundError:
        raise
    except OSError:
        shutil.copyfile(source, target)


def link_all(source: Path, target: Path, names: Iterable[str]) -> None:
    for name in names:
        with suppress(FileNotFoundError):  # the solver will tell what it misses
            link(source / name, target / name)


def digest_of(path: Path) -> str:
    return hashlib.sha256(formats.read_regular(path)).hexdigest()


def store_of(scratch: Path) -> Path:
    """The folder in which a worker keeps files that were sent, each under its digest."""
    folder = scratch / _STORE
    folder.mkdir(exist_ok=True)
    return folder


def new_folder(base: Path, key: str) -> Path:
    """An empty folder for a unit; each start of it has its own."""
    folder = base / f"{key}-{secrets.token_hex(4)}"
    folder.mkdir()
    return folder
