"""Load cases whose displacements are given instead of solved, and true stresses of strains."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path

import numpy as np
import program_under_test

from vkctl.basics.types import Array
from vkctl.directory.model import LoadCase, Material, Model, set_flags, write
from vkctl.directory.results import Results, read_results
from vkctl.running.run import run
from vkctl.shapes.boxes import Box, box
from vkctl.stress import Solution, solution_of

VK_RUND = program_under_test.program()
KINDS = ("tet4", "hex8", "tet10")
STEEL = Material.isotropic(1000.0, 0.3, expansion=2e-3, initial_strain=4e-3)
WOOD = Material.orthotropic(
    (900.0, 500.0, 300.0),
    (0.25, 0.3, 0.2),
    (200.0, 150.0, 100.0),
    expansions=(1e-3, 2e-3, 3e-3),
    initial_strain=2e-3,
)
# Gradient of a displacement that strains in all six components and turns.
GRADIENT = np.array(((1.0, 0.4, -0.3), (0.2, -0.5, 0.6), (0.1, -0.2, 0.7))) * 0.01


def given(model: Model, displacements: Array, states: Array | None = None) -> Solution:
    """The model's first load case as if it had been solved to these displacements."""
    if not model.load_cases:
        model.load_cases.append(LoadCase())
    count, none = len(model.nodes), np.zeros(0)
    results = Results(
        1, 1, 1.0, 0.0, 0.0, 0.0, 0.0, (0.0, 0.0, 0.0),
        none, np.zeros(count), np.zeros(count), displacements, states,
    )  # fmt: skip
    return solution_of(model, results)


def solved(model: Model, directory: Path, runs: int = 2) -> Results:
    """Results of the model's first load case; a second run brings what the first left over."""
    model.options["Sys.MaxNumCompThreads"] = 1
    write(model, directory)
    for _ in range(runs):
        results = solved_again(directory)
    return results


def solved_again(directory: Path) -> Results:
    """Results of another run."""
    set_flags(directory, clear_done=True)
    done = run(directory, vk_rund=VK_RUND)
    assert done.ok, done.advice
    return read_results(directory, 1)


def with_states(results: Results, states: Array) -> Results:
    return replace(results, element_state=states)


def model_of(part: Box, *materials: Material) -> Model:
    return Model(part.nodes, part.elements, list(materials), [LoadCase()])


def strain_of(gradient: Array) -> Array:
    """Strains (..., 6) of displacement gradients (..., 3, 3), with engineering shears."""
    g = gradient
    shears = [g[..., i, j] + g[..., j, i] for i, j in ((0, 1), (1, 2), (0, 2))]
    return np.stack((*(g[..., k, k] for k in range(3)), *shears), axis=-1)


def true_law(material: Material) -> Array:
    """Stiffness (6, 6) as the inverse of the compliance that the constants define."""
    compliance = np.zeros((6, 6))
    if any(material.moduli):
        e, (nu12, nu13, nu23) = material.moduli, material.poisson
        ratios = {(0, 1): nu12, (0, 2): nu13, (1, 2): nu23}
        shear = (material.shear[0], material.shear[2], material.shear[1])
    else:
        e = (material.e,) * 3
        ratios = dict.fromkeys(((0, 1), (0, 2), (1, 2)), material.nu)
        shear = (material.e / (2 + 2 * material.nu),) * 3
    for k in range(3):
        compliance[k, k], compliance[3 + k, 3 + k] = 1 / e[k], 1 / shear[k]
    for (i, j), nu in ratios.items():
        compliance[i, j] = compliance[j, i] = -nu / e[i]
    return np.linalg.inv(compliance)


def true_stress(material: Material, strain: Array, temperature: Array | float = 0.0) -> Array:
    """Stress (..., 6) under a total strain (..., 6)."""
    expansion = material.expansions if any(material.moduli) else (material.expansion,) * 3
    mechanical = np.array(strain, np.float64)
    free = np.multiply.outer(np.asarray(temperature), np.asarray(expansion))
    mechanical[..., :3] -= free + material.initial_strain
    return mechanical @ true_law(material)


def strained_box(kind: str, cells: tuple[int, int, int] = (3, 3, 3)) -> Box:
    """A box of size 3 x 2 x 1 with inner nodes shifted."""
    return box(kind, cells, (3.0, 2.0, 1.0), distortion=0.05)  # type: ignore[arg-type]
