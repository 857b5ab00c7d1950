"""The density method with an overhang, which printed parts are compared with."""

from __future__ import annotations

import density_method
import numpy as np
import pytest
from density_method import EMPTY, Frame, node
from density_printed import Drawing, printed_densities
from printing_filter import Printer, printer

UP = (0.0, 1.0, 0.0)
WAYS = [UP, (0.0, -1.0, 0.0), (1.0, 0.0, 0.0)]


def middles(*counts: int) -> np.ndarray:
    return np.indices(counts).reshape(3, -1).T + 0.5


def plain(columns: int, rows: int, kept: np.ndarray | None = None) -> Printer:
    """A grid that is one element thick, printed upwards."""
    none = np.zeros(columns * rows, bool)
    return printer(middles(columns, rows, 1), np.array(UP), none if kept is None else kept)


def printed(drawn: list[str], kept: str = "") -> list[str]:
    """The same of a blueprint in rows from the top, # where there is material."""
    signs = np.array([list(row) for row in drawn])
    blueprint = (signs != ".").astype(float)[::-1].T
    mask = (signs == kept)[::-1].T.ravel() if kept else None
    columns, rows = blueprint.shape
    found = plain(columns, rows, mask).printed(blueprint.ravel()).reshape(blueprint.shape)
    assert np.all((found < 0.03) | (found > 0.9))
    return ["".join(".#"[int(value > 0.5)] for value in row) for row in found.T[::-1]]


def slopes(of: object, x: np.ndarray, step: float = 1e-6) -> np.ndarray:
    assert callable(of)
    return np.array([(of(x + step * e) - of(x - step * e)) / (2 * step) for e in np.eye(len(x))])


@pytest.mark.parametrize("counts", [(6, 5, 1), (4, 3, 4)])
@pytest.mark.parametrize("build", WAYS)
def test_the_derivative_of_what_is_printed_is_that_of_differences(
    counts: tuple[int, int, int], build: tuple[float, float, float]
) -> None:
    random = np.random.default_rng(7)
    blueprint, weights, kept = random.random((3, int(np.prod(counts))))
    of = printer(middles(*counts), np.array(build), kept < 0.1)
    expected = slopes(lambda x: weights @ of.printed(x), blueprint)
    assert of.slope(blueprint, weights) == pytest.approx(expected, abs=1e-7)


@pytest.mark.parametrize("sharpness", [0.0, 4.0])
def test_the_derivative_of_the_compliance_is_that_of_differences(sharpness: float) -> None:
    frame, of = bridge(5, 3)
    means = density_method.linear_filter(middles(5, 3, 1), 1.5)
    drawing = Drawing(means, of, sharpness)

    def moduli(x: np.ndarray) -> np.ndarray:
        return np.asarray(EMPTY + drawing.printed(x) ** 3)

    def compliance(x: np.ndarray) -> float:
        return density_method.compliance(frame, moduli(x).reshape(frame.counts))

    x = np.random.default_rng(3).uniform(0.4, 0.9, 15)
    found = density_method.energies(frame, moduli(x).reshape(frame.counts)).ravel()
    by_printed = -3 * drawing.printed(x) ** 2 * found
    expected = slopes(compliance, x)
    scale = np.abs(expected).max()
    assert drawing.slope(x, by_printed) / scale == pytest.approx(expected / scale, abs=1e-6)


def test_struts_of_45_degrees_are_printed_and_flatter_ones_end_where_nothing_holds_them() -> None:
    assert printed(["...#", "..#.", ".#..", "#..."]) == ["...#", "..#.", ".#..", "#..."]
    assert printed(["....##", "..##..", "##...."]) == ["......", "..#...", "##...."]


def test_what_has_nothing_below_is_not_printed_unless_it_is_kept() -> None:
    assert printed(["####", "#...", "#..."]) == ["##..", "#...", "#..."]
    assert printed(["kkkk", "#...", "#..."], "k") == ["####", "#...", "#..."]
    assert printed(["#####", ".kkk.", "....."], "k") == ["#####", ".###.", "....."]


def test_a_box_that_is_no_grid_is_refused() -> None:
    with pytest.raises(ValueError, match="box of hexahedra in a grid"):
        printer(middles(3, 3, 1)[:-1], np.array(UP), np.zeros(8, bool))


def bridge(columns: int, rows: int) -> tuple[Frame, Printer]:
    """Half of a bridge with a deck that is kept, loaded all along and held at the lower left."""
    counts = (columns, rows)
    fixed = [2 * node(counts, i, 0) + k for i in range(2) for k in range(2)]
    fixed += [2 * node(counts, columns, j) for j in range(rows + 1)]
    load = np.zeros(2 * (columns + 1) * (rows + 1))
    for i in range(columns + 1):
        load[2 * node(counts, i, rows) + 1] = -1.0 / columns
    kept = middles(columns, rows, 1)[:, 1] > rows - 1
    return Frame(counts, np.array(fixed), load), plain(columns, rows, kept)


def test_the_printed_part_is_held_from_below_and_stiffer_than_what_is_left_of_a_free_one() -> None:
    frame, of = bridge(12, 6)

    def local(moduli: np.ndarray) -> np.ndarray:
        return density_method.energies(frame, moduli.reshape(frame.counts)).ravel()

    means = density_method.linear_filter(middles(12, 6, 1), 1.5)
    found, told = printed_densities(local, means, of, 1.0, 0.5)
    assert found.mean() == pytest.approx(0.5, abs=1e-3)
    black = (found > 0.5).reshape(frame.counts)
    sides = np.pad(black, ((1, 1), (0, 0)))
    held = sides[:-2, :-1] | sides[1:-1, :-1] | sides[2:, :-1]
    assert not (black[:, 1:-1] & ~held[:, :-1]).any()
    begin = np.full(frame.counts, 0.5)
    kept = of.kept.reshape(frame.counts)
    free, _ = density_method.densities(
        lambda moduli: density_method.energies(frame, moduli), means, begin, 50, 0.01, 1.0, kept
    )
    left = of.printed(free.ravel()).reshape(frame.counts)
    assert told[-1] < density_method.compliance(frame, EMPTY + left**3)
