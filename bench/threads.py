#!/usr/bin/env python3
"""How skipped LINE events scale with threads, beside a callback that does nothing.

Writes build/bench/threads.json.
"""

import argparse
import os

import common

QUICK = (20, 1)  # rounds, and milliseconds of a sample in one thread
FULL = (80, 1.5)


def format_results(entries):
    """Millions of events a second in all threads together, how many times those of one thread that is, and
    the processor time of one event."""
    counts = sorted({entry["threads"] for entry in entries})
    rows = {}
    for entry in entries:
        rows.setdefault((entry["callback"], entry["code"]), {})[entry["threads"]] = entry
    lines = []
    for key, found in rows.items():
        alone = found[counts[0]]["events per second"]
        speeds = ["{:.1f} ({:.2f})".format(found[count]["events per second"] / 1e6,
                                           found[count]["events per second"] / alone) for count in counts]
        works = ["{:.1f}".format(found[count]["nanoseconds of processor time"]) for count in counts]
        lines.append([", ".join(key), *speeds, *works])
    header = ["callback, code object", *("millions/s, {} threads".format(count) for count in counts),
              *("ns, {} threads".format(count) for count in counts)]
    return common.format_table(header, lines)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    common.add_interpreter_option(parser)
    parser.add_argument("--quick", action="store_true", help="fewer and shorter rounds, at most 2 threads")
    arguments = parser.parse_args()
    rounds, milliseconds = QUICK if arguments.quick else FULL
    counts = "1,2" if arguments.quick else "1,2,4,8"
    print("This machine has {} processors.".format(os.cpu_count()))
    results = {}
    for interpreter in common.chosen_interpreters(arguments):
        entries = common.run_inside(interpreter, "time_threads.py", rounds, milliseconds, counts,
                                    package=arguments.package)
        print("\nPython {}\n\n{}".format(interpreter["label"], format_results(entries)), flush=True)
        results[interpreter["label"]] = entries
    common.save("threads.json", results)
    return 0


if __name__ == "__main__":
    common.run_main(main)
