"""Watch the tracer at work: python -m vorntracer.demo [SCRIPT [ARGUMENT ...]] [--break FILE:WHERE ...]

Runs a Python script with breakpoints and prints each stop: file, line, function, source line and a few
variables. At the first stop of each breakpoint it takes a few steps and shows what the function returns. At
the end it tells how many monitoring events there were, and what became of them.

  --break FILE:WHERE  set a breakpoint. FILE is a pathname, or one below an entry of sys.path: json/decoder.py
                      is found in the standard library. WHERE is the number of a line, or the name of a
                      function (raw_decode, or JSONDecoder.raw_decode), for its first line.
  --hits N            take a breakpoint away after it has stopped N times (2; 0: never)
  --                  what follows are arguments of the script, also where it looks like an option of the demo

Without a script, demo/reformat.py is run, with breakpoints in library code that it uses.
"""

import ast
import collections
import itertools
import linecache
import operator
import os
import reprlib
import sys
import threading
import time
import traceback
import types

from . import xoptmonitoring as xo
from .tracer import Command, Reason, Tracer

_DEFAULT_SCRIPT = os.path.join("demo", "reformat.py")
_DEFAULT_BREAKPOINTS = (
    "csv.py:DictReader.__next__",
    "json/decoder.py:JSONDecoder.raw_decode",
    "textwrap.py:TextWrapper._wrap_chunks",
)
_STEPS = (Command.STEP_OVER, Command.STEP_INTO, Command.STEP_OVER, Command.STOP_ON_RETURN)
_VARIABLES_SHOWN = 4
_REPR_WIDTH = 72


class UsageError(Exception):
    """The command line asks for something that cannot be had; the text is for the person who wrote it."""


class HelpWanted(Exception):
    """The command line asks how the demo is used."""


# The command line


def parse_command_line(words):
    """Return the script (None: the default one), its arguments, the breakpoints and the number of hits."""
    script, arguments, places, hits = None, [], [], 2
    words = collections.deque(words)
    while words:
        word = words.popleft()
        if word == "--":
            arguments.extend(words)
            break
        if word in ("--break", "--hits"):
            if not words:
                raise UsageError("{} needs a value".format(word))
            value = words.popleft()
            if word == "--break":
                places.append(value)
            elif value.isdecimal():
                hits = int(value)
            else:
                raise UsageError("--hits needs a number, not {!r}".format(value))
        elif word in ("-h", "--help") and script is None:
            raise HelpWanted
        elif word.startswith("-") and script is None:
            raise UsageError("there is no option {}".format(word))
        elif script is None:
            script = word
        else:
            arguments.append(word)
    return script, arguments, places, hits


def find_default_script():
    """The script of the demo: below the working directory, or in the project that this package belongs to."""
    folder = os.path.dirname(os.path.abspath(__file__))
    folders = [os.getcwd()]
    while folder != os.path.dirname(folder):
        folders.append(folder)
        folder = os.path.dirname(folder)
    for folder in folders:
        script = os.path.join(folder, _DEFAULT_SCRIPT)
        if os.path.isfile(script):
            return script
    raise UsageError("there is no {} here; name a script".format(_DEFAULT_SCRIPT))


def find_place(place):
    """Return pathname and line number for FILE:WHERE."""
    file, colon, where = place.rpartition(":")
    if not colon or not file or not where:
        raise UsageError("a breakpoint is FILE:LINE or FILE:FUNCTION, not {!r}".format(place))
    for folder in ("", *sys.path):
        pathname = os.path.abspath(os.path.join(folder, file))
        if os.path.isfile(pathname):
            break
    else:
        raise UsageError("there is no file {!r}, neither here nor along sys.path".format(file))
    if where.isdecimal():
        number_of_lines = len(linecache.getlines(pathname))
        if not 1 <= int(where) <= number_of_lines:
            raise UsageError("there is no line {} in {}, which has {}".format(where, pathname, number_of_lines))
        return pathname, int(where)
    lineno = find_function(compile_file(pathname, ast.PyCF_ONLY_AST), where)
    if lineno is None:
        raise UsageError("there is no function {!r} in {}".format(where, pathname))
    return pathname, lineno


def compile_file(pathname, flags=0):
    """Return what the built-in `compile` makes of a source file."""
    try:
        with open(pathname, "rb") as source:
            return compile(source.read(), pathname, "exec", flags, dont_inherit=True)
    except (SyntaxError, ValueError) as error:
        raise UsageError("".join(traceback.format_exception_only(error)).rstrip()) from None


def find_function(node, name):
    """The line of the first statement after the doc string of a function; None if it is not there.

    node  the syntax tree to search
    name  the function's own, or dotted, with what it is defined in
    """
    first, _, rest = name.partition(".")
    for child in ast.iter_child_nodes(node):
        is_function = isinstance(child, (ast.FunctionDef, ast.AsyncFunctionDef))
        if (is_function or isinstance(child, ast.ClassDef)) and child.name == first:
            if rest:
                return find_function(child, rest)
            if is_function:
                has_doc_string = ast.get_docstring(child, clean=False) is not None and len(child.body) > 1
                return child.body[1 if has_doc_string else 0].lineno
        lineno = find_function(child, name)
        if lineno is not None:
            return lineno
    return None


# Counting


class CountingTracer(Tracer):
    """A tracer that counts the events that each stage is given, and the answers of the first.

    The counting is done by functions around the two stages, written in Python: it makes every event slow, and
    leaves what happens to it as it is.
    """

    def __init__(self, *arguments, **options):
        self._counts = {}  # (thread id, event, what) -> number; each thread has its own, so none gets lost
        super().__init__(*arguments, **options)

    def _add_event(self, event, second_stage, can_return_disable=True):
        def counting_second_stage(*arguments):
            self._count(event, "second stage")
            return second_stage(*arguments)

        super()._add_event(event, counting_second_stage, can_return_disable)
        first_stage = self._first_stages[event]

        def counting_first_stage(*arguments):
            self._count(event, "seen")
            key = (threading.get_ident(), event, "second stage")
            before = self._counts.get(key)
            answer = first_stage(*arguments)
            if self._counts.get(key) == before:
                self._count(event, "DISABLE" if answer is xo.kSysMonitoringDisable else "None")
            return answer

        self._first_stages[event] = counting_first_stage

    def _count(self, event, what):
        key = (threading.get_ident(), event, what)
        self._counts[key] = self._counts.get(key, 0) + 1

    def counts(self):
        """Return the counts of all threads together, as {event: Counter}."""
        totals = {event: collections.Counter() for event in self._initial_callbacks}
        for (_, event, what), count in list(self._counts.items()):  # the sum below raises events itself
            totals[event][what] += count
        return totals

    def nanoseconds_per_skipped_event(self, code):
        """Measure the first stage, without the counting, for a code object of no interest: {event: ns}.

        The events that are never skipped are left out. The entry None is for a callback that does nothing. The
        second argument is what the interpreter gives as well, an offset or a line: without one, a LINE event is
        none to be skipped quickly. The line is one that cannot have a breakpoint.
        """
        events = (xo.kPyStartEventId, xo.kPyResumeEventId, xo.kPyReturnEventId, xo.kPyYieldEventId,
                  xo.kPyLineEventId)
        callbacks = {event: self._initial_callbacks[event].Callback for event in events}
        callbacks[None] = operator.is_
        # Skipped is what has no breakpoint; a calm tracer leaves that unknown, to see each place once.
        xo.CPerCodeObject.GetPerCodeObject(code).fEnabledBpLinenos = set()
        calls = 200_000
        nanoseconds = {}
        for event, callback in callbacks.items():
            times = []
            for _ in range(5):
                loop = map(callback, itertools.repeat(code, calls), itertools.repeat(-1))
                start = time.perf_counter_ns()
                collections.deque(loop, maxlen=0)
                times.append(time.perf_counter_ns() - start)
            nanoseconds[event] = min(times) / calls  # the least disturbed one
        return nanoseconds


# Showing


class Show:
    """Prints each stop, and decides how to go on."""

    def __init__(self, output, hits):
        self._output = output
        self._hits = hits
        self._tracer = None
        self._stops = 0
        self._pending = {}  # thread id -> the steps still to take
        self._repr = reprlib.Repr()
        self._repr.maxstring = self._repr.maxother = self._repr.maxlong = _REPR_WIDTH
        self._repr.maxlevel = 2

    def run(self, tracer):
        """Show the stops of this tracer from now on."""
        self._tracer = tracer

    def print(self, text=""):
        print(text, file=self._output, flush=True)

    def on_stop(self, stop):
        self._stops += 1
        self.print_stop(stop)
        thread_id = stop.thread.fThreadId
        if stop.breakpoint is not None:
            if stop.breakpoint.hits == 1:
                self._pending[thread_id] = list(_STEPS)
            if stop.breakpoint.hits == self._hits:
                self._tracer.clear_breakpoint(stop.breakpoint)
                self.print("    (this breakpoint has had its {} stops and is taken away)".format(self._hits))
        steps = self._pending.get(thread_id)
        command = steps.pop(0) if steps else Command.CONTINUE
        self.print("    -> {}".format(command.value))
        return command

    def print_stop(self, stop):
        code = stop.frame.f_code
        pathname = self.pathname_of(stop.frame)
        self.print("[{}] {} in {}, line {}, {} ({})".format(
            self._stops, stop.reason.value, pathname, stop.lineno, code.co_qualname, stop.thread.fThreadName))
        line = linecache.getline(pathname, stop.lineno, stop.frame.f_globals).strip()
        self.print("    {:5} | {}".format(stop.lineno, line))
        variables = list(stop.frame.f_locals.items())
        for name, value in variables[:_VARIABLES_SHOWN]:
            self.print("          {} = {}".format(name, self.describe(value)))
        if len(variables) > _VARIABLES_SHOWN:
            self.print("          ({} more)".format(len(variables) - _VARIABLES_SHOWN))
        if stop.reason in (Reason.RETURN, Reason.YIELD, Reason.EXCEPTION):
            self.print("    {} value: {}".format(stop.reason.value, self.describe(stop.value)))

    def pathname_of(self, frame):
        """The name to show for a frame's file, which for frozen code is that of the source file."""
        return xo.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame).fPathnameToReport

    def describe(self, value):
        try:
            text = self._repr.repr(value)
        except Exception as error:  # an object of the program may do anything in its __repr__
            return "<{}: {} in its repr>".format(type(value).__name__, type(error).__name__)
        return text if len(text) <= _REPR_WIDTH else text[:_REPR_WIDTH - 3] + "..."

    def print_table(self, counts, nanoseconds):
        """Print what became of the events, and what a skipped one costs."""
        titles = ("event", "seen", "answered None", "answered DISABLE", "second stage", "ns if skipped")
        rows = []
        for event, numbers in counts.items():
            cost = "{:.1f}".format(nanoseconds[event]) if event in nanoseconds else "-"
            rows.append((self.name_of(event), numbers["seen"], numbers["None"], numbers["DISABLE"],
                         numbers["second stage"], cost))
        rows.append(("total", *(sum(row[column] for row in rows) for column in range(1, 5)), ""))
        self.print()
        self.print("What the first stage did with the events")
        widths = [max(len(str(row[column])) for row in (titles, *rows)) for column in range(len(titles))]
        for row in (titles, *rows):
            cells = [str(cell).rjust(width) for cell, width in zip(row, widths)]
            cells[0] = str(row[0]).ljust(widths[0])
            self.print("  ".join(cells).rstrip())
        self.print("A skipped event is one that the first stage answers by itself. Its cost is that of the")
        self.print("first stage, called in a native loop, where a callback that does nothing takes {:.1f} ns."
                   .format(nanoseconds[None]))

    @staticmethod
    def name_of(event):
        return next(name for name, value in vars(sys.monitoring.events).items() if value == event)


# Running


def run_script(code, script, arguments):
    """Run the code of a script as the main program; return its exit status."""
    main_module = types.ModuleType("__main__")
    main_module.__file__ = script
    main_module.__builtins__ = __builtins__
    sys.modules["__main__"] = main_module
    sys.argv[:] = [script, *arguments]
    status = 0
    try:
        exec(code, main_module.__dict__)
    except SystemExit as exit_request:
        status = exit_request.code
        if status is not None and not isinstance(status, int):
            print(status, file=sys.stderr)
            status = 1
    except BaseException as error:
        traceback.print_exception(error.with_traceback(error.__traceback__.tb_next))
        status = 1
    for thread in threading.enumerate():
        if thread is not threading.current_thread() and not thread.daemon:
            thread.join()
    return status or 0


def main(words):
    try:
        script, arguments, places, hits = parse_command_line(words)
        if script is None:
            script = find_default_script()
            places = places or _DEFAULT_BREAKPOINTS
        if not os.path.isfile(script):
            raise UsageError("there is no script {!r}".format(script))
        script = os.path.abspath(script)
        code = compile_file(script)
        sys.path[0] = os.path.dirname(script)
        found_places = [find_place(place) for place in places]
    except HelpWanted:
        print(__doc__.strip())
        return 0
    except UsageError as error:
        print(error, file=sys.stderr)
        return 2

    show = Show(sys.stdout, hits)
    tracer = CountingTracer(show.on_stop, internal_files=[__file__])
    show.run(tracer)
    breakpoints = {}
    for pathname, lineno in found_places:
        breakpoints[pathname, lineno] = tracer.set_breakpoint(pathname, lineno)
        show.print("Breakpoint in {}, line {}".format(pathname, lineno))
    show.print("Running {}".format(" ".join([script, *arguments])))
    show.print()
    tracer.start()
    try:
        status = run_script(code, script, arguments)
        counts, nanoseconds = tracer.counts(), tracer.nanoseconds_per_skipped_event(code)
    finally:
        tracer.stop()
    for breakpoint in breakpoints.values():
        if not breakpoint.hits:
            show.print("Never reached: the breakpoint in {0.pathname}, line {0.lineno}".format(breakpoint))
    show.print_table(counts, nanoseconds)
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
