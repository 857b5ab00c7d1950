"""How far a part is from yielding."""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from dataclasses import asdict, dataclass
from typing import Any

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array, PathLike
from vkctl.basics.units import UnitSystem, in_unit
from vkctl.basics.words import called, did_you_mean, place_words, printable
from vkctl.directory import formats
from vkctl.directory.case_names import case_names, name_of, titled
from vkctl.directory.model import Model, read
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


def safety(
    model: Model,
    found: NodalStress,
    nodes: npt.ArrayLike | None = None,
    limits: Mapping[str, float] | None = None,
) -> list[Safety]:
    """The least safety of each material that has a limit, over all nodes or those given.

    The limit is the material's yield stress, or what `limits` says for its name (`strengths`).
    Nodes beyond the part's surface don't count. A material that none of the nodes touches is left
    out, and so is an orthotropic one, whose strength von Mises stress doesn't tell.
    """
    chosen = np.ones(len(model.nodes), np.bool_)
    if nodes is not None:
        chosen[:] = False
        chosen[np.asarray(nodes, np.int64) - 1] = True
    known = strengths(model, limits)
    least = []
    for part in found.parts:
        strength = known.get(part.material)
        node, largest = _largest(part, chosen) if strength is not None else (0, 0.0)
        if node and strength is not None:
            x, y, z = model.nodes[node - 1].tolist()
            name = model.materials[part.material - 1].name
            least.append(Safety(part.material, name, strength, largest, node, (x, y, z)))
    return least


def strengths(model: Model, limits: Mapping[str, float] | None = None) -> dict[int, float]:
    """What the von Mises stress of each material is measured against, by material number.

    `limits` replaces yield stresses by the material's name, or its number where it has none; the
    name "" stands for all. ValueError for a name that isn't there, or of an orthotropic material.
    """
    given = dict(limits or {})
    everyone = given.pop("", None)
    isotropic = {
        number: material
        for number, material in enumerate(model.materials, 1)
        if not material.flags & formats.MATERIAL_ORTHOTROPIC
    }
    names = {number: material.name or str(number) for number, material in isotropic.items()}
    for name in given:
        if name not in names.values():
            known = did_you_mean(name, list(names.values()))
            raise ValueError(f"there is no isotropic material {name!r} to limit: {known}")
    found = {}
    for number, material in isotropic.items():
        strength = given.get(names[number], everyone)
        strength = material.yield_stress if strength is None else strength
        if strength > 0:
            found[number] = strength
    return found


DRAWN_ALIKE = 10.0  # safety factors from here on, which all say that there is enough


def need_strengths(model: Model) -> None:
    """ValueError where no material has a stress that safety could be measured against."""
    if not strengths(model):
        raise ValueError("no isotropic material has a yield_stress to measure safety against")


def safety_field(model: Model, found: NodalStress) -> Array:
    """Yield stress over von Mises stress at each node (n,), the least where materials meet.

    Infinite without stress, NaN outside and where no material has a limit.
    """
    factors = np.full(found.count, np.nan)
    for part in found.parts:
        strength = strengths(model).get(part.material)
        if strength is None:
            continue
        with np.errstate(divide="ignore"):
            own = strength / von_mises(part.stress)
        factors[part.nodes - 1] = np.fmin(factors[part.nodes - 1], own)
    return factors


@dataclass(frozen=True)
class Within:
    """Nodes that safety is told of apart: of a set, and of these materials alone if given."""

    name: str
    nodes: Array
    materials: frozenset[int] | None = None


def safety_lines(
    directory: PathLike,
    limits: Mapping[str, float] | None = None,
    within: Sequence[Within] = (),
) -> list[str]:
    """The least safety of each material in each solved load case, in words; by set if given."""
    model = read(directory)
    names, units = case_names(model), model.notes.unit_system if model.notes else None
    if not strengths(model, limits):
        return ["no isotropic material has a yield_stress to measure safety against"]
    lines = []
    for number, found in _of_load_cases(directory, model):
        title = titled(number, names)
        if found is None:
            lines.append(f"{title}: solved too poorly to tell a stress")
            continue
        told = _told(model, found, limits, within)
        lines += [f"{title}, {_words(where, least, model, units)}" for where, least in told]
        if not told:
            lines.append(f"{title}: no stress of a material with a limit is known there")
    return lines or ["no load case has been solved"]


def safety_values(
    directory: PathLike,
    limits: Mapping[str, float] | None = None,
    within: Sequence[Within] = (),
) -> list[dict[str, Any]]:
    """The same for programs; a load case that is solved too poorly to tell a stress is left out."""
    model = read(directory)
    names = case_names(model)
    return [
        {
            "load_case": number,
            "load_case_name": name_of(number, names),
            "set": where or None,
            **asdict(least),
            "factor": least.factor,
        }
        for number, found in _of_load_cases(directory, model)
        if found is not None
        for where, least in _told(model, found, limits, within)
    ]


def _told(
    model: Model,
    found: NodalStress,
    limits: Mapping[str, float] | None,
    within: Sequence[Within],
) -> list[tuple[str, Safety]]:
    """Least safeties with the name of their set, "" for the whole part."""
    if not within:
        return [("", least) for least in safety(model, found, None, limits)]
    return [
        (one.name, least)
        for one in within
        for least in safety(model, found, one.nodes, limits)
        if one.materials is None or least.material in one.materials
    ]


def _of_load_cases(directory: PathLike, model: Model) -> Iterator[tuple[int, NodalStress | None]]:
    """The stresses of each solved load case, None where it was solved too poorly."""
    for number in solved(directory):
        results = read_results(directory, number)
        if has_stress(results):
            yield number, nodal_stress(solution_of(model, results))
        else:
            yield number, None


def _words(where: str, least: Safety, model: Model, units: UnitSystem | None) -> str:
    inside = f"set {printable(where)}, " if where else ""
    name = printable(least.name) or f"material {least.material}"
    labels = {} if model.labels is None else {"labels": model.labels.nodes}
    stress = in_unit(f"{least.von_mises:.4g} of {least.yield_stress:.4g}", units, "stress")
    return (
        f"{inside}{name}: safety factor {least.factor:.3g}, von Mises stress {stress} "
        f"at node {called(least.node, **labels)}, {place_words(least.place)}"
    )


def _largest(part: MaterialStress, chosen: Array) -> tuple[int, float]:
    """Node with the largest von Mises stress, and that stress; node 0 where there is none."""
    equivalent = von_mises(part.stress)
    equivalent[~part.inside | ~chosen[part.nodes - 1] | ~np.isfinite(equivalent)] = -1.0
    place = int(equivalent.argmax()) if len(equivalent) else 0
    if not len(equivalent) or equivalent[place] < 0:
        return 0, 0.0
    return int(part.nodes[place]), float(equivalent[place])
