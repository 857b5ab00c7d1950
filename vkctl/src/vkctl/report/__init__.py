"""A report of a working directory as one page, and pages that follow a run."""

from .compose import Wanted, make_report
from .write import Written, write_report

__all__ = ["Wanted", "Written", "make_report", "write_report"]
