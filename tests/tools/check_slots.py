"""Check what the list of interpreter names says of their use: check_slots.py SOURCE_FOLDER

A name that the module itself uses is REQUIRED (or ON_3): without it binding has to fail. One that is there for other
native modules only is OFFERED (or OFFERED_ON_3): an interpreter later than all that are known may do without it, and
the import goes on. A name that is marked as used and is not would fail the import for nothing; one that is marked as
offered and is used would crash the process.
"""

import pathlib
import re
import sys

LIST = "xpy_api_slots.def"
USED, OFFERED = ("REQUIRED", "ON_3"), ("OFFERED", "OFFERED_ON_3")

#: The slot's name in a row of the list, by the kind of the row.
ROWS = {
    "SLOT": r"(\w+), \(",
    "BACKED": r"(\w+), \(",
    "UNICODE": r'(\w+), "',
    "DATA": r"(\w+)\)",
    "TYPE": r"(\w+)\)",
}


def read_needs(text):
    """What each row of the list says of its slot, by the slot's name; rows without such a word are left out."""
    needs = {}
    for kind, need, rest in re.findall(r"^XPY_(\w+)\((\w+), (.*)$", text, re.MULTILINE):
        if kind in ROWS:
            needs[re.findall(ROWS[kind], rest)[0] + "_ptr" * (kind == "TYPE")] = need
    return needs


def uses_in(text):
    """The slots without which the code of a file does not do."""
    text = re.sub(r"//.*", "", text)
    named = set(re.findall(r"\b(?:xpy|global_XPy_C_API_Data)\.(\w+)\b(?!\s*=[^=])", text))
    named.update(re.findall(r"\bXPy_C_API_Data::(\w+)", text))
    return named - set(re.findall(r"\bxpy\.(\w+) [!=]= nullptr", text))


def main(arguments):
    if len(arguments) != 1:
        print(__doc__, file=sys.stderr)
        return 2
    files = [path for path in pathlib.Path(arguments[0]).rglob("*") if path.suffix in (".cpp", ".h", ".def")]
    needs = read_needs(next(path for path in files if path.name == LIST).read_text("utf-8"))
    uses = {}
    for path in files:
        if path.name != LIST:
            for name in uses_in(path.read_text("utf-8")):
                uses.setdefault(name, path.name)
    findings = ["{} is {}, but {} uses it".format(name, need, uses[name])
                for name, need in needs.items() if need in OFFERED and name in uses]
    findings += ["{} is {}, but nothing uses it".format(name, need)
                 for name, need in needs.items() if need in USED and name not in uses]
    print("\n".join(findings + ["{} names, {} of them used, {} offered".format(
        len(needs), *(sum(need in kind for need in needs.values()) for kind in (USED, OFFERED)))]))
    return 1 if findings else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
