"""How arguments are bound: by position, keyword or default; how each refusal reads; what is checked first."""

import sys
import unittest

import interface
from support import NastyError, Recorder, XoTestCase, raising, xo

BOTH = "argument has both a positional value and a keyword value"
MISSING = "argument is missing"
EXCESS_POSITIONAL = "Excess positional arguments passed to function"
EXCESS_KEYWORD = "Excess keyword arguments passed to function"


def here():
    """A code object and the frame that runs it."""
    frame = sys._getframe()
    return frame.f_code, frame


#: For each parameter name an argument with which no function blocks or changes anything that matters.
PLAUSIBLE = {
    "pathname": "/plausible.py", "abs_pathname": "/plausible.py", "checksum": "sum", "kind": 0,
    "callback": None, "obj": None, "f": None, "fileno": 1, "win32_handle": None, "mask": 0, "domain": 0,
    "s": "", "d": {}, "this_module_depth": 0, "code_object": here.__code__, "index": 250, "value": None,
    "frame": None, "depth": None, "count": 0, "n": 0,
}


def plausible(parameters):
    return [PLAUSIBLE[name] for name in interface.parameter_names(parameters)]


class Functions(XoTestCase):
    """Every module function, bound by its own parameter table."""

    def test_the_same_argument_by_position_and_by_keyword_is_refused(self):
        for name, parameters in interface.FUNCTIONS.items():
            for index, parameter in enumerate(interface.parameter_names(parameters)):
                with self.subTest(name, parameter=parameter):
                    args = plausible(parameters)
                    keyword = {parameter: args[index]}
                    self.assert_raises_text(TypeError, BOTH, getattr(xo, name), *args, **keyword)

    def test_a_missing_argument_is_refused(self):
        for name, parameters in interface.FUNCTIONS.items():
            for given in range(interface.required_count(parameters)):
                with self.subTest(name, given=given):
                    self.assert_raises_text(TypeError, MISSING,
                                            getattr(xo, name), *plausible(parameters)[:given])

    def test_an_argument_missing_before_one_given_by_keyword_is_refused(self):
        for name, parameters in interface.FUNCTIONS.items():
            if interface.required_count(parameters) > 1:
                with self.subTest(name):
                    last = interface.parameter_names(parameters)[interface.required_count(parameters) - 1]
                    self.assert_raises_text(TypeError, MISSING,
                                            getattr(xo, name), **{last: PLAUSIBLE[last]})

    def test_one_positional_argument_too_many_is_refused(self):
        for name, parameters in interface.FUNCTIONS.items():
            with self.subTest(name):
                self.assert_raises_text(TypeError, EXCESS_POSITIONAL,
                                        getattr(xo, name), *plausible(parameters), None)

    def test_an_unknown_keyword_is_refused(self):
        for name, parameters in interface.FUNCTIONS.items():
            with self.subTest(name):
                self.assert_raises_text(TypeError, EXCESS_KEYWORD,
                                        getattr(xo, name), *plausible(parameters), no_such_parameter=1)

    def test_every_parameter_can_be_given_by_its_name(self):
        for name, parameters in interface.FUNCTIONS.items():
            arguments = dict(zip(interface.parameter_names(parameters), plausible(parameters)))
            for order in (list(arguments), list(reversed(arguments))):
                with self.subTest(name, order=order):
                    try:
                        getattr(xo, name)(**{parameter: arguments[parameter] for parameter in order})
                    except Exception as error:  # what the function makes of the values is not at issue here
                        self.assertNotIn(str(error), (BOTH, MISSING, EXCESS_POSITIONAL, EXCESS_KEYWORD))


class Methods(XoTestCase):
    """Methods bind as functions do, with `self` or `cls` taken away."""

    def setUp(self):
        super().setUp()
        self.mgr = xo._CCanonicalPathnameMgr()

    def manager_methods(self):
        for name, parameters in interface.CLASSES["_CCanonicalPathnameMgr"].methods.items():
            yield name, getattr(self.mgr, name), parameters

    def test_the_same_argument_twice_is_refused(self):
        for name, method, parameters in self.manager_methods():
            for index, parameter in enumerate(interface.parameter_names(parameters)):
                with self.subTest(name, parameter=parameter):
                    args = plausible(parameters)
                    self.assert_raises_text(TypeError, BOTH, method, *args, **{parameter: args[index]})

    def test_a_missing_argument_is_refused(self):
        for name, method, parameters in self.manager_methods():
            for given in range(interface.required_count(parameters)):
                with self.subTest(name, given=given):
                    self.assert_raises_text(TypeError, MISSING, method, *plausible(parameters)[:given])

    def test_excess_arguments_are_refused(self):
        for name, method, parameters in self.manager_methods():
            with self.subTest(name):
                self.assert_raises_text(TypeError, EXCESS_POSITIONAL, method, *plausible(parameters), None)
                self.assert_raises_text(TypeError, EXCESS_KEYWORD, method, *plausible(parameters), nope=1)

    def test_class_methods_bind_in_the_same_way(self):
        get_per_file = xo.CPerFile.GetPerFile
        self.assert_raises_text(TypeError, BOTH, get_per_file, "/a.py", pathname="/a.py")
        self.assert_raises_text(TypeError, BOTH, get_per_file, "/a.py", True, create=False)
        self.assert_raises_text(TypeError, MISSING, get_per_file)
        self.assert_raises_text(TypeError, MISSING, get_per_file, create=False)
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, get_per_file, "/a.py", True, None)
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, get_per_file, "/a.py", no_such=1)
        self.assertEqual(xo.CPerFile.GetAllPerFiles(), [])

    def test_a_constructor_binds_in_the_same_way(self):
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, xo._CCanonicalPathnameMgr, 1)
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo._CCanonicalPathnameMgr, x=1)
        self.assert_raises_text(TypeError, MISSING, xo.CPerFile)
        self.assert_raises_text(TypeError, BOTH, xo.CPerFile, "/a.py", pathname="/a.py")
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, xo.CPerFile, "/a.py", 1)
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.CPerFile, "/a.py", x=1)
        self.assert_raises_text(TypeError, MISSING, xo.CInitialCallback, 1, None)
        self.assertEqual(xo.CPerFile(pathname="/a.py").fCanonicalPathname, "/a.py")

    def test_a_method_taken_from_the_class_wants_self_first(self):
        self.mgr.Register("/a.py")
        self.assertEqual(xo._CCanonicalPathnameMgr.Lookup(self.mgr, "/a.py"), "/a.py")
        with self.assertRaises(TypeError):
            xo._CCanonicalPathnameMgr.Reset()

    def test_a_bound_method_can_be_kept_and_called_later(self):
        lookup, register = self.mgr.Lookup, self.mgr.Register
        register("/a.py")
        self.assertEqual(lookup(pathname="/a.py"), "/a.py")

    def test_only_the_callback_takes_more_positional_arguments_than_it_names(self):
        second = Recorder(result="answer")
        callback = xo.CInitialCallback(xo.kPyStartEventId, second, False)
        code, _frame = here()
        self.assertEqual(callback.Callback(code, 1, 2, 3), "answer")
        self.assertEqual(second.calls, [(code, 1, 2, 3)])
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, callback._IsInitialCallbackLogging, 1)

    def test_the_callback_without_a_code_object_is_a_binding_error(self):
        callback = xo.CInitialCallback(xo.kPyStartEventId, None, False)
        self.assert_raises_text(TypeError, MISSING, callback.Callback)

    def test_the_callback_takes_no_unknown_keyword(self):
        callback = xo.CInitialCallback(xo.kPyStartEventId, Recorder(), False)
        code, _frame = here()
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, callback.Callback, code, no_such=1)


class Order(XoTestCase):
    """What is found first when a call is wrong in two ways."""

    def test_a_missing_argument_is_found_before_an_unknown_keyword(self):
        self.assert_raises_text(TypeError, MISSING, xo.GetPathnameKind, no_such=1)

    def test_an_argument_given_twice_is_found_before_an_unknown_keyword(self):
        self.assert_raises_text(TypeError, BOTH, xo.GetPathnameKind, "/a", no_such=1, pathname="/a")

    def test_an_argument_given_twice_is_found_before_excess_positional_ones(self):
        self.assert_raises_text(TypeError, BOTH, xo.GetPathnameKind, "/a", "/b", pathname="/a")

    def test_an_argument_given_twice_is_found_before_a_later_missing_one(self):
        self.assert_raises_text(TypeError, BOTH, xo.set_dprintf_file, None, f=None)

    def test_an_argument_missing_is_found_before_a_later_one_given_twice(self):
        self.assert_raises_text(TypeError, MISSING, xo.dprintf, s="x")

    def test_excess_positional_arguments_are_found_before_an_unknown_keyword(self):
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, xo.GetPathnameKind, "/a", "/b", no_such=1)

    def test_a_failed_conversion_is_found_before_excess_arguments(self):
        with self.assertRaises(OverflowError):
            xo.set_dprintf_mask(2**63, 1)
        with self.assertRaises(OverflowError):
            xo.set_dprintf_mask(2**63, no_such=1)

    def test_binding_errors_are_found_before_a_wrong_type(self):
        self.assert_raises_text(TypeError, EXCESS_POSITIONAL, xo.GetPathnameKind, 5, 6)
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.get_canonical_pathname, 5, no_such=1)

    def test_a_refused_call_leaves_no_trace(self):
        with self.assertRaises(TypeError):
            xo.register_canonical_pathname("/a.py", None, 0, None)
        with self.assertRaises(TypeError):
            xo.register_canonical_pathname("/a.py", no_such=1)
        self.assertEqual(xo._gCanonicalPathnameMgr.fByName, {})


class KeywordNames(XoTestCase):

    def test_names_are_compared_exactly(self):
        for name in ("Pathname", "pathnam", "pathname_", " pathname", ""):
            with self.subTest(name):
                self.assert_raises_text(TypeError, MISSING, xo.GetPathnameKind, **{name: "<x>"})

    def test_a_name_that_goes_on_after_a_null_character_is_another_name(self):
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.GetPathnameKind, "<x>", **{"pathname\0x": 1})
        self.assert_raises_text(TypeError, MISSING, xo.GetPathnameKind, **{"pathname\0": "<x>"})

    def test_a_name_made_at_run_time_is_as_good_as_an_interned_one(self):
        name = "".join(["path", "name"])
        self.assertEqual(xo.GetPathnameKind(**{name: "<x>"}), 4)

    def test_a_name_of_a_string_subclass_is_as_good(self):
        class Name(str):
            pass

        self.assertEqual(xo.GetPathnameKind(**{Name("pathname"): "<x>"}), 4)

    def test_many_unknown_keywords_are_refused_like_one(self):
        keywords = {f"unknown{index}": index for index in range(1000)}
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.reset, **keywords)
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.GetPathnameKind, pathname="/a", **keywords)

    def test_a_name_without_a_utf8_form_is_an_ordinary_exception(self):
        with self.assertRaises((TypeError, UnicodeError)):
            xo.GetPathnameKind("/a", **{"\ud800": 1})

    def test_a_keyword_without_a_utf_8_form_leaves_no_error_of_its_own_behind(self):
        # -1 is where the conversion of a value looks whether there is one.
        self.assert_raises_text(TypeError, EXCESS_KEYWORD, xo.set_dprintf_mask, -1, **{"\ud800": 1})


class Conversions(XoTestCase):

    def test_an_integer_parameter_takes_what_the_interpreter_converts(self):
        self.assertEqual(xo._bench_callback(Recorder(), None, False), 0)
        self.assertEqual(xo._bench_callback(Recorder(), None, True), 1)

    def test_an_integer_parameter_refuses_other_types_in_the_interpreters_words(self):
        for value in ("1", 1.0, None):
            with self.subTest(value), self.assertRaisesRegex(
                    TypeError, "^(an integer is required|'.*' object cannot be interpreted as an integer)$"):
                xo.AddToThreadStateTracing(value)

    def test_an_integer_parameter_out_of_range_is_an_overflow_error(self):
        for value in (2**63, -2**63 - 1, 10**40):
            with self.subTest(value), self.assertRaises(OverflowError):
                xo._bench_callback(Recorder(), None, value)

    def test_a_truth_parameter_takes_any_object_with_a_truth_value(self):
        for value, truth in ((True, True), (0, False), ([], False), ("x", True), (None, False)):
            with self.subTest(value):
                callback = xo.CInitialCallback(1, None, value)
                self.assertIs(callback._fCanReturnDisable, truth)

    def test_an_exception_of_a_truth_test_propagates(self):
        with self.assertRaises(NastyError):
            xo.CInitialCallback(1, None, raising("__bool__"))

    def test_minus_one_is_a_value_and_no_error(self):
        xo.set_dprintf_mask(-1)
        self.assertEqual(xo.get_dprintf_mask(), -1)


class ArgumentTypes(XoTestCase):
    """The text of each argument type, with the repr of what was given."""

    def test_a_str_parameter(self):
        for value in (None, 5, b"/x", ["/x"]):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected str, got {value!r}", xo.GetPathnameKind, value)

    def test_an_optional_str_parameter(self):
        for value in (5, b"x", False):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected str | None, got {value!r}",
                                        xo.get_canonical_pathname, "/a.py", value)

    def test_an_optional_int_parameter(self):
        for value in ("x", 1.5, b""):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected int | None, got {value!r}",
                                        xo.register_canonical_pathname, "/a.py", None, value)
                self.assert_raises_text(TypeError, f"expected int | None, got {value!r}",
                                        xo.GetNonInternalFrame, value)

    def test_a_dict_parameter(self):
        for value in ([], None, "x", {1}):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected dict, got {value!r}",
                                        xo.SetInternalPathnameDict, value)

    def test_a_bool_parameter(self):
        for value in (1, None, "x"):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected bool, got {value!r}",
                                        xo.CPerFile.GetPerFile, "/a.py", value)

    def test_self_of_the_wrong_class(self):
        calls = {
            "CPerFile": xo.CPerFile.UpdateChecksum,
            "CPerCodeObject": xo.CPerCodeObject._AddToPerFile,
            "CPerThread": xo.CPerThread.GetDebugPolicy,
            "CInitialCallback": xo.CInitialCallback._IsInitialCallbackLogging,
            "_CCanonicalPathnameMgr": xo._CCanonicalPathnameMgr.Reset,
        }
        for class_name, method in calls.items():
            for value in (5, None, "x", [], getattr(xo, class_name)):
                with self.subTest(class_name, value=value):
                    self.assert_raises_text(TypeError, f"expected {class_name}, got {value!r}",
                                            method, value)

    def test_self_of_another_class_of_the_module(self):
        mgr = xo._CCanonicalPathnameMgr()
        self.assert_raises_text(TypeError, f"expected CPerFile, got {mgr!r}", xo.CPerFile.UpdateChecksum, mgr)

    def test_every_manager_method_checks_self(self):
        for name, parameters in interface.CLASSES["_CCanonicalPathnameMgr"].methods.items():
            if name != "__init__":
                with self.subTest(name):
                    method = getattr(xo._CCanonicalPathnameMgr, name)
                    self.assert_raises_text(TypeError, "expected _CCanonicalPathnameMgr, got 5",
                                            method, 5, *plausible(parameters))

    def test_a_foreign_thing_in_the_file_registry(self):
        xo.CPerFile._fPerFileDict["/a.py"] = 5
        self.assert_raises_text(TypeError, "expected CPerFile | None, got 5", xo.CPerFile.GetPerFile, "/a.py")

    def test_a_foreign_thing_in_the_code_object_registry(self):
        code = compile("", "/a.py", "exec")
        xo.CPerCodeObject._fCodeObjectExtraIndex = -1
        xo.CPerCodeObject._fPerCodeObjectDict[xo.weakref.ref(code)] = 5
        self.assert_raises_text(TypeError, "expected CPerCodeObject | None, got 5",
                                xo.CPerCodeObject.GetPerCodeObject, code)

    def test_a_foreign_thing_where_a_thread_record_is_wanted(self):
        callback = xo.CInitialCallback(1, None, False)
        with self.assertRaisesRegex(TypeError, "^expected CPerThread( instance)?, got 5$"):
            callback._SuspendIfNeeded(5)

    def test_the_repr_in_a_text_is_cut_at_200_characters(self):
        value = ["x" * 300]
        self.assert_raises_text(TypeError, f"expected str, got {repr(value)[:200]}",
                                xo.GetPathnameKind, value)

    def test_a_repr_that_raises_ends_in_an_ordinary_exception(self):
        with self.assertRaises((NastyError, TypeError)):
            xo.GetPathnameKind(raising("__repr__"))

    def test_subclasses_of_the_wanted_type_are_taken(self):
        class Text(str):
            pass

        class Dict(dict):
            pass

        class Integer(int):
            pass

        self.assertEqual(xo.GetPathnameKind(Text("<x>")), 4)
        self.assertIsNone(xo.SetInternalPathnameDict(Dict()))
        self.assertEqual(xo.register_canonical_pathname("/a", Text("sum"), Integer(3)), "/a")


if __name__ == "__main__":
    unittest.main()
