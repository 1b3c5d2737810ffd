"""The debugger's log of its own failures.

The debugger runs inside somebody else's program. What goes wrong in it must neither escape into that program
nor get lost, so it is written down here: the last entries are kept, and may be shown as they come in.

Some exceptions are no failures and have to get through: the one with which a debugger ends the program, and one
that a signal's handler raises while a callback of the debugger happens to run, which is meant for the program. There
are two ways to say so. `LetPass` names one object; `LetPassFrom` names a function that deals with its own failures, so
that whatever leaves it is meant for the program. The native module logs what a second stage raises, and an exception
that the log raises again goes on to the program; so nobody has to replace `LogException`.
"""

import collections
import sys
import threading
import traceback

_MAX_ENTRIES = 200

# Text only: a traceback that is kept would keep the program's frames.
_entries = collections.deque(maxlen=_MAX_ENTRIES)
_output_file = None
_passing = threading.local()  # exception: the object that the thread lets pass, until it has passed
_passing_codes = {}  # id of a code object -> the code object; by identity, since equal ones may be of other functions


def LogException(exc, show):
    """Write down an exception with its traceback. Raises nothing but an exception that may pass, which it raises again.

    exc is the exception, or None for the one that is being handled. With `show` true the entry also goes to
    the log's output file at once (see SetOutputFile).
    """
    if exc is None:
        exc = sys.exc_info()[1]
    if isinstance(exc, BaseException) and _may_pass(exc):
        raise exc
    try:
        if exc is None:
            entry = "LogException: no exception is being handled\n"
        else:
            where = getattr(exc, "__traceback__", None) or sys.exc_info()[2]
            entry = "".join(traceback.format_exception(type(exc), exc, where))
    except Exception as failure:
        entry = "LogException: %s while formatting %s\n" % (type(failure).__name__, type(exc).__name__)
    _entries.append(entry)
    if show:
        try:
            output_file = sys.stderr if _output_file is None else _output_file
            output_file.write(entry)
        except Exception:
            pass  # a closed or missing standard error; the entry is kept above


def LetPass(exc):
    """Let this one exception object pass: the next LogException of it on this thread raises it, and writes nothing.

    Another object takes its place; None takes it back.
    """
    _passing.exception = exc


def LetPassFrom(function):
    """Let every exception pass that leaves this Python function, whoever raised it, and return the function.

    Also one that a signal's handler raises before the function's first statement, where no `except` of the function's
    own could name it.
    """
    code = function.__code__
    _passing_codes[id(code)] = code
    return function


def _may_pass(exc):
    """Whether an exception is not to be logged. The traceback's first entry is the frame that it left last."""
    if getattr(_passing, "exception", None) is exc:
        _passing.exception = None
        return True
    left_last = exc.__traceback__
    return left_last is not None and id(left_last.tb_frame.f_code) in _passing_codes


def SetOutputFile(output_file):
    """Choose where shown entries go: an object with a `write` method, or None for standard error."""
    global _output_file
    _output_file = output_file


def GetEntries():
    """Return the entries kept, oldest first, as a list of texts."""
    return list(_entries)


def ClearEntries():
    """Forget the entries kept."""
    _entries.clear()
