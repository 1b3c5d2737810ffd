"""Many threads under the tracer: holding and releasing them, their stops, their names and their ends."""

import signal
import sys
import threading
import time
import unittest
import weakref

from scenario import Command, Commander, Reason, ScenarioCase, Tracer, xo

PROGRAM = """\
def spin(state):
    while not state.is_over:                #: spin
        state.count += 1                    #: spin body

def calling(state):
    while not state.is_over:
        advance(state)

def advance(state):
    state.count += 1                        #: advance

def sleeping(state, sleep):
    while not state.is_over:
        sleep(0.001)
        state.count += 1

def once(log):
    log.append(1)                           #: once
    return len(log)                         #: once end
"""


class State:
    """What a spinning thread counts in, and looks at to see whether it is over."""

    def __init__(self):
        self.count = 0
        self.is_over = False


class ThreadsCase(ScenarioCase):

    def setUp(self):
        super().setUp()
        self.program = self.make_program(PROGRAM).load()
        self.commander = Commander(self.program)

    def start_tracer(self, on_stop=None, **options):
        tracer = self.make_tracer(on_stop or self.commander, **options)
        tracer.start()
        return tracer

    def break_at(self, tracer, line, condition=None):
        return tracer.set_breakpoint(self.program.pathname, self.program.line(line), condition)

    def start_thread(self, target, *args, **options):
        thread = threading.Thread(target=target, args=args, daemon=True, **options)
        thread.start()
        return thread

    def spin_in(self, function, *args, **options):
        """A state and the thread that counts in it, which ends with the test at the latest."""
        state = State()
        thread = self.start_thread(function, state, *args, **options)
        self.addCleanup(self.join_all, [thread])
        self.addCleanup(setattr, state, "is_over", True)
        return state

    def wait_for(self, condition, what):
        deadline = time.monotonic() + 30
        while not condition():
            self.assertLess(time.monotonic(), deadline, what)
            time.sleep(0.002)

    def assert_counting(self, *states):
        for state in states:
            before = state.count
            self.wait_for(lambda: state.count > before, "a thread does not go on")

    def assert_held(self, *states):
        """The states come to rest, and stay so."""
        self.wait_for(lambda: self.is_at_rest(states), "a thread is not held")
        self.assertTrue(self.is_at_rest(states))

    def is_at_rest(self, states):
        before = [state.count for state in states]
        time.sleep(0.05)
        return [state.count for state in states] == before


class Interrupted(ThreadsCase):
    """A thread that waits for another one, which the debugger keeps busy, and is interrupted.

    Whoever meets new code waits as well. So what runs meanwhile is native code, or has run before.
    """

    def keep_the_tracer_busy(self, tracer, going_on):
        """Has every other change of the tracer wait while the lock is held; returns the thread that makes one.

        It sets a breakpoint, for which a checksum of the file is asked for, and that takes its time.
        """
        asked = threading.Lock()
        asked.acquire()

        def answer_slowly(pathname):
            xo.set_checksum_callback(None)
            asked.release()
            going_on.acquire(timeout=30)
            going_on.release()
            return None

        xo.set_checksum_callback(answer_slowly)
        file = self.write_file(self.make_dir(), "other.py")
        thread = self.start_thread(tracer.set_breakpoint, file, 1)
        self.assertTrue(asked.acquire(timeout=30))
        return thread

    def interrupt(self, function, *args):
        """Calls, and has what Ctrl-C raises come a moment later; returns whether it came in time."""
        try:
            signal.setitimer(signal.ITIMER_REAL, 0.1)
            function(*args)
        except KeyboardInterrupt:
            return True
        finally:
            signal.setitimer(signal.ITIMER_REAL, 0)
        return False

    def test_a_thread_interrupted_while_it_waits_for_another_goes_on_raising_events(self):
        self.addCleanup(signal.signal, signal.SIGALRM, signal.signal(signal.SIGALRM, signal.default_int_handler))
        tracer, lineno = self.start_tracer(), self.program.line("once")
        going_on = threading.Lock()
        self.join_all([self.keep_the_tracer_busy(tracer, going_on)])
        self.assertTrue(self.interrupt(time.sleep, 30))

        going_on.acquire()
        busy = self.keep_the_tracer_busy(tracer, going_on)
        for change in ((tracer.breakpoints,), (tracer.set_breakpoint, self.program.pathname, lineno),
                       (tracer.hold_others,), (tracer.release_others,), (tracer.stop,), (tracer.reset,)):
            self.assertTrue(self.interrupt(*change))
        going_on.release()
        self.join_all([busy])
        self.assertEqual(len(tracer.breakpoints()), 2)
        self.break_at(tracer, "once")
        for run in (lambda: self.program.once([]), lambda: self.join_all([self.start_thread(self.program.once, [])])):
            run()
            self.assertEqual([line for _, line, _ in self.commander.take_log()], ["once"])


class HoldingThreads(ThreadsCase):

    def test_all_other_threads_are_held_and_go_on_when_released(self):
        tracer = self.start_tracer()
        states = [self.spin_in(self.program.spin), self.spin_in(self.program.calling),
                  self.spin_in(self.program.sleeping, time.sleep)]
        self.assert_counting(*states)
        for _ in range(3):
            tracer.hold_others()
            self.assert_held(*states)
            tracer.release_others()
            self.assert_counting(*states)

    def test_threads_that_ran_before_the_tracer_started_are_held_as_well(self):
        state = self.spin_in(self.program.spin)
        self.assert_counting(state)
        tracer = self.start_tracer()
        tracer.hold_others()
        self.assert_held(state)
        tracer.release_others()
        self.assert_counting(state)

    def test_a_thread_that_starts_while_others_are_held_is_held_as_well(self):
        tracer = self.start_tracer()
        tracer.hold_others()
        state = self.spin_in(self.program.calling)
        self.assert_held(state)
        tracer.release_others()
        self.assert_counting(state)

    def test_a_thread_that_is_held_before_its_record_is_announced_is_held_once(self):
        tracer = self.start_tracer()
        state = self.spin_in(self.program.calling)
        self.assert_counting(state)
        tracer.hold_others()
        for thread in xo.CPerThread.GetAllPerThreads():
            tracer._on_new_thread(thread)
        self.assert_held(state)
        tracer.release_others()
        self.assert_counting(state)

    def test_the_holder_itself_goes_on(self):
        tracer = self.start_tracer()
        tracer.hold_others()
        self.assertEqual(self.program.once([]), 1)
        tracer.release_others()

    def test_line_events_are_on_everywhere_only_while_threads_are_held(self):
        tracer = self.start_tracer()
        line = sys.monitoring.events.LINE
        self.assertFalse(sys.monitoring.get_events(Tracer.tool_id) & line)
        tracer.hold_others()
        self.assertTrue(sys.monitoring.get_events(Tracer.tool_id) & line)
        tracer.release_others()
        self.assertFalse(sys.monitoring.get_events(Tracer.tool_id) & line)

    def test_a_handler_may_hold_the_other_threads_and_step_on_alone(self):
        tracer = None
        lines = []

        def on_stop(stop):
            if stop.reason is Reason.BREAKPOINT:
                tracer.hold_others()
            counts = [state.count for state in states]
            lines.append((stop.reason.name, self.program.name_of(stop.lineno), counts))
            time.sleep(0.05)
            if stop.reason is Reason.RETURN:
                tracer.release_others()
                return None
            return Command.STEP_OVER

        tracer = self.start_tracer(on_stop)
        states = [self.spin_in(self.program.spin), self.spin_in(self.program.calling)]
        self.break_at(tracer, "once")
        self.program.once([])
        self.assertEqual([line[:2] for line in lines],
                         [("BREAKPOINT", "once"), ("STEP", "once end"), ("RETURN", "once end")])
        self.assertEqual(lines[1][2], lines[2][2], "a thread that is held went on")
        self.assert_counting(*states)

    def test_a_held_thread_is_not_reported_as_stopped_before_it_is_released(self):
        log = []
        tracer = self.start_tracer(lambda stop: log.append(stop.thread.fThreadName))
        tracer.hold_others()
        self.break_at(tracer, "once")
        thread = self.start_thread(self.program.once, [], name="held")
        time.sleep(0.1)
        self.assertEqual(log, [])
        tracer.release_others()
        self.join_all([thread])
        self.assertEqual(log, ["held"])

    def test_a_thread_that_waits_for_its_turn_to_stop_is_held_there(self):
        log = []
        is_second_waiting = threading.Event()
        tracer = None

        def on_stop(stop):
            log.append(stop.thread.fThreadName)
            if stop.thread.fThreadName == "first":
                is_second_waiting.wait(30)
                time.sleep(0.05)
                tracer.hold_others()

        def condition(frame):
            if threading.current_thread().name == "second":
                is_second_waiting.set()
            return True

        tracer = self.start_tracer(on_stop)
        tracer.ignore_this_thread()
        self.break_at(tracer, "once", condition)
        first = self.start_thread(self.program.once, [], name="first")
        self.wait_for(lambda: log == ["first"], "the first thread does not stop")
        second = self.start_thread(self.program.once, [], name="second")
        self.join_all([first])
        time.sleep(0.1)
        self.assertEqual(log, ["first"])
        tracer.release_others()
        self.join_all([second])
        self.assertEqual(log, ["first", "second"])

    def test_holding_twice_is_refused_and_releasing_twice_does_nothing(self):
        tracer = self.start_tracer()
        tracer.hold_others()
        with self.assertRaisesRegex(RuntimeError, "held already"):
            tracer.hold_others()
        tracer.release_others()
        tracer.release_others()

    def test_holding_under_a_stopped_tracer_is_refused(self):
        tracer = self.make_tracer(self.commander)
        with self.assertRaisesRegex(RuntimeError, "not started"):
            tracer.hold_others()

    def test_stopping_the_tracer_releases_what_is_held(self):
        tracer = self.start_tracer()
        state = self.spin_in(self.program.spin)
        self.assert_counting(state)
        tracer.hold_others()
        self.assert_held(state)
        tracer.stop()
        self.assert_counting(state)

    def test_a_thread_that_ends_while_others_are_held_disturbs_nothing(self):
        tracer = self.start_tracer()
        lock = threading.Lock()
        lock.acquire()
        thread = self.start_thread(lock.acquire)
        known = self.spin_in(self.program.calling)
        self.assert_counting(known)
        tracer.hold_others()
        lock.release()
        self.join_all([thread])
        self.assert_held(known)
        tracer.release_others()
        self.assert_counting(known)


class StopsOfThreads(ThreadsCase):

    def test_every_thread_stops_at_a_breakpoint_one_at_a_time(self):
        inside = []
        crowd = []
        names = []

        def on_stop(stop):
            inside.append(stop.thread.fThreadName)
            crowd.append(len(inside))
            time.sleep(0.002)
            names.append(inside.pop())

        tracer = self.start_tracer(on_stop)
        breakpoint = self.break_at(tracer, "once")
        threads = [self.start_thread(self.program.once, [], name=f"worker {i}") for i in range(8)]
        self.join_all(threads)
        self.assertEqual(sorted(names), [f"worker {i}" for i in range(8)])
        self.assertEqual(set(crowd), {1})
        self.assertEqual(breakpoint.hits, 8)

    def test_other_threads_run_while_one_is_stopped(self):
        tracer = self.start_tracer(lambda stop: self.assert_counting(state))
        state = self.spin_in(self.program.calling)
        self.break_at(tracer, "once")
        self.program.once([])

    def test_a_thread_that_was_not_started_by_threading_has_a_name_as_well(self):
        import _thread
        done = threading.Event()
        tracer = self.start_tracer()
        self.break_at(tracer, "once")
        _thread.start_new_thread(lambda: (self.program.once([]), done.set()), ())
        self.assertTrue(done.wait(30))
        stop, = self.commander.stops
        self.assertEqual(self.commander.threads, [f"thread {stop.thread.fThreadId}"])

    def test_a_thread_that_asked_to_be_ignored_neither_stops_nor_is_held(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "advance")

        def service(state):
            tracer.ignore_this_thread()
            self.program.calling(state)

        state = self.spin_in(service)
        self.assert_counting(state)
        tracer.hold_others()
        self.assert_counting(state)
        tracer.release_others()
        self.assertEqual(self.commander.stops, [])

    def test_a_thread_that_asks_to_be_ignored_in_the_middle_of_a_step_steps_no_more(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "once")

        class Log(list):
            def append(self, number):
                tracer.ignore_this_thread()
                super().append(number)

        for command in (Command.STEP_INTO, Command.STEP_OVER, Command.STEP_OUT, Command.STOP_ON_RETURN):
            with self.subTest(command=command):
                self.commander.commands[:] = [command] + [Command.STEP_OVER] * 9
                self.join_all([self.start_thread(self.program.once, Log())])
                self.assertNotIn("once end", [line for _, line, _ in self.commander.take_log()])
                self.assert_no_counts()

    def test_a_thread_that_asks_to_be_ignored_in_its_stop_steps_no_more(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "once")
        for command in (Command.STEP_INTO, Command.STEP_OVER, Command.STEP_OUT, Command.STOP_ON_RETURN):
            with self.subTest(command=command):
                self.commander.commands.append(lambda stop: tracer.ignore_this_thread() or command)
                self.join_all([self.start_thread(self.program.once, [])])
                self.assertEqual([line for _, line, _ in self.commander.take_log()], ["once"])
                self.assert_no_counts()

    def test_the_policy_is_asked_once_for_each_thread_and_obeyed(self):
        asked = []

        def debug_thread(thread_id):
            asked.append(thread_id)
            return threading._active[thread_id].name != "service"

        tracer = self.start_tracer(debug_thread=debug_thread)
        self.break_at(tracer, "once")
        threads = []
        for name in ("service", "worker"):
            thread = self.start_thread(self.program.once, [], name=name)
            threads.append(thread.ident)
            self.join_all([thread])
        self.assertEqual(self.commander.threads, ["worker"])
        for thread_id in set(threads):
            self.assertEqual(asked.count(thread_id), threads.count(thread_id))


class EndsOfThreads(ThreadsCase):

    def assert_only_this_thread_is_known(self):
        this_thread_id = threading.get_ident()
        self.assertLessEqual(set(xo.CPerThread._fPerThreadDict), {this_thread_id})
        self.assertLessEqual(set(xo.CPerThread._fCleanupSupportByThreadId), {this_thread_id})
        self.assertEqual(xo.CPerThread._fDestructorActiveThreadIds, set())

    def test_ten_thousand_short_threads_leave_the_registries_and_the_log_empty(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "once", lambda frame: False)
        events = sys.monitoring.events
        five = events.PY_START | events.PY_RESUME | events.PY_RETURN | events.PY_YIELD | events.LINE
        sys.monitoring.set_events(Tracer.tool_id, five)
        log = []
        for _ in range(10_000 // 8):
            threads = [threading.Thread(target=self.program.once, args=(log,)) for _ in range(8)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
        tracer.stop()
        self.assertEqual(len(log), 10_000)
        self.wait_for(lambda: len(xo.CPerThread._fPerThreadDict) <= 1, "a record outlives its thread")
        self.assert_only_this_thread_is_known()

    def test_a_threads_record_goes_with_the_thread(self):
        tracer = self.start_tracer()
        self.break_at(tracer, "once")
        references = []

        def on_stop(stop):
            references.append(weakref.ref(stop.thread))

        tracer._on_stop = on_stop
        self.join_all([self.start_thread(self.program.once, [])])
        self.wait_for(lambda: references[0]() is None, "the record outlives its thread")
        self.assert_only_this_thread_is_known()

    def test_a_thread_that_ends_in_the_middle_of_a_step_leaves_no_count(self):
        tracer = self.start_tracer()
        breakpoint = self.break_at(tracer, "once")
        self.commander.commands += [Command.STEP_INTO] * 3
        self.join_all([self.start_thread(self.program.once, [])])
        tracer.clear_breakpoint(breakpoint)
        self.assertEqual([line for _, line, _ in self.commander.log], ["once", "once end", "once end"])
        self.assert_no_counts()


if __name__ == "__main__":
    unittest.main()
