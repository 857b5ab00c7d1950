"""Sending a directory's files to workers that don't see them, once to each, by their content."""

from __future__ import annotations

from dataclasses import replace
from pathlib import Path
from typing import Any

from vkctl.basics.extras import need
from vkctl.directory import formats

from . import copies
from .place import Place
from .work import Unit

_NAME = "vkctl-file-"  # of the engine's part that brings a file to each worker, and its digest


class Sender:
    """Hands the files of a directory to workers, when one has said that it lacks them."""

    def __init__(self, directory: Path, place: Place) -> None:
        self.directory, self.place = directory, place
        self.shared: dict[str, str] = {}  # sent to all: name, digest

    def supply(self, unit: Unit, _: tuple[str, ...]) -> Unit:
        """The unit with what it needs: its own files inside, those of all on every worker."""
        if not self.shared:
            self.shared = {name: self._send(name) for name in self._names()}
        own = {
            name: formats.read_regular(self.directory / name)
            for name in [
                *copies.inputs_of(self.directory, unit.task.load_cases),
                formats.OPTIONS_FILE,
            ]
            if formats.is_regular(self.directory / name)
        }
        return replace(unit, task=replace(unit.task, shared=self.shared, own=own))

    def _names(self) -> list[str]:
        return [n for n in copies.SHARED_FILES if formats.is_regular(self.directory / n)]

    def _send(self, name: str) -> str:
        """Have the engine bring a file to all workers, those that come later too."""
        path = self.directory / name
        digest = copies.digest_of(path)
        base = need("distributed").WorkerPlugin
        kind = type("Sent", (base,), {"setup": _keep})
        sent = kind()
        sent.name, sent.digest = _NAME + digest, digest
        sent.content = formats.read_regular(path)
        self.place.client.register_plugin(sent)
        return digest

    def close(self) -> None:
        """Have the scheduler forget the files; workers keep theirs to their end."""
        if self.place.client.status != "running":
            return
        for digest in set(self.shared.values()):
            self.place.client.unregister_worker_plugin(_NAME + digest)


def _keep(self: Any, worker: Any) -> None:
    """Put a file that was sent into the worker's store; it needn't stay in memory."""
    path = copies.store_of(Path(worker.local_directory)) / self.digest
    if not path.exists():
        formats.write_parts(path, [self.content])
    self.content = b""
