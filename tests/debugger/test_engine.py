"""The engine: what is switched on for which wish, what is switched off again, and who has the process's events."""

import bdb
import gc
import os
import subprocess
import sys
import threading
import unittest
import weakref

import vorntracer.bdb
from vorntracer import xoptmonitoring as xo
from vorntracer.events import TOOL_IDS, engine, line_shared_with_start

_monitoring = sys.monitoring
_events = _monitoring.events


def leaf(number):
    value = number + 1
    return value


def calls_leaf(count):
    total = 0
    for number in range(count):
        total += leaf(number)
    return total


def counts(count):
    number = 0
    while number < count:
        number += 1
    return number


def numbers(count):
    for number in range(count):
        yield number


class Debugger(vorntracer.bdb.Bdb):
    """Goes on as commanded at each stop, and remembers where they were."""

    def __init__(self, *commands):
        super().__init__()
        self.commands = list(commands)
        self.stops = []

    def user_line(self, frame):
        self.stops.append((frame.f_code.co_name, frame.f_lineno - frame.f_code.co_firstlineno))
        command = self.commands.pop(0) if self.commands else "continue"
        if command == "step":
            self.set_step()
        elif command == "next":
            self.set_next(frame)
        elif callable(command):
            command(frame)
        else:
            self.set_continue()

    def break_at(self, function, offset, **options):
        error = self.set_break(function.__code__.co_filename, function.__code__.co_firstlineno + offset, **options)
        assert error is None, error


class EngineCase(unittest.TestCase):
    def setUp(self):
        self.addCleanup(bdb.Breakpoint.clearBreakpoints)
        self.addCleanup(self.assert_all_is_off)

    def assert_all_is_off(self):
        self.assertIsNone(engine.tool_id)
        self.assertEqual(engine._lit, {})
        for tool_id in TOOL_IDS:
            self.assertIsNone(_monitoring.get_tool(tool_id))

    def count_restarts(self):
        """Have the calls of `restart_events` counted; returns the list that grows."""
        restarts = []
        original = _monitoring.restart_events

        def counted():
            restarts.append(None)
            original()

        _monitoring.restart_events = counted
        self.addCleanup(setattr, _monitoring, "restart_events", original)
        return restarts

    def count_second_stages(self, method_name):
        """Have the calls of one of the engine's second stages counted, by code name; returns the list that grows."""
        seen = []
        original = getattr(vorntracer.bdb.BdbFollower, method_name)

        def counted(follower, frame, code, *arguments):
            seen.append(code.co_name)
            return original(follower, frame, code, *arguments)

        setattr(vorntracer.bdb.BdbFollower, method_name, counted)
        self.addCleanup(setattr, vorntracer.bdb.BdbFollower, method_name, original)
        return seen


class WhatIsSwitchedOn(EngineCase):
    def test_only_code_with_a_breakpoint_has_local_events(self):
        seen = []

        def look(frame):
            tool_id = engine.tool_id
            seen.append([_monitoring.get_local_events(tool_id, function.__code__) for function in (leaf, calls_leaf)])
            debugger.set_continue()

        debugger = Debugger("continue", look)
        debugger.break_at(leaf, 2)
        debugger.runcall(calls_leaf, 1)
        # The stop at the beginning watched `calls_leaf`, and what is not watched goes when it next has an event.
        self.assertEqual(seen[0][0], _events.LINE | _events.JUMP)

    def test_a_line_of_no_interest_is_seen_once(self):
        debugger = Debugger()
        debugger.break_at(leaf, 2, cond="number < 0")
        seen = self.count_second_stages("line")
        self.assertEqual(debugger.runcall(calls_leaf, 500), sum(range(501)))
        # The line with the breakpoint each time, the other one once.
        self.assertEqual(seen.count("leaf"), 501)

    def test_exceptions_are_not_asked_for_while_only_breakpoints_are_set(self):
        seen = []

        def look(frame):
            seen.append(_monitoring.get_events(engine.tool_id))
            debugger.set_continue()

        debugger = Debugger("continue", "continue", look)
        debugger.break_at(leaf, 1)
        debugger.runcall(calls_leaf, 3)
        self.assertEqual(seen, [_events.PY_START | _events.PY_RESUME])

    def test_a_breakpoint_on_a_def_line_leaves_the_starts_switched_off(self):
        debugger = Debugger()
        debugger.break_at(leaf, 0)
        debugger.break_at(numbers, 0)

        def program():
            calls_leaf(300)
            return sum(numbers(300))

        starts = []
        on_start = engine._callbacks[_events.PY_START]._fSecondCallback

        def counted(code, offset):
            starts.append(code.co_name)
            return on_start(code, offset)

        def count_starts(frame):
            counting = xo.CInitialCallback(_events.PY_START, counted, True)
            self.callback = counting.Callback
            _monitoring.register_callback(engine.tool_id, _events.PY_START, self.callback)
            debugger.set_continue()

        debugger.commands = [count_starts]
        seen = self.count_second_stages("line")
        debugger.runcall(program)
        self.assertLess(starts.count("leaf"), 3)
        self.assertLess(starts.count("numbers"), 3)
        self.assertLess(seen.count("leaf"), 4)

    def test_a_breakpoint_in_a_one_line_function_stops_each_time(self):
        namespace = {}
        file = os.path.abspath(__file__)
        source = "\n" * 4 + "double = lambda value: value * 2\ndef small(value): return double(value)\n"
        exec(compile(source, file, "exec"), namespace)
        debugger = Debugger(*["continue"] * 9)
        debugger.set_break(file, 5)
        debugger.set_break(file, 6)

        def program():
            return [namespace["small"](number) for number in range(3)]

        self.assertEqual(debugger.runcall(program), [0, 2, 4])
        self.assertEqual(debugger.stops[1:], [("small", 0), ("<lambda>", 0)] * 3)

    def test_the_line_that_a_start_shares_is_known(self):
        self.assertIsNone(line_shared_with_start(leaf.__code__))
        self.assertIsNone(line_shared_with_start(numbers.__code__))
        one_line = lambda value: value  # noqa: E731
        self.assertEqual(line_shared_with_start(one_line.__code__), one_line.__code__.co_firstlineno)


class WhatComesBack(EngineCase):
    def test_stepping_restarts_events_once(self):
        debugger = Debugger(*["step"] * 40)
        restarts = self.count_restarts()
        debugger.runcall(counts, 20)
        self.assertGreater(len(debugger.stops), 40)
        self.assertLessEqual(len(restarts), 1)

    def test_steps_over_calls_do_not_restart_events(self):
        debugger = Debugger(*["next"] * 40)
        restarts = self.count_restarts()
        debugger.runcall(calls_leaf, 18)
        self.assertGreater(len(debugger.stops), 36)
        self.assertLessEqual(len(restarts), 2)

    def test_a_line_that_was_switched_off_stops_when_it_gets_a_breakpoint(self):
        def add(frame):
            debugger.break_at(leaf, 1)
            debugger.set_continue()

        debugger = Debugger("continue", add)
        debugger.break_at(leaf, 2, cond="number == 50")
        restarts = self.count_restarts()
        debugger.runcall(calls_leaf, 52)
        self.assertEqual(debugger.stops[1:], [("leaf", 2), ("leaf", 1)])
        self.assertLessEqual(len(restarts), 1)

    def test_a_breakpoint_that_another_thread_sets_stops(self):
        at_work, is_set = threading.Event(), threading.Event()

        def program():
            calls_leaf(3)
            at_work.set()
            is_set.wait(30)
            calls_leaf(1)

        def other():
            at_work.wait(30)
            debugger.break_at(leaf, 1)
            is_set.set()

        debugger = Debugger()
        debugger.break_at(leaf, 2, cond="number < 0")
        thread = threading.Thread(target=other)
        thread.start()
        debugger.runcall(program)
        thread.join()
        self.assertEqual(debugger.stops[1:], [("leaf", 1)])

    def test_what_is_switched_off_under_one_debugger_is_seen_by_the_next(self):
        for _ in range(3):
            debugger = Debugger()
            debugger.break_at(leaf, 1)
            debugger.runcall(calls_leaf, 2)
            self.assertEqual(debugger.stops[1:], [("leaf", 1)] * 2)
            debugger.clear_all_breaks()


class WhoHasTheEvents(EngineCase):
    def test_the_last_debugger_to_start_on_a_thread_has_it(self):
        inner = Debugger()
        inner.break_at(leaf, 1)

        def program():
            inner.runcall(calls_leaf, 1)
            return calls_leaf(1)

        outer = Debugger()
        outer.runcall(program)
        self.assertEqual(inner.stops[1:], [("leaf", 1)])
        self.assertEqual(outer.stops[1:], [])  # `inner` has ended, and with it what had the thread

    def test_debuggers_on_two_threads_do_not_see_each_others_lines(self):
        def work(debugger):
            debugger.break_at(leaf, 1)
            debugger.runcall(calls_leaf, 50)

        debuggers = [Debugger(), Debugger()]
        threads = [threading.Thread(target=work, args=(debugger,)) for debugger in debuggers]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for debugger in debuggers:
            self.assertEqual(debugger.stops[1:], [("leaf", 1)] * 50)

    def test_a_thread_that_ends_while_it_steps_leaves_nothing(self):
        def work():
            debugger = Debugger("step")
            debugger.set_trace()
            leaf(1)
            # The debugger is never stopped: the thread ends first.

        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
        gc.collect()
        debugger = Debugger()
        debugger.break_at(leaf, 1)
        debugger.runcall(calls_leaf, 1)
        self.assertEqual(debugger.stops[1:], [("leaf", 1)])

    def test_a_frame_and_its_debugger_are_let_go(self):
        class Local:
            pass

        def program():
            local = Local()
            references.append(weakref.ref(local))
            leaf(1)

        references = []
        debugger = Debugger("next", "next", "next")
        debugger.runcall(program)
        references.append(weakref.ref(debugger))
        del debugger
        gc.collect()
        self.assertEqual([reference() for reference in references], [None, None])

    def test_the_debuggers_tool_id_is_left_free(self):
        seen = []

        def look(frame):
            seen.append(_monitoring.get_tool(_monitoring.DEBUGGER_ID))
            debugger.set_continue()

        debugger = Debugger(look)
        debugger.runcall(leaf, 1)
        self.assertEqual(seen, [None])

    def test_where_no_tool_id_is_free_starting_says_so(self):
        for tool_id in TOOL_IDS:
            _monitoring.use_tool_id(tool_id, "somebody else")
        try:
            with self.assertRaisesRegex(ValueError, "all tool ids for debuggers are in use"):
                Debugger().runcall(leaf, 1)
        finally:
            for tool_id in TOOL_IDS:
                _monitoring.free_tool_id(tool_id)

    def test_equal_code_objects_are_kept_apart(self):
        made = []
        for _ in range(2):
            namespace = {}
            exec(compile("def work():\n    value = 1\n    return value\n", __file__ + "x", "exec"), namespace)
            made.append(namespace["work"])
        self.assertEqual(made[0].__code__, made[1].__code__)
        debugger = Debugger("step", "step", "step", "continue")
        debugger.runcall(lambda: (made[0](), made[1]()))
        self.assertIn(("work", 1), debugger.stops)


class ForkedChildren(EngineCase):
    def test_a_forked_child_is_followed(self):
        debugger = Debugger()
        debugger.break_at(leaf, 1)

        def program():
            pid = os.fork()
            if pid == 0:
                leaf(1)
                os._exit(len(debugger.stops))
            return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])

        self.assertEqual(debugger.runcall(program), 2)

    def test_importing_the_package_prints_nothing(self):
        result = subprocess.run([sys.executable, "-c", "import vorntracer.pdb, vorntracer.tracer"],
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=True)
        self.assertEqual(result.stdout, "")


if __name__ == "__main__":
    unittest.main()
