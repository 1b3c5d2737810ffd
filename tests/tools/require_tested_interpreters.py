"""Fail unless enough interpreters were tested: require_tested_interpreters.py TESTED_FILE MINIMUM

TESTED_FILE is what `./dev test` leaves behind: the interpreters under which tests really ran. Only those that
the module supports count.
"""

import json
import pathlib
import sys


def main(arguments):
    if len(arguments) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    file = pathlib.Path(arguments[0])
    tested = json.loads(file.read_text()) if file.exists() else []
    labels = [entry["label"] for entry in tested if entry["supported"]]
    if len(labels) < int(arguments[1]):
        print("{} supported interpreters were tested ({}), and {} are the least that will do".format(
            len(labels), ", ".join(labels) or "none", arguments[1]))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
