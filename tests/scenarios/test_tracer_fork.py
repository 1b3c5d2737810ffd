"""Forked children: they stop and step like their parents, and know only the threads that they have."""

import os
import signal
import sys
import threading
import time
import unittest
import warnings

from scenario import Command, Commander, ScenarioCase, Tracer, run_in_child, xo
from support import is_sanitized, needs_fork
from vornbase import dlog

PROGRAM = """\
def work(number):
    half = number // 2                      #: start
    return half                             #: end

def spin(state):
    while not state.is_over:                #: spin
        state.count += 1
"""


class State:

    def __init__(self):
        self.count = 0
        self.is_over = False


@needs_fork
class ForkedChildren(ScenarioCase):

    def setUp(self):
        super().setUp()
        catcher = warnings.catch_warnings()
        catcher.__enter__()
        self.addCleanup(catcher.__exit__, None, None, None)
        warnings.simplefilter("ignore", DeprecationWarning)  # that a process with threads forks is the point
        self.program = self.make_program(PROGRAM).load()
        self.commander = Commander(self.program)

    def start_tracer(self, **options):
        tracer = self.make_tracer(self.commander, **options)
        tracer.start()
        return tracer

    def break_at(self, tracer, line):
        return tracer.set_breakpoint(self.program.pathname, self.program.line(line))

    def start_spinning(self):
        """Starts a thread that is busy until the test ends."""
        if is_sanitized():
            self.skipTest("a busy thread may have the lock of the sanitizer's allocator at the fork")
        state = State()
        thread = threading.Thread(target=self.program.spin, args=(state,), daemon=True)
        thread.start()
        self.addCleanup(self.join_all, [thread])
        self.addCleanup(setattr, state, "is_over", True)
        while state.count == 0:
            time.sleep(0.001)

    def work_and_tell(self):
        """Runs the program and returns its stops, and what went wrong meanwhile."""
        self.program.work(8)
        return {"stops": self.commander.take_log(), "log": dlog.GetEntries()}

    def test_a_child_stops_and_steps_like_its_parent(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        self.commander.commands += [Command.STEP_OVER, Command.STEP_OVER]
        in_child = run_in_child(self.work_and_tell)
        in_parent = self.work_and_tell()
        self.assertEqual(in_child, {
            "stops": [["BREAKPOINT", "start", None], ["STEP", "end", None], ["RETURN", "end", 4]], "log": []})
        self.assertEqual(in_parent["stops"], [tuple(stop) for stop in in_child["stops"]])

    def test_children_of_children_stop_as_well(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        result = run_in_child(lambda: run_in_child(self.work_and_tell))
        self.assertEqual(result, {"stops": [["BREAKPOINT", "start", None]], "log": []})

    def test_a_child_that_is_not_followed_does_not_stop_and_has_no_tool(self):
        tracer = self.start_tracer(follow_forks=False)
        self.break_at(tracer, "start")

        def in_child():
            return self.work_and_tell(), sys.monitoring.get_tool(Tracer.tool_id)

        self.assertEqual(run_in_child(in_child), [{"stops": [], "log": []}, None])
        self.assertEqual(self.work_and_tell()["stops"], [("BREAKPOINT", "start", None)])

    def test_breakpoints_set_in_the_child_are_its_own(self):
        tracer = self.start_tracer()

        def in_child():
            self.break_at(tracer, "end")
            return self.work_and_tell()

        self.assertEqual(run_in_child(in_child), {"stops": [["BREAKPOINT", "end", None]], "log": []})
        self.assertEqual(self.work_and_tell()["stops"], [])

    def test_the_child_knows_only_the_thread_that_forked(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        self.start_spinning()
        self.assertEqual(len(xo.CPerThread.GetAllPerThreads()), 2)

        def in_child():
            threads = xo.CPerThread.GetAllPerThreads()
            return [thread.fThreadId == threading.get_ident() for thread in threads], self.work_and_tell()

        self.assertEqual(run_in_child(in_child),
                         [[True], {"stops": [["BREAKPOINT", "start", None]], "log": []}])

    def test_a_child_forked_while_threads_are_held_holds_nobody(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        self.start_spinning()
        tracer.hold_others()
        try:
            def in_child():
                started = []
                thread = threading.Thread(target=lambda: started.append(self.work_and_tell()))
                thread.start()
                thread.join(30)
                return started, sys.monitoring.get_events(Tracer.tool_id) & sys.monitoring.events.LINE

            result = run_in_child(in_child)
        finally:
            tracer.release_others()
        self.assertEqual(result, [[{"stops": [["BREAKPOINT", "start", None]], "log": []}], 0])

    def test_a_child_forked_by_a_handler_goes_on_from_there(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        results = []
        self.commander.commands.append(lambda stop: results.append(run_in_child(lambda: os.getpid())))
        self.assertEqual(self.program.work(8), 4)
        self.assertNotEqual(results, [os.getpid()])
        self.assertEqual(run_in_child(self.work_and_tell)["stops"][-1], ["BREAKPOINT", "start", None])

    def test_a_child_forked_in_a_handler_can_be_stopped_after_it(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        reading_end, writing_end = os.pipe()
        pids = []

        def fork(stop):
            pids.append(os.fork())
            return Command.STEP_OVER

        self.commander.commands.append(fork)
        self.program.work(8)
        if pids == [0]:
            os.write(writing_end, repr(self.commander.log).encode())
            os._exit(0)
        os.close(writing_end)
        with open(reading_end) as pipe:
            text = pipe.read()
        os.waitpid(pids[0], 0)
        self.assertEqual(text, repr(self.commander.log))
        self.assertEqual(text, repr([("BREAKPOINT", "start", None), ("STEP", "end", None)]))

    def test_a_child_stops_even_though_another_thread_was_stopped_when_it_was_forked(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        is_stopped = threading.Event()
        may_go_on = threading.Event()
        self.commander.commands.append(lambda stop: is_stopped.set() or may_go_on.wait(30) and None)
        thread = threading.Thread(target=self.program.work, args=(8,), daemon=True)
        thread.start()
        self.assertTrue(is_stopped.wait(30))
        self.commander.take_log()
        result = run_in_child(self.work_and_tell)
        may_go_on.set()
        self.join_all([thread])
        self.assertEqual(result, {"stops": [["BREAKPOINT", "start", None]], "log": []})

    def test_a_step_of_a_thread_that_the_child_does_not_have_is_forgotten_there(self):
        tracer = self.start_tracer()
        is_stepping = threading.Event()
        may_go_on = threading.Event()
        breakpoint = self.break_at(tracer, "start")

        class Number(int):

            def __floordiv__(self, other):
                is_stepping.set()
                may_go_on.wait(30)
                return 4

        self.commander.commands.append(Command.STEP_OVER)
        thread = threading.Thread(target=self.program.work, args=(Number(8),), daemon=True)
        thread.start()
        self.assertTrue(is_stepping.wait(30))
        tracer.clear_breakpoint(breakpoint)
        self.commander.take_log()

        def in_child():
            self.assert_no_counts()
            events = sys.monitoring.get_local_events(Tracer.tool_id, self.program.work.__code__)
            return events, sys.monitoring.get_events(Tracer.tool_id), self.work_and_tell()

        in_child_events = run_in_child(in_child)
        may_go_on.set()
        self.join_all([thread])
        base_events = sys.monitoring.events.PY_START | sys.monitoring.events.PY_RESUME
        self.assertEqual(in_child_events, [0, base_events, {"stops": [], "log": []}])
        self.assertEqual(self.commander.log, [("STEP", "end", None)])

    def test_a_fork_waits_for_a_thread_that_is_changing_something(self):
        tracer = self.start_tracer()
        may_begin, inside = [], []

        def change():
            while not may_begin:
                time.sleep(0.001)
            with tracer._lock:
                inside.append(True)
                time.sleep(0.5)

        # Code that is met for the first time waits for the lock as well: let nothing be new that runs from
        # here on.
        thread = threading.Thread(target=change, daemon=True)
        thread.start()
        run_in_child(int)
        may_begin.append(True)
        while not inside:
            time.sleep(0.001)

        def in_child():
            signal.alarm(10)
            self.break_at(tracer, "end")
            return self.work_and_tell()

        result = run_in_child(in_child)
        self.join_all([thread])
        self.assertEqual(result, {"stops": [["BREAKPOINT", "end", None]], "log": []})

    def test_forks_amid_busy_threads_never_hang_the_child(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "start")
        self.start_spinning()
        state = State()

        def churn():
            while not state.is_over:
                breakpoint = self.break_at(tracer, "end")
                tracer.clear_breakpoint(breakpoint)
                short = threading.Thread(target=len, args=([],))
                short.start()
                short.join()

        thread = threading.Thread(target=churn, daemon=True)
        thread.start()
        try:
            for _ in range(30):
                result = run_in_child(self.work_and_tell)
                self.assertEqual(result["log"], [])
                self.assertEqual(result["stops"][0], ["BREAKPOINT", "start", None])
        finally:
            state.is_over = True
            self.join_all([thread])

    def test_a_fork_that_fails_leaves_the_locks_free(self):
        import resource
        tracer = self.start_tracer()
        self.break_at(tracer, "start")

        def in_child():
            os.setuid(65534)
            resource.setrlimit(resource.RLIMIT_NPROC, (0, 0))
            try:
                os.fork()
            except OSError:
                pass
            else:
                return "the fork did not fail"
            return self.work_and_tell()["stops"]

        if os.getuid() != 0:
            self.skipTest("only root can become a user who may not fork")
        self.assertEqual(run_in_child(in_child), [["BREAKPOINT", "start", None]])


if __name__ == "__main__":
    unittest.main()
