"""Starting the engine."""

from __future__ import annotations

import pytest

from vkctl.spread import place
from vkctl.spread.where import Where, WhereError, parse_where


def test_an_engine_whose_thread_is_late_is_started_again() -> None:
    started: list[int] = []

    def late(where: Where) -> tuple[str, int]:
        started.append(1)
        assert len(started) > 2
        return "cluster", where.workers

    assert place._patient(late, parse_where("local:2")) == ("cluster", 2)


def test_who_has_no_certificate_configured_is_told_where_it_belongs() -> None:
    said = TypeError("TLS expects a `ssl_context` argument of type ssl.SSLContext. Got None")
    assert "names no certificates, distributed.comm.tls" in place._why("tls://here:1", said)


def test_a_machine_too_busy_for_the_engine_is_told(monkeypatch: pytest.MonkeyPatch) -> None:
    def never(where: Where) -> tuple[str, int]:
        raise AssertionError

    monkeypatch.setattr(place, "_local", never)
    with pytest.raises(WhereError, match="local:2 can't be started: this machine is too busy"):
        with place.opened(parse_where("local:2")):
            pass
