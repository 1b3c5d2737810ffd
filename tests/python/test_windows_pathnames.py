"""Pathnames where `sys.platform` says "win32": what counts as absolute, lower case, slashes, long names."""

import os
import unittest

from support import HostPackage, NastyError, Recorder, XoTestCase, raising, xo

WIN32 = """
    calls = []
    answer = None
    error = None

    def GetLongPathName(pathname):
        calls.append(pathname)
        if error is not None:
            raise error
        return answer if answer is not None else "Long<" + pathname + ">"
"""


class WindowsCase(XoTestCase):

    def setUp(self):
        super().setUp()
        self.set_platform("win32")
        self.mgr = xo._CCanonicalPathnameMgr()


class Obvious(WindowsCase):

    def assert_obvious(self, wanted, *pathnames):
        for pathname in pathnames:
            with self.subTest(pathname):
                self.assertIs(self.mgr._IsObviousAbsPathname(pathname), wanted)

    def test_the_empty_name_is_not(self):
        self.assert_obvious(False, "")

    def test_the_long_path_prefix_is_with_any_mixture_of_slashes(self):
        self.assert_obvious(True, "\\\\?\\C:\\x", "//?/x", "\\/?/", "/\\?\\", "//?\\")

    def test_a_long_path_prefix_cut_short_is_not(self):
        self.assert_obvious(False, "\\\\?", "//?", "\\\\?x", "\\\\.\\x")

    def test_a_server_with_a_share_and_more_is(self):
        self.assert_obvious(True, "\\\\srv\\share\\a", "//srv/share/a", "\\\\srv/share\\", "////", "\\\\\\\\",
                            "\\\\.\\x\\")

    def test_a_server_without_more_than_a_share_is_not(self):
        self.assert_obvious(False, "\\\\srv\\share", "\\\\srv", "\\\\", "//", "///", "//srv/share",
                            "\\\\srv\\")

    def test_a_drive_letter_with_a_slash_is(self):
        self.assert_obvious(True, "C:\\x", "c:/x", "1:/", "::/", " :\\", "/:/", "C:\\", "\u2603:/x")

    def test_a_drive_letter_without_a_slash_is_not(self):
        self.assert_obvious(False, "C:x", "C:", "CC:\\x", "C:.\\x")

    def test_one_leading_slash_is_not(self):
        self.assert_obvious(False, "/x", "\\x", "/", "\\", "/a/b/c/d")

    def test_a_plain_relative_name_is_not(self):
        self.assert_obvious(False, "x", "x\\y", "x/y", ".\\x", "a\\b\\c\\d\\e")


class AbsoluteNames(WindowsCase):

    def test_an_obvious_name_gets_backslashes_and_lower_case(self):
        self.patch(os.path, "abspath", Recorder(error=NastyError()))
        for given, wanted in (("C:/Dir/File.PY", "c:\\dir\\file.py"), ("C:\\DIR/x.PYC", "c:\\dir\\x.py"),
                              ("//Srv/Share/A.py", "\\\\srv\\share\\a.py"), ("//?/C:/X", "\\\\?\\c:\\x")):
            with self.subTest(given):
                self.assertEqual(self.mgr._GetAbsnameForCanonical(given), wanted)

    def test_any_other_name_goes_through_os_path_and_is_lowered(self):
        abspath = self.patch(os.path, "abspath", Recorder(result="C:\\Work/REL.py"))
        self.assertEqual(self.mgr._GetAbsnameForCanonical("REL.pyC"), "c:\\work/rel.py")
        self.assertEqual(abspath.calls, [("REL.py",)])

    def test_a_name_that_begins_with_one_slash_goes_through_os_path(self):
        abspath = self.patch(os.path, "abspath", Recorder(result="C:\\x"))
        self.assertEqual(self.mgr._GetAbsnameForCanonical("/x"), "c:\\x")
        self.assertEqual(abspath.calls, [("/x",)])

    def test_canonical_pathnames_are_lower_case(self):
        self.assertEqual(self.mgr.Register("C:/Dir/File.PY"), "c:\\dir\\file.py")
        self.assertEqual(self.mgr.fByName, {"c:\\dir\\file.py": "c:\\dir\\file.py"})

    def test_the_same_name_in_other_case_and_slashes_is_the_same_file(self):
        self.mgr.Register("C:/Dir/File.PY")
        for name in ("c:\\dir\\file.py", "C:\\DIR\\FILE.PYC", "c:/Dir/file.PYO"):
            with self.subTest(name):
                self.assertEqual(self.mgr.Lookup(name), "c:\\dir\\file.py")

    def test_a_frozen_or_shell_name_keeps_its_case(self):
        for name in ("<frozen OS>", "x-vornide-python-shell://A"):
            self.assertIs(self.mgr.Register(name), name)

    def test_the_platform_is_read_each_time(self):
        self.assertIs(self.mgr._IsObviousAbsPathname("/x"), False)
        self.set_platform("linux")
        self.assertIs(self.mgr._IsObviousAbsPathname("/x"), True)
        self.assertEqual(self.mgr._GetAbsnameForCanonical("/A.PY"), "/A.PY")

    def test_an_exception_of_the_platforms_comparison_propagates(self):
        self.set_platform(raising("__eq__", "__ne__"))
        for call in (self.mgr._IsObviousAbsPathname, self.mgr._GetWindowsLongPathName,
                     self.mgr._GetAbsnameForCanonical, self.mgr.Lookup, self.mgr.Register):
            with self.subTest(call):
                self.assertRaises(NastyError, call, "/x")


class WithoutSupportModule(WindowsCase):

    def test_a_long_name_is_the_name_itself(self):
        self.assertIsNone(xo.win32)
        self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "C:\\PROGRA~1")

    def test_a_non_obvious_name_is_still_made_absolute_and_lowered(self):
        self.patch(os.path, "abspath", Recorder(result="C:\\PROGRA~1\\X.py"))
        self.assertEqual(self.mgr._GetAbsnameForCanonical("X.py"), "c:\\progra~1\\x.py")


class WithSupportModule(WindowsCase):
    """A module that was imported on "win32", where the companion gives long names."""

    def setUp(self):
        super().setUp()
        host = HostPackage(win32=WIN32, dlog="", dbgpythonapi="")
        self.addCleanup(host.close)
        context = host.importable()
        context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)
        self.module = host.import_module()
        self.win32 = self.module.win32
        self.mgr = self.module._CCanonicalPathnameMgr()

    def test_the_support_module_is_the_one_of_the_debuggers_package(self):
        self.assertEqual(self.win32.__name__, "vornbase.win32")

    def test_a_long_name_is_what_the_support_module_says(self):
        self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "Long<C:\\PROGRA~1>")
        self.assertEqual(self.win32.calls, ["C:\\PROGRA~1"])

    def test_an_exception_of_the_support_module_leaves_the_name_as_it_is(self):
        for error in (OSError(), NastyError(), ValueError(), MemoryError()):
            with self.subTest(error):
                self.win32.error = error
                self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "C:\\PROGRA~1")

    def test_an_exception_outside_exception_propagates(self):
        for error in (KeyboardInterrupt(), SystemExit(), GeneratorExit()):
            with self.subTest(error):
                self.win32.error = error
                with self.assertRaises(type(error)) as caught:
                    self.mgr._GetWindowsLongPathName("C:\\PROGRA~1")
                self.assertIs(caught.exception, error)

    def test_a_support_module_without_the_function_leaves_the_name_as_it_is(self):
        del self.win32.GetLongPathName
        self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "C:\\PROGRA~1")

    def test_the_support_module_is_not_asked_elsewhere(self):
        self.set_platform("linux")
        self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "C:\\PROGRA~1")
        self.assertEqual(self.win32.calls, [])

    def test_a_non_obvious_name_is_lowered_before_and_after_its_long_name_is_made(self):
        self.patch(os.path, "abspath", Recorder(result="C:\\PROGRA~1\\X.PY"))
        self.assertEqual(self.mgr._GetAbsnameForCanonical("X.PYc"), "long<c:\\progra~1\\x.py>")
        self.assertEqual(self.win32.calls, ["c:\\progra~1\\x.py"])

    def test_an_obvious_name_is_used_without_asking_for_its_long_name(self):
        self.assertEqual(self.mgr._GetAbsnameForCanonical("C:\\PROGRA~1\\X.PY"), "c:\\progra~1\\x.py")
        self.assertEqual(self.win32.calls, [])

    def test_a_swallowed_exception_leaves_the_handled_exception_alone(self):
        self.win32.error = ValueError("swallowed")
        try:
            raise NastyError("being handled")
        except NastyError:
            self.mgr._GetWindowsLongPathName("C:\\PROGRA~1")
            with self.assertRaisesRegex(NastyError, "^being handled$"):
                raise


if __name__ == "__main__":
    unittest.main()
