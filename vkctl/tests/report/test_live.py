"""A page that follows a directory."""

from __future__ import annotations

import json
from collections.abc import Callable
from pathlib import Path

import numpy as np
import pytest
from fake_solver import small_box

from vkctl.directory import formats
from vkctl.optimise.history import HistoryRow, folder_of, write_history
from vkctl.report.live import follow, live_page
from vkctl.report.server import Board, serving
from vkctl.running.progress import Progress

from .browsing import Browser, covered
from .conftest import EVIL, solved_model


def looks(count: int, *between: Callable[[], object]) -> Callable[[], bool]:
    """As many looks, and before each later one something that happens in between."""
    left = list(between)
    seen = [0]

    def goes_on() -> bool:
        seen[0] += 1
        if seen[0] > count and left:
            left.pop(0)()
            seen[0] = 1
        return seen[0] <= count

    return goes_on


def words(progress: Progress) -> str:
    return f"{len(progress.planned)} load cases"


def state(board: Board) -> tuple[int, dict[str, str]]:
    answer = board.answer("state")
    assert answer is not None
    said = json.loads(answer[1])
    return said["version"], said["words"]


def test_the_part_is_drawn_once_and_again_when_results_change(tmp_path: Path) -> None:
    solved_model(tmp_path, ("one", EVIL))
    board = Board()
    follow(tmp_path, board, words, goes_on=looks(4), poll=0.0)
    version, said = state(board)
    assert version == 1
    assert "No run is at work here." in said["now"]
    new = formats.read_displacements(tmp_path, 1) * 2

    def change() -> None:
        formats.write_displacements(tmp_path, 1, new)

    board = Board()
    follow(tmp_path, board, words, goes_on=looks(4, change), poll=0.0)
    assert state(board)[0] == 2


def test_a_model_without_results_is_drawn_and_what_is_missing_told(tmp_path: Path) -> None:
    small_box(tmp_path / "box")
    board = Board()
    follow(tmp_path / "box", board, words, goes_on=looks(3), poll=0.0)
    version, said = state(board)
    assert version == 1
    assert "no load case has been solved" in said["missing"]


def test_what_cannot_be_read_is_told_until_it_can(tmp_path: Path) -> None:
    solved_model(tmp_path / "box", ("one",))
    nodes = next((tmp_path / "box").glob("mx.nodes*"))
    whole = nodes.read_bytes()
    nodes.write_bytes(whole[:9])
    board = Board()
    follow(tmp_path / "box", board, words, goes_on=looks(3), poll=0.0)
    version, said = state(board)
    assert version == 0
    assert "can&#x27;t be drawn now" in said["missing"]

    nodes.write_bytes(whole)
    formats.write_stress(tmp_path / "box", 1, np.zeros(225))
    follow(tmp_path / "box", board, words, goes_on=looks(3), poll=0.0)
    version, said = state(board)
    assert version == 1
    assert said["missing"] == ""


def test_the_steps_of_an_optimisation_are_charted(tmp_path: Path) -> None:
    solved_model(tmp_path, ("one",))
    folder_of(tmp_path).mkdir()
    rows = [HistoryRow(k, 90.0 + k, 1.0 - 0.1 * k, 0.3, 0.1, 1.0, 2.0, {1: 3.0}) for k in (1, 2, 3)]
    write_history(tmp_path, rows)
    board = Board()
    follow(tmp_path, board, words, goes_on=looks(1), poll=0.0)
    course = state(board)[1]["course"]
    assert "Step 3 is done: objective 93, volume 0.700. No loop is at work." in course
    assert "Objective: from 91 to 93 over 3 steps" in course


def test_names_in_a_log_table_stay_texts(tmp_path: Path) -> None:
    solved_model(tmp_path, (EVIL,))
    (tmp_path / formats.LOG_FILE).write_text(
        "Data<Key:LCaseId><Value:1>\nInfo<Msg:LCaseTime: 00:00:01.500 >\n"
        "Info<Msg:Tool.vk_rund.End >\n"
    )
    board = Board()
    follow(tmp_path, board, words, goes_on=looks(1), poll=0.0)
    now = state(board)[1]["now"]
    assert "&lt;img src=x" in now
    assert "<img" not in now


@pytest.mark.thorough
def test_a_browser_sees_the_part_change_and_the_end(browser: Browser, tmp_path: Path) -> None:
    solved_model(tmp_path, ("one", EVIL))
    board = Board(live_page(tmp_path))
    with serving(board) as address:
        browser.errors(), browser.requests()
        browser.driver.get(address)
        browser.until("document.getElementById('now').textContent.includes('Nothing')")
        follow(tmp_path, board, words, goes_on=looks(3), poll=0.0)
        browser.until("document.documentElement.dataset.version === '1'")
        browser.until("document.documentElement.dataset.viewer === 'ready'")
        assert covered(browser.pixels()) > 0.05
        before = browser.text("extremes")
        shift = 3 * formats.read_displacements(tmp_path, 1)
        formats.write_displacements(tmp_path, 1, shift)
        formats.write_magnitude(tmp_path, 1, np.linalg.norm(shift, axis=1))
        follow(tmp_path, board, words, goes_on=looks(3), poll=0.0)
        browser.until("document.documentElement.dataset.version === '2'")
        browser.until(f"document.getElementById('extremes').textContent !== {before!r}")
        assert not browser.find("lost").is_displayed()
        assert browser.errors() == []
        assert all(url.startswith(address) for url in browser.requests())
    browser.until("!document.getElementById('lost').hidden")
    assert covered(browser.pixels()) > 0.05
