"""Rigid motions of a body: six numbers, translation t and rotation r about a centre."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

# Eigenvalues of a support matrix below this, relative to the largest, leave a motion free.
# Coordinates are float32: a straight row of supports has values of about 1e-14.
FREE = 1e-10
_NO_ROTATION = 1e-4


def displacement_rows(arms: Array) -> Array:
    """Maps (k, 3, 6) from a motion to the displacement t + r x arm at points `arms` (k, 3)."""
    rows = np.zeros((len(arms), 3, 6))
    rows[:, :, :3] = np.eye(3)
    rows[:, :, 3:] = np.cross(np.eye(3)[None], arms[:, None]).transpose(0, 2, 1)
    return rows


def describe_motions(motions: Array) -> str:
    """Words for the rigid motions that the columns of (6, k) span."""
    if motions.shape[1] == 6:
        return "it has no support at all"
    turn_basis, strengths, mix = np.linalg.svd(motions[3:])
    turns = int((strengths > _NO_ROTATION).sum())
    slides = mix[turns:] @ motions[:3].T  # motions without rotation
    parts = []
    if len(slides):
        parts.append("slide " + _along([row / np.linalg.norm(row) for row in slides]))
    if turns:
        parts.append("turn " + _about([turn_basis[:, k] for k in range(turns)]))
    return "it can " + " and ".join(parts)


def _along(vectors: list[Array]) -> str:
    return "in every direction" if len(vectors) == 3 else "along " + _axes(vectors)


def _about(vectors: list[Array]) -> str:
    return "about every axis" if len(vectors) == 3 else "about " + _axes(vectors)


def _axes(vectors: list[Array]) -> str:
    """Names of the coordinate axes that the vectors span, or the vectors themselves."""
    span = np.array(vectors)
    aligned = [name for name, axis in zip("xyz", np.eye(3), strict=True) if _spans(span, axis)]
    if len(aligned) == len(vectors):
        return " and ".join(aligned)
    return " and ".join("(" + ", ".join(f"{x:.3g}" for x in v + 0.0) + ")" for v in vectors)


def _spans(span: Array, axis: Array) -> bool:
    rest = axis - np.linalg.lstsq(span.T, axis, rcond=None)[0] @ span
    return bool(np.linalg.norm(rest) < 1e-3)
