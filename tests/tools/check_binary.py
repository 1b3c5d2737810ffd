"""Check what the built module needs and offers: check_binary.py MODULE_FILE EXPORTED_SYMBOLS_FILE

The module has to load into any interpreter on any machine with the platform's C library. So it may need that
library and the loader only, takes nothing from an interpreter by the linker, has no part of the C++ run-time
library, and offers exactly the listed names. What it keeps for each thread takes no room that is set aside when the
process starts, since others may have used that up.
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


#: A call through the descriptor of a thread-local word; any other call through that register may look the same.
DESCRIPTOR_CALL = re.compile(r"\bcall\s+\*\(%rax\)")
VECTOR_REGISTER = re.compile(r"%[xyz]mm\d")


def output_of(*command):
    """What a tool of the linker's family writes, in English."""
    environment = {**os.environ, "LC_ALL": "C"}
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, env=environment).stdout


def readelf(*arguments):
    return output_of("readelf", "--wide", *arguments)


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


def check_static_storage(module_file):
    if re.search(r"\bSTATIC_TLS\b", readelf("--dynamic", module_file)):
        yield "takes thread-local storage that is set aside when the process starts"


def disassembled_functions(module_file):
    """The name and the text of each function."""
    listing = output_of("objdump", "--disassemble", "--demangle", "--no-show-raw-insn", module_file)
    parts = re.split(r"^[0-9a-f]+ <(.*)>:$", listing, flags=re.MULTILINE)
    return zip(parts[1::2], parts[2::2])


def check_descriptor_calls(module_file):
    """The compiler keeps what it likes in other registers over such a call, but not every C library saves them all."""
    if not re.search(r"\bR_X86_64_TLSDESC\b", readelf("--relocs", module_file)):
        return
    calling = [(name, text) for name, text in disassembled_functions(module_file) if DESCRIPTOR_CALL.search(text)]
    if not calling:
        yield "has descriptors of thread-local words, but no function that seems to read them"
    for name, text in calling:
        if VECTOR_REGISTER.search(text):
            yield "may use vector registers while it reads a thread-local word: {}".format(name)


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
        *check_static_storage(module_file),
        *check_descriptor_calls(module_file),
    ]
    for finding in findings:
        print("{} {}".format(os.path.basename(module_file), finding))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
