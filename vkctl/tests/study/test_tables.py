"""Tables of results, for people and programs."""

from __future__ import annotations

import csv
from pathlib import Path

import duckdb
import pytest

from vkctl.study import Outcome, Plan
from vkctl.study.entries import Keep
from vkctl.study.keeping import kept_after
from vkctl.study.tables import rows_of, write_csv, write_parquet

PLAN = Plan(
    {},
    [
        {"E": 1.5, "set": 'a "b", c', "n": 3},
        {"E": 2, "set": "d", "n": 4},
        {"E": 3, "set": "", "n": 5},
    ],
    ["energy", "odd 'name'"],
)
OUTCOMES = {
    2: Outcome(2, "failed", {}, 0.25, 'it\'s, said: "no"'),
    1: Outcome(1, "done", {"energy": 1 / 3, "odd 'name'": float("inf")}, 0.5),
}


def test_the_table_has_a_row_for_each_finished_variant(tmp_path: Path) -> None:
    write_csv(tmp_path, PLAN, rows_of(PLAN, OUTCOMES))
    with open(tmp_path / "results.csv", newline="") as stream:
        first, second = csv.DictReader(stream)
    assert (first["variant"], first["status"], first["set"]) == ("1", "done", 'a "b", c')
    assert float(first["energy"]) == 1 / 3  # all its digits
    assert (second["energy"], second["message"]) == ("", 'it\'s, said: "no"')


def test_the_typed_table_holds_the_same(tmp_path: Path) -> None:
    folder = tmp_path / "it's"
    folder.mkdir()
    write_csv(folder, PLAN, rows_of(PLAN, OUTCOMES))
    write_parquet(folder, PLAN)
    data = (folder / "results.parquet").read_bytes()
    (tmp_path / "plain.parquet").write_bytes(data)
    found = duckdb.sql(f"SELECT * FROM '{tmp_path}/plain.parquet' ORDER BY variant")
    assert found is not None
    kinds = dict(zip(found.columns, map(str, found.types), strict=True))
    assert kinds == {
        "variant": "BIGINT",
        "E": "DOUBLE",
        "set": "VARCHAR",
        "n": "BIGINT",
        "status": "VARCHAR",
        "energy": "DOUBLE",
        "odd 'name'": "DOUBLE",
        "seconds": "DOUBLE",
        "message": "VARCHAR",
    }
    first, second = found.fetchall()
    assert first == (1, 1.5, 'a "b", c', 3, "done", 1 / 3, float("inf"), 0.5, None)
    assert second == (2, 2.0, "d", 4, "failed", None, None, 0.25, 'it\'s, said: "no"')


@pytest.mark.parametrize(("order", "expected"), [("smallest", [4, 2]), ("largest", [3, 1])])
def test_the_best_by_a_result_are_kept_the_lower_number_of_equal_ones(
    order: str, expected: list[int]
) -> None:
    values = {1: 3.0, 2: 2.0, 3: 3.0, 4: 1.0, 5: 2.0, 6: None, 7: float("nan")}
    keep = Keep("best", 2, "a", order)  # type: ignore[arg-type]
    for numbers in (list(values), list(values)[::-1], [5, 3, 7, 1, 6, 2, 4]):
        kept: list[Outcome] = []
        for number in numbers:
            kept = kept_after(keep, kept, Outcome(number, "done", {"a": values[number]}))
        found = sorted(one.number for one in kept)
        assert found == sorted(expected if order == "smallest" else [1, 3])


@pytest.mark.parametrize(("which", "expected"), [("all", [1, 2]), ("none", []), ("failed", [2])])
def test_all_none_or_the_failed_are_kept(which: str, expected: list[int]) -> None:
    kept: list[Outcome] = []
    for number in (1, 2):
        kept = kept_after(Keep(which), kept, OUTCOMES[number])  # type: ignore[arg-type]
    assert [one.number for one in kept] == expected
