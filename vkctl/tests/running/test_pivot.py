"""From an equation that the solver names to its node."""

import numpy as np
import pytest

from vkctl.directory import formats
from vkctl.directory.log import LoadCaseLog, RunLog
from vkctl.running.pivot import component_of_equation, explain_pivot

PRINTED = "1010: Zero pivot. (the pivot of equation 10 is not positive)"


def test_an_equation_number_is_traced_to_its_node_and_direction(directory):
    # The nodes of the side x- have numbers 1, 5, 9, 13 and no equations.
    assert component_of_equation(directory, 1, 1) == (2, "x")
    assert component_of_equation(directory, 1, 10) == (6, "x")
    assert component_of_equation(directory, 1, 36) == (16, "z")
    assert component_of_equation(directory, 1, 37) is None


@pytest.mark.parametrize(
    ("labels", "name"),
    [
        (None, "6"),
        (np.arange(16) + 71, "6 (76 in the mesh)"),
        (np.arange(1, 17), "6"),  # the numbers themselves
        (np.arange(15) + 71, "6"),  # of another mesh
    ],
)
def test_the_node_is_told_with_what_the_mesh_calls_it(directory, labels, name):
    if labels is not None:
        formats.write_labels(directory, formats.Labels(labels, np.arange(18)))
    x, y, z = formats.read_nodes(directory)[5]
    assert explain_pivot(directory, RunLog([LoadCaseLog(1)]), PRINTED) == (
        f"The trouble shows at node {name} in x, at ({x:g}, {y:g}, {z:g})."
    )


def test_no_node_is_told_where_no_equation_is(directory):
    assert explain_pivot(directory, RunLog([LoadCaseLog(1)]), "1010: Zero pivot.") == ""
    assert explain_pivot(directory, RunLog(), PRINTED) == ""
