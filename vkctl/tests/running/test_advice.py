"""Running the solver: results, live progress, and every way a run can end badly."""

import signal

import pytest

from vkctl.running.advice import explain_message, explain_status


@pytest.mark.parametrize(
    ("message", "words"),
    [
        ("Error opening file: vk_rund_cmd.txt", "options file"),
        ("Error opening file: mx.nodes", "mx.nodes is missing"),
        ("Error opening file: ws.tcval.0001", "can't be opened"),
        ("Error reading file: mxs.sadr", "shorter than its counts"),
        ("Invalid index in file: mx.elems", "refers to something"),
        ("Incompatible preprocessed files. Run preprocesor again.", "format number"),
        (
            "Structure with no degrees of freedom. Check displacement boundary conditions.",
            "Nothing can move",
        ),
        ("No convergence in static response analysis process.", "did not converge"),
        ("Convergence problems in static response analysis process.", "poor"),
        ("Bad command line: Sta.BStressExp=x in file: vk_rund_cmd.txt", '"Sta.BStressExp=x"'),
        ("Error allocating arrays.", "memory"),
        ("Error allocating pC and pR arrays.", "memory"),
        ("Error allocating work arrays.", "memory"),
        ("Unexpected end of the run.", "memory or threads"),
        ("No progress in a library.", "most likely memory"),
        ("Stiffness matrix factorization error. Not enough memory.", "more memory"),
        ("Stiffness matrix factorization error. Zero pivot or refinement problem.", "singular"),
        ("Stiffness matrix reorder phase error. Reordering failed.", "can't be factorised"),
        ("SLE solution phase error. Inconsistent input.", "sparse factor failed"),
        ("SLE solver memory release phase error. Reordering problem.", "not be released"),
        ("Error closing fileunit: 200", "written completely"),
        ("Error flushing file unit: 400", "written completely"),
        ("something new", "The solver reports: something new"),
    ],
)
def test_every_message_of_the_log_has_its_sentence(message, words):
    advice = explain_message(message)
    assert words in advice.sentence
    assert advice.original == message
    assert advice.hint or message == "something new"


@pytest.mark.parametrize(
    ("status", "words"),
    [
        (0, "ended normally"),
        (233, "wrong arguments"),
        (236, "can't enter the directory"),
        (237, "can't write its log"),
        (242, "stopped with an error"),
        (127, "not found"),
        (-signal.SIGKILL, "killed (SIGKILL)"),
        (128 + signal.SIGSEGV, "crashed (SIGSEGV)"),
        (-signal.SIGUSR1, "SIGUSR1"),
        (7, "status 7"),
    ],
)
def test_every_exit_status_has_its_sentence(status, words):
    assert words in explain_status(status).sentence
