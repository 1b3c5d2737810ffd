"""Where the records of code objects are kept: the extra slot of the code object, or else a dictionary."""

import gc
import importlib.util
import sys
import threading
import unittest
import weakref

from code_helpers import (CALLING, collect_code, conversion_error, frees_code_objects, in_frame_of,
                          make_code)
from support import NastyError, Recorder, XoTestCase, is_free_threaded, raising, run_python, xo

CPerFile = xo.CPerFile
CPerCodeObject = xo.CPerCodeObject

GetPerCodeObject = CPerCodeObject.GetPerCodeObject


def filed_under(pathname):
    """The records that the file of that canonical pathname knows."""
    return CPerFile.GetPerFile(pathname, False).fKnownPerCodeObjects


class RegistryBehaviour:
    """What both registries have in common; the concrete cases below choose one."""

    def setUp(self):
        super().setUp()
        # What follows is to happen by reference counting alone.
        gc.collect()
        gc.disable()
        self.addCleanup(gc.enable)

    def test_an_unseen_code_object_has_no_record(self):
        code = make_code("/a.py")
        self.assertIsNone(GetPerCodeObject(code, False))
        self.assertIsNone(CPerCodeObject._GetExistingPerCodeObject(code))
        self.assertIsNone(CPerCodeObject._GetExistingPerCodeObjectFromWeakref(code))
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})

    def test_a_record_is_found_again(self):
        code, other = make_code("/a.py"), make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertIs(GetPerCodeObject(code), record)
        self.assertIs(CPerCodeObject._GetExistingPerCodeObject(code), record)
        self.assertIsNot(GetPerCodeObject(other), record)
        self.assertIs(GetPerCodeObject(code), record)

    def test_the_registry_keeps_the_record_alive_without_its_file(self):
        code = make_code("/a.py")
        reference = weakref.ref(GetPerCodeObject(code))
        CPerFile._fPerFileDict.clear()
        gc.collect()
        self.assertIsNotNone(reference())
        self.assertIs(GetPerCodeObject(code, False), reference())

    @frees_code_objects
    def test_the_record_keeps_no_code_alive(self):
        code = make_code("/a.py")
        reference = weakref.ref(code)
        record = GetPerCodeObject(code)
        del code
        collect_code()
        self.assertIsNone(reference())
        self.assertIsNone(record.fCodeObjectWeakRef())

    @frees_code_objects
    def test_the_end_of_the_code_ends_the_record_and_takes_it_out_of_its_file(self):
        code, other = make_code("/a.py"), make_code("/a.py")
        reference = weakref.ref(GetPerCodeObject(code))
        other_record = GetPerCodeObject(other)
        self.assertEqual(filed_under("/a.py"), {reference(), other_record})
        del code
        collect_code()
        self.assertIsNone(reference())
        self.assertEqual(filed_under("/a.py"), {other_record})

    @frees_code_objects
    def test_the_end_of_the_code_leaves_nothing_in_the_dictionary(self):
        code = make_code("/a.py")
        GetPerCodeObject(code)
        del code
        collect_code()
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})

    @frees_code_objects
    def test_a_record_that_somebody_holds_outlives_its_code_outside_its_file(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        record.fEnabledBpLinenos = {1}
        del code
        collect_code()
        self.assertEqual(filed_under("/a.py"), set())
        self.assertEqual((record.fPathnameToReport, record.fEnabledBpLinenos), ("/a.py", {1}))

    @frees_code_objects
    def test_a_settled_record_leaves_the_file_it_was_moved_to(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertEqual(filed_under("/made_up.py"), {record})
        del code, record
        collect_code()
        self.assertEqual((filed_under("/made_up.py"), filed_under("<frozen made_up>")), (set(), set()))

    @frees_code_objects
    def test_the_code_of_a_dead_function_is_let_go(self):
        names = {}
        exec(compile("def f(): return 1", "/a.py", "exec"), names)
        function = names.pop("f")
        GetPerCodeObject(function.__code__)
        self.assertEqual(len(filed_under("/a.py")), 1)
        del function
        names.clear()
        collect_code()
        self.assertEqual(filed_under("/a.py"), set())

    @frees_code_objects
    def test_code_that_ends_after_its_file_was_forgotten_ends_quietly(self):
        unraisable = self.patch(sys, "unraisablehook", Recorder())
        code = make_code("/a.py")
        reference = weakref.ref(GetPerCodeObject(code))
        CPerFile._fPerFileDict.clear()
        gc.collect()
        del code
        collect_code()
        self.assertIsNone(reference())
        self.assertEqual((unraisable.calls, CPerFile._fPerFileDict), ([], {}))

    @frees_code_objects
    def test_code_that_ends_after_a_reset_ends_quietly(self):
        unraisable = self.patch(sys, "unraisablehook", Recorder())
        code = make_code("/a.py")
        reference = weakref.ref(GetPerCodeObject(code))
        xo.reset()
        del code
        collect_code()
        gc.collect()
        self.assertIsNone(reference())
        self.assertEqual((unraisable.calls, CPerFile._fPerFileDict), ([], {}))

    @frees_code_objects
    def test_code_that_ends_while_the_other_registry_holds_a_record_ends_quietly(self):
        unraisable = self.patch(sys, "unraisablehook", Recorder())
        code, other = make_code("/a.py"), make_code("/b.py")
        reference = weakref.ref(GetPerCodeObject(code))
        index = xo._Code_RequestExtraIndexForOwnedRef() if CPerCodeObject._fCodeObjectExtraIndex == -1 else -1
        CPerCodeObject._fCodeObjectExtraIndex = index
        GetPerCodeObject(other)
        del code
        collect_code()
        self.assertIsNone(reference())
        self.assertEqual((unraisable.calls, filed_under("/a.py")), ([], set()))

    @frees_code_objects
    def test_code_whose_record_could_not_be_finished_ends_quietly(self):
        unraisable = self.patch(sys, "unraisablehook", Recorder())
        code, other = make_code("/a.py"), make_code("/b.py")
        GetPerCodeObject(other)
        xo.set_checksum_callback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", GetPerCodeObject, code)
        del code
        collect_code()
        self.assertEqual(unraisable.calls, [])

    @frees_code_objects
    def test_an_error_while_a_dead_code_object_is_taken_out_is_unraisable(self):
        caught = []
        self.patch(sys, "unraisablehook", lambda info: caught.append((info.exc_type, str(info.exc_value))))
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        record.fCanonicalPathname = raising("__hash__")
        del code
        collect_code()
        self.assertEqual(caught, [(NastyError, "nasty")])
        self.assertIsNone(record.fCodeObjectWeakRef())

    @frees_code_objects
    def test_an_unhashable_pathname_of_a_dead_code_object_is_swallowed(self):
        unraisable = self.patch(sys, "unraisablehook", Recorder())
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        record.fCanonicalPathname = []
        del code
        collect_code()
        self.assertEqual(unraisable.calls, [])
        self.assertIsNone(record.fCodeObjectWeakRef())

    @frees_code_objects
    def test_a_thousand_dead_code_objects_leave_nothing_behind(self):
        for number in range(1000):
            GetPerCodeObject(make_code(f"/{number % 7}.py"))
        collect_code()
        self.assertEqual([per_file.fKnownPerCodeObjects for per_file in CPerFile.GetAllPerFiles()],
                         [set()] * 7)
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})

    @frees_code_objects
    def test_code_objects_that_end_on_other_threads_are_taken_out(self):
        thread_count = 4
        barrier = threading.Barrier(thread_count)

        def run():
            barrier.wait()
            for _ in range(200):
                GetPerCodeObject(make_code("/a.py"))

        threads = [threading.Thread(target=run) for _ in range(thread_count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        collect_code()
        self.assertEqual((filed_under("/a.py"), CPerCodeObject._fPerCodeObjectDict), (set(), {}))

    def test_the_end_can_be_announced_by_hand(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertIsNone(record._cb_code_object_dealloc(record.fCodeObjectWeakRef))
        self.assertEqual(filed_under("/a.py"), set())
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})

    def test_registering_without_a_callback_leaves_the_tracing_level_alone(self):
        enter = self.patch(xo.dbgpythonapi, "PyThreadState_EnterTracing", Recorder())
        GetPerCodeObject(make_code("/a.py"))
        self.assertEqual(enter.calls, [])

    def test_what_is_no_record_is_neither_registered_nor_announced(self):
        code = make_code("/a.py")
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        for value in (5, None, CPerFile("/a.py"), CPerCodeObject):
            with self.subTest(value=value):
                self.assert_raises_text(TypeError, f"expected CPerCodeObject, got {repr(value)[:200]}",
                                        CPerCodeObject._RegisterPerCodeObject, code, value)
                self.assertIsNone(GetPerCodeObject(code, False))
        self.assertEqual((announced.calls, CPerCodeObject._fPerCodeObjectDict), ([], {}))
        record = GetPerCodeObject(code)
        self.assert_raises_text(TypeError, "expected CPerCodeObject, got 5",
                                CPerCodeObject._RegisterPerCodeObject, code, 5)
        self.assertIs(GetPerCodeObject(code), record)
        self.assertEqual(announced.calls, [(record,)])

    def test_threads_that_meet_new_code_at_once_leave_one_record_for_each(self):
        thread_count, code_count = 8, 100
        codes = [make_code("/a.py") for _ in range(code_count)]
        xo.CPerFile.GetPerFile("/a.py")  # threads that make the record of one file at once may make several
        barrier = threading.Barrier(thread_count)

        def run():
            for code in codes:
                barrier.wait()
                GetPerCodeObject(code)

        threads = [threading.Thread(target=run) for _ in range(thread_count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        gc.collect()
        settled = {GetPerCodeObject(code, False) for code in codes}
        self.assertEqual(len(settled), code_count)
        self.assertEqual(filed_under("/a.py"), settled)

    def test_the_record_that_was_stored_first_stays_when_another_thread_was_slower(self):
        code = make_code("/a.py")
        first = []

        def new_file(per_file):
            # Meanwhile another thread meets the same code and is done with it.
            CPerFile.SetNewPerFileCreatedCallback(None)
            thread = threading.Thread(target=lambda: first.append(GetPerCodeObject(code)))
            thread.start()
            thread.join()

        CPerFile.SetNewPerFileCreatedCallback(new_file)
        GetPerCodeObject(code)
        self.assertIs(GetPerCodeObject(code, False), first[0])
        gc.collect()
        self.assertEqual(filed_under("/a.py"), {first[0]})


class ExtraSlotRegistryTest(RegistryBehaviour, XoTestCase):

    def setUp(self):
        super().setUp()
        self.assertGreaterEqual(CPerCodeObject._fCodeObjectExtraIndex, 0)

    def test_the_record_is_in_the_slot_and_not_in_the_dictionary(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertIs(xo._Code_GetExtra(code, CPerCodeObject._fCodeObjectExtraIndex), record)
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})
        self.assertIsNone(CPerCodeObject._GetExistingPerCodeObjectFromWeakref(code))

    def test_equal_code_objects_have_records_of_their_own(self):
        first, second = make_code("/a.py", CALLING), make_code("/b.py", CALLING)
        self.assertEqual(first, second)
        self.assertIsNot(GetPerCodeObject(first), GetPerCodeObject(second))
        self.assertEqual(GetPerCodeObject(second).fCanonicalPathname, "/b.py")

    def test_the_slot_owns_one_reference_to_the_record(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        other = make_code("/b.py")
        before = sys.getrefcount(record)
        xo._Code_SetExtra(other, CPerCodeObject._fCodeObjectExtraIndex, record)
        self.assertEqual(sys.getrefcount(record), before + 1)
        self.assertIs(GetPerCodeObject(other), record)

    def test_a_lookup_gives_a_reference_of_its_own(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        before = sys.getrefcount(record)
        found = [CPerCodeObject._GetExistingPerCodeObject(code) for _ in range(3)]
        self.assertEqual(sys.getrefcount(record), before + 3)
        found.clear()
        self.assertEqual(sys.getrefcount(record), before)

    def test_a_foreign_object_in_the_slot_is_refused(self):
        code = make_code("/a.py")
        xo._Code_SetExtra(code, CPerCodeObject._fCodeObjectExtraIndex, 5)
        for lookup in (GetPerCodeObject, CPerCodeObject._GetExistingPerCodeObject):
            with self.subTest(lookup=lookup):
                self.assert_raises_text(TypeError, "expected CPerCodeObject | None, got 5", lookup, code)

    def test_what_is_no_code_object_fails_with_the_error_of_the_interpreter(self):
        for lookup in (GetPerCodeObject, CPerCodeObject._GetExistingPerCodeObject):
            with self.subTest(lookup=lookup):
                with self.assertRaisesRegex(SystemError, "bad argument to internal function"):
                    lookup(5)

    def test_announcing_the_end_by_hand_leaves_the_slot(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        record._cb_code_object_dealloc(record.fCodeObjectWeakRef)
        self.assertIs(GetPerCodeObject(code, False), record)

    def test_registering_by_hand_stores_the_record_with_the_code_object_given_and_then_announces_it(self):
        code, other = make_code("/a.py"), make_code("/b.py")
        record = GetPerCodeObject(code)
        seen = []
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            lambda announced: seen.append((announced, GetPerCodeObject(other, False))))
        self.assertIsNone(CPerCodeObject._RegisterPerCodeObject(per_code_object=record, code_object=other))
        self.assertEqual(seen, [(record, record)])


def make_module_object():
    """Another module object of the very file that this process has imported already."""
    spec = importlib.util.spec_from_file_location(xo.__spec__.name, xo.__file__)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


class TwoModuleObjectsTest(XoTestCase):
    """Each has records of its own for a code object, in another slot of that."""

    def setUp(self):
        super().setUp()
        self.other = make_module_object()
        self.addCleanup(self.other.reset)

    def meet_new_code(self):
        """Many threads meet new code objects, each for one of the modules; returns the records that were lost."""
        threads_of_each, batch_count, codes_at_once = 4, 10, 200
        batches = [[make_code("/a.py") for _ in range(codes_at_once)] for _ in range(batch_count)]
        met = [(module, []) for module in (xo, self.other) for _ in range(threads_of_each)]
        barrier = threading.Barrier(len(met))

        def run(module, records):
            for batch in batches:
                barrier.wait()
                for code in batch:
                    records.append((code, module.CPerCodeObject.GetPerCodeObject(code)))

        threads = [threading.Thread(target=run, args=each) for each in met]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return [record for module, records in met for code, record in records
                if module.CPerCodeObject.GetPerCodeObject(code, False) is not record]

    def test_threads_that_meet_new_code_for_both_lose_no_record(self):
        for module in (xo, self.other):
            module.CPerFile.GetPerFile("/a.py")
        for _ in range(10 if is_free_threaded() else 1):
            self.assertEqual(self.meet_new_code(), [])

    def test_a_record_that_the_other_replaces_is_kept_while_threads_can_be_looking_at_it(self):
        code = make_code("/a.py")
        reference = weakref.ref(GetPerCodeObject(code))
        CPerFile._fPerFileDict.clear()
        index = CPerCodeObject._fCodeObjectExtraIndex
        self.other._Code_SetExtra(code, index, None)
        gc.collect()
        self.assertEqual(reference() is not None, is_free_threaded())
        self.assertIsNone(xo._Code_GetExtra(code, index))

    def test_what_is_no_record_is_let_go_when_the_other_replaces_it(self):
        class Value:
            pass

        code = make_code("/a.py")
        value = Value()
        reference = weakref.ref(value)
        index = CPerCodeObject._fCodeObjectExtraIndex
        xo._Code_SetExtra(code, index, value)
        del value
        self.assertIsNotNone(reference())
        self.other._Code_SetExtra(code, index, None)
        gc.collect()
        self.assertIsNone(reference())


class DictionaryRegistryTest(RegistryBehaviour, XoTestCase):

    def setUp(self):
        super().setUp()
        CPerCodeObject._fCodeObjectExtraIndex = -1

    def test_the_record_is_in_the_dictionary_under_its_weak_reference_and_not_in_the_slot(self):
        extra_index = xo._Code_RequestExtraIndexForOwnedRef()
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        ((key, value),) = CPerCodeObject._fPerCodeObjectDict.items()
        self.assertIs(key, record.fCodeObjectWeakRef)
        self.assertIs(value, record)
        for index in range(extra_index + 1):
            self.assertIsNot(xo._Code_GetExtra(code, index), record)

    def test_a_record_is_found_by_a_fresh_weak_reference(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertIs(CPerCodeObject._fPerCodeObjectDict[weakref.ref(code)], record)
        self.assertIs(CPerCodeObject._GetExistingPerCodeObjectFromWeakref(code), record)

    def test_equal_code_objects_share_one_record(self):
        first, second = make_code("/a.py", CALLING), make_code("/b.py", CALLING)
        self.assertEqual(first, second)
        record = GetPerCodeObject(first)
        self.assertIs(GetPerCodeObject(second), record)
        self.assertEqual(record.fCanonicalPathname, "/a.py")
        self.assertIs(record.fCodeObjectWeakRef(), first)

    @frees_code_objects
    def test_a_shared_record_ends_with_the_code_object_it_was_made_for(self):
        first, second = make_code("/a.py", CALLING), make_code("/b.py", CALLING)
        GetPerCodeObject(first)
        del first
        collect_code()
        self.assertIsNone(GetPerCodeObject(second, False))
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})

    def test_the_extra_slot_is_not_looked_at(self):
        code = make_code("/a.py")
        index = xo._Code_RequestExtraIndexForOwnedRef()
        CPerCodeObject._fCodeObjectExtraIndex = index
        in_slot = GetPerCodeObject(code)
        CPerCodeObject._fCodeObjectExtraIndex = -1
        self.assertIsNone(GetPerCodeObject(code, False))
        in_dictionary = GetPerCodeObject(code)
        self.assertIsNot(in_dictionary, in_slot)
        self.assertIs(xo._Code_GetExtra(code, index), in_slot)

    def test_a_foreign_object_in_the_dictionary_is_refused(self):
        code = make_code("/a.py")
        CPerCodeObject._fPerCodeObjectDict[weakref.ref(code)] = 5
        for lookup in (GetPerCodeObject, CPerCodeObject._GetExistingPerCodeObject,
                       CPerCodeObject._GetExistingPerCodeObjectFromWeakref):
            with self.subTest(lookup=lookup):
                self.assert_raises_text(TypeError, "expected CPerCodeObject | None, got 5", lookup, code)

    def test_what_cannot_be_weakly_referenced_fails_with_the_error_of_the_interpreter(self):
        for lookup in (GetPerCodeObject, CPerCodeObject._GetExistingPerCodeObject,
                       CPerCodeObject._GetExistingPerCodeObjectFromWeakref):
            with self.subTest(lookup=lookup):
                self.assert_raises_text(TypeError, "cannot create weak reference to 'int' object", lookup, 5)

    def test_a_reset_forgets_the_record(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        xo.reset()
        self.assertEqual(CPerCodeObject._fPerCodeObjectDict, {})
        self.assertIsNot(GetPerCodeObject(code), record)

    def test_registering_by_hand_stores_the_record_under_its_own_weak_reference_and_then_announces_it(self):
        code, other = make_code("/a.py"), make_code("/b.py")
        record = GetPerCodeObject(code)
        CPerCodeObject._fPerCodeObjectDict.clear()
        seen = []
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(
            lambda announced: seen.append((announced, GetPerCodeObject(code, False))))
        self.assertIsNone(CPerCodeObject._RegisterPerCodeObject(per_code_object=record, code_object=other))
        self.assertEqual(seen, [(record, record)])
        self.assertEqual(list(CPerCodeObject._fPerCodeObjectDict), [record.fCodeObjectWeakRef])


class ExtraSlotFunctionTest(XoTestCase):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.index = xo._Code_RequestExtraIndexForOwnedRef()  # their number is limited, so one serves all

    def test_a_reserved_slot_has_an_index_of_its_own(self):
        self.assertIs(type(self.index), int)
        self.assertGreaterEqual(self.index, 0)
        self.assertNotEqual(self.index, CPerCodeObject._fCodeObjectExtraIndex)

    def test_an_empty_slot_reads_as_none(self):
        self.assertIsNone(xo._Code_GetExtra(make_code("/a.py"), self.index))

    def test_a_stored_object_is_read_back(self):
        code, value = make_code("/a.py"), object()
        self.assertIsNone(xo._Code_SetExtra(code, self.index, value))
        self.assertIs(xo._Code_GetExtra(code, self.index), value)
        self.assertIsNone(xo._Code_GetExtra(make_code("/a.py"), self.index))

    def test_arguments_can_be_given_by_name(self):
        code, value = make_code("/a.py"), object()
        xo._Code_SetExtra(value=value, index=self.index, code_object=code)
        self.assertIs(xo._Code_GetExtra(index=self.index, code_object=code), value)

    def test_storing_takes_a_reference_and_reading_gives_one(self):
        code, value = make_code("/a.py"), object()
        before = sys.getrefcount(value)
        xo._Code_SetExtra(code, self.index, value)
        self.assertEqual(sys.getrefcount(value), before + 1)
        found = [xo._Code_GetExtra(code, self.index) for _ in range(3)]
        self.assertEqual(sys.getrefcount(value), before + 4)
        del found

    @frees_code_objects
    def test_the_end_of_the_code_drops_the_reference_of_the_slot(self):
        code, value = make_code("/a.py"), object()
        before = sys.getrefcount(value)
        xo._Code_SetExtra(code, self.index, value)
        del code
        collect_code()
        self.assertEqual(sys.getrefcount(value), before)

    def test_storing_another_object_drops_the_one_before(self):
        code, value = make_code("/a.py"), object()
        before = sys.getrefcount(value)
        xo._Code_SetExtra(code, self.index, value)
        xo._Code_SetExtra(code, self.index, None)
        self.assertEqual(sys.getrefcount(value), before)
        self.assertIsNone(xo._Code_GetExtra(code, self.index))

    def test_storing_another_record_drops_the_one_before_where_nobody_can_be_reading_it(self):
        """Without a global lock another thread may be looking at the record, which therefore stays."""
        code = make_code("/a.py")
        first, second = CPerCodeObject(code, None), CPerCodeObject(make_code("/a.py"), None)
        before = sys.getrefcount(first)
        xo._Code_SetExtra(code, CPerCodeObject._fCodeObjectExtraIndex, second)
        self.assertIs(CPerCodeObject.GetPerCodeObject(code, False), second)
        self.assertEqual(sys.getrefcount(first), before - (0 if is_free_threaded() else 1))

    def test_the_end_of_the_object_before_finds_the_new_one_in_the_slot(self):
        class Ending:
            def __del__(self):
                seen.append(xo._Code_GetExtra(code, index))

        code, index, seen = make_code("/a.py"), self.index, []
        xo._Code_SetExtra(code, index, Ending())
        xo._Code_SetExtra(code, index, "new")
        self.assertEqual(seen, ["new"])

    def test_a_slot_that_nobody_reserved_reads_as_none_and_cannot_be_written(self):
        code, value = make_code("/a.py"), object()
        before = sys.getrefcount(value)
        for index in (-1, 10_000):
            with self.subTest(index=index):
                self.assertIsNone(xo._Code_GetExtra(code, index))
                with self.assertRaisesRegex(SystemError, "bad argument to internal function"):
                    xo._Code_SetExtra(code, index, value)
        self.assertEqual(sys.getrefcount(value), before)

    def test_what_is_no_code_object_fails_with_the_error_of_the_interpreter(self):
        for thing in (None, 5, "x", make_code):
            with self.subTest(thing=thing):
                with self.assertRaisesRegex(SystemError, "bad argument to internal function"):
                    xo._Code_GetExtra(thing, self.index)
                with self.assertRaisesRegex(SystemError, "bad argument to internal function"):
                    xo._Code_SetExtra(thing, self.index, None)

    def test_an_index_that_is_no_machine_word_fails_with_the_error_of_the_interpreter(self):
        code = make_code("/a.py")
        for index in ("x", None, 1.0, sys.maxsize + 1, -sys.maxsize - 2):
            with self.subTest(index=index):
                error = conversion_error(index)
                self.assert_raises_text(type(error), str(error), xo._Code_GetExtra, code, index)
                self.assert_raises_text(type(error), str(error), xo._Code_SetExtra, code, index, None)

    def test_wrong_argument_lists_are_refused(self):
        code = make_code("/a.py")
        for call, args in ((xo._Code_GetExtra, (code,)), (xo._Code_SetExtra, (code, self.index))):
            with self.subTest(call=call):
                self.assert_raises_text(TypeError, "argument is missing", call, *args)
        for call, args in ((xo._Code_RequestExtraIndexForOwnedRef, (1,)), (xo._Code_GetExtra, (code, 1, 2)),
                           (xo._Code_SetExtra, (code, 1, 2, 3))):
            with self.subTest(call=call):
                self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                        call, *args)


class NoSlotLeftTest(XoTestCase):
    """Slots are few and never given back, so these run in processes of their own."""

    def test_when_every_slot_is_taken_the_answer_is_minus_one_and_no_error(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            indexes = []
            while not indexes or indexes[-1] != -1:
                indexes.append(xo._Code_RequestExtraIndexForOwnedRef())
                assert len(indexes) < 1000
            assert len(set(indexes)) == len(indexes) > 1, indexes
            assert xo._Code_RequestExtraIndexForOwnedRef() == -1
            code = compile("1", "/a.py", "exec")
            record = xo.CPerCodeObject.GetPerCodeObject(code)
            assert xo.CPerCodeObject.GetPerCodeObject(code) is record
        """)

    def test_without_a_slot_at_import_every_lookup_goes_through_the_dictionary(self):
        run_python("""
            import ctypes, gc, weakref
            request = ctypes.pythonapi.PyUnstable_Eval_RequestCodeExtraIndex
            request.restype, request.argtypes = ctypes.c_ssize_t, [ctypes.c_void_p]
            while request(None) != -1:
                pass
            from vorntracer import xoptmonitoring as xo
            CPerCodeObject = xo.CPerCodeObject
            assert CPerCodeObject._fCodeObjectExtraIndex == -1
            assert xo._Code_RequestExtraIndexForOwnedRef() == -1
            code = compile("1", "/a.py", "exec")
            assert CPerCodeObject.GetPerCodeObject(code, False) is None
            record = CPerCodeObject.GetPerCodeObject(code)
            assert list(CPerCodeObject._fPerCodeObjectDict.values()) == [record]
            assert CPerCodeObject.GetPerCodeObject(code) is record
            reference = weakref.ref(record)
            del code, record
            gc.collect()  # a free-threaded interpreter frees the code object only now, and leaves its record
            gc.collect()
            assert reference() is None
            assert CPerCodeObject._fPerCodeObjectDict == {}
        """)


if __name__ == "__main__":
    unittest.main()
