"""A process that makes variants: a task a line on its standard input, its outcome a line back.

It ends, with whatever it has started, when its input ends: so nothing goes on without the study.
"""

from __future__ import annotations

import json
import os
import queue
import signal
import sys
import threading
from dataclasses import asdict
from typing import Any

from .entries import Wanted
from .work import Outcome, Task, solve


def told(thing: Task | Outcome) -> bytes:
    """A line of JSON."""
    return json.dumps(asdict(thing)).encode() + b"\n"


def task_of(line: bytes) -> Task:
    said: dict[str, Any] = json.loads(line)
    wanted = [{**one, "where": tuple(one["where"])} for one in said.pop("wanted")]
    columns = tuple(said.pop("columns"))
    return Task(wanted=tuple(Wanted(**one) for one in wanted), columns=columns, **said)


def outcome_of(line: bytes) -> Outcome:
    return Outcome(**json.loads(line))


def main() -> None:
    answers = os.fdopen(os.dup(1), "wb")
    os.dup2(2, 1)  # what libraries print must not be taken for an answer
    tasks: queue.SimpleQueue[bytes] = queue.SimpleQueue()
    threading.Thread(target=_listen, args=(tasks,), daemon=True).start()
    while True:
        answers.write(told(solve(task_of(tasks.get()))))
        answers.flush()


def _listen(tasks: queue.SimpleQueue[bytes]) -> None:
    for line in sys.stdin.buffer:
        tasks.put(line)
    os.killpg(os.getpgrp(), signal.SIGKILL)


if __name__ == "__main__":
    main()
