"""Time every road through the first stage, and the calls that a tracer makes, beside functions that do nothing.

All roads take turns in one process, over and over. A sample of a road is set against the sample that its floor gave
in the same round, so that a machine which gets slower or faster for a while does so for both. The time is that of the
thread, which does not run on while something else has the processor.

usage: time_events.py ROUNDS MILLISECONDS [foreign]

Prints, as JSON, one entry for each road: nanoseconds of an event, less what the same code takes without events, and
how many times those of the floor that is. What happens in a forked child is measured in a forked child.
"""

import gc
import itertools
import json
import os
import statistics
import sys
import threading
import time

import contestants
import module_callback
import workloads

xo = module_callback.xo
monitoring = sys.monitoring
events = monitoring.events
TOOL = monitoring.DEBUGGER_ID

NO_LINES = frozenset({workloads.NO_LINE})


class Road:
    """Something that is timed. `run(size)` does it `size * per_size` times; `before` and `after` are not timed."""

    def __init__(self, group, title, run, per_size, size=None, before=None, after=None):
        self.group = group
        self.title = title
        self.run = run
        self.per_size = per_size
        self.size = size
        self.before = before or (lambda: None)
        self.after = after or (lambda: None)
        self.samples = []

    def sample(self):
        """Nanoseconds of one time."""
        self.before()
        started = time.thread_time_ns()
        self.run(self.size)
        elapsed = time.thread_time_ns() - started
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
    xo.SetInternalPathnameDict({workload.code.co_filename: True})
    try:
        return module_callback.make(workload.code, workload.event, NO_LINES).Callback
    finally:
        xo.SetInternalPathnameDict({})


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
                   lambda workload: contestants.make_python_filter(workload.code, NO_LINES)),
        event_road("LINE", "Callback: no breakpoint in the line", module),
        event_road("LINE", "Callback: internal code, None", internal),
        event_road("LINE", "Callback: some thread is to be held", module_holding),
        event_road("LINE", "Callback: calls a C function that does nothing", calling(contestants.floor, every_line)),
        event_road("LINE", "Callback: calls a Python function that does nothing",
                   calling(contestants.python_floor, every_line)),
    ]


def other_roads(kind):
    roads = floors(kind) + [event_road(kind, "Callback: not wanted", module)]
    if kind == "PY_START":
        roads.append(event_road(kind, "Callback: thread is not debugged", module, set_policy(0), set_policy(1)))
        roads.append(event_road(kind, "Callback: internal code, None", internal))
    return roads


def disabling_road(title, make_callback):
    """A road through lines whose events are answered with DISABLE: each comes only once."""
    count = 1000
    source = "def run(is_for_real):\n if is_for_real:\n" + "  a = None\n" * count
    namespace = {}
    exec(compile(source, "/srv/app/disabling.py", "exec"), namespace)
    run = namespace["run"]
    workload = workloads.Monitored("DISABLE", events.LINE, run.__code__)
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
        xo.SetInternalPathnameDict({workload.code.co_filename: True})
        try:
            first_stage = module_callback.make(workload.code, workload.event, NO_LINES, can_return_disable=True)
        finally:
            xo.SetInternalPathnameDict({})
        return first_stage.Callback

    return [
        disabling_road("no events", lambda workload: None),
        disabling_road("floor", lambda workload: contestants.disabling_floor),
        disabling_road("Callback: internal code, DISABLE", internal_code),
    ]


# Calls


def call_road(group, title, function, *args):
    """A road of calls from Python code; the floor of a group is a call with as many arguments."""

    def run(size):
        for _ in itertools.repeat(None, size):
            function(*args)
            function(*args)
            function(*args)
            function(*args)

    return Road(group, title, run, 4)


def call_roads():
    name = os.path.abspath(__file__)
    xo.get_canonical_pathname(name)
    return [
        call_road("call", "no events", _nothing_called),
        call_road("call", "floor", contestants.floor),
        call_road("call", "CPerThread.GetPerThread()", xo.CPerThread.GetPerThread),
        call_road("call of one argument", "floor", contestants.floor, name),
        call_road("call of one argument", "GetPathnameKind(name)", xo.GetPathnameKind, name),
        call_road("call of one argument", "Lookup(name), which is known", xo._gCanonicalPathnameMgr.Lookup, name),
        call_road("call of one argument", "GetPerCodeObject(code), which is known",
                  xo.CPerCodeObject.GetPerCodeObject, call_roads.__code__),
    ]


# Things that happen once


def new_code_road(title, callback):
    """A road through the first events of new code objects: their records are made and the second stage is called."""
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

    return Road("new thread", title, run, count, size=1,
                before=lambda: monitoring.register_callback(TOOL, events.PY_START, callback))


def rare_roads():
    start = xo.CInitialCallback(events.PY_START, contestants.floor, False).Callback
    return [
        new_code_road("no events", None),
        new_code_road("floor", contestants.floor),
        new_code_road("Callback: makes the record, calls a C function that does nothing", start),
        new_thread_road("no events", None),
        new_thread_road("floor", contestants.floor),
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
        road.sample()
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
        floor = members["floor"]
        idle = members.get("no events")
        idle_samples = idle.samples if idle else [0.0] * len(floor.samples)
        for road in members.values():
            if road is idle:
                continue
            costs = [sample - idle_sample for sample, idle_sample in zip(road.samples, idle_samples)]
            floor_costs = [sample - idle_sample for sample, idle_sample in zip(floor.samples, idle_samples)]
            ratios = [cost / floor_cost for cost, floor_cost in zip(costs, floor_costs) if floor_cost > 0]
            entries.append({
                "group": group,
                "title": road.title,
                "nanoseconds": round(statistics.median(costs), 2),
                "ratio": round(statistics.median(ratios), 3) if ratios else None,
            })
    return entries


def measure_in_child(make_roads, rounds, milliseconds):
    """What `make_roads` has to offer, measured in a forked child."""
    receiving, sending = os.pipe()
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
