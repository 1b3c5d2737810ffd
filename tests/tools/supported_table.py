"""Hold the README's table of interpreters against what was tested: supported_table.py [--write] TESTED_FILE README

TESTED_FILE is what `./dev test` leaves behind. Without --write, the run fails where the table and the tests
contradict each other: an interpreter passed that the table does not have, or one that it has failed. What the table
has and the machine lacks is named, and fails nothing. With --write, the table is made anew from what passed.
"""

import json
import pathlib
import sys

BEGIN, END = "<!-- supported interpreters: begin -->\n", "<!-- supported interpreters: end -->\n"
KINDS = ("with a global lock", "debug build", "free-threaded", "free-threaded debug build")
RUNS, REFUSED = "runs", "the import is refused"


def cell_of(entry):
    """Version, kind and what the interpreter does with the module, for one tested interpreter."""
    kind = KINDS[entry["debug"] + 2 * entry["free_threaded"]]
    return tuple(entry["version"][:2]), kind, RUNS if entry["supported"] else REFUSED


def split_row(line):
    """The texts between the bars of a table's row."""
    return [text.strip() for text in line.strip().strip("|").split("|")]


def read_cells(table):
    """The filled cells of a table as {(version, kind): text}."""
    lines = [line for line in table.splitlines() if line.startswith("|")]
    cells = {}
    for line in lines[2:]:
        version, *texts = split_row(line)
        number = tuple(map(int, version.split(".")))
        cells.update({(number, kind): text for kind, text in zip(split_row(lines[0])[1:], texts) if text})
    return cells


def format_table(cells):
    """The table of such cells, with the columns that they need."""
    kinds = [kind for kind in KINDS if any(kind == used for _, used in cells)]
    rows = [["CPython", *kinds], ["---"] * (len(kinds) + 1)]
    for version in sorted({version for version, _ in cells}):
        rows.append(["{}.{}".format(*version), *(cells.get((version, kind), "") for kind in kinds)])
    return "".join("| {} |\n".format(" | ".join(row)) for row in rows)


def describe(version, kind):
    return "{}.{} {}".format(*version, kind)


def complaints(cells, tested):
    """The contradictions, a line for each."""
    for entry in tested:
        version, kind, text = cell_of(entry)
        if (version, kind) not in cells:
            yield "the README does not have {}, which was tested".format(describe(version, kind))
        elif entry["failed"]:
            yield "the README has {}, under which tests failed".format(describe(version, kind))
        elif cells[version, kind] != text:
            yield "of {} the README says '{}', and the tests '{}'".format(
                describe(version, kind), cells[version, kind], text)


def main(words):
    write = words[:1] == ["--write"]
    if len(words[write:]) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    tested_file, readme = map(pathlib.Path, words[write:])
    tested = json.loads(tested_file.read_text("utf-8")) if tested_file.exists() else []
    text = readme.read_text("utf-8")
    before, _, rest = text.partition(BEGIN)
    table, _, after = rest.partition(END)
    if write:
        passed = [cell_of(entry) for entry in tested if not entry["failed"]]
        new = format_table({(version, kind): text for version, kind, text in passed})
        readme.write_text(before + BEGIN + new + END + after, "utf-8")
        return 0
    cells = read_cells(table)
    found = list(complaints(cells, tested))
    if not cells:
        found.append("the README has no table of interpreters")
    seen = {cell_of(entry)[:2] for entry in tested}
    missing = sorted(key for key in cells if key not in seen)
    if missing:
        print("In the README's table, and not on this machine: " + ", ".join(describe(*key) for key in missing))
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
