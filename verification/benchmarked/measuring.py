"""One part, from its case file to the numbers of the page."""

from __future__ import annotations

import shutil
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import density_method
import numpy as np
from PIL import Image
from program_under_test import ROOT, program

from vkctl.basics.types import Array
from vkctl.directory.case_names import case_names
from vkctl.directory.model import Model, read, write
from vkctl.optimise import measured_sizes, optimise, read_settings
from vkctl.optimise.as_body import BodyError, smooth_part, verify_part
from vkctl.optimise.design import Design as LoopDesign
from vkctl.optimise.design import make_design, reach_of
from vkctl.optimise.teeth import cut_share
from vkctl.optimise.wishes.regions import nodes_around
from vkctl.prepare.build import new
from vkctl.prepare.part import PartError
from vkctl.running.run import run
from vkctl.view.plot import View, plot

from .cases import DENSITY, PRINTED, Case, Design
from .densities import as_levels, at_nodes, densest_at_nodes, enclosed, optimised, printed
from .finer import Finer, at_middles, compliances, finer, fullest, one_type, works
from .looks import largest_stress, overhanging, undercut

EXAMPLES = ROOT / "vkctl" / "examples"
_SIZE = (900, 600)
_COLOURS = 128
_FLAT_RADIUS = 2.4  # of the published value

Found = dict[str, Any]


@dataclass
class Part:
    """A case on its mesh: what all of its designs have in common."""

    case: Case
    folder: Path
    weights: Array
    pictures: Path
    finer: Finer | None = None
    volume: float = 0.0  # of the first design, which black and white designs have


def measure(case: Case, folder: Path, pictures: Path) -> Found:
    """Everything that the page tells of a case. What is finished in `folder` isn't done again."""
    folder.mkdir(parents=True, exist_ok=True)
    part = Part(case, folder, np.ones(1), pictures)
    designs = []
    for design in case.designs:
        cases = _write_cases(case, design, folder, part.volume)
        designs.append(_looped(part, design, cases))
    model = read(folder / case.designs[0].name)
    table = one_type(model)[1]
    whole = part.finer
    assert whole is not None
    full = [
        _mean(part, compliances(one, np.ones(len(one.parents), np.bool_)))
        for one in (finer(model, _cases_file(folder, case.designs[0]), (1, 1, 1)), whole)
    ]
    designs += [_densities(part, name) for name in case.densities]
    return {
        "title": case.title,
        "elements": len(table),
        "width": table.shape[1],
        "equations": _equations(model),
        "finer_elements": len(whole.parents),
        "finer_equations": _equations(whole.model),
        "full": full,
        "designs": designs,
        "flat": _flat() if "{flat}" in case.known else None,
    }


def _flat() -> float:
    frame = density_method.mbb_beam()
    return density_method.optimise(frame, 0.5, _FLAT_RADIUS)[1]


def _equations(model: Model) -> int:
    return 3 * len(model.nodes)


def _mean(part: Part, values: list[float]) -> float:
    return float(part.weights @ values / part.weights.sum())


# --- the case file ------------------------------------------------------------------------------


def _cases_file(folder: Path, design: Design) -> Path:
    return folder / f"{design.name}.toml"


def _write_cases(case: Case, design: Design, folder: Path, volume: float) -> Path:
    """Geometry and case file of a design; modes chosen by times would lead it other ways."""
    example = EXAMPLES / case.geometry
    script = case.geometry if "\n" in case.geometry else example.read_text()
    name = "part.geo" if "\n" in case.geometry else case.geometry
    (folder / name).write_text(script)
    text = case.cases if "\n" in case.cases else (EXAMPLES / case.cases).read_text()
    head = text.partition("\n[optimise]")[0].partition("\n[level]")[0]
    settings = design.settings.replace("{volume}", f"{volume:.6f}")
    said = f'{head}\n[optimise]\nmode = "direct"\n{settings}\n'
    cases = _cases_file(folder, design)
    if not cases.is_file() or cases.read_text() != said:
        shutil.rmtree(folder / design.name, ignore_errors=True)
        cases.write_text(said)
    return cases


# --- this loop ----------------------------------------------------------------------------------


def _looped(part: Part, design: Design, cases: Path) -> Found:
    directory = part.folder / design.name
    done = optimise(cases, directory, vk_rund=program())
    model = read(directory)
    settings = read_settings(cases)
    part.weights = np.array([settings.weights.get(name, 1.0) for name in case_names(model)])
    part.finer = part.finer or finer(model, cases, part.case.finer)
    last = done.rows[-1]
    nodal = _design(model, settings.radius).levels_of_nodes(done.levels)
    said = {
        "volume": last.volume,
        "steps": last.step - done.body_steps,
        "body_steps": done.body_steps,
        "converged": done.converged,
        "seconds": sum(row.seconds for row in done.rows),
        "limits": done.told,
    }
    part.volume = part.volume or last.volume
    return said | _judged(part, design.name, design.title, cases, nodal, [nodal])


def _design(model: Model, radius: float | None) -> LoopDesign:
    return make_design(model, radius, np.empty(0, np.int64))


# --- the density method -------------------------------------------------------------------------


def _densities(part: Part, name: str) -> Found:
    """On the mesh of the first design, of its volume; an overhang is the only wish it may have."""
    first = part.case.designs[0]
    cases = _cases_file(part.folder, first)
    begun = time.monotonic()
    made = new(None, cases, part.folder / name)
    model = made.model
    model.set_level(1.0)
    settings = read_settings(cases)
    thickness = settings.wishes.thickness
    kept = [nodes_around(made.sets, one, "keep", thickness.get(one)) for one in settings.keep]
    nodes = np.concatenate([np.empty(0, np.int64), *kept])
    reach = reach_of(model, settings.radius, settings.wishes.sizes)
    densities, said = _computed(part, name, model, reach, nodes)
    nodal = (densest_at_nodes if name == PRINTED else at_nodes)(model, densities)
    model.tp = as_levels(model, nodal, enclosed(read(part.folder / first.name))).astype(np.float32)
    write(model, part.folder / name)
    done = run(part.folder / name, mode="direct", vk_rund=program())
    if not done.ok:
        raise RuntimeError(done.advice.sentence)
    levels = _design(model, settings.radius).levels_of_nodes(model.tp.astype(np.float64))
    said["volume"] = _design(model, None).space.share(levels)
    said["seconds"] = time.monotonic() - begun
    return said | _judged(part, name, said["title"], cases, levels, [nodal, densities])


def _computed(
    part: Part, name: str, model: Model, radius: float, kept: Array
) -> tuple[Array, Found]:
    """Densities of the elements, and what is known of them by themselves."""
    case = part.case
    if name == DENSITY:
        title, steps = "density method", case.density_steps
        if any(design.like != DENSITY for design in case.designs):
            title += ", without the wish" if PRINTED in case.densities else ", without either"
        densities, grey = optimised(model, part.volume, radius, part.weights, kept, steps)
        return densities, {"title": title, "grey": grey}
    assert name == PRINTED and case.build is not None
    build = np.array(case.build)
    densities, starts = printed(model, part.volume, radius, part.weights, kept, build)
    title = "density method, overhang of 45 degrees"
    return densities, {"title": title, "grey": min(c for _, c in starts), "starts": starts}


# --- what both are judged by --------------------------------------------------------------------


def _judged(
    part: Part, name: str, title: str, cases: Path, levels: Array, fields: list[Array]
) -> Found:
    """Of a solved directory with levels at its nodes.

    Black and white is made of the fields, at nodes or of elements, and the stiffest counts.
    """
    case, directory = part.case, part.folder / name
    model, whole = read(directory), part.finer
    assert whole is not None
    table = one_type(model)[1]
    design = _design(model, None)
    sizes = measured_sizes(model)
    white = [
        at_middles(whole, one, table) if len(one) == len(model.nodes) else one[whole.parents]
        for one in fields
    ]
    found: Found = {
        "name": name,
        "title": title,
        "loop": _mean(part, works(model, directory)),
        "fine": min(
            _mean(part, compliances(whole, fullest(whole, one, part.volume))) for one in white
        ),
        "cut": cut_share(design.space, levels),
        "member": sizes.member,
        "hole": sizes.hole,
    }
    _draw(part, name)
    if case.stress is not None:
        found["stress"] = largest_stress(directory, *case.stress)
    try:
        surface = smooth_part(directory)
    except ValueError as error:
        return found | {"no_body": str(error)}
    found["bodies"] = surface.bodies
    if case.build is not None:
        found["hanging"] = overhanging(
            surface.points, surface.triangles, np.array(case.build), _kept(model, cases)
        )
    if case.drawn is not None:
        found["undercut"] = undercut(surface.points, surface.triangles, case.drawn)
    return found | _as_bodies(part, name, cases)


def _kept(model: Model, cases: Path) -> Array:
    """Places of the nodes to keep."""
    names = read_settings(cases).keep
    chosen = [one.own_nodes() for one in model.sets or [] if one.name in names]
    places: Array = model.nodes[np.concatenate([np.empty(0, np.int64), *chosen]) - 1]
    return places


def _as_bodies(part: Part, name: str, cases: Path) -> Found:
    """The smooth part meshed as a body of 4-node and of 10-node tetrahedra."""
    found: Found = {}
    for order in (1, 2):
        kept = part.folder / f"{name}-body-{order}"
        shutil.rmtree(kept, ignore_errors=True)
        try:
            body = verify_part(part.folder / name, cases, order=order, keep=kept, vk_rund=program())
        except (BodyError, PartError) as error:
            return found | {"no_body": str(error).partition("\n")[0]}
        found[f"body_{order}"] = _mean(part, [one.body.compliance for one in body.cases])
        found[f"body_{order}_elements"] = body.elements
        found["body_equations"] = _equations(read(kept))
        found["body_volume"] = body.body_volume / body.part_volume
        if part.case.stress is not None:
            found[f"stress_{order}"] = largest_stress(kept, *part.case.stress)
    return found


def _draw(part: Part, name: str) -> None:
    target = part.pictures / f"{part.case.name}-{name}.png"
    view = View("von_mises", 0.0, size=_SIZE, direction=part.case.direction, marks=False)
    plot(part.folder / name, target, view=view)
    with Image.open(target) as drawn:
        small = drawn.convert("RGB").quantize(_COLOURS)
    small.save(target, optimize=True)
