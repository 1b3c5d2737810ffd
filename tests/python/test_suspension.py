"""Suspension on demand: a thread passes through its own suspend lock where the tracer asks for it."""

import sys
import threading
import time
import unittest

from event_helpers import EVENT_IDS, EventTestCase, Worker, wait_until
from support import NastyError, RecordingWriter, raising, xo

CPerThread = xo.CPerThread

SOME_ID = 1001
EVERY_MASK_BIT = 1023

LINE_WITH_BREAKPOINT = 3
LINE_WITHOUT = 4


def three_lines(thread_id):
    return [f"fCheckSuspendLock is true; acquiring fSuspendLock: thread_id={thread_id})\n",
            f"fSuspendLock acquired: thread_id={thread_id})\n",
            f"fSuspendLock released: thread_id={thread_id})\n"]


class RecordingLock:
    """A lock that notes its calls among the other steps, and can fail at one of them."""

    def __init__(self, steps, fail_at=None):
        self._steps = steps
        self._fail_at = fail_at

    def _note(self, step, args, kwargs):
        self._steps.append(step if not args and not kwargs else (step, args, kwargs))
        if self._fail_at == step:
            raise NastyError(step)

    def acquire(self, *args, **kwargs):
        self._note("acquire", args, kwargs)

    def release(self, *args, **kwargs):
        self._note("release", args, kwargs)


class SuspensionTestCase(EventTestCase):

    def setUp(self):
        super().setUp()
        self.callback = self.make_callback(xo.kPyLineEventId)
        self.steps = []

    def make_record(self, thread_id=SOME_ID, fail_at=None):
        """A record whose thread has to pass through a lock that notes that it does."""
        record = CPerThread(thread_id)
        record.fCheckSuspendLock = True
        record.fSuspendLock = RecordingLock(self.steps, fail_at)
        return record

    def start_logging(self, mask=xo.kLogThreading, fail_at=None):
        """Notes each line written among the other steps; the write number `fail_at` fails."""
        class Writer:
            writes = 0

            def write(writer, text):
                writer.writes += 1
                if writer.writes == fail_at:
                    raise NastyError("write")
                self.steps.append(text)

        xo.set_dprintf_file(Writer(), -1, None)
        xo.set_dprintf_mask(mask)


class ProtocolTest(SuspensionTestCase):

    def test_a_thread_that_need_not_check_returns_at_once_and_never_touches_the_lock(self):
        record = self.make_record()
        record.fSuspendLock = raising("__getattribute__")
        self.start_logging(EVERY_MASK_BIT)
        for value in (False, 0, None, "", []):
            with self.subTest(value=value):
                record.fCheckSuspendLock = value
                self.assertIsNone(self.callback._SuspendIfNeeded(record))
        self.assertEqual(self.steps, [])

    def test_anything_true_makes_the_thread_acquire_and_release_without_arguments(self):
        for value in (True, 1, "yes", [0]):
            with self.subTest(value=value):
                self.steps.clear()
                record = self.make_record()
                record.fCheckSuspendLock = value
                self.assertIsNone(self.callback._SuspendIfNeeded(record))
                self.assertEqual(self.steps, ["acquire", "release"])

    def test_the_flag_is_left_for_the_tracer_to_lower(self):
        record = self.make_record()
        self.callback._SuspendIfNeeded(record)
        self.assertIs(record.fCheckSuspendLock, True)

    def test_a_free_lock_is_free_again_afterwards(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        self.callback._SuspendIfNeeded(record)
        self.assertFalse(record.fSuspendLock.locked())

    def test_the_lock_that_was_acquired_is_released_even_if_the_field_changed_meanwhile(self):
        record = self.make_record()
        other_steps = []
        first = record.fSuspendLock
        acquire = first.acquire
        first.acquire = lambda: (acquire(), setattr(record, "fSuspendLock", RecordingLock(other_steps)))
        self.callback._SuspendIfNeeded(record)
        self.assertEqual((self.steps, other_steps), (["acquire", "release"], []))

    def test_only_records_can_be_suspended(self):
        self.assert_raises_text(TypeError, "expected CPerThread instance, got 5", self.callback._SuspendIfNeeded, 5)
        error = self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'fCheckSuspendLock'",
                                        self.callback._SuspendIfNeeded, None)
        self.assertEqual((error.name, error.obj), ("fCheckSuspendLock", None))


class LogLinesTest(SuspensionTestCase):

    def test_three_lines_are_written_in_order_around_the_lock(self):
        record = self.make_record()
        self.start_logging()
        self.callback._SuspendIfNeeded(record)
        acquiring, acquired, released = three_lines(SOME_ID)
        self.assertEqual(self.steps, [acquiring, "acquire", acquired, "release", released])

    def test_the_lines_name_the_thread_of_the_record(self):
        thread_id = threading.get_ident()
        record = self.make_record(thread_id)
        self.start_logging()
        self.callback._SuspendIfNeeded(record)
        self.assertEqual([step for step in self.steps if step.startswith("f")], three_lines(thread_id))

    def test_the_bit_for_threading_decides_and_not_the_one_of_the_first_stage(self):
        record = self.make_record()
        for mask, line_count in ((0, 0), (xo.kLogInitialMonitoringCallbacks, 0),
                                 (EVERY_MASK_BIT & ~xo.kLogThreading, 0), (xo.kLogThreading, 3),
                                 (EVERY_MASK_BIT, 3)):
            with self.subTest(mask=mask):
                self.steps.clear()
                self.start_logging(mask)
                self.callback._SuspendIfNeeded(record)
                self.assertEqual(len(self.steps), 2 + line_count)

    def test_without_a_file_nothing_is_written(self):
        record = self.make_record()
        self.start_logging(EVERY_MASK_BIT)
        xo.set_dprintf_file(None, -1, None)
        self.callback._SuspendIfNeeded(record)
        self.assertEqual(self.steps, ["acquire", "release"])

    def test_each_line_follows_the_mask_of_its_own_moment(self):
        acquiring, acquired, released = three_lines(SOME_ID)
        record = self.make_record()
        acquire, release = record.fSuspendLock.acquire, record.fSuspendLock.release
        self.start_logging()
        record.fSuspendLock.acquire = lambda: (acquire(), xo.set_dprintf_mask(0))
        record.fSuspendLock.release = lambda: (release(), xo.set_dprintf_mask(xo.kLogThreading))
        self.callback._SuspendIfNeeded(record)
        self.assertEqual(self.steps, [acquiring, "acquire", "release", released])

        self.steps.clear()
        writer = RecordingWriter()
        record.fSuspendLock.acquire = lambda: (acquire(), xo.set_dprintf_file(writer, -1, None))
        self.callback._SuspendIfNeeded(record)
        self.assertEqual((self.steps, writer.texts),
                         ([acquiring, "acquire", "release"], [acquired, released]))

    def test_an_event_writes_the_three_lines_once(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        record = CPerThread.GetPerThread()
        record.fCheckSuspendLock = True
        self.callback.fAnySuspendThread = True
        self.start_logging()
        self.assertIsNone(self.callback.Callback(code, LINE_WITHOUT))
        self.assertEqual(self.steps, three_lines(threading.get_ident()))


class FailureTest(SuspensionTestCase):

    def test_an_error_of_the_truth_test_reaches_the_caller_before_anything_happens(self):
        record = self.make_record()
        record.fCheckSuspendLock = raising("__bool__")
        self.start_logging()
        with self.assertRaises(NastyError):
            self.callback._SuspendIfNeeded(record)
        self.assertEqual(self.steps, [])

    def test_an_error_of_acquire_reaches_the_caller_and_nothing_is_released(self):
        record = self.make_record(fail_at="acquire")
        self.start_logging()
        self.assert_raises_text(NastyError, "acquire", self.callback._SuspendIfNeeded, record)
        self.assertEqual(self.steps, [three_lines(SOME_ID)[0], "acquire"])

    def test_an_error_of_release_reaches_the_caller_before_the_last_line(self):
        record = self.make_record(fail_at="release")
        self.start_logging()
        self.assert_raises_text(NastyError, "release", self.callback._SuspendIfNeeded, record)
        self.assertEqual(self.steps, [three_lines(SOME_ID)[0], "acquire", three_lines(SOME_ID)[1], "release"])

    def test_what_is_no_lock_is_an_error(self):
        record = self.make_record()
        for value in (None, 5):
            record.fSuspendLock = value
            with self.assertRaises(AttributeError):
                self.callback._SuspendIfNeeded(record)

    def test_a_failing_first_line_leaves_the_lock_untouched(self):
        record = self.make_record()
        self.start_logging(fail_at=1)
        self.assert_raises_text(NastyError, "write", self.callback._SuspendIfNeeded, record)
        self.assertEqual(self.steps, [])

    def test_a_failing_second_line_leaves_the_lock_held(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        self.start_logging(fail_at=2)
        self.assert_raises_text(NastyError, "write", self.callback._SuspendIfNeeded, record)
        self.assertTrue(record.fSuspendLock.locked())

    def test_a_failing_third_line_leaves_the_lock_free(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        self.start_logging(fail_at=3)
        self.assert_raises_text(NastyError, "write", self.callback._SuspendIfNeeded, record)
        self.assertFalse(record.fSuspendLock.locked())

    def test_a_failure_during_an_event_is_logged_and_answered_none(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        record = CPerThread.GetPerThread()
        record.fCheckSuspendLock = True
        self.callback.fAnySuspendThread = True
        for fail_at in ("acquire", "release"):
            with self.subTest(fail_at=fail_at):
                record.fSuspendLock = RecordingLock(self.steps, fail_at)
                self.assertIsNone(self.callback.Callback(code, LINE_WITH_BREAKPOINT))
                self.take_logged_one(NastyError)
        record.fCheckSuspendLock = raising("__bool__")
        self.assertIsNone(self.callback.Callback(code, LINE_WITH_BREAKPOINT))
        self.take_logged_one(NastyError)
        self.assertEqual(self.second.calls, [])


class HoldingTest(SuspensionTestCase):

    def test_a_thread_blocks_while_another_one_holds_its_lock_and_leaves_it_free(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        with Worker() as worker:
            record.fSuspendLock.acquire()
            call = worker.begin(self.callback._SuspendIfNeeded, record)
            self.assertFalse(call.is_done(0.15))
            record.fSuspendLock.release()
            self.assertIsNone(call.result())
            self.assertFalse(record.fSuspendLock.locked())

    def test_only_the_first_line_is_written_while_the_thread_is_held(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        self.start_logging()
        with Worker() as worker:
            with record.fSuspendLock:
                call = worker.begin(self.callback._SuspendIfNeeded, record)
                wait_until(lambda: self.steps, "the first line")
                self.assertFalse(call.is_done(0.1))
                self.assertEqual(self.steps, three_lines(SOME_ID)[:1])
            call.result()
        self.assertEqual(self.steps, three_lines(SOME_ID))

    def test_a_held_threads_record_can_be_read_and_written(self):
        record = CPerThread(SOME_ID)
        record.fCheckSuspendLock = True
        self.start_logging()
        with Worker() as worker, Worker() as other:
            with record.fSuspendLock:
                call = worker.begin(self.callback._SuspendIfNeeded, record)
                wait_until(lambda: self.steps, "the first line")
                for field in ("fCheckSuspendLock", "fSuspendLock", "fThreadName", "fStopFrame"):
                    value = other.call(getattr, record, field)
                    other.call(setattr, record, field, value)
                other.call(setattr, record, "fCheckSuspendLock", False)
                self.assertFalse(call.is_done())
            call.result()

    def test_a_held_thread_lets_other_threads_raise_events(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.callback.fAnySuspendThread = True
        self.start_logging()
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            record.fCheckSuspendLock = True
            with record.fSuspendLock:
                call = worker.begin(self.callback.Callback, code, LINE_WITH_BREAKPOINT)
                wait_until(lambda: self.steps, "the first line")
                self.assertEqual(self.callback.Callback(code, LINE_WITH_BREAKPOINT), "second")
                self.assertIsNone(self.callback.Callback(code, LINE_WITHOUT))
                self.assertFalse(call.is_done(0.1))
            self.assertEqual(call.result(), "second")

    def test_a_line_without_a_breakpoint_is_held_and_then_answered_none(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.callback.fAnySuspendThread = True
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            record.fCheckSuspendLock = True
            with record.fSuspendLock:
                call = worker.begin(self.callback.Callback, code, LINE_WITHOUT)
                self.assertFalse(call.is_done(0.15))
            self.assertIsNone(call.result())
        self.assertEqual(self.second.calls, [])

    def test_every_event_holds_its_thread(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            record.fCheckSuspendLock = True
            for name, event_id in EVENT_IDS.items():
                with self.subTest(event=name):
                    callback = self.make_callback(event_id)
                    callback.fAnySuspendThread = True
                    with record.fSuspendLock:
                        call = worker.begin(callback.Callback, code, LINE_WITHOUT)
                        self.assertFalse(call.is_done(0.05))
                    self.assertIsNone(call.result())

    def test_eight_threads_are_held_and_released_one_by_one(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.callback.fAnySuspendThread = True
        self.start_logging()
        workers = [Worker() for _ in range(8)]
        for worker in workers:
            self.enterContext(worker)
        records = [worker.call(CPerThread.GetPerThread) for worker in workers]
        for record in records:
            record.fCheckSuspendLock = True
            record.fSuspendLock.acquire()
        calls = [worker.begin(self.callback.Callback, code, LINE_WITH_BREAKPOINT) for worker in workers]
        wait_until(lambda: len(self.steps) == 8, "all threads to be held")
        for released, (record, call) in enumerate(zip(records, calls), 1):
            record.fSuspendLock.release()
            self.assertEqual(call.result(), "second")
            self.assertEqual([call.is_done() for call in calls], [True] * released + [False] * (8 - released))
        self.assertEqual([record.fSuspendLock.locked() for record in records], [False] * 8)

    def test_a_running_loop_is_held_at_its_next_event_and_goes_on_where_it_was(self):
        tool_id = self.use_tool()
        events = sys.monitoring.events
        sys.monitoring.register_callback(tool_id, events.LINE, self.callback.Callback)
        turns = []
        stop = threading.Event()

        def loop():
            number = 0
            while not stop.is_set():
                turns.append(number)
                number += 1

        xo.CPerCodeObject.GetPerCodeObject(loop.__code__).fEnabledBpLinenos = set()
        self.set_local_events(tool_id, loop.__code__, events.LINE)
        try:
            with Worker() as worker:
                record = CPerThread.GetPerThread(worker.ident)
                call = worker.begin(loop)
                wait_until(lambda: turns, "the loop to run")
                for _ in range(3):
                    record.fSuspendLock.acquire()
                    record.fCheckSuspendLock = True
                    self.start_logging()
                    self.callback.fAnySuspendThread = True
                    wait_until(lambda: self.steps, "the loop to be held")
                    held_at = len(turns)
                    time.sleep(0.1)
                    self.assertEqual(len(turns), held_at, "the loop runs on")
                    self.assertEqual(self.steps, three_lines(worker.ident)[:1])
                    record.fCheckSuspendLock = False
                    self.callback.fAnySuspendThread = False
                    record.fSuspendLock.release()
                    wait_until(lambda: len(turns) > held_at + 10, "the loop to go on")
                    self.assertEqual(self.steps, three_lines(worker.ident))
                    self.assertFalse(record.fSuspendLock.locked())
                    self.steps.clear()
                stop.set()
                call.result()
        finally:
            stop.set()
        self.assertEqual(turns, list(range(len(turns))))


if __name__ == "__main__":
    unittest.main()
