"""VTK grids, exported files and pictures."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from results_on_disk import make_model, with_hole, write_results

from vkctl.directory import formats
from vkctl.directory.results import Results
from vkctl.view import fields, plot


def colours(picture: Path) -> int:
    """Number of different colours of a picture."""
    from matplotlib import image

    pixels = np.asarray(image.imread(picture))[:, :, :3]
    return len(np.unique((pixels * 255).astype(np.uint8).reshape(-1, 3), axis=0))


@pytest.mark.parametrize("field", fields.FIELDS)
def test_a_picture_shows_the_part_in_varying_colours(tmp_path: Path, field: fields.Field) -> None:
    model = with_hole(make_model())
    model.materials[0].yield_stress = 30.0
    write_results(model, tmp_path / "dir")
    formats.write_displacements(tmp_path / "dir", 1, 0.003 * model.nodes * model.nodes[:, :1])
    view = plot.View(field=field, size=(500, 400))
    plot.plot(tmp_path / "dir", tmp_path / "out.png", view=view)
    assert colours(tmp_path / "out.png") > 500


def test_the_deformation_is_exaggerated_to_be_seen(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir")
    pictures = []
    for scale in (0.0, 20.0):
        target = tmp_path / f"{scale}.png"
        plot.plot(tmp_path / "dir", target, view=plot.View(scale=scale, size=(400, 300)))
        pictures.append(target.read_bytes())
    assert pictures[0] != pictures[1]


def test_a_load_case_without_results_is_refused(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir")
    with pytest.raises(ValueError, match="load case 4"):
        plot.plot(tmp_path / "dir", tmp_path / "out.png", case=4)


def test_a_poor_solve_without_displacements_is_drawn_undeformed(tmp_path: Path) -> None:
    model = make_model()
    found = fields.point_fields(
        model,
        Results(
            1,
            1,
            0.6,
            0.0,
            0.0,
            0.0,
            0.0,
            (0.0, 0.0, 0.0),
            np.zeros(0),
            model.nodes[:, 0],
            model.nodes[:, 1],
            None,
            None,
        ),
    )
    target = tmp_path / "out.png"
    plot.draw(model, found, target, plot.View(field="element_mean", size=(400, 300)), "poor")
    assert colours(target) > 100
