"""How the load cases of a run become units, and what is shown of them."""

from __future__ import annotations

import os
from pathlib import Path

import pytest
from fake_solver import small_box
from rich.console import Console

from vkctl.directory import formats
from vkctl.directory.model import Material
from vkctl.directory.plan import PlannedCase
from vkctl.running.progress import Progress
from vkctl.spread.gathering import Doing, SpreadProgress
from vkctl.spread.patterns import Need, Pattern, has_state, need_of, patterns_of, split
from vkctl.terminal.spreading import spread_table


def test_load_cases_are_put_together_as_a_run_goes_from_pattern_to_pattern():
    planned = [PlannedCase(4, 2), PlannedCase(1, 2), PlannedCase(3, 1), PlannedCase(2, 2)]
    assert patterns_of(planned) == [Pattern(2, (4, 1)), Pattern(1, (3,)), Pattern(2, (2,))]
    assert patterns_of([]) == []


CHEAP = Need(1.0, 0.5, first_seconds=2.0, next_seconds=1.0)
DEAR = Need(1.0, 0.5, first_seconds=100.0, next_seconds=1.0)


@pytest.mark.parametrize(
    ("need", "workers", "stateful", "sizes"),
    [
        (CHEAP, 3, False, [3, 3, 2]),
        (CHEAP, 1, False, [8]),
        (CHEAP, 3, True, [8]),
        (DEAR, 3, False, [8]),  # five seconds saved of 107
        (Need(1.0, 0.5), 3, False, [8]),  # nobody knows
        (CHEAP, 100, False, [1] * 8),
    ],
)
def test_a_pattern_is_split_where_that_shortens_it(need, workers, stateful, sizes):
    whole = Pattern(7, tuple(range(1, 9)))
    found = split([whole], need, workers, stateful)
    assert [len(part.load_cases) for part in found] == sizes
    assert [n for part in found for n in part.load_cases] == list(whole.load_cases)
    assert len({part.key for part in found}) == len(found)


def test_patterns_enough_for_all_workers_stay_whole():
    patterns = [Pattern(1, (1, 2, 3)), Pattern(2, (4, 5, 6))]
    assert split(patterns, CHEAP, 3, False) == patterns


def test_small_models_take_the_bound_and_others_the_estimates(directory):
    patterns = [Pattern(1, (1, 2))]
    nodes = len(formats.read_nodes(directory))
    bound = need_of(directory, patterns, 1.0, 1)
    assert bound.memory_gb == pytest.approx(3 * nodes * 12_000 / 2**30, rel=0.1)
    assert bound.rest_gb < bound.memory_gb and bound.first_seconds == 0
    for smallest, workers in ((1e-9, 1), (1.0, 2)):  # little memory, or a pattern to be split
        estimated = need_of(directory, patterns, smallest, workers)
        assert 0 < estimated.next_seconds < estimated.first_seconds
        assert 0 < estimated.rest_gb <= estimated.memory_gb


def test_materials_that_keep_a_state_are_known(tmp_path: Path):
    small_box(tmp_path / "plain")
    layer = Material.isotropic(1.0, 0.3)
    layer.flags |= formats.MATERIAL_COMPRESSION_ONLY
    small_box(tmp_path / "layer", material=layer)
    assert not has_state(tmp_path / "plain") and has_state(tmp_path / "layer")


def test_a_terminal_sees_what_each_worker_is_at(directory):
    doing = [Doing("bee", 3, 0.0, 5, "factorising", 1.25), Doing("ant\x1b[2J", 4, 0.0)]
    console = Console(width=100, record=True, file=open(os.devnull, "w"))
    console.print(spread_table(SpreadProgress(Progress(directory, []), doing, 7, {})))
    text = console.export_text()
    assert "bee" in text and "factorising" in text and "1.25 GB" in text
    assert "\x1b" not in text and "on 7 workers" in text
