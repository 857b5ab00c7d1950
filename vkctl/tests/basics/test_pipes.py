"""Writing to processes that have ended."""

from __future__ import annotations

import subprocess
import sys

_WRITING = """
import signal, subprocess
from vkctl.basics.pipes import whoever_reads
signal.signal(signal.SIGPIPE, signal.{how})
ended = subprocess.Popen(["true"], stdin=subprocess.PIPE)
ended.wait()
for _ in range(2):
    {guard}:
        ended.stdin.write(b"x" * 100_000)
        ended.stdin.flush()
with whoever_reads():
    ended.stdin.close()
assert signal.pthread_sigmask(signal.SIG_BLOCK, []) == set()
assert signal.SIGPIPE not in signal.sigpending()
print("went on")
"""


def written(how: str, guard: str = "with whoever_reads()") -> tuple[int, str]:
    program = _WRITING.format(how=how, guard=guard)
    done = subprocess.run([sys.executable, "-c", program], stdout=subprocess.PIPE, text=True)
    return done.returncode, done.stdout


def test_a_process_goes_on_when_nobody_reads_what_it_writes() -> None:
    assert written("SIG_IGN") == (0, "went on\n")


def test_it_goes_on_though_a_library_has_the_signal_end_it() -> None:
    assert written("SIG_DFL") == (0, "went on\n")
    assert written("SIG_DFL", "if True") == (-13, "")  # as it would be otherwise
