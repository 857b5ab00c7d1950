"""Numbers each once, and things in groups by what links pairs of them.

SciPy finds groups too; to load it takes longer than a command on a small part should.
"""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array


def distinct(numbers: Array) -> Array:
    """The same in ascending order, each once.

    As `np.unique`, which hashes since NumPy 2.3 and takes thirty times as long where many differ.
    """
    found: Array = np.sort(numbers, axis=None)
    return found[np.append(True, found[1:] != found[:-1])] if len(found) else found


def groups_of_links(count: int, first: Array, second: Array) -> Array:
    """The group (count,) of each of so many things, numbered from 0 by their lowest members.

    `first` and `second` (k,) are the two ends of links, from 0.
    """
    lowest = np.arange(count)  # a member of the same group that isn't higher; the root is itself
    while len(first):
        a, b = lowest[first], lowest[second]
        apart = a != b
        first, second, a, b = first[apart], second[apart], a[apart], b[apart]
        np.minimum.at(lowest, np.maximum(a, b), np.minimum(a, b))
        while not np.array_equal(lowest, further := lowest[lowest]):
            lowest = further
    groups: Array = np.unique(lowest, return_inverse=True)[1]
    return groups
