"""What the module object holds: its 73 attributes, their kinds and values, and that none can be rebound."""

import builtins
import os
import sys
import types
import unittest

import interface
from support import XoTestCase, needs_fork, run_python, xo


class ModuleObject(XoTestCase):

    def test_the_module_is_an_instance_of_its_own_module_subclass(self):
        module_type = type(xo)
        self.assertIsInstance(xo, types.ModuleType)
        self.assertIsNot(module_type, types.ModuleType)
        self.assertEqual(module_type.__name__, "_ModuleSubclass_xoptmonitoring")
        self.assertEqual(module_type.__module__, "xoptmonitoring")
        self.assertEqual(repr(module_type), "<class 'xoptmonitoring._ModuleSubclass_xoptmonitoring'>")

    def test_creation_names_the_module_xoptmonitoring(self):
        self.assertEqual(xo.__name__, "xoptmonitoring")

    def test_the_module_knows_its_package_and_its_file(self):
        self.assertEqual(xo.__package__, "vorntracer")
        self.assertEqual(xo.__spec__.name, "vorntracer.xoptmonitoring")
        self.assertTrue(os.path.samefile(xo.__file__, xo.__spec__.origin))

    def test_the_table_lists_73_attributes(self):
        names = [name for name, _kind in interface.MODULE_ATTRIBUTES]
        self.assertEqual((len(names), len(set(names))), (73, 73))

    def test_every_attribute_can_be_read(self):
        for name, _kind in interface.MODULE_ATTRIBUTES:
            with self.subTest(name):
                getattr(xo, name)

    def test_an_attribute_that_does_not_exist_is_an_attribute_error(self):
        with self.assertRaises(AttributeError):
            xo.no_such_attribute


class Values(XoTestCase):

    def test_the_standard_modules_are_the_imported_ones(self):
        for name in ("ctypes", "os", "sys", "threading", "time", "traceback", "types", "weakref", "typing"):
            with self.subTest(name):
                self.assertIs(getattr(xo, name), sys.modules[name])

    def test_dbgpythonapi_is_the_sibling_in_the_modules_own_package(self):
        self.assertIs(xo.dbgpythonapi, sys.modules["vorntracer.dbgpythonapi"])

    def test_dlog_is_the_module_of_the_debuggers_package(self):
        self.assertIs(xo.dlog, sys.modules["vornbase.dlog"])
        self.assertTrue(callable(xo.dlog.LogException))

    @unittest.skipIf(sys.platform == "win32", "win32 is a module on this platform")
    def test_win32_is_none_where_the_platform_is_another(self):
        self.assertIsNone(xo.win32)

    def test_the_canonical_pathname_type_is_str(self):
        self.assertIs(xo.tCanonicalPathname, str)

    def test_the_mask_constants_are_the_powers_of_two_from_1_to_512(self):
        names = ("kLogOther", "kLogFilenames", "kLogCore", "kLogBreakpoints", "kLogExceptions", "kLogIO",
                 "kLogInternalFailures", "kLogThreading", "kLogInitialMonitoringCallbacks",
                 "kLogSecondMonitoringCallbacks")
        self.assertEqual([getattr(xo, name) for name in names], [1, 2, 4, 8, 16, 32, 64, 128, 256, 512])

    def test_the_event_ids_are_those_of_sys_monitoring(self):
        events = sys.monitoring.events
        self.assertEqual(
            (xo.kPyStartEventId, xo.kPyReturnEventId, xo.kPyResumeEventId, xo.kPyYieldEventId,
             xo.kPyLineEventId),
            (events.PY_START, events.PY_RETURN, events.PY_RESUME, events.PY_YIELD, events.LINE))

    def test_the_disable_object_is_that_of_sys_monitoring_itself(self):
        self.assertIs(xo.kSysMonitoringDisable, sys.monitoring.DISABLE)

    def test_the_pathname_kinds_are_0_3_4_5(self):
        self.assertEqual(
            (xo.kRegularPathname, xo.kFrozenImportLibPathname, xo.kPseudoPathname, xo.kVornShellPathname),
            (0, 3, 4, 5))

    def test_integer_attributes_are_plain_integers(self):
        for name, kind in interface.MODULE_ATTRIBUTES:
            if kind == "integer":
                with self.subTest(name):
                    self.assertIs(type(getattr(xo, name)), int)

    def test_module_attributes_are_modules(self):
        for name, kind in interface.MODULE_ATTRIBUTES:
            if kind == "module":
                with self.subTest(name):
                    self.assertIsInstance(getattr(xo, name), types.ModuleType)

    def test_function_attributes_are_functions_that_carry_their_own_name(self):
        for name, kind in interface.MODULE_ATTRIBUTES:
            if kind == "function":
                with self.subTest(name):
                    function = getattr(xo, name)
                    self.assertTrue(callable(function))
                    self.assertEqual(function.__name__, name)
                    self.assertEqual(type(function).__name__, "_XNotPy_Function")

    def test_class_attributes_are_classes_that_carry_their_own_name(self):
        for name, kind in interface.MODULE_ATTRIBUTES:
            if kind == "class":
                with self.subTest(name):
                    self.assertIsInstance(getattr(xo, name), type)
                    self.assertEqual(getattr(xo, name).__name__, name)
                    self.assertIs(getattr(xo, name).__base__, object)

    def test_the_dprintf_file_is_none_and_its_mask_0_at_first(self):
        out = run_python("""
            from vorntracer import xoptmonitoring as xo
            print(xo._gDPrintfFile, xo._gDPrintfMask, xo.get_dprintf_mask())
        """).stdout
        self.assertEqual(out.split(), ["None", "0", "0"])

    def test_the_process_id_is_this_process_at_first(self):
        run_python("""
            import os
            from vorntracer import xoptmonitoring as xo
            assert xo._gThisProcessPid == xo._GetPid() == os.getpid()
        """)

    @needs_fork
    def test_the_process_id_attribute_keeps_the_parents_value_in_a_forked_child(self):
        run_python("""
            import os
            from vorntracer import xoptmonitoring as xo
            parent = os.getpid()
            child = os.fork()
            if child == 0:
                ok = xo._gThisProcessPid == parent and xo._GetPid() == os.getpid() != parent
                os._exit(0 if ok else 9)
            assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
        """)

    def test_the_internal_pathname_dictionary_is_a_new_empty_one_at_first(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            assert type(xo._gInternalPathnameDict) is dict and xo._gInternalPathnameDict == {}
        """)

    def test_the_thread_state_key_is_a_plain_object(self):
        self.assertIs(type(xo._gThreadStateDictKey), object)

    def test_the_thread_state_key_survives_a_reset(self):
        key = xo._gThreadStateDictKey
        xo.reset()
        self.assertIs(xo._gThreadStateDictKey, key)

    def test_the_pathname_manager_is_an_instance_of_its_class(self):
        self.assertIs(type(xo._gCanonicalPathnameMgr), xo._CCanonicalPathnameMgr)


class Rebinding(XoTestCase):

    def setUp(self):
        super().setUp()
        self.before = {name: getattr(xo, name) for name, _kind in interface.MODULE_ATTRIBUTES}

    def assert_nothing_was_rebound(self):
        for name, value in self.before.items():
            check = self.assertEqual if type(value) is int else self.assertIs
            check(getattr(xo, name), value, name)

    def test_setting_reset_gives_the_final_attribute_text_and_keeps_the_first_value(self):
        reset = xo.reset
        self.assert_raises_text(AttributeError, f"The final attribute 'reset' is already set: {xo!r}",
                                setattr, xo, "reset", None)
        self.assertIs(xo.reset, reset)

    def test_setting_a_final_attribute_names_it_and_the_module(self):
        for name in interface.FINAL_ATTRIBUTES:
            with self.subTest(name):
                self.assert_final(name, xo, setattr, xo, name, self.before[name])
        self.assert_nothing_was_rebound()

    def test_setting_any_other_attribute_says_that_it_is_read_only(self):
        for name, _kind in interface.MODULE_ATTRIBUTES:
            if name not in interface.FINAL_ATTRIBUTES and name != "win32":
                with self.subTest(name):
                    self.assert_raises_text(AttributeError, f"readonly attribute: {name}",
                                            setattr, xo, name, self.before[name])
        self.assert_nothing_was_rebound()

    def test_setting_win32_is_refused_even_while_it_is_none(self):
        with self.assertRaisesRegex(AttributeError, "^(The final attribute 'win32' is already set: <module .*"
                                                    "|readonly attribute: win32)$"):
            xo.win32 = object()
        self.assertIs(xo.win32, self.before["win32"])

    def test_deleting_an_attribute_is_refused(self):
        for name, _kind in interface.MODULE_ATTRIBUTES:
            with self.subTest(name), self.assertRaises((AttributeError, TypeError)):
                delattr(xo, name)
        self.assert_nothing_was_rebound()

    def test_the_generic_setters_of_modules_and_objects_do_not_get_around_it(self):
        for setter in (types.ModuleType.__setattr__, object.__setattr__):
            for name, _kind in interface.MODULE_ATTRIBUTES:
                with self.subTest(name, setter=setter), self.assertRaises((AttributeError, TypeError)):
                    setter(xo, name, None)
        self.assert_nothing_was_rebound()

    def test_writing_into_the_modules_dictionary_does_not_rebind_an_attribute(self):
        for name in ("reset", "kLogCore", "_gDPrintfFile"):
            with self.subTest(name):
                had, old = name in vars(xo), vars(xo).get(name)
                vars(xo)[name] = marker = object()
                try:
                    self.assertIsNot(getattr(xo, name), marker)
                finally:
                    if had:
                        vars(xo)[name] = old
                    else:
                        del vars(xo)[name]
        self.assert_nothing_was_rebound()

    def test_the_old_value_of_a_final_attribute_stays_usable(self):
        with self.assertRaises(AttributeError):
            xo.get_dprintf_mask = None
        self.assertEqual(xo.get_dprintf_mask(), 0)


class FunctionObjects(XoTestCase):

    def test_a_function_with_defaults_shows_them_as_a_tuple(self):
        for name, parameters in interface.FUNCTIONS.items():
            if interface.defaults(parameters):
                with self.subTest(name):
                    self.assertEqual(getattr(xo, name).__default_args__, interface.defaults(parameters))

    def test_a_field_of_a_function_that_is_not_set_reads_as_attribute_error(self):
        for name in ("reset", "GetPathnameKind"):
            with self.subTest(name, field="__default_args__"):
                self.assert_raises_text(AttributeError, "Attribute error",
                                        getattr, getattr(xo, name), "__default_args__")
            with self.subTest(name, field="__obj_class__"):
                self.assert_raises_text(AttributeError, "Attribute error",
                                        getattr, getattr(xo, name), "__obj_class__")

    def test_a_field_that_functions_lack_is_an_attribute_error(self):
        with self.assertRaises(AttributeError):
            xo.reset.no_such_field

    def test_the_name_of_a_function_cannot_be_deleted(self):
        with self.assertRaises((AttributeError, TypeError)):
            del xo.reset.__name__
        self.assertEqual(xo.reset.__name__, "reset")

    def test_a_function_equals_itself_only_and_serves_as_a_key(self):
        self.assertEqual({xo.reset: "reset", xo.dprintf: "dprintf"}[xo.reset], "reset")
        self.assertNotEqual(xo.reset, xo.dprintf)


class CachedBuiltins(XoTestCase):

    def test_replacing_a_builtin_after_the_import_changes_nothing(self):
        writer = []

        class File:
            write = writer.append

        xo.set_dprintf_file(File, 1, None)
        xo.set_dprintf_mask(1)
        for name in ("isinstance", "len", "repr", "str", "__import__", "list", "set"):
            with self.subTest(name):
                # Only the calls inside the block may run while the built-in is gone.
                saved = getattr(builtins, name)
                try:
                    setattr(builtins, name, None)
                    xo.dprintf(1, "text")
                    kind = xo.GetPathnameKind("<x>")
                    internal = xo.IsInternalPathname("/x")
                finally:
                    setattr(builtins, name, saved)
                self.assertEqual((writer.pop(), kind, internal), ("text", 4, False))


class Teardown(XoTestCase):

    def test_an_attribute_read_after_the_module_was_finalised_is_an_attribute_error(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            xo.__del__()  # what the interpreter runs before it drops the module
            for name in ("ctypes", "reset", "CPerFile", "_gDPrintfFile", "_gCanonicalPathnameMgr",
                         "_gInternalPathnameDict", "_gThreadStateDictKey", "tCanonicalPathname"):
                try:
                    getattr(xo, name)
                except AttributeError as error:
                    assert str(error) == "Attribute error", (name, error)
                else:
                    raise AssertionError(name)
        """)

    def test_finalising_it_from_inside_its_own_callbacks_ends_in_an_exception(self):
        for owner, setter, use in (
            ("CPerFile", "SetNewPerFileCreatedCallback", "xo.CPerFile.GetPerFile('/srv/a.py')"),
            ("CPerCodeObject", "SetNewPerCodeObjectCreatedCallback", "xo.CPerCodeObject.GetPerCodeObject(code)"),
            ("CPerCodeObject", "SetNewPerCodeObjectCreatedCallback", "bound(code, 1)"),
            ("CPerThread", "SetNewPerThreadCreatedCallback", "xo.CPerThread.GetPerThread()"),
            ("CPerThread", "SetNewPerThreadCreatedCallback", "bound(code, 1)"),
        ):
            with self.subTest(use):
                run_python(f"""
                    import gc
                    from vorntracer import xoptmonitoring as xo
                    code = compile("line = 1", "/srv/a.py", "exec")
                    bound = xo.CInitialCallback(xo.kPyStartEventId, print, True).Callback
                    finalised = []
                    xo.{owner}.{setter}(lambda record: (xo.__del__(), gc.collect(), finalised.append(record)))
                    try:
                        {use}
                    except (AttributeError, NameError):
                        pass
                    assert len(finalised) == 1, finalised
                    xo.__del__()
                    gc.collect()
                    assert finalised.pop() is not None
                """)

    def test_integer_attributes_are_left_as_they_are_by_finalisation(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            xo.set_dprintf_mask(5)
            xo.__del__()
            assert (xo.kLogIO, xo._gDPrintfMask, xo.kVornShellPathname) == (32, 5, 5)
        """)

    def test_a_function_called_after_finalisation_raises_attribute_error(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            calls = [(xo.get_canonical_pathname, ("/a.py",)), (xo.lookup_canonical_pathname, ("/a.py",)),
                     (xo.register_canonical_pathname, ("/a.py",)), (xo.get_checksum_callback, ()),
                     (xo.set_checksum_callback, (None,)), (xo._get_checksum_for_pathname, ("/a.py",)),
                     (xo.IsInternalPathname, ("/a.py",)), (xo.dprintf, (xo.kLogCore, "text"))]
            assert xo.get_dprintf_mask() == 0  # no line would be written in any case
            xo.__del__()
            for function, args in calls:
                try:
                    function(*args)
                except AttributeError as error:
                    assert str(error) == "Attribute error", (function, error)
                else:
                    raise AssertionError(function)
        """)

    def test_a_function_that_was_finalised_itself_raises_attribute_error(self):
        run_python("""
            from vorntracer import xoptmonitoring as xo
            for function in (xo.get_dprintf_mask, xo.CPerFile.GetAllPerFiles.__func__):
                function.__del__()
                try:
                    function()
                except AttributeError as error:
                    assert str(error) == "Attribute error", error
                else:
                    raise AssertionError(function)
            assert xo.reset() is None
        """)

    def test_calls_made_while_the_interpreter_shuts_down_do_no_harm(self):
        run_python("""
            import sys
            from vorntracer import xoptmonitoring as xo

            class Late:
                def __init__(self):
                    self.functions = xo.get_canonical_pathname, xo.GetPathnameKind, xo.IsInternalPathname
                    self.classes = xo.CPerFile, xo._CCanonicalPathnameMgr, xo.CPerThread
                    self.reset = xo.reset
                def __del__(self):
                    for call in self.functions + self.classes:
                        for args in ((), ("/late.py",)):
                            try:
                                call(*args)
                            except Exception:
                                pass
                    try:
                        self.reset()
                    except Exception:
                        pass

            sys.late = Late()
            sys.modules["late"] = Late()
            late = Late()
            late.cycle = late
            xo._gCanonicalPathnameMgr.fByName["late"] = Late()
            xo.set_checksum_callback(Late())
        """)

    def test_a_module_that_nothing_refers_to_any_more_is_collected(self):
        run_python("""
            import gc, importlib, sys, weakref
            from support import HostPackage
            with HostPackage() as host, host.importable():
                module = host.import_module()
                module.register_canonical_pathname("/a.py")
                dead = weakref.ref(module)
                key = weakref.ref(module._CCanonicalPathnameMgr)
                del module
            gc.collect()
            gc.collect()
            assert dead() is None and key() is None, (dead(), key())
        """)

    def test_a_module_that_was_finalised_by_hand_keeps_what_it_had_until_it_is_collected(self):
        for times in (1, 2):
            with self.subTest(times=times):
                run_python(f"""
                    import gc, weakref
                    from support import HostPackage
                    with HostPackage() as host, host.importable():
                        module = host.import_module()
                        parts = weakref.ref(module), weakref.ref(module.CPerFile)
                        for _ in range({times}):
                            module.__del__()
                            gc.collect()
                        assert parts[1]() is not None
                        del module
                    gc.collect()
                    gc.collect()
                    assert [part() for part in parts] == [None, None], [part() for part in parts]
                """)

    def test_a_module_in_a_cycle_through_its_own_type_is_collected(self):
        run_python("""
            import gc, importlib, sys, weakref
            from support import HostPackage
            with HostPackage() as host, host.importable():
                module = host.import_module()
                type(module).me = module
                dead = weakref.ref(module)
                del module
            gc.collect()
            gc.collect()
            assert dead() is None, dead()
        """)


if __name__ == "__main__":
    unittest.main()
