"""Measure how skipped LINE events scale with the number of threads.

All threads start together at a barrier and run the same number of events each; they share one
CInitialCallback, as in a debugger. They run either one code object between them or one each.

usage: time_threads.py ROUNDS MILLISECONDS THREADS[,THREADS...]

Prints, as JSON, for each callback and number of threads: events of a second in all threads together (the best
round, since other work on the machine only ever takes away), and the processor time of one event in
nanoseconds (the median), in which waiting is not seen but a contended cache line is.
"""

import json
import statistics
import sys
import threading
import time

import contestants
import module_callback
import workloads

monitoring = sys.monitoring
TOOL = monitoring.DEBUGGER_ID
LINE = monitoring.events.LINE
NO_LINES = frozenset({workloads.NO_LINE})


class Crowd:
    """Threads that run workloads under one callback."""

    def __init__(self, title, is_code_shared, most_threads, prepare, callback):
        self.title = title
        self.is_code_shared = is_code_shared
        self.callback = callback
        made = [workloads.MAKERS["LINE"]() for _ in range(1 if is_code_shared else most_threads)]
        self.workloads = made * (most_threads if is_code_shared else 1)
        for workload in made:
            prepare(workload.code)
            if callback is not None:
                monitoring.set_local_events(TOOL, workload.code, LINE)

    def run(self, threads, rounds):
        """Nanoseconds from the first start to the last end, and those that the threads were at work."""
        barrier = threading.Barrier(threads)
        spans = []

        def work(workload):
            contestants.watch_thread()
            workload.run(1)
            barrier.wait()
            started, worked = time.perf_counter_ns(), time.thread_time_ns()
            workload.run(rounds)
            worked = time.thread_time_ns() - worked
            spans.append((started, time.perf_counter_ns(), worked))

        monitoring.register_callback(TOOL, LINE, self.callback)
        crew = [threading.Thread(target=work, args=(self.workloads[number],)) for number in range(threads)]
        for thread in crew:
            thread.start()
        for thread in crew:
            thread.join()
        if len(spans) != threads:
            raise RuntimeError("a thread failed")
        starts, ends, works = zip(*spans)
        return max(ends) - min(starts), sum(works)


def make_crowds(most_threads):
    first_stage = module_callback.xo.CInitialCallback(LINE, module_callback.second_stage_never, False)
    for is_code_shared in (True, False):
        for title, prepare, callback in (
            ("no events", lambda code: None, None),
            ("floor", lambda code: None, contestants.floor),
            ("by hand in C", lambda code: contestants.watch(code, NO_LINES), contestants.line_filter),
            ("Callback", lambda code: module_callback.make(code, LINE, NO_LINES), first_stage.Callback),
        ):
            yield Crowd(title, is_code_shared, most_threads, prepare, callback)


def main(rounds, milliseconds, counts):
    counts = [int(count) for count in counts.split(",")]
    monitoring.use_tool_id(TOOL, "bench")
    module_callback.prepare()
    crowds = list(make_crowds(max(counts)))
    sizes = {}
    for crowd in crowds:
        size = 16
        while crowd.run(1, size)[0] < float(milliseconds) * 1e6 / 2:
            size *= 2
        sizes[crowd] = size
    found = {}
    for _ in range(int(rounds)):
        for crowd in crowds:
            for count in counts:
                found.setdefault((crowd, count), []).append(crowd.run(count, sizes[crowd]))
    entries = []
    for (crowd, count), samples in found.items():
        events = sizes[crowd] * crowd.workloads[0].per_round * count
        entries.append({
            "callback": crowd.title,
            "code": "one for all threads" if crowd.is_code_shared else "one for each thread",
            "threads": count,
            "events per second": events / min(wall for wall, _ in samples) * 1e9,
            "nanoseconds of processor time": statistics.median(work for _, work in samples) / events,
        })
    json.dump(entries, sys.stdout)


main(*sys.argv[1:])
