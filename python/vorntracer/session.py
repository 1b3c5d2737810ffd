"""`Session`: the debugger of `python -m vorntracer`. The interpreter's `pdb`, and what goes beyond it.

Threads. A session follows every thread of the process. It is one debugger object all the same, with one prompt, and
`pdb` keeps how a thread goes on (a step, a frame whose return is awaited) in attributes of that object; so each
thread has its own copy of those, which is put in place while the thread is in a callback. One thread is at a time: the
turn is a lock, and a thread that comes to a breakpoint while another one has the prompt waits for it.

Coroutines. A step over the end of an `await` goes to the next line of the coroutine, and from the end of a coroutine to
the one that awaits it. The event loop, which runs between, is passed over.
"""

import _thread
import ast
import bdb
import ctypes
import inspect
import os
import sys
import threading

from . import bdb as our_bdb
from . import pdb as our_pdb
from .events import engine, place_is_internal

#: After so many seconds in which an expression at the prompt does not come to an end, held threads go on.
PATIENCE = 3.0

_COROUTINE_FLAGS = inspect.CO_COROUTINE | inspect.CO_ASYNC_GENERATOR

#: The attributes that say how a thread goes on. What is missing on a version stays missing.
_THREAD_ATTRIBUTES = ("botframe", "stopframe", "returnframe", "stoplineno", "cmdframe", "cmdlineno", "enterframe",
                      "frame_returning", "trace_opcodes", "currentbp")
_MISSING = object()


class _SessionFollower(our_bdb._Follower):
    """A session in one thread."""

    def __init__(self, session, trace):
        super().__init__(session, trace)
        self.state = {}  # attribute -> value, while another thread has its own in the session

        self.is_suspension = False  # whether a frame that is left is only suspended

    def _send(self, trace, frame, event, argument):
        session = self.debugger
        if not session.take_turn():
            return None
        try:
            session.put_in_place(self)
            return super()._send(trace, frame, event, argument)
        finally:
            session.turn.release()

    def leave(self, frame, place, value, event):
        self.is_suspension = event == sys.monitoring.events.PY_YIELD
        super().leave(frame, place, value, event)


class Session(our_pdb.Pdb):
    """The debugger of `python -m vorntracer`."""

    running = None  # the session that `breakpoint()` and `pdb.set_trace()` of the program go to

    def __init__(self, *arguments, **options):
        self.turn = threading.RLock()
        self._lets_others_pass = False  # threads that wait for the turn go on without a stop
        self._current = None  # the follower whose thread's attributes are in place
        self._main_thread_id = threading.get_ident()
        self._numbers = {self._main_thread_id: 1}  # thread id -> its number, as `threads` shows it
        self._stop_thread_id = None  # the thread that had the prompt last
        self._pid = os.getpid()
        self._does_hold = False
        self._stopped_frame = None  # the innermost frame of the thread that has the prompt
        self._has_told_of_spawning = False
        super().__init__(*arguments, **options)
        self._failed_condition = None  # breakpoint, exception
        Session.running = self
        _watch_processes()

    # Threads

    def make_follower(self, trace):
        follower = _SessionFollower(self, trace)
        with self.turn:
            current = engine.follower()
            if self._current is None or self._current is current:
                self._current = follower  # what is in place is meant for this thread
            else:
                self._current.state = self._take_state()
                self._current = follower
        return follower

    def adopt_thread(self):
        """Follow a thread that the program has started: it stops at breakpoints."""
        follower = _SessionFollower(self, self.trace_dispatch)
        outermost = sys._getframe(1)
        while outermost.f_back is not None:
            outermost = outermost.f_back
        follower.runs_on(outermost)
        follower.state = {"botframe": outermost, "stopframe": outermost, "returnframe": None, "stoplineno": -1,
                          "trace_opcodes": False, "cmdframe": None, "cmdlineno": None, "enterframe": None,
                          "frame_returning": None, "currentbp": 0}
        return follower

    def take_turn(self):
        """Wait until no other thread is in a callback; returns whether the turn is ours."""
        if self.turn.acquire(blocking=False):
            return True
        while not self.turn.acquire(timeout=0.1):
            if self._lets_others_pass or self.quitting:
                return False  # who has it may be ending with the program, by an exception raised from elsewhere
        return True

    def put_in_place(self, follower):
        """Make the attributes that say how a thread goes on those of this follower's thread."""
        if self._current is not follower:
            if self._current is not None:
                self._current.state = self._take_state()
            self._current = follower
            own = vars(self)
            for name in _THREAD_ATTRIBUTES:
                value = follower.state.get(name, _MISSING)
                if value is _MISSING:
                    own.pop(name, None)
                else:
                    own[name] = value

    def _take_state(self):
        own = vars(self)
        return {name: own.get(name, _MISSING) for name in _THREAD_ATTRIBUTES}

    # Starting from the program

    def set_trace(self, frame=None, *, commands=None):
        """Stop in this frame, or in the caller's: for `breakpoint()` in the program, and for Ctrl-C."""
        if frame is None:
            frame = sys._getframe().f_back
        if commands is not None:
            self.rcLines.extend(commands)
        follower = engine.follower()
        if follower is None or follower.debugger is not self:
            self._start_again(frame)
            return
        with self.turn:
            self.put_in_place(follower)
            outer = frame
            while outer is not None and outer is not self.botframe:
                outer.f_trace = self.trace_dispatch
                outer.f_trace_lines = True
                outer = outer.f_back
            self.enterframe = frame
            try:
                # The next instruction and not the next line, where the version can do that.
                getattr(self, "set_stepinstr", self.set_step)()
            finally:
                self.enterframe = None
            follower.look_at_wishes(frame)

    def _start_again(self, frame):
        """Follow the thread again, after `continue` without a breakpoint. The stack still ends where it ended."""
        botframe = self.botframe
        super().set_trace(frame)
        outer = frame
        while outer is not None and outer is not botframe:
            outer = outer.f_back
        if outer is not None:
            self.botframe = outer
            while outer is not None:
                outer.f_trace = None
                outer = outer.f_back

    def set_quit(self):
        super().set_quit()
        if threading.get_ident() != self._main_thread_id:
            # The program ends where its main thread does; this one ends by itself.
            ctypes.pythonapi.PyThreadState_SetAsyncExc(ctypes.c_ulong(self._main_thread_id),
                                                       ctypes.py_object(bdb.BdbQuit))

    def dispatch_call(self, frame, arg):
        botframe = self.botframe
        if botframe is not None and frame.f_back is botframe and _is_debuggers(botframe) and not self._is_target(frame):
            # The program has ended, and what runs now (a weak reference's callback) is called by the debugger.
            self.set_continue()
            return None
        return super().dispatch_call(frame, arg)

    def _is_target(self, frame):
        return frame.f_code.co_name == "<module>"

    # Coroutines

    def dispatch_exception(self, frame, arg):
        stopframe = self.stopframe
        if (stopframe is not None and frame is not stopframe
                and stopframe.f_code.co_flags & _COROUTINE_FLAGS):
            # The interpreter's own method stops at the StopIteration of whatever the event loop runs meanwhile.
            return self.trace_dispatch
        return super().dispatch_exception(frame, arg)

    def dispatch_return(self, frame, arg):
        if (frame is self.stopframe and self.stoplineno != -1 and frame.f_code.co_flags & _COROUTINE_FLAGS
                and not engine.follower().is_suspension):
            self._step_out_of_coroutine(frame)
            return self.trace_dispatch
        return super().dispatch_return(frame, arg)

    def _step_out_of_coroutine(self, frame):
        """A step has come to the end of a coroutine: it goes on where that is awaited, or after the event loop."""
        caller = frame.f_back
        while caller is not None and caller is not self.botframe and _is_of_event_loop(caller):
            caller = caller.f_back
        if caller is None or caller is self.botframe:
            self.set_continue()
        else:
            caller.f_trace = self.trace_dispatch
            self._set_stopinfo(caller, None)

    # Stops

    def interaction(self, frame, *arguments):
        previous, self._stopped_frame = self._stopped_frame, frame
        if frame is not None:
            self._say_what_is_new()
            if self._does_hold:
                engine.hold_others()
        try:
            super().interaction(frame, *arguments)
        finally:
            self._stopped_frame = previous
            engine.release_others()

    def _say_what_is_new(self):
        """Name the process, the thread and a condition that has failed, where the stop is not like the one before."""
        if self._pid != os.getpid():
            self._pid = os.getpid()
            self.message("[process {}]".format(self._pid))
        thread_id = threading.get_ident()
        if thread_id != (self._stop_thread_id or self._main_thread_id):
            self.message("[thread {}: {}]".format(self._number(thread_id), _thread_name(thread_id)))
        self._stop_thread_id = thread_id
        if self._failed_condition is not None:
            breakpoint, exception = self._failed_condition
            self._failed_condition = None
            self.message("The condition of breakpoint {} failed: {}: {}".format(
                breakpoint.number, type(exception).__name__, exception))

    def condition_failed(self, breakpoint, exception):
        self._failed_condition = breakpoint, exception

    # A step that is commanded while another thread's stack is looked at goes on here.

    def set_next(self, frame):
        super().set_next(self._own_frame(frame))

    def set_until(self, frame, *arguments):
        super().set_until(self._own_frame(frame), *arguments)

    def set_return(self, frame):
        super().set_return(self._own_frame(frame))

    def _own_frame(self, frame):
        """The frame itself, if it is on the stack of the thread with the prompt; else that thread's innermost one."""
        own = self._stopped_frame
        while own is not None and own is not frame:
            own = own.f_back
        return frame if own is not None or self._stopped_frame is None else self._stopped_frame

    # Expressions at the prompt

    def default(self, line):
        with _Patience(self):
            return super().default(line)

    def _getval(self, arg):
        with _Patience(self):
            return super()._getval(arg)

    # Commands

    def do_threads(self, arg):
        """threads

        List the threads of the program, with where they are. The one with the prompt is marked.
        """
        if arg:
            self.error("threads takes no argument")
            return
        for thread_id, frame in sorted(self._thread_frames().items(), key=lambda item: self._number(item[0])):
            mark = "->" if thread_id == threading.get_ident() else "  "
            where = "{}({}){}()".format(self.canonic(frame.f_code.co_filename), frame.f_lineno, frame.f_code.co_name)
            self.message("{} {:<3} {:<20} {}".format(mark, self._number(thread_id), _thread_name(thread_id), where))

    def do_thread(self, arg):
        """thread [number]

        Look at the stack of another thread, by its number in the list of `threads`; without a number, at that of the
        thread with the prompt again. Commands that go on, go on with that thread.
        """
        frames = self._thread_frames()
        if not arg:
            thread_id = threading.get_ident()
        else:
            found = [thread_id for thread_id in frames if str(self._number(thread_id)) == arg.strip()]
            if not found:
                self.error("there is no thread {}".format(arg))
                return
            thread_id = found[0]
        self.stack, self.curindex = self.get_stack(frames[thread_id], None)
        self.curframe = self.stack[self.curindex][0]
        if sys.version_info < (3, 13):
            self.curframe_locals = self.curframe.f_locals
        self.lineno = None
        self.print_stack_entry(self.stack[self.curindex])

    def do_hold(self, arg):
        """hold [on | off]

        Say whether all other threads are held while one has the prompt. They are not at first. An expression at the
        prompt that waits for a held thread lets them go on after some seconds.
        """
        if self._choose(arg, ("off", "on"), self._does_hold):
            self._does_hold = arg == "on"
            if self._does_hold and self._stopped_frame is not None:
                engine.hold_others()
            else:
                engine.release_others()

    def do_forks(self, arg):
        """forks [follow | leave]

        Say whether a forked child is debugged as well, which it is at first, or runs on by itself.
        """
        if self._choose(arg, ("leave", "follow"), engine.follows_forks):
            engine.follows_forks = arg == "follow"

    def _choose(self, arg, words, is_second):
        """Show which of two words holds, where none is given; returns whether a right one is."""
        if not arg:
            self.message(words[is_second])
        elif arg not in words:
            self.error("either {} or {}, not {!r}".format(*words, arg))
        else:
            return True
        return False

    def do_log(self, arg):
        """log location "text {expression}" [, condition]

        Write the text each time when the location is reached, and do not stop there. What is in braces is evaluated as
        in an f-string. The location is one that `break` takes. A log point is a breakpoint in every other way: it has
        a number, and `disable`, `clear` and `ignore` are for it as well.
        """
        location, _, rest = arg.partition(" ")
        try:
            expression = _log_expression(rest.strip())
        except (SyntaxError, ValueError) as error:
            self.error('log location "text {{expression}}": {}'.format(error))
            return
        count = len(bdb.Breakpoint.bpbynumber)
        self.do_break(location)
        if len(bdb.Breakpoint.bpbynumber) > count:
            bdb.Breakpoint.bpbynumber[-1].cond = our_bdb.LogPoint(expression, self._write_log)

    def _write_log(self, text):
        if text is not None:
            self.message(text)

    def _number(self, thread_id):
        """A small number for a thread, the same for all its life."""
        return self._numbers.setdefault(thread_id, len(self._numbers) + 1)

    def _thread_frames(self):
        """The innermost frame of the program's own in each thread, as {thread id: frame}."""
        frames = {}
        for thread_id, frame in sys._current_frames().items():
            if thread_id == threading.get_ident() and self._stopped_frame is not None:
                frame = self._stopped_frame
            while frame is not None and _is_debuggers(frame):
                frame = frame.f_back
            if frame is not None:
                frames[thread_id] = frame
        return frames


def _log_expression(text):
    """The expression for a log point, of its text's literal and a condition that may follow."""
    tree = ast.parse(text, mode="eval").body
    parts = tree.elts if isinstance(tree, ast.Tuple) else [tree]
    if len(parts) > 2 or not isinstance(parts[0], ast.Constant) or not isinstance(parts[0].value, str):
        raise ValueError("the text has to be in quotes")
    expression = "f" + ast.get_source_segment(text, parts[0])
    if len(parts) == 2:
        expression = "({}) if ({}) else None".format(expression, ast.get_source_segment(text, parts[1]))
    compile(expression, "<log>", "eval")
    return expression


class _Patience:
    """While an expression is evaluated at the prompt: lets the other threads go on if it takes too long."""

    def __init__(self, session):
        self._session = session

    def __enter__(self):
        self._is_done = None
        if len(sys._current_frames()) > 1:
            self._is_done = _thread.allocate_lock()
            self._is_done.acquire()
            self._has_ended = _thread.allocate_lock()
            self._has_ended.acquire()
            # Not one of `threading`'s threads: what it runs is internal code only, and is never held.
            _thread.start_new_thread(self._wait, (self._is_done,))

    def __exit__(self, *exception):
        if self._is_done is not None:
            self._is_done.release()
            self._has_ended.acquire()  # what it has to say comes before the next prompt
            self._session._lets_others_pass = False

    def _wait(self, is_done):
        if not is_done.acquire(timeout=PATIENCE):
            self._session._lets_others_pass = True
            if engine.release_others():
                self._session.message("(The expression seems to wait for a thread that is held: the others go on.)")
        self._has_ended.release()


_DEBUGGERS_MODULES = {"bdb", "pdb", "cmd"}
_EVENT_LOOP_MODULES = {"asyncio", "contextvars", "selectors", "concurrent"}


def _is_debuggers(frame):
    """Whether a frame is one of the debugger's own, or of what it is built on."""
    return (place_is_internal(frame.f_code)
            or frame.f_globals.get("__name__") in _DEBUGGERS_MODULES)


def _is_of_event_loop(frame):
    return str(frame.f_globals.get("__name__")).partition(".")[0] in _EVENT_LOOP_MODULES


def _thread_name(thread_id):
    """The name of a thread. Looks into the table of `threading` directly, whose lock a held thread may have."""
    known = threading._active.get(thread_id)
    return "thread {}".format(thread_id) if known is None else known.name


def set_trace(*, header=None, commands=None):
    """Stop at the caller's next line, in the session that runs: what `breakpoint()` and `pdb.set_trace()` call."""
    session = Session.running
    if header is not None:
        session.message(header)
    session.set_trace(sys._getframe().f_back, commands=commands)


# Processes that the program starts

_is_watching = False


def _watch_processes():
    """Tell, once, that a Python process which is started anew runs undebugged; see to a session in forked ones."""
    global _is_watching
    if not _is_watching:
        _is_watching = True
        sys.addaudithook(_audit)
        os.register_at_fork(after_in_child=_after_fork_in_child)
        threading.excepthook = _thread_excepthook


def _audit(event, arguments):
    session = Session.running
    if session is None or session._has_told_of_spawning:
        return
    if event == "subprocess.Popen":
        executable, words = arguments[0], arguments[1]
        started = executable or (words if isinstance(words, (str, bytes, os.PathLike)) else words[0])
    elif event in ("os.posix_spawn", "os.spawn"):
        started = arguments[0] if event == "os.posix_spawn" else arguments[1]
    elif event == "import" and arguments[0] in ("multiprocessing.popen_spawn_posix",
                                                "multiprocessing.popen_forkserver"):
        started = sys.executable
    else:
        return
    name = os.path.basename(os.fsdecode(started))
    if engine.tool_id is not None and (name.startswith("python") or os.fsdecode(started) == sys.executable):
        session._has_told_of_spawning = True
        session.message("(A Python process that is started runs undebugged.)")


def _after_fork_in_child():
    """The thread that forked has the turn, if anybody has."""
    session = Session.running
    if session is not None:
        session.turn = threading.RLock()
        session._main_thread_id = threading.get_ident()


def _thread_excepthook(arguments, /):
    """`threading.excepthook`: a thread in which the session was quit ends without a word."""
    if not issubclass(arguments.exc_type, bdb.BdbQuit):
        threading.__excepthook__(arguments)
