"""How far a part is from yielding."""

from __future__ import annotations

from collections.abc import Iterator
from dataclasses import asdict, dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike
from vkctl.basics.words import called, printable
from vkctl.directory import formats
from vkctl.directory.model import Material, Model, read
from vkctl.directory.results import read_results, solved

from .measures import von_mises
from .nodal import MaterialStress, NodalStress, nodal_stress
from .solution import has_stress, solution_of


@dataclass(frozen=True)
class Safety:
    """Where a material comes closest to its yield stress."""

    material: int
    name: str
    yield_stress: float
    von_mises: float  # the largest
    node: int
    place: tuple[float, float, float]

    @property
    def factor(self) -> float:
        """Yield stress over the largest von Mises stress; infinite without stress."""
        return self.yield_stress / self.von_mises if self.von_mises > 0 else float("inf")


def safety(model: Model, found: NodalStress, nodes: npt.ArrayLike | None = None) -> list[Safety]:
    """The least safety of each material that has a yield stress, over all nodes or those given.

    Nodes beyond the part's surface don't count. A material that none of the nodes touches is left
    out, and so is an orthotropic one, whose strength von Mises stress doesn't tell.
    """
    chosen = np.ones(len(model.nodes), np.bool_)
    if nodes is not None:
        chosen[:] = False
        chosen[np.asarray(nodes, np.int64) - 1] = True
    least = []
    for part in found.parts:
        material = model.materials[part.material - 1]
        if _has_strength(material):
            node, largest = _largest(part, chosen)
            if node:
                x, y, z = model.nodes[node - 1].tolist()
                strength = material.yield_stress
                least.append(
                    Safety(part.material, material.name, strength, largest, node, (x, y, z))
                )
    return least


def _has_strength(material: Material) -> bool:
    return material.yield_stress > 0 and not material.flags & formats.MATERIAL_ORTHOTROPIC


def safety_lines(directory: PathLike) -> list[str]:
    """The least safety of each material in each solved load case, in words."""
    model = read(directory)
    if not any(_has_strength(material) for material in model.materials):
        return ["no isotropic material has a yield_stress to measure safety against"]
    lines = []
    for number, found in _of_load_cases(directory, model):
        if found is None:
            lines.append(f"load case {number}: solved too poorly to tell a stress")
        else:
            lines += [f"load case {number}, {_words(least, model)}" for least in found]
    return lines or ["no load case has been solved"]


def safety_values(directory: PathLike) -> list[dict[str, Any]]:
    """The same for programs; a load case that is solved too poorly to tell a stress is left out."""
    return [
        {"load_case": number, **asdict(least), "factor": least.factor}
        for number, found in _of_load_cases(directory, read(directory))
        for least in found or []
    ]


def _of_load_cases(directory: PathLike, model: Model) -> Iterator[tuple[int, list[Safety] | None]]:
    """The least safety in each solved load case, None where it was solved too poorly."""
    for number in solved(directory):
        results = read_results(directory, number)
        if has_stress(results):
            yield number, safety(model, nodal_stress(solution_of(model, results)))
        else:
            yield number, None


def _words(least: Safety, model: Model) -> str:
    name = printable(least.name) or f"material {least.material}"
    labels = {} if model.labels is None else {"labels": model.labels.nodes}
    place = ", ".join(f"{coordinate:.6g}" for coordinate in least.place)
    return (
        f"{name}: safety factor {least.factor:.3g}, von Mises stress {least.von_mises:.4g} of "
        f"{least.yield_stress:.4g} at node {called(least.node, **labels)}, ({place})"
    )


def _largest(part: MaterialStress, chosen: Array) -> tuple[int, float]:
    """Node with the largest von Mises stress, and that stress; node 0 where there is none."""
    equivalent = von_mises(part.stress)
    equivalent[~part.inside | ~chosen[part.nodes - 1] | ~np.isfinite(equivalent)] = -1.0
    place = int(equivalent.argmax()) if len(equivalent) else 0
    if not len(equivalent) or equivalent[place] < 0:
        return 0, 0.0
    return int(part.nodes[place]), float(equivalent[place])
