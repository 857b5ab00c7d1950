"""Running the solver: results, live progress, and every way a run can end badly."""

from fake_solver import small_box

from vkctl.directory import formats
from vkctl.directory.plan import plan


def test_the_plan_follows_the_run_order_and_leaves_out_what_will_not_run(tmp_path):
    small_box(tmp_path, 5)
    records = formats.read_loadcases(tmp_path)
    records["RunOrder"] = (5, 4, 3, 2, 1)
    records["Kind"][1] = 2
    formats.write_loadcases(tmp_path, records)
    formats.write_loadcase_flags(tmp_path, [1, 1, 1 | 4, 1 | 2, 1])
    assert [item.number for item in plan(tmp_path)] == [5, 1]
