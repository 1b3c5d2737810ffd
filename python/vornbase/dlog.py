"""The debugger's log of its own failures.

The debugger runs inside somebody else's program. What goes wrong in it must neither escape into that program
nor get lost, so it is written down here: the last entries are kept, and may be shown as they come in.
"""

import collections
import sys
import traceback

_MAX_ENTRIES = 200

# Text only: a traceback that is kept would keep the program's frames.
_entries = collections.deque(maxlen=_MAX_ENTRIES)
_output_file = None


def LogException(exc, show):
    """Write down an exception with its traceback. Never raises.

    exc is the exception, or None for the one that is being handled. With `show` true the entry also goes to
    the log's output file at once (see SetOutputFile).
    """
    try:
        if exc is None:
            exc = sys.exc_info()[1]
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
