"""A debugger's tracer for CPython 3.12 and later, on top of the native module `xoptmonitoring`.

    xoptmonitoring   the native module: records, canonical pathnames, first stage of every monitoring event
    tracer           breakpoints, steps, held threads and forked children on top of it
    dbgpythonapi     interpreter functions that the native module calls by way of Python
    demo             `python -m vorntracer.demo`: watch the tracer at work

Nothing is imported here, so that `from vorntracer import xoptmonitoring` costs no more than it says.
"""
