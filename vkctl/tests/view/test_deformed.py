"""The cantilever and the command line around it."""

import matplotlib.image
import numpy as np
import pytest
from results_on_disk import solved_box

from vkctl.view.deformed import picture


def test_the_picture_shows_a_coloured_part(tmp_path):
    solved_box(tmp_path)
    picture(tmp_path, tmp_path / "part.png")
    pixels = matplotlib.image.imread(tmp_path / "part.png")[..., :3]
    coloured = np.ptp(pixels, axis=2) > 0.1
    assert coloured.mean() > 0.05
    colours = np.unique((pixels[coloured] * 16).astype(int), axis=0)
    assert len(colours) > 20


def test_a_picture_needs_a_solved_load_case(tmp_path):
    solved_box(tmp_path)
    (tmp_path / "ws.comval.0001").unlink()
    with pytest.raises(FileNotFoundError, match="no solved load case"):
        picture(tmp_path, tmp_path / "part.png")
