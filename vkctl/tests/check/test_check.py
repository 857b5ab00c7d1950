"""The check as a whole: sound directories, damaged ones, and its messages."""

import re
import shutil
from dataclasses import replace
from importlib import import_module
from pathlib import Path

import numpy as np
import pytest

from vkctl import check as check_package
from vkctl.check import check
from vkctl.directory import formats, model
from vkctl.directory.formats import file_names
from vkctl.directory.model import LoadCase, Material, Model
from vkctl.shapes.boxes import box

from .faults import sound


@pytest.mark.parametrize("kind", ["tet4", "hex8", "tet10", "mixed"])
def test_a_sound_directory_draws_no_message(tmp_path, kind):
    model.write(sound(kind)[0], tmp_path)
    report = check(tmp_path)
    assert report.findings == [] and report.status == 0
    assert report.counts["load_cases_to_run"] == 1


def test_checking_changes_nothing(tmp_path):
    model.write(sound()[0], tmp_path)
    before = {path.name: path.stat().st_mtime_ns for path in tmp_path.iterdir()}
    check(tmp_path)
    assert {path.name: path.stat().st_mtime_ns for path in tmp_path.iterdir()} == before


def _codes_in_source():
    sources = Path(check_package.__file__).parent.glob("*.py")
    calls = re.compile(r'\b(?:error|warning|note|kind)\(\s*"([a-z0-9-]+)"')
    return {code for source in sources for code in calls.findall(source.read_text())}


def _faults():
    """The faults that the modules beside this one provoke."""
    names = sorted(path.stem for path in Path(__file__).parent.glob("test_*.py"))
    modules = [import_module(f"{__package__}.{name}") for name in names]
    return [fault for module in modules for fault in getattr(module, "FAULTS", {}).values()]


def _codes_provoked():
    return {fault.code for fault in _faults()}


def test_every_message_is_provoked_by_a_test():
    elsewhere = {"structure-64bit", "structure-too-large", "memory-machine"}
    elsewhere |= {"output-directory", "output-protected"}
    assert _codes_in_source() == _codes_provoked() | elsewhere


def test_every_message_is_in_the_documentation():
    page = Path(__file__).parents[3] / "docs" / "how-to.md"
    told = set(re.findall(r"^\| `([a-z0-9-]+)` \|", page.read_text(), re.MULTILINE))
    assert told == _codes_in_source()


# What is added to numbers to make labels of them.
SHIFT = {"node": 1000, "element": 2000}


def _labelled(directory):
    """Give nodes and elements labels, where the model's size can be read."""
    try:
        nodes, elements = formats.read_nodes(directory), formats.read_elements(directory).records
    except (OSError, formats.FormatError):
        return
    numbers = np.arange(1, len(nodes) + 1), np.arange(1, len(elements) + 1)
    formats.write_labels(
        directory, formats.Labels(numbers[0] + SHIFT["node"], numbers[1] + SHIFT["element"])
    )


def _findings_with_labels(directory, fault):
    directory.mkdir()
    fault.spoil(directory)
    if not Path(directory, file_names.LABELS).exists() and directory.is_dir():
        _labelled(directory)
    return check(directory).findings


def test_every_list_of_nodes_or_elements_tells_what_the_mesh_calls_them(tmp_path):
    told = set()
    for number, fault in enumerate(_faults()):
        if fault.code == "labels-unfit":
            continue
        for finding in _findings_with_labels(tmp_path / str(number), fault):
            for noun, text in re.findall(r"\b(node|element)s? \(([^)]*)\)", finding.message):
                numbers, _, labels = text.partition("; ")
                shown = [int(word) for word in numbers.split(" and ")[0].split(", ")]
                shifted = ", ".join(str(n + SHIFT[noun]) for n in shown)
                assert labels == f"{shifted} in the mesh", finding.message
                told.add(finding.code)
    assert len(told) >= 25 and {"element-sliver", "force-twice", "hinge", "node-unused"} <= told


@pytest.mark.parametrize(
    ("code", "words"),
    [
        ("element-sliver", r"worst is (\d+) \((\d+) in the mesh\)"),
        ("rigid-body", r"node (\d+) \((\d+) in the mesh\) is one of them"),
        ("structure-missing", r"(\d+) \((\d+) in the mesh\) with \d+ \(10\d\d in the mesh\)"),
    ],
)
def test_a_single_node_or_element_is_told_with_what_the_mesh_calls_it(tmp_path, code, words):
    faults = [fault for fault in _faults() if fault.code == code]
    messages = [
        finding.message
        for number, fault in enumerate(faults)
        for finding in _findings_with_labels(tmp_path / str(number), fault)
        if finding.code == code
    ]
    found = [match for message in messages if (match := re.search(words, message))]
    assert found
    shift = SHIFT["element" if code.startswith("element") else "node"]
    assert all(int(match[2]) == int(match[1]) + shift for match in found)


def test_labels_that_are_the_numbers_are_not_told(tmp_path):
    whole, _ = sound()
    whole.nodes = np.concatenate((whole.nodes, [(5.0, 5.0, 5.0)]))
    whole = replace(whole, node_flags=None, node_tp_index=None)
    whole.labels = formats.Labels(np.arange(1, 18), np.arange(1, 19))
    model.write(whole, tmp_path)
    assert "1 node (17) belong to no element and are ignored." in [
        finding.message for finding in check(tmp_path).findings
    ]


def _damage(directory, random):
    """Overwrite, cut or lengthen a file somewhere."""
    files = sorted(path for path in directory.iterdir() if path.stat().st_size)
    path = files[random.integers(len(files))]
    content = bytearray(path.read_bytes())
    place = int(random.integers(len(content))) // 4 * 4
    match random.integers(4):
        case 0:
            content[place] = random.integers(256)
        case 1:
            number = random.choice((0, 1, -1, 2**31 - 1, -(2**31), 65536))
            content[place : place + 4] = int(number).to_bytes(4, "little", signed=True)
        case 2:
            undefined = np.float32(random.choice((np.nan, np.inf, 3e38)))
            content[place : place + 4] = undefined.tobytes()
        case 3:
            del content[place:]
    path.write_bytes(content)


@pytest.mark.filterwarnings("error")
def test_damaged_files_never_break_the_check(tmp_path):
    part = box("mixed", (3, 1, 1), (3.0, 1.0, 1.0))
    case = LoadCase().prescribe(part.face("x-")).support([5]).load(7, (0, 0, -1)).heat(3, 5.0)
    materials = [Material.yielding(1e3, 0.3, 5.0)]
    whole = Model(
        part.nodes, part.elements, materials, [case], options={"Sta.ResponseDumpFac": 0.5}
    )
    whole.set_level(part.nodes[:, 1] - 0.3)
    model.write(whole, tmp_path / "sound")
    formats.write_displacements(tmp_path / "sound", 1, 0 * part.nodes)
    formats.write_element_state(tmp_path / "sound", 1, np.ones(len(part.elements)))
    formats.write_criterion(tmp_path / "sound", 1, whole.tp)
    worst = []
    for seed in range(60):
        damaged = shutil.copytree(tmp_path / "sound", tmp_path / str(seed))
        _damage(damaged, np.random.default_rng(seed))
        worst.append(check(damaged).status)
    assert 10 < worst.count(2) < 60
