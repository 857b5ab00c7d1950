"""Elements of a mesh in memory."""

from __future__ import annotations

from dataclasses import dataclass, field

import numpy as np
import numpy.typing as npt

from vkctl.basics.types import Array

from .topology import HEX8, TET4, TET10


def _rows(width: int) -> Array:
    return np.empty((0, width), np.int32)


@dataclass
class Elements:
    """Elements in file order: what each is, and where its nodes stand.

    `type_codes`, `materials` and `conn_index` have one value per element; `conn_index` is the
    1-based row in the table of the element's type: `tet4` (k, 4), `hex8` (k, 8), `tet10` (k, 10),
    tables of 1-based node numbers.
    """

    type_codes: Array
    materials: Array
    conn_index: Array
    tet4: Array = field(default_factory=lambda: _rows(4))
    hex8: Array = field(default_factory=lambda: _rows(8))
    tet10: Array = field(default_factory=lambda: _rows(10))

    @classmethod
    def from_tables(
        cls,
        tet4: npt.ArrayLike | None = None,
        hex8: npt.ArrayLike | None = None,
        tet10: npt.ArrayLike | None = None,
        materials: npt.ArrayLike = 1,
    ) -> Elements:
        """Elements of whole tables: first all of `tet4`, then `hex8`, then `tet10`.

        `materials` is one material number for all or one per element.
        """
        tables = [
            _rows(width) if table is None else np.asarray(table, np.int32).reshape(-1, width)
            for table, width in ((tet4, 4), (hex8, 8), (tet10, 10))
        ]
        counts = [len(table) for table in tables]
        numbers = [np.arange(1, count + 1, dtype=np.int32) for count in counts]
        return cls(
            np.repeat(np.array((TET4, HEX8, TET10), np.int16), counts),
            np.broadcast_to(np.asarray(materials, np.int16), sum(counts)).copy(),
            np.concatenate(numbers),
            *tables,
        )

    def __len__(self) -> int:
        return len(self.type_codes)

    def table(self, code: int) -> Array:
        """Connectivity table of a type code."""
        return {TET4: self.tet4, HEX8: self.hex8, TET10: self.tet10}[code]

    def of_type(self, code: int) -> tuple[Array, Array]:
        """(element numbers, connectivity rows) of the elements of a type, in element order.

        IndexError where `conn_index` points outside its table.
        """
        numbers = np.flatnonzero(self.type_codes == code) + 1
        rows = self.conn_index[numbers - 1] - 1
        if np.any(rows < 0):
            raise IndexError(f"connectivity row below 1 in an element of type {code}")
        return numbers, self.table(code)[rows]

    def used_tables(self) -> list[Array]:
        """Connectivity rows of each type that occurs, as `build_structure` takes them."""
        return [self.of_type(code)[1] for code in (TET4, HEX8, TET10)]
