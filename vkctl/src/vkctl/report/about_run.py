"""What a report says of the directory's state: findings, log, optimisation, what isn't there."""

from __future__ import annotations

from collections.abc import Sequence

from vkctl.check import Finding, Report
from vkctl.directory.case_names import titled
from vkctl.directory.formats import MODES
from vkctl.directory.log import RunLog
from vkctl.optimise.history import HistoryRow

from .markup import items, paragraph, section, table, text
from .pictures import history_picture

_MOST_STEPS = 200  # in the table
_DONE = "all-done"  # that there is nothing left to run is what a report is made for
_MODE_NAMES = {number: name for name, number in MODES.items()}


def about_findings(found: Report) -> str:
    """The section on what `check` says."""
    told = [_finding(one) for one in found.findings if one.code != _DONE]
    if not told:
        told = [paragraph("Nothing would make a run fail or surprise.")]
    return section("findings", "Checks", *told)


def _finding(finding: Finding) -> str:
    where = f" ({text(finding.where)})" if finding.where else ""
    hint = f" {text(finding.hint)}" if finding.hint else ""
    return (
        f'<p class="{finding.severity}"><strong>{finding.severity}</strong> '
        f"{text(finding.message)}{where}{hint}</p>"
    )


def about_log(log: RunLog, names: list[str], is_over: bool = True) -> str:
    """The section on the last run, from its log; `names` of all load cases."""
    rows = [
        (
            titled(case.number, names),
            case.pattern,
            _MODE_NAMES.get(case.mode or 0),
            case.equations_millions,
            case.iterations,
            case.data.get("ARQua"),
            case.seconds,
        )
        for case in log.load_cases
    ]
    heads = (
        "load case",
        "pattern",
        "mode",
        "million equations",
        "iterations",
        "quality",
        "seconds",
    )
    if log.error:
        end = paragraph(f"The run stopped: {log.error}", "error")
    elif log.seconds is None:
        end = paragraph("The run has not ended.", "warning") if is_over else ""
    else:
        end = paragraph(f"The whole run took {log.seconds:.1f} s.")
    warnings = items(f"Warning: {words}" for words in log.warnings)
    return section("run", "Last run", end, warnings, table("Load cases in its order", heads, rows))


def about_optimisation(rows: Sequence[HistoryRow]) -> str:
    """The section on the optimisation, where there was one."""
    if not rows:
        return ""
    heads = ("step", "objective", "volume", "target", "change", "quality", "seconds")
    stride = -(-len(rows) // _MOST_STEPS)
    shown = [row for row in rows if row.step % stride == 0 or row.step in (1, rows[-1].step)]
    lines = [
        (row.step, row.objective, row.volume, row.target, row.change, row.quality, row.seconds)
        for row in shown
    ]
    first, last = rows[0], rows[-1]
    words = (
        f"{last.step} steps: the objective went from {first.objective:.4g} to "
        f"{last.objective:.4g}, the material from {first.volume:.3f} to {last.volume:.3f} "
        "of the design volume."
    )
    chart = history_picture(list(rows))
    steps = f"<details><summary>All steps</summary>{table('Steps', heads, lines)}</details>"
    return section("optimisation", "Optimisation", paragraph(words), chart, steps)


def about_missing(missing: Sequence[str]) -> str:
    """The section on what the directory doesn't have."""
    return section("missing", "What isn't here", items(missing))
