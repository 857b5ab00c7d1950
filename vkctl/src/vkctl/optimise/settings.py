"""Settings of the optimisation loop, from the table [optimise] of a case file."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Literal, cast, get_args

from vkctl.basics.types import PathLike
from vkctl.basics.words import did_you_mean
from vkctl.prepare.case_file.mistakes import Mistakes
from vkctl.prepare.case_file.toml_table import Table, load

from .limits.settings import Limit, read_limits
from .wishes.entries import Wishes
from .wishes.read import read_wishes

Combine = Literal["weighted", "worst"]
Goal = Literal["stiffness", "mass"]
LoopMode = Literal["measured", "iterative", "direct"]


@dataclass
class Settings:
    """How the loop works; every value can be given in the case file's table [optimise].

    `volume` is the target part of the design volume, the largest of `volumes` where several are
    asked for, each of which has a loop of its own. `radius` of smoothing is a length; if not
    given it is 1.5 times the mean distance of neighbouring nodes. `move` is the part of the way
    that the level field goes in a step, `reduction` the part of the design volume that is taken
    away in a step until the target is met; if not given, so much that it takes half the steps.
    `keep` names sets that stay material. `tolerance` ends the loop: the mean objective of five
    steps differs from that of the five before by less than this part of it.

    `combine`: "weighted" makes for the least weighted sum of the load cases' strain energies,
    "worst" for the least of the largest weighted one.

    `goal`: "stiffness" of a given volume, inside of the limits, or the least "mass" inside of them.
    `body_steps`: at most so many more, that add material to the part of least mass until it holds
    its limits as a body of its own, too.

    `mode` of the solver: "measured" takes what the loop's own steps show to be faster, unless the
    options file of the directory names one. `wishes` are what the shape shall have.
    """

    volume: float = 0.5
    volumes: tuple[float, ...] = ()  # where there are several, the largest first
    steps: int = 60
    radius: float | None = None
    move: float = 0.3
    reduction: float | None = None
    combine: Combine = "weighted"
    weights: dict[str, float] = field(default_factory=dict)  # by load-case name; others 1.0
    keep: tuple[str, ...] = ()
    tolerance: float = 1e-3
    mode: LoopMode = "measured"
    wishes: Wishes = field(default_factory=Wishes)
    goal: Goal = "stiffness"
    limits: tuple[Limit, ...] = ()
    body_steps: int = 0

    def aims(self) -> str:
        """What the loop goes for, to tell settings apart."""
        return repr((self.goal, self.limits))

    def next_target(self, target: float) -> float:
        """Target volume of a step from that of the step before."""
        most = self.reduction or (1.0 - self.volume) / max(self.steps / 2, 1.0)
        return min(max(self.volume, target - most), target + most)


def read_settings(path: PathLike) -> Settings:
    """Settings of a case file; CaseFileError tells all mistakes of the table at once."""
    top, report = load(path)
    settings = Settings()
    if table := top.table("optimise"):
        names = _case_names(top)
        settings = _settings(table, names, report)
        table.done()
    report.finish()
    return settings


def _case_names(top: Table) -> list[str]:
    return [entry.text("name", "") for entry in top.table_list("load_case")]


def _settings(table: Table, names: list[str], report: Mistakes) -> Settings:
    default = Settings()
    combine = table.choice("combine", get_args(Combine), default.combine)
    goal = table.choice("goal", get_args(Goal), default.goal)
    mode = table.choice("mode", get_args(LoopMode), default.mode)
    volumes = _volumes(table)
    settings = Settings(
        volume=volumes[0],
        volumes=volumes if len(volumes) > 1 else (),
        steps=table.integer("steps", default.steps, 1),
        radius=table.number("radius", None, above=0),
        move=table.number("move", default.move, above=0, most=1),
        reduction=table.number("reduction", None, above=0, most=1),
        combine="worst" if combine == "worst" else "weighted",
        keep=table.names("keep"),
        tolerance=table.number("tolerance", default.tolerance, above=0),
        mode=cast(LoopMode, mode),
        goal=cast(Goal, goal),
        body_steps=table.integer("body_steps", default.body_steps, 0),
    )
    settings.wishes = read_wishes(table, settings.keep)
    settings.limits = read_limits(table.table("limits"), names)
    _check_goal(settings, table)
    if weights := table.table("weights"):
        for name in list(weights.data):
            settings.weights[name] = weights.number(name, 1.0, above=0)
            if name not in names:
                report.add(
                    weights.where(name),
                    f"no load case is named {name!r}",
                    did_you_mean(name, names),
                )
        weights.done()
    return settings


def _volumes(table: Table) -> tuple[float, ...]:
    """One volume or a list of them, the largest first."""
    default = Settings().volume
    if not isinstance(table.data.get("volume"), list):
        return (table.number("volume", default, above=0, most=1),)
    known = len(table.report.problems)
    given = table.numbers("volume")
    for place, volume in enumerate(given):
        if len(table.report.problems) == known and not 0 < volume <= 1:
            table.problem("volume", "must be above 0 and at most 1", "", place)
    if not given:
        table.problem("volume", "is an empty list", "name one volume or several")
    return tuple(sorted(set(given), reverse=True)) or (default,)


def _check_goal(settings: Settings, table: Table) -> None:
    if settings.body_steps and settings.wishes.sizes is not None:
        table.problem("body_steps", "adds material where sizes may not be kept", "leave out one")
    if settings.goal == "stiffness":
        if settings.body_steps:
            table.problem("body_steps", "adds to the volume, which is given", "goal = 'mass' finds")
        return
    if not settings.limits:
        table.problem("goal", "needs limits", "add them to [optimise.limits]")
    for key in ("volume", "combine", "weights"):
        if key in table.data:
            table.problem(key, "has no meaning with goal = 'mass'", f"leave {key} out")
