"""The list of components and the page of licences tell the same."""

import json
import re
import subprocess
import sys
from pathlib import Path

import pytest
from program_under_test import program, start

ROOT = Path(__file__).parents[2]
ENVIRONMENT = {
    "metadata": {"component": {"bom-ref": "root", "name": "vkctl"}},
    "components": [
        {"bom-ref": name, "name": name}
        for name in ("numpy", "Pygments", "vtk", "gmsh", "pytest", "pip")
    ],
    "dependencies": [
        {"ref": "root", "dependsOn": ["numpy", "pytest"]},
        {"ref": "pytest", "dependsOn": ["Pygments"]},
    ],
}


@pytest.fixture(scope="module")
def listed():
    told = subprocess.run(
        [sys.executable, ROOT / "scripts" / "sbom.py", program()],
        input=json.dumps(ENVIRONMENT),
        capture_output=True,
        text=True,
        check=True,
    )
    return json.loads(told.stdout)


def names(bom):
    return {part["name"] for part in bom["components"]}


def test_the_list_has_what_is_needed_at_run_time_and_not_what_tests_need(listed):
    assert {"numpy", "Pygments", "vtk", "gmsh"} <= names(listed)
    assert not {"pytest", "pip"} & names(listed)
    assert [entry["ref"] for entry in listed["dependencies"]] == ["root"]
    assert "pytest" not in listed["dependencies"][0]["dependsOn"]


def test_the_list_has_the_libraries_of_the_program(listed):
    assert {"libstdc++6", "libc6"} <= names(listed)
    assert any(re.match("libg?omp", name) for name in names(listed))
    maths = start("--version").out
    assert ("oneMKL" in maths) == ("oneMKL" in names(listed))
    assert ("MUMPS" in maths) == any(name.startswith("libmumps") for name in names(listed))
    linked = [part for part in listed["components"] if part["bom-ref"].startswith("pkg:")]
    assert all(part["version"] and part["licenses"] for part in linked)
    root = listed["dependencies"][0]
    assert {part["bom-ref"] for part in linked} <= set(root["dependsOn"])


def test_the_page_of_licences_names_all_that_vkctl_may_pull_in():
    """Every pinned package that vkctl needs on Linux, and every library that a program may link."""
    sys.path.insert(0, str(ROOT / "scripts"))
    import sbom

    page = (ROOT / "docs" / "licences.md").read_text().lower()
    words = set(re.findall(r"[a-z0-9][a-z0-9+_-]*", page))
    needed = sbom.needed("vkctl", {"all", "mesh", "view"}, set()) - {"vkctl"}
    assert len(needed) > 30
    assert needed - words == set()
    spoken = {
        "libgcc-s": "libgcc",
        "libc6": "glibc",
        "libpord": "pord",
        "libbz2": "bzip2",
        "liblzma": "xz",
    }
    for package in sbom.LICENCES:
        word = spoken.get(package, package)
        assert word in words or word.removeprefix("lib") in words, package
