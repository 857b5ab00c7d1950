"""The command `vkctl`."""

from __future__ import annotations

import typer

from .commands.box import box_command
from .commands.check import check_command
from .commands.demo import demo_command
from .commands.diff import diff_command
from .commands.export import export_command
from .commands.new import new_command
from .commands.optimise import optimise_command
from .commands.plot import plot_command
from .commands.run import run_command
from .commands.summary import summary_command
from .commands.watch import watch_command

app = typer.Typer(
    no_args_is_help=True,
    add_completion=False,
    pretty_exceptions_enable=False,
    help="Prepares working directories for vk_rund and reads its results.",
)
app.command("box")(box_command)
app.command("demo")(demo_command)
app.command("summary")(summary_command)
app.command("new")(new_command)
app.command("run")(run_command)
app.command("watch")(watch_command)
app.command("check")(check_command)
app.command("diff")(diff_command)
app.command("export")(export_command)
app.command("plot")(plot_command)
app.command("optimise")(optimise_command)
