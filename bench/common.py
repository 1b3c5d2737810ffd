"""What all measurements share: interpreters, runs inside one, results and tables."""

import contextlib
import json
import os
import pathlib
import platform
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BENCH = ROOT / "bench"
RESULTS = ROOT / "build" / "bench"
PACKAGE = ROOT / "build" / "release" / "package"

CONTESTANTS = ROOT / "build" / "release" / "bench" / "contestants.so"


LOAD_AT_START = os.getloadavg()[0]

SKIPPED = 77  # exit status: CTest is told that nothing was tested


class Failure(Exception):
    """What went wrong, in one line for the person at the terminal."""


def add_interpreter_option(parser):
    parser.add_argument(
        "--python", action="append", metavar="PATH_OR_LABEL",
        help="an interpreter, or the label that tests/tools/find_interpreters.py gives it; may be repeated"
        " (default: all that the module supports, but for debug builds)",
    )
    parser.add_argument(
        "--package", type=pathlib.Path, default=PACKAGE,
        help="folder with the vorntracer package that is measured (default: that of the release build)",
    )


def find_interpreters():
    """All interpreters on this machine, oldest first."""
    tool = ROOT / "tests" / "tools" / "find_interpreters.py"
    wrappers = ROOT / "build" / "interpreters" / "bin"
    return json.loads(subprocess.check_output([sys.executable, tool, wrappers], text=True))


PROBE = """
import json, sys, sysconfig
print(json.dumps([list(sys.version_info), bool(sysconfig.get_config_var("Py_GIL_DISABLED")),
                  hasattr(sys, "gettotalrefcount")]))
"""


def examine(command):
    """The entry that find_interpreters would make for one interpreter."""
    try:
        answer = subprocess.check_output([command, "-c", PROBE], text=True)
    except (OSError, subprocess.CalledProcessError) as error:
        raise Failure("{} is no interpreter: {}".format(command, error)) from error
    (major, minor, micro, *_), is_free_threaded, is_debug = json.loads(answer)
    return {
        "label": "{}.{}.{}".format(major, minor, micro) + "t" * is_free_threaded + "d" * is_debug,
        "command": command,
        "free_threaded": is_free_threaded,
        "debug": is_debug,
        "supported": (major, minor) >= (3, 12),
    }


def chosen_interpreters(arguments):
    """The interpreters that the command line asks for."""
    if not arguments.python or not all(os.sep in word for word in arguments.python):
        found = find_interpreters()
    if not arguments.python:
        return [entry for entry in found if entry["supported"] and not entry["debug"]]
    chosen = []
    for word in arguments.python:
        if os.sep in word:
            chosen.append(examine(os.path.expanduser(word)))
            continue
        entries = [entry for entry in found if entry["label"] == word]
        if not entries:
            raise Failure("no interpreter {}; there are {}".format(
                word, ", ".join(entry["label"] for entry in found)))
        chosen += entries
    for entry in chosen:
        if not entry["supported"]:
            raise Failure("{} has no sys.monitoring".format(entry["label"]))
    return chosen


def run_inside(interpreter, script, *words, package=PACKAGE, prefix=(), more_paths=()):
    """Run a script of bench/inside under an interpreter; returns what it prints, which is JSON."""
    for needed in (package / "vorntracer" / "xoptmonitoring.so", CONTESTANTS):
        if not needed.exists():
            raise Failure("there is no {}: run ./dev build first".format(needed))
    environment = {name: value for name, value in os.environ.items() if not name.startswith("PYTHON")}
    environment.update(
        PYTHONPATH=os.pathsep.join(map(str, (package, *more_paths))), PYTHONDONTWRITEBYTECODE="1",
        PYTHONHASHSEED="0", XOPT_CONTESTANTS=str(CONTESTANTS), PYDEVD_DISABLE_FILE_VALIDATION="1",
    )
    command = [*prefix, interpreter["command"], BENCH / "inside" / script, *words]
    result = subprocess.run([str(word) for word in command], env=environment, text=True,
                            stdout=subprocess.PIPE)
    if result.returncode != 0:
        raise Failure("{} failed under {}".format(script, interpreter["label"]))
    return json.loads(result.stdout)


def callgrind_command(folder):
    """How a program is started under callgrind: it counts when it is told to, and dumps into a folder."""
    if shutil.which("valgrind") is None:
        raise Failure("valgrind is missing (Debian package: valgrind)")
    return ["valgrind", "--tool=callgrind", "--quiet", "--trace-children=yes", "--instr-atstart=no",
            "--dump-line=yes", "--callgrind-out-file={}/dump".format(folder)]


def describe_machine():
    """What the numbers depend on, apart from the interpreter and the module."""
    cpu = ""
    with contextlib.suppress(OSError):
        for line in pathlib.Path("/proc/cpuinfo").read_text("utf-8").splitlines():
            if line.startswith("model name"):
                cpu = line.partition(":")[2].strip()
    return {
        "processor": cpu or platform.processor(),
        "processors": os.cpu_count(),
        "system": "{} {}".format(platform.system(), platform.release()),
        "load before the measurement": round(LOAD_AT_START, 1),
    }


def save(name, content):
    """Write a result into build/bench: text as it is, anything else as JSON, with the machine it is from."""
    RESULTS.mkdir(parents=True, exist_ok=True)
    if not isinstance(content, str):
        content = json.dumps({"machine": describe_machine(), "interpreters": content}, indent=1) + "\n"
    (RESULTS / name).write_text(content, "utf-8")


def format_table(header, rows):
    """A table for the terminal that is one for Markdown as well; all columns but the first are numbers."""
    cells = [[str(cell) for cell in row] for row in [header, *rows]]
    widths = [max(len(row[column]) for row in cells) for column in range(len(header))]
    lines = []
    for row in cells:
        first, *others = row
        padded = [first.ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(others, widths[1:]))]
        lines.append("| " + " | ".join(padded) + " |")
    rule = ["-" * widths[0], *("-" * (width - 1) + ":" for width in widths[1:])]
    lines.insert(1, "| " + " | ".join(rule) + " |")
    return "\n".join(lines)


def run_main(main):
    """Run a script's main function; a Failure is one line for the person at the terminal."""
    try:
        sys.exit(main())
    except Failure as failure:
        print("{}: {}".format(pathlib.Path(sys.argv[0]).name, failure), file=sys.stderr)
        sys.exit(1)
