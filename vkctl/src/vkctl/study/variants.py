"""The variants of a study: lists and ranges crossed, samples, rows of a table."""

from __future__ import annotations

import csv
import io
import itertools
import math
import warnings
from collections.abc import Sequence
from pathlib import Path

import numpy as np

from vkctl.basics.failures import reason
from vkctl.basics.types import Array
from vkctl.prepare.case_file.mistakes import CaseFileError, Problem

from .entries import Parameter, Sample, Scalar, StudyFile
from .read import MOST_VARIANTS, misfit, spaced

_LONGEST_TABLE = 64 << 20  # bytes
_SEPARATORS = ",;\t"
_TRUTH = {"true": True, "false": False}
_Row = tuple[Scalar, ...]


def variants_of(study: StudyFile) -> list[dict[str, Scalar]]:
    """Values by name of parameter, one dictionary a variant, in order.

    What is sampled together changes together, and so do the columns of the table; everything is
    combined with everything else, what stands last in the file changing fastest. CaseFileError for
    tables that don't fit and for more variants than anybody can mean.
    """
    blocks = _blocks(study)
    count = math.prod(len(rows) for _, rows in blocks)
    if count > MOST_VARIANTS:
        text = f"makes {count} variants, more than {MOST_VARIANTS}"
        raise CaseFileError(study.path, [Problem(0, text)])
    names = [name for block, _ in blocks for name in block]
    order = [parameter.name for parameter in study.parameters]
    found = []
    for rows in itertools.product(*(rows for _, rows in blocks)):
        values = dict(zip(names, itertools.chain.from_iterable(rows), strict=True))
        found.append({name: values[name] for name in order})
    return found


def _blocks(study: StudyFile) -> list[tuple[list[str], list[_Row]]]:
    """Parameters that change together with their rows, in the order of the file."""
    sampled = [p for p in study.parameters if p.between is not None]
    columns = [p for p in study.parameters if p.column is not None]
    blocks: list[tuple[list[str], list[_Row]]] = []
    for parameter in study.parameters:
        if parameter.values:
            blocks.append(([parameter.name], [(value,) for value in parameter.values]))
        elif sampled[:1] == [parameter]:
            blocks.append(([p.name for p in sampled], _sampled(sampled, study.sample)))
        elif columns[:1] == [parameter]:
            assert study.table is not None
            blocks.append(([p.name for p in columns], read_table(study.table, columns)))
    return blocks


def _sampled(parameters: list[Parameter], sample: Sample) -> list[_Row]:
    rows: list[_Row] = []
    for point in sample_points(sample, len(parameters)):
        pairs = zip(parameters, point.tolist(), strict=True)
        rows.append(
            tuple(
                spaced(part, p.between or (0.0, 1.0), p.logarithmic, p.whole) for p, part in pairs
            )
        )
    return rows


def sample_points(sample: Sample, dimensions: int) -> Array:
    """Points (count, dimensions) in the unit cube, the same for the same seed."""
    from scipy.stats import qmc

    random = np.random.default_rng(sample.seed)
    if sample.method == "sobol":
        engine = qmc.Sobol(dimensions, seed=random)
        with warnings.catch_warnings():
            # That counts which are no power of 2 lose balance is told on the page.
            warnings.simplefilter("ignore", UserWarning)
            points: Array = engine.random(sample.count)
    else:
        points = qmc.LatinHypercube(dimensions, seed=random).random(sample.count)
    return points


# --- the table ---------------------------------------------------------------------------------


def read_table(path: Path, parameters: Sequence[Parameter]) -> list[_Row]:
    """Rows of a table (.csv), a column for each parameter; CaseFileError tells what doesn't fit."""
    lines = _lines(path)
    titles = [title.strip() for title in lines[0][1]]
    _check_titles(path, titles, [p.column or "" for p in parameters])
    places = [titles.index(p.column or "") for p in parameters]
    rows, problems = [], []
    for number, cells in lines[1:]:
        if len(cells) != len(titles):
            text = f"has {len(cells)} cells, the first line {len(titles)}"
            problems.append(Problem(number, text))
            continue
        row = []
        for place, parameter in zip(places, parameters, strict=True):
            value = _scalar(cells[place].strip(), parameter.base)
            if why := misfit(value, parameter.base):
                problems.append(Problem(number, f"column {titles[place]!r} {why}"))
            row.append(value)
        rows.append(tuple(row))
    if problems:
        raise CaseFileError(path, problems[:20])
    if not rows:
        raise CaseFileError(path, [Problem(0, "has no rows below its first line")])
    return rows


def _lines(path: Path) -> list[tuple[int, list[str]]]:
    """Number and cells of each line that isn't blank."""
    try:
        with open(path, "rb") as stream:
            data = stream.read(_LONGEST_TABLE + 1)
        text = data.decode("utf-8-sig")
    except OSError as error:
        raise CaseFileError(path, [Problem(0, f"can't be read: {reason(error)}")]) from None
    except UnicodeDecodeError as error:
        raise CaseFileError(path, [Problem(0, f"isn't UTF-8 text: {error.reason}")]) from None
    if len(data) > _LONGEST_TABLE:
        raise CaseFileError(path, [Problem(0, f"is longer than {_LONGEST_TABLE >> 20} MB")])
    first = text.partition("\n")[0]
    separator = max(_SEPARATORS, key=first.count)
    reader = csv.reader(io.StringIO(text, newline=""), delimiter=separator, strict=True)
    found = []
    try:
        for cells in reader:
            if any(cell.strip() for cell in cells):
                found.append((reader.line_num, cells))
    except csv.Error as error:
        raise CaseFileError(path, [Problem(reader.line_num, f"isn't a table: {error}")]) from None
    if not found:
        raise CaseFileError(path, [Problem(0, "is empty")])
    return found


def _check_titles(path: Path, titles: list[str], wanted: list[str]) -> None:
    problems = []
    for title in dict.fromkeys(titles):
        if titles.count(title) > 1:
            problems.append(Problem(1, f"has the column {title!r} twice"))
        if title not in wanted:
            hint = "remove it, or give a parameter this 'column'"
            problems.append(Problem(1, f"has a column {title!r} that no parameter takes", hint))
    for name in wanted:
        if name not in titles:
            problems.append(Problem(1, f"has no column {name!r}; it has {', '.join(titles)}"))
    if problems:
        raise CaseFileError(path, problems)


def _scalar(text: str, base: Scalar) -> Scalar:
    """What a cell says, as the kind of value that is wanted; the text where it isn't one."""
    if isinstance(base, str):
        return text
    if isinstance(base, bool):
        return _TRUTH.get(text.lower(), text)
    for kind in (int, float):
        try:
            return kind(text)
        except ValueError:
            continue
    return text
