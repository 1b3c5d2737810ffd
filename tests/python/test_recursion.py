"""A callback that comes back to its caller, through native code alone, ends in RecursionError and not in a crash.

No Python frame is made on such a road, so nobody counts but the native functions themselves. Each road runs in a
process of its own: what failed here ended the process.
"""

import unittest

from support import is_sanitized, run_python

BEGINNING = """
import sys, threading
from vorntracer import xoptmonitoring as xo

def expect_recursion_error(call, *args):
    try:
        call(*args)
    except RecursionError:
        return
    raise AssertionError("no RecursionError")

"""


#: The sanitizers need far more of the stack than the limit of recursion allows for. A thread can have that much.
ON_THE_MAIN_THREAD = "" if is_sanitized() else "run()\n"
STACK_SIZE = 1 << 30 if is_sanitized() else 0


class NativeRecursion(unittest.TestCase):

    def survive(self, code):
        """Runs the code, then what has to work after it, on the main thread where that has the room, and on another."""
        run_python(BEGINNING + "def run():\n" + "\n".join(f"    {line}" for line in code.strip().splitlines()) + """
    xo.reset()
    assert xo.CPerFile.GetPerFile("/alive.py").fCanonicalPathname == "/alive.py"
    assert not xo.CPerThread._fRegistryLock.locked()
    xo.reset()

""" + ON_THE_MAIN_THREAD + f"""
threading.stack_size({STACK_SIZE})
ended = []
thread = threading.Thread(target=lambda: ended.append(run()))
thread.start()
thread.join()
assert ended, "failed on the thread"
""")

    def test_a_checksum_callback_that_asks_for_the_checksum(self):
        self.survive("""
xo.set_checksum_callback(xo._get_checksum_for_pathname)
expect_recursion_error(xo._get_checksum_for_pathname, "/a.py")
""")

    def test_a_checksum_callback_that_makes_the_record(self):
        self.survive("""
xo.set_checksum_callback(xo.CPerFile.GetPerFile)
expect_recursion_error(xo.CPerFile.GetPerFile, "/a.py")
""")

    def test_a_checksum_callback_that_is_the_class(self):
        self.survive("""
xo.set_checksum_callback(xo.CPerFile)
expect_recursion_error(xo.CPerFile, "/a.py")
""")

    def test_a_thread_name_callback_that_asks_for_the_name(self):
        self.survive("""
xo.CPerThread.SetGetThreadNameCallback(xo.CPerThread.FindThreadName)
record = xo.CPerThread.GetPerThread()
record.fThreadName = None
expect_recursion_error(record.FindThreadName)
""")

    def test_a_debug_policy_callback_that_asks_for_the_policy(self):
        self.survive("""
record = xo.CPerThread.GetPerThread()
xo.CPerThread.SetDebugPolicyCallback(lambda thread_id: record.GetDebugPolicy())
expect_recursion_error(record.GetDebugPolicy)
""")

    def test_a_second_stage_that_is_the_first(self):
        # The exception goes to the log where that has room to work, some levels further out.
        self.survive("""
logged = []
def log(*args):
    logged.append(sys.exception())
xo.dlog.LogException = log
callback = xo.CInitialCallback.__new__(xo.CInitialCallback)
callback.__init__(xo.kPyStartEventId, callback.Callback, False)
code = (lambda: None).__code__
xo.CPerCodeObject.GetPerCodeObject(code).fSteppingEventsNeededCount = 1
callback.fSteppingEventsNeededEveryThread = True
assert callback.Callback(code, 0) is None
assert logged and isinstance(logged[0], RecursionError), logged
""")


if __name__ == "__main__":
    unittest.main()
