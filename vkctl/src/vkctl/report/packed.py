"""Arrays as text in a page: as few bytes as a picture needs, unpacked by the browser.

Each number of an array is told by its difference from the one before, then all low bytes come
before all higher ones, which deflates well; Base64 makes text of it.
"""

from __future__ import annotations

import base64
import zlib
from typing import Any

import numpy as np

from vkctl.basics.types import Array

_STEPS = 65534  # from the least value to the largest; 0 stands for no number
_LEVEL = 6  # of deflating: more takes several times as long for a hundredth of the size


def packed_numbers(values: Array) -> dict[str, Any]:
    """Whole numbers from 0 on, kept exactly."""
    flat = np.ascontiguousarray(values, np.uint32).reshape(-1)
    return {"count": len(flat), "text": _text(flat)}


def packed_values(values: Array) -> dict[str, Any]:
    """Values (n,) or (n, k), each column in 65534 steps from its least to its largest.

    What is no number stays none.
    """
    table = np.asarray(values, np.float64).reshape(len(values), -1)
    columns = []
    for column in table.T:
        finite = np.isfinite(column)
        low = float(column[finite].min()) if finite.any() else 0.0
        high = float(column[finite].max()) if finite.any() else 0.0
        step = (high - low) / _STEPS
        codes = np.zeros(len(column), np.uint16)
        if finite.any():
            share = (column[finite] - low) / step if step > 0 else np.zeros(int(finite.sum()))
            codes[finite] = 1 + np.round(share).astype(np.uint16)
        columns.append({"low": low, "step": step, "text": _text(codes)})
    return {"count": len(table), "columns": columns}


def _text(numbers: Array) -> str:
    steps = np.diff(numbers, prepend=numbers.dtype.type(0))
    bytes_of = steps.astype(numbers.dtype.newbyteorder("<")).view(np.uint8)
    planes = bytes_of.reshape(len(numbers), numbers.itemsize).T
    return base64.b64encode(zlib.compress(np.ascontiguousarray(planes).tobytes(), _LEVEL)).decode()
