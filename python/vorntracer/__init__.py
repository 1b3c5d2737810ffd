"""A debugger's tracer for CPython 3.12 and later, on top of the native module `xoptmonitoring`.

    xoptmonitoring   the native module: records, canonical pathnames, first stage of every monitoring event
    tracer           breakpoints, steps, held threads and forked children on top of it
    dbgpythonapi     interpreter functions that the native module calls by way of Python
    demo             `python -m vorntracer.demo`: watch the tracer at work
    events           which monitoring events are on where, for the debuggers below
    bdb, pdb         the interpreter's debuggers, with their events taken from there
    session          the debugger of `python -m vorntracer`, with what goes beyond pdb

Nothing is imported here, so that `from vorntracer import xoptmonitoring` costs no more than it says. Only an
interpreter that is later than the native module's tables costs a look at that file: this package is tested
under it, so the module's word about that would be no news to anybody.
"""

import sys

_LAST_DESCRIBED_VERSION = (3, 14)


def _quiet_native_module():
    """Has the native module say nothing about a version that it has no tables for, before it is imported.

    Leaves things as they are where the file is not there or does not know the function: what is wrong then,
    the import itself says best.
    """
    import ctypes  # which the native module imports in any case
    from importlib.machinery import PathFinder

    spec = PathFinder.find_spec(__name__ + ".xoptmonitoring", __path__)
    if spec is None or spec.origin is None:
        return
    try:
        ctypes.CDLL(spec.origin).XPy_SetQuietAboutLaterVersions(1)
    except (OSError, AttributeError):
        pass


if sys.version_info[:2] > _LAST_DESCRIBED_VERSION:
    _quiet_native_module()


def __getattr__(name):
    """For PYTHONBREAKPOINT=vorntracer.set_trace."""
    if name == "set_trace":
        from .pdb import set_trace

        return set_trace
    raise AttributeError("module {!r} has no attribute {!r}".format(__name__, name))
