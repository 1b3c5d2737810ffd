"""Time a program under debugpy, where that is installed.

It cannot be switched off again, so each measurement is a process of its own, and what is measured under
nothing comes first. At a stop, the thread waits for two other processes; that time is not counted.

usage: time_debugpy.py ROUNDS MILLISECONDS SECONDS_FOR_EACH PROGRAM SPOT    a breakpoint that is never hit
       time_debugpy.py ROUNDS MILLISECONDS SECONDS_FOR_EACH ACTION          what is done at one that is hit

Prints one entry as time_programs.py does; null where debugpy is not installed.
"""

import gc
import importlib.util
import json
import pathlib
import statistics
import subprocess
import sys
import time

import places
import programs
import time_programs

NAME = "debugpy"


class Session:
    """debugpy in this process, with a client that has set a breakpoint."""

    def __init__(self, breakpoint, condition=None, answers=("continue",)):
        import debugpy

        host, port = debugpy.listen(("127.0.0.1", 0))
        client = pathlib.Path(__file__).with_name("adapter_client.py")
        self._client = subprocess.Popen([sys.executable, client], text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)
        wanted = {"host": host, "port": port, "file": breakpoint.file, "lineno": breakpoint.lineno,
                  "condition": condition, "answers": answers}
        self._client.stdin.write(json.dumps(wanted) + "\n")
        self._client.stdin.flush()
        debugpy.wait_for_client()
        if self._client.stdout.readline() != "ready\n":
            raise RuntimeError("the client gave up")

    def close(self):
        self._client.stdin.close()
        self._client.wait(30)


def never_hit(effort, name, spot):
    program = programs.PROGRAMS[name]
    breakpoint = time_programs.spots_of(program)[1][spot]
    idle_units = max(1, round(effort.nanoseconds / time_programs.time_units(program, 4)))
    idle = statistics.median(time_programs.time_units(program, idle_units) for _ in range(effort.rounds))
    session = Session(breakpoint)
    time_programs.time_units(program, 2)
    deadline = time.monotonic() + effort.seconds
    busy_units = max(1, min(idle_units, round(effort.nanoseconds / time_programs.time_units(program, 1))))
    samples = []
    while len(samples) < effort.rounds and (not samples or time.monotonic() < deadline):
        samples.append(time_programs.time_units(program, busy_units))
    session.close()
    return {"program": name, "breakpoint": spot, "debugger": NAME,
            "slowdown": statistics.median(samples) / idle}


def at_stop(effort, action):
    if action in time_programs.LOOPS:
        condition, count = time_programs.LOOPS[action]
        count = count if condition else count // 10  # each stop takes long
        session = Session(time_programs.line_in(programs.called_often, 1), condition)
        programs.call_often(1)
        started = time.thread_time_ns()
        programs.call_often(count)
        elapsed = (time.thread_time_ns() - started) / count
        session.close()
        return {"action": action, "debugger": NAME, "microseconds": elapsed / 1000}
    function, answers, _ = time_programs.STEPS[action]

    def program():
        time_programs.time_units(programs.json_round_trip, time_programs.UNITS_OF_A_STEP)

    program()
    started = time.thread_time_ns()
    program()
    idle = time.thread_time_ns() - started
    session = Session(time_programs.line_in(programs.call_a_program, 1), None, answers)
    started = time.thread_time_ns()
    function(program)
    elapsed = time.thread_time_ns() - started
    session.close()
    return {"action": action, "debugger": NAME, "slowdown": elapsed / idle}


def main(rounds, milliseconds, seconds, *what):
    gc.disable()
    effort = time_programs.Effort(rounds, milliseconds, seconds)
    found = importlib.util.find_spec("debugpy") is not None
    entry = (never_hit if len(what) == 2 else at_stop)(effort, *what) if found else None
    json.dump(entry, sys.stdout)


main(*sys.argv[1:])
