"""Clusters of a batch system: how they are configured, and a run on one that only looks like it."""

from __future__ import annotations

import os
from pathlib import Path

import pytest
from typer.testing import CliRunner

from vkctl.basics.clusters import Cluster
from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.results import solved
from vkctl.running.run import find_vk_rund
from vkctl.spread.where import WhereError, parse_where

pytestmark = pytest.mark.thorough

runner = CliRunner()


@pytest.fixture
def clusters(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> Path:
    path = tmp_path / "clusters.toml"
    monkeypatch.setenv("VKCTL_CLUSTERS", str(path))
    return path


GOOD = '[night]\nclass = "SLURMCluster"\njobs = 3\n[night.settings]\ncores = 2\nmemory = "2GB"\n'


def test_a_cluster_is_found_by_its_name(clusters):
    clusters.write_text(GOOD)
    where = parse_where("night")
    assert where.kind == "batch" and where.batch is not None
    assert (where.batch.kind, where.batch.jobs) == ("SLURMCluster", 3)
    assert where.batch.settings == {"cores": 2, "memory": "2GB"}


@pytest.mark.parametrize(
    ("text", "words"),
    [
        (GOOD, "no cluster 'nihgt' to run on .* did you mean 'night'"),
        ("", "has none"),
        ("[night\n", "can't be read"),
        ("night = 1\n", r"\[night\] must be a table"),
        (GOOD.replace("jobs = 3", "job = 3"), "a key 'job' that isn't known: did you mean 'jobs'"),
        (GOOD.replace("jobs = 3", "jobs = 0"), "jobs must say how many"),
        (GOOD.replace("jobs = 3", "jobs = true"), "jobs must say how many"),
        (GOOD.replace("SLURM", "slurm-"), "class must be a batch system: did you mean"),
        (GOOD.replace("SLURMCluster", "Client"), "class must be a batch system"),
        (GOOD.replace("cores = 2\n", ""), "at least the cores and the memory"),
    ],
)
def test_a_wrong_configuration_is_told_with_its_place(clusters, text, words):
    clusters.write_text(text)
    with pytest.raises(WhereError, match=words):
        parse_where("nihgt")


def test_a_cluster_of_the_case_file_is_found_unless_the_user_has_one_of_that_name(clusters):
    described = {"day": Cluster("PBSCluster", 2, {"cores": 1, "memory": "1GB"})}
    day = parse_where("day", described)
    assert day.batch is not None and (day.batch.kind, day.batch.jobs) == ("PBSCluster", 2)
    with pytest.raises(WhereError, match="no cluster 'dya' to run on .*did you mean 'day'"):
        parse_where("dya", described)
    clusters.write_text(GOOD.replace("night", "day"))
    day = parse_where("day", described)
    assert day.batch is not None and (day.batch.kind, day.batch.jobs) == ("SLURMCluster", 3)


def test_settings_that_the_batch_system_does_not_know_are_refused(clusters, directory):
    clusters.write_text(GOOD + "no_such_setting = 1\n")
    told = runner.invoke(app, ["run", str(directory), "--on", "night"])
    assert told.exit_code == 2 and "The cluster 'night' can't be had" in told.stderr
    assert told.stderr.count("\n") == 1


_SUBMIT = """#!/bin/sh
cp "$1" "$0.script"
setsid sh "$0.script" > "$0.out" 2>&1 &
echo "$!" >> "$0.jobs"
echo "Submitted batch job $!"
"""
_CANCEL = '#!/bin/sh\nfor job; do kill -- "-$job" 2>/dev/null; done\nexit 0\n'


@pytest.mark.parametrize("described", [False, True], ids=["by the user", "in the case file"])
def test_jobs_are_asked_for_and_taken_back(described, clusters, directory, tmp_path, monkeypatch):
    """The commands of a batch system, whose jobs are processes of this machine."""
    system = tmp_path / "system"
    system.mkdir()
    for name, text in (("sbatch", _SUBMIT), ("scancel", _CANCEL)):
        (system / name).write_text(text)
        (system / name).chmod(0o755)
    monkeypatch.setenv("PATH", f"{system}{os.pathsep}{os.environ['PATH']}")
    monkeypatch.setenv("VK_RUND", str(find_vk_rund()))
    monkeypatch.setenv("XDG_STATE_HOME", str(tmp_path / "state"))
    if described:
        settings: dict[str, int | str] = {"cores": 2, "memory": "2GB", "processes": 1}
        settings["interface"] = "lo"
        night = {"night": Cluster("SLURMCluster", 1, settings)}
        formats.write_case_notes(directory, formats.CaseNotes(clusters=night))
    else:
        clusters.write_text(
            GOOD.replace("jobs = 3", "jobs = 1")
            + f'interface = "lo"\nlocal_directory = "{tmp_path}"\nprocesses = 1\n'
        )
    told = runner.invoke(app, ["run", str(directory), "--on", "night"])
    assert told.exit_code == 0, told.output
    assert solved(directory) == [1, 2]
    script = (system / "sbatch.script").read_text()
    assert "tls://127.0.0.1:" in script and "--nthreads 2 --memory-limit 1.86GiB" in script
    jobs = (system / "sbatch.jobs").read_text().split()
    assert len(jobs) == 1
    kept = list((tmp_path / "state" / "vkctl").iterdir())
    assert all(path.stat().st_mode & 0o077 == 0 for path in kept)
