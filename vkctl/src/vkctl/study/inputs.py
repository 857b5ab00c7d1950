"""What a study follows from, so that a changed one is noticed."""

from __future__ import annotations

import hashlib
import json
from collections.abc import Mapping
from functools import lru_cache
from pathlib import Path
from typing import Any

from vkctl.directory import formats
from vkctl.prepare.case_file.toml_table import load

from .entries import StudyFile
from .store import part_digest

_FREE = ("keep",)  # keys of the study file that change no result


def digests(study: StudyFile) -> dict[str, str]:
    """Of the study file, the case file, the part and the table, by what they are called."""
    said = dict(load(study.path)[0].data)
    for key in _FREE:
        said.pop(key, None)
    found = {"the study file": _of(said), "the case file": _of(study.said)}
    part = Path(study.cases).parent / str(study.said["part"])
    if part.is_file():
        found["the part"] = part_digest(part, None)
    if study.table is not None:
        found["the table"] = hashlib.sha256(formats.read_regular(study.table)).hexdigest()
    return found


def _of(said: Mapping[str, object]) -> str:
    return hashlib.sha256(json.dumps(said, sort_keys=True, default=str).encode()).hexdigest()


def absolute_part(case: dict[str, Any], cases: Path) -> None:
    """Have a case file name its part wherever it lies itself."""
    case["part"] = str((cases.parent / str(case["part"])).absolute())


def mesh_digest(case: Mapping[str, Any]) -> str:
    """Of all that the mesh of a case follows from; empty where its part can't be read."""
    part = Path(str(case["part"]))
    try:
        found = part.stat()
        return _mesh_digest(
            part, json.dumps(case.get("mesh"), sort_keys=True, default=str), found.st_mtime_ns
        )
    except (OSError, formats.FormatError):
        return ""


@lru_cache(maxsize=1024)
def _mesh_digest(part: Path, mesh: str, modified: int) -> str:
    return part_digest(part, mesh)
