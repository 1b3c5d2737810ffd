"""Frames of the debugger's own code: recognising them, and finding the nearest frame that is not one."""

import _thread
import sys
import types
import unittest

from code_helpers import CALLING, conversion_error, in_frame_of, make_code
from support import NastyError, Recorder, XoTestCase, raising, xo

CPerFile = xo.CPerFile
CPerCodeObject = xo.CPerCodeObject

INTERNAL = "/opt/dbg/internal.py"
USER = "/srv/user/program.py"


def make_caller(filename):
    """A function that lies in the file of that name, calls what it is given and returns the result."""
    names = {}
    exec(compile("def call(action, *args):\n    return action(*args)\n", filename, "exec"), names)
    return names["call"]


def ask(*args):
    """Asks from a fresh function of the debugger's own."""
    return make_caller(INTERNAL)(xo.GetNonInternalFrame, *args)


class FrameTestCase(XoTestCase):

    def setUp(self):
        super().setUp()
        self.internal_dict = {INTERNAL: 1}
        xo.SetInternalPathnameDict(self.internal_dict)


class RecognitionTest(FrameTestCase):

    def test_a_frame_without_a_record_is_judged_by_its_pathname(self):
        for filename, internal in ((INTERNAL, True), (USER, False)):
            with self.subTest(filename=filename):
                self.assertIs(in_frame_of(make_code(filename), xo.IsInternalFrame), internal)

    def test_no_record_is_made(self):
        announced, announced_file = Recorder(), Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        CPerFile.SetNewPerFileCreatedCallback(announced_file)
        for filename in (INTERNAL, USER, "<string>", "<frozen made_up>"):
            with self.subTest(filename=filename):
                code = make_code(filename)
                in_frame_of(code, xo.IsInternalFrame)
                self.assertIsNone(CPerCodeObject.GetPerCodeObject(code, False))
        self.assertEqual((CPerFile._fPerFileDict, announced.calls, announced_file.calls), ({}, [], []))

    def test_a_frame_with_a_record_is_judged_by_the_record(self):
        code = make_code(USER)
        record = in_frame_of(code, lambda frame: CPerCodeObject.GetPerCodeObject(code, True, frame))
        self.assertIs(in_frame_of(code, xo.IsInternalFrame), False)
        record.fIsInternal = True
        self.assertIs(in_frame_of(code, xo.IsInternalFrame), True)

    def test_a_settled_record_does_not_follow_the_internal_pathnames(self):
        code = make_code(USER)
        in_frame_of(code, lambda frame: CPerCodeObject.GetPerCodeObject(code, True, frame))
        self.internal_dict[USER] = 1
        self.assertIs(in_frame_of(code, xo.IsInternalFrame), False)
        self.assertIs(in_frame_of(make_code(USER), xo.IsInternalFrame), True)

    def test_the_frame_settles_a_record_that_was_made_without_one(self):
        code = make_code("<frozen made_up>")
        record = CPerCodeObject.GetPerCodeObject(code)
        self.assertIs(in_frame_of(code, xo.IsInternalFrame, __file__=INTERNAL), True)
        self.assertEqual((record.fUpdatePathnameNeeded, record.fCanonicalPathname), (False, INTERNAL))

    def test_frozen_code_without_a_record_is_judged_by_the_file_in_its_globals(self):
        code = make_code("<frozen made_up>")
        self.assertIs(in_frame_of(code, xo.IsInternalFrame, __file__=INTERNAL), True)
        self.assertIs(in_frame_of(code, xo.IsInternalFrame, __file__=USER), False)
        self.assertIs(in_frame_of(code, xo.IsInternalFrame), False)

    def test_code_of_a_pseudo_name_is_never_internal(self):
        self.internal_dict["<string>"] = self.internal_dict[None] = 1
        self.assertIs(in_frame_of(make_code("<string>"), xo.IsInternalFrame), False)

    def test_equal_code_of_another_file_is_judged_by_its_own_file(self):
        self.assertIs(in_frame_of(make_code(INTERNAL, CALLING), xo.IsInternalFrame), True)
        self.assertIs(in_frame_of(make_code(USER, CALLING), xo.IsInternalFrame), False)

    def test_the_frame_of_a_generator_is_judged_as_any_other(self):
        names = {}
        exec(compile("def count():\n    yield 1\n", INTERNAL, "exec"), names)
        generator = names["count"]()
        next(generator)
        self.assertIs(xo.IsInternalFrame(generator.gi_frame), True)
        self.assertIs(xo.IsInternalFrame(f=generator.gi_frame), True)

    def test_what_is_no_frame_fails_as_reading_its_code_does(self):
        self.assert_raises_text(AttributeError, "'int' object has no attribute 'f_code'",
                                xo.IsInternalFrame, 5)
        self.assert_raises_text(AttributeError, "'NoneType' object has no attribute 'f_code'",
                                xo.IsInternalFrame, None)

    def test_an_error_of_the_pathname_reaches_the_caller(self):
        in_frame_of(make_code("<frozen made_up>"), lambda frame: self.assert_raises_text(
            AttributeError, "'int' object has no attribute 'lower'", xo.IsInternalFrame, frame), __file__=5)


class NearestFrameTest(FrameTestCase):

    def test_called_from_user_code_it_is_the_frame_of_the_caller(self):
        self.assertIs(xo.GetNonInternalFrame(), sys._getframe())

    def test_called_from_internal_code_it_is_the_nearest_frame_of_user_code(self):
        self.assertIs(make_caller(INTERNAL)(xo.GetNonInternalFrame), sys._getframe())

    def test_any_number_of_internal_frames_is_skipped(self):
        caller = make_caller(INTERNAL)
        self.assertIs(caller(caller, caller, xo.GetNonInternalFrame), sys._getframe())

    def test_frames_beyond_the_nearest_are_not_looked_at(self):
        f_back = sys._getframe().f_back

        class Outer:
            def __getattr__(self, name):
                raise NastyError(name)

        self.patch(sys, "_getframe", lambda: types.SimpleNamespace(f_code=f_back.f_code, f_back=Outer()))
        self.assertIs(xo.GetNonInternalFrame().f_code, f_back.f_code)

    def test_a_depth_of_one_is_the_next_frame_of_user_code(self):
        me = sys._getframe()
        self.assertIs(xo.GetNonInternalFrame(1), me.f_back)
        self.assertIs(ask(1), me)  # the frame of `ask` itself is the nearest

    def test_internal_frames_in_between_are_not_counted(self):
        seen = []

        def inner_user():
            seen.append(sys._getframe())
            return ask(1), ask(2), ask(3)

        me = sys._getframe()
        caller = make_caller(INTERNAL)
        found = caller(caller, caller, inner_user)
        self.assertEqual(found, (seen[0], me, me.f_back))

    def test_none_and_zero_and_negative_depths_are_the_nearest_frame(self):
        me = sys._getframe()
        for depth in (None, 0, -1, -10**30, False):
            with self.subTest(depth=depth):
                self.assertIs(xo.GetNonInternalFrame(depth), me)
                self.assertIs(xo.GetNonInternalFrame(depth=depth), me)

    def test_a_depth_beyond_the_outermost_frame_is_none(self):
        for depth in (10_000, 10**30):
            with self.subTest(depth=depth):
                self.assertIsNone(xo.GetNonInternalFrame(depth))

    def test_the_outermost_frame_itself_is_found(self):
        outermost, depth = sys._getframe(), 0
        while outermost.f_back is not None:
            outermost, depth = outermost.f_back, depth + 1
        self.assertIs(xo.GetNonInternalFrame(depth), outermost)
        self.assertIsNone(xo.GetNonInternalFrame(depth + 1))

    def run_in_bare_thread(self, action):
        """Runs `action` on a thread whose stack holds no other frame, and returns the result."""
        results, done = [], _thread.allocate_lock()
        done.acquire()

        def report(*result):
            results.extend(result)
            done.release()

        names = {"action": action, "report": report}
        exec(compile("def run():\n    report(action())\n", INTERNAL, "exec"), names)
        _thread.start_new_thread(names["run"], ())
        done.acquire()
        return results[0]

    def test_a_stack_of_internal_frames_only_has_none(self):
        self.assertIsNone(self.run_in_bare_thread(xo.GetNonInternalFrame))

    def test_a_depth_of_one_with_only_internal_frames_beyond_is_none(self):
        caller = make_caller(USER)

        def make_action(depth):
            return lambda: caller(xo.GetNonInternalFrame, depth)

        self.internal_dict[xo.get_canonical_pathname(__file__)] = 1
        self.assertIs(self.run_in_bare_thread(make_action(0)).f_code, caller.__code__)
        self.assertIsNone(self.run_in_bare_thread(make_action(1)))

    def test_a_walk_over_the_whole_stack_makes_no_record(self):
        announced = Recorder()
        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announced)
        ask(10_000)
        self.assertEqual(announced.calls, [])

    def test_a_depth_of_another_type_is_refused_before_any_frame_is_looked_at(self):
        frames = self.patch(sys, "_getframe", Recorder())
        self.assert_raises_text(TypeError, "expected int | None, got '2'", xo.GetNonInternalFrame, "2")
        self.assert_raises_text(TypeError, "expected int | None, got 1.0", xo.GetNonInternalFrame, depth=1.0)
        self.assertEqual(frames.calls, [])

    def test_a_refused_depth_is_shown_with_at_most_two_hundred_characters(self):
        self.assert_raises_text(TypeError, "expected int | None, got " + repr("x" * 300)[:200],
                                xo.GetNonInternalFrame, "x" * 300)

    def test_a_depth_may_be_of_a_subtype_of_int(self):
        class Depth(int):
            pass

        self.assertIs(xo.GetNonInternalFrame(True), sys._getframe().f_back)
        self.assertIs(xo.GetNonInternalFrame(Depth(1)), sys._getframe().f_back)

    def test_a_subtraction_that_gives_another_type_is_refused(self):
        class Depth(int):
            def __sub__(self, other):
                return result

        for result in ("x", 0.0):
            with self.subTest(result=result):
                self.assert_raises_text(TypeError, f"expected int | None, got {result!r}",
                                        xo.GetNonInternalFrame, Depth(2))

    def test_a_subtraction_in_place_is_preferred(self):
        class Depth(int):
            def __isub__(self, other):
                return 0

        self.assertIs(xo.GetNonInternalFrame(Depth(5)), sys._getframe().f_back)

    def test_a_subtraction_that_gives_none_fails_at_the_next_comparison(self):
        class Depth(int):
            def __sub__(self, other):
                return None

        self.assert_raises_text(TypeError, "'>' not supported between instances of 'NoneType' and 'int'",
                                xo.GetNonInternalFrame, Depth(2))

    def test_errors_of_the_depth_reach_the_caller(self):
        for name in ("__gt__", "__sub__"):
            with self.subTest(name=name):
                with self.assertRaises(NastyError):
                    xo.GetNonInternalFrame(raising(name, base=int, args=(2,)))

    def test_errors_of_a_frame_reach_the_caller(self):
        class Frame:
            f_code = make_code(INTERNAL)

            @property
            def f_back(self):
                raise NastyError("no frame")

        self.patch(sys, "_getframe", Frame)
        self.assert_raises_text(NastyError, "no frame", xo.GetNonInternalFrame)

    def test_wrong_argument_lists_are_refused(self):
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                xo.GetNonInternalFrame, 1, 2)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                xo.GetNonInternalFrame, other=1)
        self.assert_raises_text(TypeError, "argument is missing", xo.IsInternalFrame)


class CodeMatchTest(XoTestCase):

    def test_no_frame_matches_no_code(self):
        frame = sys._getframe()
        self.assertIs(xo._FrameCodeMatches(None, frame.f_code), False)
        self.assertIs(xo._FrameCodeMatches(None, None), False)

    def test_a_frame_matches_its_own_code_and_no_other(self):
        frame = sys._getframe()
        self.assertIs(xo._FrameCodeMatches(frame, frame.f_code), True)
        self.assertIs(xo._FrameCodeMatches(frame, frame.f_back.f_code), False)
        self.assertIs(xo._FrameCodeMatches(frame, None), False)

    def test_a_frame_matches_equal_code(self):
        code, copy = make_code("/a.py", CALLING), make_code("/b.py", CALLING)
        self.assertIs(in_frame_of(code, lambda frame: xo._FrameCodeMatches(frame, copy)), True)

    def test_the_result_of_the_comparison_is_returned_as_it_is(self):
        class Code:
            def __eq__(self, other):
                return ("compared with", other)

        self.assertEqual(xo._FrameCodeMatches(types.SimpleNamespace(f_code=Code()), 7), ("compared with", 7))

    def test_errors_reach_the_caller(self):
        self.assert_raises_text(AttributeError, "'int' object has no attribute 'f_code'",
                                xo._FrameCodeMatches, 5, 6)
        with self.assertRaises(NastyError):
            xo._FrameCodeMatches(types.SimpleNamespace(f_code=raising("__eq__")), 7)

    def test_arguments_can_be_given_by_name_and_none_is_optional(self):
        frame = sys._getframe()
        self.assertIs(xo._FrameCodeMatches(code_object=frame.f_code, frame=frame), True)
        self.assert_raises_text(TypeError, "argument is missing", xo._FrameCodeMatches, frame)


class InnermostFrameTest(XoTestCase):

    def test_it_is_the_frame_of_the_caller_whatever_the_depth(self):
        me = sys._getframe()
        for depth in (0, 5, -1, True):
            with self.subTest(depth=depth):
                self.assertIs(xo._GetPythonFrame(depth), me)
        self.assertIs(xo._GetPythonFrame(this_module_depth=0), me)

    def test_frames_of_internal_code_are_not_skipped(self):
        xo.SetInternalPathnameDict({INTERNAL: 1})
        caller = make_caller(INTERNAL)
        self.assertIs(caller(xo._GetPythonFrame, 0).f_code, caller.__code__)

    def test_each_thread_has_its_own(self):
        me = sys._getframe()
        found, done = [], _thread.allocate_lock()
        done.acquire()

        def run():
            found.append(xo._GetPythonFrame(0).f_code)
            done.release()

        _thread.start_new_thread(run, ())
        done.acquire()
        self.assertEqual(found, [run.__code__])
        self.assertIs(xo._GetPythonFrame(0), me)

    def test_inside_a_generator_it_is_the_frame_of_the_generator(self):
        def generate():
            yield xo._GetPythonFrame(0)

        generator = generate()
        self.assertIs(next(generator), generator.gi_frame)

    def test_the_depth_must_be_an_integer(self):
        for depth in ("x", None, 1.0, sys.maxsize + 1):
            with self.subTest(depth=depth):
                error = conversion_error(depth)
                self.assert_raises_text(type(error), str(error), xo._GetPythonFrame, depth)
        self.assert_raises_text(TypeError, "argument is missing", xo._GetPythonFrame)


if __name__ == "__main__":
    unittest.main()
