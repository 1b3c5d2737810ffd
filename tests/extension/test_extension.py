"""Modules of other people, written in C against the public header alone, under every interpreter.

The environment variable XOPT_EXTENSIONS names the folder in which they were built. Runs under 2.7 as well.
"""

import gc
import os
import sys
import unittest

sys.path.insert(0, os.environ["XOPT_EXTENSIONS"])

KNOWS_PHASES = sys.version_info >= (3, 5)


class File(object):
    def __init__(self):
        self.text = ""

    def write(self, text):
        self.text += text

    def flush(self):
        pass


class SinglePhase(unittest.TestCase):
    def test_a_module_is_made_in_one_phase(self):
        import single_phase_sample

        self.assertEqual(single_phase_sample.answer(), 42)
        self.assertEqual(single_phase_sample.__name__, "single_phase_sample")
        self.assertEqual(single_phase_sample.answer.__doc__, "Returns the answer.")
        self.assertIs(sys.modules["single_phase_sample"], single_phase_sample)


@unittest.skipUnless(KNOWS_PHASES, "generation 2 makes modules in one phase only")
class MultiPhase(unittest.TestCase):
    def setUp(self):
        self.drop_module()
        import multi_phase_sample

        self.module = multi_phase_sample
        self.addCleanup(self.drop_module)

    def drop_module(self):
        self.module = None
        sys.modules.pop("multi_phase_sample", None)
        gc.collect()

    def test_a_module_is_made_in_two_phases(self):
        self.assertEqual(self.module.__doc__, "A sample.")
        self.assertEqual(self.module.constant, 17)
        self.assertEqual(self.module.tell_version(), sys.version_info[:2])

    def test_each_module_object_has_a_state_of_its_own(self):
        first = self.module
        self.assertEqual([first.count_calls(), first.count_calls()], [1, 2])
        del sys.modules["multi_phase_sample"]
        import multi_phase_sample as second

        self.assertIsNot(first, second)
        self.assertEqual(second.count_calls(), 1)
        self.assertEqual(first.count_calls(), 3)

    def test_a_state_ends_with_its_module(self):
        count = self.module.count_live_states
        before = count()
        del sys.modules["multi_phase_sample"]
        import multi_phase_sample

        self.assertEqual(count(), before + 1)
        del sys.modules["multi_phase_sample"]
        del multi_phase_sample
        gc.collect()
        self.assertEqual(count(), before)

    def test_the_claim_to_need_no_lock_is_heard(self):
        if not hasattr(sys, "_is_gil_enabled"):
            self.skipTest("this interpreter cannot be asked")
        import sysconfig

        if sysconfig.get_config_var("Py_GIL_DISABLED") and os.environ.get("PYTHON_GIL") != "1":
            self.assertFalse(sys._is_gil_enabled())

    def test_objects_are_compared(self):
        class Raising(object):
            def __eq__(self, other):
                raise ValueError("not today")

        self.assertEqual(self.module.compare([1], [1]), 1)
        self.assertEqual(self.module.compare([1], [2]), 0)
        with self.assertRaisesRegex(ValueError, "not today"):
            self.module.compare(Raising(), Raising())

    def test_a_type_is_borrowed(self):
        class Local(object):
            pass

        local = Local()
        before = sys.getrefcount(Local)
        for _ in range(10):
            self.assertIs(self.module.borrow_type(local), Local)
        self.assertEqual(sys.getrefcount(Local), before)

    def test_a_line_is_logged(self):
        file = File()
        code = compile("\n" * 9 + "def run():\n    a = 1\n    yield a\n", "/src/app.py", "exec")
        space = {}
        exec(code, space)
        generator = space["run"]()
        next(generator)
        self.assertEqual(self.module.log_line(file, generator.gi_frame, [1, "two"]), 0)
        self.assertEqual(file.text, "line 12 of run (/src/app.py: 10): [1, 'two']\n")


@unittest.skipIf(KNOWS_PHASES, "this generation knows phases")
class MultiPhaseOnGeneration2(unittest.TestCase):
    def test_a_module_of_two_phases_has_no_entry_point(self):
        with self.assertRaises(ImportError):
            import multi_phase_sample  # noqa: F401


if __name__ == "__main__":
    unittest.main()
