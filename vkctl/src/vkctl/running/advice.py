"""Plain sentences and hints for what vk_rund reports: log messages, exit statuses, signals."""

from __future__ import annotations

import re
import signal
from dataclasses import dataclass

from vkctl.directory.results import POOR_QUALITY, STOP_QUALITY


@dataclass(frozen=True)
class Advice:
    """What happened, in a sentence, and what to do about it. `original` is the solver's text."""

    sentence: str
    hint: str = ""
    original: str = ""

    def __str__(self) -> str:
        return f"{self.sentence} {self.hint}".rstrip()


_CHECK = "`vkctl check` on the directory names the place."
_MEMORY = (
    "The model needs more memory than the machine gives: close other programs, use "
    "Sys.ComputationMode=1 (no factor), or a coarser mesh."
)
_FACTOR = (
    "Either memory ran out, or the stiffness matrix is not positive definite: a part without "
    "enough supports, or an element turned inside out. `vkctl check` tells which."
)

# Pattern of the message, sentence, hint. Groups of the pattern may be used by number.
_MESSAGES: list[tuple[str, str, str]] = [
    (
        r"Error opening file: vk_rund_cmd\.txt",
        "The options file vk_rund_cmd.txt is missing or can't be read.",
        "It must exist; an empty file takes all defaults.",
    ),
    (
        r"Error opening file: (ws\..*|mxs\.lcflags)",
        "The file {0} can't be opened.",
        "Is the directory writable, and is there space on the disk?",
    ),
    (r"Error opening file: (.*)", "The file {0} is missing or can't be read.", _CHECK),
    (
        r"Error reading file: (.*)",
        "The file {0} is shorter than its counts say.",
        "It was cut off or written for another model. " + _CHECK,
    ),
    (
        r"Invalid index in file: (.*)",
        "The file {0} refers to something that isn't there.",
        "A node, element, material or row number is out of range. " + _CHECK,
    ),
    (
        r"Incompatible preprocessed files.*",
        "The file mxs.lcdata has another format number than 128.",
        "Prepare the directory anew with a matching preprocessor.",
    ),
    (
        r"Structure with no degrees of freedom.*",
        "Nothing can move: every component is fixed, no element is active, or the first load "
        "case has the constraint pattern 0.",
        _CHECK,
    ),
    (
        r"No convergence in static response analysis process\.",
        f"The solution did not converge: its quality is below {STOP_QUALITY}, and the run stopped.",
        "Look for a part without enough supports or for distorted elements with `vkctl check`. "
        "In iterative mode, `--mode direct` is the stronger choice if memory allows.",
    ),
    (
        r"Convergence problems in static response analysis process\.",
        f"A solution is poor: its quality is below {POOR_QUALITY}.",
        "Results were written, but no start vector for another run. Use `--mode direct`, or look "
        "for thin or badly shaped elements and nearly missing supports with `vkctl check`.",
    ),
    (
        r"Bad command line: (.*) in file: (.*)",
        'A value in the options file can\'t be read: "{0}".',
        "Write it as key=number; an integer key takes no decimal point.",
    ),
    (r"Error allocating.*", "There was not enough memory.", _MEMORY),
    (
        r"Unexpected end of the run\.",
        "A library of the solver gave up, most likely for lack of memory or threads.",
        _MEMORY,
    ),
    (
        r"No progress in a library\.",
        "A library of the solver waited for something that never came, most likely memory.",
        _MEMORY,
    ),
    (
        r"(?:Stiffness matrix reorder phase error|Stiffness matrix factorization error)"
        r"\. (?:Not enough memory|32-bit integer overflow).*",
        "The sparse factor needs more memory than there is.",
        _MEMORY,
    ),
    (
        r"Stiffness matrix (?:factorization|reorder phase) error\..*(?:Zero pivot|singular).*",
        "The stiffness matrix can't be factorised: it is singular or not positive definite.",
        "A part without enough supports, or an element turned inside out: `vkctl check` tells "
        "which.",
    ),
    (
        r"Stiffness matrix (?:factorization|reorder phase) error\..*",
        "The stiffness matrix can't be factorised.",
        _FACTOR,
    ),
    (
        r"SLE solution phase error\..*",
        "Solving with the sparse factor failed.",
        "Expect a poor solution; run again with `--mode iterative`.",
    ),
    (
        r"SLE solver memory release phase error\..*",
        "Memory of the sparse factor could not be released.",
        "The results are not affected.",
    ),
    (
        r"Error (?:closing|flushing) file(?: ?unit)?: (.*)",
        "A file could not be written completely.",
        "Is there space on the disk, and is the quota kept?",
    ),
]


def explain_message(text: str) -> Advice:
    """Sentence and hint for the text of an error or warning line of the log."""
    for pattern, sentence, hint in _MESSAGES:
        if match := re.fullmatch(pattern, text.strip()):
            return Advice(sentence.format(*match.groups()), hint, text)
    return Advice(f"The solver reports: {text}", "", text)


STOPPED_STATUS = 242  # of a run that ended with an error line

_STATUSES = {
    0: Advice("The run ended normally."),
    126: Advice("The solver can't be executed.", "Is the file a program for this machine?"),
    127: Advice("The solver was not found.", "Give its path with --vk-rund or in VK_RUND."),
    233: Advice("The solver was started with wrong arguments.", "It takes one: the directory."),
    236: Advice("The solver can't enter the directory.", "Does it exist, and may you enter it?"),
    237: Advice(
        "The solver can't write its log, or another run works on the directory.",
        "Is the directory writable, and is there space on the disk?",
    ),
    STOPPED_STATUS: Advice(
        "The solver stopped with an error.", "The last line of the log tells which."
    ),
}

RESTART = "Start it again: load cases that are done stay done."
_SIGNALS = {
    signal.SIGKILL: (
        "was killed (SIGKILL)",
        "If nobody did, the system ran out of memory: lower Sys.AvailableMemGB or use "
        "`--mode iterative`. " + RESTART,
    ),
    signal.SIGSEGV: (
        "crashed (SIGSEGV)",
        "Check the input with `vkctl check`; if it finds no error, report the crash with the "
        "directory.",
    ),
    signal.SIGBUS: (
        "crashed (SIGBUS)",
        "Often the disk or a memory file system is full. " + RESTART,
    ),
    signal.SIGABRT: ("crashed (SIGABRT)", "Report it with the directory and what was printed."),
    signal.SIGILL: (
        "crashed (SIGILL)",
        "The program holds instructions that this processor doesn't know: build it here.",
    ),
    signal.SIGFPE: ("crashed (SIGFPE)", "Report it with the directory."),
    signal.SIGINT: ("was interrupted (SIGINT)", RESTART),
    signal.SIGTERM: ("was told to end (SIGTERM)", RESTART),
    signal.SIGHUP: ("lost its terminal (SIGHUP)", RESTART),
    signal.SIGXCPU: ("used up its processor time (SIGXCPU)", "Raise the limit. " + RESTART),
}


def explain_status(status: int) -> Advice:
    """Sentence and hint for an exit status.

    Signals may come as negative numbers, as subprocess has them, or as 128 + number, as shells do.
    """
    if status < 0 or 128 < status <= 128 + signal.NSIG:
        return explain_signal(-status if status < 0 else status - 128)
    known = _STATUSES.get(status)
    return known or Advice(
        f"The solver ended with status {status}, which it never does of its own.",
        "Is it really vk_rund that was started?",
    )


def explain_signal(number: int) -> Advice:
    """Sentence and hint for the signal that ended the solver."""
    try:
        kind = signal.Signals(number)
    except ValueError:
        return Advice(f"The solver was ended by signal {number}.", RESTART)
    what, hint = _SIGNALS.get(kind, (f"was ended by {kind.name}", RESTART))
    return Advice(f"The solver {what}.", hint)
