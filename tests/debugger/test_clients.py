"""Tools that are built on the interpreter's debugger work on ours, each in a terminal: ipdb, IPython's, and pytest's.

They are Debian's packages, for the interpreter that is Debian's default; that is the one they are run under.
"""

import os
import pathlib
import sys
import unittest

import test_session

_PACKAGES = pathlib.Path(sys.executable).resolve().parents[1] / "lib" / "python3" / "dist-packages"


def _default_version():
    """The version that Debian's packages are for, as (major, minor); None where there are none."""
    launcher = _PACKAGES.parents[2] / "debian" / "usr" / "bin" / "python3"
    if not (_PACKAGES / "ipdb").is_dir() or not launcher.is_symlink():
        return None
    return tuple(map(int, os.readlink(launcher).removeprefix("python").split(".")))


class Clients(test_session.Terminal):
    def setUp(self):
        super().setUp()
        if _default_version() != sys.version_info[:2]:
            self.skipTest("Debian has these packages for another interpreter")

    def converse(self, words, conversation):
        old_path = os.environ["PYTHONPATH"]
        os.environ["PYTHONPATH"] = os.pathsep.join([old_path, str(_PACKAGES)])
        os.environ["IPYTHONDIR"] = self.folder
        try:
            return super().converse(words, conversation)
        finally:
            os.environ["PYTHONPATH"] = old_path
            del os.environ["IPYTHONDIR"]

    # What the terminal itself is tested with is not tested here once more.
    test_a_session_in_a_terminal = test_ctrl_c_stops_a_program_that_runs = None

    def test_ipdb_stops_steps_and_goes_on(self):
        program = self.write("""
            import sys
            import vorntracer.pdb
            vorntracer.pdb.install()
            import ipdb
            def work(count):
                total = 0
                for number in range(count):
                    total += number
                return total
            ipdb.set_trace()
            work(4)
            print("ended", sys.gettrace())
        """)
        shown, status = self.converse([program], [
            ("ipdb>", "b 8, number == 3\n"), ("ipdb>", "c\n"), ("ipdb>", "p (total, 'here')\n"), ("(3, 'here')", ""),
            ("ipdb>", "p sys.monitoring.get_tool(4)\n"), ("'vorntracer'", ""), ("ipdb>", "n\n"), ("ipdb>", "c\n")])
        self.assertEqual(status, 0, shown)
        self.assertIn("ended None", shown)

    def test_pytest_looks_at_a_failed_test_with_our_debugger(self):
        program = self.write("""
            def test_that_fails():
                value = 41
                assert value == 42
        """, "test_program.py")
        shown, status = self.converse(
            ["-m", "pytest", "-p", "no:cacheprovider", "--pdb", "--pdbcls=vorntracer.pdb:Pdb", program],
            [("(Pdb) ", "p (value, 'here')\n"), ("(41, 'here')", ""), ("(Pdb) ", "q\n")])
        self.assertIn("1 failed", shown)

    def test_breakpoint_in_a_test_stops_in_our_debugger(self):
        program = self.write("""
            def test_that_passes():
                value = 41
                breakpoint()
                value += 1
                assert value == 42
        """, "test_program.py")
        shown, status = self.converse(
            ["-m", "pytest", "-p", "no:cacheprovider", "--pdbcls=vorntracer.pdb:Pdb", program],
            [("(Pdb) ", "n\n"), ("(Pdb) ", "import sys\n"), ("(Pdb) ", "p sys.monitoring.get_tool(4)\n"),
             ("'vorntracer'", ""), ("(Pdb) ", "c\n")])
        self.assertIn("1 passed", shown)
        self.assertEqual(status, 0, shown)


if __name__ == "__main__":
    unittest.main()
