"""The interpreter's own sum of all references stays level, over every operation of the module.

Only a debug interpreter keeps that sum. It sees what watching chosen objects cannot: a reference too many to an
object that nobody thought of, or to one that is new each time. The operations are those of `test_leaks`.
"""

import ctypes
import gc
import sys
import sysconfig
import unittest

import test_leaks
from code_helpers import frees_code_objects
from support import XoTestCase

REPEAT_COUNT = 40
WARM_UP_COUNT = 20

#: The sum also moves by itself: `weakref.finalize` alone lets it sink for a thousand calls or so, then it stands. What
#: moves it with each call never stands, so it is enough that it stands still at last, for this many batches of calls.
LEVEL_BATCHES = 2
MOST_BATCHES = 60


def growth_of_a_batch(repeat):
    """By how much a batch of calls has let the sum grow."""
    gc.collect()
    before = sys.gettotalrefcount()
    for _ in range(REPEAT_COUNT):
        repeat()
    gc.collect()
    return sys.gettotalrefcount() - before


class WhereThereIsASumTest(unittest.TestCase):

    def test_debug_builds_and_no_others_add_their_references_up(self):
        # So that the suite below is not passed over where it could run.
        is_debug_build = bool(sysconfig.get_config_var("Py_DEBUG") or sysconfig.get_config_var("Py_REF_DEBUG"))
        self.assertEqual(hasattr(sys, "gettotalrefcount"), is_debug_build)


@unittest.skipUnless(hasattr(sys, "gettotalrefcount"), "this interpreter does not add its references up")
class TotalReferencesTest(XoTestCase):
    """One test for each operation; they are entered below."""

    def check_level(self, repeat, _watched, most_batches=MOST_BATCHES):
        for _ in range(WARM_UP_COUNT):
            repeat()
        growths = []
        while len(growths) < most_batches:
            growths.append(growth_of_a_batch(repeat))
            # One reference with each call would be as many as there are calls.
            last = growths[-LEVEL_BATCHES:]
            if len(last) == LEVEL_BATCHES and max(map(abs, last)) < REPEAT_COUNT // 4:
                return
        self.fail(f"the sum of all references moves with each {REPEAT_COUNT} calls by {growths}")

    def test_a_reference_lost_with_each_call_is_seen(self):
        take = ctypes.pythonapi.Py_IncRef
        take.argtypes, take.restype = [ctypes.py_object], None
        kept = object()
        for repeat in (lambda: take(kept), lambda: take(object())):
            with self.assertRaisesRegex(AssertionError, "moves with each 40 calls by .4[0-9],"):
                self.check_level(repeat, [], 5)

    def test_a_reference_given_back_too_often_with_each_call_is_seen(self):
        take, give_back = ctypes.pythonapi.Py_IncRef, ctypes.pythonapi.Py_DecRef
        for change in (take, give_back):
            change.argtypes, change.restype = [ctypes.py_object], None
        kept = object()
        for _ in range(WARM_UP_COUNT + 5 * REPEAT_COUNT):
            take(kept)
        with self.assertRaisesRegex(AssertionError, "moves with each 40 calls by .-3[0-9],"):
            self.check_level(lambda: give_back(kept), [], 5)


def _make_test(build, needs_code_death):
    def test(self):
        self.check_level(*build(self))

    return frees_code_objects(test) if needs_code_death else test


for _build, _names, _needs_code_death in test_leaks.operations:
    setattr(TotalReferencesTest, f"test_{_build.__name__}_leaves_the_sum_level",
            _make_test(_build, _needs_code_death))


if __name__ == "__main__":
    unittest.main()
