"""The command `vkctl check`."""

import json
import shutil
from pathlib import Path

from check.faults import sound, with_options
from fake_solver import small_box
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats, model

runner = CliRunner()


def test_the_exit_status_tells_the_worst_finding(tmp_path):
    model.write(sound()[0], tmp_path / "good")
    assert runner.invoke(app, ["check", str(tmp_path / "good")]).exit_code == 0
    with_options(tmp_path / "odd", "Nonsense=1\n")
    odd = runner.invoke(app, ["check", str(tmp_path / "odd")])
    assert odd.exit_code == 1 and "0 errors, 1 warning, 0 notes." in odd.output
    shutil.copytree(tmp_path / "odd", tmp_path / "bad")
    Path(tmp_path, "bad", "mx.mats").unlink()
    bad = runner.invoke(app, ["check", str(tmp_path / "bad")])
    assert bad.exit_code == 2 and bad.output.startswith("error  mx.mats is missing.")


def test_json_holds_findings_counts_and_estimate(tmp_path):
    small_box(tmp_path)
    Path(tmp_path, formats.OPTIONS_FILE).write_text("Nonsense=1\n")
    result = runner.invoke(app, ["check", str(tmp_path), "--json"])
    report = json.loads(result.output)
    assert result.exit_code == report["status"] == 1
    assert report["findings"][0]["code"] == "option-unknown"
    assert set(report["findings"][0]) == {"code", "severity", "message", "where", "hint"}
    assert report["counts"]["nodes"] == 16
    assert report["estimate"]["equations"] == 36
