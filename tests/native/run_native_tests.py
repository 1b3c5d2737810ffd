"""Run the native tests inside this interpreter: run_native_tests.py NATIVE_TESTS_FILE [FILTER]

Every interpreter from 2.7 on can run this file. The shared object is called without giving up the
interpreter's lock, since the tests call the interpreter.
"""

from __future__ import print_function

import ctypes
import sys


def main(arguments):
    if len(arguments) not in (1, 2):
        print(__doc__, file=sys.stderr)
        return 2
    filter_text = arguments[1].encode("utf-8") if len(arguments) == 2 else None
    library = ctypes.PyDLL(arguments[0])
    library.run_native_tests.argtypes = [ctypes.c_char_p]
    library.run_native_tests.restype = ctypes.c_int
    print("Native tests under Python {}".format(sys.version.split()[0]))
    sys.stdout.flush()
    return library.run_native_tests(filter_text)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
