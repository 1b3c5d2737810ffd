"""Allocations that fail on demand, for a process of its own: `each_failure`, and a `Probe` of what was left behind.

The suite compiles `failing_allocations.c` and names the library in XO_FAILING_ALLOCATIONS; it also has it loaded
before the C library, so that the allocations of native code are counted too (not under a sanitizer, which keeps
those to itself). With XO_FAILING_NATIVE_ONLY set, those are the only ones that fail.
"""

import _thread
import ctypes
import os
import sys
import time
import weakref

_TOO_MANY = 5000


class _Library:
    def __init__(self, pathname):
        library = ctypes.PyDLL(pathname)
        if "XO_FAILING_NATIVE_ONLY" not in os.environ and library.install() != 0:
            raise RuntimeError("this interpreter's allocators cannot be replaced")
        self.call_failing = library.call_failing
        self.call_failing.restype = ctypes.py_object
        self.call_failing.argtypes = [ctypes.py_object, ctypes.c_long, ctypes.c_int, ctypes.POINTER(ctypes.c_long)]
        self.fail_until_the_end = library.fail_until_the_end
        self.fail_until_the_end.restype = None
        self.fail_until_the_end.argtypes = [ctypes.c_long, ctypes.c_int, ctypes.POINTER(ctypes.c_long)]


#: What threads that may not be quite over yet still count in.
_outliving = []

_library = _Library(os.environ["XO_FAILING_ALLOCATIONS"])


def each_failure(make, from_there_on=False):
    """Calls `make()()` with its first allocation failing, then its second, and so on until there is none to fail.

    With `from_there_on`, all allocations after the failing one fail as well. Yields, for each call, its number and
    what it returned or raised; the last one is the call in which nothing failed.
    """
    failed = ctypes.c_long(1)
    for number in range(1, _TOO_MANY):
        callable_ = make()
        try:
            outcome = _library.call_failing(callable_, number, from_there_on, ctypes.byref(failed))
        except BaseException as error:
            error.__traceback__ = None
            outcome = error
        del callable_
        yield number, outcome
        if not failed.value:
            return
    raise AssertionError(f"there is no end to the allocations of {make}")


def check_count(number, many):
    """There were more calls than `many`, and so enough failures to say something; of native calls there are few."""
    assert number > (1 if "XO_FAILING_NATIVE_ONLY" in os.environ else many), number


class _LastWitness:
    """Dies with the thread state in whose dictionary it is, after what was put there before."""


def each_failing_end(xo, work, from_there_on=False):
    """The same for the end of a thread that has called `work()`; yields the number of the allocation that failed."""
    for number in range(1, _TOO_MANY):
        failed = ctypes.c_long(-1)
        witnesses = []

        def run():
            work()
            witness = _LastWitness()
            xo._GetThreadStateDict()["witness"] = witness
            witnesses.append(weakref.ref(witness))
            del witness
            _library.fail_until_the_end(number, from_there_on, failed)

        _thread.start_new_thread(run, ())
        while not witnesses or witnesses[0]() is not None:
            time.sleep(0.0005)
        _outliving.append(failed)
        yield number
        if not failed.value:
            return
    raise AssertionError("there is no end to the allocations of a thread's end")


def is_lack_of_memory(outcome):
    """Whether that is how lacking memory shows: ctypes puts an error of its own in the place of MemoryError."""
    return isinstance(outcome, MemoryError) or (
        isinstance(outcome, ctypes.ArgumentError) and "MemoryError" in str(outcome))


def _heard():
    """What a probe listens for."""


class Probe:
    """Sees whether a thread still raises monitoring events, and whether the registry lock is free."""

    def __init__(self, xo):
        self._xo = xo
        self._count = 0
        monitoring = sys.monitoring
        monitoring.use_tool_id(5, "probe")
        monitoring.register_callback(5, monitoring.events.PY_START, self._hear)
        monitoring.set_local_events(5, _heard.__code__, monitoring.events.PY_START)

    def _hear(self, code, offset):
        self._count += 1

    def check(self, number, outcome):
        """Fails where an attempt left something behind that would stop the program or its debugger."""
        before = self._count
        _heard()
        assert self._count == before + 1, ("deaf to events after", number, outcome)
        lock = self._xo.CPerThread._fRegistryLock
        assert not lock.locked(), ("the registry lock is held after", number, outcome)
        active = self._xo.CPerThread._fDestructorActiveThreadIds
        assert not active, ("a clean-up is still noted as running after", number, outcome)

    def check_each(self, make, from_there_on=False, then=None, ends_in=None, allocates=True):
        """Checks after each failure, which has to show as lacking memory, or not at all; returns the results.

        The last call, in which nothing fails, has to return, or to raise an exception of the class `ends_in`. That
        may also be raised in place of MemoryError. `then(number, outcome)` is called after each call. A call that
        `allocates` nothing is not worth a test.
        """
        results = []
        number = outcome = None
        for number, outcome in each_failure(make, from_there_on):
            if not isinstance(outcome, BaseException):
                results.append(outcome)
            elif ends_in is None or type(outcome) is not ends_in:
                assert is_lack_of_memory(outcome), (number, outcome)
            self.check(number, outcome)
            if then is not None:
                then(number, outcome)
        if ends_in is None:
            assert not isinstance(outcome, BaseException), ("the last call failed, too", outcome)
        else:
            assert type(outcome) is ends_in, outcome
        if allocates and "XO_FAILING_NATIVE_ONLY" not in os.environ:
            assert number > 1, "nothing is allocated"
        return results
