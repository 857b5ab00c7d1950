#!/usr/bin/env python3
"""What handing over very many units to very many workers costs, with workers that die.

A real scheduler and real workers, but light ones: many share a process, and what they do is sleep.
Now and then a whole process of them is killed and another one started. Printed are the units a
second, the processor time that scheduler and client take a unit, and how much was begun in vain.
"""

from __future__ import annotations

import argparse
import asyncio
import logging
import random
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "vkctl" / "tests"))

import psutil
from cluster_work import scheduler

from vkctl.spread.over import over
from vkctl.spread.place import Place, opened
from vkctl.spread.where import parse_where
from vkctl.spread.work import Event, Here, Unit


def nap(seconds: float, here: Here) -> None:
    """Stands for the run of a pattern."""
    time.sleep(seconds)


# What workers do beside their work, on machines of their own: here it would be the whole load.
LIGHT = {
    "distributed.worker.profile.enabled": False,
    "distributed.worker.memory.monitor-interval": "1h",
    "distributed.admin.system-monitor.interval": "1h",
    "distributed.admin.tick.interval": "10s",  # every 20 ms else
    "distributed.admin.system-monitor.gil.enabled": False,
}


async def host(address: str, count: int, folder: str) -> None:
    """Light workers that share this process, until it is killed."""
    import dask
    from distributed import Worker

    dask.config.set(LIGHT)
    logging.getLogger("distributed").setLevel(logging.ERROR)
    workers = [
        Worker(address, nthreads=1, memory_limit=10**9, local_directory=folder)
        for _ in range(count)
    ]
    await asyncio.gather(*workers)
    await asyncio.Event().wait()


class Hosts:
    """Processes full of workers, one of which is killed and replaced now and then."""

    def __init__(self, address: str, count: int, each: int, folder: Path) -> None:
        self.words = [sys.executable, __file__, "--host", address, str(each), str(folder)]
        self.processes = [subprocess.Popen(self.words) for _ in range(count)]
        self.deaths, self.each = 0, each
        self.ended = threading.Event()

    def kill_every(self, seconds: float) -> None:
        while not self.ended.wait(seconds):
            at = random.randrange(len(self.processes))
            self.processes[at].kill()
            self.processes[at].wait()
            self.deaths += self.each
            self.processes[at] = subprocess.Popen(self.words)

    def end(self) -> None:
        self.ended.set()
        for process in self.processes:
            process.kill()
            process.wait()


def measure(said: argparse.Namespace, folder: Path) -> None:
    with scheduler(folder / "scheduler") as started:
        hosts = Hosts(started.address, said.processes, said.workers // said.processes, folder)
        try:
            with opened(parse_where(started.address)) as place:
                place.client.wait_for_workers(said.workers, timeout=600)
                print(f"{said.workers} workers in {said.processes} processes", flush=True)
                killer = threading.Thread(target=hosts.kill_every, args=(said.deaths,))
                if said.deaths:
                    killer.start()
                report(said, place, hosts, psutil.Process(started.scheduler.pid))
        finally:
            hosts.end()


def report(said: argparse.Namespace, place: Place, hosts: Hosts, engine: psutil.Process) -> None:
    units = [Unit(str(number), said.seconds) for number in range(said.units)]
    begun = ended = 0

    def note(event: Event) -> None:
        nonlocal begun
        begun += event.kind == "begun"

    before, start = cpu(engine), time.monotonic()
    mine = time.process_time()
    for done in over(place, nap, units, most_starts=100, on_event=note):
        assert done.ok, done.failure
        ended += 1
        if ended % (said.units // 10) == 0:
            print(f"  {ended} units after {time.monotonic() - start:.0f} s", flush=True)
    seconds = time.monotonic() - start
    assert ended == said.units
    print(
        f"{ended} units of {said.seconds:g} s in {seconds:.1f} s: {ended / seconds:.1f} a second, "
        f"{ended * said.seconds / seconds / said.workers:.2f} of the workers' time\n"
        f"processor time a unit: scheduler {(cpu(engine) - before) / ended * 1e3:.2f} ms, "
        f"client {(time.process_time() - mine) / ended * 1e3:.2f} ms\n"
        f"{hosts.deaths} workers died; begun in vain: {begun - ended} units, "
        f"{(begun - ended) / ended:.2%}"
    )


def cpu(process: psutil.Process) -> float:
    times = process.cpu_times()
    return float(times.user + times.system)


def main() -> None:
    if sys.argv[1:2] == ["--host"]:
        asyncio.run(host(sys.argv[2], int(sys.argv[3]), sys.argv[4]))
        return
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--workers", type=int, default=1000)
    parser.add_argument("--processes", type=int, default=10)
    parser.add_argument("--units", type=int, default=100_000)
    parser.add_argument("--seconds", type=float, default=5.0, help="that a unit sleeps")
    parser.add_argument("--deaths", type=float, default=30.0, help="seconds between two; 0: none")
    with tempfile.TemporaryDirectory() as folder:
        measure(parser.parse_args(), Path(folder))


if __name__ == "__main__":
    main()
