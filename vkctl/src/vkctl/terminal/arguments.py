"""Arguments that several commands take."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

Directory = Annotated[Path, typer.Argument(..., help="working directory")]
Case = Annotated[int | None, typer.Option(..., help="load case; the first solved one if not given")]
AsJson = Annotated[bool, typer.Option(..., "--json", help="print the result as JSON")]
