"""Steps: into, over and out of calls, generators and exceptions, and what each leaves switched off."""

import asyncio
import sys
import threading
import unittest

from scenario import Command, Commander, ScenarioCase, Tracer, xo
from support import RecordingWriter

INTO, OVER, OUT = Command.STEP_INTO, Command.STEP_OVER, Command.STEP_OUT
ON_RETURN = Command.STOP_ON_RETURN

PROGRAM = """\
import asyncio

def outer(number):
    first = inner(number)                   #: first call
    second = inner(first)                   #: second call
    return second                           #: outer end

def inner(number):
    doubled = number * 2                    #: inner start
    return doubled                          #: inner end

def factorial(number):
    if number < 2:                          #: test
        return 1                            #: bottom
    smaller = factorial(number - 1)         #: recurse
    return number * smaller                 #: unwind

def consumer():
    total = 0                               #: consumer start
    for number in producer():               #: for
        total += number                     #: body
    return total                            #: consumer end

def producer():
    yield 1                                 #: one
    yield 2                                 #: two

def catcher():
    try:                                    #: try
        thrower()                           #: call thrower
    except ValueError:                      #: except
        result = "caught"                   #: caught
    return result                           #: catcher end

def thrower():
    through()                               #: call through
    return None

def through():
    raise ValueError("thrown")              #: raise

def sorter(words):
    words.sort(key=key)                     #: sort
    return words                            #: sorted

def key(word):
    return word[-1]                         #: key

def tail():
    return inner(4)                         #: tail

def thrown_into():
    generator = patient()                   #: make
    next(generator)                         #: advance
    generator.throw(KeyError("x"))          #: throw
    return generator                        #: thrown end

def patient():
    try:
        yield                               #: wait
    except KeyError:                        #: patient except
        pass                                #: pass
    yield "again"                           #: again

async def awaiting():
    value = await asyncio.sleep(0, 5)       #: await
    return value                            #: awaited

def looping(count):
    total = 0                               #: loop start
    for number in range(count):
        total += number
    return total

def shared(barrier):
    barrier.wait()
    steps = 0                               #: shared start
    steps += 1                              #: shared next
    return steps                            #: shared end
"""


class SteppingCase(ScenarioCase):

    def setUp(self):
        super().setUp()
        self.program = self.make_program(PROGRAM).load()
        self.commander = Commander(self.program)
        self.tracer = self.make_tracer(self.commander)
        self.tracer.start()

    def break_at(self, line, condition=None):
        return self.tracer.set_breakpoint(self.program.pathname, self.program.line(line), condition)

    def stops(self, *commands):
        """Sets the commands that answer the stops to come."""
        self.commander.commands += commands


class InOneFunction(SteppingCase):

    def test_over_runs_the_calls_of_a_line_and_stops_at_the_next_and_at_the_end(self):
        self.break_at("first call")
        self.stops(OVER, OVER, OVER)
        self.assertEqual(self.program.outer(3), 12)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "first call", None),
            ("STEP", "second call", None),
            ("STEP", "outer end", None),
            ("RETURN", "outer end", 12),
        ])

    def test_into_stops_at_the_first_line_of_what_is_called(self):
        self.break_at("first call")
        self.stops(INTO, INTO, INTO, INTO)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "first call", None),
            ("STEP", "inner start", None),
            ("STEP", "inner end", None),
            ("RETURN", "inner end", 6),
            ("STEP", "second call", None),
        ])

    def test_out_stops_at_the_next_line_of_the_caller(self):
        self.break_at("inner start")
        self.stops(OUT)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "inner start", None),
            ("STEP", "second call", None),
            ("BREAKPOINT", "inner start", None),
        ])

    def test_out_stops_at_the_end_of_a_caller_that_has_no_more_lines(self):
        self.break_at("inner start")
        self.stops(OUT)
        self.program.tail()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "inner start", None),
            ("RETURN", "tail", 8),
        ])

    def test_stop_on_return_stops_at_the_end_with_the_value(self):
        self.break_at("first call")
        self.stops(ON_RETURN)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "first call", None),
            ("RETURN", "outer end", 12),
        ])

    def test_stop_on_return_from_a_return_is_about_the_caller(self):
        self.break_at("inner end", lambda frame: frame.f_locals["number"] == 3)
        self.stops(ON_RETURN, ON_RETURN)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "inner end", None),
            ("RETURN", "inner end", 6),
            ("RETURN", "outer end", 12),
        ])

    def test_every_step_from_a_return_goes_on_in_the_caller(self):
        for command in (INTO, OVER, OUT):
            with self.subTest(command):
                breakpoint = self.break_at("inner end", lambda frame: frame.f_locals["number"] == 3)
                self.stops(OVER, command)
                self.program.outer(3)
                self.tracer.clear_breakpoint(breakpoint)
                self.assertEqual(self.commander.take_log(), [
                    ("BREAKPOINT", "inner end", None),
                    ("RETURN", "inner end", 6),
                    ("STEP", "second call", None),
                ])

    def test_continue_runs_to_the_next_breakpoint(self):
        self.break_at("first call")
        self.break_at("outer end")
        self.stops(OVER, Command.CONTINUE, None)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "first call", None),
            ("STEP", "second call", None),
            ("BREAKPOINT", "outer end", None),
        ])

    def test_a_breakpoint_on_the_way_ends_the_step(self):
        self.break_at("first call")
        self.break_at("inner end")
        self.stops(OVER)
        self.program.outer(3)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "first call", None),
            ("BREAKPOINT", "inner end", None),
            ("BREAKPOINT", "inner end", None),
        ])

    def test_over_a_recursive_call_stays_in_its_frame(self):
        self.break_at("recurse", lambda frame: frame.f_locals["number"] == 5)
        self.stops(OVER, OVER)
        self.assertEqual(self.program.factorial(5), 120)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "recurse", None),
            ("STEP", "unwind", None),
            ("RETURN", "unwind", 120),
        ])

    def test_into_follows_calls_that_native_code_makes(self):
        self.break_at("sort")
        self.stops(*[INTO] * 6)
        self.program.sorter(["ab", "ba"])
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "sort", None),
            ("STEP", "key", None),
            ("RETURN", "key", "b"),
            ("STEP", "key", None),
            ("RETURN", "key", "a"),
            ("STEP", "sorted", None),
            ("RETURN", "sorted", ["ba", "ab"]),
        ])

    def test_into_tells_equal_code_objects_apart(self):
        first = self.program.inner
        self.program.names["inner"] = self.program.load().inner
        self.assertEqual(first.__code__, self.program.inner.__code__)
        self.assertIsNot(first.__code__, self.program.inner.__code__)
        self.program.names["later"] = self.program.names["inner"]
        self.program.names["inner"] = lambda number: (first if number == 3 else self.program.later)(number)
        self.break_at("first call")
        self.stops(*[INTO] * 20)
        self.program.outer(3)
        inner_lines = [line for reason, line, _ in self.commander.log if str(line).startswith("inner")]
        self.assertEqual(inner_lines, ["inner start", "inner end", "inner end"] * 2)


class ThroughGenerators(SteppingCase):

    def test_over_in_the_consumer_does_not_stop_in_the_generator(self):
        self.break_at("consumer start")
        self.stops(*[OVER] * 7)
        self.program.consumer()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "consumer start", None),
            ("STEP", "for", None),
            ("STEP", "body", None),
            ("STEP", "for", None),
            ("STEP", "body", None),
            ("STEP", "for", None),
            ("STEP", "consumer end", None),
            ("RETURN", "consumer end", 3),
        ])

    def test_into_goes_back_and_forth_between_consumer_and_generator(self):
        self.break_at("for")
        self.stops(*[INTO] * 4, lambda stop: self.tracer.clear_breakpoint(stop.breakpoint) or INTO,
                   *[INTO] * 6)
        self.program.consumer()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "for", None),
            ("STEP", "one", None),
            ("YIELD", "one", 1),
            ("STEP", "body", None),
            ("BREAKPOINT", "for", None),
            ("STEP", "two", None),
            ("YIELD", "two", 2),
            ("STEP", "body", None),
            ("STEP", "for", None),
            ("RETURN", "two", None),
            ("STEP", "consumer end", None),
            ("RETURN", "consumer end", 3),
        ])

    def test_over_a_yield_goes_on_in_the_consumer(self):
        self.break_at("one")
        self.stops(OVER, OVER)
        self.program.consumer()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "one", None),
            ("YIELD", "one", 1),
            ("STEP", "body", None),
        ])

    def test_stop_on_return_stops_at_a_yield(self):
        self.break_at("one")
        self.stops(ON_RETURN)
        self.program.consumer()
        self.assertEqual(self.commander.log, [("BREAKPOINT", "one", None), ("YIELD", "one", 1)])

    def test_into_follows_an_exception_that_is_thrown_into_a_generator(self):
        self.break_at("throw")
        self.stops(*[INTO] * 5)
        self.program.thrown_into()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "throw", None),
            ("STEP", "patient except", None),
            ("STEP", "pass", None),
            ("STEP", "again", None),
            ("YIELD", "again", "again"),
            ("STEP", "thrown end", None),
        ])

    def test_a_coroutine_that_is_left_at_an_await_stops_there_and_can_be_stopped_in_again(self):
        self.break_at("await")
        self.break_at("awaited")
        self.stops(ON_RETURN)
        self.assertEqual(asyncio.run(self.program.awaiting()), 5)
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "await", None),
            ("YIELD", "await", None),
            ("BREAKPOINT", "awaited", None),
        ])


class ThroughExceptions(SteppingCase):

    def test_over_a_call_that_raises_stops_where_the_exception_is_caught(self):
        self.break_at("call thrower")
        self.stops(OVER, OVER, OVER)
        self.assertEqual(self.program.catcher(), "caught")
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "call thrower", None),
            ("STEP", "except", None),
            ("STEP", "caught", None),
            ("STEP", "catcher end", None),
        ])

    def test_over_the_line_that_raises_stops_where_the_frame_is_left_and_then_in_the_caller(self):
        self.break_at("raise")
        self.stops(*[OVER] * 3)
        self.program.catcher()
        reasons = [(reason, line) for reason, line, _ in self.commander.log]
        self.assertEqual(reasons, [
            ("BREAKPOINT", "raise"),
            ("EXCEPTION", "raise"),
            ("EXCEPTION", "call through"),
            ("STEP", "except"),
        ])
        exceptions = [value for reason, _, value in self.commander.log if reason == "EXCEPTION"]
        self.assertEqual([str(exception) for exception in exceptions], ["thrown", "thrown"])
        self.assertIs(exceptions[0], exceptions[1])

    def test_stop_on_return_stops_with_the_exception_where_none_is_returned(self):
        self.break_at("call through")
        self.stops(ON_RETURN)
        self.program.catcher()
        (_, _, _), (reason, line, value) = self.commander.log
        self.assertEqual((reason, line, str(value)), ("EXCEPTION", "call through", "thrown"))

    def test_exceptions_in_the_library_of_others_stop_nothing_while_a_frame_is_awaited(self):
        self.break_at("call thrower")
        self.stops(lambda stop: ON_RETURN)
        self.program.catcher()
        self.assertEqual(self.commander.log, [
            ("BREAKPOINT", "call thrower", None),
            ("RETURN", "catcher end", "caught"),
        ])


class WhatAStepLeavesBehind(SteppingCase):

    def events_of(self, function):
        return sys.monitoring.get_local_events(Tracer.tool_id, function.__code__)

    def test_a_step_switches_events_on_where_it_goes_and_off_when_it_is_over(self):
        events = sys.monitoring.events
        lines = events.LINE | events.JUMP
        everything = lines | events.PY_RETURN | events.PY_YIELD
        seen = []

        def look(stop):
            seen.append((self.events_of(self.program.outer), self.events_of(self.program.inner)))
            return INTO

        breakpoint = self.break_at("first call")
        self.stops(look, look, look, look)
        self.program.outer(3)
        self.assertEqual(seen, [(lines, 0), (everything, everything), (lines, everything),
                                (lines, everything)])
        self.tracer.clear_breakpoint(breakpoint)
        self.assertEqual((self.events_of(self.program.outer), self.events_of(self.program.inner)), (0, 0))
        self.assertEqual(sys.monitoring.get_events(Tracer.tool_id), events.PY_START | events.PY_RESUME)

    def events_of_a_run(self, function, *arguments):
        """How often the first stage is called for the function's code while it runs."""
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogInitialMonitoringCallbacks)
        try:
            function(*arguments)
        finally:
            xo.set_dprintf_mask(0)
            xo.set_dprintf_file(None, -1, None)
        return sum(repr(function.__code__) in text for text in writer.texts)

    def assert_places_are_switched_off(self):
        """All but the start of the loop, where there is a breakpoint, and the start of the function that has it."""
        self.events_of_a_run(self.program.looping, 3)
        self.assertLessEqual(self.events_of_a_run(self.program.looping, 100), 2)

    def test_places_are_switched_off_again_once_a_step_into_has_ended(self):
        is_due = []
        self.break_at("loop start", lambda frame: False)
        self.break_at("inner start", lambda frame: is_due.pop() if is_due else False)
        self.assert_places_are_switched_off()
        for commands in ([INTO], [INTO, INTO], [INTO, OVER], [INTO, OUT], [INTO, ON_RETURN]):
            with self.subTest(commands=commands):
                self.stops(*commands)
                is_due.append(True)
                self.program.inner(3)
                self.assertEqual((len(self.commander.take_log()), self.commander.commands), (len(commands) + 1, []))
                self.assert_places_are_switched_off()

    def test_awaiting_a_return_switches_no_line_events_on(self):
        events = sys.monitoring.events
        seen = []
        breakpoint = self.break_at("inner start")

        def clear_and_await(stop):
            self.tracer.clear_breakpoint(breakpoint)
            return ON_RETURN

        self.stops(clear_and_await, lambda stop: seen.append(self.events_of(self.program.inner)))
        self.program.outer(3)
        self.assertEqual(seen, [events.PY_RETURN | events.PY_YIELD])
        self.assertEqual(self.events_of(self.program.inner), 0)

    def test_a_step_off_the_outermost_frame_of_a_thread_is_over(self):
        self.break_at("outer end")
        self.stops(OVER, OVER)
        thread = threading.Thread(target=self.program.outer, args=(3,))
        thread.start()
        self.join_all([thread])
        self.assertEqual(self.commander.log, [("BREAKPOINT", "outer end", None), ("RETURN", "outer end", 12)])
        self.assert_no_counts()

    def test_stopping_the_tracer_in_the_middle_of_a_step_ends_the_step(self):
        self.break_at("first call")
        self.stops(OVER, lambda stop: self.tracer.stop() or OVER)
        self.program.outer(3)
        self.assertEqual(len(self.commander.log), 2)
        self.assert_no_counts()

    def test_a_frame_entered_while_the_tracer_is_stopped_by_another_thread_is_not_counted(self):
        self.program.inner(1)
        thread = xo.CPerThread.GetPerThread()
        record = xo.CPerCodeObject.GetPerCodeObject(self.program.inner.__code__)
        self.tracer.stop()
        self.tracer._step_through(thread, record)
        self.assert_no_counts()

    def test_a_handler_that_raises_ends_the_step(self):
        self.expect_log_entries(1)
        self.break_at("first call")
        self.stops(INTO, lambda stop: 1 // 0)
        self.program.outer(3)
        self.assertEqual(len(self.commander.log), 2)
        self.assert_no_counts()

    def test_frames_are_not_kept_alive_after_a_step(self):
        self.break_at("first call")
        self.stops(OVER, OVER, OVER)
        self.program.outer(3)
        thread = xo.CPerThread.GetPerThread()
        self.assertEqual((thread.fStopFrame, thread.fReturnFrame), (None, None))


class BesideOtherThreads(SteppingCase):

    def test_a_step_of_one_thread_does_not_stop_another_in_the_same_code(self):
        barrier = threading.Barrier(2)
        names = []

        def on_stop(stop):
            names.append((stop.thread.fThreadName, stop.reason.name, self.program.name_of(stop.lineno)))
            return OVER

        self.tracer._on_stop = on_stop
        self.break_at("shared start", lambda frame: threading.current_thread().name == "stepped")
        threads = [threading.Thread(target=self.program.shared, args=(barrier,), name=name)
                   for name in ("stepped", "free")]
        for thread in threads:
            thread.start()
        self.join_all(threads)
        self.assertEqual(names, [
            ("stepped", "BREAKPOINT", "shared start"),
            ("stepped", "STEP", "shared next"),
            ("stepped", "STEP", "shared end"),
            ("stepped", "RETURN", "shared end"),
        ])

    def test_steps_of_several_threads_in_one_code_object_are_counted(self):
        barrier = threading.Barrier(4)
        log = {}

        def on_stop(stop):
            lines = log.setdefault(stop.thread.fThreadId, [])
            lines.append((stop.reason.name, self.program.name_of(stop.lineno)))
            return OVER

        self.tracer._on_stop = on_stop
        self.break_at("shared start")
        self.run_threads(*[lambda: self.program.shared(barrier)] * 4)
        self.assertEqual(len(log), 4)
        for lines in log.values():
            self.assertEqual(lines[:4], [
                ("BREAKPOINT", "shared start"),
                ("STEP", "shared next"),
                ("STEP", "shared end"),
                ("RETURN", "shared end"),
            ])


if __name__ == "__main__":
    unittest.main()
