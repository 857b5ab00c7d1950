"""The program's description of itself, against what it does."""

from __future__ import annotations

import json
import os
import subprocess

import pytest
from models import tiny
from runs import BAD_ARGUMENTS, BAD_DIRECTORY, BAD_LOG, BAD_RUN, run, start


@pytest.fixture(scope="module")
def described() -> dict:
    return json.loads(start("--describe").out)


def test_the_description_is_one_document_of_stable_order_and_needs_no_directory(tmp_path):
    first, second = start("--describe", cwd=tmp_path), start("--describe", cwd="/")
    assert (first.status, first.err) == (0, "")
    assert first == second
    assert json.loads(first.out)["schema"] == 1
    assert first.out.endswith("}\n")
    assert list(tmp_path.iterdir()) == []


def test_help_names_the_description():
    assert "--describe" in start("--help").out


def test_a_description_that_cannot_be_written_is_a_failure():
    with open("/dev/full", "w") as full:
        done = subprocess.run([os.environ["VK_RUND"], "--describe"], stdout=full, check=False)
    assert done.returncode == 1


def test_the_version_is_the_programs(described):
    assert start("--version").out.startswith(f"vk_rund {described['version']},")


def test_the_stops_are_those_of_the_program(described):
    codes = {stop["name"]: (stop["code"], stop["status"]) for stop in described["stops"]}
    assert codes == {
        "arguments": (BAD_ARGUMENTS, 233),
        "directory": (BAD_DIRECTORY, 236),
        "log": (BAD_LOG, 237),
        "error": (BAD_RUN, 242),
    }


def test_every_option_is_read_under_its_key_and_in_its_type(tmp_path, described):
    directory = tiny(tmp_path)
    file = directory / described["options"]["file"]
    kept = file.read_text()
    for option in described["options"]["keys"]:
        file.write_text(kept + f"{option['key']}=x\n")
        outcome = start(directory)
        assert f"{option['key']}=x" in outcome.err
        file.write_text(kept + f"{option['key']}=1.0\n")
        assert (start(directory).status == 0) == (option["type"] == "float32")


def test_a_comment_and_the_end_of_a_line_are_where_the_description_says(tmp_path, described):
    directory = tiny(tmp_path)
    options = described["options"]
    file, key = directory / options["file"], options["keys"][0]["key"]
    kept = file.read_text()
    file.write_text(f"{kept}{options['comment']}{key}=x\n")
    run(directory)
    line = f"{key}=1"
    file.write_text(kept + line + " " * (options["lineLength"] - len(line)) + "x\n")
    run(directory)
    padded = f"{key}=".ljust(options["lineLength"] - 1)
    file.write_text(kept + padded + "1\n")
    run(directory)
    file.write_text(kept + padded + " 1\n")
    assert start(directory).status != 0
