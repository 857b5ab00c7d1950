"""`python -m vkctl` is the command `vkctl`."""

from .cli import app

app(prog_name="vkctl")
