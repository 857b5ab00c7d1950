"""Words for rigid motions."""

import numpy as np

from vkctl.check.motions import describe_motions


def test_motions_off_the_axes_are_told_by_their_vectors():
    slide = np.zeros((6, 1))
    slide[:2, 0] = np.sqrt(0.5)
    assert describe_motions(slide) == "it can slide along (0.707, 0.707, 0)"
