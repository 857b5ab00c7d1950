"""A cluster as a case file may describe it.

What is said of a cluster ends in scripts that a batch system runs, and case files come from others:
so they may say only what is plain, and the rest stands in the user's own configuration.
"""

from __future__ import annotations

import re
from dataclasses import dataclass, field

CLASSES = (
    "HTCondorCluster",
    "LSFCluster",
    "LocalCluster",  # jobs that are processes of this machine, to try things with
    "MoabCluster",
    "OARCluster",
    "PBSCluster",
    "SGECluster",
    "SLURMCluster",
)
MOST_JOBS = 10_000
COUNTS = ("cores", "processes")  # settings that are whole numbers
NEEDED = ("cores", "memory")
_WORD = (re.compile(r"[A-Za-z0-9][A-Za-z0-9_.-]{0,63}"), "a word of letters, digits and _ . -")
PLAIN = {
    "memory": (re.compile(r"\d{1,6}(\.\d{1,3})? ?[KMGT]i?B"), "a size such as '64GB'"),
    "walltime": (re.compile(r"\d{1,4}:\d\d(:\d\d)?"), "a time such as '04:00:00'"),
    "queue": _WORD,
    "account": _WORD,
    "project": _WORD,
    "interface": _WORD,
}


@dataclass(frozen=True)
class Cluster:
    """A class of Dask-Jobqueue, how many jobs at most, and settings of the class."""

    kind: str
    jobs: int
    settings: dict[str, int | str] = field(default_factory=dict)


def what_it_must_be(key: str, value: str) -> str:
    """Words on a setting that isn't plain, none where it is."""
    pattern, words = PLAIN[key]
    return "" if pattern.fullmatch(value) else f"must be {words}"


def is_plain(cluster: Cluster) -> bool:
    """Whether it says only what a case file may say."""
    settings = cluster.settings
    counts = [settings[key] for key in COUNTS if key in settings]
    return (
        cluster.kind in CLASSES
        and 1 <= cluster.jobs <= MOST_JOBS
        and set(NEEDED) <= set(settings) <= {*COUNTS, *PLAIN}
        and all(type(count) is int and count >= 1 for count in counts)
        and not any(what_it_must_be(k, str(v)) for k, v in settings.items() if k in PLAIN)
    )
