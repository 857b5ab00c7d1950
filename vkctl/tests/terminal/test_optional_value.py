"""A switch that may bring a number along."""

import pytest

from vkctl.terminal.optional_value import split


@pytest.mark.parametrize(
    ("words", "expected"),
    [
        (["--settle", "part"], ["--settle", "part"]),
        (["part", "--settle"], ["part", "--settle"]),
        (["--settle", "1e-5", "part"], ["--settle", "--settle-to", "1e-5", "part"]),
        (["part", "--settle=0.1"], ["part", "--settle", "--settle-to", "0.1"]),
        (["part", "--settle="], ["part", "--settle", "--settle-to", ""]),
        (["--settle", "1e-5", "7"], ["--settle", "--settle-to", "1e-5", "7"]),
    ],
)
def test_only_a_number_right_behind_the_switch_belongs_to_it(words, expected):
    assert split(words) == expected
