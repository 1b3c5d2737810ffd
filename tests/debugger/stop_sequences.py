"""Runs an awkward script under a debugger and prints where it stops: stop_sequences.py KIND SCRIPT FOLDER COMMANDS ...

KIND      "stock": the interpreter's `bdb.Bdb` with `sys.settrace`; "ours": `vorntracer.bdb.Bdb`
COMMANDS  what to command at each stop: "step", "next", "return", "until", "continue" (with breakpoints on every line),
          or several with commas between, in turn
          The script is run once for each of these, and a line with a # and the commands is printed first
FOLDER    where the script is, with its helper
"""

import bdb
import itertools
import os
import sys
import threading  # so that a script finds it imported under either debugger
import types


def recorder(base):
    """A debugger class on `base` that writes down its stops and goes on as commanded."""

    class Recorder(base):
        def __init__(self, commands, folder):
            super().__init__()
            self.commands = itertools.cycle(commands)
            self.folder = folder
            self.stops = []

        def record(self, kind, frame, *details):
            filename = frame.f_code.co_filename
            name = os.path.basename(filename)
            self.stops.append((kind, name, frame.f_code.co_name, frame.f_lineno, *details))
            if len(self.stops) > 4000:
                self.set_quit()
                return
            command = next(self.commands)
            if not filename.startswith(self.folder) and filename[0] != "<":
                command = "return"  # the library's own lines are not what is compared
            if command == "step":
                self.set_step()
            elif command == "next":
                self.set_next(frame)
            elif command == "return":
                self.set_return(frame)
            elif command == "until":
                self.set_until(frame)
            else:
                self.set_continue()

        def user_line(self, frame):
            self.record("line", frame)

        def user_return(self, frame, value):
            self.record("return", frame, type(value).__name__)

        def user_exception(self, frame, exc_info):
            self.record("exception", frame, exc_info[0].__name__, exc_info[2] is None)

        def do_clear(self, argument):
            pass

    return Recorder


def stops_of(Bdb, commands, pathname, folder):
    """Run the script once, and return its stops."""
    bdb.Breakpoint.clearBreakpoints()
    with open(pathname, encoding="utf-8") as source:
        code = compile(source.read(), pathname, "exec")
    debugger = recorder(Bdb)(commands, folder)
    if "continue" in commands:
        for file in (pathname, os.path.join(folder, "helper.py")):
            with open(file, encoding="utf-8") as source:
                for lineno, _ in enumerate(source, 1):
                    debugger.set_break(file, lineno)
    module = types.ModuleType("__main__")
    module.__file__ = pathname
    sys.modules["__main__"] = module
    sys.modules.pop("helper", None)
    try:
        debugger.run(code, module.__dict__)
    except Exception as error:
        debugger.stops.append(("ended", type(error).__name__))
    return debugger.stops


def main(kind, script, folder, *all_commands):
    if kind == "ours":
        from vorntracer.bdb import Bdb
    else:
        Bdb = bdb.Bdb
    sys.path.insert(0, folder)
    for commands in all_commands:
        print("#", commands)
        for stop in stops_of(Bdb, commands.split(","), os.path.join(folder, script), folder):
            print(*stop)


if __name__ == "__main__":
    main(*sys.argv[1:])
