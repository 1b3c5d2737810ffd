"""`Pdb`: the interpreter's `pdb` on the native first stage, with the functions that go with it.

    import vorntracer.pdb
    vorntracer.pdb.set_trace()

Everything that is typed and shown is the interpreter's own. `install` puts the classes of this package in the place
of the interpreter's, for all of the process: `breakpoint()`, `pdb.set_trace()`, and whatever is built on `pdb.Pdb` or
`bdb.Bdb` and imported later.
"""

import bdb
import os
import pdb
import textwrap

from . import bdb as our_bdb
from .rebinding import OverlaidGlobals, OverlaidModule, functions_naming, rebind, sys_with


class Pdb(pdb.Pdb, our_bdb.Bdb):
    """The interpreter's `pdb.Pdb`, with its events taken from the engine."""


_server_names = {}
if hasattr(pdb, "_PdbServer"):

    class _PdbServer(pdb._PdbServer, our_bdb.Bdb):
        """The far end of `attach`, in the process that is debugged."""

    _server_names["_PdbServer"] = _PdbServer


def _with_our_connection(text):
    """The script that `attach` has the other process run, with `_connect` taken from this module."""
    theirs = "import pdb, sys\n"
    ours = ("import sys\n"
            "sys.path.append({folder!r})\n"
            "try:\n"
            "    from {package} import pdb\n"
            "finally:\n"
            "    sys.path.remove({folder!r})\n")
    script = textwrap.dedent(text)
    if theirs not in script:
        raise RuntimeError("the interpreter's pdb attaches in a way that is not known here")
    folder = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    return script.replace(theirs, ours.format(folder=folder, package=__package__), 1)


def _rebind_makers():
    """Make ours of all functions and methods of `pdb` by which a debugger is made, directly or not."""
    module_globals = OverlaidGlobals(pdb, {
        "Pdb": Pdb, **_server_names, "__name__": __name__, "sys": sys_with(our_bdb.settrace),
        "textwrap": OverlaidModule(textwrap, dedent=_with_our_connection),
    })
    names = {"Pdb", "_PdbServer"}
    while True:
        found = [(name, function) for name, function in functions_naming(pdb, names) if name not in names]
        if not found:
            break
        for name, function in found:
            names.add(name)
            module_globals[name] = rebind(function, module_globals)
    for cls in (Pdb, *_server_names.values()):
        for name, function in functions_naming(cls.__mro__[1], {"settrace", "Pdb", "_PdbServer"}):
            setattr(cls, name, rebind(function, module_globals))
    return {name: module_globals[name] for name in names - {"Pdb", "_PdbServer"}}


globals().update(_rebind_makers())


def install():
    """Put the classes of this package in the place of the interpreter's, for all of the process."""
    bdb.Bdb = our_bdb.Bdb
    pdb.Pdb = Pdb
    for name, cls in _server_names.items():
        setattr(pdb, name, cls)
