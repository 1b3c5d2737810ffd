"""Small C helpers of the tests, compiled when they are asked for by whatever compiler there is."""

import ctypes
import os
import shutil
import subprocess
import unittest

from support import TESTS_DIR


def compile_helper(name, directory):
    """Compiles `name`.c of this directory to a shared library in `directory` and returns its pathname."""
    compiler = shutil.which(os.environ.get("CC", "").partition(" ")[0]) or shutil.which("cc") \
        or shutil.which("gcc") or shutil.which("clang")
    if compiler is None:
        raise unittest.SkipTest("there is no C compiler for the test's helper")
    library = os.path.join(directory, name + ".so")
    environment = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
    compiled = subprocess.run(
        [compiler, "-O1", "-fPIC", "-shared", "-pthread", "-o", library,
         os.path.join(TESTS_DIR, name + ".c")],
        env=environment, capture_output=True, encoding="utf-8", errors="backslashreplace", check=False)
    if compiled.returncode != 0:
        raise AssertionError(f"the test's helper does not compile:\n{compiled.stderr}")
    return library


def run_calls(library, function_name, *calls):
    """Hands callables to a function of the helper `thread_states`; what any of them raises is raised here."""
    results, errors = [], []

    def guarded(call):
        def run():
            try:
                results.append(call())
            except BaseException as error:
                errors.append(error)
        return run

    array = (ctypes.py_object * len(calls))(*map(guarded, calls))
    function = getattr(ctypes.CDLL(library), function_name)
    function.argtypes = [ctypes.c_void_p]
    if function(ctypes.addressof(array)) != 0:
        raise AssertionError("the helper could not run its thread")
    if errors:
        raise errors[0]
    return results
