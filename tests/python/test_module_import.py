"""Importing the module: what it asks for and in what order, what a failure leaves, executing it twice."""

import builtins
import gc
import importlib
import os
import shutil
import sys
import tempfile
import types
import unittest
from unittest import mock

import interface
from support import BARE_MODULE_MESSAGE, HostPackage, NastyError, XoTestCase, raising, run_python, xo

STANDARD = ["ctypes", "os", "sys", "threading", "time", "traceback", "types", "weakref", "typing"]


class HostCase(XoTestCase):

    def make_host(self, **companions):
        """A host package that this process finds until the test ends."""
        host = HostPackage(**companions)
        self.addCleanup(host.close)
        context = host.importable()
        context.__enter__()
        self.addCleanup(context.__exit__, None, None, None)
        return host

    def assert_nothing_is_left_of(self, host):
        """Nothing of a failed import is registered, and no half-made module object lives on."""
        self.assertNotIn(host.module_name, sys.modules)
        self.assertFalse(hasattr(sys.modules[host.name], "xoptmonitoring"))
        gc.collect()
        left = [found for found in gc.get_objects()
                if type(found).__name__ == "_ModuleSubclass_xoptmonitoring"
                and getattr(found, "__package__", None) == host.name]
        self.assertEqual(left, [])

    def assert_import_works(self, host):
        module = host.import_module()
        self.assertIs(sys.modules[host.module_name], module)
        self.assertEqual(module.register_canonical_pathname("/a.py"), "/a.py")
        for name, _kind in interface.MODULE_ATTRIBUTES:
            getattr(module, name)


class AskedFor(HostCase):
    """The calls of the built-in `__import__` that one execution of the module makes."""

    def record_imports(self, host):
        calls, depth = [], [0]
        real = builtins.__import__

        def recording(*args, **kwargs):
            # The import system has imports of its own.
            asking = args[1].get("__name__", "") if len(args) > 1 and args[1] else ""
            if depth[0] == 0 and not asking.startswith("importlib."):
                calls.append((args, kwargs))
            depth[0] += 1  # what an imported module imports itself is not at issue
            try:
                return real(*args, **kwargs)
            finally:
                depth[0] -= 1

        importlib.import_module(host.name)
        with mock.patch.object(builtins, "__import__", recording):
            module = host.import_module()
        return module, calls

    def bind(self, call):
        """Name, globals, locals, from-list and level of one call."""
        args, kwargs = call
        names = ("name", "globals", "locals", "fromlist", "level")
        values = {"globals": None, "locals": None, "fromlist": (), "level": 0}
        values.update(zip(names, args), **kwargs)
        return [values[name] for name in names]

    def test_the_modules_are_imported_in_order(self):
        _module, calls = self.record_imports(self.make_host())
        self.assertEqual([self.bind(call)[0] for call in calls], [*STANDARD, "", "vornbase"])

    def test_on_windows_the_support_module_comes_last(self):
        self.set_platform("win32")
        _module, calls = self.record_imports(self.make_host(win32="", dlog="", dbgpythonapi=""))
        self.assertEqual([self.bind(call)[0] for call in calls], [*STANDARD, "", "vornbase", "vornbase"])
        self.assertEqual(list(self.bind(calls[-1])[3]), ["win32"])

    def test_the_standard_modules_are_imported_by_their_name_alone(self):
        _module, calls = self.record_imports(self.make_host())
        self.assertEqual(calls[:9], [((name,), {}) for name in STANDARD])

    def test_the_sibling_is_imported_relative_to_the_modules_own_package(self):
        host = self.make_host()
        module, calls = self.record_imports(host)
        name, globals_, locals_, from_list, level = self.bind(calls[9])
        self.assertEqual((name, locals_, list(from_list), level), ("", None, ["dbgpythonapi"], 1))
        self.assertEqual(globals_, {"__name__": module.__name__, "__package__": host.name})
        self.assertIsNot(globals_, vars(module))
        self.assertIs(type(globals_), dict)

    def test_dlog_is_imported_absolutely_from_the_debuggers_package(self):
        host = self.make_host()
        module, calls = self.record_imports(host)
        name, globals_, locals_, from_list, level = self.bind(calls[10])
        self.assertEqual((name, locals_, list(from_list), level), ("vornbase", None, ["dlog"], 0))
        self.assertEqual(globals_, {"__name__": module.__name__, "__package__": host.name})

    def test_what_the_import_gives_is_what_the_module_publishes(self):
        class Stub(types.ModuleType):
            pass

        stubs = {name: Stub(name) for name in ("ctypes", "traceback", "typing")}
        real = builtins.__import__
        depth = [0]

        def substituting(name, *args, **kwargs):
            if depth[0] == 0 and name in stubs:
                return stubs[name]
            depth[0] += 1
            try:
                return real(name, *args, **kwargs)
            finally:
                depth[0] -= 1

        host = self.make_host(dlog="", dbgpythonapi="")
        importlib.import_module(host.name)
        with mock.patch.object(builtins, "__import__", substituting):
            module = host.import_module()
        for name, stub in stubs.items():
            self.assertIs(getattr(module, name), stub)

    def test_a_failure_of_any_import_ends_the_execution_there(self):
        real = builtins.__import__
        for wanted in (*STANDARD, "", "vornbase"):
            with self.subTest(wanted):
                host = self.make_host(dlog="", dbgpythonapi="")
                asked = []
                error = NastyError(wanted)

                def failing(name, *args, **kwargs):
                    asked.append(name)
                    if name == wanted:
                        raise error
                    return real(name, *args, **kwargs)

                importlib.import_module(host.name)
                with mock.patch.object(builtins, "__import__", failing):
                    with self.assertRaises(NastyError) as caught:
                        host.import_module()
                self.assertIs(caught.exception, error)
                self.assertEqual(asked[-1], wanted)
                self.assert_nothing_is_left_of(host)
                self.assert_import_works(host)


class MissingCompanions(HostCase):

    def test_without_the_sibling_the_attribute_read_fails_and_mending_it_helps(self):
        host = self.make_host(dbgpythonapi=False)
        self.assert_raises_text(AttributeError, f"module '{host.name}' has no attribute 'dbgpythonapi'",
                                host.import_module)
        self.assert_nothing_is_left_of(host)
        host.write(f"{host.name}/dbgpythonapi.py", "")
        self.assert_import_works(host)

    def test_without_the_debuggers_package_the_import_fails_and_mending_it_helps(self):
        host = self.make_host(vornbase=False)
        error = self.assert_raises_text(ModuleNotFoundError, "No module named 'vornbase'", host.import_module)
        self.assertEqual(error.name, "vornbase")
        self.assert_nothing_is_left_of(host)
        host.write("vornbase/__init__.py", "")
        host.write("vornbase/dlog.py", "def LogException(*args): pass")
        self.assert_import_works(host)

    def test_without_dlog_the_attribute_read_fails_and_mending_it_helps(self):
        host = self.make_host(dlog=False)
        self.assert_raises_text(AttributeError, "module 'vornbase' has no attribute 'dlog'",
                                host.import_module)
        self.assert_nothing_is_left_of(host)
        host.write("vornbase/dlog.py", "def LogException(*args): pass")
        self.assert_import_works(host)

    def test_on_windows_without_the_support_module_the_attribute_read_fails_and_mending_it_helps(self):
        self.set_platform("win32")
        host = self.make_host(win32=False, dlog="", dbgpythonapi="")
        self.assert_raises_text(AttributeError, "module 'vornbase' has no attribute 'win32'",
                                host.import_module)
        self.assert_nothing_is_left_of(host)
        host.write("vornbase/win32.py", "")
        self.assert_import_works(host)

    def test_the_exception_of_a_companion_comes_through_unchanged(self):
        source = "raise LookupError('the companion itself')"
        for companion in ("dbgpythonapi", "dlog"):
            with self.subTest(companion):
                host = self.make_host(**{companion: source})
                self.assert_raises_text(LookupError, "the companion itself", host.import_module)
                self.assert_nothing_is_left_of(host)

    def test_the_sibling_is_asked_for_before_the_debuggers_package(self):
        host = self.make_host(dbgpythonapi=False, vornbase=False)
        with self.assertRaises(AttributeError):
            host.import_module()

    def test_the_companions_may_be_empty(self):
        host = self.make_host(dbgpythonapi="", dlog="")
        self.assert_import_works(host)

    def test_the_sibling_of_another_package_is_not_taken(self):
        host = self.make_host(dbgpythonapi="marker = 'this host'")
        self.assertEqual(host.import_module().dbgpythonapi.marker, "this host")
        self.assertFalse(hasattr(xo.dbgpythonapi, "marker"))

    def test_a_missing_companion_fails_in_a_fresh_process_too(self):
        with HostPackage(vornbase=False) as host:
            host.run_python("""
                import importlib, sys
                for attempt in range(3):
                    try:
                        importlib.import_module(MODULE)
                    except ModuleNotFoundError as error:
                        assert error.name == "vornbase", error
                    else:
                        raise AssertionError("imported")
                    assert MODULE not in sys.modules
                sys.modules["vornbase"] = base = type(sys)("vornbase")
                base.dlog = type(sys)("dlog")
                module = importlib.import_module(MODULE)
                assert module.dlog is base.dlog
            """)

    def test_without_a_containing_package_the_import_fails(self):
        directory = tempfile.mkdtemp(prefix="xo-alone-")
        self.addCleanup(shutil.rmtree, directory)
        shutil.copy(xo.__file__, os.path.join(directory, "xoptmonitoring.so"))
        run_python("""
            import sys
            for attempt in range(2):
                try:
                    import xoptmonitoring
                except ImportError as error:
                    assert "relative import" in str(error), error
                else:
                    raise AssertionError("imported")
                assert "xoptmonitoring" not in sys.modules
        """, paths=[directory])


class Platform(HostCase):

    def test_on_windows_the_support_module_is_the_one_of_the_debuggers_package(self):
        self.set_platform("win32")
        host = self.make_host(win32="marker = 5", dlog="", dbgpythonapi="")
        self.assertEqual(host.import_module().win32.marker, 5)

    def test_elsewhere_the_support_module_is_not_even_looked_for(self):
        self.set_platform("linux")
        host = self.make_host(win32="raise LookupError")
        self.assertIsNone(host.import_module().win32)

    def test_the_truth_of_the_platforms_comparison_decides(self):
        class Answer:
            def __init__(self, truth):
                self.truth = truth

            def __bool__(self):
                return self.truth

        compared = []

        class PlatformName(str):
            truth = False

            def __eq__(self, other):
                compared.append(other)
                return Answer(self.truth)

            __hash__ = str.__hash__

        for truth in (True, False):
            with self.subTest(truth):
                name = PlatformName("linux" if truth else "win32")
                name.truth = truth
                compared.clear()
                host = self.make_host(win32="", dlog="", dbgpythonapi="")
                importlib.import_module(host.name)
                with mock.patch.object(sys, "platform", name):
                    module = host.import_module()
                self.assertEqual(compared.count("win32"), 1)
                self.assertIs(module.win32 is not None, truth)

    def test_an_exception_of_the_platforms_comparison_ends_the_import(self):
        host = self.make_host(dlog="", dbgpythonapi="")
        importlib.import_module(host.name)
        with mock.patch.object(sys, "platform", raising("__eq__", base=str, args=("linux",))):
            self.assertRaises(NastyError, host.import_module)
        self.assert_nothing_is_left_of(host)
        self.assert_import_works(host)

    def test_a_comparison_without_a_truth_value_ends_the_import(self):
        class PlatformName(str):
            def __eq__(self, other):
                return raising("__bool__")

            __hash__ = str.__hash__

        host = self.make_host(dlog="", dbgpythonapi="")
        importlib.import_module(host.name)
        with mock.patch.object(sys, "platform", PlatformName("linux")):
            self.assertRaises(NastyError, host.import_module)
        self.assert_nothing_is_left_of(host)


class FakeMonitoring:
    """Stands in for `sys.monitoring` and keeps the names of the attributes that were read."""

    def __init__(self, **changed):
        self.read = []
        self.disable = object()
        self.ids = {"PY_START": 11, "PY_RETURN": 1 << 40, "PY_RESUME": 13, "PY_YIELD": 14, "LINE": -15}
        self.ids.update(changed)

    def __getattr__(self, name):
        if name == "events":
            self.read.append(name)
            return FakeEvents(self)
        if name == "DISABLE":
            self.read.append(name)
            return self.disable
        raise AttributeError(name)


class FakeEvents:

    def __init__(self, monitoring):
        self.monitoring = monitoring

    def __getattr__(self, name):
        self.monitoring.read.append(name)
        value = self.monitoring.ids[name]
        if value is None:
            raise AttributeError(f"no {name}")
        return value


class MonitoringNamespace(HostCase):

    def import_with(self, monitoring):
        host = self.make_host(dlog="", dbgpythonapi="")
        importlib.import_module(host.name)
        with mock.patch.object(sys, "monitoring", monitoring):
            return host.import_module()

    def test_the_event_ids_are_read_one_by_one_in_order_and_the_disable_object_last(self):
        monitoring = FakeMonitoring()
        self.import_with(monitoring)
        self.assertEqual(monitoring.read, [
            "events", "PY_START", "events", "PY_RETURN", "events", "PY_RESUME", "events", "PY_YIELD",
            "events", "LINE", "DISABLE"])

    def test_the_ids_and_the_disable_object_are_published_as_they_were_read(self):
        monitoring = FakeMonitoring()
        module = self.import_with(monitoring)
        self.assertEqual(
            (module.kPyStartEventId, module.kPyReturnEventId, module.kPyResumeEventId,
             module.kPyYieldEventId, module.kPyLineEventId), (11, 1 << 40, 13, 14, -15))
        self.assertIs(module.kSysMonitoringDisable, monitoring.disable)

    def test_an_interpreter_without_the_namespace_is_an_attribute_error(self):
        host = self.make_host(dlog="", dbgpythonapi="")
        importlib.import_module(host.name)
        with mock.patch.object(sys, "monitoring", None):
            del sys.monitoring
            try:
                with self.assertRaises(AttributeError) as caught:
                    host.import_module()
            finally:
                sys.monitoring = None  # for the patch to take back
        self.assertEqual(str(caught.exception), "module 'sys' has no attribute 'monitoring'")
        self.assert_nothing_is_left_of(host)
        self.assert_import_works(host)

    def test_a_missing_event_is_an_attribute_error(self):
        for name in ("PY_START", "PY_RETURN", "PY_RESUME", "PY_YIELD", "LINE"):
            with self.subTest(name):
                self.assert_raises_text(AttributeError, f"no {name}",
                                        self.import_with, FakeMonitoring(**{name: None}))

    def test_an_event_id_that_is_no_integer_is_a_type_error(self):
        with self.assertRaises(TypeError):
            self.import_with(FakeMonitoring(LINE="x"))

    def test_an_event_id_beyond_64_bits_is_an_overflow_error(self):
        with self.assertRaises(OverflowError):
            self.import_with(FakeMonitoring(PY_RESUME=1 << 63))


class Again(HostCase):

    def test_importing_again_gives_the_same_module(self):
        host = self.make_host()
        module = host.import_module()
        self.assertIs(host.import_module(), module)
        self.assertIs(getattr(sys.modules[host.name], "xoptmonitoring"), module)

    def test_a_fresh_import_of_the_same_file_is_a_fresh_module(self):
        host = self.make_host()
        first = host.import_module()
        first.register_canonical_pathname("/a.py")
        del sys.modules[host.module_name]
        second = host.import_module()
        self.assertIsNot(second, first)
        for name, kind in interface.MODULE_ATTRIBUTES:
            if kind in ("function", "class") or name in ("_gThreadStateDictKey", "_gCanonicalPathnameMgr",
                                                         "_gInternalPathnameDict"):
                with self.subTest(name):
                    self.assertIsNot(getattr(second, name), getattr(first, name))
        self.assertEqual(second._gCanonicalPathnameMgr.fByName, {})
        self.assertEqual(first.lookup_canonical_pathname("/a.py"), "/a.py")

    def test_modules_of_two_packages_share_nothing(self):
        host = self.make_host()
        module = host.import_module()
        module.register_canonical_pathname("/a.py")
        module.set_dprintf_mask(5)
        module.CPerFile.GetPerFile("/a.py")
        self.assertIsNone(xo.lookup_canonical_pathname("/a.py"))
        self.assertEqual((xo.get_dprintf_mask(), xo.CPerFile.GetAllPerFiles()), (0, []))

    def test_reloading_keeps_the_module_and_everything_in_it(self):
        host = self.make_host()
        module = host.import_module()
        before = {name: getattr(module, name) for name, _kind in interface.MODULE_ATTRIBUTES}
        module.register_canonical_pathname("/a.py")
        self.assertIs(importlib.reload(module), module)
        for name, value in before.items():
            with self.subTest(name):
                self.assertEqual(getattr(module, name), value)
        self.assertEqual(module.lookup_canonical_pathname("/a.py"), "/a.py")

    def test_the_loader_does_not_execute_an_executed_module_again(self):
        host = self.make_host()
        module = host.import_module()
        reset, manager = module.reset, module._gCanonicalPathnameMgr
        module.__spec__.loader.exec_module(module)
        self.assertIs(module.reset, reset)
        self.assertIs(module._gCanonicalPathnameMgr, manager)

    # The interpreter's own loader skips a module that has been executed, so its C function is called instead.
    EXECUTE = """
        import ctypes, importlib, sys
        import interface

        module = importlib.import_module(MODULE)
        api = ctypes.pythonapi
        api.PyModule_GetDef.argtypes = [ctypes.py_object]
        api.PyModule_GetDef.restype = ctypes.c_void_p
        api.PyModule_ExecDef.argtypes = [ctypes.py_object, ctypes.c_void_p]

        def execute():
            return api.PyModule_ExecDef(module, api.PyModule_GetDef(module))
    """

    def test_executing_a_second_time_fails_naming_the_first_final_field(self):
        with HostPackage() as host:
            host.run_python(self.EXECUTE + """
        for attempt in range(3):
            try:
                execute()
            except AttributeError as error:
                wanted = f"The final attribute 'ctypes' is already set: {module!r}"
                assert str(error) == wanted, error
            else:
                raise AssertionError("executed again")
            """)

    def test_executing_a_second_time_replaces_nothing_and_the_module_works_on(self):
        with HostPackage() as host:
            host.run_python(self.EXECUTE + """
        module.register_canonical_pathname("/a.py")
        module.set_dprintf_mask(12)
        module.CPerFile.GetPerFile("/a.py")
        before = {name: getattr(module, name) for name, kind in interface.MODULE_ATTRIBUTES}
        names = module._gCanonicalPathnameMgr.fByName
        try:
            execute()
        except AttributeError:
            pass
        for name, value in before.items():
            now = getattr(module, name)
            assert now == value if type(value) is int else now is value, name
        assert module._gCanonicalPathnameMgr.fByName is names
        assert module.lookup_canonical_pathname("/a.py") == "/a.py"
        assert len(module.CPerFile.GetAllPerFiles()) == 1
        try:
            module.GetPathnameKind(5)
        except TypeError as error:
            assert str(error) == "expected str, got 5"
        module.reset()
        assert module.lookup_canonical_pathname("/a.py") is None
            """)


class Surroundings(HostCase):

    def test_the_import_leaves_no_output(self):
        with HostPackage() as host:
            child = host.run_python("import importlib; importlib.import_module(MODULE)")
            self.assertEqual((child.stdout, child.stderr), ("", BARE_MODULE_MESSAGE))

    def test_the_import_switches_no_monitoring_on(self):
        run_python("""
            import sys
            before = [sys.monitoring.get_tool(tool) for tool in range(6)]
            from vorntracer import xoptmonitoring
            assert [sys.monitoring.get_tool(tool) for tool in range(6)] == before
        """)

    def test_the_import_works_with_warnings_as_errors_and_in_development_mode(self):
        run_python("from vorntracer import xoptmonitoring as xo; xo.reset()",
                   options=["-W", "error", "-X", "dev"])

    def test_the_import_works_without_site_and_with_isolated_environment(self):
        with HostPackage() as host:
            run_python(f"""
                import sys
                sys.path.insert(0, {host.path!r})
                from {host.name} import xoptmonitoring as xo
                assert xo.GetPathnameKind("<x>") == 4
            """, options=["-I", "-S"])

    def test_the_import_works_in_a_thread(self):
        with HostPackage() as host:
            host.run_python("""
                import importlib, threading
                found = []
                def work():
                    found.append(importlib.import_module(MODULE))
                threads = [threading.Thread(target=work) for _ in range(8)]
                for thread in threads:
                    thread.start()
                for thread in threads:
                    thread.join()
                assert len(found) == 8 and len(set(map(id, found))) == 1, found
            """)

    def test_a_subinterpreter_refuses_the_module(self):
        with HostPackage() as host:
            host.run_python("""
                import os, sys, tempfile
                try:
                    import _interpreters as interpreters
                except ImportError:
                    import _xxsubinterpreters as interpreters
                with tempfile.TemporaryDirectory() as directory:
                    answer = os.path.join(directory, "answer")
                    script = f'''if True:
                        import sys
                        sys.path[:] = {sys.path!r}
                        try:
                            import {MODULE}
                        except ImportError as error:
                            text = str(error)
                        else:
                            text = "imported"
                        with open({answer!r}, "w") as f:
                            f.write(text)
                    '''
                    interpreter = interpreters.create()
                    interpreters.run_string(interpreter, script)
                    interpreters.destroy(interpreter)
                    with open(answer) as f:
                        text = f.read()
                assert text == f"module {MODULE} does not support loading in subinterpreters", text
            """)


if __name__ == "__main__":
    unittest.main()
