"""The raw sparse structure against a plain loop over elements."""

import numpy as np
import pytest

from vkctl.directory import structure
from vkctl.directory.structure import build_structure
from vkctl.shapes.boxes import box


def by_loops(num_nodes, tables):
    """Columns by rows, from sets."""
    neighbours = [{n} for n in range(1, num_nodes + 1)]
    for table in tables:
        for row in table:
            for node in row:
                neighbours[node - 1].update(row)
    rows = []
    for node in range(1, num_nodes + 1):
        reached = sorted(3 * (m - 1) + k for m in neighbours[node - 1] for k in (1, 2, 3))
        rows += [[c for c in reached if c >= 3 * (node - 1) + k] for k in (1, 2, 3)]
    return rows


def assert_same(result, rows):
    assert result.num_rows == len(rows)
    assert result.columns.dtype == np.int32
    assert result.row_start.dtype == np.int64
    assert result.row_start[0] == 1
    cut = [c.tolist() for c in np.split(result.columns, result.row_start[1:-1] - 1)]
    assert cut == rows
    assert result.max_bandwidth == max(row[-1] - row[0] + 1 for row in rows)


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10", "mixed"])
@pytest.mark.parametrize("block", [1, 7, 1 << 16])
def test_structure_of_a_box_equals_the_loop(monkeypatch, kind, block):
    monkeypatch.setattr(structure, "_NODES_PER_BLOCK", block)
    part = box(kind, (3, 2, 2))
    tables = part.elements.used_tables()
    assert_same(build_structure(len(part.nodes), tables), by_loops(len(part.nodes), tables))


def test_nodes_in_random_order_and_without_element():
    rng = np.random.default_rng(5)
    table = np.array([rng.choice(40, 4, replace=False) + 1 for _ in range(25)])
    assert_same(build_structure(45, [table]), by_loops(45, [table.tolist()]))


def test_an_element_that_names_a_node_twice():
    table = [[1, 2, 2, 3]]
    assert_same(build_structure(3, [table]), by_loops(3, [table]))


def test_a_node_shared_by_256_elements_keeps_its_neighbours():
    fan = np.array([[1, 2, 3 + i, 4 + i] for i in range(256)])
    assert_same(build_structure(259, [fan]), by_loops(259, [fan.tolist()]))


def test_a_mesh_without_elements_or_nodes():
    assert_same(build_structure(2, []), [[1, 2, 3], [2, 3], [3], [4, 5, 6], [5, 6], [6]])
    assert build_structure(0, []).num_rows == 0


@pytest.mark.parametrize("node", [0, 5, -1])
def test_a_node_outside_the_mesh_is_refused(node):
    with pytest.raises(ValueError, match="outside 1..4"):
        build_structure(4, [[[1, 2, 3, node]]])
