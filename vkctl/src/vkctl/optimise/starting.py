"""Where the solver's iterations of a step begin: on the line through the two solutions before."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.formats import file_names

from . import history


def set_start_vectors(directory: Path, step: int, load_cases: Sequence[int]) -> None:
    """Write start vectors of a step that is to be solved.

    The solver begins with the displacements that its directory holds, those of the step before,
    which are kept first: repeated after a kill, this does the same. Load cases with element states
    begin as they are, since these belong to the displacements.
    """
    for number in load_cases if step > 1 else ():
        before = _kept(directory, step - 2, number)
        latest = _kept(directory, step - 1, number)
        if latest is None:
            latest = _keep(directory, step - 1, number)
        if latest is not None and before is not None and len(before) == len(latest):
            formats.write_displacements(directory, number, 2.0 * latest - before)
        history.displacements_file(directory, step - 3, number).unlink(missing_ok=True)


def _kept(directory: Path, step: int, number: int) -> Array | None:
    try:
        return history.load_array(history.displacements_file(directory, step, number))
    except FileNotFoundError:
        return None


def _keep(directory: Path, step: int, number: int) -> Array | None:
    """Displacements that a solved step has left, None where it has left none to begin with."""
    if Path(directory, formats.numbered(file_names.ELEMENT_STATE_STEM, number)).exists():
        return None
    try:
        found: Array = formats.read_displacements(directory, number).ravel()
    except FileNotFoundError:
        return None
    history.save_array(history.displacements_file(directory, step, number), found)
    return found.astype(float)
