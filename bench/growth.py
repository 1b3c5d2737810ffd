#!/usr/bin/env python3
"""What grows with the number of records, and what does not; and how much memory a record takes.

Writes build/bench/growth.json.
"""

import argparse

import common

QUICK = (5, "1,1000")  # rounds, and numbers of records
FULL = (15, "1,1000,100000")


def format_growing(entries):
    rows = {}
    for entry in entries:
        rows.setdefault(entry["call"], []).append((entry["records"], entry["nanoseconds"]))
    counts = sorted({count for found in rows.values() for count, _ in found})
    lines = []
    for call, found in rows.items():
        taken = dict(found)
        (least, base), (most, whole) = found[0], found[-1]
        each = (whole - base) / (most - least) if most > least else 0
        cells = ["{:.1f}".format(taken[count] / 1000) if count in taken else "" for count in counts]
        lines.append([call, *cells, "{:.0f}".format(each)])
    return common.format_table(["microseconds, with so many records", *counts, "nanoseconds of each"], lines)


def format_constant(entries):
    rows = {}
    for entry in entries:
        rows.setdefault((entry["event"], entry["number of"]), {})[entry["count"]] = entry
    counts = sorted({entry["count"] for entry in entries})
    lines = []
    for (event, title), found in rows.items():
        cells = ["{:.1f} ({:.2f})".format(found[count]["nanoseconds"], found[count]["ratio"])
                 if count in found else "" for count in counts]
        lines.append(["{}, {}".format(event, title), *cells])
    return common.format_table(["nanoseconds of a skipped event (times the floor)", *counts], lines)


def format_memory(entries):
    lines = []
    for entry in entries:
        objects = ", ".join("{} {}".format(size, name) for name, size in entry["objects"].items())
        rest = entry["bytes"] - sum(entry["objects"].values())
        lines.append([entry["record of"], objects, "{:.0f}".format(rest), "{:.0f}".format(entry["bytes"])])
    return common.format_table(["record of", "bytes of its objects", "what holds them together", "in all"],
                               lines)


def format_results(found):
    return "\n\n".join([format_growing(found["growing"]), format_constant(found["constant"]),
                        format_memory(found["memory"])])


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    parser.add_argument("--quick", action="store_true", help="fewer rounds and fewer records")
    arguments = parser.parse_args()
    results = {}
    for interpreter in common.chosen_interpreters(arguments):
        found = common.run_inside(interpreter, "measure_growth.py", *(QUICK if arguments.quick else FULL),
                                  package=arguments.package)
        print("\nPython {}\n\n{}".format(interpreter["label"], format_results(found)), flush=True)
        results[interpreter["label"]] = found
    common.save("growth.json", results)
    return 0


if __name__ == "__main__":
    common.run_main(main)
