"""Titles, scales, legends and marks beside and over a scene."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.basics.types import Array
from vkctl.view.canvas import (
    Canvas,
    Entry,
    Mark,
    Scale,
    number_texts,
    put_legend,
    put_marks,
    put_scale,
    put_scene,
    put_title,
)

SIZE = (700, 450)


def scene(canvas: Canvas, shape: tuple[slice, slice], colour: int) -> Array:
    """A white scene with a box in one grey."""
    width, height = canvas.scene_size
    pixels = np.full((height, width, 3), 255, np.uint8)
    pixels[shape] = colour
    return pixels


def changed(before: Array, canvas: Canvas) -> Array:
    """Rows and columns (k, 2) of pixels that differ."""
    return np.argwhere((before != canvas.pixels()).any(axis=2))


@pytest.mark.parametrize(
    ("values", "texts"),
    [
        ((0.0, 22.813), ["0", "22.8"]),
        ((1000.1, 1000.4), ["1000.1", "1000.4"]),
        ((-1e-9, 1e9), ["-1e-09", "1e+09"]),
        ((5.0, 5.0), ["5", "5"]),
    ],
)
def test_numbers_that_differ_are_told_with_enough_digits(
    values: tuple[float, float], texts: list[str]
) -> None:
    assert number_texts(values) == texts


@pytest.mark.parametrize("dark", [0, 120])
def test_labels_lie_beside_what_is_drawn_and_inside_of_the_picture(dark: int) -> None:
    canvas = Canvas(SIZE)
    box = slice(120, 300), slice(100, 420)
    put_scene(canvas, scene(canvas, box, dark))
    before = canvas.pixels().copy()
    lines = ["largest: 22.8", "node 223 (549 in the mesh)"]
    put_marks(canvas, [Mark((150.0, 130.0), lines), Mark((160.0, 140.0), lines, hidden=True)])
    found = changed(before, canvas)
    assert found.min() >= 1 and (found.max(axis=0) < (SIZE[1] - 1, canvas.left_of_band)).all()
    inside = before[tuple(found.T)][:, 0] == dark
    # Rings and lines to the labels, but no label: it would cover thousands of pixels.
    assert 100 < inside.sum() < 1500


def test_marks_are_seen_on_black_and_on_white() -> None:
    for shade in (0, 255):
        canvas = Canvas(SIZE)
        put_scene(canvas, scene(canvas, (slice(0, None), slice(0, None)), shade))
        before = canvas.pixels().copy()
        put_marks(canvas, [Mark((200.0, 200.0), ["largest: 1"])])
        ring = canvas.pixels()[200 + canvas.top - 9 : 200 + canvas.top + 9, 191:209]
        assert {0, 255} <= set(np.unique(ring).tolist()), shade
        assert len(changed(before, canvas))


def test_two_labels_of_the_same_place_do_not_cover_each_other() -> None:
    pixels = []
    for count in (1, 2):
        canvas = Canvas(SIZE)
        put_scene(canvas, scene(canvas, (slice(200, 210), slice(200, 210)), 50))
        put_marks(canvas, [Mark((205.0, 205.0), ["largest: 22.8", "node 1"])] * count)
        pixels.append((canvas.pixels() == 110).all(axis=2).sum())  # the labels' frames
    assert pixels[1] == pytest.approx(2 * pixels[0], rel=0.1)


def test_a_title_too_long_is_cut_inside_of_the_picture() -> None:
    canvas = Canvas(SIZE)
    put_title(canvas, "load case 1 (" + "W" * 400 + ")")
    dark = np.argwhere((canvas.pixels() < 128).any(axis=2))
    assert dark[:, 1].max() < SIZE[0] - 4


@pytest.mark.parametrize("size", [(160, 100), (400, 300), (1400, 900)])
def test_a_scale_has_its_colours_in_order_and_stays_inside(size: tuple[int, int]) -> None:
    canvas = Canvas(size)
    shades = np.linspace(0, 250, 256).astype(np.uint8)
    colours = np.stack([shades, np.zeros_like(shades), 250 - shades], axis=1)
    put_scale(canvas, Scale("a rather long title of a field", -1.0, 2.0, colours, "a note"))
    column = canvas.pixels()[:, canvas.left_of_band + 1].astype(int)
    bar = column[(column[:, 1] == 0) & (column.sum(axis=1) == 250)]
    assert len(bar) > 0.2 * size[1]
    assert (np.diff(bar[:, 0]) <= 0).all() and bar[0, 0] == 250 and bar[-1, 0] == 0
    assert (canvas.pixels()[:, -1] == 255).all()


def test_bars_beside_a_scale_are_as_long_as_there_are_values() -> None:
    canvas = Canvas((700, 900))
    counts = np.array([0, 1, 50, 100])
    put_scale(canvas, Scale("", 0.0, 1.0, np.full((9, 3), 30, np.uint8), counts=counts))
    grey = (canvas.pixels()[:, canvas.left_of_band :] == 110).all(axis=2)
    lengths = grey.sum(axis=1)
    quarters = [int(np.median(part)) for part in np.array_split(lengths[182:718], 4)]
    assert quarters[3] == 1 and quarters[2] <= 3
    assert quarters[1] == pytest.approx(quarters[0] / 2, abs=2)


def test_a_legend_says_how_many_entries_did_not_fit() -> None:
    few, many = Canvas(SIZE), Canvas(SIZE)
    entries = [Entry((200, 10, 10), f"set {k}") for k in range(80)]
    put_legend(few, entries[:3])
    put_legend(many, entries)
    boxes = [(canvas.pixels() == (200, 10, 10)).all(axis=2).any(axis=1) for canvas in (few, many)]
    starts = [int((np.diff(rows.astype(int)) == 1).sum()) for rows in boxes]
    assert starts[0] == 3 and 15 < starts[1] < 80
    dark = np.argwhere((many.pixels() < 150).any(axis=2))
    assert dark[:, 0].max() < SIZE[1] - 1
