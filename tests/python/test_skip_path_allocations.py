"""The skip path costs nothing but time: no memory, no reference, no Python code.

Memory that is taken and given back at once leaves no trace in a count of blocks, but it raises the peak of
traced memory. The interpreter keeps spare objects of some kinds at hand; while those are used up, a new one
shows as well. What the measurement itself takes is measured with a callable that does nothing.
"""

import contextlib
import functools
import gc
import itertools
import operator
import sys
import textwrap
import tracemalloc
import unittest

from event_helpers import EVENT_IDS, EventTestCase
from support import is_sanitized, xo

CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread

CALLS = 100_000

LINE_WITH_BREAKPOINT = 3


class Spare:
    """Of whose methods the interpreter keeps spare bound ones."""

    def method(self):
        """Is only bound."""


def use_up_spare_objects():
    """Objects of every kind that the interpreter keeps spare ones of, more than it keeps; hold them."""
    numbers = range(1000, 4000)
    held = [(float(number), [number], {number: 1}, {number}, slice(number), number + 1, Spare().method)
            for number in numbers]
    # The tuples come last: some of the calls above take one for their arguments and give it back.
    return held, [((number,), (number, 1), (number, 1, 2), (number, 1, 2, 3)) for number in numbers]


@contextlib.contextmanager
def no_collections():
    """Keeps the garbage collector from running, and from giving memory back in between."""
    was_enabled = gc.isenabled()
    gc.collect()
    gc.disable()
    try:
        yield
    finally:
        if was_enabled:
            gc.enable()


def memory_rise(action):
    """The bytes by which traced memory rises at most while `action` runs, the measurement included."""
    with no_collections():
        tracemalloc.start()
        try:
            action()  # whatever it takes only once
            held = use_up_spare_objects()
            before, _ = tracemalloc.get_traced_memory()
            tracemalloc.reset_peak()
            action()
            _, peak = tracemalloc.get_traced_memory()
        finally:
            tracemalloc.stop()
        del held
    return peak - before


def python_calls(action):
    """The names of the Python functions that are called while `action` runs."""
    names = []

    def profile(frame, event, argument):
        if event == "call":
            names.append(frame.f_code.co_name)

    sys.setprofile(profile)
    try:
        action()
    finally:
        sys.setprofile(None)
    return [name for name in names if name != action.__name__]


def allocated_blocks_gained(action):
    """By how many blocks the interpreter's memory grows while `action` runs, at the least of a few runs."""
    gains = []
    with no_collections():
        action()
        for _ in range(5):
            before = sys.getallocatedblocks()
            action()
            gains.append(sys.getallocatedblocks() - before)
    return min(gains)


def pack_arguments(*arguments):
    """Takes a tuple for its arguments."""


class MeasurementTest(unittest.TestCase):
    """That what is looked for would be found."""

    def rise_of(self, function):
        return memory_rise(lambda: xo._bench_callback(function, "", 10))

    def test_a_block_that_is_given_back_at_once_shows(self):
        self.assertGreater(self.rise_of(id), self.rise_of(callable))
        self.assertGreater(self.rise_of(repr), self.rise_of(callable))

    def test_a_tuple_of_arguments_shows(self):
        self.assertGreater(self.rise_of(pack_arguments), self.rise_of(callable))

    def test_a_call_of_python_code_shows(self):
        def run():
            xo._bench_callback(pack_arguments, "", 3)

        self.assertEqual(python_calls(run), ["pack_arguments"] * 3)

    @unittest.skipIf(is_sanitized(), "the interpreter counts no blocks while each comes from malloc")
    def test_a_block_that_is_kept_shows(self):
        kept = []

        def run():
            xo._bench_callback(kept.append, object(), 5)
            kept.append([object() for _ in range(5)])

        self.assertGreater(allocated_blocks_gained(run), 4)


class SkipPathTest(EventTestCase):

    def skip_paths(self):
        """Every way to an answer without the second stage: its name, the callback, the code, the answer."""
        known, record = self.known_code(LINE_WITH_BREAKPOINT)
        internal, _ = self.internal_code()
        thread = CPerThread.GetPerThread()
        thread.fThreadName = "main"
        thread.fDebugPolicy = 1
        yield "a line without a breakpoint", self.make_callback(xo.kPyLineEventId), known, None
        for flag in ("fAnySuspendThread", "fSteppingEventsNeededEveryThread"):
            callback = self.make_callback(xo.kPyLineEventId)
            setattr(callback, flag, True)
            yield f"a line without a breakpoint under {flag}", callback, known, None
        for name, event_id in EVENT_IDS.items():
            if name != "LINE":
                yield f"{name} of no interest", self.make_callback(event_id, True), known, None
            yield (f"{name} of internal code that is switched off", self.make_callback(event_id, True),
                   internal, xo.kSysMonitoringDisable)
            yield f"{name} of internal code that is ignored", self.make_callback(event_id), internal, None
        thread.fDebugPolicy = 0
        record.fSteppingEventsNeededCount = 1
        for name, event_id in EVENT_IDS.items():
            yield f"{name} of a thread that is not debugged", self.make_callback(event_id), known, None

    def for_each_path(self, check):
        paths = 0
        for name, callback, code, answer in self.skip_paths():
            with self.subTest(path=name):
                self.assertIs(callback.Callback(code), answer)
                check(callback.Callback, code)
                paths += 1
        self.assertEqual(paths, 22)
        self.assertEqual(self.second.calls, [])

    def test_no_memory_is_taken_on_any_skip_path(self):
        @functools.cache
        def bench(callback, code):
            return memory_rise(lambda: xo._bench_callback(callback, code, CALLS))

        self.for_each_path(lambda callback, code: self.assertLessEqual(bench(callback, code),
                                                                       bench(callable, code)))

    def test_no_memory_is_kept_on_any_skip_path(self):
        self.for_each_path(lambda callback, code: self.assertLessEqual(
            allocated_blocks_gained(lambda: xo._bench_callback(callback, code, CALLS)), 0))

    def test_no_python_code_runs_on_any_skip_path(self):
        def check(callback, code):
            def run():
                xo._bench_callback(callback, code, 100)

            self.assertEqual(python_calls(run), [])

        self.for_each_path(check)

    def test_no_reference_is_kept_on_any_skip_path(self):
        thread = CPerThread.GetPerThread()

        def counts(callback, code):
            return [sys.getrefcount(thing) for thing in
                    (code, callback.__self__, thread, CPerCodeObject.GetPerCodeObject(code), self.second,
                     CPerCodeObject.GetPerCodeObject(code).fEnabledBpLinenos)]

        def check(callback, code):
            before = counts(callback, code)
            xo._bench_callback(callback, code, 10_000)
            self.assertEqual(counts(callback, code), before)

        self.for_each_path(check)

    def test_a_log_that_nobody_asked_for_costs_no_memory(self):
        class Writer:
            def write(self, text):
                raise AssertionError(text)

        callback = self.make_callback(xo.kPyLineEventId).Callback
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        xo.set_dprintf_file(Writer(), -1, None)
        xo.set_dprintf_mask(1023 & ~xo.kLogInitialMonitoringCallbacks)
        self.assertLessEqual(memory_rise(lambda: xo._bench_callback(callback, code, CALLS)),
                             memory_rise(lambda: xo._bench_callback(callable, code, CALLS)))

    def test_finding_the_record_of_the_calling_thread_takes_no_memory(self):
        CPerThread.GetPerThread()
        find = xo._CPerThreadTssCache.Get
        do_nothing = xo._CPerThreadTssCache.Clear

        def calls_of(function):
            return memory_rise(lambda: all(map(operator.call, itertools.repeat(function, CALLS))) or None)

        found = calls_of(find)
        CPerThread.GetPerThread()
        self.assertLessEqual(found, calls_of(do_nothing))


class RealEventsTest(EventTestCase):
    """The interpreter itself raises the events; line numbers and offsets stay small and take no memory."""

    LOOP = """
        def lines(turns):
            for turn in turns:
                seen = turn

        def numbers(turns):
            for turn in turns:
                yield

        def generator(turns):
            for number in numbers(turns):
                pass

        def leaf():
            return

        def calls(turns):
            for turn in turns:
                leaf()
    """

    def setUp(self):
        super().setUp()
        self.names = {}
        exec(compile(textwrap.dedent(self.LOOP), "/srv/app/loops.py", "exec"), self.names)
        self.tool_id = self.use_tool()
        thread = CPerThread.GetPerThread()
        thread.fThreadName = "main"

    def rise(self, name):
        return memory_rise(lambda: self.names[name](itertools.repeat(None, CALLS)))

    def switch_on(self, name, event, callback):
        code = self.names[name].__code__
        sys.monitoring.register_callback(self.tool_id, EVENT_IDS[event], callback)
        sys.monitoring.set_local_events(self.tool_id, code, EVENT_IDS[event])
        self.addCleanup(sys.monitoring.set_local_events, self.tool_id, code, 0)
        CPerCodeObject.GetPerCodeObject(code, True, sys._getframe()).fEnabledBpLinenos = {1000}

    def check(self, function, monitored, event):
        plain = self.rise(function)
        callback = self.make_callback(EVENT_IDS[event])
        events = itertools.count()
        self.switch_on(monitored, event, lambda *arguments: next(events))
        self.names[function](itertools.repeat(None, 100))
        self.assertGreaterEqual(next(events), 100, "the loop raises no events")
        self.switch_on(monitored, event, callback.Callback)
        self.assertLessEqual(self.rise(function), plain)
        self.assertEqual(self.second.calls, [])

    def test_line_events_of_a_loop_without_breakpoints_take_no_memory(self):
        self.check("lines", "lines", "LINE")

    def test_start_and_return_events_of_no_interest_take_no_memory(self):
        self.check("calls", "leaf", "PY_START")
        self.check("calls", "leaf", "PY_RETURN")

    def test_yields_and_resumptions_of_no_interest_take_no_memory(self):
        self.check("generator", "numbers", "PY_YIELD")
        self.check("generator", "numbers", "PY_RESUME")

    def test_line_events_of_a_loop_without_breakpoints_keep_no_memory_and_run_no_python_code(self):
        callback = self.make_callback(xo.kPyLineEventId)
        self.switch_on("lines", "LINE", callback.Callback)

        def run():
            self.names["lines"](itertools.repeat(None, CALLS))

        self.assertLessEqual(allocated_blocks_gained(run), 0)
        self.assertEqual(python_calls(run), ["lines"])


if __name__ == "__main__":
    unittest.main()
