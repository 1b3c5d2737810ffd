"""Time every road through the first stage, and the calls that a tracer makes, beside empty functions.

All roads take turns in one process, over and over. A sample of a road is set against the sample that its
floor gave in the same round, so that a machine which gets slower or faster for a while does so for both. The
time is that of the thread, which does not run on while something else has the processor; where threads are
started, that of the process.

usage: time_events.py ROUNDS MILLISECONDS

Prints, as JSON, one entry for each road: nanoseconds of an event, less what the same code takes without
events, and how many times those of the floor that is. Where there is no floor, it is all that the code takes.
What happens in a forked child is measured in a forked child.
"""

import gc
import itertools
import json
import os
import statistics
import sys
import threading
import time
import warnings

import contestants
import module_callback
import workloads

xo = module_callback.xo
monitoring = sys.monitoring
events = monitoring.events
TOOL = monitoring.DEBUGGER_ID

NO_LINES = frozenset({workloads.NO_LINE})


class Road:
    """Something that is timed: `run(size)` does it `size * per_size` times, between `before` and `after`."""

    def __init__(self, group, title, run, per_size, *, size=None, before=None, after=None,
                 clock=time.thread_time_ns):
        self.group = group
        self.title = title
        self.run = run
        self.per_size = per_size
        self.size = size
        self.before = before or (lambda: None)
        self.after = after or (lambda: None)
        self.clock = clock
        self.samples = []

    def sample(self):
        """Nanoseconds of one time."""
        self.before()
        started = self.clock()
        self.run(self.size)
        elapsed = self.clock() - started
        self.after()
        return elapsed / (self.size * self.per_size)

    def choose_size(self, milliseconds):
        """Make a sample take about so long, where the road does not say how large it is."""
        if self.size is None:
            self.size = 1
            while self.sample() * self.size * self.per_size < milliseconds * 1e6 / 2:
                self.size *= 2


# Events


def event_road(kind, title, make_callback, before=None, after=None):
    """A road through events of one kind. `make_callback(workload)` gives the callback; None, no events."""
    workload = workloads.MAKERS[kind]()
    callback = make_callback(workload)
    if callback is not None:
        monitoring.set_local_events(TOOL, workload.code, workload.event)

    def enter():
        if before is not None:
            before()
        monitoring.register_callback(TOOL, workload.event, callback)
        workload.run(1)  # the interpreter brings the code up to date

    return Road(kind, title, workload.run, workload.per_round, before=enter, after=after)


def by_hand(workload):
    contestants.watch(workload.code, NO_LINES)
    return contestants.filter_of(workload.event)


def module(workload):
    return module_callback.make(workload.code, workload.event, NO_LINES).Callback


def module_holding(workload):
    first_stage = module_callback.make(workload.code, workload.event, NO_LINES)
    first_stage.fAnySuspendThread = True
    return first_stage.Callback


def internal(workload):
    return module_callback.make(workload.code, workload.event, NO_LINES, is_internal=True).Callback


def calling(second_stage, linenos):
    def make_callback(workload):
        return module_callback.make(workload.code, workload.event, linenos, second_stage).Callback

    return make_callback


def set_policy(policy):
    def set_it():
        xo.CPerThread.GetPerThread().fDebugPolicy = policy

    return set_it


def floors(kind):
    return [
        event_road(kind, "no events", lambda workload: None),
        event_road(kind, "floor", lambda workload: contestants.floor),
        event_road(kind, "floor as a method", lambda workload: contestants.floor_method),
        event_road(kind, "by hand in C", by_hand),
        event_road(kind, "Python function that does nothing", lambda workload: contestants.python_floor),
    ]


def line_roads():
    every_line = range(1, workloads.LINES_PER_ROUND + 10)
    return [
        *floors("LINE"),
        event_road("LINE", "filter written in Python",
                   lambda workload: contestants.make_python_filter({workload.code.co_filename: NO_LINES})),
        event_road("LINE", "Callback: no breakpoint in the line", module),
        event_road("LINE", "Callback: internal code, None", internal),
        event_road("LINE", "Callback: some thread is to be held", module_holding),
        event_road("LINE", "Callback: calls a C function that does nothing",
                   calling(contestants.floor, every_line)),
        event_road("LINE", "Callback: calls a Python function that does nothing",
                   calling(contestants.python_floor, every_line)),
    ]


def other_roads(kind):
    roads = floors(kind) + [event_road(kind, "Callback: not wanted", module)]
    if kind == "PY_START":
        roads.append(event_road(kind, "Callback: thread is not debugged", module,
                                set_policy(0), set_policy(1)))
        roads.append(event_road(kind, "Callback: internal code, None", internal))
    return roads


def disabling_road(title, make_callback):
    """A road through lines whose events are answered with DISABLE: each comes only once."""
    count = 100
    source = "def run(is_for_real):\n if is_for_real:\n" + "  a = None\n" * count
    namespace = {}
    exec(compile(source, "/srv/app/disabling.py", "exec"), namespace)
    run = namespace["run"]
    workload = workloads.Monitored(events.LINE, run.__code__)
    callback = make_callback(workload)
    if callback is not None:
        monitoring.set_local_events(TOOL, workload.code, workload.event)

    def enter():
        monitoring.register_callback(TOOL, workload.event, callback)
        monitoring.restart_events()
        run(False)  # the interpreter brings the events back

    return Road("LINE, DISABLE", title, run, count, size=1, before=enter)


def disabling_roads():
    def internal_code(workload):
        return module_callback.make(workload.code, workload.event, NO_LINES, can_return_disable=True,
                                    is_internal=True).Callback

    return [
        disabling_road("no events", lambda workload: None),
        disabling_road("floor", lambda workload: contestants.disabling_floor),
        disabling_road("Callback: internal code, DISABLE", internal_code),
    ]


# Calls


_CALLS = "def run(size):\n for _ in repeat(None, size):\n" + "  {}\n" * 4


def call_road(group, title, expression, **names):
    """A road of calls from Python code; the floor of a group is a call with as many arguments."""
    parameters = "".join(", {0}={0}".format(name) for name in names)  # local variables, quick to reach
    source = _CALLS.format(*[expression] * 4).replace("size)", "size" + parameters + ")", 1)
    namespace = {"repeat": itertools.repeat, **names}
    exec(source, namespace)
    return Road(group, title, namespace["run"], 4)


def call_roads():
    name = os.path.abspath(__file__)
    xo.get_canonical_pathname(name)
    one, other = "call", "call of one argument"
    return [
        call_road(one, "no events", "pass"),
        call_road(one, "floor", "call()", call=contestants.floor),
        call_road(one, "CPerThread.GetPerThread()", "call()", call=xo.CPerThread.GetPerThread),
        call_road(other, "no events", "pass"),
        call_road(other, "floor", "call(name)", call=contestants.floor, name=name),
        call_road(other, "GetPathnameKind(name)", "call(name)", call=xo.GetPathnameKind, name=name),
        call_road(other, "Lookup(name) of a known name", "call(name)", call=xo._gCanonicalPathnameMgr.Lookup,
                  name=name),
        call_road(other, "GetPerCodeObject(code) of a known code object", "call(code)",
                  call=xo.CPerCodeObject.GetPerCodeObject, code=call_roads.__code__),
    ]


# Things that happen once


def new_code_road(title, callback):
    """A road through first events of new code objects: their records are made, the second stage is called."""
    count = 200
    monitored = []

    def template():
        pass

    def enter():
        monitoring.register_callback(TOOL, events.PY_START, callback)
        for number in range(count):
            code = template.__code__.replace(co_name="new_{}".format(number))
            if callback is not None:
                monitoring.set_local_events(TOOL, code, events.PY_START)
            monitored.append(type(template)(code, {}))

    def run(size):
        for function in monitored:
            function()

    return Road("new code object", title, run, count, size=1, before=enter, after=monitored.clear)


def new_thread_road(title, callback):
    """A road through threads that start, raise one event and end: each gets a record and its clean-up."""
    count = 50

    def monitored():
        pass

    if callback is not None:
        module_callback.make(monitored.__code__, events.PY_START, NO_LINES)
        monitoring.set_local_events(TOOL, monitored.__code__, events.PY_START)

    def run(size):
        for _ in range(count):
            thread = threading.Thread(target=monitored)
            thread.start()
            thread.join()

    return Road("new thread", title, run, count, size=1, clock=time.process_time_ns,
                before=lambda: monitoring.register_callback(TOOL, events.PY_START, callback))


def rare_roads():
    start = xo.CInitialCallback(events.PY_START, contestants.floor, False).Callback
    return [
        new_code_road("no events", None),
        new_code_road("Callback: makes the record, calls a C function that does nothing", start),
        new_thread_road("no events", None),
        new_thread_road("Callback: makes the record, takes it away again", start),
    ]


def foreign_roads():
    return [
        *floors("LINE")[:2],
        event_road("LINE", "Callback: forked child that is not debugged", module),
    ]


# Measuring


def take_samples(roads, rounds, milliseconds):
    for road in roads:
        road.choose_size(milliseconds)
    for _ in range(rounds):
        gc.collect(0)
        for road in roads:
            road.samples.append(road.sample())


def summarise(roads):
    """One entry for each road: the medians, over the rounds, of its cost and of its ratio to the floor."""
    groups = {}
    for road in roads:
        groups.setdefault(road.group, {})[road.title] = road
    entries = []
    for group, members in groups.items():
        for road in members.values():
            if "floor" in members:
                floor = less(members["floor"].samples, members["no events"].samples)
                costs = less(road.samples, members["no events"].samples)
                ratio = statistics.median(cost / floor_cost for cost, floor_cost in zip(costs, floor))
            else:
                costs, ratio = road.samples, None
            if ratio is None or road is not members["no events"]:
                entries.append({"group": group, "title": road.title, "ratio": ratio,
                                "nanoseconds": statistics.median(costs)})
    return entries


def less(samples, idle_samples):
    return [sample - idle for sample, idle in zip(samples, idle_samples)]


def measure_in_child(make_roads, rounds, milliseconds):
    """What `make_roads` has to offer, measured in a forked child."""
    receiving, sending = os.pipe()
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # all threads that there were have ended
        child = os.fork()
    if child == 0:
        status = 1
        try:
            os.close(receiving)
            roads = make_roads()
            take_samples(roads, rounds, milliseconds)
            with os.fdopen(sending, "w") as file:
                json.dump(summarise(roads), file)
            status = 0
        except BaseException:
            sys.excepthook(*sys.exc_info())
        finally:
            os._exit(status)
    os.close(sending)
    with os.fdopen(receiving) as file:
        text = file.read()
    _, status = os.waitpid(child, 0)
    if status != 0:
        raise RuntimeError("the forked child failed")
    return json.loads(text)


def main(rounds, milliseconds):
    rounds, milliseconds = int(rounds), float(milliseconds)
    monitoring.use_tool_id(TOOL, "bench")
    module_callback.prepare()
    gc.disable()
    roads = [*line_roads(), *disabling_roads()]
    for kind in ("PY_START", "PY_RETURN", "PY_YIELD", "PY_RESUME"):
        roads += other_roads(kind)
    roads += [*call_roads(), *rare_roads()]
    take_samples(roads, rounds, milliseconds)
    entries = summarise(roads)
    entries += [entry for entry in measure_in_child(foreign_roads, rounds, milliseconds)
                if entry["title"].startswith("Callback")]
    json.dump(entries, sys.stdout)


if __name__ == "__main__":
    main(*sys.argv[1:])
