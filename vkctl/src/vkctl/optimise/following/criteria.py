"""What material gains at a place where loads change with the design.

The strain energy W of a load case with displacements u, that its nodal forces alone would move by
a, changes with the presence H of the material, whose stresses are s and body forces b, by

    dW = integral of (s . (strain - free strain) / 2 - s . strain(a) + b . a) dH.

Without heat and initial strains a is u: what is left is the energy density that the solver's
criterion has, less the work of the weight (M. Bruyneel, P. Duysinx, Struct. Multidisc. Optim. 29
(2005) 245-256). With them the first two terms are summed here (with P. Pedersen, N. L. Pedersen,
ibid. 42 (2010) 681-691, the energy of the mechanical strains is what is to be small, whatever
heat moves). Presence multiplies the free strains' forces in the solver already.
"""

from __future__ import annotations

from functools import partial

import numpy as np

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory.model import Model, read
from vkctl.directory.results import Results
from vkctl.stress.points import IntegrationBlock
from vkctl.stress.solution import solution_of

from .. import history
from ..limits.adjoint import FOLDER, AdjointError, Pull, solve_adjoint
from ..limits.aggregates import nodal_forces
from ..limits.sensitivity import mutual_work, sensitivity
from ..runs import run_in
from ..standing import Loop, OptimiseError


def energy_gain(ours: IntegrationBlock, adjoint: IntegrationBlock) -> Array:
    """What presence takes off the strain energy, per volume."""
    gain: Array = mutual_work(ours, adjoint) - ours.at.energies
    return gain


def criteria_of(loop: Loop, results: list[Results], levels: Array, mode: formats.Mode) -> Array:
    """Criterion (cases, points) of each load case, by the strain energy."""
    found = np.array([r.criterion for r in results], np.float64)
    if not loop.weights and not loop.heated:
        return found
    model = read(loop.directory) if loop.heated else None
    if model is not None:
        model.tp = levels.astype(np.float32)
    moved = _moved_by_forces(loop, model, mode)
    for k, r in enumerate(results):
        along = moved.get(r.number, r.displacements)
        if model is not None and r.number in moved:
            solution = solution_of(model, r)
            found[k] = sensitivity(model, solution, moved[r.number], energy_gain).criterion
        if (weight := loop.weights.get(r.number)) is not None:
            if along is None:
                text = "was solved too poorly to tell what its weight adds"
                raise OptimiseError(f"step {loop.state.step}: load case {r.number} {text}")
            found[k] -= weight.work(np.asarray(along, np.float64))
    return found


def _moved_by_forces(loop: Loop, model: Model | None, mode: formats.Mode) -> dict[int, Array]:
    """Displacements (n, 3) that the nodal forces of heated load cases cause by themselves."""
    if model is None:
        return {}
    pulls = [Pull(number, nodal_forces(model, number)) for number in loop.heated]
    pulled = [pull for pull in pulls if pull.forces.any()]
    moved = {pull.case: np.zeros_like(model.nodes) for pull in pulls}
    if not pulled:
        return moved
    folder = history.folder_of(loop.directory) / f"{FOLDER}-heated"
    try:
        found = solve_adjoint(folder, model, loop.state.model, pulled, mode, partial(run_in, loop))
    except AdjointError as error:
        raise OptimiseError(f"step {loop.state.step}: {error}", error.run) from None
    return moved | dict(zip((pull.case for pull in pulled), found, strict=True))
