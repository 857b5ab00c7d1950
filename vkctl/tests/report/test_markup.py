"""Texts and tables of pages."""

from __future__ import annotations

import pytest

from vkctl.ask.tables import Column, Table
from vkctl.report.markup import answer_table, items, paragraph, section, table, text, told

EVIL = "</script><img src=x onerror=\"alert('in')\">"


def test_no_text_brings_markup_along() -> None:
    pieces = (
        text(EVIL),
        paragraph(EVIL),
        section("name", EVIL, paragraph(EVIL)),
        items([EVIL]),
        table(EVIL, [EVIL, EVIL], [[EVIL, 1]]),
        answer_table(Table(EVIL, [Column(EVIL)], [(EVIL,)], headings={0: EVIL}, notes=[EVIL])),
    )
    for piece in pieces:
        assert "&lt;img" in piece
        assert "<img" not in piece
        assert '"alert' not in piece


def test_signs_that_a_reader_could_not_see_are_written_out() -> None:
    assert text("a\u202eb\x00") == "a\\u202eb\\x00"


def test_an_empty_table_and_an_empty_section_are_nothing() -> None:
    assert table("none", ["a"], []) == ""
    assert section("a", "A", "", "") == ""


def test_numbers_are_set_to_the_right_and_texts_to_the_left() -> None:
    found = table("t", ["n", "s"], [[1.5, "x"], [None, "2"]])
    assert '<th scope="col" class="number">n</th><th scope="col">s</th>' in found
    assert '<td class="number">1.5</td><td>x</td>' in found
    assert '<td class="number">–</td><td>2</td>' in found


@pytest.mark.parametrize(
    ("value", "words"),
    [
        (None, "–"),
        (12, "12"),
        (12000.0, "12000"),
        (1234567.0, "1.235e+06"),
        (0.00123456, "0.001235"),
        (float("nan"), "none"),
        (float("inf"), "∞"),
        (float("-inf"), "-∞"),
    ],
)
def test_numbers_are_told_in_four_digits(value: float | None, words: str) -> None:
    assert told(value) == words
