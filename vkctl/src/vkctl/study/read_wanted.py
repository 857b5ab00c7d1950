"""What a study reports, from the tables [results.NAME]."""

from __future__ import annotations

from collections.abc import Iterable, Sequence

from vkctl.basics.words import did_you_mean
from vkctl.prepare.case_file.toml_table import Table

from .entries import StudyFile, Wanted
from .measured import FIELDS, OF_LOAD_CASES, OF_OPTIMISATION, OF_RUN, SMALLEST_COUNTS

EACH = "each"
_TAKES = ("max", "min", "mean", "percentile")
_OVER = ("largest", "smallest", "sum")


def read_wanted(name: str, table: Table, study: StudyFile) -> Wanted:
    value = _read_value(table, study)
    of_field, of_case = value in FIELDS, value not in (*OF_RUN, *OF_OPTIMISATION)
    take = table.choice("take", _TAKES, "max")
    usual = "smallest" if take == "min" or value in SMALLEST_COUNTS else "largest"
    wanted = Wanted(
        name,
        table.path,
        value,
        take,  # type: ignore[arg-type]
        table.number("percentile", 50.0, least=0, most=100),
        table.choice("over", _OVER, usual),  # type: ignore[arg-type]
        table.text("load_case", "") or None,
        table.text("set", "") or None,
    )
    _refuse_useless(table, value, of_field, of_case)
    if take == "percentile" and not table.has("percentile"):
        table.report.add(
            table.path, f"{table.label} has no 'percentile'", "such as percentile = 99"
        )
    elif take != "percentile" and "percentile" in table.data:
        table.problem("percentile", "has an effect on take = 'percentile' alone")
    if of_case and wanted.load_case is not None:
        _check_case(table, wanted.load_case, study)
    table.done()
    return wanted


def _read_value(table: Table, study: StudyFile) -> str:
    value = table.text("value")
    known = (*FIELDS, *OF_LOAD_CASES, *OF_RUN, *OF_OPTIMISATION)
    if value and value not in known:
        table.problem("value", f"can't be {value!r}", did_you_mean(value, known))
    elif value in OF_OPTIMISATION and study.deed != "optimise":
        table.problem("value", f"{value!r} is told by an optimisation alone", "do = 'optimise'")
    return value


def _refuse_useless(table: Table, value: str, of_field: bool, of_case: bool) -> None:
    """Keys that would change nothing."""
    for key, useful, kind in (
        ("take", of_field, "a field"),
        ("set", of_field or value == "safety", "a field or the safety factor"),
        ("load_case", of_case, "what load cases have"),
        ("over", of_case, "what load cases have"),
    ):
        if key in table.data and not useful and value:
            table.problem(key, f"has no effect on {value!r}, only on {kind}")


def _check_case(table: Table, name: str, study: StudyFile) -> None:
    if name != EACH and name not in study.load_cases:
        text = f"names {name!r}, which isn't a load case that is solved"
        table.problem("load_case", text, did_you_mean(name, study.load_cases))


def columns_of(wanted: Iterable[Wanted], load_cases: Sequence[str]) -> list[str]:
    """Names of the columns that results fill."""
    found: list[str] = []
    for one in wanted:
        if one.load_case == EACH and EACH not in load_cases:
            found += [f"{one.name}.{case}" for case in load_cases]
        else:
            found.append(one.name)
    return found
