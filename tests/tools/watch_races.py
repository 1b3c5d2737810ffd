"""Run a test under the thread sanitizer and fail where it reports this project's code: watch_races.py COMMAND ...

The command, all that it starts and all that it forks write their reports into files of their own. A report counts
when a frame of this project's shared objects had a part in it: in the stacks of the accesses, of the locks or of the
memory's making, and not only because it called Python code that came to it. So a call of the interpreter that we
make in the wrong place counts, though the access itself is the interpreter's. All other reports are wholly inside
the interpreter: they are its own affair, and are counted and named in one line each. So are the few kinds of report
that OWN_WAYS lists, which every correct call of the interpreter can bring about.

The exit status is the command's, or 66 where that is 0 and there was a report that counts.
"""

import collections
import os
import pathlib
import re
import subprocess
import sys
import tempfile

STATUS_OF_RACES = 66

#: The files in which a frame is ours.
OURS = re.compile(r"\((?:[^()]*/)?(xoptmonitoring|native_tests|multi_phase_sample|single_phase_sample)\.so\+0x")

#: Where Python code runs. What called it, further down the stack, has no part in what it does.
PYTHON_CODE = re.compile(r"^\s*#\d+ _PyEval_EvalFrameDefault .*", re.MULTILINE | re.DOTALL)

#: What the interpreter does on purpose, as the functions that two accesses go through. A dictionary is looked up
#: without its lock: the reader tries to count a reference to the key and the value that it found, and only then looks
#: whether they are still there. Meanwhile the memory may have become another object, whose header is being filled in.
#: At its end the interpreter frees the states of daemon threads that wait somewhere, and nothing orders that after
#: their last use.
OWN_WAYS = (
    ("new_reference", "_Py_dict_lookup_threadsafe"),
    ("_PyThreadState_DeleteList", "_PyThreadState_Detach"),
)

#: Processes with threads fork here, on purpose. A report does not end the process, nor change how it ends.
OPTIONS = "exitcode=0:halt_on_error=0:die_after_fork=0:second_deadlock_stack=1:history_size=4:log_path="


def reports_in(text):
    """The reports of one file."""
    for part in re.split(r"^={18}$", text, flags=re.MULTILINE):
        if "WARNING: ThreadSanitizer:" in part or "ERROR: ThreadSanitizer:" in part:
            yield part.strip("\n")


def is_own_way(sections):
    """Whether the two accesses, which come first in a report, are what the interpreter does on purpose."""
    if len(sections) < 2:
        return False
    first, second = (set(re.findall(r"^\s*#\d+ (\w+) ", PYTHON_CODE.sub("", section), re.MULTILINE))
                     for section in sections[:2])
    return any(one in first and other in second or other in first and one in second for one, other in OWN_WAYS)


def is_ours(report):
    """Whether code of ours has a part in what is reported."""
    sections = re.split(r"\n\s*\n", report)
    if is_own_way(sections):
        return False
    return any(OURS.search(PYTHON_CODE.sub("", section)) for section in sections
               if not re.match(r"\s*Thread T\d+.* created by", section))


def title(report):
    """The line that tells it in short."""
    found = re.search(r"^SUMMARY: ThreadSanitizer: (.*)$", report, re.MULTILINE)
    return found.group(1) if found else report.splitlines()[0]


def run_and_sort(command, folder):
    """The exit status of the command, and the reports, ours and the others."""
    chosen = os.environ.get("TSAN_OPTIONS", "")
    environment = dict(os.environ, TSAN_OPTIONS=OPTIONS + os.path.join(folder, "report") + ":" + chosen)
    status = subprocess.run(command, env=environment).returncode
    ours, others = [], []
    for file in sorted(pathlib.Path(folder).iterdir()):
        for report in reports_in(file.read_text(encoding="utf-8", errors="backslashreplace")):
            (ours if is_ours(report) else others).append(report)
    return status, ours, others


def main(command):
    if not command:
        print(__doc__, file=sys.stderr)
        return 2
    with tempfile.TemporaryDirectory(prefix="xo-races-") as folder:
        status, ours, others = run_and_sort(command, folder)
    for report in ours:
        print("=" * 18, report, sep="\n")
    for text, count in sorted(collections.Counter(map(title, others)).items()):
        print("wholly inside the interpreter, {} times: {}".format(count, text))
    print("Thread sanitizer: {} reports with code of this project, {} without".format(len(ours), len(others)))
    return status or (STATUS_OF_RACES if ours else 0)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
