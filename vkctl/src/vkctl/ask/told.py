"""Answers as tables with the units of the case file."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.units import UnitSystem
from vkctl.basics.units import unit_of as unit_of
from vkctl.basics.words import place_words
from vkctl.directory.case_names import titled
from vkctl.directory.model import Model
from vkctl.stress.fields import field_unit as field_unit

from .extremes import Envelope, Extreme
from .reactions import Reactions, Resultant
from .tables import Cell, Column, Table

_NEGLIGIBLE = 1e-4  # of all forces: more than what the solver's tolerance leaves over
CASE = [Column("load case"), Column("load case name")]


def resultant_columns(units: UnitSystem | None) -> list[Column]:
    """Fx to Mz."""
    force, moment = unit_of(units, "force"), unit_of(units, "moment")
    forces = [Column(f"F{axis}", force, "force") for axis in "xyz"]
    return forces + [Column(f"M{axis}", moment, "moment") for axis in "xyz"]


def resultant_cells(of: Resultant) -> tuple[float, ...]:
    return (*of.force, *of.moment)


def reaction_table(found: Sequence[Reactions], units: UnitSystem | None) -> Table:
    """Reactions with the balance of each load case."""
    divided = any(one.set for case in found for one in case.supports)
    columns = [*CASE, Column("support"), Column("kind"), *([Column("set")] if divided else [])]
    columns += [Column("nodes"), *resultant_columns(units)]
    about = found[0].about if found else (0.0, 0.0, 0.0)
    point = "the origin" if not any(about) else place_words(about)
    title = f"reactions, what supports put on the part; moments about {point}"
    table = Table(title, columns, hidden=2)
    for case in found:
        table.headings[len(table.rows)] = title_of(case.load_case, case.name)
        for one in [*case.supports, *case.of_sets]:
            names = _title_cells(one.support, one.kind, one.set if divided else None)
            cells = (*names, one.nodes, *resultant_cells(one.resultant))
            table.rows.append((case.load_case, case.name, *cells))
        for words, total in (
            ("all supports", case.total),
            ("all loads", case.loads),
            ("left over", case.left),
        ):
            cells = (*_title_cells(words, "", "" if divided else None), None)
            table.rows.append((case.load_case, case.name, *cells, *resultant_cells(total)))
        table.notes += _balance_words(case)
    return table


def _title_cells(support: str, kind: str, of_set: str | None) -> tuple[Cell, ...]:
    return (support, kind) if of_set is None else (support, kind, of_set)


def title_of(number: int, name: str) -> str:
    """Such as "load case 3, pull"."""
    return titled(number, [""] * (number - 1) + [name])


def _balance_words(case: Reactions) -> list[str]:
    title = title_of(case.load_case, case.name)
    shares = case.relative_force, case.relative_moment
    lines = left_over_words(title, shares, "all nodal forces")
    return lines + [f"{title}: {note}" for note in case.notes]


def left_over_words(title: str, shares: tuple[float, float], whose: str) -> list[str]:
    """Sentences on what forces and moments leave over, as shares of what they were summed from."""
    lines = [f"{title}: left over {shares[0]:.1e} of {whose}, {shares[1]:.1e} of their moments"]
    if not all(share < _NEGLIGIBLE for share in shares):  # undefined ones neither
        lines.append(
            f"{title}: that is more than a good solve leaves: has it converged, "
            "have yielding elements settled, are loads and supports still those that were solved?"
        )
    return lines


def extreme_table(
    found: Sequence[Extreme], units: UnitSystem | None, model: Model, title: str
) -> Table:
    """Extremes, each with its node and place; under a heading each load case."""
    columns = [*CASE, Column("set"), Column("field"), Column("end"), Column("value")]
    columns += [Column("unit")] if units is not None else []
    labels = _labels(model)
    table = Table(title, columns + _node_columns(labels, units), hidden=2)
    before = 0
    for one in found:
        if one.load_case != before:
            table.headings[len(table.rows)] = title_of(one.load_case, one.name)
            before = one.load_case
        unit = (field_unit(units, one.field),) if units is not None else ()
        cells = (one.set, one.field, one.end, one.value, *unit, *_node_cells(one, labels))
        table.rows.append((one.load_case, one.name, *cells))
    return table


def _labels(model: Model) -> Array | None:
    """What the part's file calls the nodes; None where nobody knows or it calls them the same."""
    if model.labels is None:
        return None
    labels = model.labels.nodes
    return None if np.array_equal(labels, np.arange(1, len(labels) + 1)) else labels


def _node_columns(labels: Array | None, units: UnitSystem | None) -> list[Column]:
    """Number, label, coordinates."""
    length = unit_of(units, "length")
    labelled = [] if labels is None else [Column("in mesh")]
    return [Column("node"), *labelled, *(Column(axis, length, "place") for axis in "xyz")]


def _node_cells(one: Extreme, labels: Array | None) -> tuple[Cell, ...]:
    labelled = () if labels is None else (int(labels[one.node - 1]),)
    return (one.node, *labelled, *one.place)


def envelope_table(
    found: Sequence[Extreme], units: UnitSystem | None, model: Model, over: Envelope
) -> Table:
    """The extremes of an envelope, each with the load case that it occurs in."""
    cases = ", ".join(map(str, over.load_cases))
    title = f"envelope of {over.field} over load cases {cases}"
    labels = _labels(model)
    value = Column(over.field, field_unit(units, over.field), "value")
    columns = [Column("set"), Column("end"), value, *CASE, *_node_columns(labels, units)]
    table = Table(title, columns)
    for one in found:
        case = (one.load_case, one.name)
        table.rows.append((one.set, one.end, one.value, *case, *_node_cells(one, labels)))
    return table


def envelope_node_table(model: Model, over: Envelope, units: UnitSystem | None) -> Table:
    """The envelope at each node that has a value."""
    length, unit = unit_of(units, "length"), field_unit(units, over.field)
    columns = [Column("node"), *(Column(axis, length, "place") for axis in "xyz")]
    for end in ("largest", "smallest"):
        columns += [Column(f"{end} {over.field}", unit, "value"), Column(f"load case of {end}")]
    table = Table("", columns)
    nodes = np.flatnonzero(over.largest_case) + 1
    table.rows = list(
        zip(
            nodes.tolist(),
            *(_at(model.nodes[:, k], nodes) for k in range(3)),
            _at(over.largest, nodes),
            _at(over.largest_case, nodes),
            _at(over.smallest, nodes),
            _at(over.smallest_case, nodes),
            strict=True,
        )
    )
    return table


def _at(values: Array, nodes: Array) -> list[float]:
    found: list[float] = values[nodes - 1].tolist()
    return found
