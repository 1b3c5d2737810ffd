"""Let callgrind count the instructions of each workload under each callback.

Each run is made in two sizes, and what each of them costs is dumped on its own: all that does not depend on
the size is in both. Prints, as JSON, one entry for each dump, in the order of the dumps.
"""

import gc
import json
import sys

import contestants
import module_callback
import workloads

SMALL, LARGE = 50, 250

monitoring = sys.monitoring
TOOL = monitoring.DEBUGGER_ID


def switch(workload, callback):
    """Switch a workload's event on, with that callback, or off where there is none."""
    monitoring.register_callback(TOOL, workload.event, callback)
    monitoring.set_local_events(TOOL, workload.code, 0 if callback is None else workload.event)


def check_number_of_events(workload):
    """See that a workload raises as many events as it says."""
    seen = []
    switch(workload, lambda *args: seen.append(args))
    workload.run(LARGE)
    at_large = len(seen)
    workload.run(SMALL)
    if at_large - (len(seen) - at_large) != (LARGE - SMALL) * workload.per_round:
        raise RuntimeError("%s raises %d events" % (workload.name, at_large))
    switch(workload, None)


def make_callback(name, workload):
    """The callback of that name, set up to skip the events of the workload."""
    if name == "nothing":
        return None
    if name == "Callback":
        return module_callback.make(workload.code, workload.event, {workloads.NO_LINE}).Callback
    contestants.watch(workload.code, {workloads.NO_LINE})
    if name == "by hand":
        return contestants.filter_of(workload.event)
    return {"floor": contestants.floor, "floor as a method": contestants.floor_method}[name]


def main(workload_names, callback_names):
    if not contestants.is_counting_possible():
        raise RuntimeError("this is for a run under callgrind")
    monitoring.use_tool_id(TOOL, "bench")
    module_callback.prepare()
    gc.disable()
    dumps = []
    for workload_name in workload_names:
        make_workload = workloads.MAKERS[workload_name]
        check_number_of_events(make_workload())
        for callback_name in callback_names:
            workload = make_workload()
            switch(workload, make_callback(callback_name, workload))
            for _ in range(10):  # until the interpreter has specialised what it can
                workload.run(SMALL)
            contestants.start_counting()
            for rounds in (SMALL, LARGE):
                contestants.zero_counts()
                workload.run(rounds)
                contestants.dump_counts(workload_name + " / " + callback_name)
                dumps.append({"workload": workload_name, "callback": callback_name,
                              "events": rounds * workload.per_round})
            contestants.stop_counting()
            switch(workload, None)
    json.dump(dumps, sys.stdout)


main(*(argument.split(",") for argument in sys.argv[1:]))
