"""Check what the built module needs and offers: check_binary.py MODULE_FILE EXPORTED_SYMBOLS_FILE

The module has to load into any interpreter on any machine with the platform's C library. So it may need that
library and the loader only, takes nothing from an interpreter by the linker, has no part of the C++ run-time
library, and offers exactly the listed names.
"""

import collections
import os
import pathlib
import re
import subprocess
import sys

ALLOWED_LIBRARIES = re.compile(r"libc\.so\.6|ld-linux[-\w]*\.so\.\d+")
INTERPRETER_NAME = re.compile(r"_?Py[A-Z_]|_Py_")
CXX_RUNTIME_NAME = re.compile(
    r"__cxa_(throw|rethrow|allocate_exception|begin_catch|end_catch|guard_|bad_)|__gxx_personality"
    r"|_Unwind_|_ZT[IS]|_ZSt\d*__throw|_ZSt9terminate|_ZNSt9exception"
)

Symbol = collections.namedtuple("Symbol", "name version binding visibility is_defined")


def readelf(*arguments):
    """The output of readelf, in English."""
    environment = {**os.environ, "LC_ALL": "C"}
    result = subprocess.run(
        ["readelf", "--wide", *arguments], check=True, stdout=subprocess.PIPE, text=True, env=environment
    )
    return result.stdout


def needed_libraries(module_file):
    return re.findall(r"\(NEEDED\)\s+Shared library: \[(.*)\]", readelf("--dynamic", module_file))


def read_symbols(option, module_file):
    """The symbols of one table (`--dyn-syms`: what the loader sees, `--syms`: all that were linked)."""
    symbols = []
    for line in readelf(option, module_file).splitlines():
        columns = line.split()
        if len(columns) < 8 or not re.fullmatch(r"\d+:", columns[0]):
            continue
        name, _, version = columns[7].partition("@")
        symbols.append(Symbol(name, version.lstrip("@"), columns[4], columns[5], columns[6] != "UND"))
    return symbols


def read_expected_exports(file):
    """The listed names; an empty line or one that begins with # is for the reader only."""
    lines = (line.strip() for line in pathlib.Path(file).read_text().splitlines())
    return {line for line in lines if line and not line.startswith("#")}


def check_libraries(module_file):
    for library in needed_libraries(module_file):
        if not ALLOWED_LIBRARIES.fullmatch(library):
            yield "needs the library {}".format(library)


def check_undefined(dynamic_symbols):
    for symbol in dynamic_symbols:
        if symbol.is_defined or not symbol.name:
            continue
        if INTERPRETER_NAME.match(symbol.name):
            yield "takes {} from the interpreter by the linker".format(symbol.name)
        elif symbol.binding != "WEAK" and not symbol.version.startswith("GLIBC_"):
            yield "needs {}, which the C library does not have".format(symbol.name)


def check_cxx_runtime(all_symbols):
    for name in sorted({symbol.name for symbol in all_symbols}):
        if CXX_RUNTIME_NAME.match(name):
            yield "has a part of the C++ run-time library: {}".format(name)


def check_exports(dynamic_symbols, expected):
    exported = {
        symbol.name
        for symbol in dynamic_symbols
        if symbol.is_defined and symbol.binding != "LOCAL" and symbol.visibility in ("DEFAULT", "PROTECTED")
    }
    for name in sorted(exported - expected):
        yield "offers {}, which is not listed".format(name)
    for name in sorted(expected - exported):
        yield "does not offer {}".format(name)


def main(arguments):
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    module_file, exports_file = arguments
    dynamic_symbols = read_symbols("--dyn-syms", module_file)
    findings = [
        *check_libraries(module_file),
        *check_undefined(dynamic_symbols),
        *check_cxx_runtime(read_symbols("--syms", module_file)),
        *check_exports(dynamic_symbols, read_expected_exports(exports_file)),
    ]
    for finding in findings:
        print("{} {}".format(os.path.basename(module_file), finding))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
