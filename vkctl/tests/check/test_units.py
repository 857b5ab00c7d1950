"""Faults that `vkctl.check.units` tells."""

import pytest

from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.directory.model import Material
from vkctl.shapes.boxes import box

from .faults import assert_told, collection, sound, with_case

FAULTS, provokes = collection()


def named(units):
    return formats.CaseNotes(units, load_cases=(formats.NotedCase("one"),))


def test_named_units_that_fit_are_not_doubted(tmp_path):
    part = box("tet4", (3, 1, 1), (0.3, 0.1, 0.1))  # a small part of steel, in mm
    model.write(sound(nodes=part.nodes, materials=[Material.isotropic(2.1e5, 0.3)])[0], tmp_path)
    assert any(found.code == "units-size" for found in check(tmp_path).findings)
    formats.write_case_notes(tmp_path, named("mm-N-MPa"))
    assert not any(found.code.startswith("units") for found in check(tmp_path).findings)


@provokes("units-size", "warning", "looks like Pa", "millimetres")
def pascals_with_millimetres(directory):
    part = box("tet4", (3, 1, 1), (300.0, 100.0, 100.0))
    materials = [Material.isotropic(2.1e11, 0.3)]
    model.write(sound(nodes=part.nodes, materials=materials)[0], directory)


@provokes("units-size", "warning", "looks like MPa", "metres")
def megapascals_with_metres(directory):
    part = box("tet4", (3, 1, 1), (0.3, 0.1, 0.1))
    materials = [Material.isotropic(2.1e5, 0.3)]
    model.write(sound(nodes=part.nodes, materials=materials)[0], directory)


@provokes("units-modulus", "warning", "2.1e+11 MPa is that of no known solid", "mm-N-MPa")
def pascals_that_are_called_megapascals(directory):
    model.write(sound(materials=[Material.isotropic(2.1e11, 0.3)])[0], directory)
    formats.write_case_notes(directory, named("mm-N-MPa"))


@provokes("units-load", "warning", "mean strain of 1.1")
def a_force_that_is_too_large(directory):
    with_case(directory, lambda case, part: case.load(16, (0, 0, -9999.0)))


@provokes("units-displacement", "warning", "displacement of 30")
def a_displacement_beyond_the_size(directory):
    with_case(directory, lambda case, part: case.prescribe(4, "z", 30.0))


@provokes("units-temperature", "warning", "strain of 0.24")
def a_temperature_that_doubles_the_part(directory):
    materials = [Material.isotropic(1000.0, 0.3, expansion=0.012)]
    with_case(directory, lambda case, part: case.heat(4, 20.0), materials=materials)


@provokes("load-absurd", "error", "mean strain of 3")
def a_force_beyond_all_measure(directory):
    with_case(directory, lambda case, part: case.load(16, (3e38, 0, 0)))


@provokes("load-absurd", "error", "displacement of 3e+38")
def a_displacement_beyond_all_measure(directory):
    with_case(directory, lambda case, part: case.prescribe(4, "z", 3e38))


@provokes("load-absurd", "error", "strain of 1.2e+1")
def a_temperature_beyond_all_measure(directory):
    materials = [Material.isotropic(1000.0, 0.3, expansion=0.012)]
    with_case(directory, lambda case, part: case.heat(4, 1e20), materials=materials)


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")
