"""A report from what a directory holds: its sections, the part, and the page around them."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from datetime import datetime
from pathlib import Path

from vkctl import __version__
from vkctl.basics.types import PathLike
from vkctl.basics.units import UnitSystem
from vkctl.basics.words import counted
from vkctl.check import check
from vkctl.directory.case_names import case_names, titled
from vkctl.directory.model import Model, read
from vkctl.directory.results import solved
from vkctl.stress.safety import need_strengths

from .about_cases import about_cases, about_extremes, about_reactions, about_safety
from .about_conditions import about_conditions
from .about_model import about_materials, about_model
from .about_run import about_findings, about_log, about_missing, about_optimisation
from .facts import SHOWN, CaseFacts
from .gather import chosen_cases, facts_of_cases, history_of, log_of
from .markup import paragraph, text
from .page import Page, asset, filled, put_together
from .pictures import MOST_PICTURES, case_pictures
from .scene import MOST_TRIANGLES, Scene, make_scene
from .shortly import shortly


@dataclass(frozen=True)
class Wanted:
    """What goes into a report. `cases` are numbers, None for the first solved ones."""

    title: str | None = None
    cases: tuple[int, ...] | None = None
    fields: tuple[str, ...] = SHOWN
    triangles: int = MOST_TRIANGLES


def make_report(directory: PathLike, wanted: Wanted) -> tuple[str, Scene | None]:
    """The report's text, and what it draws."""
    model = read(directory)
    if "safety" in wanted.fields:
        need_strengths(model)
    there = solved(directory)
    missing: list[str] = []
    numbers = chosen_cases(directory, there, wanted.cases, missing)
    cases = facts_of_cases(model, directory, numbers, wanted.fields, missing)
    names = case_names(model)
    units = model.notes.unit_system if model.notes else None
    found = check(directory)
    log = log_of(directory, missing)
    logs = {case.number: case for case in log.load_cases} if log else {}
    history = history_of(directory, missing)
    scene = _scene(model, cases, units, wanted.triangles, missing)
    body = (
        shortly(model, cases, units, found),
        _view(model, cases, scene),
        about_cases(model, names, cases, there, logs, units),
        about_safety(model, cases, units),
        about_reactions(cases, units),
        about_extremes(model, cases, units),
        about_conditions(model, [titled(k + 1, names) for k in range(len(names))]),
        about_model(model, units),
        about_materials(model, units),
        about_optimisation(history),
        about_findings(found),
        about_log(log, names) if log else "",
        about_missing(missing),
    )
    page = Page(
        title=wanted.title or Path(directory).resolve().name,
        head=_head(model, len(there), units),
        body="\n".join(body),
        foot=_FOOT,
        scene=scene.values if scene else None,
        scripts=("report.js",) if scene else (),
    )
    return put_together(page), scene


def _scene(
    model: Model,
    cases: Sequence[CaseFacts],
    units: UnitSystem | None,
    most: int,
    missing: list[str],
) -> Scene | None:
    try:
        return make_scene(model, cases, units, most)
    except ValueError as error:
        missing.append(f"The part in three dimensions: {error}.")
        return None


def _view(model: Model, cases: Sequence[CaseFacts], scene: Scene | None) -> str:
    if scene is None:
        return ""
    notices = []
    if scene.found > scene.triangles:
        notices.append(
            f"The surface has {scene.found} triangles; it is simplified to {scene.triangles}. "
            "Extremes are those of all nodes. "
        )
    pictures = case_pictures(model, cases)
    if len(cases) > MOST_PICTURES:
        pictures += paragraph(f"Pictures of the first {MOST_PICTURES} load cases.", "quiet")
    return filled(asset("controls.html"), notices=text("".join(notices)), pictures=pictures)


def _head(model: Model, results: int, system: UnitSystem | None) -> str:
    counts = ", ".join((counted(len(model.nodes), "node"), counted(len(model.elements), "element")))
    now = datetime.now().astimezone().strftime("%d %B %Y, %H:%M %Z")
    said = f"Units: {system.name}." if system else "Units: those of the model, which names none."
    return paragraph(
        f"{counts}; {results} of {counted(len(model.load_cases), 'load case')} solved. {said} "
        f"Written by vkctl {__version__} on {now}.",
        "quiet",
    )


_FOOT = paragraph(
    "This page holds all that it shows and loads nothing: the surface of the part with its "
    "fields, the inside where it is small enough, names, loads, supports and materials of the "
    "model. Who has the page has these."
)
