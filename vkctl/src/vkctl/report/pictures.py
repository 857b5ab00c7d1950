"""Pictures in the page, for paper and for browsers that can't draw the model themselves."""

from __future__ import annotations

import base64
import io
from collections.abc import Sequence
from pathlib import Path
from tempfile import TemporaryDirectory

from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.optimise.history import HistoryRow, draw_history
from vkctl.view.fields import TITLES, Field
from vkctl.view.plot import View, drawn

from .facts import CaseFacts
from .markup import picture

MOST_PICTURES = 12
_SIZE = (1000, 640)
_COLOURS = 200  # of a picture: enough for a scale, and a third of the bytes


def case_pictures(model: Model, cases: Sequence[CaseFacts]) -> str:
    """A picture of each of the first load cases, or of the bare part where none is solved."""
    pieces = []
    for case in cases[:MOST_PICTURES]:
        field: Field = "von_mises" if "von_mises" in case.fields else "magnitude"
        fields: dict[str, Array] = {
            name: case.fields[name] for name in case.fields if name == field
        }
        if case.displacement is not None:
            fields["displacement"] = case.displacement
        pixels = drawn(model, fields, View(field=field, size=_SIZE), case.title)
        pieces.append(picture("png", _png(pixels), f"{case.title}: {TITLES[field]}"))
    if not cases:
        pixels = drawn(model, {}, View(field="level", size=_SIZE), "the part")
        pieces.append(picture("png", _png(pixels), "The part"))
    return "\n".join(pieces)


def _png(pixels: Array) -> str:
    stream = io.BytesIO()
    images = need("PIL.Image")
    whole = images.fromarray(pixels)
    whole.quantize(_COLOURS, dither=images.Dither.NONE).save(stream, "PNG", optimize=True)
    return base64.b64encode(stream.getvalue()).decode()


def history_picture(rows: list[HistoryRow]) -> str:
    """The chart of an optimisation's steps."""
    with TemporaryDirectory() as folder:
        target = Path(folder, "history.png")
        draw_history(rows, target)
        data = base64.b64encode(target.read_bytes()).decode()
    return picture("png", data, "Objective, strain energies and volume over the steps")
