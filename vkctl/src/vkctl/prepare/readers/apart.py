"""Reading a part in a process of its own.

Whatever a file makes a library do, it does it to a process that can neither write nor start
anything, has bounded memory and time, and ends with the one that asked. It works in an empty
folder where the part is a link: no file that lies beside the part is taken for its options.
"""

from __future__ import annotations

import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import asdict
from pathlib import Path
from typing import IO

from vkctl.basics.extras import check_installed
from vkctl.basics.memory import available_gb
from vkctl.basics.pipes import whoever_reads
from vkctl.basics.words import printable

from ..part import MeshOptions, Part, PartError, Reading, Told
from .channel import BrokenError, Message, receive, told_part
from .geo_script import LONGEST_SCRIPT, harmless_script

_GEOMETRY = (".step", ".stp", ".geo", ".stl")  # the last of our own making
_LIBRARIES = {**dict.fromkeys((".msh", *_GEOMETRY), "gmsh"), ".vtu": "vtkmodules"}
_GB = 2.0**30
_MB = 2.0**20
_LEAST_MEMORY = 1.0  # GB, for a reader with its libraries
_MEMORY_PER_BYTE = 100  # of a mesh's file, compressed ones included
_MESHING_SHARE = 0.8  # of the memory that is there; the rest is for the model made of the mesh
# Seconds: for any file, and for each MB. Geometry may hold solids that have to be glued, decks
# may include others.
_TIME = {
    ".geo": (120.0, 20.0),
    ".step": (600.0, 20.0),
    ".stp": (600.0, 20.0),
    ".inp": (300.0, 3.0),
}
_TIME_OF_MESHES = (60.0, 3.0)
_MESHING_TIME = (600.0, 0.005)  # seconds: for any part, and for each element expected
_UNLIMITED = "--no-limits reads it without limits"


def read_apart(path: Path, ending: str, options: MeshOptions, reading: Reading) -> Part:
    """The part of a file whose head is that of its kind. Raises PartError."""
    if ending in _LIBRARIES:
        check_installed(_LIBRARIES[ending])
    trusted = reading.trust_scripts and ending in (".geo", ".inp")
    with tempfile.TemporaryDirectory(prefix="vkctl-") as folder:
        place = path.absolute() if trusted or ending == ".inp" else _placed(path, ending, folder)
        memory = _memory_limit(path, ending) if reading.limits else 0
        job = {
            "path": str(place),
            "title": str(path),
            "ending": ending,
            "options": asdict(options),
            "trusted": trusted,
            "limits": reading.limits,
            "conditions": reading.conditions,
            "memory": memory,
            "budget": int(_MESHING_SHARE * memory),
            "parent": os.getpid(),
        }
        with _Worker(job, None if trusted else folder) as worker:
            return _follow(worker, path, ending, memory, reading)


def _placed(path: Path, ending: str, folder: str) -> Path:
    """Where the worker finds the part: alone in its folder, under a name of ours."""
    place = Path(folder, f"part{ending}")
    if ending == ".geo":
        with open(path, "rb") as stream:
            data = stream.read(LONGEST_SCRIPT + 1)
        place.write_text(harmless_script(data, str(path)), encoding="utf-8")
    else:
        place.symlink_to(path.absolute())
    return place


def _memory_limit(path: Path, ending: str) -> int:
    """Bytes that the worker may take; 0 where nothing is known of the machine's memory."""
    there = available_gb()
    if ending in _GEOMETRY or ending == ".inp":  # which may include others
        return int((there or 0.0) * _GB)
    wanted = _LEAST_MEMORY * _GB + _MEMORY_PER_BYTE * path.stat().st_size
    return int(wanted if there is None else min(wanted, there * _GB))


class _Worker:
    """The reading process with what belongs to it; leaving the block ends it."""

    def __init__(self, job: dict[str, object], folder: str | None) -> None:
        self.job = job
        self.folder = folder
        self.late = False
        self.timer: threading.Timer | None = None

    def __enter__(self) -> _Worker:
        reading_end, writing_end = os.pipe()
        self.messages: IO[bytes] = open(reading_end, "rb")
        try:
            self.process = subprocess.Popen(
                [sys.executable, "-P", "-m", f"{__package__}.worker", str(writing_end)],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                pass_fds=(writing_end,),
                cwd=self.folder,
                env=_environment(self.folder),
            )
        finally:
            os.close(writing_end)
        assert self.process.stdin is not None
        with whoever_reads():  # where it ended at once its status tells
            self.process.stdin.write(json.dumps(self.job).encode() + b"\n")
            self.process.stdin.flush()
        return self

    def __exit__(self, *_: object) -> None:
        if self.timer is not None:
            self.timer.cancel()
        self.process.kill()
        self.process.wait()
        for stream in (self.messages, self.process.stdin, self.process.stdout):
            if stream is not None:
                with whoever_reads():
                    stream.close()

    def allow(self, seconds: float) -> None:
        """End the process unless it is done, or allowed more, in so many seconds."""
        if self.timer is not None:
            self.timer.cancel()
        self.timer = threading.Timer(seconds, self._end_late)
        self.timer.daemon = True
        self.timer.start()

    def _end_late(self) -> None:
        self.late = True
        self.process.kill()


def _environment(folder: str | None) -> dict[str, str]:
    """This process's own, with its search path, and the empty folder as home."""
    searched = [os.path.abspath(entry) for entry in sys.path]
    changed = {"PYTHONPATH": os.pathsep.join(searched), "PYTHONDONTWRITEBYTECODE": "1"}
    if folder is not None:
        changed |= {"HOME": folder, "TMPDIR": folder}
    return {**os.environ, **changed}


def _follow(worker: _Worker, path: Path, ending: str, memory: int, reading: Reading) -> Part:
    """The part that the worker tells, or why it doesn't."""
    size = path.stat().st_size / _MB
    least, more = _TIME.get(ending, _TIME_OF_MESHES)
    most = memory or sys.maxsize
    if reading.limits:
        worker.allow(least + more * size)
    with _told_lines(worker.process, reading):
        try:
            while (message := receive(worker.messages, most)) is not None:
                if message.kind == "part":
                    return told_part(message)
                _take(message, worker, path, memory, reading)
        except BrokenError as error:
            raise PartError(f"{path}: its reader broke down: {error}") from None
        except MemoryError:
            raise PartError(_short_of_memory(path, memory)) from None
    raise PartError(_why_nothing_came(worker, path, memory))


def _take(message: Message, worker: _Worker, path: Path, memory: int, reading: Reading) -> None:
    if message.kind == "error":
        raise PartError("\n".join(map(printable, str(message.content["text"]).split("\n"))))
    if message.kind == "memory":
        raise PartError(_short_of_memory(path, memory))
    if message.kind != "estimate":
        raise BrokenError(f"a message {message.kind!r}")
    elements = float(message.content["elements"])
    if reading.limits:
        least, more = _MESHING_TIME
        worker.allow(least + more * elements)
    reading.tell(Told(printable(str(message.content["text"])), lasting=True))


def _short_of_memory(path: Path, memory: int) -> str:
    there = f"{memory / _GB:.2g} GB" if memory else "that of this machine"
    return f"{path}: reading it takes more memory than {there}; {_UNLIMITED}"


def _why_nothing_came(worker: _Worker, path: Path, memory: int) -> str:
    status = worker.process.wait()
    if worker.late:
        return f"{path}: reading it takes longer than it should; {_UNLIMITED}"
    if status < 0:
        name = signal.Signals(-status).name
        limit = f" or needs more than {memory / _GB:.2g} GB of memory" if memory else ""
        return f"{path}: its reader broke down ({name}): the file is damaged{limit}"
    return f"{path}: its reader ended with status {status} and no part"


# --- how it goes on ----------------------------------------------------------------------------

_PERCENT = re.compile(rb"\[ *(\d+)%\] Meshing (curve|surface|volume)")
_LONGEST_LINE = 4096
_NODES = re.compile(rb"It\. \d+ - (\d+) nodes created")
_STEPS = (
    (re.compile(rb"Meshing 3D"), "meshing the volume"),
    (re.compile(rb"Optimizing"), "optimising the mesh"),
    (re.compile(rb"Meshing order 2"), "adding mid-edge nodes"),
    (re.compile(rb"Reading"), "reading the part"),
)


@contextmanager
def _told_lines(process: subprocess.Popen[bytes], reading: Reading) -> Iterator[None]:
    """Tell what the worker's libraries print as they go on."""

    def listen() -> None:
        assert process.stdout is not None
        before = ""
        while line := process.stdout.readline(_LONGEST_LINE):
            text = _progress(line)
            if text not in ("", before):
                reading.tell(Told(text))
                before = text

    thread = threading.Thread(target=listen, daemon=True)
    thread.start()
    try:
        yield
    finally:
        process.kill()
        thread.join()


def _progress(line: bytes) -> str:
    if found := _PERCENT.search(line):
        return f"meshing {found[2].decode()}s, {found[1].decode()} %"
    if found := _NODES.search(line):
        return f"meshing the volume, {int(found[1]):,} nodes"
    return next((words for pattern, words in _STEPS if pattern.search(line)), "")
