"""The end of the interpreter with the module in full use: it is quiet, whatever is still alive and switched on."""

import textwrap
import unittest

from support import XoTestCase, run_python

#: Has every event of the process pass through first stages; the second stage keeps what it is given.
PROLOGUE = """
import atexit, gc, sys, threading, types, weakref
from vornbase import dlog
from vorntracer import dbgpythonapi, xoptmonitoring as xo

logged = []
dlog.LogException = lambda *args, sys=sys, logged=logged: logged.append(repr(sys.exception()))
monitoring = sys.monitoring
EVENTS = ("PY_START", "PY_RESUME", "PY_RETURN", "PY_YIELD", "LINE")
EVERY_EVENT = sum(getattr(monitoring.events, name) for name in EVENTS)
seen = []

def register(second):
    monitoring.use_tool_id(4, "test")
    for name in EVENTS:
        event = getattr(monitoring.events, name)
        callback = xo.CInitialCallback(event, second, True)
        monitoring.register_callback(4, event, callback.Callback)

def work():
    return sum(number for number in range(3))

def make_records():
    thread = xo.CPerThread.GetPerThread()
    thread.fStopFrame = sys._getframe()
    code = xo.CPerCodeObject.GetPerCodeObject(work.__code__, True, sys._getframe())
    file = xo.CPerFile.GetPerFile(code.fCanonicalPathname)
    file.fBpSetByLineno = {1: {code, file}}
    thread.fSteppingCodeObjects = {code}
    return thread, code, file
"""

REGISTER = "register(lambda *args: seen.append(len(args)))\n"
SWITCH_ON = "monitoring.set_events(4, EVERY_EVENT)\n"


def joined(*parts):
    """The text of a snippet that is put together from parts."""
    return PROLOGUE + "".join(map(textwrap.dedent, parts))


class ShutdownTestCase(XoTestCase):

    def assert_quiet(self, *parts, stdout="", status=0, stderr=""):
        """Runs a snippet to the end of its process, with and without what development mode looks at."""
        for options in ((), ("-X", "dev")):
            with self.subTest(options=options):
                child = run_python(joined(*parts), options=options, check=status == 0)
                self.assertEqual((child.returncode, child.stdout, child.stderr),
                                 (status, stdout, stderr))


    def assert_one_traceback(self, stderr, first, last):
        """Standard error is one traceback, with those words in its first and last lines."""
        self.assertTrue(stderr.startswith(first) and stderr.endswith(f"\n{last}\n"), stderr)
        self.assertEqual(stderr.count("Traceback"), 1, stderr)


class RecordsTest(ShutdownTestCase):

    def test_live_records_of_every_kind(self):
        self.assert_quiet("records = make_records()")

    def test_records_that_only_the_registries_hold(self):
        self.assert_quiet("make_records()")

    def test_records_in_cycles_with_what_dies_late(self):
        self.assert_quiet("""
            records = make_records()
            sys.records = records
            for record in records:
                record_of = type("Holder", (), {"__del__": lambda self: None})()
                record_of.record, record_of.own = record, record_of
            records[0].fReturnFrame = records[0]
            records[1].fEnabledBpLinenos = {records[1]}
            xo._gCanonicalPathnameMgr.fByName["/cycle.py"] = xo
        """)

    def test_subclasses_and_their_instances(self):
        self.assert_quiet("""
            class Derived(xo.CPerFile):
                def __init__(self, pathname):
                    super().__init__(pathname)
                    self.own = self

            class Policy(xo.CInitialCallback):
                keeps = Derived("/derived.py")

            policy = Policy(xo.kPyLineEventId, Derived, True)
            Policy.keeps.policy = policy
        """)

    def test_objects_that_use_the_module_when_they_die(self):
        self.assert_quiet("""
            class Late:
                def __del__(self, xo=xo, threading=threading):
                    for use in (xo.reset, xo.CPerThread.GetPerThread, work.__call__):
                        try:
                            use()
                        except AttributeError:
                            pass  # whatever is taken down already

            late = sys.late = Late()
            make_records()[0].fReturnFrame = Late()
        """)

    def test_the_module_in_a_cycle(self):
        self.assert_quiet("""
            class Cycle:
                pass

            cycle = Cycle()
            cycle.own, cycle.module, cycle.callback = cycle, xo, xo.CInitialCallback(1, cycle, False)
            xo.__dict__["cycle"] = cycle
            make_records()
            del xo, cycle
            gc.collect()
        """)

    def test_the_module_taken_out_of_the_list_of_modules_and_collected(self):
        self.assert_quiet("""
            make_records()
            for name in [name for name in sys.modules if name.startswith("vorn")]:
                sys.modules.pop(name)
            del xo, dlog, dbgpythonapi, make_records, register
            for _ in range(3):
                gc.collect()
        """)

    def test_the_module_taken_out_and_imported_again(self):
        self.assert_quiet(REGISTER, SWITCH_ON, """
            first = xo
            make_records()
            work()
            for name in [name for name in sys.modules if name.startswith("vorn")]:
                sys.modules.pop(name)
            from vorntracer import xoptmonitoring as xo
            assert xo is not first
            make_records()
            work()
            del first
            gc.collect()
            work()
            assert seen
        """)

    def test_the_module_held_by_a_function_that_runs_at_exit(self):
        self.assert_quiet("""
            def at_exit(xo, records):
                xo.reset()
                print(len(records), xo.CPerThread.GetPerThread() is not records[0])

            atexit.register(at_exit, xo, make_records())
            for name in [name for name in sys.modules if name.startswith("vorn")]:
                sys.modules.pop(name)
            del xo
        """, stdout="3 True\n")


class EventsTest(ShutdownTestCase):

    def test_callbacks_registered_and_every_event_on(self):
        self.assert_quiet(REGISTER, SWITCH_ON, "work()\nassert seen\n")

    def test_callbacks_registered_and_no_event_on(self):
        self.assert_quiet(REGISTER)

    def test_events_on_while_functions_run_at_exit_and_objects_die(self):
        self.assert_quiet(REGISTER, """
            class Late:
                def __del__(self):
                    for number in range(3):
                        number += 1

            late = sys.late = Late()
            atexit.register(lambda: [work() for _ in range(3)] and print(bool(seen), logged))
            make_records()
        """, SWITCH_ON, stdout="True []\n")

    def test_a_second_callback_that_always_fails(self):
        self.assert_quiet("""
            class Late:
                def __del__(self):
                    return None

            def second(code, *args):
                raise KeyboardInterrupt

            late = sys.late = Late()
            register(second)
            monitoring.set_events(4, EVERY_EVENT)
            work()
            assert logged
        """)

    def test_a_program_that_ends_in_an_exception(self):
        child = run_python(joined(REGISTER, "make_records()\n", SWITCH_ON, "work()\nraise KeyError(5)\n"), check=False)
        self.assertEqual((child.returncode, child.stdout), (1, ""))
        self.assert_one_traceback(child.stderr, "Traceback (most recent call last):", "KeyError: 5")

    def test_a_program_that_ends_by_sys_exit_inside_a_second_callback(self):
        # The exception is logged as any other; the program goes on.
        self.assert_quiet("""
            def second(code, *args):
                sys.exit(3)

            register(second)
            monitoring.set_events(4, EVERY_EVENT)
            work()
            monitoring.set_events(4, 0)
            print(set(logged))
        """, stdout="{'SystemExit(3)'}\n")

    def test_an_exit_status_is_the_programs(self):
        self.assert_quiet(REGISTER, SWITCH_ON, "make_records()\nsys.exit(7)", status=7)

    def test_exceptions_at_exit(self):
        child = run_python(joined(REGISTER, """
            def at_exit():
                make_records()
                raise KeyError("at exit")

            atexit.register(at_exit)
            monitoring.set_events(4, EVERY_EVENT)
        """))
        self.assertEqual(child.stdout, "")
        self.assert_one_traceback(child.stderr, "Exception ignored in", "KeyError: 'at exit'")

    def test_generators_left_suspended(self):
        self.assert_quiet(REGISTER, """
            def generate(own):
                try:
                    yield own
                finally:
                    work()

            async def wait():
                try:
                    await Forever()
                finally:
                    work()

            class Forever:
                def __await__(self):
                    yield

            cycle = []
            cycle.append(generate(cycle))
            plain = generate(None)
            coroutine = wait()
        """, SWITCH_ON, "next(cycle[0]); next(plain); coroutine.send(None)\n")

    def test_a_diagnostic_file_that_outlives_its_stream(self):
        self.assert_quiet(REGISTER, """
            import io
            stream = io.StringIO()
            xo.set_dprintf_file(stream, -1, None)
            xo.set_dprintf_mask(-1)
        """, SWITCH_ON, "work()\nassert 'Initial callback' in stream.getvalue()\n")


class ThreadsTest(ShutdownTestCase):

    START = """
ready = threading.Barrier(4)
stop = threading.Event()

def run():
    make_records()
    ready.wait()
    while not stop.is_set():
        work()
        xo.CPerThread.GetPerThread()

def start(daemon):
    for _ in range(3):
        threading.Thread(target=run, daemon=daemon).start()
    ready.wait()

"""

    def test_daemon_threads_that_are_busy(self):
        self.assert_quiet(REGISTER, self.START, "start(True)\n")

    def test_daemon_threads_that_are_busy_with_every_event_on(self):
        self.assert_quiet("register(lambda *args: None)\n", SWITCH_ON, self.START, "start(True)\n")

    def test_daemon_threads_that_wait(self):
        self.assert_quiet(REGISTER, SWITCH_ON, """
            ready = threading.Barrier(4)

            def run():
                make_records()
                ready.wait()
                threading.Event().wait()

            for _ in range(3):
                threading.Thread(target=run, daemon=True).start()
            ready.wait()
        """)

    def test_daemon_threads_that_are_held(self):
        self.assert_quiet("""
            ready = threading.Barrier(4)
            callback = xo.CInitialCallback(xo.kPyStartEventId, len, False)
            callback.fAnySuspendThread = True

            def run():
                record = xo.CPerThread.GetPerThread()
                record.fSuspendLock.acquire()
                record.fCheckSuspendLock = True
                ready.wait()
                callback.Callback(work.__code__, 0)

            for _ in range(3):
                threading.Thread(target=run, daemon=True).start()
            ready.wait()
        """)

    def test_threads_that_the_interpreter_waits_for(self):
        self.assert_quiet(REGISTER, SWITCH_ON, self.START, """
            def stop_later():
                main = threading.main_thread()
                main.join()
                work()
                stop.set()

            threading.Thread(target=stop_later).start()
            start(False)
        """)

    def test_a_thread_that_ends_while_the_module_is_gone_from_everywhere_else(self):
        self.assert_quiet("""
            def run(xo, main):
                xo.CPerThread.GetPerThread().fStopFrame = sys._getframe()
                main.join()

            threading.Thread(target=run, args=(xo, threading.main_thread())).start()
            for name in [name for name in sys.modules if name.startswith("vorn")]:
                sys.modules.pop(name)
            del xo, dlog, dbgpythonapi
            gc.collect()
        """)

    def test_a_forked_child_that_ends_as_any_process_does(self):
        self.assert_quiet(REGISTER, """
            import os, warnings
            warnings.simplefilter("ignore", DeprecationWarning)
            started, stop = threading.Event(), threading.Event()

            def live_on():
                make_records()
                started.set()
                stop.wait()

            thread = threading.Thread(target=live_on)
            thread.start()
            started.wait()
            make_records()
        """, SWITCH_ON, """
            child = os.fork()
            if child == 0:
                xo.UpdateThisProcessPid()
                make_records()
                work()
            else:
                assert os.waitpid(child, 0)[1] == 0
                stop.set()
                thread.join()
        """)


if __name__ == "__main__":
    unittest.main()
