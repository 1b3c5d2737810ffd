"""Breakpoints by file and line: where they stop, when they take effect, and what they leave switched off."""

import gc
import os
import posixpath
import signal
import sys
import unittest

from scenario import Command, Commander, Reason, ScenarioCase, Tracer, xo
from vornbase import dlog
from vorntracer import tracer as tracer_module
from vorntracer.events import TOOL_IDS

LINES = sys.monitoring.events.LINE | sys.monitoring.events.JUMP  # what is on where there is a breakpoint

PROGRAM = """\
import sys

loaded = True                               #: module level

def total(numbers):
    result = 0                              #: start
    for number in numbers:                  #: loop
        result += number                    #: add
    return result                           #: end

def untouched(numbers):
    return len(numbers)                     #: untouched

class Shape:
    sides = 4                               #: class body

    @property
    def area(self):
        return self.sides ** 2              #: property

def nested():
    def inner():
        return 5                            #: inner
    return inner()

def squares(numbers):
    return [
        number * number                     #: comprehension
        for number in numbers
    ]

double = lambda number: (
    number * 2                              #: lambda
)

def count_up(limit):
    number = 0
    while number < limit:
        yield number                        #: yield
        number += 1                         #: resumed

def handling():
    try:
        raise KeyError("first")
    except KeyError as first:
        total([1])
        is_still_handled = sys.exception() is first
        try:
            raise                           #: bare raise
        except KeyError as again:
            return is_still_handled, again is first
"""


class BreakpointCase(ScenarioCase):

    def setUp(self):
        super().setUp()
        self.program = self.make_program(PROGRAM)
        self.commander = Commander(self.program)
        self.tracer = self.make_tracer(self.commander)

    def set_breakpoint(self, line, condition=None):
        return self.tracer.set_breakpoint(self.program.pathname, self.program.line(line), condition)

    def stopped_lines(self):
        """The names of the lines at which breakpoints stopped since the last call."""
        log = self.commander.take_log()
        self.assertEqual({reason for reason, _, _ in log} - {"BREAKPOINT"}, set())
        return [line for _, line, _ in log]

    def local_events(self, function):
        code = getattr(function, "__code__", function)
        return sys.monitoring.get_local_events(Tracer.tool_id, code)


class WhereABreakpointStops(BreakpointCase):

    def test_it_stops_each_time_before_its_line_runs(self):
        seen = []

        def on_stop(stop):
            seen.append((stop.reason, stop.lineno, stop.frame.f_code.co_name, stop.frame.f_locals["result"]))

        tracer = self.make_tracer(on_stop)
        self.program.load()
        lineno = self.program.line("add")
        breakpoint = tracer.set_breakpoint(self.program.pathname, lineno)
        tracer.start()
        self.assertEqual(self.program.total([1, 2, 3]), 6)
        self.assertEqual(seen, [(Reason.BREAKPOINT, lineno, "total", result) for result in (0, 1, 3)])
        self.assertEqual(breakpoint.hits, 3)

    def test_it_stops_in_every_kind_of_code_object(self):
        self.tracer.start()
        lines = ["module level", "class body", "property", "inner", "lambda", "yield", "resumed"]
        for line in lines:
            self.set_breakpoint(line)
        self.program.load()
        self.assertEqual(self.stopped_lines(), ["module level", "class body"])
        self.program.Shape().area
        self.program.nested()
        self.program.double(4)
        list(self.program.count_up(2))
        self.assertEqual(self.stopped_lines(),
                         ["property", "inner", "lambda", "yield", "resumed", "yield", "resumed"])

    def test_it_stops_in_a_comprehension_each_time_round(self):
        self.set_breakpoint("comprehension")
        self.tracer.start()
        self.assertEqual(self.program.load().squares([2, 3]), [4, 9])
        self.assertEqual(self.stopped_lines(), ["comprehension"] * 2)

    def test_a_condition_decides_with_the_frame_at_hand(self):
        breakpoint = self.set_breakpoint("add", lambda frame: frame.f_locals["number"] == 2)
        self.tracer.start()
        self.program.load().total([1, 2, 3])
        self.assertEqual(self.stopped_lines(), ["add"])
        self.assertEqual(breakpoint.hits, 1)

    def test_a_condition_that_raises_stops_and_says_why(self):
        self.set_breakpoint("start", lambda frame: frame.no_such_attribute)
        self.tracer.start()
        self.assertEqual(self.program.load().total([1]), 1)
        stop, = self.commander.stops
        self.assertIsInstance(stop.error, AttributeError)

    def test_a_condition_that_is_interrupted_does_not_stop_and_the_program_is(self):
        def condition(frame):
            signal.raise_signal(signal.SIGINT)

        self.set_breakpoint("start", condition)
        self.tracer.start()
        module = self.program.load()
        for _ in range(5):
            with self.assertRaises(KeyboardInterrupt):
                module.total([1])
        self.assertEqual(self.stopped_lines(), [])

    def test_a_handlers_exception_in_a_callback_reaches_the_program(self):
        class FromHandler(Exception):
            pass

        def handler(number, frame):
            raise FromHandler

        def condition(frame):
            signal.raise_signal(signal.SIGUSR1)

        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, handler))
        self.set_breakpoint("start", condition)
        self.tracer.start()
        with self.assertRaises(FromHandler):
            self.program.load().total([1])

    def test_on_stop_may_end_the_program(self):
        def on_stop(stop):
            raise SystemExit(3)

        tracer = self.make_tracer(on_stop)
        tracer.set_breakpoint(self.program.pathname, self.program.line("start"))
        tracer.start()
        with self.assertRaises(SystemExit):
            self.program.load().total([1])

    def test_a_loop_on_one_line_stops_each_time_round(self):
        namespace = {}
        source = "def fill(out):\n    i = None\n    for i in range(5): out.append(i)\n    return out\n"
        self.tracer.set_breakpoint("<one line>", 3, lambda frame: frame.f_locals["i"] == 3)
        self.tracer.start()
        exec(compile(source, "<one line>", "exec"), namespace)
        self.assertEqual(namespace["fill"]([]), [0, 1, 2, 3, 4])
        self.assertEqual([stop.lineno for stop in self.commander.stops], [3])

    def test_a_breakpoint_in_code_that_comes_of_no_file_stops(self):
        self.tracer.start()
        namespace = {}
        exec(compile("def made(x):\n    x += 1\n    return x\n", "<string>", "exec"), namespace)
        namespace["made"](1)
        breakpoint = self.tracer.set_breakpoint("<string>", 2)
        namespace["made"](1)
        exec(compile("x = 1\nx = 2\n", "<string>", "exec"), namespace)
        self.assertEqual([stop.lineno for stop in self.commander.stops], [2, 2])
        self.tracer.clear_breakpoint(breakpoint)
        namespace["made"](1)
        self.assertEqual(len(self.commander.stops), 2)

    def test_a_breakpoint_on_a_def_line_leaves_the_functions_starts_switched_off(self):
        self.tracer.start()
        namespace = {}
        exec(compile("def made(x):\n    return x\nfor _ in range(100):\n    made(1)\n", "<string>", "exec"), namespace)
        self.tracer.set_breakpoint("<string>", 1)
        seen = []
        original = self.tracer._on_enter

        def counted(code, offset):
            seen.append(code.co_name)
            return original(code, offset)

        counting = xo.CInitialCallback(sys.monitoring.events.PY_START, counted, True)
        sys.monitoring.register_callback(self.tracer.tool_id, sys.monitoring.events.PY_START, counting.Callback)
        for _ in range(100):
            namespace["made"](1)
        self.assertLess(seen.count("made"), 3)

    def test_the_stop_names_its_breakpoint_and_its_thread(self):
        breakpoint = self.set_breakpoint("start")
        self.tracer.start()
        self.program.load().total([])
        stop, = self.commander.stops
        self.assertIs(stop.breakpoint, breakpoint)
        self.assertEqual((stop.thread.fThreadId, stop.thread.fThreadName),
                         (xo._GetThreadIdent(), "MainThread"))

    def test_a_file_is_known_by_every_name_it_has(self):
        directory = os.path.dirname(self.program.pathname)
        link = os.path.join(directory, "link.py")
        os.symlink(self.program.pathname, link)
        previous = os.getcwd()
        os.chdir(directory)
        self.addCleanup(os.chdir, previous)
        self.program.load()
        for name in (link, "program.py", os.path.join(directory, ".", "program.py")):
            with self.subTest(name):
                self.tracer.reset()
                self.tracer.start()
                self.tracer.set_breakpoint(name, self.program.line("end"))
                self.program.total([])
                self.assertEqual(self.stopped_lines(), ["end"])
                self.tracer.stop()

    def test_frozen_library_code_stops_under_the_name_of_its_source_file(self):
        code = posixpath.join.__code__
        lineno = next(line for _, _, line in code.co_lines() if line and line > code.co_firstlineno)
        stops = []
        tracer = self.make_tracer(lambda stop: stops.append((stop.frame.f_code.co_name, stop.lineno)))
        tracer.set_breakpoint(posixpath.__file__, lineno)
        tracer.start()
        posixpath.join("a", "b")
        tracer.stop()
        self.assertEqual(stops, [("join", lineno)])

    def test_equal_code_objects_of_one_file_all_stop(self):
        self.set_breakpoint("start")
        self.tracer.start()
        first = self.program.load().total
        second = self.program.load().total
        self.assertEqual(first.__code__, second.__code__)
        self.assertIsNot(first.__code__, second.__code__)
        first([])
        second([])
        self.assertEqual(self.stopped_lines(), ["start", "start"])

    def test_the_debuggers_own_code_is_never_stopped_in(self):
        function = Tracer.breakpoints
        for lineno in {line for _, _, line in function.__code__.co_lines() if line}:
            self.tracer.set_breakpoint(tracer_module.__file__, lineno)
        self.tracer.start()
        self.assertNotEqual(self.tracer.breakpoints(), [])
        self.assertEqual(self.commander.stops, [])

    def test_what_is_no_name_takes_no_breakpoint(self):
        with self.assertRaisesRegex(ValueError, "not the name of a file: ''"):
            self.tracer.set_breakpoint("", 1)


class WhenABreakpointTakesEffect(BreakpointCase):

    def test_one_set_before_the_file_is_loaded_stops_in_it(self):
        self.tracer.start()
        self.set_breakpoint("start")
        self.program.load().total([])
        self.assertEqual(self.stopped_lines(), ["start"])

    def replace_the_files_record(self, meanwhile):
        """Has the file's record made, and before it is stored `meanwhile` called, which makes one, too."""
        pathname = self.program.pathname
        replaced = []

        def make_another(name):
            if name == pathname and not replaced:
                replaced.append(None)  # not again for what is made here
                meanwhile()
                replaced[0] = xo.CPerFile.GetPerFile(pathname)
            return None

        xo.set_checksum_callback(make_another)
        self.addCleanup(xo.set_checksum_callback, None)
        registered = xo.CPerFile.GetPerFile(pathname)
        self.assertIsNot(registered, replaced[0])
        return registered

    def test_one_set_while_the_record_of_its_file_is_being_made_elsewhere_stops_in_it(self):
        self.program.load()
        self.tracer.start()
        self.replace_the_files_record(lambda: self.set_breakpoint("add"))
        self.program.total([1, 2])
        self.assertEqual(self.stopped_lines(), ["add", "add"])
        self.assertEqual([breakpoint.lineno for breakpoint in self.tracer.breakpoints()], [self.program.line("add")])

    def test_one_whose_files_record_was_replaced_can_be_cleared_and_replaced(self):
        self.program.load()
        self.tracer.start()
        breakpoints = []
        self.replace_the_files_record(lambda: breakpoints.append(self.set_breakpoint("add")))
        self.tracer.clear_breakpoint(breakpoints[0])
        self.program.total([1, 2])
        self.assertEqual((self.stopped_lines(), self.tracer.breakpoints()), ([], []))

        self.tracer.reset()
        self.replace_the_files_record(lambda: breakpoints.append(self.set_breakpoint("add")))
        again = self.set_breakpoint("add")
        self.assertEqual(self.tracer.breakpoints(), [again])

    def test_one_whose_files_record_was_replaced_outlives_a_stop_and_no_reset(self):
        self.program.load()
        self.tracer.start()
        self.replace_the_files_record(lambda: self.set_breakpoint("add"))
        self.tracer.stop()
        self.tracer.start()
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["add"])
        self.tracer.reset()
        self.program.total([1])
        self.assertEqual((self.stopped_lines(), self.tracer.breakpoints()), ([], []))

    def test_code_whose_files_record_was_replaced_is_found_by_a_later_breakpoint(self):
        self.program.load()
        self.tracer.start()
        code = self.program.total.__code__
        registered = self.replace_the_files_record(lambda: xo.CPerCodeObject.GetPerCodeObject(code))
        self.assertEqual(self.local_events(code), 0)
        self.set_breakpoint("add")
        self.assertEqual(self.local_events(code), LINES)
        self.assertEqual(registered.fKnownPerCodeObjects, {xo.CPerCodeObject.GetPerCodeObject(code)})

    def test_a_code_objects_record_that_was_made_twice_is_not_kept_by_its_files_new_record(self):
        """The thread that made the one too many takes it out of its file again, but looks for it in the new place."""
        self.program.load()
        self.tracer.start()
        code = self.program.total.__code__
        records = []

        def meet_twice():
            records.append(xo.CPerCodeObject.GetPerCodeObject(code))
            records.append(xo.CPerCodeObject(code, None))
            records[1]._AddToPerFile()  # as it is until its thread comes to know that it was made twice

        registered = self.replace_the_files_record(meet_twice)
        records[1]._DiscardFromPerFile()
        self.set_breakpoint("add")
        self.assertEqual(registered.fKnownPerCodeObjects, {records[0]})
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["add"])

    def test_one_set_in_code_that_is_known_stops_at_its_next_run(self):
        self.tracer.start()
        self.program.load().total([1])
        self.set_breakpoint("add")
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["add"])

    def test_one_set_in_the_running_frame_stops_there(self):
        self.tracer.start()
        self.set_breakpoint("start")
        self.commander.commands.append(lambda stop: self.set_breakpoint("end") and None)
        self.program.load().total([1])
        self.assertEqual(self.stopped_lines(), ["start", "end"])

    def test_one_in_a_frame_that_ran_before_the_tracer_started_stops_there(self):
        self.program.load()
        self.set_breakpoint("add")

        def numbers():
            yield 1
            self.tracer.start()
            yield 2

        self.assertEqual(self.program.total(numbers()), 3)
        self.assertEqual(self.stopped_lines(), ["add"])

    def test_one_in_a_generator_suspended_before_the_tracer_started_stops_there(self):
        generator = self.program.load().count_up(2)
        next(generator)
        self.set_breakpoint("resumed")
        self.tracer.start()
        self.assertEqual(list(generator), [1])
        self.assertEqual(self.stopped_lines(), ["resumed", "resumed"])

    def test_one_set_a_second_time_replaces_the_first(self):
        first = self.set_breakpoint("add")
        second = self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        self.assertEqual((first.hits, second.hits), (0, 1))
        self.tracer.clear_breakpoint(first)
        self.assertEqual(self.tracer.breakpoints(), [second])


class WhatIsSwitchedOff(BreakpointCase):

    def test_only_code_that_holds_a_breakpoint_has_line_events(self):
        self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        self.program.untouched([1])
        self.assertEqual(self.local_events(self.program.total), LINES)
        self.assertEqual(self.local_events(self.program.untouched), 0)
        self.assertEqual(self.local_events(self.program.nested), 0)
        self.assertEqual(sys.monitoring.get_events(Tracer.tool_id),
                         sys.monitoring.events.PY_START | sys.monitoring.events.PY_RESUME)

    def test_code_of_the_debuggers_own_has_no_line_events_though_it_holds_a_breakpoint(self):
        tracer = self.make_tracer(self.commander, internal_files=[self.program.pathname])
        tracer.set_breakpoint(self.program.pathname, self.program.line("add"))
        tracer.start()
        self.program.load().total([1])
        self.assertEqual((self.stopped_lines(), self.local_events(self.program.total)), ([], 0))

    def test_line_events_are_on_in_code_with_breakpoints_as_soon_as_it_is_met(self):
        self.tracer.start()
        self.set_breakpoint("add")
        self.set_breakpoint("untouched")
        self.program.load()
        record = xo.CPerCodeObject.GetPerCodeObject(self.program.total.__code__)
        self.assertEqual(self.local_events(self.program.total), LINES)
        self.assertIsNone(record.fEnabledBpLinenos)  # so that each of its lines is seen, once

    def test_the_first_stage_is_told_the_breakpoints_while_nothing_may_be_switched_off(self):
        self.tracer.start()
        self.set_breakpoint("add")
        self.set_breakpoint("end")
        self.tracer.hold_others()
        self.program.load()
        record = xo.CPerCodeObject.GetPerCodeObject(self.program.total.__code__)
        self.assertEqual(record.fEnabledBpLinenos, {self.program.line("add"), self.program.line("end")})
        self.tracer.release_others()
        self.assertIsNone(record.fEnabledBpLinenos)

    def seen_by_the_second_stage(self, function, *arguments):
        """How many LINE and PY_START events of a function come to the tracer's own callbacks while it runs."""
        seen = {"LINE": 0, "PY_START": 0}
        for name, method in (("LINE", "_on_line"), ("PY_START", "_on_enter")):
            callback = self.tracer._initial_callbacks[getattr(sys.monitoring.events, name)]
            bound = getattr(self.tracer, method)

            def count(*args, name=name, bound=bound):
                seen[name] += args[0] is function.__code__
                return bound(*args)

            counting = xo.CInitialCallback(callback._fEventId, count, True)
            sys.monitoring.register_callback(Tracer.tool_id, callback._fEventId, counting.Callback)
        function(*arguments)
        return seen

    def test_a_place_of_no_interest_is_seen_once(self):
        self.tracer.start()
        breakpoint = self.set_breakpoint("end", lambda frame: False)
        total = self.program.load().total
        total([1, 2])
        self.assertEqual(self.seen_by_the_second_stage(total, [1, 2]), {"LINE": 1, "PY_START": 0})
        self.assertEqual(self.seen_by_the_second_stage(total, [1] * 100), {"LINE": 1, "PY_START": 0})
        self.assertEqual(breakpoint.hits, 0)

    def test_a_place_that_was_switched_off_comes_back_with_a_breakpoint(self):
        self.tracer.start()
        self.set_breakpoint("end", lambda frame: False)
        total = self.program.load().total
        for _ in range(2):
            total([1, 2])
        self.assertEqual(self.stopped_lines(), [])
        breakpoint = self.set_breakpoint("add")
        total([1, 2])
        self.assertEqual(self.stopped_lines(), ["add", "add"])
        self.tracer.clear_breakpoint(breakpoint)
        total([1, 2])
        self.assertEqual(self.stopped_lines(), [])

    def test_line_events_are_on_before_another_thread_can_see_that_there_are_breakpoints(self):
        self.tracer.start()
        self.set_breakpoint("add")
        seen = []

        def set_local_events(tool_id, code, events, original=sys.monitoring.set_local_events):
            record = xo.CPerCodeObject.GetPerCodeObject(code, False)
            seen.append((code.co_name, record.fEnabledBpLinenos))
            original(tool_id, code, events)
            seen.append((code.co_name, record.fEnabledBpLinenos))

        self.patch(sys.monitoring, "set_local_events", set_local_events)
        xo.CPerCodeObject.GetPerCodeObject(self.program.load().total.__code__)
        self.assertEqual(seen, [("total", None), ("total", None)])

    def test_a_cleared_breakpoint_stops_no_more_and_switches_line_events_off(self):
        self.tracer.start()
        breakpoints = [self.set_breakpoint("add"), self.set_breakpoint("end")]
        self.program.load().total([1])
        self.assertEqual(self.stopped_lines(), ["add", "end"])
        self.tracer.clear_breakpoint(breakpoints[0])
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["end"])
        self.assertEqual(self.local_events(self.program.total), LINES)
        self.tracer.clear_breakpoint(breakpoints[1])
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), [])
        self.assertEqual(self.local_events(self.program.total), 0)

    def test_clearing_a_breakpoint_twice_does_nothing(self):
        self.tracer.start()
        breakpoint = self.set_breakpoint("add")
        for _ in range(2):
            self.tracer.clear_breakpoint(breakpoint)
        self.assertEqual(self.tracer.breakpoints(), [])

    def test_one_cleared_while_its_stop_is_handled_stops_no_more(self):
        self.tracer.start()
        breakpoint = self.set_breakpoint("add")
        self.commander.commands.append(lambda stop: self.tracer.clear_breakpoint(breakpoint))
        self.assertEqual(self.program.load().total([1, 2, 3]), 6)
        self.assertEqual(self.stopped_lines(), ["add"])

    def test_a_stopped_tracer_leaves_no_event_of_its_tool_switched_on(self):
        self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        self.tracer.stop()
        sys.monitoring.use_tool_id(Tracer.tool_id, "somebody else")
        self.addCleanup(sys.monitoring.free_tool_id, Tracer.tool_id)
        self.assertEqual(sys.monitoring.get_events(Tracer.tool_id), 0)
        self.assertEqual(self.local_events(self.program.total), 0)


class StartingStoppingAndResetting(BreakpointCase):

    def test_breakpoints_outlive_a_stop_and_work_after_the_next_start(self):
        self.set_breakpoint("add")
        for _ in range(3):
            self.tracer.start()
            self.program.load().total([1])
            self.assertEqual(self.stopped_lines(), ["add"])
            self.tracer.stop()
            self.program.total([1])
            self.assertEqual(self.stopped_lines(), [])

    def test_code_that_was_known_before_a_reset_is_met_again(self):
        self.tracer.start()
        self.set_breakpoint("add")
        self.program.load().total([1])
        self.tracer.reset()
        self.assertEqual(self.tracer.breakpoints(), [])
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["add"])
        self.set_breakpoint("end")
        self.program.total([1])
        self.assertEqual(self.stopped_lines(), ["end"])

    def test_code_known_before_the_modules_own_reset_is_met_again_by_the_next_tracer(self):
        self.tracer.start()
        self.set_breakpoint("add")
        self.program.load().total([1])
        self.tracer.stop()
        xo.reset()
        commander = Commander(self.program)
        tracer = self.make_tracer(commander)
        tracer.set_breakpoint(self.program.pathname, self.program.line("end"))
        tracer.start()
        self.program.total([1])
        self.assertEqual([line for _, line, _ in commander.log], ["end"])
        record = xo.CPerCodeObject.GetPerCodeObject(self.program.total.__code__, False)
        self.assertIn(record, xo.CPerFile.GetPerFile(self.program.pathname).fKnownPerCodeObjects)

    def test_a_file_that_was_internal_to_one_tracer_is_stopped_in_by_the_next(self):
        self.program.load()
        internal = self.make_tracer(self.commander, internal_files=[self.program.pathname])
        internal.set_breakpoint(self.program.pathname, self.program.line("add"))
        internal.start()
        self.program.total([1])
        internal.stop()
        self.assertEqual(self.stopped_lines(), [])
        for _ in range(2):
            self.tracer.start()
            self.program.total([1])
            self.assertEqual(self.stopped_lines(), ["add"])
            self.tracer.stop()
            internal.start()
            self.program.total([1])
            self.assertEqual(self.stopped_lines(), [])
            internal.stop()

    def test_a_handler_may_reset_the_tracer(self):
        self.tracer.start()
        self.set_breakpoint("add")

        def reset(stop):
            self.tracer.reset()
            return Command.STEP_OVER

        self.commander.commands.append(reset)
        self.assertEqual(self.program.load().total([1, 2]), 3)
        self.assertEqual(self.commander.take_log()[:2],
                         [("BREAKPOINT", "add", None), ("STEP", "loop", None)])

    def test_a_handler_may_stop_the_tracer(self):
        self.tracer.start()
        self.set_breakpoint("add")

        def stop_tracer(stop):
            self.tracer.stop()
            return Command.STEP_OVER

        self.commander.commands.append(stop_tracer)
        self.assertEqual(self.program.load().total([1, 2]), 3)
        self.assertEqual(self.stopped_lines(), ["add"])
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))

    def test_a_tool_id_in_use_is_left_to_who_has_it(self):
        sys.monitoring.use_tool_id(Tracer.tool_id, "somebody else")
        self.addCleanup(sys.monitoring.free_tool_id, Tracer.tool_id)
        self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        self.assertEqual(self.stopped_lines(), ["add"])
        self.assertNotEqual(self.tracer.tool_id, Tracer.tool_id)

    def test_the_debuggers_tool_id_is_left_to_the_interpreters_debugger(self):
        self.tracer.start()
        self.assertIsNone(sys.monitoring.get_tool(sys.monitoring.DEBUGGER_ID))

    def test_tool_ids_in_use_refuse_the_start_and_nothing_is_left_half_done(self):
        for tool_id in TOOL_IDS:
            sys.monitoring.use_tool_id(tool_id, "somebody else")
        with self.assertRaises(ValueError):
            self.tracer.start()
        self.assertIsNone(xo.CPerCodeObject._fNewPerCodeObjectCreatedCallback)
        for tool_id in TOOL_IDS:
            sys.monitoring.free_tool_id(tool_id)
        self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        self.assertEqual(self.stopped_lines(), ["add"])

    def test_a_start_that_fails_half_way_leaves_nothing_started(self):
        def fail(thread_id):
            raise RuntimeError("no policy")

        xo.CPerThread.GetPerThread()
        tracer = self.make_tracer(self.commander, debug_thread=fail)
        with self.assertRaisesRegex(RuntimeError, "no policy"):
            tracer.start()
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))
        self.assertIsNone(xo.CPerThread._fDebugPolicyCallback)
        self.assertIsNone(xo.CPerThread._fNewPerThreadCreatedCallback)

    def test_stopping_twice_does_nothing(self):
        self.tracer.start()
        self.tracer.stop()
        self.tracer.stop()
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))

    def test_the_internal_files_are_those_of_the_debugger_and_those_given(self):
        tracer = self.make_tracer(self.commander, internal_files=[self.program.pathname])
        tracer.set_breakpoint(self.program.pathname, self.program.line("add"))
        tracer.start()
        self.program.load().total([1])
        self.assertEqual(self.commander.stops, [])
        for module in (tracer_module, xo.dbgpythonapi, xo.dlog, xo.weakref, xo.threading, self.program):
            pathname = module.pathname if module is self.program else module.__file__
            self.assertTrue(xo.IsInternalPathname(xo.get_canonical_pathname(pathname)), pathname)


class WhatTheProgramNotices(BreakpointCase):

    def test_an_exception_of_the_handler_is_logged_and_means_continue(self):
        self.expect_log_entries(2)
        self.set_breakpoint("add")
        self.tracer.start()

        def fail(stop):
            raise RuntimeError("the handler failed")

        self.commander.commands += [fail, fail]
        self.assertEqual(self.program.load().total([1, 2]), 3)
        self.assertEqual(self.stopped_lines(), ["add", "add"])
        self.assertIn("the handler failed", dlog.GetEntries()[0])

    def test_an_answer_that_is_no_command_is_logged_and_means_continue(self):
        self.expect_log_entries(1)
        self.set_breakpoint("start")
        self.tracer.start()
        self.commander.commands.append(lambda stop: "step")
        self.assertEqual(self.program.load().total([1]), 1)
        self.assertEqual(self.stopped_lines(), ["start"])
        self.assertIn("'step' is not a valid Command", dlog.GetEntries()[0])

    def test_the_exception_that_the_program_handles_stays_the_one_it_handles(self):
        self.expect_log_entries(2)
        self.set_breakpoint("start")
        self.set_breakpoint("bare raise")
        self.tracer.start()

        def fail(stop):
            raise RuntimeError("the handler failed")

        self.commander.commands += [fail, fail]
        self.assertEqual(self.program.load().handling(), (True, True))

    def test_code_objects_take_their_records_with_them(self):
        self.set_breakpoint("add")
        self.tracer.start()
        self.program.load().total([1])
        per_file = xo.CPerFile.GetPerFile(self.program.pathname)
        self.assertNotEqual(per_file.fKnownPerCodeObjects, set())
        self.program.names.clear()
        gc.collect()
        self.assertEqual(per_file.fKnownPerCodeObjects, set())

    def test_the_handler_raises_no_events_itself(self):
        self.set_breakpoint("start")
        self.set_breakpoint("untouched")
        self.tracer.start()
        self.commander.commands.append(lambda stop: self.program.untouched([]) and None)
        self.program.load().total([])
        self.assertEqual(self.stopped_lines(), ["start"])


if __name__ == "__main__":
    unittest.main()
