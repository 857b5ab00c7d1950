"""Clusters by name, from the user's own configuration: a batch system and what to ask it for."""

from __future__ import annotations

import os
import tomllib
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from vkctl.basics.clusters import CLASSES, MOST_JOBS, NEEDED
from vkctl.basics.words import did_you_mean

_KEYS = ("class", "jobs", "settings")


class BatchError(Exception):
    """The configuration of clusters can't be used; the text says where and why."""


@dataclass(frozen=True)
class Batch:
    """A batch system: its class in Dask-Jobqueue, how many jobs at most, settings of the class."""

    name: str
    kind: str
    jobs: int
    settings: dict[str, Any]


def clusters_file() -> Path:
    """The user's configuration of clusters, there or not."""
    if given := os.environ.get("VKCTL_CLUSTERS"):
        return Path(given).expanduser()
    base = os.environ.get("XDG_CONFIG_HOME") or Path.home() / ".config"
    return Path(base, "vkctl", "clusters.toml")


def read_batches() -> tuple[Path, dict[str, Batch]]:
    """The configuration's path and its clusters by name, none where it isn't there."""
    path = clusters_file()
    try:
        said = tomllib.loads(path.read_text(encoding="utf-8-sig"))
    except FileNotFoundError:
        return path, {}
    except (OSError, ValueError) as error:
        raise BatchError(f"{path} can't be read: {error}") from None
    return path, {name: _batch(path, name, entry) for name, entry in said.items()}


def _batch(path: Path, name: str, entry: Any) -> Batch:
    def refused(what: str) -> BatchError:
        return BatchError(f"{path}: [{name}] {what}")

    if not isinstance(entry, dict):
        raise refused("must be a table with class, jobs and settings.")
    for key in entry:
        if key not in _KEYS:
            raise refused(f"has a key {key!r} that isn't known: {did_you_mean(key, _KEYS)}")
    kind, jobs, settings = entry.get("class"), entry.get("jobs"), entry.get("settings", {})
    if kind not in CLASSES:
        raise refused(f"class must be a batch system: {did_you_mean(str(kind), CLASSES)}")
    if type(jobs) is not int or not 1 <= jobs <= MOST_JOBS:
        raise refused(f"jobs must say how many there may be at once, 1 to {MOST_JOBS}.")
    if not isinstance(settings, dict) or not set(NEEDED) <= set(settings):
        raise refused("settings must tell at least the cores and the memory of a job.")
    return Batch(name, str(kind), jobs, settings)
