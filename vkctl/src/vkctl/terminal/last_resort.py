"""What ends a command that nobody has foreseen: one line, and a status that tells it apart."""

from __future__ import annotations

import os
import sys
import traceback
from collections.abc import Iterator
from contextlib import contextmanager

import typer

from .refusal import refuse

UNEXPECTED = 70  # as for an internal error of a program
INTERRUPTED = 130
UNREAD = 141  # as a signal says it that a pipe's reader has gone
_LONGEST = 300  # characters of an error's own text

_wants_details = False


def show_details(wanted: bool) -> None:
    """Whether a failure that nobody expected shows where it came from."""
    global _wants_details
    _wants_details = wanted


@contextmanager
def guarded() -> Iterator[None]:
    """Let nothing out of the block but what ends a command in one line, with its status."""
    try:
        try:
            yield
        finally:
            if sys.stdout is not None:
                sys.stdout.flush()  # what can't be written is told here, not while Python ends
    except (typer.Exit, typer.Abort, typer.BadParameter):
        raise
    except KeyboardInterrupt:
        raise refuse("Interrupted.", INTERRUPTED) from None
    except BrokenPipeError:
        _abandon_output()
        raise typer.Exit(UNREAD) from None
    except MemoryError:
        raise refuse("There is not enough memory for this.") from None
    except OSError as error:
        _abandon_output()
        raise refuse(error) from None
    except Exception as error:
        raise unexpected(error) from None


def unexpected(error: Exception) -> typer.Exit:
    """Tell of a failure that is a defect of vkctl; the caller raises what comes back."""
    if _wants_details:
        traceback.print_exception(error)
    words = " ".join(str(error).split())[:_LONGEST]
    what = f"{type(error).__name__}: {words}" if words else type(error).__name__
    hint = "" if _wants_details else " `vkctl --debug ...` shows where it comes from."
    return refuse(f"vkctl has failed, which is a defect of its own: {what}.{hint}", UNEXPECTED)


def _abandon_output() -> None:
    """Where standard output takes no more, Python would fail again over what is left to write."""
    try:
        sys.stdout.flush()
    except OSError:
        nowhere = os.open(os.devnull, os.O_WRONLY)
        os.dup2(nowhere, sys.stdout.fileno())
        os.close(nowhere)
