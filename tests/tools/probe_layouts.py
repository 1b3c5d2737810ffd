"""Hold the layout tables against the interpreters' own headers: probe_layouts.py [OPTION ...] [LABEL ...]

For each interpreter found (or each LABEL named) whose headers are installed, a small C program is compiled
against them that prints where every field of every table lies. Printed is each row where table and header
differ, and what is known about it; the exit status is 1 if there is a difference that nobody knows about.
docs/layouts.md tells what the known ones mean. Nothing of this is needed to build or run the module.
"""

import argparse
import collections
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
TABLES_FILE = ROOT / "xoptmonitoring" / "binding" / "xpy_layout_tables.cpp"
WORD = 8
ALIGNMENT_CAP = 8

# Which table describes which structure of which minor versions. Generation 2 counts as minor version -1.
Probe = collections.namedtuple("Probe", "table structure minors includes")  # minors: first and last
PROBES = [
    Probe("pre312_pyobject_fields", "PyObject", (-1, 11), ()),
    Probe("py312_13_64bit_pyobject_fields", "PyObject", (12, 13), ()),
    Probe("py314_64bit_pyobject_fields", "PyObject", (14, 99), ()),
    Probe("free_t_pyobject_fields", "PyObject", (13, 99), ()),
    Probe("typeobject_fields", "PyTypeObject", (8, 99), ()),
    Probe("py3_mod_def_fields", "PyModuleDef", (5, 99), ()),
    Probe("frame_fields_pre_py3d4", "PyFrameObject", (-1, 3), ("frameobject.h",)),
    Probe("frame_fields_py3d4", "PyFrameObject", (4, 6), ("frameobject.h",)),
    Probe("frame_fields_py3d7", "PyFrameObject", (7, 9), ("frameobject.h",)),
    Probe("frame_fields_py3d10", "PyFrameObject", (10, 10), ("frameobject.h",)),
    Probe("py3d10_cframe_fields", "CFrame", (10, 10), ()),
    Probe("py3d10_cframe_fields", "_PyCFrame", (11, 11), ()),
    Probe("py3d12_cframe_fields", "_PyCFrame", (12, 12), ()),
    Probe("py2_tstate_fields", "PyThreadState", (-1, -1), ()),
    Probe("py3d0_tstate_fields", "PyThreadState", (0, 3), ()),
    Probe("py3d4_tstate_fields", "PyThreadState", (4, 6), ()),
    Probe("py3d7_tstate_fields", "PyThreadState", (7, 9), ()),
    Probe("py3d10_tstate_fields", "PyThreadState", (10, 10), ()),
    Probe("py3d11_tstate_fields", "PyThreadState", (11, 11), ()),
    Probe("py3d12_tstate_fields", "PyThreadState", (12, 12), ()),
    Probe("py3d13_tstate_fields", "PyThreadState", (13, 13), ()),
    Probe("py3d14_tstate_fields", "PyThreadState", (14, 14), ()),
    Probe("py3d6_interpreter_state_fields", "struct _is", (6, 6), ()),
    Probe("py3d7_interpreter_state_fields", "struct _is", (7, 7), ("internal/pystate.h",)),
    Probe("py3d8_interpreter_state_fields", "struct _is", (8, 8), ("internal/pycore_pystate.h",)),
    Probe("py3d7_core_config_fields", "_PyCoreConfig", (7, 7), ()),
    Probe("py3d7_main_interpreter_config_fields", "_PyMainInterpreterConfig", (7, 7), ()),
    Probe("py3d8_pyconfig_fields", "PyConfig", (8, 8), ()),
]

# Rows whose names are not those of the structure's members.
MEMBER_OF_ROW = {
    ("py312_13_64bit_pyobject_fields", "ob_refcnt"): "ob_refcnt_split[0]",
    ("py312_13_64bit_pyobject_fields", "ob_refcnt_high"): "ob_refcnt_split[1]",
    ("py3d8_interpreter_state_fields", "fscodec.encoding"): "fs_codec.encoding",
    ("py3d8_interpreter_state_fields", "fscodec.errors"): "fs_codec.errors",
    ("py3d8_interpreter_state_fields", "fscodec.error_handler"): "fs_codec.error_handler",
}

# Nested structures, whose size a table takes from another table.
NESTED = {
    ("py3d7_interpreter_state_fields", "core_config"): "py3d7_core_config_fields",
    ("py3d7_interpreter_state_fields", "config"): "py3d7_main_interpreter_config_fields",
    ("py3d8_interpreter_state_fields", "config"): "py3d8_pyconfig_fields",
}

# Differences that are known, and harmless for the reasons given in docs/layouts.md.
KNOWN = {
    ("py3d10_cframe_fields", "CFrame", "use_tracing"): "an int on 3.10; nothing reads it",
    ("py3d10_cframe_fields", "CFrame", "current_frame"): "3.10 has `previous` there; never followed",
    ("py3d10_cframe_fields", "CFrame", "previous"): "one word further down in the table; nothing reads it",
    ("free_t_pyobject_fields", "PyObject", "ob_flags"): "two bytes of padding on 3.13",
    ("py3d7_interpreter_state_fields", "struct _is", "core_config"): "the header counts padding at its end",
    ("py3d8_interpreter_state_fields", "struct _is", "fscodec.error_handler"): "an enumeration and padding",
}


class Failure(Exception):
    """Why an interpreter cannot be probed."""


# The tables


def read_tables():
    """Every table of the module, as lists of (row name, size)."""
    tables = {}
    rows = None
    for line in TABLES_FILE.read_text("utf-8").splitlines():
        start = re.match(r"(?:const )?XPy_FieldWithSize (\w+)\[\] = \{", line)
        row = re.match(r'\s+\{"([^"]+)", (-?\d+)\},', line)
        if start:
            rows = tables.setdefault(start.group(1), [])
        elif row:
            rows.append((row.group(1), int(row.group(2))))
    return tables


def lay_out(tables, name, header_size):
    """The rows of a table with their offsets, by the module's own rules, and the total size."""
    offset = 0
    result = []
    for row, size in tables[name]:
        if row == "<PyObject_HEAD>":
            size = header_size
        elif row == "<PyObject_VAR_HEAD>":
            size = header_size + WORD
        elif (name, row) in NESTED:
            size = lay_out(tables, NESTED[name, row], header_size)[1]
        if result:
            alignment = min(size, ALIGNMENT_CAP)
            offset = (offset + alignment - 1) // alignment * alignment
        result.append((row, offset, size))
        offset += size
    return result, offset


# The headers


def find_interpreters(wrapper_folder):
    tool = ROOT / "tests" / "tools" / "find_interpreters.py"
    return json.loads(subprocess.check_output([sys.executable, str(tool), str(wrapper_folder)]))


def header_folders(interpreter):
    """The folders of an interpreter's Python.h and of its pyconfig.h, which one that was not installed keeps apart."""
    code = r"import sysconfig as s; print(s.get_paths()['include'] + '\n' + s.get_config_h_filename())"
    output = subprocess.check_output([interpreter["command"], "-c", code], text=True)
    folder, config = map(pathlib.Path, output.splitlines())
    if not (folder / "Python.h").is_file():
        raise Failure("its headers are not installed")
    return folder, config.parent


def member_candidates(table, row):
    """Names under which a row's member may stand in a header."""
    if (table, row) in MEMBER_OF_ROW:
        return [MEMBER_OF_ROW[table, row]]
    return [row, "_" + row, row.lstrip("_")]


def compile_probe(folders, source, defines, work):
    """Compile and run a program against the headers; its output, or the members that it found missing."""
    (work / "probe.c").write_text(source)
    folder, config_folder = folders
    includes = [folder, folder / "internal", folder.parent, config_folder]
    command = ["gcc", "-w", "-o", str(work / "probe"), str(work / "probe.c"), "-DPy_BUILD_CORE", *defines]
    command += ["-I{}".format(path) for path in includes]
    result = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    if result.returncode == 0:
        return subprocess.check_output([str(work / "probe")], text=True), ()
    missing = set(re.findall(r"has no member named [‘']([\w]+)[’']", result.stderr))
    if not missing:
        lines = result.stderr.strip().splitlines()
        raise Failure(next((line for line in lines if "error: " in line), lines[0]))
    return None, missing


def read_header(folders, probe, rows, defines):
    """Offset and size of each row's member in the header's structure, and the size of the object header."""
    candidates = {row: member_candidates(probe.table, row) for row in rows if not row.startswith("<")}
    with tempfile.TemporaryDirectory() as work:
        while True:
            source = probe_source(probe, {row: names[0] for row, names in candidates.items() if names})
            output, missing = compile_probe(folders, source, defines, pathlib.Path(work))
            if output is not None:
                break
            for names in candidates.values():
                names[:] = [name for name in names if missing.isdisjoint(re.findall(r"\w+", name))]
    found = {}
    for line in output.splitlines():
        row, offset, size = line.rsplit(" ", 2)
        found[row] = (int(offset), int(size))
    return found


def probe_source(probe, member_of_row):
    """A program that prints offset and size of each member."""
    lines = ["#include <stddef.h>", "#include <stdio.h>", "#include <Python.h>"]
    lines += ["#include <{}>".format(name) for name in probe.includes]
    lines += ["typedef {} Probed;".format(probe.structure), "int main(void) {"]
    lines.append('    printf("<head> 0 %zu\\n", sizeof(PyObject));')
    report = '    printf("{0} %zu %zu\\n", offsetof(Probed, {1}), sizeof(((Probed*)0)->{1}));'
    lines += [report.format(row, member) for row, member in member_of_row.items()]
    lines += ["    return 0;", "}", ""]
    return "\n".join(lines)


# Comparing


def variants(interpreter):
    """Builds that one interpreter's headers describe: a name, defines, and whether it is free-threaded."""
    minor = interpreter["version"][1]
    yield "", (), interpreter["free_threaded"]
    if interpreter["version"][0] == 3 and minor >= 13 and not interpreter["free_threaded"]:
        yield " as if free-threaded", ("-DPy_GIL_DISABLED=1",), True
    if interpreter["version"][0] == 3 and 8 <= minor <= 12 and not interpreter["debug"]:
        yield " as if tracing references", ("-DPy_TRACE_REFS=1",), False


def applies(probe, version, free_threaded):
    minor = -1 if version[0] == 2 else version[1]
    if not probe.minors[0] <= minor <= probe.minors[1]:
        return False
    if probe.structure == "PyObject" and probe.minors[1] > 11:
        return free_threaded == (probe.table == "free_t_pyobject_fields")
    return True


def compare(tables, probe, found, shift):
    """What there is to say about each row: its name, a text, and whether it is as in the header."""
    rows, _ = lay_out(tables, probe.table, found["<head>"][1])
    for row, offset, size in rows:
        if row.startswith("<"):
            continue
        # The module counts the links of a build that traces references when it has looked the header up.
        if probe.structure == "PyObject":
            offset += shift
        ours = "{} ({} bytes)".format(offset, size)
        if row not in found:
            theirs, same = "no such field", False
        else:
            theirs = "{} ({} bytes)".format(*found[row])
            same = found[row] == (offset, size)
        yield row, "{}: table {}, header {}".format(row, ours, theirs), same


def probe_interpreter(tables, interpreter, all_rows):
    """Print what there is to say about one interpreter. Returns the number of unknown differences."""
    folders = header_folders(interpreter)
    unknown = 0
    for name, defines, free_threaded in variants(interpreter):
        rows_compared = 0
        reports = []
        for probe in PROBES:
            if not applies(probe, interpreter["version"], free_threaded):
                continue
            row_names = [row for row, _ in tables[probe.table]]
            found = read_header(folders, probe, row_names, defines)
            shift = 2 * WORD if "-DPy_TRACE_REFS=1" in defines else 0
            for row, text, same in compare(tables, probe, found, shift):
                rows_compared += 1
                why = KNOWN.get((probe.table, probe.structure, row))
                if same and not all_rows:
                    continue
                if not same and why is None:
                    unknown += 1
                verdict = "same" if same else why or "UNKNOWN DIFFERENCE"
                reports.append("    {} {}  [{}]".format(probe.table, text, verdict))
        print("{}{}: {} rows compared".format(interpreter["label"], name, rows_compared))
        print("\n".join(reports), end="\n" if reports else "")
    return unknown


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("labels", metavar="LABEL", nargs="*", help="only these interpreters")
    parser.add_argument("--all-rows", action="store_true", help="print rows that agree as well")
    parser.add_argument("--wrappers", metavar="FOLDER", default=ROOT / "build" / "interpreters" / "bin",
                        help="programs that start further interpreters")
    options = parser.parse_args(arguments)
    if shutil.which("gcc") is None:
        print("The probe needs gcc.", file=sys.stderr)
        return 2
    os.environ["LC_ALL"] = "C"

    tables = read_tables()
    unknown = 0
    for interpreter in find_interpreters(options.wrappers):
        if options.labels and interpreter["label"] not in options.labels:
            continue
        try:
            unknown += probe_interpreter(tables, interpreter, options.all_rows)
        except Failure as failure:
            print("{}: not compared: {}".format(interpreter["label"], failure))
    if unknown:
        print("{} rows differ for reasons that nobody has written down".format(unknown))
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
