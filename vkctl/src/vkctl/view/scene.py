"""Meshes drawn without a screen, and where a place of theirs comes to lie in the picture."""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

import numpy as np

from vkctl.basics.extras import need
from vkctl.basics.types import Array

if TYPE_CHECKING:
    import pyvista

Direction = tuple[float, float, float]
_THIN_PART = 0.25  # of its other extents: a part as low as this is a plate
_THROUGH = 0.3  # how strongly what shines through is seen
_CLOSE = 1e-4  # of the extent: how far from a surface a place still lies on it


@dataclass(frozen=True)
class Layer:
    """A mesh with how PyVista is to draw it, and whether it shines through what is before it."""

    mesh: pyvista.DataSet
    how: dict[str, Any]
    through: bool = False


@dataclass(frozen=True)
class Shot:
    """A drawn scene, and of the places asked for where they lie in it."""

    pixels: Array  # (height, width, 3)
    places: Array  # (k, 2): pixels from the upper left corner
    hidden: Array  # bool (k,): something is before them


def eye(nodes: Array, direction: Direction | None) -> tuple[Direction, Direction]:
    """Direction to the eye, and the one that points up in the picture.

    Up is z, and y where the part is a plate in x and y that is looked at from above.
    """
    length, width, height = np.ptp(nodes, axis=0)
    plate = height < _THIN_PART * min(length, width)
    chosen = direction or ((0.3, -0.4, 1.0) if plate else (-0.6, -1.0, 0.5))
    steep = abs(chosen[2]) > 2 * max(abs(chosen[0]), abs(chosen[1]))
    return chosen, (0.0, 1.0, 0.0) if steep else (0.0, 0.0, 1.0)


def shoot(
    layers: Sequence[Layer],
    size: tuple[int, int],
    view: tuple[Direction, Direction],
    places: Array,
    before: pyvista.PolyData,
) -> Shot:
    """Draw layers; `before` is the surface that may hide `places` (k, 3)."""
    plotter = quiet_plotter(size)
    solid = []
    for layer in layers:
        actor = plotter.add_mesh(layer.mesh, **{"show_scalar_bar": False, **layer.how})
        if not layer.through:
            solid.append(actor)
    plotter.view_vector(view[0], viewup=view[1])
    plotter.enable_anti_aliasing("ssaa")
    pixels: Array = plotter.screenshot(return_img=True)
    if len(solid) < len(layers):
        for actor in solid:
            actor.SetVisibility(False)
        plotter.render()
        pixels = _shining(pixels, plotter.screenshot(return_img=True))
    found = _projected(plotter, places, size[1])
    camera = np.array(plotter.camera.position)
    plotter.close()
    return Shot(pixels, found, _hidden(before, places, camera))


def quiet_plotter(size: tuple[int, int]) -> Any:
    """A white scene with axes, drawn in memory."""
    logger = need("vtkmodules.vtkCommonCore").vtkLogger
    # Without a screen VTK warns once and draws in memory, which is what is wanted.
    logger.SetStderrVerbosity(logger.VERBOSITY_OFF)
    # Lines on a surface come before it: of equal depth they would be broken.
    mapper = need("vtkmodules.vtkRenderingCore").vtkMapper
    mapper.SetResolveCoincidentTopologyToPolygonOffset()
    mapper.SetResolveCoincidentTopologyLineOffsetParameters(-8.0, -8.0)
    plotter = need("pyvista").Plotter(off_screen=True, window_size=list(size))
    plotter.set_background("white")
    plotter.add_axes(color="black")
    return plotter


def _shining(pixels: Array, behind: Array) -> Array:
    """A picture with what is behind seen faintly through it, where it isn't seen already.

    Two pictures laid one over the other need no order among surfaces that are seen through.
    """
    drawn = (behind < 255).any(axis=2) & (pixels != behind).any(axis=2)
    mixed = pixels.astype(np.float64)
    mixed[drawn] += _THROUGH * (behind[drawn] - mixed[drawn])
    return np.rint(mixed).astype(np.uint8)


def _projected(plotter: Any, places: Array, height: int) -> Array:
    found = np.zeros((len(places), 2))
    for k, (x, y, z) in enumerate(places):
        plotter.renderer.SetWorldPoint(x, y, z, 1.0)
        plotter.renderer.WorldToDisplay()
        across, up, _ = plotter.renderer.GetDisplayPoint()
        found[k] = across, height - 1 - up
    return found


def _hidden(surface: pyvista.PolyData, places: Array, camera: Array) -> Array:
    """Mask of the places that the surface stands before, as seen from the camera."""
    locator = need("vtkmodules.vtkCommonDataModel").vtkStaticCellLocator()
    locator.SetDataSet(surface)
    locator.BuildLocator()
    core = need("vtkmodules.vtkCommonCore")
    extent = float(surface.length) or 1.0
    hidden = np.zeros(len(places), np.bool_)
    for k, place in enumerate(places):
        towards = camera - place
        start = place + _CLOSE * extent * towards / (np.linalg.norm(towards) or 1.0)
        at, where, share, part = [0.0] * 3, [0.0] * 3, core.reference(0.0), core.reference(0)
        hidden[k] = locator.IntersectWithLine(
            start.tolist(), camera.tolist(), 1e-9 * extent, share, at, where, part
        )
    return hidden
