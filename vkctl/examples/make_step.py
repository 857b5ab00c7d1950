"""Write bracket.step, the geometry of bracket.geo as a CAD system would hand it over."""

from pathlib import Path

import gmsh

HERE = Path(__file__).resolve().parent


def main() -> None:
    gmsh.initialize(readConfigFiles=False)
    gmsh.merge(str(HERE / "bracket.geo"))
    gmsh.write(str(HERE / "bracket.step"))
    gmsh.finalize()


if __name__ == "__main__":
    main()
