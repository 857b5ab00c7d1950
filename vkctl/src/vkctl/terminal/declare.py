"""Hands a command to typer: guarded, its parameters as defaults, which every version understands.

Typer before 0.9, Debian 12's, knows neither declarations by Annotated nor unions by a bar.
"""

from __future__ import annotations

import functools
import inspect
from collections.abc import Callable
from copy import copy
from types import UnionType
from typing import Any, Union, get_args, get_type_hints

from vkctl.basics.interrupt import undoing

from .last_resort import guarded


def declared(command: Callable[..., None]) -> Callable[..., None]:
    """The same command, each parameter's declaration moved from its annotation to its default."""
    hints = get_type_hints(command, include_extras=True)
    parameters = []
    for parameter in inspect.signature(command).parameters.values():
        kind, declaration = get_args(hints[parameter.name])[:2]
        if isinstance(kind, UnionType):
            kind = Union[get_args(kind)]  # noqa: UP007 (the form old versions know)
        declaration = copy(declaration)
        if parameter.default is not parameter.empty:
            declaration.default = parameter.default
        parameters.append(parameter.replace(annotation=kind, default=declaration))

    @functools.wraps(command)
    def run(*args: Any, **options: Any) -> None:
        with undoing(), guarded():
            command(*args, **options)

    run.__annotations__ = {parameter.name: parameter.annotation for parameter in parameters}
    vars(run)["__signature__"] = inspect.Signature(parameters)
    return run
