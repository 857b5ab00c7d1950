"""Every text of the shared list of option lines, read by the companion and by the solver."""

import numpy as np
import program_under_test
import pytest
from check.faults import sound
from option_lines import option_texts

from vkctl.check import check
from vkctl.check.inputs import read_inputs
from vkctl.directory import formats, model


@pytest.fixture(scope="module")
def part(tmp_path_factory):
    target = tmp_path_factory.mktemp("part")
    model.write(sound()[0], target)
    return target


def _write(directory, text):
    (directory / formats.OPTIONS_FILE).write_bytes(text)


def test_option_lines_get_the_outcome_of_the_list(part):
    for given in option_texts():
        _write(part, given.text)
        inputs, _ = read_inputs(part)
        lines = inputs.options or []
        assert all(line.readable for line in lines) == given.readable, given
        assert {line.key for line in lines} - {None} == {given.key} - {None}, given
        if given.outcome in ("ignored", "kept"):
            assert inputs.option_values == {k: o.default for k, o in formats.OPTIONS.items()}, given
        elif given.readable and given.key:
            value = np.float32(inputs.option_values[given.key])
            assert value == np.float32(given.outcome), given


def test_the_solver_refuses_the_option_lines_that_the_check_calls_errors(part):
    for given in option_texts(ends=("\n",)):
        _write(part, given.text)
        model.set_flags(part, clear_done=True)
        status = program_under_test.start(part, timeout=300, OMP_THREAD_LIMIT="1").status
        assert (status == 0) == given.readable, given
        assert (check(part).status == 2) != given.readable, given


@pytest.mark.parametrize(
    ("key", "value"),
    [
        ("Sta.BStressExp", 99999999999),
        ("Sys.MaxNumCompThreads", -(2**31) - 1),
        ("Sta.MatSlopeFactor", 1e60),
        ("Sta.MatSlopeFactor", float("nan")),
        ("Sys.AvailableMemGB", float("-inf")),
    ],
)
def test_a_value_that_the_solver_cannot_read_is_not_written(part, key, value):
    _write(part, b"Sta.BStressExp=3\n")
    with pytest.raises(ValueError):
        formats.update_options(part, {key: value})
    with pytest.raises(ValueError):
        formats.write_options(part, {key: value})
    assert formats.read_options(part) == {"Sta.BStressExp": 3}
