"""Where the solver is that tests and verification run, and running it as a user would."""

from __future__ import annotations

import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


@dataclass(frozen=True)
class Outcome:
    status: int
    out: str
    err: str


def program() -> Path:
    """The solver in VK_RUND, by default the release build."""
    return Path(os.environ.get("VK_RUND", ROOT / "build" / "release" / "vk_rund")).absolute()


def start(
    *arguments: str | Path,
    cwd: str | Path | None = None,
    timeout: float | None = None,
    **environment: str,
) -> Outcome:
    """Run the solver with any arguments."""
    done = subprocess.run(
        [program(), *map(str, arguments)],
        cwd=cwd,
        env={**os.environ, **environment},
        capture_output=True,
        text=True,
        errors="backslashreplace",
        timeout=timeout,
        check=False,
    )
    return Outcome(done.returncode, done.stdout, done.stderr)
