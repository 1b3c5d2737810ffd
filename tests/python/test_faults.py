"""When things go wrong around the module: dying threads, signals, too deep a recursion, code run by the collector."""

import asyncio
import contextlib
import gc
import io
import platform
import signal
import sys
import textwrap
import threading
import time
import unittest
import warnings
import weakref

from event_helpers import EVENT_IDS, EventTestCase, Worker
from shaking import bounded
from support import NastyError, Recorder, reentering, run_python, time_limit, xo

CPerThread = xo.CPerThread


class MonitoredTestCase(EventTestCase):
    """Has all five events of chosen functions go through first stages, and watches who gets them."""

    def setUp(self):
        super().setUp()
        self.seen = []
        self.tool_id = self.use_tool()
        self.monitor(self.record)

    def record(self, name, code, args):
        self.seen.append((name, code, args[0]))  # not the values, which the collector is to find

    def monitor(self, second):
        """Gives every event a new first stage, whose second stage calls `second(name, code, arguments)`."""
        for name, event_id in EVENT_IDS.items():
            callback = self.make_callback(
                event_id, second=lambda code, *args, name=name: second(name, code, args))
            sys.monitoring.register_callback(self.tool_id, event_id, callback.Callback)

    def switch_on(self, *functions):
        for function in functions:
            self.set_local_events(self.tool_id, function.__code__, sum(EVENT_IDS.values()))

    def names_of(self, function):
        """The names of the events of that function so far, in order."""
        return [name for name, code, _ in self.seen if code is function.__code__]

    def lines_of(self, function):
        """The lines of that function that were reported so far, counted from its first."""
        code = function.__code__
        return [seen[2] - code.co_firstlineno for seen in self.seen if seen[:2] == ("LINE", code)]

    def assert_well(self):
        """Nothing is held, and the calling thread's events come through."""
        def work():
            return 1

        self.assertFalse(CPerThread._fRegistryLock.locked())
        self.assertEqual(CPerThread._fDestructorActiveThreadIds, set())
        self.seen.clear()
        self.monitor(self.record)
        self.switch_on(work)
        work()
        self.assertEqual(self.names_of(work), ["PY_START", "LINE", "PY_RETURN"])


class DyingThreadsTest(MonitoredTestCase):
    """Threads whose own clean-up goes wrong: whatever it is, the thread ends, and nothing stays behind."""

    def setUp(self):
        super().setUp()
        self.unraisable = []
        self.patch(sys, "unraisablehook", lambda args: self.unraisable.append(args.exc_type))

    def end_a_thread(self, *before, after=()):
        """Ends a thread with a record, with calls made before and after it got that; returns the record."""
        def work():
            for action in before:
                action()
            records.append(CPerThread.GetPerThread())
            for action in after:
                action()

        records = []
        thread = threading.Thread(target=work)
        with contextlib.redirect_stderr(io.StringIO()) as stderr:
            thread.start()
            thread.join(time_limit(20))
        self.assertFalse(thread.is_alive())
        self.stderr = stderr.getvalue()
        return records[0]

    def assert_gone(self, record):
        self.assertNotIn(record.fThreadId, CPerThread._fPerThreadDict)
        self.assertNotIn(record.fThreadId, CPerThread._fCleanupSupportByThreadId)
        self.assertIsNone(record.fSuspendLock, "the record was not cleared")
        self.assert_well()

    @staticmethod
    def leave_in_thread_state(value):
        """Puts an object into the calling thread's dictionary, where it dies with the thread."""
        xo._GetThreadStateDict()[object()] = value

    def test_finalizers_that_fail_before_and_after_the_records_own(self):
        def fail_at_the_end(error):
            def plant():
                class Watched:
                    pass

                watched = Watched()
                weakref.finalize(watched, Recorder(error=error))
                self.leave_in_thread_state(watched)
            return plant

        for error in (NastyError("end"), SystemExit(3), KeyboardInterrupt()):
            with self.subTest(error=error):
                self.unraisable.clear()
                record = self.end_a_thread(fail_at_the_end(error), after=[fail_at_the_end(error)])
                self.assertEqual(self.unraisable, [type(error)] * 2)
                self.assert_gone(record)

    def test_a_field_that_fails_when_the_record_is_cleared(self):
        def give_field():
            def fail():
                raise SystemExit("field")

            CPerThread.GetPerThread().fStopFrame = reentering(fail, "__del__")

        record = self.end_a_thread(after=[give_field])
        self.assertEqual(self.unraisable, [SystemExit])
        self.assert_gone(record)

    def test_a_clean_up_that_fails_and_cannot_even_say_so(self):
        class NoPop(dict):
            def pop(self, *_args):
                raise NastyError("pop")

        self.patch(xo.traceback, "print_exc", Recorder(error=SystemExit("print")))
        registry = CPerThread._fPerThreadDict
        CPerThread._fPerThreadDict = NoPop()
        try:
            record = self.end_a_thread()
            self.assertEqual(list(CPerThread._fPerThreadDict), [record.fThreadId])
        finally:
            CPerThread._fPerThreadDict = registry
        self.assertEqual(len(xo.traceback.print_exc.calls), 1)
        self.assertEqual(self.unraisable, [])
        CPerThread._DiscardPerThread(record.fThreadId)
        self.assert_well()

    def test_a_clean_up_whose_tracing_level_cannot_be_raised_or_lowered(self):
        for name in ("PyThreadState_EnterTracing", "PyThreadState_LeaveTracing"):
            with self.subTest(name=name):
                failing = Recorder(error=NastyError("tracing"))

                def fail_from_now_on():
                    patched.append((name, getattr(xo.dbgpythonapi, name)))
                    setattr(xo.dbgpythonapi, name, failing)

                patched = []
                printed = self.patch(xo.traceback, "print_exc", Recorder())
                try:
                    record = self.end_a_thread(after=[fail_from_now_on])
                finally:
                    setattr(xo.dbgpythonapi, *patched[0])
                self.assertEqual(len(printed.calls), 1)
                self.assertEqual(self.unraisable, [])
                self.assertNotIn(record.fThreadId, CPerThread._fPerThreadDict)
                self.assert_well()

    def test_second_callbacks_that_fail_at_the_end_of_a_thread(self):
        def last_words():
            words.append(threading.get_ident())

        def fail(name, code, args):
            raise error

        words = []
        self.switch_on(last_words)
        for error in (NastyError("second"), SystemExit(3), KeyboardInterrupt()):
            with self.subTest(error=error):
                self.monitor(fail)
                # One dies before the record's marker and one after it: the latter makes the thread a new record.
                plant = [lambda: self.leave_in_thread_state(reentering(last_words, "__del__"))]
                record = self.end_a_thread(*plant, after=plant)
                identifier = record.fThreadId
                self.assertEqual(words, [identifier] * 2)
                self.assertEqual(set(map(type, self.take_logged())), {type(error)})
                self.assertEqual(self.unraisable, [])
                self.assertIsNone(record.fSuspendLock)
                self.assertLessEqual(set(CPerThread._fPerThreadDict), {identifier, threading.get_ident()})
                CPerThread._DiscardPerThread(identifier)
                words.clear()
                self.assert_well()

    def test_events_during_the_clean_up_itself(self):
        def last_words():
            words.append(CPerThread.GetPerThread())

        def talk():
            # The clean-up raises no events. This one is asked for by name.
            last_words()
            answers.append(callback.Callback(last_words.__code__, 0))

        words, answers = [], []
        callback = self.make_callback(xo.kPyStartEventId)
        self.switch_on(last_words)
        give_field = [lambda: setattr(CPerThread.GetPerThread(), "fStopFrame", reentering(talk, "__del__"))]
        record = self.end_a_thread(after=give_field)
        self.assertEqual((words, answers), ([None], [None]))
        self.assertEqual(self.names_of(last_words), [])
        self.take_logged_one(AttributeError)  # the thread has no record any more
        self.assert_gone(record)


@unittest.skipUnless(hasattr(signal, "setitimer"), "this platform has no timers")
class SignalsTest(MonitoredTestCase):
    """Signals that arrive while the main thread is held inside an event."""

    def setUp(self):
        super().setUp()
        self.callback = self.make_callback(xo.kPyLineEventId)
        self.callback.fAnySuspendThread = True
        self.code, _ = self.known_code(3)
        self.record = CPerThread.GetPerThread()
        self.record.fCheckSuspendLock = True
        self.lock = self.record.fSuspendLock

    def held_while(self, handler, signals=1):
        """Raises an event that is held until that many signals have come; returns the event's answer."""
        def handle(*_args):
            if len(handled) >= signals:
                return
            handled.append(self.lock.locked())
            if len(handled) < signals:
                signal.setitimer(signal.ITIMER_REAL, 0.01)
            else:
                release.set()
            handler()

        def let_go():
            # On a busy machine the interpreter may not notice a signal that comes just before it begins to wait.
            until = time.monotonic() + time_limit(20)
            while not release.wait(0.5) and time.monotonic() < until:
                signal.pthread_kill(threading.main_thread().ident, signal.SIGALRM)
            time.sleep(0.05)
            self.lock.release()

        handled, release = [], threading.Event()
        self.addCleanup(signal.signal, signal.SIGALRM, signal.signal(signal.SIGALRM, handle))
        self.addCleanup(signal.setitimer, signal.ITIMER_REAL, 0)
        self.lock.acquire()
        thread = threading.Thread(target=let_go, daemon=True)
        thread.start()
        signal.setitimer(signal.ITIMER_REAL, 0.02)
        with bounded(30):
            try:
                answer = self.callback.Callback(self.code, 3)
                self.still_held = self.lock.locked()
            finally:
                release.set()
                thread.join()
        self.assertEqual(handled, [True] * signals)
        return answer

    def test_a_handler_runs_and_the_thread_stays_held(self):
        self.assertEqual(self.held_while(lambda: None, signals=5), "second")
        self.assertFalse(self.still_held)
        self.assertFalse(self.lock.locked())

    def test_a_handler_that_raises_ends_the_wait_and_is_logged(self):
        def fail():
            raise error

        for error in (NastyError("handler"), KeyboardInterrupt(), SystemExit(3)):
            with self.subTest(error=error):
                self.assertIsNone(self.held_while(fail))
                self.assertIs(self.take_logged_one(type(error)), error)
                self.assertTrue(self.still_held, "the thread let go of a lock that another one had")
                self.assertFalse(self.lock.locked())
        self.assertEqual(self.second.calls, [])

    def test_a_handler_whose_own_events_are_held_as_well(self):
        answers = []
        answer = self.held_while(lambda: answers.append(self.callback.Callback(self.code, 3)))
        self.assertEqual((answers, answer), (["second"], "second"))
        self.assertFalse(self.lock.locked())

    def test_a_handler_that_resets_the_module(self):
        self.assertEqual(self.held_while(xo.reset), "second")
        self.assertFalse(self.lock.locked())
        self.assertIsNot(CPerThread.GetPerThread(), self.record)

    def test_a_handler_that_discards_the_record_of_the_held_thread(self):
        def discard():
            CPerThread._DiscardPerThread(threading.get_ident())
            self.record._Clear()

        self.assertEqual(self.held_while(discard), "second")
        self.assertFalse(self.lock.locked())
        self.assertIsNot(CPerThread.GetPerThread(), self.record)


class RecursionTest(MonitoredTestCase):

    def test_a_second_callback_that_recurses_to_the_limit_is_logged_and_the_program_goes_on(self):
        def work():
            return 1

        def recurse(name, code, args):  # handing on `*args` would escape 3.15's look at the depth
            return recurse(name, code, args)

        self.monitor(recurse)
        self.switch_on(work)
        self.assertEqual([work() for _ in range(3)], [1] * 3)
        self.assertEqual([type(error) for error in self.take_logged()], [RecursionError] * 9)
        self.assert_well()

    def test_a_callback_that_calls_itself_to_the_limit_comes_back(self):
        code, _ = self.known_code(3)
        depths = []

        def second(code, line):
            depths.append(len(depths))
            return callback.Callback(code, line)

        callback = self.make_callback(xo.kPyLineEventId, second=second)
        self.assertIsNone(callback.Callback(code, 3))
        self.assertGreater(len(depths), 50)
        self.assertEqual({type(error) for error in self.take_logged()}, {RecursionError})
        self.assert_well()

    def test_the_same_of_a_thread_that_has_a_record_to_make_at_every_level(self):
        code, _ = self.known_code(3)
        announced = []
        CPerThread.SetNewPerThreadCreatedCallback(announced.append)

        def second(code, line):
            CPerThread._DiscardPerThread(threading.get_ident())
            return callback.Callback(code, line)

        callback = self.make_callback(xo.kPyLineEventId, second=second)
        with Worker() as worker:
            self.assertIsNone(worker.call(callback.Callback, code, 3))
            self.assertEqual(worker.call(CPerThread.GetPerThread).fThreadId, worker.ident)
            self.assertIn("PY_START", worker.call(self.events_here))
        self.assertGreater(len(announced), 20)
        self.assertLessEqual({type(error) for error in self.take_logged()}, {RecursionError})
        self.assert_well()

    def events_here(self):
        def heard():
            """What this thread is to be heard doing."""

        self.switch_on(heard)
        heard()
        return self.names_of(heard)

    def test_a_program_that_recurses_to_the_limit_gets_its_own_error(self):
        def recurse(depth):
            reached.append(depth)
            return recurse(depth + 1)

        reached = []
        self.switch_on(recurse)
        # With little left of the stack the second callback and the log fail as well; the log's own error goes on.
        self.log.error = None
        for _ in range(3):
            reached.clear()
            self.assertRaises(RecursionError, recurse, 0)
            self.assertGreater(len(reached), 50)
        self.assertLessEqual({type(error) for error in self.take_logged()}, {RecursionError})
        self.assertIn("PY_START", self.names_of(recurse))
        self.assert_well()


class CollectorTest(MonitoredTestCase):
    """Generators, coroutines and asynchronous generators that the collector closes while their events are on."""

    def setUp(self):
        super().setUp()
        gc.collect()
        self.closed = []
        self.addCleanup(gc.enable)
        gc.disable()

    def make_generator_function(self):
        def generate(own):
            try:
                yield own
            finally:
                self.closed.append(threading.get_ident())

        return generate

    @staticmethod
    def leave_suspended(generate):
        """Leaves a suspended generator to the collector, in a cycle with an argument of its own."""
        own = []
        own.append(generate(own))
        next(own[0])

    def test_a_generator_closed_by_the_collector(self):
        generate = self.make_generator_function()
        self.switch_on(generate)
        self.leave_suspended(generate)
        self.assertEqual(self.names_of(generate), ["PY_START", "LINE", "LINE", "PY_YIELD"])
        self.seen.clear()
        gc.collect()
        self.assertEqual(self.closed, [threading.get_ident()])
        self.assertEqual(self.lines_of(generate), [4])
        self.assertIsNone(sys.exception())
        self.assert_well()

    def test_a_generator_closed_by_another_threads_collection(self):
        generate = self.make_generator_function()
        idents = []
        self.monitor(lambda name, code, args: idents.append(threading.get_ident()))
        self.switch_on(generate)
        with Worker() as worker:
            worker.call(self.leave_suspended, generate)
            self.assertEqual(set(idents), {worker.ident})
            worker_ident = worker.ident
        idents.clear()
        gc.collect()
        self.assertEqual(self.closed, [threading.get_ident()])
        self.assertEqual(set(idents), {threading.get_ident()})
        self.assertNotIn(worker_ident, CPerThread._fPerThreadDict)
        self.assert_well()

    def test_a_generator_closed_by_a_collection_inside_a_second_callback(self):
        def work():
            return 1

        generate = self.make_generator_function()
        self.leave_suspended(generate)
        self.monitor(lambda name, code, args: gc.collect())
        self.switch_on(generate, work)
        self.assertEqual(work(), 1)
        self.assertEqual(self.closed, [threading.get_ident()])
        self.assert_well()

    def test_a_generator_closed_while_its_second_callbacks_fail(self):
        def fail(name, code, args):
            gc.collect()
            raise NastyError(name)

        generate = self.make_generator_function()
        self.monitor(fail)
        self.switch_on(generate)
        self.leave_suspended(generate)
        self.assertEqual(len(self.take_logged()), 4)
        try:
            raise KeyError("the program's")
        except KeyError as error:
            gc.collect()
            self.assertIs(sys.exception(), error)
        self.assertEqual(self.closed, [threading.get_ident()])
        self.assertIn("LINE", {str(error) for error in self.take_logged()})
        self.assert_well()

    def test_a_generator_that_goes_on_when_it_is_closed(self):
        def generate(own):
            try:
                yield own
            except GeneratorExit:
                yield "not yet"

        unraisable = []
        self.patch(sys, "unraisablehook", lambda args: unraisable.append(args.exc_type))
        self.switch_on(generate)
        self.leave_suspended(generate)
        self.seen.clear()
        gc.collect()
        self.assertEqual(unraisable, [RuntimeError])
        self.assertEqual(self.names_of(generate).count("PY_YIELD"), 1)
        self.assert_well()

    def test_coroutines_closed_by_the_collector(self):
        class Forever:
            def __await__(self):
                yield self

        async def wait(own):
            try:
                await Forever()
            finally:
                self.closed.append(own)

        def leave():
            own = [Forever()]
            own.append(wait(own))
            if is_started:
                own[1].send(None)

        self.switch_on(wait)
        for is_started in (True, False):
            with self.subTest(is_started=is_started):
                self.closed.clear()
                leave()
                self.seen.clear()
                with warnings.catch_warnings(record=True) as caught:
                    warnings.simplefilter("always")
                    gc.collect()
                self.assertEqual(len(self.closed), is_started)
                self.assertEqual(len(caught), not is_started)
                self.assertEqual(self.lines_of(wait)[-1:], [4] if is_started else [])
        self.assert_well()

    def test_asynchronous_generators_closed_by_the_collector_under_a_loop_and_without_one(self):
        async def generate(own):
            try:
                yield own
            finally:
                self.closed.append(own)

        async def leave():
            own = []
            own.append(generate(own))
            await anext(own[0])

        async def run():
            await leave()
            gc.collect()  # the loop's hook closes it, in a task of its own
            for _ in range(20):
                await asyncio.sleep(0)
            return len(self.closed)

        self.switch_on(generate)
        self.assertEqual(asyncio.run(run()), 1)
        self.assertIn(4, self.lines_of(generate))
        self.seen.clear()
        self.closed.clear()
        with self.assertRaises(StopIteration):
            leave().send(None)
        gc.collect()
        self.assertEqual(self.lines_of(generate)[-1:], [4])
        self.assertEqual(len(self.closed), 1)
        self.assert_well()

    def test_a_collector_that_comes_at_any_time(self):
        child = run_python("""
            import gc, sys, threading
            from vornbase import dlog
            from vorntracer import xoptmonitoring as xo
            logged = []
            dlog.LogException = lambda *args: logged.append(repr(sys.exception()))
            monitoring, seen, every_event = sys.monitoring, [], 0
            monitoring.use_tool_id(4, "test")
            for name in ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE"):
                event = getattr(monitoring.events, name)
                every_event |= event
                callback = xo.CInitialCallback(event, lambda *args: seen.append(len(args)), True)
                monitoring.register_callback(4, event, callback.Callback)

            def generate(own):
                try:
                    yield own
                finally:
                    closed.append(own)

            def leave():
                for _ in range(300):
                    own = [object()]
                    own.append(generate(own))
                    next(own[1])

            closed = []
            gc.set_threshold(3)
            monitoring.set_events(4, every_event)
            threads = [threading.Thread(target=leave) for _ in range(4)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            monitoring.set_events(4, 0)
            gc.collect()
            assert len(closed) == 1200, len(closed)
            assert not logged and seen, logged[:3]
            assert not xo.CPerThread._fRegistryLock.locked()
            print("done")
        """)
        self.assertEqual(child.stdout, "done\n")


#: What a child process runs in a sandbox; `forbid` and `BEFORE_IMPORT` come before it.
SANDBOXED = """
    import gc, sys, threading, weakref
    if BEFORE_IMPORT:
        forbid()
    from vorntracer import xoptmonitoring as xo

    def work():
        while True:
            total = 0
            for number in range(100):
                total += number
            results.add(total)
            if stopped.is_set():
                break

    def register():
        first_stage = xo.CInitialCallback(xo.kPyLineEventId, lambda code, line: None, False)
        stages.append(weakref.ref(first_stage))
        sys.monitoring.register_callback(4, xo.kPyLineEventId, first_stage.Callback)

    def replace_breakpoints():
        fresh = {1, 2}
        sets.append(weakref.ref(fresh))
        record.fEnabledBpLinenos = fresh

    results, stages, sets, stopped = set(), [], [], threading.Event()
    record = xo.CPerCodeObject.GetPerCodeObject(work.__code__)
    replace_breakpoints()
    sys.monitoring.use_tool_id(4, "sandboxed")
    register()
    sys.monitoring.set_local_events(4, work.__code__, xo.kPyLineEventId)
    if not BEFORE_IMPORT:
        forbid()
    threads = [threading.Thread(target=work) for _ in range(4)]
    for thread in threads:
        thread.start()
    for _ in range(300):
        replace_breakpoints()
        register()
    stopped.set()
    for thread in threads:
        thread.join()
    sys.monitoring.register_callback(4, xo.kPyLineEventId, None)
    record.fEnabledBpLinenos = None
    gc.collect()
    assert results == {sum(range(100))}, results
    assert not any(gone() for gone in sets), "a set of breakpoints was kept"
    assert not any(gone() for gone in stages), "a first stage was kept"
"""


@unittest.skipUnless(sys.platform == "linux" and platform.machine() == "x86_64", "the filter is made for this system")
class SandboxTest(unittest.TestCase):
    """A process that may not ask the system for fences on all its threads."""

    FORBID = """
    import ctypes, errno, struct

    def forbid():
        \"""Has the system refuse the call, with a filter of four instructions: load, compare, two returns.\"""
        membarrier, allow, refuse = 324, 0x7FFF0000, 0x00050000 | errno.EPERM
        program = struct.pack("HBBI" * 4, 0x20, 0, 0, 0, 0x15, 0, 1, membarrier, 0x06, 0, 0, refuse, 0x06, 0, 0, allow)
        instructions = ctypes.create_string_buffer(program, len(program))
        description = struct.pack("HP", 4, ctypes.addressof(instructions))
        libc = ctypes.CDLL(None, use_errno=True)
        assert libc.prctl(38, 1, 0, 0, 0) == 0, "no new privileges"
        assert libc.prctl(22, 2, description) == 0, "the filter was not taken"
        assert libc.syscall(membarrier, 0, 0, 0) == -1 and ctypes.get_errno() == errno.EPERM
    """

    def run_sandboxed(self, before_import):
        run_python(textwrap.dedent(self.FORBID) + f"BEFORE_IMPORT = {before_import}\n" + textwrap.dedent(SANDBOXED))

    def test_events_and_changes_go_on_where_that_was_forbidden_before_the_import(self):
        self.run_sandboxed(True)

    def test_events_and_changes_go_on_where_that_is_forbidden_later(self):
        self.run_sandboxed(False)


if __name__ == "__main__":
    unittest.main()
