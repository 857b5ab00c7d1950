"""The command that writes results for other programs."""

from __future__ import annotations

import json
from pathlib import Path

from results_on_disk import make_model, write_results
from typer.testing import CliRunner

from vkctl.cli import app


def test_the_files_written_come_as_json(tmp_path: Path) -> None:
    write_results(make_model(), tmp_path / "dir", (1, 2))
    words = ["export", str(tmp_path / "dir"), str(tmp_path / "out.pvd"), "--json"]
    files = json.loads(CliRunner().invoke(app, words).stdout)["files"]
    written = [path for path in tmp_path.rglob("*.vtu")] + [tmp_path / "out.pvd"]
    assert len(written) == 3 and set(files) == set(map(str, written))
