"""Which pathnames belong to the debugger itself: the dictionary handed over, and the question asked of it."""

import sys
import threading
import unittest
import weakref

from support import NastyError, RaisesForItsClass, SaysItIsStr, XoTestCase, raising, reentering, xo


class Asking(XoTestCase):

    def test_before_any_dictionary_is_handed_over_nothing_is_internal(self):
        for pathname in ("/x.py", "", "<string>", "<frozen os>"):
            self.assertIs(xo.IsInternalPathname(pathname), False)

    def test_a_key_of_the_dictionary_is_internal_and_other_names_are_not(self):
        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        self.assertIs(xo.IsInternalPathname("/opt/dbg/x.py"), True)
        self.assertIs(xo.IsInternalPathname("/opt/dbg/y.py"), False)
        self.assertIs(xo.IsInternalPathname("/opt/dbg/"), False)

    def test_only_the_key_counts_and_never_its_value(self):
        xo.SetInternalPathnameDict({"/a": None, "/b": False, "/c": raising()})
        self.assertEqual([xo.IsInternalPathname(name) for name in ("/a", "/b", "/c")], [True, True, True])

    def test_what_is_no_string_is_not_internal_and_never_looked_up(self):
        xo.SetInternalPathnameDict({None: 1, 5: 1, b"/x": 1, "/x": 1})
        for pathname in (None, 5, b"/x", ["/x"], raising("__eq__", "__hash__", "__bool__")):
            self.assertIs(xo.IsInternalPathname(pathname), False)

    def test_what_isinstance_takes_for_a_string_is_looked_up(self):
        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        self.assertIs(xo.IsInternalPathname(SaysItIsStr("/opt/dbg/x.py")), True)
        self.assertIs(xo.IsInternalPathname(SaysItIsStr("/opt/dbg/y.py")), False)
        self.set_platform("win32")
        self.assertIs(xo.IsInternalPathname(SaysItIsStr("/opt/dbg/X.py")), True)

    def test_an_exception_of_isinstance_propagates(self):
        self.assert_raises_text(NastyError, "class", xo.IsInternalPathname, RaisesForItsClass())

    def test_case_matters_elsewhere_than_on_windows(self):
        self.set_platform("linux")
        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        self.assertIs(xo.IsInternalPathname("/opt/dbg/X.py"), False)

    def test_on_windows_the_question_is_asked_in_lower_case(self):
        self.set_platform("win32")
        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        self.assertIs(xo.IsInternalPathname("/opt/dbg/X.py"), True)
        self.assertIs(xo.IsInternalPathname("/OPT/DBG/X.PY"), True)

    def test_on_windows_a_key_with_capitals_never_matches(self):
        self.set_platform("win32")
        xo.SetInternalPathnameDict({"C:\\Dbg\\X.py": 1})
        for pathname in ("C:\\Dbg\\X.py", "c:\\dbg\\x.py"):
            self.assertIs(xo.IsInternalPathname(pathname), False)

    def test_no_other_normalisation_happens(self):
        xo.SetInternalPathnameDict({"/opt/x.py": 1})
        for pathname in ("/opt//x.py", "/opt/./x.py", "/opt/x.pyc", "\\opt\\x.py"):
            self.assertIs(xo.IsInternalPathname(pathname), False)

    def test_a_string_subclass_is_looked_up_by_its_own_hash_and_equality(self):
        class Disguised(str):
            def __hash__(self):
                return hash("/opt/x.py")

            def __eq__(self, other):
                return other == "/opt/x.py"

        xo.SetInternalPathnameDict({"/opt/x.py": 1})
        self.assertIs(xo.IsInternalPathname(Disguised("/something/else.py")), True)

    def test_an_exception_of_the_keys_hash_propagates(self):
        with self.assertRaises(NastyError):
            xo.IsInternalPathname(raising("__hash__", base=str, args=("/x",)))

    def test_an_exception_of_the_keys_equality_propagates(self):
        class Equal(str):
            __hash__ = str.__hash__

            def __eq__(self, other):
                raise NastyError

        xo.SetInternalPathnameDict({"/x": 1, "/y": 1})
        with self.assertRaises(NastyError):
            xo.IsInternalPathname(Equal("/x"))

    def test_an_exception_of_lower_propagates_on_windows(self):
        class Text(str):
            def lower(self):
                raise NastyError

        self.assertIs(xo.IsInternalPathname(Text("/x")), False)
        self.set_platform("win32")
        with self.assertRaises(NastyError):
            xo.IsInternalPathname(Text("/x"))

    def test_an_exception_of_the_platforms_comparison_propagates(self):
        self.set_platform(raising("__eq__"))
        with self.assertRaises(NastyError):
            xo.IsInternalPathname("/x")

    def test_the_platform_is_not_asked_for_what_is_no_string(self):
        self.set_platform(raising("__eq__"))
        self.assertIs(xo.IsInternalPathname(None), False)
        self.assertIs(xo.IsInternalPathname(5), False)

    def test_a_key_that_replaces_the_dictionary_while_it_is_compared_does_no_harm(self):
        key = reentering(lambda: (xo.SetInternalPathnameDict({}), xo.reset()), "__hash__", "__eq__",
                         base=str, args=("/x",))
        xo.SetInternalPathnameDict({"/x": 1, "/y": 2})
        self.assertIn(xo.IsInternalPathname(key), (True, False))
        self.assertEqual(xo._gInternalPathnameDict, {})

    def test_a_dictionary_that_empties_itself_while_it_is_asked_does_no_harm(self):
        names = {}
        key = reentering(names.clear, "__eq__", base=str, args=("/x",))
        type(key).__hash__ = str.__hash__
        names.update({key: 1, "/y": 2})
        xo.SetInternalPathnameDict(names)
        self.assertIn(xo.IsInternalPathname("/" + "x"), (True, False))


class HandingOver(XoTestCase):

    def test_the_dictionary_is_kept_itself_and_not_copied(self):
        names = {"/x": 1}
        self.assertIsNone(xo.SetInternalPathnameDict(names))
        self.assertIs(xo._gInternalPathnameDict, names)

    def test_later_changes_of_the_dictionary_take_effect_at_once(self):
        names = {}
        xo.SetInternalPathnameDict(names)
        self.assertIs(xo.IsInternalPathname("/x"), False)
        names["/x"] = 1
        self.assertIs(xo.IsInternalPathname("/x"), True)
        del names["/x"]
        self.assertIs(xo.IsInternalPathname("/x"), False)

    def test_what_is_no_dictionary_is_a_type_error_and_leaves_the_previous_one_in_force(self):
        xo.SetInternalPathnameDict({"/x": 1})
        for value in ([], None, "/x", {"/y"}, 5, [("/y", 1)]):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected dict, got {value!r}",
                                        xo.SetInternalPathnameDict, value)
        self.assertIs(xo.IsInternalPathname("/x"), True)

    def test_a_dictionary_subclass_is_taken(self):
        class Names(dict):
            pass

        names = Names({"/x": 1})
        xo.SetInternalPathnameDict(names)
        self.assertIs(xo._gInternalPathnameDict, names)
        self.assertIs(xo.IsInternalPathname("/x"), True)

    def test_the_previous_dictionary_is_released(self):
        class Names(dict):
            pass

        names = Names()
        released = weakref.ref(names)
        xo.SetInternalPathnameDict(names)
        del names
        self.assertIsNotNone(released())
        xo.SetInternalPathnameDict({})
        self.assertIsNone(released())

    def test_reset_puts_a_new_empty_dictionary_in_place_and_leaves_the_old_one_alone(self):
        names = {"/x": 1}
        xo.SetInternalPathnameDict(names)
        xo.reset()
        self.assertEqual((xo._gInternalPathnameDict, names), ({}, {"/x": 1}))
        self.assertIs(xo.IsInternalPathname("/x"), False)
        first = xo._gInternalPathnameDict
        xo.reset()
        self.assertIsNot(xo._gInternalPathnameDict, first)

    def test_replacing_the_dictionary_while_other_threads_ask_gives_an_answer_of_one_of_them(self):
        stop = threading.Event()
        answers, errors = set(), []
        barrier = threading.Barrier(5)

        def ask():
            barrier.wait()
            try:
                while not stop.is_set():
                    answers.add(xo.IsInternalPathname("/x"))
            except BaseException as error:
                errors.append(error)

        threads = [threading.Thread(target=ask) for _ in range(4)]
        for thread in threads:
            thread.start()
        barrier.wait()
        for index in range(20_000):
            xo.SetInternalPathnameDict({"/x": 1} if index % 2 else {"/y": 1})
        stop.set()
        for thread in threads:
            thread.join()
        self.assertEqual(errors, [])
        self.assertLessEqual(answers, {True, False})
        self.assertIs(xo.IsInternalPathname("/x"), True)


class PlatformIsReadEachTime(XoTestCase):

    def test_a_change_of_the_platform_takes_effect_at_once(self):
        xo.SetInternalPathnameDict({"/x": 1})
        answers = []
        for platform in ("linux", "win32", "linux"):
            sys.platform = platform
            answers.append(xo.IsInternalPathname("/X"))
        self.assertEqual(answers, [False, True, False])


if __name__ == "__main__":
    unittest.main()
