"""What is written beside and over a drawn scene: title, scale, legend, marks with their labels."""

from __future__ import annotations

import importlib.util
from collections.abc import Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array

Colour = tuple[int, int, int]
BLACK: Colour = (0, 0, 0)
_WHITE: Colour = (255, 255, 255)
_GREY: Colour = (110, 110, 110)
_FONT = Path("mpl-data", "fonts", "ttf", "DejaVuSans.ttf")  # comes with Matplotlib
_LINES_PER_PICTURE = 50
_SMALLEST_TEXT = 10  # pixels
_BAND = 12.0  # width of the band on the right, in heights of the text
_MOST_BAND = 0.34  # of the picture's width


@dataclass(frozen=True)
class Mark:
    """A place in the scene and what is to be said of it."""

    place: tuple[float, float]  # pixels from the scene's upper left corner
    lines: Sequence[str]
    hidden: bool = False  # behind or inside of what is drawn


@dataclass(frozen=True)
class Entry:
    """A line of a legend; without a colour it goes on with the entry above."""

    colour: Colour | None
    text: str


@dataclass
class Canvas:
    """A white picture with a band for the title on top and one for scale or legend on the right."""

    size: tuple[int, int]
    image: Any = field(init=False)
    pen: Any = field(init=False)
    text: int = field(init=False)  # height of the text
    font: Any = field(init=False)

    def __post_init__(self) -> None:
        width, height = self.size
        self.text = max(_SMALLEST_TEXT, round(height / _LINES_PER_PICTURE))
        self.image = need("PIL.Image").new("RGB", self.size, _WHITE)
        self.pen = need("PIL.ImageDraw").Draw(self.image)
        self.font = _font(self.text)

    @property
    def line(self) -> int:
        """From one line of text to the next."""
        return round(1.35 * self.text)

    @property
    def top(self) -> int:
        """Height of the title's band."""
        return 2 * self.text

    @property
    def left_of_band(self) -> int:
        """Where the band on the right begins."""
        band = min(_BAND * self.text, _MOST_BAND * self.size[0])
        return round(self.size[0] - band)

    @property
    def scene_size(self) -> tuple[int, int]:
        """Room for the scene, below the title and left of the band."""
        return max(self.left_of_band, 16), max(self.size[1] - self.top, 16)

    def width_of(self, text: str) -> float:
        """Of a line of text, in pixels."""
        return float(self.font.getlength(text))

    def write(self, place: tuple[float, float], text: str, colour: Colour = BLACK) -> None:
        """A line of text from its upper left corner."""
        self.pen.text(place, text, fill=colour, font=self.font)

    def pixels(self) -> Array:
        """The picture as an array (height, width, 3)."""
        return np.asarray(self.image)


def _font(size: int) -> Any:
    """Letters that have more than those of Western Europe."""
    fonts = need("PIL.ImageFont")
    package = importlib.util.find_spec("matplotlib")
    for folder in (package.submodule_search_locations or ()) if package else ():
        if (Path(folder) / _FONT).exists():
            return fonts.truetype(str(Path(folder) / _FONT), size)
    return fonts.load_default()


def put_scene(canvas: Canvas, pixels: Array) -> None:
    """Put a drawn scene in its place."""
    canvas.image.paste(need("PIL.Image").fromarray(pixels), (0, canvas.top))


def put_title(canvas: Canvas, title: str) -> None:
    """A line at the top, cut where the picture is too narrow for it."""
    room = canvas.size[0] - canvas.text
    canvas.write((canvas.text // 2, canvas.text // 2), _cut(canvas, title, room))


def _cut(canvas: Canvas, text: str, room: float) -> str:
    if canvas.width_of(text) <= room:
        return text
    while text and canvas.width_of(text + "...") > room:
        text = text[:-1]
    return text + "..."


def _wrapped(canvas: Canvas, text: str, room: float) -> list[str]:
    """A text in lines that fit."""
    lines = []
    for paragraph in text.splitlines():
        lines.append("")
        for word in paragraph.split():
            longer = f"{lines[-1]} {word}".strip()
            if lines[-1] and canvas.width_of(longer) > room:
                lines.append(word)
            else:
                lines[-1] = longer
    return [_cut(canvas, line, room) for line in lines]


# --- scale and legend --------------------------------------------------------------------------


@dataclass(frozen=True)
class Scale:
    """What the colours stand for: they run from `low` to `high`, the ends of the values."""

    title: str
    low: float
    high: float
    colours: Array  # uint8 (k, 3), from low to high
    note: str = ""  # below it
    more_above: bool = False  # values above `high` have its colour
    counts: Array | None = None  # of equal parts from low to high: drawn as bars beside it


def number_texts(values: Sequence[float], digits: int = 3) -> list[str]:
    """Numbers with as many digits as it takes to tell different ones apart."""
    different = len(set(values))
    texts: list[str] = []
    for more in range(digits, 9):
        texts = [f"{value:.{more}g}" for value in values]
        if len(set(texts)) == different:
            break
    return texts


def put_scale(canvas: Canvas, scale: Scale) -> None:
    """A bar of colours in the band on the right, with its title and its ends."""
    left, room = canvas.left_of_band, canvas.size[0] - canvas.left_of_band - canvas.text // 2
    height = canvas.size[1]
    lines = _wrapped(canvas, scale.title, room)[: max(round(0.35 * height / canvas.line), 1)]
    top = max(round(0.2 * height), canvas.top + (len(lines) + 1) * canvas.line)
    bottom = max(round(0.8 * height), top + 2 * canvas.line)
    for k, line in enumerate(lines):
        canvas.write((left, top - (len(lines) - k + 0.6) * canvas.line), line)
    width = round(1.5 * canvas.text)
    rows = np.linspace(1, 0, bottom - top)
    column = scale.colours[np.rint(rows * (len(scale.colours) - 1)).astype(int)]
    bar = np.repeat(column[:, None], width, axis=1)
    canvas.image.paste(need("PIL.Image").fromarray(bar.astype(np.uint8)), (left, top))
    if scale.counts is not None:
        _put_bars(canvas, scale, (left + width, top), bottom)
    shares = (0.0, 0.25, 0.5, 0.75, 1.0) if scale.high > scale.low else (0.5,)
    values = [scale.low + share * (scale.high - scale.low) for share in shares]
    values[-1] = scale.high
    texts = number_texts(values)
    texts[-1] += " and more" if scale.more_above else ""
    for share, text in zip(shares, texts, strict=True):
        y = bottom - share * (bottom - top)
        canvas.pen.line([(left + width, y), (left + width + canvas.text // 4, y)], fill=BLACK)
        place = left + width + canvas.text / 2, y - 0.6 * canvas.text
        canvas.write(place, text)
    for k, line in enumerate(_wrapped(canvas, scale.note, room)):
        canvas.write((left, bottom + (k + 0.6) * canvas.line), line, _GREY)


def _put_bars(canvas: Canvas, scale: Scale, corner: tuple[int, int], bottom: int) -> None:
    """How many values lie in each part of the scale, the longest bar to the picture's edge."""
    left, top = corner[0] + 4 * canvas.text, corner[1]
    counts = np.asarray(scale.counts, np.float64)
    longest = max(canvas.size[0] - left - canvas.text // 2, 4)
    step = (bottom - top) / len(counts)
    for k, count in enumerate(counts):
        length = longest * count / counts.max() if count else 0.0
        upper = bottom - (k + 1) * step
        if count:  # a single one shows as well
            box = [left, round(upper) + 1, left + max(round(length), 1), round(upper + step) - 1]
            canvas.pen.rectangle(box, fill=_GREY)
    canvas.pen.line([(left, top), (left, bottom)], fill=_GREY)


def put_legend(canvas: Canvas, entries: Sequence[Entry]) -> None:
    """Names beside their colours, down the band on the right; says where not all of them fit."""
    left = canvas.left_of_band
    indent = round(1.4 * canvas.text)
    room = canvas.size[0] - left - indent - canvas.text // 2
    blocks = [(entry, _wrapped(canvas, entry.text, room)) for entry in entries]
    y = float(canvas.top)
    for place, (entry, lines) in enumerate(blocks):
        last = place == len(blocks) - 1
        if y + (len(lines) + (0 if last else 1.3)) * canvas.line > canvas.size[1]:
            canvas.write((left + indent, y), f"and {len(blocks) - place} more", _GREY)
            return
        if entry.colour is not None:
            box = [left, y + 0.15 * canvas.text, left + canvas.text, y + 1.15 * canvas.text]
            canvas.pen.rectangle(box, fill=entry.colour, outline=BLACK)
        for line in lines:
            canvas.write((left + indent, y), line)
            y += canvas.line
        y += 0.3 * canvas.line


# --- marks -------------------------------------------------------------------------------------


def put_marks(canvas: Canvas, marks: Sequence[Mark]) -> None:
    """Rings around places, each with a label where nothing else is drawn, and a line to it."""
    taken: Array = np.any(np.asarray(canvas.image) < 250, axis=2)
    taken[:, canvas.left_of_band :] = True
    rings = [(mark.place[0], mark.place[1] + canvas.top) for mark in marks]
    radius = 0.45 * canvas.text
    for x, y in rings:
        upper, left = max(int(y - 2 * radius), 0), max(int(x - 2 * radius), 0)
        taken[upper : int(y + 2 * radius) + 1, left : int(x + 2 * radius) + 1] = True
    boxes = []
    for mark, ring in zip(marks, rings, strict=True):
        box = _free_box(canvas, taken, mark, ring)
        boxes.append(box)
        taken[box[1] : box[3], box[0] : box[2]] = True
    for mark, ring, box in zip(marks, rings, boxes, strict=True):
        _put_leader(canvas, mark, ring, box, radius)
    for mark, box in zip(marks, boxes, strict=True):
        canvas.pen.rectangle(box, fill=_WHITE, outline=_GREY)
        for k, line in enumerate(mark.lines):
            canvas.write((box[0] + 0.4 * canvas.text, box[1] + (k + 0.1) * canvas.line), line)


def _free_box(
    canvas: Canvas, taken: Array, mark: Mark, ring: tuple[float, float]
) -> tuple[int, int, int, int]:
    """The nearest place for a mark's label that covers least of what is drawn."""
    width = round(max(map(canvas.width_of, mark.lines)) + 0.8 * canvas.text)
    height = canvas.line * len(mark.lines) + round(0.4 * canvas.text)
    step = max(canvas.text // 2, 1)
    gap = canvas.text // 4
    xs = np.arange(gap, max(canvas.size[0] - width - gap, gap + 1), step)
    ys = np.arange(canvas.top, max(canvas.size[1] - height - gap, canvas.top + 1), step)
    sums = np.pad(taken, ((1, 0), (1, 0))).cumsum(axis=0, dtype=np.int64).cumsum(axis=1)
    x1 = np.minimum(xs + width, canvas.size[0])
    y1 = np.minimum(ys + height, canvas.size[1])
    covered = (
        sums[np.ix_(y1, x1)] - sums[np.ix_(ys, x1)] - sums[np.ix_(y1, xs)] + sums[np.ix_(ys, xs)]
    )
    across = np.maximum(np.maximum(xs - ring[0], ring[0] - x1), 0)
    down = np.maximum(np.maximum(ys - ring[1], ring[1] - y1), 0)
    distance = np.hypot(across[None, :], down[:, None])
    best = int(np.lexsort((distance.ravel(), covered.ravel()))[0])
    row, column = divmod(best, len(xs))
    x, y = int(xs[column]), int(ys[row])
    return x, y, x + width, y + height


def _put_leader(
    canvas: Canvas,
    mark: Mark,
    ring: tuple[float, float],
    box: tuple[int, int, int, int],
    radius: float,
) -> None:
    """A ring, and a line from it to its label; light beside dark, to be seen on every colour."""
    x, y = ring
    near = np.clip(x, box[0], box[2]), np.clip(y, box[1], box[3])
    length = float(np.hypot(near[0] - x, near[1] - y))
    if length > radius:
        start = x + (near[0] - x) * radius / length, y + (near[1] - y) * radius / length
        thin = max(round(canvas.text / 14), 1)
        canvas.pen.line([start, near], fill=_WHITE, width=3 * thin)
        canvas.pen.line([start, near], fill=BLACK, width=thin)
    thick = max(round(canvas.text / 9), 1)
    for wider, colour in ((thick, _WHITE), (0, _GREY if mark.hidden else BLACK)):
        r = radius + wider
        canvas.pen.ellipse([x - r, y - r, x + r, y + r], outline=colour, width=thick + wider)
