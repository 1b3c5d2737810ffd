"""What a program can be run under: this project's tracer, and what else there is.

Each debugger calls a function in which `breakpoint`, a place with a file and a line, is set. `on_hit(frame)`
is called at each stop and answers "continue", "over", "into" or "out".
"""

import bdb
import inspect
import sys

import contestants
from vorntracer import bdb as own_bdb
from vorntracer import tracer as own

monitoring = sys.monitoring


def _never_hit(frame):
    raise AssertionError("the breakpoint was hit")


class Nothing:
    """No debugger at all."""

    name = "nothing"

    def call(self, function, places, breakpoint, condition=None, on_hit=_never_hit):
        function()


class OwnTracer:
    """This project's tracer."""

    name = "this tracer"
    _COMMANDS = {"continue": own.Command.CONTINUE, "over": own.Command.STEP_OVER, "into": own.Command.STEP_INTO,
                 "out": own.Command.STEP_OUT}

    def call(self, function, places, breakpoint, condition=None, on_hit=_never_hit):
        errors = []

        def on_stop(stop):
            try:
                return self._COMMANDS[on_hit(stop.frame)]
            except BaseException as error:  # the tracer would log it and go on
                errors.append(error)

        tracer = own.Tracer(on_stop)
        compiled = condition and compile(condition, "<condition>", "eval")
        test = condition and (lambda frame: eval(compiled, frame.f_globals, frame.f_locals))
        tracer.set_breakpoint(breakpoint.file, breakpoint.lineno, test)
        tracer.start()
        try:
            function()
        finally:
            tracer.reset()
            tracer.stop()
        if errors:
            raise errors[0]


class StandardDebugger:
    """The standard library's debugger base class, with one of its back ends, or this project's in its place."""

    def __init__(self, name, base, **options):
        self.name = name
        self._base = base
        self._options = options

    def call(self, function, places, breakpoint, condition=None, on_hit=_never_hit):
        class Debugger(self._base):
            is_begun = False

            def user_line(self, frame):
                if not self.is_begun:  # it stops where it begins
                    self.is_begun = True
                    self.set_continue()
                    return
                answer = on_hit(frame)
                if answer == "continue":
                    self.set_continue()
                elif answer == "over":
                    self.set_next(frame)
                elif answer == "into":
                    self.set_step()
                else:
                    self.set_return(frame)

            def user_return(self, frame, value):
                self.set_step()

        debugger = Debugger(**self._options)
        problem = debugger.set_break(breakpoint.file, breakpoint.lineno, cond=condition)
        if problem:
            raise RuntimeError(problem)
        try:
            debugger.runcall(function)
        finally:
            debugger.clear_all_breaks()


class LeastDebugger:
    """A C function that does nothing, called for each line of the hot function.

    No debugger, but a lower bound for those that keep the line events of a function with a breakpoint.
    """

    name = "empty C callback for the hot function's lines"

    def call(self, function, places, breakpoint, condition=None, on_hit=_never_hit):
        tool = monitoring.DEBUGGER_ID
        monitoring.use_tool_id(tool, self.name)
        monitoring.register_callback(tool, monitoring.events.LINE, contestants.floor)
        monitoring.set_local_events(tool, places.hot_code, monitoring.events.LINE)
        try:
            function()
        finally:
            monitoring.set_local_events(tool, places.hot_code, 0)
            monitoring.register_callback(tool, monitoring.events.LINE, None)
            monitoring.free_tool_id(tool)


def standard_debuggers():
    """One for each back end that this version has."""
    if "backend" in inspect.signature(bdb.Bdb.__init__).parameters:
        return [StandardDebugger("bdb, " + backend, bdb.Bdb, backend=backend) for backend in ("settrace", "monitoring")]
    return [StandardDebugger("bdb", bdb.Bdb)]


NOTHING = Nothing()
OWN = OwnTracer()
OWN_BDB = StandardDebugger("this bdb", own_bdb.Bdb)
LEAST = LeastDebugger()
