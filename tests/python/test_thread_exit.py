"""Thread-exit clean-up: the marker in the thread-state dictionary, its finalizer, and the end of a thread."""

import contextlib
import gc
import io
import sys
import textwrap
import threading
import unittest
import weakref

from compiled_helpers import compile_helper
from event_helpers import EventTestCase, Worker, in_new_thread, wait_until
from support import (
    NastyError, Recorder, RecordingWriter, is_built_with_address_sanitizer, needs_plain_allocator, raising, reentering,
    run_python, xo,
)

CPerThread = xo.CPerThread
CCapsule = CPerThread._CCapsule
CCleanupSupport = CPerThread._CCleanupSupport
Cache = xo._CPerThreadTssCache

#: An id that no thread has: a pthread id is the address of a structure, and this is odd.
SOME_ID = 1001


def me():
    return threading.get_ident()


def capsule():
    """The calling thread's marker, or None."""
    return xo._GetThreadStateDict().get(xo._gThreadStateDictKey)


def drop_capsule():
    """Lets the calling thread's marker die, as the end of its thread state does."""
    xo._GetThreadStateDict().pop(xo._gThreadStateDictKey, None)


def support_of(thread_id):
    return CPerThread._fCleanupSupportByThreadId[thread_id]


def destroy(support):
    """Runs the clean-up that the death of the marker runs."""
    return support._CCleanupSupport__CapsuleDestructor()


def new_own_record():
    """The calling thread's record, registered and armed, and its clean-up."""
    record = CPerThread.GetPerThread()
    return record, support_of(me())


class CapsuleTest(EventTestCase):

    def test_a_capsule_can_be_weakly_referenced_and_nothing_else(self):
        self.assertEqual(CCapsule.__slots__, ("__weakref__",))
        marker = CCapsule()
        self.assertIs(weakref.ref(marker)(), marker)
        self.assertFalse(hasattr(marker, "__dict__"))
        with self.assertRaises(AttributeError):
            marker.name = 1

    def test_a_capsule_ends_with_its_last_reference(self):
        reference = weakref.ref(CCapsule())
        gc.collect()
        self.assertIsNone(reference())


class ThreadStateDictTest(EventTestCase):

    def test_each_thread_has_a_dictionary_of_its_own(self):
        mine = xo._GetThreadStateDict()
        self.assertIs(type(mine), dict)
        self.assertIs(xo._GetThreadStateDict(), mine)
        with Worker() as worker:
            theirs = worker.call(xo._GetThreadStateDict)
            self.assertIs(worker.call(xo._GetThreadStateDict), theirs)
            self.assertIsNot(theirs, mine)
            del theirs

    def test_the_dictionary_is_got_through_the_support_module(self):
        self.patch(xo.dbgpythonapi, "PyThreadState_GetDict_as_void_ptr", Recorder(result=4711))
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(result={"a": "dictionary"}))
        self.assertEqual(xo._GetThreadStateDict(), {"a": "dictionary"})
        self.assertEqual(xo.dbgpythonapi.PyThreadState_GetDict_as_void_ptr.calls, [()])
        self.assertEqual(xo.dbgpythonapi.VoidPtrAsObject.calls, [(4711,)])

    def test_without_a_thread_state_there_is_none(self):
        self.patch(xo.dbgpythonapi, "PyThreadState_GetDict_as_void_ptr", Recorder(result=None))
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(result=None))
        self.assertIsNone(xo._GetThreadStateDict())

    def test_an_error_of_the_support_module_reaches_the_caller(self):
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(error=NastyError("pointer")))
        self.assert_raises_text(NastyError, "pointer", xo._GetThreadStateDict)

    def test_the_key_is_a_plain_object_that_nothing_else_equals(self):
        self.assertIs(type(xo._gThreadStateDictKey), object)


class PlantingTest(EventTestCase):

    def test_a_new_clean_up_is_not_armed(self):
        record = CPerThread(SOME_ID)
        support = CCleanupSupport(record)
        self.assertIs(support.fPerThread, record)
        self.assertIsNone(support._fFinalizer)
        self.assertIsNone(capsule())

    def test_planting_puts_a_watched_capsule_into_the_threads_dictionary(self):
        record, support = new_own_record()
        self.assertIs(type(capsule()), CCapsule)
        self.assertIs(type(support._fFinalizer), weakref.finalize)
        self.assertTrue(support._fFinalizer.alive)
        watched, callback, args, kwargs = support._fFinalizer.peek()
        self.assertIs(watched, capsule())
        self.assertEqual((tuple(args), dict(kwargs or {})), ((), {}))
        self.assertTrue(callable(callback))
        self.assertIs(support.fPerThread, record)

    def test_the_dictionary_holds_the_only_reference_to_the_capsule(self):
        new_own_record()
        reference = weakref.ref(capsule())
        gc.collect()
        self.assertIsNotNone(reference())
        drop_capsule()
        self.assertIsNone(reference())

    def test_planting_again_replaces_the_capsule_without_running_the_clean_up(self):
        record, support = new_own_record()
        first_capsule, first_finalizer = weakref.ref(capsule()), support._fFinalizer
        self.assertIsNone(support.SetCapsuleInThreadStateDict())
        self.assertIsNone(first_capsule())
        self.assertFalse(first_finalizer.alive)
        self.assertIsNot(support._fFinalizer, first_finalizer)
        self.assertIs(support._fFinalizer.peek()[0], capsule())
        self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        drop_capsule()
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_planting_over_something_else_than_a_capsule_keeps_the_old_finalizer_alive(self):
        _, support = new_own_record()
        first_finalizer, first_capsule = support._fFinalizer, capsule()
        xo._GetThreadStateDict()[xo._gThreadStateDictKey] = "not a capsule"
        support.SetCapsuleInThreadStateDict()
        self.assertTrue(first_finalizer.alive)
        self.assertIs(type(capsule()), CCapsule)
        self.assertIsNot(capsule(), first_capsule)
        first_finalizer.detach()

    def test_planting_over_the_capsule_of_another_clean_up_runs_that_one(self):
        first, _ = new_own_record()
        second = CCleanupSupport(CPerThread(SOME_ID))
        second.SetCapsuleInThreadStateDict()
        self.assertIsNone(first.fSuspendLock, "the record was not cleared")
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {me()})
        self.assertNotIn(me(), CPerThread._fPerThreadDict)

    def test_without_a_thread_state_dictionary_nothing_is_planted(self):
        self.patch(xo.dbgpythonapi, "PyThreadState_GetDict_as_void_ptr", Recorder(result=None))
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(result=None))
        record = CPerThread.GetPerThread()
        self.assertIsNone(support_of(me())._fFinalizer)
        self.assertIsNone(support_of(me()).SetCapsuleInThreadStateDict())
        self.assertIsNone(support_of(me())._fFinalizer)
        self.assertIs(CPerThread._fPerThreadDict[me()], record)
        CPerThread._DiscardPerThread(me())
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_the_record_of_a_thread_without_a_dictionary_stays_until_it_is_discarded(self):
        with_dictionary = xo.dbgpythonapi.VoidPtrAsObject
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject",
                   lambda address: with_dictionary(address) if me() == main else None)
        main = me()
        record = in_new_thread(CPerThread.GetPerThread)
        self.assertEqual(CPerThread._fPerThreadDict, {record.fThreadId: record})
        CPerThread._DiscardPerThread(record.fThreadId)
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_an_error_of_the_support_module_reaches_who_asked_for_the_record(self):
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(error=NastyError("pointer")))
        self.assert_raises_text(NastyError, "pointer", CPerThread.GetPerThread)
        self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_methods_refuse_another_self(self):
        for method in (CCleanupSupport.Clear, CCleanupSupport.SetCapsuleInThreadStateDict,
                       CCleanupSupport._InvalidateCapsule,
                       CCleanupSupport._CCleanupSupport__CapsuleDestructor):
            with self.subTest(method=method):
                with self.assertRaises(TypeError):
                    method(5)
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())


class ReplacedClassTest(EventTestCase):
    """Python code may put another class into the place of the module's own: it is called, and what it made refused."""

    @contextlib.contextmanager
    def replaced(self, name, replacement):
        own = getattr(CPerThread, name)
        setattr(CPerThread, name, replacement)
        try:
            yield
        finally:
            setattr(CPerThread, name, own)

    def assert_refused(self, replacement):
        with self.replaced("_CCleanupSupport", replacement):
            for ask in (CPerThread.GetPerThread, lambda: CPerThread(SOME_ID),
                        lambda: in_new_thread(CPerThread.GetPerThread)):
                with self.assertRaisesRegex(TypeError, "^expected _CCleanupSupport instance, got "):
                    ask()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertFalse(CPerThread._fRegistryLock.locked())

    def test_a_clean_up_that_is_no_native_one_is_refused_and_nothing_is_registered(self):
        class Small:
            __slots__ = ()

            def __init__(self, per_thread):
                pass

        class Short(tuple):
            pass

        class Duck:
            def __init__(self, per_thread):
                self.fPerThread, self._fFinalizer = per_thread, None

            def SetCapsuleInThreadStateDict(self):
                pass

        for replacement in (Small, lambda per_thread: Short(), Duck, lambda per_thread: None, lambda per_thread: 5):
            with self.subTest(replacement=replacement):
                self.assert_refused(replacement)

    def test_a_subclass_of_the_clean_up_serves(self):
        class Own(CCleanupSupport):
            pass

        with self.replaced("_CCleanupSupport", Own):
            record = CPerThread.GetPerThread()
        self.assertIs(type(support_of(me())), Own)
        self.assertIs(type(capsule()), CCapsule)
        drop_capsule()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertIsNone(record.fSuspendLock)

    def test_a_capsule_of_another_class_serves_while_it_can_be_watched(self):
        class Other:
            pass

        with self.replaced("_CCapsule", Other):
            CPerThread.GetPerThread()
            self.assertIs(type(capsule()), Other)
            drop_capsule()
            self.assertEqual(CPerThread._fPerThreadDict, {})
            in_new_thread(CPerThread.GetPerThread)
            self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_a_capsule_that_cannot_be_watched_is_an_error_of_whoever_asks_for_the_record(self):
        with self.replaced("_CCapsule", lambda: 5), self.assertRaisesRegex(TypeError, "weak reference"):
            CPerThread.GetPerThread()


class DisarmingTest(EventTestCase):

    def test_an_invalidated_capsule_lives_on_and_its_death_does_nothing(self):
        record, support = new_own_record()
        finalizer = support._fFinalizer
        self.assertIsNone(support._InvalidateCapsule())
        self.assertFalse(finalizer.alive)
        self.assertIsNone(support._fFinalizer)
        self.assertIs(type(capsule()), CCapsule)
        drop_capsule()
        self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        self.assertIsNotNone(record.fSuspendLock)

    def test_invalidating_what_is_not_armed_does_nothing(self):
        support = CCleanupSupport(CPerThread(SOME_ID))
        self.assertIsNone(support._InvalidateCapsule())
        self.assertIsNone(support._fFinalizer)

    def test_clearing_disarms_and_drops_the_record(self):
        for arguments in ((), (True,)):
            with self.subTest(arguments=arguments):
                record, support = new_own_record()
                finalizer = support._fFinalizer
                self.assertIsNone(support.Clear(*arguments))
                self.assertFalse(finalizer.alive)
                self.assertEqual((support.fPerThread, support._fFinalizer), (None, None))
                drop_capsule()
                self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
                CPerThread._DiscardPerThread(me())

    def test_clearing_without_invalidation_leaves_a_finalizer_that_finds_nothing_to_do(self):
        record, support = new_own_record()
        finalizer = support._fFinalizer
        support.Clear(invalidate_capsule=False)
        self.assertEqual((support.fPerThread, support._fFinalizer), (None, None))
        self.assertTrue(finalizer.alive)
        drop_capsule()
        self.assertFalse(finalizer.alive)
        self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_clearing_swallows_whatever_the_invalidation_raises(self):
        for error in (NastyError("detach"), KeyboardInterrupt("detach")):
            with self.subTest(error=error):
                support = CCleanupSupport(CPerThread(SOME_ID))
                support._fFinalizer = type("Finalizer", (), {"detach": Recorder(error=error)})()
                self.assertIsNone(support.Clear())
                self.assertEqual((support.fPerThread, support._fFinalizer), (None, None))

    def test_clearing_with_a_failing_finalizer_leaves_the_programs_handled_exception_alone(self):
        support = CCleanupSupport(CPerThread(SOME_ID))
        support._fFinalizer = type("Finalizer", (), {"detach": Recorder(error=NastyError("detach"))})()
        try:
            raise KeyError("the program's")
        except KeyError as error:
            support.Clear()
            self.assertIs(sys.exception(), error)

    def test_an_invalidation_that_is_asked_for_directly_does_not_swallow(self):
        support = CCleanupSupport(CPerThread(SOME_ID))
        support._fFinalizer = type("Finalizer", (), {"detach": Recorder(error=NastyError("detach"))})()
        self.assert_raises_text(NastyError, "detach", support._InvalidateCapsule)


class DestructorTest(EventTestCase):

    def test_the_death_of_the_capsule_discards_and_clears_the_record(self):
        record, support = new_own_record()
        record.fStopFrame = sys._getframe()
        drop_capsule()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {me()})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
        self.assertIsNone(Cache.Get())
        self.assertIsNone(support._fFinalizer)
        self.assertIsNone(record.fStopFrame)
        self.assertIsNone(record.fSuspendLock)
        self.assertEqual(record.fThreadId, me())

    def test_the_private_method_does_the_same_and_returns_none(self):
        record, support = new_own_record()
        self.assertIsNone(destroy(support))
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {me()})
        self.assertIsNone(record.fSuspendLock)
        self.assertIsNone(support._fFinalizer)

    def test_the_cleaned_up_id_is_the_records_and_the_active_one_the_callers(self):
        record = CPerThread(SOME_ID)
        seen = []
        record.fThreadName = reentering(
            lambda: seen.append((set(CPerThread._fCleanedUpThreadIds),
                                 set(CPerThread._fDestructorActiveThreadIds))), "__del__")
        destroy(support_of(SOME_ID))
        self.assertEqual(seen, [({SOME_ID}, {me()})])
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {SOME_ID})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_a_clean_up_that_was_cleared_before_does_nothing(self):
        record, support = new_own_record()
        support.Clear()
        destroy(support)
        self.assertEqual(CPerThread._fPerThreadDict, {me(): record})
        self.assertIs(support_of(me()), support)
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_a_record_that_a_newer_one_replaced_does_not_take_the_newer_one_with_it(self):
        older, older_support = new_own_record()
        newer = CPerThread(me())  # plants its own capsule; the older one dies of that
        self.assertIsNone(older.fSuspendLock, "the older record was not cleared")
        self.assertIsNone(older_support._fFinalizer)
        self.assertEqual(CPerThread._fPerThreadDict, {me(): newer})
        self.assertIs(support_of(me()).fPerThread, newer)
        self.assertIsNotNone(newer.fSuspendLock)
        self.assertIs(CPerThread.GetPerThread(), newer)

    def test_the_registries_are_compared_each_for_itself(self):
        older = CPerThread(SOME_ID)
        older_support = support_of(SOME_ID)
        newer = CPerThread(SOME_ID)
        newer_support = support_of(SOME_ID)

        CPerThread._fCleanupSupportByThreadId[SOME_ID] = older_support
        destroy(older_support)
        self.assertEqual(CPerThread._fPerThreadDict, {SOME_ID: newer})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})

        CPerThread._fPerThreadDict[SOME_ID] = newer
        CPerThread._fCleanupSupportByThreadId[SOME_ID] = older_support
        destroy(newer_support)
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {SOME_ID: older_support})
        self.assertIsNone(older.fSuspendLock)

    def test_records_are_compared_by_identity(self):
        record, stranger = CPerThread(SOME_ID), raising("__eq__", "__hash__")
        CPerThread._fPerThreadDict[SOME_ID] = stranger
        destroy(support_of(SOME_ID))
        self.assertEqual(list(map(id, CPerThread._fPerThreadDict.values())), [id(stranger)])
        CPerThread._fPerThreadDict.clear()
        self.assertIsNone(record.fSuspendLock)

    def test_the_registries_change_under_the_lock_and_the_record_is_cleared_after_it(self):
        steps = []
        record, support = new_own_record()
        record.fStopFrame = reentering(lambda: steps.append("cleared"), "__del__")

        class Lock:
            def acquire(self):
                self.note("acquire")

            def release(self):
                self.note("release")

            def note(self, step):
                steps.append((step, set(CPerThread._fCleanedUpThreadIds), len(CPerThread._fPerThreadDict),
                              len(CPerThread._fCleanupSupportByThreadId), support._fFinalizer is None))

        self.addCleanup(setattr, CPerThread, "_fRegistryLock", CPerThread._fRegistryLock)
        CPerThread._fRegistryLock = Lock()
        support._InvalidateCapsule()
        support.SetCapsuleInThreadStateDict()
        destroy(support)
        self.assertEqual(steps, [("acquire", {me()}, 1, 1, False),
                                 ("release", {me()}, 0, 0, True), "cleared"])

    def test_the_clean_up_runs_between_a_raise_and_a_drop_of_the_tracing_level(self):
        writer = RecordingWriter()
        record, support = new_own_record()
        record.fStopFrame = reentering(
            lambda: writer.write(f"cleared {CPerThread._fDestructorActiveThreadIds == {me()}}\n"), "__del__")
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        destroy(support)
        self.assertEqual(writer.texts, ["AddToThreadStateTracing() count=1\n", "cleared True\n",
                                        "AddToThreadStateTracing() count=-1\n"])

    def test_the_id_stays_active_until_the_tracing_level_was_dropped(self):
        _, support = new_own_record()
        seen = []
        for name in ("PyThreadState_EnterTracing", "PyThreadState_LeaveTracing"):
            real = getattr(xo.dbgpythonapi, name)
            self.patch(xo.dbgpythonapi, name,
                       lambda state, name=name, real=real: (
                           seen.append((name, CCleanupSupport._IsCapsuleDestructorBeingInvoked())),
                           real(state)))
        destroy(support)
        self.assertEqual(seen, [("PyThreadState_EnterTracing", True), ("PyThreadState_LeaveTracing", True)])
        self.assertFalse(CCleanupSupport._IsCapsuleDestructorBeingInvoked())

    def test_the_clean_ups_own_code_raises_no_monitoring_events(self):
        started = []
        tool_id = self.use_tool()
        events = sys.monitoring.events
        sys.monitoring.register_callback(tool_id, events.PY_START,
                                         lambda code, offset: started.append(code.co_name))

        def inside():
            pass

        def outside():
            pass

        for function in (inside, outside):
            self.set_local_events(tool_id, function.__code__, events.PY_START)
        record, _ = new_own_record()
        record.fStopFrame = reentering(inside, "__del__")
        drop_capsule()
        outside()
        self.assertEqual(started, ["outside"])

    def test_asking_for_a_record_inside_the_destructor_gives_none(self):
        record, _ = new_own_record()
        answers = []
        record.fStopFrame = reentering(
            lambda: answers.extend((CPerThread.GetPerThread(), CPerThread.GetPerThread(me()), Cache.Get(),
                                    CPerThread.GetPerThread(SOME_ID) is not None,
                                    CCleanupSupport._IsCapsuleDestructorBeingInvoked())), "__del__")
        drop_capsule()
        self.assertEqual(answers, [None, None, None, True, True])
        self.assertEqual(list(CPerThread._fPerThreadDict), [SOME_ID])

    def test_after_the_destructor_the_thread_gets_a_fresh_record(self):
        record, _ = new_own_record()
        drop_capsule()
        fresh = CPerThread.GetPerThread()
        self.assertIsNot(fresh, record)
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())
        self.assertTrue(support_of(me())._fFinalizer.alive)

    def test_another_thread_is_not_inside_the_destructor(self):
        self.assertFalse(CCleanupSupport._IsCapsuleDestructorBeingInvoked())
        CPerThread._fDestructorActiveThreadIds.add(me())
        self.assertIs(CCleanupSupport._IsCapsuleDestructorBeingInvoked(), True)
        self.assertIs(in_new_thread(CCleanupSupport._IsCapsuleDestructorBeingInvoked), False)

    def break_registry_lock(self, error):
        """Lets the registry lock fail, and returns it."""
        lock = type("Lock", (), {})()
        lock.acquire, lock.release = Recorder(error=error), Recorder()
        self.addCleanup(setattr, CPerThread, "_fRegistryLock", CPerThread._fRegistryLock)
        CPerThread._fRegistryLock = lock
        return lock

    def test_any_exception_is_printed_and_swallowed(self):
        for error in (NastyError("locked"), KeyboardInterrupt("locked"), SystemExit(3)):
            with self.subTest(error=error):
                _, support = new_own_record()
                with contextlib.ExitStack() as undo:
                    undo.callback(setattr, CPerThread, "_fRegistryLock", CPerThread._fRegistryLock)
                    lock = self.break_registry_lock(error)
                    printed = io.StringIO()
                    with contextlib.redirect_stderr(printed):
                        self.assertIsNone(destroy(support))
                self.assertIn("Traceback (most recent call last)", printed.getvalue())
                self.assertIn(type(error).__name__, printed.getvalue())
                self.assertEqual(lock.release.calls, [])
                self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
                self.assertIsNone(sys.exception())
                CPerThread._DiscardPerThread(me())

    def test_the_exception_is_the_one_being_handled_while_it_is_printed(self):
        _, support = new_own_record()
        error = NastyError("locked")
        self.break_registry_lock(error)
        seen = []
        self.patch(xo.traceback, "print_exc", lambda *args: seen.append((args, sys.exception(), set(
            CPerThread._fDestructorActiveThreadIds))))
        destroy(support)
        self.assertEqual(seen, [((), error, {me()})])

    def test_a_failing_clean_up_leaves_the_programs_handled_exception_alone(self):
        _, support = new_own_record()
        self.break_registry_lock(NastyError("locked"))
        self.patch(xo.traceback, "print_exc", Recorder())
        try:
            raise KeyError("the program's")
        except KeyError as handled:
            destroy(support)
            self.assertIs(sys.exception(), handled)
            with self.assertRaises(KeyError) as caught:
                raise
            self.assertIs(caught.exception, handled)
            self.assertIsNone(handled.__context__)

    def test_a_failing_clean_up_drops_the_tracing_level(self):
        writer = RecordingWriter()
        _, support = new_own_record()
        self.break_registry_lock(NastyError("locked"))
        self.patch(xo.traceback, "print_exc", lambda: writer.write("printed\n"))
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogThreading)
        destroy(support)
        self.assertEqual(writer.texts, ["AddToThreadStateTracing() count=1\n", "printed\n",
                                        "AddToThreadStateTracing() count=-1\n"])

    def test_a_tracing_level_that_cannot_be_raised_is_printed_and_the_record_is_gone_all_the_same(self):
        printed = self.patch(xo.traceback, "print_exc", Recorder())
        self.patch(xo.dbgpythonapi, "PyThreadState_EnterTracing", raising(NastyError("enter")))
        leave = self.patch(xo.dbgpythonapi, "PyThreadState_LeaveTracing", Recorder())
        _, support = new_own_record()
        destroy(support)
        self.assertEqual(len(printed.calls), 1)
        self.assertEqual(leave.calls, [])  # what was not raised is not lowered
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
        self.assertIn(me(), CPerThread._fCleanedUpThreadIds)

    def test_a_tracing_level_that_cannot_be_lowered_is_printed_and_swallowed(self):
        printed = self.patch(xo.traceback, "print_exc", Recorder())
        real = xo.dbgpythonapi.PyThreadState_LeaveTracing

        def leave(state):
            real(state)
            raise NastyError("leave")

        self.patch(xo.dbgpythonapi, "PyThreadState_LeaveTracing", leave)
        _, support = new_own_record()
        destroy(support)
        self.assertEqual(len(printed.calls), 1)
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_a_failure_under_the_lock_releases_it(self):
        class Unsteady(int):
            hashes_left = 100

            def __hash__(self):
                if Unsteady.hashes_left == 0:
                    raise NastyError("hash")
                Unsteady.hashes_left -= 1
                return int.__hash__(self)

        printed = self.patch(xo.traceback, "print_exc", Recorder())
        for hashes in range(4):
            with self.subTest(hashes=hashes):
                Unsteady.hashes_left = 100
                CPerThread._fCleanupSupportByThreadId.clear()
                CPerThread(Unsteady(SOME_ID))
                (support,) = CPerThread._fCleanupSupportByThreadId.values()
                Unsteady.hashes_left = hashes
                destroy(support)
                self.assertFalse(CPerThread._fRegistryLock.locked())
                self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
                Unsteady.hashes_left = 100
                CPerThread._fPerThreadDict.clear()
                CPerThread._fCleanedUpThreadIds.clear()
        self.assertGreaterEqual(len(printed.calls), 2)


class EndOfAThreadTest(EventTestCase):

    def assert_no_trace_but_mark(self, thread_id):
        self.assertNotIn(thread_id, CPerThread._fPerThreadDict)
        self.assertNotIn(thread_id, CPerThread._fCleanupSupportByThreadId)
        self.assertNotIn(thread_id, CPerThread._fDestructorActiveThreadIds)
        self.assertIn(thread_id, CPerThread._fCleanedUpThreadIds)

    def test_a_thread_that_ends_leaves_nothing_but_the_mark_of_its_id(self):
        record = in_new_thread(CPerThread.GetPerThread)
        self.assert_no_trace_but_mark(record.fThreadId)
        self.assertIsNone(record.fSuspendLock, "the record was not cleared")

    def test_a_thread_that_ends_by_an_exception_is_cleaned_up_just_so(self):
        identities = []

        def work():
            identities.append(CPerThread.GetPerThread().fThreadId)
            raise SystemExit

        thread = threading.Thread(target=work)
        thread.start()
        thread.join()
        self.assert_no_trace_but_mark(identities[0])

    def test_a_record_that_another_thread_made_is_cleaned_up_once_its_own_thread_asked(self):
        with Worker() as worker:
            thread_id = worker.ident
            CPerThread.GetPerThread(thread_id)
            worker.call(CPerThread.GetPerThread)
        self.assert_no_trace_but_mark(thread_id)

    def test_a_record_that_its_own_thread_never_asked_for_stays(self):
        with Worker() as worker:
            thread_id = worker.ident
            record = CPerThread.GetPerThread(thread_id)
        self.assertIs(CPerThread._fPerThreadDict[thread_id], record)
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())

    def test_a_record_dies_with_its_thread(self):
        reference = in_new_thread(lambda: weakref.ref(CPerThread.GetPerThread()))
        gc.collect()
        self.assertIsNone(reference())

    def test_a_record_discarded_before_its_thread_ends_makes_that_end_change_nothing(self):
        with Worker() as worker:
            thread_id = worker.ident
            worker.call(CPerThread.GetPerThread)
            finalizer = support_of(thread_id)._fFinalizer
            CPerThread._DiscardPerThread(thread_id)
            self.assertFalse(finalizer.alive)
            self.assertIs(type(worker.call(capsule)), CCapsule)
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())

    def test_the_end_of_a_thread_leaves_a_newer_record_of_its_id_alone(self):
        with Worker() as worker:
            thread_id = worker.ident
            older = worker.call(CPerThread.GetPerThread)
            newer = CPerThread(thread_id)  # for the same id, by another thread, so not armed
        self.assertIsNone(older.fSuspendLock)
        self.assertEqual(CPerThread._fPerThreadDict, {thread_id: newer})
        self.assertIs(support_of(thread_id).fPerThread, newer)
        self.assertIsNotNone(newer.fSuspendLock)

    def test_a_thread_that_gets_the_id_of_an_ended_one_gets_a_fresh_record(self):
        seen = set()

        def work():
            marked = me() in CPerThread._fCleanedUpThreadIds
            record = CPerThread.GetPerThread()
            return record, marked, me() in CPerThread._fCleanedUpThreadIds, record.fSuspendLock is not None

        for _ in range(1000):
            known = set(seen)
            record, marked_before, marked_after, is_fresh = in_new_thread(work)
            self.assertEqual((marked_before, marked_after, is_fresh),
                             (record.fThreadId in known, False, True))
            self.assert_no_trace_but_mark(record.fThreadId)
            seen.add(record.fThreadId)
            if marked_before:
                return
        self.skipTest("this platform gave a thousand threads a thousand ids")

    def test_many_threads_at_once_leave_empty_registries(self):
        for _ in range(5):
            threads = [threading.Thread(target=CPerThread.GetPerThread) for _ in range(40)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        wait_until(lambda: not CPerThread._fPerThreadDict, "the threads' records to go")
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_records_made_and_discarded_while_their_threads_end_leave_consistent_registries(self):
        def work():
            CPerThread.GetPerThread()

        for _ in range(200):
            thread = threading.Thread(target=work)
            thread.start()
            CPerThread._DiscardPerThread(thread.ident)
            thread.join()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())

    def test_a_reset_before_the_thread_ends_makes_that_end_change_nothing(self):
        with Worker() as worker:
            worker.call(CPerThread.GetPerThread)
            xo.reset()
        self.assertEqual(CPerThread._fPerThreadDict, {})
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())


class EndOfAThreadStateTest(EventTestCase):
    """What still runs on a thread after its clean-up: the way out of it, and what else the thread state held."""

    #: `run_thread(action, last)` calls `action` on a thread of its own, and `last` when the interpreter clears that
    #: thread's context, which comes after its dictionary.
    AFTERLIFE = """
        import _thread, contextvars, gc, sys, threading
        from vornbase import dlog
        from vorntracer import xoptmonitoring as xo

        CPerThread, main = xo.CPerThread, threading.get_ident()
        logged = []
        dlog.LogException = lambda *args: logged.append(repr(sys.exception()))
        variable = contextvars.ContextVar("variable")

        class Last:
            def __init__(self, action, ended=None):
                self.action, self.ended = action, ended

            def __del__(self):
                self.action()
                if self.ended is not None:
                    self.ended.release()

        def run_thread(action, last=int):
            def work():
                variable.set(Last(last, ended))
                results.append(action())

            results = []
            ended = _thread.allocate_lock()
            ended.acquire()
            _thread.start_new_thread(work, ())
            assert ended.acquire(True, 30), "the thread's context did not end"
            return results[0]
    """

    def run_afterlife(self, code, **options):
        prologue = "\n".join(line[8:] for line in self.AFTERLIFE.splitlines())
        child = run_python(prologue + "\n" + textwrap.dedent(code), **options)
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_the_way_out_of_the_clean_up_makes_no_second_record(self):
        self.run_afterlife("""
            second = []
            sys.monitoring.use_tool_id(4, "test")
            every_event = 0
            for name in ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE"):
                event = getattr(sys.monitoring.events, name)
                every_event |= event
                callback = xo.CInitialCallback(event, lambda *args: second.append(args), False)
                sys.monitoring.register_callback(4, event, callback.Callback)
            for events in (sys.monitoring.events.PY_RETURN, every_event):
                sys.monitoring.set_events(4, events)
                for _ in range(50):
                    run_thread(int)
                sys.monitoring.set_events(4, 0)
                assert set(CPerThread._fPerThreadDict) <= {main}, CPerThread._fPerThreadDict
                assert set(CPerThread._fCleanupSupportByThreadId) <= {main}
                assert CPerThread._fDestructorActiveThreadIds == set()
            assert second
            assert logged == [], logged
        """)

    def test_a_thread_that_gets_the_id_of_an_ended_one_inherits_nothing(self):
        self.run_afterlife("""
            def mark():
                record = CPerThread.GetPerThread()
                inherited = record.fThreadName, record.fStopFrame
                record.fThreadName, record.fStopFrame = "marked", "a frame"
                return inherited

            sys.monitoring.use_tool_id(4, "test")
            callback = xo.CInitialCallback(xo.kPyReturnEventId, lambda *args: None, False)
            sys.monitoring.register_callback(4, xo.kPyReturnEventId, callback.Callback)
            sys.monitoring.set_events(4, xo.kPyReturnEventId)
            inherited = {run_thread(mark) for _ in range(20)}
            sys.monitoring.set_events(4, 0)
            assert inherited == {(None, None)}, inherited
        """)

    def test_what_dies_with_the_thread_state_after_the_clean_up_gets_no_record(self):
        self.run_afterlife("""
            answers = []

            def ask():
                own = threading.get_ident()
                answers.append((CPerThread.GetPerThread(), CPerThread.GetPerThread(own),
                                CPerThread.GetPerThread(None, False), xo._CPerThreadTssCache.Get(),
                                CPerThread.GetPerThread(main) is main_record))

            main_record = CPerThread.GetPerThread()
            for _ in range(3):
                run_thread(CPerThread.GetPerThread, ask)
            assert answers == [(None, None, None, None, True)] * 3, answers
            assert list(CPerThread._fPerThreadDict) == [main]
        """)

    def test_an_event_after_the_clean_up_is_skipped_without_a_word(self):
        self.run_afterlife("""
            second = []
            callback = xo.CInitialCallback(xo.kPyStartEventId, lambda *args: second.append(args), False)
            code = compile("pass", "/srv/app/sample.py", "exec")
            answers = []
            run_thread(CPerThread.GetPerThread, lambda: answers.append(callback.Callback(code, 0)))
            assert answers == [None], answers
            assert second == [] and logged == [], (second, logged)
            callback.Callback(code, 0)
            assert len(second) == 1
        """)

    def test_the_log_of_the_clean_up_is_written_by_code_that_is_monitored_itself(self):
        self.run_afterlife("""
            class Writer:
                def write(self, text):
                    lines.append(text)

            lines = []
            sys.monitoring.use_tool_id(4, "test")
            for event in (xo.kPyStartEventId, xo.kPyReturnEventId):
                callback = xo.CInitialCallback(event, lambda *args: None, False)
                sys.monitoring.register_callback(4, event, callback.Callback)
            xo.set_dprintf_file(Writer(), -1, None)
            xo.set_dprintf_mask(xo.kLogThreading)
            sys.monitoring.set_events(4, xo.kPyStartEventId | xo.kPyReturnEventId)
            run_thread(int)
            sys.monitoring.set_events(4, 0)
            xo.set_dprintf_file(None, -1, None)
            assert [line for line in lines if line.startswith("AddToThreadStateTracing")], lines
            assert logged == [], logged
        """)

    def test_a_clean_up_that_was_disarmed_before_leaves_the_end_known_as_well(self):
        self.run_afterlife("""
            answers = []

            def discarded():
                CPerThread.GetPerThread()
                CPerThread._DiscardPerThread(threading.get_ident())

            def reset():
                CPerThread.GetPerThread()
                thread = threading.Thread(target=xo.reset)  # of another thread, which leaves this one's capsule
                thread.start()
                thread.join()

            for action in (discarded, reset):
                run_thread(action, lambda: answers.append(CPerThread.GetPerThread()))
            assert answers == [None, None], answers
            assert CPerThread._fPerThreadDict == {}, CPerThread._fPerThreadDict
        """)

    def test_a_thread_that_only_lost_its_capsule_gets_a_fresh_record(self):
        for where in (lambda call: call(), in_new_thread):
            with self.subTest(where=where):
                def lose():
                    first = CPerThread.GetPerThread()
                    drop_capsule()
                    return first, CPerThread.GetPerThread(), CPerThread.GetPerThread()

                first, second, third = where(lose)
                self.assertIsNot(first, second)
                self.assertIsNotNone(second)
                self.assertIs(second, third)

    def test_the_next_thread_state_of_the_same_native_thread_gets_a_fresh_record(self):
        library = compile_helper("thread_states", self.make_dir())
        self.run_afterlife(f"""
            from compiled_helpers import run_calls
            answers = []

            def look():
                record = CPerThread.GetPerThread()
                variable.set(Last(lambda: answers.append(CPerThread.GetPerThread())))
                return threading.get_ident(), record.fThreadName, setattr(record, "fThreadName", "marked")

            calls = [look] * 2
            first, last = run_calls({library!r}, "run_under_successive_states", *calls)
            assert first == last, "the thread is not one, or the second record is the first"
            assert answers == [None, None], answers
            assert CPerThread._fPerThreadDict == {{}}
        """)

    def test_a_record_whose_thread_ended_without_a_clean_up_is_not_the_next_threads(self):
        """The first record of a thread may be made when its state is being cleared already, or its dictionary may be
        held by somebody: the next thread with the same id finds it registered."""
        self.run_afterlife("""
            def inherited():
                record = CPerThread.GetPerThread()
                before = record.fThreadName, record.fStopFrame
                record.fThreadName, record.fStopFrame = "marked", "a frame"
                return before

            held = []

            def hold():
                return inherited(), held.append(xo._GetThreadStateDict())

            def first_at_the_end():
                names.append(inherited())

            names = []
            for _ in range(10):
                run_thread(int, first_at_the_end)
            for _ in range(10):
                names.append(run_thread(hold)[0])
            assert set(names) == {(None, None)}, names
            records = CPerThread.GetAllPerThreads()
            held.clear()   # the clean-ups of what is held take nothing that is not theirs
            gc.collect()
            assert len(records) <= 2, records
            assert run_thread(inherited) == (None, None)
        """)

    @needs_plain_allocator
    def test_a_threads_end_gives_all_memory_back(self):
        """Under events, after a reset, and where the record went before the thread."""
        self.run_afterlife("""
            import ctypes, ctypes.util, os, re
            sys.monitoring.use_tool_id(4, "test")
            callback = xo.CInitialCallback(xo.kPyReturnEventId, lambda *args: None, False)
            sys.monitoring.register_callback(4, xo.kPyReturnEventId, callback.Callback)
            libc = ctypes.CDLL(None)

            class Info(ctypes.Structure):
                _fields_ = [(name, ctypes.c_size_t) for name in
                            ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks",
                             "fordblks", "keepcost")]

            def used():
                gc.collect()
                return libc.mallinfo2().uordblks

            def reset():
                CPerThread.GetPerThread()
                thread = threading.Thread(target=xo.reset)
                thread.start()
                thread.join()

            def discarded():
                CPerThread.GetPerThread()
                CPerThread._DiscardPerThread(threading.get_ident())

            libc.mallinfo2.restype = Info
            for action in (int, reset, discarded):
                sys.monitoring.set_events(4, xo.kPyReturnEventId)
                levels = []
                for _ in range(5):
                    for _ in range(200):
                        run_thread(action)
                    levels.append(used())
                sys.monitoring.set_events(4, 0)
                # What is lost with each thread is lost in each round; a table grows in one of them.
                growth = min(later - earlier for earlier, later in zip(levels, levels[1:]))
                assert growth < 200 * 16, (action, levels)
        """)


class EndOfTheProcessTest(EventTestCase):

    def assert_silent(self, code):
        child = run_python(code)
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_a_process_ends_silently_with_the_record_of_its_main_thread(self):
        self.assert_silent("""
            from vorntracer import xoptmonitoring as xo
            record = xo.CPerThread.GetPerThread()
            import sys
            record.fStopFrame = sys._getframe()
        """)

    @unittest.skipIf(is_built_with_address_sanitizer(),
                     "without this module, too, drop_gil of 3.13 uses the freed state of a daemon thread at the end")
    def test_a_process_ends_silently_with_the_records_of_threads_that_still_run(self):
        # They get time to fall asleep: free-threaded 3.13 frees the states of daemon threads without asking whether one
        # is just waking up.
        self.assert_silent("""
            import threading, time
            from vorntracer import xoptmonitoring as xo
            ready = threading.Barrier(5)
            def work():
                xo.CPerThread.GetPerThread()
                ready.wait()
                threading.Event().wait()
            for _ in range(4):
                threading.Thread(target=work, daemon=True).start()
            ready.wait()
            time.sleep(0.3)
        """)

    def test_a_process_ends_silently_with_every_event_on(self):
        self.assert_silent("""
            import sys, threading, atexit
            from vorntracer import dbgpythonapi, xoptmonitoring as xo
            xo.SetInternalPathnameDict(dict.fromkeys(
                module.__file__ for module in (threading, dbgpythonapi)))
            monitoring = sys.monitoring
            monitoring.use_tool_id(4, "test")
            seen = []
            for name in ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE"):
                event = getattr(monitoring.events, name)
                callback = xo.CInitialCallback(event, lambda *args: seen.append(len(args)), True)
                monitoring.register_callback(4, event, callback.Callback)
            monitoring.set_events(4, 1 | 2 | 4 | 8 | monitoring.events.LINE)
            def work():
                return sum(number for number in range(3))
            thread = threading.Thread(target=work)
            thread.start()
            thread.join()
            work()
            assert seen
        """)


class EventsAtTheEndOfAThreadTest(EventTestCase):

    TEN_THOUSAND_THREADS = """
        import sys, threading, _weakrefset
        from vornbase import dlog
        from vorntracer import dbgpythonapi, xoptmonitoring as xo

        logged = []
        dlog.LogException = lambda *args: logged.append((args, repr(sys.exception())))
        xo.SetInternalPathnameDict(dict.fromkeys(
            module.__file__ for module in (threading, _weakrefset, dlog, dbgpythonapi)))

        calls = {name: [] for name in ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE")}

        def second(name):
            return lambda code, where, *value: calls[name].append(where)

        monitoring = sys.monitoring
        monitoring.use_tool_id(3, "test")
        every_event = 0
        for name in calls:
            event = getattr(monitoring.events, name)
            every_event |= event
            callback = xo.CInitialCallback(event, second(name), CAN_RETURN_DISABLE)
            monitoring.register_callback(3, event, callback.Callback)

        def numbers():
            yield 1
            yield 2

        def work():
            return sum(numbers())

        def run(count):
            threads = [threading.Thread(target=work) for _ in range(count)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()

        monitoring.set_events(3, every_event)
        for _ in range(THREADS // 20):
            run(20)
        monitoring.set_events(3, 0)

        CPerThread, main = xo.CPerThread, threading.get_ident()
        assert logged == [], logged[:3]
        assert set(CPerThread._fPerThreadDict) <= {main}, CPerThread._fPerThreadDict
        assert set(CPerThread._fCleanupSupportByThreadId) <= {main}
        assert CPerThread._fDestructorActiveThreadIds == set()
        # A run of work: two starts and two returns, its own and the generator's; two yields, two resumptions.
        counts = {name: len(places) for name, places in calls.items()}
        assert counts["PY_START"] >= 2 * THREADS, counts
        assert counts["PY_RETURN"] >= 2 * THREADS, counts
        assert counts["PY_YIELD"] == counts["PY_RESUME"] == 2 * THREADS, counts
        assert counts["LINE"] >= 3 * THREADS, counts
    """

    def run_threads(self, thread_count, can_return_disable):
        prologue = f"CAN_RETURN_DISABLE, THREADS = {can_return_disable}, {thread_count}\n"
        code = "\n".join(line[8:] for line in self.TEN_THOUSAND_THREADS.splitlines())
        child = run_python(prologue + code, timeout=200)
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_ten_thousand_short_threads_with_every_event_on_leave_empty_registries_and_an_empty_log(self):
        self.run_threads(10_000, True)

    def test_short_threads_whose_internal_code_is_never_switched_off_leave_nothing_either(self):
        self.run_threads(1_000, False)

    def test_events_inside_the_destructor_meet_no_record_and_are_logged(self):
        callback = self.make_callback(xo.kPyStartEventId)
        code, _ = self.known_code()
        record, _ = new_own_record()
        record.fStopFrame = reentering(lambda: callback.Callback(code, 0), "__del__")
        drop_capsule()
        error = self.take_logged_one(AttributeError)
        self.assertEqual(str(error), "'NoneType' object has no attribute 'fThreadName'")
        self.assertEqual(self.second.calls, [])
        self.assertEqual(CPerThread._fPerThreadDict, {})

    def test_internal_code_inside_the_destructor_needs_no_record(self):
        callback = self.make_callback(xo.kPyStartEventId, True)
        code, _ = self.internal_code()
        record, _ = new_own_record()
        answers = []
        record.fStopFrame = reentering(lambda: answers.append(callback.Callback(code, 0)), "__del__")
        drop_capsule()
        self.assertEqual(answers, [xo.kSysMonitoringDisable])

    def test_an_event_after_the_destructor_makes_a_fresh_record(self):
        callback = self.make_callback(xo.kPyStartEventId)
        code, _ = self.known_code()
        new_own_record()
        drop_capsule()
        self.assertIsNone(callback.Callback(code, 0))
        self.assertEqual(list(CPerThread._fPerThreadDict), [me()])
        self.assertEqual(CPerThread._fCleanedUpThreadIds, set())


if __name__ == "__main__":
    unittest.main()
