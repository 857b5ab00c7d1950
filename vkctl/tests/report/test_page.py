"""The page around what it shows."""

from __future__ import annotations

import base64
import hashlib
import json
import re

from vkctl.report.page import Page, filled, put_together

EVIL = "</script><script>alert(1)</script>{{body}}<!--"


def made(**changes: object) -> str:
    values: dict[str, object] = {"title": EVIL, "head": "", "body": "<p>body</p>", "foot": ""}
    values |= {"scene": {"a": EVIL}, "scripts": ("report.js",)}
    return put_together(Page(**{**values, **changes}))  # type: ignore[arg-type]


def test_only_the_pages_own_scripts_may_run_and_nothing_is_loaded() -> None:
    page = made()
    scripts = re.findall(r"<script>(.*?)</script>", page, re.DOTALL)
    assert len(scripts) == 1
    digest = base64.b64encode(hashlib.sha256(scripts[0].encode()).digest()).decode()
    policy = re.search(r'Content-Security-Policy" content="([^"]*)"', page)
    assert policy is not None
    rules = dict(rule.split(" ", 1) for rule in policy[1].split("; "))
    assert rules["script-src"] == f"'sha256-{digest}'"
    assert rules["default-src"] == "'none'"
    assert rules["connect-src"] == "'none'"
    assert not re.search(r"(src|href)=.?(https?:)?//", page)


def test_a_title_and_a_scene_of_any_text_stay_texts() -> None:
    page = made()
    assert page.count("<p>body</p>") == 1
    assert page.count("<script>") == 1
    data = re.search(r'<script type="application/json" id="scene">(.*?)</script>', page)
    assert data is not None
    assert json.loads(data[1]) == {"a": EVIL}


def test_a_page_that_draws_nothing_has_no_script() -> None:
    page = made(scene=None, scripts=())
    assert "<script" not in page
    assert "script-src 'none'" in page


def test_what_fills_a_slot_is_not_looked_through_again() -> None:
    assert filled("{{a}} {{b}}", a="{{b}}", b="1") == "{{b}} 1"
