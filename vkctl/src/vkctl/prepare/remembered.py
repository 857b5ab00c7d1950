"""What a directory remembers of its case file: sets by name, and what things are called."""

from __future__ import annotations

import re

import numpy as np

from vkctl.directory import formats

from .case_file.entries import Cases, Load, Support
from .face_sets import Faces
from .sets import Sets

# Gmsh's entities by tag: a part may have thousands, of which those that were used are kept.
_ENTITY = re.compile(r"(volume|surface|curve|point):\d+")


def remembered_sets(sets: Sets) -> list[formats.NamedSet]:
    """Every set that the case file defines or uses, then the part's own that have a name."""
    found = dict(sets.made())
    for key in sets.of_part():
        if key not in found and not _ENTITY.fullmatch(key[1]):
            found[key] = sets.quietly(*key)
    kept = []
    for (kind, name), members in found.items():
        if isinstance(members, Faces):
            kept.append(formats.NamedSet(name, kind, faces=tuple(members.tables)))
        else:
            kept.append(formats.NamedSet(name, kind, np.asarray(members, np.int64)))
    return [one for one in kept if len(one)]


def case_notes(cases: Cases) -> formats.CaseNotes:
    return formats.CaseNotes(
        cases.units,
        tuple(entry.density for entry in cases.materials.values()),
        {name: _condition(support) for name, support in cases.supports.items()},
        {name: _condition(load) for name, load in cases.loads.items()},
        tuple(
            formats.NotedCase(entry.name, entry.supports, dict(entry.loads))
            for entry in cases.load_cases
        ),
        cases.clusters,
    )


def _condition(said: Support | Load) -> formats.Condition:
    return formats.Condition(said.kind, said.sets)
