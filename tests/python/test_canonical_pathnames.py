"""One canonical pathname for every name of a file: the three indexes and the cache of missing names."""

import os
import threading
import time
import types
import unittest
from unittest import mock

import interface
from support import NastyError, Recorder, XoTestCase, xo

FROZEN, SHELL, PSEUDO = "<frozen os>", "x-vornide-python-shell://1/", "<stdin>"


class FakeClock:
    """Stands in for `time.monotonic`."""

    def __init__(self, now=1000.0):
        self.now = now
        self.reads = 0

    def __call__(self):
        self.reads += 1
        return self.now


class FakeDisk:
    """Stands in for `os.stat`: knows the names in `files` (name to identity) and keeps what was asked."""

    def __init__(self, files=()):
        self.files = dict(files)
        self.asked = []
        self.on_stat = None

    def __call__(self, pathname):
        self.asked.append(pathname)
        if self.on_stat is not None:
            self.on_stat()
        if pathname not in self.files:
            raise FileNotFoundError(pathname)
        device, number = self.files[pathname]
        return types.SimpleNamespace(st_dev=device, st_ino=number, st_mode=0o100644)


class ManagerCase(XoTestCase):
    """Gives every test a manager of its own."""

    def setUp(self):
        super().setUp()
        self.mgr = xo._CCanonicalPathnameMgr()

    def use_clock(self, now=1000.0):
        return self.patch(time, "monotonic", FakeClock(now))

    def use_disk(self, files=()):
        return self.patch(os, "stat", FakeDisk(files))

    def indexes(self):
        """A snapshot of the three indexes."""
        return dict(self.mgr.fByName), dict(self.mgr.fByUniqueFileno), dict(self.mgr.fByChecksum)


class Construction(ManagerCase):

    DICTIONARIES = ("fByName", "fByUniqueFileno", "fByChecksum", "fNotFoundCache")

    def test_a_new_manager_is_empty_and_has_no_checksum_callback(self):
        for field in self.DICTIONARIES:
            with self.subTest(field):
                self.assertIs(type(getattr(self.mgr, field)), dict)
                self.assertEqual(getattr(self.mgr, field), {})
        self.assertIsNone(self.mgr.fChecksumCallback)

    def test_the_four_dictionaries_are_four_objects_and_no_manager_shares_them(self):
        other = xo._CCanonicalPathnameMgr()
        made = [getattr(mgr, field) for mgr in (self.mgr, other) for field in self.DICTIONARIES]
        self.assertEqual(len({id(dictionary) for dictionary in made}), 8)

    def test_every_field_can_be_replaced_and_the_replacement_is_used(self):
        names, files, sums, missing = {"/a.py": "/A.py"}, {(1, 2): "/B.py"}, {"sum": "/C.py"}, {}
        self.mgr.fByName, self.mgr.fByUniqueFileno = names, files
        self.mgr.fByChecksum, self.mgr.fNotFoundCache = sums, missing
        self.use_disk({"/b.py": (1, 2)})
        self.assertEqual(self.mgr.Lookup("/a.py"), "/A.py")
        self.assertEqual(self.mgr.Lookup("/b.py"), "/B.py")
        self.assertEqual(self.mgr.Lookup("/c.py", "sum"), "/C.py")
        self.assertEqual(list(missing), ["/c.py"])
        self.assertIs(self.mgr.fByName, names)

    def test_constructing_again_replaces_the_dictionaries_and_drops_the_callback(self):
        before = [getattr(self.mgr, field) for field in self.DICTIONARIES]
        self.mgr.Register("/a.py", "sum")
        self.mgr.SetChecksumCallback(Recorder())
        self.assertIsNone(self.mgr.__init__())
        for field, old in zip(self.DICTIONARIES, before):
            with self.subTest(field):
                self.assertIsNot(getattr(self.mgr, field), old)
                self.assertEqual(getattr(self.mgr, field), {})
        self.assertEqual(before[0], {"/a.py": "/a.py"})
        self.assertIsNone(self.mgr.fChecksumCallback)

    def test_constructing_again_replaces_the_fields_in_order(self):
        released = []

        class Tells:
            def __init__(self, field):
                self.field = field

            def __del__(self):
                released.append(self.field)

        for field in (*self.DICTIONARIES, "fChecksumCallback"):
            setattr(self.mgr, field, Tells(field) if field == "fChecksumCallback" else {field: Tells(field)})
        self.mgr.__init__()
        self.assertEqual(released, [*self.DICTIONARIES, "fChecksumCallback"])

    def test_the_not_found_time_is_3_seconds(self):
        self.assertEqual(xo._CCanonicalPathnameMgr.kNotFoundTtlSeconds, 3)
        self.assertEqual(self.mgr.kNotFoundTtlSeconds, 3)


class Reset(ManagerCase):

    DICTIONARIES = Construction.DICTIONARIES

    def test_reset_empties_the_dictionaries_in_place_and_drops_the_callback(self):
        self.mgr.SetChecksumCallback(Recorder())
        self.mgr.Register("/no/such/file.py", "sum")
        self.mgr.Register(__file__)
        before = [getattr(self.mgr, field) for field in self.DICTIONARIES]
        self.assertTrue(all(before), "each dictionary has to hold something for this test")
        self.assertIsNone(self.mgr.Reset())
        for field, dictionary in zip(self.DICTIONARIES, before):
            with self.subTest(field):
                self.assertIs(getattr(self.mgr, field), dictionary)
                self.assertEqual(dictionary, {})
        self.assertIsNone(self.mgr.GetChecksumCallback())

    def test_reset_clears_in_order_and_drops_the_callback_last(self):
        released = []

        class Tells:
            def __init__(self, field):
                self.field = field

            def __del__(self):
                released.append(self.field)

        for field in self.DICTIONARIES:
            getattr(self.mgr, field)["x"] = Tells(field)
        self.mgr.SetChecksumCallback(Tells("fChecksumCallback"))
        self.mgr.Reset()
        self.assertEqual(released, [*self.DICTIONARIES, "fChecksumCallback"])

    def test_a_manager_works_again_after_a_reset(self):
        self.mgr.Register("/a.py", "sum")
        self.mgr.Reset()
        self.assertIsNone(self.mgr.Lookup("/a.py", "sum"))
        self.assertEqual(self.mgr.Register("/b.py", "sum"), "/b.py")

    def test_the_modules_reset_resets_the_modules_manager(self):
        mgr = xo._gCanonicalPathnameMgr
        names = mgr.fByName
        xo.register_canonical_pathname("/a.py")
        self.assertEqual(names, {"/a.py": "/a.py"})
        xo.reset()
        self.assertIs(xo._gCanonicalPathnameMgr, mgr)
        self.assertIs(mgr.fByName, names)
        self.assertEqual(names, {})


class SmallSteps(ManagerCase):

    def test_abs_path_is_what_os_path_says(self):
        directory = self.make_dir()
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory)
        self.assertEqual(self.mgr._AbsPath("a.py"), os.path.join(directory, "a.py"))
        self.assertEqual(self.mgr._AbsPath("x/../b.py"), os.path.join(directory, "b.py"))
        self.assertEqual(self.mgr._AbsPath(""), directory)

    def test_abs_path_asks_os_path_each_time(self):
        abspath = self.patch(os.path, "abspath", Recorder(result="/from/abspath.py"))
        self.assertEqual(self.mgr._AbsPath("a.py"), "/from/abspath.py")
        self.assertEqual(abspath.calls, [("a.py",)])

    def test_an_exception_of_abspath_propagates(self):
        self.patch(os.path, "abspath", Recorder(error=NastyError()))
        for call in (self.mgr._AbsPath, self.mgr._GetAbsnameForCanonical, self.mgr.Lookup, self.mgr.Register,
                     self.mgr.Get):
            with self.subTest(call):
                self.assertRaises(NastyError, call, "relative.py")

    def test_stat_gives_the_result_of_os_stat_itself(self):
        stat = Recorder(result=object())
        with mock.patch.object(os, "stat", stat):
            result = self.mgr._Stat("/a.py")
        self.assertIs(result, stat.result)
        self.assertEqual(stat.calls, [("/a.py",)])

    def test_stat_of_a_real_file(self):
        self.assertEqual(self.mgr._Stat(__file__), os.stat(__file__))

    def test_stat_of_a_missing_file_is_none(self):
        self.assertIsNone(self.mgr._Stat("/no/such/file.py"))

    def test_any_os_error_of_stat_is_swallowed(self):
        for error in (OSError(), FileNotFoundError(), PermissionError(), TimeoutError()):
            with self.subTest(error), mock.patch.object(os, "stat", Recorder(error=error)):
                self.assertIsNone(self.mgr._Stat("/a.py"))

    def test_any_other_exception_of_stat_propagates(self):
        self.assertRaises(ValueError, self.mgr._Stat, "/embedded\0null.py")
        for error in (NastyError(), ValueError(), KeyboardInterrupt(), MemoryError()):
            for call in (self.mgr._Stat, self.mgr._GetUniqueFileno, self.mgr.Lookup, self.mgr.Register,
                         self.mgr.Get):
                with self.subTest(error, call=call), mock.patch.object(os, "stat", Recorder(error=error)):
                    with self.assertRaises(type(error)) as caught:
                        call("/a.py")
                    self.assertIs(caught.exception, error)

    def test_a_swallowed_os_error_leaves_the_handled_exception_alone(self):
        try:
            raise NastyError("being handled")
        except NastyError:
            self.mgr._Stat("/no/such/file.py")
            with self.assertRaisesRegex(NastyError, "^being handled$"):
                raise

    def test_compiled_names_lose_their_last_character(self):
        for given, pruned in (("a.pyc", "a.py"), ("A.PYO", "A.PY"), (".pyc", ".py"), (".pyo", ".py"),
                              ("m.PYC", "m.PY"), ("/x/y.PyC", "/x/y.Py"), ("a.pyc.pyc", "a.pyc.py")):
            with self.subTest(given):
                self.assertEqual(self.mgr._PrunePycPyo(given), pruned)

    def test_other_names_are_not_pruned(self):
        for given in ("pyc", "", "x.pycx", "a.py", "pyco", ".py", "xpyc", "a.pyd", "a.pyc/"):
            with self.subTest(given):
                self.assertEqual(self.mgr._PrunePycPyo(given), given)

    def test_a_name_that_begins_with_a_slash_is_obviously_absolute(self):
        self.set_platform("linux")
        for pathname in ("/x", "/", "//x", "/a/../b", "/./x"):
            with self.subTest(pathname):
                self.assertIs(self.mgr._IsObviousAbsPathname(pathname), True)

    def test_any_other_name_is_not_obviously_absolute(self):
        self.set_platform("linux")
        for pathname in ("x/y", "", "C:\\x", "\\\\server\\share\\x", "./x", "~", "\\x", " /x"):
            with self.subTest(pathname):
                self.assertIs(self.mgr._IsObviousAbsPathname(pathname), False)

    def test_the_windows_long_name_is_the_name_itself_elsewhere(self):
        self.set_platform("linux")
        for pathname in ("C:\\PROGRA~1", "/x", ""):
            self.assertEqual(self.mgr._GetWindowsLongPathName(pathname), pathname)

    def test_the_windows_long_name_is_the_name_itself_where_the_support_module_is_missing(self):
        self.assertIsNone(xo.win32)
        self.set_platform("win32")
        self.assertEqual(self.mgr._GetWindowsLongPathName("C:\\PROGRA~1"), "C:\\PROGRA~1")

    def test_an_obvious_name_is_taken_as_it_is_without_asking_os_path(self):
        self.set_platform("linux")
        self.patch(os.path, "abspath", Recorder(error=NastyError()))
        for given, wanted in (("/a.py", "/a.py"), ("/A/../b.PYC", "/A/../b.PY"), ("//x", "//x"),
                              ("/a\\b", "/a\\b")):
            with self.subTest(given):
                self.assertEqual(self.mgr._GetAbsnameForCanonical(given), wanted)

    def test_any_other_name_goes_through_os_path_after_pruning(self):
        self.set_platform("linux")
        abspath = self.patch(os.path, "abspath", Recorder(result="/Kept/Case.PYC"))
        self.assertEqual(self.mgr._GetAbsnameForCanonical("Rel.PYC"), "/Kept/Case.PYC")
        self.assertEqual(abspath.calls, [("Rel.PY",)])

    def test_symbolic_links_are_not_resolved(self):
        directory = self.make_dir()
        target = self.write_file(directory, "target.py")
        link = os.path.join(directory, "link.py")
        os.symlink(target, link)
        self.assertEqual(self.mgr._GetAbsnameForCanonical(link), link)


class Identity(ManagerCase):
    """The identity of a file on disk, and the names that were not found there a moment ago."""

    def test_a_file_is_identified_by_device_and_number(self):
        result = os.stat(__file__)
        identity = self.mgr._GetUniqueFileno(__file__)
        self.assertEqual(identity, (result.st_dev, result.st_ino))
        self.assertIs(type(identity), tuple)

    def test_a_found_name_never_enters_the_not_found_cache(self):
        self.use_disk({"/a.py": (1, 2)})
        self.assertEqual(self.mgr._GetUniqueFileno("/a.py"), (1, 2))
        self.assertEqual(self.mgr.fNotFoundCache, {})

    def test_a_found_name_is_looked_for_on_disk_each_time(self):
        disk = self.use_disk({"/a.py": (1, 2)})
        for _ in range(3):
            self.mgr._GetUniqueFileno("/a.py")
        self.assertEqual(disk.asked, ["/a.py"] * 3)

    def test_a_missing_name_enters_the_cache_with_the_time_before_the_stat(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()

        def time_passes():
            clock.now += 5

        disk.on_stat = time_passes
        self.assertIsNone(self.mgr._GetUniqueFileno("/no.py"))
        self.assertEqual(self.mgr.fNotFoundCache, {"/no.py": 1000.0})
        self.assertEqual(clock.reads, 1)

    def test_a_second_question_within_3_seconds_makes_no_stat_call(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        for now in (1000.0, 1001.0, 1002.999):
            clock.now = now
            self.assertIsNone(self.mgr._GetUniqueFileno("/no.py"))
        self.assertEqual(disk.asked, ["/no.py"])
        self.assertEqual(self.mgr.fNotFoundCache, {"/no.py": 1000.0})

    def test_after_3_seconds_the_disk_is_asked_again_and_the_time_renewed(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        self.mgr._GetUniqueFileno("/no.py")
        clock.now = 1003.0
        self.assertIsNone(self.mgr._GetUniqueFileno("/no.py"))
        self.assertEqual(disk.asked, ["/no.py", "/no.py"])
        self.assertEqual(self.mgr.fNotFoundCache, {"/no.py": 1003.0})

    def test_an_expired_entry_is_removed_before_the_disk_is_asked(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        self.mgr._GetUniqueFileno("/no.py")
        clock.now = 1003.0
        seen = []
        disk.on_stat = lambda: seen.append(dict(self.mgr.fNotFoundCache))
        self.mgr._GetUniqueFileno("/no.py")
        self.assertEqual(seen, [{}])

    def test_a_file_that_appears_is_found_once_its_entry_has_expired(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        self.mgr._GetUniqueFileno("/late.py")
        disk.files["/late.py"] = (1, 2)
        clock.now = 1002.0
        self.assertIsNone(self.mgr._GetUniqueFileno("/late.py"))
        clock.now = 1003.5
        self.assertEqual(self.mgr._GetUniqueFileno("/late.py"), (1, 2))
        self.assertEqual(self.mgr.fNotFoundCache, {})

    def test_an_entry_made_at_time_0_counts(self):
        self.use_clock(1.0)
        disk = self.use_disk()
        self.mgr.fNotFoundCache["/no.py"] = 0.0
        self.assertIsNone(self.mgr._GetUniqueFileno("/no.py"))
        self.assertEqual(disk.asked, [])

    def test_an_entry_of_none_is_no_entry(self):
        disk = self.use_disk({"/a.py": (1, 2)})
        self.mgr.fNotFoundCache["/a.py"] = None
        self.assertEqual(self.mgr._GetUniqueFileno("/a.py"), (1, 2))
        self.assertEqual(disk.asked, ["/a.py"])

    def test_other_names_keep_their_entries(self):
        clock, _disk = self.use_clock(1000.0), self.use_disk()
        for name in ("/a.py", "/b.py"):
            self.mgr._GetUniqueFileno(name)
        clock.now = 2000.0
        self.mgr._GetUniqueFileno("/a.py")
        self.assertEqual(self.mgr.fNotFoundCache, {"/a.py": 2000.0, "/b.py": 1000.0})

    def test_the_cache_has_no_size_limit(self):
        self.use_clock(1000.0)
        self.use_disk()
        for index in range(5000):
            self.mgr.Lookup(f"/no/{index}.py")
        self.assertEqual(len(self.mgr.fNotFoundCache), 5000)

    def test_an_exception_of_the_clock_propagates(self):
        self.patch(time, "monotonic", Recorder(error=NastyError()))
        disk = self.use_disk()
        for call in (self.mgr._GetUniqueFileno, self.mgr.Lookup, self.mgr.Register, self.mgr.Get):
            with self.subTest(call):
                self.assertRaises(NastyError, call, "/a.py")
        self.assertEqual(disk.asked, [])

    def test_a_foreign_time_in_the_cache_fails_with_its_own_error(self):
        self.mgr.fNotFoundCache["/a.py"] = "yesterday"
        self.assertRaises(TypeError, self.mgr._GetUniqueFileno, "/a.py")

    def test_a_stat_result_without_identity_fails_with_its_attribute_error(self):
        with mock.patch.object(os, "stat", Recorder(result=5)), self.assertRaises(AttributeError) as caught:
            self.mgr._GetUniqueFileno("/a.py")
        self.assertEqual(str(caught.exception), "'int' object has no attribute 'st_dev'")


class Lookup(ManagerCase):

    def test_an_unknown_name_is_none(self):
        self.assertIsNone(self.mgr.Lookup("/no/such/file.py"))

    def test_a_second_lookup_within_the_ttl_makes_no_stat_call(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        self.assertIsNone(self.mgr.Lookup("/no/such/file.py"))
        clock.now = 1002.9
        self.assertIsNone(self.mgr.Lookup("/no/such/file.py"))
        self.assertEqual(disk.asked, ["/no/such/file.py"])

    def test_a_lookup_after_the_ttl_pops_the_entry_and_stats_again(self):
        clock, disk = self.use_clock(1000.0), self.use_disk()
        self.mgr.Lookup("/no/such/file.py")
        clock.now = 1003.0
        self.assertIsNone(self.mgr.Lookup("/no/such/file.py"))
        self.assertEqual(disk.asked, ["/no/such/file.py"] * 2)
        self.assertEqual(self.mgr.fNotFoundCache, {"/no/such/file.py": 1003.0})

    def test_a_pseudo_name_is_none_and_a_frozen_or_shell_name_itself(self):
        disk = self.use_disk()
        for name, wanted in (("", None), (PSEUDO, None), ("<string>", None), (FROZEN, FROZEN),
                             (SHELL, SHELL)):
            with self.subTest(name):
                self.assertIs(self.mgr.Lookup(name, "sum"), wanted)
        self.assertEqual(disk.asked, [])

    def test_a_name_known_by_its_absolute_name_is_found_without_a_system_call(self):
        self.mgr.Register("/a.py")
        clock, disk = self.use_clock(), self.use_disk()
        abspath = self.patch(os.path, "abspath", Recorder())
        self.assertEqual(self.mgr.Lookup("/a.py"), "/a.py")
        self.assertEqual(self.mgr.Lookup("/a.pyc"), "/a.py")
        self.assertEqual((clock.reads, disk.asked, abspath.calls), (0, [], []))

    def test_the_value_found_by_name_is_returned_as_it_is_stored(self):
        stored = "".join(["/stored", "/elsewhere.py"])
        self.mgr.fByName["/a.py"] = stored
        self.assertIs(self.mgr.Lookup("/a.py"), stored)

    def test_another_name_of_a_known_file_is_found_by_identity_and_not_added(self):
        self.use_disk({"/a.py": (1, 2), "/link.py": (1, 2)})
        self.mgr.Register("/a.py")
        before = self.indexes()
        self.assertEqual(self.mgr.Lookup("/link.py"), "/a.py")
        self.assertEqual(self.indexes(), before)

    def test_a_known_checksum_is_found_when_neither_name_nor_identity_are(self):
        self.use_disk({"/a.py": (1, 2), "/copy.py": (3, 4)})
        self.mgr.Register("/a.py", "sum")
        self.assertEqual(self.mgr.Lookup("/copy.py", "sum"), "/a.py")
        self.assertEqual(self.mgr.Lookup("/missing.py", "sum"), "/a.py")
        self.assertIsNone(self.mgr.Lookup("/copy.py", "other"))

    def test_without_a_checksum_the_checksum_index_is_not_asked(self):
        self.mgr.fByChecksum.update({"": "/empty.py", None: "/none.py"})
        self.assertIsNone(self.mgr.Lookup("/no.py"))
        self.assertIsNone(self.mgr.Lookup("/no.py", None))
        self.assertIsNone(self.mgr.Lookup("/no.py", ""))

    def test_identity_goes_before_checksum(self):
        self.use_disk({"/a.py": (1, 2), "/b.py": (3, 4), "/link_to_a.py": (1, 2)})
        self.mgr.Register("/a.py", "sum a")
        self.mgr.Register("/b.py", "sum b")
        self.assertEqual(self.mgr.Lookup("/link_to_a.py", "sum b"), "/a.py")

    def test_a_lookup_writes_to_no_index(self):
        self.use_disk({"/a.py": (1, 2)})
        for name in ("/a.py", "/no.py", "rel.py", FROZEN, PSEUDO, SHELL):
            self.mgr.Lookup(name, "sum")
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_a_compiled_name_finds_its_source(self):
        self.mgr.Register("/m.py")
        for name in ("/m.pyc", "/m.pyo"):
            self.assertEqual(self.mgr.Lookup(name), "/m.py")

    def test_the_arguments_have_names(self):
        self.mgr.fByChecksum["sum"] = "/a.py"
        self.assertEqual(self.mgr.Lookup(checksum="sum", pathname="/b.py"), "/a.py")


class Register(ManagerCase):

    def test_a_new_name_becomes_canonical_by_itself(self):
        self.use_disk({"/a.py": (1, 2)})
        self.assertEqual(self.mgr.Register("/a.py"), "/a.py")
        self.assertEqual(self.indexes(), ({"/a.py": "/a.py"}, {(1, 2): "/a.py"}, {}))

    def test_a_name_that_is_not_on_disk_becomes_canonical_by_itself(self):
        self.use_disk()
        self.assertEqual(self.mgr.Register("/gone.py"), "/gone.py")
        self.assertEqual(self.indexes(), ({"/gone.py": "/gone.py"}, {}, {}))

    def test_a_link_gets_the_canonical_pathname_of_its_file_and_both_names_are_kept(self):
        directory = self.make_dir()
        original = self.write_file(directory, "a.py")
        for name, make in (("symbolic.py", os.symlink), ("hard.py", os.link)):
            with self.subTest(name):
                link = os.path.join(directory, name)
                make(original, link)
                self.assertEqual(self.mgr.Register(original), original)
                self.assertEqual(self.mgr.Register(link), original)
                self.assertEqual((self.mgr.fByName[original], self.mgr.fByName[link]), (original, original))

    def test_the_first_name_registered_is_the_canonical_one_even_if_it_is_the_link(self):
        directory = self.make_dir()
        original = self.write_file(directory, "a.py")
        link = os.path.join(directory, "link.py")
        os.symlink(original, link)
        self.assertEqual(self.mgr.Register(link), link)
        self.assertEqual(self.mgr.Register(original), link)

    def test_a_relative_name_is_the_file_that_it_leads_to(self):
        directory = self.make_dir()
        original = self.write_file(directory, "a.py")
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory)
        self.assertEqual(self.mgr.Register("a.py"), original)
        self.assertEqual(self.mgr.Register("./x/../a.py"), original)
        self.assertEqual(self.mgr.fByName, {original: original})

    def test_another_spelling_of_an_absolute_name_is_found_by_identity(self):
        directory = self.make_dir()
        original = self.write_file(directory, "a.py")
        spelled = os.path.join(directory, ".", "a.py")
        self.assertEqual(self.mgr.Register(original), original)
        self.assertEqual(self.mgr.Register(spelled), original)
        self.assertEqual(self.mgr.fByName, {original: original, spelled: original})

    def test_a_copy_with_the_same_checksum_gets_the_canonical_pathname_of_the_first(self):
        self.use_disk({"/y/orig.py": (1, 1), "/x/copy.py": (1, 2)})
        self.assertEqual(self.mgr.Register("/y/orig.py", "abc"), "/y/orig.py")
        self.assertEqual(self.mgr.Register("/x/copy.py", "abc"), "/y/orig.py")
        self.assertEqual(self.indexes(), (
            {"/y/orig.py": "/y/orig.py", "/x/copy.py": "/y/orig.py"},
            {(1, 1): "/y/orig.py", (1, 2): "/y/orig.py"},
            {"abc": "/y/orig.py"}))

    def test_two_real_files_with_the_same_checksum_are_one_file_to_the_debugger(self):
        directory = self.make_dir()
        original, copy = (self.write_file(directory, name, text="same") for name in ("a.py", "b.py"))
        self.assertEqual(self.mgr.Register(original, "abc"), original)
        self.assertEqual(self.mgr.Register(copy, "abc"), original)

    def test_an_empty_checksum_is_ignored(self):
        self.mgr.fByChecksum[""] = "/other.py"
        self.assertEqual(self.mgr.Register("/tmp/a.py", ""), "/tmp/a.py")
        self.assertEqual(self.mgr.fByChecksum, {"": "/other.py"})

    def test_identity_goes_before_checksum_and_the_checksum_stays_with_its_first_file(self):
        self.use_disk({"/a.py": (1, 2), "/link.py": (1, 2), "/b.py": (3, 4)})
        self.mgr.Register("/a.py")
        self.mgr.Register("/b.py", "sum b")
        self.assertEqual(self.mgr.Register("/link.py", "sum b"), "/a.py")
        self.assertEqual(self.mgr.fByChecksum, {"sum b": "/b.py"})
        self.assertEqual(self.mgr.Register("/c.py", "sum c"), "/c.py")
        self.assertEqual(self.mgr.fByChecksum, {"sum b": "/b.py", "sum c": "/c.py"})

    def test_the_first_canonical_pathname_of_an_identity_or_a_checksum_is_never_replaced(self):
        disk = self.use_disk({"/a.py": (1, 2)})
        self.mgr.Register("/a.py", "sum")
        disk.files["/b.py"] = (1, 2)
        disk.files["/c.py"] = (5, 6)
        self.mgr.Register("/b.py", "sum")
        self.mgr.Register("/c.py", "sum")
        self.assertEqual(self.mgr.fByUniqueFileno[(1, 2)], "/a.py")
        self.assertEqual(self.mgr.fByChecksum["sum"], "/a.py")

    def test_a_known_name_returns_at_once_and_touches_no_other_index(self):
        self.use_disk({"/a.py": (1, 2)})
        self.mgr.Register("/a.py")
        before = self.indexes()
        clock, disk = self.use_clock(), self.use_disk({"/a.py": (9, 9)})
        self.assertEqual(self.mgr.Register("/a.py", "new sum"), "/a.py")
        self.assertEqual(self.indexes(), before)
        self.assertEqual((clock.reads, disk.asked), (0, []))

    def test_a_pseudo_name_is_none_and_stores_nothing(self):
        for name in ("<stdin>", "", "<string>"):
            self.assertIsNone(self.mgr.Register(name, "sum"))
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_a_frozen_or_shell_name_is_its_own_and_stores_nothing(self):
        for name in (FROZEN, SHELL):
            self.assertIs(self.mgr.Register(name, "sum"), name)
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_a_given_kind_is_trusted(self):
        disk = self.use_disk({"/a.py": (1, 2), PSEUDO: (3, 4)})
        for name in ("/a.py", FROZEN, ""):
            self.assertIsNone(self.mgr.Register(name, "sum", kind=xo.kPseudoPathname))
            for kind in (xo.kFrozenImportLibPathname, xo.kVornShellPathname, 1, 2, -1, 99):
                self.assertIs(self.mgr.Register(name, "sum", kind=kind), name)
        self.assertEqual((self.indexes(), disk.asked), (({}, {}, {}), []))

    def test_a_regular_kind_given_for_a_bracketed_name_has_it_registered(self):
        directory = self.make_dir()
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(directory)
        wanted = os.path.join(directory, "<string>")
        self.assertEqual(self.mgr.Register("<string>", None, xo.kRegularPathname), wanted)
        self.assertEqual(self.mgr.fByName, {wanted: wanted})

    def test_a_name_missing_on_disk_stays_in_the_cache_of_missing_names(self):
        self.use_clock(1000.0)
        self.use_disk()
        self.mgr.Register("/gone.py")
        self.assertEqual(self.mgr.fNotFoundCache, {"/gone.py": 1000.0})

    def test_a_name_missing_a_moment_ago_is_registered_without_a_stat_call(self):
        self.use_clock(1000.0)
        disk = self.use_disk()
        self.mgr.Lookup("/gone.py")
        disk.files["/gone.py"] = (1, 2)
        self.assertEqual(self.mgr.Register("/gone.py"), "/gone.py")
        self.assertEqual((disk.asked, self.mgr.fByUniqueFileno), (["/gone.py"], {}))

    def test_a_compiled_name_is_registered_under_its_source(self):
        self.use_disk()
        self.assertEqual(self.mgr.Register("/m.pyc"), "/m.py")
        self.assertEqual(self.mgr.fByName, {"/m.py": "/m.py"})

    def test_the_arguments_have_names(self):
        self.assertEqual(self.mgr.Register(kind=0, checksum="sum", pathname="/a.py"), "/a.py")
        self.assertEqual(self.mgr.fByChecksum, {"sum": "/a.py"})

    def test_a_failure_in_the_checksum_index_leaves_the_earlier_steps_in_place(self):
        class FailsLater(str):
            hashes = 0

            def __hash__(self):
                type(self).hashes += 1
                if self.hashes > 1:  # found missing first, then to be stored
                    raise NastyError
                return str.__hash__(self)

        self.use_disk({"/a.py": (1, 2)})
        self.assertRaises(NastyError, self.mgr.Register, "/a.py", FailsLater("sum"))
        self.assertEqual(self.indexes(), ({"/a.py": "/a.py"}, {(1, 2): "/a.py"}, {}))

    def test_a_failure_while_the_checksum_is_looked_up_stores_nothing(self):
        class Fails(str):
            def __hash__(self):
                raise NastyError

        self.use_disk({"/a.py": (1, 2)})
        self.assertRaises(NastyError, self.mgr.Register, "/a.py", Fails("sum"))
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_an_unhashable_identity_fails_before_anything_is_stored(self):
        self.use_disk({"/a.py": ([], 2)})
        self.assertRaises(TypeError, self.mgr.Register, "/a.py", "sum")
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_of_two_registrations_at_once_the_first_to_store_wins_and_each_returns_what_it_decided(self):
        outer = self

        class MeetsAnother(str):
            met = False

            def __hash__(self):
                if not type(self).met:
                    type(self).met = True
                    outer.assertEqual(outer.mgr.Register("/other.py"), "/other.py")
                return str.__hash__(self)

        self.use_disk({"/late.py": (1, 2), "/other.py": (1, 2)})
        self.assertEqual(self.mgr.Register("/late.py", MeetsAnother("sum")), "/late.py")
        self.assertEqual(self.mgr.fByName, {"/other.py": "/other.py", "/late.py": "/late.py"})
        self.assertEqual(self.mgr.fByUniqueFileno, {(1, 2): "/other.py"})
        self.assertEqual(self.mgr.fByChecksum, {"sum": "/late.py"})

    def test_a_reset_in_the_middle_of_a_registration_does_no_harm(self):
        disk = self.use_disk({"/a.py": (1, 2)})
        disk.on_stat = self.mgr.Reset
        self.assertEqual(self.mgr.Register("/a.py", "sum"), "/a.py")
        disk.on_stat = lambda: self.mgr.__init__()
        self.assertEqual(self.mgr.Register("/b.py", "sum"), "/b.py")
        self.mgr.Reset()
        self.assertEqual(self.indexes(), ({}, {}, {}))


class Get(ManagerCase):

    def test_a_pseudo_name_is_none_and_a_frozen_or_shell_name_itself(self):
        for name in ("", PSEUDO):
            self.assertIsNone(self.mgr.Get(name, "sum"))
        for name in (FROZEN, SHELL):
            self.assertIs(self.mgr.Get(name, "sum"), name)
        self.assertEqual(self.indexes(), ({}, {}, {}))

    def test_an_unknown_name_is_registered(self):
        self.use_disk({"/a.py": (1, 2)})
        self.assertEqual(self.mgr.Get("/a.py", "sum"), "/a.py")
        self.assertEqual(self.indexes(), ({"/a.py": "/a.py"}, {(1, 2): "/a.py"}, {"sum": "/a.py"}))

    def test_what_a_lookup_finds_by_identity_is_returned_and_not_added(self):
        self.use_disk({"/a.py": (1, 2), "/link.py": (1, 2)})
        self.mgr.Register("/a.py")
        before = self.indexes()
        self.assertEqual(self.mgr.Get("/link.py", "sum"), "/a.py")
        self.assertEqual(self.indexes(), before)

    def test_what_a_lookup_finds_by_checksum_is_returned_and_not_added(self):
        self.use_disk({"/a.py": (1, 2), "/copy.py": (3, 4)})
        self.mgr.Register("/a.py", "sum")
        before = self.indexes()
        self.assertEqual(self.mgr.Get("/copy.py", "sum"), "/a.py")
        self.assertEqual(self.indexes(), before)

    def test_a_known_name_is_found_without_a_system_call(self):
        self.mgr.Register("/a.py")
        clock, disk = self.use_clock(), self.use_disk()
        self.assertEqual(self.mgr.Get("/a.py"), "/a.py")
        self.assertEqual((clock.reads, disk.asked), (0, []))

    def test_a_name_missing_on_disk_costs_one_stat_call_in_all(self):
        self.use_clock()
        disk = self.use_disk()
        self.assertEqual(self.mgr.Get("/gone.py"), "/gone.py")
        self.assertEqual(disk.asked, ["/gone.py"])

    def test_the_arguments_have_names(self):
        self.assertEqual(self.mgr.Get(checksum="sum", pathname="/a.py"), "/a.py")
        self.assertEqual(self.mgr.fByChecksum, {"sum": "/a.py"})


class Types(ManagerCase):

    def test_a_pathname_that_is_no_string_is_a_type_error(self):
        for name, parameters in interface.CLASSES["_CCanonicalPathnameMgr"].methods.items():
            if parameters and parameters[0] in ("pathname", "abs_pathname"):
                for value in (None, b"/x", 5, os):
                    with self.subTest(name, value=value):
                        self.assert_raises_text(TypeError, f"expected str, got {repr(value)[:200]}",
                                                getattr(self.mgr, name), value)

    def test_a_checksum_that_is_neither_string_nor_none_is_a_type_error(self):
        for name in ("Lookup", "Register", "Get"):
            for value in (5, b"sum", False, ["sum"]):
                with self.subTest(name, value=value):
                    self.assert_raises_text(TypeError, f"expected str | None, got {value!r}",
                                            getattr(self.mgr, name), "/a.py", value)

    def test_a_kind_that_is_neither_integer_nor_none_is_a_type_error(self):
        for value in ("0", 0.0, b"", []):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected int | None, got {value!r}",
                                        self.mgr.Register, "/a.py", None, value)

    def test_the_types_are_checked_even_where_the_value_would_not_be_used(self):
        self.assert_raises_text(TypeError, "expected str | None, got 5", self.mgr.Lookup, PSEUDO, 5)
        self.assert_raises_text(TypeError, "expected str | None, got 5", self.mgr.Get, FROZEN, 5)

    def test_string_subclasses_are_taken(self):
        class Text(str):
            pass

        self.assertEqual(self.mgr.Register(Text("/a.py"), Text("sum")), "/a.py")
        self.assertEqual(self.mgr.Lookup("/b.py", "sum"), "/a.py")


class DirectCalls(XoTestCase):

    def test_overriding_a_method_in_a_subclass_does_not_change_what_the_others_do(self):
        def overridden(self, *_args):
            raise NastyError

        names = ("_AbsPath", "_Stat", "_PrunePycPyo", "_GetWindowsLongPathName", "_IsObviousAbsPathname",
                 "_GetAbsnameForCanonical", "_GetUniqueFileno")
        for with_lookup in (names, (*names, "Lookup", "Register")):
            sub = type("Sub", (xo._CCanonicalPathnameMgr,), {name: overridden for name in with_lookup})
            mgr = sub()
            self.assertRaises(NastyError, mgr._Stat, "/a.py")
            if "Lookup" not in with_lookup:
                self.assertEqual(mgr.Register("/a.pyc", "sum"), "/a.py")
                self.assertEqual(mgr.Lookup("/a.py"), "/a.py")
            self.assertEqual(mgr.Get("/b.pyc"), "/b.py")
            self.assertEqual(mgr.Get("rel.py"), os.path.abspath("rel.py"))


class Threads(XoTestCase):

    def test_eight_threads_that_register_the_same_files_agree_on_each_of_them(self):
        directory = self.make_dir()
        links = []
        for index in range(40):
            original = self.write_file(directory, f"file{index}.py")
            links.append([original])
            for number in range(7):
                links[-1].append(os.path.join(directory, f"link{index}_{number}.py"))
                os.symlink(original, links[-1][-1])
        mgr = xo._CCanonicalPathnameMgr()
        barrier = threading.Barrier(8)
        problems = []

        def register(first):
            barrier.wait()
            try:
                for names in links:
                    for name in names[first:] + names[:first]:
                        if mgr.Register(name) not in names:
                            problems.append(name)
            except BaseException as error:
                problems.append(error)

        threads = [threading.Thread(target=register, args=(first,)) for first in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(problems, [])
        self.assertEqual(len(mgr.fByUniqueFileno), 40)
        self.assertEqual(len(mgr.fByName), 320)
        for names in links:
            settled = mgr.fByUniqueFileno[mgr._GetUniqueFileno(names[0])]
            self.assertIn(settled, names)
            self.assertEqual(mgr.fByName[settled], settled)

    def test_a_manager_can_be_reset_while_other_threads_use_it(self):
        mgr = xo._CCanonicalPathnameMgr()
        barrier = threading.Barrier(5)
        problems = []

        def use():
            barrier.wait()
            try:
                for index in range(3000):
                    name = f"/no/such/{index % 50}.py"
                    if mgr.Get(name, "sum" if index % 3 else None) is None:
                        problems.append(name)
            except BaseException as error:
                problems.append(error)

        threads = [threading.Thread(target=use) for _ in range(4)]
        for thread in threads:
            thread.start()
        barrier.wait()
        for _ in range(1000):
            mgr.Reset()
        for thread in threads:
            thread.join()
        self.assertEqual(problems, [])


if __name__ == "__main__":
    unittest.main()
