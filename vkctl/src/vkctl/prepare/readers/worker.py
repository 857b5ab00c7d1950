"""The process that reads one part: it gives up its rights, reads, tells the part and ends.

Started by `apart`, which sends one line of JSON and reads the messages of `channel`.
"""

from __future__ import annotations

import json
import os
import signal
import sys
from typing import IO, Any

from vkctl.basics import confine

from ..part import MeshOptions, Part, PartError
from ..split import split
from .channel import part_message, send


def main(descriptor: int) -> None:
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    job = json.loads(sys.stdin.readline())
    confine.end_with(job["parent"])
    confine.end_at_hang_up(sys.stdin.fileno())
    if job["memory"]:
        confine.limit_memory(job["memory"])
    if not job["trusted"]:
        confine.forbid_writing()
    with open(descriptor, "wb") as stream:
        _answer(stream, job)


def _answer(stream: IO[bytes], job: dict[str, Any]) -> None:
    title = job["title"]
    try:
        part = _read(stream, job)
        if job["options"]["split"]:
            part = split(part)
        content, arrays = part_message(part)
    except PartError as error:
        send(stream, "error", {"text": str(error)})
    except MemoryError:
        send(stream, "memory", {})
    except (Exception, RecursionError) as error:  # of a library, at a damaged file
        words = str(error).strip() or type(error).__name__
        send(stream, "error", {"text": f"{title}: can't be read: {words}"})
    else:
        send(stream, "part", content, arrays)


def _read(stream: IO[bytes], job: dict[str, Any]) -> Part:
    """The part; readers are imported where they are needed, since their libraries are large."""
    path, title, ending = job["path"], job["title"], job["ending"]
    options = MeshOptions(**job["options"])
    if ending == ".inp":
        from .inp import read_inp

        return read_inp(path, title, job["trusted"], job["conditions"], options.split)
    if ending == ".vtu":
        from .vtu import read_vtu

        return read_vtu(path, title, limits=job["limits"], cells=options.split)
    from .gmsh import mesh_geometry, read_msh
    from .surface import mesh_surface

    if ending == ".msh":
        return read_msh(path, title, cells=options.split)
    mesh = mesh_surface if ending == ".stl" else mesh_geometry
    return mesh(
        path,
        title,
        options,
        most_bytes=job["budget"],
        tell=lambda kind, content: send(stream, kind, content),
    )


if __name__ == "__main__":
    main(int(sys.argv[1]))
    sys.stdout.flush()
    os._exit(0)  # libraries that tidy up at the end may break there
