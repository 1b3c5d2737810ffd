"""The module's own callback, set up the way a tracer does it, for code whose events are to be skipped."""

import sys

from vorntracer import xoptmonitoring as xo


def _log_exception(*args):
    raise sys.exception()


def second_stage_never(*args):
    """The second stage where no event may reach it."""
    raise AssertionError("an event that is to be skipped reached the second stage")


def prepare():
    """Name the threads, as a tracer does, and let any failure of the first stage end the measurement."""
    xo.dlog.LogException = _log_exception
    xo.CPerThread.SetGetThreadNameCallback(lambda thread: "thread")
    xo.CPerThread.GetPerThread().GetDebugPolicy()


def make(code, event, linenos, second_stage=second_stage_never, can_return_disable=False, is_internal=False):
    """A CInitialCallback for an event, and the record of a code object with breakpoints in these lines."""
    if is_internal:
        xo.SetInternalPathnameDict({code.co_filename: True})
    record = xo.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
    xo.SetInternalPathnameDict({})
    if record.fIsInternal != is_internal:
        raise RuntimeError("{!r} is not what it should be".format(record))
    record.fEnabledBpLinenos = set(linenos)
    return xo.CInitialCallback(event, second_stage, can_return_disable)
