"""Running the solver: results, live progress, and every way a run can end badly."""

from pathlib import Path

import pytest
from fake_solver import HEAD, TAIL, begun, finished

from vkctl.directory import formats
from vkctl.directory.log import digest, parse_line
from vkctl.directory.plan import PlannedCase
from vkctl.running.progress import LogReader, remaining_seconds, stage


def _records(lines):
    return [parse_line(line) for line in lines]


@pytest.mark.parametrize(
    ("lines", "expected"),
    [
        ([], "starting"),
        (HEAD, "reading the model"),
        ([*HEAD, begun(1)[0]], "reading the load case"),
        (HEAD + begun(1), "reading the structure"),
        (HEAD + finished(1) + begun(2), "solving"),
        (HEAD + finished(1) + begun(2, pattern=2), "reading the structure"),
        ([*begun(1), "Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=1/0.00/0.00 >"], "assembling"),
        ([*begun(1), "Info<Msg:EstDecMemReq: 1.00000>"], "factorising"),
        ([*begun(1), "Info<Msg:EstDecMemReq: 1.00000>", "Warning<Msg:x>"], "factorising"),
        (finished(1)[:-1], "response"),
        (finished(1), "next load case"),
        (TAIL, "ended"),
        ([*begun(1), "Error<Msg:x>"], "stopped"),
    ],
)
def test_the_last_line_of_the_log_tells_the_stage(lines, expected):
    assert stage(_records(lines)) == expected


def test_the_time_left_counts_new_and_kept_patterns_apart():
    planned = [PlannedCase(n, p) for n, p in ((1, 1), (2, 1), (3, 1), (4, 2), (5, 2))]
    log = digest(_records(finished(1, seconds=10.0) + finished(2, seconds=2.0) + begun(3)))
    # Still to do: 3 and 5 with a kept pattern, 4 with a new one; 3 has run for half a second.
    assert remaining_seconds(planned, log, 0.5) == pytest.approx(2 + 10 + 2 - 0.5)
    assert remaining_seconds(planned, digest(_records(begun(1))), 1.0) is None
    only_new = digest(_records(finished(1, seconds=10.0)))
    assert remaining_seconds(planned[:2], only_new, 0.0) == pytest.approx(10.0)


def test_a_growing_log_is_read_by_whole_lines_and_a_new_one_is_noticed(tmp_path):
    path = Path(tmp_path, formats.LOG_FILE)
    reader = LogReader(tmp_path)
    assert not reader.poll()
    path.write_text("Info<Msg:Tool.vk_rund.Start >\nData<Key:LCa")
    assert reader.poll() and len(reader.records) == 1
    path.write_text("Info<Msg:Tool.vk_rund.Start >\nData<Key:LCaseId><Value:1>\n")
    assert reader.poll() and reader.records[-1].key == "LCaseId"
    assert reader.replaced == 0
    path.write_text("Info<Msg:Tool.vk_rund.Start >\nData<Key:LCaseId><Value:2>\nrubbish\n")
    assert reader.poll() and reader.replaced == 1
    assert [r.value for r in reader.records] == ["", "2"]
