"""A function over units of work, on the workers of a place.

The engine places units, restarts those whose worker has died, and brings back what they return.
Here is only what it leaves open: units that it has given up though they hardly began, those that
ask for another worker, and a scheduler that has gone.
"""

from __future__ import annotations

import math
import queue
import secrets
import time
from collections import defaultdict
from collections.abc import Callable, Generator, Sequence
from dataclasses import dataclass, field, replace
from functools import partial
from typing import Any

import vkctl
from vkctl.basics.extras import need
from vkctl.basics.words import counted

from .on_worker import MEMORY, SLOT, work
from .place import Place, WorkerSeen
from .work import STARTS, Call, Done, ElsewhereError, Event, Function, Reply, Unit

_TICK = 0.1  # seconds between two looks at what else there is
_LOOK = 1.0  # between two looks at which workers there are
_AHEAD = 2  # units handed over for each worker, so that none waits for the client
_OF_EVENTS = ("unit", "by", "worker")  # what an event has besides values; the last by the engine
_QUIET = 10.0  # seconds without any worker before it is told


class GoneError(Exception):
    """The scheduler has gone; what had come back by then is kept."""


@dataclass
class _Book:
    """What is known of the units on the way."""

    place: Place
    function: Function
    topic: str
    most_starts: int
    waiting: list[Unit]  # next one last
    futures: dict[str, Any] = field(default_factory=dict)  # key of a unit: the engine's
    units: dict[str, Unit] = field(default_factory=dict)  # on the way
    starts: dict[str, int] = field(default_factory=lambda: defaultdict(int))
    last_worker: dict[str, str] = field(default_factory=dict)
    avoided: dict[str, set[str]] = field(default_factory=lambda: defaultdict(set))  # addresses
    begun: set[str] = field(default_factory=set)  # of those on the way
    given_up: dict[str, int] = field(default_factory=lambda: defaultdict(int))  # by the engine
    present: list[WorkerSeen] = field(default_factory=list)
    lonely_since: float | None = None  # when there was no worker first
    messages: queue.SimpleQueue[tuple[str, Any]] = field(default_factory=queue.SimpleQueue)

    def restarted_by_engine(self, key: str) -> bool:
        """Whether a unit that begins had begun before, without having come back in between."""
        return key in self.begun


def over(
    place: Place,
    function: Function,
    units: Sequence[Unit],
    *,
    most_starts: int = STARTS,
    on_event: Callable[[Event], None] | None = None,
    on_tick: Callable[[], None] | None = None,
    supply: Callable[[Unit, tuple[str, ...]], Unit] | None = None,
) -> Generator[Done, None, None]:
    """Have workers call `function(unit.task, here)` for each unit; yields them as they end.

    The function must be one of a module that workers have too. A unit is begun in the order given,
    on a worker with the memory that it asks for, one at a time on each. It is begun again, up to
    `most_starts` times, where its worker dies or the function raises ElsewhereError; any other
    error of the function ends it. Keys of units must differ. `on_event` and `on_tick` are called in
    this thread, the latter every `_TICK` seconds. `supply` gets a unit that raised LackingError,
    and returns what is to be sent. Closing the generator early calls off what is on the way.
    GoneError where the scheduler goes away.
    """
    book = _Book(place, function, "vkctl-" + secrets.token_hex(8), most_starts, list(units)[::-1])
    tell = on_event or (lambda event: None)
    place.client.subscribe_topic(book.topic, lambda event: book.messages.put(("event", event[1])))
    try:
        yield from _follow(book, tell, on_tick or (lambda: None), supply)
    finally:
        if place.client.status == "running":
            place.client.cancel(list(book.futures.values()), force=True)
            place.client.unsubscribe_topic(book.topic)


def _follow(
    book: _Book,
    tell: Callable[[Event], None],
    tick: Callable[[], None],
    supply: Callable[[Unit, tuple[str, ...]], Unit] | None,
) -> Generator[Done, None, None]:
    ticked = looked = 0.0
    while book.waiting or book.futures:
        now = time.monotonic()
        if now - looked >= _LOOK:
            looked = now
            _look(book, tell, now)
        _hand_over(book)
        if now - ticked >= _TICK:
            ticked = now
            _refuse_gone(book)
            tick()
        try:
            kind, value = book.messages.get(timeout=_TICK)
        except queue.Empty:
            continue
        if kind == "event":
            _take_event(book, value, tell)
        elif (done := _take_end(book, value, tell, supply)) is not None:
            yield done


def _refuse_gone(book: _Book) -> None:
    if book.place.client.status != "running":
        raise gone_from(book.place)


def gone_from(place: Place) -> GoneError:
    return GoneError(f"The scheduler of {place.where.text} has gone.")


def _look(book: _Book, tell: Callable[[Event], None], now: float) -> None:
    """Ask which workers there are, and tell when there has been none for a while."""
    try:
        book.present = book.place.workers()
    except OSError:
        raise gone_from(book.place) from None
    if book.present:
        book.lonely_since = None
    elif book.lonely_since is None:
        book.lonely_since = now
    elif now - book.lonely_since > _QUIET:
        tell(Event("waiting", "", text="no worker is there yet"))
        book.lonely_since = math.inf


def _hand_over(book: _Book) -> None:
    """Keep a few units for each worker on the way.

    Those that wait at a worker count as broken with it when it dies, begun or not.
    """
    room = _AHEAD * max(len(book.present), book.place.most_workers, 1) - len(book.futures)
    while book.waiting and room > 0:
        _submit(book, book.waiting.pop())
        room -= 1


def _submit(book: _Book, unit: Unit) -> None:
    avoided = book.avoided[unit.key]
    others = [w.address for w in book.present if w.address not in avoided]
    future = book.place.client.submit(
        work,
        Call(vkctl.__version__, book.topic, unit.key, book.function, unit.task),
        key=f"{book.topic}-{unit.key}-{secrets.token_hex(4)}",
        pure=False,
        resources={SLOT: 1, MEMORY: unit.memory_gb},
        workers=others if avoided and others else None,
        allow_other_workers=bool(avoided and others),
    )
    book.futures[unit.key], book.units[unit.key] = future, unit
    fetch = partial(_fetch, book, unit.key)
    future.add_done_callback(lambda ended: book.place.client.loop.add_callback(fetch, ended))


async def _fetch(book: _Book, key: str, future: Any) -> None:
    """Bring a reply from the worker that has it; where that dies first, it is worked out anew."""
    outcome: Any
    try:
        outcome = await book.place.client.gather(future, asynchronous=True)
    except BaseException as error:
        outcome = error
    book.messages.put(("end", (key, future, outcome)))


def _take_event(book: _Book, said: dict[str, Any], tell: Callable[[Event], None]) -> None:
    values = {name: value for name, value in said.items() if name not in _OF_EVENTS}
    key, worker = said["unit"], said["by"]
    if key not in book.units:
        return
    if not values:  # its first word
        if book.restarted_by_engine(key):
            tell(Event("repeated", key, book.last_worker[key], text="the worker has died"))
        book.starts[key] += 1
        book.begun.add(key)
    book.last_worker[key] = worker
    tell(Event("told" if values else "begun", key, worker, values))


def _take_end(
    book: _Book,
    ended: tuple[str, Any, Any],
    tell: Callable[[Event], None],
    supply: Callable[[Unit, tuple[str, ...]], Unit] | None,
) -> Done | None:
    """A unit that has ended, or None where it goes on elsewhere."""
    key, future, outcome = ended
    if book.futures.get(key) is not future:
        return None
    del book.futures[key]
    book.begun.discard(key)
    unit = book.units.pop(key)
    if isinstance(outcome, need("distributed").CancelledError):
        raise gone_from(book.place)  # not by us: the client has lost its scheduler
    if isinstance(outcome, Reply):
        if outcome.kind == "done":
            return Done(unit, outcome.value, "", outcome.worker, max(1, book.starts[key]))
        if outcome.kind == "lacking" and supply is not None:
            book.waiting.append(supply(unit, outcome.value))
            book.starts[key] -= 1
            return None
        return _elsewhere(book, unit, outcome, tell)
    if isinstance(outcome, need("distributed").KilledWorker):
        return _after_deaths(book, unit, tell)
    text = f"{type(outcome).__name__}: {outcome}"
    return Done(unit, None, text, book.last_worker.get(key, ""), book.starts[key])


def _elsewhere(book: _Book, unit: Unit, reply: Reply, tell: Callable[[Event], None]) -> Done | None:
    """Another worker, or more memory; the end where there is neither."""
    key, why = unit.key, reply.value
    assert isinstance(why, ElsewhereError)
    book.avoided[key].add(reply.address)
    unit = replace(unit, memory_gb=max(unit.memory_gb, why.memory_gb))
    fit = [w for w in book.present if w.memory_gb == 0 or w.memory_gb >= unit.memory_gb]
    others = {w.address for w in fit} - book.avoided[key]
    complete = len(book.present) >= book.place.most_workers
    if book.starts[key] >= book.most_starts or (complete and not others):
        return Done(unit, why.detail, why.reason, reply.worker, max(1, book.starts[key]))
    tell(Event("repeated", key, reply.worker, text=why.reason))
    book.waiting.append(unit)
    return None


def _after_deaths(book: _Book, unit: Unit, tell: Callable[[Event], None]) -> Done | None:
    """The engine has given the unit up: so many workers died that had it, even if only waiting."""
    key = unit.key
    book.given_up[key] += 1
    worker = book.last_worker.get(key, "")
    if max(book.starts[key], book.given_up[key]) >= book.most_starts:
        text = f"its worker has died {counted(book.starts[key], 'time')}"
        return Done(unit, None, text, worker, book.starts[key])
    if book.starts[key]:
        tell(Event("repeated", key, worker, text="the worker has died"))
    book.waiting.append(unit)
    return None
