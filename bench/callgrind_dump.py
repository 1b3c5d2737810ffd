"""Reading what callgrind dumps: how many instructions each function, and each line, spent itself."""

import collections
import re

_POSITION = re.compile(r"(ob|fl|fi|fe|fn|cob|cfi|cfl|cfn)=\((\d+)\)(?: (.*))?$")
_COST = re.compile(r"([+-]?\d+|\*) (\d+)$")

# A function that calls itself has a number behind its name.
_RECURSION = re.compile(r"'\d+$")

# Names are written out once and are numbers after that, each kind with numbers of its own; and over all the
# dumps of a run, since callgrind forgets none of them.
_KIND = {
    "ob": "object", "cob": "object",
    "fl": "file", "fi": "file", "fe": "file", "cfi": "file", "cfl": "file",
    "fn": "function", "cfn": "function",
}


class DumpReader:
    """Reads the dumps of one run, in their order."""

    def __init__(self):
        self._names = collections.defaultdict(dict)

    def read(self, path):
        """Returns two counters: by (object, function), and by (file, line, function)."""
        by_function = collections.Counter()
        by_line = collections.Counter()
        current = {}
        line_number = 0
        is_call = False  # the next cost is that of a call, which the callee counts as well
        with open(path, encoding="utf-8", errors="replace") as lines:
            for line in lines:
                line = line.rstrip("\n")
                position = _POSITION.match(line)
                if position:
                    key, number, name = position.groups()
                    names = self._names[_KIND[key]]
                    if name is not None:
                        names[number] = name
                    if not key.startswith("c"):
                        current[_KIND[key]] = _RECURSION.sub("", names[number])
                    continue
                if line.startswith("calls="):
                    is_call = True
                    continue
                cost = _COST.match(line)
                if not cost:
                    continue
                place, instructions = cost.groups()
                if place[0] in "+-":
                    line_number += int(place)
                elif place != "*":
                    line_number = int(place)
                if is_call:
                    is_call = False
                    continue
                by_function[current.get("object"), current["function"]] += int(instructions)
                by_line[current["file"], line_number, current["function"]] += int(instructions)
        return by_function, by_line
