"""Opening the place where work is to run: the engine's client, and what its workers are."""

from __future__ import annotations

import logging
import os
import ssl
import threading
import warnings
from collections import Counter
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager, suppress
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import vkctl
from vkctl.basics.extras import need
from vkctl.basics.memory import available_gb
from vkctl.basics.words import counted

from .on_worker import MEMORY, declare, name_of
from .where import Where, WhereError

CONNECT = 8.0  # seconds that a scheduler has to answer
_GRACE = 1.5  # beyond, for one that answers the connection and then says nothing
_START = 120.0  # seconds for the workers of this machine, which may be busy
_STARTS = 3  # of the engine's thread, on a machine that is too busy for it
_MUST_AGREE = ("vkctl", "dask", "distributed")


@dataclass(frozen=True)
class Place:
    """An open place; `over` runs units on it."""

    where: Where
    client: Any  # distributed.Client
    most_workers: int  # that there may be; 0 where nobody knows
    last_seen: list[WorkerSeen] = field(default_factory=list)
    files: Counter[str] = field(
        default_factory=Counter
    )  # sent, by digest: how many senders hold it

    def workers(self) -> list[WorkerSeen]:
        """The workers that are there now. OSError where the scheduler has gone."""
        told = self.client.scheduler_info(n_workers=-1).get("workers")
        if told is None:
            raise ConnectionError(f"The scheduler of {self.where.text} has gone.")
        self.last_seen[:] = [
            WorkerSeen(
                address,
                name_of(str(entry["name"]), address),
                entry["nthreads"],
                float(entry["resources"].get(MEMORY, 0.0)),
            )
            for address, entry in told.items()
        ]
        return list(self.last_seen)

    def seen(self) -> int:
        """How many there were when they were asked for last."""
        return len(self.last_seen)


@dataclass(frozen=True)
class WorkerSeen:
    """A worker as its scheduler tells it."""

    address: str
    name: str
    cores: int
    memory_gb: float  # declared; 0 while it hasn't told yet


@contextmanager
def opened(where: Where) -> Iterator[Place]:
    """The place, until the end of the block. WhereError where it can't be had.

    Workers of this machine and batch jobs are started here and end with the block; those of a
    scheduler that runs already stay.
    """
    need("distributed")
    _silence()
    with ExitStack() as stack:
        if where.kind == "scheduler":
            client, most = stack.enter_context(_closing(_connected(where.text))), 0
        else:
            cluster, most = _patient(_local if where.kind == "local" else _batch, where)
            stack.callback(cluster.close, timeout=10)
            client = stack.enter_context(_closing(_client(cluster)))
        refuse_other_versions(client, where.text)
        plugin = need("distributed").WorkerPlugin
        declaring = type("Declaring", (plugin,), {"name": "vkctl-resources", "setup": declare})
        client.register_plugin(declaring())
        yield Place(where, client, most)


def _silence() -> None:
    """What goes wrong is told by us, in a sentence; the engine's logs are for its own programs."""
    for name in ("distributed", "distributed.client", "distributed.worker", "tornado"):
        logging.getLogger(name).setLevel(logging.CRITICAL)
    warnings.filterwarnings("ignore", module="distributed")
    warnings.filterwarnings("ignore", module="dask_jobqueue")


@contextmanager
def _closing(client: Any) -> Iterator[Any]:
    try:
        yield client
    finally:
        _close(client)


def _client(of: Any, **more: Any) -> Any:
    """A client of an address or a cluster; one that can't be made is closed before that is told."""
    kind = need("distributed").Client
    client = kind.__new__(kind)
    try:
        client.__init__(of, **more)
    except BaseException:
        _close(client)
        raise
    return client


def _close(client: Any) -> None:
    """Leave nothing to the engine's finaliser.

    The collector may call that one in any thread, also while the engine starts another and holds
    the lock that the finaliser waits for: neither would go on.
    """
    with suppress(Exception):  # its connection may have broken, which is told elsewhere
        client.close(timeout=5)
    client.status = "closed"


def _connected(address: str) -> Any:
    """A client of a running scheduler.

    Connecting happens beside: the engine waits without end for whoever takes the connection and
    never speaks.
    """
    found: list[Any] = []

    def connect() -> None:
        try:
            found.append(_client(address, timeout=CONNECT))
        except Exception as error:  # whatever answers there may say anything
            found.append(error)

    beside = threading.Thread(target=connect, daemon=True)
    beside.start()
    beside.join(CONNECT + _GRACE)
    if found and not isinstance(found[0], Exception):
        return found[0]
    why = _why(address, found[0] if found else None)
    raise WhereError(f"No scheduler can be reached at {address}{why}")


def _why(address: str, error: BaseException | None) -> str:
    """The end of a sentence on a scheduler that can't be reached."""
    seen = error
    while seen is not None:
        if isinstance(seen, ssl.SSLError | ssl.CertificateError):
            return ": one side doesn't take the other's certificate. Is it of the same authority?"
        if "ssl_context" in str(seen):
            return ": Dask's configuration names no certificates, distributed.comm.tls in a .yaml."
        if "TLS" in str(seen):
            return ": " + _first_sentence(str(seen)) + "."
        seen = seen.__cause__ or seen.__context__
    within = f" within {CONNECT:.0f} seconds. Does it run, "
    if address.startswith("tls:"):
        return within + "with TLS, and are all certificates of the same authority?"
    return within + "and without TLS?"


def _first_sentence(text: str) -> str:
    return text.strip().splitlines()[0].partition(". ")[0][:200].rstrip(".")


def _patient(start: Callable[[Where], tuple[Any, int]], where: Where) -> tuple[Any, int]:
    """The engine waits 10 s for its own thread, and asserts that it is there then."""
    for _ in range(_STARTS):
        with suppress(AssertionError):
            return start(where)
    raise WhereError(f"The workers of {where.text} can't be started: this machine is too busy.")


def _local(where: Where) -> tuple[Any, int]:
    """Workers of this machine, which share its processors and its free memory.

    They listen on the loopback alone, and only to who has the certificate made for this moment:
    others have accounts here too.
    """
    distributed = need("distributed")
    need("cryptography")
    cores = max(1, len(os.sched_getaffinity(0)) // where.workers)
    memory = available_gb()
    # The engine would set OMP_NUM_THREADS=1 and the like, in this process too.
    with need("dask").config.set({"distributed.nanny.pre-spawn-environ": {}}):
        cluster = distributed.LocalCluster(
            n_workers=where.workers,
            threads_per_worker=cores,
            memory_limit="auto" if memory is None else int(memory / where.workers * 2**30),
            processes=True,
            host="tls://127.0.0.1",
            security=distributed.Security.temporary(),
            dashboard_address="127.0.0.1:0",
            worker_dashboard_address="127.0.0.1:0",
            silence_logs=logging.CRITICAL,
        )
    return cluster, where.workers


def _batch(where: Where) -> tuple[Any, int]:
    """Jobs of a batch system, as many as there is work for.

    Adaptive always: a job that ends by its time limit is asked for again.
    """
    batch = where.batch
    assert batch is not None
    settings = dict(batch.settings)
    page = {"dashboard_address": "127.0.0.1:0"}  # it has no password
    settings["scheduler_options"] = page | dict(settings.get("scheduler_options") or {})
    if "security" not in settings and "protocol" not in settings:
        settings["security"] = True
        settings.setdefault("shared_temp_directory", str(_private_folder()))
    try:
        cluster = getattr(need("dask_jobqueue"), batch.kind)(**settings)
    except (TypeError, ValueError, OSError, RuntimeError) as error:
        text = _first_sentence(str(error))
        raise WhereError(f"The cluster {batch.name!r} can't be had: {text}.") from None
    cluster.adapt(minimum_jobs=0, maximum_jobs=batch.jobs)
    return cluster, batch.jobs * int(settings.get("processes") or 1)


def _private_folder() -> Path:
    """A folder that jobs see and others don't, for the certificates of one run."""
    base = os.environ.get("XDG_STATE_HOME") or Path.home() / ".local" / "state"
    folder = Path(base, "vkctl")
    folder.mkdir(mode=0o700, parents=True, exist_ok=True)
    return folder


def refuse_other_versions(client: Any, where: str) -> None:
    """WhereError where scheduler or workers have other versions of what must agree."""
    told = client.get_versions(packages=["vkctl"])
    here = told["client"]["packages"] | {"vkctl": vkctl.__version__}
    others = {"The scheduler": told["scheduler"], **told["workers"]}
    differing: dict[str, list[str]] = {}
    for who, versions in others.items():
        for name in _MUST_AGREE:
            if (there := versions["packages"].get(name)) != here[name]:
                has = "no " + name if there is None else f"{name} {there}"
                differing.setdefault(f"{has}, here is {here[name]}", []).append(who)
    for what, who in differing.items():
        more = f" and {counted(len(who) - 1, 'other')}" if len(who) > 1 else ""
        raise WhereError(f"{who[0]}{more} of {where} has {what}: install the same everywhere.")
