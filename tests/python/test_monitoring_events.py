"""The first stage registered with the real `sys.monitoring`: real code raises real events."""

import contextlib
import gc
import itertools
import sys
import textwrap
import threading
import unittest
import weakref

from event_helpers import EVENT_IDS, EventTestCase, Worker, in_new_thread
from support import NastyError, Recorder, RecordingWriter, xo

CPerCodeObject = xo.CPerCodeObject
CPerThread = xo.CPerThread

#: A function with every kind of event, and a generator that is left through each of its doors.
PROGRAM = """\
def numbers(count):
    for number in range(count):
        sent = yield number
        if sent:
            return sent
    return "end"


def walk(count):
    total = 0
    for number in numbers(count):
        total += number
    return total


def send():
    generator = numbers(5)
    next(generator)
    try:
        generator.send("sent")
    except StopIteration as stop:
        return stop.value


def delegate():
    result = yield from numbers(2)
    yield result


def abandon():
    generator = numbers(5)
    next(generator)
    generator.close()


class Manager:
    def __enter__(self):
        return "entered"

    def __exit__(self, *exception):
        return True


def main():
    with Manager():
        raise ValueError("swallowed")
    return walk(3), send(), list(delegate()), abandon(), sorted([3, 1, 2], key=lambda number: -number)
"""


class Program:
    """Compiled source whose functions can be called, and all of its code objects."""

    def __init__(self, source, filename, **names):
        self.module_code = compile(textwrap.dedent(source), filename, "exec")
        self.names = {"__name__": "program", "__file__": filename, **names}
        exec(self.module_code, self.names)

    def codes(self):
        """The code objects of the program's functions, without the module's own."""
        def inner(code):
            for constant in code.co_consts:
                if isinstance(constant, type(code)):
                    yield constant
                    yield from inner(constant)

        return list(inner(self.module_code))

    def code(self, name):
        (code,) = (code for code in self.codes() if code.co_name == name)
        return code

    def run(self, name="main"):
        return self.names[name]()


class MonitoringTestCase(EventTestCase):

    def setUp(self):
        super().setUp()
        self.tool_id = self.use_tool()
        self.seen = []
        self.callbacks = {}

    def make_program(self, source=PROGRAM, **names):
        pathname = self.write_file(self.make_dir(), "program.py", text=textwrap.dedent(source))
        return Program(source, pathname, **names)

    def note(self, event, result=None):
        """A second callback that notes the event and its arguments."""
        def second(code, *args):
            self.seen.append((event, code.co_name, code.co_firstlineno, *map(repr, args)))
            return result
        return second

    def register(self, *events, second=None, can_return_disable=True):
        """Registers a first stage for each of these events (default: all)."""
        for event in events or EVENT_IDS:
            callback = self.make_callback(EVENT_IDS[event], can_return_disable, second or self.note(event))
            self.callbacks[event] = callback
            sys.monitoring.register_callback(self.tool_id, EVENT_IDS[event], callback.Callback)

    def switch_on(self, program, *events):
        """Switches these events (default: all) on in each function of the program."""
        mask = 0
        for event in events or EVENT_IDS:
            mask |= EVENT_IDS[event]
        for code in program.codes():
            self.set_local_events(self.tool_id, code, mask)

    def know(self, program, *linenos):
        """Lets each function of the program have enabled breakpoints in those lines only."""
        for code in program.codes():
            CPerCodeObject.GetPerCodeObject(code, True, sys._getframe()).fEnabledBpLinenos = set(linenos)

    def count_first_stages(self, action):
        """How often the first stage is called while `action` runs, by its own log."""
        writer = RecordingWriter()
        xo.set_dprintf_file(writer, -1, None)
        xo.set_dprintf_mask(xo.kLogInitialMonitoringCallbacks)
        try:
            action()
        finally:
            xo.set_dprintf_file(None, -1, None)
            xo.set_dprintf_mask(0)
        return sum(text.startswith("Initial callback called for ") for text in writer.texts)


class EveryEventTest(MonitoringTestCase):

    def test_code_whose_breakpoints_are_unknown_passes_on_exactly_what_the_interpreter_reports(self):
        program = self.make_program()
        result = program.run()

        for event, event_id in EVENT_IDS.items():
            sys.monitoring.register_callback(self.tool_id, event_id, self.note(event))
        self.switch_on(program)
        self.assertEqual(program.run(), result)
        reported, self.seen = self.seen, []
        self.assertEqual({event[0] for event in reported}, set(EVENT_IDS))

        self.register()
        self.assertEqual(program.run(), result)
        self.assertEqual(self.seen, reported)

    def test_code_without_breakpoints_passes_on_nothing(self):
        program = self.make_program()
        result = program.run()
        self.know(program)
        self.register()
        self.switch_on(program)
        first_stages = self.count_first_stages(lambda: self.assertEqual(program.run(), result))
        self.assertGreater(first_stages, 30)
        self.assertEqual(self.seen, [])

    def test_only_the_lines_with_breakpoints_are_passed_on(self):
        program = self.make_program()
        self.know(program, 3, 12)
        self.register()
        self.switch_on(program)
        program.run()
        lines = [(event, name, arguments) for event, name, _, *arguments in self.seen]
        self.assertEqual(lines, [("LINE", "numbers", ["3"]), ("LINE", "walk", ["12"])] * 3
                         + [("LINE", "numbers", ["3"])] * 4)

    def test_returns_and_yields_are_passed_on_where_they_are_needed(self):
        program = self.make_program()
        self.know(program)
        record = CPerCodeObject.GetPerCodeObject(program.code("numbers"))
        record.fReturnEventsNeededCount = 1
        self.register()
        self.switch_on(program)
        program.run("send")
        self.assertEqual([(event, name, value) for event, name, _, _, value in self.seen],
                         [("PY_YIELD", "numbers", "0"), ("PY_RETURN", "numbers", "'sent'")])
        self.seen.clear()
        record.fReturnEventsNeededCount = 0
        program.run("send")
        self.assertEqual(self.seen, [])

    def test_a_stepping_thread_sees_the_events_and_other_threads_do_not(self):
        program = self.make_program()
        self.know(program)
        self.register("PY_START")
        self.switch_on(program, "PY_START")
        CPerThread.GetPerThread().fSteppingEventsNeeded = True
        in_new_thread(program.run, "send")
        self.assertEqual(self.seen, [])
        program.run("send")
        self.assertEqual([name for _, name, _, _ in self.seen], ["send", "numbers"])

    def test_a_code_object_that_is_stepped_through_passes_on_each_of_its_lines(self):
        program = self.make_program()
        self.know(program)
        CPerCodeObject.GetPerCodeObject(program.code("send")).fSteppingEventsNeededCount = 1
        self.register("LINE")
        self.switch_on(program, "LINE")
        program.run("send")
        first = program.code("send").co_firstlineno
        self.assertEqual([(name, int(line) - first) for _, name, _, line in self.seen],
                         [("send", offset) for offset in (1, 2, 3, 4, 5, 6)])

    def test_a_thread_that_is_not_debugged_passes_on_nothing(self):
        program = self.make_program()
        CPerThread.SetNewPerThreadCreatedCallback(
            lambda record: setattr(record, "fDebugPolicy", int(record.fThreadId == main)))
        main = threading.get_ident()
        self.register()
        self.switch_on(program)
        in_new_thread(program.run)
        self.assertEqual(self.seen, [])
        program.run()
        self.assertNotEqual(self.seen, [])

    def test_events_of_the_whole_process_reach_the_first_stage(self):
        program = self.make_program()
        wanted = {code.co_name for code in program.codes()}
        self.register("PY_START")
        sys.monitoring.set_events(self.tool_id, EVENT_IDS["PY_START"])
        program.run("send")
        sys.monitoring.set_events(self.tool_id, 0)
        self.assertEqual([name for _, name, _, _ in self.seen if name in wanted], ["send", "numbers"])

    def test_code_that_a_program_compiles_is_seen_as_any_other(self):
        program = self.make_program("""
            def main():
                names = {}
                exec(compile("def inner():\\n    return 5\\n", "<made up>", "exec"), names)
                return names["inner"]()
        """)
        self.register("PY_START")
        sys.monitoring.set_events(self.tool_id, EVENT_IDS["PY_START"])
        self.assertEqual(program.run(), 5)
        sys.monitoring.set_events(self.tool_id, 0)
        self.assertIn(("PY_START", "inner", 1, "0"), self.seen)

    def test_the_file_of_frozen_code_is_that_of_the_frame_that_runs_it(self):
        program = Program("def main():\n    return 1\n", "<frozen program>")
        program.names["__file__"] = "/srv/app/thawed.pyc"
        self.register("LINE")
        self.switch_on(program, "LINE")
        program.run()
        record = CPerCodeObject.GetPerCodeObject(program.code("main"), False)
        self.assertEqual(record.fCanonicalPathname, "/srv/app/thawed.py")
        self.assertIs(record.fUpdatePathnameNeeded, False)

    def test_eight_threads_each_see_their_own_events(self):
        program = self.make_program()
        result = program.run()
        by_thread = {}

        def second(code, *args):
            by_thread.setdefault(threading.get_ident(), []).append((code.co_name, *map(repr, args)))

        self.register(second=second)
        self.switch_on(program)
        workers = [self.enterContext(Worker()) for _ in range(8)]
        calls = [worker.begin(lambda: [program.run() for _ in range(5)]) for worker in workers]
        for call in calls:
            self.assertEqual(call.result(), [result] * 5)
        self.assertEqual(len(by_thread), 8)
        first = next(iter(by_thread.values()))
        self.assertTrue(all(events == first for events in by_thread.values()))
        self.assertEqual(len(CPerThread.GetAllPerThreads()), 8)


class AnnouncementTest(MonitoringTestCase):

    def test_records_are_announced_at_the_first_event_and_in_time_to_filter_it(self):
        program = self.make_program()
        announced = []

        def announce(record):
            announced.append(record.fCodeObjectWeakRef().co_name)
            record.fEnabledBpLinenos = set()

        CPerCodeObject.SetNewPerCodeObjectCreatedCallback(announce)
        self.register()
        self.switch_on(program)
        program.run()
        program.run()
        self.assertEqual(len(announced), len(set(announced)))
        self.assertIn("numbers", announced)
        self.assertEqual(self.seen, [])

    def test_threads_are_announced_and_named_at_their_first_event(self):
        program = self.make_program()
        self.know(program)
        order = []
        CPerThread.SetNewPerThreadCreatedCallback(lambda record: order.append(("new", record.fThreadId)))
        CPerThread.SetGetThreadNameCallback(
            lambda record: order.append(("name", record.fThreadId)) or "named")
        self.register("PY_START")
        self.switch_on(program, "PY_START")
        thread_id = in_new_thread(lambda: program.run() and threading.get_ident())
        self.assertEqual(order, [("new", thread_id), ("name", thread_id)])


class DisableTest(MonitoringTestCase):

    def test_internal_code_raises_each_event_once_and_then_never_again(self):
        program = self.make_program()
        xo.SetInternalPathnameDict({program.names["__file__"]: 1})
        self.register(can_return_disable=True)
        self.switch_on(program)
        first = self.count_first_stages(program.run)
        self.assertGreater(first, 10)
        self.assertEqual(self.count_first_stages(program.run), 0)
        self.assertEqual(self.count_first_stages(lambda: in_new_thread(program.run)), 0)
        sys.monitoring.restart_events()
        self.assertEqual(self.count_first_stages(program.run), first)
        self.assertEqual(self.seen, [])

    def test_internal_code_goes_on_raising_events_where_disabling_is_not_allowed(self):
        program = self.make_program()
        xo.SetInternalPathnameDict({program.names["__file__"]: 1})
        self.register(can_return_disable=False)
        self.switch_on(program)
        first = self.count_first_stages(program.run)
        self.assertGreater(first, 10)
        self.assertEqual(self.count_first_stages(program.run), first)
        self.assertEqual(self.seen, [])

    def test_an_ignored_event_stays_on(self):
        program = self.make_program()
        self.know(program)
        self.register(can_return_disable=True)
        self.switch_on(program)
        first = self.count_first_stages(program.run)
        self.assertEqual(self.count_first_stages(program.run), first)

    def test_switching_internal_code_off_leaves_other_code_on(self):
        internal, ordinary = self.make_program(), self.make_program()
        xo.SetInternalPathnameDict({internal.names["__file__"]: 1})
        self.register("PY_START")
        for program in (internal, ordinary):
            self.switch_on(program, "PY_START")
            program.run("send")
            program.run("send")
        self.assertEqual([name for _, name, _, _ in self.seen], ["send", "numbers"] * 2)

    def test_a_second_callback_may_switch_a_place_off_itself(self):
        program = self.make_program()
        self.register("PY_START", second=self.note("PY_START", sys.monitoring.DISABLE),
                      can_return_disable=False)
        self.switch_on(program, "PY_START")
        program.run("send")
        program.run("send")
        self.assertEqual([name for _, name, _, _ in self.seen], ["send", "numbers"])


class FailingSecondCallbackTest(MonitoringTestCase):

    def test_an_exception_is_logged_each_time_and_the_tool_stays(self):
        program = self.make_program()
        error = NastyError("second")
        self.register("PY_START", second=Recorder(error=error))
        self.switch_on(program, "PY_START")
        name = sys.monitoring.get_tool(self.tool_id)
        for _ in range(3):
            self.assertEqual(program.run("send"), "sent")
            self.assertEqual(self.take_logged(), [error] * 2)
        self.assertEqual(sys.monitoring.get_tool(self.tool_id), name)
        for code in program.codes():
            self.assertEqual(sys.monitoring.get_local_events(self.tool_id, code), EVENT_IDS["PY_START"])

    def test_every_kind_of_exception_in_every_event_leaves_the_program_to_itself(self):
        program = self.make_program()
        result = program.run()
        for error in (NastyError("second"), KeyboardInterrupt(), SystemExit(1), GeneratorExit(),
                      StopIteration("second")):
            with self.subTest(error=error):
                self.register(second=Recorder(error=error))
                self.switch_on(program)
                self.assertEqual(program.run(), result)
                logged = self.take_logged()
                self.assertGreater(len(logged), 30)
                self.assertEqual(set(map(id, logged)), {id(error)})

    def test_a_failing_first_stage_is_logged_and_leaves_the_program_to_itself(self):
        program = self.make_program()
        result = program.run()
        CPerThread.SetGetThreadNameCallback(Recorder(error=NastyError("name")))
        self.register()
        self.switch_on(program)
        self.assertEqual(program.run(), result)
        self.assertGreater(len(self.take_logged()), 30)
        self.assertEqual(self.seen, [])

    def test_a_first_stage_that_is_unregistered_in_its_own_event_dies_after_it(self):
        """Its callable has no other owner: it must live through the call, and no longer."""
        for event, event_id in EVENT_IDS.items():
            with self.subTest(event=event):
                program = self.make_program()
                deaths = []
                for _ in range(5):
                    callback = self.make_callback(event_id, second=lambda *args: sys.monitoring.register_callback(
                        self.tool_id, event_id, None))
                    weakref.finalize(callback, deaths.append, event)
                    sys.monitoring.register_callback(self.tool_id, event_id, callback.Callback)
                    del callback
                    self.switch_on(program, event)
                    program.run()
                gc.collect()
                self.assertEqual(deaths, [event] * 5)

    def test_an_exception_of_the_log_itself_reaches_the_program(self):
        program = self.make_program()
        self.register("PY_START", second=Recorder(error=NastyError("second")))
        self.switch_on(program, "PY_START")
        self.log.error = KeyError("log")
        with self.assertRaises(KeyError) as caught:
            program.run("send")
        self.assertIs(caught.exception, self.log.error)
        self.take_logged()


#: Programs that look at what they are handling; each `main` returns a description of what it saw.
HANDLING = {
    "a bare raise": """
        def main():
            try:
                try:
                    int("x")
                except ValueError:
                    number = 1
                    raise
            except ValueError as error:
                return str(error), number, depth(error), describe(sys.exception())
        """,
    "the exception being handled": """
        def look():
            before = sys.exception()
            place = 1
            return describe(before), before is sys.exception(), sys.exc_info()[1] is before, place

        def main():
            seen = [look()]
            try:
                raise KeyError("handled")
            except KeyError:
                seen.append(look())
                seen.append(look())
            seen.append(look())
            return seen
        """,
    "nested except blocks": """
        def main():
            seen = []
            try:
                raise KeyError("outer")
            except KeyError:
                seen.append(describe(sys.exception()))
                try:
                    raise ValueError("inner")
                except ValueError:
                    seen.append(describe(sys.exception()))
                    try:
                        raise
                    except ValueError:
                        seen.append(describe(sys.exception()))
                seen.append(describe(sys.exception()))
            seen.append(describe(sys.exception()))
            return seen
        """,
    "an exception that a generator handles as its caller does": """
        def main():
            seen = []
            error = KeyError("of both")

            def generate():
                try:
                    raise error
                except KeyError:
                    yield sys.exception() is error
                    seen.append(sys.exception() is error)
                    yield "with the caller"
                    seen.append(describe(sys.exception()))
                    try:
                        raise
                    except KeyError as again:
                        seen.append(again is error)
                    yield "alone"
                seen.append(describe(sys.exception()))
                yield "after"

            generator = generate()
            seen.append(next(generator))
            try:
                raise error
            except KeyError:
                seen.append(next(generator))
                seen.append(sys.exception() is error)
            seen.append(describe(sys.exception()))
            seen.append(next(generator))
            seen.append(next(generator))
            seen.append(describe(sys.exception()))
            return seen
        """,
    "an exception that a generator's caller alone handles": """
        def main():
            seen = []
            error = KeyError("of the caller")

            def generate():
                seen.append(sys.exception() is error)
                yield "with the caller"
                seen.append(describe(sys.exception()))
                try:
                    raise
                except RuntimeError as none:
                    seen.append(str(none))
                yield "alone"

            generator = generate()
            try:
                raise error
            except KeyError:
                seen.append(next(generator))
                seen.append(sys.exception() is error)
            seen.append(next(generator))
            seen.append(describe(sys.exception()))
            return seen
        """,
    "the context of later exceptions": """
        def main():
            seen = []
            try:
                raise KeyError("first")
            except KeyError:
                try:
                    number = 1
                    raise ValueError("second")
                except ValueError as error:
                    seen.append(describe(error))
            try:
                raise ValueError("alone", number)
            except ValueError as error:
                seen.append(describe(error))
            try:
                try:
                    raise KeyError("cause")
                except KeyError as cause:
                    raise ValueError("effect") from cause
            except ValueError as error:
                seen.append((describe(error), describe(error.__cause__)))
            return seen
        """,
    "a generator that handles an exception across its yields": """
        def numbers():
            try:
                raise KeyError("in the generator")
            except KeyError:
                yield describe(sys.exception())
                yield describe(sys.exception())
                try:
                    raise
                except KeyError as error:
                    yield describe(error)
            yield describe(sys.exception())

        def main():
            seen = []
            try:
                raise ValueError("around the generator")
            except ValueError:
                for value in numbers():
                    seen.append((value, describe(sys.exception())))
            for value in numbers():
                seen.append((value, describe(sys.exception())))
            return seen
        """,
    "a generator into which an exception is thrown": """
        def catch():
            seen = []
            while True:
                try:
                    yield seen
                except KeyError as error:
                    place = 1
                    seen.append((describe(error), describe(sys.exception()), place))
                except GeneratorExit:
                    seen.append(describe(sys.exception()))
                    raise

        def main():
            generator = catch()
            seen = next(generator)
            generator.throw(KeyError("thrown"))
            try:
                raise ValueError("around")
            except ValueError:
                generator.throw(KeyError("thrown again"))
                seen.append(describe(sys.exception()))
            generator.close()
            return seen
        """,
    "a context manager made of a generator": """
        @contextlib.contextmanager
        def managed(seen):
            try:
                yield
            except KeyError as error:
                seen.append(("swallowed", describe(error), describe(sys.exception())))
            except ValueError:
                seen.append(("raised again", describe(sys.exception())))
                raise
            finally:
                seen.append(("finally", describe(sys.exception())))

        def main():
            seen = []
            with managed(seen):
                raise KeyError("inside")
            try:
                with managed(seen):
                    try:
                        raise KeyError("before")
                    except KeyError:
                        raise ValueError("inside")
            except ValueError as error:
                seen.append((describe(error), depth(error)))
            with contextlib.suppress(IndexError):
                [][1]
            with contextlib.ExitStack() as stack:
                stack.enter_context(managed(seen))
                stack.callback(lambda: seen.append(describe(sys.exception())))
                raise KeyError("in the stack")
            seen.append(describe(sys.exception()))
            return seen
        """,
    "finally blocks and returns out of them": """
        def leave(seen):
            try:
                raise KeyError("dropped")
            except KeyError:
                return 1
            finally:
                seen.append(describe(sys.exception()))

        def loop(seen):
            for number in range(3):
                try:
                    if number == 1:
                        raise KeyError(number)
                    continue
                except KeyError:
                    break
                finally:
                    seen.append((number, describe(sys.exception())))

        def main():
            seen = []
            seen.append(leave(seen))
            loop(seen)
            try:
                try:
                    raise ValueError("through")
                finally:
                    seen.append(describe(sys.exception()))
            except ValueError as error:
                seen.append((describe(error), depth(error)))
            return seen
        """,
    "an exception group": """
        def main():
            seen = []
            try:
                try:
                    raise ExceptionGroup("group", [KeyError("key"), ValueError("value"), TypeError("type")])
                except* KeyError:
                    seen.append(describe(sys.exception()))
                except* ValueError as group:
                    seen.append(describe(group))
                    raise
            except ExceptionGroup as group:
                seen.append([describe(error) for error in group.exceptions])
            return seen
        """,
    "an exception that leaves many frames": """
        def fall(levels):
            if levels == 0:
                raise KeyError("bottom")
            try:
                fall(levels - 1)
            finally:
                place = levels

        def main():
            try:
                fall(10)
            except KeyError as error:
                return describe(error), depth(error)
        """,
    "coroutines": """
        class Suspend:
            def __await__(self):
                yield describe(sys.exception())

        async def work(seen):
            try:
                raise KeyError("awaited")
            except KeyError:
                await Suspend()
                seen.append(describe(sys.exception()))
                raise

        async def outer(seen):
            try:
                await work(seen)
            except KeyError as error:
                seen.append((describe(error), depth(error)))
                await Suspend()
                seen.append(describe(sys.exception()))

        def main():
            seen = []
            coroutine = outer(seen)
            while True:
                try:
                    seen.append(coroutine.send(None))
                except StopIteration:
                    return seen
        """,
    "except blocks that delete and print": """
        class Loud:
            def __del__(self):
                self.seen.append(describe(sys.exception()))

        def main():
            Loud.seen = seen = []
            loud = Loud()
            try:
                raise KeyError("handled")
            except KeyError:
                del loud
                try:
                    assert not seen, "asserted"
                except AssertionError as error:
                    seen.append(describe(error))
            return seen
        """,
}


class HandledExceptionTest(MonitoringTestCase):
    """A program must not notice that the debugger handles exceptions of its own in between."""

    def make_handling_program(self, source):
        def describe(error):
            if error is None:
                return None
            return (type(error).__name__, str(error), describe(error.__context__), describe(error.__cause__),
                    error.__suppress_context__)

        def depth(error):
            traceback, lines = error.__traceback__, []
            while traceback is not None:
                lines.append((traceback.tb_frame.f_code.co_name, traceback.tb_lineno))
                traceback = traceback.tb_next
            return lines

        return self.make_program(source, sys=sys, contextlib=contextlib, describe=describe, depth=depth)

    def check(self, second, events=EVENT_IDS, run=lambda program: program.run()):
        for name, source in HANDLING.items():
            for event in (None, *events):
                with self.subTest(program=name, event=event or "all"):
                    expected = self.make_handling_program(source).run()
                    self.assertNotEqual(expected, [])
                    program = self.make_handling_program(source)
                    chosen = (event,) if event else tuple(events)
                    self.register(*chosen, second=second)
                    self.switch_on(program, *chosen)
                    self.assertEqual(run(program), expected)
                    self.assertIsNone(sys.exception())

    def test_failing_second_callbacks_are_not_noticed(self):
        self.check(Recorder(error=NastyError("second")))
        self.assertGreater(len(self.take_logged()), 100)

    def test_second_callbacks_that_fail_while_they_handle_an_exception_are_not_noticed(self):
        def second(code, *args):
            try:
                raise LookupError("the debugger's first")
            except LookupError:
                raise NastyError("the debugger's second")

        self.check(second)
        logged = self.take_logged()
        self.assertGreater(len(logged), 100)
        self.assertEqual({type(error.__context__) for error in logged}, {LookupError})

    def test_second_callbacks_that_swallow_their_exceptions_are_not_noticed(self):
        def second(code, *args):
            try:
                raise LookupError("the debugger's own")
            except LookupError:
                self.seen.append(args)

        self.check(second)
        self.assertGreater(len(self.seen), 100)

    def test_an_exception_with_a_new_object_each_time_is_not_noticed(self):
        numbers = itertools.count()

        def second(code, *args):
            raise NastyError(next(numbers))

        self.check(second)
        logged = [error.args[0] for error in self.take_logged()]
        self.assertEqual(logged, list(range(len(logged))))

    def test_failing_look_ups_are_not_noticed(self):
        CPerThread.SetGetThreadNameCallback(Recorder(error=NastyError("name")))
        self.check(Recorder())
        self.assertGreater(len(self.take_logged()), 100)

    def test_failing_second_callbacks_are_not_noticed_on_another_thread(self):
        self.check(Recorder(error=NastyError("second")), events=("LINE",),
                   run=lambda program: in_new_thread(program.run))
        self.assertGreater(len(self.take_logged()), 100)

    def test_the_log_sees_the_failure_and_behind_it_what_the_program_handles(self):
        program = self.make_handling_program("""
            def main():
                try:
                    raise KeyError("handled")
                except KeyError as error:
                    return error
        """)
        handled_line = 6
        self.register("LINE", second=Recorder(error=NastyError("second")))
        self.switch_on(program, "LINE")
        self.know(program, handled_line)
        handled = program.run()
        self.assertIsInstance(handled, KeyError)
        self.assertIs(self.take_logged_one(NastyError).__context__, handled)
        self.assertIsNone(handled.__context__)


if __name__ == "__main__":
    unittest.main()
