"""Prints the share of executed lines per folder, from gcovr's summary and coverage's report."""

import json
import sys
from collections import defaultdict
from pathlib import Path, PurePosixPath

Counts = dict[str, tuple[int, int]]  # executed and all lines of each file


def of_solver(report: str) -> Counts:
    files = json.loads(Path(report).read_text())["files"]
    return {file["filename"]: (file["line_covered"], file["line_total"]) for file in files}


def of_companion(report: str) -> Counts:
    files = json.loads(Path(report).read_text())["files"]
    return {
        name: (file["summary"]["covered_lines"], file["summary"]["num_statements"])
        for name, file in files.items()
    }


def per_folder(files: Counts) -> Counts:
    sums: dict[str, tuple[int, int]] = defaultdict(lambda: (0, 0))
    for name, (covered, lines) in files.items():
        folder = PurePosixPath(name).parent.as_posix()
        sums[folder] = (sums[folder][0] + covered, sums[folder][1] + lines)
    return dict(sorted(sums.items()))


def show(name: str, covered: int, lines: int) -> None:
    share = 100 * covered / lines if lines else 100
    print(f"{name:<40}{lines:>8}{share:>8.1f} %")


def main(solver: str, companion: str) -> None:
    print(f"{'folder':<40}{'lines':>8}{'run':>8}")
    for title, files in (("vk_rund", of_solver(solver)), ("vkctl", of_companion(companion))):
        for folder, (covered, lines) in per_folder(files).items():
            show(folder, covered, lines)
        show(f"{title} in total", *(sum(column) for column in zip(*files.values(), strict=True)))


if __name__ == "__main__":
    main(*sys.argv[1:3])
