"""What a reset empties, in which order, and what it keeps."""

import os
import sys
import threading
import unittest
import weakref

from code_helpers import make_code
from interface import MODULE_ATTRIBUTES
from support import NastyError, Recorder, RecordingWriter, XoTestCase, xo

CPerFile = xo.CPerFile
CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread

#: An id that no thread of this process has.
FOREIGN_THREAD_ID = 12345


class EmptyingTest(XoTestCase):

    def test_it_takes_nothing_and_returns_none(self):
        self.assertIsNone(xo.reset())
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function", xo.reset, 1)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function", xo.reset, other=1)

    def test_resetting_twice_is_harmless(self):
        xo.reset()
        xo.reset()
        self.assertEqual(CPerThread.GetAllPerThreads(), [])

    def test_logging_is_switched_off(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, 0, None)
        xo.set_dprintf_mask(-1)
        xo.reset()
        xo.dprintf(xo.kLogCore, "text\n")
        CPerFile.GetPerFile("/a.py")
        self.assertEqual((xo.get_dprintf_mask(), xo._gDPrintfMask, xo._gDPrintfFile), (0, 0, None))
        xo.set_dprintf_mask(-1)
        xo.dprintf(xo.kLogCore, "text\n")
        self.assertEqual(writer.texts, [])

    def test_the_old_log_file_is_released(self):
        writer = RecordingWriter()
        before = sys.getrefcount(writer)
        xo.set_dprintf_file(writer, 0, None)
        xo.reset()
        self.assertEqual(sys.getrefcount(writer), before)

    def test_the_process_id_is_the_current_one(self):
        xo.reset()
        self.assertEqual(xo._gThisProcessPid, os.getpid())

    def test_canonical_pathnames_and_the_checksum_callback_are_forgotten_in_place(self):
        manager = xo._gCanonicalPathnameMgr
        names = ("fByName", "fByUniqueFileno", "fByChecksum", "fNotFoundCache")
        containers = [getattr(manager, name) for name in names]
        xo.set_checksum_callback(Recorder())
        xo.register_canonical_pathname("/no/such/file.py", "abc")
        xo.register_canonical_pathname(os.path.abspath(__file__))
        self.assertTrue(all(containers))
        xo.reset()
        self.assertIs(xo._gCanonicalPathnameMgr, manager)
        for name, container in zip(names, containers):
            self.assertIs(getattr(manager, name), container)
            self.assertEqual(container, {})
        self.assertIsNone(xo.get_checksum_callback())

    def test_the_internal_pathnames_are_a_new_empty_dictionary(self):
        mine = {"/opt/dbg/x.py": 1}
        xo.SetInternalPathnameDict(mine)
        xo.reset()
        self.assertEqual((type(xo._gInternalPathnameDict), xo._gInternalPathnameDict), (dict, {}))
        self.assertIsNot(xo._gInternalPathnameDict, mine)
        self.assertEqual(mine, {"/opt/dbg/x.py": 1})
        self.assertIs(xo.IsInternalPathname("/opt/dbg/x.py"), False)

    def test_file_records_and_their_callback_are_forgotten(self):
        by_pathname, by_checksum = CPerFile._fPerFileDict, CPerFile._fByChecksum
        xo.set_checksum_callback(Recorder(result="abc"))
        CPerFile.SetNewPerFileCreatedCallback(Recorder())
        CPerFile.GetPerFile("/a.py")
        self.assertTrue(by_pathname and by_checksum)
        xo.reset()
        self.assertIs(CPerFile._fPerFileDict, by_pathname)
        self.assertIs(CPerFile._fByChecksum, by_checksum)
        self.assertEqual((by_pathname, by_checksum), ({}, {}))
        self.assertIsNone(CPerFile._fNewPerFileCreatedCallback)

    def test_code_records_in_the_dictionary_and_their_callback_are_forgotten(self):
        CPerCodeObject._fCodeObjectExtraIndex = -1
        registry = CPerCodeObject._fPerCodeObjectDict
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(Recorder())
        code = make_code("/a.py")
        CPerCodeObject.GetPerCodeObject(code)
        self.assertEqual(len(registry), 1)
        xo.reset()
        self.assertIs(CPerCodeObject._fPerCodeObjectDict, registry)
        self.assertEqual(registry, {})
        self.assertIsNone(CPerCodeObject._fNewPerCodeObjectCreatedCallback)

    def test_the_way_code_records_are_kept_stays_as_it_was_set(self):
        index = CPerCodeObject._fCodeObjectExtraIndex
        xo.reset()
        self.assertEqual(CPerCodeObject._fCodeObjectExtraIndex, index)
        CPerCodeObject._fCodeObjectExtraIndex = -1
        xo.reset()
        self.assertEqual(CPerCodeObject._fCodeObjectExtraIndex, -1)

    def test_code_records_in_the_extra_slot_stay_with_their_counts_and_breakpoints_and_without_a_file(self):
        code = make_code("/a.py")
        record = CPerCodeObject.GetPerCodeObject(code)
        record.fEnabledBpLinenos = {3}
        record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount = 1, 2
        xo.reset()
        self.assertIs(CPerCodeObject.GetPerCodeObject(code, False), record)
        self.assertEqual((record.fEnabledBpLinenos, record.fSteppingEventsNeededCount,
                          record.fReturnEventsNeededCount), ({3}, 1, 2))
        self.assertEqual(CPerFile.GetAllPerFiles(), [])

    def test_a_code_record_that_stayed_can_be_filed_again(self):
        code = make_code("/a.py")
        record = CPerCodeObject.GetPerCodeObject(code)
        xo.reset()
        record._AddToPerFile()
        self.assertEqual(CPerFile.GetPerFile("/a.py", False).fKnownPerCodeObjects, {record})

    def test_a_code_record_that_stayed_is_not_announced_again(self):
        code = make_code("/a.py")
        CPerCodeObject.GetPerCodeObject(code)
        xo.reset()
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        CPerCodeObject.GetPerCodeObject(code)
        self.assertEqual(announced.calls, [])

    def test_thread_records_and_their_callbacks_are_forgotten(self):
        containers = [getattr(CPerThread, name) for name in
                      ("_fPerThreadDict", "_fCleanupSupportByThreadId", "_fCleanedUpThreadIds",
                       "_fDestructorActiveThreadIds")]
        for setter in (CPerThread.SetDebugPolicyCallback, CPerThread.SetNewPerThreadCreatedCallback,
                       CPerThread.SetGetThreadNameCallback):
            setter(Recorder(result=1))
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(FOREIGN_THREAD_ID)
        CPerThread._fCleanedUpThreadIds.add(FOREIGN_THREAD_ID + 1)
        CPerThread._fDestructorActiveThreadIds.add(FOREIGN_THREAD_ID + 2)
        self.assertTrue(all(containers))
        xo.reset()
        self.assertEqual(containers, [{}, {}, set(), set()])
        self.assertIs(CPerThread._fPerThreadDict, containers[0])
        self.assertIs(CPerThread._fCleanupSupportByThreadId, containers[1])
        self.assertIs(CPerThread._fCleanedUpThreadIds, containers[2])
        self.assertIs(CPerThread._fDestructorActiveThreadIds, containers[3])
        self.assertEqual((CPerThread._fDebugPolicyCallback, CPerThread._fNewPerThreadCreatedCallback,
                          CPerThread._fGetThreadNameCallback), (None, None, None))
        self.assertEqual(CPerThread.GetAllPerThreads(), [])

    def test_the_current_thread_gets_a_fresh_record_afterwards(self):
        record = CPerThread.GetPerThread()
        self.assertIs(xo._CPerThreadTssCache.Get(), record)
        xo.reset()
        self.assertIsNone(xo._CPerThreadTssCache.Get())
        self.assertIsNot(CPerThread.GetPerThread(), record)

    def test_the_capsule_of_the_current_thread_is_taken_out(self):
        CPerThread.GetPerThread()
        thread_state_dict = xo._GetThreadStateDict()
        self.assertIn(xo._gThreadStateDictKey, thread_state_dict)
        xo.reset()
        self.assertNotIn(xo._gThreadStateDictKey, thread_state_dict)
        self.assertIs(xo._GetThreadStateDict(), thread_state_dict)

    def test_other_entries_of_the_thread_state_dictionary_stay(self):
        key = object()
        xo._GetThreadStateDict()[key] = 5
        try:
            xo.reset()
            self.assertEqual(xo._GetThreadStateDict()[key], 5)
        finally:
            del xo._GetThreadStateDict()[key]

    def test_clean_up_supports_let_go_of_their_records_and_finalizers(self):
        CPerThread.GetPerThread(FOREIGN_THREAD_ID)
        support = CPerThread._fCleanupSupportByThreadId[FOREIGN_THREAD_ID]
        finalizer = support._fFinalizer = weakref.finalize(self, print)
        xo.reset()
        self.assertEqual((support.fPerThread, support._fFinalizer), (None, None))
        self.assertFalse(finalizer.alive)

    def test_records_end_when_nobody_else_holds_them(self):
        references = [weakref.ref(record) for record in (
            CPerThread.GetPerThread(), CPerThread.GetPerThread(FOREIGN_THREAD_ID),
            CPerFile.GetPerFile("/a.py"))]
        xo.reset()
        self.assertEqual([reference() for reference in references], [None, None, None])

    def test_a_reset_on_another_thread_detaches_the_record_of_this_one(self):
        record = CPerThread.GetPerThread()
        thread = threading.Thread(target=xo.reset)
        thread.start()
        thread.join()
        self.assertIsNone(xo._CPerThreadTssCache.Get())
        self.assertIsNot(CPerThread.GetPerThread(), record)

    def test_a_reset_while_a_record_is_announced_leaves_no_record_that_only_its_thread_knows(self):
        def announced(record):
            xo.reset()

        CPerThread.SetNewPerThreadCreatedCallback(announced)
        announced_record = CPerThread.GetPerThread()
        self.assertEqual(announced_record.fThreadId, threading.get_ident())
        self.assertIsNone(xo._CPerThreadTssCache.Get())
        record = CPerThread.GetPerThread()
        self.assertIsNot(record, announced_record)
        self.assertEqual(CPerThread._fPerThreadDict, {threading.get_ident(): record})
        self.assertIs(xo._CPerThreadTssCache.Get(), record)

    def test_a_record_entered_while_the_records_are_detached_is_detached_as_well(self):
        """What another thread can do in the middle of a reset, brought about by a dictionary that waits for it."""
        detaching, entered, over = threading.Event(), threading.Event(), threading.Event()
        self.addCleanup(over.set)
        found = []

        class Registry(dict):
            def values(self):
                values = list(super().values())
                detaching.set()
                entered.wait()
                return values

        def run():
            detaching.wait()
            found.append(CPerThread.GetPerThread())
            entered.set()
            over.wait()
            found.append(xo._CPerThreadTssCache.Get())

        self.addCleanup(setattr, CPerThread, "_fPerThreadDict", {})
        CPerThread._fPerThreadDict = registry = Registry()
        thread = threading.Thread(target=run)
        thread.start()
        xo.reset()
        over.set()
        thread.join()
        self.assertEqual(registry, {})
        self.assertIsInstance(found[0], CPerThread)
        self.assertIsNone(found[1])

    def test_a_thread_that_ends_after_a_reset_changes_nothing(self):
        known, go_on = threading.Event(), threading.Event()
        self.addCleanup(go_on.set)

        def run():
            CPerThread.GetPerThread()
            known.set()
            go_on.wait()

        thread = threading.Thread(target=run)
        thread.start()
        known.wait()
        xo.reset()
        go_on.set()
        thread.join()
        self.assertEqual((CPerThread._fPerThreadDict, CPerThread._fCleanupSupportByThreadId,
                          CPerThread._fCleanedUpThreadIds), ({}, {}, set()))

    def test_a_thread_that_lives_through_a_reset_gets_a_fresh_record_that_is_cleaned_up(self):
        known, go_on = threading.Event(), threading.Event()
        self.addCleanup(go_on.set)
        records = []

        def run():
            records.append(CPerThread.GetPerThread())
            known.set()
            go_on.wait()
            records.append(CPerThread.GetPerThread())
            records.append(CPerThread.GetPerThread())

        thread = threading.Thread(target=run)
        thread.start()
        known.wait()
        xo.reset()
        go_on.set()
        thread.join()
        self.assertIsNot(records[0], records[1])
        self.assertIs(records[1], records[2])
        self.assertEqual((CPerThread._fPerThreadDict, CPerThread._fCleanupSupportByThreadId), ({}, {}))
        self.assertEqual(CPerThread._fCleanedUpThreadIds, {records[1].fThreadId})

    def test_constants_functions_classes_modules_and_singletons_are_kept(self):
        replaced = {"_gDPrintfFile", "_gDPrintfMask", "_gThisProcessPid", "_gInternalPathnameDict"}
        before = {name: getattr(xo, name) for name, _ in MODULE_ATTRIBUTES if name not in replaced}
        xo.reset()
        for name, value in before.items():
            with self.subTest(name=name):
                if isinstance(value, int):
                    self.assertEqual(getattr(xo, name), value)
                else:
                    self.assertIs(getattr(xo, name), value)


class OrderTest(XoTestCase):
    """The order of the steps, seen by what ends in each of them and by what a failure leaves undone."""

    def test_everything_ends_in_a_fixed_order(self):
        ended = []

        class Ending:
            def __init__(self, name):
                self.name = name

            def __call__(self, *args):
                return None

            def write(self, text):
                pass

            def __del__(self):
                ended.append(self.name)

        class EndingDict(dict):
            def __del__(self):
                ended.append("internal pathnames")

        def watch(record, name):
            return weakref.ref(record, lambda reference: ended.append(name))

        xo.set_checksum_callback(Ending("checksum callback"))
        xo.SetInternalPathnameDict(EndingDict())
        CPerFile.SetNewPerFileCreatedCallback(Ending("file callback"))
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(Ending("code object callback"))
        watching = [watch(CPerFile.GetPerFile("/a.py"), "file record"),
                    watch(CPerThread.GetPerThread(), "record of this thread"),
                    watch(CPerThread.GetPerThread(FOREIGN_THREAD_ID), "record of another thread")]
        CPerThread._fDebugPolicyCallback = Ending("debug policy callback")
        CPerThread._fNewPerThreadCreatedCallback = Ending("thread callback")
        CPerThread._fGetThreadNameCallback = Ending("thread name callback")
        xo.set_dprintf_file(Ending("log file"), 0, None)
        xo.reset()
        self.assertEqual(ended, [
            "log file", "checksum callback", "internal pathnames", "file record", "file callback",
            "code object callback", "record of this thread", "record of another thread",
            "debug policy callback", "thread callback", "thread name callback"])
        self.assertEqual([reference() for reference in watching], [None] * 3)

    def test_the_end_of_the_current_record_is_not_logged_any_more(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, 0, None)
        xo.set_dprintf_mask(-1)
        CPerThread.GetPerThread()
        writer.texts.clear()
        xo.reset()
        self.assertEqual(writer.texts, [])

    def fill(self):
        """Puts something into everything that a reset empties."""
        self.writer = RecordingWriter()
        self.checksum = Recorder(result="abc")
        self.internal = {"/opt/dbg/x.py": 1}
        xo.set_checksum_callback(self.checksum)
        xo.SetInternalPathnameDict(self.internal)
        CPerFile.SetNewPerFileCreatedCallback(self.checksum)
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(self.checksum)
        CPerFile.GetPerFile("/a.py")
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(FOREIGN_THREAD_ID)
        CPerThread.SetDebugPolicyCallback(self.checksum)
        xo.set_dprintf_file(self.writer, 0, None)
        xo.set_dprintf_mask(4)

    def state(self):
        """What of it is still there, in the order in which a reset empties it."""
        return {
            "log": xo._gDPrintfFile is self.writer and xo._gDPrintfMask == 4,
            "checksum callback": xo.get_checksum_callback() is self.checksum,
            "internal pathnames": xo._gInternalPathnameDict is self.internal,
            "files": bool(CPerFile._fPerFileDict and CPerFile._fByChecksum),
            "file callback": CPerFile._fNewPerFileCreatedCallback is not None,
            "code object callback": CPerCodeObject._fNewPerCodeObjectCreatedCallback is not None,
            "threads": FOREIGN_THREAD_ID in CPerThread._fPerThreadDict,
            "clean-up supports": FOREIGN_THREAD_ID in CPerThread._fCleanupSupportByThreadId,
            "policy callback": CPerThread._fDebugPolicyCallback is not None,
        }

    def still_there(self):
        """The names of what is still there."""
        return [name for name, there in self.state().items() if there]

    def test_a_reset_empties_all_that_it_was_filled_with(self):
        self.fill()
        self.assertEqual(self.still_there(), list(self.state()))
        xo.reset()
        self.assertEqual(self.still_there(), [])

    def test_a_failure_in_the_pathname_manager_stops_after_the_log(self):
        self.fill()
        manager, by_name = xo._gCanonicalPathnameMgr, xo._gCanonicalPathnameMgr.fByName
        manager.fByName = 5
        try:
            self.assert_raises_text(AttributeError, "'int' object has no attribute 'clear'", xo.reset)
        finally:
            manager.fByName = by_name
        self.assertEqual(self.still_there(), list(self.state())[1:])

    def test_a_failure_of_the_thread_state_dictionary_stops_after_the_code_objects(self):
        self.fill()
        self.patch(xo.dbgpythonapi, "PyThreadState_GetDict_as_void_ptr", Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", xo.reset)
        self.assertEqual(self.still_there(), ["threads", "clean-up supports", "policy callback"])

    def test_a_foreign_object_among_the_thread_records_stops_before_they_are_forgotten(self):
        self.fill()
        CPerThread._fPerThreadDict["foreign"] = 5
        try:
            with self.assertRaisesRegex(TypeError, "^expected CPerThread.* got 5$"):
                xo.reset()
            self.assertEqual(self.still_there(), ["threads", "clean-up supports", "policy callback"])
        finally:
            CPerThread._fPerThreadDict.pop("foreign", None)

    def test_each_registry_empties_itself_in_its_own_way(self):
        class Registry(dict):
            cleared = 0

            def clear(self):
                self.cleared += 1
                super().clear()

        names = {CPerFile: ("_fPerFileDict", "_fByChecksum"), CPerCodeObject: ("_fPerCodeObjectDict",),
                 CPerThread: ("_fPerThreadDict", "_fCleanupSupportByThreadId")}
        registries = {}
        for cls, attributes in names.items():
            for name in attributes:
                self.addCleanup(setattr, cls, name, getattr(cls, name))
                registries[name] = Registry()
                setattr(cls, name, registries[name])
        self.fill()
        record = CPerThread.GetPerThread(FOREIGN_THREAD_ID)
        self.assertIs(registries["_fPerThreadDict"][FOREIGN_THREAD_ID], record)
        xo.reset()
        self.assertEqual(registries, {name: {} for name in registries})
        self.assertEqual({name: registry.cleared for name, registry in registries.items()},
                         {name: 1 for name in registries})
        xo.reset()
        self.assertEqual({registry.cleared for registry in registries.values()}, {2})

    def test_a_foreign_clean_up_support_is_cleared_once(self):
        class Support:
            def __init__(self):
                self.calls = 0

            def Clear(self):
                self.calls += 1

        support = CPerThread._fCleanupSupportByThreadId["foreign"] = Support()
        xo.reset()
        self.assertEqual(support.calls, 1)
        self.assertEqual(CPerThread._fCleanupSupportByThreadId, {})

    def test_a_record_that_cannot_be_found_by_its_key_any_more_is_forgotten_as_well(self):
        class Changing:
            value = 1

            def __hash__(self):
                return self.value

        key = Changing()
        CPerThread(key)
        key.value = 2
        xo.reset()
        self.assertEqual((CPerThread._fPerThreadDict, CPerThread._fCleanupSupportByThreadId), ({}, {}))

    def test_a_foreign_object_among_the_clean_up_supports_stops_after_the_thread_records(self):
        self.fill()
        CPerThread._fCleanupSupportByThreadId["foreign"] = 5
        try:
            with self.assertRaises((AttributeError, TypeError)):
                xo.reset()
            self.assertEqual(self.still_there(), ["clean-up supports", "policy callback"])
        finally:
            CPerThread._fCleanupSupportByThreadId.pop("foreign", None)

    def test_without_a_thread_state_dictionary_the_rest_is_done(self):
        self.fill()
        pointer = self.patch(xo.dbgpythonapi, "PyThreadState_GetDict_as_void_ptr", Recorder(result=1))
        self.patch(xo.dbgpythonapi, "VoidPtrAsObject", Recorder(result=None))
        xo.reset()
        self.assertEqual(len(pointer.calls), 1)
        self.assertEqual(self.still_there(), [])

    def test_a_reset_inside_the_end_of_what_it_drops_is_harmless(self):
        class Resetting:
            def __call__(self, *args):
                return None

            def __del__(self):
                resets.append(xo.reset())

        resets = []
        self.fill()
        for setter in (xo.set_checksum_callback, CPerFile.SetNewPerFileCreatedCallback,
                       CPerCodeObject.SetNewPerCodeObjectCreatedCallback,
                       CPerThread.SetNewPerThreadCreatedCallback, CPerThread.SetGetThreadNameCallback):
            setter(Resetting())
        xo.reset()
        self.assertEqual(resets, [None] * 5)
        self.assertEqual(self.still_there(), [])


if __name__ == "__main__":
    unittest.main()
