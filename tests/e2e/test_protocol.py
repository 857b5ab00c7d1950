"""Arguments, exit statuses, options and the choice of load cases."""

from __future__ import annotations

import os
import platform
import signal
import subprocess
from pathlib import Path

import numpy as np
import oracle
import pytest
from models import STEEL, part, pulled, tiny, tiny_case, written
from program_under_test import Outcome
from runs import (
    BAD_ARGUMENTS,
    BAD_DIRECTORY,
    BAD_LOG,
    BAD_RUN,
    LOG,
    OPTIONS,
    check_lines,
    clear_done,
    compare_files,
    fails,
    lcflags,
    limit_files,
    log_lines,
    run,
    solves,
    start,
    stopped,
)

from vkctl.directory.model import LoadCase, Material

NO_EQUATIONS = "Structure with no degrees of freedom. Check displacement boundary conditions."
UNCONVERGED = "No convergence in static response analysis process."
PIVOT = "Stiffness matrix factorization error. Zero pivot or refinement problem."

# --- arguments and statuses -----------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [(), (".", "."), ("--help", "--version"), ("a", "b", "c")])
def test_any_number_of_arguments_but_one_is_refused(tmp_path, arguments):
    stopped(start(*arguments, cwd=tmp_path), BAD_ARGUMENTS)
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("name", ["nowhere", "a/b", "-h", "--Help", "--version ", "a b"])
def test_a_directory_that_cannot_be_entered_is_named(tmp_path, name):
    reason = stopped(start(name, cwd=tmp_path), BAD_DIRECTORY)
    assert reason == f'cannot enter directory "{name}" (No such file or directory)'
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("name", ["", "   "])
def test_an_empty_name_is_no_directory(tmp_path, name):
    stopped(start(name, cwd=tmp_path), BAD_DIRECTORY)
    assert list(tmp_path.iterdir()) == []


def test_a_file_is_no_directory(tmp_path):
    Path(tmp_path, "file").touch()
    reason = stopped(start("file", cwd=tmp_path), BAD_DIRECTORY)
    assert reason == 'cannot enter directory "file" (Not a directory)'


@pytest.mark.parametrize("name", ["   work", "./--help", "w" * 255, "./" * 254 + "work"])
def test_leading_blanks_odd_and_long_names_are_fine(tmp_path, name):
    tiny(tmp_path / name.lstrip(" "))
    assert start(name, cwd=tmp_path) == Outcome(0, "", "")


EXACT = "./" * 254 + "work"  # as long a name as is read


@pytest.mark.parametrize("slashes", [1, 2, 5000])
def test_slashes_behind_the_longest_name_change_nothing(tmp_path, slashes):
    assert len(EXACT) == 512
    tiny(tmp_path / "work")
    assert start(EXACT + "/" * slashes, cwd=tmp_path) == Outcome(0, "", "")


@pytest.mark.parametrize(
    "name", [EXACT + "shop", EXACT + "/sub", EXACT + " ", EXACT + "/ /", " " + EXACT, "/" + EXACT]
)
def test_a_name_that_would_be_cut_to_another_is_no_directory(tmp_path, name):
    """Whatever exists: the part that is read, the whole, or both."""
    for folder in ("work", "workshop", "work/sub", "work ", "work/ "):
        (tmp_path / folder).mkdir(exist_ok=True)
        tiny(tmp_path / folder)
    before = sorted(tmp_path.rglob("*"))
    reason = stopped(start(name, cwd=tmp_path), BAD_DIRECTORY)
    assert reason == f'cannot enter directory "{name[:512]}...": longer than 512 characters'
    assert sorted(tmp_path.rglob("*")) == before


def test_blanks_that_fill_what_is_read_of_a_name_are_no_directory(tmp_path):
    stopped(start(" " * 512 + "work", cwd=tmp_path), BAD_DIRECTORY)
    stopped(start(" " * 512 + "/", cwd=tmp_path), BAD_DIRECTORY)


@pytest.mark.parametrize("question", ["--help", "--version"])
def test_help_and_version_are_answered_on_standard_output(tmp_path, question):
    outcome = start(question, cwd=tmp_path)
    assert (outcome.status, outcome.err) == (0, "")
    assert "vk_rund" in outcome.out
    assert list(tmp_path.iterdir()) == []


def test_the_version_tells_the_maths_library():
    answer = start("--version").out.lower()
    assert "mkl" in answer or "open" in answer


def test_a_log_that_cannot_be_opened_stops_the_run(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, LOG).mkdir()
    stopped(start(directory), BAD_LOG)
    assert list(directory.glob("ws.*")) == []


def test_a_log_on_a_full_device_stops_the_run(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, LOG).symlink_to("/dev/full")
    stopped(start(directory), BAD_LOG)
    assert list(directory.glob("ws.*")) == []


def test_a_log_that_cannot_grow_any_more_stops_the_run(tmp_path, program):
    directory = tiny(tmp_path)
    first = run(directory)
    size = len("\n".join(first[:8]))
    clear_done(directory)
    # Counts of executed lines, in a build that takes them, can't be written either: leave them out.
    counts = {"GCOV_PREFIX": str(tmp_path / "counts"), "GCOV_ERROR_FILE": os.devnull}
    done = subprocess.run(
        [program, directory],
        capture_output=True,
        text=True,
        check=False,
        env={**os.environ, **counts},
        restore_signals=False,  # a write beyond the limit then fails instead of killing
        preexec_fn=lambda: limit_files(size),
    )
    assert signal.getsignal(signal.SIGXFSZ) == signal.SIG_IGN
    stopped(Outcome(done.returncode, done.stdout, done.stderr), BAD_LOG)
    assert Path(directory, LOG).stat().st_size <= size
    assert lcflags(directory)[0] == [1]


FLUSH_BITS = {"x86_64": 0x8040, "aarch64": 1 << 24}[platform.machine()]


@pytest.mark.parametrize("arguments", [(), ("--help",), ("nowhere",), (".",)])
def test_denormals_are_flushed_before_the_program_does_anything_else(
    tmp_path, register_preload, arguments
):
    directory = tiny(tmp_path / "work")
    target = tmp_path / "registers"
    start(*arguments, cwd=directory, LD_PRELOAD=register_preload, REGISTER_LOG=str(target))
    notes = [line.split() for line in target.read_text().splitlines()]
    assert notes[0][0] in ("signal", "sigaction", "atexit"), "what the program does first"
    for function, value in notes:
        assert int(value, 16) & FLUSH_BITS == FLUSH_BITS, function


# --- options --------------------------------------------------------------------------------------


def optioned(directory: Path) -> Path:
    """A model on which every option has its effect."""
    model, mesh = part()
    model.materials = [STEEL, Material.yielding(1000.0, 0.3, 3.0, hardening_ratio=0.2)]
    model.elements.materials[::3] = 2
    case = pulled(mesh).support(mesh.face("x+"), offsets=0.01)
    return written(directory, model, case)


DEFAULTS: dict[str, float] = {}
BOTH = {"Sta.BStressExp": 3, "Sys.ComputationMode": 1}


@pytest.mark.parametrize(
    ("text", "meaning"),
    [
        ("", DEFAULTS),
        ("* Sta.BStressExp=x\n*\n\n   \n", DEFAULTS),
        ("Sta.BStressExp=7", {"Sta.BStressExp": 7}),
        ("   Sta.BStressExp   =   7   and more = 8\n", {"Sta.BStressExp": 7}),
        ("Sta.BStressExponent=3\n", {"Sta.BStressExp": 3}),
        ("Sta.BStressExp of the part=3,9\n", {"Sta.BStressExp": 3}),
        ("Sta.BStressExp=+5/6\n", {"Sta.BStressExp": 5}),
        ("Sta.BStressExp=3\nSta.BStressExp=6\n", {"Sta.BStressExp": 6}),
        ("Sta.BStressExp=3\nSta.BStressExp=,6\n", {"Sta.BStressExp": 3}),
        ("Sta.BStressExp=/\n", DEFAULTS),
        ("sta.bstressexp=3\nSta.Bstressexp=x\n", DEFAULTS),
        ("My Sta.BStressExp=3\nUnknown=x\nnothing at all\n=\n", DEFAULTS),
        ("Sta.BStressExp=0\n", {"Sta.BStressExp": 1}),
        ("Sta.BStressExp=30\n", {"Sta.BStressExp": 24}),
        ("Sta.MatSlopeFactor=1\n", {"Sta.MatSlopeFactor": 10.0}),
        ("Sta.MatSlopeFactor=1E9\n", {"Sta.MatSlopeFactor": 10000.0}),
        ("Sta.MatSlopeFactor=2.5e2\n", {"Sta.MatSlopeFactor": 250.0}),
        ("Sta.MatSlopeFactor=2.5d+2\n", {"Sta.MatSlopeFactor": 250.0}),
        ("Sta.MatSlopeFactor=.25+3\n", {"Sta.MatSlopeFactor": 250.0}),
        ("Sta.MatSlopeFactor=25.\n", {"Sta.MatSlopeFactor": 25.0}),
        ("Sta.SupportStiffness=-5\n", {"Sta.SupportStiffness": 0.0}),
        ("Sta.SupportStiffness=80\n", {"Sta.SupportStiffness": 80.0}),
        ("Sta.YieldStressFac=-1\n", {"Sta.YieldStressFac": 0.0}),
        ("Sta.YieldStressFac=.5\n", {"Sta.YieldStressFac": 0.5}),
        ("Sta.TopCriteriaCode=9\n", {"Sta.TopCriteriaCode": 1}),
        ("Sta.TopCriteriaCode=-9\n", {"Sta.TopCriteriaCode": 0}),
        ("Sys.ComputationMode=7\n", {"Sys.ComputationMode": 2}),
        ("Sys.ComputationMode=-1\n", {"Sys.ComputationMode": 0}),
        ("Sys.ComputationMode=1\n", {"Sys.ComputationMode": 1}),
        ("Sys.MaxNumCompThreads=-100\n", {"Sys.MaxNumCompThreads": 1}),
        ("Sys.MaxNumCompThreads=100\n", {"Sys.MaxNumCompThreads": 16}),
        ("Sta.BStressExp=3" + " " * 600 + "x\nSys.ComputationMode=1", BOTH),
        (" " * 507 + "Sta.BStressExp=3\n", DEFAULTS),
        ("Sta.BStressExp" + "-" * 496 + "=12\n", {"Sta.BStressExp": 1}),
    ],
)
def test_the_options_file_is_read_by_its_rules(tmp_path, text, meaning):
    directory = optioned(tmp_path)
    path = Path(directory, OPTIONS)
    path.write_text("".join(f"{key}={value}\n" for key, value in meaning.items()))
    expected = oracle.simulate(directory)
    path.write_text(text)
    lines = run(directory)
    compare_files(directory, expected)
    mode = int(expected.options["Sys.ComputationMode"])
    assert f"Info<Msg:IMode: {mode or 2}>" in lines
    assert any("EstDecMemReq" in line for line in lines) == (mode != 1)


@pytest.mark.parametrize("factor", ["0.99", "1", "1000"])
def test_the_blending_factor_stays_below_one(tmp_path, factor):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh), Sta_ResponseDumpFac=0.99)
    old = np.full(len(model.tp), 1e4, "<f4")
    Path(directory, "ws.tcval.0001").write_bytes(np.int32(len(old)).tobytes() + old.tobytes())
    expected = oracle.simulate(directory)
    Path(directory, OPTIONS).write_text(f"Sta.ResponseDumpFac={factor}\n")
    run(directory)
    compare_files(directory, expected)


@pytest.mark.parametrize(
    "line",
    [
        "Sta.BStressExp=x",
        "Sta.BStressExp",
        "Sta.BStressExp=",
        "Sta.BStressExp=   ",
        "Sta.BStressExp" + "-" * 495 + "=",
        "Sta.BStressExp=1.5",
        "Sta.BStressExp=1x",
        "Sta.BStressExp=- 1",
        "Sta.BStressExp=99999999999",
        "Sta.MatSlopeFactor=1..2",
        "Sta.MatSlopeFactor=e5",
        "Sta.MatSlopeFactor=5E",
        "Sta.MatSlopeFactor=*",
        "Sys.AvailableMemGB=8GB",
        "Sys.MaxNumCompThreads =two, or three",
    ],
)
def test_a_value_that_cannot_be_read_ends_the_run_with_its_line(tmp_path, line):
    directory = tiny(tmp_path)
    Path(directory, OPTIONS).write_text(f"Sys.ComputationMode=1\n  {line}\nSta.BStressExp=4\n")
    lines = fails(directory, f"Bad command line: {line.strip()} in file: {OPTIONS}")
    assert lines[:-1] == list(oracle.FIRST_LINES)


# --- the load-case tables -------------------------------------------------------------------------


@pytest.mark.parametrize("number", [127, 0, -128, 128 << 8])
def test_another_format_number_ends_the_run_before_anything_is_read(tmp_path, number):
    directory = tiny(tmp_path)
    path = Path(directory, "mxs.lcdata")
    data = path.read_bytes()
    path.write_bytes(data[:4] + np.int32(number).tobytes() + data[8:])
    Path(directory, "mx.mats").unlink()
    lines = fails(directory, "Incompatible preprocessed files. Run preprocesor again.")
    assert lines[:-1] == list(oracle.FIRST_LINES)


@pytest.mark.parametrize("count", [0, -1])
def test_without_load_cases_the_run_ends_normally(tmp_path, count):
    directory = tiny(tmp_path)
    path = Path(directory, "mxs.lcflags")
    path.write_bytes(np.int32(count).tobytes())
    check_lines(run(directory), oracle.whole_log([]))
    assert path.read_bytes() == np.int32(count).tobytes()
    assert list(directory.glob("ws.*")) == []


def test_the_model_is_loaded_even_without_load_cases(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.lcflags").write_bytes(bytes(4))
    Path(directory, "mxs.tp").unlink()
    fails(directory, "Error opening file: mxs.tp")


def test_the_count_of_the_flags_decides_how_many_load_cases_there_are(tmp_path):
    directory = tiny(tmp_path, tiny_case(), tiny_case())
    Path(directory, "mxs.lcflags").write_bytes(np.array((1, 1, 0), "<i4").tobytes())
    lines = run(directory)
    assert [line for line in lines if "LCaseId" in line] == ["Data<Key:LCaseId><Value:1>"]
    assert Path(directory, "mxs.lcflags").read_bytes() == np.array((1, 3, 0), "<i4").tobytes()


def test_values_and_other_bits_beside_the_flags_are_carried_along(tmp_path):
    cases = [tiny_case(flags=f, value=v) for f, v in ((1, 0.1), (4, -2.5), (0x70FFFFF9, 1e30))]
    directory = tiny(tmp_path, *cases)
    run(directory)
    flags, values = lcflags(directory)
    assert flags == [3, 4, 0x70FFFFFB]
    assert values == [float(np.float32(v)) for v in (0.1, -2.5, 1e30)]


def test_flags_are_rewritten_after_each_load_case(tmp_path):
    directory = tiny(tmp_path, tiny_case(), tiny_case(), tiny_case())
    Path(directory, "mxs.lcmap.0002").unlink()
    fails(directory, "Error opening file: mxs.lcmap.0002")
    assert lcflags(directory)[0] == [3, 1, 1]
    assert not list(directory.glob("ws.*.0002"))


def test_what_a_skipped_load_case_would_read_is_not_looked_at(tmp_path):
    directory = tiny(tmp_path, tiny_case(), tiny_case(flags=3), tiny_case(kind=0))
    Path(directory, "mxs.lcmap.0002").unlink()
    Path(directory, "mxs.lcmap.0003").write_bytes(b"rubbish")
    run(directory)
    assert lcflags(directory)[0] == [3, 3, 1]


def test_a_first_pattern_of_zero_has_no_degrees_of_freedom(tmp_path):
    lines = fails(tiny(tmp_path, tiny_case(0)), NO_EQUATIONS)
    check_lines(lines[2:-1], ["Data<Key:LCaseId><Value:1>", "Info<Msg:LCasePatInx: 0>"])


def test_a_later_pattern_of_zero_is_a_pattern(tmp_path):
    solves(tiny(tmp_path, tiny_case(-3), tiny_case(0), tiny_case(0)))


def test_a_part_held_everywhere_has_no_degrees_of_freedom(tmp_path):
    case = LoadCase().prescribe((1, 2, 3, 4, 5), "xyz", 0.1)
    lines = fails(tiny(tmp_path, case), NO_EQUATIONS)
    check_lines(lines[2:-1], ["Data<Key:LCaseId><Value:1>", "Info<Msg:LCasePatInx: 1>"])
    assert lcflags(tmp_path)[0] == [1]


def test_a_model_without_live_elements_has_no_degrees_of_freedom(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "mxs.elemflags").write_bytes(np.array((2, 1 << 2 | 1 << 24), "<i4").tobytes())
    fails(directory, NO_EQUATIONS)


def test_a_model_of_no_nodes_has_no_degrees_of_freedom(tmp_path):
    directory = tiny(tmp_path, LoadCase())
    for name, words in {
        "mx.mats": (0, 0),
        "mx.nodes": (0, 0),
        "mxs.nodeflags": (0,),
        "mxs.tpadr": (0,),
        "mx.elems": (0, 0, 0, 0, 0),
        "mxs.elemflags": (0,),
    }.items():
        Path(directory, name).write_bytes(np.array(words, "<i4").tobytes())
    fails(directory, NO_EQUATIONS)


# --- solves that fail -----------------------------------------------------------------------------


def floating(directory: Path, mode: int) -> Path:
    """A part without any support under a load: 36 nodes, 108 equations."""
    model, mesh = part(level=False)
    case = LoadCase().load(mesh.face("x+"), (1.0, 2.0, 3.0))
    return written(directory, model, case, Sys_ComputationMode=mode)


def check_unconverged(lines: list[str], limit: int) -> None:
    """The last lines tell the exhausted iterations and a quality below one half."""
    assert lines[-3] == f"Info<Msg:ICount: -{limit}>"
    key, value = lines[-2].split("><Value:")
    assert key == "Data<Key:ARQua"
    assert 0 <= float(value[:-1]) < 0.5
    assert lines[-1] == f"Error<Msg:{UNCONVERGED}>"


def test_a_part_that_floats_stops_an_iterative_run_without_results(tmp_path):
    lines = fails(floating(tmp_path, 1), UNCONVERGED)
    check_unconverged(lines, 1000 + 108 // 10)
    assert list(tmp_path.glob("ws.*")) == []
    assert lcflags(tmp_path)[0] == [1]


def test_a_part_that_floats_stops_a_direct_run_without_results(tmp_path):
    # A singular matrix is found by the factor or, where rounding hides it, by the iteration.
    stopped(start(floating(tmp_path, 2)), BAD_RUN)
    lines = log_lines(tmp_path)
    if lines[-1] != f"Error<Msg:{PIVOT}>":
        check_unconverged(lines, 300)
    assert list(tmp_path.glob("ws.*")) == []
    assert lcflags(tmp_path)[0] == [1]


def test_flat_elements_are_no_error_of_their_own_but_a_quality_of_zero(tmp_path):
    model, mesh = part(level=False)
    model.nodes[:, 2] = 0.0
    directory = written(tmp_path, model, pulled(mesh), Sys_ComputationMode=1)
    lines = fails(directory, UNCONVERGED)
    assert lines[-2] == "Data<Key:ARQua><Value:0.000000E+00>"


@pytest.mark.parametrize("value", [np.nan, np.inf])
def test_a_prescribed_value_that_is_no_number_is_a_quality_of_zero(tmp_path, value):
    model, mesh = part(level=False)
    case = pulled(mesh).prescribe(mesh.face("x+")[:1], "y", value)
    directory = written(tmp_path, model, case, Sys_ComputationMode=1)
    lines = fails(directory, UNCONVERGED)
    assert lines[-2] == "Data<Key:ARQua><Value:0.000000E+00>"


def test_results_of_an_earlier_run_outlast_a_failure(tmp_path):
    model, mesh = part(level=False)
    directory = written(tmp_path, model, pulled(mesh), Sys_ComputationMode=1)
    run(directory)
    before = {path.name: path.read_bytes() for path in directory.glob("ws.*")}
    written(directory, model, LoadCase().load(mesh.face("x+"), (1.0, 0.0, 0.0)))
    fails(directory, UNCONVERGED)
    assert {path.name: path.read_bytes() for path in directory.glob("ws.*")} == before


def unstable(directory: Path, mode: int) -> Path:
    """A negative shear modulus: a matrix of positive diagonal that is not definite."""
    model, mesh = part(level=False)
    model.materials = [Material.orthotropic((1000.0,) * 3, (0.2,) * 3, (-50.0,) * 3)]
    return written(directory, model, pulled(mesh), Sys_ComputationMode=mode)


def test_a_pivot_that_is_not_positive_stops_a_direct_run(tmp_path):
    lines = fails(unstable(tmp_path, 2), PIVOT)
    assert lines[-2] == f"Warning<Msg:{PIVOT}>"
    assert not [line for line in lines if "IMode" in line]


def test_a_pivot_that_is_not_positive_makes_an_automatic_run_iterative(tmp_path):
    directory = unstable(tmp_path, 0)
    expected = oracle.simulate(directory)
    lines = run(directory)
    compare_files(directory, expected)
    at = lines.index(f"Warning<Msg:{PIVOT}>")
    assert "EstDecMemReq" in lines[at - 1]
    assert lines[at + 1] == "Info<Msg:IMode: 1>"
