"""What other native modules see of the module, and how binding behaves around an import.

Each test runs in a process of its own, since binding happens once in a process.
"""

import os
import shutil
import sys
import tempfile
import textwrap
import unittest

from support import BARE_MODULE_MESSAGE, PACKAGE_DIR, HostPackage, run_python

# The built module as a native library, before any import of it.
LOAD = """
import ctypes
import importlib.util
import os
import sys

spec = importlib.util.find_spec("vorntracer.xoptmonitoring")
library = ctypes.PyDLL(spec.origin)
status_words = (ctypes.c_int32 * 10).in_dll(library, "global_XPy_C_API_Data")
INITIALIZED, FAILED, MAJOR, MINOR, CACHED_PID = 0, 1, 2, 3, 9
"""


class NativeBinding(unittest.TestCase):
    def check(self, program):
        """Runs a program that ends well and has nothing to complain of; returns its output lines."""
        process = run_python(LOAD + textwrap.dedent(program))
        self.assertEqual(process.stderr, "")
        return process.stdout.splitlines()

    def test_an_import_says_nothing_and_binds(self):
        self.check("""
            assert list(status_words) == [0] * 10
            from vorntracer import xoptmonitoring
            assert status_words[INITIALIZED] == 1 and status_words[FAILED] == 0
            assert status_words[CACHED_PID] == os.getpid()
            assert library.XPy_GetMajorVersion() == sys.version_info[0] == status_words[MAJOR]
            assert library.XPy_GetMinorVersion() == sys.version_info[1] == status_words[MINOR]
        """)

    def test_another_native_module_may_bind_first(self):
        self.check("""
            assert library.XPy_Initialize() == 0
            assert status_words[INITIALIZED] == 1
            from vorntracer import xoptmonitoring
            assert library.XPy_Initialize() == 0
        """)

    def test_the_test_switch_makes_an_import_fail_until_it_is_lifted(self):
        self.check("""
            assert library.XPy_DbgSetFailOnImport(1) == 0
            for attempt in range(2):
                try:
                    from vorntracer import xoptmonitoring
                except ImportError as error:
                    assert str(error) == "Unable to init XPy", error
                else:
                    raise AssertionError("imported")
                assert "vorntracer.xoptmonitoring" not in sys.modules
                assert status_words[INITIALIZED] == 0
            assert library.XPy_DbgSetFailOnImport(0) == 1
            from vorntracer import xoptmonitoring
            assert status_words[INITIALIZED] == 1
        """)

    def test_the_steps_of_binding_go_to_a_descriptor_that_was_set_before(self):
        lines = self.check("""
            assert library.XPy_SetDPrintfNativeFile(1, None) == 1
            from vorntracer import xoptmonitoring
            assert library.XPy_SetDPrintfNativeFile(-1, None) == 1
        """)
        self.assertTrue(lines[0].startswith("IsFreeThreadingBuild(): c_func_ptr = "), lines)
        free_threaded = 0 if lines[0].endswith("(nil)") else 1
        self.assertEqual(
            lines[1],
            "FindInitFunction() succeeded major_version = 3, free_t_build = {}, pydebug_build = 0".format(
                free_threaded),
        )
        self.assertTrue(lines[2].startswith("pyobject_offsets: refcnt="), lines)
        self.assertTrue(lines[3].startswith("typeobject: tp_basicsize offset = "), lines)
        self.assertEqual(lines[4:], ["XPy_InitializeGlobalData() succeeded"])

    def test_a_forked_child_finds_its_own_process_id(self):
        self.check("""
            from vorntracer import xoptmonitoring
            child = os.fork()
            if child == 0:
                os._exit(0 if status_words[CACHED_PID] == os.getpid() else 1)
            assert os.waitpid(child, 0)[1] == 0
            assert status_words[CACHED_PID] == os.getpid()
        """)

    def test_objects_can_be_compared_and_asked_for_their_type(self):
        self.check("""
            library.XPy_PyObjectsEqual.argtypes = [ctypes.py_object, ctypes.py_object]
            library.XPy_BorrowType.argtypes = [ctypes.py_object]
            library.XPy_BorrowType.restype = ctypes.c_void_p
            assert library.XPy_PyObjectsEqual("text", "text") == -1, "not bound yet"
            assert library.XPy_BorrowType("text") is None
            assert library.XPy_Initialize() == 0
            assert library.XPy_PyObjectsEqual("text", "te" + "xt") == 1
            assert library.XPy_PyObjectsEqual("text", "other") == 0
            assert library.XPy_BorrowType("text") == id(str)
        """)

    def test_the_diagnostic_file_of_the_binding_layer_needs_a_bound_interpreter(self):
        self.check("""
            import io

            file = io.StringIO()
            library.XPy_SetDPrintfFile.argtypes = [ctypes.py_object, ctypes.c_int, ctypes.c_void_p]
            assert library.XPy_SetDPrintfFile(file, -1, None) == 0
            assert library.XPy_Initialize() == 0
            before = sys.getrefcount(file)
            assert library.XPy_SetDPrintfFile(file, -1, None) == 1
            assert sys.getrefcount(file) == before + 1
            assert library.XPy_SetDPrintfFile(None, -1, None) == 1
            assert sys.getrefcount(file) == before
            library.XPy_SetDPrintfMask.restype = ctypes.c_long
            library.XPy_SetDPrintfMask.argtypes = [ctypes.c_long]
            assert library.XPy_SetDPrintfMask(1023) == 84
            assert library.XPy_SetDPrintfMask(84) == 1023
        """)


class LaterVersions(unittest.TestCase):
    """What is said where the interpreter is later than the tables, and how a package has it left unsaid."""

    LOAD = """
import ctypes, importlib, os
library = ctypes.PyDLL(os.path.join(importlib.import_module(HOST).__path__[0], "xoptmonitoring.so"))
quiet = library.XPy_SetQuietAboutLaterVersions
status_words = (ctypes.c_int32 * 10).in_dll(library, "global_XPy_C_API_Data")
"""

    def run_in_host(self, program):
        """What a program, under a package that asks for nothing, writes to standard error."""
        with HostPackage() as host:
            return host.run_python(self.LOAD + textwrap.dedent(program)).stderr

    def copy_package(self):
        folder = tempfile.mkdtemp(prefix="xo-package-")
        self.addCleanup(shutil.rmtree, folder)
        for name in ("vorntracer", "vornbase"):
            shutil.copytree(os.path.join(PACKAGE_DIR, name), os.path.join(folder, name))
        return folder, os.path.join(folder, "vorntracer", "xoptmonitoring.so")

    def test_the_bare_module_says_so(self):
        self.assertEqual(self.run_in_host("importlib.import_module(MODULE)"), BARE_MODULE_MESSAGE)

    def test_a_call_before_the_import_has_it_left_unsaid(self):
        self.assertEqual(self.run_in_host("""
            assert quiet(1) == 0
            assert status_words[0] == 0, "that does not bind"
            importlib.import_module(MODULE)
            assert status_words[0] == 1
        """), "")

    def test_the_call_can_be_taken_back(self):
        self.assertEqual(self.run_in_host("""
            assert [quiet(1), quiet(2), quiet(0), quiet(0)] == [0, 1, 2, 0]
            importlib.import_module(MODULE)
        """), BARE_MODULE_MESSAGE)

    def test_a_call_after_the_import_changes_nothing(self):
        self.assertEqual(self.run_in_host("""
            module = importlib.import_module(MODULE)
            assert quiet(1) == 0
            assert importlib.import_module(MODULE) is module
        """), BARE_MODULE_MESSAGE)

    def test_the_failure_of_an_import_is_told_all_the_same(self):
        self.assertEqual(self.run_in_host("""
            quiet(1)
            library.XPy_DbgSetFailOnImport(1)
            try:
                importlib.import_module(MODULE)
            except ImportError as error:
                assert str(error) == "Unable to init XPy", error
            else:
                raise AssertionError("imported")
        """), "")

    def test_the_shipped_package_writes_nothing(self):
        for statement in ("from vorntracer import xoptmonitoring", "import vorntracer.xoptmonitoring",
                          "import vorntracer.tracer", "import vorntracer.demo"):
            with self.subTest(statement):
                child = run_python(statement)
                self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_the_shipped_package_can_be_imported_without_the_module_and_the_module_then_not(self):
        folder, module_file = self.copy_package()
        for damage in (lambda: None, lambda: os.remove(module_file)):
            with open(module_file, "wb") as file:
                file.write(b"no library")
            damage()
            child = run_python("""
                import vorntracer
                try:
                    from vorntracer import xoptmonitoring
                except ImportError as error:
                    assert "xoptmonitoring" in str(error), error
                else:
                    raise AssertionError("imported")
            """, paths=[folder])
            self.assertEqual((child.stdout, child.stderr), ("", ""))

    def test_the_shipped_package_imports_a_module_that_does_not_know_the_call(self):
        folder, module_file = self.copy_package()
        with open(module_file, "rb") as file:
            image = file.read()
        with open(module_file, "wb") as file:
            file.write(image.replace(b"XPy_SetQuietAboutLaterVersions", b"XPy_SetAnythingButThatVersions"))
        child = run_python("from vorntracer import xoptmonitoring", paths=[folder])
        self.assertEqual((child.stdout, child.stderr), ("", BARE_MODULE_MESSAGE))

    @unittest.skipIf(sys.version_info >= (3, 15), "this version is later than the tables")
    def test_the_shipped_package_imports_nothing_more_where_there_is_nothing_to_be_said(self):
        run_python("""
            import sys
            before = set(sys.modules)
            import vorntracer
            assert set(sys.modules) - before == {"vorntracer"}, set(sys.modules) - before
        """)


if __name__ == "__main__":
    unittest.main()
