"""Memory that is left: on the machine, in the process's group, under its own limit."""

from __future__ import annotations

import resource
from pathlib import Path

_GB = 2.0**30


def available_gb() -> float | None:
    """Memory that a new process can have, the least of what limits it; None where unknown."""
    known = [size for size in (_of_machine(), _of_group(), _of_process()) if size is not None]
    return min(known) if known else None


def _of_machine() -> float | None:
    try:
        lines = Path("/proc/meminfo").read_text().splitlines()
    except OSError:
        return None
    sizes = dict(line.split(":", 1) for line in lines)
    return int(sizes["MemAvailable"].split()[0]) / 1024**2 if "MemAvailable" in sizes else None


def _of_group() -> float | None:
    """What the control group of a container or a batch system leaves, version 2."""
    try:
        entry = Path("/proc/self/cgroup").read_text().rpartition("::")[2].strip()
        folder = Path("/sys/fs/cgroup", entry.lstrip("/"))
        most = (folder / "memory.max").read_text().strip()
        used = int((folder / "memory.current").read_text())
        cache = dict(line.split() for line in (folder / "memory.stat").read_text().splitlines())
        return None if most == "max" else (int(most) - used + int(cache["inactive_file"])) / _GB
    except (OSError, ValueError, KeyError):
        return None


def _of_process() -> float | None:
    limits = [resource.getrlimit(kind)[0] for kind in (resource.RLIMIT_AS, resource.RLIMIT_DATA)]
    known = [limit / _GB for limit in limits if limit != resource.RLIM_INFINITY]
    return min(known) if known else None
