"""Stand-ins for the solver: scripts that write a log and end as they are told."""

import os
import sys
from contextlib import contextmanager
from pathlib import Path

import pytest

from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.running import processes
from vkctl.shapes.boxes import box

# Takes the lock of the directory and goes on as the same process.
_LOCK = (
    "import fcntl, os, sys; "
    "d = os.open(sys.argv[2], os.O_RDONLY); "
    "fcntl.flock(d, fcntl.LOCK_EX | fcntl.LOCK_NB); "
    "os.dup2(d, 9); "
    "os.execv(sys.argv[1], sys.argv[1:])"
)

HEAD = ["Info<Msg:Tool.vk_rund.Start >", "Info<Msg:Eng x64 TLMx/IC/ID Build 2018.06.03 >"]
TAIL = ["Info<Msg:Total time: 00:00:02.000 >", "Info<Msg:Tool.vk_rund.End >"]


def begun(number, pattern=1):
    """Lines of a load case that has begun."""
    return [f"Data<Key:LCaseId><Value:{number}>", f"Info<Msg:LCasePatInx: {pattern}>"]


def finished(number, pattern=1, quality=1.0, iterations=2, seconds=1.5, warnings=()):
    """Lines of a load case that has been solved."""
    return [
        *begun(number, pattern),
        "Info<Msg:IMode: 2>",
        f"Info<Msg:ICount: {iterations}>",
        f"Data<Key:ARQua><Value:{quality:.6E}>",
        *(f"Warning<Msg:{text}>" for text in warnings),
        "Data<Key:SEner><Value:1.000000E+00>",
        f"Info<Msg:LCaseTime: 00:00:{seconds:06.3f} >",
    ]


def write_log(directory, lines):
    """Put a log of these lines in place of the one that is there."""
    text = "".join(line + "\n" for line in lines)
    Path(directory, "vk_rund_log.txt").write_text(text)


def small_box(directory, load_cases=2, material=None):
    """A working directory of a box of a few elements; its load cases share a pattern."""
    part = box("tet4", (3, 1, 1))
    cases = []
    for number in range(1, load_cases + 1):
        case = LoadCase(pattern=1).load(*part.traction("x+", (0, 0, -float(number))))
        cases.append(case.prescribe(part.face("x-")))
    materials = [material or Material.isotropic(1000.0, 0.3)]
    write(Model(part.nodes, part.elements, materials, cases), directory)
    return part


def fake_solver(path, lines, ending="exit 0"):
    """Shell script that writes these log lines, then runs `ending`; it holds lock and log."""
    lock = f'[ -n "$HELD" ] || exec env HELD=1 {sys.executable} -c "{_LOCK}" "$0" "$1"\n'
    words = "\n".join(f"echo '{line}' >&3" for line in lines)
    path.write_text(f'#!/bin/sh\n{lock}cd "$1"\nexec 3>vk_rund_log.txt\n{words}\n{ending}\n')
    os.chmod(path, 0o755)
    return path


def lasting_solver(path):
    """Goes on until a file `seen` lies in its directory; files tell that it has begun and ended."""
    ending = "touch begun\nwhile [ ! -e seen ]; do sleep 0.01; done\ntouch ended"
    return fake_solver(path, HEAD, ending)


@contextmanager
def ended_when_seen(directory):
    """Inside of the block such a solver ends once somebody here has found it at work."""
    look = processes.worker_on

    def looked(where):
        found = look(where)
        if found is not None:
            Path(directory, "seen").touch()
        return found

    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(processes, "worker_on", looked)
        try:
            yield
        finally:
            Path(directory, "seen").touch()
