"""The program `vkctl`; `python -m vkctl` is the same."""

from __future__ import annotations

import atexit
import gc
import signal
import sys

from vkctl.basics.interrupt import quit_at_once


def main() -> None:
    """Run the command line.

    Loading it takes a while, in which Ctrl-C ends the program at once; so it does until a command
    begins, and after it has ended.
    """
    atexit.register(_leave_garbage)
    if signal.getsignal(signal.SIGINT) is signal.default_int_handler:
        signal.signal(signal.SIGINT, quit_at_once)
    from vkctl.cli import app
    from vkctl.terminal.last_resort import guarded

    for stream in (sys.stdout, sys.stderr):
        if hasattr(stream, "reconfigure"):
            stream.reconfigure(errors="backslashreplace")  # names may hold any byte
    arguments = sys.argv[1:]
    for switch in ("--debug", "--quiet"):
        if switch in arguments:  # wherever it stands
            arguments = [switch, *(word for word in arguments if word != switch)]
    try:
        with guarded():
            app(args=arguments, prog_name="vkctl")
    except Exception as end:
        raise SystemExit(getattr(end, "exit_code", 1)) from None


def _leave_garbage() -> None:
    """Looking for it would take up to 0.4 s of the end."""
    if "_duckdb" not in sys.modules:  # which prints what of its own is left
        gc.freeze()


if __name__ == "__main__":
    main()
