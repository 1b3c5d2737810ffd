"""Measure what grows with the number of records, and what does not.

usage: measure_growth.py ROUNDS COUNT[,COUNT...]

Prints JSON with three lists: what `reset` and the listing functions take with so many records; what an event
takes with so many records, threads and breakpoints; and how many bytes a record takes.
"""

import gc
import json
import statistics
import sys
import time
import tracemalloc

import contestants
import module_callback
import workloads

xo = module_callback.xo
monitoring = sys.monitoring
TOOL = monitoring.DEBUGGER_ID
NO_LINES = frozenset({workloads.NO_LINE})
FIRST_THREAD_ID = 1 << 40  # no thread of this process has such an id


def template():
    pass


def make_codes(count, filename):
    """Code objects of a file that have no records yet."""
    return [template.__code__.replace(co_name="made", co_filename=filename) for _ in range(count)]


def make_code_records(codes):
    frame = sys._getframe()
    get = xo.CPerCodeObject.GetPerCodeObject
    for code in codes:
        get(code, True, frame).fEnabledBpLinenos = set()


def make_file_records(names):
    get = xo.CPerFile.GetPerFile
    for name in names:
        get(name)


def file_names(count):
    return ["/srv/app/file_{}.py".format(number) for number in range(count)]


def make_thread_records(count):
    get = xo.CPerThread.GetPerThread
    for number in range(count):
        get(FIRST_THREAD_ID + number)


def timed(function):
    started = time.thread_time_ns()
    function()
    return time.thread_time_ns() - started


# What grows


def growing(rounds, counts):
    """Nanoseconds of each call, with so many records."""
    measured = {}

    def note(title, count, nanoseconds):
        measured.setdefault((title, count), []).append(nanoseconds)

    for count in counts:
        names = file_names(count)
        for _ in range(rounds if count < 10000 else max(3, rounds // 10)):
            codes = make_codes(count, "/srv/app/one_file.py")
            make_code_records(codes)
            note("reset, records of code objects in one file", count, timed(xo.reset))
            make_file_records(names)
            note("GetAllPerFiles", count, timed(xo.CPerFile.GetAllPerFiles))
            note("reset, records of files", count, timed(xo.reset))
            if count <= 1000:
                make_thread_records(count)
                note("GetAllPerThreads", count, timed(xo.CPerThread.GetAllPerThreads))
                note("reset, records of threads", count, timed(xo.reset))
            codes.clear()
    return [{"call": title, "records": count, "nanoseconds": statistics.median(samples)}
            for (title, count), samples in measured.items()]


# What does not grow


def event_cost(workload, idle_workload, callback, rounds):
    """Nanoseconds of an event, and how many times the floor that is: medians."""
    costs, ratios = [], []
    for _ in range(rounds):
        samples = []
        for current, current_callback in ((idle_workload, None), (workload, contestants.floor),
                                          (workload, callback)):
            monitoring.register_callback(TOOL, workload.event, current_callback)
            current.run(1)
            samples.append(timed(lambda: current.run(20)) / 20 / workload.per_round)
        idle, floor, mine = samples
        costs.append(mine - idle)
        ratios.append((mine - idle) / (floor - idle))
    return statistics.median(costs), statistics.median(ratios)


def constant(rounds, counts):
    """The cost of events while there are so many records of each kind."""
    cases = []
    for count in counts:
        cases.append(("records of code objects", count))
        cases.append(("records of files", count))
        cases.append(("breakpoints in the code object", count))
        if count <= 1000:
            cases.append(("records of threads", count))
    for title, count in cases:
        module_callback.prepare()
        codes = []
        linenos = NO_LINES
        if title == "records of code objects":
            codes = make_codes(count, "/srv/app/one_file.py")
            make_code_records(codes)
        elif title == "records of files":
            make_file_records(file_names(count))
        elif title == "records of threads":
            make_thread_records(count)
        else:
            linenos = range(workloads.NO_LINE, workloads.NO_LINE + 37 * count, 37)
        for kind in ("LINE", "PY_START"):
            workload = workloads.MAKERS[kind]()
            callback = module_callback.make(workload.code, workload.event, linenos).Callback
            monitoring.set_local_events(TOOL, workload.code, workload.event)
            nanoseconds, ratio = event_cost(workload, workloads.MAKERS[kind](), callback, rounds * 4)
            monitoring.set_local_events(TOOL, workload.code, 0)
            yield {"event": kind, "number of": title, "count": count, "nanoseconds": nanoseconds,
                   "ratio": ratio}
        xo.reset()
        codes.clear()


# Memory


def bytes_of_each(count, make):
    """How much memory `make` takes for each of so many records."""
    gc.collect()
    before = tracemalloc.get_traced_memory()[0]
    make()
    gc.collect()
    return (tracemalloc.get_traced_memory()[0] - before) / count


def parts(*objects):
    return sum(sys.getsizeof(each) for each in objects)


def memory(count):
    """Bytes of a record of each kind: in all, and of the objects that it consists of.

    Code objects come last, since a free-threaded interpreter gives their memory back late.
    """
    names = file_names(count)
    codes = make_codes(count, "/srv/app/one_file.py")
    tracemalloc.start()
    file_bytes = bytes_of_each(count, lambda: make_file_records(names))
    record = xo.CPerFile.GetPerFile(names[0])
    yield {"record of": "file", "bytes": file_bytes,
           "objects": {"record": parts(record), "dictionary of breakpoints": parts(record.fBpSetByLineno),
                       "set of records of code objects": parts(record.fKnownPerCodeObjects)}}
    del record
    xo.reset()
    thread_count = min(count, 1000)
    thread_bytes = bytes_of_each(thread_count, lambda: make_thread_records(thread_count))
    record = xo.CPerThread.GetPerThread(FIRST_THREAD_ID)
    fields = ("fSteppingCodeObjects", "fSuspendLock", "fThreadId")
    yield {"record of": "thread", "bytes": thread_bytes,
           "objects": {"record": parts(record), **{name: parts(getattr(record, name)) for name in fields}}}
    del record
    xo.reset()
    code_bytes = bytes_of_each(count, lambda: make_code_records(codes))
    record = xo.CPerCodeObject.GetPerCodeObject(codes[0])
    yield {"record of": "code object", "bytes": code_bytes,
           "objects": {"record": parts(record), "weak reference": parts(record.fCodeObjectWeakRef),
                       "set of breakpoint lines": parts(record.fEnabledBpLinenos)}}
    tracemalloc.stop()
    xo.reset()


def main(rounds, counts):
    rounds = int(rounds)
    counts = [int(count) for count in counts.split(",")]
    gc.disable()
    monitoring.use_tool_id(TOOL, "bench")
    json.dump({"growing": growing(rounds, counts), "constant": list(constant(rounds, counts)),
               "memory": list(memory(max(counts)))}, sys.stdout)


main(*sys.argv[1:])
