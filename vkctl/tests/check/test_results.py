"""Faults that `vkctl.check.results` tells, and what a run leaves draws none."""

import numpy as np
import pytest

from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.directory.model import Material
from vkctl.running.run import run

from .faults import assert_told, collection, cut, sound

FAULTS, provokes = collection()


def _solved(directory, **changes):
    """A load case that a run has finished."""
    model.write(sound(**changes)[0], directory)
    assert run(directory).ok


def _yielding(directory):
    _solved(directory, materials=[Material.yielding(1000.0, 0.3, 0.5)])


def _overwrite(directory, name, offset, value):
    path = directory / name
    content = bytearray(path.read_bytes())
    content[offset : offset + value.nbytes] = value.tobytes()
    path.write_bytes(content)


@provokes("result-missing", "error", "marked done", "ws.tcval.0001")
def a_done_load_case_without_its_criterion(directory):
    _solved(directory)
    (directory / "ws.tcval.0001").unlink()


@provokes("result-missing", "error", "ws.comval.0001")
def a_done_load_case_without_its_totals(directory):
    _solved(directory)
    (directory / "ws.comval.0001").unlink()


@provokes("result-missing", "error", "ws.sstate.0001")
def a_done_load_case_without_the_displacements_of_a_good_solution(directory):
    _solved(directory)
    (directory / "ws.sstate.0001").unlink()


@provokes("result-missing", "error", "ws.mstate.0001")
def a_done_load_case_without_its_element_state(directory):
    _yielding(directory)
    (directory / "ws.mstate.0001").unlink()


@provokes("result-length", "error", "ws.amsval.0001", "cut off")
def stresses_cut_short(directory):
    _solved(directory)
    cut(directory, "ws.amsval.0001", 1)


@provokes("result-length", "error", "ws.disval.0001")
def magnitudes_of_no_bytes(directory):
    _solved(directory)
    (directory / "ws.disval.0001").write_bytes(b"")


@provokes("result-length", "error", "ws.comval.0001", "39 bytes")
def totals_cut_short(directory):
    _solved(directory)
    cut(directory, "ws.comval.0001", 1)


@provokes("result-length", "warning", "ws.amsval.0001")
def stresses_with_more_behind(directory):
    _solved(directory)
    with open(directory / "ws.amsval.0001", "ab") as stream:
        stream.write(b"more")


@provokes("result-count", "error", "count of 15", "the model has 16")
def stresses_of_another_model(directory):
    _solved(directory)
    _overwrite(directory, "ws.amsval.0001", 0, np.int32(15))


@provokes("result-totals", "error", "load case 2")
def totals_of_another_load_case(directory):
    _solved(directory)
    _overwrite(directory, "ws.comval.0001", 0, np.int32(2))


@provokes("result-totals", "error", "kind 0")
def totals_of_another_kind(directory):
    _solved(directory)
    _overwrite(directory, "ws.comval.0001", 4, np.int32(0))


@provokes("result-totals", "error", "quality of 0.25")
def totals_of_a_quality_at_which_runs_stop(directory):
    _solved(directory)
    _overwrite(directory, "ws.comval.0001", 8, np.float32(0.25))


@provokes("result-undefined", "error", "ws.comval.0001")
def totals_that_are_no_numbers(directory):
    _solved(directory)
    _overwrite(directory, "ws.comval.0001", 12, np.float32(np.nan))


@provokes("result-undefined", "error", "ws.sstate.0001", "no numbers")
def displacements_that_are_no_numbers(directory):
    _solved(directory)
    _overwrite(directory, "ws.sstate.0001", 100, np.float32(np.inf))


@provokes("result-undefined", "error", "ws.sstate.0001", "1e+30")
def displacements_beyond_all_measure(directory):
    _solved(directory)
    _overwrite(directory, "ws.sstate.0001", 100, np.float32(1e30))


@provokes("result-undefined", "error", "negative magnitudes")
def a_magnitude_with_its_sign_turned(directory):
    _solved(directory)
    _overwrite(directory, "ws.disval.0001", 4 + 4 * 3, np.float32(-0.1))


@provokes("result-undefined", "error", "ws.mstate.0001", "1 element (3)")
def an_element_state_above_one(directory):
    _yielding(directory)
    _overwrite(directory, "ws.mstate.0001", 4 + 4 * 2, np.float32(1.5))


@provokes("result-contradiction", "error", "ws.sstate", "ws.disval")
def a_displacement_with_a_bit_turned(directory):
    _solved(directory)
    shift = formats.read_displacements(directory, 1)
    place = np.abs(shift).argmax()
    _overwrite(directory, "ws.sstate.0001", 8 + 4 * place, shift.ravel()[place] * np.float32(2))


@provokes("result-contradiction", "error", "ws.comval", "ws.disval")
def a_largest_displacement_that_no_node_has(directory):
    _solved(directory)
    _overwrite(directory, "ws.comval.0001", 24, np.float32(1e3))


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("kind", ["tet4", "tet10", "mixed"])
def test_what_a_run_leaves_draws_no_message_about_results(tmp_path, kind):
    materials = [Material.yielding(1000.0, 0.3, 0.5)]
    whole, part = sound(kind, count=2, materials=materials)
    whole.load_cases[1].pattern = 2
    whole.load_cases[1].prescribe(part.corner("x+", "y-", "z-"), "z", 0.3)
    whole.set_level(part.nodes[:, 0] - 0.4)
    model.write(whole, tmp_path)
    for _ in range(2):
        model.set_flags(tmp_path, clear_done=True)
        assert run(tmp_path).ok
        assert not [f for f in check(tmp_path).findings if f.code.startswith("result-")]


def test_every_turned_high_bit_of_an_element_state_is_told(tmp_path):
    _yielding(tmp_path)
    sound_state = formats.read_element_state(tmp_path, 1)
    for bit in (31, 30):  # the sign, and the exponent's highest
        words = sound_state.view("<u4").copy()
        words[5] ^= np.uint32(1 << bit)
        formats.write_element_state(tmp_path, 1, words.view("<f4"))
        assert "result-undefined" in {f.code for f in check(tmp_path).of("error")}
