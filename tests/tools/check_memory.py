"""Run something under one interpreter and valgrind's memcheck: check_memory.py INTERPRETERS_JSON WORD...

The words are the interpreter's own arguments, a script and what that gets. Any access to memory that is not there or
not initialised fails, and so does memory of ours that nobody can give back any more. Ends with status 77, and says
why, where there is no valgrind, or no interpreter that it can look into.

valgrind follows the first program only, so an interpreter that a script starts is passed over; so is a debug build,
whose own allocator fills and watches memory, and one without a global lock, which has no other allocator than its own.
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys

SKIPPED = 77
FAULTS_FOUND = 99
SUPPRESSIONS = pathlib.Path(__file__).resolve().parent.parent / "native" / "memcheck.supp"


def is_program(path):
    """Whether the system runs that file itself."""
    with open(path, "rb") as file:
        return file.read(4) == b"\x7fELF"


def choose_interpreter(interpreters):
    """The newest that memcheck can look into; None where there is none."""
    usable = [
        entry for entry in interpreters
        if entry["supported"] and not entry["debug"] and not entry["free_threaded"] and not entry.get("sanitizer")
        and is_program(entry["command"])
    ]
    return usable[-1] if usable else None


def skip(reason):
    print("Skipped: {}".format(reason))
    return SKIPPED


def main(arguments):
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    valgrind = shutil.which("valgrind")
    if valgrind is None:
        return skip("there is no valgrind on the PATH")
    interpreter = choose_interpreter(json.loads(pathlib.Path(arguments[0]).read_text()))
    if interpreter is None:
        return skip("there is no interpreter with a global lock, not a debug build, that is a program of its own")

    command = [
        valgrind, "--tool=memcheck", "--error-exitcode={}".format(FAULTS_FOUND), "--num-callers=30",
        "--leak-check=full", "--show-leak-kinds=definite", "--errors-for-leak-kinds=definite",
        "--suppressions={}".format(SUPPRESSIONS), interpreter["command"], *arguments[1:],
    ]
    # Each object gets a block of its own, so that its use after its end is noticed.
    environment = {**os.environ, "PYTHONMALLOC": "malloc", "PYTHONDONTWRITEBYTECODE": "1"}
    print("memcheck under Python {label}, {command}".format(**interpreter), flush=True)
    return subprocess.run(command, env=environment).returncode


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
