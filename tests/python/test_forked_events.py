"""Events in a forked child: none counts until the child has said that it is the process to work for."""

import contextlib
import os
import signal
import sys
import threading
import time
import unittest

from code_helpers import in_forked_child, make_code
from event_helpers import EVENT_IDS, FOREIGN_EVENT_ID, SAMPLE, EventTestCase, Worker
from support import Recorder, RecordingWriter, is_free_threaded, needs_fork, run_python, time_limit, xo

CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread


@needs_fork
class DirectCallTest(EventTestCase):
    """Each test asks in a child; the parent only looks at the answers."""

    def ask(self, action):
        """Runs `action` in a child that was forked from the main thread, and in one forked from another."""
        from_main = in_forked_child(action)
        with Worker() as worker:
            from_thread = worker.call(in_forked_child, action)
        self.assertEqual(from_main, from_thread)
        return from_main

    def watched_fork(self):
        """Forks; a child that hangs is killed after a while, so that the test fails and does not hang."""
        child = os.fork()
        if child != 0:
            handle = os.pidfd_open(child)
            self.addCleanup(os.close, handle)
            timer = threading.Timer(time_limit(20), self.kill, (handle,))
            timer.daemon = True
            timer.start()
            self.addCleanup(timer.join)
            self.addCleanup(timer.cancel)
        return child

    @staticmethod
    def kill(handle):
        with contextlib.suppress(ProcessLookupError):
            signal.pidfd_send_signal(handle, signal.SIGKILL)

    def test_every_event_is_answered_none_and_nothing_is_called_or_logged(self):
        known, record = self.known_code(3)
        record.fSteppingEventsNeededCount = record.fReturnEventsNeededCount = 1
        internal, _ = self.internal_code()

        def answers():
            return [[repr(self.make_callback(event_id, True).Callback(code, 3)) for code in (known, internal)]
                    for event_id in (*EVENT_IDS.values(), FOREIGN_EVENT_ID)] + [
                        len(self.second.calls), len(self.log.calls)]

        self.assertEqual(self.ask(answers), [["None", "None"]] * 6 + [0, 0])

    def test_the_process_is_compared_before_anything_else_happens(self):
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        CPerThread.SetNewPerThreadCreatedCallback(announced)

        def look():
            code = make_code(SAMPLE)
            callback = self.make_callback(xo.kPyStartEventId, True)
            answers = [callback._SkipDetermination(code, None),
                       callback._SkipDetermination("no code object", None)]
            return [*answers, CPerCodeObject.GetPerCodeObject(code, False), len(CPerThread._fPerThreadDict),
                    len(announced.calls)]

        self.assertEqual(self.ask(look), [None, None, None, 0, 0])

    def test_a_held_thread_is_not_held_in_the_child(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True

        def look():
            record = CPerThread.GetPerThread()
            record.fCheckSuspendLock = True
            with record.fSuspendLock:
                return callback.Callback(known, 3)

        self.assertIsNone(self.ask(look))

    def test_the_first_log_line_is_written_all_the_same(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)

        def look():
            writer = RecordingWriter()
            xo.set_dprintf_file(writer, -1, None)
            xo.set_dprintf_mask(xo.kLogInitialMonitoringCallbacks)
            callback.Callback(known, 3)
            return writer.texts

        self.assertEqual(self.ask(look), [f"Initial callback called for {known!r};\n"
                                          f" second callback is {self.second!r}\n"])

    def test_updating_the_process_id_makes_events_count_again(self):
        known, _ = self.known_code(3)
        internal, _ = self.internal_code()

        def look():
            lines = self.make_callback(xo.kPyLineEventId, True)
            starts = self.make_callback(xo.kPyStartEventId, True)
            before = lines.Callback(known, 3)
            xo.UpdateThisProcessPid()
            return [before, xo._gThisProcessPid == os.getpid() == xo._GetPid(), lines.Callback(known, 3),
                    lines.Callback(known, 4), starts.Callback(internal, 0) is xo.kSysMonitoringDisable]

        self.assertEqual(self.ask(look), [None, True, "second", None, True])

    def test_a_reset_in_the_child_makes_events_count_again(self):
        def look():
            xo.reset()
            code = make_code(SAMPLE)
            return self.make_callback(xo.kPyStartEventId).Callback(code, 0)

        self.assertEqual(self.ask(look), "second")

    def test_a_grandchild_has_to_say_it_again(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)

        def in_child():
            xo.UpdateThisProcessPid()

            def in_grandchild():
                before = callback.Callback(known, 3)
                xo.UpdateThisProcessPid()
                return [before, callback.Callback(known, 3), xo._GetPid() == os.getpid()]

            return [in_forked_child(in_grandchild), callback.Callback(known, 3)]

        self.assertEqual(self.ask(in_child), [[None, "second", True], "second"])

    def test_the_parent_goes_on_as_if_nothing_had_happened(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        record = CPerThread.GetPerThread()
        self.ask(lambda: (xo.UpdateThisProcessPid(), xo.reset()) and None)
        self.assertEqual((xo._GetPid(), xo._gThisProcessPid), (os.getpid(), os.getpid()))
        self.assertIs(CPerThread.GetPerThread(), record)
        self.assertEqual(callback.Callback(known, 3), "second")

    def test_the_forking_thread_keeps_its_record_in_the_child(self):
        def fork_with_record():
            record = CPerThread.GetPerThread()
            return in_forked_child(lambda: [CPerThread.GetPerThread() is record,
                                            record.fThreadId == threading.get_ident(),
                                            xo._CPerThreadTssCache.Get() is record])

        self.assertEqual(fork_with_record(), [True] * 3)
        with Worker() as worker:
            self.assertEqual(worker.call(fork_with_record), [True] * 3)

    def test_a_child_of_another_thread_ends_that_threads_record_with_it(self):
        with Worker() as worker:
            worker.call(CPerThread.GetPerThread)

            def look():
                xo.UpdateThisProcessPid()
                mine = threading.get_ident()
                xo._GetThreadStateDict().pop(xo._gThreadStateDictKey)
                return [mine in CPerThread._fPerThreadDict, mine in CPerThread._fCleanedUpThreadIds]

            self.assertEqual(worker.call(in_forked_child, look), [False, True])
            self.assertIn(worker.ident, CPerThread._fPerThreadDict)

    def test_the_records_of_threads_that_the_child_does_not_have_are_gone_there(self):
        with Worker() as worker, Worker() as forking:
            worker.call(CPerThread.GetPerThread)
            forking.call(CPerThread.GetPerThread)

            def look():
                return [worker.ident in registry for registry in
                        (CPerThread._fPerThreadDict, CPerThread._fCleanupSupportByThreadId,
                         CPerThread._fCleanedUpThreadIds)] + [list(CPerThread._fPerThreadDict),
                                                              CPerThread._fRegistryLock.locked()]

            self.assertEqual(forking.call(in_forked_child, look),
                             [False, False, True, [forking.ident], False])
            self.assertEqual(set(CPerThread._fPerThreadDict), {worker.ident, forking.ident})

    def test_a_registry_lock_held_at_the_fork_does_not_stop_the_child(self):
        # The clean-up of the threads that the child does not have runs before fork() returns there, and the
        # holder of the lock may be one of them.
        stop = threading.Event()
        registered = threading.Event()

        def live_on():
            CPerThread.GetPerThread()
            registered.set()
            stop.wait()

        def look():
            locked = CPerThread._fRegistryLock.locked()
            xo.UpdateThisProcessPid()
            return [locked, CPerThread._fRegistryLock.locked(), CPerThread.GetPerThread() is not None]

        thread = threading.Thread(target=live_on)
        thread.start()
        try:
            registered.wait()
            with CPerThread._fRegistryLock:
                self.assertEqual(in_forked_child(look), [True, False, True])
        finally:
            stop.set()
            thread.join()

    def assert_children_can_work(self, known):
        """Forks while another thread is at work, and has the child and a child of that see to their events."""
        starts = self.make_callback(xo.kPyStartEventId, second=lambda *args: "seen")

        def look():
            before = starts.Callback(known, 0)
            xo.UpdateThisProcessPid()
            lines = self.make_callback(xo.kPyLineEventId, second=lambda *args: "seen")
            return [before, starts.Callback(make_code(SAMPLE), 0), lines.Callback(known, 3), lines.Callback(known, 4),
                    list(CPerThread._fPerThreadDict) == [threading.get_ident()], CPerThread._fRegistryLock.locked()]

        def look_twice():
            return [look(), in_forked_child(look, self.watched_fork)]

        expected = [None, "seen", "seen", None, True, False]
        self.assertEqual(in_forked_child(look_twice, self.watched_fork), [expected, expected])

    def test_a_fork_while_another_thread_is_inside_its_second_callback(self):
        known, _ = self.known_code(3)
        inside, may_go_on = threading.Event(), threading.Event()

        def second(*_args):
            inside.set()
            return may_go_on.wait(time_limit(20))

        callback = self.make_callback(xo.kPyLineEventId, second=second)
        with Worker() as worker:
            call = worker.begin(callback.Callback, known, 3)
            self.assertTrue(inside.wait(time_limit(20)))
            self.assert_children_can_work(known)
            may_go_on.set()
            self.assertIs(call.result(), True)

    def test_a_fork_while_another_thread_is_held_inside_its_callback(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        callback.fAnySuspendThread = True
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            record.fCheckSuspendLock = True
            with record.fSuspendLock:
                call = worker.begin(callback.Callback, known, 3)
                self.assertFalse(call.is_done(0.05))
                self.assert_children_can_work(known)
            self.assertEqual(call.result(), "second")

    def test_a_fork_while_another_thread_announces_a_record(self):
        known, _ = self.known_code(3)
        inside, may_go_on = threading.Event(), threading.Event()

        def announce(_record):
            if threading.get_ident() != main:
                inside.set()
                may_go_on.wait(time_limit(20))

        main = threading.get_ident()
        CPerThread.SetNewPerThreadCreatedCallback(announce)
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announce)
        for job in (CPerThread.GetPerThread, lambda: CPerCodeObject.GetPerCodeObject(make_code(SAMPLE))):
            inside.clear()
            may_go_on.clear()
            with Worker() as worker:
                call = worker.begin(job)
                self.assertTrue(inside.wait(time_limit(20)))
                self.assert_children_can_work(known)
                may_go_on.set()
                self.assertIsNotNone(call.result())

    def assert_children_work_amid(self, raise_events, stop, forks):
        """Forks again and again while two threads raise events, until `stop` is set; each child has to be able to
        reset the module and to decide an event."""
        def look():
            xo.reset()
            code = make_code(SAMPLE)
            return [self.make_callback(xo.kPyStartEventId).Callback(code, 0),
                    CPerThread.GetPerThread().fThreadId == threading.get_ident()]

        threads = [threading.Thread(target=raise_events) for _ in range(2)]
        for thread in threads:
            thread.start()
        try:
            for _ in range(forks):
                self.assertEqual(in_forked_child(look, self.watched_fork), ["second", True])
        finally:
            stop.set()
            for thread in threads:
                thread.join()

    def test_a_fork_amid_events_of_threads_that_share_nothing_leaves_the_child_able_to_work(self):
        """Each thread has code and a first stage of its own, and a record that comes and goes."""
        stop = threading.Event()

        def raise_events():
            code, _ = self.known_code()
            callback = self.make_callback(xo.kPyReturnEventId)
            callback.fAnySuspendThread = True
            raise_event = callback.Callback
            while not stop.is_set():
                for _ in range(50):
                    raise_event(code, None)
                CPerThread._DiscardPerThread(threading.get_ident())

        self.assert_children_work_amid(raise_events, stop, 40)

    @unittest.skipIf(is_free_threaded(), "without a global lock, a fork may leave the mutex of any object, "
                     "that of a plain list included, locked in the child where other threads compete for it")
    def test_a_fork_amid_events_of_other_threads_leaves_the_child_able_to_work(self):
        known, _ = self.known_code(3)
        callback = self.make_callback(xo.kPyLineEventId)
        stop = threading.Event()

        def raise_events():
            while not stop.is_set():
                callback.Callback(known, 3)
                CPerThread.GetPerThread(1001)
                CPerThread._DiscardPerThread(1001)

        self.assert_children_work_amid(raise_events, stop, 20)


@needs_fork
class RealEventsTest(EventTestCase):

    def setUp(self):
        super().setUp()
        self.seen = []
        self.tool_id = self.use_tool()
        for name, event_id in EVENT_IDS.items():
            callback = self.make_callback(event_id, True,
                                          lambda code, *args, name=name: self.seen.append(name))
            sys.monitoring.register_callback(self.tool_id, event_id, callback.Callback)

    def switch_on(self, function):
        self.set_local_events(self.tool_id, function.__code__, sum(EVENT_IDS.values()))

    def test_events_in_the_child_are_ignored_until_it_has_said_so(self):
        def work():
            yield 1

        self.switch_on(work)

        def look():
            counts = []
            for step in (lambda: None, xo.UpdateThisProcessPid):
                step()
                self.seen.clear()
                list(work())
                counts.append(list(self.seen))
            return counts

        list(work())
        everything = list(self.seen)
        self.assertEqual(set(everything), set(EVENT_IDS))
        self.assertEqual(in_forked_child(look), [[], everything])
        with Worker() as worker:
            self.assertEqual(worker.call(in_forked_child, look), [[], everything])

    def test_an_ignored_event_is_not_switched_off(self):
        def work():
            return 1

        xo.SetInternalPathnameDict({work.__code__.co_filename: 1})
        self.switch_on(work)
        writer = RecordingWriter()

        def look():
            # Internal code is switched off at its first event; in the child that has to wait.
            xo.set_dprintf_file(writer, -1, None)
            xo.set_dprintf_mask(xo.kLogInitialMonitoringCallbacks)
            counts = []
            for step in (lambda: None, lambda: None, xo.UpdateThisProcessPid, lambda: None):
                step()
                writer.texts.clear()
                work()
                counts.append(sum(text.startswith("Initial callback") for text in writer.texts))
            return counts

        self.assertEqual(in_forked_child(look), [3, 3, 3, 0])

    def test_a_child_may_fork_run_threads_and_end_with_every_event_on(self):
        child = run_python("""
            import os, sys, threading, time, warnings
            warnings.simplefilter("ignore", DeprecationWarning)
            from vorntracer import xoptmonitoring as xo
            monitoring, seen = sys.monitoring, []
            monitoring.use_tool_id(4, "test")
            every_event = 0
            for name in ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE"):
                event = getattr(monitoring.events, name)
                every_event |= event
                callback = xo.CInitialCallback(event, lambda code, *args: seen.append(code), True)
                monitoring.register_callback(4, event, callback.Callback)

            def work():
                return sum(number for number in range(3))

            def fork_and_check():
                child = os.fork()
                if child == 0:
                    try:
                        seen.clear()
                        work()
                        ignored = not seen
                        xo.UpdateThisProcessPid()
                        thread = threading.Thread(target=work)
                        thread.start()
                        thread.join()
                        os._exit(0 if ignored and work.__code__ in seen else 1)
                    finally:
                        os._exit(2)
                return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])

            monitoring.set_events(4, every_event)
            results = [fork_and_check()]
            thread = threading.Thread(target=lambda: results.append(fork_and_check()))
            thread.start()
            thread.join()
            monitoring.set_events(4, 0)
            assert results == [0, 0], results
            assert work.__code__ not in seen
        """)
        self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_a_second_callback_may_fork(self):
        def work():
            return 1

        children = []

        def second(code, offset):
            child = os.fork()
            if child == 0:
                os._exit(7 if xo._gThisProcessPid != xo._GetPid() else 8)
            children.append(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]))

        callback = self.make_callback(xo.kPyStartEventId, second=second)
        sys.monitoring.register_callback(self.tool_id, xo.kPyStartEventId, callback.Callback)
        self.set_local_events(self.tool_id, work.__code__, xo.kPyStartEventId)
        work()
        self.assertEqual(children, [7])

    def test_the_thread_that_forked_stays_silent_while_a_held_parent_waits(self):
        def work():
            return 1

        self.switch_on(work)
        with Worker() as worker:
            record = worker.call(CPerThread.GetPerThread)
            record.fCheckSuspendLock = True
            callback = self.make_callback(xo.kPyStartEventId)
            callback.fAnySuspendThread = True
            sys.monitoring.register_callback(self.tool_id, xo.kPyStartEventId, callback.Callback)
            with record.fSuspendLock:
                call = worker.begin(work)
                time.sleep(0.05)
                self.assertFalse(call.is_done())
                self.assertEqual(in_forked_child(lambda: work()), 1)
            self.assertEqual(call.result(), 1)


if __name__ == "__main__":
    unittest.main()
