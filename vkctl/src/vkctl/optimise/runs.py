"""The solver on a directory of a loop, or of its adjoint load cases: here, or on workers."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from vkctl.running.progress import Progress
from vkctl.running.run import RunResult, run
from vkctl.spread.run import run_at
from vkctl.spread.sending import Sender

from .standing import Loop, Workers


def run_in(
    loop: Loop, directory: Path, on_progress: Callable[[Progress], None] | None = None
) -> RunResult:
    """Run what is requested in a directory to its end, where the loop's load cases are solved."""
    workers, show = loop.workers, on_progress or (lambda progress: None)
    if workers is None:
        return run(directory, vk_rund=loop.vk_rund, on_progress=on_progress)
    whole = directory.absolute()
    return run_at(
        whole,
        workers.place,
        _sender(workers, whole),
        vk_rund=loop.vk_rund,
        on_progress=lambda progress: show(progress.run),
        on_line=workers.on_line,
    )


def _sender(workers: Workers, directory: Path) -> Sender:
    """One for each directory, so that its files are sent once."""
    if directory not in workers.senders:
        sender = Sender(directory, workers.place)
        workers.senders[directory] = workers.ending.enter_context(sender)
    return workers.senders[directory]
