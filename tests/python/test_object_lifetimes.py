"""How the module's objects live and die: collection, weak references, subclasses, finalisation, leaks."""

import gc
import sys
import unittest
import weakref

import interface
from support import (
    HostPackage, Recorder, RecordingWriter, XoTestCase, allocated_blocks, needs_plain_allocator, run_python, xo)
from test_typed_attributes import make_instances


class Sentinel:
    """Something whose death can be seen."""


def sentinel():
    """A fresh object and a weak reference to it."""
    made = Sentinel()
    return made, weakref.ref(made)


class Collection(XoTestCase):

    def setUp(self):
        super().setUp()
        self.instances, self.code = make_instances()

    def object_fields(self):
        for path, instance in self.instances.items():
            for field, held_as in interface.CLASSES[path].fields.items():
                if held_as == "object" and field != "_fSecondCallback":
                    yield path, instance, field

    def test_instances_with_fields_are_tracked_by_the_collector(self):
        for path, instance in self.instances.items():
            if interface.CLASSES[path].fields:
                with self.subTest(path):
                    self.assertTrue(gc.is_tracked(instance))

    def test_the_collector_sees_every_object_field(self):
        for path, instance, field in self.object_fields():
            with self.subTest(path, field=field):
                before = getattr(instance, field)
                made = {}
                setattr(instance, field, made)
                self.assertTrue(any(referent is made for referent in gc.get_referents(instance)))
                setattr(instance, field, before)

    def test_the_collector_sees_the_class_of_an_instance(self):
        for path, instance in self.instances.items():
            with self.subTest(path):
                self.assertIn(type(instance), gc.get_referents(instance))

    def test_the_collector_sees_the_class_fields_of_a_class(self):
        registry = xo.CPerFile._fPerFileDict
        seen, queue = set(), [xo.CPerFile]
        for _depth in range(3):  # the class may keep its record in an object of its own
            queue = [referent for holder in queue for referent in gc.get_referents(holder)
                     if id(referent) not in seen and not seen.add(id(referent))]
            if any(referent is registry for referent in queue):
                return
        self.fail("the collector does not reach the class's registry from the class")

    def test_a_cycle_through_any_object_field_is_collected(self):
        gc.disable()  # so that only the explicit collection below can break the cycle
        self.addCleanup(gc.enable)
        for path, table in interface.CLASSES.items():
            cls = interface.find_class(xo, path)
            for field, held_as in table.fields.items():
                if held_as != "object":
                    continue
                with self.subTest(path, field=field):
                    made, dead = sentinel()
                    instance = cls.__new__(cls)
                    made.back = instance
                    setattr(instance, field, {"cycle": made})
                    del made, instance
                    self.assertIsNotNone(dead())
                    gc.collect()
                    self.assertIsNone(dead())

    def test_a_file_record_and_a_code_record_that_refer_to_each_other_are_collected(self):
        made, dead = sentinel()
        per_file = xo.CPerFile("/cycle.py")
        code = compile("pass", "/cycle.py", "exec")
        per_code = xo.CPerCodeObject(code, None)
        per_file.fKnownPerCodeObjects.add(per_code)
        per_file.fBpSetByLineno["sentinel"] = made
        per_code.fEnabledBpLinenos = {"file": per_file}
        xo.reset()
        del made, per_file, per_code, code
        gc.collect()  # a free-threaded interpreter frees the code object only now, and leaves its record
        gc.collect()
        self.assertIsNone(dead())

    def test_a_subclass_that_nothing_refers_to_any_more_is_collected(self):
        for path in ("CPerFile", "CPerCodeObject", "CPerThread", "CInitialCallback", "_CPerThreadTssCache",
                     "_CCanonicalPathnameMgr"):
            with self.subTest(path):
                sub = type("Sub", (interface.find_class(xo, path),), {})
                dead = weakref.ref(sub)
                instance = sub.__new__(sub)
                del sub, instance
                gc.collect()
                self.assertIsNone(dead())

    def test_collecting_while_half_built_instances_exist_does_no_harm(self):
        half_built = [interface.find_class(xo, path).__new__(interface.find_class(xo, path))
                      for path in interface.CLASSES]
        gc.collect()
        for instance in half_built:
            gc.get_referents(instance)


class Release(XoTestCase):

    def test_a_dying_instance_releases_what_its_fields_hold(self):
        for path, table in interface.CLASSES.items():
            cls = interface.find_class(xo, path)
            for field, held_as in table.fields.items():
                if held_as == "object":
                    with self.subTest(path, field=field):
                        made, dead = sentinel()
                        instance = cls.__new__(cls)
                        setattr(instance, field, made)
                        del made
                        self.assertIsNotNone(dead())
                        del instance
                        self.assertIsNone(dead())

    def test_replacing_a_field_releases_what_it_held(self):
        mgr = xo._CCanonicalPathnameMgr()
        made, dead = sentinel()
        mgr.fChecksumCallback = made
        del made
        mgr.fChecksumCallback = None
        self.assertIsNone(dead())

    def test_constructing_again_releases_what_the_fields_held(self):
        mgr = xo._CCanonicalPathnameMgr()
        made, dead = sentinel()
        mgr.fByName["x"] = made
        del made
        mgr.__init__()
        self.assertIsNone(dead())

    def test_what_is_released_may_look_at_the_field_that_held_it(self):
        mgr = xo._CCanonicalPathnameMgr()
        seen = []

        class Looks:
            def __del__(self):
                seen.append(mgr.fChecksumCallback)

        mgr.fChecksumCallback = Looks()
        mgr.fChecksumCallback = "new"
        self.assertEqual(seen, ["new"])

    def test_what_is_released_may_set_the_field_again(self):
        mgr = xo._CCanonicalPathnameMgr()

        class Sets:
            def __del__(self):
                mgr.fChecksumCallback = "set by the old value"

        mgr.fChecksumCallback = Sets()
        mgr.fChecksumCallback = "new"
        self.assertEqual(mgr.fChecksumCallback, "set by the old value")

    def test_what_a_dying_instance_releases_may_run_the_module(self):
        class Runs:
            def __del__(self):
                xo.get_canonical_pathname("/from/del.py")
                xo.CPerFile.GetPerFile("/from/del.py")

        mgr = xo._CCanonicalPathnameMgr()
        mgr.fByName = {"x": Runs()}
        del mgr
        self.assertEqual(len(xo.CPerFile.GetAllPerFiles()), 1)

    def test_finalising_an_instance_empties_its_object_fields(self):
        instances, _code = make_instances()
        for path, instance in instances.items():
            for field, held_as in interface.CLASSES[path].fields.items():
                if held_as == "object":
                    with self.subTest(path, field=field):
                        made, dead = sentinel()
                        empty = type(instance).__new__(type(instance))
                        setattr(empty, field, made)
                        del made
                        empty.__del__()  # the finaliser as the interpreter runs it
                        self.assertIsNone(dead())
                        self.assert_raises_text(AttributeError, "Attribute error", getattr, empty, field)

    def test_finalising_twice_does_no_harm(self):
        instances, _code = make_instances()
        for path, instance in instances.items():
            with self.subTest(path):
                fresh = type(instance).__new__(type(instance))
                fresh.__del__()
                fresh.__del__()

    def test_a_manager_used_after_its_finalisation_raises_attribute_error(self):
        mgr = xo._CCanonicalPathnameMgr()
        mgr.Register("/a.py")
        mgr.__del__()
        for call, args in ((mgr.Lookup, ("/a.py",)), (mgr.Register, ("/a.py",)), (mgr.Get, ("/a.py",)),
                           (mgr.Reset, ()), (mgr.GetChecksumCallback, ()),
                           (mgr.GetChecksumForPathname, ("/a.py",)), (mgr._GetUniqueFileno, ("/a.py",))):
            self.assert_raises_text(AttributeError, "Attribute error", call, *args)

    def test_an_object_that_saves_itself_in_its_finaliser_lives_on_and_can_be_used(self):
        saved = []

        class Saves(xo._CCanonicalPathnameMgr):
            def __del__(self):
                saved.append(self)

        mgr = Saves()
        mgr.Register("/a.py")
        del mgr
        gc.collect()
        self.assertEqual(saved.pop().Lookup("/a.py"), "/a.py")


class WeakReferences(XoTestCase):

    def test_records_can_be_weakly_referenced(self):
        instances, _code = make_instances()
        for path in ("CPerFile", "CPerCodeObject", "CPerThread", "CPerThread._CCapsule"):
            with self.subTest(path):
                self.assertIs(weakref.ref(instances[path])(), instances[path])

    def test_a_weak_reference_to_a_dead_record_is_empty_and_its_callback_ran(self):
        ran = []
        per_file = xo.CPerFile("/weak.py")
        reference = weakref.ref(per_file, ran.append)
        del per_file
        self.assertIsNone(reference())
        self.assertEqual(ran, [reference])

    def test_records_work_as_weak_keys_and_in_sets(self):
        per_file = xo.CPerFile("/weak.py")
        keys = weakref.WeakKeyDictionary({per_file: 1})
        self.assertEqual((keys[per_file], len({per_file, per_file})), (1, 1))
        del per_file
        self.assertEqual(len(keys), 0)

    def test_a_weak_reference_callback_may_run_the_module(self):
        per_file = xo.CPerFile("/weak.py")
        reference = weakref.ref(per_file, lambda _dead: xo.CPerFile.GetPerFile("/from/callback.py"))
        del per_file
        self.assertIsNone(reference())
        self.assertEqual(len(xo.CPerFile.GetAllPerFiles()), 1)

    def test_functions_and_classes_can_be_kept_beyond_the_name_that_led_to_them(self):
        with HostPackage() as host, host.importable():
            module = host.import_module()
            kind, manager_class = module.GetPathnameKind, module._CCanonicalPathnameMgr
            del module
        gc.collect()
        self.assertEqual(kind("<x>"), 4)
        self.assertEqual(manager_class().Register("/a.py"), "/a.py")


class Subclasses(XoTestCase):

    def test_every_class_can_be_subclassed(self):
        for path in interface.CLASSES:
            with self.subTest(path):
                cls = interface.find_class(xo, path)
                sub = type("Sub", (cls,), {})
                self.assertTrue(issubclass(sub, cls))
                self.assertIsInstance(sub.__new__(sub), cls)

    def test_a_subclass_instance_takes_attributes_of_its_own(self):
        class Sub(xo.CPerFile):
            pass

        sub = Sub("/sub.py")
        sub.own = 5
        self.assertEqual((sub.own, sub.fCanonicalPathname), (5, "/sub.py"))

    def test_a_subclass_with_slots_keeps_both_kinds_of_fields(self):
        class Sub(xo._CCanonicalPathnameMgr):
            __slots__ = ("own",)

        sub = Sub()
        sub.own = 5
        sub.fChecksumCallback = "callback"
        self.assertEqual((sub.own, sub.fChecksumCallback, sub.Register("/a.py")), (5, "callback", "/a.py"))
        self.assertRaises(AttributeError, setattr, sub, "other", 1)

    def test_a_subclass_extends_the_constructor_through_super(self):
        class Sub(xo.CPerFile):
            def __init__(self, name):
                super().__init__(f"/sub/{name}")
                self.name = name

        self.assertEqual((Sub("a.py").fCanonicalPathname, Sub("a.py").name), ("/sub/a.py", "a.py"))

    def test_a_subclass_instance_passes_where_the_class_is_wanted(self):
        class Sub(xo._CCanonicalPathnameMgr):
            pass

        sub = Sub()
        xo._CCanonicalPathnameMgr.Register(sub, "/a.py")
        self.assertEqual(xo._CCanonicalPathnameMgr.Lookup(sub, "/a.py"), "/a.py")

    def test_a_subclass_of_a_subclass_keeps_fields_apart_from_its_own(self):
        class Sub(xo.CPerThread):
            pass

        class SubSub(Sub):
            __slots__ = ("own",)

        record = SubSub.__new__(SubSub)
        record.own = 1
        record.fStopFrame = 2
        record.fDebugPolicy = 3
        self.assertEqual((record.own, record.fStopFrame, record.fDebugPolicy), (1, 2, 3))

    def test_a_finaliser_can_come_with_a_subclass_and_cannot_be_put_into_a_class(self):
        """It would take the place of the native one, without which borrowed pointers outlive an object."""
        refusal = "cannot set attribute '__del__' of a class of this module"
        for path in interface.CLASSES:
            with self.subTest(path):
                cls = interface.find_class(xo, path)
                native = cls.__del__
                self.assert_raises_text(TypeError, refusal, setattr, cls, "__del__", lambda self: None)
                self.assert_raises_text(TypeError, refusal, delattr, cls, "__del__")
                self.assertIs(cls.__del__, native)

                ended = []
                sub = type("Sub", (cls,), {"__del__": lambda self: ended.append(type(self))})
                self.assert_raises_text(TypeError, refusal, setattr, sub, "__del__", lambda self: None)
                instance = sub.__new__(sub)
                del instance
                gc.collect()
                self.assertEqual(ended, [sub])

    def test_two_classes_of_the_module_cannot_be_bases_together(self):
        with self.assertRaises(TypeError):
            type("Both", (xo.CPerFile, xo.CPerThread), {})

    def test_a_dying_subclass_instance_releases_the_base_fields(self):
        class Sub(xo._CCanonicalPathnameMgr):
            pass

        made, dead = sentinel()
        sub = Sub()
        sub.fByName["x"] = made
        del made, sub
        gc.collect()
        self.assertIsNone(dead())

    def test_a_cycle_through_a_subclass_instance_is_collected(self):
        class Sub(xo._CCanonicalPathnameMgr):
            pass

        sub = Sub()
        made, dead = sentinel()
        sub.fByName["x"] = made
        sub.me = sub
        del made, sub
        gc.collect()
        self.assertIsNone(dead())

    def test_instances_of_a_class_compare_by_identity(self):
        one, other = xo.CPerFile("/a.py"), xo.CPerFile("/a.py")
        self.assertNotEqual(one, other)
        self.assertEqual(one, one)
        self.assertEqual(len({one, other}), 2)


class Repetition(XoTestCase):
    """Ten thousand times the same operation leaves everything as it was."""

    COUNT = 10_000

    def operations(self):
        """Operations by name; none of them may leave anything behind."""
        mgr = xo._CCanonicalPathnameMgr()
        mgr.Register("/known.py", "sum")
        callback = Recorder()
        writer = RecordingWriter()
        writer.write = lambda text: None
        names = {"/internal.py": 1}

        def refused(call, *args, **kwargs):
            def run():
                try:
                    call(*args, **kwargs)
                except (TypeError, AttributeError, OverflowError):
                    return
                raise AssertionError("nothing was refused")
            return run

        def cycle_files():
            xo.set_dprintf_file(writer, 1, None)
            xo.set_dprintf_mask(4)
            xo.dprintf(4, "text")
            xo.dprintf(4, lambda: "text")
            xo.set_dprintf_file(None, 1, None)

        def cycle_checksums():
            xo.set_checksum_callback(callback)
            xo.get_checksum_callback()
            xo.set_checksum_callback(None)
            xo._get_checksum_for_pathname("/known.py")

        def cycle_internal():
            xo.SetInternalPathnameDict(names)
            xo.IsInternalPathname("/internal.py")
            xo.IsInternalPathname("/other.py")
            xo.IsInternalPathname(None)

        def cycle_managers():
            made = xo._CCanonicalPathnameMgr()
            made.Register("/a.py", "sum")
            made.Register("/b.py", "sum")
            made.Lookup("/no/such/file.py")
            made.Get("/no/such/file.py", "other")
            made.Reset()

        half_built = xo._CCanonicalPathnameMgr.__new__(xo._CCanonicalPathnameMgr)
        second = xo.CInitialCallback(1, None, False)
        return {
            "kinds": lambda: (xo.GetPathnameKind("/a.py"), xo.GetPathnameKind(pathname="<x>")),
            "diagnostic output": cycle_files,
            "checksums": cycle_checksums,
            "internal pathnames": cycle_internal,
            "managers": cycle_managers,
            "known names": lambda: (mgr.Lookup("/known.py"), mgr.Register("/known.py", "sum"),
                                    mgr.Get(pathname="/known.py", checksum=None), mgr.Lookup("<x>")),
            "identity": lambda: (mgr._GetUniqueFileno(__file__), mgr._Stat(__file__), mgr._Stat("/no/such")),
            "absolute names": lambda: (mgr._AbsPath("a.pyc"), mgr._GetAbsnameForCanonical("a.pyc"),
                                       mgr._PrunePycPyo("/a.pyc"), mgr._IsObviousAbsPathname("a")),
            "fields": lambda: [getattr(mgr, field) for field in
                               interface.CLASSES["_CCanonicalPathnameMgr"].fields],
            "setting a field": lambda: setattr(mgr, "fChecksumCallback", names),
            "class fields": lambda: (xo.CPerFile._fPerFileDict, xo.CPerFile.GetAllPerFiles(),
                                     xo._CCanonicalPathnameMgr.kNotFoundTtlSeconds),
            "module attributes": lambda: [getattr(xo, name) for name, _kind in interface.MODULE_ATTRIBUTES],
            "reset": xo.reset,
            "half-built instances": lambda: [interface.find_class(xo, path).__new__(
                interface.find_class(xo, path)) for path in interface.CLASSES],
            "subclass instances": type("Sub", (xo._CCanonicalPathnameMgr,), {}),
            "a missing argument": refused(xo.GetPathnameKind),
            "an argument too many": refused(xo.GetPathnameKind, "/a", "/b"),
            "an unknown keyword": refused(xo.GetPathnameKind, "/a", unknown=1),
            "an argument given twice": refused(xo.GetPathnameKind, "/a", pathname="/b"),
            "a wrong type": refused(xo.GetPathnameKind, 5),
            "a wrong type by keyword": refused(xo.get_canonical_pathname, pathname="/a", checksum=5),
            "a wrong self": refused(xo._CCanonicalPathnameMgr.Reset, "x"),
            "an overflow": refused(xo.set_dprintf_mask, 2**63),
            "a final attribute of the module": refused(setattr, xo, "reset", names),
            "a final attribute of a class": refused(
                setattr, xo._CCanonicalPathnameMgr, "kNotFoundTtlSeconds", 10),
            "a final attribute of an instance": refused(setattr, second, "_fSecondCallback", names),
            "a read-only attribute": refused(setattr, xo, "kLogCore", names),
            "a field of the wrong type": refused(setattr, second, "_fEventId", "x"),
            "a deletion": refused(delattr, mgr, "fByName"),
            "an unset field": refused(getattr, half_built, "fByName"),
            "an unknown field": refused(setattr, mgr, "unknown", names),
        }

    def repeat(self, operation, count):
        for _ in range(count):
            operation()

    @needs_plain_allocator
    def test_repeating_any_operation_leaves_the_number_of_allocated_blocks_level(self):
        for name, operation in self.operations().items():
            with self.subTest(name):
                self.repeat(operation, 200)
                before = allocated_blocks()
                self.repeat(operation, self.COUNT)
                # A leak of one block per call would show as 10,000; the interpreter may keep one now and then.
                self.assertLess(allocated_blocks() - before, 50)

    def test_repeating_any_operation_leaves_the_reference_counts_level(self):
        watched = {
            "the module": xo, "the manager class": xo._CCanonicalPathnameMgr, "the file class": xo.CPerFile,
            "the callback class": xo.CInitialCallback, "the manager": xo._gCanonicalPathnameMgr,
            "the function type": type(xo.reset), "the type of the class": type(xo.CPerFile),
            "a function": xo.GetPathnameKind, "the thread-state key": xo._gThreadStateDictKey,
        }
        for name, operation in self.operations().items():
            self.repeat(operation, 10)
            gc.collect()
            before = {what: sys.getrefcount(value) for what, value in watched.items()}
            self.repeat(operation, 1000)
            gc.collect()
            for what, value in watched.items():
                with self.subTest(name, watched=what):
                    self.assertAlmostEqual(sys.getrefcount(value), before[what], delta=50)

    def test_the_objects_passed_in_are_not_kept(self):
        mgr = xo._CCanonicalPathnameMgr()
        calls = {
            "a type error": (xo.GetPathnameKind, TypeError),
            "a type error in a method": (mgr.Lookup, TypeError),
            "a truth value": (lambda value: xo.CInitialCallback(1, None, value), None),
            "a name that is no string": (xo.IsInternalPathname, None),
            "an excess argument": (lambda value: xo.reset(value), TypeError),
            "an unknown keyword": (lambda value: xo.reset(unknown=value), TypeError),
        }
        for name, (call, error) in calls.items():
            with self.subTest(name):
                made, dead = sentinel()
                if error is None:
                    call(made)
                else:
                    with self.assertRaises(error):
                        call(made)
                del made
                gc.collect()
                self.assertIsNone(dead())

    @needs_plain_allocator
    def test_resident_memory_stays_level(self):
        out = run_python("""
            import gc, resource
            from vorntracer import xoptmonitoring as xo

            def rounds(count):
                for index in range(count):
                    mgr = xo._CCanonicalPathnameMgr()
                    mgr.Register("/a%d.py" % (index % 100), "sum")
                    xo.register_canonical_pathname("/b%d.py" % (index % 100))
                    xo.CPerFile.GetPerFile("/c%d.py" % (index % 100))
                    try:
                        xo.GetPathnameKind(index)
                    except TypeError:
                        pass
                    if index % 100 == 0:
                        xo.reset()

            def resident():
                gc.collect()
                with open("/proc/self/statm") as f:
                    return int(f.read().split()[1]) * resource.getpagesize()

            rounds(5000)
            before = resident()
            rounds(40000)
            print(resident() - before)
        """, timeout=180).stdout
        self.assertLess(int(out), 4 << 20)


if __name__ == "__main__":
    unittest.main()
