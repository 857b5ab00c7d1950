"""The case file read as a whole.

Names of sets are resolved later, when the part is there; the key path kept with each entry lets
those messages name a line too.
"""

from __future__ import annotations

from collections.abc import Iterable
from pathlib import Path

from vkctl.basics.types import PathLike
from vkctl.basics.units import UNIT_SYSTEMS
from vkctl.basics.words import did_you_mean
from vkctl.directory.formats import LARGEST_NUMBER, OPTIONS

from ..part import MeshOptions
from .entries import CaseEntry, Cases, Names, SetKind
from .read_clusters import read_clusters
from .read_conditions import read_level, read_load, read_support
from .read_materials import check_materials, read_material
from .read_sets import read_set
from .toml_table import Table, load

_SHOWN = 20  # names in a message


def read_cases(path: PathLike) -> Cases:
    """Read and check a case file; CaseFileError tells all its mistakes at once."""
    top, report = load(path)
    cases = Cases(Path(path), report)
    cases.part = top.text("part", "")
    cases.units = _read_units(top)
    _read_mesh(cases, top.table("mesh"))
    _read_model(cases, top.table("model"))
    for name, table in top.tables("materials").items():
        cases.materials[name] = read_material(name, table)
    check_materials(cases, top)
    kinds: tuple[SetKind, ...] = ("node", "element", "face")
    for kind in kinds:
        for name, table in top.tables(f"{kind}_sets").items():
            cases.sets.append((name, read_set(kind, table)))
    cases.supports = {n: read_support(t) for n, t in top.tables("supports").items()}
    cases.loads = {n: read_load(t) for n, t in top.tables("loads").items()}
    if level := top.table("level"):
        cases.level = read_level(level)
    _read_load_cases(cases, top)
    cases.run_order = _read_run_order(cases, top)
    if options := top.table("options"):
        cases.options = _read_options(options)
    cases.clusters = read_clusters(top)
    top.table("optimise")  # keys of the optimisation loop, which reads them itself
    top.done()
    report.finish()
    return cases


def _read_units(top: Table) -> str | None:
    name = top.text("units", "")
    if not name or name in UNIT_SYSTEMS:
        return name or None
    known = ", ".join(UNIT_SYSTEMS)
    top.problem(
        "units",
        f"isn't a known system: {name!r}",
        did_you_mean(name, UNIT_SYSTEMS) or f"known are {known}",
    )
    return None


def _read_mesh(cases: Cases, table: Table | None) -> None:
    if table is None:
        return
    cases.scale = table.number("scale", 1.0, above=0)
    cases.reorder = table.choice("inverted", ("reorder", "refuse"), "reorder") == "reorder"
    options = MeshOptions(
        size=table.number("size", None, above=0),
        smallest_size=table.number("smallest_size", None, above=0),
        per_circle=table.integer("per_circle", 0, 0),
        order=table.integer("order", 2),
        curved=table.boolean("curved", True),
        threads=table.integer("threads", 1, 1),
        split=table.boolean("split", False),
    )
    if options.order not in (1, 2):
        table.problem("order", f"must be 1 or 2, not {options.order}")
    cases.mesh = options
    table.done()


def _read_model(cases: Cases, table: Table | None) -> None:
    if table is None:
        return
    cases.exclude = table.names("exclude")
    cases.ignore_level = table.names("ignore_level")
    cases.marked_nodes = table.names("marked_nodes")
    table.done()


def _read_load_cases(cases: Cases, top: Table) -> None:
    tables = top.table_list("load_case")
    everything = dict.fromkeys(cases.loads, 1.0)
    if not tables:
        entry = CaseEntry("all", (), tuple(cases.supports), everything, True, False)
        cases.load_cases = [entry]
    if len(tables) > LARGEST_NUMBER:
        top.report.add(("load_case",), f"more than {LARGEST_NUMBER} load cases")
        return
    taken: set[str] = set()
    for number, table in enumerate(tables, 1):
        name = table.text("name", f"case {number}")
        if name in taken:
            table.problem("name", f"{name!r} is taken by an earlier load case")
        taken.add(name)
        entry = CaseEntry(
            name,
            table.path,
            table.names("supports", tuple(cases.supports)),
            _case_loads(cases, table) if table.has("loads") else everything,
            table.boolean("requested", True),
            table.boolean("excluded", False),
        )
        _check_names(table, "supports", entry.supports, cases.supports)
        cases.load_cases.append(entry)
        table.done()
    if not cases.supports:
        text = "no supports: nothing holds the part"
        top.report.add((), text, "add a table [supports.NAME] with a 'set'")


def _case_loads(cases: Cases, table: Table) -> dict[str, float]:
    """Loads of a case: a list of names, or a table of factors."""
    if isinstance(table.data["loads"], dict):
        below = table.table("loads")
        assert below is not None
        factors = {name: below.number(name, 1.0) for name in below.data}
        _refuse_pulling(cases, below, factors)
    else:
        factors = dict.fromkeys(table.names("loads"), 1.0)
    _check_names(table, "loads", factors, cases.loads)
    return factors


def _refuse_pulling(cases: Cases, table: Table, factors: dict[str, float]) -> None:
    """A pin pushes one half of its bore; turned round it pushes the other half."""
    for name, factor in factors.items():
        if factor < 0 and name in cases.loads and cases.loads[name].kind == "bearing":
            text = "would make a bearing pull"
            table.problem(name, text, "give a bearing of its own with the opposite 'value'")


def _check_names(table: Table, key: str, used: Iterable[str], known: Iterable[str]) -> None:
    for index, name in enumerate(used):
        if table.report.is_full:
            return
        if name not in known:
            inside = name if isinstance(table.data.get(key), dict) else index
            text = f"names {name!r}, which isn't in [{key}]"
            table.problem(key, text, did_you_mean(name, known), inside)


def _read_run_order(cases: Cases, top: Table) -> list[int] | None:
    if not top.has("run_order"):
        return None
    names = {entry.name: number for number, entry in enumerate(cases.load_cases, 1)}
    given = top.names("run_order")
    for index, name in enumerate(given):
        if top.report.is_full:
            return None
        if name not in names:
            text = f"names {name!r}, which isn't a load case"
            top.problem("run_order", text, did_you_mean(name, names), index)
    there = set(given)
    missing = [name for name in names if name not in there]
    if missing:
        top.problem(
            "run_order",
            f"leaves out {', '.join(missing[:_SHOWN])}{', ...' if len(missing) > _SHOWN else ''}",
            "it has to name all load cases",
        )
    if len(set(given)) != len(given):
        top.problem("run_order", "names a load case twice")
    if top.report.problems:
        return None
    return [names[name] for name in given]


def _read_options(table: Table) -> dict[str, float]:
    """Options by full key; written either quoted or as TOML's dotted keys."""
    options = {}
    flat = dict(_flattened(table))
    for (*above, last), value in flat.items():
        key = ".".join((*above, last))
        at = (*table.path, *above, last)
        if key not in OPTIONS:
            text = f"unknown option {key!r} in [options]"
            table.report.add(at, text, did_you_mean(key, OPTIONS))
            continue
        option = OPTIONS[key]
        holder = Table({key: value}, table.path, table.report)
        table.report.lines.setdefault((*table.path, key), table.report.lines.get(at, 0))
        if option.type is int:
            number: float = holder.integer(key, 0)
        else:
            number = holder.number(key, 0.0)
        options[key] = number
        if option.low is not None and number < option.low:
            holder.problem(key, f"is {value}, the solver takes {option.low} at least")
        if option.high is not None and number > option.high:
            holder.problem(key, f"is {value}, the solver takes {option.high} at most")
    return options


def _flattened(table: Table) -> Iterable[tuple[Names, object]]:
    for key, value in table.data.items():
        if isinstance(value, dict):
            for below, inner in value.items():
                yield (key, below), inner
        else:
            yield (key,), value
