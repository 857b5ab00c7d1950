"""Clusters in a case file: plain words alone, remembered by the directory."""

from __future__ import annotations

from pathlib import Path

import pytest

from vkctl.basics.clusters import Cluster, is_plain
from vkctl.directory import formats
from vkctl.prepare.case_file.mistakes import CaseFileError
from vkctl.prepare.case_file.read_clusters import clusters_of

GOOD = """[clusters.night]
class = "SLURMCluster"
jobs = 20
cores = 16
memory = "64GB"
queue = "normal"
walltime = "04:00:00"
"""
NIGHT = Cluster(
    "SLURMCluster",
    20,
    {"cores": 16, "memory": "64GB", "walltime": "04:00:00", "queue": "normal"},
)


def test_a_cluster_is_read_with_its_settings(tmp_path: Path) -> None:
    path = tmp_path / "cases.toml"
    path.write_text(GOOD)
    assert clusters_of(path) == {"night": NIGHT} and is_plain(NIGHT)


@pytest.mark.parametrize(
    ("old", "new", "words"),
    [
        ("SLURM", "Slurmy", r"class in \[clusters.night\] can't be .*did you mean 'SLURMCluster'"),
        ('class = "SLURMCluster"\n', "", "has no 'class'"),
        ("jobs = 20", "jobs = 0", "must be at least 1"),
        ("jobs = 20", "jobs = 20000", "must be at most 10000"),
        ("cores = 16\n", "", "has no 'cores'"),
        ('memory = "64GB"\n', "", "has no 'memory'"),
        ("64GB", "much", "memory .* must be a size such as '64GB', not 'much'"),
        ("04:00:00", "04:00; rm -rf ~", "must be a time such as"),
        ('"normal"', '"$(touch x)"', "must be a word of letters"),
        ('"normal"', '"a\\nb"', "must be a word of letters"),
        ('"normal"', '"-x"', "must be a word of letters"),
        ("queue", "job_script_prologue", "job_script_prologue"),
        ("queue", "python", "python"),
    ],
)
def test_what_is_not_plain_is_refused_with_its_line(
    tmp_path: Path, old: str, new: str, words: str
) -> None:
    path = tmp_path / "cases.toml"
    path.write_text(GOOD.replace(old, new, 1))
    with pytest.raises(CaseFileError, match=words):
        clusters_of(path)


def test_a_directory_remembers_them_and_takes_nothing_else(tmp_path: Path) -> None:
    formats.write_case_notes(tmp_path, formats.CaseNotes(clusters={"night": NIGHT}))
    notes = formats.read_case_notes(tmp_path)
    assert notes is not None and notes.clusters == {"night": NIGHT}
    path = tmp_path / "vkctl.case"
    good = path.read_text()
    for old, new in (('"normal"', '"a b"'), ('"queue"', '"python"'), ('"jobs": 20', '"jobs": 0')):
        assert old in good
        path.write_text(good.replace(old, new))
        with pytest.raises(formats.FormatError, match="isn't what vkctl writes"):
            formats.read_case_notes(tmp_path)


def test_notes_of_directories_that_know_no_clusters_are_read(tmp_path: Path) -> None:
    formats.write_case_notes(tmp_path, formats.CaseNotes("mm-N-MPa"))
    path = tmp_path / "vkctl.case"
    path.write_text(path.read_text().replace(',\n "clusters": {}', ""))
    assert "clusters" not in path.read_text()
    assert formats.read_case_notes(tmp_path) == formats.CaseNotes("mm-N-MPa")
