"""Results of whole runs against the dense solution of the oracle.

Displacements may differ from the direct solution by what the iteration is allowed to leave: a
residual of 1e-5 of the largest right-hand side in the unit-diagonal system, turned into an error
of each component through the inverse, plus 1e-6 of the largest displacement for values that are
float32 in the files. Everything else is compared at the displacements that the program found,
within 3e-5 of the array's largest value: strains are differences of float32 displacements.
"""

from __future__ import annotations

from pathlib import Path

import numpy as np
import oracle
import pytest
from models import KINDS, MATERIALS, STEEL, part, pulled, random, tiny, written
from runs import clear_done, comval, counted, log_lines, run, same, solves, sstate

from vkctl.directory.model import LoadCase, Material


@pytest.mark.parametrize("mode", [0, 1, 2])
@pytest.mark.parametrize("kind", KINDS)
def test_a_part_cut_out_of_a_mesh_of_any_element_type_solves_in_every_mode(tmp_path, kind, mode):
    model, mesh = part(kind)
    case = pulled(mesh).heat(mesh.face("y+"), 20.0)
    solves(written(tmp_path, model, case, Sys_ComputationMode=mode))


@pytest.mark.parametrize("threads", [1, 2])
def test_the_number_of_threads_does_not_change_the_result(tmp_path, threads):
    model, mesh = part("mixed")
    solves(written(tmp_path, model, pulled(mesh), Sys_MaxNumCompThreads=threads))


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("name", MATERIALS)
def test_each_material_kind_follows_its_law(tmp_path, kind, name):
    model, mesh = part(kind)
    model.materials = [MATERIALS[name]]
    solves(written(tmp_path, model, pulled(mesh).heat(mesh.face("y-"), 15.0)))


def test_materials_of_all_kinds_stand_side_by_side(tmp_path):
    model, mesh = part("mixed")
    model.materials = list(MATERIALS.values())
    count = len(model.elements)
    model.elements.materials = random(2).integers(1, 6, count).astype(np.int16)
    solves(written(tmp_path, model, pulled(mesh).heat(mesh.face("y-"), 15.0)))


@pytest.mark.parametrize(
    "flags", [0x100 | 0x800, 0x200 | 0x800, 0x400 | 0x800, 0x200 | 0x400, 0x100 | 0x200]
)
def test_a_material_of_two_kinds_follows_the_later_rule(tmp_path, flags):
    model, mesh = part()
    both = MATERIALS["orthotropic"]
    model.materials = [
        Material(
            flags=flags,
            e=700.0,
            nu=0.2,
            expansion=2e-3,
            initial_strain=-1e-3,
            yield_stress=4.0,
            moduli=both.moduli,
            poisson=both.poisson,
            shear=both.shear,
            expansions=both.expansions,
        )
    ]
    directory = written(tmp_path, model, pulled(mesh).heat(mesh.face("y+"), 10.0))
    solves(directory)
    clear_done(directory)
    solves(directory)


@pytest.mark.parametrize("kind", KINDS)
def test_elements_with_flag_1_ignore_the_level_and_those_with_2_or_8_are_left_out(tmp_path, kind):
    model, mesh = part(kind)
    count = len(model.elements)
    model.element_flags = random(3).choice([0, 1 << 1], count).astype(np.int16)
    model.element_flags[[count // 4 - 1, count // 4]] = (1 << 2, 1 << 8 | 1 << 1)
    solves(written(tmp_path, model, pulled(mesh)))


def test_other_element_flag_bits_have_no_effect(tmp_path):
    model, mesh = part()
    model.element_flags = np.full(len(model.elements), ~(1 << 1 | 1 << 2 | 1 << 8), np.int16)
    plain, flagged = tmp_path / "plain", tmp_path / "flagged"
    solves(written(flagged, model, pulled(mesh)))
    model.element_flags[:] = 0
    solves(written(plain, model))
    same(sstate(flagged, 1), sstate(plain, 1), 1e-6)


def test_loads_on_marked_nodes_are_skipped_and_not_counted(tmp_path):
    model, mesh = part()
    marked = mesh.face("x+")[::2]
    flags = np.zeros(len(model.nodes), np.int16)
    flags[marked - 1] = 1 << 11
    flags[mesh.face("x+")[1] - 1] = ~(1 << 11)
    model.node_flags = flags
    expected = solves(written(tmp_path, model, pulled(mesh)))
    free = len(mesh.face("x+")) - len(marked)
    assert expected.cases[0].loads.tolist() == [free * 1.0, free * 2.0, free * -3.0]


def test_both_force_lists_act_and_loads_on_held_nodes_only_count(tmp_path):
    model, mesh = part()
    case = pulled(mesh).load(mesh.face("x+"), (0.5, 0.0, 0.25), section=3)
    case.load(mesh.face("x-"), (10.0, 20.0, 30.0), section=3)
    expected = solves(written(tmp_path, model, case))
    assert expected.cases[0].loads[1] == len(mesh.face("x-")) * 20.0 + len(mesh.face("x+")) * 2.0


def test_a_load_case_without_any_load_is_at_rest_at_once(tmp_path):
    model, mesh = part()
    expected = solves(written(tmp_path, model, LoadCase().prescribe(mesh.face("x-"))))
    assert expected.cases[0].at_rest
    assert "Info<Msg:ICount: 0>" in log_lines(tmp_path)


@pytest.mark.parametrize("mode", [1, 2])
@pytest.mark.parametrize("kind", KINDS)
def test_prescribed_displacements_pull_the_part(tmp_path, kind, mode):
    model, mesh = part(kind)
    face = mesh.face("x+")
    case = LoadCase().prescribe(mesh.face("x-"))
    case.prescribe(face, "xz", random(4).uniform(-0.1, 0.1, (len(face), 3)))
    case.load(mesh.face("y+"), (0.0, 1.0, 0.0))
    solves(written(tmp_path, model, case, Sys_ComputationMode=mode))


def test_the_later_of_two_rows_on_one_direction_wins(tmp_path):
    model, mesh = part()
    held, face = mesh.face("x-"), mesh.face("x+")
    case = LoadCase().prescribe(face, "x", 0.3).prescribe(held, "xyz", 0.2)
    case.prescribe(face, "x", 0.1).prescribe(held)
    expected = solves(written(tmp_path, model, case))
    numbering = expected.cases[0].numbering.dof_map
    assert (numbering[held - 1] == 0).all()
    assert np.array_equal(sstate(tmp_path, 1)[face - 1, 0], np.full(len(face), 0.1, np.float32))


def test_a_row_of_no_direction_changes_nothing(tmp_path):
    model, mesh = part()
    case = pulled(mesh).prescribe(mesh.face("x+"), 0, 0.5).support(mesh.face("x+"), directions=0)
    expected = solves(written(tmp_path, model, case))
    assert expected.cases[0].numbering.count == 3 * (len(mesh.nodes) - len(mesh.face("x-")))


def test_a_node_without_element_keeps_its_prescribed_value_and_has_no_say_in_the_maximum(tmp_path):
    model, mesh = part()
    last = mesh.elements.tet4.max()
    model.nodes = np.concatenate((model.nodes, [(9.0, 9.0, 9.0)]))
    model.element_flags = np.zeros(len(model.elements), np.int16)
    case = pulled(mesh).prescribe(last + 1, "xy", (3.0, 4.0, 5.0))
    flags = np.zeros(last + 1, np.int16)
    flags[last] = 1 << 11
    model.node_flags = flags
    assert model.node_tp_index is not None
    model.node_tp_index = np.append(model.node_tp_index, 0)
    solves(written(tmp_path, model, case))
    assert counted(tmp_path, "ws.disval", 1)[last] == 5.0
    assert counted(tmp_path, "ws.amsval", 1)[last] == 0.0
    assert comval(tmp_path, 1)[4] < 5.0
    assert sstate(tmp_path, 1)[last].tolist() == [3.0, 4.0, 0.0]


@pytest.mark.parametrize("mode", [1, 2])
def test_elastic_supports_work_along_skew_axes_from_their_offsets(tmp_path, mode):
    model, mesh = part()
    face = mesh.face("x-")
    rng = random(5)
    case = LoadCase().load(mesh.face("x+"), (1.0, -2.0, 0.5))
    case.support(face, rng.normal(size=(len(face), 3, 3)), rng.uniform(-0.01, 0.01, 3))
    case.support(mesh.face("x+")[:2], offsets=0.02, directions="y")
    options = {"Sta_SupportStiffness": 250.0, "Sys_ComputationMode": mode}
    solves(written(tmp_path, model, case, **options))


def test_an_elastic_support_acts_beside_prescribed_directions_of_its_node(tmp_path):
    model, mesh = part()
    face, skew = mesh.face("x-"), ((1, 1, 0), (0, 1, 1), (1, 0, 1))
    case = LoadCase().load(mesh.face("x+"), (1.0, 2.0, 3.0))
    case.prescribe(face, "xy", (0.01, 0.0, 0.0)).support(face, skew, 0.005)
    solves(written(tmp_path, model, case, Sta_SupportStiffness=300.0))


def test_a_support_stiffness_below_zero_is_zero(tmp_path):
    model, mesh = part()
    case = pulled(mesh).support(mesh.face("x+"), offsets=1.0)
    directory = written(tmp_path / "none", model, case, Sta_SupportStiffness=-5)
    solves(directory)
    model.options.clear()
    solves(written(tmp_path / "free", model, pulled(mesh)))
    same(sstate(directory, 1), sstate(tmp_path / "free", 1), 1e-5)


@pytest.mark.parametrize("kind", KINDS)
def test_temperatures_differ_from_node_to_node_and_the_last_value_counts(tmp_path, kind):
    model, mesh = part(kind)
    nodes = np.arange(1, len(mesh.nodes) + 1)
    case = pulled(mesh).heat(nodes, 99.0).heat(nodes, random(6).uniform(-30, 30, len(nodes)))
    solves(written(tmp_path, model, case))


def test_temperatures_of_one_load_case_are_not_left_for_the_next(tmp_path):
    model, mesh = part()
    hot = pulled(mesh).heat(mesh.face("y+"), 40.0)
    partly = pulled(mesh).heat(mesh.face("x+"), 10.0)
    solves(written(tmp_path, model, hot, pulled(mesh), partly))


@pytest.mark.parametrize("name", ["isotropic", "orthotropic"])
def test_load_cases_of_one_pattern_share_the_matrix(tmp_path, name):
    model, mesh = part("mixed")
    model.materials = [MATERIALS[name]]
    cases = [pulled(mesh, force=force) for force in ((1, 0, 0), (0, 1, 0), (0, 0, 1))]
    expected = solves(written(tmp_path, model, *cases))
    assert [c.new_matrix for c in expected.cases] == [True, False, False]


def test_prescribed_values_may_change_within_a_pattern(tmp_path):
    model, mesh = part()
    cases = [pulled(mesh).prescribe(mesh.face("y+"), "y", v) for v in (0.1, -0.2, 0.3)]
    expected = solves(written(tmp_path, model, *cases))
    assert [c.new_pattern for c in expected.cases] == [True, False, False]


def test_a_kept_numbering_takes_values_from_the_rows_of_the_present_load_case(tmp_path):
    model, mesh = part()
    face = mesh.face("x+")
    first = pulled(mesh).prescribe(face, "y", 0.1)
    second = pulled(mesh).prescribe(face[::-1], "y", np.linspace(0.0, 0.3, len(face))[:, None])
    expected = solves(written(tmp_path, model, first, second))
    assert (expected.cases[1].numbering.dof_map < 0).sum() == len(face)


def test_a_kept_matrix_keeps_the_supports_it_was_built_with(tmp_path):
    model, mesh = part()
    stiff = pulled(mesh).support(mesh.face("x+"), offsets=0.01)
    free = pulled(mesh)
    solves(written(tmp_path, model, stiff, free, Sta_SupportStiffness=50.0))


def test_load_cases_of_two_patterns_run_in_any_order(tmp_path):
    model, mesh = part()
    other = LoadCase(pattern=2).prescribe(mesh.face("x+")).load(mesh.face("x-"), (0.0, 0.0, 1.0))
    model.run_order = np.array((3, 1, 4, 2))
    cases = (pulled(mesh), other, pulled(mesh, force=(0, 0, 1)), pulled(mesh, 2))
    expected = solves(written(tmp_path, model, *cases))
    assert [c.number for c in expected.cases] == [3, 1, 4, 2]
    assert [c.new_pattern for c in expected.cases] == [True, False, True, False]


def test_a_pattern_that_comes_back_is_built_anew(tmp_path):
    model, mesh = part()
    other = LoadCase(pattern=2).prescribe(mesh.face("x+")).load(mesh.face("x-"), (0.0, 0.0, 1.0))
    expected = solves(written(tmp_path, model, pulled(mesh), other, pulled(mesh)))
    assert [c.new_pattern for c in expected.cases] == [True, True, True]


def test_only_requested_and_open_static_load_cases_run_and_others_leave_the_pattern(tmp_path):
    model, mesh = part()
    held = pulled(mesh).constraints
    skipped = [LoadCase(flags=f, pattern=2, constraints=held) for f in (0, 2, 3, 4, 5, 7)]
    skipped.append(LoadCase(kind=2, pattern=2, constraints=held))
    odd = pulled(mesh, force=(0, 1, 0))
    odd.flags = 0x40000001
    expected = solves(written(tmp_path, model, pulled(mesh), *skipped, odd))
    assert [c.number for c in expected.cases] == [1, 9]
    assert not expected.cases[1].new_pattern
    assert expected.flags[-1] == 0x40000003
    left = {path.name for path in Path(tmp_path).glob("ws.*")}
    assert {name[-4:] for name in left} == {"0001", "0009"}


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("code", [0, 1])
def test_both_criteria_reach_the_design_points(tmp_path, kind, code):
    model, mesh = part(kind)
    model.materials = [MATERIALS["isotropic"], MATERIALS["orthotropic"]]
    model.elements.materials[::2] = 2
    solves(written(tmp_path, model, pulled(mesh), Sta_TopCriteriaCode=code))


@pytest.mark.parametrize("exponent", [1, 4, 24])
def test_the_boundary_stress_takes_any_exponent(tmp_path, exponent):
    model, mesh = part()
    solves(written(tmp_path, model, pulled(mesh), Sta_BStressExp=exponent))
    assert comval(tmp_path, 1)[3] > 0


@pytest.mark.parametrize("slope", [10, 500, 10000])
def test_the_presence_step_takes_any_slope(tmp_path, slope):
    model, mesh = part("mixed")
    solves(written(tmp_path, model, pulled(mesh), Sta_MatSlopeFactor=slope))


@pytest.mark.parametrize("kind", KINDS)
def test_elements_far_outside_the_part_are_integrated_with_fewer_points(tmp_path, kind):
    model, mesh = part(kind)
    model.set_level(random(13).uniform(-0.9, -0.02, len(mesh.nodes)))
    expected = solves(written(tmp_path, model, pulled(mesh), Sta_MatSlopeFactor=10))
    inputs = expected.cases[0].inputs
    groups = oracle.gather(inputs.model, inputs.state, inputs.scalars, inputs.options)
    assert {g.order for g in groups} == {2, 3}


@pytest.mark.parametrize("kind", KINDS)
def test_an_element_exactly_at_the_switch_level_is_integrated_with_fewer_points(tmp_path, kind):
    model, mesh = part(kind)
    model.tp = np.array((-0.2, -0.8), np.float32)  # of mean magnitude 0.5, so not scaled
    model.node_tp_index = random(14).integers(1, 3, len(mesh.nodes)).astype(np.int32)
    expected = solves(written(tmp_path, model, pulled(mesh), Sta_MatSlopeFactor=10))
    inputs = expected.cases[0].inputs
    assert inputs.model.level.max() == np.float32(-0.2)
    groups = oracle.gather(inputs.model, inputs.state, inputs.scalars, inputs.options)
    assert {g.order for g in groups} == {2}


def test_design_points_may_be_shared_or_untouched(tmp_path):
    model, mesh = part()
    count = len(mesh.nodes)
    model.tp = random(7).uniform(-0.4, 1.0, 12).astype(np.float32)
    model.node_tp_index = random(8).integers(-1, 10, count).astype(np.int32)
    solves(written(tmp_path, model, pulled(mesh)))
    values = counted(tmp_path, "ws.tcval", 1)
    assert values[9] == values[10] == values[11] == values[:9].min()


def test_untouched_design_points_alone_hold_the_largest_float(tmp_path):
    model, mesh = part(level=False)
    model.tp = np.ones(3, np.float32)
    solves(written(tmp_path, model, pulled(mesh)))
    assert np.array_equal(counted(tmp_path, "ws.tcval", 1), np.full(3, oracle.LARGEST_FLOAT))


def test_level_values_of_zero_leave_half_the_material(tmp_path):
    model, mesh = part(level=False)
    model.set_level(0.0, mesh.face("x+"))
    model.set_level(0.0)
    solves(written(tmp_path, model, pulled(mesh)))


def test_no_design_points_give_a_criterion_file_of_its_count_alone(tmp_path):
    model, mesh = part(level=False)
    directory = written(tmp_path, model, pulled(mesh), Sta_ResponseDumpFac=0.5)
    solves(directory)
    clear_done(directory)
    solves(directory)
    assert Path(directory, "ws.tcval.0001").read_bytes() == bytes(4)


def test_an_earlier_criterion_is_blended_in(tmp_path):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh), Sta_ResponseDumpFac=0.25)
    solves(directory)
    fresh = counted(directory, "ws.tcval", 1)
    before = np.linspace(0, 2 * fresh.max(), len(fresh), dtype=np.float32)
    path = Path(directory, "ws.tcval.0001")
    path.write_bytes(np.int32(7).tobytes() + before.tobytes())
    clear_done(directory)
    solves(directory)
    same(counted(directory, "ws.tcval", 1), 0.75 * fresh + 0.25 * before, 1e-4)


@pytest.mark.parametrize("count", [0, -3])
def test_an_earlier_criterion_without_values_counts_as_zeros(tmp_path, count):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh), Sta_ResponseDumpFac=0.5)
    Path(directory, "ws.tcval.0001").write_bytes(np.int32(count).tobytes())
    solves(directory)


def test_without_blending_the_earlier_criterion_is_not_even_read(tmp_path):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh))
    Path(directory, "ws.tcval.0001").write_bytes(b"x")
    solves(directory)


def test_a_second_run_has_nothing_to_do(tmp_path):
    directory = tiny(tmp_path)
    run(directory)
    before = {path: path.read_bytes() for path in directory.glob("*s.*")}
    lines = run(directory)
    assert len(lines) == len(oracle.whole_log([]))
    assert {path: path.read_bytes() for path in directory.glob("*s.*")} == before


@pytest.mark.parametrize("name", ["isotropic", "yielding", "compression only"])
def test_a_load_case_that_runs_again_starts_from_its_state(tmp_path, name):
    model, mesh = part("mixed")
    model.materials = [MATERIALS[name]]
    cases = (pulled(mesh).heat(mesh.face("y-"), 5.0), pulled(mesh, force=(-2.0, 1.0, 0.0)))
    directory = written(tmp_path, model, *cases)
    for _ in range(4):
        expected = solves(directory)
        clear_done(directory)
    assert [c.new_matrix for c in expected.cases] == [True, name != "isotropic"]


def test_a_yielding_part_softens_run_by_run_and_stiffens_again_when_unloaded(tmp_path):
    model, mesh = part(level=False)
    model.materials = [MATERIALS["yielding"]]
    directory = written(tmp_path, model, pulled(mesh, force=(20.0, 0.0, 0.0)))
    states = []
    for _ in range(3):
        solves(directory)
        states.append(counted(directory, "ws.mstate", 1).mean())
        clear_done(directory)
    assert 1.0 > states[0] > states[1]
    written(directory, model, pulled(mesh, force=(0.01, 0.0, 0.0)))
    for _ in range(20):
        run(directory)
        clear_done(directory)
    assert counted(directory, "ws.mstate", 1).min() > 0.99


def test_a_yield_factor_of_zero_keeps_a_yielding_part_elastic(tmp_path):
    model, mesh = part()
    model.materials = [MATERIALS["yielding"]]
    options = {"Sta_YieldStressFac": 0.0}
    directory = written(tmp_path, model, pulled(mesh, force=(20.0, 0.0, 0.0)), **options)
    state = np.full(len(model.elements), 0.25, "<f4")
    Path(directory, "ws.mstate.0001").write_bytes(np.int32(len(state)).tobytes() + state.tobytes())
    solves(directory)
    assert (counted(directory, "ws.mstate", 1) == 0.25).all()


def test_a_contact_layer_opens_tenfold_a_run_down_to_a_thousandth(tmp_path):
    model, mesh = part(level=False)
    model.materials = [STEEL, MATERIALS["compression only"]]
    model.materials[1].initial_strain = 0.0
    layer = mesh.centroids()[:, 0] < 1.0
    model.elements.materials[layer] = 2
    directory = written(tmp_path, model, pulled(mesh, force=(0.01, 0.0, 0.0)))
    for exponent in (1, 2, 3, 3):
        solves(directory)
        np.testing.assert_allclose(
            counted(directory, "ws.mstate", 1)[layer], 0.1**exponent, rtol=1e-6
        )
        clear_done(directory)


@pytest.mark.parametrize("count", [0, 3, 10**6])
def test_a_state_file_of_another_count_means_ones_and_a_new_matrix(tmp_path, count):
    model, mesh = part()
    model.materials = [MATERIALS["yielding"]]
    directory = written(tmp_path, model, pulled(mesh), pulled(mesh))
    Path(directory, "ws.mstate.0002").write_bytes(np.int32(count).tobytes())
    expected = solves(directory)
    assert [c.new_matrix for c in expected.cases] == [True, True]


def test_a_matrix_of_a_saved_state_serves_a_load_case_without_one(tmp_path):
    model, mesh = part()
    model.materials = [MATERIALS["yielding"]]
    second = pulled(mesh).prescribe(mesh.face("y+"), "y", 0.02)
    first = pulled(mesh).prescribe(mesh.face("y+"), "y", 0.01)
    directory = written(tmp_path, model, first, second)
    state = random(9).uniform(0.3, 1.0, len(model.elements)).astype("<f4")
    Path(directory, "ws.mstate.0001").write_bytes(np.int32(len(state)).tobytes() + state.tobytes())
    expected = solves(directory)
    assert [c.new_matrix for c in expected.cases] == [True, False]


@pytest.mark.parametrize("size", [0, 4, 8, 100])
def test_a_short_displacement_file_is_no_start(tmp_path, size):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh))
    Path(directory, "ws.sstate.0001").write_bytes(b"\1" * size)
    solves(directory)


def test_a_displacement_file_of_odd_header_and_length_is_a_start(tmp_path):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh))
    values = random(10).uniform(-1e-2, 1e-2, 3 * len(mesh.nodes)).astype("<f4")
    Path(directory, "ws.sstate.0001").write_bytes(b"\xff" * 8 + values.tobytes() + b"more")
    solves(directory)


def test_elements_of_unknown_type_and_excluded_rubbish_are_passed_over(tmp_path, monkeypatch):
    model, mesh = part("mixed")
    elements = model.elements
    order = random(11).permutation(len(elements))
    for name in ("type_codes", "materials", "conn_index"):
        setattr(elements, name, getattr(elements, name)[order])
    structure = model.structure()
    unknown, left_out = (7, -1, 61, 0), (40, 41, 60, 40)
    elements.type_codes = np.append(elements.type_codes, unknown + left_out).astype(np.int16)
    elements.materials = np.append(elements.materials, [0, 99, -5, 1] * 2).astype(np.int16)
    rows = (0, -7, 2**31 - 1, 1, 0, -1, 10**6, 2**31 - 1)
    elements.conn_index = np.append(elements.conn_index, rows).astype(np.int32)
    flags = np.zeros(len(elements), np.int16)
    flags[-4:] = (1 << 2, 1 << 8, 1 << 2, 1 << 8)
    model.element_flags = flags
    monkeypatch.setattr(model, "structure", lambda: structure)
    solves(written(tmp_path, model, pulled(mesh)))


def test_rows_and_nodes_that_no_element_uses_may_be_rubbish(tmp_path, monkeypatch):
    model, mesh = part()
    structure = model.structure()
    model.elements.tet4 = np.concatenate((model.elements.tet4, [(0, -1, 10**9, 5)]))
    monkeypatch.setattr(model, "structure", lambda: structure)
    solves(written(tmp_path, model, pulled(mesh)))


def test_counts_that_overwrite_each_other_may_shrink_the_model(tmp_path):
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh))
    nodes = oracle.Bytes(directory, "mx.nodes")
    header, count = nodes.int32(), nodes.int32()
    more = np.array((header, count + 2), "<i4").tobytes() + nodes.data[8:] + bytes(24)
    Path(directory, "mx.nodes").write_bytes(more)
    flags = Path(directory, "mxs.elemflags")
    last = int(np.frombuffer(flags.read_bytes(), "<i4", 1)[0])
    flags.write_bytes(np.int32(last - 3).tobytes() + flags.read_bytes()[4 : 4 + 2 * (last - 3)])
    expected = solves(directory)
    assert len(expected.cases[0].response.mstate) == last - 3


def test_a_load_case_above_9999_has_asterisks_in_its_file_names(tmp_path):
    count = 12345
    model, mesh = part()
    directory = written(tmp_path, model, pulled(mesh))
    Path(directory, "mxs.lcmap.0001").rename(Path(directory, "mxs.lcmap.****"))
    records = np.zeros((count, 260), "<i4")
    records[:, 2] = np.arange(1, count + 1)
    records[-1, :2] = 1
    flags = np.zeros(1 + 2 * count, "<i4")
    flags[[0, count]] = (count, 1)
    Path(directory, "mxs.lcflags").write_bytes(flags.tobytes())
    header = np.array((count, 128), "<i4")
    Path(directory, "mxs.lcdata").write_bytes(header.tobytes() + records.tobytes())
    expected = solves(directory)
    assert [c.number for c in expected.cases] == [count]
    stems = ("amsval", "comval", "disval", "sstate", "tcval")
    assert sorted(p.name for p in tmp_path.glob("ws.*")) == [f"ws.{s}.****" for s in stems]
