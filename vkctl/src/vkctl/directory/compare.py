"""Compare the results of two directories within tolerances and name the worst nodes."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from dataclasses import dataclass, field, replace
from pathlib import Path

import numpy as np

from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import called, place_words

from . import formats
from .case_names import read_case_names, titled
from .results import Results, read_results, solved

RTOL = 1e-4  # of the largest magnitude of a quantity in a load case
ATOL = 0.0
_SAME_PLACE = 1e-5  # nodes further apart than this part of the extent belong to another mesh
_WORST = 3  # places named for each difference
_UNLABELLED: Array = np.empty(0, np.int64)
_NO_POINTS: Array = np.empty((0, 3))
_UNTOUCHED = np.finfo(np.float32).max  # criterion where no element touched any design point

# Quantity: how it is taken from the results, what its rows are numbers of ("" for a total).
_QUANTITIES: dict[str, tuple[Callable[[Results], object], str]] = {
    "quality": (lambda r: r.quality, ""),
    "strain_energy": (lambda r: r.strain_energy, ""),
    "material_volume": (lambda r: r.material_volume, ""),
    "stress_norm": (lambda r: r.stress_norm, ""),
    "max_displacement": (lambda r: r.max_displacement, ""),
    "applied_load": (lambda r: [r.applied_load], ""),
    "displacements": (lambda r: r.displacements, "node"),
    "magnitude": (lambda r: r.magnitude, "node"),
    "stress": (lambda r: r.stress, "node"),
    "criterion": (lambda r: r.criterion, "design point"),
    "element_state": (lambda r: r.element_state, "element"),
}
QUANTITIES = tuple(_QUANTITIES)


class CannotCompareError(Exception):
    """The directories don't hold results of the same model."""


@dataclass(frozen=True)
class Place:
    """One differing row: its number (node, element or design point) and its two values."""

    number: int
    first: tuple[float, ...]
    second: tuple[float, ...]
    point: tuple[float, ...] | None = None  # coordinates of a node
    name: str = ""  # the number, and what the mesh calls it where that is another


@dataclass(frozen=True)
class Difference:
    """A quantity of a load case that differs by more than its tolerance."""

    load_case: int
    quantity: str
    noun: str  # what `Place.number` counts; empty for totals
    count: int  # rows that differ
    rows: int
    largest: float  # difference; NaN where a value is undefined on one side only
    scale: float  # largest magnitude of the quantity
    tolerance: float
    worst: list[Place] = field(default_factory=list)
    title: str = ""  # of the load case

    def __str__(self) -> str:
        head = f"{self.title or f'load case {self.load_case}'}, {self.quantity.replace('_', ' ')}: "
        if not self.noun:
            one = self.worst[0]
            return f"{head}{_value(one.first)} and {_value(one.second)}, {self._amount()}"
        places = "; ".join(self._place(place) for place in self.worst)
        plural = "" if self.rows == 1 else "s"
        return (
            f"{head}{self.count} of {self.rows} {self.noun}{plural} differ, at most by "
            f"{self._amount()}; worst: {places}"
        )

    def _amount(self) -> str:
        part = f", {self.largest / self.scale:.2g} of the largest value" if self.scale > 0 else ""
        return f"{self.largest:.3g}{part} (allowed {self.tolerance:.3g})"

    def _place(self, place: Place) -> str:
        where = "" if place.point is None else f" at {_value(place.point)}"
        values = f"{_value(place.first)} and {_value(place.second)}"
        return f"{self.noun} {place.name or place.number}{where}: {values}"


def _value(values: tuple[float, ...]) -> str:
    return f"{values[0]:.6g}" if len(values) == 1 else place_words(values)


@dataclass
class Comparison:
    """Outcome of `diff`."""

    load_cases: list[int]  # solved in both
    differences: list[Difference] = field(default_factory=list)
    one_sided: list[str] = field(default_factory=list)  # what only one directory has, in words

    @property
    def equal(self) -> bool:
        """Whether everything agrees within the tolerances."""
        return not self.differences and not self.one_sided

    @property
    def status(self) -> int:
        """0 equal, 1 different."""
        return 0 if self.equal else 1


def diff(
    first: PathLike,
    second: PathLike,
    *,
    rtol: float | Mapping[str, float] = RTOL,
    atol: float | Mapping[str, float] = ATOL,
    signs: bool = False,
) -> Comparison:
    """Compare the results of all load cases of two directories.

    A row differs when it is further apart than atol + rtol times the largest magnitude that its
    quantity has in the load case, in either directory; displacements and loads are compared as
    vectors. A mapping gives tolerances by quantity (`QUANTITIES`), the others keep the default.
    Stresses are compared by magnitude unless `signs`. CannotCompareError where nothing is solved
    in both or the models differ.
    """
    pair = Path(first), Path(second)
    _require_same_nodes(*pair)
    numbers = [solved(directory) for directory in pair]
    common = sorted(set(numbers[0]) & set(numbers[1]))
    if not common:
        raise CannotCompareError(f"No load case has results in both {first} and {second}.")
    comparison = Comparison(common)
    for directory, own in zip(pair, numbers, strict=True):
        names = read_case_names(directory)
        lone = [titled(number, names) for number in sorted(set(own) - set(common))]
        comparison.one_sided += [f"{title} is solved in {directory} only" for title in lone]
    names = read_case_names(pair[0])
    points = _points(pair[0])
    labels = _labels(pair, points)
    for number in common:
        results = _read(pair[0], number), _read(pair[1], number)
        for name, (take, noun) in _QUANTITIES.items():
            limits = _tolerance(rtol, name, RTOL), _tolerance(atol, name, ATOL)
            rows = [_rows(take(result), name, signs) for result in results]
            if rows[0] is None or rows[1] is None:
                comparison.one_sided += _missing(titled(number, names), name, rows, pair)
                continue
            found = _compare(number, name, noun, (rows[0], rows[1]), limits)
            if found is not None:
                placed = _with_places(found, points, labels)
                comparison.differences.append(replace(placed, title=titled(number, names)))
    return comparison


def _tolerance(given: float | Mapping[str, float], name: str, default: float) -> float:
    return given.get(name, default) if isinstance(given, Mapping) else given


def _read(directory: Path, number: int) -> Results:
    try:
        return read_results(directory, number)
    except (OSError, formats.FormatError) as error:
        text = f"The results of load case {number} in {directory} can't be read: {error}"
        raise CannotCompareError(text) from None


def _points(directory: Path) -> Array | None:
    try:
        return formats.read_nodes(directory)
    except (OSError, formats.FormatError):
        return None


def _labels(pair: tuple[Path, Path], points: Array | None) -> formats.Labels:
    """Those of the first directory, or of the second where the first has none."""
    if points is None:
        return formats.Labels()
    first, second = (formats.known_labels(directory, len(points)) for directory in pair)
    return first if len(first.nodes) else second


def _require_same_nodes(first: Path, second: Path) -> None:
    """Coordinates are compared where both directories have them."""
    a, b = _points(first), _points(second)
    if a is None or b is None:
        return
    if len(a) != len(b):
        raise CannotCompareError(f"{first} has {len(a)} nodes, {second} has {len(b)}.")
    extent = float(np.ptp(a, axis=0).max()) if len(a) else 0.0
    apart = np.abs(a.astype(np.float64) - b).max(axis=1, initial=0.0)
    if (apart > _SAME_PLACE * extent).any():
        node = int(apart.argmax()) + 1
        name = called(node, formats.known_labels(first, len(a)).nodes)
        raise CannotCompareError(f"Node {name} lies elsewhere in {second}: another mesh.")


def _rows(value: object, name: str, signs: bool) -> Array | None:
    """Values as float64 rows (n, components)."""
    if value is None:
        return None
    rows = np.asarray(value, np.float64)
    rows = rows.reshape(-1, 1) if rows.ndim < 2 else rows
    return np.abs(rows) if name == "stress" and not signs else rows


def _missing(title: str, name: str, rows: list[Array | None], pair: tuple[Path, Path]) -> list[str]:
    if rows[0] is None and rows[1] is None:
        return []
    owner = pair[0] if rows[0] is not None else pair[1]
    return [f"{title}, {name.replace('_', ' ')}: only in {owner}"]


def _compare(
    number: int, name: str, noun: str, rows: tuple[Array, Array], limits: tuple[float, float]
) -> Difference | None:
    a, b = rows
    if a.shape != b.shape:
        text = f"load case {number}, {name.replace('_', ' ')}: {len(a)} and {len(b)} values."
        raise CannotCompareError(text)
    if not len(a):
        return None
    ordinary = np.isfinite(a).all(axis=1) & np.isfinite(b).all(axis=1)
    if name == "criterion":
        ordinary &= (a[:, 0] < _UNTOUCHED) & (b[:, 0] < _UNTOUCHED)
    sizes = [np.linalg.norm(side[ordinary], axis=1).max(initial=0.0) for side in rows]
    scale = float(max(sizes))
    tolerance = limits[1] + limits[0] * scale
    apart = np.zeros(len(a))
    apart[ordinary] = np.linalg.norm(a[ordinary] - b[ordinary], axis=1)
    same = ((a == b) | (np.isnan(a) & np.isnan(b))).all(axis=1)
    apart[~ordinary & ~same] = np.inf
    bad = np.flatnonzero(apart > tolerance)
    if not len(bad):
        return None
    worst = bad[np.argsort(-apart[bad], kind="stable")[:_WORST]]
    places = [Place(int(i) + 1, tuple(a[i].tolist()), tuple(b[i].tolist())) for i in worst]
    largest = float(apart[worst[0]])
    return Difference(number, name, noun, len(bad), len(a), largest, scale, tolerance, places)


def _with_places(found: Difference, points: Array | None, labels: formats.Labels) -> Difference:
    """The same with names of its worst nodes or elements, and coordinates of nodes."""
    own = {"node": labels.nodes, "element": labels.elements}.get(found.noun, _UNLABELLED)
    known = own if len(own) == found.rows else _UNLABELLED
    where = points if found.noun == "node" and points is not None else _NO_POINTS
    worst = [
        replace(
            place,
            name=called(place.number, known),
            point=tuple(where[place.number - 1].tolist()) if len(where) == found.rows else None,
        )
        for place in found.worst
    ]
    return replace(found, worst=worst)
