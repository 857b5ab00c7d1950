"""What runs inside of a worker: one call of a function of ours."""

from __future__ import annotations

import os
from pathlib import Path
from typing import Any

import vkctl
from vkctl.basics.extras import need

from .work import Call, ElsewhereError, Here, LackingError, Reply

SLOT, MEMORY = "vkctl", "vkctl-gb"  # resources of a worker: one unit at a time, its memory
# Set to 1 by the engine in the workers that it watches over; declared cores are what counts.
_THREADS = ("OMP_NUM_THREADS", "MKL_NUM_THREADS", "OPENBLAS_NUM_THREADS")
_GB = 2.0**30


def work(call: Call) -> Reply:
    """Do one unit. What the function raises besides is the engine's to bring back."""
    worker = need("distributed").get_worker()
    name = name_of(str(worker.name), worker.address)

    def reply(kind: Any, value: Any) -> Reply:
        return Reply(kind, name, worker.address, value)

    if vkctl.__version__ != call.version:
        return reply("elsewhere", ElsewhereError(f"its vkctl is {vkctl.__version__}"))
    for variable in _THREADS:
        os.environ.pop(variable, None)
    here = _here(worker, name, call)
    here.tell()
    try:
        return reply("done", call.function(call.task, here))
    except ElsewhereError as reason:
        return reply("elsewhere", reason)
    except LackingError as lacking:
        return reply("lacking", lacking.names)


def _here(worker: Any, name: str, call: Call) -> Here:
    key = need("distributed.worker").thread_state.key

    def tell(**values: Any) -> None:
        worker.log_event(call.topic, {"unit": call.unit, "by": name, **values})

    def is_wanted() -> bool:
        task = worker.state.tasks.get(key)
        return task is not None and task.state in ("executing", "long-running")

    resources = worker.state.total_resources
    return Here(
        worker=name,
        cores=int(worker.state.nthreads),
        memory_gb=float(resources.get(MEMORY, memory_gb_of(worker))),
        scratch=Path(worker.local_directory),
        tell=tell,
        is_wanted=is_wanted,
    )


def name_of(name: str, address: str) -> str:
    """What a worker is called to the user: by its name, by its address where it has none."""
    if name == address or "://" in name:
        return address.partition("://")[2]
    return f"worker {name}" if name.isdecimal() else name


def memory_gb_of(worker: Any) -> float:
    """Memory that a worker was declared to have; its share of the machine's where it wasn't."""
    limit = worker.memory_manager.memory_limit
    if limit is None:
        everything = need("distributed.system").MEMORY_LIMIT
        limit = everything * min(1.0, worker.state.nthreads / (os.cpu_count() or 1))
    return float(limit) / _GB


async def declare(_: Any, worker: Any) -> None:
    """Declare what units ask for; what the worker was started with stays."""
    wanted = {SLOT: 1.0, MEMORY: memory_gb_of(worker)}
    there = worker.state.total_resources
    missing = {name: value for name, value in wanted.items() if name not in there}
    if missing:
        await worker.set_resources(**missing)
        # The scheduler looks for units that wait for such a worker only when one begins to run.
        worker.status = type(worker.status).paused
        worker.status = type(worker.status).running
