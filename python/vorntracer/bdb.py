"""`Bdb`: the interpreter's `bdb.Bdb`, with its events taken from the engine and not from `sys.settrace`.

    from vorntracer.bdb import Bdb

    class Debugger(Bdb):
        def user_line(self, frame):
            ...

Where to stop is decided by the interpreter's own methods, which are called as `sys.settrace` would call them:
`trace_dispatch(frame, event, argument)`, whose result becomes the frame's `f_trace`. Only calls that could not decide
anything are left out, because what the debugger wishes for is known beforehand from its attributes:

    stopframe is None          it steps: every call, line, return and exception of the frames that have an `f_trace`
    stopframe, returnframe     it watches these frames: their lines, ends and exceptions
    breaks                     lines with breakpoints, in all frames

Subclasses may override whatever they like. Where one overrides a method that decides about calls (`user_call`,
`break_anywhere` and their like), calls are asked about as the interpreter's own monitoring back end does it: once for
each function in which nothing is of interest. Where one overrides what is called for every event (`trace_dispatch`,
`dispatch_line` and their like), every event of every frame with an `f_trace` is sent, at the price that it has.

As with `sys.settrace`, a debugger has the thread on which it was started, and the last one to be started there has it.
"""

import bdb
import ctypes
import inspect
import sys
import threading

from . import events
from .events import engine
from .rebinding import OverlaidGlobals, functions_naming, rebind, sys_with

_OWN_MODULES = {"bdb", "pdb", __name__, __package__ + ".pdb", __package__ + ".session"}

#: Overridden, these may want to see calls of functions in which no stop is expected.
_ABOUT_CALLS = ("user_call", "dispatch_call", "stop_here", "break_anywhere")
#: Overridden, these may want to see everything.
_ABOUT_EVERYTHING = ("trace_dispatch", "dispatch_line", "dispatch_return", "dispatch_exception", "dispatch_opcode",
                     "break_here", "get_break", "get_breaks")

_GENERATOR_FLAGS = inspect.CO_GENERATOR | inspect.CO_COROUTINE | inspect.CO_ASYNC_GENERATOR


def _is_any_overridden(debugger, names):
    """Whether a class from elsewhere, or the object itself, has one of these methods."""
    for name in names:
        if name in vars(debugger):
            return True
        owner = next((cls for cls in type(debugger).__mro__ if name in vars(cls)), None)
        if owner is not None and owner.__module__ not in _OWN_MODULES:
            return True
    return False


class BdbFollower(events.Follower):
    """A `Bdb` in one thread: turns events into calls of its trace function, as `sys.settrace` would make them."""

    def __init__(self, debugger, trace):
        super().__init__(debugger)
        self.trace = trace
        self.asks_for_calls = _is_any_overridden(debugger, _ABOUT_CALLS)
        self._wants_everything = _is_any_overridden(debugger, _ABOUT_EVERYTHING)
        self.may_skip_false_conditions = not self._wants_everything and not _is_any_overridden(debugger, ("stop_here",))
        # The wishes that the engine knows, as the debugger's attributes of these names were.
        self._stopframe = self._returnframe = self._stoplineno = self._trace_opcodes = None
        self._is_stopframe_generator = False

    # What the debugger wishes for

    def runs_on(self, outermost):
        """The debugger wishes for nothing but breakpoints, as after `set_continue` with this for its `botframe`."""
        self._stopframe, self._returnframe, self._stoplineno, self._trace_opcodes = outermost, None, -1, False

    def look_at_wishes(self, frame):
        """Work out what the debugger wishes for, and tell the engine. `frame` is the thread's innermost one."""
        if not engine.is_followed(self):
            return  # it was stopped
        debugger = self.debugger
        stopframe, returnframe = debugger.stopframe, debugger.returnframe
        stoplineno, trace_opcodes = debugger.stoplineno, debugger.trace_opcodes
        was_stepping, was_watching = self.is_stepping, bool(self.watched)
        self._is_stopframe_generator = bool(stopframe and stopframe.f_code.co_flags & _GENERATOR_FLAGS)
        self.is_stepping = stopframe is None or self._wants_everything
        wanted = {}
        if self.is_stepping:
            wanted.update((key, (place, False)) for key, (place, _) in self.watched.items()
                          if place.code_ref() is not None)
            self._add_traced(wanted, frame)
        else:
            if stoplineno != -1:
                self._add(wanted, stopframe)
            if returnframe is not None:
                self._add(wanted, returnframe)
            if self._is_stopframe_generator:
                # The interpreter's `dispatch_exception` stops a generator's consumer then.
                self._add_traced(wanted, frame)
        engine.watch(self, wanted)
        if self.is_stepping != was_stepping or bool(wanted) != was_watching:
            engine.changed()
        self._stopframe, self._returnframe = stopframe, returnframe
        self._stoplineno, self._trace_opcodes = stoplineno, trace_opcodes

    @staticmethod
    def _add(wanted, frame):
        code = frame.f_code
        known = wanted.get(id(code))
        wanted[id(code)] = (engine.place(code), frame.f_trace_opcodes or known is not None and known[1])

    def _add_traced(self, wanted, frame):
        """Add the frames, from this one outwards, that have our trace function."""
        while frame is not None:
            if frame.f_trace is not None and self._owns(frame.f_trace):
                self._add(wanted, frame)
            frame = frame.f_back

    def _owns(self, trace):
        """Whether a frame's `f_trace` is ours, and not that of another tracer in the process."""
        if trace == self.trace:
            return True
        return not isinstance(getattr(trace, "__self__", None), bdb.Bdb) and sys.gettrace() is None

    # Events

    def enter(self, frame, code, place):
        result = self._send(self.trace, frame, "call", None)
        if self.is_stepping:
            trace = frame.f_trace
            if trace is not None and self._owns(trace):
                engine.watch_also(self, code, frame.f_trace_opcodes)
        return result is not None

    def line(self, frame, code, lineno, place):
        if not self.is_stepping and frame is not self._stopframe:
            lines = place.lines
            if lineno not in lines:
                return False
            guard = lines[lineno]
            if guard is not None and guard.follows(self) and guard.is_false(frame):
                return True
        trace = frame.f_trace
        if trace is None or trace is not self.trace and not self._owns(trace):
            # Nobody asked about the call, or another tracer took the frame: breakpoints count all the same.
            if lineno not in place.lines:
                return False
            if trace is None:
                frame.f_trace = self.trace
            trace = self.trace
        if frame.f_trace_lines:
            self._send(trace, frame, "line", None)
            if place.are_lines_provisional:
                engine.find_lines_again(place)
        return True

    def leave(self, frame, place, value, event):
        trace = frame.f_trace
        if trace is None or not self._owns(trace):
            return
        if self.is_stepping or frame is self._stopframe or frame is self._returnframe:
            self._send(trace, frame, "return", value)
            caller = frame.f_back
            if caller is not None and (self.is_stepping or self._is_stopframe_generator):
                caller_trace = caller.f_trace
                if caller_trace is not None and self._owns(caller_trace):
                    engine.watch_also(self, caller.f_code, caller.f_trace_opcodes)

    def exception(self, frame, exception):
        trace = frame.f_trace
        if trace is None or not self._owns(trace):
            return
        if self.is_stepping or frame is self._stopframe or self._is_stopframe_generator:
            self._send(trace, frame, "exception", (type(exception), exception, exception.__traceback__))

    def opcode(self, frame):
        trace = frame.f_trace
        if trace is not None and frame.f_trace_opcodes and self._owns(trace):
            self._send(trace, frame, "opcode", None)

    def _send(self, trace, frame, event, argument):
        """Call the trace function, and look whether the debugger wishes for something else now."""
        try:
            result = trace(frame, event, argument)
        except (KeyboardInterrupt, RecursionError):
            raise  # meant for the program, which may go on
        except BaseException:
            # As `sys.settrace` has it: a trace function that fails is not called any more.
            engine.unfollow(self)
            frame.f_trace = None
            raise
        if result is not None and result != frame.f_trace:
            frame.f_trace = result
        debugger = self.debugger
        if (debugger.stopframe is not self._stopframe or debugger.returnframe is not self._returnframe
                or debugger.stoplineno != self._stoplineno or debugger.trace_opcodes != self._trace_opcodes):
            self.look_at_wishes(frame)
        if not self.watched and not self.is_stepping:
            # 3.13.0 leaves it set, and while the program runs on, the frame and all that it has would live on.
            debugger.enterframe = None
        return result


class _CopyingFollower(BdbFollower):
    """Before 3.13 `f_locals` is a copy of a function's variables, and what is assigned there has to be written back.

    `sys.settrace` does that after each call of a trace function, if `f_locals` was looked at since the last time. A
    copy that somebody else looked at before is made anew first: it would overwrite what has changed since.
    """

    def _send(self, trace, frame, event, argument):
        if _has_copy(frame):
            frame.f_locals
        try:
            return super()._send(trace, frame, event, argument)
        finally:
            try:
                _write_back(frame, 1)
            except ctypes.ArgumentError:
                pass  # a RecursionError inside: the program is about to have one of its own


if sys.version_info < (3, 13):
    _write_back = ctypes.pythonapi.PyFrame_LocalsToFast
    _write_back.argtypes = (ctypes.py_object, ctypes.c_int)
    _write_back.restype = None

    class _FrameOf312(ctypes.Structure):
        """`struct _frame` of 3.12, after the object's header, as far as it is needed."""

        _fields_ = [("f_back", ctypes.c_void_p), ("f_frame", ctypes.c_void_p), ("f_trace", ctypes.c_void_p),
                    ("f_lineno", ctypes.c_int), ("f_trace_lines", ctypes.c_char), ("f_trace_opcodes", ctypes.c_char),
                    ("f_fast_as_locals", ctypes.c_char)]

    _HEADER_SIZE = object.__basicsize__

    def _has_copy(frame):
        return _FrameOf312.from_address(id(frame) + _HEADER_SIZE).f_fast_as_locals != b"\0"

    def _is_layout_known():
        frame = sys._getframe()
        before = _has_copy(frame)
        frame.f_locals
        return not before and _has_copy(frame)

    if not _is_layout_known():

        def _has_copy(frame):
            return True

    _Follower = _CopyingFollower
else:
    _Follower = BdbFollower


def settrace(trace):
    """What `sys.settrace` does, for a `Bdb`'s trace function: follow the calling thread with it; None ends that."""
    if trace is None:
        follower = engine.follower()
        if follower is not None:
            _stop(follower.debugger) if follower.debugger.adopt_thread is not None else engine.unfollow(follower)
    else:
        _start(trace.__self__, trace)


def _start(debugger, trace):
    follower = debugger.make_follower(trace)
    engine.follow(follower)
    follower.look_at_wishes(sys._getframe(1))


def _stop(debugger):
    for follower in engine.followers_of(debugger):
        engine.unfollow(follower)


class _EngineTracer:
    """What `Bdb` has from 3.14 on for a back end: `start_trace` and its like call these."""

    def __init__(self, debugger):
        self._debugger = debugger

    def start_trace(self, trace):
        _start(self._debugger, trace)

    def stop_trace(self):
        _stop(self._debugger)

    def update_local_events(self, frame=None):
        for follower in engine.followers_of(self._debugger):
            if follower is engine.follower():
                follower.look_at_wishes(sys._getframe(1) if frame is None else frame)

    def disable_current_event(self):
        """Nothing to do: the engine finds out by itself what is not of interest."""

    def restart_events(self):
        """Nothing to do: the engine brings back by itself what has become interesting."""


_decided = threading.local()  # condition, outcome: what `_Guard` found out just before it lets a debugger decide


def _evaluate(condition, module_globals, local_names):
    """Evaluate a breakpoint's condition: in the place of `eval` in the interpreter's `effective`."""
    outcome = getattr(_decided, "outcome", None)
    if outcome is not None:
        _decided.outcome = None
        decided, value, exception = outcome
        if decided is condition:
            if exception is not None:
                raise exception
            return value
    value = eval(condition, module_globals, local_names)
    if type(condition) is LogPoint:
        condition.write(value)
        return False
    return value


class LogPoint(str):
    """In the place of a breakpoint's condition: an expression whose value is written down, and no stop.

    An f-string, mostly. `write` is called with the value.
    """

    def __new__(cls, expression, write):
        point = super().__new__(cls, expression)
        point.write = write
        return point


class _Guard:
    """The condition of the only breakpoint on a line: compiled once, and evaluated before anything else is done.

    Where it is false, the breakpoint's hit is counted as the interpreter's `effective` counts it, and that is all.
    Where it is true or fails, the debugger decides as always, with that outcome in the place of a second evaluation.
    """

    __slots__ = ("debugger", "breakpoint", "condition", "code")

    def __init__(self, debugger, breakpoint):
        self.debugger = debugger
        self.breakpoint = breakpoint
        self.condition = self.code = None

    def follows(self, follower):
        """Whether this is the follower's debugger's, and that leaves false conditions to us."""
        return self.debugger is follower.debugger and follower.may_skip_false_conditions

    def is_false(self, frame):
        breakpoint = self.breakpoint
        condition = breakpoint.cond
        if not condition or not breakpoint.enabled:
            return False
        value = exception = None
        try:
            if condition is not self.condition:
                self.code = compile(condition, "<condition>", "eval")
                self.condition = condition
            value = eval(self.code, frame.f_globals, frame.f_locals)
            if type(condition) is LogPoint:
                condition.write(value)
                value = False
            if not value:
                breakpoint.hits += 1
                return True
        except BaseException as error:
            if events.is_for_the_program(error):
                raise
            if type(condition) is LogPoint:
                condition.write("(log point {} failed: {}: {})".format(
                    breakpoint.number, type(error).__name__, error))
                return True
            exception = error
            self.debugger.condition_failed(breakpoint, error)
        _decided.outcome = (condition, value, exception)
        return False


_LIST_CHANGES = ("append", "extend", "insert", "remove", "pop", "clear", "__setitem__", "__delitem__", "__iadd__")
_DICT_CHANGES = ("__setitem__", "__delitem__", "setdefault", "pop", "popitem", "clear", "update", "__ior__")


def _announcing(base, name):
    method = getattr(base, name)

    def change(self, *arguments, **keywords):
        result = method(self, *arguments, **keywords)
        self.announce()
        return result

    change.__name__ = name
    return change


class _Linenos(list):
    """The line numbers of one file's breakpoints: a list that tells when it changes."""

    def __init__(self, linenos, announce):
        super().__init__(linenos)
        self.announce = announce

    for _name in _LIST_CHANGES:
        vars()[_name] = _announcing(list, _name)


class _Breaks(dict):
    """`Bdb.breaks`, {file name: [line number]}, which tells when it changes, also in one of its lists."""

    def __init__(self, breaks, announce):
        super().__init__()
        self.announce = announce
        for filename, linenos in dict(breaks).items():
            dict.__setitem__(self, filename, _Linenos(linenos, announce))

    for _name in _DICT_CHANGES:
        vars()[_name] = _announcing(dict, _name)

    def __setitem__(self, filename, linenos):
        dict.__setitem__(self, filename, _Linenos(linenos, self.announce))
        self.announce()

    def setdefault(self, filename, default=()):
        if filename not in self:
            self[filename] = default or ()
        return self[filename]

    def __reduce__(self):
        return dict, ({filename: list(linenos) for filename, linenos in self.items()},)


class Bdb(bdb.Bdb):
    """The interpreter's `bdb.Bdb` on the native first stage; see there for its methods.

    `backend` is accepted from 3.14 on, as there, and makes no difference to where events come from.
    """

    # What `reset` and `_set_stopinfo` set; a debugger may be asked before.
    botframe = stopframe = returnframe = None
    stoplineno = 0
    trace_opcodes = False

    @property
    def breaks(self):
        """{canonical file name: [line number]} of all breakpoints."""
        return vars(self)["breaks"]

    @breaks.setter
    def breaks(self, breaks):
        vars(self)["breaks"] = _Breaks(breaks, self._breaks_changed)
        self._breaks_changed()

    @property
    def monitoring_tracer(self):
        """Where the events come from, for the interpreter's methods from 3.14 on."""
        return _EngineTracer(self)

    @monitoring_tracer.setter
    def monitoring_tracer(self, tracer):
        pass  # `__init__` sets the one that it has chosen

    def _breaks_changed(self):
        """Breakpoints have come or gone."""
        if engine.followers_of(self):
            engine.refresh()

    def set_break(self, *arguments, **keywords):
        error = super().set_break(*arguments, **keywords)
        # One more on a line that has one already may be of another kind.
        self._breaks_changed()
        return error

    # What the engine asks

    #: Called on a thread that nobody follows, in a callback, and returns its follower: for a debugger of all threads.
    adopt_thread = None

    def make_follower(self, trace):
        """Return what follows a thread for this debugger, with its trace function."""
        return _Follower(self, trace)

    def has_lines_in(self, filename):
        """Whether there are breakpoints in a file, by the name that code objects have."""
        return self.canonic(filename) in self.breaks

    def lines_of_interest(self, code):
        """Return the lines of a code object that may have breakpoints, and whether to ask again after an event.

        Each line has its `_Guard`, or None.

        A breakpoint may be set on a function by its name. The line on which it stops is then the first one that runs,
        and is known when that has run.
        """
        filename = self.canonic(code.co_filename)
        linenos = self.breaks.get(filename)
        if not linenos:
            return {}, False
        own_lines = dict.fromkeys(line for _, _, line in code.co_lines() if line is not None)
        lines = {line: self._guard(filename, line) for line in own_lines if line in linenos}
        if code.co_firstlineno in linenos:
            breakpoints = bdb.Breakpoint.bplist.get((filename, code.co_firstlineno))
            if breakpoints is None:
                return own_lines, True  # it is just being set
            first_lines = {breakpoint.func_first_executable_line for breakpoint in breakpoints
                           if breakpoint.funcname and breakpoint.funcname == code.co_name}
            if None in first_lines:
                return own_lines, True
            lines.update(dict.fromkeys(first_lines))
        return lines, False

    def _guard(self, filename, lineno):
        """What decides about the breakpoint on a line, if it is the only one there and no function's."""
        breakpoints = bdb.Breakpoint.bplist.get((filename, lineno), ())
        if len(breakpoints) != 1 or breakpoints[0].funcname:
            return None
        return _Guard(self, breakpoints[0])

    def condition_failed(self, breakpoint, exception):
        """Called when a breakpoint's condition has raised an exception; the debugger stops there."""


# Before 3.14, `start_trace` and `stop_trace` are not there and methods call `sys.settrace` themselves.
_globals = OverlaidGlobals(bdb, {"sys": sys_with(settrace), "__name__": __name__})
if not hasattr(bdb.Bdb, "start_trace"):
    for _name, _function in functions_naming(bdb.Bdb, {"settrace"}):
        setattr(Bdb, _name, rebind(_function, _globals))

# Conditions are evaluated in `effective`, which `break_here` calls.
_effective = rebind(bdb.effective, OverlaidGlobals(bdb, {"eval": _evaluate, "__name__": __name__}))
Bdb.break_here = rebind(bdb.Bdb.break_here, OverlaidGlobals(bdb, {"effective": _effective, "__name__": __name__}))

BdbQuit = bdb.BdbQuit
Breakpoint = bdb.Breakpoint
set_trace = rebind(bdb.set_trace, OverlaidGlobals(bdb, {"Bdb": Bdb, "__name__": __name__}))
