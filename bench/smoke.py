#!/usr/bin/env python3
"""Run every measurement once, as small as it gets, and see that its results make sense.

The measurements check themselves while they run: a number of events that is not what it should be, an event
that is not skipped, a stop in the wrong place ends them. What is seen to here is that they run at all, under
an interpreter.
"""

import argparse

import common


def require(condition, words):
    if not condition:
        raise common.Failure("this makes no sense: {}".format(words))


def nonsense_in_events(measure, rounds, milliseconds):
    """What is wrong with the events' costs in a measurement of that size, or an empty text."""
    found = {(entry["group"], entry["title"]): entry for entry in measure("time_events.py", rounds, milliseconds)}
    for group in ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"):
        floor = found[group, "floor"]["nanoseconds"]
        python = found[group, "Python function that does nothing"]["nanoseconds"]
        if not 0 < floor < python:
            return "{}: {} ns in C, {} ns in Python".format(group, floor, python)
    return ""


def check_events(measure):
    nonsense = ""
    for size in ((3, 0.05), (9, 0.3), (40, 1)):  # the smallest is enough on a quiet machine
        nonsense = nonsense_in_events(measure, *size)
        if not nonsense:
            break
    require(not nonsense, nonsense)


def check_threads(measure):
    entries = measure("time_threads.py", 1, 0.5, "1,2")
    require(len(entries) == 16, "{} entries for 8 callbacks and 2 numbers of threads".format(len(entries)))
    for entry in entries:
        require(entry["events per second"] > 0, entry)


def check_growth(measure):
    found = measure("measure_growth.py", 1, "1,200")
    for entry in found["memory"]:
        require(entry["bytes"] > entry["objects"]["record"], entry)
    require(found["growing"] and found["constant"], found)


def check_programs(measure):
    found = measure("time_programs.py", 1, 1, 0.2, "constraint solver")
    slowdowns = {(entry["breakpoint"], entry["debugger"]): entry["slowdown"] for entry in found["never hit"]}
    own = slowdowns["in the hot function", "this tracer"]
    standard = max(slowdown for (spot, _), slowdown in slowdowns.items() if spot == "in the hot function")
    require(0 < own < standard, slowdowns)
    require(found["at stops"], found)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    arguments = parser.parse_args()
    for interpreter in common.chosen_interpreters(arguments):

        def measure(script, *words):
            return common.run_inside(interpreter, script, *words, package=arguments.package)

        for check in (check_events, check_threads, check_growth, check_programs):
            check(measure)
            print("{}: {} is well".format(interpreter["label"], check.__name__[len("check_"):]), flush=True)
    return 0


if __name__ == "__main__":
    common.run_main(main)
