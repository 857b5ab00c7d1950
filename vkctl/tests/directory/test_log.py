"""Result files and log, as a run leaves them."""

import pytest

from vkctl.directory.log import digest, parse_line, parse_log, read_log, seconds

LOG = """\
Info<Msg:Tool.vk_rund.Start >
Info<Msg:Eng x64 TLMx/IC/ID Build 2018.06.03 >
Data<Key:LCaseId><Value:3>
Info<Msg:LCasePatInx: 2>
Info<Msg:SysConfig: Im4::MaxBW/MDOF/MPRE=5361/0.10/2.19 >
Info<Msg:EstDecMemReq: 0.28654>
Info<Msg:IMode: 2>
Info<Msg:ICount: 4>
Data<Key:ARQua><Value:8.000000E-01>
Warning<Msg:Convergence problems in static response analysis process.>
Data<Key:Rz><Value:-2.000000E+04>
Info<Msg:LCaseTime: 00:00:09.962 >
Data<Key:LCaseId><Value:1>
Info<Msg:LCasePatInx: 2>
Info<Msg:LCaseTime: 00:00:00.959 >
Info<Msg:Total time: 01:02:03.250 >
Info<Msg:Tool.vk_rund.End >
"""


@pytest.mark.parametrize(
    ("line", "frame", "text", "key", "value"),
    [
        ("Info<Msg:IMode: 2>", "info", "IMode: 2", "IMode", "2"),
        ("Info<Msg:Tool.End >\r\n", "info", "Tool.End", "Tool.End", ""),
        ("Info<Msg:a: 1 / 2.50000>", "info", "a: 1 / 2.50000", "a", "1 / 2.50000"),
        ("Data<Key:ARQua><Value:1.0E+00>", "data", "1.0E+00", "ARQua", "1.0E+00"),
        ("Warning<Msg:w>", "warning", "w", "", ""),
        ("Error<Msg:Error closing fileunit: 200>", "error", "Error closing fileunit: 200", "", ""),
    ],
)
def test_each_frame_of_the_log(line, frame, text, key, value):
    record = parse_line(line)
    assert (record.frame, record.text, record.key, record.value) == (frame, text, key, value)


def test_other_lines_are_refused():
    for line in ("", "Info: x", "Info<Msg:x", "Data<Key:x>"):
        with pytest.raises(ValueError, match="no line of the log"):
            parse_line(line)


def test_a_line_still_being_written_is_left_out():
    records = list(parse_log(["Info<Msg:IMode: 2>\n", "Info<Msg:ICou"]))
    assert [r.text for r in records] == ["IMode: 2"]


def test_time_texts():
    assert seconds("00:00:04.512") == pytest.approx(4.512)
    assert seconds("100:01:00.000") == 360060.0


def test_a_log_is_put_together_by_load_case(tmp_path):
    (tmp_path / "vk_rund_log.txt").write_text(LOG)
    run = digest(read_log(tmp_path))
    first, second = run.load_cases
    assert (first.number, first.pattern, first.mode, first.iterations) == (3, 2, 2, 4)
    assert (first.equations_millions, first.entries_millions) == (0.10, 2.19)
    assert first.memory_estimate_gb == 0.28654
    assert first.data == {"ARQua": 0.8, "Rz": -20000.0}
    assert first.seconds == 9.962
    assert first.warnings == run.warnings
    assert run.warnings == ["Convergence problems in static response analysis process."]
    assert (second.number, second.mode, second.seconds) == (1, None, 0.959)
    assert (run.seconds, run.ended, run.error) == (3723.25, True, None)


def test_a_log_that_broke_off_with_an_error():
    run = digest(parse_log([*LOG.splitlines(True)[:5], "Error<Msg:Error opening file: x>\n"]))
    assert run.error == "Error opening file: x"
    assert run.seconds is None
    assert not run.ended
    assert run.load_cases[0].seconds is None
