"""Threads on request, the exception log under watch, and code objects whose breakpoints are known."""

import queue
import sys
import threading
import time

from code_helpers import make_code
from support import Recorder, XoTestCase, time_limit, xo

SAMPLE = "/srv/app/sample.py"

#: The five events by the name that `sys.monitoring.events` has for them.
EVENT_IDS = {
    "PY_START": xo.kPyStartEventId,
    "PY_RESUME": xo.kPyResumeEventId,
    "PY_RETURN": xo.kPyReturnEventId,
    "PY_YIELD": xo.kPyYieldEventId,
    "LINE": xo.kPyLineEventId,
}

#: An event that the module does not serve.
FOREIGN_EVENT_ID = sys.monitoring.events.CALL


def wait_until(condition, what, seconds=20):
    """Waits for `condition()` to hold, and fails with `what` where it does not in good time."""
    deadline = time.monotonic() + time_limit(seconds)
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited in vain for {what}")
        time.sleep(0.001)


class _Call:
    """A call that a worker was asked to make."""

    def __init__(self, function, args):
        self._function = function
        self._args = args
        self._done = threading.Event()
        self._result = None
        self._error = None

    def run(self):
        try:
            self._result = self._function(*self._args)
        except BaseException as error:
            self._error = error
        finally:
            self._function = self._args = None
            self._done.set()

    def is_done(self, seconds=0):
        """Whether the call has ended, or ends within that time."""
        return self._done.wait(seconds)

    def result(self, seconds=20):
        """What the call returned; what it raised is raised."""
        if not self._done.wait(time_limit(seconds)):
            raise AssertionError("the worker's call does not end")
        if self._error is not None:
            raise self._error
        return self._result


class Worker:
    """A thread that makes the calls it is asked to make, in turn; it ends with the `with` block."""

    def __init__(self):
        self._requests = queue.SimpleQueue()
        self._thread = threading.Thread(target=self._serve, daemon=True)

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_exception):
        self.end()

    def _serve(self):
        while self._serve_one(self._requests.get()):
            pass

    @staticmethod
    def _serve_one(request):
        if request is None:
            return False
        request.run()
        return True

    @property
    def ident(self):
        return self._thread.ident

    def begin(self, function, *args):
        """Asks for a call and does not wait for it."""
        call = _Call(function, args)
        self._requests.put(call)
        return call

    def call(self, function, *args):
        """Asks for a call, waits for it, and returns what it returned."""
        return self.begin(function, *args).result()

    def end(self):
        """Lets the thread end and waits until it has."""
        if self._thread.is_alive():
            self._requests.put(None)
            self._thread.join(time_limit(20))
            if self._thread.is_alive():
                raise AssertionError("the worker does not end")


def in_new_thread(function, *args):
    """Makes one call on a thread of its own and returns its result once that thread has ended."""
    call = _Call(function, args)
    thread = threading.Thread(target=call.run, daemon=True)
    thread.start()
    thread.join(time_limit(20))
    return call.result()


class ExceptionLog:
    """Stands in for `dlog.LogException`: keeps its arguments, and the exception that is being handled."""

    def __init__(self):
        self.calls = []
        self.exceptions = []
        self.error = None

    def __call__(self, *args, **kwargs):
        self.calls.append((args, kwargs))
        self.exceptions.append(sys.exception())
        if self.error is not None:
            raise self.error


class EventTestCase(XoTestCase):
    """Watches the exception log; a test that expects an entry takes it out."""

    def setUp(self):
        super().setUp()
        self.log = self.patch(xo.dlog, "LogException", ExceptionLog())
        self.second = Recorder(result="second")
        self.addCleanup(self._check_exception_log)

    def _check_exception_log(self):
        self.assertEqual(self.log.exceptions, [], "exceptions were logged that no test expects")

    def take_logged(self):
        """The exceptions logged so far, which must have been handed over as the one being handled."""
        exceptions, calls = self.log.exceptions, self.log.calls
        self.log.exceptions, self.log.calls = [], []
        for call in calls:
            self.assertEqual(call, ((None, True), {}))
            self.assertIs(call[0][1], True)
        return exceptions

    def take_logged_one(self, exception_type):
        """The one exception logged so far, which must be of that class."""
        exceptions = self.take_logged()
        self.assertEqual([type(exception) for exception in exceptions], [exception_type])
        return exceptions[0]

    def make_callback(self, event_id, can_return_disable=False, second=None):
        """A first stage for that event; its second stage is `self.second` unless another one is given."""
        return xo.CInitialCallback(event_id, self.second if second is None else second, can_return_disable)

    def known_code(self, *linenos, filename=SAMPLE, source=None):
        """A new code object that has enabled breakpoints in those lines only, and its record."""
        code = make_code(filename, source)
        record = xo.CPerCodeObject.GetPerCodeObject(code, True, sys._getframe())
        record.fEnabledBpLinenos = set(linenos)
        return code, record

    def internal_code(self, filename="/srv/debugger/internal.py", source=None):
        """A new code object of the debugger's own, and its record."""
        xo.SetInternalPathnameDict({filename: True})
        return self.known_code(filename=filename, source=source)
