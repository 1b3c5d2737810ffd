#!/usr/bin/env python3
"""How many instructions an event costs, counted by callgrind.

Each workload runs under nothing, under a function that does nothing, under a filter written by hand in C, and
under the module's own Callback on the road that skips the event. What is printed is the difference to the run
under nothing, divided by the number of events. The count is the same each time, on a busy machine as well.
"""

import argparse
import collections
import json
import pathlib
import shutil
import tempfile

import callgrind_dump
import common

WORKLOADS = ("LINE", "LINE of a long file", "PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME")
QUICK_WORKLOADS = ("LINE", "PY_START")
SHOWN = ("floor", "floor as a method", "by hand", "Callback")
CALLBACKS = ("nothing", *SHOWN)

BUDGET_FILE = common.BENCH / "budget.json"


def average(dumps, index):
    """A counter of the larger run minus that of the smaller one, for one event."""
    small, large = dumps
    counts = collections.Counter(large["counts"][index])
    counts.subtract(small["counts"][index])
    events = large["events"] - small["events"]
    return {place: count / events for place, count in counts.items() if count}


def measure(interpreter, workload_names, callback_names, package):
    """Instructions of an event for each workload and callback, split up by function and by line."""
    with tempfile.TemporaryDirectory() as folder:
        dumps = common.run_inside(
            interpreter, "count_instructions.py", ",".join(workload_names), ",".join(callback_names),
            package=package, prefix=common.callgrind_command(folder))
        reader = callgrind_dump.DumpReader()
        for number, dump in enumerate(dumps, 1):
            dump["counts"] = reader.read(pathlib.Path(folder, "dump.{}".format(number)))
    measured = collections.defaultdict(dict)
    for pair in zip(dumps[::2], dumps[1::2]):
        by_function, by_line = average(pair, 0), average(pair, 1)
        measured[pair[0]["workload"]][pair[0]["callback"]] = {
            "total": sum(by_function.values()), "by_function": by_function, "by_line": by_line}
    return measured


def cost(results, callback):
    """What one event costs under a callback, over the run under nothing."""
    return results[callback]["total"] - results["nothing"]["total"]


def format_summary(costs):
    """A table of what an event costs over the run under nothing, and over the floor."""
    header = ["instructions of an event", *SHOWN, "by hand, over the floor", "Callback, over the floor"]
    rows = [[workload_name, *("{:.0f}".format(found[name]) for name in SHOWN),
             *("{:.0f}".format(found[name] - found["floor"]) for name in ("by hand", "Callback"))]
            for workload_name, found in costs.items()]
    return common.format_table(header, rows)


def short(function):
    """A function's name without its parameters, if it is one of C++."""
    name = function.replace("(anonymous namespace)::", "").split("(")[0]
    return name if len(name) <= 60 else name[:57] + "..."


def print_functions(results):
    """Where the instructions go: the functions in which the callbacks differ from the run under nothing."""
    idle = results["nothing"]["by_function"]
    added = {name: {place: count - idle.get(place, 0)
                    for place, count in {**dict.fromkeys(idle, 0), **results[name]["by_function"]}.items()}
             for name in SHOWN}
    places = sorted({place for name in SHOWN for place, count in added[name].items() if abs(count) >= 0.5},
                    key=lambda place: -added["Callback"].get(place, 0))
    rows = []
    for place in places:
        counts = ("{:.1f}".format(added[name].get(place, 0)) if abs(added[name].get(place, 0)) >= 0.05 else ""
                  for name in SHOWN)
        rows.append([short(place[1]), pathlib.Path(place[0] or "?").name, *counts])
    print(common.format_table(["function", "object", *SHOWN], rows))


def print_lines(results):
    """The lines of the module's own sources, inlined ones in the place where they were written."""
    rows = []
    sources = {}
    for (file, number, function), count in results["Callback"]["by_line"].items():
        path = pathlib.Path(file)
        if count < 0.5 or "xoptmonitoring" not in path.parts or not path.is_file():
            continue
        if file not in sources:
            sources[file] = path.read_text("utf-8").splitlines()
        text = sources[file][number - 1].strip() if 0 < number <= len(sources[file]) else ""
        rows.append([text[:80], "{}:{}".format(path.name, number), short(function), "{:.1f}".format(count)])
    rows.sort(key=lambda row: (row[2], -float(row[3])))
    print(common.format_table(["line", "place", "in function", "instructions"], rows))


def check_budget(interpreter, measured):
    """Whether Callback costs no more over the floor than bench/budget.json allows; says so, line by line."""
    budget = json.loads(BUDGET_FILE.read_text("utf-8"))
    kind = "free-threaded" if interpreter["free_threaded"] else "with a global lock"
    is_kept = True
    for workload_name, allowed in budget["instructions over the floor"][kind].items():
        spent = cost(measured[workload_name], "Callback") - cost(measured[workload_name], "floor")
        is_within = spent <= allowed
        print("{}, {}: {:.1f} instructions over the floor, {} the {} that bench/budget.json allows".format(
            interpreter["label"], workload_name, spent, "within" if is_within else "MORE THAN", allowed))
        is_kept = is_kept and is_within
    return is_kept


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    parser.add_argument("--quick", action="store_true", help="{} only".format(" and ".join(QUICK_WORKLOADS)))
    parser.add_argument("--workload", action="append", choices=WORKLOADS, help="only these")
    parser.add_argument("--functions", action="store_true", help="split up by function")
    parser.add_argument("--lines", action="store_true", help="split up by line of the module's sources")
    parser.add_argument("--check", action="store_true", help="fail where bench/budget.json is exceeded")
    arguments = parser.parse_args()
    if arguments.check and shutil.which("valgrind") is None:
        print("skipped: the budget is not checked, since there is no valgrind (Debian package: valgrind)")
        return common.SKIPPED

    workload_names = arguments.workload or (QUICK_WORKLOADS if arguments.quick else WORKLOADS)
    is_kept = True
    summary = {}
    for interpreter in common.chosen_interpreters(arguments):
        label = interpreter["label"]
        measured = measure(interpreter, workload_names, CALLBACKS, arguments.package)
        summary[label] = {
            workload_name: {name: round(cost(results, name), 2) for name in SHOWN}
            for workload_name, results in measured.items()}
        print("\nPython {}\n\n{}".format(label, format_summary(summary[label])), flush=True)
        for workload_name, results in measured.items():
            if arguments.functions:
                print("\nPython {}, {}, by function\n".format(label, workload_name))
                print_functions(results)
            if arguments.lines:
                print("\nPython {}, {}, by line\n".format(label, workload_name))
                print_lines(results)
        if arguments.check:
            print()
            is_kept = check_budget(interpreter, measured) and is_kept
    common.save("instructions.json", summary)
    return 0 if is_kept else 1


if __name__ == "__main__":
    common.run_main(main)
