"""The debugger's log of its own failures.

The debugger runs inside somebody else's program. What goes wrong in it must neither escape into that program
nor get lost, so it is written down here: the last entries are kept, and may be shown as they come in.

Some exceptions are no failures and have to get through: the one with which a debugger ends the program, and one that
a signal's handler raises while a callback of the debugger happens to run, which is meant for the program. There are
two ways to say so. `LetPass` names one object; `LetPassFrom` names a function that deals with its own failures, so
that whatever leaves it is meant for the program. An interrupt, as Ctrl-C makes one, that happened to be noticed in
such a function itself does not even show that: it is made anew for the program to notice. The native module logs
what a second stage raises, and an exception that the log raises again goes on to the program; so nobody has to
replace `LogException`.
"""

import _thread
import collections
import signal
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
        if not _is_interrupt_of_program(exc):
            raise exc
        # Goes when this function has returned, and with it the callback: the interpreter looks for signals after
        # each call, and would raise the exception here.
        again = _InterruptAgain()
        return
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
    own could name it. A KeyboardInterrupt that the interpreter's own handler has raised there, and not in what the
    function calls in other files, is not raised again but repeated: the program finds it as soon as the callback has
    returned, at the place where it would have found it without a debugger.
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


class _InterruptAgain:
    """Whose end makes the main thread find an interrupt. A native function does it: it needs no Python code."""

    __del__ = _thread.interrupt_main


def _is_interrupt_of_program(exc):
    """Whether an exception is a plain KeyboardInterrupt, raised by a signal in the declared function's own file."""
    if (type(exc) is not KeyboardInterrupt or threading.current_thread() is not threading.main_thread()
            or signal.getsignal(signal.SIGINT) is not signal.default_int_handler):
        return False
    entry = exc.__traceback__
    if entry is None or id(entry.tb_frame.f_code) not in _passing_codes:
        return False
    own_file = entry.tb_frame.f_code.co_filename
    while entry is not None:
        if entry.tb_frame.f_code.co_filename != own_file:
            return False
        entry = entry.tb_next
    return True


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
