"""The level field as the solver takes it from the list of design points."""

from __future__ import annotations

import numpy as np

from vkctl.basics.types import Array

from .model import Model

# Of the largest level: where the part is cut out, nodes are no closer to zero than this.
NEAREST_LEVEL = 1e-3
MEAN_LEVEL = 0.5  # magnitude that the field is scaled to


def level_field(model: Model) -> Array:
    """Level value of each node as the solver uses it, float32 (n,).

    The list is scaled to a mean magnitude of 0.5; nodes without a design point have 1.0. ValueError
    for nodes whose design point isn't there.
    """
    levels = np.ones(len(model.nodes), np.float32)
    assert model.node_tp_index is not None
    if (model.node_tp_index > len(model.tp)).any():
        raise ValueError(f"a node names a design point above {len(model.tp)}")
    mean = np.abs(model.tp).mean() if len(model.tp) else np.float32(0.0)
    scale = np.float32(MEAN_LEVEL) / mean if mean > 0 else mean
    chosen = model.node_tp_index > 0
    levels[chosen] = scale * model.tp[model.node_tp_index[chosen] - 1]
    return levels


def off_zero(levels: Array) -> Array:
    """Levels with the same signs that are nowhere closer to zero than NEAREST_LEVEL of the largest.

    A cut exactly through a node would make the part's surface touch itself there.
    """
    margin = NEAREST_LEVEL * float(np.abs(levels).max(initial=0.0)) or 1.0
    kept_off = np.where(levels < 0, -margin, margin)
    return np.where(np.abs(levels) < margin, kept_off, levels)
