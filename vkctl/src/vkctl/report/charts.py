"""Small charts as SVG in the page."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np

from vkctl.basics.types import Array
from vkctl.basics.words import counted

from .markup import text

_WIDTH, _HEIGHT = 560, 200
_LEFT, _BOTTOM, _TOP = 60, 40, 24


def histogram(values: Array, low: float, high: float, bins: int, title: str, axis: str) -> str:
    """Bars of how many values lie in each of equal ranges; others count with the outermost."""
    counts = np.histogram(np.clip(values, low, high), bins, (low, high))[0]
    most = int(counts.max(initial=0)) or 1
    room = _HEIGHT - _BOTTOM - _TOP
    step = (_WIDTH - _LEFT) / bins
    bars = []
    for k, count in enumerate(counts.tolist()):
        height = max(room * count / most, 1.0 if count else 0.0)
        start, end = (low + (high - low) * edge / bins for edge in (k, k + 1))
        bars.append(
            f'<rect x="{_LEFT + k * step + 1:.1f}" y="{_TOP + room - height:.1f}" '
            f'width="{step - 2:.1f}" height="{height:.1f}" fill="#3b6ea5">'
            f"<title>{start:.2g} to {end:.2g}: {count}</title></rect>"
        )
    base = _TOP + room
    marks = [
        f'<text x="{_LEFT + k * (_WIDTH - _LEFT) / 5:.1f}" y="{base + 16}" '
        f'text-anchor="{"end" if k == 5 else "middle"}">{low + (high - low) * k / 5:.1f}</text>'
        for k in range(6)
    ]
    summary = f"{title}: {counted(len(values), 'element')}, least {values.min():.3g}"
    return (
        f'<figure><svg role="img" aria-label="{text(summary)}" viewBox="0 0 {_WIDTH} {_HEIGHT}" '
        f'width="{_WIDTH}" font-size="12" fill="#1c2430">'
        f'<text x="0" y="14">{text(title)}</text>'
        f'<text x="{_LEFT - 6}" y="{_TOP + 10}" text-anchor="end">{most}</text>'
        f'<text x="{_LEFT - 6}" y="{base}" text-anchor="end">0</text>'
        f'<path d="M{_LEFT} {_TOP}V{base}H{_WIDTH}" fill="none" stroke="#59636f"/>'
        f"{''.join(bars)}{''.join(marks)}"
        f'<text x="{(_LEFT + _WIDTH) / 2}" y="{_HEIGHT - 4}" text-anchor="middle">'
        f"{text(axis)}</text>"
        "</svg></figure>"
    )


def course(steps: Sequence[int], values: Sequence[float], title: str) -> str:
    """A line of values over steps."""
    low, high = min(values), max(values)
    room, reach = _HEIGHT - _BOTTOM - _TOP, max(steps[-1] - steps[0], 1)
    points = [
        (
            _LEFT + (_WIDTH - _LEFT - 8) * (step - steps[0]) / reach,
            _TOP + room * (1 - (value - low) / ((high - low) or 1.0)),
        )
        for step, value in zip(steps, values, strict=True)
    ]
    line = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    x, y = points[-1]
    base = _TOP + room
    summary = (
        f"{title}: from {values[0]:.4g} to {values[-1]:.4g} over {counted(len(steps), 'step')}"
    )
    return (
        f'<figure><svg role="img" aria-label="{text(summary)}" viewBox="0 0 {_WIDTH} {_HEIGHT}" '
        f'width="{_WIDTH}" font-size="12" fill="#1c2430">'
        f'<text x="0" y="14">{text(title)}</text>'
        f'<text x="{_LEFT - 6}" y="{_TOP + 10}" text-anchor="end">{high:.4g}</text>'
        f'<text x="{_LEFT - 6}" y="{base}" text-anchor="end">{low:.4g}</text>'
        f'<path d="M{_LEFT} {_TOP}V{base}H{_WIDTH}" fill="none" stroke="#59636f"/>'
        f'<polyline points="{line}" fill="none" stroke="#3b6ea5" stroke-width="2"/>'
        f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3.5" fill="#3b6ea5"/>'
        f'<text x="{_LEFT}" y="{base + 16}">{steps[0]}</text>'
        f'<text x="{_WIDTH - 8}" y="{base + 16}" text-anchor="end">{steps[-1]}</text>'
        f'<text x="{(_LEFT + _WIDTH) / 2}" y="{_HEIGHT - 4}" text-anchor="middle">step</text>'
        "</svg></figure>"
    )
