"""Fail unless enough was tested: require_tested_interpreters.py TESTED_FILE MINIMUM [VERSION ...]

TESTED_FILE is what `./dev test` leaves behind: the interpreters under which tests really ran. At least MINIMUM of
them have to be ones that the module supports, and each VERSION has to be among them: "3.13" is an ordinary build of
that version, "3.13t" a free-threaded one. A debug build stands for neither, since people run others.
"""

import json
import pathlib
import sys


def version_of(entry):
    """The version and kind of a tested interpreter, as they are asked for; None for a debug build."""
    if entry["debug"]:
        return None
    return "{}.{}".format(*entry["version"]) + "t" * entry["free_threaded"]


def complaints(tested, minimum, versions):
    """What is missing, a line for each thing."""
    supported = [entry for entry in tested if entry["supported"]]
    labels = ", ".join(entry["label"] for entry in supported) or "none"
    if len(supported) < minimum:
        yield "{} supported interpreters were tested ({}), and {} are the least that will do".format(
            len(supported), labels, minimum)
    missing = [version for version in versions if version not in map(version_of, supported)]
    if missing:
        yield "not tested: {} (tested: {})".format(", ".join(missing), labels)


def main(arguments):
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    file = pathlib.Path(arguments[0])
    tested = json.loads(file.read_text()) if file.exists() else []
    found = list(complaints(tested, int(arguments[1]), arguments[2:]))
    print("\n".join(found), end="\n" if found else "")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
