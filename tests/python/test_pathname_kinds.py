"""How a file name is classified: regular, frozen, pseudo or typed into the debugger's shell."""

import unittest

from support import NastyError, XoTestCase, xo

REGULAR, FROZEN, PSEUDO, SHELL = 0, 3, 4, 5


class Kinds(XoTestCase):

    def assert_kind(self, kind, *pathnames):
        for pathname in pathnames:
            with self.subTest(pathname):
                self.assertEqual(xo.GetPathnameKind(pathname), kind)

    def test_the_empty_string_is_a_pseudo_name(self):
        self.assert_kind(PSEUDO, "")

    def test_a_bracketed_name_that_begins_frozen_is_a_frozen_module(self):
        self.assert_kind(FROZEN, "<frozen importlib._bootstrap>", "<frozen >", "<frozen os>", "<frozen <x>>",
                         "<frozen \u2603>")

    def test_a_frozen_name_without_its_closing_bracket_is_regular(self):
        self.assert_kind(REGULAR, "<frozen x", "<frozen zipimport", "<frozen ", "<frozen x> ")

    def test_any_other_bracketed_name_is_a_pseudo_name(self):
        self.assert_kind(PSEUDO, "<string>", "<stdin>", "<>", "<ipython-input-1>", "<<x>>", "<a>b>",
                         "<x-vornide-python-shell://>")

    def test_a_frozen_prefix_has_to_match_exactly(self):
        self.assert_kind(PSEUDO, "<frozen>", "<Frozen os>", "<FROZEN os>", "< frozen os>", "<frozen\tos>")

    def test_one_bracket_makes_no_pseudo_name(self):
        self.assert_kind(REGULAR, "<", ">", "<string", "string>", "><", " <string>", "<string> ")

    def test_a_name_under_the_shells_scheme_is_shell_code(self):
        self.assert_kind(SHELL, "x-vornide-python-shell://1/", "x-vornide-python-shell://",
                         "x-vornide-python-shell://<x>", "x-vornide-python-shell:///a.py")

    def test_the_shells_scheme_has_to_match_exactly(self):
        self.assert_kind(REGULAR, "X-VORNIDE-python-shell://", "x-vornide-python-shell:/",
                         "x-vornide-python-shell", " x-vornide-python-shell://", "/x-vornide-python-shell://")

    def test_every_other_name_is_regular(self):
        self.assert_kind(REGULAR, "/tmp/a.py", "a.py", "C:\\a.py", ".", " ", "\0", "\u2603.py",
                         "/tmp/<frozen os>")

    def test_case_matters_on_every_platform(self):
        for platform in ("win32", "linux", "darwin"):
            self.set_platform(platform)
            self.assert_kind(REGULAR, "X-VORNIDE-PYTHON-SHELL://1")
            self.assert_kind(PSEUDO, "<FROZEN os>")
            self.assert_kind(FROZEN, "<frozen os>")

    def test_the_kinds_are_plain_integers_equal_to_the_constants(self):
        kinds = [xo.GetPathnameKind(name)
                 for name in ("/a", "<frozen a>", "<a>", "x-vornide-python-shell://")]
        self.assertEqual(kinds, [xo.kRegularPathname, xo.kFrozenImportLibPathname, xo.kPseudoPathname,
                                 xo.kVornShellPathname])
        self.assertEqual({type(kind) for kind in kinds}, {int})

    def test_a_name_that_is_no_string_is_a_type_error(self):
        for value in (b"<x>", None, 5, ["<x>"], object):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected str, got {value!r}", xo.GetPathnameKind, value)


class OwnMethods(XoTestCase):
    """The string's own methods are asked, so that what they raise comes through."""

    def string(self, text, **methods):
        return type("Text", (str,), methods)(text)

    def failing(self, *_args):
        raise NastyError("own method")

    def test_an_exception_of_len_propagates(self):
        with self.assertRaises(NastyError):
            xo.GetPathnameKind(self.string("/a", __len__=self.failing))

    def test_an_exception_of_startswith_propagates(self):
        with self.assertRaises(NastyError):
            xo.GetPathnameKind(self.string("/a", startswith=self.failing))

    def test_an_exception_of_endswith_propagates(self):
        with self.assertRaises(NastyError):
            xo.GetPathnameKind(self.string("<a>", endswith=self.failing))

    def test_endswith_is_asked_only_where_the_beginning_matched(self):
        self.assertEqual(xo.GetPathnameKind(self.string("/a", endswith=self.failing)), REGULAR)

    def test_a_length_of_0_decides_before_any_method_is_asked(self):
        self.assertEqual(xo.GetPathnameKind(self.string("", startswith=self.failing)), PSEUDO)

    def test_the_tests_are_made_in_order_until_one_holds(self):
        asked = []

        def startswith(self, prefix):
            asked.append(("startswith", prefix))
            return str.startswith(self, prefix)

        def endswith(self, suffix):
            asked.append(("endswith", suffix))
            return str.endswith(self, suffix)

        def ask(text):
            asked.clear()
            xo.GetPathnameKind(self.string(text, startswith=startswith, endswith=endswith))
            return list(asked)

        frozen, bracket = ("startswith", "<frozen "), ("startswith", "<")
        closing, shell = ("endswith", ">"), ("startswith", "x-vornide-python-shell://")
        self.assertEqual(ask(""), [])
        self.assertEqual(ask("<frozen os>"), [frozen, closing])
        self.assertEqual(ask("<string>"), [frozen, bracket, closing])
        self.assertEqual(ask("<frozen os"), [frozen, closing, bracket, closing, shell])
        self.assertEqual(ask("/a.py"), [frozen, bracket, shell])
        self.assertEqual(ask("x-vornide-python-shell://1"), [frozen, bracket, shell])


if __name__ == "__main__":
    unittest.main()
