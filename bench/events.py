#!/usr/bin/env python3
"""How long an event takes on every road through the first stage, beside callbacks that do nothing.

Prints one table for each interpreter; writes build/bench/events.json and events.svg.
"""

import argparse

import common
import svg

QUICK = (40, 0.2)  # rounds, and milliseconds of a sample
FULL = (400, 0.4)

CHART_SERIES = ("floor", "by hand in C", "Callback", "Python function that does nothing")
CHART_GROUPS = ("LINE", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
SKIPPED = {"LINE": "Callback: no breakpoint in the line"}  # what stands for Callback in the chart


def format_results(entries):
    rows = []
    for entry in entries:
        ratio = "" if entry["ratio"] is None else "{:.2f}".format(entry["ratio"])
        rows.append([entry["group"] + ", " + entry["title"], "{:.1f}".format(entry["nanoseconds"]), ratio])
    return common.format_table(["road of an event", "nanoseconds", "times the floor"], rows)


def compare(results):
    """One table for all interpreters: nanoseconds, and how many times the floor that is."""
    rows = {}
    for label, entries in results.items():
        for entry in entries:
            cell = "{:.1f}".format(entry["nanoseconds"])
            if entry["ratio"] is not None:
                cell += " ({:.2f})".format(entry["ratio"])
            rows.setdefault((entry["group"], entry["title"]), {})[label] = cell
    return common.format_table(["road of an event", *results],
                               [[", ".join(key), *(cells.get(label, "") for label in results)]
                                for key, cells in rows.items()])


def draw(results):
    """The chart: for each kind of event, the interpreters, and for each of these the callbacks."""
    panels = []
    for group in CHART_GROUPS:
        groups = []
        for label, entries in results.items():
            found = {entry["title"]: entry["nanoseconds"] for entry in entries if entry["group"] == group}
            found["Callback"] = found[SKIPPED.get(group, "Callback: not wanted")]
            groups.append((label, [found[title] for title in CHART_SERIES]))
        panels.append((group + ", skipped", groups))
    return svg.bar_chart("What an event costs that nobody wants", "nanoseconds", CHART_SERIES, panels)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    parser.add_argument("--quick", action="store_true", help="fewer and shorter rounds")
    arguments = parser.parse_args()
    results = {}
    for interpreter in common.chosen_interpreters(arguments):
        entries = common.run_inside(interpreter, "time_events.py", *(QUICK if arguments.quick else FULL),
                                    package=arguments.package)
        print("\nPython {}\n\n{}".format(interpreter["label"], format_results(entries)), flush=True)
        results[interpreter["label"]] = entries
    common.save("events.json", results)
    common.save("events.svg", draw(results))
    return 0


if __name__ == "__main__":
    common.run_main(main)
