"""The command `vkctl export`."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Case, Directory
from vkctl.terminal.refusal import refusing


def export_command(
    directory: Directory,
    out: Annotated[Path, typer.Argument(..., help="file to write: .vtu, .pvd or .stl")],
    case: Case = None,
    as_json: AsJson = False,
) -> None:
    """Write results as .vtu or as a .pvd series over load cases, or the part as .stl."""
    from vkctl.view.export import export

    with refusing(ValueError):
        files = export(directory, out, case)
    if as_json:
        output.print_json({"files": [str(path) for path in files]})
        return
    output.console().print(f"written: {', '.join(map(str, files))}", soft_wrap=True)
