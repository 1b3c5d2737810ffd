"""Debug a Python program: the interpreter's pdb on a native first stage, at the program's own speed.

usage: python -m vorntracer [-c COMMAND ...] [-m MODULE | SCRIPT] [ARGUMENT ...]
       python -m vorntracer [-c COMMAND ...] -p PID
       python -m vorntracer --help

  -c COMMAND   a debugger command, as if it stood in a .pdbrc file; may be given several times
  -m MODULE    debug a module, as `python -m MODULE` runs it
  -p PID       attach to a running process (Python 3.14 and later, on both sides the same version)
  ARGUMENT     what follows the script or the module belongs to the program

Everything that `python -m pdb` of the same interpreter takes and knows is here as well: type `help` at the prompt. An
exception that nobody catches ends in post mortem debugging, and a program that has ended is started again. Beyond that:

  breakpoints  stop in every thread, one prompt at a time; a condition that fails stops there and says why
  threads      list the threads, with where they are
  thread N     look at another thread's stack
  hold on      hold the other threads while one has the prompt (hold off: let them run)
  log PLACE "text {expression}" [, CONDITION]
               write a text each time when a place is reached, and do not stop there
  forks leave  let forked children run on by themselves (forks follow: debug them as well)
  next         at an `await`, goes to the next line of the coroutine and not into the event loop

breakpoint() and pdb.set_trace() in the program stop in this debugger. In a program that is not started by it, this
command comes with PYTHONBREAKPOINT=vorntracer.set_trace, and in tests with pytest --pdbcls=vorntracer.pdb:Pdb.
"""

import bdb
import pdb
import sys

from . import pdb as our_pdb
from . import session
from .rebinding import OverlaidGlobals, rebind


class UsageError(Exception):
    """The command line asks for something that cannot be had; the text is for the person who wrote it."""


def attach(words):
    """Carry out a command line with -p."""
    commands, pid = [], None
    words = list(words)
    while words:
        word = words.pop(0)
        if word in ("-c", "--command", "-p", "--pid") and not words:
            raise UsageError("{} needs a value".format(word))
        if word in ("-c", "--command"):
            commands.append(words.pop(0))
        elif word in ("-p", "--pid") and pid is None:
            pid = words.pop(0)
        else:
            raise UsageError("{!r} does not go with -p".format(word))
    if not pid.isdecimal():
        raise UsageError("-p needs the number of a process, not {!r}".format(pid))
    if not hasattr(sys, "remote_exec"):
        raise UsageError("attaching needs Python 3.14 or later, and this is {}.{}".format(*sys.version_info))
    try:
        our_pdb.attach(int(pid), commands)
    except (OSError, RuntimeError) as error:
        raise UsageError("process {} cannot be attached to: {}".format(pid, error)) from None


def own_options(words):
    """The words before the script or module, with which everything of ours is decided."""
    before = []
    words = iter(words)
    for word in words:
        if word in ("-c", "--command", "-p", "--pid"):
            before += [word, next(words, "")]
        elif word in ("-h", "--help"):
            before.append(word)
        else:
            break
    return before


def main():
    words = sys.argv[1:]
    options = own_options(words)
    if not words or "-h" in options or "--help" in options:
        print(__doc__.strip())
        sys.exit(0 if words else 2)
    try:
        if "-p" in options or "--pid" in options:
            attach(words)
            return
    except UsageError as error:
        print("vorntracer: {}".format(error), file=sys.stderr)
        sys.exit(2)
    our_pdb.install()
    pdb.set_trace = our_pdb.set_trace = session.set_trace
    pdb.Pdb = session.Session
    try:
        rebind(pdb.main, OverlaidGlobals(pdb, {"Pdb": session.Session}))()
    except bdb.BdbQuit:
        pass  # another thread has quit, and the program's end was there before the word of it
