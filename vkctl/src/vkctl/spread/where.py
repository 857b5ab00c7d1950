"""Where work is to run, as the user says it: workers here, a scheduler, a batch system."""

from __future__ import annotations

import re
from collections.abc import Mapping
from dataclasses import dataclass
from types import MappingProxyType
from typing import Literal

from vkctl.basics.clusters import Cluster
from vkctl.basics.words import did_you_mean

from .batch import Batch, BatchError, read_batches

MOST_LOCAL = 256  # worker processes on one machine


class WhereError(Exception):
    """Work can't run where the user wants it to; the text says why."""


@dataclass(frozen=True)
class Where:
    """What `--on` says."""

    text: str
    kind: Literal["local", "scheduler", "batch"]
    workers: int = 0  # of "local"
    batch: Batch | None = None


_NONE: Mapping[str, Cluster] = MappingProxyType({})
_LOCAL = re.compile(r"local:(\d{1,9})")
_ADDRESS = re.compile(r"(?:tcp|tls)://(?:\[[0-9A-Fa-f:.]+\]|[^\s:/\[\]]+):(\d{1,5})")
_FORMS = "local:N, tcp://HOST:PORT, tls://HOST:PORT, or the name of a cluster"


def parse_where(text: str, described: Mapping[str, Cluster] = _NONE) -> Where:
    """What `--on` says; WhereError where it says nothing that there is.

    `described` are clusters of a case file; the user's own go before them.
    """
    if match := _LOCAL.fullmatch(text):
        workers = int(match[1])
        if not 1 <= workers <= MOST_LOCAL:
            raise WhereError(f"{text}: there can be 1 to {MOST_LOCAL} workers on this machine.")
        return Where(text, "local", workers)
    if match := _ADDRESS.fullmatch(text):
        if not 1 <= int(match[1]) <= 65535:
            raise WhereError(f"{text}: ports go from 1 to 65535.")
        return Where(text, "scheduler")
    if ":" in text or "/" in text:
        raise WhereError(f"{text!r} is no place to run on: say {_FORMS}.")
    return _named(text, described)


def _named(name: str, described: Mapping[str, Cluster]) -> Where:
    try:
        path, batches = read_batches()
    except BatchError as error:
        raise WhereError(str(error)) from None
    if name not in batches and (cluster := described.get(name)):
        return Where(
            name, "batch", batch=Batch(name, cluster.kind, cluster.jobs, dict(cluster.settings))
        )
    if name not in batches:
        there = {**batches, **described}
        known = f"{path} has {did_you_mean(name, batches)}" if batches else f"{path} has none"
        if described:
            known = did_you_mean(name, there)
        raise WhereError(f"There is no cluster {name!r} to run on ({known}): say {_FORMS}.")
    return Where(name, "batch", batch=batches[name])
