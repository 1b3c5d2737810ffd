"""Let callgrind count the instructions of whole programs under nothing and under this project's tracer.

usage: count_programs.py PROGRAM[,PROGRAM...]

Each is counted once for one call of the program and once for three, after a warm-up. Prints, as JSON, one
entry for each dump, in the order of the dumps.
"""

import gc
import json
import sched
import sys

import contestants
import debuggers
import places
import programs

UNITS = (1, 3)
WARM_UP = 12


def main(names):
    if not contestants.is_counting_possible():
        raise RuntimeError("this is for a run under callgrind")
    gc.disable()
    dumps = []
    for name in names.split(","):
        program = programs.PROGRAMS[name]
        found = places.find_places(program, sched.__file__)
        for title, debugger, breakpoint in (
            ("nothing", debuggers.NOTHING, None),
            ("in another file", debuggers.OWN, found.in_another_file),
            ("in another function of the same file", debuggers.OWN, found.in_the_same_file),
            ("in the hot function", debuggers.OWN, found.in_the_hot_function),
            ("on the def line of the function called most", debuggers.OWN, found.on_the_def_line),
        ):

            def run():
                for _ in range(WARM_UP):
                    program()
                contestants.start_counting()
                for units in UNITS:
                    contestants.zero_counts()
                    for _ in range(units):
                        program()
                    contestants.dump_counts(name + " / " + title)
                    dumps.append({"program": name, "breakpoint": title, "units": units})
                contestants.stop_counting()

            debugger.call(run, found, breakpoint)
    json.dump(dumps, sys.stdout)


main(*sys.argv[1:])
