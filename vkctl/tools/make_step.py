"""Write bracket.step, the geometry of bracket.geo as a CAD system would hand it over."""

from pathlib import Path

import gmsh

EXAMPLES = Path(__file__).resolve().parents[1] / "examples"


def main() -> None:
    gmsh.initialize(readConfigFiles=False)
    gmsh.merge(str(EXAMPLES / "bracket.geo"))
    gmsh.write(str(EXAMPLES / "bracket.step"))
    gmsh.finalize()


if __name__ == "__main__":
    main()
