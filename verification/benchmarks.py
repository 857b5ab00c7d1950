"""Computes docs/benchmarks.md and its pictures: parts of the optimiser, judged by other means.

    python verification/benchmarks.py [--only CASE ...] [--fresh] [--page]

Each case is kept under run/benchmarks of the checkout when it is done, and taken from there as long
as the solver and what is under vkctl/src, vkctl/examples, verification and tests/support are those
it was made from; a loop that was stopped goes on. --only does the named cases, --fresh forgets them
first; --page computes nothing. The page shows whatever is kept, and from what each case was made.
The solver is $VK_RUND or build/release/vk_rund. There must be no changes there that aren't
committed. Commit what it writes.
"""

from __future__ import annotations

import argparse
import json
import shutil
import subprocess
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), *(str(HERE.parent / path) for path in ("tests/support", "vkctl/src"))]

from benchmarked.cases import CASES  # noqa: E402
from benchmarked.measuring import measure  # noqa: E402
from benchmarked.page import page  # noqa: E402
from program_under_test import ROOT, program  # noqa: E402

KEPT = ROOT / "run" / "benchmarks"
DOCS = ROOT / "docs"
SOURCES = (
    *("vkctl/src", "vkctl/examples", "verification", "tests/support"),
    ":(exclude)verification/benchmarks.py",  # these two compute nothing
    ":(exclude)verification/benchmarked/page.py",
)
NAMES = [case.name for case in CASES]


def output(*command: str | Path) -> str:
    return subprocess.run(
        command, cwd=ROOT, capture_output=True, text=True, check=True
    ).stdout.strip()


def main() -> int:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--only", action="append", choices=NAMES, metavar="CASE")
    parser.add_argument("--fresh", action="store_true", help="do the cases anew")
    parser.add_argument("--page", action="store_true", help="write the page of what is kept alone")
    options = parser.parse_args()
    if not options.page and (status := compute(options.only or NAMES, options.fresh)):
        return status
    kept = {name: json.loads(path(name).read_text()) for name in NAMES if path(name).exists()}
    found = {name: one["found"] for name, one in kept.items()}
    (DOCS / "benchmarks.md").write_text(page(found, {n: one["made"] for n, one in kept.items()}))
    missing = [name for name in NAMES if name not in kept]
    if missing:
        print(f"the page is without {', '.join(missing)}")
    return 0


def compute(names: list[str], fresh: bool) -> int:
    """The cases that aren't kept; 2 where that can't be."""
    if not program().exists():
        print(f"no solver at {program()}; build it or set VK_RUND", file=sys.stderr)
        return 2
    if output("git", "status", "--porcelain", "--", *SOURCES):
        print("there are changes: the page would name a commit it isn't from", file=sys.stderr)
        return 2
    commit = output("git", "log", "-1", "--format=%h", "--abbrev=12", "--", *SOURCES)
    made = f"commit `{commit}` with {output(program(), '--version')}"
    for name in names:
        do(name, made, fresh)
    return 0


def path(name: str) -> Path:
    return KEPT / f"{name}.json"


def do(name: str, made: str, fresh: bool) -> None:
    """One case, unless it is kept."""
    if fresh:
        shutil.rmtree(KEPT / name, ignore_errors=True)
        path(name).unlink(missing_ok=True)
    if path(name).exists() and json.loads(path(name).read_text())["made"] == made:
        print(f"{name}: kept", flush=True)
        return
    stamp = KEPT / name / "made"
    if not stamp.is_file() or stamp.read_text() != made:
        shutil.rmtree(KEPT / name, ignore_errors=True)
        stamp.parent.mkdir(parents=True)
        stamp.write_text(made)
    pictures = DOCS / "benchmarks"
    pictures.mkdir(exist_ok=True)
    begun = time.monotonic()
    found = measure(CASES[NAMES.index(name)], KEPT / name, pictures)
    beside = path(name).with_suffix(".new")
    beside.write_text(json.dumps({"made": made, "found": found}, indent=1))
    beside.replace(path(name))
    print(f"{name}: {time.monotonic() - begun:.0f} s", flush=True)


if __name__ == "__main__":
    sys.exit(main())
