"""Repeating load cases: what it gains, when it ends, what it survives."""

from __future__ import annotations

import json
import multiprocessing
import signal
import time
from functools import partial
from pathlib import Path

import numpy as np
import pytest
from fake_solver import ended_when_seen, lasting_solver, small_box
from killing import in_child, killed_before
from small_loops import VK_RUND, script
from typer.testing import CliRunner

from vkctl.cli import app
from vkctl.directory import formats
from vkctl.directory.lock import BusyError
from vkctl.directory.model import LoadCase, Material, Model, write
from vkctl.directory.results import read_results
from vkctl.running import rounds
from vkctl.running.collapse import spent_elements
from vkctl.running.rounds import State
from vkctl.running.run import run
from vkctl.running.settle import SettleError, settle
from vkctl.shapes.boxes import box

runner = CliRunner()
RESULTS = ("sstate", "mstate", "tcval", "amsval", "disval", "comval")


def bar(folder: Path, materials: list[Material], *pulls: float):
    """A bar of hexahedra in uniform tension, a load case a pull."""
    part = box("hex8", (2, 1, 1), (2.0, 1.0, 1.0))
    part.elements.materials[:] = np.arange(2) % len(materials) + 1
    cases = []
    for pull in pulls:
        case = LoadCase(pattern=1).load(*part.traction("x+", (pull, 0, 0)))
        for side in ("x-", "y-", "z-"):
            case.prescribe(part.face(side), side[0])
        cases.append(case)
    write(Model(part.nodes, part.elements, materials, cases), folder)
    formats.update_options(folder, {"Sys.MaxNumCompThreads": 1})
    return part


def yielding(hardening: float) -> Material:
    return Material.yielding(1000.0, 0.0, 10.0, hardening_ratio=hardening)


def displacements(folder: Path, number: int = 1) -> np.ndarray:
    found = read_results(folder, number).displacements
    assert found is not None
    return found.astype(np.float64)


def error(folder: Path, true: np.ndarray) -> float:
    return float(np.abs(displacements(folder) - true).max() / np.abs(true).max())


def results_of(folder: Path) -> dict[str, bytes]:
    return {path.name: path.read_bytes() for path in sorted(folder.glob("ws.*"))}


def pulled_beam(folder: Path) -> Path:
    """Pulled along, with next to nothing across: bending is its soft direction."""
    part = box("hex8", (60, 3, 3), (60.0, 3.0, 3.0))
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (1.0, 0, -1e-6)))
    write(Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case]), folder)
    return folder


def test_one_iterative_run_can_be_far_off_in_a_soft_direction_and_rounds_mend_it(tmp_path) -> None:
    assert settle(pulled_beam(tmp_path / "direct"), 1e-6, mode="direct").ok
    true = displacements(tmp_path / "direct")
    beam = pulled_beam(tmp_path / "iterative")
    first = run(beam, mode="iterative")
    assert first.ok and first.log.load_cases[0].data["ARQua"] == 1
    assert error(beam, true) > 0.005
    settled = settle(beam, 1e-5)
    assert settled.ok and settled.status == 0
    assert error(beam, true) < 1e-6


@pytest.mark.parametrize("hardening", [0.2, 0.5])
def test_yielding_under_force_settles_at_the_known_rate_in_the_known_state(
    tmp_path, hardening
) -> None:
    bar(tmp_path, [yielding(hardening)], 15.0)
    settled = settle(tmp_path, 1e-4)
    full = (np.arctan(500.0) / np.pi + 0.5) * 0.999 + 0.001  # what a level of 1 leaves of it
    part = (1 - hardening) * 10.0 / (15.0 / full)
    state = read_results(tmp_path, 1).element_state
    assert state is not None
    assert settled.ok
    assert settled.standings[0].ratio == pytest.approx((1 + part) / 2, rel=0.01)
    assert state == pytest.approx(hardening / (1 - part), rel=1e-4)


def test_next_to_ideal_yielding_goes_on_though_each_round_adds_the_same_part(tmp_path) -> None:
    bar(tmp_path, [yielding(0.001)], 15.0)
    settled = settle(tmp_path, most_rounds=10)
    changes = settled.standings[0].changes
    assert settled.standings[0].verdict == "open"
    assert all(c.displacements == pytest.approx(0.1667, rel=0.02) for c in changes[1:])
    assert changes[-1].stiffness == pytest.approx(changes[-2].stiffness * 0.833, rel=0.01)


@pytest.mark.parametrize("mode", ["direct", "iterative"])
def test_loads_beyond_ideal_yielding_are_told_not_to_be_carried(tmp_path, mode) -> None:
    """Its factors fall to the solver's least, where nothing changes any more."""
    bar(tmp_path, [yielding(0.0)], 15.0)
    settled = settle(tmp_path, mode=mode)
    assert settled.standings[0].changes[-1].largest < 1e-6
    assert (settled.standings[0].verdict, settled.standings[0].spent) == ("collapsed", 2)
    assert (settled.ok, settled.status) == (False, 3)
    shown = runner.invoke(app, ["run", str(tmp_path), "--settle", "--mode", mode])
    assert shown.exit_code == 3
    assert "Load case 1 can't carry its loads" in shown.stdout
    assert "2 elements of a yielding material have no stiffness left" in shown.stdout


def test_loads_just_below_ideal_yielding_settle_elastically(tmp_path) -> None:
    bar(tmp_path, [yielding(0.0)], 9.9)
    settled = settle(tmp_path)
    assert settled.ok and settled.rounds <= 3
    assert read_results(tmp_path, 1).element_state == pytest.approx(1.0)


def test_elements_out_of_the_part_or_without_a_yield_stress_may_lose_all_stiffness(
    tmp_path,
) -> None:
    part = bar(tmp_path, [yielding(0.0), Material.compression_only(1000.0, 0.0)], 5.0)
    formats.write_element_state(tmp_path, 1, [1.0, 0.001])
    assert spent_elements(tmp_path, 1) == 0
    formats.write_element_state(tmp_path, 1, [0.001, 0.001])
    assert spent_elements(tmp_path, 1) == 1
    formats.update_options(tmp_path, {"Sta.YieldStressFac": 0})
    assert spent_elements(tmp_path, 1) == 0
    model = Model(part.nodes, part.elements, [yielding(0.0)] * 2, [LoadCase()])
    model.set_level(1.5 - part.nodes[:, 0])
    write(model, tmp_path / "cut")
    formats.write_element_state(tmp_path / "cut", 1, [0.001, 0.001])
    assert spent_elements(tmp_path / "cut", 1) == 1
    model.exclude_elements([1])
    write(model, tmp_path / "cut")
    formats.write_element_state(tmp_path / "cut", 1, [0.001, 0.001])
    assert spent_elements(tmp_path / "cut", 1) == 0


def test_small_changes_that_go_on_for_ever_are_not_taken_for_settled(tmp_path) -> None:
    bar(tmp_path, [yielding(0.001)], 10.05)
    settled = settle(tmp_path, 0.01, most_rounds=5)
    assert settled.standings[0].changes[-1].largest < 0.005
    assert settled.standings[0].verdict == "open" and settled.standings[0].left > 0.5


def taking_turns(folder: Path) -> Path:
    """A solver after whose runs the first element is full and soft by turns."""
    bar(folder / "part", [Material.compression_only(1000.0, 0.0)], -1.0)
    formats.write_element_state(folder, 1, [0.1, 1.0])
    return script(
        folder / "solver",
        '"$real" "$1" || exit\n'
        'if [ -e "$1/odd" ]; then rm "$1/odd"; cp "$1/../ws.mstate.0001" "$1"; else >"$1/odd"; fi',
    )


def test_elements_that_take_turns_for_ever_are_told_not_to_settle(tmp_path) -> None:
    settled = settle(tmp_path / "part", vk_rund=taking_turns(tmp_path))
    assert [s.verdict for s in settled.standings] == ["stalled"]
    assert (settled.rounds, settled.status) == (8, 3)


def test_a_joint_that_opens_piece_by_piece_settles_though_states_change_all_the_while(
    tmp_path,
) -> None:
    part = box("hex8", (12, 1, 4), (12.0, 1.0, 4.0))
    heights = part.nodes[part.elements.hex8 - 1].mean(axis=1)[:, 2]
    part.elements.materials[:] = np.where(heights < 1, 2, 1)
    force = part.traction("z+", lambda x: np.outer(1 + (x[:, 0] - 6) / 2, (0, 0, -1.0)))
    case = LoadCase().prescribe(part.face("z-")).load(*force)
    materials = [Material.isotropic(1000.0, 0.3), Material.compression_only(100.0, 0.0)]
    write(Model(part.nodes, part.elements, materials, [case]), tmp_path)
    settled = settle(tmp_path)
    changes = settled.standings[0].changes
    assert settled.ok and sum(change.state > 0.8 for change in changes) >= 6
    assert changes[-1].elements == 0
    assert settle(tmp_path).rounds <= 2  # and stays


def test_only_load_cases_that_have_not_settled_are_repeated(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 5.0, 15.0)
    took_part = []
    settled = settle(
        tmp_path,
        on_round=lambda shown: took_part.append([s.load_case for s in shown.standings]),
    )
    assert settled.ok and took_part[:2] == [[1, 2]] * 2
    assert took_part[-1] == [2] and len(took_part) == settled.rounds > 10


def test_load_cases_of_several_patterns_settle_in_both_modes(tmp_path) -> None:
    part = bar(tmp_path, [yielding(0.6)], 15.0)
    cases = [
        LoadCase(pattern=pattern).prescribe(part.face("x-")).load(*part.traction("x+", force))
        for pattern, force in ((1, (12.0, 0, 0)), (2, (0, 0, 1.0)), (1, (0, 2.0, 0)))
    ]
    cases[1].prescribe(part.face("y-"), "y")
    write(Model(part.nodes, part.elements, [yielding(0.6)], cases), tmp_path)
    assert settle(tmp_path, 1e-3, mode="direct").ok
    direct = [displacements(tmp_path, n) for n in (1, 2, 3)]
    for path in tmp_path.glob("ws.*"):
        path.unlink()
    assert settle(tmp_path, 1e-3, mode="iterative").ok
    assert formats.read_options(tmp_path)["Sys.ComputationMode"] == 1
    for number, true in enumerate(direct, 1):
        apart = np.abs(displacements(tmp_path, number) - true).max()
        assert apart < 2e-3 * np.abs(true).max()


def test_an_exact_start_vector_is_no_reason_to_lose_the_solution(tmp_path) -> None:
    """Where nothing is left over the solver zeroes what it started from, as of an unloaded part."""
    part = tmp_path / "part"
    bar(part, [yielding(0.9)], 5.0)
    unloaded = formats.read_loadcase_map(part, 1)
    unloaded.forces2, unloaded.forces3 = unloaded.forces2[:0], unloaded.forces3[:0]
    formats.write_loadcase_map(tmp_path, 1, unloaded)
    zeroing = script(
        tmp_path / "zeroing",
        '[ -e "$1/ws.comval.0001" ] || exec "$real" "$1"\n'
        'mv "$1/mxs.lcmap.0001" "$1/loaded"; rm "$1/ws.sstate.0001"\n'
        'cp "$1/../mxs.lcmap.0001" "$1"; "$real" "$1"; mv "$1/loaded" "$1/mxs.lcmap.0001"',
    )
    run(part)
    before = results_of(part)
    run(part, again=True, vk_rund=zeroing)
    assert read_results(part, 1).max_displacement == 0
    for name, content in before.items():
        (part / name).write_bytes(content)
    settled = settle(part, vk_rund=zeroing)
    assert settled.ok and settled.rounds == 1
    assert results_of(part) == before


def test_a_poor_solution_is_not_taken_for_a_settled_one(tmp_path) -> None:
    """It leaves no start vector, so that its displacements file never changes."""
    small_box(tmp_path / "part", 1)
    poor = script(
        tmp_path / "poor",
        '"$real" "$1" || exit\n'
        "printf '\\063\\063\\063\\077' |"
        ' dd of="$1/ws.comval.0001" bs=1 seek=8 conv=notrunc 2>/dev/null',
    )
    settled = settle(tmp_path / "part", vk_rund=poor)
    assert read_results(tmp_path / "part", 1).quality == pytest.approx(0.7)
    assert [s.verdict for s in settled.standings] == ["poor"]
    assert (settled.rounds, settled.status) == (1, 3)
    shown = runner.invoke(app, ["run", str(tmp_path / "part"), "--settle", "--vk-rund", str(poor)])
    assert shown.exit_code == 3 and "too poor to leave a start vector" in shown.stdout


@pytest.mark.thorough
def test_rounds_killed_at_any_file_operation_go_on_as_if_nothing_had_happened(tmp_path) -> None:
    def make(folder: Path) -> Path:
        bar(folder, [yielding(0.9)], 15.0)
        return folder

    assert settle(make(tmp_path / "whole"), 0.5, vk_rund=VK_RUND).ok
    state = read_results(tmp_path / "whole", 1).element_state
    number, ended = 0, False
    while not ended:
        number += 1
        directory = make(tmp_path / f"d{number}")
        code = in_child(killed_before, partial(settle, directory, 0.5, vk_rund=VK_RUND), number)
        assert code in (0, -signal.SIGKILL)
        ended = code == 0
        after = results_of(directory)
        assert all(len(content) > 0 for content in after.values())
        settled = settle(directory, 0.5, vk_rund=VK_RUND)
        assert settled.ok
        assert read_results(directory, 1).element_state == pytest.approx(state, rel=0.3)
        assert [path.name for path in (directory / "settle").iterdir()] == ["state.json"]
    assert number > 20


def test_a_round_whose_solver_was_killed_is_finished_not_repeated(tmp_path) -> None:
    bar(tmp_path / "part", [yielding(0.6)], 14.0, 15.0)
    killed = script(
        tmp_path / "killed",
        'cp "$1/mxs.lcflags" "$1/before"\n"$real" "$1" || exit\n'
        'grep -q "rounds.: .{" "$1/settle/state.json" || exit 0\n'
        "printf '\\001' | dd of=\"$1/mxs.lcflags\" bs=1 seek=8 conv=notrunc 2>/dev/null\n"
        "kill -9 $$",
    )
    broken = settle(tmp_path / "part", vk_rund=killed)
    assert broken.failed and broken.status == 137 and broken.rounds == 1
    planned: list[list[int]] = []
    settled = settle(
        tmp_path / "part",
        on_progress=lambda p: planned.append([item.number for item in p.planned]),
    )
    assert settled.ok and planned[0] == [2] and [1, 2] in planned
    assert len(settled.standings[0].changes) == settled.rounds or settled.rounds > 10


def test_a_solver_that_outlived_its_rounds_is_waited_for(tmp_path) -> None:
    bar(tmp_path / "part", [yielding(0.9)], 15.0)
    slow = lasting_solver(tmp_path / "slow")
    context = multiprocessing.get_context("fork")
    child = context.Process(target=lambda: settle(tmp_path / "part", vk_rund=slow))
    child.start()
    while not (tmp_path / "part" / "begun").exists():
        time.sleep(0.01)
    child.kill()
    child.join()
    assert not (tmp_path / "part" / "ended").exists()
    with ended_when_seen(tmp_path / "part"):
        assert settle(tmp_path / "part").ok
    assert (tmp_path / "part" / "ended").exists()


def test_rounds_end_at_their_limit_and_go_on_when_started_again(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    first = settle(tmp_path, most_rounds=3)
    assert (first.rounds, first.status) == (3, 3)
    assert first.standings[0].verdict == "open"
    second = settle(tmp_path)
    assert second.ok and second.rounds > 10
    assert second.standings[0].changes[:3] == first.standings[0].changes


def test_other_inputs_begin_new_rounds(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    settle(tmp_path, most_rounds=3)
    formats.update_options(tmp_path, {"Sta.YieldStressFac": 0.9})
    assert settle(tmp_path, most_rounds=1).rounds == 1
    settle(tmp_path, most_rounds=1, mode="iterative", threads=1)
    assert settle(tmp_path, most_rounds=1).rounds == 3


def test_a_second_one_on_the_same_directory_is_refused(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    with rounds.locked(tmp_path), pytest.raises(BusyError, match="is running on"):
        settle(tmp_path)


@pytest.mark.parametrize(
    "content",
    [
        b"",
        b"{}",
        b"[]",
        b'{"rounds": 3}',
        b'{"inputs": "", "load_cases": [0], "running": []}',
        b'{"inputs": "", "load_cases": [1], "running": [], "ended": false, "rounds": [{"1": '
        b'{"displacements": 1' + 400 * b"0" + b', "state": 0, "energy": 0, "stiffness": 0}}]}',
    ],
)
def test_a_damaged_state_is_told_in_a_sentence(tmp_path, content) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    (tmp_path / "settle").mkdir()
    (tmp_path / "settle" / "state.json").write_bytes(content)
    with pytest.raises(formats.FormatError, match="no state of a settling run"):
        settle(tmp_path)


def test_a_state_comes_back_as_it_was_written(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    settle(tmp_path, most_rounds=2)
    state = rounds.read_state(tmp_path)
    assert isinstance(state, State) and len(state.rounds) == 2
    rounds.write_state(tmp_path, state)
    assert rounds.read_state(tmp_path) == state


def test_nothing_requested_and_odd_tolerances_are_refused(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    for tolerance in (0.0, 1e-7, 1.0, float("nan"), -1.0):
        with pytest.raises(ValueError, match="tolerance"):
            settle(tmp_path, tolerance)
    with pytest.raises(ValueError, match="at least one round"):
        settle(tmp_path, most_rounds=0)
    formats.write_loadcase_flags(tmp_path, [0])
    with pytest.raises(SettleError, match="nothing to settle"):
        settle(tmp_path)
    assert not (tmp_path / "settle").exists()


def test_the_command_shows_each_round_and_says_how_it_ended(tmp_path) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    shown = runner.invoke(app, ["run", "--settle", "1e-3", str(tmp_path)])
    assert shown.exit_code == 0, shown.output
    lines = shown.stdout.splitlines()
    assert lines[0] == "round 1, load case 1: nothing to compare with yet"
    assert lines[2].startswith("round 3, load case 1: changes of displacements ")
    assert "state " in lines[2] and "(2 elements)" in lines[2] and "of those before" in lines[2]
    assert lines[-1].startswith("Load case 1 has settled after ") and " is left." in lines[-1]


def test_the_command_tells_what_does_not_settle_with_a_status_of_its_own(tmp_path) -> None:
    solver = str(taking_turns(tmp_path))
    words = ["run", str(tmp_path / "part"), "--settle", "--vk-rund", solver]
    shown = runner.invoke(app, words)
    assert shown.exit_code == 3
    assert "Load case 1 doesn't settle: after 8 rounds" in shown.stdout
    assert "take turns for ever" in shown.stdout
    short = runner.invoke(app, [*words, "--rounds", "1"])
    assert short.exit_code == 3 and "Start it again to go on." in short.stdout


@pytest.mark.parametrize("words", [["--settle", "1e-7"], ["--settle=2"], ["--settle", "-1"]])
def test_the_command_refuses_tolerances_that_mean_nothing(tmp_path, words) -> None:
    bar(tmp_path, [yielding(0.6)], 15.0)
    shown = runner.invoke(app, ["run", str(tmp_path), *words])
    assert shown.exit_code == 2 and "the tolerance must be at least 1e-06" in shown.stderr


def test_the_command_prints_rounds_and_last_run_as_json(tmp_path) -> None:
    bar(tmp_path, [yielding(0.9)], 15.0)
    shown = runner.invoke(app, ["run", str(tmp_path), "--json", "--settle=0.01"])
    told = json.loads(shown.stdout)
    assert shown.exit_code == 0 and told["settled"] is True and told["tolerance"] == 0.01
    changes = told["load_cases"][0]["changes"]
    assert changes[0]["displacements"] is None and changes[-1]["displacements"] < 0.01
    assert told["run"]["load_cases"][0]["values"]["ARQua"] == 1


def test_a_run_that_fails_ends_the_rounds_with_its_own_status(tmp_path) -> None:
    bar(tmp_path, [yielding(0.9)], 15.0)
    (tmp_path / "mxs.lcmap.0001").unlink()
    shown = runner.invoke(app, ["run", str(tmp_path), "--settle"])
    assert shown.exit_code == 242 and "mxs.lcmap.0001 is missing" in shown.stdout


def test_done_load_cases_are_run_again_on_request(directory) -> None:
    run(directory)
    words, _ = formats.read_loadcase_flags(directory)
    formats.write_loadcase_flags(directory, [int(words[0]), int(words[1]) | 4 | 64])
    assert run(directory).planned == []
    shown = runner.invoke(app, ["run", str(directory), "--again"])
    assert shown.exit_code == 0 and "1 load case solved" in shown.stdout
    assert formats.read_loadcase_flags(directory)[0].tolist() == [3, 3 | 4 | 64]
