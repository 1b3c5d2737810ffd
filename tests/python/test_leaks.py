"""Every operation thousands of times: reference counts, registries and memory have to stand still.

An operation below is a function that sets something up and returns what is to be repeated, with the objects
whose reference counts are to be watched. Its decorator names what of the module it exercises, and a test sees
to it that nothing of the module is forgotten.
"""

import ctypes
import os
import sys
import threading
import types
import unittest
import weakref

from code_helpers import at_distance, frees_code_objects, in_frame_of, make_code
from interface import CLASSES, FUNCTIONS, find_class, parameter_names, required_count
from support import NastyError, XoTestCase, allocated_blocks, is_sanitized, needs_plain_allocator, run_python, xo

CPerFile = xo.CPerFile
CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread
TssCache = xo._CPerThreadTssCache
CleanupSupport = CPerThread._CCleanupSupport

#: Debug builds are slow, and only add their own checks to this.
REPEAT_COUNT = 2_500 if hasattr(sys, "gettotalrefcount") else 10_000
WARM_UP_COUNT = 500

#: What may come and go by itself. An operation that loses the smallest block exceeds the first two in any case.
TOLERATED_BLOCKS = 500
TOLERATED_ALLOCATED_BYTES = 64 * 1024
TOLERATED_RESIDENT_BYTES = 1024 * 1024

FOREIGN_THREAD_ID = 12345
INTERNAL = "/opt/dbg/internal.py"


# Gauges --------------------------------------------------------------------------------------------------


class MallInfo2(ctypes.Structure):
    """The C library's account of its allocator."""

    _fields_ = [(name, ctypes.c_size_t) for name in (
        "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks", "fordblks",
        "keepcost")]


def allocated_bytes():
    """The bytes that the C library has handed out, or 0 where it does not tell."""
    mallinfo2 = getattr(ctypes.CDLL(None), "mallinfo2", None)
    if mallinfo2 is None or is_sanitized():
        return 0
    mallinfo2.restype = MallInfo2
    info = mallinfo2()
    return info.uordblks + info.hblkhd


def resident_bytes():
    """The memory of this process that is resident, or 0 where there is no telling."""
    if is_sanitized() or not os.path.exists("/proc/self/statm"):
        return 0
    with open("/proc/self/statm", encoding="ascii") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def registry_sizes():
    """How many entries each registry has."""
    manager = xo._gCanonicalPathnameMgr
    containers = {
        "files": CPerFile._fPerFileDict, "groups of files": CPerFile._fByChecksum,
        "code objects": CPerCodeObject._fPerCodeObjectDict, "threads": CPerThread._fPerThreadDict,
        "clean-up supports": CPerThread._fCleanupSupportByThreadId,
        "active destructors": CPerThread._fDestructorActiveThreadIds,
        "names": manager.fByName, "file identities": manager.fByUniqueFileno,
        "checksums": manager.fByChecksum, "names not found": manager.fNotFoundCache,
        "finalizers": weakref.finalize._registry,
    }
    return {name: len(container) for name, container in containers.items()}


def expect(error_type, call, *args, **kwargs):
    """Calls, and expects an exception, which it drops."""
    try:
        call(*args, **kwargs)
    except error_type:
        return
    raise AssertionError(f"{call!r} raised nothing")


# Operations ----------------------------------------------------------------------------------------------

operations = []


def exercises(*names, needs_code_death=False):
    """Enters an operation that exercises the functions and methods of those names."""
    def enter(build):
        operations.append((build, names, needs_code_death))
        return build
    return enter


class Writer:
    """A log file that keeps nothing."""

    def write(self, text):
        return text


class Counter:
    """An unraisable-exception hook that counts, and keeps the text of the first."""

    def __init__(self):
        self.count, self.text = 0, None

    def __call__(self, info):
        self.count += 1
        self.text = self.text or repr(info.exc_value)


def answer_none(*args):
    return None


def answer_one(*args):
    return 1


def fail(*args):
    raise NastyError("no")


def log_everything():
    """Switches every log line on and returns the file that they go to."""
    writer = Writer()
    xo.set_dprintf_file(writer, 0, None)
    xo.set_dprintf_mask(-1)
    return writer


@exercises("_GetPid", "_GetThreadIdent", "_GetPythonFrame", "_GetThreadStateDict", "UpdateThisProcessPid")
def asking_where_we_are(test):
    def repeat():
        xo._GetPid()
        xo._GetThreadIdent()
        xo._GetPythonFrame(3)
        xo._GetThreadStateDict()
        xo.UpdateThisProcessPid()

    return repeat, [xo._GetThreadStateDict()]


@exercises("_Code_GetExtra", "_Code_SetExtra")
def using_an_extra_slot(test):
    index = xo._Code_RequestExtraIndexForOwnedRef()
    code, values = make_code("/a.py"), (object(), object())

    def repeat():
        for value in values:
            xo._Code_SetExtra(code, index, value)
            xo._Code_GetExtra(code, index)
        expect(SystemError, xo._Code_GetExtra, 5, index)
        expect(SystemError, xo._Code_SetExtra, code, -1, values)

    return repeat, [code, *values]


@exercises("_Code_SetExtra", needs_code_death=True)
def filling_the_extra_slots_of_code_that_ends(test):
    index = xo._Code_RequestExtraIndexForOwnedRef()
    code, value = make_code("/a.py"), object()

    def repeat():
        xo._Code_SetExtra(code.replace(), index, value)

    return repeat, [code, value]


@exercises("set_dprintf_file", "set_dprintf_mask", "get_dprintf_mask", "dprintf")
def printing(test):
    writers, text = (Writer(), Writer()), "a text that nobody reads\n"

    def make_text():
        return text

    def repeat():
        for writer in writers:
            xo.set_dprintf_file(writer, 0, None)
            xo.set_dprintf_mask(xo.kLogCore)
            xo.get_dprintf_mask()
            xo.dprintf(xo.kLogCore, text)
            xo.dprintf(xo.kLogCore, make_text)
            xo.dprintf(xo.kLogIO, text)
            expect(TypeError, xo.dprintf, xo.kLogCore, answer_none)
            expect(NastyError, xo.dprintf, xo.kLogCore, fail)

    return repeat, [*writers, text, make_text]


@exercises("AddToThreadStateTracing", "_CallNewObjectCallback")
def announcing_untraced(test):
    obj, writer = object(), log_everything()

    def repeat():
        xo.AddToThreadStateTracing(2)
        xo.AddToThreadStateTracing(-2)
        xo._CallNewObjectCallback(None, obj)
        xo._CallNewObjectCallback(answer_one, obj)
        expect(NastyError, xo._CallNewObjectCallback, fail, obj)

    return repeat, [obj, writer, answer_one, fail]


@exercises("GetPathnameKind", "SetInternalPathnameDict", "IsInternalPathname")
def classifying_pathnames(test):
    names = ("", "<frozen os>", "<string>", "x-vornide-python-shell://1", INTERNAL, "/a.py")
    dicts = ({INTERNAL: 1}, {})

    def repeat():
        for internal in dicts:
            xo.SetInternalPathnameDict(internal)
            for name in names:
                xo.GetPathnameKind(name)
                xo.IsInternalPathname(name)
        expect(TypeError, xo.GetPathnameKind, b"/a.py")
        expect(TypeError, xo.SetInternalPathnameDict, [])
        xo.IsInternalPathname(None)

    return repeat, [*names, *dicts]


@exercises("lookup_canonical_pathname", "register_canonical_pathname", "get_canonical_pathname",
           "set_checksum_callback", "get_checksum_callback", "_get_checksum_for_pathname")
def using_the_pathname_functions(test):
    names = (__file__, "/no/such/file.py", "rel/a.pyc", "<string>", "<frozen os>")

    def repeat():
        xo.set_checksum_callback(answer_one)
        xo.get_checksum_callback()
        for name in names:
            xo.lookup_canonical_pathname(name, "abc")
            xo.register_canonical_pathname(name, "def", None)
            xo.get_canonical_pathname(name)
            xo._get_checksum_for_pathname(name)
        expect(TypeError, xo.get_canonical_pathname, "/a.py", 5)
        xo.set_checksum_callback(fail)
        expect(NastyError, xo._get_checksum_for_pathname, "/a.py")
        xo.set_checksum_callback(None)

    return repeat, [*names, answer_one, fail]


@exercises(*(f"_CCanonicalPathnameMgr.{name}" for name in CLASSES["_CCanonicalPathnameMgr"].methods))
def using_a_pathname_manager_of_our_own(test):
    manager = xo._CCanonicalPathnameMgr()
    names = (__file__, "/no/such/file.py", "rel/a.pyc", "<string>")

    def repeat():
        manager.__init__()
        for name in names:
            for method in (manager._AbsPath, manager._Stat, manager._PrunePycPyo,
                           manager._GetWindowsLongPathName, manager._IsObviousAbsPathname,
                           manager._GetAbsnameForCanonical, manager._GetUniqueFileno, manager.Lookup,
                           manager.Register, manager.Get):
                method(name)
            manager.Register(name, "abc", xo.kRegularPathname)
        manager.SetChecksumCallback(answer_one)
        manager.GetChecksumCallback()
        manager.GetChecksumForPathname("/a.py")
        manager.Reset()
        xo._CCanonicalPathnameMgr()

    return repeat, [manager, *names, answer_one]


@exercises("CPerFile.__init__", "CPerFile.GetPerFile", "CPerFile.SetNewPerFileCreatedCallback",
           "CPerFile.GetAllPerFiles")
def making_and_finding_files(test):
    writer, pathname = log_everything(), "/a.py"

    def repeat():
        CPerFile.SetNewPerFileCreatedCallback(answer_one)
        CPerFile.GetPerFile(pathname)
        CPerFile.GetPerFile(pathname, False)
        CPerFile.GetPerFile("/no/such/file.py", False)
        CPerFile.GetAllPerFiles()
        CPerFile(pathname).__init__(pathname)
        CPerFile._fPerFileDict.clear()
        CPerFile.SetNewPerFileCreatedCallback(fail)
        expect(NastyError, CPerFile.GetPerFile, pathname)
        CPerFile._fPerFileDict.clear()
        expect(TypeError, CPerFile.GetPerFile, [])
        xo.set_checksum_callback(fail)
        expect(NastyError, CPerFile.GetPerFile, pathname)
        xo.set_checksum_callback(None)

    return repeat, [writer, pathname, answer_one, fail]


@exercises("CPerFile.UpdateChecksum", "CPerFile._UpdateByChecksum", "CPerFile.GetPerFileSetForChecksum")
def regrouping_files(test):
    checksums = ["some checksum", "another checksum"]
    xo.set_checksum_callback(lambda pathname: checksums[0])
    records = [CPerFile.GetPerFile(pathname) for pathname in ("/a.py", "/b.py")]

    def repeat():
        for record in records:
            checksums.reverse()
            record.UpdateChecksum()
            record.UpdateChecksum()
            record._UpdateByChecksum("by hand")
            record._UpdateByChecksum("by hand", True)
            CPerFile.GetPerFileSetForChecksum(record.fChecksum)
            CPerFile.GetPerFileSetForChecksum("unknown")

    return repeat, [*checksums, *records]


@exercises("CPerCodeObject.GetPerCodeObject", "CPerCodeObject._GetExistingPerCodeObject",
           "CPerCodeObject._GetExistingPerCodeObjectFromWeakref", "CPerCodeObject._RegisterPerCodeObject",
           "CPerCodeObject.SetNewPerCodeObjectCreatedCallback")
def finding_code_objects(test):
    code = make_code("/a.py")
    record = CPerCodeObject.GetPerCodeObject(code)

    def repeat():
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(answer_one)
        CPerCodeObject.GetPerCodeObject(code)
        CPerCodeObject._GetExistingPerCodeObject(code)
        CPerCodeObject._GetExistingPerCodeObjectFromWeakref(code)
        CPerCodeObject._RegisterPerCodeObject(code, record)
        expect(SystemError, CPerCodeObject.GetPerCodeObject, 5)
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)

    return repeat, [code, record, answer_one]


@exercises("CPerCodeObject._AddToPerFile", "CPerCodeObject._DiscardFromPerFile",
           "CPerCodeObject._UpdatePathnameFromFrame", "CPerCodeObject._GetPathnameToUse")
def settling_code_objects(test):
    code, frozen = make_code("/a.pyc"), make_code("<frozen made_up>")
    records = [CPerCodeObject.GetPerCodeObject(made) for made in (code, frozen)]
    turns = ["/first.py", "/second.pyc"]

    def settle(frame):
        records[1]._UpdatePathnameFromFrame(frame)
        records[0]._UpdatePathnameFromFrame(frame)
        CPerCodeObject._GetPathnameToUse(frozen, frame, True)
        CPerCodeObject._GetPathnameToUse(frozen, frame, False)
        CPerCodeObject._GetPathnameToUse(code, frame, False)

    def settle_in_vain(frame):
        expect(AttributeError, records[1]._UpdatePathnameFromFrame, frame)

    def repeat():
        turns.reverse()
        in_frame_of(frozen, settle, 3, __file__=turns[0])
        in_frame_of(frozen, settle_in_vain, __file__=5)
        for record in records:
            record._DiscardFromPerFile()
            record._AddToPerFile()

    return repeat, [code, frozen, *records, *turns]


def repeat_code_that_ends():
    """Code objects that come, get a record and go."""
    code, frozen = make_code("/a.py"), make_code("<frozen made_up>")
    CPerCodeObject.SetNewPerCodeObjectCreatedCallback(answer_one)

    def repeat():
        CPerCodeObject.GetPerCodeObject(code.replace())
        copy = frozen.replace()
        CPerCodeObject.GetPerCodeObject(copy)
        in_frame_of(copy, lambda frame: CPerCodeObject.GetPerCodeObject(copy, True, frame),
                    __file__="/made_up.py")
        record = CPerCodeObject(code.replace(), None)
        record._cb_code_object_dealloc(record.fCodeObjectWeakRef)
        xo.set_checksum_callback(fail)
        CPerFile._fPerFileDict.pop("/a.py", None)
        expect(NastyError, CPerCodeObject.GetPerCodeObject, code.replace())
        xo.set_checksum_callback(None)

    return repeat, [code, frozen, answer_one, fail]


@exercises("CPerCodeObject.__init__", "CPerCodeObject._cb_code_object_dealloc", needs_code_death=True)
def code_objects_that_come_and_go(test):
    return repeat_code_that_ends()


@exercises("CPerCodeObject.GetPerCodeObject", needs_code_death=True)
def code_objects_that_come_and_go_through_the_dictionary(test):
    CPerCodeObject._fCodeObjectExtraIndex = -1
    return repeat_code_that_ends()


@exercises("CPerCodeObject._GetExistingPerCodeObject")
def finding_code_objects_in_the_dictionary(test):
    CPerCodeObject._fCodeObjectExtraIndex = -1
    code = make_code("/a.py")
    record = CPerCodeObject.GetPerCodeObject(code)

    def repeat():
        CPerCodeObject.GetPerCodeObject(code)
        CPerCodeObject._GetExistingPerCodeObject(code)
        CPerCodeObject._GetExistingPerCodeObjectFromWeakref(code)
        CPerCodeObject._RegisterPerCodeObject(code, record)
        expect(TypeError, CPerCodeObject.GetPerCodeObject, 5)

    return repeat, [code, record]


@exercises("_CPerThreadTssCache.Get", "_CPerThreadTssCache.Store", "_CPerThreadTssCache._DropCurrentSlot",
           "_CPerThreadTssCache.Clear", "_CPerThreadTssCache.Detach")
def caching_the_record_of_this_thread(test):
    records = [CPerThread.GetPerThread(), CPerThread.GetPerThread(FOREIGN_THREAD_ID)]

    def repeat():
        for record in records:
            TssCache.Store(record)
            TssCache.Get()
            TssCache.Store(record)
            TssCache.Detach(record)
            TssCache.Get()
            TssCache.Store(record)
            TssCache.Clear()
            TssCache.Store(record)
            TssCache._DropCurrentSlot()
            TssCache.Get()

    return repeat, records


@exercises("CPerThread.GetPerThread", "CPerThread.__init__", "CPerThread._RegisterNewPerThread",
           "CPerThread._DiscardPerThread", "CPerThread.GetAllPerThreads",
           "CPerThread.SetNewPerThreadCreatedCallback", "CPerThread._Clear")
def making_and_discarding_threads(test):
    ident = xo._GetThreadIdent()
    thread_state_dict = xo._GetThreadStateDict()

    def repeat():
        CPerThread.SetNewPerThreadCreatedCallback(answer_one)
        for thread_id in (None, FOREIGN_THREAD_ID):
            record = CPerThread.GetPerThread(thread_id)
            CPerThread.GetPerThread(thread_id)
            CPerThread.GetPerThread(thread_id, False)
            record.__init__(record.fThreadId)
            CPerThread._RegisterNewPerThread(record)
            CPerThread.GetAllPerThreads()
            record._Clear()
            CPerThread._DiscardPerThread(record.fThreadId)
        CPerThread.GetPerThread(FOREIGN_THREAD_ID, False)
        CPerThread.SetNewPerThreadCreatedCallback(fail)
        expect(NastyError, CPerThread.GetPerThread)
        CPerThread._DiscardPerThread(ident)
        CPerThread._DiscardPerThread(FOREIGN_THREAD_ID)

    return repeat, [thread_state_dict, xo._gThreadStateDictKey, answer_one, fail]


@exercises("CPerThread.GetDebugPolicy", "CPerThread.SetDebugPolicyCallback", "CPerThread.FindThreadName",
           "CPerThread.SetGetThreadNameCallback")
def asking_about_threads(test):
    record, name = CPerThread.GetPerThread(), "the name of a thread"
    thread_id = record.fThreadId

    def give_name(per_thread):
        return name

    def repeat():
        CPerThread.SetDebugPolicyCallback(answer_one)
        record.GetDebugPolicy()
        record.GetDebugPolicy()
        CPerThread.SetDebugPolicyCallback(fail)
        expect(NastyError, record.GetDebugPolicy)
        CPerThread.SetDebugPolicyCallback(answer_none)
        expect(TypeError, record.GetDebugPolicy)
        CPerThread.SetDebugPolicyCallback(None)
        record.GetDebugPolicy()
        CPerThread.SetGetThreadNameCallback(give_name)
        record.fThreadName = None
        record.FindThreadName()
        record.FindThreadName()
        CPerThread.SetGetThreadNameCallback(fail)
        record.fThreadName = None
        expect(NastyError, record.FindThreadName)
        CPerThread.SetGetThreadNameCallback(None)

    return repeat, [record, name, thread_id, answer_one, answer_none, fail, give_name]


@exercises(*(f"CPerThread._CCleanupSupport.{name}" for name in (
    "_IsCapsuleDestructorBeingInvoked", *CLASSES["CPerThread._CCleanupSupport"].methods)))
def planting_capsules(test):
    record = CPerThread.GetPerThread(FOREIGN_THREAD_ID)
    thread_state_dict = xo._GetThreadStateDict()

    def repeat():
        support = CleanupSupport(record)
        support._IsCapsuleDestructorBeingInvoked()
        support.SetCapsuleInThreadStateDict()
        support.SetCapsuleInThreadStateDict()
        support._InvalidateCapsule()
        support.SetCapsuleInThreadStateDict()
        support.Clear()
        support.__init__(record)
        support.SetCapsuleInThreadStateDict()
        support.Clear(False)
        support.__init__(record)
        support._CCleanupSupport__CapsuleDestructor()
        CPerThread._CCapsule()
        thread_state_dict.pop(xo._gThreadStateDictKey)

    return repeat, [record, thread_state_dict, xo._gThreadStateDictKey]


@exercises("CPerThread.GetPerThread")
def threads_that_come_and_go(test):
    def run():
        CPerThread.GetPerThread()

    def repeat():
        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
        CPerThread._fCleanedUpThreadIds.clear()  # ids may be used again or not, as the system likes

    return repeat, [run]


@exercises(*(f"CInitialCallback.{name}" for name in CLASSES["CInitialCallback"].methods))
def answering_events(test):
    test.patch(xo.dlog, "LogException", answer_none)
    internal, code = make_code(INTERNAL), make_code("/a.py")
    xo.SetInternalPathnameDict({INTERNAL: 1})
    per_thread = CPerThread.GetPerThread()
    records = [CPerCodeObject.GetPerCodeObject(code), CPerCodeObject.GetPerCodeObject(internal)]
    records[0].fEnabledBpLinenos = lines = {1}
    writer = Writer()
    offset, result = 10**20, object()
    callbacks = [xo.CInitialCallback(event_id, lambda *args: result, True)
                 for event_id in (xo.kPyLineEventId, xo.kPyReturnEventId)]
    failing = xo.CInitialCallback(xo.kPyLineEventId, fail, False)

    def repeat():
        for mask, step_count in ((0, 0), (-1, 0), (0, 1)):
            xo.set_dprintf_file(writer if mask else None, 0, None)
            xo.set_dprintf_mask(mask)
            records[0].fSteppingEventsNeededCount = step_count
            for callback in callbacks:
                callback.Callback(code, 1)
                callback.Callback(code, offset, result)
                callback.Callback(code)
                callback.Callback(internal, 1)
                callback._IsInitialCallbackLogging()
                callback._SkipDetermination(code, 2)
                callback._SkipSecondCallback(code, records[0], per_thread, 1)
                callback._CInitialCallback__GetPerCodeObjectCalledFromCallback(code)
                callback._CInitialCallback__GetPerThreadCalledFromCallback()
                per_thread.fCheckSuspendLock = callback.fAnySuspendThread = True
                callback._SuspendIfNeeded(per_thread)
                callback.Callback(code, 1)
                per_thread.fCheckSuspendLock = callback.fAnySuspendThread = False
            failing.Callback(code, 1)
        xo.CInitialCallback(1, answer_one, False)
        expect(AttributeError, failing.__init__, 1, answer_one, False)

    return repeat, [internal, code, per_thread, *records, lines, writer, offset, result, *callbacks, failing,
                    answer_one, fail, xo.kSysMonitoringDisable]


@exercises("CInitialCallback.Callback")
def events_of_the_interpreter(test):
    def monitored(value):
        value = value
        return value

    callbacks = {event: xo.CInitialCallback(event_id, answer_none, True) for event, event_id in (
        (sys.monitoring.events.PY_START, xo.kPyStartEventId), (sys.monitoring.events.LINE, xo.kPyLineEventId),
        (sys.monitoring.events.PY_RETURN, xo.kPyReturnEventId))}
    tool_id, events, value = test.use_tool(), 0, object()
    for event, callback in callbacks.items():
        sys.monitoring.register_callback(tool_id, event, callback.Callback)
        events |= event
    test.set_local_events(tool_id, monitored.__code__, events)
    record = CPerCodeObject.GetPerCodeObject(monitored.__code__)
    lines = (None, {monitored.__code__.co_firstlineno + 2}, set())

    def repeat():
        for enabled in lines:
            record.fEnabledBpLinenos = enabled
            monitored(value)

    return repeat, [value, record, monitored, monitored.__code__, *callbacks.values(), *lines[1:]]


@exercises("IsInternalFrame", "GetNonInternalFrame", "_FrameCodeMatches")
def walking_over_frames(test):
    xo.SetInternalPathnameDict({INTERNAL: 1})
    code, frozen = make_code(INTERNAL), make_code("<frozen made_up>")

    def walk(frame):
        xo.IsInternalFrame(frame)
        xo.GetNonInternalFrame()
        xo.GetNonInternalFrame(2)
        xo._FrameCodeMatches(frame, code)
        xo._FrameCodeMatches(None, code)
        expect(TypeError, xo.GetNonInternalFrame, "2")
        expect(AttributeError, xo.IsInternalFrame, None)

    def repeat():
        in_frame_of(code, lambda frame: at_distance(3, walk))
        in_frame_of(frozen, walk, __file__=INTERNAL)

    return repeat, [code, frozen]


@exercises("reset")
def resetting(test):
    code = make_code("/a.py")
    record = CPerCodeObject.GetPerCodeObject(code)
    internal, checksum, writer = {INTERNAL: 1}, "some checksum", Writer()

    def give_checksum(pathname):
        return checksum

    def repeat():
        xo.set_dprintf_file(writer, 0, None)
        xo.set_dprintf_mask(-1)
        xo.set_checksum_callback(give_checksum)
        xo.SetInternalPathnameDict(internal)
        xo.register_canonical_pathname(__file__, checksum)
        CPerFile.SetNewPerFileCreatedCallback(answer_one)
        record._AddToPerFile()
        CPerThread.SetNewPerThreadCreatedCallback(answer_one)
        CPerThread.SetDebugPolicyCallback(answer_one)
        CPerThread.SetGetThreadNameCallback(answer_one)
        CPerThread.GetPerThread()
        CPerThread.GetPerThread(FOREIGN_THREAD_ID)
        xo.reset()

    return repeat, [code, record, internal, checksum, writer, give_checksum, xo._GetThreadStateDict()]


@exercises("_bench_callback")
def timing_a_callback(test):
    code = make_code("/a.py")

    def repeat():
        xo._bench_callback(answer_one, code, 5)
        expect(NastyError, xo._bench_callback, fail, code, 5)
        expect(TypeError, xo._bench_callback, None, code, 5)

    return repeat, [code, answer_one, fail]


@exercises()
def setting_and_reading_every_field(test):
    made = {
        "CPerFile": CPerFile("/a.py"), "CPerCodeObject": CPerCodeObject(make_code("/a.py"), None),
        "CPerThread": CPerThread(FOREIGN_THREAD_ID), "CInitialCallback": xo.CInitialCallback(1, None, False),
        "CPerThread._CCleanupSupport": CleanupSupport(None),
        "_CCanonicalPathnameMgr": xo._CCanonicalPathnameMgr(),
    }
    watched = [object(), object(), 10**18, "wrong"]
    values = {"object": watched[:2], "int": [watched[2], -1], "bool": [True, False]}
    fields = [(made[path], name, kind) for path, table in CLASSES.items()
              for name, kind in table.fields.items() if name != "_fSecondCallback"]

    def repeat():
        for owner, name, kind in fields:
            for value in values[kind]:
                setattr(owner, name, value)
                getattr(owner, name)
            if kind != "object":
                expect(TypeError, setattr, owner, name, "wrong")
            expect(TypeError, delattr, owner, name)
        for owner in made.values():
            expect(AttributeError, setattr, owner, "fOther", watched)
            expect(AttributeError, getattr, owner, "fOther")

    return repeat, [*made.values(), *watched]


@exercises()
def reading_and_setting_every_class_field(test):
    fields = [(find_class(xo, path), name) for path, table in CLASSES.items() for name in table.class_fields]
    constants = ("kNotFoundTtlSeconds", "_kOffsetForGetFrameInGetPerCodeObject")
    watched = [getattr(owner, name) for owner, name in fields]

    def repeat():
        for owner, name in fields:
            value = getattr(owner, name)
            if name not in constants:
                setattr(owner, name, value)
        expect(AttributeError, setattr, xo._CCanonicalPathnameMgr, "kNotFoundTtlSeconds", 5)

    return repeat, watched


@exercises()
def half_built_instances(test):
    classes = [find_class(xo, path) for path in CLASSES]
    fields = [list(table.fields.items()) for table in CLASSES.values()]

    def repeat():
        for made, its_fields in zip(classes, fields):
            instance = made.__new__(made)
            for name, kind in its_fields:
                if kind == "object":
                    expect(AttributeError, getattr, instance, name)

    return repeat, []


@exercises()
def subclasses_made_in_python(test):
    bases = (CPerFile, CPerCodeObject, CPerThread, xo.CInitialCallback)
    callback = Writer()

    def repeat():
        for base in bases:
            types.new_class("Mine", (base,))
        mine = types.new_class("Mine", (CPerFile,))
        mine._fPerFileDict = {}
        mine.SetNewPerFileCreatedCallback(callback)
        mine("/a.py")

    return repeat, [callback]


@exercises()
def refusing_wrong_arguments(test):
    """Of every function, and of every method by way of its class."""
    calls = [(getattr(xo, name), (), parameters) for name, parameters in FUNCTIONS.items()]
    for path, table in CLASSES.items():
        owner = find_class(xo, path)
        for name, parameters in table.class_methods.items():
            calls.append((getattr(owner, name), (), parameters))
        for name, parameters in table.methods.items():
            # A half-built instance: the arguments are refused before it is looked at.
            calls.append((getattr(owner, name), (owner.__new__(owner),), parameters))
    value = object()

    def repeat():
        for call, first, parameters in calls:
            names = parameter_names(parameters)
            if call.__name__ != "Callback":
                expect(TypeError, call, *first, *[value] * (len(names) + 1))
            expect(TypeError, call, *first, **dict.fromkeys(names, value), other=value)
            if required_count(parameters):
                expect(TypeError, call, *first)
                expect(TypeError, call, *first, *[value] * len(names), **{names[0]: value})
            if first:
                expect(TypeError, call, value, *[value] * len(names))

    return repeat, [value]


@exercises()
def refusing_to_set_module_attributes(test):
    value, old = object(), xo._gInternalPathnameDict

    def repeat():
        for name in ("reset", "CPerFile", "kLogCore", "_gInternalPathnameDict", "ctypes"):
            expect(AttributeError, setattr, xo, name, value)
        expect(AttributeError, getattr, xo, "no_such_name")

    return repeat, [value, old, xo.reset, CPerFile]


# Tests ---------------------------------------------------------------------------------------------------


class RepetitionTest(XoTestCase):
    """One test for each operation; they are entered below."""

    def measure(self, watched):
        blocks = allocated_blocks()
        return ([sys.getrefcount(obj) for obj in watched], registry_sizes(), blocks, allocated_bytes(),
                resident_bytes())

    def check_level(self, repeat, watched):
        unraisable = self.patch(sys, "unraisablehook", Counter())
        for _ in range(WARM_UP_COUNT):
            repeat()
        counts, sizes, blocks, allocated, resident = self.measure(watched)
        for _ in range(REPEAT_COUNT):
            repeat()
        new_counts, new_sizes, new_blocks, new_allocated, new_resident = self.measure(watched)
        self.assertEqual((unraisable.count, unraisable.text), (0, None), "something failed where nobody sees it")
        names = [f"{number}: {type(obj).__name__}" for number, obj in enumerate(watched)]
        self.assertEqual(dict(zip(names, new_counts)), dict(zip(names, counts)), "reference counts moved")
        self.assertEqual(new_sizes, sizes, "a registry has grown or shrunk")
        self.assertLess(new_blocks - blocks, TOLERATED_BLOCKS, "the interpreter's allocator lost blocks")
        self.assertLess(new_allocated - allocated, TOLERATED_ALLOCATED_BYTES, "native memory is lost")
        self.assertLess(new_resident - resident, TOLERATED_RESIDENT_BYTES, "resident memory has grown")


def _make_test(build, needs_code_death):
    def test(self):
        self.check_level(*build(self))

    return frees_code_objects(test) if needs_code_death else test


for _build, _names, _needs_code_death in operations:
    setattr(RepetitionTest, f"test_{_build.__name__}_leaves_everything_level",
            _make_test(_build, _needs_code_death))


class CoverageTest(unittest.TestCase):

    def test_no_function_and_no_method_is_forgotten(self):
        offered = set(FUNCTIONS)
        for path, table in CLASSES.items():
            offered.update(f"{path}.{name}" for name in (*table.class_methods, *table.methods))
        exercised = {name for _, names, _ in operations for name in names}
        exercised.add("_Code_RequestExtraIndexForOwnedRef")  # by the test below
        self.assertEqual(exercised, offered)


class LimitedSupplyTest(unittest.TestCase):
    """Extra slots are few and never given back, so this runs in a process of its own."""

    @needs_plain_allocator
    def test_asking_for_slots_that_are_not_there_leaves_memory_level(self):
        run_python(f"""
            from vorntracer import xoptmonitoring as xo
            from test_leaks import resident_bytes
            while xo._Code_RequestExtraIndexForOwnedRef() != -1:
                pass
            for _ in range({WARM_UP_COUNT}):
                xo._Code_RequestExtraIndexForOwnedRef()
            before = resident_bytes()
            for _ in range({REPEAT_COUNT}):
                assert xo._Code_RequestExtraIndexForOwnedRef() == -1
            assert resident_bytes() - before < {TOLERATED_RESIDENT_BYTES}, resident_bytes() - before
        """)


if __name__ == "__main__":
    unittest.main()
