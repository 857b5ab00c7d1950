"""A page as one file: template, style, viewer and data, with the rules for what it may load."""

from __future__ import annotations

import base64
import hashlib
import json
import re
from dataclasses import dataclass
from html import escape
from importlib.resources import files
from typing import Any

from vkctl import __version__

_SLOT = re.compile(r"\{\{(\w+)\}\}")
_PARTS_OF_VIEWER = (
    "unpack.js",
    "section.js",
    "stage.js",
    "camera.js",
    "arrows.js",
    "panel.js",
    "viewer.js",
)


@dataclass(frozen=True)
class Page:
    """What goes into a page, ready-made HTML but for the title."""

    title: str
    head: str
    body: str
    foot: str
    scene: dict[str, Any] | None = None  # None where it comes later or never
    connects: bool = False  # to where it came from
    scripts: tuple[str, ...] = ()  # behind those of the viewer; none for a page that draws nothing


def asset(name: str) -> str:
    """One of the files beside this module that pages are made of."""
    return (files("vkctl.report") / "assets" / name).read_text(encoding="utf-8")


def filled(template: str, **slots: str) -> str:
    """The template with its slots filled; what fills one isn't looked through again."""
    return _SLOT.sub(lambda found: slots[found[1]], template)


def put_together(page: Page) -> str:
    """The page's text. Only the scripts that it came with run, and it loads nothing else."""
    scripts, tags = [], []
    if page.scene is not None:
        tags.append(f'<script type="application/json" id="scene">{_json(page.scene)}</script>')
    if page.scripts:
        scripts.append("\n".join(asset(name) for name in (*_PARTS_OF_VIEWER, *page.scripts)))
    tags += [f"<script>{script}</script>" for script in scripts]
    return filled(
        asset("page.html"),
        policy=_policy(scripts, page.connects),
        version=escape(__version__),
        title=escape(page.title),
        style=asset("style.css"),
        head=page.head,
        body=page.body,
        foot=page.foot,
        scripts="\n".join(tags),
    )


def _policy(scripts: list[str], connects: bool) -> str:
    """What a browser is to allow the page: its own scripts by their digests, and no network."""
    digests = [
        base64.b64encode(hashlib.sha256(script.encode()).digest()).decode() for script in scripts
    ]
    allowed = " ".join(f"'sha256-{digest}'" for digest in digests) or "'none'"
    return "; ".join(
        (
            "default-src 'none'",
            f"script-src {allowed}",
            "style-src 'unsafe-inline'",
            "img-src data: blob:",
            "font-src data:",
            "connect-src 'self'" if connects else "connect-src 'none'",
            "base-uri 'none'",
            "form-action 'none'",
        )
    )


def _json(values: dict[str, Any]) -> str:
    """JSON that can stand in a page whatever texts it holds."""
    text = json.dumps(values, allow_nan=False, separators=(",", ":"))
    return text.replace("<", "\\u003c")
