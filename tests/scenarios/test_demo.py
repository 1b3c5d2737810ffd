"""The demo as a person runs it: stops, steps, a return value, the table, and answers to wrong commands."""

import csv
import inspect
import json
import os
import pathlib
import re
import subprocess
import sys
import unittest

from support import PACKAGE_DIR, XoTestCase, time_limit

ROOT = pathlib.Path(__file__).resolve().parents[2]

SCRIPT = """\
import sys
import threading
from neighbour import double

def greet(name, times=2):
    "Says hello."
    greeting = "hello " + name
    return greeting * double(times)

class Unshowable:
    def __repr__(self):
        raise RuntimeError("not to be shown")

def hide(thing):
    return thing

if __name__ == "__main__":
    print("arguments", sys.argv[1:], __file__)
    thread = threading.Thread(target=greet, args=("thread",), name="greeter")
    thread.start()
    thread.join()
    hide(Unshowable())
    if "fail" in sys.argv:
        raise KeyError("on purpose")
    sys.exit(3)
"""


class DemoCase(XoTestCase):

    def setUp(self):
        super().setUp()
        self.folder = self.make_dir()
        self.script = self.write_file(self.folder, "script.py", text=SCRIPT)
        self.write_file(self.folder, "neighbour.py", text="def double(n):\n    return 2 * n\n")

    def run_demo(self, *words, status=0, folder=ROOT):
        environment = dict(os.environ, PYTHONPATH=PACKAGE_DIR, PYTHONIOENCODING="utf-8")
        command = [sys.executable, "-X", "faulthandler", "-m", "vorntracer.demo", *map(str, words)]
        done = subprocess.run(command, cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                              capture_output=True, encoding="utf-8", timeout=time_limit(120))
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done

    def stops_in(self, output):
        """A (reason, pathname, lineno, function, source line) for each stop."""
        pattern = r"^\[\d+\] (.+) in (.+), line (\d+), (.+) \((.+)\)\n +\3 \| (.*)$"
        return [(reason, pathname, int(lineno), function, line)
                for reason, pathname, lineno, function, _, line in re.findall(pattern, output, re.MULTILINE)]

    def table_in(self, output):
        """The rows of the table, as {event: [seen, answered None, answered DISABLE, second stage]}."""
        pattern = r"^(PY_\w+|LINE|JUMP|total) +(\d+) +(\d+) +(\d+) +(\d+)"
        return {name: [int(number) for number in numbers]
                for name, *numbers in re.findall(pattern, output, re.MULTILINE)}


class WithoutAScript(DemoCase):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        case = cls("run_demo")
        case.setUp()
        try:
            done = case.run_demo()
            cls.output, cls.errors = done.stdout, done.stderr
        finally:
            case.doCleanups()

    def test_it_has_nothing_to_complain_of(self):
        self.assertEqual(self.errors, "")

    def test_it_stops_in_library_code_and_shows_the_line_as_it_stands_in_the_file(self):
        stops = self.stops_in(self.output)
        breakpoint_functions = {function for reason, _, _, function, _ in stops if reason == "breakpoint"}
        self.assertEqual(breakpoint_functions, {
            "DictReader.__next__", "JSONDecoder.raw_decode", "TextWrapper._wrap_chunks"})
        for _, pathname, lineno, _, line in stops:
            with open(pathname, encoding="utf-8") as file:
                self.assertEqual(line, file.readlines()[lineno - 1].strip())
        files = {os.path.realpath(pathname) for _, pathname, _, _, _ in stops}
        self.assertIn(os.path.realpath(csv.__file__), files)
        self.assertIn(os.path.realpath(inspect.getsourcefile(json.JSONDecoder)), files)

    def test_it_takes_steps_into_and_over(self):
        stops = self.stops_in(self.output)
        self.assertEqual([(reason, function) for reason, _, _, function, _ in stops[:6]], [
            ("breakpoint", "DictReader.__next__"),
            ("step", "DictReader.__next__"),
            ("step", "DictReader.fieldnames"),
            ("step", "DictReader.fieldnames"),
            ("return", "DictReader.fieldnames"),
            ("breakpoint", "DictReader.__next__"),
        ])

    def test_it_shows_variables_and_return_values(self):
        self.assertIn("    return value: ('countries', 'coordinates', 'zone', 'comments')\n", self.output)
        self.assertRegex(self.output, r"\n +idx = 0\n")
        self.assertRegex(self.output, r"\n +chunks = \['Africa:', ' ', ")

    def test_the_script_prints_what_it_prints_without_the_demo(self):
        done = subprocess.run([sys.executable, ROOT / "demo" / "reformat.py"], capture_output=True,
                              encoding="utf-8", env=dict(os.environ, PYTHONIOENCODING="utf-8"))
        lines = done.stdout.splitlines()
        self.assertGreater(len(lines), 5)
        self.assertEqual([line for line in self.output.splitlines() if line in lines], lines)

    def test_the_table_accounts_for_every_event(self):
        table = self.table_in(self.output)
        self.assertEqual(list(table), ["PY_START", "PY_RESUME", "PY_THROW", "LINE", "JUMP", "PY_RETURN", "PY_YIELD",
                                       "PY_UNWIND", "total"])
        for name, (seen, none, disable, second_stage) in table.items():
            self.assertEqual(seen, none + disable + second_stage, name)
        columns = list(zip(*[row for name, row in table.items() if name != "total"]))
        self.assertEqual([sum(column) for column in columns], table["total"])
        self.assertGreater(table["LINE"][3], 5)
        self.assertGreater(table["total"][2], 0)
        # The script makes some hundred thousand calls. A place of no interest is seen once after each stop.
        self.assertGreater(table["PY_START"][0], 50)
        self.assertLess(table["PY_START"][0], 2000)

    def test_the_table_has_the_cost_of_a_skipped_event(self):
        costs = re.findall(r"^(?:PY_START|LINE) .* (\d+\.\d)$", self.output, re.MULTILINE)
        self.assertEqual(len(costs), 2)
        for cost in costs:
            self.assertGreater(float(cost), 0)
        self.assertRegex(self.output, r"a callback that does nothing takes \d+\.\d ns\.")

    def test_it_runs_from_any_folder_of_a_built_project(self):
        if pathlib.Path(PACKAGE_DIR).resolve().parents[1] != ROOT / "build":
            self.skipTest("the package under test is not in the build folder of this project")
        stops = self.stops_in(self.run_demo(folder=self.folder).stdout)
        self.assertEqual(len(stops), len(self.stops_in(self.output)))


class WithAScript(DemoCase):

    def test_it_stops_where_it_is_told_to(self):
        lineno = SCRIPT.splitlines().index('    greeting = "hello " + name') + 1
        output = self.run_demo(self.script, "--break", f"{self.script}:{lineno}", status=3).stdout
        stops = self.stops_in(output)
        self.assertEqual(stops[0], ("breakpoint", self.script, lineno, "greet", 'greeting = "hello " + name'))
        self.assertEqual([stop[3] for stop in stops], ["greet", "greet", "double", "double", "greet"])
        self.assertIn("(greeter)", output)
        self.assertIn("    return value: 4\n", output)
        self.assertRegex(output, r"\n +name = 'thread'\n +times = 2\n")

    def test_a_function_stands_for_its_first_line_after_the_doc_string(self):
        output = self.run_demo(self.script, "--break", f"{self.script}:greet", status=3).stdout
        self.assertEqual(self.stops_in(output)[0][4], 'greeting = "hello " + name')

    def test_files_of_the_library_and_beside_the_script_are_found(self):
        output = self.run_demo("--break", "neighbour.py:double", self.script, "--break", "threading.py:1",
                               status=3).stdout
        self.assertEqual(self.stops_in(output)[0][1:4],
                         (os.path.join(self.folder, "neighbour.py"), 2, "double"))

    def test_the_scripts_arguments_and_status_are_its_own(self):
        words = [self.script, "one", "--two", "--break", f"{self.script}:greet", "--", "--break"]
        output = self.run_demo(*words, status=3).stdout
        self.assertIn(f"arguments ['one', '--two', '--break'] {self.script}\n", output)

    def test_a_script_without_breakpoints_runs_and_gets_its_table(self):
        output = self.run_demo(self.script, status=3).stdout
        self.assertEqual(self.stops_in(output), [])
        self.assertIn("total", self.table_in(output))

    def test_a_breakpoint_that_was_never_reached_is_named(self):
        words = [self.script, "--break", f"{self.script}:greet", "--break", f"{self.script}:4"]
        output = self.run_demo(*words, status=3).stdout
        never_reached = re.findall(r"^Never reached: the breakpoint in (.+), line (\d+)$", output, re.MULTILINE)
        self.assertEqual(never_reached, [(os.path.realpath(self.script), "4")])

    def test_an_exception_of_the_script_is_shown_and_the_table_comes_all_the_same(self):
        done = self.run_demo(self.script, "fail", status=1)
        self.assertIn("KeyError: 'on purpose'", done.stderr)
        self.assertNotIn("demo.py", done.stderr)
        self.assertIn("total", self.table_in(done.stdout))

    def test_a_variable_that_cannot_be_shown_is_named(self):
        output = self.run_demo(self.script, "--break", f"{self.script}:hide", status=3).stdout
        self.assertRegex(output, r"\n +thing = <Unshowable instance at 0x\w+>\n")

    def test_a_breakpoint_is_taken_away_after_its_hits(self):
        for hits, expected in ((1, 1), (2, 2), (0, 20)):
            with self.subTest(hits):
                script = self.write_file(self.folder, "loop.py", text="for i in range(20):\n    j = i\n")
                output = self.run_demo("--hits", hits, script, "--break", f"{script}:2").stdout
                reasons = [reason for reason, *_ in self.stops_in(output)]
                self.assertEqual(reasons.count("breakpoint"), expected)
                self.assertEqual("is taken away" in output, hits != 0)


class WrongCommands(DemoCase):

    def assert_refused(self, text, *words, **options):
        done = self.run_demo(*words, status=2, **options)
        self.assertIn(text, done.stderr)
        self.assertEqual(done.stdout, "")

    def test_each_is_told_in_a_line_what_is_wrong(self):
        self.assert_refused("there is no script '/no/such/script.py'", "/no/such/script.py")
        self.assert_refused("there is no option --brake", "--brake", "x")
        self.assert_refused("--break needs a value", self.script, "--break")
        self.assert_refused("--hits needs a number, not 'x'", "--hits", "x")
        self.assert_refused("FILE:LINE or FILE:FUNCTION, not '12'", self.script, "--break", "12")
        self.assert_refused("there is no file 'no/such.py'", self.script, "--break", "no/such.py:1")
        self.assert_refused("there is no function 'missing'",
                            self.script, "--break", f"{self.script}:missing")
        self.assert_refused("there is no function 'greet.missing'",
                            self.script, "--break", f"{self.script}:greet.missing")
        for lineno in (0, 999):
            self.assert_refused(f"there is no line {lineno} in {self.script}, which has ",
                                self.script, "--break", f"{self.script}:{lineno}")

    def test_a_file_that_is_no_python_is_told_with_its_line(self):
        broken = self.write_file(self.folder, "broken.py", text="def greet(:\n    pass\n")
        alone = self.write_file(self.folder, "alone.py", text="return\n")
        for file, *words in ([broken], [alone], [broken, self.script, "--break", f"{broken}:greet"]):
            done = self.run_demo(*(words or [file]), status=2)
            self.assertIn(f'File "{file}", line 1', done.stderr)
            self.assertNotIn("Traceback", done.stderr)

    def test_help_tells_how_it_is_used(self):
        self.assertIn("--break FILE:WHERE", self.run_demo("--help").stdout)


if __name__ == "__main__":
    unittest.main()
