"""The command `vkctl box`."""

from __future__ import annotations

from typing import Annotated

import typer

from vkctl.terminal import output
from vkctl.terminal.arguments import AsJson, Directory
from vkctl.terminal.refusal import refuse, refusing


def box_command(
    directory: Directory,
    kind: Annotated[str, typer.Option(..., help="tet4, hex8, tet10 or mixed")] = "tet4",
    cells: Annotated[tuple[int, int, int], typer.Option(..., help="cells along x, y, z")] = (
        10,
        4,
        4,
    ),
    size: Annotated[tuple[float, float, float], typer.Option(..., help="extent")] = (
        10.0,
        4.0,
        4.0,
    ),
    modulus: Annotated[float, typer.Option(..., help="Young's modulus")] = 1000.0,
    poisson: Annotated[float, typer.Option(..., help="Poisson's ratio")] = 0.3,
    traction: Annotated[
        tuple[float, float, float], typer.Option(..., help="force per area on the side x+")
    ] = (0.0, 0.0, -1.0),
    as_json: AsJson = False,
) -> None:
    """Write a box, clamped on the side x- and loaded on the side x+."""
    from vkctl.directory import model
    from vkctl.directory.sides import side_sets
    from vkctl.shapes import boxes
    from vkctl.shapes.ordering import in_colours

    if kind not in ("tet4", "hex8", "tet10", "mixed"):
        raise refuse(f"unknown kind {kind!r}: tet4, hex8, tet10 or mixed")
    with refusing(ValueError):
        part = boxes.box(kind, cells, size)  # type: ignore[arg-type]
    if kind == "hex8":  # numbered as `new` numbers what it meshes
        part = boxes.renumbered(part, in_colours(part.nodes, part.elements.hex8 - 1))
    case = model.LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", traction))
    whole = model.Model(
        part.nodes, part.elements, [model.Material.isotropic(modulus, poisson)], [case]
    )
    whole.sets = side_sets(part)
    with refusing(ValueError):
        model.write(whole, directory)
    if as_json:
        counts = {"nodes": len(part.nodes), "elements": len(part.elements)}
        output.print_json({"directory": str(directory), **counts})
        return
    output.tell(f"{len(part.nodes)} nodes and {len(part.elements)} elements in {directory}")
