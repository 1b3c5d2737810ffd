"""Random sequences of calls on the whole module, and what has to hold after each of them.

By hand, for as long as one likes, in a process of its own:

    PYTHONPATH=build/release/package python3.13 -X faulthandler tests/python/random_calls.py --seconds 600

What it does is chosen by a seed, which it prints, and comes in rounds; a round depends on the seed and its own number
only. So `--seed S --round N` does what round N of seed S did, and `--verbose` tells each step before it is made: the
last one told is the one that crashed. Threads come and go within a round; what they are told to do is repeated, how
they interleave is the system's business.

A tame round does what a debugger may do, and its records have to be consistent afterwards. A wild one also passes
nasty values to everything, private parts included, and assigns them to every field; after it, the module has to work
again once the fields that were assigned to are put back and it is reset.
"""

import argparse
import asyncio
import faulthandler
import gc
import itertools
import os
import random
import signal
import sys
import threading
import time
import types
import warnings
import weakref

import interface
import test_nasty_arguments
from code_helpers import make_code
from event_helpers import EVENT_IDS, Worker
from support import NastyError, RecordingWriter, is_free_threaded, reentering, time_limit, xo

CPerFile, CPerCodeObject, CPerThread = xo.CPerFile, xo.CPerCodeObject, xo.CPerThread

STEPS_PER_ROUND = 150
ROUND_LIMIT = 120
FOREIGN_THREAD_ID = 12345
INTERNAL = "/srv/debugger/internal.py"
TOOL_ID, PROBE_TOOL_ID = 3, 4

#: What a caller who keeps to the rules may see: what his own callbacks raise.
TAME_ERRORS = (NastyError,)

#: The interpreter's own refusal to run out of something; never wrong in itself.
ENDURED_ERRORS = (RecursionError, MemoryError)

#: Fields that no assignment to would be put back.
CONSTANTS = ("kNotFoundTtlSeconds",)


# The code that is monitored ------------------------------------------------------------------------------


def monitored_loop(count):
    total = 0
    for number in range(count):
        total += number
    return total


def monitored_generator(count):
    for number in range(count):
        yield number
    return count


def monitored_recursion(depth):
    if depth:
        return monitored_recursion(depth - 1)
    raise NastyError("the innermost call")


async def monitored_coroutine(count):
    for _ in range(count):
        await asyncio.sleep(0)
    return count


def monitored_class(number):
    class Made:
        value = number

        def method(self):
            return self.value
    return Made().method()


MONITORED = (monitored_loop, monitored_generator, monitored_recursion, monitored_coroutine, monitored_class)


def run_monitored(function, size):
    """Runs one of the functions above to its end, whatever that is."""
    try:
        made = function(size)
        if isinstance(made, types.GeneratorType):
            if size % 2:
                return list(made)
            next(made, None)
            return made.close()
        if isinstance(made, types.CoroutineType):
            try:
                while True:
                    made.send(None)
            except StopIteration as stop:
                return stop.value
        return made
    except NastyError:
        return None


# Values --------------------------------------------------------------------------------------------------


class CurrentRegistryLock:
    """Stands for the registry lock in use, which a wild round may have put another in the place of."""

    @staticmethod
    def locked():
        lock = CPerThread._fRegistryLock
        return not hasattr(lock, "locked") or lock.locked()


# A nasty value that comes back into the module stays away from it while the lock is held that it would wait for.
test_nasty_arguments.REGISTRY_LOCK = CurrentRegistryLock


def fail(*_args):
    raise NastyError("a callback that fails")


def answer_nothing(*_args):
    return None


def answer_text(*_args):
    return "some text"


def answer_policy(*_args):
    return 1


def answer_disable(*_args):
    return sys.monitoring.DISABLE


class Witness:
    """Something that the module is given, and has to let go of."""


PATHNAMES = (
    __file__, __file__ + "c", os.path.relpath(__file__), "/srv/app/a.py", "/srv/app/a.pyc", "/srv/app/b.py",
    "rel/c.pyo", "",
    "<string>", "<frozen os>", "<frozen ", "x-vornide-python-shell://1", INTERNAL, "/sr\u00e9v/\u4e2d.py",
    "/srv/\U0001f40d.py", "C:\\srv\\a.py", "\\\\host\\share\\a.py", "//host/share/a.py", "\\\\?\\C:\\a.py",
)
CHECKSUMS = (None, "", "abc", "def")


class Round:
    """One round: its own source of chance, its values, threads, monitoring and checks."""

    def __init__(self, seed, number, steps=STEPS_PER_ROUND, tell=None):
        self.name = f"seed {seed} round {number}"
        self.random = random.Random(f"{seed}/{number}")
        self.is_tame = self.random.random() < 0.5
        self.steps = steps
        self.tell = tell
        self.step_number = 0
        self.calls = 0
        self.workers = []
        self.logged = []
        self.heard = []
        self.witnesses = []
        self.codes = [function.__code__.replace(co_firstlineno=function.__code__.co_firstlineno)
                      for function in MONITORED]
        self.functions = [types.FunctionType(code, globals(), code.co_name) for code in self.codes]
        self.codes += [make_code(pathname) for pathname in ("/srv/app/a.py", "<frozen made_up>", INTERNAL, "<string>")]
        self.callables = [None, answer_nothing, answer_text, answer_policy, fail]
        self.nasty = [] if self.is_tame else test_nasty_arguments.nasty_values()
        self.pool = []
        self.callbacks = []
        self.class_fields = [
            (interface.find_class(xo, path), name, getattr(interface.find_class(xo, path), name))
            for path, table in interface.CLASSES.items() for name in table.class_fields if name not in CONSTANTS]
        self.level = 0  # by how much this round has raised its own thread's tracing level

    # What is passed

    def choose(self, choices):
        return choices[self.random.randrange(len(choices))]

    def witness(self):
        made = Witness()
        self.witnesses.append(weakref.ref(made))
        return made

    def code(self):
        return self.choose(self.codes)

    def frame(self):
        """The frame of a step, of its caller, of a generator at rest, or none."""
        return self.choose((sys._getframe(), sys._getframe(1), monitored_generator(3).gi_frame, None))

    def record_of_code(self):
        return CPerCodeObject.GetPerCodeObject(self.code(), True, self.choose((None, sys._getframe())))

    def plausible(self, name):
        """A value that the parameter of that name is meant for."""
        if name in ("pathname", "abs_pathname"):
            return self.choose(PATHNAMES)
        if name == "checksum":
            return self.choose(CHECKSUMS)
        if name in ("callback", "get_thread_name_callback", "thread_policy_callback", "second_callback"):
            return self.choose(self.callables)
        if name == "code_object":
            return self.code()
        if name in ("f", "frame", "frame_for_pathnames"):
            return self.frame()
        if name == "per_code_object":
            return self.record_of_code()
        if name == "per_thread":
            return CPerThread.GetPerThread(self.thread_id())
        if name == "thread_id":
            return self.thread_id()
        if name in ("create", "canonical", "remove", "invalidate_capsule", "can_return_disable"):
            return self.choose((True, False))
        if name == "index":
            return self.choose((CPerCodeObject._fCodeObjectExtraIndex, 250, -1))
        if name in ("lineno_obj", "kind", "depth", "this_module_depth", "mask", "domain"):
            return self.random.randrange(-1, 12)
        if name == "event_id":
            return self.choose(tuple(EVENT_IDS.values()))
        if name == "n":
            return self.random.randrange(20)
        if name == "count":
            return self.choose((-1, 0, 1))
        if name == "d":
            return self.choose(({}, {INTERNAL: True}))
        if name == "s":
            return self.choose(("text\n", answer_text))
        if name == "fileno":
            return self.choose((0, -1, 10**6))
        if name == "win32_handle":
            return None
        return self.witness()

    def thread_id(self):
        idents = [None, threading.get_ident(), FOREIGN_THREAD_ID, *(worker.ident for worker in self.workers)]
        return self.choose(idents)

    def argument(self, name):
        """A value for the parameter of that name: a plausible one, or anything in a wild round."""
        kind = self.random.random()
        if self.is_tame or kind < 0.6:
            value = self.attempt(self.plausible, name)
        elif kind < 0.8 and self.pool:
            value = self.choose(self.pool)
        else:
            value = self.choose(self.nasty)
        if isinstance(value, int):
            if name in ("n", "count") and abs(int.__index__(value)) > 100:
                return 3  # it is done so often
            if name == "fileno":
                return 0  # the process's own descriptors are not to be written to
        return value

    def arguments(self, parameters):
        """Positional and named arguments for parameters as in the tables."""
        names = interface.parameter_names(parameters)
        required = interface.required_count(parameters)
        given = self.random.randint(required, len(names))
        positional = self.random.randint(0, given)
        if not self.is_tame and self.random.random() < 0.1:
            given = positional = self.random.randint(0, len(names) + 2)
        args = [self.argument(name) for name in names[:positional]]
        args += [self.choose(self.nasty) for _ in range(positional - len(args))]
        kwargs = {name: self.argument(name) for name in names[positional:given]}
        if not self.is_tame and self.random.random() < 0.05:
            kwargs[self.choose(("unknown", "", "self", "\ud800", "pathname"))] = None
        return args, kwargs

    def keep(self, value):
        """Lets later steps come upon a result."""
        if len(self.pool) < 40:
            self.pool.append(value)
        else:
            self.pool[self.random.randrange(40)] = value

    # Calls

    def attempt(self, call, /, *args, **kwargs):
        """Makes one call. Returns its result, or None; what it may raise depends on the round."""
        self.calls += 1
        try:
            return call(*args, **kwargs)
        except (*TAME_ERRORS, *ENDURED_ERRORS):
            return None
        except Exception as error:
            text = str(error) if type(error) is SystemError else ""
            if self.is_tame or any(broken in text for broken in test_nasty_arguments.BROKEN_PROTOCOL):
                raise
            return None

    def call_function(self):
        name = self.choose(tuple(interface.FUNCTIONS) if not self.is_tame else TAME_FUNCTIONS)
        args, kwargs = self.arguments(interface.FUNCTIONS[name])
        self.say(name, args, kwargs)
        if name == "AddToThreadStateTracing":
            return self.change_tracing(args, kwargs)
        self.keep(self.attempt(getattr(xo, name), *args, **kwargs))

    def change_tracing(self, args, kwargs):
        """Raises or lowers the tracing level around another step, so that the thread hears events afterwards."""
        if xo.dbgpythonapi is None or args and kwargs or len(args) + len(kwargs) != 1:
            return
        count = (args or list(kwargs.values()))[0]
        if not isinstance(count, int):
            self.attempt(xo.AddToThreadStateTracing, *args, **kwargs)
            return
        count = abs(int.__index__(count))  # a level below zero is an error of the caller, which debug builds assert
        xo.set_dprintf_mask(0)  # a log that fails would fail the second call as well
        xo.AddToThreadStateTracing(count)
        try:
            run_monitored(self.choose(self.functions), 2)
        finally:
            xo.AddToThreadStateTracing(-count)

    def call_class_method(self):
        path, name = self.choose(CLASS_METHODS if not self.is_tame else TAME_CLASS_METHODS)
        cls = interface.find_class(xo, path)
        args, kwargs = self.arguments(interface.CLASSES[path].class_methods[name])
        self.say(path, name, args, kwargs)
        self.keep(self.attempt(getattr(cls, name), *args, **kwargs))

    def instance(self, path):
        """An instance of the class of that path, or what passes for one in a wild round."""
        cls = interface.find_class(xo, path)
        if not self.is_tame and self.random.random() < 0.3:
            return self.choose((cls.__new__(cls), *self.pool[:8], self.choose(self.nasty)))
        if path == "CPerFile":
            return CPerFile.GetPerFile(self.choose(PATHNAMES))
        if path == "CPerCodeObject":
            return self.record_of_code()
        if path == "CPerThread":
            return CPerThread.GetPerThread(self.thread_id())
        if path == "CPerThread._CCleanupSupport":
            return CPerThread._CCleanupSupport(CPerThread.GetPerThread(FOREIGN_THREAD_ID))
        if path == "CInitialCallback":
            return self.choose(self.callbacks)
        if path == "_CCanonicalPathnameMgr":
            return self.choose((xo._gCanonicalPathnameMgr, cls()))
        return cls()

    def call_method(self):
        path, name = self.choose(METHODS if not self.is_tame else TAME_METHODS)
        instance = self.attempt(self.instance, path)
        if instance is None:
            return
        args, kwargs = self.arguments(interface.CLASSES[path].methods[name])
        self.say(path, name, args, kwargs)
        if name in ("Callback", "_SkipDetermination"):
            args += kwargs.values()
            kwargs = {}
            args += [self.random.randrange(60)] * (2 - len(args))
        self.keep(self.attempt(getattr(interface.find_class(xo, path), name), instance, *args, **kwargs))

    def make_instance(self):
        path = self.choose(tuple(interface.CLASSES))
        cls = interface.find_class(xo, path)
        if self.random.random() < 0.2:
            cls = type("Sub", (cls,), {})
        args, kwargs = self.arguments(interface.CLASSES[path].methods.get("__init__", ()))
        self.say(cls, args, kwargs)
        self.keep(self.attempt(cls, *args, **kwargs))

    def touch_field(self):
        path = self.choose(tuple(interface.CLASSES))
        table = interface.CLASSES[path]
        if not table.fields:
            return
        instance = self.attempt(self.instance, path)
        name = self.choose(tuple(table.fields))
        value = self.argument(name)
        action = self.random.randrange(4)
        self.say(path, name, action, type(value))
        if not isinstance(instance, interface.find_class(xo, path)):
            return
        if action == 0:
            self.attempt(delattr, instance, name)
        elif action == 1:
            self.attempt(setattr, instance, name, value)
        self.keep(self.attempt(getattr, instance, name))

    def touch_class_field(self):
        cls, name, original = self.choose(self.class_fields)
        value = self.argument(name)
        self.say(cls, name, type(value))
        if self.random.random() < 0.4:
            self.attempt(setattr, cls, name, value)
        elif self.random.random() < 0.1:
            self.attempt(delattr, cls, name)
        else:
            self.keep(self.attempt(getattr, cls, name))
        if self.random.random() < 0.7:
            self.attempt(setattr, cls, name, original)

    def touch_module(self):
        name, _ = self.choose(interface.MODULE_ATTRIBUTES)
        value = self.argument(name)
        self.say(name, type(value))
        self.keep(self.attempt(getattr, xo, name))
        for change in (lambda: setattr(xo, name, value), lambda: delattr(xo, name)):
            try:
                change()
            except (AttributeError, TypeError):
                continue
            raise AssertionError(f"the module's {name} was changed")

    # The debugger's own life

    def run_code(self):
        function, size = self.choose(self.functions), self.random.randrange(6)
        run_monitored(function, size)

    def run_event(self):
        self.say("run")
        self.attempt(self.run_code)

    def set_breakpoints(self):
        code = self.choose(self.codes)
        lines = sorted({line for _, _, line in code.co_lines() if line})
        chosen = set(self.random.sample(lines, self.random.randint(0, len(lines))))
        record = self.attempt(CPerCodeObject.GetPerCodeObject, code)
        self.say(code.co_name, chosen)
        if not isinstance(record, CPerCodeObject):
            return
        record.fEnabledBpLinenos = self.choose((None, chosen, chosen, set()))
        record.fSteppingEventsNeededCount = self.random.randrange(2)
        record.fReturnEventsNeededCount = self.random.randrange(2)

    def change_stepping(self):
        callback = self.choose(self.callbacks)
        self.say("stepping")
        callback.fSteppingEventsNeededEveryThread = self.random.random() < 0.3
        callback._fCanReturnDisable = self.random.random() < 0.5
        record = self.attempt(CPerThread.GetPerThread, self.thread_id())
        if isinstance(record, CPerThread):
            record.fDebugPolicy = self.choose((-1, 0, 1))
            record.fSteppingEventsNeeded = self.random.random() < 0.3
            record.fStopAtNextLine = self.random.random() < 0.3

    def change_monitoring(self):
        monitoring = sys.monitoring
        events = 0
        for event in (getattr(monitoring.events, name) for name in EVENT_IDS):
            events |= event if self.random.random() < 0.6 else 0
        # A wild round's values are hashed in Python, under the registry lock even; an event there would wait for it.
        local = self.random.random() < 0.6 or not self.is_tame
        code = self.choose(self.codes)
        self.say("local" if local else "global", events)
        if local:
            monitoring.set_local_events(TOOL_ID, code, events)
        else:
            monitoring.set_events(TOOL_ID, events if self.random.random() < 0.3 else 0)
        if self.random.random() < 0.2:
            monitoring.restart_events()

    def change_callback(self):
        name = self.choose(tuple(EVENT_IDS))
        second = self.choose((answer_nothing, answer_disable, fail, self.hear, self.hear))
        callback = xo.CInitialCallback(EVENT_IDS[name], second, self.random.random() < 0.5)
        self.say(name, second)
        self.callbacks.append(callback)
        self.register(name, callback)

    def register(self, name, callback):
        sys.monitoring.register_callback(TOOL_ID, getattr(sys.monitoring.events, name), callback.Callback)

    def hear(self, *args):
        self.heard.append(args)

    def change_log(self):
        self.say("log")
        if self.random.random() < 0.5:
            xo.set_dprintf_file(None, 0, None)
            xo.set_dprintf_mask(0)
        else:
            error = NastyError if self.random.random() < 0.2 else None  # the class: a new one each time
            xo.set_dprintf_file(RecordingWriter(error=error), 0, None)
            xo.set_dprintf_mask(-1)

    def replace_code(self):
        """Lets a code object die, and another take its place."""
        index = self.random.randrange(len(self.codes))
        self.say(index)
        code = self.codes[index] = self.codes[index].replace()
        if index < len(self.functions):
            self.functions[index] = types.FunctionType(code, globals(), code.co_name)

    def store_extra(self):
        """A value of our own in a slot of our own."""
        self.say("extra")
        index = extra_index()
        if index != -1:
            self.attempt(xo._Code_SetExtra, self.code(), index, self.witness())
            self.keep(self.attempt(xo._Code_GetExtra, self.code(), index))

    def forget(self):
        self.say("forget")
        del self.pool[self.random.randrange(len(self.pool) + 1):]
        if self.random.random() < 0.3:
            gc.collect()

    def reset(self):
        self.say("reset")
        self.attempt(xo.reset)

    def come_back_from_within(self):
        """A callback that changes under its caller what that works with."""
        self.say("re-entering")
        callback = reentering(self.pull_the_rug_away, "__call__")
        setter = self.choose((CPerFile.SetNewPerFileCreatedCallback, xo.set_checksum_callback,
                              CPerCodeObject.SetNewPerCodeObjectCreatedCallback,
                              CPerThread.SetNewPerThreadCreatedCallback, CPerThread.SetGetThreadNameCallback))
        self.attempt(setter, callback)
        self.attempt(CPerFile.GetPerFile, f"/srv/app/{self.step_number}.py")
        self.attempt(CPerCodeObject.GetPerCodeObject, make_code("/srv/app/a.py"))
        self.attempt(CPerThread.GetPerThread, FOREIGN_THREAD_ID + self.step_number)
        self.attempt(setter, None)

    @staticmethod
    def pull_the_rug_away():
        if not CurrentRegistryLock.locked():
            xo.reset()

    def be_on_windows(self):
        self.say("win32")
        platform, sys.platform = sys.platform, "win32"
        try:
            for _ in range(3):
                name = self.choose(("lookup_canonical_pathname", "register_canonical_pathname",
                                    "get_canonical_pathname", "IsInternalPathname"))
                args, kwargs = self.arguments(interface.FUNCTIONS[name])
                self.attempt(getattr(xo, name), *args, **kwargs)
        finally:
            sys.platform = platform

    # Threads

    def change_workers(self):
        self.say("workers")
        if len(self.workers) < 3 and self.random.random() < 0.6:
            worker = Worker()
            worker.__enter__()
            self.workers.append(worker)
        elif self.workers:
            self.workers.pop(self.random.randrange(len(self.workers))).end()

    def work_elsewhere(self):
        """One step on another thread, which this one waits for."""
        if self.workers:
            worker = self.choose(self.workers)
            step = self.choose((self.run_event, self.call_class_method, self.call_method, self.reset))
            self.say("elsewhere:", step.__name__)
            worker.call(step)

    def hold_a_worker(self):
        """Holds a thread in its next event, if it comes to one, and lets it go again."""
        if not self.workers or not self.is_tame:
            return  # in a wild round this thread's record may have come by the same lock
        worker = self.choose(self.workers)
        self.say("hold")
        record = self.attempt(CPerThread.GetPerThread, worker.ident)
        lock = getattr(record, "fSuspendLock", None) if isinstance(record, CPerThread) else None
        if type(lock) is not type(threading.Lock()) or not lock.acquire(blocking=False):
            return
        try:
            record.fCheckSuspendLock = True
            for callback in self.callbacks:
                callback.fAnySuspendThread = True
            call = worker.begin(self.attempt, run_monitored, self.choose(self.functions), 2)
            call.is_done(0.002)
        finally:
            record.fCheckSuspendLock = False
            for callback in self.callbacks:
                callback.fAnySuspendThread = False
            lock.release()
        call.result()

    def all_at_once(self):
        """Steps that need no choice of ours, on all threads at the same time."""
        self.say("all at once")
        codes = [make_code("/srv/app/a.py") for _ in range(5)]
        ident = threading.get_ident()

        def shake(chance):
            for _ in range(20):
                job = chance.randrange(6)
                if job == 0:
                    self.attempt(CPerCodeObject.GetPerCodeObject, codes[chance.randrange(5)])
                elif job == 1:
                    self.attempt(CPerFile.GetPerFile, PATHNAMES[chance.randrange(len(PATHNAMES))])
                elif job == 2:
                    self.attempt(CPerThread.GetPerThread, chance.choice((None, ident, FOREIGN_THREAD_ID)))
                elif job == 3:
                    self.attempt(xo.get_canonical_pathname, PATHNAMES[chance.randrange(len(PATHNAMES))])
                elif job == 4:
                    self.attempt(run_monitored, self.functions[chance.randrange(len(self.functions))], 2)
                elif chance.random() < 0.2:
                    self.attempt(xo.reset)

        calls = [worker.begin(shake, random.Random(self.random.random())) for worker in self.workers]
        shake(random.Random(self.random.random()))
        for call in calls:
            call.result()

    def fork(self):
        """A child that does some steps of its own and ends well."""
        if not hasattr(os, "fork"):
            return
        self.say("fork")
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)  # of other threads, which wait for work here
            child = os.fork()
        if child == 0:
            status = 1
            try:
                signal.alarm(time_limit(30))  # the watchdog of faulthandler is a thread, and gone
                self.workers = []
                if self.random.random() < 0.7:
                    self.attempt(xo.UpdateThisProcessPid)
                for _ in range(5):
                    self.make_step(SAFE_IN_CHILD)
                self.put_back()
                xo.reset()
                self.check_alive()
                status = 0
            except BaseException:
                sys.excepthook(*sys.exc_info())
            finally:
                os._exit(status)
        _, wait_status = os.waitpid(child, 0)
        assert wait_status == 0, f"the forked child ended with wait status {wait_status}"

    # The round

    def say(self, *words):
        if self.tell is not None:
            self.tell(f"{self.name} step {self.step_number}: {sys._getframe(1).f_code.co_name} " +
                      " ".join(map(describe, words)))

    def make_step(self, steps):
        self.step_number += 1
        getattr(self, self.random.choices(*steps)[0])()
        assert sys.exception() is None, "an exception is still being handled"

    def run(self):
        monitoring = sys.monitoring
        unraisable, sys.unraisablehook = sys.unraisablehook, lambda info: None
        log_exception = xo.dlog.LogException
        xo.dlog.LogException = lambda *args: self.logged.append(sys.exception())
        monitoring.use_tool_id(TOOL_ID, "random calls")
        faulthandler.dump_traceback_later(time_limit(ROUND_LIMIT), exit=True)
        xo.reset()
        try:
            for name in EVENT_IDS:
                callback = xo.CInitialCallback(EVENT_IDS[name], self.hear, False)
                self.callbacks.append(callback)
                self.register(name, callback)
            for _ in range(self.steps):
                self.make_step(TAME_STEPS if self.is_tame else WILD_STEPS)
            self.check()
        finally:
            faulthandler.cancel_dump_traceback_later()
            for worker in self.workers:
                worker.end()
            self.stop_monitoring()
            monitoring.free_tool_id(TOOL_ID)
            xo.dlog.LogException = log_exception
            sys.unraisablehook = unraisable

    def stop_monitoring(self):
        sys.monitoring.set_events(TOOL_ID, 0)
        for name in EVENT_IDS:
            sys.monitoring.register_callback(TOOL_ID, getattr(sys.monitoring.events, name), None)
        for code in self.codes:
            sys.monitoring.set_local_events(TOOL_ID, code, 0)

    # What has to hold

    def put_back(self):
        """Undoes what a wild round has assigned to the classes and to the one manager of pathnames."""
        for cls, name, value in self.class_fields:
            if getattr(cls, name, None) is not value:
                setattr(cls, name, value)
            if not self.is_tame and isinstance(value, (dict, set)):
                value.clear()  # it may have been assigned to another field, and filled there
        if not self.is_tame:
            xo._gCanonicalPathnameMgr.__init__()
            # A thread can be made to cache any record, one that is not registered, say.
            for clear in (xo._CPerThreadTssCache.Clear, *(worker_clear(worker) for worker in self.workers)):
                clear()

    def check(self):
        self.stop_monitoring()
        self.put_back()
        assert not CPerThread._fRegistryLock.locked(), "the registry lock is held"
        if self.is_tame:
            check_records(self)
            self.check_log()
        xo.reset()
        check_empty()
        self.check_alive()
        for worker in self.workers:
            worker.call(self.check_alive)
        xo.reset()
        self.check_released()

    def check_log(self):
        unexpected = [error for error in self.logged if not isinstance(error, TAME_ERRORS + ENDURED_ERRORS)]
        assert not unexpected, f"the exception log was given {unexpected}"

    @staticmethod
    def check_alive():
        """A breakpoint of a new program is hit, and nothing else is."""
        code = make_code(f"/srv/alive/{threading.get_ident()}.py", "first = 1\nsecond = 2\nthird = 3\n")
        hits = []
        callback = xo.CInitialCallback(xo.kPyLineEventId, lambda *args: hits.append(args), False)
        record = CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
        assert isinstance(record, CPerCodeObject) and record.fCodeObjectWeakRef() is code, record
        record.fEnabledBpLinenos = {2}
        monitoring = sys.monitoring
        monitoring.use_tool_id(PROBE_TOOL_ID, "alive")
        try:
            monitoring.register_callback(PROBE_TOOL_ID, monitoring.events.LINE, callback.Callback)
            monitoring.set_local_events(PROBE_TOOL_ID, code, monitoring.events.LINE)
            exec(code, {})
        finally:
            monitoring.set_local_events(PROBE_TOOL_ID, code, 0)
            monitoring.register_callback(PROBE_TOOL_ID, monitoring.events.LINE, None)
            monitoring.free_tool_id(PROBE_TOOL_ID)
        assert hits == [(code, 2)], f"the breakpoint was hit {len(hits)} times: {hits}"
        thread_record = CPerThread.GetPerThread()
        assert isinstance(thread_record, CPerThread), thread_record
        assert thread_record.fThreadId == threading.get_ident(), thread_record.fThreadId
        assert CPerThread.GetPerThread(threading.get_ident(), False) is thread_record
        assert xo.get_canonical_pathname("/srv/alive/b.py") == "/srv/alive/b.py"

    def check_released(self):
        """Nothing that the round has made is still held, now that the module is reset and the round lets it go."""
        for worker in self.workers:
            worker.end()
        self.workers, self.pool, self.nasty, self.heard, self.logged = [], [], [], [], []
        self.callbacks = []
        if is_free_threaded() and sys.version_info < (3, 14):
            return  # code objects never die there, nor does what is in their slots
        self.codes, self.functions = [], []
        for _ in range(3):
            gc.collect()
        alive = [witness() for witness in self.witnesses if witness() is not None]
        assert not alive, (f"{len(alive)} of {len(self.witnesses)} objects are still held, by"
                           f" {gc.get_referrers(alive[0])}")


def worker_clear(worker):
    return lambda: worker.call(xo._CPerThreadTssCache.Clear)


def describe(word):
    """The word's text, whatever it is."""
    if isinstance(word, (list, tuple)):
        return "(" + ", ".join(map(describe, word)) + ")"
    if isinstance(word, dict):
        return "{" + ", ".join(f"{key!a}: {describe(value)}" for key, value in list(word.items())[:9]) + "}"
    if type(word) is int and word > 10**12:
        return "<int>"  # a thread's id, which is another each time
    if type(word) in (str, int, bool, type(None), float, bytes, set):
        return ascii(word)[:80]
    return f"<{type(word).__name__} {getattr(word, '__qualname__', '') if type(word) is type else ''}>"


_extra_indexes = []


def extra_index():
    """A slot in code objects of our own; one for the process, since they are few."""
    if not _extra_indexes:
        _extra_indexes.append(xo._Code_RequestExtraIndexForOwnedRef())
    return _extra_indexes[0]


def check_records(the_round):
    """Each record is filed where it says that it belongs, and nowhere else."""
    for pathname, record in list(CPerFile._fPerFileDict.items()):
        assert record.fCanonicalPathname == pathname, (pathname, record.fCanonicalPathname)
        assert CPerFile.GetPerFile(pathname, False) is record, pathname
        for known in list(record.fKnownPerCodeObjects):
            assert known.fCanonicalPathname == pathname, (pathname, known.fCanonicalPathname)
            assert known.fCodeObjectWeakRef() is not None, pathname
        if record.fChecksum is not None:
            assert record in CPerFile.GetPerFileSetForChecksum(record.fChecksum), pathname
    for checksum, group in list(CPerFile._fByChecksum.items()):
        assert group, checksum
        for record in group:
            assert record.fChecksum == checksum, (checksum, record.fChecksum)
    for code in the_round.codes:
        record = CPerCodeObject.GetPerCodeObject(code, False)
        assert record is None or record.fCodeObjectWeakRef() is code, code
    for thread_id, record in list(CPerThread._fPerThreadDict.items()):
        assert record.fThreadId == thread_id, (thread_id, record.fThreadId)
    assert not CPerThread._fDestructorActiveThreadIds, CPerThread._fDestructorActiveThreadIds
    own = xo._CPerThreadTssCache.Get()
    assert own is None or own.fThreadId == threading.get_ident(), own


def check_empty():
    """What a reset leaves."""
    manager = xo._gCanonicalPathnameMgr
    for what, container in {
            "files": CPerFile._fPerFileDict, "groups": CPerFile._fByChecksum,
            "code objects": CPerCodeObject._fPerCodeObjectDict, "threads": CPerThread._fPerThreadDict,
            "names": manager.fByName, "identities": manager.fByUniqueFileno, "checksums": manager.fByChecksum,
            "names not found": manager.fNotFoundCache, "internal": xo._gInternalPathnameDict}.items():
        assert not container, f"{what} after a reset: {container}"
    assert xo._gDPrintfFile is None and xo.get_dprintf_mask() == 0
    assert xo.get_checksum_callback() is None
    for cls, name in ((CPerFile, "_fNewPerFileCreatedCallback"), (CPerThread, "_fNewPerThreadCreatedCallback"),
                      (CPerCodeObject, "_fNewPerCodeObjectCreatedCallback"), (CPerThread, "_fDebugPolicyCallback"),
                      (CPerThread, "_fGetThreadNameCallback")):
        assert getattr(cls, name) is None, (name, getattr(cls, name))


def _all_of(kind):
    return tuple((path, name) for path, table in interface.CLASSES.items() for name in getattr(table, kind))


CLASS_METHODS, METHODS = _all_of("class_methods"), _all_of("methods")

#: What a debugger calls, as opposed to what the module calls itself.
TAME_FUNCTIONS = (
    "_GetPid", "_GetThreadIdent", "dprintf", "get_dprintf_mask", "GetPathnameKind", "lookup_canonical_pathname",
    "register_canonical_pathname", "get_canonical_pathname", "get_checksum_callback", "_get_checksum_for_pathname",
    "SetInternalPathnameDict", "IsInternalPathname", "GetNonInternalFrame", "UpdateThisProcessPid",
    "_GetThreadStateDict", "AddToThreadStateTracing", "_FrameCodeMatches",
)
TAME_CLASS_METHODS = (
    ("CPerFile", "GetPerFile"), ("CPerFile", "GetAllPerFiles"), ("CPerFile", "SetNewPerFileCreatedCallback"),
    ("CPerCodeObject", "GetPerCodeObject"), ("CPerCodeObject", "SetNewPerCodeObjectCreatedCallback"),
    ("CPerThread", "GetPerThread"), ("CPerThread", "GetAllPerThreads"),
    ("CPerThread", "SetNewPerThreadCreatedCallback"), ("CPerThread", "SetGetThreadNameCallback"),
)
TAME_METHODS = (
    ("CPerFile", "UpdateChecksum"), ("CPerCodeObject", "_AddToPerFile"), ("CPerCodeObject", "_DiscardFromPerFile"),
    ("CPerThread", "GetDebugPolicy"), ("CPerThread", "FindThreadName"), ("CInitialCallback", "Callback"),
    ("CInitialCallback", "_IsInitialCallbackLogging"), ("CInitialCallback", "_SkipDetermination"),
)


def _weighted(**weights):
    return tuple(weights), tuple(weights.values())


_DEBUGGER_STEPS = {
    "call_function": 12, "call_class_method": 12, "call_method": 12, "run_event": 14, "set_breakpoints": 8,
    "change_stepping": 4, "change_monitoring": 6, "change_callback": 3, "change_log": 2, "replace_code": 3,
    "store_extra": 2, "forget": 2, "reset": 2, "change_workers": 2, "work_elsewhere": 4, "hold_a_worker": 1,
    "all_at_once": 0.5, "fork": 0.1, "be_on_windows": 0,
}
TAME_STEPS = _weighted(**_DEBUGGER_STEPS)
WILD_STEPS = _weighted(**{
    **_DEBUGGER_STEPS, "call_function": 20, "call_class_method": 20, "call_method": 30, "make_instance": 6,
    "touch_field": 12, "touch_class_field": 8, "touch_module": 2, "come_back_from_within": 1, "be_on_windows": 2})
SAFE_IN_CHILD = _weighted(call_class_method=3, run_event=3, set_breakpoints=2, call_function=2, reset=1)


# Runs ----------------------------------------------------------------------------------------------------


def run(seed, first_round=0, last_round=None, seconds=None, tell=None, announce=False):
    """Makes rounds until the last one, or until the time is up. Returns how many rounds and calls there were."""
    end = None if seconds is None else time.monotonic() + seconds
    calls = count = 0
    for number in itertools.count(first_round):
        if (last_round is not None and number > last_round) or (end is not None and time.monotonic() > end and count):
            break
        if announce:
            print(f"seed {seed} round {number}", flush=True)
        the_round = Round(seed, number, tell=tell)
        try:
            the_round.run()
        except BaseException as error:
            kind = "tame" if the_round.is_tame else "wild"
            error.add_note(f"in {the_round.name} ({kind}), step {the_round.step_number}: repeat it with"
                           f" --seed {seed} --round {number} --verbose")
            raise
        calls += the_round.calls
        count += 1
    return count, calls


def main(words):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seed", type=int, help="what to begin with; a new one, which is printed, without this")
    parser.add_argument("--seconds", type=float, default=60, help="how long to go on")
    parser.add_argument("--round", type=int, help="only this round of the seed")
    parser.add_argument("--first", type=int, default=0, help="the round to begin with")
    parser.add_argument("--verbose", action="store_true", help="tell each step before it is made")
    options = parser.parse_args(words)
    seed = options.seed if options.seed is not None else random.SystemRandom().randrange(10**9)
    first = options.first if options.round is None else options.round
    last = options.round
    print(f"seed {seed}", flush=True)
    tell = (lambda text: print(text, flush=True)) if options.verbose else None
    start = time.monotonic()
    rounds, calls = run(seed, first, last, None if last is not None else options.seconds, tell, announce=True)
    print(f"{rounds} rounds, {calls} calls in {time.monotonic() - start:.1f} s: nothing found", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
