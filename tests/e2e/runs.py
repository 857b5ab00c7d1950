"""Running the program, and comparing what it left behind with the oracle."""

from __future__ import annotations

import re
import resource
import struct
from collections.abc import Sequence
from pathlib import Path

import numpy as np
import oracle
import program_under_test
from program_under_test import Outcome

LOG = "vk_rund_log.txt"
OPTIONS = "vk_rund_cmd.txt"
BAD_ARGUMENTS, BAD_DIRECTORY, BAD_LOG, BAD_RUN = 1001, 1004, 1005, 1010
TIMEOUT = 120

# Two results of equal displacements differ by what float32 displacements leave of a strain.
SAME = 3e-5


def start(*arguments: str | Path, cwd: str | Path | None = None, **environment: str) -> Outcome:
    """Run the program with any arguments, for no longer than a test may take."""
    return program_under_test.start(*arguments, cwd=cwd, timeout=TIMEOUT, **environment)


def run(directory: Path, **environment: str) -> list[str]:
    """A run that must end normally and silently; returns the log's lines."""
    assert start(directory, cwd=None, **environment) == Outcome(0, "", "")
    return log_lines(directory)


def log_lines(directory: Path) -> list[str]:
    text = Path(directory, LOG).read_text()
    assert text.endswith("\n")
    return text.split("\n")[:-1]


def fails(directory: Path, message: str) -> list[str]:
    """A run that must end with `message` as its error line; returns the log's lines.

    On standard error a remark may follow the message.
    """
    outcome = start(directory)
    lines = log_lines(directory)
    assert lines[-1] == f"Error<Msg:{message}>"
    assert stopped(outcome, BAD_RUN).startswith(message)
    return lines


def stopped(outcome: Outcome, code: int) -> str:
    """Check status and output of a stop; returns the reason given on standard error."""
    assert outcome.status == code & 0xFF
    assert outcome.out == ""
    match = re.fullmatch(rf"{code}: (\S[^\n]*)\n", outcome.err)
    assert match, outcome.err
    return match[1]


def set_options(directory: Path, **values: float | str) -> None:
    """Append options, the point of a key written as an underscore."""
    with open(Path(directory, OPTIONS), "a") as stream:
        for key, value in values.items():
            stream.write(f"{key.replace('_', '.')}={value}\n")


def clear_done(directory: Path) -> None:
    """Request all load cases anew."""
    path = Path(directory, "mxs.lcflags")
    data = bytearray(path.read_bytes())
    count = struct.unpack_from("<i", data)[0]
    words = np.frombuffer(data, "<i4", count, 4) & ~2
    data[4 : 4 + 4 * count] = words.astype("<i4").tobytes()
    path.write_bytes(data)


def lcflags(directory: Path) -> tuple[list[int], list[float]]:
    data = oracle.Bytes(directory, "mxs.lcflags")
    count = data.int32()
    flags, values = data.array("<i4", count).tolist(), data.array("<f4", count).tolist()
    assert data.place == len(data.data)
    return flags, values


# --- results -------------------------------------------------------------------------------------


def counted(directory: Path, stem: str, number: int) -> np.ndarray:
    """Values of a result file of one count and its float32 values, whole to the byte."""
    data = oracle.Bytes(directory, oracle.numbered(stem, number))
    values = data.array("<f4", data.int32())
    assert data.place == len(data.data)
    return values


def sstate(directory: Path, number: int) -> np.ndarray:
    """Displacements (nodes, 3) of a state file."""
    data = oracle.Bytes(directory, oracle.numbered("ws.sstate", number))
    assert data.int32() == 1
    values = data.array("<f4", data.int32())
    assert data.place == len(data.data)
    return values.astype(np.float64).reshape(-1, 3)


def comval(directory: Path, number: int) -> np.ndarray:
    """The eight reals of the totals, the quality first."""
    data = oracle.Bytes(directory, oracle.numbered("ws.comval", number))
    assert (data.int32(), data.int32()) == (number, 1)
    assert len(data.data) == 40
    return data.array("<f4", 8)


def same(actual: np.ndarray, expected: np.ndarray, share: float = SAME) -> None:
    """Equal within a share of the largest expected magnitude."""
    expected = np.asarray(expected, np.float64)
    scale = np.abs(expected).max(initial=0.0)
    np.testing.assert_allclose(actual, expected, rtol=0, atol=share * scale)


def solves(directory: Path, mode: int | None = None, **environment: str) -> oracle.Run:
    """Simulate the directory, run the program on it, compare all that the run left."""
    expected = oracle.simulate(directory)
    lines = run(directory, **environment)
    compare_files(directory, expected)
    compare_log(directory, lines, expected, mode)
    return expected


def compare_files(directory: Path, expected: oracle.Run) -> None:
    for case in expected.cases:
        compare_case(directory, expected, case)
    flags, _ = lcflags(directory)
    assert flags == expected.flags.tolist()


def compare_case(directory: Path, expected: oracle.Run, case: oracle.Case) -> None:
    number = case.number
    solution = sstate(directory, number)
    compare_displacements(solution, case)
    # The response is judged at the displacements that the program found.
    response = case.inputs.at(solution)
    same(counted(directory, "ws.tcval", number), response.tcval)
    same(counted(directory, "ws.amsval", number), response.amsval)
    same(counted(directory, "ws.disval", number), response.disval, 1e-6)
    if expected.has_state:
        state = counted(directory, "ws.mstate", number)
        np.testing.assert_allclose(state, response.mstate, rtol=1e-4)
    else:
        assert not Path(directory, oracle.numbered("ws.mstate", number)).exists()
    quality, *totals = comval(directory, number)
    assert quality == 1.0
    for value, key in zip(totals[:4], oracle.TOTAL_KEYS[:4], strict=True):
        wanted = response.totals[key]
        assert abs(value - wanted) <= 2 * SAME * abs(wanted), key
    np.testing.assert_allclose(totals[4:], case.loads, rtol=1e-6, atol=1e-6)


def compare_displacements(actual: np.ndarray, case: oracle.Case) -> None:
    """Free components within what the iteration may leave, others exact in float32."""
    exact = case.displacements
    largest = np.abs(exact).max()
    assert case.bound.max() <= 0.01 * largest, "the model is too ill-conditioned to judge a solver"
    rounding = 1e-6 * largest  # float32 files and float32 material constants
    excess = np.abs(actual - exact) - case.bound - rounding
    assert excess.max() <= 0, f"node {excess.max(axis=1).argmax() + 1} is off by {excess.max()}"
    fixed = case.numbering.dof_map <= 0
    assert np.array_equal(actual[fixed], exact[fixed].astype(np.float32))


# --- the log --------------------------------------------------------------------------------------

PLACEHOLDERS = {
    "<count>": r"[1-9]\d*",
    "<real>": r"\d+\.\d{5}",
    "<time>": r"\d\d:\d\d:\d\d\.\d{3}",
}


def matches(line: str, pattern: str) -> bool:
    text = re.escape(pattern)
    for name, expression in PLACEHOLDERS.items():
        text = text.replace(re.escape(name), expression)
    return re.fullmatch(text, line) is not None


def check_lines(actual: Sequence[str], expected: Sequence[str]) -> None:
    """Every line to the character, apart from the numbers behind placeholders."""
    for line, pattern in zip(actual, expected, strict=False):
        assert matches(line, pattern), f"{line!r}, expected {pattern!r}"
    assert len(actual) == len(expected)


def compare_log(directory: Path, lines: list[str], expected: oracle.Run, mode: int | None) -> None:
    """The whole log of a run; `mode` is the resolved one where a budget changes it."""
    asked = int(expected.options["Sys.ComputationMode"])
    end_mode = mode or asked or 2
    blocks = []
    tried = asked != 1
    for case in expected.cases:
        totals = list(comval(directory, case.number))
        blocks.append(oracle.case_lines(case, end_mode, tried and case.new_matrix, totals))
        tried = end_mode != 1
    check_lines(lines, oracle.whole_log(blocks))


def limit_files(size: int) -> None:
    """For a child process: no file may grow beyond `size` bytes, unless it lifts the limit."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (size, resource.RLIM_INFINITY))
