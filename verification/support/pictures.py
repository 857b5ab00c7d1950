"""Pictures of a case: its mesh, deformed, with a result on it, as `vkctl plot --edges` draws it."""

from __future__ import annotations

from collections.abc import Callable

from vkctl.basics.types import Array
from vkctl.directory.model import Model
from vkctl.directory.results import read_results
from vkctl.view.fields import Field, shown_fields
from vkctl.view.plot import View, drawn
from vkctl.view.scene import Direction

from . import solver
from .figures import Picture

_SIZE = (960, 600)


def picture(
    name: str,
    title: str,
    caption: str,
    build: Callable[[], Model],
    field: Field = "magnitude",
    direction: Direction | None = None,
    case: int = 1,
    scale: float | None = None,
) -> Picture:
    """Picture of a load case of a model that is built and solved when the picture is drawn."""

    def paint() -> Array:
        place = solver.Workplace(build())
        place.solve()
        fields = shown_fields(place.model, read_results(place.path, case), field)
        view = View(field, scale, edges=True, size=_SIZE, direction=direction)
        return drawn(place.model, fields, view, title)

    return Picture(name, caption, paint)
