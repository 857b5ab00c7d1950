"""The check and the solver agree on random directories and option lines: a part of what
`vkctl/tests/agreement.py` goes through when it is run by itself."""

import agreement
import numpy as np
import program_under_test

from vkctl.check import check
from vkctl.directory import formats, model

from .faults import sound


def test_what_the_solver_refuses_is_an_error_and_what_the_check_passes_runs():
    verdicts = list(agreement.verdicts(iter(range(120))))
    assert [verdict for verdict in verdicts if not verdict.agreed] == []
    stopped = sum(verdict.status != 0 for verdict in verdicts)
    assert 30 < stopped < 90  # sound ones and spoilt ones are among them


def test_sound_directories_of_the_generator_run_without_an_error(tmp_path):
    for seed in range(20):
        directory = tmp_path / str(seed)
        agreement.sound_directory(directory, np.random.default_rng(seed))
        assert agreement.judge(directory, seed) == agreement.Verdict(seed, 0, ())


def test_random_option_lines_are_refused_by_both_or_by_none(tmp_path):
    model.write(sound()[0], tmp_path)
    random = np.random.default_rng(5)
    refused = 0
    for _ in range(100):
        line = agreement.random_option_line(random).encode("latin-1", "replace")
        (tmp_path / formats.OPTIONS_FILE).write_bytes(line)
        model.set_flags(tmp_path, clear_done=True)
        status = program_under_test.start(tmp_path, timeout=300, OMP_THREAD_LIMIT="1").status
        assert (status != 0) == (check(tmp_path).status == 2), line
        refused += status != 0
    assert 20 < refused < 80
