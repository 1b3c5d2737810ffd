"""Time whole programs under debuggers: with a breakpoint that is never hit, and at one that is hit.

Every run under a debugger is set against one under nothing just before it, in the same process. Both begin
with a warm-up: what is measured is the steady state, after the interpreter has specialised the code, and
after a debugger has seen what it needs to see once.

usage: time_programs.py ROUNDS MILLISECONDS SECONDS_FOR_EACH PROGRAM[,PROGRAM...]

Prints, as JSON, one entry for each program, debugger and place: how many times longer the program takes.
"""

import gc
import json
import sched
import statistics
import sys
import threading
import time

import debuggers
import places
import programs

monitoring = sys.monitoring


def time_units(program, units):
    """Nanoseconds of one call of a program, out of so many."""
    started = time.thread_time_ns()
    for _ in range(units):
        program()
    return (time.thread_time_ns() - started) / units


def sample(debugger, program, found, breakpoint, units, warm_up):
    """Nanoseconds of one call of a program under a debugger."""
    measured = []

    def run():
        time_units(program, warm_up)
        measured.append(time_units(program, units))

    debugger.call(run, found, breakpoint)
    return measured[0]


class Effort:
    """How much is measured."""

    def __init__(self, rounds, milliseconds, seconds):
        self.rounds = int(rounds)
        self.nanoseconds = float(milliseconds) * 1e6
        self.seconds = float(seconds)


def slowdown(debugger, program, found, breakpoint, effort):
    """The median of how many times longer a program takes under a debugger than under nothing."""
    deadline = time.monotonic() + effort.seconds
    idle = sample(debuggers.NOTHING, program, found, breakpoint, 4, 4)
    busy = sample(debugger, program, found, breakpoint, 1, 1)
    idle_units = max(1, round(effort.nanoseconds / idle))
    busy_units = max(1, min(idle_units, round(effort.nanoseconds / busy)))
    ratios = [busy / idle]
    for _ in range(effort.rounds):
        if time.monotonic() > deadline:
            break
        gc.collect()
        idle = sample(debuggers.NOTHING, program, found, breakpoint, idle_units, min(idle_units, 8))
        ratios.append(sample(debugger, program, found, breakpoint, busy_units, min(busy_units, 8)) / idle)
    return statistics.median(ratios[1:] or ratios)


def spots_of(program):
    """The places of a program, and those for breakpoints by what they are called."""
    found = places.find_places(program, sched.__file__)
    return found, {
        "in another file": found.in_another_file,
        "in another function of the same file": found.in_the_same_file,
        "in the hot function": found.in_the_hot_function,
        "on the def line of the function called most": found.on_the_def_line,
    }


def never_hit(effort, names):
    """The slowdown of programs by a breakpoint that is never hit."""
    for name in names:
        program = programs.PROGRAMS[name]
        found, spots = spots_of(program)
        for spot, breakpoint in spots.items():
            contenders = [debuggers.OWN, debuggers.OWN_BDB, *debuggers.standard_debuggers()]
            if breakpoint is found.in_the_hot_function:
                contenders.append(debuggers.LEAST)
            for debugger in contenders:
                yield {"program": name, "breakpoint": spot, "debugger": debugger.name,
                       "hot function": found.hot_code.co_qualname,
                       "slowdown": slowdown(debugger, program, found, breakpoint, effort)}


def line_in(function, offset):
    return places.Place(function.__code__.co_filename, function.__code__.co_firstlineno + offset)


def timed_call(debugger, function, breakpoint, condition=None, on_hit=None):
    """Nanoseconds of one call of a function under a debugger."""
    measured = []

    def run():
        started = time.thread_time_ns()
        function()
        measured.append(time.thread_time_ns() - started)

    options = {} if on_hit is None else {"on_hit": on_hit}
    debugger.call(run, None, breakpoint, condition, **options)
    return measured[0]


def hits(debugger, condition, count):
    """Nanoseconds of one breakpoint that is reached in a loop."""
    seen = []

    def on_hit(frame):
        seen.append(frame.f_lineno)
        return "continue"

    breakpoint = line_in(programs.called_often, 1)
    elapsed = timed_call(debugger, lambda: programs.call_often(count), breakpoint, condition, on_hit)
    if len(seen) != (0 if condition else count):
        raise RuntimeError("{} stopped {} times".format(debugger.name, len(seen)))
    return elapsed / count


def step(debugger, function, breakpoint, answers, stops, units):
    """Nanoseconds of a function in which a step goes on while a program runs."""
    seen = []

    def on_hit(frame):
        seen.append((frame.f_code.co_name, frame.f_lineno))
        return answers[min(len(seen), len(answers)) - 1]

    def program():
        for _ in range(units):
            programs.json_round_trip()

    elapsed = timed_call(debugger, lambda: function(program), breakpoint, None, on_hit)
    expected = [(code.co_name, code.co_firstlineno + offset) for code, offset in stops]
    if seen != expected:
        raise RuntimeError("{} stopped at {} and not at {}".format(debugger.name, seen, expected))
    return elapsed


CALLEE, CALLER = programs.call_a_program.__code__, programs.call_the_caller.__code__

# Breakpoints in a loop: their condition, and how often the loop runs
LOOPS = {"stop at a breakpoint": (None, 1000), "condition that is false": ("number < 0", 10000)}

# Steps: the function that is called, the answers to stops, and where the stops have to be
STEPS = {
    "step over a long call": (programs.call_a_program, ("over", "continue"), ((CALLEE, 1), (CALLEE, 2))),
    "step out of a long call": (programs.call_the_caller, ("out", "continue"), ((CALLEE, 1), (CALLER, 2))),
}

UNITS_OF_A_STEP = 16

# One step after the other in a loop: what is answered at each stop
STEPPING = {"step into, in a loop": "into", "step over, in a loop": "over"}
STEPS_TAKEN = 3000


def steps(debugger, answer):
    """Nanoseconds of one step of many in a loop that calls nothing."""
    stops = []

    def on_hit(frame):
        stops.append(None)
        return answer if len(stops) < STEPS_TAKEN else "continue"

    breakpoint = line_in(programs.count_up, 1)
    elapsed = timed_call(debugger, lambda: programs.count_up(STEPS_TAKEN), breakpoint, None, on_hit)
    if len(stops) < STEPS_TAKEN:
        raise RuntimeError("{} stopped {} times".format(debugger.name, len(stops)))
    return elapsed / STEPS_TAKEN


CALLS_ELSEWHERE = 20_000


def calls_elsewhere(debugger):
    """Nanoseconds of many calls on a thread that is not debugged, of a function with a breakpoint."""
    elapsed = []

    def work():
        for _ in range(5):
            started = time.thread_time_ns()
            programs.call_rarely_chosen(CALLS_ELSEWHERE)
            elapsed.append(time.thread_time_ns() - started)

    def in_a_thread():
        thread = threading.Thread(target=work)
        thread.start()
        thread.join()

    debugger.call(in_a_thread, None, line_in(programs.rarely_chosen, 2))
    return min(elapsed)


def at_stops(effort):
    """What stops and steps cost. A step is set against the same program under nothing."""
    rounds = max(3, effort.rounds // 2)
    breakpoint = line_in(programs.call_a_program, 1)

    def idle():
        return time_units(programs.json_round_trip, UNITS_OF_A_STEP) * UNITS_OF_A_STEP

    for debugger in (debuggers.OWN, debuggers.OWN_BDB, *debuggers.standard_debuggers()):
        for action, (condition, count) in LOOPS.items():
            samples = [hits(debugger, condition, count) for _ in range(rounds)]
            yield {"action": action, "debugger": debugger.name,
                   "microseconds": statistics.median(samples) / 1000}
        for action, (function, answers, stops) in STEPS.items():
            ratios = [step(debugger, function, breakpoint, answers, stops, UNITS_OF_A_STEP) / idle()
                      for _ in range(rounds)]
            yield {"action": action, "debugger": debugger.name, "slowdown": statistics.median(ratios)}
        for action, answer in STEPPING.items():
            samples = [steps(debugger, answer) for _ in range(rounds)]
            yield {"action": action, "debugger": debugger.name, "microseconds": statistics.median(samples) / 1000}
        if not isinstance(debugger, debuggers.OwnTracer):  # which debugs every thread
            ratios = [calls_elsewhere(debugger) / calls_elsewhere(debuggers.NOTHING) for _ in range(rounds)]
            yield {"action": "calls on a thread that is not debugged", "debugger": debugger.name,
                   "slowdown": statistics.median(ratios)}


def main(rounds, milliseconds, seconds, names):
    effort = Effort(rounds, milliseconds, seconds)
    gc.disable()
    json.dump({"never hit": list(never_hit(effort, names.split(","))), "at stops": list(at_stops(effort))},
              sys.stdout)


if __name__ == "__main__":
    main(*sys.argv[1:])
