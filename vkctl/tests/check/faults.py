"""Directories with one fault each, and what the check and the solver have to say to them."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.running.run import run
from vkctl.shapes.boxes import box


@dataclass(frozen=True)
class Fault:
    """A fault, the finding it draws, and words of its message; `stops` the solver too."""

    code: str
    severity: str
    words: tuple[str, ...]
    spoil: Callable[[Path], Any]  # writes a directory with the fault
    stops: bool


def collection():
    """(faults by name, decorator that adds a function to them)."""
    faults = {}

    def provokes(code, severity, *words, stops=False):
        def register(function):
            faults[function.__name__] = Fault(code, severity, words, function, stops)
            return function

        return register

    return faults, provokes


def assert_told(fault, directory):
    """The check tells the fault with its code, severity and words."""
    directory.mkdir()
    fault.spoil(directory)
    found = [
        f for f in check(directory).findings if (f.code, f.severity) == (fault.code, fault.severity)
    ]
    texts = " ".join(f"{f.message} {f.where} {f.hint}" for f in found)
    assert found, f"{fault.code} was not found"
    for word in fault.words:
        assert word in texts


def assert_stops(fault, directory):
    """The check calls the fault an error, and the solver stops at it."""
    fault.spoil(directory)
    assert check(directory).status == 2
    assert run(directory).status == 242


def sound(kind="tet4", count=1, **changes):
    """A model without fault: a clamped box with a force; `changes` replace fields of Model."""
    part = box(kind, (3, 1, 1), (3.0, 1.0, 1.0))
    cases = []
    for _ in range(count):
        case = LoadCase(pattern=1).prescribe(part.face("x-"))
        cases.append(case.load(part.corner("x+", "y+", "z+"), (0, 0, -1.0)))
    fields = {
        "nodes": part.nodes,
        "elements": part.elements,
        "materials": [Material.isotropic(1000.0, 0.3)],
        "load_cases": cases,
        **changes,
    }
    return Model(**fields), part


def findings_of(directory):
    return {(f.code, f.severity): f for f in check(directory).findings}


def alter(directory, read, write, change):
    """Rewrite a file after `change` has worked on its content."""
    content = read(directory)
    changed = change(content)
    write(directory, content if changed is None else changed)


def cut(directory, name, by=4):
    path = Path(directory, name)
    path.write_bytes(path.read_bytes()[:-by])


def with_case(directory, change, **changes):
    """Write the sound model after `change` has worked on its load case and its mesh."""
    whole, part = sound(**changes)
    change(whole.load_cases[0], part)
    model.write(whole, directory)


def with_material(directory, material):
    model.write(sound(materials=[material])[0], directory)


def with_options(directory, text):
    model.write(sound()[0], directory)
    Path(directory, formats.OPTIONS_FILE).write_text(text)


def with_level(directory, values, nodes=None):
    whole, _ = sound()
    whole.set_level(values, nodes)
    model.write(whole, directory)


def with_coordinates(directory, change, kind="tet4"):
    whole, part = sound(kind)
    change(whole.nodes, part)
    model.write(whole, directory)


def with_table(directory, change):
    model.write(sound()[0], directory)
    alter(directory, formats.read_elements, formats.write_elements, change)


def with_records(directory, change, count=1):
    model.write(sound(count=count)[0], directory)
    alter(directory, formats.read_loadcases, formats.write_loadcases, change)


def with_structure(directory, change):
    model.write(sound()[0], directory)
    alter(directory, formats.read_structure, formats.write_structure, change)
