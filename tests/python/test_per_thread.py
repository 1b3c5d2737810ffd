"""Per-thread records: their fields, the registry, the debug policy, the name, and what happens in between."""

import gc
import sys
import threading
import unittest
import weakref

from code_helpers import conversion_error
from event_helpers import EventTestCase, Worker, in_new_thread, wait_until
from support import NastyError, Recorder, RecordingWriter, raising, reentering, run_python, xo

CPerThread = xo.CPerThread
Cache = xo._CPerThreadTssCache

#: Ids that no thread has: a pthread id is the address of a structure, and these are odd.
SOME_ID = 1001
OTHER_ID = 1003


def me():
    return threading.get_ident()


def capsule():
    """The calling thread's clean-up marker, or None."""
    return xo._GetThreadStateDict().get(xo._gThreadStateDictKey)


class ClassFieldsTest(EventTestCase):

    def test_the_registries_and_callbacks_of_a_reset_module_are_empty(self):
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
        self.assertIsNone(CPerThread._fDebugPolicyCallback)
        self.assertIsNone(CPerThread._fNewPerThreadCreatedCallback)
        self.assertIsNone(CPerThread._fGetThreadNameCallback)

    def test_the_registry_lock_is_a_free_plain_lock(self):
        self.assertIs(type(CPerThread._fRegistryLock), type(threading.Lock()))
        self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_the_classes_of_the_clean_up_are_reached_through_the_record_class(self):
        self.assertEqual(CPerThread._CCapsule.__name__, "_CCapsule")
        self.assertEqual(CPerThread._CCleanupSupport.__name__, "_CCleanupSupport")

    def test_the_setters_store_the_callables_in_the_class_fields(self):
        for setter, field in (("SetNewPerThreadCreatedCallback", "_fNewPerThreadCreatedCallback"),
                              ("SetGetThreadNameCallback", "_fGetThreadNameCallback"),
                              ("SetDebugPolicyCallback", "_fDebugPolicyCallback")):
            with self.subTest(setter=setter):
                callback = Recorder()
                self.assertIsNone(getattr(CPerThread, setter)(callback))
                self.assertIs(getattr(CPerThread, field), callback)
                self.assertIsNone(getattr(CPerThread, setter)(None))
                self.assertIsNone(getattr(CPerThread, field))

    def test_the_setters_take_their_callables_by_keyword(self):
        callback = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(callback=callback)
        CPerThread.SetGetThreadNameCallback(get_thread_name_callback=callback)
        CPerThread.SetDebugPolicyCallback(thread_policy_callback=callback)
        self.assertIs(CPerThread._fNewPerThreadCreatedCallback, callback)
        self.assertIs(CPerThread._fGetThreadNameCallback, callback)
        self.assertIs(CPerThread._fDebugPolicyCallback, callback)


class NewRecordTest(EventTestCase):

    INITIAL = {
        "fThreadId": SOME_ID,
        "fOuterMostFrame": None,
        "fSteppingEventsNeeded": False,
        "fStopAtNextLine": False,
        "fStopFrame": None,
        "fDontStopLinenoRange": None,
        "fReturnFrame": None,
        "fDebugPolicy": -1,
        "fCheckSuspendLock": False,
        "fThreadName": None,
        "fExitingWithException": False,
        "fSteppingCodeObjects": set(),
    }

    def assert_initial(self, record):
        for field, value in self.INITIAL.items():
            with self.subTest(field=field):
                self.assertEqual(getattr(record, field), value)
                self.assertIs(type(getattr(record, field)), type(value))
        self.assertIs(type(record.fSuspendLock), type(threading.Lock()))
        self.assertFalse(record.fSuspendLock.locked())

    def test_every_field_has_its_initial_value(self):
        self.assert_initial(CPerThread(SOME_ID))

    def test_every_field_is_set_before_the_record_is_announced(self):
        CPerThread.SetNewPerThreadCreatedCallback(self.assert_initial)
        CPerThread(SOME_ID)

    def test_two_records_share_neither_lock_nor_set(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        self.assertIsNot(first.fSuspendLock, second.fSuspendLock)
        self.assertIsNot(first.fSteppingCodeObjects, second.fSteppingCodeObjects)

    def test_making_a_record_registers_it_and_its_clean_up(self):
        record = CPerThread(SOME_ID)
        self.assertEqual(CPerThread._fPerThreadDict, {SOME_ID: record})
        support = CPerThread._fCleanupSupportByThreadId[SOME_ID]
        self.assertIs(type(support), CPerThread._CCleanupSupport)
        self.assertIs(support.fPerThread, record)
        self.assertIsNone(support._fFinalizer)

    def test_the_clean_up_of_the_calling_threads_own_record_is_armed_at_once(self):
        record = CPerThread(me())
        support = CPerThread._fCleanupSupportByThreadId[me()]
        self.assertIs(support.fPerThread, record)
        self.assertIs(support._fFinalizer.peek()[0], capsule())

    def test_an_id_that_cannot_be_a_key_registers_nothing_and_leaves_the_lock_free(self):
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        with self.assertRaises(NastyError):
            CPerThread(raising("__hash__", base=int, args=(SOME_ID,)))
        self.assertFalse(CPerThread._fRegistryLock.locked())
        self.assertEqual(CPerThread.GetAllPerThreads(), [])
        self.assertEqual(announced.calls, [])

    def test_the_debug_policy_field_takes_integers_only(self):
        record = CPerThread(SOME_ID)
        for value in ("1", None, 1.0):
            with self.subTest(value=value):
                self.assert_raises_text(TypeError, f"expected int, got {value!r}",
                                        setattr, record, "fDebugPolicy", value)
        with self.assertRaises(OverflowError):
            record.fDebugPolicy = 2 ** 63
        self.assertEqual(record.fDebugPolicy, -1)

    def test_the_frame_and_line_fields_take_any_object(self):
        record = CPerThread(SOME_ID)
        for field in ("fOuterMostFrame", "fStopFrame", "fDontStopLinenoRange", "fReturnFrame"):
            for value in (sys._getframe(), (1, 2), "text", None):
                with self.subTest(field=field, value=value):
                    setattr(record, field, value)
                    self.assertIs(getattr(record, field), value)

    def test_no_field_can_be_deleted(self):
        record = CPerThread(SOME_ID)
        for field in (*self.INITIAL, "fSuspendLock"):
            with self.subTest(field=field):
                self.assert_raises_text(TypeError, "deletion not supported", delattr, record, field)
        self.assert_initial(record)

    def test_a_record_can_be_weakly_referenced_and_ends_with_its_last_reference(self):
        reference = weakref.ref(CPerThread(SOME_ID))
        self.assertIsNotNone(reference())
        CPerThread._DiscardPerThread(SOME_ID)
        gc.collect()
        self.assertIsNone(reference())

    def test_a_record_in_a_cycle_through_its_own_fields_is_collected(self):
        record = CPerThread(SOME_ID)
        record.fStopFrame = [record]
        record.fSteppingCodeObjects.add(record)
        reference = weakref.ref(record)
        CPerThread._DiscardPerThread(SOME_ID)
        del record
        gc.collect()
        self.assertIsNone(reference())

    def test_methods_refuse_another_self(self):
        for method in (CPerThread.GetDebugPolicy, CPerThread.FindThreadName, CPerThread._Clear):
            for value in (5, None):
                with self.subTest(method=method, value=value):
                    self.assert_raises_text(TypeError, f"expected CPerThread, got {value!r}", method, value)


class GetPerThreadTest(EventTestCase):

    def test_the_first_call_makes_and_caches_the_record_of_the_calling_thread(self):
        record = CPerThread.GetPerThread()
        self.assertIs(type(record), CPerThread)
        self.assertEqual(record.fThreadId, me())
        self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
        self.assertIs(Cache.Get(), record)
        self.assertIs(type(capsule()), CPerThread._CCapsule)

    def test_later_calls_give_the_same_record_however_they_name_the_thread(self):
        record = CPerThread.GetPerThread()
        self.assertIs(CPerThread.GetPerThread(), record)
        self.assertIs(CPerThread.GetPerThread(None, False), record)
        self.assertIs(CPerThread.GetPerThread(me()), record)
        self.assertIs(CPerThread.GetPerThread(thread_id=me(), create=False), record)

    def test_the_cached_record_is_the_answer_without_a_look_into_the_registry(self):
        cached = CPerThread(SOME_ID)
        Cache.Store(cached)
        self.assertIs(CPerThread.GetPerThread(), cached)
        self.assertIs(CPerThread.GetPerThread(None, False), cached)
        self.assertNotIn(me(), CPerThread._fPerThreadDict)

    def test_naming_the_own_thread_goes_past_the_cache_and_refills_it(self):
        cached, own = CPerThread(SOME_ID), CPerThread(me())
        Cache.Store(cached)
        self.assertIs(CPerThread.GetPerThread(me()), own)
        self.assertIs(Cache.Get(), own)

    def test_a_registered_record_of_the_own_thread_is_cached_when_it_is_found(self):
        record = CPerThread(me())
        self.assertIsNone(Cache.Get())
        self.assertIs(CPerThread.GetPerThread(), record)
        self.assertIs(Cache.Get(), record)

    def test_naming_another_thread_leaves_the_cache_alone(self):
        mine = CPerThread.GetPerThread()
        other = CPerThread.GetPerThread(SOME_ID)
        self.assertEqual(other.fThreadId, SOME_ID)
        self.assertIs(CPerThread.GetPerThread(SOME_ID), other)
        self.assertIs(Cache.Get(), mine)

    def test_naming_another_thread_first_leaves_the_cache_empty(self):
        CPerThread.GetPerThread(SOME_ID)
        CPerThread.GetPerThread(SOME_ID)
        self.assertIsNone(Cache.Get())
        self.assertIsNone(capsule())

    def test_an_unknown_thread_without_creation_gives_none_and_registers_nothing(self):
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        self.assertIsNone(CPerThread.GetPerThread(SOME_ID, False))
        self.assertIsNone(CPerThread.GetPerThread(thread_id=SOME_ID, create=False))
        self.assertIsNone(CPerThread.GetPerThread(None, False))
        self.assertIsNone(CPerThread.GetPerThread(me(), False))
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(announced.calls, [])
        self.assertIsNone(Cache.Get())

    def test_create_is_a_bool_and_nothing_else(self):
        for value in (1, 0, None, "yes"):
            with self.subTest(value=value):
                self.assert_raises_text(TypeError, f"expected bool, got {value!r}",
                                        CPerThread.GetPerThread, SOME_ID, value)
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_an_id_that_cannot_be_a_key_is_refused_by_the_dictionary(self):
        with self.assertRaises(TypeError):
            CPerThread.GetPerThread([])
        with self.assertRaises(NastyError):
            CPerThread.GetPerThread(raising("__eq__"))
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_each_thread_gets_a_record_of_its_own(self):
        records = []
        start = threading.Barrier(8)

        def work():
            start.wait()
            first = CPerThread.GetPerThread()
            same = all(CPerThread.GetPerThread() is first for _ in range(500))
            records.append((first, first.fThreadId == me(), same))
            start.wait()

        threads = [threading.Thread(target=work) for _ in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([(own, same) for _, own, same in records], [(True, True)] * 8)
        self.assertEqual(len({id(record) for record, _, _ in records}), 8)

    def test_a_record_made_for_another_thread_is_cached_and_armed_when_that_thread_first_asks(self):
        with Worker() as worker:
            record = CPerThread.GetPerThread(worker.ident)
            support = CPerThread._fCleanupSupportByThreadId[worker.ident]
            self.assertIsNone(support._fFinalizer)
            self.assertEqual(worker.call(lambda: (Cache.Get(), capsule())), (None, None))

            self.assertIs(worker.call(CPerThread.GetPerThread), record)
            self.assertIs(CPerThread._fCleanupSupportByThreadId[worker.ident], support)
            self.assertTrue(support._fFinalizer.alive)
            self.assertTrue(worker.call(lambda: support._fFinalizer.peek()[0] is capsule()))
            self.assertIs(worker.call(Cache.Get), record)

    def test_asking_again_does_not_arm_again(self):
        with Worker() as worker:
            CPerThread.GetPerThread(worker.ident)
            worker.call(CPerThread.GetPerThread)
            support = CPerThread._fCleanupSupportByThreadId[worker.ident]
            finalizer = support._fFinalizer
            worker.call(Cache.Clear)
            worker.call(CPerThread.GetPerThread)
            worker.call(lambda: CPerThread.GetPerThread(me()))
            self.assertIs(support._fFinalizer, finalizer)
            self.assertTrue(finalizer.alive)

    def test_another_threads_question_does_not_arm(self):
        with Worker() as worker:
            CPerThread.GetPerThread(worker.ident)
            CPerThread.GetPerThread(worker.ident)
            self.assertIsNone(CPerThread._fCleanupSupportByThreadId[worker.ident]._fFinalizer)

    def test_a_registered_record_without_a_clean_up_is_found_all_the_same(self):
        record = CPerThread(me())
        CPerThread._fCleanupSupportByThreadId.clear()
        self.assertIs(CPerThread.GetPerThread(), record)
        self.assertIs(Cache.Get(), record)

    def test_an_id_under_clean_up_gives_none_while_the_destructor_runs_on_this_thread(self):
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        CPerThread._fDestructorActiveThreadIds.add(me())
        for thread_id in (SOME_ID, me()):
            with self.subTest(thread_id=thread_id):
                CPerThread._fCleanedUpThreadIds.add(thread_id)
                self.assertIsNone(CPerThread.GetPerThread(thread_id))
                self.assertIn(thread_id, CPerThread._fCleanedUpThreadIds)
        self.assertIsNone(CPerThread.GetPerThread())
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(announced.calls, [])

    def test_an_id_that_was_cleaned_up_is_a_new_thread_once_no_destructor_runs(self):
        CPerThread._fCleanedUpThreadIds.update((SOME_ID, me()))
        self.assertEqual(CPerThread.GetPerThread(SOME_ID).fThreadId, SOME_ID)
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {me()})
        self.assertEqual(CPerThread.GetPerThread().fThreadId, me())
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())

    def test_only_a_destructor_on_the_asking_thread_stands_in_the_way(self):
        CPerThread._fCleanedUpThreadIds.add(SOME_ID)
        CPerThread._fDestructorActiveThreadIds.add(SOME_ID)
        self.assertEqual(CPerThread.GetPerThread(SOME_ID).fThreadId, SOME_ID)
        self.assertNotIn(SOME_ID, CPerThread._fCleanedUpThreadIds)

    def test_an_active_destructor_alone_does_not_stand_in_the_way(self):
        CPerThread._fDestructorActiveThreadIds.add(me())
        self.assertEqual(CPerThread.GetPerThread(SOME_ID).fThreadId, SOME_ID)

    def test_the_mark_of_a_cleaned_up_id_stays_where_nothing_is_created(self):
        CPerThread._fCleanedUpThreadIds.add(SOME_ID)
        self.assertIsNone(CPerThread.GetPerThread(SOME_ID, False))
        self.assertIn(SOME_ID, CPerThread._fCleanedUpThreadIds)

    def test_a_found_record_is_the_answer_even_while_the_destructor_runs(self):
        record = CPerThread(SOME_ID)
        CPerThread._fCleanedUpThreadIds.add(SOME_ID)
        CPerThread._fDestructorActiveThreadIds.add(me())
        self.assertIs(CPerThread.GetPerThread(SOME_ID), record)

    def test_all_records_are_given_as_a_snapshot(self):
        self.assertEqual(CPerThread.GetAllPerThreads(), [])
        first = CPerThread(SOME_ID)
        snapshot = CPerThread.GetAllPerThreads()
        self.assertIs(type(snapshot), list)
        second = CPerThread(OTHER_ID)
        self.assertEqual(snapshot, [first])
        self.assertEqual(CPerThread.GetAllPerThreads(), [first, second])
        snapshot.clear()
        self.assertEqual(len(CPerThread._fPerThreadDict), 2)


class RecordingLock:
    """A lock that notes what the registries hold at each step, and can fail."""

    def __init__(self, fail_at=None):
        self.steps = []
        self._fail_at = fail_at

    def _note(self, step):
        self.steps.append((step, sorted(CPerThread._fPerThreadDict),
                           sorted(CPerThread._fCleanupSupportByThreadId),
                           sorted(CPerThread._fCleanedUpThreadIds)))
        if self._fail_at == step:
            raise NastyError(step)

    def acquire(self):
        self._note("acquire")
        return True

    def release(self):
        self._note("release")


class RegistryLockTest(EventTestCase):

    def set_lock(self, lock):
        self.addCleanup(setattr, CPerThread, "_fRegistryLock", CPerThread._fRegistryLock)
        CPerThread._fRegistryLock = lock
        return lock

    def test_registration_changes_both_dictionaries_under_the_lock(self):
        lock = self.set_lock(RecordingLock())
        CPerThread(SOME_ID)
        self.assertEqual(lock.steps, [("acquire", [], [], []), ("release", [SOME_ID], [SOME_ID], [])])

    def test_discarding_an_unknown_thread_from_registries_of_another_kind_does_nothing(self):
        class Registry(dict):
            pass

        for name in ("_fPerThreadDict", "_fCleanupSupportByThreadId"):
            self.addCleanup(setattr, CPerThread, name, getattr(CPerThread, name))
            setattr(CPerThread, name, Registry())
        self.assertIsNone(CPerThread._DiscardPerThread(12345))

    def test_discarding_changes_all_three_containers_under_the_lock(self):
        CPerThread(SOME_ID)
        CPerThread._fCleanedUpThreadIds.add(SOME_ID)
        lock = self.set_lock(RecordingLock())
        CPerThread._DiscardPerThread(SOME_ID)
        self.assertEqual(lock.steps, [("acquire", [SOME_ID], [SOME_ID], [SOME_ID]), ("release", [], [], [])])

    def test_looking_up_does_not_touch_the_lock(self):
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(SOME_ID)
        lock = self.set_lock(RecordingLock())
        Cache.Clear()
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(SOME_ID)
        CPerThread.GetPerThread(OTHER_ID, False)
        CPerThread.GetAllPerThreads()
        CPerThread.SetDebugPolicyCallback(None)
        self.assertEqual(lock.steps, [])

    def test_looking_up_does_not_wait_for_the_lock(self):
        record = CPerThread.GetPerThread()
        Cache.Clear()
        with CPerThread._fRegistryLock:
            self.assertIs(CPerThread.GetPerThread(), record)
            self.assertIsNone(CPerThread.GetPerThread(SOME_ID, False))

    def test_creating_and_discarding_wait_for_the_lock(self):
        for change in (lambda: CPerThread.GetPerThread(SOME_ID),
                       lambda: CPerThread._DiscardPerThread(SOME_ID)):
            with Worker() as worker:
                with CPerThread._fRegistryLock:
                    call = worker.begin(change)
                    self.assertFalse(call.is_done(0.1))
                call.result()
                self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_the_lock_is_free_while_the_new_record_is_announced(self):
        seen = []

        def announce(record):
            seen.append((record.fThreadId, CPerThread._fRegistryLock.locked()))
            in_new_thread(CPerThread.GetPerThread, OTHER_ID)
            in_new_thread(CPerThread._DiscardPerThread, SOME_ID)

        CPerThread.SetNewPerThreadCreatedCallback(announce)
        CPerThread.GetPerThread(SOME_ID)
        self.assertEqual(seen, [(SOME_ID, False), (OTHER_ID, False)])
        self.assertEqual(list(CPerThread._fPerThreadDict), [OTHER_ID])

    def test_the_lock_is_free_while_replaced_and_discarded_records_go(self):
        states = []
        for thread_id in (SOME_ID, OTHER_ID):
            record = CPerThread(thread_id)
            record.fStopFrame = reentering(
                lambda: states.append(CPerThread._fRegistryLock.locked()), "__del__")
            del record
        CPerThread(SOME_ID)
        CPerThread._DiscardPerThread(OTHER_ID)
        gc.collect()
        self.assertEqual(states, [False, False])

    def test_a_lock_that_cannot_be_taken_stops_the_registration(self):
        lock = self.set_lock(RecordingLock("acquire"))
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        self.assert_raises_text(NastyError, "acquire", CPerThread, SOME_ID)
        self.assertEqual([step[0] for step in lock.steps], ["acquire"])
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(announced.calls, [])

    def test_the_error_of_a_lock_that_cannot_be_released_reaches_the_caller(self):
        self.set_lock(RecordingLock("release"))
        self.assert_raises_text(NastyError, "release", CPerThread, SOME_ID)
        self.assert_raises_text(NastyError, "release", CPerThread._DiscardPerThread, SOME_ID)

    def test_an_id_whose_hash_fails_midway_leaves_the_lock_free_and_released_once(self):
        hashes = iter(range(100))
        fail_at = 0

        class Unsteady(int):
            def __hash__(self):
                if next(hashes) >= fail_at:
                    raise NastyError("hash")
                return int.__hash__(self)

        failures = 0
        for fail_at in range(8):
            hashes = iter(range(100))
            lock = self.set_lock(RecordingLock())
            try:
                CPerThread(Unsteady(SOME_ID))
            except NastyError:
                failures += 1
            steps = [step[0] for step in lock.steps]
            self.assertIn(steps, ([], ["acquire", "release"]))
            CPerThread._fPerThreadDict.clear()
            CPerThread._fCleanupSupportByThreadId.clear()
        self.assertGreaterEqual(failures, 2)


class AnnouncementTest(EventTestCase):

    def test_a_new_record_is_announced_once_after_it_was_registered_and_armed(self):
        seen = []

        def announce(record):
            support = CPerThread._fCleanupSupportByThreadId[record.fThreadId]
            seen.append((record, CPerThread._fPerThreadDict[record.fThreadId] is record,
                         support._fFinalizer is not None, Cache.Get()))

        CPerThread.SetNewPerThreadCreatedCallback(announce)
        mine = CPerThread.GetPerThread()
        other = CPerThread.GetPerThread(SOME_ID)
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(SOME_ID)
        self.assertEqual(seen, [(mine, True, True, None), (other, True, False, mine)])

    def test_what_the_callback_returns_is_ignored(self):
        CPerThread.SetNewPerThreadCreatedCallback(Recorder(result="something else"))
        self.assertIs(type(CPerThread.GetPerThread()), CPerThread)

    def test_none_switches_announcements_off(self):
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        CPerThread.SetNewPerThreadCreatedCallback(None)
        CPerThread.GetPerThread()
        self.assertEqual(announced.calls, [])

    def test_the_callback_runs_between_a_raise_and_a_drop_of_the_tracing_level(self):
        writer = RecordingWriter()
        CPerThread.SetNewPerThreadCreatedCallback(lambda record: writer.write("announced\n"))
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        CPerThread(SOME_ID)
        self.assertEqual(writer.texts, ["AddToThreadStateTracing() count=1\n", "announced\n",
                                        "AddToThreadStateTracing() count=-1\n"])

    def test_without_a_callback_the_tracing_level_is_left_alone(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        CPerThread.GetPerThread()
        CPerThread(SOME_ID)
        self.assertEqual(writer.texts, [])

    def test_the_callbacks_own_code_raises_no_monitoring_events(self):
        started = []
        tool_id = self.use_tool()
        events = sys.monitoring.events
        sys.monitoring.register_callback(tool_id, events.PY_START,
                                         lambda code, offset: started.append(code.co_name))

        def inside():
            pass

        def announce(record):
            inside()

        def outside():
            pass

        CPerThread.SetNewPerThreadCreatedCallback(announce)
        for function in (inside, announce, outside):
            self.set_local_events(tool_id, function.__code__, events.PY_START)
        CPerThread.GetPerThread()
        outside()
        self.assertEqual(started, ["outside"])

    def test_an_error_of_the_callback_reaches_the_caller_after_the_level_was_dropped(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        error = NastyError("announced")
        CPerThread.SetNewPerThreadCreatedCallback(Recorder(error=error))
        for make in (CPerThread.GetPerThread, lambda: CPerThread(SOME_ID)):
            with self.assertRaises(NastyError) as caught:
                make()
            self.assertIs(caught.exception, error)
        self.assertEqual(writer.texts, ["AddToThreadStateTracing() count=1\n",
                                        "AddToThreadStateTracing() count=-1\n"] * 2)
        self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_a_record_whose_announcement_failed_stays_registered_and_is_not_announced_again(self):
        announced = Recorder(error=NastyError("announced"))
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        with self.assertRaises(NastyError):
            CPerThread.GetPerThread()
        (record,) = CPerThread.GetAllPerThreads()
        self.assertIsNone(Cache.Get())
        self.assertIs(CPerThread.GetPerThread(), record)
        self.assertIs(Cache.Get(), record)
        self.assertEqual(announced.calls, [(record,)])

    def test_the_callback_may_ask_for_the_record_that_it_is_told_of(self):
        seen = []
        CPerThread.SetNewPerThreadCreatedCallback(lambda record: seen.append(CPerThread.GetPerThread()))
        record = CPerThread.GetPerThread()
        self.assertEqual(seen, [record])
        self.assertEqual(CPerThread.GetAllPerThreads(), [record])

    def test_a_record_can_be_registered_again_with_a_new_clean_up(self):
        record = CPerThread(SOME_ID)
        support = CPerThread._fCleanupSupportByThreadId[SOME_ID]
        announced = Recorder()
        CPerThread.SetNewPerThreadCreatedCallback(announced)
        self.assertIsNone(CPerThread._RegisterNewPerThread(record))
        self.assertIsNot(CPerThread._fCleanupSupportByThreadId[SOME_ID], support)
        self.assertIs(CPerThread._fCleanupSupportByThreadId[SOME_ID].fPerThread, record)
        self.assertEqual(announced.calls, [(record,)])

    def test_only_records_can_be_registered(self):
        for value in (5, None):
            with self.subTest(value=value):
                self.assert_raises_text(TypeError, f"expected CPerThread instance, got {value!r}",
                                        CPerThread._RegisterNewPerThread, value)
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertFalse(CPerThread._fRegistryLock.locked())


class DiscardTest(EventTestCase):

    def test_discarding_takes_the_thread_out_of_every_registry(self):
        record = CPerThread.GetPerThread()
        support = CPerThread._fCleanupSupportByThreadId[me()]
        finalizer = support._fFinalizer
        CPerThread._fCleanedUpThreadIds.update((me(), OTHER_ID))
        self.assertIsNone(CPerThread._DiscardPerThread(me()))
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {OTHER_ID})
        self.assertIsNone(support.fPerThread)
        self.assertIsNone(support._fFinalizer)
        self.assertFalse(finalizer.alive)
        self.assertIsNone(Cache.Get())
        self.assertIsNotNone(record.fSuspendLock, "an explicit discard leaves the record's fields alone")

    def test_discarding_the_record_of_another_thread_empties_that_threads_cache(self):
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            CPerThread._DiscardPerThread(worker.ident)
            self.assertIsNone(worker.call(Cache.Get))
            self.assertIsNot(worker.call(CPerThread.GetPerThread), record)

    def test_discarding_an_unknown_thread_does_nothing(self):
        record = CPerThread(OTHER_ID)
        Cache.Store(record)
        self.assertIsNone(CPerThread._DiscardPerThread(SOME_ID))
        self.assertEqual(CPerThread._fPerThreadDict, {OTHER_ID: record})
        self.assertEqual(list(CPerThread._fCleanupSupportByThreadId), [OTHER_ID])
        self.assertIs(Cache.Get(), record)

    def test_discarding_an_unknown_thread_forgets_that_it_was_cleaned_up(self):
        CPerThread._fCleanedUpThreadIds.add(SOME_ID)
        CPerThread._DiscardPerThread(SOME_ID)
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())

    def test_the_clean_up_is_cleared_before_the_record_leaves_the_cache(self):
        CPerThread.GetPerThread()
        support = CPerThread._fCleanupSupportByThreadId[me()]
        seen = []

        class Finalizer:
            def detach(self):
                seen.append((Cache.Get() is not None, CPerThread._fRegistryLock.locked(),
                             list(CPerThread._fPerThreadDict)))

        support._fFinalizer.detach()
        support._fFinalizer = Finalizer()
        CPerThread._DiscardPerThread(me())
        self.assertEqual(seen, [(True, False, [])])
        self.assertIsNone(Cache.Get())

    def test_the_id_has_to_be_a_machine_word_integer(self):
        for value in ("1", None, 1.5, 2 ** 63, -2 ** 63 - 1):
            with self.subTest(value=value):
                expected = conversion_error(value)
                self.assert_raises_text(type(expected), str(expected), CPerThread._DiscardPerThread, value)

    def test_a_new_record_can_be_made_after_an_explicit_discard(self):
        first = CPerThread.GetPerThread()
        CPerThread._DiscardPerThread(me())
        second = CPerThread.GetPerThread()
        self.assertIsNot(second, first)
        self.assertTrue(CPerThread._fCleanupSupportByThreadId[me()]._fFinalizer.alive)
        self.assertIs(type(capsule()), CPerThread._CCapsule)


class ClearTest(EventTestCase):

    DROPPED = ("fOuterMostFrame", "fStopFrame", "fDontStopLinenoRange", "fReturnFrame", "fSuspendLock",
               "fThreadName", "fSteppingCodeObjects")
    LOWERED = ("fSteppingEventsNeeded", "fStopAtNextLine", "fCheckSuspendLock", "fExitingWithException")

    def test_clearing_drops_every_object_and_lowers_every_flag(self):
        record = CPerThread(SOME_ID)
        for field in self.DROPPED:
            setattr(record, field, ["something"])
        for field in self.LOWERED:
            setattr(record, field, True)
        record.fDebugPolicy = 7
        self.assertIsNone(record._Clear())
        for field in self.DROPPED:
            self.assertIsNone(getattr(record, field), field)
        for field in self.LOWERED:
            self.assertIs(getattr(record, field), False, field)
        self.assertEqual((record.fThreadId, record.fDebugPolicy), (SOME_ID, 7))

    def test_clearing_takes_the_record_out_of_the_cache_but_not_out_of_the_registry(self):
        record = CPerThread.GetPerThread()
        record._Clear()
        self.assertIsNone(Cache.Get())
        self.assertIs(CPerThread.GetPerThread(), record)

    def test_clearing_empties_the_cache_of_the_thread_that_the_record_belongs_to(self):
        with Worker() as worker:
            worker.call(CPerThread.GetPerThread).fDebugPolicy = 1
            CPerThread._fPerThreadDict[worker.ident]._Clear()
            self.assertIsNone(worker.call(Cache.Get))

    def test_the_record_leaves_the_cache_first_and_then_the_fields_go_in_order(self):
        record = CPerThread.GetPerThread()
        gone = []
        for field in self.DROPPED:
            setattr(record, field,
                    reentering(lambda field=field: gone.append((field, Cache.Get())), "__del__"))
        record._Clear()
        self.assertEqual(gone, [(field, None) for field in self.DROPPED])

    def test_a_record_can_be_cleared_twice(self):
        record = CPerThread(SOME_ID)
        record._Clear()
        record._Clear()
        self.assertIsNone(record.fSuspendLock)


class DebugPolicyTest(EventTestCase):

    def test_without_a_callback_every_policy_is_one(self):
        for record in (CPerThread.GetPerThread(), CPerThread(SOME_ID)):
            self.assertEqual(record.fDebugPolicy, -1)
            self.assertEqual(record.GetDebugPolicy(), 1)
            self.assertEqual(record.fDebugPolicy, 1)

    def test_the_callback_is_asked_once_with_the_thread_id(self):
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        record = CPerThread(SOME_ID)
        self.assertEqual((record.GetDebugPolicy(), record.GetDebugPolicy()), (0, 0))
        self.assertEqual(policies.calls, [(SOME_ID,)])

    def test_any_other_integer_is_passed_through(self):
        for policy in (0, 1, 2, -2, 2 ** 63 - 1, -2 ** 63):
            with self.subTest(policy=policy):
                CPerThread.SetDebugPolicyCallback(Recorder(result=policy))
                record = CPerThread(SOME_ID)
                self.assertEqual(record.GetDebugPolicy(), policy)
                self.assertEqual(record.fDebugPolicy, policy)

    def test_the_answer_is_made_an_integer(self):
        for answer, policy in ((True, 1), (2.9, 2), ("7", 7),
                               (raising("__int__", base=int, args=(3,)), None)):
            with self.subTest(answer=type(answer)):
                CPerThread.SetDebugPolicyCallback(Recorder(result=answer))
                record = CPerThread(SOME_ID)
                if policy is None:
                    with self.assertRaises(NastyError):
                        record.GetDebugPolicy()
                    self.assertEqual(record.fDebugPolicy, -1)
                else:
                    self.assertEqual(record.GetDebugPolicy(), policy)
                    self.assertIs(type(record.fDebugPolicy), int)

    def test_an_answer_that_is_no_machine_word_integer_leaves_the_policy_unknown(self):
        for answer, error_type in (("many", ValueError), (None, TypeError), ([], TypeError),
                                   (2 ** 63, OverflowError)):
            with self.subTest(answer=answer):
                CPerThread.SetDebugPolicyCallback(Recorder(result=answer))
                record = CPerThread(SOME_ID)
                with self.assertRaises(error_type):
                    record.GetDebugPolicy()
                self.assertEqual(record.fDebugPolicy, -1)

    def test_an_error_of_the_callback_reaches_the_caller_and_leaves_the_policy_unknown(self):
        policies = Recorder(error=NastyError("policy"))
        CPerThread.SetDebugPolicyCallback(policies)
        record = CPerThread(SOME_ID)
        self.assert_raises_text(NastyError, "policy", record.GetDebugPolicy)
        self.assertEqual(record.fDebugPolicy, -1)
        policies.error, policies.result = None, 5
        self.assertEqual(record.GetDebugPolicy(), 5)

    def test_an_answer_of_minus_one_means_ask_again(self):
        policies = Recorder(result=-1)
        CPerThread.SetDebugPolicyCallback(policies)
        record = CPerThread(SOME_ID)
        self.assertEqual((record.GetDebugPolicy(), record.GetDebugPolicy()), (-1, -1))
        self.assertEqual(len(policies.calls), 2)

    def test_a_known_policy_is_the_answer_without_a_question(self):
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        record = CPerThread(SOME_ID)
        record.fDebugPolicy = 9
        self.assertEqual(record.GetDebugPolicy(), 9)
        self.assertEqual(policies.calls, [])

    def test_setting_a_callback_makes_every_policy_unknown_again(self):
        records = [CPerThread.GetPerThread(), CPerThread(SOME_ID), CPerThread(OTHER_ID)]
        for record in records:
            record.GetDebugPolicy()
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        self.assertEqual([record.fDebugPolicy for record in records], [-1] * 3)
        self.assertEqual(policies.calls, [])
        self.assertEqual([record.GetDebugPolicy() for record in records], [0] * 3)

    def test_taking_the_callback_away_makes_every_policy_unknown_again(self):
        CPerThread.SetDebugPolicyCallback(Recorder(result=0))
        record = CPerThread(SOME_ID)
        record.GetDebugPolicy()
        CPerThread.SetDebugPolicyCallback(None)
        self.assertEqual(record.fDebugPolicy, -1)
        self.assertEqual(record.GetDebugPolicy(), 1)

    def test_finding_a_record_asks_for_no_policy(self):
        policies = Recorder(result=0)
        CPerThread.SetDebugPolicyCallback(policies)
        CPerThread.GetPerThread()
        CPerThread.GetPerThread()
        self.assertEqual(policies.calls, [])


class ThreadNameTest(EventTestCase):

    def test_without_a_callback_there_is_no_name(self):
        record = CPerThread(SOME_ID)
        self.assertIsNone(record.FindThreadName())
        self.assertIsNone(record.fThreadName)

    def test_the_callback_is_asked_once_with_the_record(self):
        names = Recorder(result="worker")
        CPerThread.SetGetThreadNameCallback(names)
        record = CPerThread(SOME_ID)
        self.assertEqual((record.FindThreadName(), record.FindThreadName()), ("worker", "worker"))
        self.assertEqual(record.fThreadName, "worker")
        self.assertEqual(names.calls, [(record,)])

    def test_a_name_that_cannot_be_found_yet_is_asked_for_again(self):
        names = Recorder(result=None)
        CPerThread.SetGetThreadNameCallback(names)
        record = CPerThread(SOME_ID)
        self.assertIsNone(record.FindThreadName())
        names.result = "late"
        self.assertEqual(record.FindThreadName(), "late")
        self.assertEqual(len(names.calls), 2)

    def test_a_known_name_is_the_answer_without_a_question(self):
        names = Recorder(result="asked")
        CPerThread.SetGetThreadNameCallback(names)
        record = CPerThread(SOME_ID)
        record.fThreadName = "known"
        self.assertEqual(record.FindThreadName(), "known")
        self.assertEqual(names.calls, [])

    def test_any_object_but_none_is_a_name(self):
        for name in ("", 0, False, raising("__eq__", "__bool__", "__repr__")):
            with self.subTest(type=type(name)):
                CPerThread.SetGetThreadNameCallback(Recorder(result=name))
                record = CPerThread(SOME_ID)
                self.assertIs(record.FindThreadName(), name)
                self.assertIs(record.FindThreadName(), name)

    def test_an_error_of_the_callback_reaches_the_caller_and_leaves_the_name_unknown(self):
        CPerThread.SetGetThreadNameCallback(Recorder(error=NastyError("name")))
        record = CPerThread(SOME_ID)
        self.assert_raises_text(NastyError, "name", record.FindThreadName)
        self.assertIsNone(record.fThreadName)

    def test_finding_a_record_asks_for_no_name(self):
        names = Recorder(result="worker")
        CPerThread.SetGetThreadNameCallback(names)
        CPerThread.GetPerThread()
        self.assertEqual(names.calls, [])


class ConcurrentRegistryTest(EventTestCase):

    def test_records_are_made_discarded_and_listed_by_many_threads_at_once(self):
        problems = []
        start = threading.Barrier(8)

        def work(number):
            start.wait()
            try:
                for turn in range(200):
                    thread_id = SOME_ID + 2 * ((number + turn) % 5)
                    record = CPerThread.GetPerThread(thread_id)
                    if record.fThreadId != thread_id:
                        problems.append("the record of another thread")
                    CPerThread.GetAllPerThreads()
                    if turn % 10 == 0:
                        CPerThread.SetDebugPolicyCallback(None)
                    CPerThread._DiscardPerThread(thread_id)
            except BaseException as error:
                problems.append(error)

        threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(problems, [])
        self.assertFalse(CPerThread._fRegistryLock.locked())
        for turn in range(5):
            CPerThread._DiscardPerThread(SOME_ID + 2 * turn)
        wait_until(lambda: not CPerThread._fPerThreadDict, "an empty registry")
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})



class ForeignObjectTest(EventTestCase):
    """Python code may fill the registry, and have the class make something else than records."""

    def assert_refused(self, *arguments):
        with self.assertRaisesRegex(TypeError, "^expected CPerThread, got "):
            CPerThread.GetPerThread(*arguments)

    def test_what_the_class_makes_instead_of_a_record_is_not_handed_out(self):
        # In a process of its own, since the class is not as before when its `__new__` is taken away again.
        run_python("""
            import sys
            from code_helpers import make_code
            from vornbase import dlog
            from vorntracer import xoptmonitoring as xo
            logged = []
            dlog.LogException = lambda *args: logged.append(sys.exception())
            for made in (b"bytes", None, 5, object()):
                xo.CPerThread.__new__ = lambda cls, *args: made
                for arguments in ((), (1001,)):
                    try:
                        xo.CPerThread.GetPerThread(*arguments)
                    except TypeError as error:
                        assert str(error).startswith("expected CPerThread, got "), error
                    else:
                        assert False, "handed out"
                callback = xo.CInitialCallback(xo.kPyStartEventId, lambda *args: None, False)
                assert callback.Callback(make_code("/srv/app/sample.py"), 0) is None
                assert [type(error) for error in logged] == [TypeError], logged
                logged.clear()
            assert xo.CPerThread._fPerThreadDict == {}
            """)

    def test_what_is_no_record_in_the_registry_is_not_handed_out(self):
        for found in (b"bytes", 5, object()):
            with self.subTest(found=found):
                CPerThread._fPerThreadDict[SOME_ID] = found
                self.assert_refused(SOME_ID)
                CPerThread._fPerThreadDict[threading.get_ident()] = found
                self.assert_refused()
        CPerThread._fPerThreadDict.clear()


if __name__ == "__main__":
    unittest.main()
