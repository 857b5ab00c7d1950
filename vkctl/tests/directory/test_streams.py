"""Files replaced as a whole: never through links, synced in the order that a power cut forgives."""

from __future__ import annotations

import os
import secrets
import signal
import stat
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

from vkctl.directory import formats


def left_over(folder: Path) -> list[str]:
    return sorted(path.name for path in folder.iterdir() if path.name.startswith("."))


def test_bytes_are_synced_before_the_rename_and_the_folder_after_it(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    told: list[str] = []
    real = {name: getattr(os, name) for name in ("fsync", "replace")}

    def fsync(descriptor: int) -> None:
        mode, size = os.fstat(descriptor).st_mode, os.fstat(descriptor).st_size
        told.append("folder synced" if stat.S_ISDIR(mode) else f"{size} bytes synced")
        real["fsync"](descriptor)

    def replace(old: Path, new: Path) -> None:
        told.append(f"renamed to {Path(new).name}")
        real["replace"](old, new)

    monkeypatch.setattr(os, "fsync", fsync)
    monkeypatch.setattr(os, "replace", replace)
    formats.write_tp(tmp_path, [1.0, 2.0])
    assert told == ["12 bytes synced", "renamed to mxs.tp", "folder synced"]


def test_a_name_that_was_planted_is_neither_opened_nor_removed(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    victim = tmp_path / "victim"
    victim.write_text("precious")
    names = iter(("planted", "free"))
    monkeypatch.setattr(secrets, "token_hex", lambda _: next(names))
    planted = tmp_path / ".file.planted.tmp"
    planted.symlink_to(victim)
    with formats.replacing(tmp_path / "file") as stream:
        stream.write(b"new")
    assert (tmp_path / "file").read_bytes() == b"new"
    assert victim.read_text() == "precious"
    assert planted.is_symlink() and left_over(tmp_path) == [planted.name]


def test_temporary_names_cannot_be_foreseen_from_the_process(tmp_path: Path) -> None:
    victim = tmp_path / "victim"
    victim.write_text("precious")
    (tmp_path / f".file.{os.getpid()}.tmp").symlink_to(victim)
    seen = []
    for _ in range(2):
        with formats.replacing(tmp_path / "file") as stream:
            seen.append([path for path in left_over(tmp_path) if str(os.getpid()) not in path])
            stream.write(b"new")
    assert victim.read_text() == "precious" and not (tmp_path / "file").is_symlink()
    assert len(seen[0]) == 1 and seen[0] != seen[1]


def test_a_link_of_the_files_name_is_replaced_and_its_target_left_alone(tmp_path: Path) -> None:
    (tmp_path / "elsewhere").write_text("precious")
    (tmp_path / "file").symlink_to(tmp_path / "elsewhere")
    formats.write_parts(tmp_path / "file", [b"new"])
    assert (tmp_path / "elsewhere").read_text() == "precious"
    assert not (tmp_path / "file").is_symlink() and (tmp_path / "file").read_bytes() == b"new"


def test_an_error_while_writing_leaves_the_old_file_and_nothing_else(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("old")
    with pytest.raises(KeyboardInterrupt), formats.replacing(tmp_path / "file") as stream:
        stream.write(b"half")
        raise KeyboardInterrupt
    assert (tmp_path / "file").read_text() == "old" and not left_over(tmp_path)


KILLED = """
import os, signal, sys
from vkctl.directory import formats
with formats.replacing(sys.argv[1]) as stream:
    stream.write(b"half")
    stream.flush()
    os.kill(os.getpid(), signal.SIGKILL)
"""


def test_a_writer_that_is_killed_leaves_the_old_file(tmp_path: Path) -> None:
    (tmp_path / "file").write_text("old")
    done = subprocess.run([sys.executable, "-c", KILLED, tmp_path / "file"], check=False)
    assert done.returncode == -signal.SIGKILL
    assert (tmp_path / "file").read_text() == "old"


def test_a_full_disk_is_told_with_the_files_name(tmp_path: Path) -> None:
    with pytest.raises(OSError, match="No space left on device.*/dev/full"):
        formats.write_parts("/dev/full", [np.zeros(100_000)])
    assert stat.S_ISCHR(os.stat("/dev/full").st_mode)  # devices are written to, never replaced


def test_a_pipe_in_place_of_a_file_is_refused_and_not_waited_for(tmp_path: Path) -> None:
    os.mkfifo(tmp_path / "mxs.tp")
    with pytest.raises(OSError, match="not a file that can be replaced"):
        formats.write_tp(tmp_path, [1.0])
    assert not left_over(tmp_path)


def test_new_files_have_the_mode_that_the_user_asks_for(tmp_path: Path) -> None:
    before = os.umask(0o027)
    try:
        formats.write_tp(tmp_path, [1.0])
    finally:
        os.umask(before)
    assert stat.S_IMODE((tmp_path / "mxs.tp").stat().st_mode) == 0o640
