"""Code that raises one kind of event over and over and does next to nothing else.

A workload is made anew for each measurement, so that no code object has seen another callback. `run(rounds)`
raises `per_round` events of its kind in each round, in `code`; all else that happens costs the same with and
without them.
"""

import itertools
import sys

events = sys.monitoring.events

LINES_PER_ROUND = 100

#: The line that none of the workloads has: where the breakpoint is that is never hit.
NO_LINE = 100_000

_LINES = "def run(rounds):\n for _ in rounds:\n" + "  a = None\n" * LINES_PER_ROUND
_CALLS = "def called(): pass\ndef run(rounds):\n for _ in rounds:\n" + "  called()\n" * 10
_YIELDS = (
    "def called(rounds):\n for _ in rounds:\n" + "  yield\n" * 10
    + "def run(rounds):\n for _ in called(rounds): pass\n"
)


class Monitored:
    """A code object, and the kind of events that it is monitored for."""

    def __init__(self, event, code):
        self.event = event
        self.code = code


class Workload(Monitored):
    """Code that raises events of one kind."""

    def __init__(self, name, event, source, monitored, per_round, first_line=1):
        self.name = name
        self.per_round = per_round
        namespace = {}
        exec(compile("\n" * (first_line - 1) + source, "/srv/app/%s.py" % name.lower(), "exec"), namespace)
        super().__init__(event, namespace[monitored].__code__)
        self._run = namespace["run"]

    def run(self, rounds):
        self._run(itertools.repeat(None, rounds))


def _make_lines(first_line=1):
    return Workload("LINE", events.LINE, _LINES, "run", LINES_PER_ROUND + 1, first_line)


MAKERS = {
    "LINE": _make_lines,
    "LINE of a long file": lambda: _make_lines(1000),
    "PY_START": lambda: Workload("PY_START", events.PY_START, _CALLS, "called", 10),
    "PY_RETURN": lambda: Workload("PY_RETURN", events.PY_RETURN, _CALLS, "called", 10),
    "PY_YIELD": lambda: Workload("PY_YIELD", events.PY_YIELD, _YIELDS, "called", 10),
    "PY_RESUME": lambda: Workload("PY_RESUME", events.PY_RESUME, _YIELDS, "called", 10),
}
