"""The interpreter's own tests of `bdb` and `pdb`, as they are, with vorntracer's classes in place of the stock ones.

They are run from where the interpreter has them. The debuggers that they start in other processes are ours, too.
"""

import importlib.util
import os
import re
import subprocess
import sys
import tempfile
import unittest

_SITE_FOLDER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "site")

# Test -> why the stock debugger fails it in the same arrangement.
_STOCK_FAILS_TOO = {}


def _has_own_tests():
    return importlib.util.find_spec("test.libregrtest") is not None and all(
        importlib.util.find_spec("test." + name) is not None for name in ("test_bdb", "test_pdb"))


class CPythonSuites(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not _has_own_tests():
            # What ./dev interpreters brings has them; an interpreter of the system's own need not.
            message = "this interpreter has no tests of its own; its package of tests is needed"
            if sys.prefix == "/usr":
                raise unittest.SkipTest(message)
            raise AssertionError(message)

    def run_suite(self, name):
        """Run one suite; it has to pass without a call of `sys.settrace`. Returns how many tests it ran."""
        with tempfile.TemporaryDirectory() as folder:
            log = os.path.join(folder, "settrace.log")
            environment = dict(os.environ, SETTRACE_LOG=log, TEMP=folder, TMPDIR=folder)
            environment["PYTHONPATH"] = os.pathsep.join([*environment["PYTHONPATH"].split(os.pathsep), _SITE_FOLDER])
            result = subprocess.run([sys.executable, "-m", "test", "-v", name], env=environment, cwd=folder,
                                    stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                    text=True, errors="replace")
            failed = set(re.findall(r"^(?:FAIL|ERROR): (\S+)", result.stdout, re.MULTILINE)) - set(_STOCK_FAILS_TOO)
            is_passed = result.returncode == 0 or (
                not failed and set(re.findall(r"^(?:FAIL|ERROR): (\S+)", result.stdout, re.MULTILINE)))
            self.assertTrue(is_passed, "{} failed: {}\n{}".format(name, sorted(failed), result.stdout))
            if os.path.exists(log):
                with open(log, encoding="utf-8") as lines:
                    self.fail(lines.read())
            ran = re.search(r"^Ran (\d+) tests?", result.stdout, re.MULTILINE)
            self.assertIsNotNone(ran, result.stdout)
            return int(ran.group(1))

    def test_bdb_passes_its_tests(self):
        self.assertGreater(self.run_suite("test_bdb"), 30)

    def test_pdb_passes_its_tests(self):
        self.assertGreater(self.run_suite("test_pdb"), 70)

    @unittest.skipIf(sys.version_info < (3, 14), "processes can be attached to from 3.14 on")
    def test_remote_pdb_passes_its_tests(self):
        self.assertGreater(self.run_suite("test_remote_pdb"), 40)

    def test_the_classes_in_question_are_ours(self):
        program = ("import bdb, pdb; from vorntracer.events import engine; names = [];"
                   "pdb.Pdb.set_trace; assert pdb.Pdb.__module__ == 'vorntracer.pdb', pdb.Pdb;"
                   "assert bdb.Bdb.__module__ == 'vorntracer.bdb', bdb.Bdb;"
                   "bdb.Bdb().runcall(lambda: names.append(engine.tool_id)); assert names != [None], names")
        environment = dict(os.environ)
        environment["PYTHONPATH"] = os.pathsep.join([*environment["PYTHONPATH"].split(os.pathsep), _SITE_FOLDER])
        subprocess.run([sys.executable, "-c", program], env=environment, check=True)


if __name__ == "__main__":
    unittest.main()
