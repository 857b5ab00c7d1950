"""Runs vk_rund on a model and reads what it left."""

from __future__ import annotations

import math
import tempfile
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from program_under_test import start

from vkctl.basics.types import Array
from vkctl.directory import formats
from vkctl.directory import model as vkmodel
from vkctl.directory.model import Material, Model

PRESENCE_FLOOR = float(np.float32(0.001))
SLOPE = 500.0  # default of "Sta.MatSlopeFactor"


def presence(level: Array | float, slope: float = SLOPE) -> Array | float:
    """H of a level: the factor on the stiffness at an integration point."""
    step = np.arctan(slope * np.asarray(level)) / math.pi + 0.5
    return step * (1.0 - PRESENCE_FLOOR) + PRESENCE_FLOOR


FULL = float(presence(1.0))  # H of an element without a level field, 0.9993640


def solid(e: float, nu: float, *, expansion: float = 0.0) -> Material:
    """Isotropic material whose elements of level 1 have the modulus e in effect."""
    return Material.isotropic(e / FULL, nu, expansion=expansion)


@dataclass
class Answer:
    """What one load case left."""

    u: Array  # (n, 3)
    totals: np.void
    stress: Array  # signed stress per node
    criterion: Array  # per design point
    states: Array | None  # per element, where a material has any

    def element_states(self) -> Array:
        if self.states is None:
            raise ValueError("no material has element states")
        return self.states


class Workplace:
    """A working directory in which a model is solved, as often as asked."""

    def __init__(self, model: Model) -> None:
        self._temporary = tempfile.TemporaryDirectory(prefix="vk-ver-")
        self.path = Path(self._temporary.name)
        self.model = model
        model.options.setdefault("Sys.MaxNumCompThreads", 2)  # small models, many runs
        vkmodel.write(model, self.path)

    def solve(self) -> list[Answer]:
        """Run all requested load cases, from the states of the last run if there was one."""
        vkmodel.set_flags(self.path, clear_done=True)
        done = start(self.path)
        if done.status:
            log = (self.path / formats.LOG_FILE).read_text("latin-1")
            raise RuntimeError(f"vk_rund stopped with {done.status}\n{log}")
        return [self._read(number) for number in range(1, len(self.model.load_cases) + 1)]

    def _read(self, number: int) -> Answer:
        state = Path(self.path, formats.numbered("ws.mstate", number))
        return Answer(
            formats.read_displacements(self.path, number).astype(np.float64),
            formats.read_totals(self.path, number),
            formats.read_stress(self.path, number),
            formats.read_criterion(self.path, number),
            formats.read_element_state(self.path, number) if state.exists() else None,
        )


def solve(model: Model) -> list[Answer]:
    """Answers of all load cases, each solved twice.

    A solve ends when the largest residual is 1e-5 of the largest load, which leaves smooth errors
    of up to some 1e-4 in the displacements. The second run starts from the saved displacements
    and solves for what is missing, so that single precision of the files is what remains.
    """
    if any(material.has_state for material in model.materials):
        raise ValueError("a second run would change the element states")
    place = Workplace(model)
    place.solve()
    return place.solve()
