"""The interpreter's own tests as programs: they end as without a debugger, with breakpoints all over a library.

Each module is run twice in a process of its own, once as it is and once under `vorntracer.bdb.Bdb` with breakpoints on
every seventh line of eight library modules.
"""

import importlib.util
import json
import os
import subprocess
import sys
import tempfile
import unittest

_RUNNER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "run_with_breakpoints.py")

#: Module -> how many stops there are at least, so that an empty run does not pass.
_MODULES = {
    "test_json": 1000,
    "test_contextlib": 10_000,
    "test_functools": 10_000,
    "test_collections": 50_000,
    "test_generators": 100,
    "test_coroutines": 500,
    "test_asyncio.test_locks": 1000,
    "test_asyncio.test_tasks": 1000,
    "test_queue": 500,
    "test_threading_local": 50,
    "test_concurrent_futures.test_thread_pool": 50,
    "test_inspect.test_inspect": 10_000,
    "test_traceback": 1000,
}


def _has(name):
    try:
        return importlib.util.find_spec("test." + name) is not None
    except ModuleNotFoundError:
        return False


class SameResults(unittest.TestCase):
    def outcomes(self, kind, name):
        with tempfile.TemporaryDirectory() as folder:
            result = subprocess.run([sys.executable, _RUNNER, kind, name], cwd=folder, stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                                    timeout=600, env=dict(os.environ, TMPDIR=folder))
        start = result.stdout.rfind('{"outcomes"')
        self.assertGreaterEqual(start, 0, (result.returncode, result.stdout[-2000:], result.stderr[-4000:]))
        return json.loads(result.stdout[start:])

    def compare(self, name):
        plain, debugged = self.outcomes("nothing", name), self.outcomes("bdb", name)
        self.assertGreater(debugged["stops"], _MODULES[name])
        differing = [test for test in plain["outcomes"] | debugged["outcomes"]
                     if plain["outcomes"].get(test) != debugged["outcomes"].get(test)]
        self.assertEqual(differing, [], [debugged["details"].get(test) for test in differing])
        self.assertGreater(len(plain["outcomes"]), 10)


def _comparison(name):
    def test(self):
        self.compare(name)

    return test


for _name in _MODULES:
    # Some were folders in later versions only, and some interpreters have no tests: test_cpython_suites says so.
    _test = _comparison(_name)
    if not _has(_name):
        _test = unittest.skip("this interpreter has no test." + _name)(_test)
    elif _name == "test_queue" and not getattr(sys, "_is_gil_enabled", lambda: True)():
        _test = unittest.skip("without a global lock its threads hand one lock around, for minutes if slowed")(_test)
    setattr(SameResults, "test_{}_ends_as_without_a_debugger".format(_name.replace(".", "_")), _test)


if __name__ == "__main__":
    unittest.main()
