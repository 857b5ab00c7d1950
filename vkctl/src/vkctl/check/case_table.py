"""The table of load cases: what runs, in which order, under which constraint pattern."""

from __future__ import annotations

from collections.abc import Iterator

import numpy as np

from vkctl.basics.arrays import distinct
from vkctl.basics.types import Array
from vkctl.basics.words import listed, some
from vkctl.directory import formats
from vkctl.directory.formats import LoadCaseMap, file_names
from vkctl.directory.numbering import prescribed_rows

from .findings import Finding, error, note, warning
from .inputs import Inputs, nodes_listed

_TABLE = file_names.LOAD_CASES
_FLAGS = file_names.LOAD_CASE_FLAGS


def check_cases(inputs: Inputs) -> Iterator[Finding]:
    """Findings on `mxs.lcdata` and `mxs.lcflags`."""
    if inputs.load_cases is None or inputs.flags is None:
        return
    records, flags = inputs.load_cases, inputs.flags
    if len(records) != len(flags):
        text = f"{_FLAGS} has {len(flags)} load cases, {_TABLE} has {len(records)}."
        yield error("count-cases", text, _FLAGS, "Both must belong to the same set of load cases.")
    yield from _order(records["RunOrder"][: len(flags)], len(records))
    high = [number for number in inputs.to_run if number > formats.LARGEST_NUMBER]
    if high:
        beyond = f"{listed(high, 'load case')} above {formats.LARGEST_NUMBER}"
        text = f"{beyond} share the file {formats.numbered('mxs.lcmap', high[0])}."
        yield error("case-number", text, _TABLE, "Split the load cases over several directories.")
    requested = (flags & formats.LOADCASE_REQUESTED != 0)[: len(records)]
    odd = np.flatnonzero(requested & (records["Kind"][: len(flags)] != formats.LOADCASE_STATIC)) + 1
    if len(odd):
        text = f"{listed(odd, 'requested load case')} have a kind other than 1 and are passed over."
        yield warning("case-kind", text, _TABLE)
    yield from _anything_to_do(inputs)
    yield from _zero_patterns(inputs)


def _order(order: Array, count: int) -> Iterator[Finding]:
    outside = np.flatnonzero((order < 1) | (order > count)) + 1
    if len(outside):
        text = f"The run order names load cases outside 1 to {count} at position {some(outside)}."
        yield error("order-outside", text, _TABLE)
        return
    never = np.flatnonzero(np.bincount(order, minlength=count + 1)[1:] == 0) + 1
    if len(never):
        text = (
            f"{listed(never, 'load case')} never come up in the run order, others more than once."
        )
        yield warning("order-incomplete", text, _TABLE, "They will not be run.")


def _anything_to_do(inputs: Inputs) -> Iterator[Finding]:
    assert inputs.flags is not None
    if not inputs.sequence:
        hint = "Set bit 0 of the flags of the load cases to run."
        yield warning(
            "nothing-requested", "No load case is requested: a run does nothing.", _FLAGS, hint
        )
    elif not inputs.to_run:
        hint = "`vkctl run --again` runs them again: it clears bit 1 of the flags."
        yield note(
            "all-done", "Every requested load case is done: a run does nothing.", _FLAGS, hint
        )


def _zero_patterns(inputs: Inputs) -> Iterator[Finding]:
    if not inputs.to_run:
        return
    first = inputs.to_run[0]
    if inputs.pattern(first) == 0:
        text = (
            f"Load case {first} runs first and has the constraint pattern 0: no equations are made."
        )
        yield error("pattern-zero-first", text, f"load case {first}", "Number patterns from 1.")
    later = [number for number in inputs.to_run[1:] if inputs.pattern(number) == 0]
    if later:
        text = f"{listed(later, 'load case')} have the constraint pattern 0."
        hint = (
            "Whichever runs first, after a restart too, will stop the run. Number patterns from 1."
        )
        yield warning("pattern-zero", text, _TABLE, hint)


def check_patterns(inputs: Inputs) -> Iterator[Finding]:
    """Load cases of one pattern whose constraints differ from those of the first of them.

    Numbering, matrix and factor are kept between load cases of a pattern, so a later load case is
    solved with the constraints of an earlier one. Any of them may be the first after a restart.
    """
    leaders: dict[int, int] = {}
    for number in inputs.sound_maps:
        leader = leaders.setdefault(inputs.pattern(number), number)
        if leader != number:
            yield from _differences(inputs, leader, number)


def _differences(inputs: Inputs, leader: int, number: int) -> Iterator[Finding]:
    first, other = inputs.maps[leader], inputs.maps[number]
    where = f"load case {number}"
    both = f"Load cases {leader} and {number} have pattern {inputs.pattern(number)}, but"
    hint = "Give them different patterns."
    mine, theirs = _prescribed(first), _prescribed(other)
    odd = np.setxor1d(mine[0], theirs[0])
    if len(odd):
        nodes = distinct(odd // 3 + 1)
        text = f"{both} not the same prescribed components: they differ at "
        text += f"{nodes_listed(inputs, nodes)}."
        yield error("pattern-components", text, where, hint)
    elif len(wrong := _misread_values(mine, theirs, other)):
        nodes = distinct(wrong // 3 + 1)
        text = f"{both} load case {number} would have wrong values prescribed at "
        text += f"{nodes_listed(inputs, nodes)}."
        long_hint = hint + " Or list the same constraint rows in the same order, none of them zero."
        yield error("pattern-values", text, where, long_hint)
    if not np.array_equal(_springs(first), _springs(other)):
        text = f"{both} not the same elastic supports: the matrix is that of load case {leader}."
        yield error("pattern-supports", text, where, hint)


def _prescribed(sections: LoadCaseMap) -> tuple[Array, Array, Array]:
    """Prescribed components as (3 node + direction, row, value), ascending; later rows win."""
    rows, nodes, directions = prescribed_rows(sections.constraints)
    keys = 3 * nodes + directions
    # The last of equal keys: the first of the reversed list.
    keys, place = np.unique(keys[::-1], return_index=True)
    place = len(rows) - 1 - place
    values = sections.constraints["Value"][rows[place], directions[place]]
    return keys, rows[place], values


def _misread_values(
    mine: tuple[Array, Array, Array], theirs: tuple[Array, Array, Array], other: LoadCaseMap
) -> Array:
    """Components whose value isn't what the numbering of the first load case makes of it.

    A value of zero there means fixed for all; another one refers to its row, which is then looked
    up among the rows of the load case that is run.
    """
    keys, rows, values = mine
    there = rows < len(other.constraints)
    found = np.zeros(len(keys))
    found[there] = other.constraints["Value"][rows[there], keys[there] % 3]
    taken = np.where(values == 0, 0.0, np.where(there, found, np.nan))
    wrong: Array = keys[~(taken == theirs[2])]
    return wrong


def _springs(sections: LoadCaseMap) -> Array:
    """Node, direction bit and axis of every elastic support, in an order of their own."""
    rows = sections.constraints[sections.constraints["Kind"] & formats.CONSTRAINT_PENALTY != 0]
    mask = rows["DofMask"][:, None] >> np.arange(3) & 1 == 1
    row, direction = np.nonzero(mask)
    table = np.column_stack((rows["Node"][row], direction, rows["Axis"][row, direction]))
    ordered: Array = table[np.lexsort(table.T)]
    return ordered
