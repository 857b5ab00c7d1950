"""Faults that `vkctl.check.outputs` tells."""

import os

import pytest

from vkctl.check import check
from vkctl.directory import model

from .faults import assert_stops, assert_told, collection, findings_of, sound

FAULTS, provokes = collection()


@provokes("output-place", "error", "ws.tcval.0001", stops=True)
def a_directory_in_place_of_a_result(directory):
    model.write(sound()[0], directory)
    (directory / "ws.tcval.0001").mkdir()


@provokes("output-place", "error", "ws.comval.0001", stops=True)
def a_link_to_nowhere_in_place_of_a_result(directory):
    model.write(sound()[0], directory)
    (directory / "ws.comval.0001").symlink_to("gone/ws.comval.0001")


@provokes("output-place", "error", "ws.sstate.0001")
def a_pipe_in_place_of_a_result(directory):
    model.write(sound()[0], directory)
    os.mkfifo(directory / "ws.sstate.0001")


@provokes("output-place", "error", "vk_rund_log.txt")
def a_directory_in_place_of_the_log(directory):
    model.write(sound()[0], directory)
    (directory / "vk_rund_log.txt").mkdir()


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)


def _refusing(monkeypatch, refused):
    """As for a user who may not write some paths: the tests may run as one who may write all."""
    access = os.access

    def answer(path, mode):
        return not (mode & os.W_OK and refused(path)) and access(path, mode)

    monkeypatch.setattr(os, "access", answer)


def test_a_directory_that_cannot_be_written_is_told(tmp_path, monkeypatch):
    model.write(sound()[0], tmp_path)
    _refusing(monkeypatch, lambda path: os.fspath(path) == os.fspath(tmp_path))
    assert ("output-directory", "error") in findings_of(tmp_path)


def test_a_result_that_is_protected_is_told(tmp_path, monkeypatch):
    model.write(sound()[0], tmp_path)
    (tmp_path / "ws.disval.0001").write_bytes(b"")
    _refusing(monkeypatch, lambda path: os.fspath(path).endswith("ws.disval.0001"))
    assert ("output-protected", "error") in findings_of(tmp_path)


def test_a_device_for_a_log_is_as_good_as_a_file(tmp_path):
    model.write(sound()[0], tmp_path)
    (tmp_path / "vk_rund_log.txt").symlink_to("/dev/null")
    assert check(tmp_path).status == 0
