"""The results of a study as tables: a row for each variant that has come to its end."""

from __future__ import annotations

import csv
import importlib.util
import io
import tempfile
from collections.abc import Mapping
from pathlib import Path

from vkctl.basics.extras import need
from vkctl.directory import formats

from .entries import Scalar
from .journal import Plan
from .work import Outcome

CSV = "results.csv"
PARQUET = "results.parquet"

Row = dict[str, Scalar | None]


def rows_of(plan: Plan, outcomes: Mapping[int, Outcome]) -> list[Row]:
    """Parameters, status, results, seconds and message of each variant, by number."""
    rows = []
    for number in sorted(outcomes):
        outcome = outcomes[number]
        rows.append(
            {
                "variant": number,
                **plan.variants[number - 1],
                "status": outcome.status,
                **{column: outcome.values.get(column) for column in plan.columns},
                "seconds": outcome.seconds,
                "message": outcome.message,
            }
        )
    return rows


def titles_of(plan: Plan) -> list[str]:
    return ["variant", *plan.variants[0], "status", *plan.columns, "seconds", "message"]


def write_csv(out: Path, plan: Plan, rows: list[Row]) -> None:
    """Numbers keep all their digits; what isn't known is an empty cell."""
    text = io.StringIO()
    table = csv.DictWriter(text, titles_of(plan), lineterminator="\n")
    table.writeheader()
    table.writerows(rows)
    formats.write_parts(out / CSV, [text.getvalue().encode()])


def can_write_parquet() -> bool:
    return importlib.util.find_spec("duckdb") is not None


def write_parquet(out: Path, plan: Plan) -> None:
    """`results.csv` with a type for each column; empty texts and unknown values are null."""
    duckdb = need("duckdb")
    columns = ", ".join(f"{_quoted(title)} {_kind(title, plan)}" for title in titles_of(plan))
    with tempfile.TemporaryDirectory(prefix="vkctl-") as folder:
        source, made = Path(folder, CSV), Path(folder, PARQUET)
        source.write_bytes(formats.read_regular(out / CSV))
        with duckdb.connect(":memory:") as base:
            base.execute(f"CREATE TABLE results ({columns})")
            base.execute(f"COPY results FROM '{source}' (FORMAT csv, HEADER, NULLSTR '')")
            base.execute(f"COPY results TO '{made}' (FORMAT parquet)")
        formats.write_parts(out / PARQUET, [made.read_bytes()])


def _quoted(title: str) -> str:
    return '"' + title.replace('"', '""') + '"'


def _kind(title: str, plan: Plan) -> str:
    """Type of a column."""
    if title == "variant":
        return "BIGINT"
    if title in ("status", "message"):
        return "VARCHAR"
    if title == "seconds" or title in plan.columns:
        return "DOUBLE"
    kinds = {type(variant[title]) for variant in plan.variants}
    if kinds == {bool}:
        return "BOOLEAN"
    if kinds == {int}:
        return "BIGINT"
    return "DOUBLE" if kinds <= {int, float} else "VARCHAR"
