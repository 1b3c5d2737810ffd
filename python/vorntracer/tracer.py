"""A small debugger's tracer on the native module: breakpoints, steps, held threads, forked children.

    def on_stop(stop):
        print(stop.reason, stop.frame.f_code.co_qualname, stop.lineno, stop.value)
        return Command.STEP_OVER

    tracer = Tracer(on_stop)
    tracer.set_breakpoint(json.decoder.__file__, 340)
    tracer.start()

How an event comes here. For each kind of event the interpreter calls the `Callback` of one
`CInitialCallback`, the first stage. It is native code, and for nearly every event it finds that there is
nothing to do. Only where a breakpoint, a step or an awaited return may need it does it call the second stage:
the `_on_...` methods below.

What is switched on. PY_START and PY_RESUME are on everywhere, because they are how new code objects are met.
Lines, returns and yields are on only in the code objects that need them (`_switch_events`).

What is switched off again. While the tracer is calm, which is to say that no thread is held and none steps into
whatever it meets, each place is seen once: the breakpoints of its code object are left unknown to the first stage,
so the event comes to the second, and that answers DISABLE unless a breakpoint or a step needs the place. A program
whose breakpoints are not hit therefore runs at its own speed, also in the function that has them. Whatever makes
a place interesting that was not (`_rouse`) brings all events back with `restart_events`, and each place is seen
once more. While the tracer is not calm, nothing may be switched off; then the first stage is told the breakpoints
and skips what has none, and afterwards it is made to forget them again (`_calm_down`).

Where the state lives. In the native module's own records, since that is where the first stage looks:

    CPerFile.fBpSetByLineno                     line number -> Breakpoint, for all breakpoints of a file
    CPerCodeObject.fEnabledBpLinenos            those of these line numbers that lie in the code object; None
                                                while the tracer is calm, and in a record that is not situated
    CPerCodeObject.fSteppingEventsNeededCount   how many threads step through the code object
    CPerCodeObject.fReturnEventsNeededCount     how many threads await the return of a frame that runs it
    CPerThread.fSteppingCodeObjects             the records of the code objects that the thread steps through
    CPerThread.fStopAtNextLine                  the thread stops at the next line or end, whatever the frame
    CPerThread.fStopFrame                       the thread stops at the next line of this frame
    CPerThread.fReturnFrame                     the thread stops when this frame is left
    CPerThread.fSteppingEventsNeeded            the thread has to notice the frames that it enters

Who may do what when. One lock guards all of this. A thread that has it raises no events, so neither the code
that it calls nor a finaliser that happens to run can bring it back here or hold it while others wait for the
lock. The debugger's own files, and the files of the interpreter's library that run as a thread ends (after
its record is gone), are internal: no event of theirs gets past the first stage. Callbacks raise no events
anyway, that is a promise of `sys.monitoring`; `on_stop` runs in one, on the thread that stopped, one stop at
a time.
"""

import _weakrefset
import enum
import inspect
import os
import sys
import threading
import typing
import weakref

from vornbase import dlog

from . import events
from . import xoptmonitoring as xo

_monitoring = sys.monitoring

_START = xo.kPyStartEventId
_RESUME = xo.kPyResumeEventId
_RETURN = xo.kPyReturnEventId
_YIELD = xo.kPyYieldEventId
_LINE = xo.kPyLineEventId
_DISABLE = _monitoring.DISABLE
_THROW = _monitoring.events.PY_THROW
_UNWIND = _monitoring.events.PY_UNWIND
_JUMP = _monitoring.events.JUMP


class Reason(enum.Enum):
    """Why a thread stopped."""

    BREAKPOINT = "breakpoint"  # it is about to run a line with a breakpoint
    STEP = "step"  # it is about to run the line to which a step led
    RETURN = "return"  # the frame is about to return `value`
    YIELD = "yield"  # the frame is about to hand out `value` and be suspended
    EXCEPTION = "exception"  # the frame is about to be left by the exception `value`


class Command(enum.Enum):
    """What a stopped thread does next.

    A step that comes to the end of its frame stops there once more, with the value that is handed out. From
    such a stop, every step goes on in the caller; where there is no caller to stop in, it is the same as
    CONTINUE.
    """

    CONTINUE = "continue"  # run on until a breakpoint
    STEP_INTO = "step into"  # stop at the next line or at the end of a frame, whatever the frame
    STEP_OVER = "step over"  # stop at the next line of this frame, or at its end
    STEP_OUT = "step out"  # stop at the next line of the caller, or at its end
    STOP_ON_RETURN = "stop on return"  # stop at the end of this frame


class Breakpoint:
    """A breakpoint on a line of a file. `hits` counts the stops that it made."""

    __slots__ = ("pathname", "lineno", "condition", "hits")

    def __init__(self, pathname, lineno, condition=None):
        self.pathname = pathname
        self.lineno = lineno
        self.condition = condition  # None, or called with the frame; the breakpoint stops where it is true or fails
        self.hits = 0

    def __repr__(self):
        return "<Breakpoint {}:{}>".format(self.pathname, self.lineno)


class Stop(typing.NamedTuple):
    """A thread that has stopped. It goes on when `on_stop` returns."""

    thread: xo.CPerThread
    frame: object
    reason: Reason
    lineno: int
    value: object = None  # what is returned or yielded, or the exception; for such reasons only
    breakpoint: Breakpoint | None = None  # for Reason.BREAKPOINT only
    error: BaseException | None = None  # what the breakpoint's condition raised, which stops as if it were true


_LEAVING = (Reason.RETURN, Reason.YIELD, Reason.EXCEPTION)


class Tracer:
    """The tracer of this process; one at a time can be started.

    on_stop         called as on_stop(stop) on the thread that has stopped; returns the Command with which the
                    thread goes on, or None for CONTINUE. An exception is logged and means CONTINUE, but for what is
                    no Exception (SystemExit, KeyboardInterrupt) or what a signal's handler has raised: that goes on
                    to the program.
    internal_files  pathnames of further files of the debugger, in which nothing stops
    debug_thread    called with a thread's id, once; says whether the thread is debugged. All are by default.
    follow_forks    whether forked children are debugged as well

    Breakpoints can be set before `start` and outlive `stop`, until `reset`.
    """

    # The first one that is free of those that `vorntracer.events` names: the interpreter's own debugger takes
    # DEBUGGER_ID from 3.14 on, and is to work in a program that is debugged.
    tool_id = events.TOOL_IDS[0]

    def __init__(self, on_stop, *, internal_files=(), debug_thread=None, follow_forks=True):
        self._on_stop = on_stop
        self._internal_files = tuple(internal_files)
        self._debug_thread = debug_thread
        self._follow_forks = follow_forks
        self._lock = threading.RLock()  # taken as `with self._quiet, self._lock`, see vorntracer.events
        self._quiet = events.Quiet()
        self._turn = threading.Lock()  # held by the thread whose stop is being handled
        self._is_running = False
        # Another object after each change that may make a place interesting; None while the tracer is not calm.
        # A second stage takes it first, and answers DISABLE only if it is the same at the end.
        self._calm = None
        self._files = {}  # pathname -> the CPerFile that was seen last in the registry
        self._told = []  # records of which the first stage was told the breakpoints, while not calm
        self._initial_callbacks = {}  # event -> its CInitialCallback
        self._first_stages = {}  # event -> the callable that the interpreter is given
        self._steps = {}  # thread -> (its fSteppingCodeObjects, the record whose return it awaits)
        self._holder_id = None  # the thread for which all others are held
        self._held = {}  # held thread -> its fSuspendLock, which we have

        self._add_event(_START, self._on_enter)
        self._add_event(_RESUME, self._on_enter)
        self._add_event(_THROW, self._on_throw, can_return_disable=False)
        self._add_event(_LINE, self._on_line)
        self._add_event(_JUMP, self._on_jump)
        self._add_event(_RETURN, self._on_return)
        self._add_event(_YIELD, self._on_yield)
        self._add_event(_UNWIND, self._on_unwind, can_return_disable=False)

    def _add_event(self, event, second_stage, can_return_disable=True):
        """Make the first stage for an event.

        It is kept for our whole life, not only from start to stop: the interpreter does not keep a callback
        alive while it calls it, and a thread may be held inside one for long.
        """
        initial_callback = xo.CInitialCallback(event, second_stage, can_return_disable)
        self._initial_callbacks[event] = initial_callback
        self._first_stages[event] = initial_callback.Callback

    # Starting and stopping

    def start(self):
        """Begin to receive events. Raises ValueError when it is started already, or when no tool id is free."""
        global _running_tracer
        with self._quiet, self._lock:
            if self._is_running:
                raise ValueError("the tracer is started already")
            self.tool_id = events.take_tool_id()
            _running_tracer = self
            self._is_running = True
            try:
                self._install()
            except BaseException:
                self.stop()
                raise

    def _install(self):
        """Tell the native module and the interpreter whom to call, and for what."""
        xo.SetInternalPathnameDict(dict.fromkeys(self._internal_pathnames()))
        xo.CPerThread.SetDebugPolicyCallback(self._debug_thread)
        xo.CPerThread.SetGetThreadNameCallback(_thread_name)
        xo.CPerThread.SetNewPerThreadCreatedCallback(self._on_new_thread)
        xo.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(self._on_new_code_object)
        for thread in xo.CPerThread.GetAllPerThreads():
            thread.GetDebugPolicy()

        for event, first_stage in self._first_stages.items():
            _monitoring.register_callback(self.tool_id, event, first_stage)
        self._calm = object()
        self._meet_running_code()
        self._switch_global_events()
        self._rouse()

    def stop(self):
        """Let every thread run on, and receive no more events. Does nothing when not started."""
        global _running_tracer
        with self._quiet, self._lock:
            if not self._is_running:
                return
            self.release_others()
            for thread in list(self._steps):
                self._end_step(thread)

            _monitoring.set_events(self.tool_id, 0)
            for event in self._first_stages:
                _monitoring.register_callback(self.tool_id, event, None)
            xo.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(None)
            xo.CPerThread.SetNewPerThreadCreatedCallback(None)
            xo.CPerThread.SetGetThreadNameCallback(None)
            xo.CPerThread.SetDebugPolicyCallback(None)

            # Records stay with their code objects. The next tracer may have other internal files and other
            # names for files, and has to be shown them again: so what they say of that is marked as not
            # known.
            for per_file in self._all_files():
                for record in list(per_file.fKnownPerCodeObjects):
                    record.fUpdatePathnameNeeded = True
                    record.fEnabledBpLinenos = None
                    self._switch_events(record, None)

            self._told.clear()
            self._calm = None
            self._is_running = False
            _running_tracer = None
            _monitoring.free_tool_id(self.tool_id)

    def reset(self):
        """Forget every breakpoint, step and hold, and all that the native module knows; go on if started.

        The native module's reset empties its registries but leaves the records that it attached to code
        objects. Stopping has marked these as not known, so that the second stage sees them when they next run
        and files them anew (`_situate`).
        """
        with self._quiet, self._lock:
            was_running = self._is_running
            self.stop()
            self._files.clear()
            xo.reset()
            if was_running:
                self.start()

    def _internal_pathnames(self):
        """The canonical pathnames of all files whose code is never to be seen.

        `weakref` runs the clean-up at a thread's end. Around that, `threading` and `_weakrefset` do their
        own: their events would ask for the record of a thread that is gone, and get a new one that nothing
        cleans up. A finaliser of the program that runs as late as that still gets such a record, and the next
        thread with the same id takes it over.
        """
        own_modules = (sys.modules[__name__], xo.dbgpythonapi, xo.dlog, xo.win32)
        thread_end_modules = (weakref, _weakrefset, threading)
        files = [getattr(module, "__file__", None) for module in own_modules + thread_end_modules]
        files.extend(self._internal_files)
        pathnames = [xo.get_canonical_pathname(os.fspath(file)) for file in files if file is not None]
        return events.internal_pathnames() + pathnames

    def _meet_running_code(self):
        """Meet what is running already: it will raise no event of its start any more.

        Without a global lock other threads run on meanwhile, and their frames cannot be followed.
        """
        has_global_lock = getattr(sys, "_is_gil_enabled", lambda: True)()
        innermost_frames = sys._current_frames().values() if has_global_lock else [sys._getframe()]
        for frame in innermost_frames:
            while frame is not None:
                self._situate(frame)
                frame = frame.f_back
        # Our own methods, so that every search for the debugged frame passes over them by their records.
        for function in vars(Tracer).values():
            if hasattr(function, "__code__"):
                xo.CPerCodeObject.GetPerCodeObject(function.__code__)

    # Breakpoints

    def set_breakpoint(self, file, lineno, condition=None):
        """Set a breakpoint on a line, in place of the one there, and return it.

        file       the pathname of a source file, which need not be loaded; or what code objects that come of none have
                   in its place, as "<string>"
        condition  called with the frame each time; the thread stops where the result is true, or where it fails
        """
        name = os.fspath(file)
        pathname = name if _is_pseudo_name(name) else xo.get_canonical_pathname(name)
        if pathname is None:
            raise ValueError("not the name of a file: {!r}".format(file))
        with self._quiet, self._lock:
            per_file = self._file(pathname, create=True)
            breakpoint = Breakpoint(pathname, lineno, condition)
            per_file.fBpSetByLineno[lineno] = breakpoint
            self._find_breakpoints_in_file(per_file)
        return breakpoint

    def clear_breakpoint(self, breakpoint):
        """Take a breakpoint away. One that is not set, or was replaced, is left alone."""
        with self._quiet, self._lock:
            per_file = self._file(breakpoint.pathname)
            if per_file is not None and per_file.fBpSetByLineno.get(breakpoint.lineno) is breakpoint:
                del per_file.fBpSetByLineno[breakpoint.lineno]
                self._find_breakpoints_in_file(per_file)

    def breakpoints(self):
        """Return a list of all breakpoints."""
        with self._quiet, self._lock:
            return [
                breakpoint
                for per_file in self._all_files()
                for breakpoint in per_file.fBpSetByLineno.values()
            ]

    def _file(self, pathname, create=False):
        """Return the record of a file with all that was ever filed there; None where there is none.

        Threads that meet a file at the same moment each make a record of it, and that which is stored last stays.
        What the one before it was given is taken over when that is noticed.
        """
        if create:
            xo.CPerFile.GetPerFile(pathname)  # what this returns may just have been replaced
        per_file = xo.CPerFile.GetPerFile(pathname, False)
        if per_file is not None and per_file is not self._files.get(pathname):
            with self._quiet, self._lock:
                per_file = xo.CPerFile.GetPerFile(pathname, False)
                replaced = self._files.get(pathname)
                if per_file is not None and per_file is not replaced:
                    self._files[pathname] = per_file
                    if replaced is not None:
                        self._refile(replaced, per_file)
        return per_file

    def _all_files(self):
        """Return the records of all files, each as `_file` does."""
        files = [self._file(per_file.fCanonicalPathname) for per_file in xo.CPerFile.GetAllPerFiles()]
        return [per_file for per_file in files if per_file is not None]  # the module may just have been reset

    def _refile(self, replaced, per_file):
        """Give a file's registered record the breakpoints and code objects of the one that it replaced."""
        for lineno, breakpoint in replaced.fBpSetByLineno.items():
            per_file.fBpSetByLineno.setdefault(lineno, breakpoint)
        for record in list(replaced.fKnownPerCodeObjects):
            code = record.fCodeObjectWeakRef()
            # Not one that died, or that was made twice: it is looked for in the new place when it is to be removed.
            if code is not None and xo.CPerCodeObject.GetPerCodeObject(code, False) is record:
                per_file.fKnownPerCodeObjects.add(record)
        self._find_breakpoints_in_file(per_file)

    def _know(self, record):
        """Enter a code object's record, once more, into that of its file, and find its breakpoints."""
        self._file(record.fCanonicalPathname, create=True)
        record._AddToPerFile()
        self._find_breakpoints(record)

    def _find_breakpoints_in_file(self, per_file):
        """Work out anew which breakpoints lie in which of the file's code objects."""
        if self._is_running:
            records = list(per_file.fKnownPerCodeObjects)
            if _is_pseudo_name(per_file.fCanonicalPathname):
                # Code objects that come of no file are filed together.
                together = xo.CPerFile.GetPerFile(None, False)
                records = list(together.fKnownPerCodeObjects) if together is not None else []
            for record in records:
                self._find_breakpoints(record)
            self._rouse()

    def _breakpoint_linenos(self, record):
        """Return the line numbers of a code object that have breakpoints, as a new set."""
        code = record.fCodeObjectWeakRef()
        per_file = None if code is None else self._file(record.fCanonicalPathname or code.co_filename)
        if per_file is None or not per_file.fBpSetByLineno or record.fIsInternal:
            return set()
        breakpoints = per_file.fBpSetByLineno
        return {line for _, _, line in code.co_lines() if line in breakpoints}

    def _find_breakpoints(self, record):
        """Work out which of its file's breakpoints lie in a code object, and switch its line events."""
        linenos = self._breakpoint_linenos(record)
        # The set is published last: a thread that sees it takes the events to be on, and runs on. It is a new
        # one each time: the first stage may be looking at the old one on another thread.
        self._switch_events(record, linenos)
        if self._calm is not None:
            record.fEnabledBpLinenos = None
        else:
            record.fEnabledBpLinenos = linenos
            self._told.append(record)

    def _breakpoint_at(self, record, lineno):
        """Return the breakpoint on a line of a code object, or None.

        Another thread may be changing breakpoints, or stopping or resetting the tracer: what is missing then
        is that the line has none.
        """
        pathname = record.fCanonicalPathname
        if pathname is None:
            code = record.fCodeObjectWeakRef()
            pathname = None if code is None else code.co_filename
        per_file = self._file(pathname)
        return None if per_file is None else per_file.fBpSetByLineno.get(lineno)

    # Which events are on

    def _rouse(self):
        """Bring back what was switched off for want of interest, after a change that may have made it interesting.

        An event that is just being handled on another thread cannot switch its place off any more. Between the
        comparison of `_calm` and the interpreter's taking the DISABLE no other thread runs or, without a global
        lock, `restart_events` waits for it to pass.
        """
        if self._is_running:
            is_calm = self._holder_id is None and not self._threads_stepping_into()
            if is_calm:
                self._calm_down()
            self._calm = object() if is_calm else None
            _monitoring.restart_events()

    def _calm_down(self):
        """Let each place be seen once more, even where the first stage was told the breakpoints."""
        while self._told:
            self._told.pop().fEnabledBpLinenos = None

    def _threads_stepping_into(self):
        """Return the threads that step into whatever they meet."""
        return [thread for thread in self._steps if thread.fStopAtNextLine]

    def _switch_events(self, record, breakpoint_linenos):
        """Switch on the line, return and yield events that a code object needs, and no others."""
        code = record.fCodeObjectWeakRef()
        if code is None:
            return
        wanted = 0
        if breakpoint_linenos or record.fSteppingEventsNeededCount:
            wanted |= _LINE | _JUMP
        if record.fReturnEventsNeededCount or record.fSteppingEventsNeededCount:
            wanted |= _RETURN | _YIELD
        if wanted != _monitoring.get_local_events(self.tool_id, code):
            _monitoring.set_local_events(self.tool_id, code, wanted)

    def _switch_global_events(self):
        """Switch on the events that are needed in all code.

        Exceptions that leave a frame are of interest while a frame is awaited, and can only be had
        everywhere. While threads are being held, each has to come to an event soon, even out of a loop that
        calls nothing.
        """
        if not self._is_running:
            return
        wanted = _START | _RESUME
        if self._steps:
            wanted |= _UNWIND | _THROW
        if self._holder_id is not None:
            wanted |= _LINE
        if wanted != _monitoring.get_events(self.tool_id):
            _monitoring.set_events(self.tool_id, wanted)

    # New records

    def _on_new_code_object(self, record):
        """The native module has made the record of a code object that it met."""
        with self._quiet, self._lock:
            if self._is_running:
                self._know(record)

    def _on_new_thread(self, thread):
        """The native module has made the record of a thread, most often on that thread."""
        with self._quiet, self._lock:
            thread.GetDebugPolicy()  # the first stage looks at what this leaves in fDebugPolicy
            if self._holder_id not in (None, thread.fThreadId):
                self._hold(thread)

    def _situate(self, frame):
        """Return the record of a frame's code object, with its breakpoints known while the tracer is running.

        They may not be known in a record that another thread is still announcing, and in one that is left from
        an earlier tracer. The latter may be filed nowhere, after a reset. While the tracer is calm, all records
        look like that, and each is situated anew when its code is next met.
        """
        record = xo.CPerCodeObject.GetPerCodeObject(frame.f_code, True, frame)
        if record.fEnabledBpLinenos is None:
            with self._quiet, self._lock:
                if self._is_running:
                    self._know(record)
        return record

    # The second stage

    def _on_enter(self, code, offset):
        """A frame starts, or a generator's frame goes on: PY_START, PY_RESUME."""
        calm = self._calm
        record = self._situate(xo.GetNonInternalFrame())
        thread = xo.CPerThread.GetPerThread()
        if thread.fStopAtNextLine:
            self._step_through(thread, record)
        if (self._breakpoint_at(record, code.co_firstlineno) is not None
                and events.line_shared_with_start(code) == code.co_firstlineno):
            # From 3.13 on, a body that begins in the first line of its code object, as that of a lambda or a
            # generator expression does, has an event there only while its start has one, too.
            return None
        return _DISABLE if calm is not None and calm is self._calm else None

    def _on_throw(self, code, offset, exception):
        """A generator's frame goes on with an exception: PY_THROW, which cannot be switched off in one place."""
        self._on_enter(code, offset)

    def _on_line(self, code, lineno):
        calm = self._calm
        frame = xo.GetNonInternalFrame()
        record = xo.CPerCodeObject.GetPerCodeObject(code, True, frame)
        thread = xo.CPerThread.GetPerThread()
        breakpoint = self._breakpoint_at(record, lineno)
        is_hit, error = breakpoint is not None, None
        if is_hit and breakpoint.condition is not None:
            try:
                is_hit = breakpoint.condition(frame)
            except BaseException as exception:
                if events.is_for_the_program(exception):
                    raise
                error = exception
        if is_hit:
            self._stop(Stop(thread, frame, Reason.BREAKPOINT, lineno, breakpoint=breakpoint, error=error))
        elif thread.fStopAtNextLine or frame is thread.fStopFrame:
            self._stop(Stop(thread, frame, Reason.STEP, lineno))
        elif breakpoint is None and calm is not None and not record.fSteppingEventsNeededCount:
            return _DISABLE if calm is self._calm else None
        return None

    def _on_jump(self, code, offset, destination):
        """A jump: JUMP. Of interest is one back on its line, as a loop on one line has it, which raises no LINE."""
        if destination > offset:
            return _DISABLE
        lineno = events.line_at(code, offset)
        if lineno is None or lineno != events.line_at(code, destination):
            return _DISABLE
        return self._on_line(code, lineno)

    def _on_return(self, code, offset, value):
        self._on_leave(Reason.RETURN, value)

    def _on_yield(self, code, offset, value):
        if code.co_flags & inspect.CO_COROUTINE:
            # It is suspended at an `await`, and hands out nothing that anybody is to see. A step over goes on when it
            # does.
            thread = xo.CPerThread.GetPerThread()
            is_step_over = thread.fStopFrame is not None and thread.fStopFrame is thread.fReturnFrame
            if is_step_over and not thread.fStopAtNextLine:
                return
        self._on_leave(Reason.YIELD, value)

    def _on_unwind(self, code, offset, exception):
        self._on_leave(Reason.EXCEPTION, exception)

    def _on_leave(self, reason, value):
        frame = xo.GetNonInternalFrame()
        thread = xo.CPerThread.GetPerThread()
        if thread.fStopAtNextLine or frame is thread.fReturnFrame:
            self._stop(Stop(thread, frame, reason, frame.f_lineno, value))

    # Stops and steps

    def _stop(self, stop):
        """Hand a stop to `on_stop`, when its turn comes, and do what it commands."""
        turn = self._wait_for_turn(stop.thread)
        command = Command.CONTINUE
        try:
            if self._is_running:
                if stop.breakpoint is not None:
                    stop.breakpoint.hits += 1
                command = Command(self._on_stop(stop) or command)
        except Exception as exception:
            if events.is_for_the_program(exception):
                raise
            dlog.LogException(None, True)
        finally:
            turn.release()
            self._begin_step(stop, command)

    def _wait_for_turn(self, thread):
        """Return the turn lock, acquired at a moment when the thread is not held."""
        while True:
            turn = self._turn
            turn.acquire()
            if not thread.fCheckSuspendLock:
                return turn
            turn.release()
            with thread.fSuspendLock:
                pass

    def _begin_step(self, stop, command):
        """Replace the step that led to a stop by the one that is commanded.

        Every step awaits the end of its frame, and so always ends: by a stop in the frame, or by one where it
        is left. The events of a frame that nobody awaits, below or above, get no further than the comparison.
        """
        is_from_caller = command is Command.STEP_OUT or stop.reason in _LEAVING
        with self._quiet, self._lock:
            thread = xo.CPerThread.GetPerThread()  # not that of the stop: `on_stop` may have called reset
            frame = None
            # A thread that `on_stop` had ignored has no event that could end a step.
            if command is not Command.CONTINUE and self._is_running and thread.fDebugPolicy != 0:
                frame = xo.GetNonInternalFrame(1 if is_from_caller else 0)
            if frame is None:
                self._end_step(thread)
                return
            was_into, old_step = thread.fStopAtNextLine, self._steps.get(thread)
            is_into = command is Command.STEP_INTO
            is_stop_frame = command in (Command.STEP_OVER, Command.STEP_OUT)
            thread.fSteppingEventsNeeded = is_into
            thread.fStopAtNextLine = is_into
            thread.fStopFrame = frame if is_stop_frame else None
            thread.fReturnFrame = frame
            record = self._situate(frame)
            self._replace_step(thread, {record} if is_into or is_stop_frame else set(), record)
            # Nothing was switched off while the thread stepped into everything, nor in the code object in which it
            # steps already.
            is_same_step = not was_into and not is_into and old_step == self._steps.get(thread)
            if not is_same_step and not (was_into and is_into):
                self._rouse()

    def _end_step(self, thread):
        """The thread steps no more and awaits no frame."""
        was_stepping_into = thread.fStopAtNextLine
        thread.fSteppingEventsNeeded = False
        thread.fStopAtNextLine = False
        thread.fStopFrame = None
        thread.fReturnFrame = None
        self._replace_step(thread, set(), None)
        if was_stepping_into:
            self._rouse()

    def _step_through(self, thread, record):
        """Let a thread that steps into whatever it meets step through one more code object."""
        with self._quiet, self._lock:
            # The step may have been ended by another thread while we waited for the lock.
            if thread.fStopAtNextLine and record not in thread.fSteppingCodeObjects:
                thread.fSteppingCodeObjects.add(record)
                record.fSteppingEventsNeededCount += 1
                self._switch_events(record, self._breakpoint_linenos(record))

    def _replace_step(self, thread, stepping, awaited):
        """Move the counts from a thread's old step to its new one.

        stepping  the records of the code objects that the thread steps through. Records and not the code
                  objects themselves, because different code objects with equal contents are equal.
        awaited   the record of the code object of its fReturnFrame, or None
        """
        old_stepping, old_awaited = self._steps.pop(thread, (set(), None))
        for record in stepping - old_stepping:
            record.fSteppingEventsNeededCount += 1
        for record in old_stepping - stepping:
            record.fSteppingEventsNeededCount -= 1
        changed = stepping ^ old_stepping
        if awaited is not old_awaited:
            if awaited is not None:
                awaited.fReturnEventsNeededCount += 1
                changed.add(awaited)
            if old_awaited is not None:
                old_awaited.fReturnEventsNeededCount -= 1
                changed.add(old_awaited)
        for record in changed:
            self._switch_events(record, self._breakpoint_linenos(record))
        thread.fSteppingCodeObjects = stepping
        if awaited is not None:
            self._steps[thread] = (stepping, awaited)
        self._switch_global_events()

    # Threads

    def hold_others(self):
        """Hold every thread but the calling one at its next event, also threads that start from now on.

        Returns at once: a thread that waits in native code comes to its next event when that lets go of it. A
        thread is never held in the debugger's own code, nor in `threading`, whose locks others need.
        """
        with self._quiet, self._lock:
            if not self._is_running:
                raise RuntimeError("the tracer is not started")
            if self._holder_id is not None:
                raise RuntimeError("threads are being held already")
            self._holder_id = threading.get_ident()
            for thread in xo.CPerThread.GetAllPerThreads():
                if thread.fThreadId != self._holder_id:
                    self._hold(thread)
            for initial_callback in self._initial_callbacks.values():
                initial_callback.fAnySuspendThread = True
            self._switch_global_events()
            self._rouse()

    def release_others(self):
        """Let all held threads go on. Does nothing when none is held."""
        with self._quiet, self._lock:
            was_holding = self._holder_id is not None
            self._holder_id = None
            for initial_callback in self._initial_callbacks.values():
                initial_callback.fAnySuspendThread = False
            while self._held:
                thread, suspend_lock = self._held.popitem()
                thread.fCheckSuspendLock = False
                suspend_lock.release()
            self._switch_global_events()
            if was_holding:
                self._rouse()

    def _hold(self, thread):
        """Have the first stage block a thread: it passes through the lock that we take here.

        A thread may be held already when its record is announced, since it is registered before. One that has
        just ended has no lock any more.
        """
        suspend_lock = thread.fSuspendLock
        if suspend_lock is not None and thread not in self._held:
            suspend_lock.acquire()
            thread.fCheckSuspendLock = True
            self._held[thread] = suspend_lock

    def ignore_this_thread(self):
        """Never stop the calling thread, nor hold it: for threads of the debugger itself.

        It counts until the tracer is started again.
        """
        with self._quiet, self._lock:
            thread = xo.CPerThread.GetPerThread()
            if thread in self._steps:
                self._end_step(thread)
            thread.fDebugPolicy = 0

    # Forked children

    def _before_fork(self):
        """Take the lock, so that the child gets no half-made change of a thread that it does not have."""
        self._quiet.__enter__()
        self._lock.acquire()

    def _after_fork_in_parent(self):
        self._lock.release()
        self._quiet.__exit__()

    def _after_fork_in_child(self):
        """Forget the threads that the child does not have, and go on, or stop.

        The interpreter has cleared their thread states by now, so the records of most are gone already.
        """
        try:
            self._turn = threading.Lock()
            self.release_others()
            this_thread = xo.CPerThread.GetPerThread(None, False)
            for thread in list(self._steps):
                if thread is not this_thread:
                    self._end_step(thread)
            for thread in xo.CPerThread.GetAllPerThreads():
                if thread is not this_thread:
                    xo.CPerThread._DiscardPerThread(thread.fThreadId)
            if self._follow_forks:
                xo.UpdateThisProcessPid()
            else:
                self.stop()
        finally:
            self._lock.release()
            self._quiet.__exit__()


# Whatever else leaves these is meant for the program: what `on_stop` ends it with, and what a signal's handler raises
# while one of them happens to run.
for _second_stage in (Tracer._on_enter, Tracer._on_throw, Tracer._on_line, Tracer._on_jump, Tracer._on_return,
                      Tracer._on_yield, Tracer._on_unwind, Tracer._on_new_code_object, Tracer._on_new_thread):
    dlog.LetPassFrom(_second_stage)


def _is_pseudo_name(name):
    """Whether a code object that comes of no file has this in the place of its file's name."""
    return name is not None and name.startswith("<") and name.endswith(">")


def _thread_name(thread):
    """The name of the thread of a record.

    Looks into the table of `threading` directly: its functions would wait for a lock that the thread may
    have, and would make an entry for a thread that `threading` did not start.
    """
    known = threading._active.get(thread.fThreadId)
    return "thread {}".format(thread.fThreadId) if known is None else known.name


# Fork handlers cannot be taken back, so there is one set of them, for whichever tracer is running.
_running_tracer = None
_forking = threading.local()  # tracer: the one whose locks this thread took for its fork, or None


def _before_fork():
    _forking.tracer = _running_tracer
    if _forking.tracer is not None:
        _forking.tracer._before_fork()


def _after_fork(method):
    def call():
        if getattr(_forking, "tracer", None) is not None:
            method(_forking.tracer)

    return call


os.register_at_fork(
    before=_before_fork,
    after_in_parent=_after_fork(Tracer._after_fork_in_parent),
    after_in_child=_after_fork(Tracer._after_fork_in_child),
)
