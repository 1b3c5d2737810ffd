"""What the Python-level suites share: a cleaning base case, recorders, nasty objects, hosts and children.

Import what you need:

* `xo`: the module under test, `PACKAGE_DIR`: the directory that its package was imported from.
* `XoTestCase`: base class; resets the module and the process around every test, and holds small helpers.
* `RecordingWriter`, `Recorder`: a file object and a callable that remember what they were given.
* `raising`, `reentering`, `NastyError`: objects whose special methods raise, or call back into the module.
* `HostPackage`: a throw-away package around a copy of the built module, with companions of the test's choice.
* `run_python`: a snippet in a fresh process of this interpreter, which has to end cleanly.
* `is_free_threaded`, `needs_...`: what a test may ask of its interpreter; each skip says why.
"""

import contextlib
import importlib
import itertools
import os
import shutil
import signal
import subprocess
import sys
import sysconfig
import tempfile
import textwrap
import unittest

from vorntracer import xoptmonitoring as xo

PACKAGE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(xo.__file__)))
TESTS_DIR = os.path.dirname(os.path.abspath(__file__))

#: What the module on its own writes to standard error when it binds, where its package has not asked it to be quiet:
#: that it does not know the interpreter's thread states.
BARE_MODULE_MESSAGE = "" if sys.version_info < (3, 15) else "Cannot find tstate fields for this python version\n"

#: Tool ids that `sys.monitoring` hands to tools; 6 and 7 belong to the interpreter itself.
TOOL_IDS = range(6)


# What the interpreter is like ----------------------------------------------------------------------------


def is_free_threaded():
    """Tells whether this interpreter was built to run without the global lock."""
    return bool(sysconfig.get_config_var("Py_GIL_DISABLED"))


def is_sanitized():
    """Tells whether this process runs under a sanitizer: slower, with an allocator of its own."""
    configuration = sysconfig.get_config_var("CONFIG_ARGS") or ""
    return "libasan" in os.environ.get("LD_PRELOAD", "") or "-sanitizer" in configuration


def is_built_with_address_sanitizer():
    """Tells whether the interpreter's own code is watched, and not only this project's."""
    return "--with-address-sanitizer" in (sysconfig.get_config_var("CONFIG_ARGS") or "")


def time_limit(seconds):
    """The seconds that a child process may take, stretched where a sanitizer slows everything down."""
    return seconds * (6 if is_sanitized() else 1)


needs_global_lock = unittest.skipIf(is_free_threaded(), "this interpreter has no global lock")
needs_free_threading = unittest.skipUnless(is_free_threaded(), "this interpreter has a global lock")
needs_fork = unittest.skipUnless(hasattr(os, "fork"), "this platform cannot fork")
needs_plain_allocator = unittest.skipIf(is_sanitized(), "the sanitizer keeps freed memory back")


# The base case -------------------------------------------------------------------------------------------


def release_tool(tool_id):
    """Switches off every global event and callback of a monitoring tool and gives its id back."""
    monitoring = sys.monitoring
    monitoring.set_events(tool_id, 0)
    for event in vars(monitoring.events).values():
        if isinstance(event, int) and event > 0 and event & (event - 1) == 0:
            monitoring.register_callback(tool_id, event, None)
    monitoring.free_tool_id(tool_id)


class XoTestCase(unittest.TestCase):
    """Starts every test with a freshly reset module and leaves the process as it was found."""

    maxDiff = None

    def setUp(self):
        xo.reset()
        self.addCleanup(self._leave_process_clean, sys.platform, xo.CPerCodeObject._fCodeObjectExtraIndex,
                        [tool_id for tool_id in TOOL_IDS if sys.monitoring.get_tool(tool_id)])

    def _leave_process_clean(self, platform, code_extra_index, tools_in_use):
        sys.platform = platform
        for tool_id in TOOL_IDS:
            if tool_id not in tools_in_use and sys.monitoring.get_tool(tool_id) is not None:
                release_tool(tool_id)
        if xo.CPerCodeObject._fCodeObjectExtraIndex != code_extra_index:
            xo.CPerCodeObject._fCodeObjectExtraIndex = code_extra_index
        xo.reset()

    def patch(self, target, name, value):
        """Replaces `target.name` by `value` until the test ends, and returns `value`."""
        from unittest import mock  # a second's work in debug builds, and hundreds of processes do without

        patcher = mock.patch.object(target, name, value)
        patcher.start()
        self.addCleanup(patcher.stop)
        return value

    def set_platform(self, platform):
        """Lets `sys.platform` be `platform` until the test ends."""
        self.patch(sys, "platform", platform)

    def make_dir(self):
        """Makes a directory that goes away with the test; the path holds no symbolic link."""
        directory = os.path.realpath(tempfile.mkdtemp(prefix="xo-"))
        self.addCleanup(shutil.rmtree, directory, ignore_errors=True)
        return directory

    def write_file(self, *parts, text=""):
        """Writes `text` to the file named by joining `parts`, and returns its pathname."""
        pathname = os.path.join(*parts)
        with open(pathname, "w", encoding="utf-8") as f:
            f.write(text)
        return pathname

    def use_tool(self, name="xoptmonitoring-test"):
        """Takes a free `sys.monitoring` tool id; its events and callbacks are switched off with the test."""
        for tool_id in TOOL_IDS:
            if sys.monitoring.get_tool(tool_id) is None:
                sys.monitoring.use_tool_id(tool_id, name)
                return tool_id  # given back by the clean-up of every test
        self.fail("every monitoring tool id is in use")

    def set_local_events(self, tool_id, code, events):
        """Switches local events of one code object on, until the test ends."""
        self.addCleanup(sys.monitoring.set_local_events, tool_id, code, 0)
        sys.monitoring.set_local_events(tool_id, code, events)

    def assert_raises_text(self, exception_type, text, call, *args, **kwargs):
        """Calls, and expects exactly that exception class with exactly that text; returns the exception."""
        with self.assertRaises(exception_type) as caught:
            call(*args, **kwargs)
        self.assertEqual((type(caught.exception), str(caught.exception)), (exception_type, text))
        return caught.exception

    def assert_final(self, name, owner, call, *args, **kwargs):
        """Calls, and expects the refusal to set the final attribute `name` of `owner` a second time."""
        self.assert_raises_text(AttributeError, f"The final attribute '{name}' is already set: {owner!r}",
                                call, *args, **kwargs)


# Recorders -----------------------------------------------------------------------------------------------


class RecordingWriter:
    """A file object that keeps every text written to it; an `error` is raised by `write` instead."""

    def __init__(self, error=None, result=None):
        self.texts = []
        self.error = error
        self.result = result

    def write(self, text):
        if self.error is not None:
            raise self.error
        self.texts.append(text)
        return self.result

    @property
    def text(self):
        """Everything written so far, as one string."""
        return "".join(self.texts)


class Recorder:
    """A callable that keeps the arguments of each call, then raises `error` or returns `result`."""

    def __init__(self, result=None, error=None):
        self.calls = []
        self.result = result
        self.error = error

    def __call__(self, *args):
        self.calls.append(args)
        if self.error is not None:
            raise self.error
        return self.result


# Nasty objects -------------------------------------------------------------------------------------------


class NastyError(Exception):
    """What the objects made by `raising` raise."""


#: The special methods that native code may run behind a caller's back, with a harmless result for each.
SPECIAL_METHODS = {
    "__eq__": False, "__ne__": True, "__lt__": False, "__le__": False, "__gt__": False, "__ge__": False,
    "__hash__": 7, "__bool__": True, "__len__": 1, "__iter__": iter(()), "__contains__": False,
    "__getitem__": None, "__index__": 1, "__int__": 1, "__float__": 1.0, "__str__": "str", "__repr__": "repr",
    "__and__": 1, "__rand__": 1, "__sub__": 1, "__rsub__": 1, "__isub__": 1, "__call__": None,
    "__fspath__": "/nasty.py", "__get__": None, "__set__": None, "__delete__": None, "__del__": None,
}


def _raise_nasty(self, *_args, **_kwargs):
    raise NastyError("nasty")


def raising(*names, base=object, args=()):
    """An instance of a fresh subclass of `base` whose special methods `names` (default: all) raise.

    With no names, reading any attribute that the object lacks raises as well.
    """
    body = {name: _raise_nasty for name in names or SPECIAL_METHODS}
    if not names:
        body["__getattr__"] = _raise_nasty
    return type("Raising", (base,), body)(*args)


def reentering(action, *names, base=object, args=()):
    """An instance whose special methods `names` (default: all) call `action()` and give a harmless result."""
    def method(result):
        def run(self, *_args, **_kwargs):
            action()
            return result
        return run

    body = {name: method(SPECIAL_METHODS[name]) for name in names or SPECIAL_METHODS}
    return type("Reentering", (base,), body)(*args)


# Child processes -----------------------------------------------------------------------------------------


def run_python(code, *, paths=(PACKAGE_DIR, TESTS_DIR), timeout=60, options=(), check=True):
    """Runs `code` (dedented) in a fresh process of this interpreter and returns the completed process.

    `paths` becomes the child's PYTHONPATH and `options` go to the interpreter. The text of standard output
    and error is in `stdout` and `stderr`. Unless `check` is false, an exit status other than 0 fails the test
    with both; so does a child that runs longer than `timeout` seconds, after it has shown where it hangs.
    """
    environment = dict(os.environ, PYTHONPATH=os.pathsep.join(paths), PYTHONIOENCODING="utf-8")
    command = [sys.executable, "-X", "faulthandler", *options, "-c", textwrap.dedent(code)]
    with subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, encoding="utf-8", errors="backslashreplace") as child:
        try:
            stdout, stderr = child.communicate(timeout=time_limit(timeout))
            problem = f"the child ended with status {child.returncode}" if child.returncode else None
        except subprocess.TimeoutExpired:
            child.send_signal(signal.SIGABRT)
            stdout, stderr = child.communicate()
            problem = f"the child was still running after {time_limit(timeout)} seconds"
            check = True
    if problem and check:
        raise AssertionError(f"{problem}\n--- standard output\n{stdout}\n--- standard error\n{stderr}")
    return subprocess.CompletedProcess(command, child.returncode, stdout, stderr)


# Hosts ---------------------------------------------------------------------------------------------------

_host_numbers = itertools.count(1)


def _shipped(*parts):
    """The text of a shipped companion."""
    with open(os.path.join(PACKAGE_DIR, *parts), encoding="utf-8") as f:
        return f.read()


class HostPackage:
    """A throw-away package with its own copy of the module, to import that afresh under chosen companions.

    The directory `path` holds the package `name` (an empty `__init__.py`, `dbgpythonapi.py` and a copy of the
    built module) and the package `vornbase` (an empty `__init__.py`, `dlog.py` and `win32.py`). A text given
    for `dbgpythonapi`, `dlog` or `win32` replaces the shipped file, False leaves the file out, and
    `vornbase=False` leaves the whole package out. `write` and `remove` change the files later.

    A copy of the file is a library of its own: nothing done to it touches the module of the other tests.
    """

    def __init__(self, *, dbgpythonapi=None, dlog=None, win32=None, vornbase=True):
        self.path = os.path.realpath(tempfile.mkdtemp(prefix="xo-host-"))
        self.name = f"xohost{os.getpid()}_{next(_host_numbers)}"
        self.module_name = f"{self.name}.xoptmonitoring"
        self.write(f"{self.name}/__init__.py", "")
        self.module_file = os.path.join(self.path, self.name, os.path.basename(xo.__file__))
        shutil.copyfile(xo.__file__, self.module_file)
        self._choose(f"{self.name}/dbgpythonapi.py", dbgpythonapi, ("vorntracer", "dbgpythonapi.py"))
        if vornbase:
            self.write("vornbase/__init__.py", "")
            self._choose("vornbase/dlog.py", dlog, ("vornbase", "dlog.py"))
            self._choose("vornbase/win32.py", win32, ("vornbase", "win32.py"))

    def _choose(self, relative, chosen, shipped):
        if chosen is not False:
            self.write(relative, _shipped(*shipped) if chosen is None else chosen)

    def write(self, relative, text):
        """Writes one file below the host's directory."""
        pathname = os.path.join(self.path, *relative.split("/"))
        os.makedirs(os.path.dirname(pathname), exist_ok=True)
        with open(pathname, "w", encoding="utf-8") as f:
            f.write(textwrap.dedent(text))
        importlib.invalidate_caches()

    def remove(self, relative):
        """Removes one file below the host's directory."""
        os.remove(os.path.join(self.path, *relative.split("/")))
        importlib.invalidate_caches()

    def close(self):
        """Removes the host's directory."""
        shutil.rmtree(self.path, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()

    def _is_ours(self, module_name):
        return module_name.partition(".")[0] in (self.name, "vornbase")

    @contextlib.contextmanager
    def importable(self):
        """Within it, this process finds the host's package and its `vornbase` in place of the shipped one."""
        saved_path = list(sys.path)
        saved_modules = {name: module for name, module in sys.modules.items() if self._is_ours(name)}
        try:
            for name in saved_modules:
                del sys.modules[name]
            sys.path[:] = [self.path] + [entry for entry in saved_path
                                         if not os.path.isdir(os.path.join(entry or ".", "vornbase"))]
            importlib.invalidate_caches()
            yield self
        finally:
            sys.path[:] = saved_path
            for name in [name for name in sys.modules if self._is_ours(name)]:
                del sys.modules[name]
            sys.modules.update(saved_modules)
            sys.path_importer_cache.pop(self.path, None)
            importlib.invalidate_caches()

    def import_module(self):
        """Imports the host's copy of the module in this process; call it within `importable`."""
        return importlib.import_module(self.module_name)

    def run_python(self, code, **options):
        """Runs a snippet as `run_python` does, with this host in place of the shipped packages.

        The names HOST and MODULE of the snippet hold the names of the host's package and of its module.
        """
        prologue = f"HOST, MODULE = {self.name!r}, {self.module_name!r}\n"
        return run_python(prologue + textwrap.dedent(code), paths=(self.path, TESTS_DIR), **options)
