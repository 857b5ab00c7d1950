"""Faults that `vkctl.check.estimates` tells."""

from pathlib import Path

import numpy as np
import pytest

from vkctl.check import check
from vkctl.check.dissection import rising_sizes
from vkctl.check.estimates import check_estimate, factored_time
from vkctl.check.inputs import read_inputs
from vkctl.directory import formats, model
from vkctl.directory.model import LoadCase
from vkctl.directory.structure import node_neighbours
from vkctl.running.run import run
from vkctl.shapes.boxes import box

from .faults import assert_told, collection, sound, with_options

FAULTS, provokes = collection()


@provokes("memory-budget", "warning", "go on iteratively")
def a_budget_that_is_too_small(directory):
    with_options(directory, "Sys.AvailableMemGB=1e-7\n")


@provokes("memory-no-budget", "note", "whatever memory")
def no_budget(directory):
    with_options(directory, "Sys.AvailableMemGB=0\n")


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


def test_a_run_that_needs_more_memory_than_is_free_is_told(tmp_path, monkeypatch):
    model.write(sound()[0], tmp_path)
    inputs, _ = read_inputs(tmp_path)
    monkeypatch.setattr("vkctl.check.estimates.available_gb", lambda: 0.5)
    values = {"iterative": 0.0, "factor_gb": 3.0, "memory_gb": 4.0}
    (finding,) = check_estimate(inputs, values)
    assert finding.code == "memory-machine" and "4 GB, 0.5 GB are free" in finding.message


@pytest.mark.parametrize("kind", ["tet4", "hex8"])
def test_equations_and_entries_come_out_as_the_solver_counts_them(tmp_path, kind):
    part = box(kind, (8, 5, 5))
    case = LoadCase().prescribe(part.face("x-")).load(part.corner("x+", "y+", "z+"), (0, 0, -1e-3))
    model.write(sound(nodes=part.nodes, elements=part.elements, load_cases=[case])[0], tmp_path)
    values = check(tmp_path).estimate
    assert values["equations"] == 3 * 8 * 36
    free = part.nodes[:, 0] > 0
    start, neighbours = node_neighbours(len(free), part.elements.used_tables())
    row = np.repeat(np.arange(len(free)), np.diff(start))
    kept = free[row] & free[neighbours]
    diagonal = row == neighbours
    assert values["entries"] == 9 * (kept & ~diagonal).sum() + 6 * (kept & diagonal).sum()


def test_the_factor_estimate_is_near_what_the_solver_reports(tmp_path):
    part = box("tet4", (16, 12, 12))
    case = LoadCase().prescribe(part.face("x-")).load(part.corner("x+", "y+", "z+"), (0, 0, -1e-3))
    model.write(sound(nodes=part.nodes, elements=part.elements, load_cases=[case])[0], tmp_path)
    estimated = check(tmp_path).estimate
    reported = run(tmp_path).log.load_cases[0].memory_estimate_gb
    assert estimated["factor_gb"] == pytest.approx(reported, rel=0.3)


def test_the_time_with_a_factor_is_estimated_only_as_far_as_it_is_asked_for(tmp_path, monkeypatch):
    part = box("hex8", (14, 12, 12))
    case = LoadCase().prescribe(part.face("x-")).load(part.corner("x+", "y+", "z+"), (0, 0, -1e-3))
    model.write(sound(nodes=part.nodes, elements=part.elements, load_cases=[case])[0], tmp_path)
    Path(tmp_path, formats.OPTIONS_FILE).write_text("Sys.ComputationMode=2\n")
    whole = check(tmp_path).estimate["seconds"]
    assert factored_time(tmp_path).is_below(1.001 * whole)
    assert not factored_time(tmp_path).is_below(0.999 * whole)
    asked = []

    def counted(*arguments):
        for size in rising_sizes(*arguments):
            asked.append(size)
            yield size

    monkeypatch.setattr("vkctl.check.estimates.rising_sizes", counted)
    time = factored_time(tmp_path)
    assert asked == []
    assert not time.is_below(0.1 * whole) and (few := len(asked)) > 0
    assert not time.is_below(0.05 * whole) and len(asked) == few
    assert time.is_below(2.0 * whole) and len(asked) > few


def test_without_the_memory_for_a_factor_its_time_is_infinite(tmp_path, monkeypatch):
    model.write(sound()[0], tmp_path)
    monkeypatch.setattr("vkctl.check.estimates.available_gb", lambda: 0.001)
    assert not factored_time(tmp_path).is_below(1e12)
