"""A browser for all tests of pages, and a report that most of them look at."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import pytest
from results_on_disk import make_model, write_results

from vkctl.directory.model import Model, read, write_load_cases
from vkctl.report import Wanted, write_report

from .browsing import Browser

EVIL = "</script><img src=x onerror=document.title='got&in'>"


@pytest.fixture(scope="session")
def browser() -> Iterator[Browser]:
    found = Browser()
    yield found
    found.close()


def solved_model(directory: Path, names: tuple[str, ...] = ("pull", EVIL)) -> Model:
    """A box of 8 x 4 x 4 in a directory with results that grow along x; its load cases' names."""
    write_results(make_model(), directory, tuple(range(1, len(names) + 1)))
    model = read(directory)
    foot, end = (abs(model.nodes[:, 0] - x) < 1e-6 for x in (0.0, 8.0))
    for name, case in zip(names, model.load_cases, strict=True):
        case.reserved = name.encode()
        case.prescribe(foot.nonzero()[0] + 1).load(end.nonzero()[0] + 1, (1.0, 0.0, 0.0))
    write_load_cases(model.load_cases, directory, model.run_order)
    return read(directory)


@pytest.fixture(scope="session")
def report(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The report of a solved box with two load cases, the second named like a script."""
    folder = tmp_path_factory.mktemp("report")
    solved_model(folder / "box")
    write_report(folder / "box", folder / "box.html", Wanted(fields=("magnitude", "von_mises")))
    return folder / "box.html"
