"""What the first stage decides, by direct calls: the whole decision table, and the order of its tests."""

import functools
import gc
import itertools
import threading
import unittest
import weakref

from code_helpers import in_forked_child, make_code
from event_helpers import EVENT_IDS, FOREIGN_EVENT_ID, SAMPLE, EventTestCase, in_new_thread
from support import NastyError, Recorder, RecordingWriter, raising, reentering, xo

CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread

DISABLE = xo.kSysMonitoringDisable
SKIP = None
CALL = False

LINE_WITH_BREAKPOINT = 3
LINE_WITHOUT = 4


class DecisionTestCase(EventTestCase):

    def set_thread(self, **fields):
        """The calling thread's record with these fields."""
        record = CPerThread.GetPerThread()
        for name, value in fields.items():
            setattr(record, name, value)
        return record

    def assert_decision(self, expected, callback, code, lineno=None):
        self.assertIs(callback._SkipDetermination(code, lineno), expected)


class DecisionTableTest(DecisionTestCase):
    """A debugged thread that is not stepping, in code of the program's whose breakpoints are known."""

    def decide(self, event, lineno=None, **counts):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        for name, value in counts.items():
            setattr(record, name, value)
        self.set_thread(fDebugPolicy=1)
        callback = self.make_callback(EVENT_IDS[event], True)
        decision = callback._SkipDetermination(code, lineno)
        self.second.calls.clear()
        answer = callback.Callback(code, lineno)
        self.assertEqual(answer, "second" if decision is CALL else None)
        self.assertEqual(self.second.calls, [(code, lineno)] if decision is CALL else [])
        return decision

    def test_a_line_with_a_breakpoint_reaches_the_second_callback(self):
        self.assertIs(self.decide("LINE", LINE_WITH_BREAKPOINT), CALL)

    def test_a_line_without_a_breakpoint_is_skipped(self):
        self.assertIs(self.decide("LINE", LINE_WITHOUT), SKIP)

    def test_a_start_is_skipped(self):
        self.assertIs(self.decide("PY_START"), SKIP)

    def test_a_resumption_is_skipped(self):
        self.assertIs(self.decide("PY_RESUME"), SKIP)

    def test_a_return_and_a_yield_are_skipped(self):
        self.assertIs(self.decide("PY_RETURN"), SKIP)
        self.assertIs(self.decide("PY_YIELD"), SKIP)

    def test_a_return_and_a_yield_reach_the_second_callback_where_return_events_are_needed(self):
        self.assertIs(self.decide("PY_RETURN", fReturnEventsNeededCount=1), CALL)
        self.assertIs(self.decide("PY_YIELD", fReturnEventsNeededCount=1), CALL)

    def test_needed_return_events_matter_to_no_other_event(self):
        self.assertIs(self.decide("PY_START", fReturnEventsNeededCount=1), SKIP)
        self.assertIs(self.decide("PY_RESUME", fReturnEventsNeededCount=1), SKIP)
        self.assertIs(self.decide("LINE", LINE_WITHOUT, fReturnEventsNeededCount=1), SKIP)

    def test_any_count_but_zero_is_a_need(self):
        for count in (1, 5, -1, 2 ** 63 - 1, -2 ** 63):
            with self.subTest(count=count):
                self.assertIs(self.decide("PY_RETURN", fReturnEventsNeededCount=count), CALL)
                self.assertIs(self.decide("LINE", LINE_WITHOUT, fSteppingEventsNeededCount=count), CALL)

    def test_every_event_of_code_that_is_stepped_through_reaches_the_second_callback(self):
        for event in EVENT_IDS:
            with self.subTest(event=event):
                self.assertIs(self.decide(event, LINE_WITHOUT, fSteppingEventsNeededCount=1), CALL)

    def test_every_event_of_code_whose_breakpoints_are_unknown_reaches_the_second_callback(self):
        for event in EVENT_IDS:
            with self.subTest(event=event):
                self.assertIs(self.decide(event, LINE_WITHOUT, fEnabledBpLinenos=None), CALL)

    def test_code_without_any_breakpoint_is_skipped_altogether(self):
        for event in EVENT_IDS:
            with self.subTest(event=event):
                self.assertIs(self.decide(event, LINE_WITH_BREAKPOINT, fEnabledBpLinenos=set()), SKIP)

    def test_every_combination_is_decided_by_the_first_rule_that_applies(self):
        events = (*EVENT_IDS, "FOREIGN")
        breakpoints = ("unknown", "here", "elsewhere")
        flags = (False, True)
        record_of = {}
        for is_internal in flags:
            make = self.internal_code if is_internal else self.known_code
            record_of[is_internal] = make()
        thread = self.set_thread()
        decided = set()
        for case in itertools.product(events, breakpoints, flags, flags, flags, flags, (-1, 0, 1),
                                      flags, flags, flags):
            (event, breakpoint, internal, can_disable, suspend, every_thread, policy,
             thread_steps, code_steps, returns_needed) = case
            if internal:
                expected = DISABLE if can_disable else SKIP
            elif (event == "LINE" and breakpoint == "elsewhere"
                  and not (suspend or every_thread or code_steps)):
                expected = SKIP
            elif policy == 0:
                expected = SKIP
            elif event == "FOREIGN" or thread_steps or code_steps or breakpoint == "unknown":
                expected = CALL
            elif event == "LINE" and breakpoint == "here":
                expected = CALL
            elif event in ("PY_RETURN", "PY_YIELD") and returns_needed:
                expected = CALL
            else:
                expected = SKIP
            code, record = record_of[internal]
            record.fEnabledBpLinenos = {"unknown": None, "here": {7}, "elsewhere": {8}}[breakpoint]
            record.fSteppingEventsNeededCount = int(code_steps)
            record.fReturnEventsNeededCount = int(returns_needed)
            thread.fDebugPolicy = policy
            thread.fSteppingEventsNeeded = thread_steps
            callback = self.make_callback(EVENT_IDS.get(event, FOREIGN_EVENT_ID), can_disable)
            callback.fAnySuspendThread = suspend
            callback.fSteppingEventsNeededEveryThread = every_thread
            self.assertIs(callback._SkipDetermination(code, 7), expected, case)
            decided.add(expected)
        self.assertEqual(decided, {SKIP, CALL, DISABLE})


class InternalCodeTest(DecisionTestCase):

    def test_internal_code_is_switched_off_where_that_may_be_answered_and_ignored_where_not(self):
        code, _ = self.internal_code()
        for event_id in (*EVENT_IDS.values(), FOREIGN_EVENT_ID):
            with self.subTest(event_id=event_id):
                self.assert_decision(DISABLE, self.make_callback(event_id, True), code, LINE_WITHOUT)
                self.assert_decision(SKIP, self.make_callback(event_id, False), code, LINE_WITHOUT)

    def test_neither_breakpoints_nor_stepping_nor_suspension_matter_in_internal_code(self):
        code, record = self.internal_code()
        record.fEnabledBpLinenos = raising("__contains__")
        record.fSteppingEventsNeededCount = record.fReturnEventsNeededCount = 1
        thread = self.set_thread(fSteppingEventsNeeded=True, fDebugPolicy=0, fCheckSuspendLock=True)
        for event_id in EVENT_IDS.values():
            callback = self.make_callback(event_id, True)
            callback.fAnySuspendThread = callback.fSteppingEventsNeededEveryThread = True
            with thread.fSuspendLock:
                self.assert_decision(DISABLE, callback, code, LINE_WITH_BREAKPOINT)

    def test_internal_code_is_answered_without_a_look_at_the_thread(self):
        code, _ = self.internal_code()
        for can_return_disable in (True, False):
            self.make_callback(xo.kPyStartEventId, can_return_disable).Callback(code, 0)
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_code_that_nobody_met_before_gets_its_record_first(self):
        xo.SetInternalPathnameDict({SAMPLE: 1})
        code = make_code(SAMPLE)
        self.assert_decision(DISABLE, self.make_callback(xo.kPyStartEventId, True), code)
        self.assertIs(CPerCodeObject.GetPerCodeObject(code, False).fIsInternal, True)

    def test_the_record_decides_and_not_the_dictionary_of_the_moment(self):
        code, record = self.internal_code()
        xo.SetInternalPathnameDict({})
        callback = self.make_callback(xo.kPyStartEventId, True)
        self.assert_decision(DISABLE, callback, code)
        record.fIsInternal = False
        self.assert_decision(SKIP, callback, code)


class LineFilterTest(DecisionTestCase):

    def test_a_line_without_a_breakpoint_is_skipped_without_a_look_at_the_thread(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.assert_decision(SKIP, self.make_callback(xo.kPyLineEventId), code, LINE_WITHOUT)
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_every_other_event_looks_at_the_thread(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        for name, event_id in EVENT_IDS.items():
            if name != "LINE":
                with self.subTest(event=name):
                    xo.reset()
                    self.assert_decision(SKIP, self.make_callback(event_id), code, LINE_WITHOUT)
                    self.assertEqual(list(CPerThread._fPerThreadDict), [threading.get_ident()])

    def test_a_flag_of_the_instance_takes_line_events_past_the_filter_to_the_same_answer(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        for flag in ("fAnySuspendThread", "fSteppingEventsNeededEveryThread"):
            with self.subTest(flag=flag):
                xo.reset()
                callback = self.make_callback(xo.kPyLineEventId)
                setattr(callback, flag, True)
                self.assert_decision(SKIP, callback, code, LINE_WITHOUT)
                self.assertEqual(list(CPerThread._fPerThreadDict), [threading.get_ident()])

    def test_stepping_in_every_thread_does_not_by_itself_reach_the_second_callback(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        for event_id in EVENT_IDS.values():
            callback = self.make_callback(event_id)
            callback.fSteppingEventsNeededEveryThread = True
            self.assert_decision(SKIP, callback, code, LINE_WITHOUT)
            self.set_thread(fSteppingEventsNeeded=True)
            self.assert_decision(CALL, callback, code, LINE_WITHOUT)
            self.set_thread(fSteppingEventsNeeded=False)

    def test_a_stepping_thread_is_filtered_where_its_code_object_does_not_count_it(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.set_thread(fSteppingEventsNeeded=True)
        self.assert_decision(SKIP, self.make_callback(xo.kPyLineEventId), code, LINE_WITHOUT)

    def test_lines_are_found_by_hash_and_equality(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assert_decision(CALL, callback, code, float(LINE_WITH_BREAKPOINT))
        self.assert_decision(SKIP, callback, code, str(LINE_WITH_BREAKPOINT))

    def test_any_container_of_lines_serves(self):
        code, record = self.known_code()
        callback = self.make_callback(xo.kPyLineEventId)
        for container in (frozenset({3}), type("Lines", (set,), {})({3}), {3: "breakpoint"}):
            with self.subTest(container=container):
                record.fEnabledBpLinenos = container
                self.assert_decision(CALL, callback, code, 3)
                self.assert_decision(SKIP, callback, code, 4)

    def test_an_error_of_the_search_reaches_the_caller(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        callback = self.make_callback(xo.kPyLineEventId)
        with self.assertRaises(TypeError):
            callback._SkipDetermination(code, [])
        with self.assertRaises(NastyError):
            callback._SkipDetermination(code, raising("__hash__"))
        record.fEnabledBpLinenos = 5
        with self.assertRaises(TypeError):
            callback._SkipDetermination(code, LINE_WITHOUT)
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_the_breakpoints_may_change_while_they_are_searched(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        searched = []

        def forget():
            searched.append(True)
            record.fEnabledBpLinenos = None

        lineno = reentering(forget, "__eq__", "__hash__")
        type(lineno).__hash__ = lambda self: hash(LINE_WITH_BREAKPOINT)
        self.assert_decision(SKIP, self.make_callback(xo.kPyLineEventId), code, lineno)
        self.assertEqual(searched, [True])


class DebugPolicyTest(DecisionTestCase):

    def test_a_thread_of_policy_zero_never_reaches_the_second_callback(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        record.fSteppingEventsNeededCount = record.fReturnEventsNeededCount = 1
        self.set_thread(fDebugPolicy=0, fSteppingEventsNeeded=True)
        for event_id in (*EVENT_IDS.values(), FOREIGN_EVENT_ID):
            with self.subTest(event_id=event_id):
                callback = self.make_callback(event_id, True)
                self.assertIsNone(callback.Callback(code, LINE_WITH_BREAKPOINT))
        self.assertEqual(self.second.calls, [])

    def test_any_other_policy_is_debugged_and_nobody_is_asked(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        for policy in (-1, 1, 2, -2):
            with self.subTest(policy=policy):
                self.set_thread(fDebugPolicy=policy)
                self.assert_decision(CALL, self.make_callback(xo.kPyLineEventId), code, LINE_WITH_BREAKPOINT)
        self.assertEqual(policies.calls, [])

    def test_a_policy_asked_for_when_the_thread_is_announced_holds_from_its_first_event_on(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        CPerThread.SetDebugPolicyCallback(Recorder(result=0))
        CPerThread.SetNewPerThreadCreatedCallback(lambda record: record.GetDebugPolicy())
        self.assert_decision(SKIP, self.make_callback(xo.kPyLineEventId), code, LINE_WITH_BREAKPOINT)

    def test_the_policy_comes_before_the_suspension(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        thread = self.set_thread(fDebugPolicy=0, fCheckSuspendLock=True)
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True
        with thread.fSuspendLock:
            self.assert_decision(SKIP, callback, code, LINE_WITH_BREAKPOINT)

    def test_the_policy_comes_after_the_name(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        names = Recorder(result="main")
        CPerThread.SetGetThreadNameCallback(names)
        self.set_thread(fDebugPolicy=0)
        self.assert_decision(SKIP, self.make_callback(xo.kPyLineEventId), code, LINE_WITH_BREAKPOINT)
        self.assertEqual(len(names.calls), 1)


class OrderTest(DecisionTestCase):

    def test_the_suspension_comes_before_the_last_filter(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        steps = []

        class Lock:
            def acquire(self):
                steps.append("acquire")
                record.fEnabledBpLinenos = set()

            def release(self):
                steps.append("release")

        thread = self.set_thread(fCheckSuspendLock=True, fSuspendLock=Lock())
        thread.fSteppingEventsNeeded = reentering(lambda: steps.append("stepping"), "__bool__")
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True
        self.assert_decision(CALL, callback, code, LINE_WITH_BREAKPOINT)
        self.assertEqual(steps, ["acquire", "release", "stepping"])

    def test_the_last_filter_looks_again_at_what_changed_during_the_suspension(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        lock = type("Lock", (), {"release": Recorder()})()
        lock.acquire = lambda: setattr(record, "fEnabledBpLinenos", set())
        self.set_thread(fCheckSuspendLock=True, fSuspendLock=lock)
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True
        self.assert_decision(SKIP, callback, code, LINE_WITH_BREAKPOINT)

    def test_no_suspension_takes_place_while_the_instance_asks_for_none(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        thread = self.set_thread(fCheckSuspendLock=True)
        with thread.fSuspendLock:
            self.assert_decision(CALL, self.make_callback(xo.kPyLineEventId), code, LINE_WITH_BREAKPOINT)

    def test_a_line_without_a_breakpoint_passes_through_the_suspension_and_is_skipped(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        lock = type("Lock", (), {"acquire": Recorder(), "release": Recorder()})()
        self.set_thread(fCheckSuspendLock=True, fSuspendLock=lock)
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True
        self.assertIsNone(callback.Callback(code, LINE_WITHOUT))
        self.assertEqual((lock.acquire.calls, lock.release.calls), ([()], [()]))
        self.assertEqual(self.second.calls, [])

    def test_the_code_objects_record_is_made_before_the_threads(self):
        order = []
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: order.append("code object"))
        CPerThread.SetNewPerThreadCreatedCallback(lambda record: order.append("thread"))
        CPerThread.SetGetThreadNameCallback(lambda record: order.append("name"))
        self.assert_decision(CALL, self.make_callback(xo.kPyStartEventId), make_code(SAMPLE))
        self.assertEqual(order, ["code object", "thread", "name"])

    def test_an_error_of_the_truth_of_stepping_reaches_the_caller(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        self.set_thread(fSteppingEventsNeeded=raising("__bool__"))
        for event_id in EVENT_IDS.values():
            with self.assertRaises(NastyError):
                self.make_callback(event_id)._SkipDetermination(code, LINE_WITH_BREAKPOINT)

    def test_a_field_of_a_half_built_record_that_was_never_set_is_an_error(self):
        code, record = self.known_code(LINE_WITH_BREAKPOINT)
        half_built = CPerThread.__new__(CPerThread)
        half_built.fDebugPolicy = 1
        half_built.fThreadName = "half"
        xo._CPerThreadTssCache.Store(half_built)
        self.assert_raises_text(AttributeError, "Attribute error",
                                self.make_callback(xo.kPyStartEventId)._SkipDetermination, code, None)
        self.assertEqual(record.fEnabledBpLinenos, {LINE_WITH_BREAKPOINT})

    def test_arguments_may_be_given_by_name_and_both_are_needed(self):
        code, _ = self.known_code(LINE_WITH_BREAKPOINT)
        callback = self.make_callback(xo.kPyLineEventId)
        self.assertIs(callback._SkipDetermination(lineno_obj=LINE_WITH_BREAKPOINT, code_object=code), CALL)
        self.assert_raises_text(TypeError, "argument is missing", callback._SkipDetermination, code)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                callback._SkipDetermination, code, 1, 2)


class SecondCallbackFilterTest(DecisionTestCase):

    def setUp(self):
        super().setUp()
        self.code, self.record = self.known_code(LINE_WITH_BREAKPOINT)
        self.thread = self.set_thread()

    def skips(self, event_id, lineno=None):
        answer = self.make_callback(event_id)._SkipSecondCallback(self.code, self.record, self.thread, lineno)
        self.assertIs(type(answer), bool)
        return answer

    def test_an_unknown_event_is_called_before_anything_else_is_looked_at(self):
        self.thread.fSteppingEventsNeeded = raising("__bool__")
        self.record.fEnabledBpLinenos = raising("__contains__")
        for event_id in (FOREIGN_EVENT_ID, 0, -1, 2 ** 40):
            with self.subTest(event_id=event_id):
                self.assertIs(self.skips(event_id, LINE_WITHOUT), False)

    def test_a_stepping_thread_comes_before_the_code_objects_count(self):
        self.record.fSteppingEventsNeededCount = 1
        self.thread.fSteppingEventsNeeded = raising("__bool__")
        for event_id in EVENT_IDS.values():
            with self.assertRaises(NastyError):
                self.skips(event_id)

    def test_anything_true_is_stepping(self):
        for value, skipped in ((True, False), (1, False), ("yes", False),
                               (False, True), (0, True), (None, True)):
            with self.subTest(value=value):
                self.thread.fSteppingEventsNeeded = value
                self.assertIs(self.skips(xo.kPyStartEventId), skipped)

    def test_the_count_comes_before_the_breakpoints(self):
        self.record.fSteppingEventsNeededCount = 1
        self.record.fEnabledBpLinenos = raising("__contains__")
        for event_id in EVENT_IDS.values():
            self.assertIs(self.skips(event_id, LINE_WITHOUT), False)

    def test_unknown_breakpoints_come_before_the_search_and_the_returns(self):
        self.record.fEnabledBpLinenos = None
        for event_id in EVENT_IDS.values():
            self.assertIs(self.skips(event_id, []), False)

    def test_only_line_events_search_for_the_line(self):
        self.record.fEnabledBpLinenos = raising("__contains__")
        for name, event_id in EVENT_IDS.items():
            with self.subTest(event=name):
                if name == "LINE":
                    with self.assertRaises(NastyError):
                        self.skips(event_id, LINE_WITHOUT)
                else:
                    self.assertIs(self.skips(event_id, LINE_WITHOUT), True)

    def test_a_line_is_called_where_it_has_a_breakpoint(self):
        self.assertIs(self.skips(xo.kPyLineEventId, LINE_WITH_BREAKPOINT), False)
        self.assertIs(self.skips(xo.kPyLineEventId, LINE_WITHOUT), True)
        self.assertIs(self.skips(xo.kPyLineEventId, None), True)

    def test_returns_and_yields_are_called_where_return_events_are_needed(self):
        for count in (0, 1, -1):
            self.record.fReturnEventsNeededCount = count
            for name, event_id in EVENT_IDS.items():
                with self.subTest(event=name, count=count):
                    called = count != 0 and name in ("PY_RETURN", "PY_YIELD")
                    self.assertIs(self.skips(event_id, LINE_WITHOUT), not called)

    def test_the_instances_flags_do_not_matter_here(self):
        for event_id in EVENT_IDS.values():
            callback = self.make_callback(event_id)
            callback.fAnySuspendThread = callback.fSteppingEventsNeededEveryThread = True
            answer = callback._SkipSecondCallback(self.code, self.record, self.thread, LINE_WITHOUT)
            self.assertIs(answer, True)

    def test_an_unknown_event_is_called_whatever_the_records_are(self):
        callback = self.make_callback(FOREIGN_EVENT_ID)
        for record in (self.record, None, 5):
            for thread in (self.thread, None, 5):
                with self.subTest(record=record, thread=thread):
                    self.assertIs(callback._SkipSecondCallback(self.code, record, thread, LINE_WITHOUT), False)

    def test_the_threads_record_is_read_first_and_the_code_objects_where_the_thread_is_not_stepping(self):
        no_thread = (AttributeError, "'NoneType' object has no attribute 'fSteppingEventsNeeded'")
        no_record = (AttributeError, "'NoneType' object has no attribute 'fSteppingEventsNeededCount'")
        for name, event_id in EVENT_IDS.items():
            callback = self.make_callback(event_id)
            for record, thread, expected in (
                    (None, None, no_thread), (5, None, no_thread), (self.record, None, no_thread),
                    (None, 5, (TypeError, "expected CPerThread instance, got 5")),
                    (None, self.thread, no_record),
                    (5, self.thread, (TypeError, "expected CPerCodeObject instance, got 5"))):
                with self.subTest(event=name, record=record, thread=thread):
                    self.assert_raises_text(*expected, callback._SkipSecondCallback, self.code, record, thread,
                                            LINE_WITHOUT)
        self.thread.fSteppingEventsNeeded = True
        for name, event_id in EVENT_IDS.items():
            for record in (None, 5):
                with self.subTest(event=name, record=record):
                    answer = self.make_callback(event_id)._SkipSecondCallback(self.code, record, self.thread, None)
                    self.assertIs(answer, False)

    def test_nothing_is_written_by_the_filter(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(1023)
        for event_id in EVENT_IDS.values():
            self.skips(event_id, LINE_WITH_BREAKPOINT)
        self.assertEqual(writer.texts, [])


def for_each_event(test):
    """A test that is made for each of the five events, which the thread has met in this code before."""
    @functools.wraps(test)
    def run(self):
        for name, event_id in EVENT_IDS.items():
            with self.subTest(event=name):
                self.meet(event_id)
                test(self, name)
    return run


class RecentCodeTest(DecisionTestCase):
    """The decision for code that the thread has run lately, for which there are shorter roads: every change of what it
    depends on counts at the next event."""

    def setUp(self):
        super().setUp()
        self.code, self.record = self.known_code(LINE_WITH_BREAKPOINT)
        self.thread = self.set_thread(fDebugPolicy=1, fThreadName="main")

    def meet(self, event_id):
        """Raises the event a few times; the thread's part of the decision comes to "skip" as well."""
        self.callback = self.make_callback(event_id, True)
        self.callback.fAnySuspendThread = True
        self.raise_event = self.callback.Callback
        for _ in range(3):
            self.assert_skipped()

    def assert_called(self, lineno=LINE_WITHOUT):
        self.assertEqual(self.raise_event(self.code, lineno), "second")
        self.assertEqual(self.second.calls, [(self.code, lineno)])
        self.second.calls.clear()

    def assert_skipped(self, lineno=LINE_WITHOUT):
        self.assertIsNone(self.raise_event(self.code, lineno))
        self.assertEqual(self.second.calls, [])

    @for_each_event
    def test_a_thread_that_begins_to_step_is_passed_on(self, _):
        self.thread.fSteppingEventsNeeded = True
        self.assert_called()
        self.thread.fSteppingEventsNeeded = False
        self.assert_skipped()

    @for_each_event
    def test_a_stepping_thread_that_is_not_debugged_any_more_is_skipped(self, _):
        self.thread.fSteppingEventsNeeded, self.thread.fDebugPolicy = True, 0
        self.assert_skipped()
        self.thread.fSteppingEventsNeeded, self.thread.fDebugPolicy = False, 1

    @for_each_event
    def test_a_policy_that_is_to_be_asked_for_again_is_not_zero(self, _):
        self.thread.fDebugPolicy = -1
        self.assert_skipped()
        self.thread.fSteppingEventsNeeded = True
        self.assert_called()
        self.thread.fSteppingEventsNeeded = False

    @for_each_event
    def test_a_thread_that_is_to_be_held_passes_through_its_lock(self, _):
        lock = threading.Lock()
        self.thread.fSuspendLock, self.thread.fCheckSuspendLock = WatchedLock(lock), True
        self.assert_skipped()
        self.assertEqual(self.thread.fSuspendLock.seen, ["acquire", "release"])
        self.thread.fCheckSuspendLock = False
        self.assert_skipped()
        self.assertEqual(self.thread.fSuspendLock.seen, ["acquire", "release"])

    @for_each_event
    def test_a_lock_is_not_passed_through_while_no_thread_is_to_be_held(self, _):
        self.thread.fSuspendLock, self.thread.fCheckSuspendLock = WatchedLock(threading.Lock()), True
        self.callback.fAnySuspendThread = False
        self.assert_skipped()
        self.assertEqual(self.thread.fSuspendLock.seen, [])
        self.thread.fCheckSuspendLock = False

    @for_each_event
    def test_a_name_that_is_not_known_any_more_is_asked_for(self, _):
        ask = Recorder(result="a name")
        CPerThread.SetGetThreadNameCallback(ask)
        self.assert_skipped()
        self.assertEqual(ask.calls, [])
        self.thread.fThreadName = None
        self.assert_skipped()
        self.assertEqual(ask.calls, [(self.thread,)])
        self.assertEqual(self.thread.fThreadName, "a name")
        CPerThread.SetGetThreadNameCallback(None)

    @for_each_event
    def test_a_name_is_asked_for_once_somebody_can_tell_it(self, _):
        self.thread.fThreadName = None
        self.assert_skipped()
        ask = Recorder(result="a name")
        CPerThread.SetGetThreadNameCallback(ask)
        self.assert_skipped()
        self.assertEqual(ask.calls, [(self.thread,)])
        CPerThread.SetGetThreadNameCallback(None)

    @for_each_event
    def test_code_that_is_stepped_through_is_passed_on(self, _):
        self.record.fSteppingEventsNeededCount = 1
        self.assert_called()
        self.record.fSteppingEventsNeededCount = 0
        self.assert_skipped()

    @for_each_event
    def test_code_whose_breakpoints_are_not_known_any_more_is_passed_on(self, _):
        self.record.fEnabledBpLinenos = None
        self.assert_called()
        self.record.fEnabledBpLinenos = {LINE_WITH_BREAKPOINT}
        self.assert_skipped()

    @for_each_event
    def test_a_line_that_gets_a_breakpoint_is_passed_on_and_nothing_else_is(self, name):
        self.record.fEnabledBpLinenos.add(LINE_WITHOUT)
        self.assert_called() if name == "LINE" else self.assert_skipped()
        self.record.fEnabledBpLinenos.discard(LINE_WITHOUT)
        self.assert_skipped()

    def test_breakpoints_that_are_replaced_while_a_line_is_compared_live_until_the_end_of_that(self):
        record, alive = self.record, []

        def replace():
            record.fEnabledBpLinenos = set()
            gc.collect()
            alive.append(replaced() is not None)

        class Replacing:
            """Stands in the set in the place of the line."""

            def __hash__(self):
                return hash(LINE_WITHOUT)

            def __eq__(self, other):
                by_whom(replace)
                return False

        for by_whom in (lambda job: job(), in_new_thread):
            for _ in range(3):
                self.meet(xo.kPyLineEventId)
                breakpoints = {Replacing()}
                replaced = weakref.ref(breakpoints)
                record.fEnabledBpLinenos = breakpoints
                del breakpoints
                self.assert_skipped()
                self.assertIsNone(replaced())
        self.assertEqual(alive, [True] * 6)

    def test_an_error_of_a_comparison_that_does_not_come_again_is_forgotten(self):
        """The line is looked up once more after an error, and what that says is the answer."""
        class Failing:
            """Stands in the set in the place of the line; fails where it is compared the first time."""

            fails = True

            def __hash__(self):
                return hash(LINE_WITHOUT)

            def __eq__(self, other):
                if self.fails:
                    self.fails = False
                    raise NastyError("once")
                return divmod(other, 2) is None  # native code notices an error that was left

        self.meet(xo.kPyLineEventId)
        self.callback.fAnySuspendThread = False
        breakpoint = Failing()
        self.record.fEnabledBpLinenos = {breakpoint}
        for _ in range(3):
            breakpoint.fails = True
            self.raise_event(self.code, LINE_WITHOUT)
            self.assert_skipped()
        # Where the line is looked up once, the error is told.
        self.assertLessEqual({type(exception) for exception in self.take_logged()}, {NastyError})

    def test_a_first_stage_that_is_finalised_from_a_comparison_lives_until_the_end_of_its_call(self):
        """Its callable has stood in the place of the breakpoints as well, and been taken away from there."""
        record = self.record

        class Finalising:
            def __hash__(self):
                return hash(LINE_WITHOUT)

            def __eq__(self, other):
                record.fEnabledBpLinenos = raise_event
                record.fEnabledBpLinenos = {LINE_WITHOUT}
                raise_event.__del__()
                gc.collect()
                return True

        for _ in range(3):
            record.fEnabledBpLinenos = {LINE_WITH_BREAKPOINT}
            self.meet(xo.kPyLineEventId)
            raise_event, alive = self.raise_event, weakref.ref(self.callback)
            self.callback = self.raise_event = None
            record.fEnabledBpLinenos = {Finalising()}
            try:
                self.assertEqual(raise_event(self.code, LINE_WITHOUT), "second")
            except AttributeError:
                pass  # there was nothing left to answer with
            self.second.calls.clear()
            self.assertIsNone(alive())

    @for_each_event
    def test_returns_and_yields_that_come_to_be_needed_are_passed_on_and_nothing_else_is(self, name):
        self.record.fReturnEventsNeededCount = 1
        self.assert_called() if name in ("PY_RETURN", "PY_YIELD") else self.assert_skipped()
        self.record.fReturnEventsNeededCount = 0

    @for_each_event
    def test_internal_code_is_switched_off(self, _):
        self.record.fIsInternal = True
        self.assertIs(self.raise_event(self.code, LINE_WITHOUT), DISABLE)
        self.callback._fCanReturnDisable = False
        self.assert_skipped()
        self.record.fIsInternal = False

    @for_each_event
    def test_code_whose_pathname_is_still_to_be_settled_is_settled_and_passed_on(self, _):
        """Whose code it is says nothing before that, and an event that may not be switched off is not to be lost."""
        self.callback._fCanReturnDisable = False
        other = make_code(SAMPLE)
        record = CPerCodeObject.GetPerCodeObject(other)
        self.assertIs(record.fUpdatePathnameNeeded, True)
        self.assertEqual(self.raise_event(other, LINE_WITHOUT), "second")
        self.assertIs(record.fUpdatePathnameNeeded, False)
        self.second.calls.clear()

        self.record.fUpdatePathnameNeeded = True
        self.assert_skipped()
        self.assertIs(self.record.fUpdatePathnameNeeded, False)

    @for_each_event
    def test_another_process_is_skipped_whatever_is_wanted(self, _):
        def in_child():
            self.assert_skipped()
            xo.UpdateThisProcessPid()
            self.assert_called()

        self.thread.fSteppingEventsNeeded = True
        in_forked_child(in_child)
        self.assert_called()
        self.thread.fSteppingEventsNeeded = False

    @for_each_event
    def test_lines_of_the_log_are_written_from_the_next_event_on(self, _):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogInitialMonitoringCallbacks)
        self.assert_skipped()
        xo.set_dprintf_mask(0)
        xo.set_dprintf_file(None, -1, None)
        self.assertTrue(writer.texts)

    @for_each_event
    def test_a_record_that_is_put_in_the_place_of_the_codes_counts(self, _):
        class Other(CPerCodeObject):
            pass

        other_index = CPerCodeObject._fCodeObjectExtraIndex
        if other_index < 0:
            self.skipTest("records are not kept in code objects here")
        for cls in (CPerCodeObject, Other):
            record = cls(self.code, None)
            record.fEnabledBpLinenos, record.fSteppingEventsNeededCount = set(), 1
            xo._Code_SetExtra(self.code, other_index, record)
            self.assert_called()
        xo._Code_SetExtra(self.code, other_index, self.record)
        self.assert_skipped()

    @for_each_event
    def test_a_record_is_looked_for_where_records_have_come_to_lie(self, _):
        index = CPerCodeObject._fCodeObjectExtraIndex
        CPerCodeObject._fCodeObjectExtraIndex = -1
        self.assert_called()
        other = CPerCodeObject.GetPerCodeObject(self.code, False)
        self.assertIsNot(other, self.record)
        other.fEnabledBpLinenos = {LINE_WITHOUT, LINE_WITH_BREAKPOINT}
        CPerCodeObject._fCodeObjectExtraIndex = index
        self.assert_skipped()
        CPerCodeObject._fPerCodeObjectDict.clear()

    @for_each_event
    def test_a_thread_whose_record_was_discarded_gets_another(self, _):
        CPerThread._DiscardPerThread(threading.get_ident())
        self.assert_skipped()
        new = CPerThread.GetPerThread()
        self.assertIsNot(new, self.thread)
        new.fSteppingEventsNeeded = True
        self.assert_called()
        new.fSteppingEventsNeeded = False
        self.thread = new

    @for_each_event
    def test_a_record_of_a_subclass_in_the_registry_decides_for_its_thread(self, _):
        class Other(CPerThread):
            pass

        xo._CPerThreadTssCache.Clear()
        other = Other(threading.get_ident())
        other.fThreadName, other.fDebugPolicy, other.fSteppingEventsNeeded = "other", 1, True
        self.assert_called()
        CPerThread._DiscardPerThread(threading.get_ident())
        self.assert_skipped()

    @for_each_event
    def test_a_thread_with_another_thread_state_does_not_decide_by_the_old_ones_record(self, _):
        record = CPerThread.GetPerThread()
        in_new_thread(xo._CPerThreadTssCache.Store, record)
        self.assert_skipped()
        self.assertIs(CPerThread.GetPerThread(), record)


class WatchedLock:
    """A lock that notes what is done with it."""

    def __init__(self, lock):
        self.lock = lock
        self.seen = []

    def acquire(self):
        self.seen.append("acquire")
        return self.lock.acquire()

    def release(self):
        self.seen.append("release")
        self.lock.release()


if __name__ == "__main__":
    unittest.main()
