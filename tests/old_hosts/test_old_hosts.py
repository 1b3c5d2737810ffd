"""Interpreters that the module cannot work with: an import ends in an ordinary exception, and harms nothing.

Runs under 2.7 and 3.6 to 3.11. Everything happens in processes of its own, so that a crash is a failed test
and not the end of all tests. The companions that the module imports are written for newer interpreters; here
they are a few lines in a package that is made for the test.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest

VERSION = sys.version_info[:2]

# Prints how each import ended, and what it left behind.
IMPORT_TWICE = """
import sys

for attempt in range(2):
    before = set(sys.modules)
    try:
        import host.xoptmonitoring
    except Exception as error:
        print(type(error).__name__)
        print(str(error))
    else:
        print("imported")
    print(sorted(name for name in set(sys.modules) - before if "xopt" in name))
    print(hasattr(sys.modules["host"], "xoptmonitoring"))
"""

# The interpreter has to be as useful as before.
GO_ON = """
import gc
import threading

gc.collect()
done = []
thread = threading.Thread(target=done.append, args=(1,))
thread.start()
thread.join()
print("went on: {}".format(done))
"""


def find_module():
    """The built module, in the first package folder on the path that has it."""
    for folder in sys.path:
        candidate = os.path.join(folder, "vorntracer", "xoptmonitoring.so")
        if os.path.isfile(candidate):
            return candidate
    raise AssertionError("no vorntracer/xoptmonitoring.so on sys.path")


def expected_exception():
    """The name of the exception, and what its message has to name."""
    if VERSION[0] == 2:
        return "ImportError", "Unable to init XPy"
    if VERSION < (3, 8):
        return "ImportError", "xoptmonitoring needs Python 3.12 or later: no PyVectorcall_Call"
    if VERSION < (3, 9):
        return "RuntimeError", "PyType_FromModuleAndSpec() not available before 3.9"
    return "AttributeError", "monitoring"


class OldHost(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.write("host/__init__.py")
        self.write("host/dbgpythonapi.py")
        self.write("vornbase/__init__.py")
        self.write("vornbase/dlog.py", "def LogException(*args):\n    pass\n")
        shutil.copy(find_module(), os.path.join(self.folder, "host", "xoptmonitoring.so"))

    def write(self, name, text=""):
        path = os.path.join(self.folder, name)
        if not os.path.isdir(os.path.dirname(path)):
            os.makedirs(os.path.dirname(path))
        with open(path, "w") as file:
            file.write(text)

    def run_python(self, *programs):
        """Run programs one after the other in one new interpreter; their output lines, and standard error."""
        environment = dict(os.environ, PYTHONPATH=self.folder, PYTHONDONTWRITEBYTECODE="1")
        code = "\n".join(textwrap.dedent(program) for program in programs)
        process = subprocess.Popen(
            [sys.executable, "-c", code],
            env=environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, universal_newlines=True,
        )
        output, errors = process.communicate()
        story = "status {}\n{}\n{}".format(process.returncode, output, errors)
        self.assertEqual(process.returncode, 0, story)
        return output.splitlines(), errors

    def assert_ended_in_exception(self, lines, name, message):
        self.assertEqual(lines[0], name)
        self.assertIn(message, lines[1])
        self.assertEqual(lines[2:4], ["[]", "False"], "something of the module was left behind")

    def test_an_import_ends_in_an_exception_that_says_what_is_missing(self):
        lines, _ = self.run_python(IMPORT_TWICE)
        name, message = expected_exception()
        self.assert_ended_in_exception(lines, name, message)

    def test_a_second_import_ends_in_the_same_way(self):
        lines, _ = self.run_python(IMPORT_TWICE)
        self.assertEqual(lines[4:8], lines[:4])
        self.assertEqual(len(lines), 8)

    def test_the_interpreter_goes_on_and_ends_in_order(self):
        lines, _ = self.run_python(IMPORT_TWICE, GO_ON)
        self.assertEqual(lines[-1], "went on: [1]")

    def test_nothing_but_the_missing_function_is_told_to_standard_error(self):
        _, errors = self.run_python(IMPORT_TWICE)
        name, message = expected_exception()
        if name == "RuntimeError":
            self.assertEqual(errors, message * 2)
        else:
            self.assertEqual(errors, "")

    @unittest.skipUnless(VERSION >= (3, 9), "this version is refused before companions are looked for")
    def test_a_missing_companion_is_named(self):
        shutil.rmtree(os.path.join(self.folder, "vornbase"))
        lines, _ = self.run_python(IMPORT_TWICE, GO_ON)
        self.assert_ended_in_exception(lines, "ModuleNotFoundError", "vornbase")
        self.assertEqual(lines[-1], "went on: [1]")

    def test_diagnostics_of_binding_can_be_switched_on_before_the_import(self):
        program = """
            import ctypes

            library = ctypes.PyDLL({!r})
            library.XPy_SetDPrintfNativeFile(1, None)
            assert library.XPy_SetDPrintfMask(4) == 84
        """.format(os.path.join(self.folder, "host", "xoptmonitoring.so"))
        lines, _ = self.run_python(program, "import sys", "sys.stdout.flush()", IMPORT_TWICE)
        found = "FindInitFunction() succeeded major_version = {}, free_t_build = 0, pydebug_build = 0"
        self.assertIn(found.format(VERSION[0]), lines)
        self.assertIn("XPy_InitializeGlobalData() succeeded", lines)

    def test_the_test_switch_ends_an_import_before_it_begins(self):
        program = """
            import ctypes

            library = ctypes.PyDLL({!r})
            assert library.XPy_DbgSetFailOnImport(1) == 0
            assert library.XPy_DbgSetFailOnImport(1) == 1
        """.format(os.path.join(self.folder, "host", "xoptmonitoring.so"))
        lines, errors = self.run_python(program, IMPORT_TWICE)
        self.assert_ended_in_exception(lines, "ImportError", "Unable to init XPy")
        self.assertEqual(lines[4:8], lines[:4])
        self.assertEqual(errors, "")


if __name__ == "__main__":
    unittest.main()
