"""The type stub of the module says what the module has: names, parameters, defaults, values and
documentation."""

import ast
import os
import unittest

import interface
from support import PACKAGE_DIR, xo

NOT_IN_THE_MODULE = {"_Writer"}


class TypeStub(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        with open(os.path.join(PACKAGE_DIR, "vorntracer", "xoptmonitoring.pyi"), encoding="utf-8") as file:
            cls.source_lines = file.read().splitlines()
        cls.stub = ast.parse("\n".join(cls.source_lines))

    def names_in(self, node):
        """What a module or class body of the stub declares: {name: node}."""
        names = {}
        for child in node.body:
            if isinstance(child, (ast.FunctionDef, ast.ClassDef)):
                names[child.name] = child
            elif isinstance(child, ast.AnnAssign):
                names[child.target.id] = child
            elif isinstance(child, ast.Import):
                names.update({alias.asname: child for alias in child.names})
        return names

    def class_in_stub(self, path):
        node = self.stub
        for name in path.split("."):
            node = self.names_in(node)[name]
        return node

    def parameters_of(self, function, skip_first):
        """The parameters as interface.py writes them: name or name=default."""
        arguments = function.args.args[skip_first:]
        defaults = [ast.unparse(default) for default in function.args.defaults]
        first_default = len(arguments) - len(defaults)
        return tuple(
            argument.arg if index < first_default else f"{argument.arg}={defaults[index - first_default]}"
            for index, argument in enumerate(arguments)
        )

    def assert_documented(self, function, where):
        self.assertTrue(ast.get_docstring(function), f"{where} has no doc string")
        self.assertIsNotNone(function.returns, where)
        for argument in function.args.args:
            if argument.arg not in ("self", "cls"):
                self.assertIsNotNone(argument.annotation, f"{where}({argument.arg})")

    def test_it_has_every_attribute_of_the_module_and_no_other(self):
        expected = {name for name, _ in interface.MODULE_ATTRIBUTES}
        self.assertEqual(set(self.names_in(self.stub)) - NOT_IN_THE_MODULE, expected)

    def test_functions_take_the_modules_parameters(self):
        names = self.names_in(self.stub)
        for name, parameters in interface.FUNCTIONS.items():
            with self.subTest(name):
                self.assertEqual(self.parameters_of(names[name], 0), parameters)
                self.assert_documented(names[name], name)

    def test_classes_have_the_modules_fields_and_methods(self):
        for path, table in interface.CLASSES.items():
            with self.subTest(path):
                node = self.class_in_stub(path)
                self.assertTrue(ast.get_docstring(node))
                names = self.names_in(node)
                nested = {nested.rpartition(".")[2] for nested in interface.CLASSES
                          if nested.rpartition(".")[0] == path}
                functions = {name: child for name, child in names.items()
                             if isinstance(child, ast.FunctionDef)}
                fields = {name: ast.unparse(child.annotation) for name, child in names.items()
                          if isinstance(child, ast.AnnAssign)}
                self.assertEqual(set(names) - set(functions) - set(fields), nested)
                self.assertEqual(set(fields), set(table.fields) | set(table.class_fields))
                for name, annotation in fields.items():
                    self.assertEqual(annotation.startswith("ClassVar["), name in table.class_fields, name)
                    if {**table.fields, **table.class_fields}[name] != "object":
                        bare = annotation.removeprefix("ClassVar[").removesuffix("]")
                        self.assertEqual(bare, {**table.fields, **table.class_fields}[name], name)

                own_name = path.rpartition(".")[2].lstrip("_")
                methods = {**table.class_methods, **table.methods}
                private = {name for name in functions if name.startswith("__") and not name.endswith("__")}
                mangled = {f"_{own_name}{name}" if name in private else name: child
                           for name, child in functions.items()}
                self.assertEqual(set(mangled), set(methods))
                for name, child in mangled.items():
                    decorators = [ast.unparse(decorator) for decorator in child.decorator_list]
                    expected = ["classmethod"] if name in table.class_methods else []
                    self.assertEqual(decorators, expected, name)
                    self.assertEqual(self.parameters_of(child, 1), methods[name], name)
                    self.assert_documented(child, f"{path}.{name}")

    def test_constants_are_shown_with_their_values(self):
        shown = 0
        for name, node in self.names_in(self.stub).items():
            _, hash_sign, value = self.source_lines[node.lineno - 1].partition("  # ")
            if hash_sign:
                self.assertEqual(getattr(xo, name), int(value), name)
                shown += 1
        self.assertEqual(shown, 14)


if __name__ == "__main__":
    unittest.main()
