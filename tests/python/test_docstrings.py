"""Documentation at hand: every public function, class, method and field has it, parameters included."""

import inspect
import re
import unittest

import interface
from support import XoTestCase, xo


def is_public(name):
    return not name.startswith("_")


def class_level_doc(cls, name):
    """The docstring of a class-level field, which its metaclass or the class itself may describe."""
    for owner in (*type(cls).__mro__, *cls.__mro__):
        if name in vars(owner):
            return vars(owner)[name].__doc__
    return None


class Docstrings(XoTestCase):

    def assert_documented(self, doc, parameters=()):
        self.assertIsInstance(doc, str)
        self.assertRegex(doc, r"\w+ \w+", "a docstring says something")
        for parameter in interface.parameter_names(parameters):
            self.assertTrue(re.search(rf"\b{parameter}\b", doc), f"{parameter!r} is not mentioned in {doc!r}")

    def test_the_module_has_a_docstring(self):
        self.assert_documented(xo.__doc__)

    def test_every_public_function_has_one_that_names_its_parameters(self):
        for name, parameters in interface.FUNCTIONS.items():
            if is_public(name):
                with self.subTest(name):
                    self.assert_documented(getattr(xo, name).__doc__, parameters)

    def test_every_class_has_one_of_its_own(self):
        for path in interface.CLASSES:
            with self.subTest(path):
                cls = interface.find_class(xo, path)
                self.assert_documented(vars(cls).get("__doc__") or cls.__doc__)
                self.assertNotEqual(cls.__doc__, object.__doc__)

    def test_every_public_method_has_one_that_names_its_parameters(self):
        for path, table in interface.CLASSES.items():
            for name, parameters in {**table.class_methods, **table.methods}.items():
                if is_public(name):
                    with self.subTest(path, method=name):
                        self.assert_documented(getattr(interface.find_class(xo, path), name).__doc__,
                                               parameters)

    def test_the_parameters_of_every_constructor_are_named_somewhere_in_its_docstrings(self):
        for path, table in interface.CLASSES.items():
            if "__init__" in table.methods:
                with self.subTest(path):
                    cls = interface.find_class(xo, path)
                    self.assert_documented(f"{cls.__doc__} {cls.__init__.__doc__}", table.methods["__init__"])

    def test_every_public_instance_field_has_one(self):
        for path, table in interface.CLASSES.items():
            for name in filter(is_public, table.fields):
                with self.subTest(path, field=name):
                    self.assert_documented(
                        inspect.getattr_static(interface.find_class(xo, path), name).__doc__)

    def test_every_public_class_field_has_one(self):
        for path, table in interface.CLASSES.items():
            for name in filter(is_public, table.class_fields):
                with self.subTest(path, field=name):
                    doc = class_level_doc(interface.find_class(xo, path), name)
                    self.assert_documented(doc)
                    self.assertNotEqual(doc, int.__doc__)

    def test_no_two_functions_share_a_docstring(self):
        docs = [getattr(xo, name).__doc__ for name in filter(is_public, interface.FUNCTIONS)]
        self.assertEqual(len(set(docs)), len(docs))


if __name__ == "__main__":
    unittest.main()
