"""Run one fuzz target inside this interpreter: run_fuzzer.py FUZZ_NATIVE_FILE TARGET [LIBFUZZER_OPTION...]

The targets are layouts, arguments and pathnames. The options are libFuzzer's own: -runs=N, -max_total_time=SECONDS, a
folder for the corpus, a file to repeat. The shared object holds the whole module, instrumented, and is imported in
place of the one in the package. CTest's entries show the environment that it needs.
"""

import ctypes
import importlib.util
import sys

import vorntracer

MODULE_NAME = vorntracer.__name__ + ".xoptmonitoring"


def import_instrumented(pathname):
    """The module out of that file."""
    spec = importlib.util.spec_from_file_location(MODULE_NAME, pathname)
    module = importlib.util.module_from_spec(spec)
    sys.modules[MODULE_NAME] = module
    spec.loader.exec_module(module)
    return module


def main(arguments):
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    pathname, target, *options = arguments
    module = import_instrumented(pathname)
    words = [b"fuzz_native", *(option.encode() for option in options)]
    run_fuzzer = ctypes.PyDLL(pathname).run_fuzzer
    run_fuzzer.argtypes = [ctypes.c_char_p, ctypes.py_object, ctypes.c_int, ctypes.POINTER(ctypes.c_char_p)]
    run_fuzzer.restype = ctypes.c_int
    return run_fuzzer(target.encode(), module, len(words), (ctypes.c_char_p * (len(words) + 1))(*words, None))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
