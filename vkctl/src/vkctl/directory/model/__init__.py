"""Model and load cases in memory, and the working directory they are written to and read from.

Numbers of nodes, elements, materials, load cases, connectivity rows and design points are
1-based here as in the files; the position in an array is the number minus one.

Units are the user's own, as long as they are consistent (for example N, mm and MPa).
"""

from vkctl.shapes.elements import Elements

from .load_cases import LoadCase, dof_mask, elastic, forces, prescribed, scalars
from .materials import Material, materials_from_records, materials_to_records
from .whole import Model, read, read_load_cases, set_flags, write, write_load_cases

__all__ = [
    "Elements",
    "LoadCase",
    "Material",
    "Model",
    "dof_mask",
    "elastic",
    "forces",
    "materials_from_records",
    "materials_to_records",
    "prescribed",
    "read",
    "read_load_cases",
    "scalars",
    "set_flags",
    "write",
    "write_load_cases",
]
