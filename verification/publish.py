"""Writes docs/verification.md and its pictures from all cases, on both maths libraries.

    python verification/publish.py [--other PROGRAM] [--only CASE ...]

--only puts the named cases alone into the page that is there, which then says from which commit
they are. The solver is $VK_RUND or build/release/vk_rund, PROGRAM the one with the other maths
library, by default build/release-open/vk_rund. The page names the commit that it was made from, so
there must be no changes that aren't committed. Commit what it writes. Exit status 1 when a
comparison is outside its bound: the page is written all the same and shows it.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
from pathlib import Path

import run  # it says where the others are

# isort: split
from program_under_test import ROOT, program
from support import introduction, page

OTHER = ROOT / "build" / "release-open" / "vk_rund"


def output(*command: str | Path) -> str:
    return subprocess.run(
        command, cwd=ROOT, capture_output=True, text=True, check=True
    ).stdout.strip()


def made() -> str:
    """What the page is made from: commit, and solvers with their maths libraries."""
    commit = output("git", "rev-parse", "--short=12", "HEAD")
    one, two = (output(path, "--version") for path in (program(), os.environ["VK_RUND_OTHER"]))
    return f"`{commit}`.\nSolver: {one}.\nBeside it, where a case says so: {two}."


def main() -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--other", type=Path, default=OTHER, metavar="PROGRAM")
    parser.add_argument("--only", action="append", choices=run.ORDER, metavar="CASE")
    options = parser.parse_args()
    other = options.other.absolute()
    for path in (program(), other):
        if not path.exists():
            print(f"no solver at {path}; build it, or say where it is", file=sys.stderr)
            return 2
    if output("git", "status", "--porcelain"):
        print(
            "there are changes: the page would name a commit it wasn't made from", file=sys.stderr
        )
        return 2
    os.environ["VK_RUND_OTHER"] = str(other)
    results = list(run.run_cases(options.only or run.ORDER, pictures=True))
    if options.only:
        titles = [run.title_of(name) for name in run.ORDER]
        page.replace(results, titles, made().partition("\n")[0], run.DOCS)
    else:
        page.write(results, introduction.TEXT, made(), run.DOCS)
    failed = [result.title for result in results if any(not c.passed for c in result.checks)]
    print(f"{len(results) - len(failed)} passed, {len(failed)} failed {'; '.join(failed)}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
