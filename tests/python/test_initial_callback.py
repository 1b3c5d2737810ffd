"""The first stage of an event, called directly: its fields, its log lines, its look-ups, its failures."""

import gc
import sys
import threading
import types
import unittest
import weakref

from code_helpers import conversion_error, in_frame_of, make_code
from event_helpers import EVENT_IDS, FOREIGN_EVENT_ID, SAMPLE, EventTestCase, in_new_thread
from support import NastyError, Recorder, RecordingWriter, raising, xo

CInitialCallback = xo.CInitialCallback
CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread

EVERY_MASK_BIT = 1023


def find_code_record(callback, code):
    """The callback's own look-up of a code object's record."""
    return callback._CInitialCallback__GetPerCodeObjectCalledFromCallback(code)


def find_thread_record(callback):
    """The callback's own look-up of the calling thread's record."""
    return callback._CInitialCallback__GetPerThreadCalledFromCallback()


def first_line(code, second):
    return f"Initial callback called for {code!r};\n second callback is {second!r}\n"


class FieldsTest(EventTestCase):

    def test_a_new_callback_keeps_its_arguments_and_has_both_flags_down(self):
        callback = CInitialCallback(xo.kPyLineEventId, self.second, True)
        self.assertEqual(callback._fEventId, xo.kPyLineEventId)
        self.assertIs(callback._fSecondCallback, self.second)
        self.assertIs(callback._fCanReturnDisable, True)
        self.assertIs(callback.fAnySuspendThread, False)
        self.assertIs(callback.fSteppingEventsNeededEveryThread, False)

    def test_the_arguments_may_be_given_by_name(self):
        callback = CInitialCallback(can_return_disable=False, second_callback=self.second, event_id=7)
        self.assertEqual((callback._fEventId, callback._fSecondCallback, callback._fCanReturnDisable),
                         (7, self.second, False))

    def test_the_truth_of_can_return_disable_counts(self):
        for value, truth in ((1, True), ("yes", True), ([0], True), (0, False), ("", False), (None, False)):
            with self.subTest(value=value):
                self.assertIs(CInitialCallback(1, self.second, value)._fCanReturnDisable, truth)
        with self.assertRaises(NastyError):
            CInitialCallback(1, self.second, raising("__bool__"))

    def test_an_event_id_that_is_no_machine_word_integer_is_refused_as_the_interpreter_does(self):
        for value in ("1", None, 1.5, [], 2 ** 63, -2 ** 63 - 1):
            with self.subTest(value=value):
                expected = conversion_error(value)
                self.assert_raises_text(type(expected), str(expected),
                                        CInitialCallback, value, self.second, True)

    def test_any_machine_word_is_an_event_id(self):
        for value in (0, -1, 2 ** 63 - 1, -2 ** 63, True):
            with self.subTest(value=value):
                self.assertEqual(CInitialCallback(value, self.second, True)._fEventId, value)

    def test_missing_and_excess_arguments_are_refused(self):
        for arguments in ((), (1,), (1, self.second)):
            self.assert_raises_text(TypeError, "argument is missing", CInitialCallback, *arguments)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                CInitialCallback, 1, self.second, True, None)

    def test_a_second_initialisation_is_refused_and_the_second_callback_stays(self):
        callback = self.make_callback(xo.kPyStartEventId)
        self.assert_final("_fSecondCallback", callback,
                          callback.__init__, xo.kPyLineEventId, Recorder(), True)
        self.assertIs(callback._fSecondCallback, self.second)

    def test_the_event_id_is_set_before_a_second_initialisation_is_refused(self):
        callback = self.make_callback(xo.kPyStartEventId)
        callback.fAnySuspendThread = True
        with self.assertRaises(AttributeError):
            callback.__init__(xo.kPyLineEventId, Recorder(), True)
        self.assertEqual(callback._fEventId, xo.kPyLineEventId)
        self.assertIs(callback._fCanReturnDisable, False)
        self.assertIs(callback.fAnySuspendThread, True)

    def test_the_second_callback_can_be_set_once_only(self):
        callback = self.make_callback(xo.kPyStartEventId)
        self.assert_final("_fSecondCallback", callback, setattr, callback, "_fSecondCallback", Recorder())
        self.assertIs(callback._fSecondCallback, self.second)

    def test_a_callback_that_was_not_initialised_lets_its_second_callback_be_set_once(self):
        callback = CInitialCallback.__new__(CInitialCallback)
        self.assert_raises_text(AttributeError, "Attribute error", getattr, callback, "_fSecondCallback")
        callback._fSecondCallback = self.second
        self.assertIs(callback._fSecondCallback, self.second)
        self.assert_final("_fSecondCallback", callback, setattr, callback, "_fSecondCallback", self.second)

    def test_the_other_fields_are_writable_and_typed(self):
        callback = self.make_callback(xo.kPyStartEventId)
        callback._fEventId = xo.kPyLineEventId
        self.assertEqual(callback._fEventId, xo.kPyLineEventId)
        self.assert_raises_text(TypeError, "expected int, got 'LINE'", setattr, callback, "_fEventId", "LINE")
        for field in ("_fCanReturnDisable", "fAnySuspendThread", "fSteppingEventsNeededEveryThread"):
            for value in (True, False):
                setattr(callback, field, value)
                self.assertIs(getattr(callback, field), value)
            for value in (1, None):
                self.assert_raises_text(TypeError, f"expected bool, got {value!r}",
                                        setattr, callback, field, value)

    def test_no_field_can_be_deleted(self):
        callback = self.make_callback(xo.kPyStartEventId)
        for field in ("_fEventId", "_fSecondCallback", "_fCanReturnDisable", "fAnySuspendThread",
                      "fSteppingEventsNeededEveryThread"):
            self.assert_raises_text(TypeError, "deletion not supported", delattr, callback, field)

    def test_no_frame_has_to_be_skipped(self):
        self.assertEqual(CInitialCallback._kOffsetForGetFrameInGetPerCodeObject, 0)

    def test_methods_refuse_another_self(self):
        code = make_code(SAMPLE)
        for method, arguments in ((CInitialCallback.Callback, (code,)),
                                  (CInitialCallback._IsInitialCallbackLogging, ()),
                                  (CInitialCallback._SkipDetermination, (code, None))):
            with self.subTest(method=method):
                self.assert_raises_text(TypeError, "expected CInitialCallback, got 5", method, 5, *arguments)

    def test_a_callback_in_a_cycle_with_its_second_callback_is_collected(self):
        second = Recorder()
        second.first = self.make_callback(xo.kPyStartEventId, second=second)
        reference = weakref.ref(second)
        del second
        gc.collect()
        self.assertIsNone(reference())


class LoggingTest(EventTestCase):

    def start_logging(self, mask=xo.kLogInitialMonitoringCallbacks, **options):
        writer = RecordingWriter(**options)
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(mask)
        return writer

    def test_logging_depends_on_the_file_alone(self):
        callback = self.make_callback(xo.kPyStartEventId)
        for mask in (0, EVERY_MASK_BIT):
            with self.subTest(mask=mask):
                xo.set_dprintf_mask(mask)
                xo.set_dprintf_file(None, -1, None)
                self.assertIs(callback._IsInitialCallbackLogging(), False)
                xo.set_dprintf_file(RecordingWriter(), -1, None)
                self.assertIs(callback._IsInitialCallbackLogging(), True)

    def test_an_event_of_interest_writes_two_lines(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging()
        self.assertEqual(callback.Callback(code, 3), "second")
        self.assertEqual(writer.texts, [first_line(code, self.second), f"  calling {self.second!r}\n"])

    def test_an_event_of_no_interest_writes_one_line(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging()
        self.assertIsNone(callback.Callback(code, 4))
        self.assertEqual(writer.texts, [first_line(code, self.second)])

    def test_internal_code_says_what_it_is_answered(self):
        code, _ = self.internal_code()
        for can_return_disable, line in ((True, "  internal code returning DISABLE\n"),
                                         (False, "  internal code returning None\n")):
            with self.subTest(can_return_disable=can_return_disable):
                callback = self.make_callback(xo.kPyLineEventId, can_return_disable)
                writer = self.start_logging()
                callback.Callback(code, 3)
                self.assertEqual(writer.texts, [first_line(code, self.second), line])
                writer = self.start_logging()
                callback._SkipDetermination(code, 3)
                self.assertEqual(writer.texts, [line])

    def test_a_thread_that_is_not_debugged_says_so(self):
        code, _ = self.known_code(3)
        CPerThread.GetPerThread().fDebugPolicy = 0
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging()
        self.assertIsNone(callback.Callback(code, 3))
        self.assertEqual(writer.texts, [first_line(code, self.second), "  debug policy 0 returning None\n"])

    def test_nothing_is_written_without_a_file_even_with_every_mask_bit(self):
        known, _ = self.known_code(3)
        internal, _ = self.internal_code()
        callback = self.make_callback(xo.kPyLineEventId, second=raising("__repr__", "__call__"))
        writer = self.start_logging(EVERY_MASK_BIT)
        xo.set_dprintf_file(None, -1, None)
        callback.Callback(internal, 3)
        callback.Callback(known, 4)
        self.assertEqual(writer.texts, [])

    def test_nothing_is_written_while_the_bit_of_the_first_stage_is_clear(self):
        known, _ = self.known_code(3)
        internal, _ = self.internal_code()
        CPerThread.GetPerThread()
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging(EVERY_MASK_BIT & ~xo.kLogInitialMonitoringCallbacks)
        callback.Callback(internal, 3)
        callback.Callback(known, 3)
        callback.Callback(known, 4)
        CPerThread.GetPerThread().fDebugPolicy = 0
        callback.Callback(known, 3)
        self.assertEqual(writer.texts, [])

    def test_other_bits_do_not_matter_while_that_bit_is_set(self):
        code, _ = self.known_code(3)
        CPerThread.GetPerThread()
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging(EVERY_MASK_BIT)
        callback.Callback(code, 3)
        self.assertEqual(len(writer.texts), 2)

    def test_no_repr_is_taken_while_nothing_is_written(self):
        code, _ = self.known_code(3)
        second = raising("__repr__")
        type(second).__call__ = lambda self, *args: "called"
        callback = self.make_callback(xo.kPyLineEventId, second=second)
        self.assertEqual(callback.Callback(code, 3), "called")
        self.start_logging(0)
        self.assertEqual(callback.Callback(code, 3), "called")
        self.start_logging()
        self.assertIsNone(callback.Callback(code, 3))
        self.take_logged_one(NastyError)

    def test_what_write_returns_is_ignored(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        writer = self.start_logging(result="written")
        self.assertEqual(callback.Callback(code, 3), "second")
        self.assertEqual(len(writer.texts), 2)

    def test_a_failing_write_is_logged_and_ends_the_event(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        error = NastyError("write")
        self.start_logging(error=error)
        self.assertIsNone(callback.Callback(code, 3))
        self.assertIs(self.take_logged_one(NastyError), error)
        self.assertEqual(self.second.calls, [])

    def test_a_failing_write_ends_each_kind_of_answer(self):
        code, _ = self.internal_code()
        error = NastyError("write")
        for can_return_disable in (True, False):
            self.start_logging(error=error)
            callback = self.make_callback(xo.kPyLineEventId, can_return_disable)
            with self.assertRaises(NastyError):
                callback._SkipDetermination(code, 3)
        code, _ = self.known_code(3)
        CPerThread.GetPerThread().fDebugPolicy = 0
        with self.assertRaises(NastyError):
            callback._SkipDetermination(code, 3)

    def test_the_lines_follow_a_file_and_mask_that_change_in_between(self):
        code, _ = self.known_code(3)
        texts = []

        class Writer:
            def write(self, text):
                texts.append(text)
                change()

        for change in (lambda: xo.set_dprintf_mask(0), lambda: xo.set_dprintf_file(None, -1, None)):
            texts.clear()
            self.start_logging()
            xo.set_dprintf_file(Writer(), -1, None)
            self.assertEqual(self.make_callback(xo.kPyLineEventId).Callback(code, 3), "second")
            self.assertEqual(len(texts), 1)

    def test_each_line_is_one_string_in_one_write(self):
        code, _ = self.known_code(3)
        writer = self.start_logging()
        self.make_callback(xo.kPyLineEventId).Callback(code, 3)
        self.assertEqual([type(text) for text in writer.texts], [str, str])
        self.assertTrue(all(text.endswith("\n") for text in writer.texts))


class CallbackTest(EventTestCase):

    def test_the_second_callback_gets_exactly_the_interpreters_arguments(self):
        code, record = self.known_code(3)
        record.fEnabledBpLinenos = None
        for name, event_id in EVENT_IDS.items():
            for arguments in ((), (3,), (object(), object()), (object(),) * 5):
                with self.subTest(event=name, count=len(arguments)):
                    self.second.calls.clear()
                    self.make_callback(event_id).Callback(code, *arguments)
                    ((called_code, *called_arguments),) = self.second.calls
                    self.assertIs(called_code, code)
                    self.assertEqual(list(map(id, called_arguments)), list(map(id, arguments)))

    def test_what_the_second_callback_returns_is_returned_unchanged(self):
        code, _ = self.known_code(3)
        for result in (object(), None, False, True, 0, sys.monitoring.DISABLE):
            with self.subTest(result=result):
                self.second.result = result
                self.assertIs(self.make_callback(xo.kPyLineEventId).Callback(code, 3), result)

    def test_a_skipped_event_is_answered_none_without_a_call(self):
        code, _ = self.known_code(3)
        for name, event_id in EVENT_IDS.items():
            with self.subTest(event=name):
                self.assertIsNone(self.make_callback(event_id).Callback(code, 4))
        self.assertEqual(self.second.calls, [])

    def test_internal_code_is_answered_disable_without_a_call(self):
        code, _ = self.internal_code()
        for name, event_id in EVENT_IDS.items():
            with self.subTest(event=name):
                answer = self.make_callback(event_id, True).Callback(code, 4)
                self.assertIs(answer, sys.monitoring.DISABLE)
                self.assertIsNone(self.make_callback(event_id, False).Callback(code, 4))
        self.assertEqual(self.second.calls, [])

    def test_the_first_argument_of_a_line_event_is_the_line(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIsNone(callback.Callback(code, 4, 3))
        self.assertEqual(callback.Callback(code, 3, 4), "second")
        self.assertEqual(self.second.calls, [(code, 3, 4)])

    def test_a_line_event_without_arguments_has_none_for_its_line(self):
        code, record = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIsNone(callback.Callback(code))
        self.assertEqual(self.second.calls, [])
        record.fEnabledBpLinenos = {None}
        self.assertEqual(callback.Callback(code), "second")
        self.assertEqual(self.second.calls, [(code,)])

    def test_the_first_argument_of_any_other_event_is_no_line(self):
        code, _ = self.known_code(3)
        unhashable = []
        for name, event_id in EVENT_IDS.items():
            if name != "LINE":
                with self.subTest(event=name):
                    self.assertIsNone(self.make_callback(event_id).Callback(code, unhashable))
        self.assertIsNone(self.make_callback(xo.kPyLineEventId).Callback(code, unhashable))
        self.take_logged_one(TypeError)

    def test_a_missing_code_object_is_the_callers_error(self):
        callback = self.make_callback(xo.kPyStartEventId)
        self.assert_raises_text(TypeError, "argument is missing", callback.Callback)

    def test_unknown_keywords_are_the_callers_error(self):
        callback = self.make_callback(xo.kPyStartEventId)
        code, _ = self.known_code(3)
        for call, arguments in [(callback.Callback, ()), (xo.CInitialCallback.Callback, (callback,))]:
            self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                    call, *arguments, code, 0, offset=1)
            self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                    call, *arguments, code_object=code, offset=1)
            self.assert_raises_text(TypeError, "argument is missing", call, *arguments, offset=1)

    def test_the_code_object_can_be_given_by_name(self):
        second = Recorder("answer")
        callback = self.make_callback(1 << 20, second=second)
        code, _ = self.known_code(3)
        self.assertEqual(callback.Callback(code_object=code), "answer")
        self.assertEqual(xo.CInitialCallback.Callback(callback, code_object=code), "answer")
        self.assertEqual(second.calls, [(code,), (code,)])

    def test_a_code_object_given_twice_is_the_callers_error(self):
        callback = self.make_callback(xo.kPyStartEventId)
        code, _ = self.known_code(3)
        for call, arguments in [(callback.Callback, ()), (xo.CInitialCallback.Callback, (callback,))]:
            self.assert_raises_text(TypeError, "argument has both a positional value and a keyword value",
                                    call, *arguments, code, code_object=code)

    def test_one_callback_serves_many_threads_at_once(self):
        code, _ = self.known_code(3)
        results = []
        callback = self.make_callback(xo.kPyLineEventId, second=lambda code, line: threading.get_ident())
        start = threading.Barrier(8)

        def work():
            start.wait()
            answers = [callback.Callback(code, line) for _ in range(500) for line in (3, 4)]
            results.append(answers == [threading.get_ident(), None] * 500)

        threads = [threading.Thread(target=work) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(results, [True] * 8)

    def test_no_lock_is_held_while_the_second_callback_runs(self):
        code, record = self.known_code(3)

        def second(code, line):
            return in_new_thread(lambda: (callback.Callback(code, 4), record.fEnabledBpLinenos,
                                          CPerThread._fRegistryLock.locked()))

        callback = self.make_callback(xo.kPyLineEventId, second=second)
        self.assertEqual(callback.Callback(code, 3), (None, {3}, False))

    def test_the_second_callback_may_raise_the_same_event_again(self):
        code, _ = self.known_code(3)
        depths = []

        def second(code, line):
            depths.append(line)
            return callback.Callback(code, 3) if len(depths) < 5 else "deep"

        callback = self.make_callback(xo.kPyLineEventId, second=second)
        self.assertEqual(callback.Callback(code, 3), "deep")
        self.assertEqual(len(depths), 5)


class FailureTest(EventTestCase):

    def test_any_exception_of_the_second_callback_is_logged_and_answered_none(self):
        code, _ = self.known_code(3)
        for error in (NastyError("second"), KeyboardInterrupt(), SystemExit(2), GeneratorExit(),
                      StopIteration(), MemoryError(), RecursionError()):
            with self.subTest(error=error):
                self.second.error = error
                self.assertIsNone(self.make_callback(xo.kPyLineEventId).Callback(code, 3))
                self.assertEqual(self.log.calls, [((None, True), {})])
                self.assertIs(self.take_logged_one(type(error)), error)

    def test_a_second_callback_that_cannot_be_called_is_logged(self):
        code, _ = self.known_code(3)
        self.assertIsNone(self.make_callback(xo.kPyLineEventId, second=5).Callback(code, 3))
        self.take_logged_one(TypeError)

    def test_a_second_callback_that_was_never_set_is_logged(self):
        code, _ = self.known_code(3)
        callback = CInitialCallback.__new__(CInitialCallback)
        callback._fEventId = xo.kPyLineEventId
        self.assertIsNone(callback.Callback(code, 4))
        self.assertIsNone(callback.Callback(code, 3))
        self.assertEqual(str(self.take_logged_one(AttributeError)), "Attribute error")

    def test_the_logged_exception_has_its_traceback(self):
        code, _ = self.known_code(3)

        def second(code, line):
            raise NastyError("second")

        self.assertIsNone(self.make_callback(xo.kPyLineEventId, second=second).Callback(code, 3))
        error = self.take_logged_one(NastyError)
        names = []
        traceback = error.__traceback__
        while traceback is not None:
            names.append(traceback.tb_frame.f_code.co_name)
            traceback = traceback.tb_next
        self.assertEqual(names, ["second"])

    def test_no_exception_is_being_handled_afterwards(self):
        code, _ = self.known_code(3)
        self.second.error = NastyError("second")
        self.make_callback(xo.kPyLineEventId).Callback(code, 3)
        self.assertIsNone(sys.exception())
        self.take_logged_one(NastyError)

    def test_what_the_program_was_handling_is_being_handled_again_afterwards(self):
        code, _ = self.known_code(3)
        self.second.error = NastyError("second")
        callback = self.make_callback(xo.kPyLineEventId)
        try:
            raise KeyError("the program's")
        except KeyError as handled:
            callback.Callback(code, 3)
            self.assertIs(sys.exception(), handled)
            self.assertIsNone(handled.__context__)
            with self.assertRaises(KeyError) as caught:
                raise
            self.assertIs(caught.exception, handled)
        self.take_logged_one(NastyError)

    def test_an_exception_of_the_log_itself_reaches_the_caller(self):
        code, _ = self.known_code(3)
        self.second.error = NastyError("second")
        self.log.error = KeyError("log")
        with self.assertRaises(KeyError) as caught:
            self.make_callback(xo.kPyLineEventId).Callback(code, 3)
        self.assertIs(caught.exception, self.log.error)
        self.assertIs(caught.exception.__context__, self.second.error)
        self.assertIsNone(sys.exception())
        self.take_logged_one(NastyError)

    def test_an_exception_of_the_log_leaves_what_the_program_was_handling(self):
        code, _ = self.known_code(3)
        self.second.error = NastyError("second")
        self.log.error = KeyError("log")
        try:
            raise ValueError("the program's")
        except ValueError as handled:
            with self.assertRaises(KeyError):
                self.make_callback(xo.kPyLineEventId).Callback(code, 3)
            self.assertIs(sys.exception(), handled)
        self.take_logged_one(NastyError)

    def test_what_is_no_code_object_is_logged_with_the_interpreters_own_error(self):
        for value in (None, 5, "code", object()):
            with self.subTest(value=value):
                self.assertIsNone(self.make_callback(xo.kPyLineEventId).Callback(value, 3))
                self.take_logged_one(SystemError)

    def test_something_else_in_the_code_objects_slot_is_logged(self):
        code = make_code(SAMPLE)
        xo._Code_SetExtra(code, CPerCodeObject._fCodeObjectExtraIndex, "something else")
        self.assertIsNone(self.make_callback(xo.kPyLineEventId).Callback(code, 3))
        self.take_logged_one(TypeError)

    def test_a_failing_announcement_of_a_new_code_object_is_logged(self):
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(Recorder(error=NastyError("announced")))
        code = make_code(SAMPLE)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIsNone(callback.Callback(code, 3))
        self.take_logged_one(NastyError)
        self.assertEqual(callback.Callback(code, 3), "second")

    def test_a_failing_announcement_of_a_new_thread_is_logged(self):
        CPerThread.SetNewPerThreadCreatedCallback(Recorder(error=NastyError("announced")))
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIsNone(callback.Callback(code, 3))
        self.take_logged_one(NastyError)
        self.assertEqual(callback.Callback(code, 3), "second")

    def test_a_failing_search_for_the_threads_name_is_logged_each_time(self):
        CPerThread.SetGetThreadNameCallback(Recorder(error=NastyError("name")))
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        for _ in range(2):
            self.assertIsNone(callback.Callback(code, 3))
            self.take_logged_one(NastyError)
        self.assertEqual(self.second.calls, [])


class CodeRecordLookUpTest(EventTestCase):

    def setUp(self):
        super().setUp()
        self.callback = self.make_callback(xo.kPyStartEventId)

    def test_a_missing_record_is_made_with_the_running_frame_and_announced(self):
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        code = make_code(SAMPLE)
        record = find_code_record(self.callback, code)
        self.assertIs(type(record), CPerCodeObject)
        self.assertEqual(record.fCanonicalPathname, SAMPLE)
        self.assertIs(record.fUpdatePathnameNeeded, False)
        self.assertEqual(announced.calls, [(record,)])
        self.assertIs(CPerCodeObject.GetPerCodeObject(code, False), record)

    def test_a_known_record_is_found_and_not_announced_again(self):
        code, record = self.known_code(3)
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        self.assertIs(find_code_record(self.callback, code), record)
        self.assertEqual(announced.calls, [])

    def test_an_unsettled_record_is_settled_with_the_running_frame(self):
        code = make_code(SAMPLE)
        record = CPerCodeObject.GetPerCodeObject(code)
        self.assertIs(record.fUpdatePathnameNeeded, True)
        self.assertIs(find_code_record(self.callback, code), record)
        self.assertIs(record.fUpdatePathnameNeeded, False)
        self.assertIs(record.fIsInternalKnown, True)

    def test_the_running_frame_tells_the_file_of_frozen_code(self):
        for is_known in (False, True):
            with self.subTest(is_known=is_known):
                code = make_code("<frozen sample>")
                if is_known:
                    record = CPerCodeObject.GetPerCodeObject(code)
                    self.assertEqual(record.fCanonicalPathname, "<frozen sample>")
                found = in_frame_of(code, lambda frame: find_code_record(self.callback, code),
                                    __file__="/srv/app/thawed.pyc")
                self.assertEqual(found.fCanonicalPathname, "/srv/app/thawed.py")
                if is_known:
                    self.assertIs(found, record)

    def test_a_settled_record_is_not_looked_at_again(self):
        code = make_code("<frozen sample>")
        record = CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
        in_frame_of(code, lambda frame: find_code_record(self.callback, code), __file__="/srv/app/thawed.py")
        self.assertEqual(record.fCanonicalPathname, "<frozen sample>")

    def test_settling_shows_whose_code_it_is(self):
        xo.SetInternalPathnameDict({"/srv/app/thawed.py": 1})
        code = make_code("<frozen sample>")
        record = CPerCodeObject.GetPerCodeObject(code)
        record.fEnabledBpLinenos = set()
        callback = self.make_callback(xo.kPyStartEventId, True)
        answer = in_frame_of(code, lambda frame: callback.Callback(code, 0), __file__="/srv/app/thawed.py")
        self.assertIs(answer, xo.kSysMonitoringDisable)
        self.assertIs(record.fIsInternal, True)

    def test_without_an_extra_slot_the_records_are_found_by_weak_reference(self):
        CPerCodeObject._fCodeObjectExtraIndex = -1
        code = make_code(SAMPLE)
        record = find_code_record(self.callback, code)
        self.assertEqual(list(CPerCodeObject._fPerCodeObjectDict.values()), [record])
        self.assertIs(find_code_record(self.callback, code), record)
        record.fEnabledBpLinenos = {3}
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIsNone(callback.Callback(code, 4))
        self.assertEqual(callback.Callback(code, 3), "second")

    def test_without_an_extra_slot_an_unsettled_record_is_settled_as_well(self):
        CPerCodeObject._fCodeObjectExtraIndex = -1
        code = make_code(SAMPLE)
        record = CPerCodeObject.GetPerCodeObject(code)
        self.assertIs(record.fUpdatePathnameNeeded, True)
        self.assertIs(find_code_record(self.callback, code), record)
        self.assertIs(record.fUpdatePathnameNeeded, False)

    def test_what_is_no_code_object_gives_the_interpreters_own_error(self):
        with self.assertRaises(SystemError):
            find_code_record(self.callback, "code")
        CPerCodeObject._fCodeObjectExtraIndex = -1
        with self.assertRaises(TypeError):
            find_code_record(self.callback, 5)


class ThreadRecordLookUpTest(EventTestCase):

    def setUp(self):
        super().setUp()
        self.callback = self.make_callback(xo.kPyStartEventId)

    def test_the_record_of_the_calling_thread_is_made_once(self):
        record = find_thread_record(self.callback)
        self.assertEqual(record.fThreadId, threading.get_ident())
        self.assertIs(find_thread_record(self.callback), record)
        self.assertIs(CPerThread.GetPerThread(), record)
        other = in_new_thread(find_thread_record, self.callback)
        self.assertIsNot(other, record)

    def test_the_name_is_looked_for_until_it_is_known(self):
        names = Recorder(result=None)
        CPerThread.SetGetThreadNameCallback(names)
        record = find_thread_record(self.callback)
        find_thread_record(self.callback)
        self.assertEqual(names.calls, [(record,)] * 2)
        names.result = "main"
        find_thread_record(self.callback)
        find_thread_record(self.callback)
        self.assertEqual(names.calls, [(record,)] * 3)
        self.assertEqual(record.fThreadName, "main")

    def test_a_name_that_is_false_is_a_name(self):
        names = Recorder(result="asked")
        CPerThread.SetGetThreadNameCallback(names)
        CPerThread.GetPerThread().fThreadName = ""
        self.assertEqual(find_thread_record(self.callback).fThreadName, "")
        self.assertEqual(names.calls, [])

    def test_a_thread_inside_its_own_clean_up_has_no_record_to_read_a_name_from(self):
        CPerThread._fCleanedUpThreadIds.add(threading.get_ident())
        CPerThread._fDestructorActiveThreadIds.add(threading.get_ident())
        self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'fThreadName'",
                                find_thread_record, self.callback)

    def test_the_look_up_asks_for_no_debug_policy(self):
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        code, _ = self.known_code(3)
        self.assertEqual(self.make_callback(xo.kPyLineEventId).Callback(code, 3), "second")
        self.assertEqual(policies.calls, [])
        self.assertEqual(CPerThread.GetPerThread().fDebugPolicy, -1)


class BoundCallbackTest(EventTestCase):

    def test_the_bound_method_can_be_kept_and_keeps_its_instance(self):
        code, _ = self.known_code(3)
        bound = self.make_callback(xo.kPyLineEventId).Callback
        gc.collect()
        self.assertTrue(callable(bound))
        self.assertEqual(bound(code, 3), "second")

    def test_the_method_can_be_called_through_the_class(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertEqual(CInitialCallback.Callback(callback, code, 3), "second")

    def test_a_subclass_made_in_python_serves_as_well(self):
        class Counting(CInitialCallback):
            pass

        code, _ = self.known_code(3)
        callback = Counting(xo.kPyLineEventId, self.second, True)
        self.assertIsNone(callback.Callback(code, 4))
        self.assertEqual(callback.Callback(code, 3), "second")
        callback.fAnySuspendThread = True
        self.assertIs(callback.fAnySuspendThread, True)

    def test_the_answers_of_two_instances_do_not_depend_on_each_other(self):
        code, _ = self.known_code(3)
        lines, starts = self.make_callback(xo.kPyLineEventId), self.make_callback(xo.kPyStartEventId)
        lines.fSteppingEventsNeededEveryThread = True
        self.assertIs(starts.fSteppingEventsNeededEveryThread, False)
        self.assertEqual(lines.Callback(code, 3), "second")
        self.assertIsNone(starts.Callback(code, 3))

    def test_a_foreign_event_reaches_the_second_callback_with_all_its_arguments(self):
        code, _ = self.known_code(3)
        callback = self.make_callback(FOREIGN_EVENT_ID)
        self.assertEqual(callback.Callback(code, 0, len, types), "second")
        self.assertEqual(self.second.calls, [(code, 0, len, types)])

    def test_an_event_id_assigned_later_counts_for_callables_handed_out_before(self):
        code, record = self.known_code(3)
        record.fReturnEventsNeededCount = 1
        CPerThread.GetPerThread()
        wanted = {"LINE": False, "PY_START": False, "PY_RETURN": True, "PY_RESUME": False, "PY_YIELD": True}
        ids = {**EVENT_IDS, "foreign": FOREIGN_EVENT_ID}
        for before in ids:
            for after in ids:
                with self.subTest(before=before, after=after):
                    callback = self.make_callback(ids[before])
                    bound = callback.Callback
                    bound(code, 4)
                    callback._fEventId = ids[after]
                    for _ in range(2):  # the first call may settle what the event is
                        self.assertEqual(bound(code, 4), "second" if wanted.get(after, True) else None)
                    self.assertEqual(bound(code, 3), "second" if wanted.get(after, True) or after == "LINE" else None)

    def test_an_event_id_set_by_an_initialisation_that_is_refused_counts_as_well(self):
        code, record = self.known_code(3)
        record.fReturnEventsNeededCount = 1
        callback = self.make_callback(xo.kPyReturnEventId)
        bound = callback.Callback
        for _ in range(2):
            self.assertEqual(bound(code, 4), "second")
        with self.assertRaises(AttributeError):
            callback.__init__(xo.kPyLineEventId, Recorder(), False)
        for _ in range(2):
            self.assertIsNone(bound(code, 4))
            self.assertEqual(bound(code, 3), "second")

    def test_attributes_that_the_callable_lacks_are_its_functions(self):
        bound, function = self.make_callback(xo.kPyLineEventId).Callback, CInitialCallback.Callback
        for name in ("__name__", "__qualname__", "__text_signature__"):
            self.assertEqual(getattr(bound, name), getattr(function, name))
        self.assertRaises(AttributeError, getattr, bound, "no_such_name")

    def test_callables_are_equal_where_their_instances_are_the_same(self):
        one, other = self.make_callback(xo.kPyLineEventId), self.make_callback(xo.kPyLineEventId)
        self.assertIs(one.Callback == one.Callback, True)
        self.assertIs(one.Callback != one.Callback, False)
        self.assertIs(one.Callback == other.Callback, False)
        self.assertIs(one.Callback != other.Callback, True)
        self.assertNotEqual(one.Callback, CInitialCallback.Callback)
        self.assertEqual(hash(one.Callback), hash(one.Callback))
        with self.assertRaises(TypeError):
            one.Callback < one.Callback

    def test_a_finalised_callable_has_nothing_to_answer_with(self):
        """Anybody can call a finaliser; the entry for frequent events does not ask whether there is an instance."""
        code, _ = self.known_code(3)
        for name, event_id in EVENT_IDS.items():
            with self.subTest(event=name):
                bound = self.make_callback(event_id).Callback
                for _ in range(2):
                    self.assertIsNone(bound(code, 4))
                bound.__del__()
                for _ in range(2):
                    self.assert_raises_text(AttributeError, "Attribute error", bound, code, 4)

    def test_a_line_event_without_a_line_has_the_line_none(self):
        code, record = self.known_code(3)
        bound = self.make_callback(xo.kPyLineEventId).Callback
        self.assertIsNone(bound(code))
        record.fEnabledBpLinenos.add(None)
        self.assertEqual(bound(code), "second")
        self.assertEqual(self.second.calls, [(code,)])

    def test_a_callable_may_be_let_go_while_a_breakpoint_is_compared(self):
        class Unregistering:
            """Stands in a set of breakpoints in the place of line 4."""

            def __hash__(self):
                return hash(4)

            def __eq__(self, other):
                sys.monitoring.register_callback(4, sys.monitoring.events.LINE, None)
                instances.clear()
                gc.collect()
                return other == equal_to

        for equal_to in (4, "no line"):
            code, record = self.known_code(source=f"a = {equal_to!r}\n" + "b = 2\n" * 5)
            record.fEnabledBpLinenos = {Unregistering()}
            calls = []
            instances = [CInitialCallback(xo.kPyLineEventId, lambda *args: calls.append(args), False)]
            alive = weakref.ref(instances[0].Callback)
            sys.monitoring.use_tool_id(4, "unregistering")
            try:
                sys.monitoring.register_callback(4, sys.monitoring.events.LINE, instances[0].Callback)
                sys.monitoring.set_local_events(4, code, sys.monitoring.events.LINE)
                exec(code)
            finally:
                sys.monitoring.free_tool_id(4)
            self.assertEqual(instances, [])
            self.assertIsNone(alive())
            self.assertEqual(calls, [(code, 4)] if equal_to == 4 else [])


if __name__ == "__main__":
    unittest.main()
