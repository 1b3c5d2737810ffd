"""Records per file: finding and making them, their checksum groups, what is told and logged about them."""

import sys
import threading
import unittest
import weakref

from support import NastyError, Recorder, RecordingWriter, XoTestCase, raising, run_python, xo

CPerFile = xo.CPerFile


class PerFileTestCase(XoTestCase):
    """Adds a checksum callback that answers from a dictionary of the test."""

    def setUp(self):
        super().setUp()
        self.checksums = {}
        self.asked = []

    def use_checksums(self, **by_stem):
        """Lets the checksum of '/NAME.py' be the value given for NAME, and None for every other pathname."""
        self.checksums.update((f"/{stem}.py", checksum) for stem, checksum in by_stem.items())
        xo.set_checksum_callback(self._answer_checksum)

    def _answer_checksum(self, pathname):
        self.asked.append(pathname)
        return self.checksums.get(pathname)


class FindingTest(PerFileTestCase):

    def test_without_create_an_unknown_file_is_none_and_nothing_is_made(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        self.assertIsNone(CPerFile.GetPerFile("/a.py", False))
        self.assertEqual(CPerFile._fPerFileDict, {})
        self.assertEqual(created.calls, [])

    def test_what_making_a_record_gave_is_looked_at(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            xo.CPerFile.SetNewPerFileCreatedCallback(print)
            xo.CPerFile.__new__ = lambda cls, pathname: 5
            try:
                xo.CPerFile.GetPerFile("/a.py")
            except TypeError as error:
                assert str(error) == "expected CPerFile | None, got 5", error
            else:
                raise AssertionError("a record that is none was handed out")
            assert xo.CPerFile._fPerFileDict == {}, xo.CPerFile._fPerFileDict
        """)

    def test_the_first_request_makes_the_record_and_announces_it_once(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        record = CPerFile.GetPerFile("/a.py")
        self.assertIs(type(record), CPerFile)
        self.assertEqual(len(created.calls), 1)
        (announced,) = created.calls[0]
        self.assertIs(announced, record)

    def test_a_second_request_returns_the_same_record_without_a_callback(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        record = CPerFile.GetPerFile("/a.py")
        self.assertIs(CPerFile.GetPerFile("/a.py"), record)
        self.assertIs(CPerFile.GetPerFile("/a.py", False), record)
        self.assertEqual(len(created.calls), 1)

    def test_a_found_record_asks_for_no_checksum(self):
        self.use_checksums(a="abc")
        CPerFile.GetPerFile("/a.py")
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(self.asked, ["/a.py"])

    def test_the_record_is_stored_under_the_pathname_it_was_asked_for(self):
        record = CPerFile.GetPerFile("rel/../a.py")
        self.assertEqual(CPerFile._fPerFileDict, {"rel/../a.py": record})
        self.assertEqual(record.fCanonicalPathname, "rel/../a.py")

    def test_any_hashable_object_can_be_the_pathname(self):
        for pathname in (None, 5, ("a", 1), b"/a.py"):
            with self.subTest(pathname=pathname):
                record = CPerFile.GetPerFile(pathname)
                self.assertIs(record.fCanonicalPathname, pathname)
                self.assertIs(CPerFile.GetPerFile(pathname, False), record)

    def test_a_pathname_of_none_is_handed_to_the_checksum_callback_unchecked(self):
        callback = Recorder(result="abc")
        xo.set_checksum_callback(callback)
        record = CPerFile.GetPerFile(None)
        self.assertEqual(callback.calls, [(None,)])
        self.assertEqual(CPerFile._fByChecksum, {"abc": {record}})

    def test_an_unhashable_pathname_fails_with_the_error_of_the_dictionary(self):
        for create in (True, False):
            with self.subTest(create=create):
                with self.assertRaisesRegex(TypeError, "unhashable type: 'list'"):
                    CPerFile.GetPerFile([], create)
        self.assertEqual(CPerFile._fPerFileDict, {})

    def test_a_hash_that_raises_propagates(self):
        with self.assertRaises(NastyError):
            CPerFile.GetPerFile(raising("__hash__"))

    def test_arguments_can_be_given_by_name(self):
        self.assertIsNone(CPerFile.GetPerFile(create=False, pathname="/a.py"))
        record = CPerFile.GetPerFile(create=True, pathname="/a.py")
        self.assertIs(CPerFile.GetPerFile("/a.py", create=False), record)

    def test_create_must_be_a_bool(self):
        self.assert_raises_text(TypeError, "expected bool, got 1", CPerFile.GetPerFile, "/a.py", 1)
        self.assert_raises_text(TypeError, "expected bool, got None", CPerFile.GetPerFile, "/a.py", None)
        self.assertEqual(CPerFile._fPerFileDict, {})

    def test_wrong_argument_lists_are_refused(self):
        self.assert_raises_text(TypeError, "argument is missing", CPerFile.GetPerFile)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                CPerFile.GetPerFile, "/a.py", True, None)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                CPerFile.GetPerFile, "/a.py", other=1)
        self.assert_raises_text(TypeError, "argument has both a positional value and a keyword value",
                                CPerFile.GetPerFile, "/a.py", pathname="/b.py")

    def test_a_foreign_value_in_the_registry_is_refused(self):
        CPerFile._fPerFileDict["/a.py"] = 5
        self.assert_raises_text(TypeError, "expected CPerFile | None, got 5", CPerFile.GetPerFile, "/a.py")
        self.assert_raises_text(TypeError, "expected CPerFile | None, got 5",
                                CPerFile.GetPerFile, "/a.py", False)

    def test_a_none_in_the_registry_counts_as_no_record(self):
        CPerFile._fPerFileDict["/a.py"] = None
        self.assertIsNone(CPerFile.GetPerFile("/a.py", False))
        record = CPerFile.GetPerFile("/a.py")
        self.assertIs(CPerFile._fPerFileDict["/a.py"], record)

    def test_a_registry_replaced_by_the_checksum_callback_is_the_one_that_gets_the_record(self):
        replacement = {}

        def replace(pathname):
            CPerFile._fPerFileDict = replacement

        before = CPerFile._fPerFileDict
        self.addCleanup(setattr, CPerFile, "_fPerFileDict", before)
        xo.set_checksum_callback(replace)
        record = CPerFile.GetPerFile("/a.py")
        self.assertEqual((before, replacement), ({}, {"/a.py": record}))

    def test_the_list_of_an_empty_registry_is_empty(self):
        self.assertEqual(CPerFile.GetAllPerFiles(), [])

    def test_the_list_of_all_records_is_a_snapshot(self):
        first = CPerFile.GetPerFile("/a.py")
        records = CPerFile.GetAllPerFiles()
        second = CPerFile.GetPerFile("/b.py")
        self.assertEqual(records, [first])
        self.assertIs(type(records), list)
        records.clear()
        self.assertEqual(CPerFile.GetAllPerFiles(), [first, second])


class RecordTest(PerFileTestCase):

    def test_a_new_record_has_empty_collections_and_no_checksum(self):
        record = CPerFile.GetPerFile("/a.py")
        self.assertEqual(record.fCanonicalPathname, "/a.py")
        self.assertEqual((type(record.fBpSetByLineno), record.fBpSetByLineno), (dict, {}))
        self.assertEqual((type(record.fKnownPerCodeObjects), record.fKnownPerCodeObjects), (set, set()))
        self.assertIsNone(record.fChecksum)

    def test_no_two_records_share_a_collection(self):
        first, second = CPerFile.GetPerFile("/a.py"), CPerFile.GetPerFile("/b.py")
        self.assertIsNot(first.fBpSetByLineno, second.fBpSetByLineno)
        self.assertIsNot(first.fKnownPerCodeObjects, second.fKnownPerCodeObjects)

    def test_a_record_made_directly_is_not_registered_and_not_announced(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        CPerFile("/a.py")
        self.assertEqual(CPerFile._fPerFileDict, {})
        self.assertEqual(created.calls, [])

    def test_a_record_made_directly_joins_its_checksum_group(self):
        self.use_checksums(a="abc")
        record = CPerFile("/a.py")
        self.assertEqual(CPerFile._fByChecksum, {"abc": {record}})

    def test_the_constructor_needs_exactly_a_pathname(self):
        self.assertEqual(CPerFile(pathname="/a.py").fCanonicalPathname, "/a.py")
        self.assert_raises_text(TypeError, "argument is missing", CPerFile)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                CPerFile, "/a.py", 1)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                CPerFile, "/a.py", other=1)

    def test_the_fields_take_any_object(self):
        record = CPerFile.GetPerFile("/a.py")
        for name in ("fCanonicalPathname", "fBpSetByLineno", "fKnownPerCodeObjects", "fChecksum"):
            with self.subTest(field=name):
                value = object()
                setattr(record, name, value)
                self.assertIs(getattr(record, name), value)

    def test_no_field_can_be_deleted(self):
        record = CPerFile.GetPerFile("/a.py")
        for name in ("fCanonicalPathname", "fBpSetByLineno", "fKnownPerCodeObjects", "fChecksum"):
            with self.subTest(field=name):
                self.assert_raises_text(TypeError, "deletion not supported", delattr, record, name)
                getattr(record, name)

    def test_a_field_that_was_never_set_reads_as_attribute_error(self):
        record = CPerFile.__new__(CPerFile)
        for name in ("fCanonicalPathname", "fBpSetByLineno", "fKnownPerCodeObjects", "fChecksum"):
            with self.subTest(field=name):
                self.assert_raises_text(AttributeError, "Attribute error", getattr, record, name)

    def test_a_record_takes_no_other_attribute(self):
        record = CPerFile.GetPerFile("/a.py")
        with self.assertRaises(AttributeError):
            record.fOther = 1
        with self.assertRaises(AttributeError):
            record.fOther

    def test_a_method_called_on_another_object_is_refused(self):
        self.assert_raises_text(TypeError, "expected CPerFile, got 5", CPerFile.UpdateChecksum, 5)
        self.assert_raises_text(TypeError, "expected CPerFile, got 'x'",
                                CPerFile._UpdateByChecksum, "x", "abc")

    def test_a_record_can_be_weakly_referenced_and_dies_with_its_last_reference(self):
        record = CPerFile("/a.py")
        reference = weakref.ref(record)
        self.assertIs(reference(), record)
        del record
        self.assertIsNone(reference())

    def test_the_checksum_is_asked_for_after_the_collections_are_made(self):
        seen = []

        def callback(pathname):
            seen.append((record.fCanonicalPathname, record.fBpSetByLineno, record.fKnownPerCodeObjects))
            with self.assertRaisesRegex(AttributeError, "^Attribute error$"):
                record.fChecksum
            return "abc"

        xo.set_checksum_callback(callback)
        record = CPerFile.__new__(CPerFile)
        record.__init__("/a.py")
        self.assertEqual(seen, [("/a.py", {}, set())])
        self.assertEqual(record.fChecksum, "abc")

    def test_the_log_line_comes_after_the_checksum_and_before_the_group(self):
        seen = []

        class Watcher:
            def write(self, text):
                seen.append((text, record.fChecksum, dict(CPerFile._fByChecksum)))

        self.use_checksums(a="abc")
        xo.set_dprintf_file(Watcher(), 0, None)
        xo.set_dprintf_mask(xo.kLogCore)
        record = CPerFile.__new__(CPerFile)
        record.__init__("/a.py")
        self.assertEqual(seen, [("Creating CPerFile for /a.py; checksum = 'abc'\n", "abc", {})])
        self.assertEqual(CPerFile._fByChecksum, {"abc": {record}})


class LoggingTest(PerFileTestCase):

    def setUp(self):
        super().setUp()
        self.writer = RecordingWriter()
        xo.set_dprintf_file(self.writer, 0, None)

    def test_creation_without_a_checksum_writes_one_line(self):
        xo.set_dprintf_mask(xo.kLogCore)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(self.writer.texts, ["Creating CPerFile for /a.py; checksum = None\n"])

    def test_the_line_shows_the_repr_of_the_checksum_and_the_str_of_the_pathname(self):
        class Name:
            def __str__(self):
                return "shown"

            def __repr__(self):
                return "hidden"

        xo.set_checksum_callback(lambda pathname: "a'b")
        xo.set_dprintf_mask(xo.kLogCore)
        CPerFile.GetPerFile(Name())
        CPerFile.GetPerFile(None)
        self.assertEqual(self.writer.texts, ["Creating CPerFile for shown; checksum = \"a'b\"\n",
                                             "Creating CPerFile for None; checksum = \"a'b\"\n"])

    def test_finding_a_record_writes_nothing(self):
        CPerFile.GetPerFile("/a.py")
        xo.set_dprintf_mask(xo.kLogCore)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(self.writer.texts, [])

    def test_with_the_core_bit_clear_nothing_is_written_and_no_text_is_made(self):
        xo.set_dprintf_mask(~xo.kLogCore)
        CPerFile.GetPerFile(raising("__str__", "__repr__"))
        self.assertEqual(self.writer.texts, [])

    def test_with_no_file_no_text_is_made(self):
        xo.set_dprintf_file(None, 0, None)
        xo.set_dprintf_mask(xo.kLogCore)
        CPerFile.GetPerFile(raising("__str__", "__repr__"))
        self.assertEqual(self.writer.texts, [])

    def test_a_write_that_raises_leaves_no_record_behind(self):
        self.use_checksums(a="abc")
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        self.writer.error = OSError("disk full")
        xo.set_dprintf_mask(xo.kLogCore)
        self.assert_raises_text(OSError, "disk full", CPerFile.GetPerFile, "/a.py")
        self.assertEqual((CPerFile._fPerFileDict, CPerFile._fByChecksum, created.calls), ({}, {}, []))

    def test_a_pathname_whose_str_raises_leaves_no_record_behind(self):
        xo.set_dprintf_mask(xo.kLogCore)
        with self.assertRaises(NastyError):
            CPerFile.GetPerFile(raising("__str__"))
        self.assertEqual((CPerFile._fPerFileDict, self.writer.texts), ({}, []))


class CallbackTest(PerFileTestCase):

    def test_the_record_is_already_registered_when_it_is_announced(self):
        seen = []
        CPerFile.SetNewPerFileCreatedCallback(
            lambda record: seen.append(CPerFile.GetPerFile("/a.py") is record))
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(seen, [True])

    def test_the_callback_gives_nothing_back(self):
        CPerFile.SetNewPerFileCreatedCallback(Recorder(result="ignored"))
        self.assertIs(type(CPerFile.GetPerFile("/a.py")), CPerFile)

    def test_the_callback_runs_directly_and_leaves_the_tracing_level_alone(self):
        enter = self.patch(xo.dbgpythonapi, "PyThreadState_EnterTracing", Recorder())
        leave = self.patch(xo.dbgpythonapi, "PyThreadState_LeaveTracing", Recorder())
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual((len(created.calls), enter.calls, leave.calls), (1, [], []))

    def test_none_switches_the_notification_off(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        CPerFile.SetNewPerFileCreatedCallback(None)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(created.calls, [])
        self.assertIsNone(CPerFile._fNewPerFileCreatedCallback)

    def test_setting_the_callback_returns_none_and_takes_any_object(self):
        self.assertIsNone(CPerFile.SetNewPerFileCreatedCallback(5))
        self.assertEqual(CPerFile._fNewPerFileCreatedCallback, 5)
        self.assert_raises_text(TypeError, "'int' object is not callable", CPerFile.GetPerFile, "/a.py")

    def test_the_callback_can_be_assigned_to_the_class(self):
        created = Recorder()
        CPerFile._fNewPerFileCreatedCallback = created
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(len(created.calls), 1)

    def test_a_callback_that_raises_leaves_the_record_stored_and_it_is_not_announced_again(self):
        created = Recorder(error=NastyError("no"))
        CPerFile.SetNewPerFileCreatedCallback(created)
        self.assert_raises_text(NastyError, "no", CPerFile.GetPerFile, "/a.py")
        (stored,) = created.calls[0]
        self.assertIs(CPerFile.GetPerFile("/a.py"), stored)
        self.assertEqual(len(created.calls), 1)

    def test_a_checksum_callback_that_raises_leaves_nothing_stored_and_nothing_announced(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        xo.set_checksum_callback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", CPerFile.GetPerFile, "/a.py")
        self.assertEqual((CPerFile._fPerFileDict, CPerFile._fByChecksum, created.calls), ({}, {}, []))
        xo.set_checksum_callback(None)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(len(created.calls), 1)

    def test_the_callback_may_ask_for_another_file(self):
        def callback(record):
            if record.fCanonicalPathname == "/a.py":
                CPerFile.GetPerFile("/b.py")

        CPerFile.SetNewPerFileCreatedCallback(callback)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(list(CPerFile._fPerFileDict), ["/a.py", "/b.py"])

    def test_of_two_threads_that_make_the_same_record_the_later_store_wins_and_both_are_announced(self):
        created = Recorder()
        CPerFile.SetNewPerFileCreatedCallback(created)
        inner = []

        def callback(pathname):
            xo.set_checksum_callback(None)
            thread = threading.Thread(target=lambda: inner.append(CPerFile.GetPerFile("/a.py")))
            thread.start()
            thread.join()

        xo.set_checksum_callback(callback)
        outer = CPerFile.GetPerFile("/a.py")
        self.assertIsNot(inner[0], outer)
        self.assertEqual(created.calls, [(inner[0],), (outer,)])
        self.assertIs(CPerFile.GetPerFile("/a.py"), outer)

    def test_many_threads_fill_the_registry_without_losing_a_record(self):
        thread_count, file_count = 8, 200
        barrier = threading.Barrier(thread_count)

        def run(number):
            barrier.wait()
            for index in range(file_count):
                CPerFile.GetPerFile(f"/{number}/{index}.py")

        threads = [threading.Thread(target=run, args=(number,)) for number in range(thread_count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(len(CPerFile.GetAllPerFiles()), thread_count * file_count)


class ChecksumGroupTest(PerFileTestCase):

    def test_without_a_checksum_callback_there_are_no_groups(self):
        record = CPerFile.GetPerFile("/a.py")
        self.assertIsNone(record.fChecksum)
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_the_set_of_an_unknown_checksum_is_empty_new_each_time_and_not_stored(self):
        first, second = CPerFile.GetPerFileSetForChecksum("x"), CPerFile.GetPerFileSetForChecksum("x")
        self.assertEqual((type(first), first), (set, set()))
        self.assertIsNot(first, second)
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_files_of_equal_contents_are_in_one_set(self):
        self.use_checksums(a="abc", b="abc", c="def")
        first, second, third = (CPerFile.GetPerFile(f"/{stem}.py") for stem in "abc")
        self.assertEqual(CPerFile.GetPerFileSetForChecksum("abc"), {first, second})
        self.assertEqual(CPerFile.GetPerFileSetForChecksum("def"), {third})

    def test_the_set_of_a_known_checksum_is_the_live_one(self):
        self.use_checksums(a="abc")
        CPerFile.GetPerFile("/a.py")
        group = CPerFile.GetPerFileSetForChecksum("abc")
        self.assertIs(group, CPerFile._fByChecksum["abc"])
        self.checksums["/b.py"] = "abc"
        self.assertIn(CPerFile.GetPerFile("/b.py"), group)

    def test_a_changed_file_moves_to_another_set_and_an_emptied_set_goes_away(self):
        self.use_checksums(a="abc", b="abc")
        first, second = CPerFile.GetPerFile("/a.py"), CPerFile.GetPerFile("/b.py")
        self.checksums["/b.py"] = "def"
        self.assertIsNone(second.UpdateChecksum())
        self.assertEqual(second.fChecksum, "def")
        self.assertEqual(CPerFile._fByChecksum, {"abc": {first}, "def": {second}})
        self.checksums["/a.py"] = "ghi"
        first.UpdateChecksum()
        self.assertEqual(CPerFile._fByChecksum, {"def": {second}, "ghi": {first}})

    def test_an_unchanged_checksum_leaves_the_very_same_sets(self):
        self.use_checksums(a="abc", b="def")
        record = CPerFile.GetPerFile("/a.py")
        CPerFile.GetPerFile("/b.py")
        before = dict(CPerFile._fByChecksum)
        self.checksums["/a.py"] = "".join(["a", "bc"])  # equal, and another object
        record.UpdateChecksum()
        self.assertEqual(CPerFile._fByChecksum, before)
        for checksum, group in before.items():
            self.assertIs(CPerFile._fByChecksum[checksum], group)

    def test_every_update_asks_the_callback_for_the_pathname_of_the_record(self):
        self.use_checksums()
        record = CPerFile.GetPerFile("/a.py")
        record.fCanonicalPathname = "/moved.py"
        record.UpdateChecksum()
        record.UpdateChecksum()
        self.assertEqual(self.asked, ["/a.py", "/moved.py", "/moved.py"])

    def test_a_first_checksum_counts_as_a_change(self):
        record = CPerFile.GetPerFile("/a.py")
        self.use_checksums(a="abc")
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), ("abc", {"abc": {record}}))

    def test_a_checksum_that_is_gone_leaves_every_group(self):
        self.use_checksums(a="abc")
        record = CPerFile.GetPerFile("/a.py")
        xo.set_checksum_callback(None)
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), (None, {}))

    def test_no_checksum_before_and_none_after_changes_nothing(self):
        record = CPerFile.GetPerFile("/a.py")
        record.UpdateChecksum()
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), (None, {}))

    def test_an_empty_checksum_makes_a_group_of_its_own(self):
        self.use_checksums(a="", b="")
        first, second = CPerFile.GetPerFile("/a.py"), CPerFile.GetPerFile("/b.py")
        self.assertEqual(CPerFile._fByChecksum, {"": {first, second}})
        self.assertIs(CPerFile.GetPerFileSetForChecksum(""), CPerFile._fByChecksum[""])
        self.checksums["/a.py"] = None
        first.UpdateChecksum()
        self.assertEqual(CPerFile._fByChecksum, {"": {second}})

    def test_a_checksum_of_another_type_is_grouped_as_it_is(self):
        self.use_checksums(a=5)
        record = CPerFile.GetPerFile("/a.py")
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), (5, {5: {record}}))

    def test_an_unhashable_checksum_leaves_no_record_behind(self):
        self.use_checksums(a=[])
        with self.assertRaisesRegex(TypeError, "unhashable type: 'list'"):
            CPerFile.GetPerFile("/a.py")
        self.assertEqual((CPerFile._fPerFileDict, CPerFile._fByChecksum), ({}, {}))

    def test_a_callback_that_raises_during_an_update_changes_nothing(self):
        self.use_checksums(a="abc")
        record = CPerFile.GetPerFile("/a.py")
        xo.set_checksum_callback(Recorder(error=NastyError("no")))
        self.assert_raises_text(NastyError, "no", record.UpdateChecksum)
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), ("abc", {"abc": {record}}))

    def test_a_comparison_that_raises_during_an_update_changes_nothing(self):
        self.use_checksums(a="abc")
        record = CPerFile.GetPerFile("/a.py")
        self.checksums["/a.py"] = raising("__eq__", "__ne__")
        with self.assertRaises(NastyError):
            record.UpdateChecksum()
        self.assertEqual((record.fChecksum, CPerFile._fByChecksum), ("abc", {"abc": {record}}))

    def test_the_old_group_is_left_before_the_new_checksum_is_stored_and_joined(self):
        seen = []

        class Checksum(str):
            def __hash__(self):
                if watching:
                    seen.append((str(self), str(record.fChecksum)))
                return hash(str(self))

        watching = []
        self.use_checksums(a=Checksum("old"))
        record = CPerFile.GetPerFile("/a.py")
        self.checksums["/a.py"] = Checksum("new")
        watching.append(True)
        record.UpdateChecksum()
        watching.clear()
        order = list(dict.fromkeys(seen))
        self.assertEqual(order, [("old", "old"), ("new", "new")])
        self.assertEqual(CPerFile._fByChecksum, {"new": {record}})

    def test_adding_to_a_group_by_hand(self):
        record = CPerFile.GetPerFile("/a.py")
        self.assertIsNone(record._UpdateByChecksum("abc"))
        self.assertEqual(CPerFile._fByChecksum, {"abc": {record}})
        group = CPerFile._fByChecksum["abc"]
        record._UpdateByChecksum("abc", False)
        self.assertIs(CPerFile._fByChecksum["abc"], group)
        self.assertEqual(group, {record})
        self.assertIsNone(record.fChecksum)

    def test_without_a_checksum_no_group_is_touched(self):
        record = CPerFile.GetPerFile("/a.py")
        record._UpdateByChecksum()
        record._UpdateByChecksum(None, True)
        record._UpdateByChecksum(remove=True)
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_removing_from_a_group_that_does_not_exist_does_nothing(self):
        record = CPerFile.GetPerFile("/a.py")
        record._UpdateByChecksum("abc", True)
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_removing_a_record_that_is_no_member_leaves_the_others(self):
        first, second = CPerFile.GetPerFile("/a.py"), CPerFile.GetPerFile("/b.py")
        first._UpdateByChecksum(checksum="abc")
        second._UpdateByChecksum(checksum="abc", remove=True)
        self.assertEqual(CPerFile._fByChecksum, {"abc": {first}})

    def test_removing_from_an_empty_set_drops_it(self):
        record = CPerFile.GetPerFile("/a.py")
        CPerFile._fByChecksum["abc"] = set()
        record._UpdateByChecksum("abc", True)
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_group_arguments_are_typed(self):
        record = CPerFile.GetPerFile("/a.py")
        self.assert_raises_text(TypeError, "expected str | None, got 5", record._UpdateByChecksum, 5)
        self.assert_raises_text(TypeError, "expected bool, got 1", record._UpdateByChecksum, "abc", 1)
        self.assert_raises_text(TypeError, "expected str, got None", CPerFile.GetPerFileSetForChecksum, None)
        self.assert_raises_text(TypeError, "expected str, got b'abc'",
                                CPerFile.GetPerFileSetForChecksum, b"abc")
        self.assertEqual(CPerFile._fByChecksum, {})

    def test_the_set_can_be_asked_for_by_name(self):
        self.use_checksums(a="abc")
        record = CPerFile.GetPerFile("/a.py")
        self.assertEqual(CPerFile.GetPerFileSetForChecksum(checksum="abc"), {record})


class ClassLevelTest(PerFileTestCase):

    def test_the_class_fields_start_empty(self):
        self.assertEqual(type(CPerFile._fPerFileDict), dict)
        self.assertEqual(type(CPerFile._fByChecksum), dict)
        self.assertEqual((CPerFile._fPerFileDict, CPerFile._fByChecksum), ({}, {}))
        self.assertIsNone(CPerFile._fNewPerFileCreatedCallback)

    def test_the_class_fields_can_be_read_through_a_record(self):
        record = CPerFile.GetPerFile("/a.py")
        self.assertIs(record._fPerFileDict, CPerFile._fPerFileDict)
        self.assertIs(record._fByChecksum, CPerFile._fByChecksum)

    def test_a_registry_can_be_replaced(self):
        old = CPerFile._fPerFileDict
        self.addCleanup(setattr, CPerFile, "_fPerFileDict", old)
        CPerFile._fPerFileDict = mine = {}
        record = CPerFile.GetPerFile("/a.py")
        self.assertEqual((mine, old), ({"/a.py": record}, {}))

    def test_a_replaced_callback_is_released(self):
        callback = Recorder()
        before = sys.getrefcount(callback)
        CPerFile.SetNewPerFileCreatedCallback(callback)
        self.assertEqual(sys.getrefcount(callback), before + 1)
        CPerFile.SetNewPerFileCreatedCallback(None)
        self.assertEqual(sys.getrefcount(callback), before)

    def test_a_subclass_sees_the_fields_of_its_base_until_it_sets_its_own(self):
        class Mine(CPerFile):
            pass

        self.assertIs(Mine._fPerFileDict, CPerFile._fPerFileDict)
        shared = Mine.GetPerFile("/a.py")
        self.assertIs(CPerFile.GetPerFile("/a.py", False), shared)
        Mine._fPerFileDict = {}
        own = Mine.GetPerFile("/a.py")
        self.assertIsNot(own, shared)
        self.assertEqual(Mine._fPerFileDict, {"/a.py": own})
        self.assertEqual(CPerFile._fPerFileDict, {"/a.py": shared})

    def test_a_subclass_makes_records_of_the_module_class(self):
        class Mine(CPerFile):
            pass

        self.assertIs(type(Mine.GetPerFile("/a.py")), CPerFile)

    def test_a_callback_set_on_a_subclass_belongs_to_the_subclass(self):
        class Mine(CPerFile):
            pass

        created = Recorder()
        Mine.SetNewPerFileCreatedCallback(created)
        self.assertIs(Mine._fNewPerFileCreatedCallback, created)
        self.assertIsNone(CPerFile._fNewPerFileCreatedCallback)
        CPerFile.GetPerFile("/a.py")
        self.assertEqual(created.calls, [])
        Mine.GetPerFile("/b.py")
        self.assertEqual(len(created.calls), 1)

    def test_a_record_of_a_subclass_joins_the_groups_of_its_own_class(self):
        class Mine(CPerFile):
            pass

        self.use_checksums(a="abc")
        Mine._fByChecksum = {}
        record = Mine("/a.py")
        self.assertEqual((Mine._fByChecksum, CPerFile._fByChecksum), ({"abc": {record}}, {}))
        self.assertEqual(Mine.GetPerFileSetForChecksum("abc"), {record})
        self.assertEqual(CPerFile.GetPerFileSetForChecksum("abc"), set())

    def test_a_record_of_a_subclass_is_accepted_from_the_registry(self):
        class Mine(CPerFile):
            pass

        record = CPerFile._fPerFileDict["/a.py"] = Mine("/a.py")
        self.assertIs(CPerFile.GetPerFile("/a.py"), record)


if __name__ == "__main__":
    unittest.main()
