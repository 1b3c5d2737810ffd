"""Records per code object: their fields, the pathname that is reported for code, and its settling."""

import importlib._bootstrap
import os
import sys
import textwrap
import types
import unittest
import weakref

from code_helpers import CALLING, collect_code, frees_code_objects, in_frame_of, make_code
from support import NastyError, Recorder, XoTestCase, raising, run_python, xo

CPerFile = xo.CPerFile
CPerCodeObject = xo.CPerCodeObject

GetPerCodeObject = CPerCodeObject.GetPerCodeObject

INTEGER_FIELDS = ("fSteppingEventsNeededCount", "fReturnEventsNeededCount")
BOOLEAN_FIELDS = ("fIsInternalKnown", "fIsInternal", "fUpdatePathnameNeeded")
OBJECT_FIELDS = ("fCodeObjectWeakRef", "fPathnameToReport", "fCanonicalPathname", "fEnabledBpLinenos")


def reported(code, frame=None):
    """The pathname under which a code object is reported."""
    return CPerCodeObject._GetPathnameToUse(code, frame, False)


def canonical(code, frame=None):
    """The canonical form of that pathname."""
    return CPerCodeObject._GetPathnameToUse(code, frame, True)


def both(code, frame=None):
    """The reported and the canonical pathname of a code object."""
    return reported(code, frame), canonical(code, frame)


def filed_under(pathname):
    """The records that the file of that canonical pathname knows, or None when it has no record itself."""
    per_file = CPerFile.GetPerFile(pathname, False)
    return None if per_file is None else per_file.fKnownPerCodeObjects


class NewRecordTest(XoTestCase):

    def test_a_record_made_with_a_frame_is_settled(self):
        code = make_code("/a.py")
        record = in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame))
        self.assertIs(type(record), CPerCodeObject)
        self.assertIs(record.fUpdatePathnameNeeded, False)
        self.assertIs(record.fIsInternalKnown, True)

    def test_a_record_made_without_a_frame_is_to_be_settled_later(self):
        record = GetPerCodeObject(make_code("/a.py"))
        self.assertIs(record.fUpdatePathnameNeeded, True)
        self.assertIs(record.fIsInternalKnown, False)

    def test_a_new_record_wants_no_events_and_knows_no_breakpoints(self):
        record = GetPerCodeObject(make_code("/a.py"))
        self.assertEqual((record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount), (0, 0))
        self.assertIsNone(record.fEnabledBpLinenos)
        self.assertIs(record.fIsInternal, False)

    def test_the_record_refers_to_its_code_weakly_and_watches_for_its_end(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertIs(type(record.fCodeObjectWeakRef), weakref.ref)
        self.assertIs(record.fCodeObjectWeakRef(), code)
        self.assertEqual(record.fCodeObjectWeakRef.__callback__, record._cb_code_object_dealloc)

    def test_the_record_holds_no_strong_reference_to_its_code(self):
        code = make_code("/a.py")
        before = sys.getrefcount(code)
        record = GetPerCodeObject(code)
        self.assertEqual(sys.getrefcount(code), before)
        self.assertIs(record.fCodeObjectWeakRef(), code)

    def test_the_record_is_filed_under_its_canonical_pathname(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), ("/a.py", "/a.py"))
        self.assertEqual(filed_under("/a.py"), {record})

    def test_code_of_one_file_is_filed_together(self):
        codes = [make_code("/a.py") for _ in range(3)]
        records = {GetPerCodeObject(code) for code in codes}
        self.assertEqual(len(records), 3)
        self.assertEqual(filed_under("/a.py"), records)

    def test_code_of_a_pseudo_name_is_filed_under_none(self):
        for filename in ("<string>", "<stdin>", ""):
            with self.subTest(filename=filename):
                xo.reset()
                code = make_code(filename)
                record = GetPerCodeObject(code)
                self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (filename, None))
                self.assertEqual(list(CPerFile._fPerFileDict), [None])
                self.assertEqual(filed_under(None), {record})

    def test_code_of_a_pseudo_name_is_filed_with_a_checksum_callback_too(self):
        callback = Recorder(result=None)
        xo.set_checksum_callback(callback)
        code = make_code("<string>")
        record = GetPerCodeObject(code)
        self.assertEqual(callback.calls, [(None,)])
        self.assertEqual(filed_under(None), {record})

    def test_code_of_an_internal_file_is_internal(self):
        xo.SetInternalPathnameDict({"/opt/dbg/x.py": 1})
        code, other = make_code("/opt/dbg/x.py"), make_code("/opt/dbg/y.py")
        self.assertIs(GetPerCodeObject(code).fIsInternal, True)
        self.assertIs(GetPerCodeObject(other).fIsInternal, False)

    def test_code_of_a_pseudo_name_is_never_internal(self):
        xo.SetInternalPathnameDict({"<string>": 1, None: 1})
        code = make_code("<string>")
        self.assertIs(GetPerCodeObject(code).fIsInternal, False)

    def test_whether_code_is_internal_follows_the_canonical_pathname(self):
        directory = self.make_dir()
        original = self.write_file(directory, "original.py")
        link = os.path.join(directory, "link.py")
        os.symlink(original, link)
        xo.register_canonical_pathname(original)
        xo.SetInternalPathnameDict({original: 1})
        code = make_code(link)
        record = GetPerCodeObject(code)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (link, original))
        self.assertIs(record.fIsInternal, True)

    def test_everything_is_in_place_when_the_record_is_announced(self):
        code = make_code("/a.py")
        seen = []

        def callback(record):
            seen.append((record.fCodeObjectWeakRef() is code, record.fPathnameToReport,
                         record.fCanonicalPathname, record.fEnabledBpLinenos,
                         record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount,
                         record.fIsInternalKnown, record.fIsInternal,
                         record.fUpdatePathnameNeeded, filed_under("/a.py") == {record},
                         GetPerCodeObject(code, False) is record))

        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(callback)
        GetPerCodeObject(code)
        self.assertEqual(seen, [(True, "/a.py", "/a.py", None, 0, 0, False, False, True, True, True)])

    def test_the_file_is_announced_before_the_record_joins_it_and_before_the_record_is_announced(self):
        code = make_code("/a.py")
        seen = []

        def new_file(per_file):
            seen.append(("file", len(per_file.fKnownPerCodeObjects), GetPerCodeObject(code, False)))

        CPerFile.SetNewPerFileCreatedCallback(new_file)
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: seen.append("code object"))
        GetPerCodeObject(code)
        self.assertEqual(seen, [("file", 0, None), "code object"])

    def test_the_announcement_is_bracketed_by_the_tracing_level(self):
        steps = []
        self.patch(xo.dbgpythonapi, "PyThreadState_EnterTracing", lambda tstate: steps.append("enter"))
        self.patch(xo.dbgpythonapi, "PyThreadState_LeaveTracing", lambda tstate: steps.append("leave"))
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(lambda record: steps.append("announced"))
        GetPerCodeObject(make_code("/a.py"))
        self.assertEqual(steps, ["enter", "announced", "leave"])

    def test_a_failing_checksum_leaves_no_record(self):
        code = make_code("/a.py")
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        xo.set_checksum_callback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", GetPerCodeObject, code)
        self.assertIsNone(GetPerCodeObject(code, False))
        self.assertEqual((CPerFile._fPerFileDict, announced.calls), ({}, []))
        xo.set_checksum_callback(None)
        record = GetPerCodeObject(code)
        self.assertEqual(announced.calls, [(record,)])
        self.assertEqual(filed_under("/a.py"), {record})

    def test_a_failing_announcement_of_the_file_leaves_the_file_but_no_record_of_the_code(self):
        code = make_code("/a.py")
        CPerFile.SetNewPerFileCreatedCallback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", GetPerCodeObject, code)
        self.assertIsNone(GetPerCodeObject(code, False))
        self.assertEqual(filed_under("/a.py"), set())
        record = GetPerCodeObject(code)
        self.assertEqual(filed_under("/a.py"), {record})

    def test_a_failing_pathname_leaves_nothing_at_all(self):
        code = make_code("<frozen made_up>")

        def create(frame):
            self.assert_raises_text(AttributeError, "'int' object has no attribute 'lower'",
                                    GetPerCodeObject, code, True, frame)

        in_frame_of(code, create, __file__=5)
        self.assertIsNone(GetPerCodeObject(code, False))
        self.assertEqual(CPerFile._fPerFileDict, {})

    def test_the_constructor_registers_and_announces_the_record(self):
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        code = make_code("/a.py")
        record = CPerCodeObject(code, None)
        self.assertEqual(announced.calls, [(record,)])
        self.assertIs(GetPerCodeObject(code, False), record)

    def test_the_constructor_takes_its_arguments_by_name(self):
        code = make_code("/a.py")
        record = CPerCodeObject(frame_for_pathnames=None, code_object=code)
        self.assertIs(record.fCodeObjectWeakRef(), code)
        self.assert_raises_text(TypeError, "argument is missing", CPerCodeObject, code)


class FieldTest(XoTestCase):

    def setUp(self):
        super().setUp()
        self.code = make_code("/a.py")
        self.record = GetPerCodeObject(self.code)

    def test_object_fields_take_any_object(self):
        for name in OBJECT_FIELDS:
            with self.subTest(field=name):
                old = getattr(self.record, name)
                for value in (None, 5, {1, 2}):
                    setattr(self.record, name, value)
                    self.assertIs(getattr(self.record, name), value)
                setattr(self.record, name, old)

    def test_integer_fields_take_only_machine_word_integers(self):
        for name in INTEGER_FIELDS:
            with self.subTest(field=name):
                for value in (3, -1, sys.maxsize, -sys.maxsize - 1):
                    setattr(self.record, name, value)
                    self.assertEqual(getattr(self.record, name), value)
                self.assert_raises_text(TypeError, "expected int, got 'x'", setattr, self.record, name, "x")
                self.assert_raises_text(TypeError, "expected int, got None", setattr, self.record, name, None)
                for value in (sys.maxsize + 1, -sys.maxsize - 2):
                    with self.assertRaises(OverflowError):
                        setattr(self.record, name, value)
                self.assertEqual(getattr(self.record, name), -sys.maxsize - 1)

    def test_boolean_fields_take_only_booleans_and_read_as_such(self):
        for name in BOOLEAN_FIELDS:
            with self.subTest(field=name):
                for value in (True, False, True):
                    setattr(self.record, name, value)
                    self.assertIs(getattr(self.record, name), value)
                self.assert_raises_text(TypeError, "expected bool, got 0", setattr, self.record, name, 0)
                self.assert_raises_text(TypeError, "expected bool, got None",
                                        setattr, self.record, name, None)
                self.assertIs(getattr(self.record, name), True)

    def test_a_refused_value_is_shown_with_at_most_two_hundred_characters(self):
        self.assert_raises_text(TypeError, "expected int, got " + repr("x" * 300)[:200],
                                setattr, self.record, "fSteppingEventsNeededCount", "x" * 300)

    def test_no_field_can_be_deleted(self):
        for name in OBJECT_FIELDS + INTEGER_FIELDS + BOOLEAN_FIELDS:
            with self.subTest(field=name):
                self.assert_raises_text(TypeError, "deletion not supported", delattr, self.record, name)

    def test_an_object_field_that_was_never_set_reads_as_attribute_error(self):
        record = CPerCodeObject.__new__(CPerCodeObject)
        for name in OBJECT_FIELDS:
            with self.subTest(field=name):
                self.assert_raises_text(AttributeError, "Attribute error", getattr, record, name)

    def test_a_record_takes_no_other_attribute(self):
        with self.assertRaises(AttributeError):
            self.record.fOther = 1

    def test_a_record_can_be_weakly_referenced(self):
        self.assertIs(weakref.ref(self.record)(), self.record)

    def test_a_method_called_on_another_object_is_refused(self):
        per_file = CPerFile.GetPerFile("/a.py")
        for method, args in ((CPerCodeObject._AddToPerFile, ()), (CPerCodeObject._DiscardFromPerFile, ()),
                             (CPerCodeObject._cb_code_object_dealloc, (None,)),
                             (CPerCodeObject._UpdatePathnameFromFrame, (None,))):
            with self.subTest(method=method):
                self.assert_raises_text(TypeError, "expected CPerCodeObject, got 5", method, 5, *args)
                self.assert_raises_text(TypeError, "expected CPerCodeObject, got " + repr(per_file)[:200],
                                        method, per_file, *args)

    def test_the_index_of_the_extra_slot_is_a_typed_class_field(self):
        index = CPerCodeObject._fCodeObjectExtraIndex
        self.assertIs(type(index), int)
        self.assert_raises_text(TypeError, "expected int, got 'x'",
                                setattr, CPerCodeObject, "_fCodeObjectExtraIndex", "x")
        with self.assertRaises(OverflowError):
            CPerCodeObject._fCodeObjectExtraIndex = sys.maxsize + 1
        self.assertEqual(CPerCodeObject._fCodeObjectExtraIndex, index)
        self.assertEqual(self.record._fCodeObjectExtraIndex, index)

    def test_setting_the_announcement_callback_stores_it_in_the_class(self):
        callback = Recorder()
        self.assertIsNone(CPerCodeObject.SetNewPerCodeObjectCreatedCallback(callback))
        self.assertIs(CPerCodeObject._fNewPerCodeObjectCreatedCallback, callback)
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(callback=None)
        self.assertIsNone(CPerCodeObject._fNewPerCodeObjectCreatedCallback)

    def test_a_subclass_sees_the_class_fields_of_its_base(self):
        class Mine(CPerCodeObject):
            pass

        self.assertEqual(Mine._fCodeObjectExtraIndex, CPerCodeObject._fCodeObjectExtraIndex)
        self.assertIs(Mine._fPerCodeObjectDict, CPerCodeObject._fPerCodeObjectDict)
        callback = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(callback)
        self.assertIs(Mine._fNewPerCodeObjectCreatedCallback, callback)


class PathnameTest(XoTestCase):

    def test_a_regular_pathname_is_reported_as_it_is(self):
        self.assertEqual(both(make_code("/Dir/A.py")), ("/Dir/A.py", "/Dir/A.py"))

    def test_a_relative_pathname_is_reported_absolute(self):
        pathname = os.path.join(os.getcwd(), "rel", "a.py")
        self.assertEqual(both(make_code("rel/a.py")), (pathname, pathname))

    def test_a_reported_pathname_is_normalised(self):
        self.assertEqual(both(make_code("/a/../b.py")), ("/b.py", "/a/../b.py"))

    def test_the_canonical_form_is_the_first_name_of_the_file(self):
        directory = self.make_dir()
        original = self.write_file(directory, "original.py")
        link = os.path.join(directory, "link.py")
        os.link(original, link)
        self.assertEqual(both(make_code(original)), (original, original))
        self.assertEqual(both(make_code(link)), (link, original))

    def test_a_new_pathname_is_registered_only_when_the_canonical_form_is_asked_for(self):
        code = make_code("/no/such/file.py")
        reported(code)
        self.assertIsNone(xo.lookup_canonical_pathname("/no/such/file.py"))
        canonical(code)
        self.assertEqual(xo.lookup_canonical_pathname("/no/such/file.py"), "/no/such/file.py")

    def test_the_canonical_form_is_found_without_a_checksum(self):
        xo.register_canonical_pathname("/orig/a.py", "abc")
        callback = Recorder(result="abc")
        xo.set_checksum_callback(callback)
        self.assertEqual(canonical(make_code("/copy/a.py")), "/copy/a.py")
        self.assertEqual(callback.calls, [])

    def test_a_pseudo_name_is_kept_and_has_no_canonical_form(self):
        for filename in ("<string>", "<>", "<a/../b>", ""):
            with self.subTest(filename=filename):
                self.assertEqual(both(make_code(filename)), (filename, None))

    def test_a_name_of_the_interactive_shell_is_kept_in_both_forms(self):
        filename = "x-vornide-python-shell://1/../2"
        self.assertEqual(both(make_code(filename)), (filename, filename))

    def test_a_compiled_file_is_reported_as_its_source(self):
        for filename, source in (("/a.pyc", "/a.py"), ("/a.PYO", "/a.PY"), ("/a.PyC", "/a.Py"),
                                 ("x-vornide-python-shell://a.pyc", "x-vornide-python-shell://a.py")):
            with self.subTest(filename=filename):
                self.assertEqual(both(make_code(filename)), (source, source))

    def test_a_name_that_only_resembles_a_compiled_file_is_kept(self):
        for filename in ("/a.pyx", "/a.pycx", "/pyc"):
            with self.subTest(filename=filename):
                self.assertEqual(reported(make_code(filename)), filename)

    def test_only_names_of_files_go_through_abspath(self):
        abspath = self.patch(os.path, "abspath", Recorder(result="/made/absolute.py"))
        self.assertEqual(reported(make_code("a.py")), "/made/absolute.py")
        self.assertEqual(abspath.calls, [("a.py",)])
        frozen = make_code("<frozen made_up>")
        for code in (make_code("<string>"), make_code("x-vornide-python-shell://1/"), frozen):
            reported(code)
        in_frame_of(frozen, lambda frame: reported(frozen, frame), __file__="rel/a.py")
        self.assertEqual(len(abspath.calls), 1)

    def test_a_frame_is_looked_at_only_for_frozen_code(self):
        for filename in ("/a.py", "<string>", "x-vornide-python-shell://1/"):
            with self.subTest(filename=filename):
                code = make_code(filename)
                self.assertEqual(in_frame_of(code, lambda frame, code=code: reported(code, frame),
                                             __file__="/other.py"), filename)
                self.assertEqual(reported(code, object()), filename)

    def test_frozen_code_without_a_frame_keeps_its_name_in_both_forms(self):
        self.assertEqual(both(make_code("<frozen made_up>")), ("<frozen made_up>", "<frozen made_up>"))

    def test_frozen_code_is_reported_under_the_file_in_the_globals_of_its_frame(self):
        code = make_code("<frozen made_up>")
        self.assertEqual(in_frame_of(code, lambda frame: both(code, frame), __file__="/Lib/made_up.py"),
                         ("/Lib/made_up.py", "/Lib/made_up.py"))

    def test_a_relative_file_of_frozen_code_is_kept_in_the_reported_form_only(self):
        code = make_code("<frozen made_up>")
        self.assertEqual(in_frame_of(code, lambda frame: both(code, frame), __file__="rel/made_up.py"),
                         ("rel/made_up.py", os.path.join(os.getcwd(), "rel/made_up.py")))

    def test_a_compiled_file_of_frozen_code_is_reported_as_its_source_whatever_its_case(self):
        code = make_code("<frozen made_up>")
        for pathname, source in (("/m.pyc", "/m.py"), ("/M.PYC", "/M.PY"), ("/m.Pyo", "/m.Py")):
            with self.subTest(pathname=pathname):
                self.assertEqual(in_frame_of(code, lambda frame: both(code, frame), __file__=pathname),
                                 (source, source))

    def test_frozen_code_without_a_file_in_the_globals_keeps_its_name(self):
        code = make_code("<frozen made_up>")
        self.assertEqual(in_frame_of(code, lambda frame: reported(code, frame)), "<frozen made_up>")
        self.assertEqual(in_frame_of(code, lambda frame: reported(code, frame), __file__=None),
                         "<frozen made_up>")

    def test_a_file_in_the_globals_that_is_no_string_fails_as_its_missing_method_does(self):
        code = make_code("<frozen made_up>")
        in_frame_of(code, lambda frame: self.assert_raises_text(
            AttributeError, "'int' object has no attribute 'lower'", reported, code, frame), __file__=5)

    def test_the_frame_of_the_code_is_found_further_out(self):
        code = make_code("<frozen made_up>")
        for distance in (1, 2, 50):
            with self.subTest(distance=distance):
                self.assertEqual(in_frame_of(code, lambda frame: reported(code, frame), distance,
                                             __file__="/made_up.py"), "/made_up.py")

    def test_the_frame_of_the_code_is_found_one_hundred_frames_out(self):
        code = make_code("<frozen made_up>")
        self.assertEqual(in_frame_of(code, lambda frame: reported(code, frame), 100, __file__="/made_up.py"),
                         "/made_up.py")

    def test_the_walk_gives_up_after_one_hundred_frames(self):
        code = make_code("<frozen made_up>")
        for distance in (101, 150):
            with self.subTest(distance=distance):
                self.assertEqual(in_frame_of(code, lambda frame: reported(code, frame), distance,
                                             __file__="/made_up.py"), "<frozen made_up>")

    def test_without_a_matching_frame_frozen_code_keeps_its_name(self):
        code, other = make_code("<frozen made_up>"), make_code("<frozen other>")
        self.assertEqual(in_frame_of(other, lambda frame: reported(code, frame), __file__="/other.py"),
                         "<frozen made_up>")

    def test_the_innermost_of_several_frames_of_the_code_decides(self):
        code = make_code("<frozen made_up>")

        def again(_frame):
            return in_frame_of(code, lambda frame: reported(code, frame), 3, __file__="/inner.py")

        self.assertEqual(in_frame_of(code, again, __file__="/outer.py"), "/inner.py")

    def test_the_frame_of_an_equal_code_object_does_not_count(self):
        code = make_code("<frozen made_up>", CALLING)
        copy = make_code("<frozen made_up>", CALLING)
        self.assertEqual(code, copy)
        self.assertIsNot(code, copy)
        self.assertEqual(in_frame_of(copy, lambda frame: reported(code, frame), __file__="/made_up.py"),
                         "<frozen made_up>")

    def test_the_frame_of_an_equal_code_object_further_in_is_passed_over(self):
        code = make_code("<frozen made_up>", CALLING)
        copy = make_code("<frozen made_up>", CALLING)

        def further_in(_frame):
            return in_frame_of(copy, lambda frame: reported(code, frame), __file__="/copy.py")

        self.assertEqual(in_frame_of(code, further_in, __file__="/made_up.py"), "/made_up.py")

    def test_a_frame_without_the_attributes_of_a_frame_fails_as_reading_them_does(self):
        self.assert_raises_text(AttributeError, "'object' object has no attribute 'f_code'",
                                reported, make_code("<frozen made_up>"), object())

    def test_on_win32_the_reported_pathname_is_lowered_whatever_its_kind(self):
        codes = [make_code(name) for name in ("/Dir/A.py", "<String>", "x-vornide-python-shell://A/")]
        frozen = make_code("<frozen Made_Up>")
        self.set_platform("win32")
        self.assertEqual([reported(code) for code in codes],
                         ["/dir/a.py", "<string>", "x-vornide-python-shell://a/"])
        self.assertEqual(reported(frozen), "<frozen made_up>")
        self.assertEqual(in_frame_of(frozen, lambda frame: reported(frozen, frame),
                                     __file__="/Lib/Made_Up.PYC"), "/lib/made_up.py")

    def test_on_win32_a_name_without_a_file_keeps_its_case_in_the_canonical_form(self):
        code = make_code("x-vornide-python-shell://A/")
        self.set_platform("win32")
        self.assertEqual(canonical(code), "x-vornide-python-shell://A/")

    def test_arguments_can_be_given_by_name_and_none_is_optional(self):
        code = make_code("/a/../b.py")
        get = CPerCodeObject._GetPathnameToUse
        self.assertEqual(get(canonical=False, frame=None, code_object=code), "/b.py")
        self.assert_raises_text(TypeError, "argument is missing", get, code, None)

    def test_what_is_no_code_object_fails_as_reading_its_file_name_does(self):
        self.assert_raises_text(AttributeError, "'int' object has no attribute 'co_filename'", reported, 5)


class RealFrozenCodeTest(XoTestCase):

    def test_import_machinery_is_reported_under_the_file_of_its_frame(self):
        class Finder:
            @staticmethod
            def find_spec(name, path=None, target=None):
                if name == "xo_no_such_module":
                    frames.append(sys._getframe(1))
                    names.append(both(frames[0].f_code, sys._getframe()))
                return None

        frames, names = [], []
        sys.meta_path.insert(0, Finder)
        self.addCleanup(sys.meta_path.remove, Finder)
        with self.assertRaises(ImportError):
            importlib._bootstrap._gcd_import("xo_no_such_module")
        self.assertEqual(frames[0].f_code.co_filename, "<frozen importlib._bootstrap>")
        expected = frames[0].f_globals.get("__file__") or "<frozen importlib._bootstrap>"
        self.assertEqual(names, [(expected, expected)])

    def test_a_frozen_standard_module_is_reported_under_its_source_file(self):
        code = os.walk.__code__.replace()
        if code.co_filename != "<frozen os>":
            self.skipTest("this interpreter does not run the frozen copy of os")
        generator = types.FunctionType(code, os.__dict__, argdefs=os.walk.__defaults__)(".")
        record = GetPerCodeObject(code, True, generator.gi_frame)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (os.__file__, os.__file__))
        self.assertEqual(filed_under(os.__file__), {record})


class LookupTest(XoTestCase):

    def test_an_unseen_code_object_without_create_is_none_and_nothing_is_made(self):
        code = make_code("/a.py")
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        self.assertIsNone(GetPerCodeObject(code, create=False))
        self.assertIsNone(in_frame_of(code, lambda frame: GetPerCodeObject(code, False, frame)))
        self.assertIsNone(CPerCodeObject._GetExistingPerCodeObject(code))
        self.assertEqual((CPerFile._fPerFileDict, announced.calls), ({}, []))
        self.assertIsNone(xo.lookup_canonical_pathname("/a.py"))

    def test_a_known_code_object_gives_the_same_record_each_time(self):
        code = make_code("/a.py")
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        record = GetPerCodeObject(code)
        for found in (GetPerCodeObject(code), GetPerCodeObject(code, False),
                      GetPerCodeObject(code_object=code), CPerCodeObject._GetExistingPerCodeObject(code),
                      in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame))):
            self.assertIs(found, record)
        self.assertEqual(announced.calls, [(record,)])

    def test_create_must_be_a_bool(self):
        code = make_code("/a.py")
        self.assert_raises_text(TypeError, "expected bool, got 1", GetPerCodeObject, code, 1)
        self.assert_raises_text(TypeError, "expected bool, got None", GetPerCodeObject, code, None)
        self.assertIsNone(GetPerCodeObject(code, False))

    def test_wrong_argument_lists_are_refused(self):
        code = make_code("/a.py")
        self.assert_raises_text(TypeError, "argument is missing", GetPerCodeObject)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                GetPerCodeObject, code, True, None, None)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                GetPerCodeObject, code, other=1)
        self.assert_raises_text(TypeError, "argument has both a positional value and a keyword value",
                                GetPerCodeObject, code, code_object=code)

    def test_a_failing_announcement_leaves_the_record_registered_and_is_not_repeated(self):
        code = make_code("/a.py")
        announced = Recorder(error=NastyError("no"))
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        self.assert_raises_text(NastyError, "no", GetPerCodeObject, code)
        ((record,),) = announced.calls
        self.assertIs(GetPerCodeObject(code), record)
        self.assertEqual(filed_under("/a.py"), {record})
        self.assertEqual(len(announced.calls), 1)


class ReplacedConstructionTest(XoTestCase):
    """`CPerCodeObject.__new__` can be replaced. In a process of its own, since that cannot be undone."""

    PROLOGUE = """
        import sys
        from vorntracer import xoptmonitoring as xo
        from vornbase import dlog

        def given(result):
            xo.CPerCodeObject.__new__ = lambda cls, *args: result

        logged = []
        dlog.LogException = lambda *args: logged.append((type(sys.exception()), str(sys.exception())))
        code = compile("1", "/a.py", "exec")
        names = {name: getattr(xo, f"kPy{name}EventId") for name in ("Line", "Start", "Resume", "Return", "Yield")}
        second = lambda code, *args: "second"
    """

    def run_replaced(self, text):
        return run_python(textwrap.dedent(self.PROLOGUE) + textwrap.dedent(text))

    def test_what_constructing_gives_is_a_record_or_none_or_refused(self):
        self.run_replaced("""
            for result in (5, b"x" * 500, object(), code):
                given(result)
                for frame in (None, sys._getframe()):
                    try:
                        found = xo.CPerCodeObject.GetPerCodeObject(code, True, frame)
                    except TypeError as error:
                        text = str(error)
                        assert text == f"expected CPerCodeObject | None, got {repr(result)[:200]}", text
                    else:
                        raise AssertionError(found)
            given(None)
            assert xo.CPerCodeObject.GetPerCodeObject(code) is None
            record = object.__new__(xo.CPerCodeObject)
            given(record)
            assert xo.CPerCodeObject.GetPerCodeObject(code) is record
        """)

    def test_the_first_stage_refuses_a_foreign_record(self):
        self.run_replaced("""
            given(b"x" * 500)
            for name, event_id in names.items():
                callback = xo.CInitialCallback(event_id, second, True)
                for calls in range(3):
                    assert callback.Callback(code, 1) is None
                    ((kind, text),) = logged
                    assert kind is TypeError and text.startswith("expected CPerCodeObject | None, got b'xxx"), logged
                    logged.clear()
        """)

    def test_without_a_record_the_first_stage_asks_what_it_can_and_then_says_what_none_lacks(self):
        self.run_replaced("""
            given(None)
            callbacks = {name: xo.CInitialCallback(event_id, second, True) for name, event_id in names.items()}
            for name, callback in callbacks.items():
                assert callback.Callback(code, 1) is None
                text = "'NoneType' object has no attribute 'fSteppingEventsNeededCount'"
                assert logged == [(AttributeError, text)], logged
                logged.clear()
            other = xo.CInitialCallback(sys.monitoring.events.CALL, second, True)
            assert other.Callback(code, 1) == "second"
            thread = xo.CPerThread.GetPerThread()
            thread.fSteppingEventsNeeded = True
            for name, callback in callbacks.items():
                callback.fAnySuspendThread = True  # a LINE event is then not filtered by the code object alone
                assert callback.Callback(code, 1) == "second", name
            thread.fDebugPolicy = 0
            for name, callback in callbacks.items():
                assert callback.Callback(code, 1) is None
            assert logged == [], logged
        """)


class SettlingTest(XoTestCase):
    """Records made without a frame, and the frame that comes later."""

    def test_the_first_frame_re_files_frozen_code_under_its_file(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        self.assertEqual((record.fPathnameToReport, record.fUpdatePathnameNeeded), ("<frozen made_up>", True))
        self.assertEqual(filed_under("<frozen made_up>"), {record})
        found = in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertIs(found, record)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname),
                         ("/made_up.py", "/made_up.py"))
        self.assertEqual((record.fUpdatePathnameNeeded, record.fIsInternalKnown), (False, True))
        self.assertEqual(filed_under("<frozen made_up>"), set())
        self.assertEqual(filed_under("/made_up.py"), {record})

    def test_a_lookup_without_create_settles_the_record_too(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        in_frame_of(code, lambda frame: GetPerCodeObject(code, False, frame), __file__="/made_up.py")
        self.assertEqual((record.fCanonicalPathname, record.fUpdatePathnameNeeded), ("/made_up.py", False))

    def test_a_lookup_without_a_frame_settles_nothing(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        GetPerCodeObject(code)
        self.assertEqual((record.fUpdatePathnameNeeded, record.fIsInternalKnown), (True, False))

    def test_whether_the_code_is_internal_is_settled_with_the_pathname(self):
        xo.SetInternalPathnameDict({"/made_up.py": 1})
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        self.assertEqual((record.fIsInternal, record.fIsInternalKnown), (False, False))
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertEqual((record.fIsInternal, record.fIsInternalKnown), (True, True))

    def test_code_that_was_internal_by_its_name_can_turn_out_not_to_be(self):
        xo.SetInternalPathnameDict({"<frozen made_up>": 1})
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        self.assertIs(record.fIsInternal, True)
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertIs(record.fIsInternal, False)

    def test_a_record_made_with_a_frame_is_never_looked_at_again(self):
        code = make_code("<frozen made_up>")
        record = in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/first.py")
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/second.py")
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), ("/first.py", "/first.py"))
        self.assertIsNone(filed_under("/second.py"))

    def test_a_record_made_with_a_frame_of_other_code_is_settled_under_its_own_name(self):
        code, other = make_code("<frozen made_up>"), make_code("/other.py")
        record = in_frame_of(other, lambda frame: GetPerCodeObject(code, True, frame), __file__="/other.py")
        self.assertEqual((record.fPathnameToReport, record.fUpdatePathnameNeeded),
                         ("<frozen made_up>", False))
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertEqual(record.fPathnameToReport, "<frozen made_up>")

    def test_a_settled_record_is_not_settled_again(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        for pathname in ("/first.py", "/second.py"):
            in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__=pathname)
        self.assertEqual(record.fCanonicalPathname, "/first.py")

    def test_settling_by_hand_looks_again_even_at_a_settled_record(self):
        code = make_code("<frozen made_up>")
        record = in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/first.py")
        self.assertIsNone(in_frame_of(code, record._UpdatePathnameFromFrame, __file__="/second.py"))
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), ("/second.py", "/second.py"))
        self.assertEqual((filed_under("/first.py"), filed_under("/second.py")), (set(), {record}))

    def test_an_unchanged_canonical_pathname_leaves_the_file_alone(self):
        code = make_code("/a.py")
        record = GetPerCodeObject(code)
        per_file = CPerFile.GetPerFile("/a.py")
        per_file.fKnownPerCodeObjects.clear()
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame))
        self.assertEqual((record.fUpdatePathnameNeeded, record.fIsInternalKnown), (False, True))
        self.assertEqual(per_file.fKnownPerCodeObjects, set())

    def test_the_reported_pathname_changes_even_when_the_canonical_one_stays(self):
        directory = self.make_dir()
        original = self.write_file(directory, "original.py")
        link = os.path.join(directory, "link.py")
        os.link(original, link)
        code = make_code("<frozen made_up>")
        record = in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__=original)
        in_frame_of(code, record._UpdatePathnameFromFrame, __file__=link)
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname), (link, original))
        self.assertEqual(filed_under(original), {record})

    def test_counts_and_breakpoints_survive_settling(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount = 2, 3
        record.fEnabledBpLinenos = lines = {1, 2}
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertEqual((record.fSteppingEventsNeededCount, record.fReturnEventsNeededCount), (2, 3))
        self.assertIs(record.fEnabledBpLinenos, lines)

    def test_the_old_file_is_left_and_the_new_pathname_set_before_the_new_file_is_entered(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        seen = []

        def new_file(per_file):
            seen.append((per_file.fCanonicalPathname, record.fPathnameToReport, record.fCanonicalPathname,
                         set(filed_under("<frozen made_up>")), set(per_file.fKnownPerCodeObjects),
                         record.fUpdatePathnameNeeded, record.fIsInternalKnown))

        CPerFile.SetNewPerFileCreatedCallback(new_file)
        in_frame_of(code, lambda frame: GetPerCodeObject(code, True, frame), __file__="/made_up.py")
        self.assertEqual(seen, [("/made_up.py", "/made_up.py", "/made_up.py", set(), set(), True, False)])

    def test_a_failing_pathname_changes_nothing_and_reaches_the_caller(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)

        def settle(frame):
            self.assert_raises_text(AttributeError, "'int' object has no attribute 'lower'",
                                    GetPerCodeObject, code, True, frame)

        in_frame_of(code, settle, __file__=5)
        self.assertEqual((record.fPathnameToReport, record.fUpdatePathnameNeeded, record.fIsInternalKnown),
                         ("<frozen made_up>", True, False))
        self.assertEqual(filed_under("<frozen made_up>"), {record})

    def test_a_new_file_that_cannot_be_made_leaves_the_record_unsettled(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        xo.set_checksum_callback(Recorder(error=NastyError("no")))

        def settle(frame):
            self.assert_raises_text(NastyError, "no", GetPerCodeObject, code, True, frame)

        in_frame_of(code, settle, __file__="/made_up.py")
        self.assertEqual((record.fPathnameToReport, record.fCanonicalPathname),
                         ("/made_up.py", "/made_up.py"))
        self.assertEqual((record.fUpdatePathnameNeeded, record.fIsInternalKnown), (True, False))
        self.assertEqual(filed_under("<frozen made_up>"), set())

    def check_nothing_is_settled(self, record):
        in_frame_of(make_code("/b.py"), record._UpdatePathnameFromFrame, __file__="/b.py")
        self.assertEqual((record.fPathnameToReport, record.fUpdatePathnameNeeded, record.fIsInternalKnown),
                         ("<frozen made_up>", True, False))
        self.assertEqual(filed_under("<frozen made_up>"), {record})

    def test_without_a_weak_reference_nothing_is_settled(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        record.fCodeObjectWeakRef = None
        self.check_nothing_is_settled(record)

    def test_a_weak_reference_that_raises_is_swallowed_and_nothing_is_settled(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        for error in (NastyError("no"), KeyboardInterrupt()):
            with self.subTest(error=error):
                record.fCodeObjectWeakRef = Recorder(error=error)
                self.check_nothing_is_settled(record)
                self.assertEqual(record.fCodeObjectWeakRef.calls, [()])

    def test_a_weak_reference_to_what_is_no_code_object_settles_nothing(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        record.fCodeObjectWeakRef = Recorder(result=5)
        self.check_nothing_is_settled(record)

    @frees_code_objects
    def test_a_record_of_dead_code_is_not_settled(self):
        code = make_code("<frozen made_up>")
        record = GetPerCodeObject(code)
        del code
        collect_code()
        self.assertIsNone(record.fCodeObjectWeakRef())
        record._UpdatePathnameFromFrame(sys._getframe())
        self.assertEqual((record.fPathnameToReport, record.fUpdatePathnameNeeded, record.fIsInternalKnown),
                         ("<frozen made_up>", True, False))


class FilingTest(XoTestCase):

    def setUp(self):
        super().setUp()
        self.code = make_code("/a.py")
        self.record = GetPerCodeObject(self.code)

    def test_discarding_takes_the_record_out_of_its_file(self):
        self.assertIsNone(self.record._DiscardFromPerFile())
        self.assertEqual(filed_under("/a.py"), set())

    def test_discarding_twice_is_harmless(self):
        self.record._DiscardFromPerFile()
        self.record._DiscardFromPerFile()
        self.assertEqual(filed_under("/a.py"), set())

    def test_adding_files_the_record_again_and_makes_the_file_when_it_is_gone(self):
        CPerFile._fPerFileDict.clear()
        self.assertIsNone(self.record._AddToPerFile())
        self.assertEqual(filed_under("/a.py"), {self.record})
        self.record._AddToPerFile()
        self.assertEqual(filed_under("/a.py"), {self.record})

    def test_discarding_makes_no_file(self):
        CPerFile._fPerFileDict.clear()
        self.record._DiscardFromPerFile()
        self.assertEqual(CPerFile._fPerFileDict, {})

    def test_both_follow_the_current_canonical_pathname(self):
        self.record.fCanonicalPathname = "/b.py"
        self.record._AddToPerFile()
        self.assertEqual((filed_under("/a.py"), filed_under("/b.py")), ({self.record}, {self.record}))
        self.record._DiscardFromPerFile()
        self.assertEqual((filed_under("/a.py"), filed_under("/b.py")), ({self.record}, set()))

    def test_discarding_swallows_the_type_and_attribute_errors_of_the_search_for_the_file(self):
        class Odd:
            def __hash__(self):
                raise AttributeError("odd")

        for pathname in ([], Odd()):
            with self.subTest(pathname=type(pathname)):
                self.record.fCanonicalPathname = pathname
                self.assertIsNone(self.record._DiscardFromPerFile())
        self.assertEqual(filed_under("/a.py"), {self.record})

    def test_discarding_swallows_the_refusal_of_a_foreign_value_in_the_registry(self):
        CPerFile._fPerFileDict["/a.py"] = 5
        self.assertIsNone(self.record._DiscardFromPerFile())

    def test_discarding_passes_other_errors_on(self):
        self.record.fCanonicalPathname = raising("__hash__")
        with self.assertRaises(NastyError):
            self.record._DiscardFromPerFile()
        self.record.fCanonicalPathname = "/a.py"  # it is looked at again when the code ends

    def test_discarding_a_half_built_record_does_nothing(self):
        self.assertIsNone(CPerCodeObject.__new__(CPerCodeObject)._DiscardFromPerFile())

    def test_adding_passes_every_error_on(self):
        self.record.fCanonicalPathname = []
        with self.assertRaisesRegex(TypeError, "unhashable type: 'list'"):
            self.record._AddToPerFile()
        self.assert_raises_text(AttributeError, "Attribute error",
                                CPerCodeObject.__new__(CPerCodeObject)._AddToPerFile)

    def test_a_file_without_its_set_fails_as_using_none_does(self):
        CPerFile.GetPerFile("/a.py").fKnownPerCodeObjects = None
        self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'add'",
                                self.record._AddToPerFile)
        self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'discard'",
                                self.record._DiscardFromPerFile)


if __name__ == "__main__":
    unittest.main()
