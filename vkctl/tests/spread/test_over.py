"""A function over units on real workers: what comes back when they die, refuse or fail."""

from __future__ import annotations

import signal
import threading
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path
from types import SimpleNamespace

import pytest
from cluster_work import Processes, awaited, scheduler, square

from vkctl.spread import place as place_of_work
from vkctl.spread.over import GoneError, over
from vkctl.spread.place import Place, opened
from vkctl.spread.where import WhereError, parse_where
from vkctl.spread.work import Event, Unit


@pytest.fixture(scope="module")
def processes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Processes]:
    """A scheduler with two workers that are restarted when they die."""
    folder = tmp_path_factory.mktemp("cluster")
    with scheduler(folder, worker_options=["--nthreads", "1", "--memory-limit", "2GB"]) as started:
        started.add_worker("--name", "ant")
        started.add_worker("--name", "bee", "--nthreads", "3", "--memory-limit", "4GiB")
        yield started


@pytest.fixture
def place(processes: Processes) -> Iterator[Place]:
    with opened(parse_where(processes.address)) as found:
        found.client.wait_for_workers(2, timeout=300)
        awaited(lambda: all(w.memory_gb for w in found.workers()))
        yield found


@pytest.mark.thorough
def test_every_unit_comes_back_once_with_the_worker_that_did_it(place):
    units = [Unit(str(n), (n, "", "")) for n in range(20)]
    done = list(over(place, square, units))
    assert sorted(d.value[0] for d in done) == sorted(n * n for n in range(20))
    assert sorted(d.unit.key for d in done) == sorted(str(n) for n in range(20))
    assert all(d.ok and d.worker == d.value[1] and d.starts == 1 for d in done)


@pytest.mark.thorough
def test_a_worker_tells_its_declared_cores_and_memory(place):
    units = [Unit(str(n), (n, "", "")) for n in range(12)]
    told = {d.value[1]: d.value[2:] for d in over(place, square, units)}
    known = {"ant": (1, pytest.approx(2e9 / 2**30)), "bee": (3, 4.0)}
    assert told and all(told[name] == known[name] for name in told)


@pytest.mark.thorough
def test_a_unit_goes_only_where_its_memory_is(place):
    units = [Unit(str(n), (n, "", ""), memory_gb=3.0) for n in range(8)]
    assert {d.worker for d in over(place, square, units)} == {"bee"}


@pytest.mark.thorough
def test_an_error_of_the_function_ends_its_unit_alone(place):
    units = [Unit(str(n), (n, "wrong" if n == 1 else "", "")) for n in range(4)]
    done = {d.unit.key: d for d in over(place, square, units)}
    assert done["1"].failure == "ValueError: no square for this" and done["1"].starts == 1
    assert [done[key].ok for key in "0123"] == [True, False, True, True]


def hearing(mark: Path, events: list[Event]) -> Callable[[Event], None]:
    """Keeps the events, and leaves a file when the deadly unit has been heard."""

    def hear(event: Event) -> None:
        events.append(event)
        if event.unit == "deadly" and event.kind == "told":
            mark.with_suffix(".heard").touch()

    return hear


@pytest.mark.thorough
def test_a_unit_whose_worker_dies_is_begun_again_and_the_user_told(place, tmp_path):
    mark = tmp_path / "mark"
    units = [Unit(str(n), (n, "", "")) for n in range(4)]
    units.append(Unit("deadly", (7, "die once", str(mark))))
    events: list[Event] = []
    done = {d.unit.key: d for d in over(place, square, units, on_event=hearing(mark, events))}
    assert len(done) == 5 and all(d.ok for d in done.values())
    assert done["deadly"].value[0] == 49 and done["deadly"].starts == 2
    repeated = [e for e in events if e.kind == "repeated" and e.unit == "deadly"]
    assert [e.text for e in repeated] == ["the worker has died"]


@pytest.mark.thorough
def test_a_unit_that_kills_every_worker_is_given_up_and_the_others_are_done(place, tmp_path):
    mark = tmp_path / "mark"
    units = [Unit("deadly", (7, "die", str(mark))), *(Unit(str(n), (n, "", "")) for n in range(6))]
    hear = hearing(mark, [])
    done = {d.unit.key: d for d in over(place, square, units, most_starts=2, on_event=hear)}
    assert done["deadly"].failure == "its worker has died 2 times"
    assert len(done) == 7 and all(done[str(n)].ok for n in range(6))


@pytest.mark.thorough
def test_a_worker_that_turns_a_unit_away_is_avoided(place, tmp_path):
    awaited(lambda: len(place.workers()) == 2)
    units = [Unit("moving", (5, "elsewhere once", str(tmp_path / "mark")))]
    events: list[Event] = []
    (done,) = over(place, square, units, on_event=events.append)
    (repeated,) = [e for e in events if e.kind == "repeated"]
    assert repeated.text == f"{repeated.worker} is no good"
    assert done.value[0] == 25 and done.worker != repeated.worker and done.starts == 2


@pytest.mark.thorough
def test_a_unit_that_all_workers_turn_away_fails_with_the_reason(place):
    awaited(lambda: len(place.workers()) == 2)
    (done,) = over(place, square, [Unit("homeless", (5, "elsewhere", ""))])
    assert done.failure == f"{done.worker} is no good" and done.starts == 2


@pytest.mark.thorough
def test_what_a_unit_lacks_is_supplied_once(place, tmp_path):
    asked = []

    def supply(unit: Unit, names: tuple[str, ...]) -> Unit:
        asked.append((unit.key, names))
        return unit

    unit = Unit("hungry", (6, "lacking", str(tmp_path / "mark")))
    (done,) = over(place, square, [unit], supply=supply)
    assert done.value[0] == 36 and asked == [("hungry", ("a file",))] and done.starts == 1


@pytest.mark.thorough
def test_what_is_on_the_way_is_called_off_when_the_caller_leaves(place, tmp_path):
    mark = tmp_path / "mark"
    units = [Unit("slow", (1, "slow", str(mark))), Unit("quick", (2, "", ""))]
    for done in over(place, square, units):
        assert done.unit.key == "quick"
        awaited(mark.with_suffix(".begun").exists)
        break
    awaited(mark.exists)


@pytest.mark.thorough
def test_a_scheduler_that_dies_is_told(tmp_path):
    with scheduler(tmp_path, worker_options=["--nthreads", "1"]) as started:
        started.add_worker()
        with opened(parse_where(started.address)) as place:
            units = [Unit("slow", (1, "slow", str(tmp_path / "mark")))]
            with pytest.raises(GoneError, match="has gone"):
                for event in _killing(place, units, started):
                    raise AssertionError(event)


def _killing(place, units, started):
    """The scheduler is killed in the middle of a unit."""

    def kill(event: Event) -> None:
        if event.kind == "told":
            started.scheduler.send_signal(signal.SIGKILL)

    return over(place, square, units, on_event=kill)


@pytest.mark.thorough
def test_workers_of_this_machine_come_and_go_with_the_block():
    with opened(parse_where("local:2")) as place:
        done = list(over(place, square, [Unit(str(n), (n, "", "")) for n in range(6)]))
        assert sorted(d.value[0] for d in done) == [n * n for n in range(6)]
        assert {w.name for w in place.workers()} == {"worker 0", "worker 1"}
        assert place.client.scheduler.address.startswith("tls://127.0.0.1:")


@contextmanager
def _silent() -> Iterator[int]:
    """Somebody who takes connections and never says a word."""
    import socket

    with socket.socket() as listening:
        listening.bind(("127.0.0.1", 0))
        listening.listen()
        yield listening.getsockname()[1]


def test_nobody_at_an_address_is_told_within_ten_seconds(monkeypatch: pytest.MonkeyPatch) -> None:
    """That nobody waits longer than the limits say, which are taken shorter here."""
    assert place_of_work.CONNECT + place_of_work._GRACE < 10
    monkeypatch.setattr(place_of_work, "CONNECT", 0.5)
    waits: list[float | None] = []

    class Noted(threading.Thread):
        def join(self, timeout: float | None = None) -> None:
            waits.append(timeout)
            super().join(timeout)

    monkeypatch.setattr(place_of_work, "threading", SimpleNamespace(Thread=Noted))
    with _silent() as port:
        for address in (f"tcp://127.0.0.1:{port}", "tcp://127.0.0.1:9"):
            with pytest.raises(WhereError, match="No scheduler can be reached"):
                with opened(parse_where(address)):
                    pass
    assert waits == [0.5 + place_of_work._GRACE] * 2


@pytest.mark.thorough
@pytest.mark.parametrize(
    ("text", "words"),
    [
        ("local:0", "1 to 256 workers"),
        ("local:257", "1 to 256 workers"),
        ("local", "no cluster 'local'"),
        ("tcp://host:70000", "ports go from 1 to 65535"),
        ("tcp://host", "no place to run on"),
        ("http://host:1", "no place to run on"),
        ("", "no cluster ''"),
    ],
)
def test_a_place_that_says_nothing_is_refused(
    text: str, words: str, monkeypatch: pytest.MonkeyPatch, tmp_path: Path
) -> None:
    monkeypatch.setenv("VKCTL_CLUSTERS", str(tmp_path / "clusters.toml"))
    with pytest.raises(WhereError, match=words):
        parse_where(text)
