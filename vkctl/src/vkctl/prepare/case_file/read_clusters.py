"""Clusters that a case file describes: tables [clusters.NAME]."""

from __future__ import annotations

from vkctl.basics.clusters import CLASSES, COUNTS, MOST_JOBS, NEEDED, PLAIN, Cluster
from vkctl.basics.clusters import what_it_must_be as said_wrongly
from vkctl.basics.types import PathLike

from .toml_table import REQUIRED, Table, load


def clusters_of(path: PathLike) -> dict[str, Cluster]:
    """Those of a case file; CaseFileError tells all mistakes in their tables."""
    top, report = load(path)
    found = read_clusters(top)
    report.finish()
    return found


def read_clusters(top: Table) -> dict[str, Cluster]:
    return {name: _cluster(table) for name, table in top.tables("clusters").items()}


def _cluster(table: Table) -> Cluster:
    kind = table.choice("class", CLASSES)
    jobs = table.integer("jobs", least=1)
    if jobs > MOST_JOBS:
        table.problem("jobs", f"must be at most {MOST_JOBS}, not {jobs}")
    settings: dict[str, int | str] = {}
    for key in COUNTS:
        if table.has(key) or key in NEEDED:
            settings[key] = table.integer(key, least=1)
    for key in PLAIN:
        if not table.has(key) and key not in NEEDED:
            continue
        text = table.text(key, REQUIRED)
        if text and (words := said_wrongly(key, text)):
            table.problem(key, f"{words}, not {text!r}")
        settings[key] = text
    table.done()
    return Cluster(kind, jobs, settings)
