#!/usr/bin/env python3
"""How much slower whole programs are under debuggers with a breakpoint that is never hit; what stops cost.

Writes build/bench/programs.json and programs.svg. With --instructions, the instructions of the programs are
counted by callgrind, under nothing and under this project's tracer: the same each time, also on a busy
machine.
"""

import argparse
import pathlib
import tempfile

import callgrind_dump
import common
import svg

# Rounds, milliseconds of a sample, and how many seconds one debugger, program and breakpoint get at most
QUICK = (3, 5, 1)
FULL = (11, 25, 6)

SPOTS = ("in another file", "in another function of the same file", "in the hot function",
         "on the def line of the function called most")
QUICK_PROGRAMS = ("JSON round trip", "constraint solver")
PROGRAMS = ("JSON round trip", "text comparison", "parse and unparse", "numeric loop", "constraint solver",
            "generators", "small calls")


def format_table(entries, row_keys, value):
    """A table of what was found: one column for each debugger."""
    columns = list(dict.fromkeys(entry["debugger"] for entry in entries))
    rows = {}
    for entry in entries:
        rows.setdefault(tuple(entry[key] for key in row_keys), {})[entry["debugger"]] = value(entry)
    lines = [[", ".join(key), *(found.get(column, "") for column in columns)] for key, found in rows.items()]
    return common.format_table([", ".join(row_keys), *columns], lines)


def factor(number):
    return "{:.2f}".format(number) if number < 10 else "{:.0f}".format(number)


def action_value(entry):
    if "slowdown" in entry:
        return factor(entry["slowdown"]) + " times"
    return "{:.2f} µs".format(entry["microseconds"])


def format_results(found):
    return "\n\n".join([
        format_table(found["never hit"], ("program", "breakpoint"), lambda entry: factor(entry["slowdown"])),
        format_table(found["at stops"], ("action",), action_value),
    ])


def measure_debugpy(interpreter, programs, found, effort, package, folder):
    """Add what debugpy takes to what was found, where the interpreter has it."""

    def measure(*what):
        return common.run_inside(interpreter, "time_debugpy.py", *effort, *what, package=package,
                                 more_paths=(folder,) if folder else ())

    for program in programs:
        for spot in SPOTS:
            entry = measure(program, spot)
            if entry is None:
                return
            found["never hit"].append(entry)
    for action in dict.fromkeys(entry["action"] for entry in found["at stops"]):
        found["at stops"].append(measure(action))


def draw(results):
    """The chart: slowdowns by this project's tracer, for each program and interpreter."""
    programs = dict.fromkeys(entry["program"] for found in results.values() for entry in found["never hit"])
    panels = []
    for program in programs:
        groups = []
        for label, found in results.items():
            factors = {entry["breakpoint"]: entry["slowdown"] for entry in found["never hit"]
                       if entry["program"] == program and entry["debugger"] == "this tracer"}
            groups.append((label, [factors[spot] for spot in SPOTS]))
        panels.append((program, groups))
    return svg.bar_chart("Programs under the tracer, with one breakpoint that is never hit", "times as long",
                         SPOTS, panels)


def count(interpreter, programs, package):
    """Instructions of each program, and the factor by which the tracer raises them."""
    with tempfile.TemporaryDirectory() as folder:
        dumps = common.run_inside(interpreter, "count_programs.py", ",".join(programs), package=package,
                                  prefix=common.callgrind_command(folder))
        reader = callgrind_dump.DumpReader()
        for number, dump in enumerate(dumps, 1):
            by_function, _ = reader.read(pathlib.Path(folder, "dump.{}".format(number)))
            dump["instructions"] = sum(by_function.values())
    counted = {}
    for small, large in zip(dumps[::2], dumps[1::2]):
        each = (large["instructions"] - small["instructions"]) / (large["units"] - small["units"])
        counted.setdefault(small["program"], {})[small["breakpoint"]] = each
    return counted


def format_counts(counted):
    rows = [[program, "{:.2f}".format(found["nothing"] / 1e6),
             *("{:.4f}".format(found[spot] / found["nothing"]) for spot in SPOTS)]
            for program, found in counted.items()]
    return common.format_table(["times the instructions", "millions under nothing", *SPOTS], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    parser.add_argument("--quick", action="store_true", help="fewer programs, fewer and shorter rounds")
    parser.add_argument("--instructions", action="store_true", help="count instructions instead")
    parser.add_argument(
        "--debuggers", metavar="LABEL=FOLDER",
        help="where else an interpreter finds debuggers to compare with",
    )
    arguments = parser.parse_args()
    debuggers_label, _, debuggers_folder = (arguments.debuggers or "").partition("=")
    effort = QUICK if arguments.quick else FULL
    programs = QUICK_PROGRAMS if arguments.quick else PROGRAMS
    results = {}
    for interpreter in common.chosen_interpreters(arguments):
        label = interpreter["label"]
        print("\nPython {}\n".format(label), flush=True)
        if arguments.instructions:
            results[label] = count(interpreter, programs, arguments.package)
            print(format_counts(results[label]), flush=True)
            continue
        found = common.run_inside(interpreter, "time_programs.py", *effort, ",".join(programs),
                                  package=arguments.package)
        folder = debuggers_folder if label == debuggers_label else None
        measure_debugpy(interpreter, programs, found, effort, arguments.package, folder)
        print(format_results(found), flush=True)
        results[label] = found
    if arguments.instructions:
        common.save("program_instructions.json", results)
    else:
        common.save("programs.json", results)
        common.save("programs.svg", draw(results))
    return 0


if __name__ == "__main__":
    common.run_main(main)
