"""What the scenarios share: a base case with a tracer, programs with named lines, and forked children.

* `ScenarioCase`: base class; makes tracers that end with the test, and expects an empty log.
* `Program`: a program written to a file; the lines that a comment such as `#: loop` names can be asked for.
* `Commander`: an `on_stop` that records what it is given and answers from a list of commands.
* `run_in_child`: a function's result from a forked child.

An exception that the interpreter could raise nowhere (in a finaliser, or a handler of `os.register_at_fork`)
fails the test, and in a child the call of `run_in_child`.
"""

import json
import os
import re
import signal
import sys
import threading
import traceback

from support import XoTestCase, time_limit, xo
from vornbase import dlog
from vorntracer.tracer import Command, Reason, Tracer

__all__ = ["Command", "Commander", "Program", "Reason", "ScenarioCase", "Tracer", "run_in_child", "xo"]


unraisable_exceptions = []


def keep_unraisable_exception(unraisable):
    text = "".join(traceback.format_exception(unraisable.exc_value))
    what = unraisable.err_msg or "Exception ignored in"
    unraisable_exceptions.append(f"{what}: {unraisable.object!r}\n{text}")


class ScenarioCase(XoTestCase):
    """Leaves no tracer, no thread, no entry in the debugger's log and no unraisable exception behind."""

    def setUp(self):
        super().setUp()
        unraisable_exceptions.clear()
        self.patch(sys, "unraisablehook", keep_unraisable_exception)
        dlog.ClearEntries()
        self.expected_log_entries = 0
        threads_before = threading.active_count()
        self.addCleanup(self._check_left_behind, threads_before)

    def _check_left_behind(self, threads_before):
        entries = dlog.GetEntries()
        dlog.ClearEntries()
        self.assertEqual(len(entries), self.expected_log_entries, "".join(entries))
        self.assertEqual(threading.active_count(), threads_before)
        self.assertEqual(unraisable_exceptions, [], "\n".join(unraisable_exceptions))

    def expect_log_entries(self, count):
        """Lets `count` entries come to the debugger's log, and keeps them off standard error."""
        self.expected_log_entries = count
        dlog.SetOutputFile(open(os.devnull, "w"))
        self.addCleanup(lambda: (dlog._output_file.close(), dlog.SetOutputFile(None)))

    def make_tracer(self, on_stop, **options):
        """A tracer that is reset when the test ends."""
        tracer = Tracer(on_stop, **options)
        self.addCleanup(self._end_tracer, tracer)
        return tracer

    def _end_tracer(self, tracer):
        self.assert_no_counts()
        tracer.stop()
        tracer.reset()
        self.assertIsNone(sys.monitoring.get_tool(Tracer.tool_id))

    def assert_no_counts(self):
        """Nobody steps any more: no code object has a count, and no thread awaits anything."""
        for per_file in xo.CPerFile.GetAllPerFiles():
            for record in per_file.fKnownPerCodeObjects:
                self.assertEqual((record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount), (0, 0),
                                 record.fCodeObjectWeakRef())
        for thread in xo.CPerThread.GetAllPerThreads():
            self.assertEqual(
                (thread.fSteppingEventsNeeded, thread.fStopAtNextLine, thread.fStopFrame, thread.fReturnFrame,
                 thread.fSteppingCodeObjects),
                (False, False, None, None, set()))

    def make_program(self, source, name="program.py"):
        """A program in a directory of its own, which goes away with the test."""
        return Program(self.write_file(self.make_dir(), name, text=source))

    def run_threads(self, *targets):
        """Runs each target on a thread of its own and waits for all; an exception of one fails the test."""
        failures = []

        def run(target):
            try:
                target()
            except BaseException:
                failures.append(traceback.format_exc())

        threads = [threading.Thread(target=run, args=(target,), daemon=True) for target in targets]
        for thread in threads:
            thread.start()
        self.join_all(threads)
        self.assertEqual(failures, [])

    def join_all(self, threads):
        """Waits for threads; one that does not end fails the test."""
        for thread in threads:
            thread.join(time_limit(60))
            self.assertFalse(thread.is_alive(), f"{thread.name} did not end")


class Program:
    """Source code in a file, executed into the namespace `names`."""

    def __init__(self, pathname):
        self.pathname = pathname
        with open(pathname, encoding="utf-8") as f:
            self.source = f.read()
        self._linenos = {
            match.group(1): lineno
            for lineno, line in enumerate(self.source.splitlines(), 1)
            if (match := re.search(r"#: ([\w ]+)$", line))
        }
        self._names = {lineno: name for name, lineno in self._linenos.items()}
        self.names = {"__name__": "program", "__file__": pathname}

    def load(self):
        """Executes the source; what it defines are then attributes of the program. Returns the program."""
        exec(compile(self.source, self.pathname, "exec"), self.names)
        return self

    def __getattr__(self, name):
        try:
            return self.names[name]
        except KeyError:
            raise AttributeError(name) from None

    def line(self, name):
        """The number of the line that the comment `#: name` ends."""
        return self._linenos[name]

    def name_of(self, lineno):
        """The name of a line, or its number when it has none."""
        return self._names.get(lineno, lineno)


class Commander:
    """Records every stop and answers it with the next command; with CONTINUE when there is none left.

    `log` holds a triple for each stop: the name of its reason, that of its line, and its value. `threads`
    holds the names of the threads that stopped. `commands` may hold functions as well: one is called with the
    stop and gives the command.
    """

    def __init__(self, program, *commands):
        self.program = program
        self.commands = list(commands)
        self.stops = []
        self.log = []
        self.threads = []

    def __call__(self, stop):
        self.stops.append(stop._replace(frame=None))
        self.threads.append(stop.thread.fThreadName)
        self.log.append((stop.reason.name, self.program.name_of(stop.lineno), stop.value))
        command = self.commands.pop(0) if self.commands else None
        return command(stop) if callable(command) and not isinstance(command, Command) else command

    def take_log(self):
        """The log so far, which is forgotten."""
        log, self.log = self.log, []
        return log


def run_in_child(function):
    """Forks, and returns what the function returns in the child, by way of JSON; its failure fails here."""
    reading_end, writing_end = os.pipe()
    pid = os.fork()
    if pid == 0:
        status = 1
        try:
            signal.alarm(time_limit(60))
            os.close(reading_end)
            with open(writing_end, "w") as pipe:
                try:
                    answer = {"result": function()}
                    if unraisable_exceptions:
                        answer = {"failure": "\n".join(unraisable_exceptions)}
                    json.dump(answer, pipe)
                except BaseException:
                    json.dump({"failure": traceback.format_exc()}, pipe)
            status = 0
        finally:
            os._exit(status)
    os.close(writing_end)
    with open(reading_end) as pipe:
        text = pipe.read()
    _, status = os.waitpid(pid, 0)
    if status != 0:
        raise AssertionError(f"the child ended with wait status {status}")
    answer = json.loads(text)
    if "failure" in answer:
        raise AssertionError("in the child: " + answer["failure"])
    return answer["result"]
