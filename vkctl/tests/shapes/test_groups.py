"""Groups of linked things, against a search that goes from neighbour to neighbour."""

from __future__ import annotations

import numpy as np
import pytest

from vkctl.shapes.groups import distinct, groups_of_links


def by_search(count, links):
    near: list[set[int]] = [set() for _ in range(count)]
    for a, b in links:
        near[a].add(b)
        near[b].add(a)
    found = [-1] * count
    for start in range(count):
        if found[start] >= 0:
            continue
        group, open_ends = max(found, default=-1) + 1, [start]
        while open_ends:
            one = open_ends.pop()
            if found[one] < 0:
                found[one] = group
                open_ends += near[one]
    return found


@pytest.mark.parametrize("links", [0, 60, 150, 600])
def test_groups_are_those_of_a_search_numbered_by_their_lowest_members(links: int) -> None:
    ends = np.random.default_rng(links).integers(0, 200, (2, links))
    assert groups_of_links(200, *ends).tolist() == by_search(200, ends.T.tolist())


def test_a_long_chain_in_any_order_is_one_group() -> None:
    order = np.random.default_rng(1).permutation(3000)
    assert not groups_of_links(3000, order[1:], order[:-1]).any()
    assert not groups_of_links(3000, np.arange(2999), np.arange(1, 3000)).any()


def test_numbers_are_distinct_and_ascend_whatever_their_shape() -> None:
    numbers = np.random.default_rng(3).integers(-40, 40, (30, 4))
    assert distinct(numbers).tolist() == sorted(set(numbers.ravel().tolist()))
    assert distinct(numbers[:0]).tolist() == []


def test_nothing_has_no_groups() -> None:
    nobody = np.empty(0, np.int64)
    assert groups_of_links(0, nobody, nobody).tolist() == []
    assert groups_of_links(2, nobody, nobody).tolist() == [0, 1]
