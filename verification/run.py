"""Runs the verification cases through vk_rund and compares them with docs/verification.md.

    python verification/run.py [--only CASE ...] [--quick] [--jobs N]

--only runs the named cases and --quick small meshes; either looks at no page. --jobs runs so many
cases at a time. The solver is $VK_RUND or build/release/vk_rund. Nothing is written: publish.py
makes the page. Exit status 1 when a comparison is outside its bound, or when the page doesn't tell
what was found.
"""

from __future__ import annotations

import argparse
import importlib
import multiprocessing
import os
import sys
import time
from collections.abc import Iterator, Sequence
from concurrent.futures import ProcessPoolExecutor
from functools import partial
from pathlib import Path

HERE = Path(__file__).resolve().parent
DOCS = HERE.parent / "docs"
sys.path[:0] = [str(HERE), *(str(HERE.parent / path) for path in ("tests/support", "vkctl/src"))]

from program_under_test import program  # noqa: E402
from support import introduction, page  # noqa: E402

# In the order of the page. Those of the second list take longer than a check may: publish.py alone
# runs them, and the page says so.
CASES = (
    "patch",
    "le10",
    "le11",
    "thick_cylinder",
    "thick_sphere",
    "cantilever",
    "nodal_stress",
    "torsion",
    "heating",
    "orthotropic",
    "supports",
    "convergence",
    "level_field",
    "yielding",
    "compression_only",
    "boundary_stress",
    "materials",
    "calculix",
)
PUBLISHED = ("unstructured", "slender", "stress_order", "solvers", "optimised")
ORDER = (*CASES, *PUBLISHED)


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--only", action="append", choices=ORDER, metavar="CASE")
    parser.add_argument("--quick", action="store_true", help="small meshes, no page")
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="cases at a time")
    return parser.parse_args()


def title_of(name: str) -> str:
    title: str = importlib.import_module(f"cases.{name}").TITLE
    return title


def run_case(name: str, quick: bool, pictures: bool) -> tuple[page.Result, float]:
    """What a case found, and its seconds; without `pictures` it can go to another process."""
    started = time.perf_counter()
    result: page.Result = importlib.import_module(f"cases.{name}").run(quick)
    if name in PUBLISHED:
        result.text = f"*When publishing only.* {result.text.strip()}"
    if not pictures:
        for picture in result.pictures:
            picture.paint = None
    return result, time.perf_counter() - started


def run_cases(
    names: Sequence[str], quick: bool = False, jobs: int = 1, pictures: bool = False
) -> Iterator[page.Result]:
    """Results in the order of `names`, told as they come."""
    work = partial(run_case, quick=quick, pictures=pictures)
    if jobs == 1:
        yield from map(told, map(work, names))
        return
    # A fresh process for each worker: no library's threads are inherited.
    with ProcessPoolExecutor(jobs, multiprocessing.get_context("spawn")) as pool:
        yield from map(told, pool.map(work, names))


def told(found: tuple[page.Result, float]) -> page.Result:
    result, seconds = found
    print(page.console(result))
    print(f"  {seconds:.1f} s", flush=True)
    return result


def main() -> int:
    options = arguments()
    if not program().exists():
        print(f"no solver at {program()}; build it or set VK_RUND", file=sys.stderr)
        return 2
    # Told by the set-up where the Debian release hasn't got the other solver.
    left_out = [*PUBLISHED, *(("calculix",) if os.environ.get("VK_NO_PEER") else ())]
    names = options.only or [name for name in CASES if name not in left_out]
    results = list(run_cases(names, options.quick, options.jobs))
    count = len(results)
    failed = sum(any(not check.passed for check in result.checks) for result in results)
    if not options.only and not options.quick:
        titles = [title_of(name) for name in left_out]
        differences = page.differences(results, introduction.TEXT, DOCS, titles)
        for difference in differences:
            print(f"docs/verification.md: {difference}")
        count, failed = count + 1, failed + bool(differences)
    print(f"{count - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
