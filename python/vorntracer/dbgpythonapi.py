"""Functions of the interpreter's C API that the native module calls by way of Python.

The native module asks for the calling thread's own dictionary, to notice the thread's end, and for the
tracing level of the calling thread, to keep the debugger's code out of its own sight. All of them act on the
calling thread, whose thread state lives as long as the call, so the addresses handed about here are never
stale.

Every function is bound once, at import. The native module calls them where monitoring is on, so none of them
runs Python code of another file: `ctypes.cast`, for one, is written in Python and would be seen as an event.
"""

import ctypes


def _bind(name, result_type, *argument_types):
    """The C API function of that name, or a function that says that this interpreter lacks it."""
    function = getattr(ctypes.pythonapi, name, None)
    if function is None:

        def function(*arguments):
            raise NotImplementedError(name + " is not exported by this interpreter")

        function.__name__ = name
        return function
    function.restype = result_type
    function.argtypes = argument_types
    return function


# -> the address of the calling thread's dictionary, or None when it has none. The thread state owns the
# dictionary and the function lends it, so the result is an address: as an object it would be released once
# too often.
PyThreadState_GetDict_as_void_ptr = _bind("PyThreadState_GetDict", ctypes.c_void_p)

# -> the address of the calling thread's state.
PyThreadState_Get = _bind("PyThreadState_Get", ctypes.c_void_p)

# (address of the calling thread's state) -> None. After Enter the thread raises no monitoring or trace
# events; each Enter needs its Leave.
PyThreadState_EnterTracing = _bind("PyThreadState_EnterTracing", None, ctypes.c_void_p)
PyThreadState_LeaveTracing = _bind("PyThreadState_LeaveTracing", None, ctypes.c_void_p)


def VoidPtrAsObject(address):
    """Return the object at an address, with a reference of its own; None for the null address.

    The address must be that of a living object.
    """
    if not address:
        return None
    pointer = ctypes.c_void_p(address)
    return ctypes.py_object.from_buffer(pointer).value
