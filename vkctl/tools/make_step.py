"""Write bracket.step, the geometry of bracket.geo, and link.step, as a CAD system would."""

from pathlib import Path

import gmsh

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"


def main() -> None:
    gmsh.initialize(readConfigFiles=False)
    gmsh.merge(str(EXAMPLES / "bracket.geo"))
    gmsh.write(str(EXAMPLES / "bracket.step"))
    gmsh.clear()
    solids = gmsh.model.occ
    plate, hole = solids.addBox(0, 0, 0, 120, 40, 8), solids.addCylinder(60, 20, 0, 0, 0, 8, 8)
    solids.cut([(3, plate)], [(3, hole)])
    solids.synchronize()
    gmsh.write(str(EXAMPLES / "link.step"))
    gmsh.finalize()


if __name__ == "__main__":
    main()
