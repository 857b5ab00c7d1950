"""Small operations on arrays of numbers."""

from __future__ import annotations

import numpy as np

from .types import Array


def distinct(numbers: Array) -> Array:
    """The numbers in ascending order, each once.

    For whole numbers `numpy.unique` goes through a hash table, many times slower than this.
    """
    flat = np.asarray(numbers).ravel()
    if np.all(flat[1:] > flat[:-1]):
        return flat
    ordered = np.sort(flat)
    kept: Array = ordered[np.concatenate(([True], ordered[1:] != ordered[:-1]))]
    return kept
