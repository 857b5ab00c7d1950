"""Working directories from a mesh or geometry file and a case file.

`new` does the whole; the steps are functions of their own: `read_part` and `make_mesh` for the
part, `read_cases` for the case file, `build_model` for both together.
"""

from .build import Prepared, assign_patterns, build, build_model, new, read_part
from .case_file.cases import Cases, read_cases
from .case_file.expression import Expression, ExpressionError
from .case_file.schema import CaseFileError, Problem
from .mesh import Mesh, Part, PartError, make_mesh
from .readers.gmsh import MeshOptions
from .sets import Faces, Sets

__all__ = [
    "CaseFileError",
    "Cases",
    "Expression",
    "ExpressionError",
    "Faces",
    "Mesh",
    "MeshOptions",
    "Part",
    "PartError",
    "Prepared",
    "Problem",
    "Sets",
    "assign_patterns",
    "build",
    "build_model",
    "make_mesh",
    "new",
    "read_cases",
    "read_part",
]
