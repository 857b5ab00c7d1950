"""The folder in a working directory that copies for units lie in."""

from __future__ import annotations

import shutil
import threading
from pathlib import Path

from vkctl.spread import copies


def test_a_folder_that_workers_of_an_earlier_run_still_use_can_be_begun(tmp_path: Path) -> None:
    ended = threading.Event()

    def use() -> None:
        while not ended.is_set():
            try:
                own = copies.new_folder(tmp_path / copies.FOLDER, "unit")
                (own / "result").write_bytes(b"")
                shutil.rmtree(own, ignore_errors=True)
            except OSError:
                pass  # it has just gone

    workers = [threading.Thread(target=use) for _ in range(3)]
    copies.begin_sharing(tmp_path)
    for worker in workers:
        worker.start()
    try:
        for _ in range(300):
            assert copies.is_shared(tmp_path, copies.begin_sharing(tmp_path))
    finally:
        ended.set()
        for worker in workers:
            worker.join()


def test_what_a_killed_run_left_goes_and_a_link_to_elsewhere_is_not_followed(tmp_path: Path):
    elsewhere = tmp_path / "elsewhere"
    elsewhere.mkdir()
    (elsewhere / "dear").write_text("kept")
    directory = tmp_path / "part"
    directory.mkdir()
    (directory / copies.FOLDER).symlink_to(elsewhere)
    copies.begin_sharing(directory)
    left = copies.new_folder(directory / copies.FOLDER, "unit")
    copies.begin_sharing(directory)
    assert (elsewhere / "dear").read_text() == "kept" and not left.exists()
    assert not (directory / copies.FOLDER).is_symlink()
