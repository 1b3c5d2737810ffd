"""The interpreter's own functions with other globals: their bodies stay theirs, and some names mean something else.

The bodies of `bdb` and `pdb` differ from one patch release to the next, so a copy of one would be right for a single
release. What has to differ for us is only what a few global names stand for: `sys`, where `sys.settrace` is called, or
the class `Pdb`, where one is made.
"""

import sys
import types


class OverlaidGlobals(dict):
    """The globals of a module, with some names of our own before them.

    The interpreter asks a dictionary that is no plain one through its own look-up, so the module's names are found as
    they are at that moment.
    """

    def __init__(self, module, names):
        super().__init__(names)
        self._module_globals = vars(module)

    def __missing__(self, name):
        return self._module_globals[name]


class OverlaidModule:
    """A module with some attributes of our own before its own."""

    def __init__(self, module, **attributes):
        vars(self).update(attributes)
        vars(self)["_module"] = module

    def __getattr__(self, name):
        return getattr(self._module, name)

    def __setattr__(self, name, value):
        setattr(self._module, name, value)


def rebind(function, module_globals):
    """Return the same function with other globals."""
    rebound = types.FunctionType(function.__code__, module_globals, function.__name__, function.__defaults__,
                                 function.__closure__)
    rebound.__kwdefaults__ = function.__kwdefaults__
    rebound.__doc__ = function.__doc__
    rebound.__qualname__ = function.__qualname__
    rebound.__dict__.update(function.__dict__)
    return rebound


def functions_naming(holder, names):
    """Return name and function for each Python function in a class or module whose own code uses one of the names."""
    return [(name, value) for name, value in list(vars(holder).items())
            if isinstance(value, types.FunctionType) and _uses(value.__code__, names)]


def _uses(code, names):
    return not names.isdisjoint(code.co_names) or any(
        _uses(constant, names) for constant in code.co_consts if isinstance(constant, types.CodeType))


def sys_with(settrace):
    """The module `sys` with another `settrace`."""
    return OverlaidModule(sys, settrace=settrace)
