"""The command `vkctl check`."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import TYPE_CHECKING, Annotated, Any

import typer

from vkctl.basics.words import clock, counted, printable
from vkctl.terminal import output
from vkctl.terminal.refusal import refusing

if TYPE_CHECKING:
    from vkctl.check import Finding, Report

_STYLES: dict[str, dict[str, Any]] = {
    "error": {"fg": "red", "bold": True},
    "warning": {"fg": "yellow"},
    "note": {"fg": "cyan"},
}


def _lines(finding: Finding) -> Iterator[str]:
    where = ""
    if finding.where and finding.where not in finding.message:
        where = output.styled(f"  [{finding.where}]", dim=True)
    severity = output.styled(finding.severity, **_STYLES[finding.severity])
    yield f"{severity}  {printable(finding.message)}{where}"
    if finding.hint:
        yield output.styled(f"    {printable(finding.hint)}", dim=True)


def _model_line(report: Report) -> str:
    return ", ".join(
        f"{count} of them to run"
        if name == "load_cases_to_run"
        else counted(count, name.removesuffix("s").replace("_", " "))
        for name, count in report.counts.items()
    )


def _estimate_line(report: Report) -> str:
    values = report.estimate
    mode = "iterative" if values["iterative"] else "with a factor"
    return (
        f"Estimate: {values['equations']:,.0f} equations, {mode}, "
        f"factor {values['factor_gb']:.2g} GB, process {values['memory_gb']:.2g} GB, "
        f"about {clock(values['seconds'])} (time within a factor of two or three)."
    )


def check_command(
    directory: Annotated[Path, typer.Argument(..., help="working directory")],
    as_json: Annotated[bool, typer.Option(..., "--json", help="print the report as JSON")] = False,
) -> None:
    """Say everything about a prepared directory that would fail or surprise.

    Exit status: 0 nothing but notes, 1 warnings, 2 errors.
    """
    from vkctl.check import check
    from vkctl.check.findings import SEVERITIES

    with refusing():
        report = check(directory)
    if as_json:
        output.print_json(report.as_dict())
        raise typer.Exit(report.status)
    for finding in report.findings:
        output.tell(*_lines(finding))
    output.tell(
        *([_model_line(report)] if report.counts else []),
        *([_estimate_line(report)] if report.estimate else []),
        ", ".join(counted(len(report.of(kind)), kind) for kind in SEVERITIES) + ".",
    )
    raise typer.Exit(report.status)
