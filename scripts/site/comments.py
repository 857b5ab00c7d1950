"""The comment at the end of a field's line becomes the field's text in the functions' reference."""

import io
import tokenize
from typing import Any

import griffe


def trailing_comment(line: str) -> str:
    try:
        tokens = list(tokenize.generate_tokens(io.StringIO(line.strip()).readline))
    except tokenize.TokenError:  # the line opens a bracket
        return ""
    return next((t.string.lstrip("# ") for t in tokens if t.type == tokenize.COMMENT), "")


class Comments(griffe.Extension):  # type: ignore[misc]
    def on_attribute_instance(self, *, attr: griffe.Attribute, **_: Any) -> None:
        if attr.docstring or attr.lineno is None or attr.lineno != attr.endlineno:
            return
        text = trailing_comment(attr.lines_collection[attr.filepath][attr.lineno - 1])
        if text:
            attr.docstring = griffe.Docstring(text, parent=attr, lineno=attr.lineno)
