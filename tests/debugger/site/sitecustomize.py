"""Puts vorntracer's debuggers in the place of the interpreter's, in every process that is started with this folder on
its path; and notes each call of `sys.settrace` with something other than None in the file SETTRACE_LOG names.
"""

import os
import sys
import traceback

import vorntracer.pdb

vorntracer.pdb.install()

_settrace = sys.settrace


def _noted_settrace(function, /):
    if function is not None:
        with open(os.environ["SETTRACE_LOG"], "a", encoding="utf-8") as log:
            log.write("sys.settrace({!r}) called by\n{}".format(function, "".join(traceback.format_stack(limit=8))))
    _settrace(function)


if "SETTRACE_LOG" in os.environ:
    sys.settrace = _noted_settrace
