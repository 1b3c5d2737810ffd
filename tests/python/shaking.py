"""Threads that start together and shake hard, for a short while that a person can make longer.

* `shake(job, ...)`: each job over and over on a thread of its own, until the time is up.
* `together(count, job)`: one call on each of `count` threads, all let go at once; `meetings` is many of those.
* `Turns(items)`: the items again and again, for jobs that share them.
* `ShakingTestCase`: the base class; lets threads switch as often as the interpreter can.

How long each `shake` takes is chosen with XO_SHAKE_SECONDS; a run by hand may well take minutes. Threads that do
not come to an end have their stacks shown, and the process ends: a test that hangs never passes for a slow one.
"""

import collections
import contextlib
import faulthandler
import itertools
import os
import sys
import threading
import time

from support import time_limit
from event_helpers import EventTestCase

SECONDS = float(os.environ.get("XO_SHAKE_SECONDS", "0.4"))
SHORTEST_SWITCH = 1e-6

#: How many threads make up a crowd. More than there are processors, so that they are interrupted anywhere.
CROWD = 8


@contextlib.contextmanager
def bounded(seconds):
    """Ends the process, after it has shown all stacks, where the block takes longer than that."""
    faulthandler.dump_traceback_later(time_limit(seconds), exit=True)
    try:
        yield
    finally:
        faulthandler.cancel_dump_traceback_later()


class Turns:
    """An iterator over items again and again that threads can share. Free-threaded 3.13 reads past the end of an
    `itertools.cycle` that several threads ask at once, and crashes; its `itertools.count` is made for that."""

    def __init__(self, items):
        self._items = list(items)
        self._numbers = itertools.count()

    def __next__(self):
        return self._items[next(self._numbers) % len(self._items)]


class Crowd:
    """Threads whose first failure is raised where they are waited for; all of them stop then."""

    def __init__(self):
        self.stopped = threading.Event()
        self._errors = []
        self._threads = []

    def start(self, bodies):
        barrier = threading.Barrier(len(bodies))

        def run(body):
            try:
                barrier.wait()
                body()
            except BaseException as error:
                self._errors.append(error)
                self.stopped.set()

        self._threads = [threading.Thread(target=run, args=(body,), daemon=True) for body in bodies]
        for thread in self._threads:
            thread.start()

    def join(self):
        for thread in self._threads:
            thread.join()
        if self._errors:
            raise self._errors[0]


def shake(*jobs, seconds=SECONDS):
    """Calls each job again and again on its own thread, for that long, and each of them once at least.

    Returns how often each was called.
    """
    crowd = Crowd()
    counts = [0] * len(jobs)

    def repeated(index, job):
        def body():
            while not crowd.stopped.is_set():
                job()
                counts[index] += 1
        return body

    with bounded(seconds + 60):
        crowd.start([repeated(index, job) for index, job in enumerate(jobs)])
        crowd.stopped.wait(seconds)
        while not all(counts) and not crowd.stopped.wait(0.05):
            pass  # on a busy machine the time may be up before each has had its turn
        crowd.stopped.set()
        crowd.join()
    return counts


def together(count, job):
    """Calls `job()` once on each of `count` threads, let go at the same moment; returns the results."""
    return meetings(count, [job])[0]


def meetings(count, jobs, seconds=SECONDS):
    """The same for many jobs, one after the other, on the same threads, until the time is up.

    Returns a list of results for each job that was called; the first job always is.
    """
    jobs = list(jobs)
    results = [[None] * count for _ in jobs]
    called = []
    end = time.monotonic() + seconds

    def look_at_the_time():
        is_over.append(bool(called) and time.monotonic() > end)
        called.append(not is_over[-1])

    is_over = []
    barrier = threading.Barrier(count, action=look_at_the_time)

    def member(index):
        def body():
            try:
                for job, of_job in zip(jobs, results):
                    barrier.wait()
                    if is_over[-1]:
                        break
                    of_job[index] = job()
            except threading.BrokenBarrierError:
                pass  # another one has failed
            except BaseException:
                barrier.abort()
                raise
        return body

    crowd = Crowd()
    with bounded(seconds + 60):
        crowd.start([member(index) for index in range(count)])
        crowd.join()
    return results[:sum(called)]


class ShakingTestCase(EventTestCase):
    """Watches the exception log, and has threads switched as often as the interpreter can."""

    def setUp(self):
        super().setUp()
        self.addCleanup(sys.setswitchinterval, sys.getswitchinterval())
        sys.setswitchinterval(SHORTEST_SWITCH)

    def _check_exception_log(self):
        exceptions, self.log.exceptions = self.log.exceptions, []
        self.assertEqual(collections.Counter(map(repr, exceptions)), {}, "exceptions were logged")
