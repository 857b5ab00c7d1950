"""Whose directories of a study stay."""

from __future__ import annotations

import math

from .entries import Keep
from .work import Outcome


def kept_after(keep: Keep, kept: list[Outcome], outcome: Outcome) -> list[Outcome]:
    """The variants that stay when one more has ended; of equal ones the lower numbers."""
    if keep.which == "best":
        candidates = [one for one in (*kept, outcome) if _value(keep, one) is not None]
        return sorted(candidates, key=lambda one: _rank(keep, one))[: keep.count]
    stays = keep.which == "all" or (keep.which == "failed" and outcome.status != "done")
    return [*kept, outcome] if stays else kept


def _value(keep: Keep, outcome: Outcome) -> float | None:
    value = outcome.values.get(keep.by)
    usable = outcome.status == "done" and value is not None and not math.isnan(value)
    return value if usable else None


def _rank(keep: Keep, outcome: Outcome) -> tuple[float, int]:
    value = _value(keep, outcome) or 0.0
    return (value if keep.order == "smallest" else -value, outcome.number)
