"""Arguments that several commands take."""

from __future__ import annotations

from pathlib import Path
from typing import Annotated

import typer

Directory = Annotated[Path, typer.Argument(..., help="working directory")]
Case = Annotated[int | None, typer.Option(..., help="load case; the first solved one if not given")]
AsJson = Annotated[bool, typer.Option(..., "--json", help="print the result as JSON")]
On = Annotated[
    str | None,
    typer.Option(
        ...,
        "--on",
        metavar="WHERE",
        help="workers that solve the constraint patterns side by side: local:N on this machine, "
        "tcp://HOST:PORT or tls://HOST:PORT of a Dask scheduler, or a cluster's name",
    ),
]
