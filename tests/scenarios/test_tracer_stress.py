"""Everything at once: threads at work in library code while breakpoints, holds, stops and resets rain
down."""

import random
import sys
import threading
import time
import unittest

import library_work
from library_work import ALL_WORK
from scenario import Command, ScenarioCase, Tracer, xo
from support import time_limit

SECONDS = 5
FRESH_CODE = "def fresh(x):\n    y = x\n    return y\n"


class Shaking(ScenarioCase):

    def setUp(self):
        super().setUp()
        self.random = random.Random(1)
        self.expected = {work: work() for work in ALL_WORK}
        self.is_over = False
        self.runs = 0
        self.stops = 0
        self.lines = {}  # file -> its line numbers
        for work in ALL_WORK:
            self.lines[sys.modules[work.__module__].__file__] = range(20, 150)
        for module in (library_work.csv, library_work.difflib, library_work.ast, library_work.json.decoder):
            with open(module.__file__, encoding="utf-8") as file:
                self.lines[module.__file__] = range(1, len(file.readlines()))

    def on_stop(self, stop):
        self.stops += 1
        return self.random.choice(list(Command))

    def work(self):
        while not self.is_over:
            work = self.random.choice(ALL_WORK)
            self.assertEqual(work(), self.expected[work])
            self.runs += 1

    def work_on_short_threads(self):
        while not self.is_over:
            thread = threading.Thread(target=self.random.choice(ALL_WORK))
            thread.start()
            thread.join()

    def make_code(self):
        """Code objects come and go in a file that has breakpoints."""
        while not self.is_over:
            names = {}
            exec(compile(FRESH_CODE, library_work.__file__, "exec"), names)
            self.assertEqual(names["fresh"](3), 3)

    def shake(self, tracer):
        """Uses the tracer in every way, as a debugger's own thread would."""
        tracer.ignore_this_thread()
        breakpoints = []
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            chance = self.random.random()
            if chance < 0.5:
                file = self.random.choice(list(self.lines))
                breakpoints.append(tracer.set_breakpoint(file, self.random.choice(self.lines[file])))
            elif chance < 0.8 and breakpoints:
                tracer.clear_breakpoint(breakpoints.pop(self.random.randrange(len(breakpoints))))
            elif chance < 0.95:
                tracer.hold_others()
                time.sleep(0.001)
                tracer.release_others()
            elif chance < 0.97:
                tracer.stop()
                tracer.start()
                tracer.ignore_this_thread()
            elif chance < 0.98:
                tracer.reset()
                tracer.ignore_this_thread()
                breakpoints.clear()
            time.sleep(0.0005)
        for breakpoint in breakpoints:
            tracer.clear_breakpoint(breakpoint)

    def test_threads_under_a_tracer_that_is_shaken_do_their_work_and_leave_nothing_behind(self):
        tracer = self.make_tracer(self.on_stop)
        tracer.start()
        failures = []

        def run(target):
            try:
                target()
            except BaseException as error:
                failures.append(error)

        targets = [self.work] * 3 + [self.work_on_short_threads, self.make_code]
        threads = [threading.Thread(target=run, args=(target,), daemon=True) for target in targets]
        for thread in threads:
            thread.start()
        try:
            self.shake(tracer)
        finally:
            self.is_over = True
            for thread in threads:
                thread.join(time_limit(60))
        self.assertEqual([thread for thread in threads if thread.is_alive()], [])
        self.assertEqual(failures, [])
        self.assertGreater(self.runs, 50)
        self.assertGreater(self.stops, 100)
        tracer.stop()
        self.assert_no_counts()
        self.assertLessEqual(set(xo.CPerThread._fPerThreadDict), {threading.get_ident()})
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))


if __name__ == "__main__":
    unittest.main()
