"""Faults that `vkctl.check.inputs` tells."""

from pathlib import Path

import pytest

from vkctl.directory import model

from .faults import assert_stops, assert_told, collection, cut, sound

FAULTS, provokes = collection()


@provokes("directory-missing", "error", "There is no directory")
def no_directory(directory):
    directory.rmdir()


for _name in [
    "mx.mats",
    "mx.nodes",
    "mx.elems",
    "mxs.nodeflags",
    "mxs.tpadr",
    "mxs.elemflags",
    "mxs.tp",
    "mxs.sadr",
    "mxs.lcdata",
    "mxs.lcflags",
    "mxs.lcmap.0001",
    "vk_rund_cmd.txt",
]:

    def _remove(directory, name=_name):
        model.write(sound()[0], directory)
        Path(directory, name).unlink()

    _remove.__name__ = f"missing_{_name}"
    provokes("file-missing", "error", _name)(_remove)

    if _name != "vk_rund_cmd.txt":

        def _shorten(directory, name=_name):
            model.write(sound()[0], directory)
            cut(directory, name, 1)

        _shorten.__name__ = f"short_{_name}"
        provokes("file-short", "error", _name)(_shorten)

        def _lengthen(directory, name=_name):
            model.write(sound()[0], directory)
            with open(Path(directory, name), "ab") as stream:
                stream.write(b"12345")

        _lengthen.__name__ = f"long_{_name}"
        provokes("file-long", "warning", _name, "5 bytes")(_lengthen)


@provokes("file-unreadable", "error", "mx.nodes")
def a_folder_in_place_of_a_file(directory):
    model.write(sound()[0], directory)
    Path(directory, "mx.nodes").unlink()
    Path(directory, "mx.nodes").mkdir()


@provokes("format-number", "error", "127", stops=True)
def another_format_number(directory):
    model.write(sound()[0], directory)
    path = Path(directory, "mxs.lcdata")
    content = bytearray(path.read_bytes())
    content[4] = 127
    path.write_bytes(content)


@provokes("file-unfinished", "note", "ws.tcval.0001~00c0ffee00c0ffee")
def a_file_of_a_killed_run(directory):
    model.write(sound()[0], directory)
    Path(directory, "ws.tcval.0001~00c0ffee00c0ffee").touch()
    Path(directory, "ws.tcval.0002~").touch()  # somebody's own


@pytest.mark.parametrize("name", sorted(FAULTS))
def test_a_fault_is_told_with_its_code_severity_and_place(tmp_path, name):
    assert_told(FAULTS[name], tmp_path / "part")


@pytest.mark.parametrize("name", sorted(name for name in FAULTS if FAULTS[name].stops))
def test_what_is_told_as_an_error_stops_the_solver(tmp_path, name):
    assert_stops(FAULTS[name], tmp_path)
