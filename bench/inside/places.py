"""Where to put a breakpoint that a program never hits: far from its hot code, near it, inside, and where it begins."""

import collections
import inspect
import sys
import types
from typing import NamedTuple

monitoring = sys.monitoring


class Place(NamedTuple):
    file: str
    lineno: int


class Places(NamedTuple):
    """The code object that runs the most lines, and lines that are never reached.

    The line of a `def` statement is one of them while the function runs: that of the function that begins most often.
    """

    hot_code: types.CodeType
    in_another_file: Place
    in_the_same_file: Place
    in_the_hot_function: Place
    on_the_def_line: Place


def count_lines(program):
    """How often a program runs each line: code object -> line -> count."""
    counts = collections.defaultdict(collections.Counter)

    def count(code, lineno):
        counts[code][lineno] += 1

    tool = monitoring.PROFILER_ID
    monitoring.use_tool_id(tool, "places")
    monitoring.register_callback(tool, monitoring.events.LINE, count)
    monitoring.set_events(tool, monitoring.events.LINE)
    try:
        program()
    finally:
        monitoring.set_events(tool, 0)
        monitoring.register_callback(tool, monitoring.events.LINE, None)
        monitoring.free_tool_id(tool)
    return counts


def lines_of(code):
    return sorted({lineno for _, _, lineno in code.co_lines() if lineno} - {code.co_firstlineno})


def codes_of_file(file):
    """All code objects that come of compiling a file."""
    with open(file, "rb") as source:
        pending = [compile(source.read(), file, "exec")]
    while pending:
        code = pending.pop()
        yield code
        pending += [constant for constant in code.co_consts if inspect.iscode(constant)]


def find_places(program, other_file):
    """The places of a program. `other_file` is one that it runs nothing of."""
    program()  # some code is run once only, by the first call
    counts = count_lines(program)
    if any(code.co_filename == other_file for code in counts):
        raise RuntimeError("the program runs {}".format(other_file))
    totals = {code: sum(lines.values()) for code, lines in counts.items()}
    for hot_code in sorted(totals, key=totals.get, reverse=True):
        unreached = [lineno for lineno in lines_of(hot_code) if lineno not in counts[hot_code]]
        if unreached:
            break
    else:
        raise RuntimeError("every line of the program is reached")
    hot_file = hot_code.co_filename
    called = {code: lines[min(lines)] for code, lines in counts.items() if code.co_firstlineno < min(lines)
              and code.co_flags & inspect.CO_OPTIMIZED and not code.co_name.startswith("<")}
    most_called = max(called, key=called.get)
    reached = {lineno for code, lines in counts.items() if code.co_filename == hot_file for lineno in lines}
    return Places(
        hot_code,
        next(Place(other_file, lineno) for lineno in unreached_function(other_file, set())),
        next(Place(hot_file, lineno) for lineno in unreached_function(hot_file, reached)),
        Place(hot_file, unreached[-1]),
        Place(most_called.co_filename, most_called.co_firstlineno),
    )


def unreached_function(file, reached):
    """The lines of functions of a file of which none is reached."""
    for code in codes_of_file(file):
        lines = lines_of(code)
        if code.co_flags & inspect.CO_OPTIMIZED and lines and not reached.intersection(lines):
            yield lines[-1]
