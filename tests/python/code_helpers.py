"""Code objects, frames and forked children for the suites that need real ones of a chosen name."""

import ctypes
import gc
import itertools
import json
import os
import sys
import traceback
import unittest
import warnings

from support import is_free_threaded

#: What `make_code` compiles after a line that no other code object has.
CALLING = "result = call()"

frees_code_objects = unittest.skipIf(
    is_free_threaded() and sys.version_info[:2] == (3, 13),
    "a free-threaded 3.13 never frees a code object once a thread was started")

_numbers = itertools.count(1)


def make_code(filename, source=None):
    """A new code object of that file name; without a `source`, it is equal to no other code object."""
    if source is None:
        source = f"number = {next(_numbers)}\n{CALLING}"
    return compile(source, filename, "exec")


def at_distance(distance, action):
    """Calls `action` with the frame that lies `distance` frames inside the caller's frame."""
    if distance > 1:
        return at_distance(distance - 1, action)
    return action(sys._getframe())


def in_frame_of(code, action, distance=0, **global_names):
    """Runs a code object of `make_code` and calls `action` meanwhile, with the frame that runs the code.

    With a `distance`, the frame given is the one so many frames further in. The code's globals are
    `global_names`. Returns what `action` returned.
    """
    def call():
        return action(sys._getframe(1))

    def call_further_in():
        return at_distance(distance - 1, action) if distance > 1 else action(sys._getframe())

    global_names["call"] = call_further_in if distance else call
    try:
        exec(code, global_names)
        return global_names["result"]
    finally:
        global_names.clear()


def collect_code():
    """Lets code objects that nobody holds go away; only a free-threaded interpreter has to be asked."""
    if is_free_threaded():
        gc.collect()


def conversion_error(value):
    """The exception with which this interpreter refuses to make a machine-word integer of `value`."""
    convert = ctypes.pythonapi.PyLong_AsSsize_t
    convert.argtypes = [ctypes.py_object]
    convert.restype = ctypes.c_ssize_t
    try:
        convert(value)
    except (TypeError, OverflowError) as error:
        return error
    raise AssertionError(f"{value!r} is a machine-word integer")


def in_forked_child(action, fork=os.fork):
    """Runs `action` in a forked child and returns its result, which has to survive a trip through JSON."""
    read_end, write_end = os.pipe()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # of forking while other threads run
        child = fork()
    if child == 0:
        try:
            try:
                message = {"result": action()}
            except BaseException:
                message = {"error": traceback.format_exc()}
            os.write(write_end, json.dumps(message).encode())
        finally:
            os._exit(0)
    os.close(write_end)
    with open(read_end, "rb") as f:
        text = f.read()
    _, status = os.waitpid(child, 0)
    if status != 0 or not text:
        raise AssertionError(f"the forked child ended with wait status {status}")
    message = json.loads(text)
    if "error" in message:
        raise AssertionError("in the forked child:\n" + message["error"])
    return message["result"]
