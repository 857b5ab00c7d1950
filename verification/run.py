"""Runs the verification cases through vk_rund and compares them with docs/verification.md.

    python verification/run.py [--write] [--only CASE ...] [--quick]

--write writes the page and its pictures anew. --only runs the named cases and --quick small
meshes; either looks at no page. The solver is $VK_RUND or build/release/vk_rund. Exit status 1
when a comparison is outside its bound, or when the page doesn't tell what was found.
"""

from __future__ import annotations

import argparse
import importlib
import os
import sys
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
DOCS = HERE.parent / "docs"
sys.path[:0] = [str(HERE), *(str(HERE.parent / path) for path in ("tests/support", "vkctl/src"))]

from program_under_test import program  # noqa: E402
from support import page  # noqa: E402

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
    "calculix",
)

INTRODUCTION = """
# Verification

Written by `python verification/run.py --write`, which runs every case below through `vk_rund`,
with meshes that the companion package writes. Without `--write` it compares the cases with this
page, and fails when a comparison is outside its bound or the page tells another value. The bounds
are part of the cases. Where an answer is exact they follow from single precision; for
discretisation errors they hold a mesh to what it gave when the case was made, with a margin, so
that they guard against change and prove nothing by themselves: the errors are to be read beside
them. Shapes, quadrature, loads and stress recovery of the cases are written in numpy, apart from
the solver's.

Three things hold for all cases:

- **Presence.** An element without a level field has the level 1, and its stiffness carries the
  factor H(1) = (atan(500) / pi + 0.5) (1 - 0.001) + 0.001 = 0.999364. Where a case gives a modulus
  E, the model holds E / H(1), so that E is what acts.
- **Single precision.** Coordinates, loads, prescribed values and saved displacements are
  float32, with seven digits. Coordinates are rounded before references are computed. Errors
  below 1e-6 are shown as such and not with digits.
- **Two runs.** A solve ends when the largest residual is 1e-5 of the largest load. Each case is
  run a second time from its saved displacements, which solves for the remainder, so that the
  tolerance leaves no trace in the numbers (states of yielding and compression-only materials
  change with every run; those two cases count their runs).

"Error" is relative to the reference where both numbers are given, otherwise it is what the case
says.
"""


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=(__doc__ or "").splitlines()[0])
    parser.add_argument("--write", action="store_true", help="write the page and its pictures")
    parser.add_argument("--only", action="append", choices=CASES, metavar="CASE")
    parser.add_argument("--quick", action="store_true", help="small meshes, no page")
    options = parser.parse_args()
    if options.write and (options.only or options.quick):
        parser.error("--write takes all cases in full")
    return options


def main() -> int:
    options = arguments()
    if not program().exists():
        print(f"no solver at {program()}; build it or set VK_RUND", file=sys.stderr)
        return 2
    results, failed_cases = [], 0
    # Told by the set-up where the Debian release hasn't got the other solver.
    left_out = ("calculix",) if os.environ.get("VK_NO_PEER") else ()
    for name in options.only or [case for case in CASES if case not in left_out]:
        started = time.perf_counter()
        result = importlib.import_module(f"cases.{name}").run(options.quick)
        results.append(result)
        failed_cases += any(not check.passed for check in result.checks)
        print(page.console(result))
        print(f"  {time.perf_counter() - started:.1f} s", flush=True)
    count, failed = len(results), failed_cases
    if options.write:
        page.write(results, INTRODUCTION, DOCS)
    elif not options.only and not options.quick:
        titles = [importlib.import_module(f"cases.{name}").TITLE for name in left_out]
        differences = page.differences(results, INTRODUCTION, DOCS, titles)
        for difference in differences:
            print(f"docs/verification.md: {difference}")
        count, failed = count + 1, failed + bool(differences)
    print(f"{count - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
