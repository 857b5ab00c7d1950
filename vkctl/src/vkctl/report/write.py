"""The report of a working directory: one page that opens anywhere, years later."""

from __future__ import annotations

from dataclasses import dataclass
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.directory import formats

from .compose import Wanted, make_report


@dataclass(frozen=True)
class Written:
    """The page that was written."""

    path: Path
    bytes: int
    triangles: int  # drawn
    found: int  # of the part's surface


def write_report(directory: PathLike, out: PathLike, wanted: Wanted | None = None) -> Written:
    """Write the report of `directory` to `out`, replacing it as a whole.

    FileNotFoundError or FormatError without a model that can be read, ValueError for a safety
    factor where no material has a yield stress; what else is missing the report tells.
    """
    page, scene = make_report(directory, wanted or Wanted())
    data = page.encode()
    formats.write_parts(out, [data])
    drawn, found = (scene.triangles, scene.found) if scene else (0, 0)
    return Written(Path(out), len(data), drawn, found)
