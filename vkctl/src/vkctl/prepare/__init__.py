"""Working directories from a mesh or geometry file and a case file.

`new` does the whole; the steps are functions of their own: `read_part` and `make_mesh` for the
part, `read_cases` for the case file, `build_model` for both together.
"""

from .build import Prepared, build, build_model, new
from .case_file.entries import Cases
from .case_file.expression import Expression, ExpressionError
from .case_file.mistakes import CaseFileError, Problem
from .case_file.read import read_cases
from .case_records import assign_patterns
from .face_sets import Faces
from .mesh import PartMesh, make_mesh
from .part import MeshOptions, Part, PartError, Reading, Told
from .readers.registry import read_part
from .sets import Sets

__all__ = [
    "CaseFileError",
    "Cases",
    "Expression",
    "ExpressionError",
    "Faces",
    "PartMesh",
    "MeshOptions",
    "Part",
    "PartError",
    "Prepared",
    "Problem",
    "Reading",
    "Sets",
    "Told",
    "assign_patterns",
    "build",
    "build_model",
    "make_mesh",
    "new",
    "read_cases",
    "read_part",
]
