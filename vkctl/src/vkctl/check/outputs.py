"""Whether a run could write what it has to write."""

from __future__ import annotations

import os
import stat
from collections.abc import Iterator
from pathlib import Path

from vkctl.basics.failures import reason
from vkctl.directory import formats
from vkctl.directory.formats import file_names

from .findings import Finding, error
from .inputs import Inputs


def check_outputs(inputs: Inputs) -> Iterator[Finding]:
    """Findings on the directory and on what stands where the run's files would be."""
    if not os.access(inputs.directory, os.W_OK | os.X_OK):
        text = f"Nothing can be written in {inputs.directory}: a run would stop at its log."
        yield error("output-directory", text, "", "Is it yours, or on a disk that is read-only?")
        return
    yield from _place(inputs, formats.LOG_FILE)
    if inputs.to_run:
        yield from _place(inputs, file_names.LOAD_CASE_FLAGS)
    for number in inputs.to_run:
        for stem in file_names.RESULT_STEMS:
            if inputs.has_state or stem != file_names.ELEMENT_STATE_STEM:
                yield from _place(inputs, formats.numbered(stem, number))


def _place(inputs: Inputs, name: str) -> Iterator[Finding]:
    """A file or a device, behind links or not, that may be written, or nothing at all."""
    path = inputs.directory / name
    try:
        kind = os.stat(path).st_mode
    except FileNotFoundError:
        folder = Path(os.path.realpath(path)).parent
        if not os.access(folder, os.W_OK | os.X_OK):
            text = f"{name} is a link to where nothing can be written."
            yield error("output-place", text, name, "Remove it.")
        return
    except OSError as trouble:
        yield error("output-place", f"{name} can't be written: {reason(trouble)}.", name)
        return
    if not (stat.S_ISREG(kind) or stat.S_ISCHR(kind) or stat.S_ISBLK(kind)):
        text = f"{name} is no file: the run could not write it."
        yield error("output-place", text, name, "Remove it.")
    elif not os.access(path, os.W_OK):
        text = f"{name} is protected: the run could not write it."
        yield error("output-protected", text, name, "Allow writing it, or remove it.")
