"""Types that every room uses."""

from __future__ import annotations

import os
from typing import Any

import numpy.typing as npt

PathLike = str | os.PathLike[str]
Array = npt.NDArray[Any]  # dtype and shape are told at each use
