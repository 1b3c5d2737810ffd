"""The engine: which monitoring events are on where, for every debugger of the process that is built on it.

A debugger follows threads. For each thread that it follows it makes a `Follower`, which the engine asks at each event
of that thread, and which tells the engine what the debugger wishes for: lines of code objects (breakpoints), frames
that are watched (a step in them, their return), or every frame that the thread enters (stepping). The engine works out
which events that needs and switches on no others:

    a line of interest    LINE and JUMP in the code objects that have it. JUMP, because a loop that stays on one line
                          raises LINE only once.
    a watched frame       LINE, JUMP, PY_RETURN, PY_YIELD and STOP_ITERATION in its code object; INSTRUCTION where the
                          debugger asks for it; and what tells of exceptions. Until 3.14 that can only be had
                          everywhere; from 3.15 on it is switched on in the code object as well.
    stepping              PY_START, PY_RESUME and PY_THROW everywhere, which tell of each frame that is entered; the
                          debugger then watches those that it wants.

PY_START and PY_RESUME are on everywhere in any case, since that is how new code objects are met. But while no thread
steps, the engine is calm: each place is seen once, and answered DISABLE where nobody has an interest in it. A program
whose breakpoints are not hit therefore runs at its own speed, also in the function that has them.

What was switched off has to come back when it becomes interesting. In one code object that is done by switching its
events off and on again. Starts of frames can only be brought back with `restart_events`, which costs time everywhere
and brings back other tools' places, too; so it is called when a thread begins to step, or when a start becomes
interesting, and only if a start was switched off since the last time. An event that is being handled on another thread
meanwhile cannot switch its place off any more: `_calm` is another object after each change, and a callback answers
DISABLE only if it is the same at the end as it was at the beginning. Between that comparison and the interpreter's
taking the answer no other thread runs or, without a global lock, the interpreter stops the world first.

The tool id is not the debugger's own one, `sys.monitoring.DEBUGGER_ID`, as long as another one is free: from 3.14 on
the interpreter's `bdb` takes that, and programs that debug themselves with it keep working.

Who may do what when. One lock guards what is written here; a thread that has it raises no events. Callbacks read
without it: entries of dictionaries are replaced as a whole. A follower lives as long as its thread and belongs to it:
`threading.local` keeps it, so that a thread with the same id does not inherit it.
"""

import dis
import os
import signal
import sys
import threading
import weakref

from vornbase import dlog

from . import xoptmonitoring as xo

_monitoring = sys.monitoring
_getframe = sys._getframe
_events = _monitoring.events

_DISABLE = _monitoring.DISABLE
_LINE = _events.LINE
_JUMP = _events.JUMP
_START = _events.PY_START
_RESUME = _events.PY_RESUME
_THROW = _events.PY_THROW
_RETURN = _events.PY_RETURN
_YIELD = _events.PY_YIELD
_UNWIND = _events.PY_UNWIND
_RAISE = _events.RAISE
_STOP_ITERATION = _events.STOP_ITERATION
_INSTRUCTION = _events.INSTRUCTION

#: From this version on the events of exceptions can be switched on in single code objects.
_EXCEPTIONS_ARE_LOCAL = sys.version_info >= (3, 15)
_EXCEPTION_EVENTS = _RAISE | _UNWIND

_IN_LINES = _LINE | _JUMP
_IN_WATCHED = _IN_LINES | _RETURN | _YIELD | _STOP_ITERATION | (_EXCEPTION_EVENTS if _EXCEPTIONS_ARE_LOCAL else 0)
_EVERYWHERE = _START | _RESUME
_WHILE_WATCHING = 0 if _EXCEPTIONS_ARE_LOCAL else _EXCEPTION_EVENTS | _THROW
_WHILE_STEPPING = _THROW

#: In this order. The last one is what `bdb` takes for its own back end.
TOOL_IDS = (4, 3, _monitoring.DEBUGGER_ID)
_TOOL_NAME = "vorntracer"

_NO_LINES = {}

#: How many lines of interest a thread may run that nobody follows, until the first stage skips all that it does. Before
#: that, its places are switched off where nobody has an interest in them, and afterwards none of them is any more.
_LINES_TO_BE_IGNORED = 200


class Quiet:
    """Within it, the calling thread raises no monitoring events."""

    def __enter__(self):
        xo.AddToThreadStateTracing(1)

    def __exit__(self, *exception):
        xo.AddToThreadStateTracing(-1)


def take_tool_id():
    """Take the first tool id that is free, and return it. Raises ValueError where none is."""
    for tool_id in TOOL_IDS:
        try:
            _monitoring.use_tool_id(tool_id, _TOOL_NAME)
        except ValueError:
            continue
        return tool_id
    raise ValueError("all tool ids for debuggers are in use: {}".format(", ".join(map(str, TOOL_IDS))))


class Place:
    """What is known of one code object. Found by identity: different code objects with equal contents are equal."""

    __slots__ = ("code_ref", "filename", "lines", "are_lines_provisional", "watchers", "opcode_watchers", "events",
                 "is_internal", "dimmed_in", "_jump_lines", "_starts_line")

    def __init__(self, code, code_ref):
        self.code_ref = code_ref
        self.filename = code.co_filename
        # Line numbers that some debugger wants to be asked about, each with what that has to say of it: the debugger's
        # own object, or None. Replaced as a whole.
        self.lines = _NO_LINES
        self.are_lines_provisional = False  # they are to be asked for again after an event
        self.watchers = 0  # how many followers watch frames that run it
        self.opcode_watchers = 0
        self.events = 0  # those that are switched on in the code object
        self.is_internal = place_is_internal(code)
        self.dimmed_in = -1  # the epoch in which one of its lines was answered DISABLE
        self._jump_lines = {}  # offsets of a jump -> its line, if it stays on that and goes back, or else None
        self._starts_line = None

    def starts_line(self, code):
        """Return the line on which the code object both begins and has its first statement, or None.

        From 3.13 on, with a global lock, such a line raises LINE only while PY_START is on as well (cpython #155992).
        """
        if self._starts_line is None:
            self._starts_line = line_shared_with_start(code) or 0
        return self._starts_line or None

    def jump_line(self, code, offset, destination):
        """Return the line of a jump back on the same line; None for any other jump."""
        key = (offset, destination)
        if key not in self._jump_lines:
            line = line_at(code, offset)
            stays = line is not None and line == line_at(code, destination) and destination < offset
            self._jump_lines[key] = line if stays else None
        return self._jump_lines[key]


def line_at(code, offset):
    """The line of an instruction, or None."""
    for start, end, line in code.co_lines():
        if start <= offset < end:
            return line
    return None


_shared_lines = weakref.WeakKeyDictionary()  # code object -> line or None; equal ones have equal lines


def line_shared_with_start(code):
    """The first line of a code object, if a RESUME lies on it and the instruction after that as well; or None."""
    if code not in _shared_lines:
        _shared_lines[code] = _find_line_shared_with_start(code)
    return _shared_lines[code]


def _find_line_shared_with_start(code):
    previous = None
    for instruction in dis.get_instructions(code):
        if previous is not None and previous.opname == "RESUME":
            line = previous.positions.lineno
            # 3.15 has a RESUME of no line before the one with which a generator expression begins.
            if line is not None and line == code.co_firstlineno and line == instruction.positions.lineno:
                return line
        previous = instruction
    return None


class Follower:
    """A debugger's part in one thread. Subclasses say what is of interest there.

    The methods `enter` to `opcode` are called on the thread, in a callback, with the frame of the event. An exception
    that leaves them goes on to the program. `line`, `enter` and `leave` return whether the event was of interest; a
    place without interest may be switched off.
    """

    is_stepping = False  # whether `enter` is to be called for every frame
    asks_for_calls = False  # whether `enter` is to be called for frames of which nothing is known

    def __init__(self, debugger):
        self.debugger = debugger  # has `lines_of_interest`, `has_lines_in` and `adopt_thread`, see vorntracer.bdb.Bdb
        self.watched = {}  # id of a code object -> (its Place, whether INSTRUCTION is wanted)

    def enter(self, frame, code, place):
        """A frame begins or goes on: PY_START, PY_RESUME, PY_THROW."""
        raise NotImplementedError

    def line(self, frame, code, lineno, place):
        """A line is about to run: LINE, or JUMP back on one line."""
        raise NotImplementedError

    def leave(self, frame, place, value, event):
        """A frame ends, or a generator's is suspended: PY_RETURN, PY_YIELD, PY_UNWIND, which has None for a value."""
        raise NotImplementedError

    def exception(self, frame, exception):
        """An exception is raised in a frame, or arrives there: RAISE, STOP_ITERATION."""
        raise NotImplementedError

    def opcode(self, frame):
        """An instruction is about to run: INSTRUCTION."""
        raise NotImplementedError


class Engine:
    """What the process's debuggers share. There is one, `engine`."""

    def __init__(self):
        # Taken as `with self.quiet, self.lock`: the lock by itself and not within a class in Python whose `__exit__` an
        # exception that a signal or another thread raises here could keep from giving it back.
        self.lock = threading.RLock()
        self.quiet = Quiet()
        self.tool_id = None  # None while nothing is followed
        self._local = threading.local()  # follower: that of the thread
        self._followers = []  # weak references to all of them
        self._places = {}  # id of a code object -> its Place
        self._places_by_filename = {}  # co_filename -> {id of a code object: its Place}
        self._lit = {}  # id of a code object -> its Place, where events are on
        self._calm = None
        self._are_starts_off = False
        self._has_lost = False  # a followed thread has ended
        self._adopt_thread = None  # makes the follower of a thread that has none, for a debugger that wants them all
        self._holder_id = None  # the thread for which all others are held
        self._held = {}  # held thread -> its fSuspendLock, which we have
        self._skipped_thread_ids = set()  # threads that nobody follows and of which the first stage skips everything
        self.follows_forks = True  # whether forked children are debugged as well
        self._epoch = 0  # how often `restart_events` was called
        self._callbacks = {
            _START: xo.CInitialCallback(_START, self._on_start, True),
            _RESUME: xo.CInitialCallback(_RESUME, self._on_start, True),
            _LINE: xo.CInitialCallback(_LINE, self._on_line, True),
            _RETURN: xo.CInitialCallback(_RETURN, self._on_return, True),
            _YIELD: xo.CInitialCallback(_YIELD, self._on_yield, True),
        }
        # Kept for good: the interpreter does not keep a callback alive while it calls it.
        self._registered = {event: first_stage.Callback for event, first_stage in self._callbacks.items()}
        # The first stage knows no other events.
        self._registered[_JUMP] = self._on_jump
        self._registered[_THROW] = self._on_throw
        self._registered[_UNWIND] = self._on_unwind
        self._registered[_RAISE] = self._on_raise
        self._registered[_STOP_ITERATION] = self._on_stop_iteration
        self._registered[_INSTRUCTION] = self._on_instruction
        for second_stage in (Engine._on_start, Engine._on_line, Engine._on_return, Engine._on_yield):
            # A follower's exceptions are its answer, and a signal's handler may raise anywhere.
            dlog.LetPassFrom(second_stage)

    # Followers

    def follower(self):
        """Return the calling thread's follower, or None."""
        return getattr(self._local, "follower", None)

    def follow(self, follower):
        """Let a follower have the calling thread, in place of the one that had it."""
        with self.quiet, self.lock:
            self._forget(self.follower())
            self._prune()
            self._skip_no_thread()
            if self.tool_id is None:
                self._start()
            self._local.follower = follower
            self._followers.append(weakref.ref(follower, self._lost))
            self._meet_stack(_getframe(1))
            self.refresh()

    def unfollow(self, follower):
        """The follower has its thread no more. Does nothing where it has none."""
        with self.quiet, self.lock:
            if self.follower() is follower:
                self._local.follower = None
            if self._forget(follower):
                self.refresh()

    def followers_of(self, debugger):
        """Return the followers of a debugger, on all threads."""
        return [follower for follower in self._all_followers() if follower.debugger is debugger]

    def is_followed(self, follower):
        """Whether the follower has a thread."""
        return any(reference() is follower for reference in self._followers)

    def _all_followers(self):
        followers = [reference() for reference in list(self._followers)]
        return [follower for follower in followers if follower is not None]

    def _adopt(self):
        """Let the debugger that wants every thread have this one, which nobody follows."""
        with self.quiet, self.lock:
            if self._adopt_thread is None:
                return None
            follower = self._adopt_thread()
            self._local.follower = follower
            self._followers.append(weakref.ref(follower, self._lost))
            return follower

    def _forget(self, follower):
        """Take a follower out; returns whether it was in."""
        if follower is None:
            return False
        count = len(self._followers)
        self._followers = [reference for reference in self._followers if reference() is not follower]
        self.watch(follower, {})
        return len(self._followers) != count

    def _lost(self, reference):
        """A followed thread has ended. What it wished for is taken back at the next start of a frame.

        This runs wherever the last reference was dropped, maybe while another thread has the lock.
        """
        self._has_lost = True

    def _prune(self):
        """Take out the followers of threads that have ended, with what they watched."""
        self._has_lost = False
        if any(reference() is None for reference in self._followers):
            self._followers = [reference for reference in self._followers if reference() is not None]
            for place in self._places.values():
                place.watchers = place.opcode_watchers = 0
            for follower in self._all_followers():
                for place, wants_opcodes in follower.watched.values():
                    place.watchers += 1
                    place.opcode_watchers += wants_opcodes

    # Switching on and off

    def _start(self):
        """Take a tool id, and tell the interpreter whom to call."""
        self.tool_id = tool_id = take_tool_id()
        xo.SetInternalPathnameDict(dict.fromkeys(internal_pathnames()))
        xo.UpdateThisProcessPid()
        for event, callback in self._registered.items():
            _monitoring.register_callback(tool_id, event, callback)
        self._are_starts_off = True  # by those who had the tool id before
        self._calm = object()

    def _stop(self):
        """Give everything back."""
        _monitoring.set_events(self.tool_id, 0)
        for place in list(self._lit.values()):
            self._set_events(place, 0)
        for event in self._registered:
            _monitoring.register_callback(self.tool_id, event, None)
        _monitoring.free_tool_id(self.tool_id)
        self.tool_id = None
        self._calm = None
        self._adopt_thread = None
        self.release_others()

    def changed(self):
        """Work out anew what is on everywhere, and bring back what was switched off and is wanted now."""
        if self.tool_id is None:
            return
        followers = self._all_followers()
        if not followers:
            self._stop()
            return
        self._adopt_thread = next((debugger.adopt_thread for debugger in self._debuggers()
                                   if debugger.adopt_thread is not None), None)
        is_holding = self._holder_id is not None
        is_stepping = any(follower.is_stepping for follower in followers) or is_holding
        events = _EVERYWHERE | (_LINE if is_holding else 0)
        if is_stepping:
            events |= _WHILE_STEPPING | _WHILE_WATCHING
        elif any(follower.watched for follower in followers):
            events |= _WHILE_WATCHING
        self._calm = None if is_stepping else object()
        if events != _monitoring.get_events(self.tool_id):
            _monitoring.set_events(self.tool_id, events)
        if is_holding or is_stepping and self._are_starts_off:
            self.restart()

    def restart(self):
        """Bring back every place that was switched off."""
        self._are_starts_off = False
        self._epoch += 1
        if self._calm is not None:
            self._calm = object()
        _monitoring.restart_events()

    def refresh(self, is_concerned=None):
        """The debuggers' lines have changed: work out anew which lie where.

        is_concerned  called with a file name, as code objects have it; says whether its lines may have changed. None:
                      all files' may
        """
        with self.quiet, self.lock:
            self._prune()
            if self.tool_id is None:
                return
            debuggers = self._debuggers()
            for filename, places in list(self._places_by_filename.items()):
                if is_concerned is None or is_concerned(filename):
                    if any(debugger.has_lines_in(filename) for debugger in debuggers):
                        self._find_lines(list(places.values()), debuggers)
                    else:
                        self._find_lines([place for place in list(places.values()) if place.lines], debuggers)
            self.changed()

    def find_lines_again(self, place):
        """The lines of one code object were provisional, and may be known now."""
        with self.quiet, self.lock:
            self._find_lines([place], self._debuggers())

    # Code objects

    def place(self, code):
        """Return the Place of a code object, with its lines of interest known."""
        place = self._places.get(id(code))
        return self._meet(code) if place is None else place

    def _meet(self, code):
        """A code object is seen for the first time."""
        with self.quiet, self.lock:
            place = self._places.get(id(code))
            if place is None:
                key = id(code)
                place = Place(code, weakref.ref(code, lambda reference: self._code_died(key, reference)))
                self._find_lines([place], self._debuggers())
                self._places_by_filename.setdefault(place.filename, {})[key] = place
                # Last: a thread that finds it runs on, and takes its events to be on.
                self._places[key] = place
            return place

    def _code_died(self, key, reference):
        """Forget a code object before another one can be made in its place."""
        place = self._places.get(key)
        if place is not None and place.code_ref is reference:
            del self._places[key]
            self._lit.pop(key, None)
            same_file = self._places_by_filename.get(place.filename)
            if same_file is not None:
                same_file.pop(key, None)

    def _meet_stack(self, frame):
        """Meet what is running on this thread already: it will raise no event of its start any more."""
        while frame is not None:
            self.place(frame.f_code)
            frame = frame.f_back

    def _debuggers(self):
        """Return those that follow a thread, each once."""
        return list({id(follower.debugger): follower.debugger for follower in self._all_followers()}.values())

    def _find_lines(self, places, debuggers):
        """Ask the debuggers for the lines of some code objects."""
        if self.tool_id is None:
            return
        for place in places:
            code = place.code_ref()
            if code is None:
                continue
            lines, is_provisional = {}, False
            for debugger in debuggers:
                found, provisional = debugger.lines_of_interest(code)
                for line, note in found.items():
                    lines[line] = None if line in lines else note
                is_provisional |= provisional
            self._set_lines(place, code, lines, is_provisional)

    def _set_lines(self, place, code, lines, is_provisional):
        place.are_lines_provisional = is_provisional
        if not lines and not place.lines:
            return
        has_new_lines = not lines.keys() <= place.lines.keys()
        place.lines = lines
        self._settle(place, code, has_new_lines)
        if has_new_lines and self._calm is not None and self._are_starts_off and place.starts_line(code) in lines:
            self.restart()

    def _settle(self, place, code, brings_back=False):
        """Switch on the events that a code object needs, and no others."""
        events = 0
        if place.lines:
            events |= _IN_LINES
        if place.watchers:
            events |= _IN_WATCHED
        if place.opcode_watchers:
            events |= _INSTRUCTION
        if brings_back and place.dimmed_in == self._epoch:
            # What was answered DISABLE comes back when the event is switched on anew.
            if self._calm is not None:
                self._calm = object()
            place.dimmed_in = -1
            self._set_events(place, 0, code)
        if events != place.events:
            self._set_events(place, events, code)

    def _set_events(self, place, events, code=None):
        code = place.code_ref() if code is None else code
        place.events = events
        if code is None:
            return
        _monitoring.set_local_events(self.tool_id, code, events)
        if events:
            self._lit[id(code)] = place
        else:
            self._lit.pop(id(code), None)

    # Watching

    def watch(self, follower, wanted):
        """A follower watches the frames that run these code objects, and no others.

        wanted  code objects' ids -> (Place, whether INSTRUCTION is wanted)

        What is not watched any more is switched off when it next raises an event: a step after the other often
        watches the same code objects again, and to switch events costs more than to see one.
        """
        with self.quiet, self.lock:
            before = follower.watched
            follower.watched = wanted
            for key, (place, wants_opcodes) in before.items():
                if wanted.get(key) != (place, wants_opcodes):
                    place.watchers -= 1
                    place.opcode_watchers -= wants_opcodes
                    if wants_opcodes and not place.opcode_watchers:
                        code = place.code_ref()
                        if code is not None and self.tool_id is not None:
                            self._set_events(place, place.events & ~_INSTRUCTION, code)
            for key, (place, wants_opcodes) in wanted.items():
                if before.get(key) != (place, wants_opcodes):
                    place.watchers += 1
                    place.opcode_watchers += wants_opcodes
                    code = place.code_ref()
                    if code is not None and self.tool_id is not None:
                        self._settle(place, code, brings_back=True)

    def watch_also(self, follower, code, wants_opcodes=False):
        """A follower watches the frames that run one more code object."""
        place = self.place(code)
        known = follower.watched.get(id(code))
        # The code object that had the id may have died.
        if known is None or known[0] is not place or wants_opcodes and not known[1]:
            wanted = dict(follower.watched)
            wanted[id(code)] = (place, wants_opcodes)
            self.watch(follower, wanted)

    # The second stage

    def _on_start(self, code, offset):
        """A frame begins, or a generator's frame goes on."""
        calm = self._calm
        follower = getattr(self._local, "follower", None)
        if follower is None and self._adopt_thread is not None:
            follower = self._adopt()
        place = self._places.get(id(code))
        if place is None:
            place = self._meet(code)
            calm = self._calm
        if self._has_lost:
            self.refresh()
        if follower is not None and (follower.is_stepping or follower.asks_for_calls):
            if follower.enter(_getframe(1), code, place):
                return None
        if calm is None or place.watchers or place.lines and place.starts_line(code) in place.lines:
            return None
        if calm is not self._calm:
            return None
        self._are_starts_off = True
        return _DISABLE

    def _on_line(self, code, lineno):
        calm = self._calm
        follower = getattr(self._local, "follower", None)
        if follower is None and self._adopt_thread is not None:
            follower = self._adopt()
        place = self._places.get(id(code))
        if place is None:
            place = self._meet(code)
        if follower is None:
            if lineno in place.lines:
                self._count_ignored()
        elif follower.line(_getframe(1), code, lineno, place):
            return None
        return self._dim(place, code, lineno, calm)

    def _on_jump(self, code, offset, destination):
        if destination > offset:
            return _DISABLE
        calm = self._calm
        place = self._places.get(id(code))
        if place is None:
            place = self._meet(code)
        lineno = place.jump_line(code, offset, destination)
        if lineno is None:
            return _DISABLE  # the line to which it goes has an event of its own
        follower = getattr(self._local, "follower", None)
        if follower is not None and follower.line(_getframe(1), code, lineno, place):
            return None
        return self._dim(place, code, lineno, calm)

    def _dim(self, place, code, lineno, calm):
        """The answer for a line in which the thread has no interest: DISABLE where nobody has one."""
        if calm is None or lineno in place.lines or calm is not self._calm:
            return None
        if place.watchers:
            return None
        if not place.lines:
            with self.quiet, self.lock:
                if not place.watchers and self.tool_id is not None:
                    self._settle(place, code)
            return None
        place.dimmed_in = self._epoch
        return _DISABLE if calm is self._calm else None

    def _on_return(self, code, offset, value):
        place = self._watched_place(code)
        if place is not None:
            self._local.follower.leave(_getframe(1), place, value, _RETURN)
        return None

    def _on_yield(self, code, offset, value):
        place = self._watched_place(code)
        if place is not None:
            self._local.follower.leave(_getframe(1), place, value, _YIELD)
        return None

    def _watched_place(self, code):
        """The Place of a code object that the thread's follower watches; None for others, which need no such events."""
        place = self._places.get(id(code))
        follower = getattr(self._local, "follower", None)
        if place is None or follower is None:
            return None
        if not place.watchers:
            with self.quiet, self.lock:
                if not place.watchers and self.tool_id is not None:
                    self._settle(place, code)
        return place if id(code) in follower.watched else None

    def _count_ignored(self):
        """A thread that nobody follows runs a line of interest; one that does so often is left to the first stage."""
        count = getattr(self._local, "ignored", 0) + 1
        self._local.ignored = count
        if count == _LINES_TO_BE_IGNORED:
            self._local.ignored = 0
            thread = xo.CPerThread.GetPerThread()
            with self.quiet, self.lock:
                if thread is not None and thread.fDebugPolicy == 1 and self._holder_id is None:
                    thread.fDebugPolicy = 0
                    self._skipped_thread_ids.add(thread.fThreadId)

    def _skip_no_thread(self):
        """Have every thread's events again, since another thread may be followed or held now."""
        while self._skipped_thread_ids:
            thread = xo.CPerThread.GetPerThread(self._skipped_thread_ids.pop(), False)
            if thread is not None:
                thread.fDebugPolicy = 1

    # Events that the first stage does not know. An exception goes to the program by itself.

    def _on_throw(self, code, offset, exception):
        follower = getattr(self._local, "follower", None)
        if follower is not None and (follower.is_stepping or follower.asks_for_calls):
            place = self.place(code)
            if not place.is_internal:  # which the first stage knows by itself
                follower.enter(_getframe(1), code, place)
        return None

    def _on_unwind(self, code, offset, exception):
        follower = getattr(self._local, "follower", None)
        if follower is not None and id(code) in follower.watched:
            follower.leave(_getframe(1), self.place(code), None, _UNWIND)
        return None

    def _on_raise(self, code, offset, exception):
        follower = getattr(self._local, "follower", None)
        if follower is not None and id(code) in follower.watched:
            follower.exception(_getframe(1), exception)
        return None

    _on_stop_iteration = _on_raise

    def _on_instruction(self, code, offset):
        follower = getattr(self._local, "follower", None)
        if follower is not None and id(code) in follower.watched:
            follower.opcode(_getframe(1))
        return None

    # Holding threads

    def hold_others(self):
        """Hold every thread but the calling one at its next event, also threads that start from now on.

        Returns at once: a thread that waits in native code comes to its next event when that lets go of it. No thread
        is held in the debugger's own code.
        """
        with self.quiet, self.lock:
            if self.tool_id is None or self._holder_id is not None:
                return
            self._skip_no_thread()
            self._holder_id = threading.get_ident()
            xo.CPerThread.SetNewPerThreadCreatedCallback(self._hold)
            for thread in xo.CPerThread.GetAllPerThreads():
                self._hold(thread)
            for initial_callback in self._callbacks.values():
                initial_callback.fAnySuspendThread = True
            self.changed()

    def release_others(self):
        """Let all held threads go on. Returns whether any was to be held."""
        with self.quiet, self.lock:
            if self._holder_id is None:
                return False
            self._holder_id = None
            xo.CPerThread.SetNewPerThreadCreatedCallback(None)
            for initial_callback in self._callbacks.values():
                initial_callback.fAnySuspendThread = False
            while self._held:
                thread, suspend_lock = self._held.popitem()
                thread.fCheckSuspendLock = False
                suspend_lock.release()
            self.changed()
            return True

    def _hold(self, thread):
        """Have the first stage block a thread: it passes through the lock that we take here."""
        with self.quiet, self.lock:
            suspend_lock = thread.fSuspendLock
            if (suspend_lock is not None and thread not in self._held
                    and self._holder_id not in (None, thread.fThreadId)):
                suspend_lock.acquire()
                thread.fCheckSuspendLock = True
                self._held[thread] = suspend_lock

    # Forked children

    def before_fork(self):
        """Take the lock, so that the child gets no half-made change of a thread that it does not have."""
        self.quiet.__enter__()
        self.lock.acquire()

    def after_fork_in_parent(self):
        self.lock.release()
        self.quiet.__exit__()

    def after_fork_in_child(self):
        """Go on in the child with the one thread that it has, or stop."""
        try:
            if self.tool_id is not None:
                self.release_others()
                this_one = self.follower() if self.follows_forks else None
                for follower in self._all_followers():
                    if follower is not this_one:
                        self._forget(follower)
                xo.UpdateThisProcessPid()
                self.changed()
        finally:
            self.lock.release()
            self.quiet.__exit__()


def is_for_the_program(exception):
    """Whether an exception that came out of code which the debugger ran is meant for the program.

    That is one which a signal's handler has raised: the signal came to the program, and only happened to find a
    callback at work.
    """
    if isinstance(exception, KeyboardInterrupt):
        return True
    handlers = {id(getattr(signal.getsignal(number), "__code__", None)) for number in signal.valid_signals()}
    handlers.discard(id(None))
    entry = exception.__traceback__
    while entry is not None:
        if id(entry.tb_frame.f_code) in handlers:
            return True
        entry = entry.tb_next
    return False


_INTERNAL_FOLDERS = tuple(os.path.dirname(os.path.abspath(file)) + os.sep for file in (__file__, dlog.__file__))


def place_is_internal(code):
    """Whether a code object is one of the debugger's own."""
    return code.co_filename.startswith(_INTERNAL_FOLDERS)


def internal_pathnames():
    """Return the canonical pathnames of the debugger's own files, whose code is never to be seen."""
    files = [os.path.join(folder, name) for folder in _INTERNAL_FOLDERS for name in sorted(os.listdir(folder))
             if name.endswith(".py")]
    return [xo.get_canonical_pathname(file) for file in files]


engine = Engine()

os.register_at_fork(
    before=engine.before_fork,
    after_in_parent=engine.after_fork_in_parent,
    after_in_child=engine.after_fork_in_child,
)
