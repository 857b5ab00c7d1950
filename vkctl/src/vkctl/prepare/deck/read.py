"""From the keywords of a deck to what they say, step by step."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass, field, replace

import numpy as np

from ..deck_pressures import plain_name
from ..part import DeckSection, Part
from . import conditions, materials
from .axes import Axes
from .history import put
from .materials import DeckMaterial, assigned
from .report import Report, as_number, words_of
from .story import Acting, Spring, Step, Story, Turned
from .targets import Targets

_SILENT = (
    "HEADING PREPRINT PART ENDPART ASSEMBLY ENDASSEMBLY INSTANCE ENDINSTANCE AMPLITUDE NOANALYSIS "
    "CONTROLS TIMEPOINTS FILTER PHYSICALCONSTANTS STATIC"
).split()
_OUTPUTS = (
    "NODEFILE ELFILE NODEPRINT ELPRINT NODEOUTPUT ELEMENTOUTPUT OUTPUT RESTART CONTACTFILE "
    "CONTACTPRINT CONTACTOUTPUT ENERGYOUTPUT ENERGYPRINT ENERGYFILE FACEPRINT SECTIONPRINT MONITOR"
).split()
_TIES = "the solver has no equations between nodes"
_REASONS = {
    **dict.fromkeys(
        "TIE EQUATION MPC COUPLING KINEMATIC DISTRIBUTING DISTRIBUTINGCOUPLING RIGIDBODY "
        "CYCLICSYMMETRYMODEL".split(),
        _TIES,
    ),
    **dict.fromkeys(
        "CONTACTPAIR SURFACEINTERACTION SURFACEBEHAVIOR FRICTION GAP CONTACT CLEARANCE "
        "CONTACTDAMPING GAPCONDUCTANCE".split(),
        "the solver knows no contact",
    ),
    **dict.fromkeys(
        "PLASTIC USERMATERIAL CYCLICHARDENING HYPERELASTIC HYPERFOAM CREEP DEFORMATIONPLASTICITY "
        "DAMPING".split(),
        "materials are linear here",
    ),
    **dict.fromkeys(
        "SHELLSECTION BEAMSECTION MEMBRANESECTION MASS DASHPOT FLUIDSECTION".split(),
        "just solids are solved",
    ),
}
_PERTURBATIONS = ("FREQUENCY", "BUCKLE", "STEADYSTATEDYNAMICS", "MODALDYNAMIC", "COMPLEXFREQUENCY")
_OTHERS = (
    "DYNAMIC HEATTRANSFER COUPLEDTEMPERATUREDISPLACEMENT VISCO ELECTROMAGNETICS GREEN SENSITIVITY "
    "UNCOUPLEDTEMPERATUREDISPLACEMENT CRACKPROPAGATION"
).split()


@dataclass
class _State:
    """What is open while the keywords go by."""

    story: Story
    targets: Targets
    report: Report
    material: DeckMaterial | None = None
    materials: dict[str, DeckMaterial] = field(default_factory=dict)
    sections: list[DeckSection] = field(default_factory=list)
    axes: dict[str, Axes] = field(default_factory=dict)
    springs: dict[str, list[int]] = field(default_factory=dict)  # nodes by element set
    acting: Acting = field(default_factory=Acting)
    before: Acting = field(default_factory=Acting)  # the step
    step: int = 0  # 0 before the first
    inside: bool = False
    name: str = ""
    procedure: str = ""
    cleared: set[str] = field(default_factory=set)  # keywords that were met in this step
    blocks: int = 0  # of *DLOAD


def read_story(part: Part, targets: Targets, report: Report) -> Story:
    """What a deck says; mistakes and what isn't taken go to the report."""
    state = _State(Story(), targets, report)
    for section in part.deck:
        _take(state, section)
    if state.inside:
        _end_step(state, None)
    state.story.materials = assigned(report, targets, state.sections, state.materials, state.axes)
    return state.story


def _take(state: _State, section: DeckSection) -> None:
    keyword, report = section.keyword, state.report
    if act := _ACTS.get(keyword):
        act(state, section)
    elif keyword in _OUTPUTS:
        report.outputs[f"*{keyword}"] = None
    elif keyword in (*_PERTURBATIONS, *_OTHERS):
        state.procedure = keyword
    elif keyword not in _SILENT:
        why = _REASONS.get(keyword, "it isn't understood")
        report.leave(section, f"*{keyword} isn't taken: {why}")


# --- steps ---------------------------------------------------------------------------------------


def _step(state: _State, section: DeckSection) -> None:
    if state.inside:
        _end_step(state, section)
    state.step += 1
    state.inside, state.procedure, state.cleared = True, "", set()
    state.name = section.get("NAME").strip('"') or f"step {state.step}"
    if any(state.name == step.name for step in state.story.steps):
        state.name = f"{state.name} ({state.step})"
    state.before = replace(state.acting)
    for name in ("NLGEOM", "PERTURBATION"):
        if name in section.parameters and section.get(name).upper() != "NO":
            state.report.leave(section, f"*STEP, {name} isn't taken: the step is linear")
    if state.step == 1:
        state.story.model = replace(state.acting)


def _end_step(state: _State, section: DeckSection | None) -> None:
    if not state.inside:
        return
    state.inside = False
    if not state.procedure:
        state.story.steps.append(Step(state.name, replace(state.acting)))
        return
    place = section or state.targets.part.deck[-1]
    text = f"{state.name} isn't taken: its *{state.procedure} isn't a static analysis"
    state.report.leave(place, text)
    if state.procedure in _PERTURBATIONS:  # its loads end with it
        state.acting = state.before


def _first(state: _State, section: DeckSection) -> bool:
    """Whether a keyword with OP=NEW clears what there was; it does so once in a step."""
    new = section.get("OP").upper() == "NEW"
    first = section.keyword not in state.cleared
    state.cleared.add(section.keyword)
    if section.get("AMPLITUDE"):
        text = f"AMPLITUDE of *{section.keyword} isn't taken: what it says counts in full"
        state.report.leave(section, text)
    return new and first


def _boundary(state: _State, section: DeckSection) -> None:
    if _first(state, section):
        state.acting.supports = []
    for new in conditions.supports(state.report, state.targets, section, state.step):
        state.acting.supports = put(state.acting.supports, new, adds=False)


def _cload(state: _State, section: DeckSection) -> None:
    if _first(state, section):
        state.acting.forces = []
    for new in conditions.forces(state.report, state.targets, section, state.step):
        state.acting.forces = put(state.acting.forces, new, adds=True)


def _dload(state: _State, section: DeckSection) -> None:
    state.blocks += 1
    if _first(state, section):
        state.acting.pressures, state.acting.gravity = [], {}
    read, report, targets = conditions.pressures, state.report, state.targets
    for new in read(report, targets, section, state.step, state.blocks):
        state.acting.pressures = put(state.acting.pressures, new, adds=True)
    for direction, new in conditions.gravity(report, targets, section, state.step):
        known = state.acting.gravity
        there = put(known.get(direction, []), new, adds=True)
        state.acting.gravity = {**known, direction: there}


def _dsload(state: _State, section: DeckSection) -> None:
    if _first(state, section):
        state.acting.pressures = []
    read = conditions.surface_pressures
    for new in read(state.report, state.targets, section, state.step):
        state.acting.pressures = put(state.acting.pressures, new, adds=True)


def _temperature(state: _State, section: DeckSection) -> None:
    if _first(state, section):
        state.acting.temperatures = []
    for new in conditions.temperatures(state.report, state.targets, section, state.step):
        state.acting.temperatures = put(state.acting.temperatures, new, adds=False)


def _initial(state: _State, section: DeckSection) -> None:
    if section.get("TYPE").upper() != "TEMPERATURE":
        text = f"*INITIALCONDITIONS, TYPE={section.get('TYPE')} isn't taken"
        state.report.leave(section, text)
        return
    for new in conditions.temperatures(state.report, state.targets, section, 0):
        state.story.initial = put(state.story.initial, new, adds=False)


# --- materials, axes, springs --------------------------------------------------------------------


def _open_material(state: _State, section: DeckSection) -> None:
    name = section.get("NAME").strip('"')
    state.material = DeckMaterial(name, section)
    state.materials[name.upper()] = state.material


def _of_material(
    take: Callable[[Report, DeckMaterial, DeckSection], None],
) -> Callable[[_State, DeckSection], None]:
    def act(state: _State, section: DeckSection) -> None:
        if state.material is None:
            text = f"*{section.keyword} stands below no *MATERIAL"
            state.report.mistake(section, section.line, text)
        else:
            take(state.report, state.material, section)

    return act


def _solid_section(state: _State, section: DeckSection) -> None:
    state.sections.append(section)


def _axes(state: _State, section: DeckSection) -> None:
    if axes := materials.read_axes(state.report, section):
        state.axes[section.get("NAME").upper()] = axes


def _transform(state: _State, section: DeckSection) -> None:
    axes = materials.read_axes(state.report, section)
    found = state.targets.nodes(section.get("NSET"))
    if found is None:
        text = f"*TRANSFORM names {section.get('NSET')!r}, which is no node set"
        state.report.mistake(section, section.line, text)
    elif axes:
        state.story.turned.append(Turned(found[1], axes))


def _element(state: _State, section: DeckSection) -> None:
    """Springs between a node and the ground; those between two nodes are refused by *SPRING."""
    if section.get("TYPE").upper() != "SPRING1":
        return
    nodes = state.springs.setdefault(plain_name(section.get("ELSET")).upper(), [])
    for line, text in section.lines():
        words = words_of(text)
        node = as_number(words[1]) if len(words) == 2 else None
        if node is None or not words[1].isdigit() or not state.targets.nodes(words[1]):
            state.report.unread(section, line, text, "ELEMENT, NODE")
        else:
            nodes.append(int(node))


def _spring(state: _State, section: DeckSection) -> None:
    nodes = state.springs.get(plain_name(section.get("ELSET")).upper())
    if not nodes:
        text = "*SPRING isn't taken: just SPRING1, between a node and the ground, is"
        state.report.leave(section, text)
        return
    lines = [(line, words_of(text)) for line, text in section.lines()]
    direction = as_number(lines[0][1][0]) if lines else None
    stiffness = as_number(lines[1][1][0]) if len(lines) > 1 else None
    if direction not in (1, 2, 3) or stiffness is None or "NONLINEAR" in section.parameters:
        text = "*SPRING isn't taken: it needs a direction 1 to 3 and one stiffness"
        state.report.leave(section, text)
        return
    if len(lines) > 2:
        state.report.leave(section, "*SPRING by temperature is taken as in its first record")
    name = section.get("ORIENTATION").upper()
    axes = state.axes.get(name)
    if name and (axes is None or axes.round):
        state.report.leave(section, f"ORIENTATION={name} of *SPRING isn't taken, nor the springs")
        return
    labels, counts = np.unique(np.array(nodes, np.int64), return_counts=True)
    used = np.isin(labels, state.targets.used)
    state.story.springs.append(
        Spring(
            labels[used],
            counts[used],
            int(direction or 1) - 1,
            stiffness,
            axes,
            f"spring-{section.line}",
        )
    )


_ACTS: dict[str, Callable[[_State, DeckSection], None]] = {
    "STEP": _step,
    "ENDSTEP": _end_step,
    "BOUNDARY": _boundary,
    "CLOAD": _cload,
    "DLOAD": _dload,
    "DSLOAD": _dsload,
    "TEMPERATURE": _temperature,
    "INITIALCONDITIONS": _initial,
    "MATERIAL": _open_material,
    "ELASTIC": _of_material(materials.take_elastic),
    "DENSITY": _of_material(materials.take_density),
    "EXPANSION": _of_material(materials.take_expansion),
    "SOLIDSECTION": _solid_section,
    "ORIENTATION": _axes,
    "TRANSFORM": _transform,
    "ELEMENT": _element,
    "SPRING": _spring,
}
