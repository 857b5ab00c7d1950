"""What the page shows beside its tables: curves, and pictures of meshes with their results."""

from __future__ import annotations

import textwrap
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np
from PIL import Image

from vkctl.basics.types import Array

if TYPE_CHECKING:
    from matplotlib.axes import Axes

_COLOURS = 128  # of a picture's palette: a third of the bytes, and no difference to be seen
_WIDE = 4  # curves from which the key stands beside the plot


@dataclass
class Figure:
    """Curves: label to (x, y); a label that starts with "slope" or "reference" is drawn thin."""

    name: str
    x_label: str
    y_label: str
    curves: Mapping[str, tuple[Sequence[float], Sequence[float]]]
    caption: str
    logarithmic: str = "xy"  # the axes that are

    def rounded(self) -> dict[str, list[list[float]]]:
        """The curves without what round-off changes from run to run."""
        return {
            label: [[float(f"{v:.4g}") for v in axis] for axis in curve]
            for label, curve in self.curves.items()
        }

    def draw(self, path: Path) -> None:
        _draw_curves(self, self.rounded(), path)


_SIZE, _SIZE_WITH_KEY = (7.6, 4.6), (9.6, 4.6)
_WORDS_ALONG, _WORDS_UP = 60, 36  # letters of a line of an axis' label
_FEW_DECADES = 150.0  # ratio of an axis' ends
_STYLE: dict[str, Any] = {
    "font.size": 12,
    "axes.labelsize": 13,
    "legend.fontsize": 11,
    "figure.dpi": 130,
    "lines.markersize": 5,
}


def _draw_curves(figure: Figure, data: dict[str, list[list[float]]], path: Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    with plt.style.context(_STYLE):
        wide = len(data) >= _WIDE
        drawn, axes = plt.subplots(figsize=_SIZE_WITH_KEY if wide else _SIZE, layout="constrained")
        colours: dict[str, str] = {}
        for label, (x, y) in data.items():
            kind, _, variant = label.partition(", ")
            if kind.startswith(("slope", "reference")):
                style = "k:" if label.endswith(("1", "3")) else "k-."
                axes.plot(x, y, style, lw=1.2, label=label)
                continue
            style = "s--" if variant and kind in colours else "o-"  # variants share a colour
            colour = colours.setdefault(kind, f"C{len(colours)}")
            axes.plot(x, y, style, color=colour, lw=1.6, label=label)
        for name in figure.logarithmic:
            _make_logarithmic(axes, name)
        axes.set_xlabel(textwrap.fill(figure.x_label, _WORDS_ALONG))
        axes.set_ylabel(textwrap.fill(figure.y_label, _WORDS_UP))
        axes.grid(True, which="major", lw=0.5)
        axes.grid(True, which="minor", lw=0.2)
        if wide:
            drawn.legend(loc="outside right upper")
        else:
            axes.legend()
        drawn.savefig(path, metadata={"Software": None})
        plt.close(drawn)


def _make_logarithmic(axes: Axes, name: str) -> None:
    """Ticks at 1, 2 and 5 where there would be few at powers of ten, in plain numbers."""
    from matplotlib.ticker import FuncFormatter, LogLocator, NullFormatter

    getattr(axes, f"set_{name}scale")("log")
    axis = getattr(axes, f"{name}axis")
    low, high = axis.get_view_interval()
    axis.set_minor_formatter(NullFormatter())
    if high / low < _FEW_DECADES:
        axis.set_major_locator(LogLocator(subs=(1.0, 2.0, 5.0)))
        axis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))


@dataclass
class Picture:
    """A mesh with its result. `paint` gives the pixels, called where they are wanted."""

    name: str
    caption: str
    paint: Callable[[], Array] | None

    def draw(self, path: Path) -> None:
        if self.paint is None:
            raise ValueError(f"{self.name} was made without its pixels")
        image = Image.fromarray(np.asarray(self.paint(), np.uint8)).quantize(_COLOURS)
        image.save(path, optimize=True)
