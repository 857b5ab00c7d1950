"""Running the solver: results, live progress, and every way a run can end badly."""

from vkctl.running.pivot import component_of_equation


def test_an_equation_number_is_traced_to_its_node_and_direction(directory):
    # The nodes of the side x- have numbers 1, 5, 9, 13 and no equations.
    assert component_of_equation(directory, 1, 1) == (2, "x")
    assert component_of_equation(directory, 1, 10) == (6, "x")
    assert component_of_equation(directory, 1, 36) == (16, "z")
    assert component_of_equation(directory, 1, 37) is None
