"""The native loop that calls a callback many times."""

import sys
import unittest

from code_helpers import conversion_error, make_code
from support import NastyError, Recorder, XoTestCase, raising, xo


class BenchCallbackTest(XoTestCase):

    def test_the_callback_is_called_that_often_with_the_code_object_alone(self):
        callback, code = Recorder(), make_code("/a.py")
        self.assertEqual(xo._bench_callback(callback, code, 3), 3)
        self.assertEqual(callback.calls, [(code,)] * 3)

    def test_a_count_of_zero_or_less_calls_nothing_and_returns_zero(self):
        callback = Recorder()
        for n in (0, -1, -sys.maxsize - 1):
            with self.subTest(n=n):
                self.assertEqual(xo._bench_callback(callback, None, n), 0)
        self.assertEqual(callback.calls, [])

    def test_the_result_is_an_integer(self):
        self.assertIs(type(xo._bench_callback(len, "x", True)), int)

    def test_results_are_discarded_unlooked_at(self):
        result = raising()
        before = sys.getrefcount(result)
        self.assertEqual(xo._bench_callback(lambda code: result, None, 100), 100)
        self.assertEqual(sys.getrefcount(result), before)
        del type(result).__del__  # it raises on purpose, and there is nobody to tell

    def test_any_object_is_handed_on(self):
        callback = Recorder()
        thing = object()
        xo._bench_callback(callback, thing, 1)
        self.assertIs(callback.calls[0][0], thing)

    def test_the_first_exception_stops_the_loop_and_reaches_the_caller(self):
        def callback(code):
            calls.append(code)
            if len(calls) == 3:
                raise NastyError("third")

        calls = []
        self.assert_raises_text(NastyError, "third", xo._bench_callback, callback, "code", 10)
        self.assertEqual(calls, ["code"] * 3)

    def test_a_callback_that_cannot_be_called_fails_at_the_first_call(self):
        self.assertEqual(xo._bench_callback(5, None, 0), 0)
        self.assert_raises_text(TypeError, "'int' object is not callable", xo._bench_callback, 5, None, 1)

    def test_a_first_stage_callback_can_be_timed(self):
        second = Recorder()
        callback = xo.CInitialCallback(xo.kPyStartEventId, second, False)
        code = make_code("/a.py")
        self.assertEqual(xo._bench_callback(callback.Callback, code, 2), 2)
        self.assertEqual(second.calls, [(code,)] * 2)
        xo.CPerCodeObject.GetPerCodeObject(code, False).fEnabledBpLinenos = set()
        self.assertEqual(xo._bench_callback(callback.Callback, code, 1000), 1000)
        self.assertEqual(len(second.calls), 2)

    def test_the_loop_keeps_no_reference(self):
        class Callback:
            def __call__(self, code):
                if failing:
                    raise NastyError("no")

        callback, code, failing = Callback(), make_code("/a.py"), False
        before = sys.getrefcount(callback), sys.getrefcount(code)
        xo._bench_callback(callback, code, 1000)
        self.assertEqual((sys.getrefcount(callback), sys.getrefcount(code)), before)
        failing = True
        for _ in range(100):
            self.assert_raises_text(NastyError, "no", xo._bench_callback, callback, code, 1)
        self.assertEqual((sys.getrefcount(callback), sys.getrefcount(code)), before)

    def test_the_count_must_be_a_machine_word_integer(self):
        callback = Recorder()
        for n in ("3", None, 3.0, sys.maxsize + 1, -sys.maxsize - 2):
            with self.subTest(n=n):
                error = conversion_error(n)
                self.assert_raises_text(type(error), str(error), xo._bench_callback, callback, None, n)
        self.assertEqual(callback.calls, [])

    def test_arguments_can_be_given_by_name_and_none_is_optional(self):
        callback = Recorder()
        self.assertEqual(xo._bench_callback(n=2, code_object=1, callback=callback), 2)
        self.assertEqual(callback.calls, [(1,), (1,)])
        self.assert_raises_text(TypeError, "argument is missing", xo._bench_callback, callback, 1)
        self.assert_raises_text(TypeError, "Excess positional arguments passed to function",
                                xo._bench_callback, callback, 1, 2, 3)
        self.assert_raises_text(TypeError, "Excess keyword arguments passed to function",
                                xo._bench_callback, callback, 1, 2, other=3)


if __name__ == "__main__":
    unittest.main()
