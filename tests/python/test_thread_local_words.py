"""The module beside other libraries that have words of each thread's own, of which the C library sets few aside."""

import os
import shutil
import struct
import tempfile
import unittest

from compiled_helpers import compile_helper
from support import is_sanitized, run_python, xo

# Imports the module and has it serve events and keep records, on this thread and on others.
USE = """
import sys, threading
from vorntracer import xoptmonitoring as xo

def work(number):
    total = 0
    for step in range(number):
        total += step
    return total

stopped, found = [], {}
lines = sorted({line for _, _, line in work.__code__.co_lines() if line})

def announce(record):
    record.fEnabledBpLinenos = {lines[-1]} if record.fCodeObjectWeakRef() is work.__code__ else set()

def second(code, line):
    stopped.append((threading.get_ident(), code, line))

def run(number):
    results = [work(number) for _ in range(3)]
    assert results == [number * (number - 1) // 2] * 3, results
    own = xo.CPerThread.GetPerThread()
    assert own is xo.CPerThread.GetPerThread()
    found[threading.get_ident()] = own
    barrier.wait()

xo.CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announce)
tool = sys.monitoring.DEBUGGER_ID
sys.monitoring.use_tool_id(tool, "words")
callbacks = [xo.CInitialCallback(event, second, True) for event in (xo.kPyLineEventId, xo.kPyStartEventId)]
for event, callback in zip((xo.kPyLineEventId, xo.kPyStartEventId), callbacks):
    sys.monitoring.register_callback(tool, event, callback.Callback)
sys.monitoring.set_local_events(tool, work.__code__, xo.kPyLineEventId | xo.kPyStartEventId)

barrier = threading.Barrier(5)
threads = [threading.Thread(target=run, args=(number,)) for number in range(10, 14)]
for thread in threads:
    thread.start()
run(9)
for thread in threads:
    thread.join()
assert len({id(record) for record in found.values()}) == 5, found
expected = [(ident, work.__code__, lines[-1]) for ident in found] * 3
assert sorted(stopped, key=str) == sorted(expected, key=str), stopped
"""

# Loads the libraries of a folder, in order, until one is refused. The function `fill` gives their number and the error.
FILL = """
import ctypes.util, os

def fill(folder):
    loaded = []
    for name in sorted(os.listdir(folder)):
        try:
            loaded.append(ctypes.PyDLL(os.path.join(folder, name)))
        except OSError as error:
            return len(loaded), str(error)
    return len(loaded), None
"""


def copy_loadable(source, destination):
    """Copies what the loader maps of a library of 64 bits; its debug information is many times that."""
    with open(source, "rb") as file:
        image = file.read()
    start, = struct.unpack_from("<Q", image, 32)
    size, count = struct.unpack_from("<HH", image, 54)
    end = 0
    for index in range(count):
        kind, _flags, offset, _, _, file_size = struct.unpack_from("<IIQQQQ", image, start + index * size)
        if kind == 1:  # to be mapped
            end = max(end, offset + file_size)
    with open(destination, "wb") as file:
        file.write(image[:end])


class ThreadLocalWords(unittest.TestCase):

    def make_folder(self):
        folder = tempfile.mkdtemp(prefix="xo-words-")
        self.addCleanup(shutil.rmtree, folder)
        return folder

    def test_the_module_needs_none_of_those_that_are_set_aside(self):
        helper = compile_helper("static_tls", self.make_folder())
        folder = self.make_folder()
        for number in range(500):
            shutil.copyfile(helper, os.path.join(folder, f"{number:03}.so"))
        # A library of the sanitizer's own needs such words as well, and would be loaded with the module.
        first = 'ctypes.CDLL(ctypes.util.find_library("ubsan"))' if is_sanitized() else ""
        process = run_python(FILL + f"""
{first}
number, error = fill({folder!r})
assert error is not None and "static TLS" in error, (number, error)
""" + USE)
        self.assertNotIn("Traceback", process.stderr)

    def test_hundreds_of_copies_of_the_module_can_be_loaded(self):
        folder = self.make_folder()
        for number in range(200):
            copy_loadable(xo.__file__, os.path.join(folder, f"{number:03}.so"))
        process = run_python(FILL + f"assert fill({folder!r}) == (200, None), fill({folder!r})\n" + USE)
        self.assertNotIn("Traceback", process.stderr)


if __name__ == "__main__":
    unittest.main()
