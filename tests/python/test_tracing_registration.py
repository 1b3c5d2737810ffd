"""The tracing level of the calling thread, and callbacks that are told of new records while it is raised."""

import ctypes
import sys
import threading
import unittest
from unittest import mock

from code_helpers import conversion_error
from support import NastyError, Recorder, RecordingWriter, XoTestCase, xo


def probe():
    """Raises one start event, unless the thread that runs it is held from raising events."""


class TracingTestCase(XoTestCase):
    """Knows whether calls of `probe` raise monitoring events."""

    def setUp(self):
        super().setUp()
        self.start_count = 0
        tool_id = self.use_tool()
        event = sys.monitoring.events.PY_START
        sys.monitoring.register_callback(tool_id, event, self._count_start)
        self.set_local_events(tool_id, probe.__code__, event)
        self.assertTrue(self.raises_events())
        self.addCleanup(self._lower_level)

    def _count_start(self, code, offset):
        self.start_count += 1

    def _lower_level(self):
        """Undoes what a failed test left behind, so that only that test fails."""
        for _ in range(10):
            if self.raises_events():
                break
            xo.AddToThreadStateTracing(-1)

    def raises_events(self):
        """Tells whether the calling thread raises monitoring events now."""
        before = self.start_count
        probe()
        return self.start_count > before

    def record_api(self, tstate="the thread state", **errors):
        """Replaces the three functions of the companion module; returns the list of calls made to them."""
        calls = []

        def function(name, result=None):
            def run(*args):
                calls.append((name, *args))
                if name in errors:
                    raise errors[name]
                return result
            return run

        self.patch(xo.dbgpythonapi, "PyThreadState_Get", function("Get", tstate))
        self.patch(xo.dbgpythonapi, "PyThreadState_EnterTracing", function("Enter"))
        self.patch(xo.dbgpythonapi, "PyThreadState_LeaveTracing", function("Leave"))
        return calls


class LevelTest(TracingTestCase):

    def test_a_raised_level_keeps_the_thread_from_raising_events(self):
        self.assertIsNone(xo.AddToThreadStateTracing(1))
        self.assertFalse(self.raises_events())
        self.assertIsNone(xo.AddToThreadStateTracing(-1))
        self.assertTrue(self.raises_events())

    def test_raising_by_two_and_lowering_by_two_leaves_the_level_unchanged(self):
        xo.AddToThreadStateTracing(2)
        self.assertFalse(self.raises_events())
        xo.AddToThreadStateTracing(-2)
        self.assertTrue(self.raises_events())

    def test_each_raise_needs_a_lowering_of_its_own(self):
        xo.AddToThreadStateTracing(1)
        xo.AddToThreadStateTracing(2)
        xo.AddToThreadStateTracing(-1)
        xo.AddToThreadStateTracing(-1)
        self.assertFalse(self.raises_events())
        xo.AddToThreadStateTracing(count=-1)
        self.assertTrue(self.raises_events())

    def test_zero_leaves_the_level_unchanged(self):
        xo.AddToThreadStateTracing(0)
        self.assertTrue(self.raises_events())
        xo.AddToThreadStateTracing(1)
        xo.AddToThreadStateTracing(0)
        self.assertFalse(self.raises_events())
        xo.AddToThreadStateTracing(-1)

    def test_only_the_calling_thread_is_held(self):
        seen = []
        xo.AddToThreadStateTracing(1)
        try:
            thread = threading.Thread(target=lambda: seen.append(self.raises_events()))
            thread.start()
            thread.join()
            seen.append(self.raises_events())
        finally:
            xo.AddToThreadStateTracing(-1)
        self.assertEqual(seen, [True, False])

    def test_a_thread_that_is_held_leaves_the_others_alone(self):
        seen = []
        held, done = threading.Event(), threading.Event()

        def run():
            xo.AddToThreadStateTracing(1)
            held.set()
            done.wait()
            xo.AddToThreadStateTracing(-1)
            seen.append(self.raises_events())

        thread = threading.Thread(target=run)
        thread.start()
        held.wait()
        self.assertTrue(self.raises_events())
        done.set()
        thread.join()
        self.assertEqual(seen, [True])

    def test_the_companion_is_called_once_for_each_unit_with_the_current_thread_state(self):
        tstate = object()
        calls = self.record_api(tstate)
        xo.AddToThreadStateTracing(3)
        self.assertEqual(calls, [("Get",)] + [("Enter", tstate)] * 3)
        calls.clear()
        xo.AddToThreadStateTracing(-2)
        self.assertEqual(calls, [("Get",)] + [("Leave", tstate)] * 2)

    def test_zero_enters_and_leaves_nothing(self):
        calls = self.record_api()
        xo.AddToThreadStateTracing(0)
        self.assertEqual([call for call in calls if call[0] != "Get"], [])

    def test_a_failing_companion_reaches_the_caller(self):
        for name, count in (("Get", 1), ("Get", -1), ("Enter", 2), ("Leave", -2)):
            with self.subTest(name=name, count=count):
                calls = self.record_api(**{name: NastyError(name)})
                self.assert_raises_text(NastyError, name, xo.AddToThreadStateTracing, count)
                self.assertEqual([call[0] for call in calls].count(name), 1)

    def test_the_count_must_be_a_machine_word_integer(self):
        calls = self.record_api()
        for count in ("x", None, 1.5, sys.maxsize + 1, -sys.maxsize - 2):
            with self.subTest(count=count):
                error = conversion_error(count)
                self.assert_raises_text(type(error), str(error), xo.AddToThreadStateTracing, count)
        self.assertEqual(calls, [])

    def test_wrong_argument_lists_are_refused(self):
        self.assert_raises_text(TypeError, "argument is missing", xo.AddToThreadStateTracing)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                xo.AddToThreadStateTracing, 0, 0)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                xo.AddToThreadStateTracing, 0, other=0)


class LoggingTest(TracingTestCase):

    def setUp(self):
        super().setUp()
        self.writer = RecordingWriter()
        xo.set_dprintf_file(self.writer, 0, None)
        xo.set_dprintf_mask(xo.kLogThreading)

    def test_every_call_writes_one_line(self):
        self.record_api()
        for count in (2, -2, 0):
            xo.AddToThreadStateTracing(count)
        self.assertEqual(self.writer.texts, ["AddToThreadStateTracing() count=2\n",
                                             "AddToThreadStateTracing() count=-2\n",
                                             "AddToThreadStateTracing() count=0\n"])

    def test_the_line_shows_the_count_as_an_integer(self):
        xo.AddToThreadStateTracing(True)
        xo.AddToThreadStateTracing(-1)
        self.assertEqual(self.writer.texts[0], "AddToThreadStateTracing() count=1\n")

    def test_with_the_threading_bit_clear_nothing_is_written(self):
        xo.set_dprintf_mask(~xo.kLogThreading)
        xo.AddToThreadStateTracing(1)
        xo.AddToThreadStateTracing(-1)
        self.assertEqual(self.writer.texts, [])

    def test_with_no_file_nothing_is_written(self):
        xo.set_dprintf_file(None, 0, None)
        xo.AddToThreadStateTracing(1)
        xo.AddToThreadStateTracing(-1)
        self.assertEqual(self.writer.texts, [])

    def test_the_line_is_written_before_the_thread_state_is_asked_for(self):
        calls = self.record_api()
        self.writer.error = OSError("disk full")
        self.assert_raises_text(OSError, "disk full", xo.AddToThreadStateTracing, 1)
        self.assertEqual(calls, [])

    def test_an_announcement_writes_a_line_before_and_one_after(self):
        lines = []
        xo._CallNewObjectCallback(lambda obj: lines.extend(self.writer.texts), None)
        self.assertEqual(lines, ["AddToThreadStateTracing() count=1\n"])
        self.assertEqual(self.writer.texts, ["AddToThreadStateTracing() count=1\n",
                                             "AddToThreadStateTracing() count=-1\n"])


class AnnouncementTest(TracingTestCase):

    def test_without_a_callback_nothing_happens(self):
        calls = self.record_api()
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, 0, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        self.assertIsNone(xo._CallNewObjectCallback(None, object()))
        self.assertEqual((calls, writer.texts), ([], []))

    def test_the_callback_gets_the_object_and_its_result_is_discarded(self):
        callback, obj = Recorder(result="ignored"), object()
        self.assertIsNone(xo._CallNewObjectCallback(callback, obj))
        self.assertEqual(callback.calls, [(obj,)])

    def test_the_callback_raises_no_events_and_the_code_after_it_does(self):
        seen = []
        xo._CallNewObjectCallback(lambda obj: seen.append(self.raises_events()), None)
        self.assertEqual(seen, [False])
        self.assertTrue(self.raises_events())

    def test_a_callback_that_raises_leaves_the_level_as_it_was_and_reaches_the_caller(self):
        for error in (NastyError("no"), KeyboardInterrupt("no"), SystemExit("no")):
            with self.subTest(error=error):
                with self.assertRaises(type(error)) as caught:
                    xo._CallNewObjectCallback(Recorder(error=error), None)
                self.assertIs(caught.exception, error)
                self.assertTrue(self.raises_events())

    def test_a_callback_that_cannot_be_called_leaves_the_level_as_it_was(self):
        self.assert_raises_text(TypeError, "'int' object is not callable", xo._CallNewObjectCallback, 5, None)
        self.assertTrue(self.raises_events())

    def test_an_announcement_inside_an_announcement_keeps_the_level_balanced(self):
        seen = []

        def outer(obj):
            xo._CallNewObjectCallback(lambda obj: seen.append(self.raises_events()), None)
            seen.append(self.raises_events())

        xo._CallNewObjectCallback(outer, None)
        self.assertEqual(seen, [False, False])
        self.assertTrue(self.raises_events())

    def test_the_level_is_raised_before_the_callback_and_lowered_after_it(self):
        calls = self.record_api("T")
        xo._CallNewObjectCallback(lambda obj: calls.append("callback"), None)
        self.assertEqual(calls, [("Get",), ("Enter", "T"), "callback", ("Get",), ("Leave", "T")])

    def test_the_level_is_lowered_after_a_callback_that_raises(self):
        calls = self.record_api("T")
        callback = Recorder(error=NastyError("no"))
        self.assert_raises_text(NastyError, "no", xo._CallNewObjectCallback, callback, None)
        self.assertEqual(calls, [("Get",), ("Enter", "T"), ("Get",), ("Leave", "T")])

    def test_a_level_that_cannot_be_raised_prevents_the_callback(self):
        for name in ("Get", "Enter"):
            with self.subTest(name=name):
                callback = Recorder()
                calls = self.record_api(**{name: NastyError(name)})
                self.assert_raises_text(NastyError, name, xo._CallNewObjectCallback, callback, None)
                self.assertEqual(callback.calls, [])
                self.assertNotIn("Leave", [call[0] for call in calls])

    def test_a_level_that_cannot_be_lowered_reaches_the_caller(self):
        self.record_api(Leave=NastyError("stuck"))
        callback = Recorder()
        self.assert_raises_text(NastyError, "stuck", xo._CallNewObjectCallback, callback, None)
        self.assertEqual(callback.calls, [(None,)])

    def test_a_level_that_is_lowered_by_what_then_lacks_memory_is_lowered_once(self):
        # It was lowered a second time, and a level below zero keeps the thread silent, too.
        real = xo.dbgpythonapi.PyThreadState_LeaveTracing
        for error in (MemoryError("after"), ctypes.ArgumentError("after"), NastyError("after")):
            with self.subTest(error=error):

                def leave(tstate):
                    real(tstate)
                    raise error

                with mock.patch.object(xo.dbgpythonapi, "PyThreadState_LeaveTracing", leave):
                    self.assert_raises_text(type(error), "after", xo._CallNewObjectCallback, Recorder(), None)
                self.assertTrue(self.raises_events())
                xo.AddToThreadStateTracing(1)
                self.assertFalse(self.raises_events())
                xo.AddToThreadStateTracing(-1)
                self.assertTrue(self.raises_events())

    def test_a_level_is_as_before_whatever_the_support_module_raises(self):
        real_enter = xo.dbgpythonapi.PyThreadState_EnterTracing

        def enter(tstate):
            real_enter(tstate)
            raise NastyError("bracket")

        def leave(tstate):
            raise NastyError("bracket")

        for name, replacement in (("PyThreadState_EnterTracing", enter), ("PyThreadState_LeaveTracing", leave)):
            for call in (lambda: xo._CallNewObjectCallback(Recorder(), None), self.announce_a_thread(Recorder())):
                with self.subTest(name=name):
                    with mock.patch.object(xo.dbgpythonapi, name, replacement):
                        self.assert_raises_text(NastyError, "bracket", call)
                    self.assertTrue(self.raises_events())
                    xo.CPerThread._DiscardPerThread(12345)

    def test_a_level_that_could_not_be_lowered_for_want_of_memory_is_lowered_nevertheless(self):
        for error in (MemoryError("instead"), ctypes.ArgumentError("instead")):
            with self.subTest(error=error):
                leave = Recorder(error=error)
                with mock.patch.object(xo.dbgpythonapi, "PyThreadState_LeaveTracing", leave):
                    self.assert_raises_text(type(error), "instead", xo._CallNewObjectCallback, Recorder(), None)
                self.assertEqual(len(leave.calls), 1)
                self.assertTrue(self.raises_events())

    def test_a_log_that_fails_from_the_callback_on_leaves_the_level_as_it_was(self):
        # The thread raised no event ever again: the line before the lowering could not be written.
        writer = RecordingWriter()

        def close_the_log(obj):
            writer.error = NastyError("closed")

        for call in (lambda: xo._CallNewObjectCallback(close_the_log, None), self.announce_a_thread(close_the_log)):
            writer.error = None
            xo.set_dprintf_file(writer, 0, None)
            xo.set_dprintf_mask(xo.kLogThreading)
            self.assert_raises_text(NastyError, "closed", call)
            self.assertTrue(self.raises_events())

    def announce_a_thread(self, callback):
        """What announces the record of a thread that is not there."""
        xo.CPerThread.SetNewPerThreadCreatedCallback(callback)
        return lambda: xo.CPerThread.GetPerThread(12345)

    def test_arguments_can_be_given_by_name_and_none_is_optional(self):
        callback = Recorder()
        xo._CallNewObjectCallback(obj=1, callback=callback)
        self.assertEqual(callback.calls, [(1,)])
        self.assert_raises_text(TypeError, "argument is missing", xo._CallNewObjectCallback, callback)


class NewRecordTest(TracingTestCase):
    """The records whose announcement is bracketed, and the one whose is not."""

    def test_a_new_code_object_record_is_announced_without_events(self):
        seen = []
        xo.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: seen.append(self.raises_events()))
        xo.CPerCodeObject.GetPerCodeObject(compile("1", "/a.py", "exec"))
        self.assertEqual(seen, [False])
        self.assertTrue(self.raises_events())

    def test_a_new_thread_record_is_announced_without_events(self):
        seen = []
        xo.CPerThread.SetNewPerThreadCreatedCallback(lambda record: seen.append(self.raises_events()))
        xo.CPerThread.GetPerThread()
        self.assertEqual(seen, [False])
        self.assertTrue(self.raises_events())

    def test_a_new_file_record_is_announced_with_events_as_usual(self):
        seen = []
        xo.CPerFile.SetNewPerFileCreatedCallback(lambda record: seen.append(self.raises_events()))
        xo.CPerFile.GetPerFile("/a.py")
        self.assertEqual(seen, [True])

    def test_announcements_that_raise_leave_the_level_as_it_was(self):
        xo.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(Recorder(error=NastyError("no")))
        xo.CPerThread.SetNewPerThreadCreatedCallback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", xo.CPerCodeObject.GetPerCodeObject,
                                compile("2", "/a.py", "exec"))
        self.assertTrue(self.raises_events())
        self.assert_raises_text(NastyError, "no", xo.CPerThread.GetPerThread)
        self.assertTrue(self.raises_events())


if __name__ == "__main__":
    unittest.main()
