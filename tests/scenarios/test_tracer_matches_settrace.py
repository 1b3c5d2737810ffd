"""The tracer's stops in library code are what `sys.settrace` reports, in one thread and in eight.

`sys.settrace` is the oracle: the interpreter's own and older way to see lines and returns. One of its ways is taken
out of the oracle's report here: a frame that an exception leaves is reported as a return of None. The tracer's stop
there has a reason of its own and the exception, so that is what is rewritten, and only for that reason.
"""

import collections
import functools
import gc
import sys
import threading
import unittest

from library_work import ALL_WORK
from scenario import Command, Reason, ScenarioCase, Tracer, xo

Line = collections.namedtuple("Line", "file function lineno")
Return = collections.namedtuple("Return", "file function lineno value")


def describe(value):
    """What is compared of a value: all of it if it is built of plain values, else its class."""
    if value is None or isinstance(value, (bool, int, float, str, bytes)):
        return type(value), str(value)
    if isinstance(value, (tuple, list)):
        return type(value), [describe(item) for item in value]
    if isinstance(value, dict):
        return type(value), [(describe(key), describe(item)) for key, item in value.items()]
    return type(value)


def make_line(frame, lineno):
    return Line(frame.f_code.co_filename, frame.f_code.co_qualname, lineno)


def make_return(frame, value):
    return Return(frame.f_code.co_filename, frame.f_code.co_qualname, frame.f_lineno, describe(value))


# The oracle


def trace_with_settrace(work):
    """The lines and returns that `sys.settrace` reports while `work` runs, in this thread."""
    log = []

    def trace(frame, event, argument):
        if event == "line":
            log.append(make_line(frame, frame.f_lineno))
        elif event == "return":
            log.append(make_return(frame, argument))
        return trace

    previous = sys.gettrace()
    sys.settrace(trace)
    try:
        work()
    finally:
        sys.settrace(previous)
    return log


# The tracer


def first_line_of(function):
    code = function.__code__
    return min(lineno for _, _, lineno in code.co_lines() if lineno and lineno > code.co_firstlineno)


class Follower:
    """An `on_stop` that goes on by one command from a first stop to the end of that frame, in each thread."""

    def __init__(self, command):
        self.command = command
        self.logs = collections.defaultdict(list)  # thread id -> lines and returns
        self.first_frames = {}  # thread id -> the frame of the first stop

    def __call__(self, stop):
        thread_id = stop.thread.fThreadId
        first_frame = self.first_frames.setdefault(thread_id, stop.frame)
        if stop.reason in (Reason.BREAKPOINT, Reason.STEP):
            self.logs[thread_id].append(make_line(stop.frame, stop.lineno))
            return self.command
        value = None if stop.reason is Reason.EXCEPTION else stop.value
        self.logs[thread_id].append(make_return(stop.frame, value))
        return Command.CONTINUE if stop.frame is first_frame else self.command


class TracerMatchesSettrace(ScenarioCase):

    def setUp(self):
        super().setUp()
        # No finaliser of earlier garbage runs in the middle, and nothing is done for the first time.
        gc.collect()
        gc.disable()
        self.addCleanup(gc.enable)
        for work in ALL_WORK:
            work()
            work()

    def follow(self, command, *works):
        """Runs each work on a thread of its own (one work: on this one) and returns the logs, in order."""
        follower = Follower(command)
        tracer = self.make_tracer(follower)
        for work in works:
            tracer.set_breakpoint(work.__code__.co_filename, first_line_of(work))
        tracer.start()
        logs = []

        def run(work):
            result = work()
            thread_id = threading.get_ident()
            logs.append((works.index(work), result, follower.logs[thread_id]))

        self.run_together(run, works)
        tracer.stop()
        tracer.reset()
        logs.sort(key=lambda entry: entry[0])
        self.assertEqual([result for _, result, _ in logs], [work() for work in works])
        return [log for _, _, log in logs]

    def run_together(self, run, works):
        """Calls run(work) for each work, all at once; for a single one on this thread."""
        if len(works) == 1:
            run(*works)
            return
        barrier = threading.Barrier(len(works))
        is_done = threading.Barrier(len(works))  # no thread ends, and gives its id away, before all are done

        def run_one(work):
            barrier.wait(60)
            run(work)
            is_done.wait(600)

        self.run_threads(*[functools.partial(run_one, work) for work in works])

    def assert_same_log(self, work, log, expected):
        """Compares, and shows the first difference with what went before."""
        for index, (ours, theirs) in enumerate(zip(log, expected)):
            if ours != theirs:
                before = "\n".join(map(str, expected[max(0, index - 5):index]))
                self.fail(f"{work.__name__}, event {index}:\n{before}\nsettrace: {theirs}\ntracer:   {ours}")
        self.assertEqual(len(log), len(expected), work.__name__)

    def assert_plausible(self, work, log):
        """The oracle itself saw library code: many lines and returns, in more than one function."""
        self.assertGreater(sum(type(event) is Line for event in log), 50, work.__name__)
        self.assertGreater(sum(type(event) is Return for event in log), 10, work.__name__)
        self.assertGreater(len({event[:2] for event in log}), 5, work.__name__)

    def test_stepping_into_everything_gives_every_line_and_return_of_every_frame(self):
        for work in ALL_WORK:
            with self.subTest(work.__name__):
                expected = trace_with_settrace(work)
                self.assert_plausible(work, expected)
                log, = self.follow(Command.STEP_INTO, work)
                self.assert_same_log(work, log, expected)

    def test_eight_threads_at_once_give_each_its_own_lines_and_returns(self):
        expected = {}
        self.run_together(lambda work: expected.update({work: trace_with_settrace(work)}), ALL_WORK)
        logs = self.follow(Command.STEP_INTO, *ALL_WORK)
        self.assertEqual(len(logs), 8)
        for work, log in zip(ALL_WORK, logs):
            with self.subTest(work.__name__):
                self.assert_plausible(work, expected[work])
                self.assert_same_log(work, log, expected[work])

    def test_eight_threads_in_the_same_code_give_each_all_of_its_lines_and_returns(self):
        work = ALL_WORK[0]
        works = [functools.wraps(work)(functools.partial(work)) for _ in range(8)]
        for partial in works:
            partial.__code__ = work.__code__
        expected = trace_with_settrace(work)
        logs = self.follow(Command.STEP_INTO, *works)
        self.assertEqual(len(logs), 8)
        for log in logs:
            self.assert_same_log(work, log, expected)

    def test_stepping_over_gives_the_lines_and_the_return_of_that_frame(self):
        for work in ALL_WORK:
            with self.subTest(work.__name__):
                function = work.__code__.co_qualname
                expected = [event for event in trace_with_settrace(work) if event.function == function]
                log, = self.follow(Command.STEP_OVER, work)
                self.assert_same_log(work, log, expected)
                self.assertGreater(len(log), 3)

    def test_breakpoints_on_every_line_of_a_library_file_give_its_lines(self):
        for work in ALL_WORK:
            with self.subTest(work.__name__):
                events = trace_with_settrace(work)
                files = collections.Counter(event.file for event in events if type(event) is Line)
                del files[work.__code__.co_filename]
                file = files.most_common(1)[0][0]
                expected = [event for event in events if type(event) is Line and event.file == file]
                log = []
                tracer = self.make_tracer(lambda stop: log.append(make_line(stop.frame, stop.lineno)))
                for lineno in {event.lineno for event in expected}:
                    tracer.set_breakpoint(file, lineno)
                tracer.start()
                work()
                tracer.stop()
                tracer.reset()
                self.assert_same_log(work, log, expected)

    def test_what_an_unwatched_run_gives_is_not_changed_by_the_tracer_having_been_there(self):
        work = ALL_WORK[0]
        before = trace_with_settrace(work)
        self.follow(Command.STEP_INTO, work)
        self.assertEqual(trace_with_settrace(work), before)
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))
        self.assertEqual(xo.CPerFile.GetAllPerFiles(), [])


if __name__ == "__main__":
    unittest.main()
