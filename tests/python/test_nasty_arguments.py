"""Nothing that Python code can call crashes the interpreter: every callable and field meets nasty values.

Each test runs one part of the surface in a process of its own. What comes back is of no interest as long as
it is a result or an ordinary exception; a crash, a hang, or a breach of the interpreter's calling protocol
fails.
"""

import faulthandler
import gc
import itertools
import sys
import unittest
import weakref

import interface
from support import (
    NastyError, Recorder, RecordingWriter, SPECIAL_METHODS, XoTestCase, raising, reentering, run_python,
    time_limit, xo,
)

#: The texts by which the interpreter reports that a native function broke the rules of calling.
BROKEN_PROTOCOL = ("without setting an exception", "with an exception set")

TIMEOUT = 240

#: One entry in so many collects garbage. It would take nearly all of the time where every collection is a whole one.
COLLECTED = 8

#: Not re-entrant: the module holds it while it changes the registries of threads, where a key's hash may run.
REGISTRY_LOCK = xo.CPerThread._fRegistryLock


# The values ----------------------------------------------------------------------------------------------


inside = []
entries = itertools.count()


def reenter():
    """Calls back into the module from wherever a special method happens to run, and pulls the rug away."""
    if inside:
        return  # the module is being re-entered already
    inside.append(True)
    try:
        if not REGISTRY_LOCK.locked():  # ending a thread's record takes it
            xo.reset()
            if next(entries) % COLLECTED == 0:
                gc.collect(0)
        xo.get_canonical_pathname("/reentered.py")
        xo.CPerFile.GetPerFile("/reentered.py")
        xo.CPerThread.GetAllPerThreads()
        xo.set_dprintf_mask(0)
    finally:
        inside.clear()


def quietly_reenter():
    """Calls back into the module, and hides what goes wrong there."""
    try:
        reenter()
    except Exception:
        pass


class RaisesWhenReleased:
    def __del__(self):
        raise NastyError("released")


class ReentersWhenReleased:
    def __del__(self):
        quietly_reenter()


class NastyLock:
    """A lock that can be taken and not given back in peace."""

    def acquire(self, *_args):
        return True

    def release(self):
        raise NastyError("release")

    __enter__ = acquire

    def __exit__(self, *_exception):
        raise NastyError("exit")


def a_dead_weak_reference():
    class Dies:
        pass

    return weakref.ref(Dies())


def a_finished_generator_frame():
    def generator():
        yield

    made = generator()
    frame = made.gi_frame
    list(made)
    return frame


def half_built():
    """For every class an instance made without running its constructor, and one of a subclass."""
    for path in interface.CLASSES:
        cls = interface.find_class(xo, path)
        yield cls.__new__(cls)
        sub = type("Sub", (cls,), {})
        yield sub.__new__(sub)


def nasty_values():
    """A fresh list of things that no caller should pass."""
    code = (lambda: None).__code__
    return [
        None, True, False, 0, 1, -1, 250, 2**31, -2**31 - 1, 2**63 - 1, -2**63, 2**63, -2**63 - 1, 2**200,
        0.5, float("nan"), float("inf"), 1j, "", "x", "\0", "/nasty\0.py", "\ud800", "<", "<frozen ",
        "x" * 100_000, "/nasty.py", "<nasty>", b"/nasty.py", bytearray(b"x"), (), [], {}, set(), frozenset(),
        {"x": 1}, range(3), object, object(), type, int, xo, xo.reset, xo.CPerFile, len, Ellipsis,
        NotImplemented, code, sys._getframe(), a_finished_generator_frame(), a_dead_weak_reference(),
        weakref.ref(xo.CPerFile), Recorder(), Recorder(error=NastyError("called")),
        RecordingWriter(error=NastyError("written")), NastyError("an instance"), NastyError, NastyLock(),
        xo._gThreadStateDictKey, xo._gCanonicalPathnameMgr, RaisesWhenReleased(), ReentersWhenReleased(),
        raising(), reentering(quietly_reenter), reentering(reenter),
        raising(base=str, args=("/nasty.py",)),
        reentering(quietly_reenter, base=str, args=("/nasty.py",)),
        raising("__hash__", base=str, args=("/nasty.py",)),
        raising("__eq__", "__hash__", base=int, args=(3,)),
        reentering(quietly_reenter, "__eq__", "__hash__", base=int, args=(3,)),
        raising("__and__", "__index__", "__bool__", base=int, args=(3,)), raising("__getitem__", base=dict),
        raising("__len__", "__iter__", "__contains__", base=set), reentering(quietly_reenter, base=dict),
        reentering(quietly_reenter, "__contains__", base=set),
        *(raising(name) for name in SPECIAL_METHODS), *half_built(),
    ]


#: For each parameter name a value that gets a call as far as it can go while another argument is nasty.
PLAUSIBLE = {
    "pathname": "/plausible.py", "abs_pathname": "/plausible.py", "checksum": "sum", "kind": 0,
    "callback": lambda *_args: None, "obj": None, "f": sys._getframe(), "fileno": 1, "win32_handle": None,
    "mask": 0, "domain": 1, "s": "text", "d": {}, "this_module_depth": 0,
    "code_object": nasty_values.__code__,
    "per_code_object": None, "per_thread": None, "index": 250, "value": None, "frame": sys._getframe(),
    "frame_for_pathnames": None, "canonical": True, "depth": None, "count": 0, "n": 2, "create": True,
    "remove": True, "thread_id": 7, "get_thread_name_callback": None, "thread_policy_callback": None,
    "invalidate_capsule": True, "event_id": 1, "second_callback": lambda *_args: None,
    "can_return_disable": True, "lineno_obj": 1,
}

#: Parameters that count how often something is done: a huge number is no error there, it only takes for ever.
COUNTS = {"n", "count"}


# Meeting them --------------------------------------------------------------------------------------------


class Meeting:
    """Calls with nasty values, keeps the module's own registries usable, and counts what it did."""

    def __init__(self):
        self.calls = 0
        self.class_fields = [
            (interface.find_class(xo, path), name, getattr(interface.find_class(xo, path), name))
            for path, table in interface.CLASSES.items() for name in table.class_fields
            if name not in ("kNotFoundTtlSeconds", "_kOffsetForGetFrameInGetPerCodeObject")]

    def attempt(self, call, /, *args, **kwargs):
        """Makes one call; a result and an ordinary exception are both fine."""
        self.calls += 1
        try:
            return call(*args, **kwargs)
        except Exception as error:
            text = str(error) if type(error) is SystemError else ""
            if any(broken in text for broken in BROKEN_PROTOCOL):
                raise AssertionError(f"{call!r} broke the calling protocol: {text}") from None
            return None

    def mend(self):
        """Puts the class-level fields back and resets the module."""
        for cls, name, value in self.class_fields:
            if getattr(cls, name) is not value:
                setattr(cls, name, value)
        mgr = xo._gCanonicalPathnameMgr
        mgr.__init__()
        xo.reset()
        assert xo.get_canonical_pathname("/alive.py") == "/alive.py"
        xo.reset()

    def allowed(self, parameter, value):
        """Whether a call that gets this value comes back at all."""
        return (parameter not in COUNTS or type(value) is not int or abs(value) <= 1000
                or not -2**63 <= value < 2**63)

    def meet(self, call, parameters):
        """Calls with one nasty value among plausible ones, with nasty ones only, too few and too many."""
        names = interface.parameter_names(parameters)
        plausible = [PLAUSIBLE[name] for name in names]
        for index, name in enumerate(names):
            for value in nasty_values():
                if self.allowed(name, value):
                    self.attempt(call, *plausible[:index], value, *plausible[index + 1:])
                    self.attempt(call, *plausible[:index], **{name: value})
        for value in nasty_values():
            for count in range(len(names) + 3):
                if all(self.allowed(name, value) for name in names[:count]):
                    self.attempt(call, *[value] * count)
        for keyword in ("unknown", "", "\0", "\ud800", "self", "cls", "x" * 1000):
            self.attempt(call, *plausible, **{keyword: raising()})
        self.attempt(call, *plausible, **{f"unknown{number}": number for number in range(300)})
        self.mend()


def meet_functions(names):
    meeting = Meeting()
    for name in names:
        meeting.meet(getattr(xo, name), interface.FUNCTIONS[name])
    return meeting


def meet_methods(path):
    """Every method on the class, on half-built instances and on a finalised one."""
    meeting = Meeting()
    cls = interface.find_class(xo, path)
    table = interface.CLASSES[path]
    for name, parameters in table.class_methods.items():
        meeting.meet(getattr(cls, name), parameters)
        meeting.meet(getattr(type("Sub", (cls,), {}), name), parameters)
    for name, parameters in table.methods.items():
        for value in nasty_values():  # as self
            meeting.attempt(getattr(cls, name), value)
            meeting.attempt(getattr(cls, name), value, *[PLAUSIBLE[p] for p in
                                                         interface.parameter_names(parameters)])
        meeting.mend()
        finalised = cls.__new__(cls)
        meeting.attempt(finalised.__del__)
        sub = type("Sub", (cls,), {})
        for instance in (cls.__new__(cls), finalised, sub.__new__(sub)):
            meeting.meet(getattr(instance, name), parameters)
    return meeting


def meet_constructors():
    meeting = Meeting()
    for path, table in interface.CLASSES.items():
        cls = interface.find_class(xo, path)
        for made in (cls, type("Sub", (cls,), {})):
            meeting.meet(made, table.methods.get("__init__", ()))
            for value in nasty_values():
                meeting.attempt(made.__new__, made, value)
                meeting.attempt(made.__new__, value)
                meeting.attempt(object.__new__, made)
    return meeting


def meet_fields(path):
    """Every field of an instance takes every value or refuses it; every method then meets what it took."""
    meeting = Meeting()
    cls = interface.find_class(xo, path)
    table = interface.CLASSES[path]
    for field in table.fields:
        for value in nasty_values():
            instance = cls.__new__(cls)
            meeting.attempt(setattr, instance, field, value)
            meeting.attempt(getattr, instance, field)
            meeting.attempt(delattr, instance, field)
            meeting.attempt(setattr, instance, field, value)
            descriptor = vars(cls).get(field)
            for access in ("__get__", "__set__", "__delete__"):
                if hasattr(descriptor, access):
                    meeting.attempt(getattr(descriptor, access), value)
                    meeting.attempt(getattr(descriptor, access), value, value)
                    meeting.attempt(getattr(descriptor, access), instance, value)
            for name, parameters in table.methods.items():
                arguments = [PLAUSIBLE[parameter] for parameter in interface.parameter_names(parameters)]
                if name != "__init__":
                    meeting.attempt(getattr(instance, name), *arguments)
            meeting.attempt(repr, instance)
            gc.get_referents(instance)
        meeting.mend()
    for value in nasty_values():
        instance = cls.__new__(cls)
        for field in table.fields:
            meeting.attempt(setattr, instance, field, value)
        for name, parameters in table.methods.items():
            meeting.attempt(getattr(instance, name),
                            *[PLAUSIBLE[parameter] for parameter in interface.parameter_names(parameters)])
    meeting.mend()
    return meeting


def meet_class_fields(path):
    """Every class-level field takes every value or refuses it; the class's methods then meet what it took."""
    meeting = Meeting()
    cls = interface.find_class(xo, path)
    table = interface.CLASSES[path]
    for field in table.class_fields:
        original = getattr(cls, field)
        for value in nasty_values():
            meeting.attempt(setattr, cls, field, value)
            meeting.attempt(getattr, cls, field)
            meeting.attempt(delattr, cls, field)
            meeting.attempt(type.__setattr__, cls, field, value)
            meeting.attempt(type.__delattr__, cls, field)
            for name, parameters in table.class_methods.items():
                arguments = [PLAUSIBLE[parameter] for parameter in interface.parameter_names(parameters)]
                meeting.attempt(getattr(cls, name), *arguments)
            meeting.attempt(cls, *[PLAUSIBLE[parameter] for parameter in
                                   interface.parameter_names(table.methods.get("__init__", ()))])
            meeting.attempt(xo.reset)
            meeting.attempt(setattr, cls, field, original)
        meeting.mend()
    return meeting


def meet_module():
    """The module object's own attributes, and the fields of its functions."""
    meeting = Meeting()
    for name, kind in interface.MODULE_ATTRIBUTES:
        for value in nasty_values():
            meeting.attempt(setattr, xo, name, value)
            meeting.attempt(delattr, xo, name)
            if kind == "function":
                function = getattr(xo, name)
                for field in ("__name__", "__doc__", "__default_args__", "__obj_class__", "__mod__", "__m__",
                              "__vectorcall_cfunction", "__class__", "__dict__", "no_such"):
                    meeting.attempt(getattr, function, field)
                    meeting.attempt(setattr, function, field, value)
                    meeting.attempt(delattr, function, field)
    for value in nasty_values():
        meeting.attempt(type(xo), value)
        meeting.attempt(type(xo), "name", value)
        meeting.attempt(type(xo.reset), value)
        meeting.attempt(type(xo.reset), "name", value)
        meeting.attempt(type(xo.CPerFile), value)
        meeting.attempt(type(xo.CPerFile), "Made", (value,), {})
        meeting.attempt(type(xo.CPerFile), "Made", (xo.CPerFile,), {"_fPerFileDict": value})
    for made_of in (type(xo), type(xo.reset), type(xo.CPerFile)):
        for made in (meeting.attempt(made_of.__new__, made_of), meeting.attempt(object.__new__, made_of)):
            if made is not None:
                meeting.attempt(made)
                meeting.attempt(repr, made)
                for name in ("reset", "CPerFile", "__name__", "__doc__", "_fPerFileDict"):
                    meeting.attempt(getattr, made, name)
                    meeting.attempt(setattr, made, name, 1)
                    meeting.attempt(delattr, made, name)
    meeting.mend()
    return meeting


def meet_classes():
    """The classes as objects: their bases, names and dictionaries set, and made into what they are not."""
    meeting = Meeting()
    instances = list(half_built())
    for path in interface.CLASSES:
        cls = interface.find_class(xo, path)
        for name in ("__name__", "__qualname__", "__module__", "__bases__", "__doc__", "__dict__", "__mro__",
                     "__init__", "__new__", "no_such"):
            sub = type("Sub", (cls,), {})  # what a subclass lets happen to it harms no other test
            for value in nasty_values():
                meeting.attempt(setattr, sub, name, value)
            meeting.attempt(delattr, sub, name)
            meeting.attempt(sub)
        for instance in instances:
            meeting.attempt(setattr, cls.__new__(cls), "__class__", type(instance))
            meeting.attempt(setattr, instance, "__class__", cls)
    for pair in itertools.permutations(interface.CLASSES, 2):
        meeting.attempt(type, "Both", tuple(interface.find_class(xo, path) for path in pair), {})
    meeting.mend()
    return meeting


def run(*parts):
    """What a child process does: some parts of the surface, each a function above and its arguments, silently, with a
    time limit of its own."""
    sys.unraisablehook = lambda unraisable: None  # what the values raise when they are released
    faulthandler.dump_traceback_later(time_limit(TIMEOUT) - 10, exit=True)
    for part, *args in parts:
        meeting = globals()[part](*args)
        for _ in range(3):
            gc.collect()
        assert meeting.calls > 50, (part, meeting.calls)
    faulthandler.cancel_dump_traceback_later()


class NastyArguments(XoTestCase):

    def survive(self, *parts):
        run_python(f"""
            import test_nasty_arguments
            test_nasty_arguments.run(*{parts!r})
        """, timeout=TIMEOUT)

    def survive_functions(self, *names):
        self.survive(("meet_functions", names))

    def test_the_diagnostic_functions_survive(self):
        self.survive_functions("set_dprintf_file", "set_dprintf_mask", "get_dprintf_mask", "dprintf")

    def test_the_pathname_functions_survive(self):
        self.survive_functions(
            "GetPathnameKind", "lookup_canonical_pathname", "register_canonical_pathname",
            "get_canonical_pathname", "SetInternalPathnameDict", "IsInternalPathname")

    def test_the_checksum_functions_survive(self):
        self.survive_functions("set_checksum_callback", "get_checksum_callback", "_get_checksum_for_pathname")

    def test_the_code_object_functions_survive(self):
        self.survive_functions("_Code_RequestExtraIndexForOwnedRef", "_Code_GetExtra", "_Code_SetExtra")

    def test_the_frame_functions_survive(self):
        self.survive_functions("_GetPythonFrame", "_FrameCodeMatches", "IsInternalFrame", "GetNonInternalFrame")

    def test_the_thread_and_process_functions_survive(self):
        self.survive_functions("_GetPid", "_GetThreadIdent", "_GetThreadStateDict", "UpdateThisProcessPid",
                               "AddToThreadStateTracing")

    def test_the_remaining_functions_survive(self):
        self.survive_functions("_CallNewObjectCallback", "reset", "_bench_callback")

    def test_every_function_is_met_somewhere(self):
        with open(__file__, encoding="utf-8") as f:
            met = f.read().partition("class NastyArguments")[2]
        self.assertEqual([name for name in interface.FUNCTIONS if f'"{name}"' not in met], [])

    def test_the_constructors_survive(self):
        self.survive(("meet_constructors",))

    def test_the_module_object_survives(self):
        self.survive(("meet_module",))

    def test_the_classes_as_objects_survive(self):
        self.survive(("meet_classes",))


def add_class_tests():
    """One test for each class: for its methods, its fields and its class-level fields."""
    for path, table in interface.CLASSES.items():
        name = path.replace(".", "_").strip("_")
        offers = {"meet_methods": table.methods or table.class_methods, "meet_fields": table.fields,
                  "meet_class_fields": table.class_fields}
        parts = [(part, path) for part, offered in offers.items() if offered]

        def test(self, parts=parts):
            self.survive(*parts)

        test.__name__ = f"test_the_methods_and_fields_of_{name}_survive"
        setattr(NastyArguments, test.__name__, test)


add_class_tests()

if __name__ == "__main__":
    unittest.main()
