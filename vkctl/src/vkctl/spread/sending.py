"""Sending a directory's files to workers that don't see them, once to each, by their content."""

from __future__ import annotations

from dataclasses import dataclass, field, replace
from pathlib import Path
from types import TracebackType
from typing import Any

from vkctl.basics.extras import need
from vkctl.directory import formats

from . import copies
from .place import Place
from .work import Unit

_NAME = "vkctl-file-"  # of the engine's part that brings a file to each worker, and its digest
_Stamp = tuple[int, int, int]


@dataclass
class Sender:
    """Hands the files of a directory to workers, from when one has said that it lacks them."""

    directory: Path
    place: Place
    sent: dict[str, tuple[_Stamp, str]] = field(default_factory=dict)  # by name, with the digest

    def __enter__(self) -> Sender:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        """Have scheduler and workers forget the files."""
        for _, digest in self.sent.values():
            self._forget(digest)

    def ready(self, unit: Unit) -> Unit:
        """The unit with its files, where workers are known not to see them."""
        return self.supply(unit, ()) if self.sent else unit

    def supply(self, unit: Unit, missing: tuple[str, ...]) -> Unit:
        """The unit with its own files; those of all are on every worker then, as they are now."""
        shared = {
            name: self._on_workers(name, name in missing)
            for name in copies.SHARED_FILES
            if formats.is_regular(self.directory / name)
        }
        names = [*copies.inputs_of(self.directory, unit.task.load_cases), formats.OPTIONS_FILE]
        own = {
            name: formats.read_regular(self.directory / name)
            for name in names
            if formats.is_regular(self.directory / name)
        }
        return replace(unit, task=replace(unit.task, shared=shared, own=own))

    def _on_workers(self, name: str, is_missing: bool) -> str:
        """Digest of a file that all workers have, those too that come later."""
        path = self.directory / name
        found = path.stat()
        stamp = found.st_ino, found.st_size, found.st_mtime_ns
        before = self.sent.get(name)
        if before is not None and before[0] == stamp and not is_missing:
            return before[1]
        digest = copies.digest_of(path)
        if before is not None and before[1] != digest:
            self._forget(before[1])
        if before is None or before[1] != digest:
            self.place.files[digest] += 1
            is_missing |= self.place.files[digest] == 1  # else another directory has the same file
        if is_missing:
            self._send(path, digest)
        self.sent[name] = stamp, digest
        return digest

    def _send(self, path: Path, digest: str) -> None:
        base = need("distributed").WorkerPlugin
        sent = type("Sent", (base,), {"setup": _keep, "teardown": _remove})()
        sent.name, sent.digest = _NAME + digest, digest
        sent.content = formats.read_regular(path)
        self.place.client.register_plugin(sent)

    def _forget(self, digest: str) -> None:
        self.place.files[digest] -= 1
        if self.place.files[digest] > 0:
            return
        if self.place.client.status == "running":
            self.place.client.unregister_worker_plugin(_NAME + digest)


def _keep(self: Any, worker: Any) -> None:
    """Put a file that was sent into the worker's store; it needn't stay in memory."""
    path = copies.store_of(Path(worker.local_directory)) / self.digest
    if not path.exists():
        with formats.passing():
            formats.write_parts(path, [self.content])
    self.content = b""


def _remove(self: Any, worker: Any) -> None:
    """Copies that runs work on are links, and stay."""
    path = copies.store_of(Path(worker.local_directory)) / self.digest
    path.unlink(missing_ok=True)
