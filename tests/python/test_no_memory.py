"""No memory: each test lets the first allocation of a call fail, then the second, and so on, until none is left.

Whatever fails, an ordinary exception comes out, or the answer that is documented; no lock stays held, no thread
deaf to events, no note of a clean-up behind, and the next call works.
"""

import os
import re
import sys
import textwrap
import unittest
from unittest import mock

from compiled_helpers import compile_helper
from support import BARE_MODULE_MESSAGE, XoTestCase, is_free_threaded, is_sanitized, run_python

#: What comes before each snippet whose allocations are made to fail.
PROLOGUE = """
import functools, gc, itertools, os, sys, threading
from vornbase import dlog
from vorntracer import xoptmonitoring as xo
from fault_helpers import Probe, check_count, each_failing_end, is_lack_of_memory
CPerCodeObject, CPerFile, CPerThread = xo.CPerCodeObject, xo.CPerFile, xo.CPerThread
partial = functools.partial
numbers = itertools.count()
kept = []

def new_code():
    number = next(numbers)
    kept.append(compile(f"number = {number}", f"/srv/faults/{number}.py", "exec"))
    return kept[-1]

def new_thread_record():
    CPerThread._DiscardPerThread(threading.get_ident())
    return CPerThread.GetPerThread

def is_stated(error):
    # Without memory for it, the interpreter says that the thread has no frame.
    return is_lack_of_memory(error) or str(error) == "no Python frame in the monitored thread"

class Nowhere:
    write = staticmethod(len)

gc.disable()  # a collection that has no memory says so, and it may come at any time

# Once without a failure: what the interpreter imports and caches at first use is not ours to test.
CPerCodeObject.GetPerCodeObject(new_code(), True, sys._getframe())
CPerThread.GetPerThread()
xo.reset()
probe = Probe(xo)
"""

not_3_13_0 = unittest.skipIf(
    sys.version_info[:3] == (3, 13, 0),
    "3.13.0 goes on after a dictionary's failed setdefault, and crashes while it makes a type")


#: A free-threaded 3.13 frees a list that it had no memory for with what was there before, so its own allocations have
#: to succeed there. What the module asks the C library for fails all the same.
ONLY_NATIVE_FAILS = is_free_threaded() and sys.version_info[:2] == (3, 13)


class NoMemoryTestCase(XoTestCase):

    def setUp(self):
        super().setUp()
        if ONLY_NATIVE_FAILS and is_sanitized():
            self.skipTest("the sanitizer serves the only allocations that could be made to fail here")

    def run_failing(self, code, prologue=PROLOGUE):
        """Runs a snippet in a process whose allocations can be made to fail; returns its standard error."""
        library = compile_helper("failing_allocations", self.make_dir())
        environment = {"XO_FAILING_ALLOCATIONS": library}
        if not is_sanitized():
            environment["LD_PRELOAD"] = library
        if ONLY_NATIVE_FAILS:
            environment["XO_FAILING_NATIVE_ONLY"] = "1"
        # Room for thread-local words of all the copies of the module that a test may load; a program has one.
        environment["GLIBC_TUNABLES"] = "glibc.rtld.optional_static_tls=65536"
        with mock.patch.dict(os.environ, environment):
            return run_python(prologue + textwrap.dedent(code), timeout=120).stderr

    def assert_survives(self, code):
        """The same, where nothing may be written to standard error either."""
        self.assertEqual(self.run_failing(code), "")


class ImportTest(NoMemoryTestCase):

    PROLOGUE = """
import _imp, ctypes, functools, importlib.machinery, importlib.util, itertools, os, shutil, sys
import threading, time, traceback, types, typing, weakref
from vornbase import dlog
from vorntracer import dbgpythonapi
from fault_helpers import check_count, each_failure

spec = importlib.util.find_spec("vorntracer.xoptmonitoring")

def executed(module):
    module.__package__ = "vorntracer"
    _imp.exec_dynamic(module)
    return module

def check_works(xo):
    xo.reset()
    assert xo.CPerFile.GetPerFile("/a.py") in xo.CPerFile.GetAllPerFiles()
    assert xo.CPerThread.GetPerThread() is xo.CPerThread.GetPerThread()
"""

    @not_3_13_0
    def test_a_module_that_cannot_be_created_can_be_created_once_there_is_memory(self):
        # A copy of the file is a library of its own, which binds itself to the interpreter at its first import.
        directory = self.make_dir()
        stderr = self.run_failing(f"""
            def new_spec():
                pathname = os.path.join({directory!r}, f"copy{{next(numbers)}}.so")
                shutil.copyfile(spec.origin, pathname)
                loader = importlib.machinery.ExtensionFileLoader(spec.name, pathname)
                specs.append(importlib.util.spec_from_file_location(spec.name, loader=loader))
                return functools.partial(_imp.create_dynamic, specs[-1])

            numbers, specs = itertools.count(), []
            for from_there_on in (False, True):
                for number, outcome in each_failure(new_spec, from_there_on):
                    if isinstance(outcome, BaseException):
                        assert isinstance(outcome, (MemoryError, ImportError, SystemError)), (number, outcome)
                        outcome = _imp.create_dynamic(specs[-1])
                    check_works(executed(outcome))
                check_count(number, 5)
        """, self.PROLOGUE)
        # What the binding and the interpreter may say of a failure on their way.
        said = {line for line in stderr.replace(BARE_MODULE_MESSAGE, "").splitlines() if not line.startswith(" ")}
        self.assertLessEqual({line.partition(":")[0] for line in said}, {
            "Unable to get version numbers", "MemoryError", "Traceback (most recent call last)",
            "Exception ignored in PySys_GetObject()", "Exception ignored in PyDict_GetItemString(); consider using "
            "PyDict_GetItemRefString()"}, stderr)

    @not_3_13_0
    def test_an_execution_that_fails_leaves_nothing_and_the_next_one_works(self):
        stderr = self.run_failing("""
            def execute():
                fresh = _imp.create_dynamic(spec)
                fresh.__package__ = "vorntracer"
                modules.append(fresh)
                return functools.partial(_imp.exec_dynamic, fresh)

            modules = []
            for number, outcome in each_failure(execute):
                if isinstance(outcome, BaseException):
                    # Where a type's attribute is looked for in vain, the interpreter may forget why.
                    assert isinstance(outcome, (MemoryError, ImportError, AttributeError, SystemError)), outcome
                    try:
                        modules[-1].reset
                    except AttributeError as error:
                        assert str(error) == "Attribute error", error
                    else:
                        raise AssertionError("a failed execution left a function behind")
                    del modules[-1]
            check_count(number, 500)
            check_works(modules.pop())
            from vorntracer import xoptmonitoring
            check_works(xoptmonitoring)
        """, self.PROLOGUE)
        self.assertEqual(stderr, "")


class RecordsTest(NoMemoryTestCase):

    def test_the_record_of_a_file_is_made_or_not(self):
        self.assert_survives("""
            xo.set_checksum_callback("{}".format)  # the pathname is its own checksum
            announced = []
            CPerFile.SetNewPerFileCreatedCallback(announced.append)

            def make():
                return partial(CPerFile.GetPerFile, f"/srv/faults/{next(numbers)}.py")

            def consistent(number, outcome):
                for record in CPerFile.GetAllPerFiles():
                    assert CPerFile.GetPerFile(record.fCanonicalPathname) is record
                    assert record in CPerFile.GetPerFileSetForChecksum(record.fChecksum)

            for from_there_on in (False, True):
                records = probe.check_each(make, from_there_on, consistent)
                assert records[-1] is announced[-1]
        """)

    def test_the_record_of_a_code_object_is_made_or_not(self):
        self.assert_survives("""
            announced = []
            CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced.append)
            frame = sys._getframe()

            def make():
                return partial(CPerCodeObject.GetPerCodeObject, new_code(), True, frame)

            def again(number, outcome):
                record = CPerCodeObject.GetPerCodeObject(kept[-1], True, frame)
                assert record.fCodeObjectWeakRef() is kept[-1]
                assert record in CPerFile.GetPerFile(record.fCanonicalPathname).fKnownPerCodeObjects

            for index in (CPerCodeObject._fCodeObjectExtraIndex, -1):
                CPerCodeObject._fCodeObjectExtraIndex = index
                for from_there_on in (False, True):
                    probe.check_each(make, from_there_on, again)
                    assert announced[-1] is CPerCodeObject.GetPerCodeObject(kept[-1])
        """)

    def test_a_record_made_without_a_frame_is_settled_or_not(self):
        self.assert_survives("""
            frame = sys._getframe()

            def settle():
                return CPerCodeObject.GetPerCodeObject(kept[-1], True, frame)

            def make():
                assert not CPerCodeObject.GetPerCodeObject(new_code()).fIsInternalKnown
                return settle

            def again(number, outcome):
                record = settle()
                assert record.fIsInternalKnown and not record.fUpdatePathnameNeeded
                assert record in CPerFile.GetPerFile(record.fCanonicalPathname).fKnownPerCodeObjects

            for from_there_on in (False, True):
                probe.check_each(make, from_there_on, again)
        """)

    def test_the_record_of_a_thread_is_made_or_not(self):
        self.assert_survives("""
            announced = []
            CPerThread.SetNewPerThreadCreatedCallback(announced.append)

            def again(number, outcome):
                record = CPerThread.GetPerThread()
                assert record is CPerThread.GetPerThread(threading.get_ident())
                assert CPerThread.GetAllPerThreads() == [record]

            for from_there_on in (False, True):
                probe.check_each(new_thread_record, from_there_on, again)
                assert announced[-1] is CPerThread.GetPerThread()
        """)

    def test_what_is_asked_of_a_thread_is_answered_or_not(self):
        self.assert_survives("""
            record = CPerThread.GetPerThread()
            CPerThread.SetGetThreadNameCallback("{}".format)

            def find_name():
                record.fThreadName = None
                return record.FindThreadName

            def find_policy():
                CPerThread.SetDebugPolicyCallback(float)
                return record.GetDebugPolicy

            assert probe.check_each(find_name)[-1] == str(record)
            assert probe.check_each(find_policy)[-1] == float(record.fThreadId)
            probe.check_each(lambda: partial(CPerThread.SetDebugPolicyCallback, None), allocates=False)
            assert probe.check_each(lambda: CPerThread.GetAllPerThreads)[-1] == [record]
            probe.check_each(lambda: partial(CPerThread._DiscardPerThread, -500), allocates=False)
        """)

    def test_the_clean_up_of_a_thread_leaves_no_note_of_itself(self):
        stderr = self.run_failing("""
            def make():
                new_thread_record()()
                clean_up = CPerThread._fCleanupSupportByThreadId[threading.get_ident()]
                return clean_up._CCleanupSupport__CapsuleDestructor

            def again(number, outcome):
                record = new_thread_record()()
                assert record.fThreadId == threading.get_ident() and CPerThread.GetPerThread() is record

            for from_there_on in (False, True):
                probe.check_each(make, from_there_on, again)
        """)
        # The clean-up of itself prints what it lacked, and must not raise.
        errors = set(re.findall(r"^[\w.]+Error", stderr, re.MULTILINE))
        self.assertLessEqual(errors, {"MemoryError", "ctypes.ArgumentError"})

    def test_a_thread_may_have_no_memory_left_for_its_end(self):
        # The interpreter writes down what its finalisers could not do.
        self.run_failing("""
            left_behind = []

            def work():
                left_behind[:] = [CPerThread.GetPerThread()]

            for from_there_on in (False, True):
                for number in each_failing_end(xo, work, from_there_on):
                    probe.check(number, None)
                    identifier = left_behind[0].fThreadId
                    record = CPerThread.GetPerThread(identifier, False)
                    assert record in (None, left_behind[0])
                    CPerThread._DiscardPerThread(identifier)
                assert record is None
                check_count(number, 5)
                assert left_behind[0].fSuspendLock is None, "the record was not cleared"
        """)

    def test_a_reset_that_fails_half_way_can_be_done_again(self):
        # Where the finalizer of the old capsule has no memory for its own call, the interpreter writes that down.
        self.run_failing("""
            def make():
                CPerThread.GetPerThread()
                CPerFile.GetPerFile("/srv/faults/reset.py")
                CPerCodeObject.GetPerCodeObject(new_code())
                return xo.reset

            def again(number, outcome):
                xo.reset()
                assert CPerThread._fPerThreadDict == CPerFile._fPerFileDict == {}
                assert CPerThread._fCleanupSupportByThreadId == {}

            for from_there_on in (False, True):
                probe.check_each(make, from_there_on, again)
        """)


class EventsTest(NoMemoryTestCase):

    def test_an_event_is_answered_with_none_or_with_what_the_second_stage_says(self):
        self.assert_survives("""
            class Log(dict):
                def __missing__(self, error):
                    assert is_stated(error), error
                    logged.append(error)

            log, logged = Log(), []
            dlog.LogException = lambda exception, show: log[sys.exception()]

            def second(code, *args):
                return args

            def make(callback, *args):
                def make_new():
                    new_thread_record()
                    return partial(callback.Callback, new_code(), *args)
                return make_new

            for event, args in ((xo.kPyStartEventId, (0,)), (xo.kPyResumeEventId, (4,)), (xo.kPyLineEventId, (1,)),
                                (xo.kPyReturnEventId, (0, "value")), (xo.kPyYieldEventId, (4, "value"))):
                callback = xo.CInitialCallback(event, second, True)
                results = probe.check_each(make(callback, *args))
                assert results[-1] == args, results
                assert set(results[:-1]) <= {None, args}, results
                assert None in results and logged
                logged.clear()
        """)

    def test_an_event_that_cannot_even_be_logged_raises_into_the_program_and_nothing_stays_held(self):
        self.assert_survives("""
            def make():
                new_thread_record()
                return partial(callback.Callback, new_code(), 1)

            def again(number, outcome):
                assert callback.Callback(kept[-1], 1) == "second"

            dlog.LogException = "{} {}".format  # fails where there is no memory at all, and else does nothing
            for event in (xo.kPyStartEventId, xo.kPyLineEventId):
                callback = xo.CInitialCallback(event, lambda code, offset: "second", True)
                probe.check_each(make, from_there_on=True, then=again)
        """)

    def test_an_event_that_the_interpreter_reports_leaves_the_tool_switched_on(self):
        self.assert_survives("""
            dlog.LogException = lambda exception, show: None
            monitoring, heard, every_event = sys.monitoring, set(), 0
            monitoring.use_tool_id(4, "test")
            names = ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE")
            for name in names:
                event = getattr(monitoring.events, name)
                callback = xo.CInitialCallback(event, lambda code, *args, name=name: heard.add(name), True)
                monitoring.register_callback(4, event, callback.Callback)
                every_event |= event

            def make():
                global program
                new_thread_record()
                namespace = {}
                exec(f"def program():\\n  yield {next(numbers)}\\n  return", namespace)
                program = namespace["program"]
                monitoring.set_local_events(4, program.__code__, every_event)
                list(program())  # the interpreter has made its tables for the code
                CPerThread._DiscardPerThread(threading.get_ident())
                CPerCodeObject._fPerCodeObjectDict.clear()
                return partial(list, program())

            def again(number, outcome):
                heard.clear()
                list(program())
                assert heard == set(names), (number, heard)

            # Records that can be forgotten, so that they are made while memory is lacking.
            CPerCodeObject._fCodeObjectExtraIndex = -1
            for from_there_on in (False, True):
                probe.check_each(make, from_there_on, again)
        """)

    def test_a_held_thread_never_keeps_its_lock(self):
        self.assert_survives("""
            logged = []
            dlog.LogException = lambda exception, show: logged.append(exception)
            callback = xo.CInitialCallback(xo.kPyLineEventId, {}.get, False)
            callback.fAnySuspendThread = True
            record = CPerThread.GetPerThread()
            record.fCheckSuspendLock = True
            code = new_code()
            CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())

            def free(number, outcome):
                assert not record.fSuspendLock.locked(), number

            for make in (lambda: partial(callback.Callback, code, 1),
                         lambda: partial(callback._SuspendIfNeeded, record)):
                for from_there_on in (False, True):
                    probe.check_each(make, from_there_on, free, allocates=False)
        """)

    def test_lines_that_cannot_be_written_are_an_exception_of_the_event(self):
        self.assert_survives("""
            def log(exception, show):
                # Not every version says why its text formatting has come to nothing.
                error = sys.exception()
                assert error is None or is_stated(error), error

            dlog.LogException = log
            callback = xo.CInitialCallback(xo.kPyStartEventId, lambda code, offset: "second", True)
            code = new_code()
            xo.set_dprintf_mask(-1)
            xo.set_dprintf_file(Nowhere, None, None)
            results = probe.check_each(lambda: partial(callback.Callback, code, 0))
            assert results[-1] == "second" and set(results) == {None, "second"}, results
        """)


class FunctionsTest(NoMemoryTestCase):

    def test_a_pathname_gets_its_name_or_not(self):
        self.assert_survives("""
            xo.set_checksum_callback("{}".format)

            def call(function, pathname, *args):
                def make():
                    xo._gCanonicalPathnameMgr.Reset()
                    return partial(function, pathname.format(next(numbers)), *args)
                return make

            for pathname in ("/srv/faults/name{}.py", "relative{}.pyc", "<frozen name{}>", "<pseudo{}>",
                             os.path.dirname(os.__file__) + "/../lib/nowhere{}/os.py", os.__file__):
                for function in (xo.get_canonical_pathname, xo.register_canonical_pathname,
                                 xo.lookup_canonical_pathname):
                    probe.check_each(call(function, pathname, "a checksum"), allocates=False)
                probe.check_each(call(xo.GetPathnameKind, pathname), allocates=False)
                probe.check_each(call(xo.IsInternalPathname, pathname), allocates=False)
            known = xo._gCanonicalPathnameMgr.fByName
            assert all(isinstance(name, str) for name in known.values()), known
        """)

    def test_functions_that_walk_frames_and_write_lines_answer_or_raise(self):
        self.assert_survives("""
            frame = sys._getframe()
            CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
            assert probe.check_each(lambda: xo.GetNonInternalFrame)[-1].f_code is not frame.f_code
            assert probe.check_each(lambda: partial(xo.IsInternalFrame, frame), allocates=False)[-1] is False
            xo.set_dprintf_mask(-1)
            xo.set_dprintf_file(Nowhere, None, None)
            probe.check_each(lambda: partial(xo.dprintf, xo.kLogCore, "text".upper))
            probe.check_each(lambda: partial(xo.AddToThreadStateTracing, 0))
            probe.check_each(lambda: partial(xo._CallNewObjectCallback, list, ()))
            probe.check_each(lambda: partial(xo._CallNewObjectCallback, int, "no number"), ends_in=ValueError)
        """)

    def test_arguments_are_bound_or_not(self):
        self.assert_survives("""
            get = CPerFile.GetPerFile
            for arguments, keywords in (((), {"create": True, "pathname": "/srv/faults/k.py"}),
                                        (("/srv/faults/k.py",), {"create": True}),
                                        (("/srv/faults/k.py", False), {})):
                # A call by position allocates native blocks only, which are not counted under a sanitizer.
                results = probe.check_each(lambda: partial(get, *arguments, **keywords), allocates=bool(keywords))
                assert results[-1] is get("/srv/faults/k.py")
            for arguments, keywords in (((), {}), ((1, 2, 3, 4), {}), (("/a.py",), {"nonsense": 1}),
                                        (("/a.py",), {"pathname": "/a.py"})):
                probe.check_each(lambda: partial(get, *arguments, **keywords), ends_in=TypeError)
        """)

    def test_attributes_are_read_written_and_described_or_not(self):
        self.assert_survives("""
            record = CPerThread.GetPerThread()
            unset = CPerThread.__new__(CPerThread)
            find = probe.check_each(lambda: partial(getattr, record, "FindThreadName"), allocates=False)[-1]
            assert find() is None
            assert probe.check_each(lambda: partial(getattr, record, "_fPerThreadDict"), allocates=False)[-1]
            probe.check_each(lambda: partial(getattr, xo, "kLogCore"), allocates=False)
            probe.check_each(lambda: partial(setattr, record, "fStopFrame", "frame"), allocates=False)
            for owner, name in ((unset, "fThreadId"), (CPerThread, "no_attribute"), (xo, "no_attribute")):
                probe.check_each(lambda: partial(getattr, owner, name), ends_in=AttributeError, allocates=False)
            probe.check_each(lambda: partial(setattr, record, "fDebugPolicy", "1"), ends_in=TypeError, allocates=False)
            for owner, name in ((xo, "kLogCore"), (xo, "sys")):
                probe.check_each(lambda: partial(setattr, owner, name, 1), ends_in=AttributeError)
            probe.check_each(lambda: partial(repr, xo.reset))
            probe.check_each(lambda: partial(dir, CPerFile))
            probe.check_each(lambda: partial(dir, xo))
        """)

    @not_3_13_0
    @unittest.skipIf(sys.version_info >= (3, 15) and hasattr(sys, "gettotalrefcount"),
                     "a debug 3.15 crashes when it has no memory to copy the body of any class")
    def test_a_subclass_is_made_or_not(self):
        self.assert_survives("""
            for class_ in (CPerFile, CPerCodeObject, CPerThread, xo.CInitialCallback):
                derived = probe.check_each(lambda: partial(type, "Derived", (class_,), {}))[-1]
                assert issubclass(derived, class_)
        """)


if __name__ == "__main__":
    unittest.main()
