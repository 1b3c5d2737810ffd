"""Exceptions that the debugger's log lets pass: they reach the program, and everything else is written down."""

import signal
import sys
import threading
import types
import unittest

from vornbase import dlog
from vorntracer import xoptmonitoring as xo

_TOOL = 5 if sys.monitoring.get_tool(5) is None else 4


def traced_function():
    value = 1
    return value


class Passing(unittest.TestCase):
    def setUp(self):
        dlog.ClearEntries()
        dlog.SetOutputFile(self)
        self.written = []
        self.addCleanup(dlog.SetOutputFile, None)
        self.addCleanup(dlog.ClearEntries)
        self.addCleanup(dlog.LetPass, None)

    def write(self, text):
        self.written.append(text)

    def call_with_second_stage(self, second_stage):
        """Call `traced_function` with this for the second stage of its lines."""
        first_stage = xo.CInitialCallback(xo.kPyLineEventId, second_stage, True)
        callback = first_stage.Callback
        sys.monitoring.use_tool_id(_TOOL, "test")
        try:
            sys.monitoring.register_callback(_TOOL, xo.kPyLineEventId, callback)
            sys.monitoring.set_local_events(_TOOL, traced_function.__code__, xo.kPyLineEventId)
            return traced_function()
        finally:
            sys.monitoring.set_local_events(_TOOL, traced_function.__code__, 0)
            sys.monitoring.register_callback(_TOOL, xo.kPyLineEventId, None)
            sys.monitoring.free_tool_id(_TOOL)

    def test_an_exception_of_a_second_stage_is_written_down_and_the_program_goes_on(self):
        def second_stage(code, lineno):
            raise ValueError("a failure of the debugger")

        self.assertEqual(self.call_with_second_stage(second_stage), 1)
        self.assertIn("a failure of the debugger", "".join(self.written))

    def test_the_object_that_may_pass_reaches_the_program(self):
        error = ValueError("meant for the program")

        def second_stage(code, lineno):
            dlog.LetPass(error)
            raise error

        with self.assertRaises(ValueError) as raised:
            self.call_with_second_stage(second_stage)
        self.assertIs(raised.exception, error)
        self.assertEqual((self.written, dlog.GetEntries()), ([], []))

    def test_it_passes_once(self):
        error = ValueError("meant for the program")
        dlog.LetPass(error)
        with self.assertRaises(ValueError):
            dlog.LogException(error, True)
        dlog.LogException(error, True)
        self.assertEqual(len(dlog.GetEntries()), 1)

    def test_an_equal_object_does_not_pass(self):
        class Equal(Exception):
            def __eq__(self, other):
                return True

            __hash__ = None

        dlog.LetPass(Equal())
        dlog.LogException(Equal(), False)
        self.assertEqual(len(dlog.GetEntries()), 1)

    def test_what_passes_on_one_thread_does_not_on_another(self):
        error = ValueError("meant for another thread")
        thread = threading.Thread(target=dlog.LetPass, args=(error,))
        thread.start()
        thread.join()
        dlog.LogException(error, False)
        self.assertEqual(len(dlog.GetEntries()), 1)

    def test_whatever_leaves_a_function_that_is_declared_passes(self):
        @dlog.LetPassFrom
        def second_stage(code, lineno):
            return {}["missing"]

        with self.assertRaises(KeyError):
            self.call_with_second_stage(second_stage)
        self.assertEqual(dlog.GetEntries(), [])

    def test_what_a_declared_function_only_calls_is_written_down_elsewhere(self):
        @dlog.LetPassFrom
        def declared():
            raise ValueError("caught by its caller")

        def second_stage(code, lineno):
            declared()

        self.assertEqual(self.call_with_second_stage(second_stage), 1)
        self.assertIn("caught by its caller", "".join(self.written))

    def test_an_exception_of_a_signals_handler_passes_wherever_it_is_raised(self):
        class FromHandler(Exception):
            pass

        def handler(number, frame):
            raise FromHandler

        @dlog.LetPassFrom
        def second_stage(code, lineno):
            signal.raise_signal(signal.SIGUSR1)

        old_handler = signal.signal(signal.SIGUSR1, handler)
        try:
            with self.assertRaises(FromHandler):
                self.call_with_second_stage(second_stage)
        finally:
            signal.signal(signal.SIGUSR1, old_handler)
        self.assertEqual(dlog.GetEntries(), [])

    def raised_at_first_instruction(self, error):
        """The error as a signal's handler leaves it that is called at a declared function's first instruction."""

        @dlog.LetPassFrom
        def second_stage():
            return sys._getframe()

        frame = second_stage()
        error.__traceback__ = types.TracebackType(None, frame, 0, frame.f_code.co_firstlineno)
        return error

    def test_an_exception_that_was_raised_at_a_declared_functions_first_instruction_passes(self):
        with self.assertRaises(InterruptedError):
            dlog.LogException(self.raised_at_first_instruction(InterruptedError()), True)
        self.assertEqual(dlog.GetEntries(), [])

    def test_an_interrupt_is_found_by_the_program_when_the_callback_has_returned(self):
        error = self.raised_at_first_instruction(KeyboardInterrupt())
        with self.assertRaises(KeyboardInterrupt) as raised:
            dlog.LogException(error, True)
            for _ in range(1000):
                pass
        # Not the one that happened to be raised in the callback, which is forgotten.
        self.assertIsNot(raised.exception, error)
        self.assertEqual(dlog.GetEntries(), [])

    def test_an_interrupt_of_a_handler_of_the_programs_own_passes_as_it_is(self):
        error = self.raised_at_first_instruction(KeyboardInterrupt())
        old_handler = signal.signal(signal.SIGINT, lambda number, frame: None)
        try:
            with self.assertRaises(KeyboardInterrupt) as raised:
                dlog.LogException(error, True)
        finally:
            signal.signal(signal.SIGINT, old_handler)
        self.assertIs(raised.exception, error)


if __name__ == "__main__":
    unittest.main()
