"""Prints "N passed, N failed" over all JUnit reports of a folder; status 1 if any failed."""

import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path


def count(report: Path) -> tuple[int, int]:
    """Tests passed and failed. A test that was not run counts as failed."""
    root = ElementTree.parse(report).getroot()
    suites = [root] if root.tag == "testsuite" else root.findall("testsuite")
    tests = failed = 0
    for suite in suites:
        tests += int(suite.get("tests", 0))
        failed += sum(
            int(suite.get(kind, 0)) for kind in ("failures", "errors", "skipped", "disabled")
        )
    return tests - failed, failed


def main(folder: str) -> int:
    counts = [count(report) for report in sorted(Path(folder).glob("*.xml"))]
    passed, failed = (sum(column) for column in zip(*counts, strict=True)) if counts else (0, 1)
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
