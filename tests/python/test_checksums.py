"""The module's pathname and checksum functions: forwarding to the one manager, and the checksum callback."""

import os
import unittest
import weakref

from support import NastyError, Recorder, XoTestCase, xo


class Forwarding(XoTestCase):

    def setUp(self):
        super().setUp()
        self.mgr = xo._gCanonicalPathnameMgr

    def test_registering_gives_the_same_result_as_the_managers_method(self):
        self.assertEqual(xo.register_canonical_pathname("/a.py", None, 0), "/a.py")
        self.assertIs(xo.register_canonical_pathname("/a.py", None, 0), self.mgr.Register("/a.py", None, 0))
        self.assertEqual(self.mgr.fByName, {"/a.py": "/a.py"})

    def test_looking_up_finds_what_the_manager_registered(self):
        self.assertIsNone(xo.lookup_canonical_pathname("/a.py"))
        self.mgr.Register("/a.py", "sum")
        self.assertEqual(xo.lookup_canonical_pathname("/a.py"), "/a.py")
        self.assertEqual(xo.lookup_canonical_pathname("/b.py", "sum"), "/a.py")
        self.assertEqual(self.mgr.fByName, {"/a.py": "/a.py"})

    def test_getting_registers_what_is_not_known(self):
        self.assertEqual(xo.get_canonical_pathname("/a.py", "sum"), "/a.py")
        self.assertEqual((self.mgr.fByName, self.mgr.fByChecksum), ({"/a.py": "/a.py"}, {"sum": "/a.py"}))

    def test_pseudo_frozen_and_shell_names_are_answered_as_the_manager_does(self):
        for function in (xo.lookup_canonical_pathname, xo.register_canonical_pathname,
                         xo.get_canonical_pathname):
            with self.subTest(function.__name__):
                self.assertIsNone(function("<string>"))
                self.assertEqual(function("<frozen os>"), "<frozen os>")
                self.assertEqual(function("x-vornide-python-shell://1"), "x-vornide-python-shell://1")

    def test_the_kind_is_passed_on(self):
        self.assertIsNone(xo.register_canonical_pathname("/a.py", "sum", xo.kPseudoPathname))
        self.assertEqual(xo.register_canonical_pathname("<x>", kind=xo.kVornShellPathname), "<x>")
        self.assertEqual(self.mgr.fByName, {})

    def test_every_argument_can_be_given_by_keyword(self):
        self.assertEqual(xo.register_canonical_pathname(kind=0, checksum="sum", pathname="/a.py"), "/a.py")
        self.assertEqual(xo.lookup_canonical_pathname(checksum="sum", pathname="/b.py"), "/a.py")
        self.assertEqual(xo.get_canonical_pathname(checksum="sum", pathname="/b.py"), "/a.py")
        self.assertIsNone(xo.set_checksum_callback(callback=None))
        self.assertIsNone(xo._get_checksum_for_pathname(pathname="/a.py"))

    def test_the_result_of_a_lookup_is_passed_on_unchanged(self):
        stored = object()
        self.mgr.fByName["/a.py"] = stored
        for function in (xo.lookup_canonical_pathname, xo.register_canonical_pathname,
                         xo.get_canonical_pathname):
            with self.subTest(function.__name__):
                self.assertIs(function("/a.py"), stored)

    def test_a_pathname_that_is_no_string_is_a_type_error(self):
        for function in (xo.lookup_canonical_pathname, xo.register_canonical_pathname,
                         xo.get_canonical_pathname, xo._get_checksum_for_pathname):
            for value in (b"/a.py", None, 5):
                with self.subTest(function.__name__, value=value):
                    self.assert_raises_text(TypeError, f"expected str, got {value!r}", function, value)

    def test_a_checksum_that_is_no_string_is_a_type_error(self):
        for function in (xo.lookup_canonical_pathname, xo.register_canonical_pathname,
                         xo.get_canonical_pathname):
            with self.subTest(function.__name__):
                self.assert_raises_text(TypeError, "expected str | None, got 5", function, "/a.py", 5)

    def test_a_kind_that_is_no_integer_is_a_type_error(self):
        self.assert_raises_text(TypeError, "expected int | None, got 'x'",
                                xo.register_canonical_pathname, "/a.py", None, "x")

    def test_a_refused_call_registers_nothing(self):
        for args in (("/a.py", 5), ("/a.py", None, "x")):
            self.assertRaises(TypeError, xo.register_canonical_pathname, *args)
        self.assertEqual((self.mgr.fByName, self.mgr.fNotFoundCache), ({}, {}))

    def test_an_exception_of_the_manager_propagates(self):
        self.patch(os.path, "abspath", Recorder(error=NastyError()))
        for function in (xo.lookup_canonical_pathname, xo.register_canonical_pathname,
                         xo.get_canonical_pathname):
            with self.subTest(function.__name__):
                self.assertRaises(NastyError, function, "relative.py")


class ChecksumCallback(XoTestCase):

    def test_with_no_callback_there_are_no_checksums(self):
        self.assertIsNone(xo._get_checksum_for_pathname("/x.py"))
        self.assertIsNone(xo.get_checksum_callback())
        self.assertIsNone(xo._gCanonicalPathnameMgr.fChecksumCallback)

    def test_the_callback_reads_back_as_the_same_object(self):
        for callback in (Recorder(), lambda pathname: None, 5, "no callable", None):
            self.assertIsNone(xo.set_checksum_callback(callback))
            self.assertIs(xo.get_checksum_callback(), callback)
            self.assertIs(xo._gCanonicalPathnameMgr.GetChecksumCallback(), callback)
            self.assertIs(xo._gCanonicalPathnameMgr.fChecksumCallback, callback)

    def test_the_callback_is_called_once_for_each_question_with_the_pathname(self):
        callback = Recorder(result="sum")
        xo.set_checksum_callback(callback)
        self.assertEqual(xo._get_checksum_for_pathname("/x.py"), "sum")
        self.assertEqual(callback.calls, [("/x.py",)])
        xo._get_checksum_for_pathname("/x.py")
        xo._get_checksum_for_pathname("<string>")
        self.assertEqual(callback.calls, [("/x.py",), ("/x.py",), ("<string>",)])

    def test_the_pathname_is_handed_over_as_it_is(self):
        class Text(str):
            pass

        callback = Recorder()
        xo.set_checksum_callback(callback)
        given = Text("Rel.PYC")
        xo._get_checksum_for_pathname(given)
        self.assertIs(callback.calls[0][0], given)

    def test_the_callback_runs_on_the_calling_thread(self):
        threads = []
        xo.set_checksum_callback(lambda pathname: threads.append(xo._GetThreadIdent()))
        xo._get_checksum_for_pathname("/x.py")
        self.assertEqual(threads, [xo._GetThreadIdent()])

    def test_the_result_is_passed_on_unchanged_whatever_it_is(self):
        for result in ("sum", "", None, 5, object()):
            xo.set_checksum_callback(Recorder(result=result))
            self.assertIs(xo._get_checksum_for_pathname("/x.py"), result)

    def test_a_result_that_is_no_string_fails_once_it_is_used_as_a_checksum(self):
        xo.set_checksum_callback(Recorder(result=5))
        checksum = xo._get_checksum_for_pathname("/x.py")
        self.assert_raises_text(TypeError, "expected str | None, got 5",
                                xo.get_canonical_pathname, "/x.py", checksum)

    def test_none_switches_checksums_off_again(self):
        callback = Recorder(result="sum")
        xo.set_checksum_callback(callback)
        xo.set_checksum_callback(None)
        self.assertIsNone(xo._get_checksum_for_pathname("/x.py"))
        self.assertEqual(callback.calls, [])

    def test_reset_removes_the_callback(self):
        xo.set_checksum_callback(Recorder(result="sum"))
        xo.reset()
        self.assertIsNone(xo.get_checksum_callback())
        self.assertIsNone(xo._get_checksum_for_pathname("/x.py"))

    def test_resetting_the_manager_removes_the_callback(self):
        xo.set_checksum_callback(Recorder(result="sum"))
        xo._gCanonicalPathnameMgr.Reset()
        self.assertIsNone(xo.get_checksum_callback())

    def test_a_pathname_that_is_no_string_is_refused_before_the_callback_is_called(self):
        callback = Recorder(result="sum")
        xo.set_checksum_callback(callback)
        for value in (b"/x", None, 5):
            self.assert_raises_text(TypeError, f"expected str, got {value!r}",
                                    xo._get_checksum_for_pathname, value)
            self.assert_raises_text(TypeError, f"expected str, got {value!r}",
                                    xo._gCanonicalPathnameMgr.GetChecksumForPathname, value)
        self.assertEqual(callback.calls, [])

    def test_a_pathname_that_is_no_string_is_refused_even_with_no_callback(self):
        self.assert_raises_text(TypeError, "expected str, got 5", xo._get_checksum_for_pathname, 5)

    def test_something_that_cannot_be_called_is_accepted_and_fails_when_it_is_asked(self):
        xo.set_checksum_callback(5)
        self.assert_raises_text(TypeError, "'int' object is not callable",
                                xo._get_checksum_for_pathname, "/x.py")

    def test_an_exception_of_the_callback_propagates(self):
        error = NastyError()
        xo.set_checksum_callback(Recorder(error=error))
        for call in (xo._get_checksum_for_pathname, xo._gCanonicalPathnameMgr.GetChecksumForPathname):
            with self.assertRaises(NastyError) as caught:
                call("/x.py")
            self.assertIs(caught.exception, error)

    def test_the_previous_callback_is_released(self):
        callback = Recorder()
        released = weakref.ref(callback)
        xo.set_checksum_callback(callback)
        del callback
        self.assertIsNotNone(released())
        xo.set_checksum_callback(None)
        self.assertIsNone(released())

    def test_a_callback_may_replace_itself_while_it_runs(self):
        second = Recorder(result="second")

        class Replaces:
            def __call__(self, pathname):
                xo.set_checksum_callback(second)
                return "first"

        xo.set_checksum_callback(Replaces())
        self.assertEqual(xo._get_checksum_for_pathname("/x.py"), "first")
        self.assertEqual(xo._get_checksum_for_pathname("/x.py"), "second")

    def test_a_callback_may_reset_the_module_while_it_runs(self):
        def resets(pathname):
            xo.reset()
            return "sum"

        xo.set_checksum_callback(resets)
        self.assertEqual(xo._get_checksum_for_pathname("/x.py"), "sum")
        self.assertIsNone(xo.get_checksum_callback())

    def test_looking_up_and_registering_ask_for_no_checksum(self):
        callback = Recorder(result="sum")
        xo.set_checksum_callback(callback)
        xo.register_canonical_pathname("/a.py")
        xo.lookup_canonical_pathname("/b.py")
        xo.get_canonical_pathname("/c.py")
        self.assertEqual((callback.calls, xo._gCanonicalPathnameMgr.fByChecksum), ([], {}))

    def test_a_manager_of_ones_own_has_a_callback_of_its_own(self):
        mgr = xo._CCanonicalPathnameMgr()
        callback = Recorder(result="own")
        self.assertIsNone(mgr.SetChecksumCallback(callback))
        self.assertIs(mgr.GetChecksumCallback(), callback)
        self.assertEqual(mgr.GetChecksumForPathname("/x.py"), "own")
        self.assertIsNone(xo.get_checksum_callback())
        self.assertIsNone(xo._get_checksum_for_pathname("/x.py"))


if __name__ == "__main__":
    unittest.main()
