"""`python -m vorntracer`: what is typed and what is shown, and everything that goes beyond the interpreter's pdb."""

import os
import pty
import re
import select
import signal
import subprocess
import sys
import tempfile
import textwrap
import time
import unittest

_FOLLOWS_FORKS = """
    import os
    def in_child():
        marker = 1
        return marker
    pid = os.fork()
    if pid == 0:
        in_child()
        os._exit(3)
    status = os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])
    print("the child's status is", status)
"""

_THREADS = """
    import threading
    def work(number):
        total = 0
        for value in range(3):
            total += value
        return total
    threads = [threading.Thread(target=work, args=(number,), name="worker %d" % number) for number in (1, 2)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    print("done")
"""


class SessionCase(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = os.path.realpath(folder.name)

    def write(self, text, name="program.py"):
        pathname = os.path.join(self.folder, name)
        with open(pathname, "w", encoding="utf-8") as file:
            file.write(textwrap.dedent(text).lstrip("\n"))
        return pathname

    def run_command(self, *words, typed=(), **environment):
        """Run `python` with these words; returns its status, standard output and standard error."""
        result = subprocess.run([sys.executable, *words], input="".join(line + "\n" for line in typed), text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd=self.folder, timeout=60,
                                env=dict(os.environ, HOME=self.folder, **environment))
        return result.returncode, result.stdout, result.stderr

    def debug(self, text, *typed, arguments=(), status=0):
        """Debug a program with what is typed; returns what was shown, without prompts."""
        found, output, errors = self.run_command("-m", "vorntracer", self.write(text), *arguments, typed=typed)
        self.assertEqual((found, errors), (status, ""), output)
        return output.replace("(Pdb) ", "").replace(self.folder + os.sep, "")


class CommandLine(SessionCase):
    def test_help_says_everything_and_asks_for_nothing(self):
        status, output, errors = self.run_command("-m", "vorntracer", "--help")
        self.assertEqual((status, errors), (0, ""))
        for word in ("-p PID", "threads", "hold", "log PLACE", "forks", "PYTHONBREAKPOINT"):
            self.assertIn(word, output)

    def test_without_words_the_help_is_shown(self):
        status, output, errors = self.run_command("-m", "vorntracer")
        self.assertEqual((status, errors), (2, ""))
        self.assertIn("usage: python -m vorntracer", output)

    def test_nothing_but_the_debuggers_own_words_is_shown(self):
        self.assertEqual(self.debug("x = 1\n", "q"), "> program.py(1)<module>()\n-> x = 1\n")

    def test_commands_are_taken_from_the_command_line(self):
        program = self.write("import sys\nprint(sys.argv[1:])\n")
        status, output, errors = self.run_command("-m", "vorntracer", "-c", "b 2", "-c", "c", program, "-c", "x",
                                                  typed=["p 6 * 7", "q"])
        self.assertEqual((status, errors), (0, ""), output)
        self.assertIn("42", output)

    def test_a_module_is_debugged(self):
        self.write("import sys\nvalue = sys.argv\n", "some_module.py")
        status, output, errors = self.run_command("-m", "vorntracer", "-m", "some_module", "word",
                                                  typed=["n", "n", "p value[1:]", "q"])
        self.assertEqual((status, errors), (0, ""), output)
        self.assertIn("['word']", output)

    def test_a_missing_script_is_one_line(self):
        status, output, errors = self.run_command("-m", "vorntracer", "missing.py")
        self.assertEqual(status, 1)
        self.assertEqual(len((output + errors).strip().splitlines()), 1, output + errors)

    def test_what_cannot_be_attached_to_is_one_line(self):
        for words in (["-p", "x"], ["-p"], ["-p", str(2 ** 22 + 1)], ["-p", "1", "script.py"]):
            with self.subTest(words=words):
                status, output, errors = self.run_command("-m", "vorntracer", *words)
                self.assertEqual((status, output), (2, ""))
                self.assertRegex(errors, r"\Avorntracer: [^\n]+\n\Z")

    @unittest.skipIf(sys.version_info >= (3, 14), "this version can attach")
    def test_older_versions_say_that_they_cannot_attach(self):
        self.assertIn("needs Python 3.14", self.run_command("-m", "vorntracer", "-p", "1")[2])

    @unittest.skipIf(sys.version_info < (3, 14), "processes can be attached to from 3.14 on")
    def test_a_running_process_is_attached_to(self):
        program = self.write("""
            import time
            def wait(count):
                while count:
                    time.sleep(0.01)
                    count -= 1
            print("ready", flush=True)
            wait(6000)
        """)
        environment = {name: value for name, value in os.environ.items() if name != "PYTHONPATH"}
        process = subprocess.Popen([sys.executable, program], stdout=subprocess.PIPE, text=True, env=environment)
        try:
            self.assertEqual(process.stdout.readline(), "ready\n")
            status, output, errors = self.run_command(
                "-m", "vorntracer", "-p", str(process.pid),
                typed=["import sys, bdb", "!print(type(sys.monitoring), file=sys.stderr)", "up", "down",
                       "p sys.monitoring.get_tool(4)", "p sys.gettrace()", "!count = 1", "detach", "q"])
            if "cannot be attached to" in errors:
                self.skipTest(errors)
            self.assertEqual((status, errors), (0, ""), output)
            self.assertIn("'vorntracer'", output)
            self.assertEqual(process.wait(timeout=30), 0)
        finally:
            process.kill()
            process.wait()
            process.stdout.close()

    def test_a_program_that_fails_is_looked_at_afterwards_and_ends_started_again(self):
        status, output, errors = self.run_command("-m", "vorntracer", self.write("value = 7\nvalue / 0\n"),
                                                  typed=["c", "p value", "q"])
        self.assertIn("ZeroDivisionError", output + errors)
        self.assertIn("Entering post mortem debugging", output)
        self.assertRegex(output, r"(?m)^\(Pdb\) 7$")

    def test_restart_runs_the_program_anew(self):
        output = self.debug("import sys\nvalue = len(sys.argv)\nx = 1\n", "n", "restart one two", "n", "n", "p value",
                            "q")
        self.assertIn("Restarting", output)
        self.assertIn("\n3\n", output)


class Threads(SessionCase):
    def test_a_breakpoint_stops_in_every_thread(self):
        output = self.debug(_THREADS, "b 3", "c", "p threading.current_thread().name", "c",
                            "p threading.current_thread().name", "c")
        self.assertIn("'worker 1'", output)
        self.assertIn("'worker 2'", output)
        self.assertRegex(output, r"\[thread \d: worker 1\]\n> program.py\(3\)work\(\)")
        self.assertIn("done", output)

    def test_threads_are_listed_and_looked_at(self):
        output = self.debug(_THREADS, "b 4, number == 1", "c", "threads", "thread 1", "p __name__", "u", "thread",
                            "p number", "n", "c")
        self.assertRegex(output, r"(?m)^   1   MainThread +\S+\(\d+\)\w+\(\)$")
        self.assertRegex(output, r"(?m)^-> \d   worker 1 +program.py\(4\)work\(\)$")
        # The step was that of the thread that has the prompt.
        self.assertIn("> program.py(5)work()", output)

    def test_each_thread_goes_on_as_it_was_commanded(self):
        text = """
            import threading
            turn = [threading.Event(), threading.Event()]
            def work():
                turn[0].wait()
                inner = 1
                turn[1].set()
            thread = threading.Thread(target=work)
            thread.start()
            def main():
                turn[0].set()
                turn[1].wait()
                outer = 2
                return outer
            main()
            thread.join()
        """
        output = self.debug(text, "b 5", "b 10", "c", "n", "n", "n", "n", "p outer", "c")
        # The main thread steps over the wait; meanwhile the other one stops at its breakpoint and steps as well.
        self.assertIn("> program.py(5)work()", output)
        self.assertRegex(output, r"> program.py\(1[123]\)main\(\)")

    def test_quitting_in_a_thread_ends_the_program(self):
        output = self.debug(_THREADS, "b 4", "c", "q")
        self.assertNotIn("done", output)

    def test_held_threads_stand_still_and_go_on_afterwards(self):
        text = """
            import threading, time
            count, ended = 0, []
            def work():
                global count
                while not ended:
                    count += 1
            thread = threading.Thread(target=work, daemon=True)
            thread.start()
            def main():
                return 1
            main()
            for _ in range(1000):
                if count > before:
                    break
                time.sleep(0.01)
            print("counted" if count > before else "stood still")
            ended.append(True)
            thread.join()
        """
        output = self.debug(text, "hold on", "hold", "b 10", "c", "!time.sleep(0.3)", "!before = globals()['count']",
                            "!time.sleep(0.3)", "!globals()['before'] = before",
                            "p 'held' if before == globals()['count'] else 'ran'", "c", "q")
        self.assertIn("'held'", output)
        self.assertIn("counted", output)

    def test_an_expression_that_waits_for_a_held_thread_comes_to_an_end(self):
        text = """
            import threading
            asked, answered = threading.Event(), threading.Event()
            def work():
                while not asked.is_set():
                    pass
                answered.set()
            thread = threading.Thread(target=work, daemon=True)
            thread.start()
            def main():
                return 1
            main()
            thread.join()
            print("done")
        """
        started = time.monotonic()
        output = self.debug(text, "hold on", "b 10", "c", "asked.set()", "p answered.wait(30)", "c", "q")
        self.assertIn("the others go on", output)
        self.assertIn("True", output)
        self.assertIn("done", output)
        self.assertLess(time.monotonic() - started, 25)


class BreakpointsAndLogPoints(SessionCase):
    _LOOP = """
        def work(count):
            total = 0
            for number in range(count):
                total += number
            return total
        work(4)
        work(2)
    """

    def test_a_condition_that_fails_stops_and_says_why(self):
        output = self.debug(self._LOOP, "b 4, missing > 1", "c", "q")
        self.assertIn("The condition of breakpoint 1 failed: NameError: name 'missing' is not defined", output)
        self.assertIn("> program.py(4)work()", output)

    def test_a_condition_is_evaluated_once(self):
        text = self._LOOP.replace("work(4)", "seen = []; work(4)")
        output = self.debug(text, "b 4, seen.append(number) or number == 2", "c", "p seen", "q")
        self.assertIn("[0, 1, 2]", output)

    def test_hits_are_counted_and_ignored(self):
        output = self.debug(self._LOOP, "b 4, number >= 1", "ignore 1 2", "c", "p number", "b", "q")
        self.assertIn("\n3\n", output)
        self.assertIn("breakpoint already hit 4 times", output)

    def test_a_one_line_loop_stops_at_its_condition(self):
        output = self.debug("out = []\nfor i in range(5): out.append(i)\n", "b 2, i == 3 and len(out) == 3", "c",
                            "p len(out)", "q")
        # On the first visit of the line there is no `i` yet, and the condition says so.
        self.assertIn("name 'i' is not defined", output)
        output = self.debug("i, out = 0, []\nfor i in range(5): out.append(i)\n", "b 2, i == 3 and len(out) == 4", "c",
                            "p len(out)", "q")
        self.assertIn("\n4\n", output)

    def test_a_log_point_writes_its_text_and_does_not_stop(self):
        output = self.debug(self._LOOP, 'log 4 "at {number}: {total:03}"', "c", "q")
        self.assertEqual(re.findall(r"at \d: \d+", output),
                         ["at 0: 000", "at 1: 000", "at 2: 001", "at 3: 003", "at 0: 000", "at 1: 000"])
        self.assertNotIn("work()", output)

    def test_a_log_point_with_a_condition(self):
        output = self.debug(self._LOOP, "log program.py:4 'got {number}', number > 2", "b", "c", "q")
        self.assertEqual(re.findall(r"got \d", output), ["got 3"])

    def test_a_log_point_that_fails_says_so_and_the_program_goes_on(self):
        output = self.debug(self._LOOP, 'log 5 "{missing}"', "c", "q")
        self.assertEqual(output.count("(log point 1 failed: NameError: name 'missing' is not defined)"), 2)
        self.assertIn("The program finished", output)

    def test_a_log_point_without_a_text_is_refused(self):
        for command in ("log 4", "log 4 total", "log 4 'open", "log 4 '{'"):
            with self.subTest(command=command):
                self.assertRegex(self.debug(self._LOOP, command, "b", "q"), r"\*\*\* log location")


class Coroutines(SessionCase):
    _PROGRAM = """
        import asyncio
        async def child(number):
            await asyncio.sleep(0.005)
            return number + 1
        async def other():
            for _ in range(3):
                await asyncio.sleep(0.001)
        async def main():
            task = asyncio.create_task(other())
            first = await child(1)
            second = await child(first)
            await task
            return first + second
        result = asyncio.run(main())
        print("result", result)
    """

    def test_a_step_over_await_goes_to_the_next_line_of_the_coroutine(self):
        output = self.debug(self._PROGRAM, "b 9", "c", *["n"] * 5, "q")
        self.assertEqual(re.findall(r"> program.py\((\d+)\)(\S+)\(\)", output)[1:],
                         [("9", "main"), ("10", "main"), ("11", "main"), ("12", "main"), ("13", "main"),
                          ("15", "<module>")])

    def test_a_step_from_the_end_of_a_coroutine_goes_to_the_one_that_awaits_it(self):
        output = self.debug(self._PROGRAM, "tbreak 3", "c", *["n"] * 3, "q")
        stops = re.findall(r"> program.py\((\d+)\)(\S+)\(\)", output)[1:]
        self.assertEqual(stops[:2], [("3", "child"), ("4", "child")])
        self.assertEqual(stops[2][1], "main")


class Processes(SessionCase):
    def test_a_forked_child_is_followed(self):
        output = self.debug(_FOLLOWS_FORKS, "b 3", "c", "p 'in the child' if pid == 0 else 'in the parent'", "c", "q")
        self.assertIn("'in the child'", output)
        self.assertRegex(output, r"\[process \d+\]")

    def test_a_forked_child_is_left(self):
        output = self.debug(_FOLLOWS_FORKS, "forks leave", "b 3", "c", "q")
        self.assertIn("the child's status is 3", output)
        self.assertNotIn("in_child()", output)

    def test_a_started_process_is_said_to_run_undebugged_once(self):
        output = self.debug("""
            import subprocess, sys
            for _ in range(2):
                subprocess.run([sys.executable, "-c", "pass"])
            subprocess.run(["true"])
        """, "b 4", "c", "q")
        self.assertEqual(output.count("runs undebugged"), 1)

    def test_another_program_that_is_started_is_none_of_ours(self):
        self.assertNotIn("undebugged", self.debug("import subprocess\nsubprocess.run(['true'])\n", "n", "n", "q"))


class BreakpointsInThePrograms(SessionCase):
    def test_breakpoint_stops_in_the_running_session(self):
        output = self.debug("""
            def work():
                value = 5
                breakpoint()
                value += 1
                return value
            work()
            work()
        """, "c", "p value", "n", "n", "p value", "c", "p value", "q")
        self.assertIn("\n5\n", output)
        self.assertIn("\n6\n", output)
        self.assertNotIn("kill the process", output)

    def test_pdb_set_trace_stops_in_the_running_session(self):
        output = self.debug("import pdb\nvalue = 5\npdb.set_trace()\nvalue = 6\nvalue = 7\n", "b 5", "c", "p value",
                            "c", "p value", "q")
        self.assertEqual(re.findall(r"(?m)^\d$", output), ["5", "6"])

    def test_the_environment_variable_names_our_set_trace(self):
        program = self.write("import sys\nvalue = 5\nbreakpoint()\nvalue = 6\nprint(sys.gettrace(), value)\n")
        status, output, errors = self.run_command(
            program, typed=["n", "p sys.monitoring.get_tool(4)", "c"], PYTHONBREAKPOINT="vorntracer.set_trace")
        self.assertEqual((status, errors), (0, ""), output)
        self.assertIn("'vorntracer'", output)
        self.assertIn("None 6", output)

    def test_a_stock_debugger_works_beside_ours(self):
        """A tool that was built on the interpreter's own `Bdb` before ours was installed, as `doctest` is."""
        output = self.debug("""
            import doctest
            class Stock(__import__("bdb").Bdb.__mro__[1]):
                def user_line(self, frame):
                    lines.append(frame.f_lineno)
            def called():
                value = 1
                return value
            lines = []
            Stock().runcall(called)
            print("stock saw", lines)
            value = 1
        """, "b 11", "c", "p 'stopped'", "q")
        self.assertIn("stock saw [6, 7", output)
        self.assertIn("'stopped'", output)


class Terminal(SessionCase):
    """In a pseudo-terminal, as a person has it."""

    def converse(self, words, conversation):
        """Wait for each text and type what goes with it; returns all that was shown, and the status."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.chdir(self.folder)
            os.environ.update(HOME=self.folder, TERM="dumb", PYTHON_BASIC_REPL="1", NO_COLOR="1")
            os.execv(sys.executable, [sys.executable, *words])
        shown, start = "", 0
        try:
            for wanted, typed in conversation:
                deadline = time.monotonic() + 30
                while wanted not in shown[start:]:
                    ready, _, _ = select.select([terminal], [], [], max(0, deadline - time.monotonic()))
                    self.assertTrue(ready, "{!r} does not come: {}".format(wanted, shown))
                    try:
                        shown += os.read(terminal, 4096).decode("utf-8", "replace")
                    except OSError:  # the other end is closed
                        self.fail("{!r} does not come: {}".format(wanted, shown))
                start = shown.index(wanted, start) + len(wanted)
                if callable(typed):
                    typed(pid)
                else:
                    os.write(terminal, typed.encode())
            deadline = time.monotonic() + 30
            while time.monotonic() < deadline:
                ended, status = os.waitpid(pid, os.WNOHANG)
                if ended:
                    return shown, os.waitstatus_to_exitcode(status)
                if select.select([terminal], [], [], 0.05)[0]:
                    try:
                        shown += os.read(terminal, 4096).decode("utf-8", "replace")
                    except OSError:
                        time.sleep(0.05)
            self.fail("the program does not end: " + shown)
        finally:
            os.close(terminal)
            try:
                os.kill(pid, signal.SIGKILL)
                os.waitpid(pid, 0)
            except (ProcessLookupError, ChildProcessError):
                pass

    def test_a_session_in_a_terminal(self):
        program = self.write("value = 1\nvalue += 1\nprint('value is', value)\n")
        shown, status = self.converse(["-m", "vorntracer", program], [
            ("(Pdb) ", "b 3\n"), ("Breakpoint 1", ""), ("(Pdb) ", "c\n"), ("value is", ""), ("(Pdb) ", "p value\n"),
            ("2", ""), ("(Pdb) ", "q\n")])
        self.assertEqual(status, 0, shown)

    def test_ctrl_c_stops_a_program_that_runs(self):
        program = self.write("""
            import time
            print("running", flush=True)
            count = 0
            while count >= 0:
                count += 1
            print("ended")
        """)
        shown, status = self.converse(["-m", "vorntracer", program], [
            ("(Pdb) ", "c\n"), ("running", lambda pid: (time.sleep(0.2), os.kill(pid, signal.SIGINT))),
            ("(Pdb) ", "!count = -2\n"), ("(Pdb) ", "c\n"), ("(Pdb) ", "q\n")])
        self.assertIn("Program interrupted", shown)
        self.assertIn("ended", shown)
        self.assertEqual(status, 0, shown)


if __name__ == "__main__":
    unittest.main()
