"""The picture of a study."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from PIL import Image

from vkctl.study import Outcome, Plan
from vkctl.study.entries import Scalar
from vkctl.study.pictures import draw
from vkctl.study.tables import rows_of


def picture(folder: Path, parameters: int, results: int, kind: str = "number") -> np.ndarray:
    """Pixels of the picture of a study of so many parameters and results."""
    random = np.random.default_rng(0)

    def value() -> Scalar:
        return random.random() if kind == "number" else str(random.choice(["a", "b", "c"]))

    variants = [{f"p{k}": value() for k in range(parameters)} for _ in range(20)]
    columns = [f"r{k}" for k in range(results)]
    plan = Plan({}, variants, columns)
    outcomes = {
        n: Outcome(n, "done", {c: float(random.random()) for c in columns}) for n in range(1, 20)
    }
    outcomes[20] = Outcome(20, "failed", dict.fromkeys(columns))
    assert draw(folder, plan, rows_of(plan, outcomes)) == folder / "results.png"
    with Image.open(folder / "results.png") as image:
        return np.asarray(image.convert("RGB"))


@pytest.mark.parametrize(("parameters", "results"), [(1, 1), (2, 3), (4, 4), (3, 5), (9, 9)])
@pytest.mark.parametrize("kind", ["number", "text"])
def test_results_are_drawn_over_parameters(
    tmp_path: Path, parameters: int, results: int, kind: str
) -> None:
    pixels = picture(tmp_path, parameters, results, kind)
    coloured = np.ptp(pixels.astype(int), axis=2) > 60
    assert coloured.sum() > 20 * results


def test_a_study_without_numbers_has_no_picture(tmp_path: Path) -> None:
    plan = Plan({}, [{"p": 1.0}, {"p": 2.0}], ["r"])
    rows = rows_of(plan, {1: Outcome(1, "failed"), 2: Outcome(2, "failed")})
    assert draw(tmp_path, plan, rows) is None
    assert list(tmp_path.iterdir()) == []
