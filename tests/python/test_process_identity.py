"""The process id that the module works for: a forked child is silent until it says that it is one."""

import ctypes
import os
import sys
import threading
import unittest

from code_helpers import in_forked_child, make_code
from support import Recorder, XoTestCase, needs_fork, xo

CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread


def probe():
    """Raises one start event."""


class ThisProcessTest(XoTestCase):

    def test_the_process_id_is_that_of_the_interpreter(self):
        self.assertEqual((xo._GetPid(), xo._gThisProcessPid), (os.getpid(), os.getpid()))
        self.assertIs(type(xo._GetPid()), int)

    def test_saying_it_again_in_the_same_process_changes_nothing(self):
        self.assertIsNone(xo.UpdateThisProcessPid())
        self.assertEqual(xo._gThisProcessPid, os.getpid())

    def test_neither_takes_an_argument(self):
        for function in (xo._GetPid, xo.UpdateThisProcessPid):
            with self.subTest(function=function):
                self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                        function, 1)


@needs_fork
class ForkedChildTest(XoTestCase):

    def setUp(self):
        super().setUp()
        self.second = Recorder(result="second")
        self.callback = xo.CInitialCallback(xo.kPyStartEventId, self.second, True)

    def answer(self, code):
        """What the first stage answers to a start event, and how often the second stage was called."""
        answer = self.callback.Callback(code, 0)
        text = "DISABLE" if answer is xo.kSysMonitoringDisable else repr(answer)
        return [text, len(self.second.calls)]

    def test_the_current_process_id_is_fresh_and_the_known_one_is_the_parents(self):
        parent = os.getpid()
        in_child = in_forked_child(lambda: [os.getpid(), xo._GetPid(), xo._gThisProcessPid])
        self.assertNotEqual(in_child[0], parent)
        self.assertEqual(in_child, [in_child[0], in_child[0], parent])
        self.assertEqual((xo._GetPid(), xo._gThisProcessPid), (parent, parent))

    def test_an_update_that_fails_leaves_the_child_silent(self):
        class Failing:
            release = None

            def acquire(self, *_args):
                raise OSError("no lock")

        def run():
            lock, CPerThread._fRegistryLock = CPerThread._fRegistryLock, Failing()
            try:
                xo.UpdateThisProcessPid()
            except OSError as error:
                outcome = [str(error), xo._gThisProcessPid == os.getpid()]
            CPerThread._fRegistryLock = lock
            xo.UpdateThisProcessPid()
            return outcome + [xo._gThisProcessPid == os.getpid()]

        self.assertEqual(in_forked_child(run), ["no lock", False, True])

    def test_updating_makes_the_child_the_process_that_is_worked_for(self):
        def run():
            xo.UpdateThisProcessPid()
            return xo._gThisProcessPid == os.getpid()

        self.assertIs(in_forked_child(run), True)

    def test_a_fork_made_by_native_code_is_noticed(self):
        fork = ctypes.PyDLL(None).fork
        in_child = in_forked_child(lambda: [os.getpid(), xo._GetPid(), xo._gThisProcessPid], fork)
        self.assertEqual(in_child, [in_child[0], in_child[0], os.getpid()])
        self.assertNotEqual(in_child[0], os.getpid())

    def test_a_child_of_a_child_has_to_say_so_itself(self):
        def grandchild():
            silent = self.answer(code)
            xo.UpdateThisProcessPid()
            return silent + self.answer(code)

        def child():
            xo.UpdateThisProcessPid()
            return in_forked_child(grandchild) + self.answer(code)

        code = make_code("/a.py")
        self.assertEqual(in_forked_child(child), ["None", 0, "'second'", 1, "'second'", 1])

    def test_events_are_ignored_until_the_child_has_updated(self):
        def run():
            return [self.answer(code), xo.UpdateThisProcessPid(), self.answer(code)]

        code = make_code("/a.py")
        self.assertEqual(self.answer(code), ["'second'", 1])
        self.assertEqual(in_forked_child(run), [["None", 1], None, ["'second'", 2]])
        self.assertEqual(self.answer(code), ["'second'", 2])

    def test_internal_code_is_not_switched_off_by_a_child_that_has_not_updated(self):
        def run():
            return [self.answer(code), xo.UpdateThisProcessPid(), self.answer(code)]

        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        code = make_code("/opt/dbg/x.py")
        self.assertEqual(in_forked_child(run), [["None", 0], None, ["DISABLE", 0]])

    def test_no_record_is_made_before_the_child_has_updated(self):
        def records():
            return [CPerCodeObject.GetPerCodeObject(code, False) is None, len(CPerThread.GetAllPerThreads())]

        def run():
            self.answer(code)
            before = records()
            xo.UpdateThisProcessPid()
            self.answer(code)
            return [before, records()]

        code = make_code("/a.py")
        self.assertEqual(in_forked_child(run), [[True, 0], [False, 1]])

    def test_events_of_the_interpreter_are_ignored_until_the_child_has_updated(self):
        def run():
            probe()
            before = len(self.second.calls)
            xo.UpdateThisProcessPid()
            probe()
            return [before, len(self.second.calls)]

        self.second.result = None
        tool_id = self.use_tool()
        event = sys.monitoring.events.PY_START
        sys.monitoring.register_callback(tool_id, event, self.callback.Callback)
        self.set_local_events(tool_id, probe.__code__, event)
        probe()
        self.assertEqual([args[0] for args in self.second.calls], [probe.__code__])
        self.assertEqual(in_forked_child(run), [1, 2])
        probe()
        self.assertEqual(len(self.second.calls), 2)

    def test_a_reset_makes_the_child_the_process_that_is_worked_for(self):
        def run():
            xo.reset()
            return [xo._gThisProcessPid == os.getpid(), *self.answer(code)]

        code = make_code("/a.py")
        self.assertEqual(in_forked_child(run), [True, "'second'", 1])

    def test_updating_keeps_everything_that_the_parent_had_set_up(self):
        def run():
            xo.UpdateThisProcessPid()
            return [CPerThread.GetPerThread() is per_thread, xo._CPerThreadTssCache.Get() is per_thread,
                    CPerCodeObject.GetPerCodeObject(code, False) is record,
                    xo.IsInternalPathname("/opt/x.py"), xo.get_dprintf_mask()]

        code = make_code("/a.py")
        record = CPerCodeObject.GetPerCodeObject(code)
        per_thread = CPerThread.GetPerThread()
        xo.SetInternalPathnameDict({"/opt/x.py": 1})
        xo.set_dprintf_mask(2)
        self.assertEqual(in_forked_child(run), [True, True, True, True, 2])

    def test_threads_work_as_usual_in_a_child_that_has_updated(self):
        def run():
            xo.UpdateThisProcessPid()
            answers = []
            thread = threading.Thread(target=lambda: answers.append(self.answer(code)))
            thread.start()
            thread.join()
            return [answers, len(CPerThread.GetAllPerThreads())]

        code = make_code("/a.py")
        self.assertEqual(in_forked_child(run), [[["'second'", 1]], 0])

    def test_a_child_forked_on_another_thread_finds_the_record_of_that_thread(self):
        def run():
            xo.UpdateThisProcessPid()
            return [CPerThread.GetPerThread().fThreadId, xo._GetThreadIdent()]

        def fork_here():
            ident = CPerThread.GetPerThread().fThreadId
            results.append((ident, in_forked_child(run)))

        results = []
        thread = threading.Thread(target=fork_here)
        thread.start()
        thread.join()
        ((ident, in_child),) = results
        self.assertEqual(in_child, [ident, ident])

    def test_a_child_that_never_updates_leaves_the_parent_alone(self):
        code = make_code("/a.py")
        in_forked_child(lambda: self.answer(code))
        self.assertEqual(xo._gThisProcessPid, os.getpid())
        self.assertEqual(self.answer(code), ["'second'", 1])


if __name__ == "__main__":
    unittest.main()
