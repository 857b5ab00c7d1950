"""Everything about a working directory that would make a run fail or surprise, told beforehand."""

from __future__ import annotations

from pathlib import Path

from vkctl.basics.types import PathLike

from .case_contents import check_loads
from .case_table import check_cases, check_patterns
from .element_tables import check_counts, check_elements, check_levels, check_nodes
from .estimates import check_estimate, estimate
from .findings import Finding, Report, Severity, error
from .inputs import Inputs, read_inputs
from .materials import check_materials
from .options import check_options
from .outputs import check_outputs
from .own_files import read_own_files
from .results import check_results
from .states import check_states
from .structure import check_structure
from .supports import check_supports
from .thin import check_thin
from .units import check_units

__all__ = ["Finding", "Report", "Severity", "check"]

_CHECKS = (
    check_options,
    check_counts,
    check_materials,
    check_elements,
    check_thin,
    check_nodes,
    check_levels,
    check_structure,
    check_cases,
    check_patterns,
    check_loads,
    check_supports,
    check_states,
    check_results,
    check_outputs,
    check_units,
)


def check(directory: PathLike) -> Report:
    """Examine a working directory without changing it.

    Files that are missing or can't be read are findings like everything else; what depends on
    them is left out. Errors come first in the report, then warnings, then notes.
    """
    target = Path(directory)
    report = Report(target)
    if not target.is_dir():
        report.findings.append(error("directory-missing", f"There is no directory {target}."))
        return report
    inputs, report.findings = read_inputs(target)
    report.findings += read_own_files(inputs)
    for part in _CHECKS:
        report.findings += part(inputs)
    report.counts = _counts(inputs)
    report.estimate = estimate(inputs)
    report.findings += check_estimate(inputs, report.estimate)
    rank = {"error": 0, "warning": 1, "note": 2}
    report.findings.sort(key=lambda finding: rank[finding.severity])
    return report


def _counts(inputs: Inputs) -> dict[str, int]:
    """Sizes of what could be read."""
    sizes = {
        "nodes": inputs.nodes,
        "elements": inputs.tables.records if inputs.tables is not None else None,
        "materials": inputs.materials,
        "design_points": inputs.tp,
        "load_cases": inputs.load_cases,
    }
    counts = {name: len(table) for name, table in sizes.items() if table is not None}
    if inputs.flags is not None and inputs.load_cases is not None:
        counts["load_cases_to_run"] = len(inputs.to_run)
    return counts
