"""The Python-level diagnostic output: where lines go, which mask lets them through, what is written."""

import os
import unittest
import weakref

import interface
from support import (NastyError, RaisesForItsClass, Recorder, RecordingWriter, SaysItIsStr, XoTestCase,
                     raising, xo)

NOT_A_STRING = "s must be a string or a callable that returns a string"


class SwitchedOff(XoTestCase):

    def test_with_no_file_nothing_is_written_and_a_lazy_text_is_not_asked_for(self):
        xo.set_dprintf_mask(xo.kLogCore)
        lazy = Recorder(result="x\n")
        self.assertIsNone(xo.dprintf(xo.kLogCore, "x\n"))
        self.assertIsNone(xo.dprintf(xo.kLogCore, lazy))
        self.assertEqual(lazy.calls, [])

    def test_with_no_file_an_unsuitable_text_is_not_even_looked_at(self):
        xo.set_dprintf_mask(-1)
        self.assertIsNone(xo.dprintf(1, 5))
        self.assertIsNone(xo.dprintf(1, raising()))

    def test_with_a_file_and_mask_0_nothing_is_written(self):
        writer = RecordingWriter()
        lazy = Recorder(result="x\n")
        xo.set_dprintf_file(writer, 1, None)
        self.assertIsNone(xo.dprintf(xo.kLogCore, "x\n"))
        self.assertIsNone(xo.dprintf(-1, "x\n"))
        self.assertIsNone(xo.dprintf(xo.kLogCore, lazy))
        self.assertIsNone(xo.dprintf(xo.kLogCore, 5))
        self.assertEqual((writer.texts, lazy.calls), ([], []))

    def test_a_domain_outside_the_mask_writes_nothing_and_does_not_ask_for_a_lazy_text(self):
        writer = RecordingWriter()
        lazy = Recorder(result="x\n")
        xo.set_dprintf_file(writer, 1, None)
        xo.set_dprintf_mask(xo.kLogCore | xo.kLogIO)
        xo.dprintf(xo.kLogThreading | xo.kLogOther, "x\n")
        xo.dprintf(0, "x\n")
        xo.dprintf(xo.kLogThreading, lazy)
        self.assertEqual((writer.texts, lazy.calls), ([], []))

    def test_none_as_the_file_switches_the_output_off_again(self):
        writer = RecordingWriter()
        xo.set_dprintf_mask(1)
        xo.set_dprintf_file(writer, 1, None)
        xo.dprintf(1, "one")
        xo.set_dprintf_file(None, 1, None)
        xo.dprintf(1, "two")
        self.assertEqual(writer.texts, ["one"])

    def test_reset_drops_the_file_and_clears_the_mask(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, 1, None)
        xo.set_dprintf_mask(1)
        xo.reset()
        xo.dprintf(1, "x")
        self.assertEqual((writer.texts, xo._gDPrintfFile, xo.get_dprintf_mask()), ([], None, 0))


class Written(XoTestCase):

    def setUp(self):
        super().setUp()
        self.writer = RecordingWriter()
        xo.set_dprintf_file(self.writer, 1, None)
        xo.set_dprintf_mask(xo.kLogCore | xo.kLogIO)

    def test_an_enabled_domain_writes_the_text_once_and_unchanged(self):
        self.assertIsNone(xo.dprintf(xo.kLogIO, "x\n"))
        self.assertEqual(self.writer.texts, ["x\n"])

    def test_no_newline_or_prefix_is_added(self):
        for text in ("no newline", "", "\x00 and \u2603", "a\nb"):
            xo.dprintf(xo.kLogCore, text)
        self.assertEqual(self.writer.texts, ["no newline", "", "\x00 and \u2603", "a\nb"])

    def test_one_common_bit_of_domain_and_mask_is_enough(self):
        xo.dprintf(xo.kLogOther | xo.kLogIO, "x")
        xo.dprintf(-1, "y")
        self.assertEqual(self.writer.texts, ["x", "y"])

    def test_every_mask_bit_lets_exactly_its_own_domain_through(self):
        bits = [1 << shift for shift in range(10)]
        for bit in bits:
            with self.subTest(bit):
                self.writer.texts.clear()
                xo.set_dprintf_mask(bit)
                for domain in bits:
                    xo.dprintf(domain, str(domain))
                self.assertEqual(self.writer.texts, [str(bit)])

    def test_a_lazy_text_is_asked_for_once_without_arguments_and_written(self):
        lazy = Recorder(result="lazy\n")
        self.assertIsNone(xo.dprintf(xo.kLogCore, lazy))
        self.assertEqual((lazy.calls, self.writer.texts), ([()], ["lazy\n"]))

    def test_the_very_text_object_is_handed_to_write(self):
        class Text(str):
            pass

        given, lazily = Text("given"), Text("lazily")
        xo.dprintf(xo.kLogCore, given)
        xo.dprintf(xo.kLogCore, lambda: lazily)
        self.assertIs(self.writer.texts[0], given)
        self.assertIs(self.writer.texts[1], lazily)

    def test_a_callable_string_is_written_and_not_called(self):
        class CallableText(str):
            def __call__(self):
                raise NastyError

        xo.dprintf(xo.kLogCore, CallableText("text"))
        self.assertEqual(self.writer.texts, ["text"])

    def test_what_isinstance_takes_for_a_string_is_written(self):
        given, lazily = SaysItIsStr("given"), SaysItIsStr("lazily")
        xo.dprintf(xo.kLogCore, given)
        xo.dprintf(xo.kLogCore, lambda: lazily)
        self.assertIs(self.writer.texts[0], given)
        self.assertIs(self.writer.texts[1], lazily)

    def test_an_exception_of_isinstance_propagates(self):
        self.assert_raises_text(NastyError, "class", xo.dprintf, xo.kLogCore, RaisesForItsClass())
        self.assert_raises_text(NastyError, "class", xo.dprintf, xo.kLogCore, RaisesForItsClass)
        self.assertEqual(self.writer.texts, [])

    def test_the_result_of_write_is_discarded(self):
        self.writer.result = raising()
        self.assertIsNone(xo.dprintf(xo.kLogCore, "x"))

    def test_a_lazy_text_that_is_no_string_is_refused(self):
        for result in (5, None, b"x", lambda: "x"):
            with self.subTest(result):
                self.assert_raises_text(TypeError, NOT_A_STRING,
                                        xo.dprintf, xo.kLogCore, lambda result=result: result)
        self.assertEqual(self.writer.texts, [])

    def test_a_text_that_is_neither_string_nor_callable_fails_in_the_interpreters_words(self):
        self.assert_raises_text(TypeError, "'int' object is not callable", xo.dprintf, xo.kLogCore, 5)

    def test_an_exception_of_the_lazy_text_propagates(self):
        error = NastyError("lazy")
        with self.assertRaises(NastyError) as caught:
            xo.dprintf(xo.kLogCore, Recorder(error=error))
        self.assertIs(caught.exception, error)
        self.assertEqual(self.writer.texts, [])

    def test_an_exception_of_write_propagates(self):
        self.writer.error = NastyError("write")
        with self.assertRaises(NastyError) as caught:
            xo.dprintf(xo.kLogCore, "x")
        self.assertIs(caught.exception, self.writer.error)

    def test_a_file_without_write_fails_with_its_attribute_error(self):
        xo.set_dprintf_file(5, 1, None)
        self.assert_raises_text(AttributeError, "'int' object has no attribute 'write'",
                                xo.dprintf, xo.kLogCore, "x")

    def test_the_file_is_read_again_after_the_lazy_text_was_made(self):
        other = RecordingWriter()

        def lazy():
            xo.set_dprintf_file(other, 1, None)
            return "x"

        xo.dprintf(xo.kLogCore, lazy)
        self.assertEqual((self.writer.texts, other.texts), ([], ["x"]))

    def test_a_file_taken_away_while_the_lazy_text_is_made_fails_as_a_read_of_none(self):
        def lazy():
            xo.set_dprintf_file(None, 1, None)
            return "x"

        self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'write'",
                                xo.dprintf, xo.kLogCore, lazy)

    def test_a_mask_cleared_while_the_lazy_text_is_made_does_not_hold_it_back(self):
        def lazy():
            xo.set_dprintf_mask(0)
            return "x"

        xo.dprintf(xo.kLogCore, lazy)
        self.assertEqual(self.writer.texts, ["x"])

    def test_write_is_looked_up_anew_for_each_line(self):
        xo.dprintf(xo.kLogCore, "one")
        replaced = Recorder()
        self.writer.write = replaced
        xo.dprintf(xo.kLogCore, "two")
        self.assertEqual((self.writer.texts, replaced.calls), (["one"], [("two",)]))

    def test_a_writer_may_replace_itself_while_it_writes(self):
        class Once:
            def write(self, text):
                xo.set_dprintf_file(None, 1, None)
                xo.reset()

        xo.set_dprintf_file(Once(), 1, None)
        self.assertIsNone(xo.dprintf(xo.kLogCore, "x"))
        self.assertIsNone(xo._gDPrintfFile)

    def test_a_writer_may_print_through_the_module_itself(self):
        outer = self.writer

        class Nested:
            def write(self, text):
                xo.set_dprintf_file(outer, 1, None)
                xo.dprintf(xo.kLogCore, f"nested {text}")

        xo.set_dprintf_file(Nested(), 1, None)
        xo.dprintf(xo.kLogCore, "x")
        self.assertEqual(outer.texts, ["nested x"])


class File(XoTestCase):

    def test_the_file_is_published_as_it_was_given(self):
        for f in (RecordingWriter(), "no file at all", raising("__eq__", "__bool__", "__hash__"), None):
            self.assertIsNone(xo.set_dprintf_file(f, 3, None))
            self.assertIs(xo._gDPrintfFile, f)

    def test_setting_the_file_changes_nothing_but_the_file(self):
        xo.set_dprintf_mask(12)
        before = {name: getattr(xo, name) for name, _kind in interface.MODULE_ATTRIBUTES}
        f = RecordingWriter()
        xo.set_dprintf_file(f, 3, None)
        changed = {name for name, value in before.items()
                   if (getattr(xo, name) != value if type(value) is int else getattr(xo, name) is not value)}
        self.assertEqual(changed, {"_gDPrintfFile"})
        self.assertEqual(xo.get_dprintf_mask(), 12)

    def test_the_descriptor_and_the_handle_are_accepted_and_ignored(self):
        f = RecordingWriter()
        for fileno, handle in ((3, None), (-1, 0), (None, object()), ("x", "y"), (2**80, raising())):
            self.assertIsNone(xo.set_dprintf_file(f, fileno, handle))
        self.assertEqual(f.texts, [])

    def test_nothing_is_written_to_the_descriptor(self):
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        f = RecordingWriter()
        xo.set_dprintf_file(f, writer, None)
        xo.set_dprintf_mask(-1)
        xo.dprintf(1, "x")
        os.close(writer)
        self.assertEqual((os.read(reader, 10), f.texts), (b"", ["x"]))

    def test_all_three_arguments_are_required(self):
        for args in ((), (None,), (None, 3)):
            with self.subTest(args):
                self.assert_raises_text(TypeError, "argument is missing", xo.set_dprintf_file, *args)

    def test_the_arguments_can_be_given_by_keyword(self):
        f = RecordingWriter()
        self.assertIsNone(xo.set_dprintf_file(win32_handle=None, fileno=3, f=f))
        self.assertIs(xo._gDPrintfFile, f)

    def test_the_previous_file_is_released(self):
        f = RecordingWriter()
        released = weakref.ref(f)
        xo.set_dprintf_file(f, 1, None)
        del f
        self.assertIsNotNone(released())
        xo.set_dprintf_file(None, 1, None)
        self.assertIsNone(released())

    def test_a_file_whose_release_sets_the_file_again_does_no_harm(self):
        last = RecordingWriter()

        class SetsOnRelease:
            def __del__(self):
                xo.set_dprintf_file(last, 1, None)

        xo.set_dprintf_file(SetsOnRelease(), 1, None)
        xo.set_dprintf_file(None, 1, None)
        self.assertIs(xo._gDPrintfFile, last)


class Mask(XoTestCase):

    def test_the_mask_reads_back_as_it_was_set(self):
        for mask in (768, 0, 1, -1, 2**62, -2**63, 2**63 - 1):
            with self.subTest(mask):
                self.assertIsNone(xo.set_dprintf_mask(mask))
                self.assertEqual((xo.get_dprintf_mask(), xo._gDPrintfMask), (mask, mask))

    def test_a_truth_value_is_an_integer(self):
        xo.set_dprintf_mask(True)
        self.assertEqual(repr(xo.get_dprintf_mask()), "1")

    def test_a_mask_that_is_no_integer_is_a_type_error_and_leaves_the_old_one(self):
        xo.set_dprintf_mask(5)
        for mask in ("4", None, 4.0, [], object()):
            with self.subTest(mask), self.assertRaises(TypeError):
                xo.set_dprintf_mask(mask)
        self.assertEqual(xo.get_dprintf_mask(), 5)

    def test_a_mask_out_of_range_is_an_overflow_error_and_leaves_the_old_one(self):
        xo.set_dprintf_mask(5)
        for mask in (2**63, -2**63 - 1, 2**200):
            with self.subTest(mask), self.assertRaises(OverflowError):
                xo.set_dprintf_mask(mask)
        self.assertEqual(xo.get_dprintf_mask(), 5)

    def test_a_domain_that_is_no_integer_is_a_type_error_even_while_there_is_no_file(self):
        for domain in ("4", None, 4.0):
            with self.subTest(domain), self.assertRaises(TypeError):
                xo.dprintf(domain, "x")
        with self.assertRaises(OverflowError):
            xo.dprintf(2**63, "x")

    def test_the_highest_bits_of_the_mask_count(self):
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, 1, None)
        xo.set_dprintf_mask(1 << 62)
        xo.dprintf(1 << 62, "high")
        xo.dprintf(1 << 61, "low")
        self.assertEqual(writer.texts, ["high"])


if __name__ == "__main__":
    unittest.main()
