"""The build as others use it: installed, as a part of another project, and refused in one line."""

import json
import os
import re
import shutil
import subprocess
from pathlib import Path

import pytest

ROOT = Path(__file__).parents[2]
BUILD = Path(os.environ.get("VK_RUND", ROOT / "build" / "release" / "vk_rund")).resolve().parent
REFUSAL = "vk_rund can't be built: "


def cmake(*arguments, **options):
    return subprocess.run(
        ["cmake", *map(str, arguments)], capture_output=True, text=True, check=False, **options
    )


def configure(folder, *arguments, source=ROOT, **options):
    return cmake("-S", source, "-B", folder, "-G", "Ninja", *arguments, **options)


def refusal(result):
    """The one line that says why a configuration was refused."""
    assert result.returncode != 0
    lines = [line.strip() for line in result.stderr.splitlines() if REFUSAL in line]
    assert len(lines) == 1, result.stderr
    return lines[0].removeprefix(REFUSAL)


def test_what_is_installed_stands_in_the_usual_folders_and_runs(tmp_path):
    result = cmake("--install", BUILD, "--prefix", tmp_path)
    assert result.returncode == 0, result.stderr
    assert {str(path.relative_to(tmp_path)) for path in tmp_path.glob("*/*")} == {
        "bin/vk_rund",
        "share/doc",
        "share/man",
    }
    assert (tmp_path / "share/doc/vk_rund/docs/options.md").is_file()
    page = (tmp_path / "share/man/man1/vk_rund.1").read_text()
    told = subprocess.run(
        [tmp_path / "bin/vk_rund", "--version"], capture_output=True, text=True, check=True
    ).stdout
    version = told.split()[1].rstrip(",")
    assert f'"vk_rund {version}"' in page


def test_the_program_does_not_tell_where_it_was_made():
    assert os.fsencode(ROOT) not in (BUILD / "vk_rund").read_bytes()


@pytest.fixture(scope="module")
def parent_project(tmp_path_factory):
    """A project with the solver as a part, configured where Google Test can't be found."""
    folder = tmp_path_factory.mktemp("parent")
    (folder / "CMakeLists.txt").write_text(
        "cmake_minimum_required(VERSION 3.25)\n"
        "project(parent LANGUAGES CXX)\n"
        f"add_subdirectory({ROOT} solver)\n"
        "get_target_property(place vk_rund RUNTIME_OUTPUT_DIRECTORY)\n"
        'message(STATUS "program in ${place}")\n'
        'message(STATUS "release flags ${CMAKE_CXX_FLAGS_RELEASE}")\n'
    )
    result = configure(folder / "build", "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON", source=folder)
    assert result.returncode == 0, result.stderr
    return folder, result.stdout


def test_a_parent_project_needs_no_test_library_and_gets_no_tests(parent_project):
    folder, _ = parent_project
    targets = cmake("--build", folder / "build", "--target", "help").stdout
    assert "vk_rund" in targets
    assert "vk_tests" not in targets


def test_a_parent_project_keeps_its_folder_its_flags_and_its_installation(parent_project):
    folder, told = parent_project
    assert f"program in {folder}/build/solver\n" in told
    assert "-g1" not in told
    installed = cmake("--install", folder / "build", "--prefix", folder / "installed")
    assert installed.returncode == 0, installed.stderr
    assert not (folder / "installed").exists()


def test_flags_that_the_user_gives_are_kept(tmp_path):
    result = configure(tmp_path, "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DOWN_FLAG", "-DVK_TESTS=OFF")
    assert result.returncode == 0, result.stderr
    commands = json.loads((tmp_path / "compile_commands.json").read_text())
    main = next(entry["command"] for entry in commands if entry["file"].endswith("src/main.cpp"))
    assert "-O1 -DOWN_FLAG" in main
    assert "-O3" not in main
    assert "-g1" not in main


def test_an_unknown_back_end_is_refused_with_the_known_ones(tmp_path):
    line = refusal(configure(tmp_path, "-DVK_MATH=fast"))
    assert line == 'VK_MATH is "fast"; it can be mkl, open or auto'


WITHOUT_MKL = "-DCMAKE_DISABLE_FIND_PACKAGE_MKL=ON"
WITHOUT_OPEN = "-DCMAKE_DISABLE_FIND_PACKAGE_OpenMaths=ON"


@pytest.mark.parametrize("choice", ["auto", "open"])
def test_without_a_maths_library_the_packages_are_named(tmp_path, choice):
    line = refusal(configure(tmp_path, f"-DVK_MATH={choice}", WITHOUT_MKL, WITHOUT_OPEN))
    assert line.startswith("no maths library was found; install MUMPS and OpenBLAS")
    assert "apt install libmumps-seq-dev libopenblas-pthread-dev" in line
    assert "pip install mkl-static==2026.2.* mkl-include==2026.2.*" in line


def test_onemkl_that_is_asked_for_and_missing_is_told(tmp_path):
    line = refusal(configure(tmp_path, "-DVK_MATH=mkl", WITHOUT_MKL))
    assert line.startswith("VK_MATH=mkl, but no oneMKL was found")


def test_a_missing_test_library_is_named(tmp_path):
    line = refusal(configure(tmp_path, "-DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON"))
    assert "apt install libgtest-dev libgmock-dev" in line


def test_a_missing_compiler_is_told(tmp_path):
    """A search path on which nothing but CMake and Ninja are."""
    tools = tmp_path / "bin"
    tools.mkdir()
    for tool in ("cmake", "ninja"):
        (tools / tool).symlink_to(shutil.which(tool))
    result = configure(tmp_path / "build", env={"PATH": str(tools)})
    assert refusal(result) == (
        "no C++ compiler was found; install one (Debian: apt install g++) or name it in CXX"
    )


def test_a_compiler_that_is_not_there_is_told(tmp_path):
    result = configure(tmp_path, env={**os.environ, "CXX": "/no/such/compiler"})
    assert "no C++ compiler was found" in refusal(result)


def test_the_scripts_show_the_refusal_alone(tmp_path):
    """What quickstart and check say when the configuration was refused, or failed otherwise."""
    log = tmp_path / "configure.log"
    told = configure(tmp_path / "build", "-DVK_MATH=fast")
    log.write_text(told.stdout + told.stderr)
    (tmp_path / "other.log").write_text("CMake Error: something else\n")
    script = f'. {ROOT}/scripts/setup.sh; refusal "$1" "it failed"; echo; refusal "$2" "it failed"'
    shown = subprocess.run(
        ["bash", "-c", script, "bash", log, tmp_path / "other.log"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout.split("\n")
    assert shown[0] == REFUSAL + 'VK_MATH is "fast"; it can be mkl, open or auto'
    assert shown[-1] == "it failed"


def test_the_man_page_lists_every_command():
    from typer import Context
    from typer.main import get_command

    from vkctl.cli import app

    page = (ROOT / "docs/man/vkctl.1.in").read_text()
    commands = page[page.index(".SH COMMANDS") : page.index(".SH ENVIRONMENT")]
    command = get_command(app)
    known = command.list_commands(Context(command))
    listed = re.findall(r"^\.TP\n\.B (\w[\w\\-]*)$", commands, re.M)
    assert {name.replace("\\-", "-") for name in listed} == set(known)
