"""Grids, surfaces and pictures put into files, each replaced as a whole.

VTK's own writers damage their memory where a disk is full. So they write into memory, and what
comes out goes the way of every other file.
"""

from __future__ import annotations

import errno
import os
from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any

from vkctl.basics.extras import need
from vkctl.basics.types import Array, PathLike
from vkctl.directory import formats

if TYPE_CHECKING:
    import pyvista

PICTURES = {".png": "PNG", ".jpg": "JPEG", ".jpeg": "JPEG", ".bmp": "BMP", ".tif": "TIFF"}


def write_grid(grid: pyvista.DataSet, target: PathLike, quickly: bool = False) -> None:
    """Write a grid as .vtu or a surface as .vtp; `quickly` takes a seventh of the time to pack it,
    and half as much space again."""
    module = need("vtkmodules.vtkIOXML")
    surface = Path(target).suffix == ".vtp"
    writer = module.vtkXMLPolyDataWriter() if surface else module.vtkXMLUnstructuredGridWriter()
    writer.SetInputData(grid)
    writer.SetDataModeToBinary()
    if quickly:
        writer.SetCompressorTypeToLZ4()
    writer.WriteToOutputStringOn()
    if not writer.Write() or writer.GetErrorCode():
        raise OSError(errno.ENOMEM, "the grid can't be put together", os.fspath(target))
    with formats.replacing(target) as stream:
        stream.write(writer.GetOutputString().encode())


def write_picture(pixels: Array, target: PathLike) -> None:
    """Write an array (height, width, colours) as a picture, of a kind told by the suffix."""
    images = need("PIL.Image")
    kind = picture_kind(target)
    with formats.replacing(target) as stream:
        images.fromarray(pixels).save(stream, format=kind)


def picture_kind(target: PathLike) -> str:
    """What Pillow calls the kind of picture; ValueError for a suffix that stands for none."""
    suffix = Path(target).suffix.lower()
    if suffix not in PICTURES:
        raise ValueError(f"{target}: the suffix must be one of {', '.join(PICTURES)}")
    return PICTURES[suffix]


def write_figure(figure: Any, target: PathLike, dpi: int) -> None:
    """Write a figure of Matplotlib, of a kind told by the suffix."""
    kind = Path(target).suffix.lstrip(".").lower() or "png"
    if kind not in figure.canvas.get_supported_filetypes():
        raise ValueError(f"{target}: Matplotlib writes no pictures of the kind {kind!r}")
    with formats.replacing(target) as stream:
        figure.savefig(stream, dpi=dpi, format=kind)


def write_film(frames: Sequence[Any], target: PathLike, milliseconds: list[int]) -> None:
    """Write pictures of Pillow as one .gif that goes round."""
    first, *others = frames
    with formats.replacing(target) as stream:
        first.save(
            stream,
            format="GIF",
            save_all=True,
            append_images=others,
            duration=milliseconds,
            loop=0,
        )
