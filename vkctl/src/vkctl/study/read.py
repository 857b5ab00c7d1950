"""The study file read as a whole, against the case file that it varies."""

from __future__ import annotations

import copy
import math
from collections.abc import Iterable
from pathlib import Path
from typing import Any

from vkctl.basics.clusters import Cluster
from vkctl.basics.types import PathLike
from vkctl.basics.words import counted, did_you_mean
from vkctl.directory.formats import MODES
from vkctl.optimise.settings import read_settings
from vkctl.prepare.case_file.mistakes import Mistakes
from vkctl.prepare.case_file.read import read_cases
from vkctl.prepare.case_file.read_clusters import clusters_of
from vkctl.prepare.case_file.toml_table import Table, load

from . import keys
from .entries import Deed, Keep, Method, Parameter, Sample, Scalar, StudyFile
from .read_wanted import columns_of, read_wanted

RESERVED = ("variant", "status", "seconds", "message")  # columns of every study
MOST_VARIANTS = 1_000_000
_DEEDS: tuple[Deed, ...] = ("run", "settle", "optimise")
_METHODS: tuple[Method, ...] = ("latin hypercube", "sobol")


def read_study(path: PathLike) -> StudyFile:
    """Read and check a study file and its case file; CaseFileError tells all mistakes at once."""
    top, report = load(path)
    name = top.text("cases")
    if not name:
        report.finish()
    cases_path = Path(path).parent / name
    cases = read_cases(cases_path)
    said = load(cases_path)[0].data
    if not cases.part:
        cases.report.add((), "names no part", "add part = 'FILE', which the study needs")
        cases.report.finish()
    solved = [
        (number, entry.name)
        for number, entry in enumerate(cases.load_cases, 1)
        if entry.requested and not entry.excluded
    ]
    study = StudyFile(
        Path(path),
        cases_path,
        copy.deepcopy(said),
        tuple(title for _, title in solved),
        tuple(number for number, _ in solved),
    )
    _read_work(study, top)
    if study.deed == "optimise":
        read_settings(cases_path)
    for title, table in top.tables("parameters").items():
        if (parameter := _read_parameter(title, table, study.said)) is not None:
            study.parameters.append(parameter)
    if not top.data.get("parameters"):
        top.report.add((), "no parameters", "add a table [parameters.NAME] with a 'key'")
    _read_sample(study, top)
    for title, table in top.tables("results").items():
        study.wanted.append(read_wanted(title, table, study))
    if not top.data.get("results"):
        top.report.add((), "no results", "add a table [results.NAME] with a 'value'")
    study.keep = _read_keep(study, top)
    _check_names(study, report)
    top.done()
    report.finish()
    return study


def _read_work(study: StudyFile, top: Table) -> None:
    study.deed = top.choice("do", _DEEDS, "run")  # type: ignore[assignment]
    if top.has("mode"):
        study.mode = top.choice("mode", tuple(MODES))  # type: ignore[assignment]
        if study.deed == "optimise":
            hint = "set Sys.ComputationMode in [options] of the case file"
            top.problem("mode", "has no effect on an optimisation", hint)
    if top.has("tolerance"):
        study.tolerance = top.number("tolerance", 1e-3, above=0, below=1)
        if study.deed != "settle":
            top.problem("tolerance", 'has an effect on do = "settle" alone')


# --- parameters --------------------------------------------------------------------------------


def _read_parameter(name: str, table: Table, said: dict[str, Any]) -> Parameter | None:
    wanted = table.names("key", (name,))
    sources = [key for key in ("values", "range", "between", "column") if table.has(key)]
    logarithmic = table.choice("spacing", ("linear", "log"), "linear") == "log"
    whole = table.boolean("whole", False)
    found = [_found(table, said, key) for key in wanted]
    if len(sources) != 1:
        words = "needs one of" if not sources else "can have only one of"
        text = f"{table.label} {words} 'values', 'range', 'between' and 'column'"
        table.report.add(table.path, text)
    places = [entry for entry in found if entry is not None]
    table.done()
    if len(sources) != 1 or len(places) < len(found) or not found:
        return None
    base: Scalar = places[0][1]
    for key in ("spacing", "whole"):
        if key in table.data and sources[0] not in ("range", "between"):
            table.problem(key, "has an effect on 'range' and 'between' alone")
    values: tuple[Scalar, ...] = ()
    between = column = None
    if sources[0] == "values":
        values = _values(table, base)
    elif sources[0] == "range":
        values = _range(table, logarithmic, whole, base)
    elif sources[0] == "between":
        between = _between(table, logarithmic, base)
    else:
        column = table.text("column")
    return Parameter(
        name,
        table.path,
        tuple(wanted),
        tuple(place for place, _ in places),
        base,
        values,
        between,
        logarithmic,
        whole,
        column,
    )


def _found(table: Table, said: dict[str, Any], key: str) -> tuple[keys.Place, Scalar] | None:
    try:
        return keys.find(said, key)
    except keys.KeyMistakeError as error:
        table.report.add(
            table.where("key"), f"key {key!r} in {table.label} {error}", error.suggestion
        )
        return None


def _values(table: Table, base: Scalar) -> tuple[Scalar, ...]:
    said = table.data["values"]
    if not isinstance(said, list):
        table.problem("values", "must be a list")
        return ()
    if not said:
        table.problem("values", "is empty")
    for index, value in enumerate(said):
        if reason := misfit(value, base):
            table.problem("values", reason, "", index)
    if len({(type(value), repr(value)) for value in said}) < len(said):
        table.problem("values", "has a value twice")
    return tuple(said)


def misfit(value: object, base: Scalar) -> str:
    """Why a value can't stand where the case file has `base`; empty where it can."""
    is_number = isinstance(value, int | float) and not isinstance(value, bool)
    if isinstance(base, bool):
        return "" if isinstance(value, bool) else f"holds {value!r}, a truth value is wanted"
    if isinstance(base, str):
        fits = is_number or isinstance(value, str)  # a formula may be a number
        return "" if fits else f"holds {value!r}, a text is wanted"
    if not is_number:
        return f"holds {value!r}, a number is wanted"
    return "" if math.isfinite(float(value)) else f"holds {value!r}, which isn't finite"  # type: ignore[arg-type]


def _two_ends(table: Table, key: str, ends: list[Any], logarithmic: bool, base: Scalar) -> bool:
    """Whether the ends of a range or sample can be used; what is wrong is reported."""
    before = len(table.report.problems)
    for value in ends:
        if reason := misfit(value, 0.0):
            table.problem(key, reason)
    if isinstance(base, bool | str):
        kind = "truth value" if isinstance(base, bool) else "text"
        text = f"goes over numbers, and the case file has a {kind} there: {base!r}"
        table.problem(key, text, "give a list of 'values'")
    if len(table.report.problems) == before and not ends[0] < ends[1]:
        table.problem(key, f"is empty: {ends[0]!r} isn't below {ends[1]!r}")
    if logarithmic and len(table.report.problems) == before and ends[0] <= 0:
        table.problem(key, "must be above 0 for spacing = 'log'")
    return len(table.report.problems) == before


def _range(table: Table, logarithmic: bool, whole: bool, base: Scalar) -> tuple[Scalar, ...]:
    said = table.data["range"]
    if not isinstance(said, list) or len(said) != 3:
        table.problem("range", "must be three numbers: from, to, how many")
        return ()
    *ends, count = said
    if type(count) is not int or not 2 <= count <= MOST_VARIANTS:
        table.problem("range", f"must end with how many values, 2 or more, not {count!r}")
        return ()
    if not _two_ends(table, "range", ends, logarithmic, base):
        return ()
    parts = [k / (count - 1) for k in range(count)]
    found = tuple(spaced(part, (ends[0], ends[1]), logarithmic, whole) for part in parts)
    if len(set(found)) < count:
        table.problem("range", f"has fewer than {count} whole numbers in it")
    return found


def spaced(part: float, ends: tuple[float, float], logarithmic: bool, whole: bool) -> float:
    """The value at a part of the way from one end to the other, both met exactly."""
    low, high = ends
    if part in (0.0, 1.0):
        value = high if part else low
    elif logarithmic:
        value = low * (high / low) ** part
    else:
        value = low + (high - low) * part
    return round(value) if whole else float(value)


def _between(table: Table, logarithmic: bool, base: Scalar) -> tuple[float, float] | None:
    said = table.data["between"]
    if not isinstance(said, list) or len(said) != 2:
        table.problem("between", "must be two numbers: the lowest, the highest")
        return None
    if not _two_ends(table, "between", said, logarithmic, base):
        return None
    return float(said[0]), float(said[1])


def _read_sample(study: StudyFile, top: Table) -> None:
    sampled = [p.name for p in study.parameters if p.between is not None]
    table = top.table("sample")
    if table is not None:
        method = table.choice("method", _METHODS, "latin hypercube")
        count = table.integer("count", least=1)
        seed = table.integer("seed", 0, 0)
        table.done()
        study.sample = Sample(method, count, seed)  # type: ignore[arg-type]
        if not sampled and not top.report.problems:
            top.report.add(
                table.path, "[sample] has nothing to sample", "no parameter has 'between'"
            )
    elif sampled:
        text = f"{sampled[0]!r} is to be sampled, and there is no [sample]"
        top.report.add(("parameters", sampled[0]), text, "add [sample] with method and count")
    columns = [p for p in study.parameters if p.column is not None]
    name = top.text("table", "")
    if name:
        study.table = study.path.parent / name
        if not columns and not top.report.problems:
            top.problem("table", "is used by no parameter", "give one of them a 'column'")
    elif columns:
        where = (*columns[0].where, "column")
        top.report.add(
            where,
            f"{columns[0].name!r} has a column, and there is no table",
            "add table = 'FILE.csv'",
        )


# --- what stays, and names -----------------------------------------------------------------------


def _read_keep(study: StudyFile, top: Table) -> Keep:
    if not isinstance(top.data.get("keep"), dict):
        which = top.choice("keep", ("all", "none", "failed"), "failed")
        return Keep(which)  # type: ignore[arg-type]
    table = top.table("keep")
    assert table is not None
    keep = Keep(
        "best",
        table.integer("best", least=1),
        table.text("by"),
        table.choice("order", ("smallest", "largest"), "smallest"),  # type: ignore[arg-type]
    )
    columns = columns_of(study.wanted, study.load_cases)
    if keep.by and keep.by not in columns and not top.report.problems:
        table.problem(
            "by", f"names {keep.by!r}, which isn't reported", did_you_mean(keep.by, columns)
        )
    table.done()
    return keep


def _check_names(study: StudyFile, report: Mistakes) -> None:
    """Names of columns and what is set, each once."""
    taken = dict.fromkeys(RESERVED, "a column of every study")
    for parameter in study.parameters:
        _take(taken, parameter.name, "a parameter", parameter.where, report)
    for wanted in study.wanted:
        for column in columns_of([wanted], study.load_cases):
            _take(taken, column, "a result", wanted.where, report)
    owners: dict[keys.Place, str] = {}
    for parameter in study.parameters:
        for key, place in zip(parameter.keys, parameter.places, strict=True):
            if place in owners:
                text = f"{parameter.name!r} sets {key}, which {owners[place]!r} sets already"
                report.add(parameter.where, text)
            owners[place] = parameter.name
    columns = [p.column for p in study.parameters if p.column is not None]
    for parameter in study.parameters:
        if columns.count(parameter.column) > 1:  # type: ignore[arg-type]
            text = f"{counted(2, 'parameter')} take the column {parameter.column!r}"
            report.add((*parameter.where, "column"), text)
            break


def _take(
    taken: dict[str, str], name: str, owner: str, where: Iterable[str | int], report: Mistakes
) -> None:
    if name in taken:
        report.add(
            tuple(where), f"the name {name!r} is that of {taken[name]} already", "choose another"
        )
    taken[name] = owner


def clusters_of_study(path: PathLike) -> dict[str, Cluster]:
    """Clusters that the study's case file describes; none where the study names no case file."""
    name = load(path)[0].data.get("cases")
    return clusters_of(Path(path).parent / name) if isinstance(name, str) else {}
