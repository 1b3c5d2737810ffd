"""The callbacks of contestants.c as Python callables, and the same filters written in Python.

Runs inside the interpreter that is measured; XOPT_CONTESTANTS names the compiled library.
"""

import ctypes
import os
import sys
import types

_library = ctypes.PyDLL(os.environ["XOPT_CONTESTANTS"])
_library.prepare.argtypes = [ctypes.py_object]
_library.watch_code.argtypes = [ctypes.py_object, ctypes.py_object]
_library.dump_counts.argtypes = [ctypes.c_char_p]

_new_builtin = ctypes.pythonapi.PyCFunction_NewEx
_new_builtin.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p]
_new_builtin.restype = ctypes.py_object

_watched = []  # the sets that the slots of code objects point at


def _builtin(name):
    definition = ctypes.c_char.in_dll(_library, name + "_definition")
    return _new_builtin(ctypes.addressof(definition), None, None)


if _library.prepare(sys.monitoring.DISABLE) != 0:
    raise RuntimeError("the interpreter has no more slots in code objects or threads")

#: A built-in function that answers None.
floor = _builtin("floor")

#: The same, reached through a bound method.
floor_method = types.MethodType(_builtin("floor"), object())

#: A built-in function that answers DISABLE.
disabling_floor = _builtin("disabling_floor")

#: The least that a filter of LINE events, and one of other events, can do.
line_filter = _builtin("line_filter")
thread_filter = _builtin("thread_filter")


def python_floor(*args):
    """A Python function that answers None."""
    return None


def make_python_filter(linenos_of_file):
    """A filter of LINE events written in Python, from a dictionary: file name -> lines with breakpoints."""
    own_pid = os.getpid()
    internal_files = {__file__}
    stepping_threads = set()

    def python_filter(code, lineno):
        if os.getpid() != own_pid:
            return None
        file = code.co_filename
        if file in internal_files:
            return sys.monitoring.DISABLE
        if not stepping_threads and lineno not in linenos_of_file.get(file, ()):
            return None
        raise RuntimeError("the event is none that is skipped")

    return python_filter


def watch(code, linenos):
    """Make the filters skip the events of a code object in the calling thread, but for those lines."""
    linenos = set(linenos)
    _watched.append(linenos)
    if _library.watch_code(code, linenos) != 0:
        raise RuntimeError("the slot of the code object cannot be set")
    watch_thread()


def watch_thread():
    """Make the filters skip the events of the calling thread."""
    if _library.watch_thread() != 0:
        raise RuntimeError("the slot of the thread cannot be set")


def filter_of(event):
    """The filter for a `sys.monitoring` event."""
    return line_filter if event == sys.monitoring.events.LINE else thread_filter


is_counting_possible = _library.is_counting_possible
start_counting = _library.start_counting
stop_counting = _library.stop_counting
zero_counts = _library.zero_counts


def dump_counts(title):
    """Write what was counted since the last dump into a file of its own, under that title."""
    _library.dump_counts(title.encode())
