"""Models with the files that a run would leave."""

from __future__ import annotations

from pathlib import Path

import numpy as np

from vkctl.directory import formats
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.shapes.boxes import box


def solved_box(directory, deflection=0.01):
    """A small box with the files a run would leave: a parabola of deflections."""
    part = box("hex8", (6, 2, 2), (6.0, 2.0, 2.0))
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0, 0, -1.0)))
    write(Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case]), directory)
    shift = np.zeros_like(part.nodes)
    shift[:, 2] = -deflection * (part.nodes[:, 0] / 6.0) ** 2
    totals = np.zeros(1, formats.TOTALS)[0]
    totals["LoadCase"], totals["Kind"], totals["ARQua"] = 1, 1, 1.0
    totals["MaxDis"], totals["R"] = deflection, (0, 0, -4.0)
    formats.write_totals(directory, 1, totals)
    formats.write_displacements(directory, 1, shift)
    formats.write_magnitude(directory, 1, np.linalg.norm(shift, axis=1))
    formats.write_stress(directory, 1, np.linspace(-2, 3, len(part.nodes)))
    formats.write_criterion(directory, 1, [])
    (directory / formats.LOG_FILE).write_text(
        "Data<Key:LCaseId><Value:1>\nInfo<Msg:IMode: 1>\nInfo<Msg:ICount: 17>\n"
        "Data<Key:ARQua><Value:1.000000E+00>\nInfo<Msg:LCaseTime: 00:00:01.500 >\n"
        "Info<Msg:Total time: 00:00:02.000 >\nInfo<Msg:Tool.vk_rund.End >\n"
    )


def named(directory, *names, units="mm-N-MPa"):
    """Give the load cases of a directory their names, and its numbers their units."""
    cases = tuple(formats.NotedCase(name) for name in names)
    formats.write_case_notes(directory, formats.CaseNotes(units=units, load_cases=cases))


def change(directory, quantity, number, index, factor):
    read = getattr(formats, f"read_{quantity}")
    values = read(directory, number).copy()
    values[index] *= np.float32(factor)
    getattr(formats, f"write_{quantity}")(directory, number, values)


def make_model(kind: str = "tet4", cells: tuple[int, int, int] = (8, 4, 4)) -> Model:
    """A box of 8 x 4 x 4."""
    part = box(kind, cells, (8.0, 4.0, 4.0))  # type: ignore[arg-type]
    return Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [LoadCase()])


def with_hole(model: Model, radius: float = 1.3) -> Model:
    """A hole along y through the middle."""
    model.set_level(np.hypot(model.nodes[:, 0] - 4.0, model.nodes[:, 2] - 2.0) - radius)
    return model


def write_results(model: Model, directory: Path, numbers: tuple[int, ...] = (1,)) -> None:
    """A working directory with results that are simple functions of the coordinates."""
    model.load_cases = [LoadCase() for _ in numbers]
    write(model, directory)
    for number in numbers:
        shift = 0.01 * number * model.nodes.astype(np.float32)
        formats.write_displacements(directory, number, shift)
        formats.write_magnitude(directory, number, np.linalg.norm(shift, axis=1))
        formats.write_stress(directory, number, model.nodes[:, 0] - 4.0)
        formats.write_criterion(directory, number, model.tp)
        totals = np.zeros(1, formats.TOTALS)[0]
        totals["LoadCase"], totals["Kind"], totals["ARQua"] = number, 1, 1.0
        formats.write_totals(directory, number, totals)
