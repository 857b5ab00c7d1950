"""Comparing results: tolerances by quantity, worst places, and what can't be compared."""

import numpy as np
import pytest
from results_on_disk import change

from vkctl.directory import formats, model
from vkctl.directory.compare import CannotCompareError, diff
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.running.run import run
from vkctl.shapes.boxes import box


def test_equal_directories_are_equal(pair):
    comparison = diff(*pair, rtol=0.0)
    assert comparison.equal and comparison.status == 0
    assert comparison.load_cases == [1, 2]


@pytest.mark.parametrize(
    ("stored", "name", "noun", "index"),
    [
        ("displacements", "displacements", "node", 12),
        ("magnitude", "magnitude", "node", 12),
        ("stress", "stress", "node", 15),
        ("criterion", "criterion", "design point", 4),
        ("element_state", "element_state", "element", 7),
    ],
)
def test_a_difference_is_found_where_it_is(pair, stored, name, noun, index):
    change(pair[1], stored, 2, index, 1.01)
    (found,) = diff(*pair).differences
    assert (found.load_case, found.quantity, found.noun) == (2, name, noun)
    assert found.count == 1 and found.worst[0].number == index + 1
    assert found.largest == pytest.approx(
        np.linalg.norm(np.subtract(found.worst[0].first, found.worst[0].second))
    )
    assert f"{noun} {index + 1}" in str(found)
    assert diff(*pair, rtol=0.02).equal
    assert diff(*pair, rtol={name: 0.02}).equal
    assert not diff(*pair, rtol={"quality": 0.02}).equal


def test_tolerances_are_relative_to_the_largest_value_of_the_quantity(pair):
    change(pair[1], "stress", 1, 8, 1.01)  # 0.667 by one percent, the largest is 3
    (found,) = diff(*pair).differences
    assert found.scale == 3.0 and found.tolerance == pytest.approx(0.0003)
    assert found.largest == pytest.approx(0.00667, rel=1e-2)
    assert diff(*pair, rtol=0.0023).equal
    assert not diff(*pair, rtol=0.0022).equal
    assert diff(*pair, atol=0.0065).equal


def test_totals_are_compared_as_vectors_and_numbers(pair):
    totals = formats.read_totals(pair[1], 1)
    totals["SEner"], totals["R"] = 2.1, (0.1, 0, -4.0)
    formats.write_totals(pair[1], 1, totals)
    texts = [str(found) for found in diff(*pair).differences]
    assert texts[0].startswith("load case 1, strain energy: 2 and 2.1, 0.1")
    assert texts[1].startswith("load case 1, applied load: (0, 0, -4) and (0.1, 0, -4), 0.1")


def test_the_worst_nodes_come_first_with_their_places(pair):
    for index, factor in ((3, 1.05), (9, 1.2), (12, 1.1), (14, 1.3), (15, 1.01)):
        change(pair[1], "magnitude", 1, index, factor)
    (found,) = diff(*pair).differences
    assert found.count == 5
    assert [place.number for place in found.worst] == [15, 10, 13]
    assert found.worst[0].point == tuple(formats.read_nodes(pair[0])[14].tolist())


def test_places_are_told_with_what_the_mesh_calls_them_by_whichever_directory_knows(pair):
    labels = formats.Labels(np.arange(16) + 412, np.arange(18)[::-1] + 900)
    change(pair[1], "stress", 1, 15, 1.01)
    change(pair[1], "element_state", 1, 2, 0.5)
    change(pair[1], "criterion", 1, 1, 1.01)
    for directory in pair:
        formats.write_labels(directory, labels)
        texts = sorted(map(str, diff(*pair).differences))
        assert [text.split("worst: ")[1].split(":")[0].split(" at")[0] for text in texts] == [
            "design point 2",
            "element 3 (915 in the mesh)",
            "node 16 (427 in the mesh)",
        ]
        formats.write_labels(directory, None)


@pytest.mark.parametrize("damage", [b"", b"\x10\0\0\0", bytes(8)])
def test_labels_that_are_damaged_or_of_another_mesh_are_not_told(pair, damage):
    change(pair[1], "stress", 1, 15, 1.01)
    for directory in pair:
        (directory / "vkctl.labels").write_bytes(damage)
    (found,) = diff(*pair).differences
    assert "worst: node 16 at (" in str(found)


def test_signs_of_stresses_count_only_when_asked_for(pair):
    change(pair[1], "stress", 1, 15, -1.0)
    assert diff(*pair).equal
    (found,) = diff(*pair, signs=True).differences
    assert found.largest == 6.0


def test_undefined_values_are_equal_to_undefined_values_only(pair):
    for directory in pair:
        change(directory, "stress", 1, 3, np.nan)
    assert diff(*pair).equal
    change(pair[1], "stress", 1, 5, np.nan)
    (found,) = diff(*pair).differences
    assert found.count == 1 and found.worst[0].number == 6


def test_untouched_criterion_values_do_not_set_the_scale(pair):
    for directory in pair:
        values = formats.read_criterion(directory, 1).copy()
        values[0] = np.finfo(np.float32).max
        formats.write_criterion(directory, 1, values)
    assert diff(*pair).equal
    change(pair[1], "criterion", 1, 4, 1.01)
    (found,) = diff(*pair).differences
    assert found.scale == pytest.approx(2.02)


def test_what_only_one_side_has_is_a_difference(pair):
    (pair[1] / "ws.comval.0002").unlink()
    (pair[0] / "ws.sstate.0001").unlink()
    comparison = diff(*pair)
    assert comparison.status == 1
    assert comparison.one_sided == [
        f"load case 2 is solved in {pair[0]} only",
        f"load case 1, displacements: only in {pair[1]}",
    ]


def test_other_meshes_can_not_be_compared(pair, tmp_path):
    nodes = formats.read_nodes(pair[1])
    formats.write_nodes(pair[1], nodes[:-1])
    with pytest.raises(CannotCompareError, match="16 nodes"):
        diff(*pair)
    nodes[2] += 0.1
    formats.write_nodes(pair[1], nodes)
    with pytest.raises(CannotCompareError, match="Node 3 lies elsewhere"):
        diff(*pair)
    formats.write_labels(pair[0], formats.Labels(np.arange(16) + 70, np.arange(18)))
    with pytest.raises(CannotCompareError, match=r"Node 3 \(72 in the mesh\) lies elsewhere"):
        diff(*pair)


def test_results_of_another_length_can_not_be_compared(pair):
    formats.write_criterion(pair[1], 1, np.ones(4))
    with pytest.raises(CannotCompareError, match="5 and 4 values"):
        diff(*pair)
    (pair[1] / "ws.tcval.0001").write_bytes(b"\5\0\0\0")
    with pytest.raises(CannotCompareError, match="can't be read"):
        diff(*pair)


def test_direct_and_iterative_solutions_agree_within_the_default_tolerances(tmp_path):
    part = box("hex8", (8, 3, 3), (8.0, 3.0, 3.0), distortion=0.1)
    case = LoadCase().prescribe(part.face("x-")).load(*part.traction("x+", (0.3, 0.2, -1.0)))
    whole = Model(part.nodes, part.elements, [Material.isotropic(1000.0, 0.3)], [case])
    whole.set_level(part.nodes[:, 2] - 0.7)
    for mode in ("direct", "iterative"):
        model.write(whole, tmp_path / mode)
        assert run(tmp_path / mode, mode=mode).ok
    assert diff(tmp_path / "direct", tmp_path / "iterative").equal
    assert not diff(tmp_path / "direct", tmp_path / "iterative", rtol=1e-9).equal
