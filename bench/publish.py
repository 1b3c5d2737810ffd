#!/usr/bin/env python3
"""Put the latest results into docs/performance.md, between the marks that it has for them, and beside it.

A result that is not in build/bench leaves its part of the page as it is.
"""

import json
import re
import shutil

import common
import events
import growth
import instructions
import programs
import threads

PAGE = common.ROOT / "docs" / "performance.md"
FOLDER = common.ROOT / "docs" / "performance"


def by_interpreter(format_results):
    """A part with one heading for each interpreter."""

    def format_all(results):
        return "\n\n".join("**Python {}**\n\n{}".format(label, format_results(found))
                           for label, found in results.items())

    return format_all


# Name of the result, which is that of the marks; and what makes its part of the page
PARTS = {
    "instructions": by_interpreter(instructions.format_summary),
    "events": events.compare,
    "threads": by_interpreter(threads.format_results),
    "growth": by_interpreter(growth.format_results),
    "programs": by_interpreter(programs.format_results),
    "program_instructions": by_interpreter(programs.format_counts),
}


def format_machine(machine):
    return "Taken on: {}.".format("; ".join("{} {}".format(name, value) for name, value in machine.items()))


def main():
    page = PAGE.read_text("utf-8")
    FOLDER.mkdir(exist_ok=True)
    for name, format_part in PARTS.items():
        result = common.RESULTS / (name + ".json")
        if not result.exists():
            print("no {}: its part stays as it is".format(result.relative_to(common.ROOT)))
            continue
        content = json.loads(result.read_text("utf-8"))
        part = "{}\n\n{}".format(format_machine(content["machine"]), format_part(content["interpreters"]))
        begin, end = "<!-- {}: begin -->".format(name), "<!-- {}: end -->".format(name)
        pattern = re.compile(re.escape(begin) + ".*?" + re.escape(end), re.DOTALL)
        page, count = pattern.subn(lambda match: "\n".join([begin, part, end]), page)
        if count != 1:
            raise common.Failure("{} has {} parts between {} and {}".format(PAGE.name, count, begin, end))
        shutil.copyfile(result, FOLDER / result.name)
        print("published {}".format(result.relative_to(common.ROOT)))
    for chart in sorted(common.RESULTS.glob("*.svg")):
        shutil.copyfile(chart, FOLDER / chart.name)
    PAGE.write_text(page, "utf-8")
    return 0


if __name__ == "__main__":
    common.run_main(main)
