"""The per-thread storage cache: one slot per thread, which borrows the record and knows the thread state."""

import gc
import os
import sys
import threading
import unittest
import weakref

from code_helpers import in_forked_child
from compiled_helpers import compile_helper
from event_helpers import EventTestCase, Worker, in_new_thread
from support import needs_fork, run_python, xo

CPerThread = xo.CPerThread
Cache = xo._CPerThreadTssCache

#: Ids that no thread has: a pthread id is the address of a structure, and these are odd.
SOME_ID = 1001
OTHER_ID = 1003


def forget_registry():
    """Drops what the registries hold, without the detaching that goes with it elsewhere."""
    CPerThread._fPerThreadDict.clear()
    CPerThread._fCleanupSupportByThreadId.clear()


#: Raises each of the five events for one code object, on the calling thread: at first so often that it takes whatever
#: shorter road there is, and comes to nothing.
RAISE_EVENTS = """
            from code_helpers import make_code
            from event_helpers import EVENT_IDS, SAMPLE
            code, calls = make_code(SAMPLE), []

            def raise_events():
                return [call(code, 1) for call in calls]

            def begin_events(seen):
                def second(*args):
                    seen.append(args)
                    return "second"

                xo.CPerCodeObject.GetPerCodeObject(code).fEnabledBpLinenos = set()
                for event_id in EVENT_IDS.values():
                    callback = xo.CInitialCallback(event_id, second, False)
                    callback.fAnySuspendThread = True
                    calls.append(callback.Callback)
                for _ in range(3):
                    assert raise_events() == [None] * 5 and not seen, seen
"""


class StoreAndGetTest(EventTestCase):

    def test_get_gives_none_before_anything_is_stored(self):
        self.assertIsNone(Cache.Get())

    def test_the_very_first_get_of_a_process_gives_none_and_later_stores_work(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            assert xo._CPerThreadTssCache.Get() is None
            record = xo.CPerThread(1001)
            assert xo._CPerThreadTssCache.Store(record) is None
            assert xo._CPerThreadTssCache.Get() is record
        """)

    def test_every_other_operation_can_be_the_very_first_of_a_process(self):
        for operation in ("Store(record)", "Detach(record)", "Clear()", "_DropCurrentSlot()"):
            with self.subTest(operation=operation):
                run_python(f"""
                    from vorntracer import xoptmonitoring as xo
                    record = xo.CPerThread(1001)
                    xo._CPerThreadTssCache.{operation}
                    expected = record if {operation!r}.startswith("Store") else None
                    assert xo._CPerThreadTssCache.Get() is expected
                """)

    def test_a_stored_record_is_found_again(self):
        record = CPerThread(SOME_ID)
        self.assertIsNone(Cache.Store(record))
        self.assertIs(Cache.Get(), record)
        self.assertIs(Cache.Get(), record)

    def test_the_slot_only_borrows_the_record(self):
        record = CPerThread(SOME_ID)
        before = sys.getrefcount(record)
        Cache.Store(record)
        self.assertEqual(sys.getrefcount(record), before)
        Cache.Clear()
        self.assertEqual(sys.getrefcount(record), before)

    def test_what_get_returns_is_a_reference_of_the_callers_own(self):
        record = CPerThread(SOME_ID)
        Cache.Store(record)
        before = sys.getrefcount(record)
        found = [Cache.Get() for _ in range(100)]
        self.assertEqual(sys.getrefcount(record), before + 100)
        del found
        self.assertEqual(sys.getrefcount(record), before)

    def test_storing_does_not_register_and_getting_does_not_create(self):
        record = CPerThread(SOME_ID)
        forget_registry()
        Cache.Store(record)
        Cache.Get()
        self.assertEqual(CPerThread.GetAllPerThreads(), [])

    def test_each_thread_has_a_slot_of_its_own(self):
        mine, theirs = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(mine)
        with Worker() as worker:
            self.assertIsNone(worker.call(Cache.Get))
            worker.call(Cache.Store, theirs)
            self.assertIs(worker.call(Cache.Get), theirs)
            self.assertIs(Cache.Get(), mine)

    def test_a_second_store_replaces_the_first_record(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(first)
        Cache.Store(second)
        self.assertIs(Cache.Get(), second)

    def test_a_record_that_another_one_replaced_no_longer_leads_to_the_slot(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(first)
        Cache.Store(second)
        Cache.Detach(first)  # would empty the slot, or write to freed memory, had it kept its way back
        self.assertIs(Cache.Get(), second)

    def test_the_end_of_a_replaced_record_leaves_the_slot_alone(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(first)
        Cache.Store(second)
        CPerThread._DiscardPerThread(SOME_ID)
        del first
        gc.collect()
        self.assertIs(Cache.Get(), second)

    def test_storing_the_same_record_again_keeps_it(self):
        record = CPerThread(SOME_ID)
        for _ in range(3):
            Cache.Store(record)
            self.assertIs(Cache.Get(), record)
        Cache.Detach(record)
        self.assertIsNone(Cache.Get())

    def test_a_record_made_without_running_its_initialiser_can_be_stored(self):
        record = CPerThread.__new__(CPerThread)
        Cache.Store(record)
        self.assertIs(Cache.Get(), record)
        del record
        gc.collect()
        self.assertIsNone(Cache.Get())

    def test_only_records_can_be_stored_and_detached(self):
        record = CPerThread(SOME_ID)
        Cache.Store(record)
        for operation in (Cache.Store, Cache.Detach):
            for value in (5, None, "record", CPerThread):
                with self.subTest(operation=operation, value=value):
                    self.assert_raises_text(TypeError, f"expected CPerThread instance, got {value!r}",
                                            operation, value)
        self.assertIs(Cache.Get(), record)

    def test_many_threads_find_their_own_records_while_others_come_and_go(self):
        problems = []
        start = threading.Barrier(8)

        def work(number):
            start.wait()
            for turn in range(300):
                record = CPerThread(SOME_ID + 2 * (number + 8 * turn))
                Cache.Store(record)
                if Cache.Get() is not record:
                    problems.append("not found")
                if turn % 3 == 0:
                    Cache.Detach(record)
                elif turn % 3 == 1:
                    Cache.Clear()
                else:
                    CPerThread._DiscardPerThread(record.fThreadId)
                if Cache.Get() is not None:
                    problems.append("still found")

        threads = [threading.Thread(target=work, args=(number,)) for number in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(problems, [])


class ClearTest(EventTestCase):

    def test_both_ways_of_clearing_empty_the_calling_threads_slot(self):
        for clear in (Cache.Clear, Cache._DropCurrentSlot):
            with self.subTest(clear=clear):
                record = CPerThread(SOME_ID)
                Cache.Store(record)
                clear()
                self.assertIsNone(Cache.Get())

    def test_clear_returns_none_with_and_without_a_slot(self):
        self.assertIsNone(Cache.Clear())
        record = CPerThread(SOME_ID)
        Cache.Store(record)
        self.assertIsNone(Cache.Clear())

    def test_an_empty_slot_can_be_cleared_again(self):
        for clear in (Cache.Clear, Cache._DropCurrentSlot, Cache.Clear, Cache._DropCurrentSlot):
            clear()
        self.assertIsNone(Cache.Get())

    def test_clearing_leaves_the_slots_of_other_threads_alone(self):
        record = CPerThread(SOME_ID)
        with Worker() as worker:
            worker.call(Cache.Store, record)
            Cache.Clear()
            Cache._DropCurrentSlot()
            self.assertIs(worker.call(Cache.Get), record)

    def test_a_cleared_record_no_longer_leads_to_the_slot(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        for clear in (Cache.Clear, Cache._DropCurrentSlot):
            with self.subTest(clear=clear):
                Cache.Store(first)
                clear()
                Cache.Store(second)
                Cache.Detach(first)
                self.assertIs(Cache.Get(), second)


class DetachTest(EventTestCase):

    def test_detaching_on_the_threads_own_side_empties_its_slot(self):
        record = CPerThread(SOME_ID)
        Cache.Store(record)
        self.assertIsNone(Cache.Detach(record))
        self.assertIsNone(Cache.Get())

    def test_detaching_the_record_of_another_thread_makes_that_threads_next_get_none(self):
        record = CPerThread(SOME_ID)
        with Worker() as worker:
            worker.call(Cache.Store, record)
            self.assertIsNone(Cache.Detach(record))
            self.assertIsNone(worker.call(Cache.Get))
            self.assertIsNone(worker.call(Cache.Get))

    def test_a_thread_whose_record_was_detached_can_store_again(self):
        first, second = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        with Worker() as worker:
            for looks_before in (False, True):
                with self.subTest(looks_before=looks_before):
                    worker.call(Cache.Store, first)
                    Cache.Detach(first)
                    if looks_before:
                        self.assertIsNone(worker.call(Cache.Get))
                    worker.call(Cache.Store, second)
                    self.assertIs(worker.call(Cache.Get), second)

    def test_a_detached_record_can_be_stored_again(self):
        record = CPerThread(SOME_ID)
        with Worker() as worker:
            worker.call(Cache.Store, record)
            Cache.Detach(record)
            Cache.Store(record)
            self.assertIs(Cache.Get(), record)
            self.assertIsNone(worker.call(Cache.Get))
            self.assertIs(Cache.Get(), record)

    def test_detaching_leaves_the_callers_own_slot_alone(self):
        mine, theirs = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(mine)
        with Worker() as worker:
            worker.call(Cache.Store, theirs)
            Cache.Detach(theirs)
            self.assertIs(Cache.Get(), mine)

    def test_detaching_a_record_that_is_nowhere_cached_does_nothing(self):
        cached, other = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(cached)
        for _ in range(2):
            self.assertIsNone(Cache.Detach(other))
        self.assertIs(Cache.Get(), cached)

    def test_detaching_twice_is_harmless(self):
        record = CPerThread(SOME_ID)
        with Worker() as worker:
            worker.call(Cache.Store, record)
            Cache.Detach(record)
            Cache.Detach(record)
            self.assertIsNone(worker.call(Cache.Get))


class EndOfARecordTest(EventTestCase):
    """The slot holds no reference, so it must not outlive what it points at."""

    def test_the_slot_is_empty_once_the_last_reference_to_its_record_is_gone(self):
        record = CPerThread(SOME_ID)
        gone = weakref.ref(record)
        Cache.Store(record)
        forget_registry()
        del record
        gc.collect()
        self.assertIsNone(gone(), "the record is kept alive")
        self.assertIsNone(Cache.Get())

    def test_the_last_reference_may_be_dropped_by_another_thread(self):
        holder = [CPerThread(SOME_ID)]
        gone = weakref.ref(holder[0])
        with Worker() as worker:
            worker.call(lambda: Cache.Store(holder[0]))
            forget_registry()
            holder.clear()
            gc.collect()
            self.assertIsNone(gone(), "the record is kept alive")
            self.assertIsNone(worker.call(Cache.Get))

    def test_no_slot_dangles_after_the_end_of_a_record_that_two_threads_stored(self):
        holder = [CPerThread(SOME_ID)]
        gone = weakref.ref(holder[0])
        with Worker() as worker:
            worker.call(lambda: Cache.Store(holder[0]))
            Cache.Store(holder[0])
            self.assertIs(Cache.Get(), holder[0])
            forget_registry()
            holder.clear()
            gc.collect()
            self.assertIsNone(gone(), "the record is kept alive")
            self.assertIsNone(Cache.Get())
            self.assertIsNone(worker.call(Cache.Get))

    def test_a_record_keeps_its_class(self):
        class Other(CPerThread):
            def __del__(self):
                pass

        record = CPerThread.GetPerThread()
        with self.assertRaisesRegex(TypeError, "^the class of a CPerThread cannot be changed$"):
            record.__class__ = Other
        self.assertIs(type(record), CPerThread)
        self.assertIs(record.__class__, CPerThread)
        self.assertIs(Other.__class__, type(CPerThread))

    def test_a_record_whose_class_is_changed_by_force_is_detached_all_the_same(self):
        """`object`'s own descriptor passes the record's by."""
        class Other(CPerThread):
            __slots__ = ()

            def __del__(self):
                pass

        holder = [CPerThread(SOME_ID)]
        Cache.Store(holder[0])
        object.__dict__["__class__"].__set__(holder[0], Other)
        self.assert_cached_until_its_end(holder)

    def assert_cached_until_its_end(self, holder):
        """Lets the record, of which nobody else knows, die, while it is what this thread has cached."""
        self.assertIs(Cache.Get(), holder[0])
        forget_registry()
        gone = weakref.ref(holder[0])
        holder.clear()
        gc.collect()
        self.assertIsNone(gone(), "the record is kept alive")
        self.assertIsNone(Cache.Get())
        fresh = [CPerThread(SOME_ID + number) for number in range(8)]  # one in the place of the dead record
        self.assertIsNone(Cache.Get(), fresh)

    def test_a_record_whose_class_comes_to_finalise_otherwise_is_detached_all_the_same(self):
        class Mixin:
            pass

        class Other(Mixin, CPerThread):
            pass

        holder = [Other(SOME_ID)]
        Cache.Store(holder[0])
        Mixin.__del__ = lambda self: None
        self.assert_cached_until_its_end(holder)

    def test_a_record_that_came_back_from_its_finaliser_is_detached_all_the_same(self):
        class Other(CPerThread):
            def __del__(self):
                holder.append(self)

        holder = [Other(SOME_ID)]
        forget_registry()
        holder.clear()
        gc.collect()
        self.assertEqual(len(holder), 1, "it did not come back")
        Cache.Store(holder[0])
        self.assert_cached_until_its_end(holder)

    def test_a_dying_record_is_not_found_by_what_runs_while_it_is_taken_apart(self):
        class Other(CPerThread):
            def __del__(self):
                pass

        class Asks:
            def __del__(self):
                found.append(Cache.Get())

        found = []
        record = Other(SOME_ID)
        record.fStopFrame = Asks()
        Cache.Store(record)
        forget_registry()
        del record
        gc.collect()
        self.assertEqual(found, [None])

    def test_a_record_of_a_class_made_past_its_metaclass_takes_the_earlier_ones_place_and_is_not_cached(self):
        metaclass = type(CPerThread)
        Other = metaclass.__new__(metaclass, "Other", (CPerThread,), {})
        earlier, later = CPerThread(SOME_ID), Other(SOME_ID + 2)
        Cache.Store(earlier)
        Cache.Store(later)
        self.assertIsNone(Cache.Get())
        Cache.Store(earlier)
        self.assertIs(Cache.Get(), earlier)

    def test_a_record_of_a_subclass_takes_the_earlier_ones_place(self):
        class Other(CPerThread):
            pass

        earlier, later = CPerThread(SOME_ID), Other(SOME_ID + 2)
        Cache.Store(earlier)
        Cache.Store(later)
        self.assertIs(Cache.Get(), later)
        del later
        CPerThread._DiscardPerThread(SOME_ID + 2)
        gc.collect()
        self.assertIsNone(Cache.Get())

    def test_a_thread_whose_record_is_replaced_by_another_thread_goes_on_with_the_new_one(self):
        """As when two threads miss the record of one of them at the same time."""
        with Worker() as worker:
            own = worker.call(CPerThread.GetPerThread)
            new = CPerThread(own.fThreadId)
            self.assertIs(worker.call(CPerThread.GetPerThread), new)
            self.assertIs(CPerThread.GetPerThread(own.fThreadId), new)

    def test_a_record_discarded_between_its_creation_and_its_store_is_not_found_again(self):
        identity = threading.get_ident()

        def discard_elsewhere(record):
            in_new_thread(CPerThread._DiscardPerThread, record.fThreadId)

        CPerThread.SetNewPerThreadCreatedCallback(discard_elsewhere)
        record = CPerThread.GetPerThread()
        CPerThread.SetNewPerThreadCreatedCallback(None)
        self.assertEqual(CPerThread.GetAllPerThreads(), [])
        self.assertEqual(record.fThreadId, identity)
        self.assertIsNone(Cache.Get(), "cached, while nobody else knows of it")
        gone = weakref.ref(record)
        del record
        gc.collect()
        self.assertIsNone(gone(), "the record is kept alive")
        self.assertIsNone(Cache.Get())
        self.assertEqual(CPerThread.GetPerThread().fThreadId, identity)

    def test_a_record_discarded_while_it_is_announced_and_dropped_at_once_is_not_found_again(self):
        CPerThread.SetNewPerThreadCreatedCallback(
            lambda record: CPerThread._DiscardPerThread(record.fThreadId))
        for _ in range(50):
            CPerThread.GetPerThread()
            self.assertIsNone(Cache.Get())
        self.assertEqual(CPerThread.GetAllPerThreads(), [])

    def test_threads_that_discard_each_others_records_all_the_time_find_no_dead_ones(self):
        problems = []
        stop = threading.Event()
        identities = []

        def discard():
            while not stop.is_set():
                for identity in list(identities):
                    CPerThread._DiscardPerThread(identity)

        def work():
            identities.append(threading.get_ident())
            for _ in range(2000):
                if CPerThread.GetPerThread().fThreadId != threading.get_ident():
                    problems.append("the record of another thread")
                found = Cache.Get()
                if found is not None and found.fThreadId != threading.get_ident():
                    problems.append("a dead record")

        workers = [threading.Thread(target=work) for _ in range(4)]
        discarder = threading.Thread(target=discard)
        discarder.start()
        for thread in workers:
            thread.start()
        for thread in workers:
            thread.join()
        stop.set()
        discarder.join()
        self.assertEqual(problems, [])


class RecreatedThreadStateTest(EventTestCase):
    """An operating-system thread may have one thread state after another."""

    def run_with_helper(self, code):
        library = compile_helper("thread_states", self.make_dir())
        run_python(f"""
            import ctypes, threading
            from compiled_helpers import run_calls
            from vorntracer import xoptmonitoring as xo
            Cache, CPerThread, library = xo._CPerThreadTssCache, xo.CPerThread, {library!r}
            state = ctypes.pythonapi.PyThreadState_Get
            state.restype = ctypes.c_void_p
            """ + code)

    def test_a_record_stored_under_another_thread_state_of_the_same_thread_is_not_found(self):
        self.run_with_helper("""
            record = CPerThread(1001)

            def store():
                Cache.Store(record)
                return state(), threading.get_ident(), Cache.Get()

            def look():
                return state(), threading.get_ident(), Cache.Get()

            first, under_other, last = run_calls(library, "run_under_two_states", store, look, look)
            assert first[0] == last[0] != under_other[0], "the thread states are not two"
            assert first[1] == under_other[1] == last[1], "the thread is not one"
            assert first[2] is record
            assert under_other[2] is None
            assert last[2] is None, "the stale slot was not dropped"
            Cache.Store(record)     # the record no longer leads to the slot that was freed
            assert Cache.Get() is record
            """)

    def test_the_record_of_a_thread_is_found_under_each_of_its_thread_states(self):
        self.run_with_helper("""
            def look():
                return Cache.Get(), CPerThread.GetPerThread(), Cache.Get()

            first, under_other, last = run_calls(library, "run_under_two_states", look, look, look)
            record = first[1]
            assert first == (None, record, record)
            assert under_other == (None, record, record)
            assert last == (None, record, record)
            """)

    def test_events_are_not_decided_by_the_record_of_another_module_object(self):
        """A second import of the same file makes a module object of its own, and shares the cache's key with it."""
        run_python("""
            import importlib, sys
            from vorntracer import xoptmonitoring as xo
            """ + RAISE_EVENTS + """
            del sys.modules["vorntracer.xoptmonitoring"]
            other = importlib.import_module("vorntracer.xoptmonitoring")
            assert other.CPerThread is not xo.CPerThread
            seen = []
            xo.CPerThread.GetPerThread().fThreadName = "own"
            begin_events(seen)
            xo.CPerThread.GetPerThread().fSteppingEventsNeeded = True
            not_debugged = other.CPerThread.GetPerThread()
            not_debugged.fThreadName, not_debugged.fDebugPolicy = "not debugged", 0
            assert other._CPerThreadTssCache.Get() is not_debugged
            assert raise_events() == ["second"] * 5, seen
            """)

    def test_events_under_another_thread_state_are_not_decided_by_the_record_stored_under_the_first(self):
        self.run_with_helper(RAISE_EVENTS + """
            not_debugged = CPerThread(1001)
            not_debugged.fThreadName, not_debugged.fDebugPolicy = "not debugged", 0
            seen = []

            def begin():
                own = CPerThread.GetPerThread()
                own.fThreadName = "own"
                begin_events(seen)
                own.fSteppingEventsNeeded = True
                Cache.Store(not_debugged)
                return raise_events(), list(seen)

            def go_on():
                return raise_events(), list(seen)

            first, under_other, last = run_calls(library, "run_under_two_states", begin, go_on, go_on)
            assert first == ([None] * 5, []), first
            assert under_other[0] == ["second"] * 5 and len(under_other[1]) == 5, under_other
            """)

    def test_a_thread_state_made_after_the_end_of_another_starts_with_a_fresh_record(self):
        self.run_with_helper("""
            def look():
                before = Cache.Get()
                record = CPerThread.GetPerThread()
                return before, record, record.fSuspendLock is not None, threading.get_ident()

            first, second = run_calls(library, "run_under_successive_states", look, look)
            assert first[3] == second[3], "the thread is not one"
            assert first[0] is None and second[0] is None
            assert first[1] is not second[1]
            assert first[2] and second[2]
            assert CPerThread._fPerThreadDict == CPerThread._fCleanupSupportByThreadId == {}
            assert CPerThread._fCleanedUpThreadIds == {first[3]}
            """)


class IdentityFunctionsTest(EventTestCase):

    def test_the_thread_id_is_that_of_the_calling_thread(self):
        self.assertEqual(xo._GetThreadIdent(), threading.get_ident())
        with Worker() as worker:
            self.assertEqual(worker.call(xo._GetThreadIdent), worker.ident)
            self.assertNotEqual(worker.ident, threading.get_ident())

    def test_the_process_id_is_that_of_this_process(self):
        self.assertEqual(xo._GetPid(), os.getpid())
        with Worker() as worker:
            self.assertEqual(worker.call(xo._GetPid), os.getpid())

    def test_neither_takes_an_argument(self):
        for function in (xo._GetThreadIdent, xo._GetPid, Cache.Get, Cache.Clear, Cache._DropCurrentSlot):
            with self.subTest(function=function):
                self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                        function, 1)


@needs_fork
class ForkedChildTest(EventTestCase):

    def test_the_child_keeps_the_slot_of_the_thread_that_forked(self):
        record, other = CPerThread(SOME_ID), CPerThread(OTHER_ID)
        Cache.Store(record)

        def look():
            found = [Cache.Get() is record]
            Cache.Store(other)
            found.append(Cache.Get() is other)
            Cache.Clear()
            found.append(Cache.Get() is None)
            return found

        self.assertEqual(in_forked_child(look), [True, True, True])
        self.assertIs(Cache.Get(), record)
        with Worker() as worker:
            worker.call(Cache.Store, other)
            self.assertIs(worker.call(in_forked_child, lambda: Cache.Get() is other), True)

    def test_the_child_can_detach_the_record_of_a_thread_that_it_does_not_have(self):
        record = CPerThread(SOME_ID)
        with Worker() as worker:
            worker.call(Cache.Store, record)

            def detach():
                Cache.Detach(record)
                Cache.Store(record)
                return Cache.Get() is record

            self.assertIs(in_forked_child(detach), True)
            self.assertIs(worker.call(Cache.Get), record)


if __name__ == "__main__":
    unittest.main()
