"""Starting the engine."""

from __future__ import annotations

import gc
import threading

import pytest
from distributed.utils import LoopRunner

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


@pytest.mark.parametrize("address", ["tls://127.0.0.1:9", "tcp://127.0.0.1:9"])
def test_clients_that_failed_are_collected_while_the_engine_starts_a_thread(address: str) -> None:
    """Their finaliser takes the lock that is held then, so that both would wait for ever."""
    with pytest.raises(WhereError, match="No scheduler can be reached"):
        with place.opened(parse_where(address)):
            pass
    # As the engine's thread does, which may be the one that comes upon them.
    collecting = threading.Thread(target=gc.collect, daemon=True)
    with LoopRunner._lock:
        collecting.start()
        collecting.join(60)
        assert not collecting.is_alive()
