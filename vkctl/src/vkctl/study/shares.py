"""How the machine is shared out: variants at a time, and threads of each."""

from __future__ import annotations

import os
from dataclasses import dataclass

from vkctl.basics.memory import available_gb
from vkctl.directory.formats import MOST_THREADS

_PROCESS_GB = 0.15  # of the Python process that prepares and measures, measured on a small part
_SHARE = 0.9  # of the memory that is left


@dataclass(frozen=True)
class Shares:
    jobs: int
    threads: int  # of each
    limited: bool = False  # by memory, to fewer than there are processors


def shares(jobs: int | None, threads: int | None, variants: int, memory_gb: float | None) -> Shares:
    """Variants at a time, as processors and memory allow; the processors' rest as threads."""
    processors = processors_here()
    most = max(1, min(processors // (threads or 1), variants))
    fitting = most
    if memory_gb is not None and (free := available_gb()) is not None:
        fitting = max(1, min(most, int(_SHARE * free / (memory_gb + _PROCESS_GB))))
    taken = jobs or fitting
    each = threads or max(1, min(processors // taken, MOST_THREADS))
    return Shares(taken, each, jobs is None and fitting < most)


def processors_here() -> int:
    try:
        return len(os.sched_getaffinity(0))
    except AttributeError:
        return os.cpu_count() or 1
