"""Runs one of the interpreter's own test modules and prints each test's outcome: run_with_breakpoints.py KIND MODULE

KIND      "nothing": as it is; "bdb": under `vorntracer.bdb.Bdb`; "tracer": under `vorntracer.tracer.Tracer`; with
          breakpoints on every seventh line of eight library modules, which do nothing but count their stops
"""

import asyncio.locks
import collections
import contextlib
import functools
import importlib
import inspect
import json
import json.decoder
import json.encoder
import queue
import sys
import threading
import traceback
import unittest

MODULES = (json.decoder, json.encoder, contextlib, functools, collections, queue, inspect, asyncio.locks)
EVERY = 7


def places():
    for module in MODULES:
        with open(module.__file__, encoding="utf-8") as source:
            for lineno in range(EVERY, len(source.readlines()), EVERY):
                yield module.__file__, lineno


class Outcomes(unittest.TestResult):
    """Which test ended how."""

    def __init__(self):
        super().__init__()
        self.found = {}

    def note(self, test, outcome):
        name = test.id()
        if self.found.get(name) != "failed":
            self.found[name] = outcome

    def addSuccess(self, test):
        super().addSuccess(test)
        self.note(test, "passed")

    def addError(self, test, error):
        super().addError(test, error)
        self.note(test, "failed")

    def addFailure(self, test, error):
        super().addFailure(test, error)
        self.note(test, "failed")

    def addSubTest(self, test, subtest, error):
        super().addSubTest(test, subtest, error)
        if error is not None:
            self.note(test, "failed")

    def addSkip(self, test, reason):
        super().addSkip(test, reason)
        self.note(test, "skipped")

    def addExpectedFailure(self, test, error):
        super().addExpectedFailure(test, error)
        self.note(test, "failed as expected")

    def addUnexpectedSuccess(self, test):
        super().addUnexpectedSuccess(test)
        self.note(test, "passed against expectation")


def run_under_nothing(run):
    run()
    return 0


def run_under_bdb(run):
    from vorntracer.bdb import Bdb

    class Counter(Bdb):
        stops = 0
        is_begun = False

        def user_line(self, frame):
            if self.is_begun:
                Counter.stops += 1
            self.is_begun = True
            self.set_continue()

    debugger = Counter()
    for file, lineno in places():
        debugger.set_break(file, lineno)
    debugger.runcall(run)
    return Counter.stops


def run_under_tracer(run):
    from vorntracer.tracer import Command, Tracer

    stops = []
    tracer = Tracer(lambda stop: stops.append(None) or Command.CONTINUE)
    for file, lineno in places():
        tracer.set_breakpoint(file, lineno)
    tracer.start()
    try:
        run()
    finally:
        tracer.stop()
    return len(stops)


def main(kind, name):
    suite = unittest.defaultTestLoader.loadTestsFromModule(importlib.import_module("test." + name))
    outcomes = Outcomes()
    stops = {"nothing": run_under_nothing, "bdb": run_under_bdb, "tracer": run_under_tracer}[kind](
        lambda: suite.run(outcomes))
    details = {test.id(): text for test, text in outcomes.failures + outcomes.errors}
    json.dump({"outcomes": outcomes.found, "stops": stops, "details": details}, sys.__stdout__)


if __name__ == "__main__":
    main(*sys.argv[1:])
