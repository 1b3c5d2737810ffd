"""Fields of instances and classes: types, texts of refusal, final ones, deletion and inheritance."""

import unittest

import interface
from support import NastyError, Recorder, XoTestCase, raising, xo


def make_instances():
    """One instance of every class that can be made without a thread of its own, by class path."""
    code = compile("pass", "/typed.py", "exec")
    per_thread = xo.CPerThread(xo._GetThreadIdent() + 1)
    return {
        "CPerFile": xo.CPerFile("/typed.py"),
        "CPerCodeObject": xo.CPerCodeObject(code, None),
        "CPerThread": per_thread,
        "CPerThread._CCleanupSupport": xo.CPerThread._CCleanupSupport(per_thread),
        "CPerThread._CCapsule": xo.CPerThread._CCapsule(),
        "CInitialCallback": xo.CInitialCallback(1, None, False),
        "_CCanonicalPathnameMgr": xo._CCanonicalPathnameMgr(),
    }, code


class InstanceFields(XoTestCase):

    def setUp(self):
        super().setUp()
        self.instances, self.code = make_instances()

    def fields(self, kind=None):
        for path, instance in self.instances.items():
            for field, held_as in interface.CLASSES[path].fields.items():
                if kind in (None, held_as):
                    yield path, instance, field

    def test_every_field_can_be_read_after_construction(self):
        for path, instance, field in self.fields():
            with self.subTest(path, field=field):
                getattr(instance, field)

    def test_an_integer_field_refuses_other_types_and_keeps_its_value(self):
        for path, instance, field in self.fields("int"):
            setattr(instance, field, 3)
            for value in ("x", None, 1.5, [], b"1"):
                with self.subTest(path, field=field, value=value):
                    self.assert_raises_text(TypeError, f"expected int, got {value!r}",
                                            setattr, instance, field, value)
                    self.assertEqual(getattr(instance, field), 3)

    def test_an_integer_field_holds_every_machine_word(self):
        for path, instance, field in self.fields("int"):
            for value in (0, 1, -1, 2**31, 2**63 - 1, -2**63):
                with self.subTest(path, field=field, value=value):
                    setattr(instance, field, value)
                    self.assertEqual(getattr(instance, field), value)

    def test_an_integer_field_raises_overflow_error_out_of_range_and_keeps_its_value(self):
        for path, instance, field in self.fields("int"):
            setattr(instance, field, 3)
            for value in (2**63, -2**63 - 1, 10**50):
                with self.subTest(path, field=field, value=value):
                    with self.assertRaises(OverflowError):
                        setattr(instance, field, value)
                    self.assertEqual(getattr(instance, field), 3)

    def test_an_integer_field_takes_subclasses_of_int_and_reads_as_a_plain_integer(self):
        class Integer(int):
            pass

        for path, instance, field in self.fields("int"):
            for value in (True, Integer(5)):
                with self.subTest(path, field=field, value=value):
                    setattr(instance, field, value)
                    self.assertIs(type(getattr(instance, field)), int)
                    self.assertEqual(getattr(instance, field), int(value))

    def test_a_boolean_field_refuses_other_types_and_keeps_its_value(self):
        for path, instance, field in self.fields("bool"):
            setattr(instance, field, True)
            for value in (0, 1, None, "x", []):
                with self.subTest(path, field=field, value=value):
                    self.assert_raises_text(TypeError, f"expected bool, got {value!r}",
                                            setattr, instance, field, value)
                    self.assertIs(getattr(instance, field), True)

    def test_a_boolean_field_reads_as_true_or_false_itself(self):
        for path, instance, field in self.fields("bool"):
            for value in (True, False, True):
                with self.subTest(path, field=field, value=value):
                    setattr(instance, field, value)
                    self.assertIs(getattr(instance, field), value)

    def test_neighbouring_fields_do_not_disturb_each_other(self):
        for path, instance in self.instances.items():
            table = interface.CLASSES[path].fields
            numeric = [field for field, held_as in table.items() if held_as != "object"]
            for field in numeric:
                with self.subTest(path, field=field):
                    for other in numeric:
                        setattr(instance, other, False if table[other] == "bool" else 0)
                    setattr(instance, field, True if table[field] == "bool" else -1)
                    self.assertEqual([other for other in numeric if getattr(instance, other) != 0], [field])

    def test_an_untyped_field_holds_the_very_object_it_was_given(self):
        for path, instance, field in self.fields("object"):
            if (path, field) == ("CInitialCallback", "_fSecondCallback") or path == "_CCanonicalPathnameMgr":
                continue  # set once only; dictionaries
            before = getattr(instance, field)
            for value in (object(), None, 5, raising("__eq__", "__bool__", "__hash__")):
                with self.subTest(path, field=field):
                    setattr(instance, field, value)
                    self.assertIs(getattr(instance, field), value)
            setattr(instance, field, before)

    def test_deleting_a_field_is_refused_and_keeps_its_value(self):
        for path, instance, field in self.fields():
            with self.subTest(path, field=field):
                before = getattr(instance, field)
                self.assert_raises_text(TypeError, "deletion not supported", delattr, instance, field)
                self.assertEqual(getattr(instance, field), before)

    def test_an_attribute_that_the_class_lacks_can_be_neither_read_nor_set_nor_deleted(self):
        for path, instance in self.instances.items():
            for name in ("no_such_field", "fNoSuchField", "__dict__"):
                with self.subTest(path, name=name):
                    self.assertRaises(AttributeError, getattr, instance, name)
                    self.assertRaises(AttributeError, setattr, instance, name, 1)
                    self.assertRaises(AttributeError, delattr, instance, name)

    def test_methods_cannot_be_replaced_on_an_instance(self):
        for path, instance in self.instances.items():
            table = interface.CLASSES[path]
            for name in (*table.methods, *table.class_methods):
                if name != "__init__":
                    with self.subTest(path, name=name), self.assertRaises(AttributeError):
                        setattr(instance, name, None)

    def test_an_object_field_that_was_never_set_reads_as_attribute_error(self):
        for path, table in interface.CLASSES.items():
            cls = interface.find_class(xo, path)
            half_built = cls.__new__(cls)
            for field, held_as in table.fields.items():
                if held_as == "object":
                    with self.subTest(path, field=field):
                        self.assert_raises_text(AttributeError, "Attribute error", getattr, half_built, field)

    def test_fields_of_a_half_built_instance_can_be_set(self):
        mgr = xo._CCanonicalPathnameMgr.__new__(xo._CCanonicalPathnameMgr)
        mgr.fByName = names = {"/a.py": "/b.py"}
        self.assertIs(mgr.fByName, names)
        self.assertEqual(mgr.Lookup("/a.py"), "/b.py")

    def test_a_field_is_not_reached_through_a_foreign_object(self):
        for path, instance, field in self.fields():
            descriptor = vars(type(instance)).get(field)
            for foreign in (5, object, xo._CCanonicalPathnameMgr(), xo.CInitialCallback(1, None, False)):
                if descriptor is not None and not isinstance(foreign, type(instance)):
                    with self.subTest(path, field=field, foreign=foreign):
                        self.assertRaises(TypeError, descriptor.__get__, foreign, type(foreign))
                        self.assertRaises(TypeError, descriptor.__set__, foreign, None)

    def test_methods_stand_in_the_class_in_declaration_order(self):
        for path in ("CPerFile", "CInitialCallback", "_CCanonicalPathnameMgr"):
            table = interface.CLASSES[path]
            wanted = [name for name in (*table.class_methods, *table.methods) if name != "__init__"]
            with self.subTest(path):
                names = vars(interface.find_class(xo, path))
                self.assertEqual([name for name in names if name in wanted], wanted)

    def test_the_repr_in_a_refusal_is_cut_at_200_characters(self):
        value = "y" * 500
        self.assert_raises_text(TypeError, f"expected int, got {repr(value)[:200]}",
                                setattr, self.instances["CPerThread"], "fDebugPolicy", value)

    def test_a_value_whose_repr_raises_is_refused_all_the_same(self):
        per_thread = self.instances["CPerThread"]
        with self.assertRaises((NastyError, TypeError)):
            per_thread.fDebugPolicy = raising("__repr__")
        self.assertEqual(per_thread.fDebugPolicy, -1)


class FinalFields(XoTestCase):

    def test_the_second_callback_is_set_once_only_and_the_text_names_the_instance(self):
        second = Recorder()
        callback = xo.CInitialCallback(1, second, False)
        for value in (None, second, Recorder()):
            self.assert_final("_fSecondCallback", callback, setattr, callback, "_fSecondCallback", value)
        self.assertIs(callback._fSecondCallback, second)

    def test_none_counts_as_a_value_that_is_already_set(self):
        callback = xo.CInitialCallback(1, None, False)
        self.assert_final("_fSecondCallback", callback, setattr, callback, "_fSecondCallback", Recorder())
        self.assertIsNone(callback._fSecondCallback)

    def test_a_final_field_of_a_half_built_instance_can_be_set_the_first_time(self):
        callback = xo.CInitialCallback.__new__(xo.CInitialCallback)
        second = Recorder()
        callback._fSecondCallback = second
        self.assertIs(callback._fSecondCallback, second)
        self.assert_final("_fSecondCallback", callback, setattr, callback, "_fSecondCallback", None)

    def test_constructing_twice_is_refused_by_the_final_field(self):
        second = Recorder()
        callback = xo.CInitialCallback(1, second, False)
        self.assert_final("_fSecondCallback", callback, callback.__init__, 1, None, True)
        self.assertIs(callback._fSecondCallback, second)
        self.assertIs(callback._fCanReturnDisable, False)

    def test_deleting_a_final_field_is_refused_like_any_other_deletion(self):
        callback = xo.CInitialCallback(1, None, False)
        self.assert_raises_text(TypeError, "deletion not supported", delattr, callback, "_fSecondCallback")

    def test_the_not_found_time_is_final_and_the_text_names_the_class(self):
        cls = xo._CCanonicalPathnameMgr
        for value in (10, 3):
            self.assert_final("kNotFoundTtlSeconds", cls, setattr, cls, "kNotFoundTtlSeconds", value)
        self.assertEqual(cls.kNotFoundTtlSeconds, 3)

    def test_the_not_found_time_cannot_be_changed_by_other_means(self):
        cls = xo._CCanonicalPathnameMgr
        mgr = cls()
        for setter, target in ((type.__setattr__, cls), (object.__setattr__, mgr), (setattr, mgr)):
            with self.subTest(setter), self.assertRaises((AttributeError, TypeError)):
                setter(target, "kNotFoundTtlSeconds", 10)
        with self.assertRaises((AttributeError, TypeError)):
            del cls.kNotFoundTtlSeconds
        self.assertEqual((cls.kNotFoundTtlSeconds, mgr.kNotFoundTtlSeconds), (3, 3))


class ClassFields(XoTestCase):

    def class_fields(self, kind=None):
        for path, table in interface.CLASSES.items():
            for field, held_as in table.class_fields.items():
                if kind in (None, held_as):
                    yield path, interface.find_class(xo, path), field

    def test_every_class_field_can_be_read_as_an_attribute_of_the_class(self):
        for path, cls, field in self.class_fields():
            with self.subTest(path, field=field):
                getattr(cls, field)

    def test_class_fields_can_be_read_through_an_instance(self):
        instances, _code = make_instances()
        for path, cls, field in self.class_fields():
            with self.subTest(path, field=field):
                value = getattr(instances[path], field)
                check = self.assertEqual if type(value) is int else self.assertIs
                check(value, getattr(cls, field))

    def test_class_fields_cannot_be_set_through_an_instance(self):
        instances, _code = make_instances()
        for path, cls, field in self.class_fields():
            with self.subTest(path, field=field):
                before = getattr(cls, field)
                with self.assertRaises(AttributeError):
                    setattr(instances[path], field, None)
                self.assertEqual(getattr(cls, field), before)

    def test_class_fields_start_with_their_initial_values(self):
        self.assertEqual((xo.CPerFile._fPerFileDict, xo.CPerFile._fByChecksum), ({}, {}))
        self.assertIsNone(xo.CPerFile._fNewPerFileCreatedCallback)
        self.assertEqual(xo.CPerCodeObject._fPerCodeObjectDict, {})
        self.assertGreaterEqual(xo.CPerCodeObject._fCodeObjectExtraIndex, -1)
        self.assertEqual(xo.CPerThread._fPerThreadDict, {})
        self.assertEqual(xo.CPerThread._fCleanedUpThreadIds, set())
        self.assertEqual(xo.CInitialCallback._kOffsetForGetFrameInGetPerCodeObject, 0)
        self.assertEqual(xo._CCanonicalPathnameMgr.kNotFoundTtlSeconds, 3)

    def test_a_callback_field_of_a_class_reads_back_as_it_was_set(self):
        for path, cls, field in self.class_fields("object"):
            if field.endswith("Callback"):
                callback = Recorder()
                with self.subTest(path, field=field):
                    setattr(cls, field, callback)
                    self.assertIs(getattr(cls, field), callback)
                    setattr(cls, field, None)
                    self.assertIsNone(getattr(cls, field))

    def test_an_integer_class_field_is_typed_like_an_instance_field(self):
        cls = xo.CPerCodeObject
        before = cls._fCodeObjectExtraIndex
        for value in ("x", None, 1.5):
            with self.subTest(value):
                self.assert_raises_text(TypeError, f"expected int, got {value!r}",
                                        setattr, cls, "_fCodeObjectExtraIndex", value)
        with self.assertRaises(OverflowError):
            cls._fCodeObjectExtraIndex = 2**63
        self.assertEqual(cls._fCodeObjectExtraIndex, before)
        cls._fCodeObjectExtraIndex = -1
        self.assertEqual(cls._fCodeObjectExtraIndex, -1)

    def test_deleting_a_class_field_is_refused_and_keeps_its_value(self):
        for path, cls, field in self.class_fields():
            with self.subTest(path, field=field):
                before = getattr(cls, field)
                self.assert_raises_text(TypeError, "deletion not supported", delattr, cls, field)
                self.assertEqual(getattr(cls, field), before)

    def test_a_subclass_sees_its_bases_class_fields(self):
        class Sub(xo.CPerFile):
            pass

        callback = Recorder()
        self.assertIs(Sub._fPerFileDict, xo.CPerFile._fPerFileDict)
        xo.CPerFile._fNewPerFileCreatedCallback = callback
        self.assertIs(Sub._fNewPerFileCreatedCallback, callback)

    def test_a_subclass_that_sets_a_class_field_has_its_own_from_then_on(self):
        class Sub(xo.CPerFile):
            pass

        base_callback, own = Recorder(), Recorder()
        xo.CPerFile._fNewPerFileCreatedCallback = base_callback
        Sub._fNewPerFileCreatedCallback = own
        self.assertIs(Sub._fNewPerFileCreatedCallback, own)
        self.assertIs(xo.CPerFile._fNewPerFileCreatedCallback, base_callback)
        xo.CPerFile._fNewPerFileCreatedCallback = None
        self.assertIs(Sub._fNewPerFileCreatedCallback, own)

    def test_a_subclass_that_sets_an_integer_class_field_has_its_own_from_then_on(self):
        class InItsBody(xo.CInitialCallback):
            _kOffsetForGetFrameInGetPerCodeObject = 3

        class Later(xo.CInitialCallback):
            pass

        class Below(Later):
            pass

        self.assertEqual(Later._kOffsetForGetFrameInGetPerCodeObject, 0)
        Later._kOffsetForGetFrameInGetPerCodeObject = 4
        self.assertEqual([cls._kOffsetForGetFrameInGetPerCodeObject
                          for cls in (xo.CInitialCallback, InItsBody, Later, Below)], [0, 3, 4, 4])
        Later._kOffsetForGetFrameInGetPerCodeObject = 0
        Below._kOffsetForGetFrameInGetPerCodeObject = -1
        self.assertEqual([cls._kOffsetForGetFrameInGetPerCodeObject for cls in (Later, Below)], [0, -1])

    def test_a_class_field_in_the_body_of_a_subclass_can_be_replaced_though_it_was_read_at_once(self):
        """The interpreter remembers what it found in the class's dictionary, where the field is no more."""
        class Reading(xo.CPerFile):
            def __init_subclass__(cls):
                instances.append(cls.__new__(cls))
                first.append(instances[0]._fPerFileDict)

        instances, first = [], []
        class Sub(Reading):
            _fPerFileDict = {"in": "the body"}

        self.assertEqual(first, [{"in": "the body"}])
        Sub._fPerFileDict = {"set": "later"}
        self.assertEqual((Sub._fPerFileDict, instances[0]._fPerFileDict), ({"set": "later"}, {"set": "later"}))

    def test_a_class_method_called_on_a_subclass_sets_the_subclasses_field(self):
        class Sub(xo.CPerFile):
            pass

        own = Recorder()
        Sub.SetNewPerFileCreatedCallback(own)
        self.assertIs(Sub._fNewPerFileCreatedCallback, own)
        self.assertIsNone(xo.CPerFile._fNewPerFileCreatedCallback)

    def test_private_methods_are_found_under_their_mangled_names_only(self):
        callback = xo.CInitialCallback(1, None, False)
        for name in ("__GetPerCodeObjectCalledFromCallback", "__GetPerThreadCalledFromCallback"):
            with self.subTest(name):
                self.assertTrue(callable(getattr(callback, "_CInitialCallback" + name)))
                self.assertRaises(AttributeError, getattr, callback, name)
        cleanup = make_instances()[0]["CPerThread._CCleanupSupport"]
        self.assertTrue(callable(cleanup._CCleanupSupport__CapsuleDestructor))
        self.assertRaises(AttributeError, getattr, cleanup, "__CapsuleDestructor")

    def test_the_nested_classes_are_attributes_of_the_thread_record(self):
        self.assertIsInstance(xo.CPerThread._CCapsule, type)
        self.assertIsInstance(xo.CPerThread._CCleanupSupport, type)

    def test_a_method_knows_its_class_and_its_defaults(self):
        for path, table in interface.CLASSES.items():
            cls = interface.find_class(xo, path)
            for name, parameters in table.methods.items():
                if name == "__init__":
                    continue
                with self.subTest(path, method=name):
                    function = vars(cls)[name]
                    self.assertIs(function.__obj_class__, cls)
                    if interface.defaults(parameters):
                        self.assertEqual(function.__default_args__, interface.defaults(parameters))
                    else:
                        self.assert_raises_text(AttributeError, "Attribute error",
                                                getattr, function, "__default_args__")


if __name__ == "__main__":
    unittest.main()
