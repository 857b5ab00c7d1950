"""`python -m vkctl` is the command `vkctl`."""

from vkctl.cli import app

app(prog_name="vkctl")
