"""Sets, names and units that a directory keeps for questions and pictures."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest
from new_parts import brick

from vkctl.basics.units import UNIT_SYSTEMS, unit_system
from vkctl.directory import formats, model
from vkctl.directory.case_names import case_names, read_case_names, titled
from vkctl.directory.formats import file_names
from vkctl.prepare import CaseFileError, new
from vkctl.prepare.cantilever import write_cantilever

CASES = """
units = "mm-N-MPa"
[materials.steel]
E = 1000.0
nu = 0.25
density = 2.0
[node_sets.corner]
nearest = [0, 0, 0]
[element_sets.half]
where = "x < 2"
[face_sets.right]
plane = { point = [4, 0, 0], normal = [1, 0, 0] }
[supports.clamp]
set = "left"
[loads.pull]
type = "traction"
set = "right"
value = [10, 0, 0]
[loads.weight]
type = "gravity"
value = [0, 0, -1]
[[load_case]]
name = "pull, and a name that is longer than the sixty-four bytes of its record"
loads = { pull = 1.5, weight = 1.0 }
[[load_case]]
name = "Zug nach außen"
loads = ["pull"]
"""


def _case_file(folder: Path, text: str) -> Path:
    path = folder / "cases.toml"
    path.write_text(text, encoding="utf-8")
    return path


@pytest.fixture(scope="module")
def directory(tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("memory")
    brick(folder, "hex8")
    new(folder / "part.msh", _case_file(folder, CASES), folder / "run")
    return folder / "run"


def test_sets_of_the_case_file_and_of_the_part_are_remembered(directory: Path) -> None:
    whole = model.read(directory)
    sets = {(one.kind, one.name): one for one in formats.read_sets(directory) or []}
    right = sets["face", "right"]
    assert np.allclose(whole.nodes[right.own_nodes() - 1, 0], 4.0)
    assert [table.shape[1] for table in right.faces] == [4]
    assert len(sets["node", "corner"]) == 1
    assert 0 < len(sets["element", "half"]) < len(whole.elements)
    assert ("face", "left") in sets  # of the part
    assert whole.sets is not None and len(whole.sets) == len(sets)


def test_names_units_and_densities_are_remembered(directory: Path) -> None:
    notes = formats.read_case_notes(directory)
    assert notes is not None and notes.unit_system is not None
    assert notes.unit_system.stress == "MPa" and notes.unit_system.density == "t/mm³"
    assert notes.densities == (2.0,)
    assert notes.supports == {"clamp": formats.Condition("fixed", ("left",))}
    assert notes.loads["weight"] == formats.Condition("gravity", ())
    assert notes.load_cases[0].loads == {"pull": 1.5, "weight": 1.0}
    assert notes.load_cases[0].supports == ("clamp",)


def test_load_cases_have_their_whole_names(directory: Path) -> None:
    names = read_case_names(directory)
    assert names[0].endswith("bytes of its record") and names[1] == "Zug nach außen"
    assert case_names(model.read(directory)) == names
    assert titled(2, names) == "load case 2, Zug nach außen"
    assert titled(3, names) == "load case 3"


def test_without_the_memory_the_records_tell_the_names(directory: Path, tmp_path: Path) -> None:
    whole = model.read(directory)
    whole.sets = whole.notes = None
    model.write(whole, tmp_path)
    assert formats.read_sets(tmp_path) is None and formats.read_case_notes(tmp_path) is None
    assert read_case_names(tmp_path)[1] == "Zug nach außen"
    assert len(read_case_names(tmp_path)[0].encode()) == 64
    assert read_case_names(tmp_path / "nowhere") == []


def test_a_model_without_memory_leaves_none_of_an_earlier_one(
    directory: Path, tmp_path: Path
) -> None:
    whole = model.read(directory)
    model.write(whole, tmp_path)
    assert Path(tmp_path, file_names.SETS).read_bytes() == (
        Path(directory, file_names.SETS).read_bytes()
    )
    whole.sets = whole.notes = None
    model.write(whole, tmp_path)
    assert not Path(tmp_path, file_names.SETS).exists()
    assert not Path(tmp_path, file_names.CASE_NOTES).exists()


def test_a_cut_or_foreign_set_file_is_told(directory: Path, tmp_path: Path) -> None:
    whole = Path(directory, file_names.SETS).read_bytes()
    path = tmp_path / file_names.SETS
    for end in range(0, len(whole), 7):
        path.write_bytes(whole[:end])
        with pytest.raises(formats.FormatError):
            formats.read_sets(tmp_path)
    for place in range(4, 64, 4):
        damaged = bytearray(whole)
        damaged[place : place + 4] = b"\xff\xff\xff\x7f"
        path.write_bytes(damaged)
        try:
            formats.read_sets(tmp_path)
        except formats.FormatError:
            pass


def test_a_set_beyond_the_model_is_told(directory: Path, tmp_path: Path) -> None:
    whole = model.read(directory)
    whole.sets = [formats.NamedSet("far", "node", np.array([len(whole.nodes) + 1]))]
    model.write(whole, tmp_path)
    with pytest.raises(formats.FormatError, match="set 'far' names"):
        model.read(tmp_path)


@pytest.mark.parametrize(
    "text",
    [
        "", "[]", "{}", "null", "[" * 100_000, '{"units": 3}', b"\xff\xfe",
        '{"units": null, "densities": ["x"], "supports": {}, "loads": {}, "load_cases": []}',
        '{"units": null, "densities": [], "supports": {"a": 1}, "loads": {}, "load_cases": []}',
        '{"units": null, "densities": [], "supports": {}, "loads": {}, "load_cases": [1]}',
        '{"units": null, "densities": [1%s], "supports": {}, "loads": {}}' % (400 * "0"),
    ],
)  # fmt: skip
def test_damaged_notes_are_told(text: str | bytes, tmp_path: Path) -> None:
    data = text if isinstance(text, bytes) else text.encode()
    Path(tmp_path, file_names.CASE_NOTES).write_bytes(data)
    with pytest.raises(formats.FormatError, match="isn't what vkctl writes there"):
        formats.read_case_notes(tmp_path)


def test_units_that_nobody_knows_are_a_mistake_of_the_case_file(tmp_path: Path) -> None:
    brick(tmp_path, "hex8")
    cases = _case_file(tmp_path, CASES.replace("mm-N-MPa", "mm-N-MPA"))
    with pytest.raises(CaseFileError, match=r"units .* did you mean 'mm-N-MPa'\?"):
        new(tmp_path / "part.msh", cases, tmp_path / "run")


def test_stress_is_force_by_area_in_every_system() -> None:
    metres = {"mm": 1e-3, "m": 1.0, "µm": 1e-6, "in": 0.0254, "ft": 0.3048}
    newtons = {
        "N": 1.0, "kN": 1e3, "mN": 1e-3, "MN": 1e6, "µN": 1e-6, "lbf": 4.4482216152605,
    }  # fmt: skip
    pascals = {"Pa": 1.0, "kPa": 1e3, "MPa": 1e6, "GPa": 1e9, "psi": 6894.757, "psf": 47.88026}
    kilograms = {"kg": 1.0, "t": 1e3, "kt": 1e6, "lbf s²/in": 175.126835, "slug": 14.5939029}
    joules = {
        "J": 1.0, "mJ": 1e-3, "µJ": 1e-6, "pJ": 1e-12, "kJ": 1e3, "MJ": 1e6,
        "in lbf": 0.112984829, "ft lbf": 1.355817948,
    }  # fmt: skip
    seconds = {"s": 1.0, "ms": 1e-3}
    for name, system in UNIT_SYSTEMS.items():
        length, force = metres[system.length], newtons[system.force]
        assert np.isclose(pascals[system.stress], force / length**2, rtol=1e-6), name
        assert np.isclose(joules[system.energy], force * length, rtol=1e-6), name
        assert np.isclose(system.pascals, pascals[system.stress]), name
        made = kilograms[system.mass] * length / seconds[system.time] ** 2
        assert np.isclose(made, force, rtol=1e-6), name
    assert unit_system(None) is None and unit_system("furlong") is None


def test_the_quick_starts_cantilever_names_its_sides_cases_and_units(tmp_path: Path) -> None:
    write_cantilever(tmp_path)
    sets = {one.name: one for one in formats.read_sets(tmp_path) or []}
    assert len(sets["x-"]) == 2 * 19 * 19 and len(sets) == 6
    assert read_case_names(tmp_path) == ["bent", "twisted"]
    notes = formats.read_case_notes(tmp_path)
    assert notes is not None and notes.units == "mm-N-MPa"
