"""Whether a surface is closed, as VTK sees it."""

from __future__ import annotations

import pyvista


def open_edges(surface: pyvista.PolyData) -> int:
    """Edges that don't belong to exactly two triangles; 0 for a watertight surface."""
    edges = surface.extract_feature_edges(
        boundary_edges=True, non_manifold_edges=True, feature_edges=False, manifold_edges=False
    )
    return int(edges.n_cells)
