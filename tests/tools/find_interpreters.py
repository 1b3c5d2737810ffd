"""Print, as JSON, every CPython on this machine that the tests can run under, oldest first.

usage: find_interpreters.py [--sanitizer address|thread] [WRAPPER_FOLDER ...]

Looked through, in this order: the versions that pyenv installed, `python2.7`, `python3.X`, `python3.Xt`
and `python3.X-dbg` on the PATH, and everything executable in each WRAPPER_FOLDER. An interpreter that can be
reached by several ways is listed once, by the first.

An interpreter that was itself built with a sanitizer is listed only where that sanitizer is asked for. The run-time
library of the address sanitizer can be put before any other interpreter as well; that of the thread sanitizer
cannot, so with it none but its own are listed.

Each entry has:

    label          short and unique: "3.12.1", "3.13.5t" (free-threaded), "3.14.0d" (debug), "3.14.0dr" (debug, and
                   traces references), "3.13.5t-thread" (with that sanitizer)
    command        path to start it with
    executable     what it calls itself
    version        [major, minor, micro]
    free_threaded  whether it runs without a global lock
    debug          whether it is a debug build
    sanitizer      the sanitizer that it was built with: "address", "thread" or null
    supported      whether it has sys.monitoring, which the module needs
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys

OLDEST_SUPPORTED = (3, 12)
NAME_ON_PATH = re.compile(r"python(2\.7|3\.\d+)(t?d?|-dbg)$")

# Runs under the interpreter that is examined, so it keeps to what 2.7 understands.
PROBE = """
import json, platform, sys, sysconfig
print(json.dumps({
    "implementation": platform.python_implementation(),
    "executable": sys.executable,
    "version": list(sys.version_info),
    "abiflags": getattr(sys, "abiflags", ""),
    "free_threaded": bool(sysconfig.get_config_var("Py_GIL_DISABLED")),
    "debug": hasattr(sys, "gettotalrefcount"),
    "traces_references": hasattr(sys, "getobjects"),
    "configuration": sysconfig.get_config_var("CONFIG_ARGS") or "",
}))
"""


def pyenv_candidates():
    """Interpreters below the folders in which pyenv keeps its versions."""
    roots = [os.environ.get("PYENV_ROOT"), os.path.expanduser("~/.pyenv")]
    for root in roots:
        if root:
            yield from sorted(pathlib.Path(root, "versions").glob("*/bin/python"))


def path_candidates():
    """Interpreters with a version in their name on the PATH."""
    for folder in os.get_exec_path():
        if os.path.isdir(folder):
            names = sorted(name for name in os.listdir(folder) if NAME_ON_PATH.match(name))
            yield from (pathlib.Path(folder, name) for name in names)


def wrapper_candidates(folder):
    """Everything executable in a folder of wrapper scripts, which need not exist."""
    if folder.is_dir():
        yield from sorted(path for path in folder.iterdir() if path.is_file() and os.access(path, os.X_OK))


def examine(command):
    """What the interpreter started by `command` says about itself; None if it is none."""
    # What a sanitizer finds in the interpreter is not asked here, and would change the exit status.
    environment = dict(os.environ, ASAN_OPTIONS="detect_leaks=0", TSAN_OPTIONS="report_bugs=0")
    try:
        result = subprocess.run(
            [str(command), "-c", PROBE], env=environment,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60,
        )
        return json.loads(result.stdout) if result.returncode == 0 else None
    except (OSError, ValueError, subprocess.TimeoutExpired):
        return None


def sanitizer_of(answer):
    """The sanitizer that an interpreter was configured with, or None."""
    named = re.search(r"--with-(address|thread)-sanitizer", answer["configuration"])
    return named.group(1) if named else None


def make_label(answer):
    """The short name: version, what kind of pre-release it is, one letter for each unusual trait, its sanitizer."""
    major, minor, micro, level, serial = answer["version"]
    label = "{}.{}.{}".format(major, minor, micro)
    if level != "final":
        label += {"alpha": "a", "beta": "b", "candidate": "rc"}[level] + str(serial)
    label += "t" * answer["free_threaded"] + "d" * answer["debug"] + "r" * answer["traces_references"]
    sanitizer = sanitizer_of(answer)
    return label + "-" + sanitizer if sanitizer else label


def make_unique(label, taken):
    """The label itself, or, where another installation has it already, the label with a number."""
    number = 1
    unique = label
    while unique in taken:
        number += 1
        unique = "{}-{}".format(label, number)
    return unique


def describe(command, answer):
    """The entry of the printed list, but for the label."""
    version = answer["version"][:3]
    return {
        "command": command,
        "executable": answer["executable"],
        "version": version,
        "free_threaded": answer["free_threaded"],
        "debug": answer["debug"],
        "sanitizer": sanitizer_of(answer),
        "supported": tuple(version) >= OLDEST_SUPPORTED,
    }


def find_interpreters(wrapper_folders=(), sanitizer=None):
    """All entries, sorted by version."""
    wanted_sanitizers = {None: (None,), "address": (None, "address"), "thread": ("thread",)}[sanitizer]
    found = {}

    def consider(command, answer, start_with):
        identity = (os.path.realpath(answer["executable"]), tuple(answer["version"]), answer["abiflags"])
        is_wanted = answer["implementation"] == "CPython" and sanitizer_of(answer) in wanted_sanitizers
        if is_wanted and identity not in found:
            found[identity] = (answer, describe(start_with, answer))

    for command in [*pyenv_candidates(), *path_candidates()]:
        answer = examine(command)
        # A launcher that starts no interpreter here (one that pyenv has not activated, say) is none.
        if answer is not None and answer["executable"]:
            consider(command, answer, answer["executable"])
    for wrapper_folder in wrapper_folders:
        for command in wrapper_candidates(wrapper_folder):
            answer = examine(command)
            if answer is None:
                print("{} does not start an interpreter".format(command), file=sys.stderr)
            else:
                consider(command, answer, str(command))

    entries = {}
    by_version = sorted(found.values(), key=lambda pair: (pair[1]["version"], pair[1]["command"]))
    for answer, entry in by_version:
        label = make_unique(make_label(answer), entries)
        entries[label] = {"label": label, **entry}
    return list(entries.values())


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--sanitizer", choices=("address", "thread"))
    parser.add_argument("wrapper_folders", nargs="*", type=pathlib.Path, metavar="WRAPPER_FOLDER")
    chosen = parser.parse_args(arguments)
    json.dump(find_interpreters(chosen.wrapper_folders, chosen.sanitizer), sys.stdout, indent=2)
    print()


if __name__ == "__main__":
    main(sys.argv[1:])
