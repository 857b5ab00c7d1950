"""The log of whole runs, to the character; numbers that differ from run to run by their form.

Totals are held against the file `ws.comval.NNNN` of the same load case, which other tests hold
against the oracle.
"""

from __future__ import annotations

import re
import subprocess
import time
from itertools import product
from pathlib import Path

import numpy as np
import oracle
import pytest
from models import MATERIALS, part, pulled, tiny, tiny_case, written
from runs import check_lines, clear_done, comval, fails, log_lines, run, set_options, solves

from vkctl.directory.model import LoadCase, Model
from vkctl.shapes.boxes import box

TIME = r"\d\d:\d\d:\d\d\.\d{3}"
REAL = r"-?\d\.\d{6}E[+-]\d\d"


def two_patterns(directory: Path, **options: float) -> Path:
    """Load cases 1 and 3 of pattern 7, 2 of pattern 3, run in the order 3, 1, 2."""
    mesh = box("tet4", (13, 13, 13), (13.0, 13.0, 13.0))
    model = Model(mesh.nodes, mesh.elements, [MATERIALS["isotropic"]])
    model.run_order = np.array((3, 1, 2))
    second = LoadCase(pattern=3).prescribe(mesh.face("x+")).load(mesh.face("x-"), (0, 1, 0))
    cases = (pulled(mesh, 7), second, pulled(mesh, 7, force=(0, 0, 1)))
    return written(directory, model, *cases, **options)


def totals(directory: Path, number: int) -> list[str]:
    keys = ("ARQua", *oracle.TOTAL_KEYS)
    return [
        f"Data<Key:{key}><Value:{value:.6E}>"
        for key, value in zip(keys, comval(directory, number), strict=True)
    ]


# 14 x 14 x 14 nodes, 14 x 14 of them held: 7644 equations, 156381 entries.
CONFIGURED = "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=636/0.01/0.16 >"


@pytest.mark.parametrize("mode", [0, 1, 2])
def test_the_log_of_a_run_over_two_patterns_is_fixed_to_the_character(tmp_path, mode):
    lines = run(two_patterns(tmp_path, Sys_ComputationMode=mode))
    factored = [] if mode == 1 else ["Info<Msg:EstDecMemReq: <real>>"]
    solved = [f"Info<Msg:IMode: {mode or 2}>", "Info<Msg:ICount: <count>>"]
    end = "Info<Msg:LCaseTime: <time> >"
    check_lines(
        lines,
        [
            "Info<Msg:Tool.vk_rund.Start >",
            "Info<Msg:Eng x64 TLMx/IC/ID Build 2018.06.03 >",
            *("Data<Key:LCaseId><Value:3>", "Info<Msg:LCasePatInx: 7>", CONFIGURED),
            *factored,
            *solved,
            *totals(tmp_path, 3),
            end,
            *("Data<Key:LCaseId><Value:1>", "Info<Msg:LCasePatInx: 7>"),
            *solved,
            *totals(tmp_path, 1),
            end,
            *("Data<Key:LCaseId><Value:2>", "Info<Msg:LCasePatInx: 3>", CONFIGURED),
            *factored,
            *solved,
            *totals(tmp_path, 2),
            end,
            "Info<Msg:Total time: <time> >",
            "Info<Msg:Tool.vk_rund.End >",
        ],
    )


def test_the_size_figures_count_free_components_and_their_upper_couplings(tmp_path):
    directory = two_patterns(tmp_path)
    model = oracle.read_model(directory)
    case = oracle.read_loadcase(directory, 1, model.num_nodes)
    numbering = oracle.number_equations(model, case, directory)
    assert (numbering.count, numbering.entries, numbering.bandwidth) == (7644, 156381, 636)
    # A free node's own block has 6 entries, that of a pair of neighbours 9.
    steps = np.array(list(product((0, 1), repeat=3))[1:])
    pairs = np.prod(np.array((13, 14, 14)) - steps, axis=1).sum()
    assert numbering.entries == 6 * 13 * 14 * 14 + 9 * pairs


def test_the_bandwidth_figure_is_only_printed(tmp_path):
    directory = tiny(tmp_path)
    path = Path(directory, "mxs.sadr")
    data = bytearray(path.read_bytes())
    data[4:8] = np.int32(-12345).tobytes()
    path.write_bytes(data)
    solves(directory)
    line = "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=-12345/0.00/0.00 >"
    assert log_lines(directory)[4] == line


@pytest.mark.parametrize("budget", ["8.0", "0", "0.0", "-1", "-1E30", "1e20"])
def test_a_wide_budget_or_none_allows_the_factor(tmp_path, budget):
    directory = tiny(tmp_path, tiny_case(), tiny_case(2))
    set_options(directory, Sys_AvailableMemGB=budget)
    solves(directory, mode=2)


def test_a_small_budget_makes_the_rest_of_the_run_iterative_with_one_estimate(tmp_path):
    directory = tiny(tmp_path, tiny_case(), tiny_case(2), tiny_case(2), Sys_AvailableMemGB=1e-9)
    solves(directory, mode=1)
    lines = log_lines(directory)
    assert sum("EstDecMemReq" in line for line in lines) == 1
    assert lines.count("Info<Msg:IMode: 1>") == 3
    assert not [line for line in lines if line.startswith("Warning")]


def test_a_budget_counts_in_automatic_mode_only(tmp_path):
    directory = tiny(tmp_path, Sys_AvailableMemGB=1e-9, Sys_ComputationMode=2)
    solves(directory, mode=2)


def test_the_budget_is_held_against_eleven_tenths_of_the_estimate(tmp_path):
    # An estimate of megabytes, so that five decimals tell it well enough.
    directory = two_patterns(tmp_path)
    estimate = next(line for line in run(directory) if "EstDecMemReq" in line)
    need = 1.1 * float(re.findall(r"\d+\.\d+", estimate)[0])
    for budget, mode in ((1.02 * need, 2), (0.98 * need, 1)):
        set_options(directory, Sys_AvailableMemGB=budget)
        clear_done(directory)
        assert f"Info<Msg:IMode: {mode}>" in run(directory)


def test_a_saved_element_state_brings_a_new_factor_in_the_same_pattern(tmp_path):
    model, mesh = part()
    model.materials = [MATERIALS["yielding"]]
    directory = written(tmp_path, model, pulled(mesh), pulled(mesh, force=(0, 1, 0)))
    for estimates in (1, 2):
        solves(directory)
        lines = log_lines(directory)
        assert sum("EstDecMemReq" in line for line in lines) == estimates
        assert sum("SysConfig" in line for line in lines) == 1
        clear_done(directory)


@pytest.mark.parametrize("mode", [1, 2])
def test_an_iteration_count_is_positive_and_small_with_a_factor(tmp_path, mode):
    lines = run(two_patterns(tmp_path, Sys_ComputationMode=mode))
    counts = [int(line[17:-1]) for line in lines if line.startswith("Info<Msg:ICount: ")]
    assert len(counts) == 3
    assert all(1 <= count <= (200 if mode == 1 else 4) for count in counts)


def test_one_iteration_solves_a_diagonal_system(tmp_path):
    # One free component: the unit-diagonal system is the number 1.
    case = LoadCase().prescribe((1, 2, 3, 5)).prescribe(4, "xy").load(4, (1.0, 2.0, 3.0))
    solves(tiny(tmp_path, case, Sys_ComputationMode=1))
    assert "Info<Msg:ICount: 1>" in log_lines(tmp_path)


def test_numbers_have_their_forms(tmp_path):
    lines = run(tiny(tmp_path, tiny_case(force=(-1e-12, 0.0, 12345.678))))
    assert "Data<Key:Rx><Value:-1.000000E-12>" in lines
    assert "Data<Key:Ry><Value:0.000000E+00>" in lines
    assert "Data<Key:Rz><Value:1.234568E+04>" in lines
    for line in lines:
        if line.startswith("Data<Key:") and "LCaseId" not in line:
            assert re.fullmatch(rf"Data<Key:\w+><Value:{REAL}>", line)
        if "ime: " in line:
            assert re.fullmatch(rf"Info<Msg:(LCaseTime|Total time): {TIME} >", line)


def test_the_time_of_a_load_case_is_part_of_the_total(tmp_path):
    lines = run(two_patterns(tmp_path))
    clocks = [re.findall(TIME, line)[0] for line in lines if "ime: " in line]
    units = (3600, 60, 1)
    seconds = [
        sum(unit * float(part) for unit, part in zip(units, clock.split(":"), strict=True))
        for clock in clocks
    ]
    assert sum(seconds[:-1]) <= seconds[-1] + 0.005


def test_another_process_reads_whole_lines_while_the_run_goes_on(tmp_path, program):
    directory = two_patterns(tmp_path)
    path = Path(directory, "vk_rund_log.txt")
    seen = set()
    with subprocess.Popen([program, directory]) as process:
        while process.poll() is None:
            text = path.read_text() if path.exists() else ""
            assert text == "" or text.endswith(">\n")
            seen.add(text.count("\n"))
            time.sleep(0.002)
    assert process.returncode == 0
    assert len(seen) > 2, "lines came at the end only"
    assert log_lines(directory)[-1] == oracle.END_LINE


@pytest.mark.parametrize("obstacle", ["directory", "full device"])
def test_totals_are_not_logged_where_their_file_fails(tmp_path, obstacle):
    directory = tiny(tmp_path)
    place = Path(directory, "ws.comval.0001")
    if obstacle == "directory":
        place.mkdir()
        lines = fails(directory, "Error opening file: ws.comval.0001")
    else:
        place.symlink_to("/dev/full")
        lines = fails(directory, "Error flushing file unit: 400")
    assert lines[-2] == "Data<Key:ARQua><Value:1.000000E+00>"
    assert not [line for line in lines if re.match(r"Data<Key:(?!LCaseId|ARQua)", line)]


def test_an_old_log_is_discarded(tmp_path):
    directory = tiny(tmp_path)
    Path(directory, "vk_rund_log.txt").write_text("old\n" * 1000)
    solves(directory)


def test_an_error_line_is_the_last_line(tmp_path):
    directory = tiny(tmp_path, tiny_case(), tiny_case())
    Path(directory, "mxs.lcmap.0002").unlink()
    lines = fails(directory, "Error opening file: mxs.lcmap.0002")
    assert lines[-3:-1] == ["Data<Key:LCaseId><Value:2>", "Info<Msg:LCasePatInx: 1>"]
    assert "LCaseTime" in lines[-4]
