"""The results of a study as a picture: results over parameters, or a line for each variant."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array
from vkctl.view.files import write_figure

from .journal import Plan
from .tables import Row

PICTURE = "results.png"
_MOST_PARAMETERS = 4  # beyond, or of results, lines over parallel axes
_MOST_RESULTS = 4
_MOST_AXES = 12
_MOST_COLOURS = 6
_DPI = 110


def draw(out: Path, plan: Plan, rows: Sequence[Row]) -> Path | None:
    """Write `results.png`; None where no variant has a number to show."""
    parameters = [name for name in plan.variants[0] if len(_ticks(plan, name)) > 1]
    results = [c for c in plan.columns if np.isfinite(_numbers(rows, c)).any()]
    if not results or not parameters:
        return None
    need("matplotlib").use("Agg")
    pyplot = need("matplotlib.pyplot")
    if len(parameters) <= _MOST_PARAMETERS and len(results) <= _MOST_RESULTS:
        figure = _scatter(pyplot, plan, rows, parameters, results)
    else:
        figure = _parallel(pyplot, plan, rows, [*parameters, *results][:_MOST_AXES], results[0])
    target = out / PICTURE
    write_figure(figure, target, _DPI)
    pyplot.close(figure)
    return target


def _ticks(plan: Plan, name: str) -> list[Any]:
    """Distinct values of a parameter in the order of the variants."""
    return list(dict.fromkeys(variant[name] for variant in plan.variants))


def _is_number(plan: Plan, name: str) -> bool:
    values = [variant[name] for variant in plan.variants]
    return all(isinstance(v, int | float) and not isinstance(v, bool) for v in values)


def _numbers(rows: Sequence[Row], column: str) -> Array:
    """Values of a column of numbers, NaN where there is none."""
    values = [row[column] for row in rows]
    return np.array([v if isinstance(v, int | float) else np.nan for v in values], np.float64)


def _along(plan: Plan, rows: Sequence[Row], name: str) -> Array:
    """Where each row stands on a parameter's axis; texts stand side by side."""
    if _is_number(plan, name):
        return _numbers(rows, name)
    places = {value: place for place, value in enumerate(_ticks(plan, name))}
    return np.array([places[row[name]] for row in rows], np.float64)


def _scatter(
    pyplot: Any, plan: Plan, rows: Sequence[Row], parameters: list[str], results: list[str]
) -> Any:
    """Each result over each parameter, a dot a variant, coloured by a parameter of few values."""
    size = (1.2 + 3.2 * len(parameters), 0.8 + 2.4 * len(results))
    figure, every = pyplot.subplots(
        len(results),
        len(parameters),
        figsize=size,
        sharey="row",
        squeeze=False,
        layout="constrained",
    )
    by = min(parameters, key=lambda name: len(_ticks(plan, name)))
    few = len(parameters) > 1 and len(_ticks(plan, by)) <= _MOST_COLOURS
    groups = [(f"{by} = {_text(tick)}", by, tick) for tick in _ticks(plan, by)] if few else []
    for column, name in enumerate(parameters):
        for line, result in enumerate(results):
            axes = every[line, column]
            x, y = _along(plan, rows, name), _numbers(rows, result)
            for title, parameter, tick in groups or [("", "", None)]:
                chosen = [not parameter or row[parameter] == tick for row in rows]
                axes.scatter(x[chosen], y[chosen], s=14, label=title)
            axes.grid(alpha=0.3)
            _set_ticks(axes, plan, name)
        every[-1, column].set_xlabel(name)
    for line, result in enumerate(results):
        every[line, 0].set_ylabel(result)
    if groups:
        handles = every[0, 0].get_legend_handles_labels()
        figure.legend(*handles, loc="outside upper center", ncols=len(groups), frameon=False)
    return figure


def _text(value: object) -> str:
    return f"{value:.6g}" if isinstance(value, float) else str(value)


def _set_ticks(axes: Any, plan: Plan, name: str) -> None:
    """Texts in place of numbers, few values as they are, decades on a logarithmic axis."""
    ticks = _ticks(plan, name)
    if not _is_number(plan, name):
        axes.set_xticks(range(len(ticks)), [str(tick) for tick in ticks])
    elif len(ticks) <= _MOST_COLOURS:
        axes.set_xticks(sorted(ticks), [_text(tick) for tick in sorted(ticks)])
    elif min(ticks) > 0 and max(ticks) >= 100 * min(ticks):
        axes.set_xscale("log")


def _parallel(pyplot: Any, plan: Plan, rows: Sequence[Row], names: list[str], coloured: str) -> Any:
    """A line for each variant over axes side by side, coloured by a result."""
    figure, axes = pyplot.subplots(figsize=(1.5 + 1.4 * len(names), 5.0), layout="constrained")
    columns = [
        _along(plan, rows, name) if name in plan.variants[0] else _numbers(rows, name)
        for name in names
    ]
    shares = np.column_stack([_share(values) for values in columns])
    colours = _numbers(rows, coloured)
    whole = np.isfinite(shares).all(axis=1) & np.isfinite(colours)
    lines = need("matplotlib.collections").LineCollection(
        [np.column_stack((np.arange(len(names)), share)) for share in shares[whole]],
        array=colours[whole],
        cmap="viridis",
        linewidths=1.0,
        alpha=0.6,
    )
    axes.add_collection(lines)
    figure.colorbar(lines, label=coloured)
    axes.set_xlim(-0.3, len(names) - 0.7)
    axes.set_ylim(-0.08, 1.08)
    axes.set_yticks([])
    axes.set_xticks(range(len(names)), names, rotation=20, ha="right")
    for place, (name, values) in enumerate(zip(names, columns, strict=True)):
        axes.axvline(place, color="black", linewidth=0.8)
        for height, text in _ends(plan, name, values):
            side = "bottom" if height else "top"
            axes.text(place, 1.02 * height - 0.02 * (1 - height), text, ha="center", va=side)
    return figure


def _share(values: Array) -> Array:
    """Values from 0 for the smallest to 1 for the largest."""
    low, high = np.nanmin(values), np.nanmax(values)
    span = high - low
    share: Array = (values - low) / span if span > 0 else values - low + 0.5
    return share


def _ends(plan: Plan, name: str, values: Array) -> list[tuple[float, str]]:
    """What stands below and above an axis."""
    if name in plan.variants[0] and not _is_number(plan, name):
        ticks = _ticks(plan, name)
        return [(0.0, str(ticks[0])), (1.0, str(ticks[-1]))]
    return [(0.0, f"{np.nanmin(values):.6g}"), (1.0, f"{np.nanmax(values):.6g}")]
