"""What runs inside a Python process while it is being debugged: records per file, code object and thread,
canonical pathnames, and the first stage of every sys.monitoring event.

This stub describes the native module for people and type checkers. Names that begin with an underscore are
for the module itself and for its tests. All attributes of the module are read-only. Calls bind their
arguments by the names given here and raise TypeError for wrong types, counts and names.
"""

import ctypes as ctypes
import os as os
import sys as sys
import threading as threading
import time as time
import traceback as traceback
import types as types
import typing as typing
import weakref as weakref
from collections.abc import Callable, Hashable
from types import CodeType, FrameType, ModuleType
from typing import Any, ClassVar, Protocol

class _Writer(Protocol):
    """A file object, as far as it is used here. For type checkers only; the module has no such name."""

    def write(self, text: str, /) -> object: ...

dbgpythonapi: ModuleType
"""The module of that name beside this one."""
dlog: ModuleType
"""The module vornbase.dlog."""
win32: ModuleType | None
"""The module vornbase.win32 on Windows, else None."""
tCanonicalPathname: type[str]
"""The type of canonical pathnames."""

# Bits of the diagnostic mask
kLogOther: int  # 1
kLogFilenames: int  # 2
kLogCore: int  # 4
kLogBreakpoints: int  # 8
kLogExceptions: int  # 16
kLogIO: int  # 32
kLogInternalFailures: int  # 64
kLogThreading: int  # 128
kLogInitialMonitoringCallbacks: int  # 256
kLogSecondMonitoringCallbacks: int  # 512

# From sys.monitoring: ids of the events that the first stage knows, and DISABLE
kPyStartEventId: int
kPyReturnEventId: int
kPyResumeEventId: int
kPyYieldEventId: int
kPyLineEventId: int
kSysMonitoringDisable: object
"""sys.monitoring.DISABLE: the event is not wanted at this place any more."""

def _GetPid() -> int:
    """Returns this process's id, an int; a forked child gets its own."""

def _GetThreadIdent() -> int:
    """Returns the calling thread's id, an int."""

def _GetPythonFrame(this_module_depth: int) -> FrameType | None:
    """Returns the calling thread's innermost frame. `this_module_depth` (an int) is not used: this
    module's functions have no frames to skip.
    """

def _Code_RequestExtraIndexForOwnedRef() -> int:
    """Reserves a slot in every code object that owns a reference to what is stored there. Returns its
    index, an int, or -1 where no slot is to be had.
    """

def _Code_GetExtra(code_object: CodeType, index: int) -> Any:
    """Returns the object in slot `index` (an int) of `code_object`, or None where there is none.
    Raises SystemError for what is no code object.
    """

def _Code_SetExtra(code_object: CodeType, index: int, value: object) -> None:
    """Stores `value` in slot `index` (an int) of `code_object`, with a reference of its own. Returns
    None. Raises SystemError for what is no code object and for a slot that was not reserved here.
    """

_gDPrintfFile: _Writer | None
"""Where diagnostic lines go: an object with a `write` method, or None."""
_gDPrintfMask: int
"""The kLog... bits of the diagnostic lines that are written."""
_gThisProcessPid: int
"""The id of the process whose events count."""

def set_dprintf_file(f: _Writer | None, fileno: int, win32_handle: object) -> None:
    """Sends the module's diagnostic lines to the `write` method of `f`; None switches them off.
    `fileno` and `win32_handle` are accepted for the sake of callers that have them, and not used.
    Returns None.
    """

def set_dprintf_mask(mask: int) -> None:
    """Chooses the diagnostic lines that are written: `mask` is an int made of the kLog... bits.
    Returns None. Raises TypeError or OverflowError for what is no machine word.
    """

def get_dprintf_mask() -> int:
    """Returns the mask of diagnostic lines, an int."""

def dprintf(domain: int, s: str | Callable[[], str]) -> None:
    """Writes `s` to the diagnostic file when one of the bits in `domain` (an int) is in the mask. `s`
    is a str or a callable without arguments that returns one; it is called only when the line is
    written. Nothing is added to the text. Returns None. Raises TypeError where no str comes of `s`,
    and what the callable or the file's `write` raises.
    """

def _CallNewObjectCallback(callback: Callable[[Any], object] | None, obj: object) -> None:
    """Calls `callback(obj)` while the calling thread raises no monitoring events; a `callback` of None
    is not called. Returns None. Raises what the callback raises.
    """

class CPerFile:
    """The record of one source file, by canonical pathname: its breakpoints, the records of its code
    objects and its content checksum.
    """

    _fPerFileDict: ClassVar[dict[Any, CPerFile]]
    """dict: pathname -> CPerFile."""
    _fByChecksum: ClassVar[dict[str, set[CPerFile]]]
    """dict: checksum -> set of the CPerFile records with that checksum."""
    _fNewPerFileCreatedCallback: ClassVar[Callable[[CPerFile], object] | None]
    """Callable that is given each new record, or None."""
    fCanonicalPathname: str | None
    """The pathname that the record was made for; None for pseudo names."""
    fBpSetByLineno: dict[int, Any]
    """dict that the tracer keeps the file's breakpoints in, by line number."""
    fKnownPerCodeObjects: set[CPerCodeObject]
    """set of the CPerCodeObject records of the file's code."""
    fChecksum: str | None
    """The file's checksum as last given by the checksum callback, or None."""

    @classmethod
    def GetPerFile(cls, pathname: Hashable, create: bool = True) -> CPerFile | None:
        """Returns the CPerFile of `pathname` (any hashable object, normally a canonical pathname). A
        missing one is made and announced where `create` (a bool) is true; else None is returned.
        Raises what the checksum callback and the new-record callback raise.
        """

    @classmethod
    def GetPerFileSetForChecksum(cls, checksum: str) -> set[CPerFile]:
        """Returns the set of the records whose checksum is the str `checksum`: the registry's own set,
        or a new empty one.
        """

    @classmethod
    def GetAllPerFiles(cls) -> list[CPerFile]:
        """Returns a new list of all records."""

    @classmethod
    def SetNewPerFileCreatedCallback(cls, callback: Callable[[CPerFile], object] | None) -> None:
        """Sets the callable that is given each new record; `callback` None switches that off. Returns
        None.
        """

    def __init__(self, pathname: Hashable) -> None:
        """Makes the record of `pathname`, asks for its checksum and enters it into the group of that.
        Raises what the checksum callback raises. GetPerFile also registers what it makes.
        """

    def UpdateChecksum(self) -> None:
        """Asks for the checksum again, since the file may have changed, and moves the record to the
        group of the new one. Returns None. Raises what the checksum callback raises, and changes
        nothing then.
        """

    def _UpdateByChecksum(self, checksum: str | None = None, remove: bool = False) -> None:
        """Enters the record into the group of `checksum` (a str or None), or takes it out where
        `remove` (a bool) is true. Returns None.
        """

class CPerCodeObject:
    """The record of one code object: its pathnames, the lines with enabled breakpoints, and which
    events of it are wanted.
    """

    _fPerCodeObjectDict: ClassVar[dict[weakref.ref[CodeType], CPerCodeObject]]
    """dict: weak reference to code object -> record; used where there is no slot."""
    _fCodeObjectExtraIndex: ClassVar[int]
    """Index of the code-extra slot that holds the records, or -1."""
    _fNewPerCodeObjectCreatedCallback: ClassVar[Callable[[CPerCodeObject], object] | None]
    """Callable that is given each new record, or None."""
    fCodeObjectWeakRef: weakref.ref[CodeType]
    """Weak reference to the code object."""
    fPathnameToReport: str
    """The pathname under which the debugger reports this code."""
    fCanonicalPathname: str | None
    """The canonical form of that pathname; None for pseudo names."""
    fEnabledBpLinenos: set[int] | None
    """set of the line numbers with enabled breakpoints; None while not known."""
    fSteppingEventsNeededCount: int
    """How many reasons there are to see line events of this code."""
    fReturnEventsNeededCount: int
    """How many reasons there are to see return events of this code."""
    fIsInternalKnown: bool
    """Whether fIsInternal has been settled."""
    fIsInternal: bool
    """Whether the code is the debugger's own."""
    fUpdatePathnameNeeded: bool
    """Whether the pathname has to be worked out again once a frame is at hand."""

    @classmethod
    def GetPerCodeObject(
        cls,
        code_object: CodeType,
        create: bool = True,
        frame: FrameType | None = None,
    ) -> CPerCodeObject | None:
        """Returns the record of `code_object`. A missing one is made and announced where `create` (a
        bool) is true; else None is returned. `frame` is a frame that runs the code, or None; it
        settles a record made without one. Raises what the callbacks raise.
        """

    @classmethod
    def SetNewPerCodeObjectCreatedCallback(
        cls,
        callback: Callable[[CPerCodeObject], object] | None,
    ) -> None:
        """Sets the callable that is given each new record, untraced; `callback` None switches that
        off. Returns None.
        """

    @classmethod
    def _GetExistingPerCodeObject(cls, code_object: CodeType) -> CPerCodeObject | None:
        """Returns the record of `code_object`, or None. Raises the interpreter's error for what is no
        code object.
        """

    @classmethod
    def _GetExistingPerCodeObjectFromWeakref(cls, code_object: CodeType) -> CPerCodeObject | None:
        """Returns the record of `code_object` in the weak-reference registry, or None."""

    @classmethod
    def _RegisterPerCodeObject(cls, code_object: CodeType, per_code_object: CPerCodeObject) -> None:
        """Enters the record `per_code_object` of `code_object` into the registry and announces it. A
        record that is there already stays. Returns None. Raises what the new-record callback
        raises.
        """

    @classmethod
    def _GetPathnameToUse(
        cls,
        code_object: CodeType,
        frame: FrameType | None,
        canonical: bool,
    ) -> str | None:
        """Returns the pathname, a str, under which `code_object` is reported, or its canonical form
        where `canonical` is true (None for a pseudo name). `frame` is a frame that may run the
        code, or None.
        """

    def __init__(self, code_object: CodeType, frame_for_pathnames: FrameType | None) -> None:
        """Makes, registers and announces the record of `code_object`; `frame_for_pathnames` is a frame
        that runs it, or None. Raises what the callbacks raise.
        """

    def _AddToPerFile(self) -> None:
        """Enters this record into the per-file record of its canonical pathname. Returns None."""

    def _DiscardFromPerFile(self) -> None:
        """Takes this record out of the per-file record of its canonical pathname. Returns None."""

    def _cb_code_object_dealloc(self, code_object: weakref.ref[CodeType]) -> None:
        """Takes this record out of the registries; runs when the code object dies. `code_object` is
        the dead weak reference. Returns None.
        """

    def _UpdatePathnameFromFrame(self, f: FrameType) -> None:
        """Settles the pathnames of a record that was made without a frame; `f` is a frame. Returns
        None.
        """

_gThreadStateDictKey: object
"""The key of the capsule in a thread-state dictionary."""

def _GetThreadStateDict() -> dict[Any, Any] | None:
    """Returns the calling thread's thread-state dictionary, or None."""

class _CPerThreadTssCache:
    """The cache of the running thread's record, in thread-specific storage."""

    @classmethod
    def Get(cls) -> CPerThread | None:
        """Returns the calling thread's cached CPerThread, or None."""

    @classmethod
    def Store(cls, per_thread: CPerThread) -> None:
        """Makes `per_thread` (a CPerThread) the calling thread's cached record. No reference is kept.
        Returns None.
        """

    @classmethod
    def _DropCurrentSlot(cls) -> None:
        """Frees the calling thread's slot. Returns None."""

    @classmethod
    def Clear(cls) -> None:
        """Frees the calling thread's slot. Returns None."""

    @classmethod
    def Detach(cls, per_thread: CPerThread) -> None:
        """Makes sure that no thread's slot points at `per_thread` (a CPerThread) any more. Returns
        None.
        """

class CPerThread:
    """The record of one thread: its stepping state, its debug policy and the lock that suspends it."""

    class _CCapsule:
        """The marker in a thread-state dictionary: it can be weakly referenced, and nothing else."""

        __slots__ = ("__weakref__",)

    class _CCleanupSupport:
        """What discards a thread's record when the thread ends."""

        fPerThread: CPerThread | None
        """The CPerThread that this object cleans up; None once cleared."""
        _fFinalizer: weakref.finalize[Any, Any] | None
        """The weakref.finalize of the thread's capsule; None while no capsule is planted."""

        @classmethod
        def _IsCapsuleDestructorBeingInvoked(cls) -> bool:
            """Returns whether the calling thread is inside its own clean-up, a bool."""

        def __init__(self, per_thread: CPerThread) -> None:
            """Makes the unarmed clean-up of the record `per_thread`."""

        def Clear(self, invalidate_capsule: bool = True) -> None:
            """Disarms the clean-up and lets go of its record; where `invalidate_capsule` is true, a
            planted capsule's death triggers nothing any more. Returns None.
            """

        def SetCapsuleInThreadStateDict(self) -> None:
            """Plants a capsule in the calling thread's dictionary, which must be that of the record's
            thread. Returns None.
            """

        def _InvalidateCapsule(self) -> None:
            """Makes the death of a planted capsule trigger nothing any more. Returns None."""

        def __CapsuleDestructor(self) -> None:
            """Discards the record, on the exiting thread; the finaliser of the capsule calls it.
            Returns None. Exceptions of the clean-up itself are printed and swallowed.
            """

    _fPerThreadDict: ClassVar[dict[int, CPerThread]]
    """dict: thread id -> CPerThread."""
    _fDebugPolicyCallback: ClassVar[Callable[[int], int] | None]
    """Callable that is given a thread id and returns its policy, or None."""
    _fNewPerThreadCreatedCallback: ClassVar[Callable[[CPerThread], object] | None]
    """Callable that is given each new record, or None."""
    _fGetThreadNameCallback: ClassVar[Callable[[CPerThread], str] | None]
    """Callable that is given a record and returns the thread's name, or None."""
    _fRegistryLock: ClassVar[Any]
    """threading.Lock around changes of the registries."""
    _fCleanupSupportByThreadId: ClassVar[dict[int, CPerThread._CCleanupSupport]]
    """dict: thread id -> _CCleanupSupport."""
    _fCleanedUpThreadIds: ClassVar[set[int]]
    """set of the ids of threads whose records were discarded at their exit."""
    _fDestructorActiveThreadIds: ClassVar[set[int]]
    """set of the ids of threads inside their clean-up."""
    fThreadId: int
    """The thread's id, an int: the key of the registry."""
    fOuterMostFrame: FrameType | None
    """The outermost frame that the debugger tracks; set by the tracer."""
    fSteppingEventsNeeded: bool
    """True while the thread is stepping and needs line events."""
    fStopAtNextLine: bool
    """True where the thread is to stop at its next line."""
    fStopFrame: FrameType | None
    """The frame in which a step is to stop, or None."""
    fDontStopLinenoRange: Any
    """The lines not to stop in, or None."""
    fReturnFrame: FrameType | None
    """The frame whose return is awaited, or None."""
    fDebugPolicy: int
    """The thread's debug policy: -1 not known yet, 0 not debugged, 1 debugged."""
    fSuspendLock: Any
    """The lock on which the thread waits while it is suspended."""
    fCheckSuspendLock: bool
    """True where the thread has to pass through fSuspendLock at its next event."""
    fThreadName: str | None
    """The thread's name, or None while not known."""
    fExitingWithException: bool
    """True while the thread unwinds with an exception."""
    fSteppingCodeObjects: set[Any]
    """set of the code objects in which this thread enabled stepping events."""

    @classmethod
    def GetPerThread(cls, thread_id: int | None = None, create: bool = True) -> CPerThread | None:
        """Returns the record of the thread `thread_id` (an int; None is the calling thread). A missing
        one is made and announced where `create` (a bool) is true; else None is returned, as it is
        while the thread is inside its own clean-up. Raises what the callbacks raise.
        """

    @classmethod
    def _RegisterNewPerThread(cls, per_thread: CPerThread) -> None:
        """Enters the record `per_thread` into the registries, arms its clean-up where it is the
        calling thread's, and announces it. Returns None. Raises what the new-record callback
        raises.
        """

    @classmethod
    def _DiscardPerThread(cls, thread_id: int) -> None:
        """Takes the thread `thread_id` (an int) out of the registries and disarms its clean-up.
        Returns None.
        """

    @classmethod
    def SetNewPerThreadCreatedCallback(cls, callback: Callable[[CPerThread], object] | None) -> None:
        """Sets the callable that is given each new record, untraced; `callback` None switches that
        off. Returns None.
        """

    @classmethod
    def SetGetThreadNameCallback(
        cls,
        get_thread_name_callback: Callable[[CPerThread], str] | None,
    ) -> None:
        """Sets the callable that is given a record and returns the thread's name;
        `get_thread_name_callback` None switches that off. Returns None.
        """

    @classmethod
    def SetDebugPolicyCallback(cls, thread_policy_callback: Callable[[int], int] | None) -> None:
        """Sets the callable that is given a thread id and returns its debug policy, an int;
        `thread_policy_callback` None makes every thread's policy 1. Every thread is asked for anew.
        Returns None.
        """

    @classmethod
    def GetAllPerThreads(cls) -> list[CPerThread]:
        """Returns a new list of all records."""

    def __init__(self, thread_id: int) -> None:
        """Makes, registers and announces the record of the thread `thread_id` (an int)."""

    def _Clear(self) -> None:
        """Drops everything that the record holds but the thread's id and its debug policy. Returns
        None.
        """

    def GetDebugPolicy(self) -> int:
        """Returns the thread's debug policy, an int; asks the callback where it is not known. Raises
        what the callback raises.
        """

    def FindThreadName(self) -> str | None:
        """Returns the thread's name; asks the callback where it is not known. None where no name is to
        be had.
        """

def _FrameCodeMatches(frame: FrameType | None, code_object: object) -> Any:
    """Returns what `frame.f_code == code_object` gives, or False where `frame` is None."""

class CInitialCallback:
    """The first stage of a monitored event: its Callback is registered with sys.monitoring and calls
    the tracer's second callback only for events of interest.
    """

    _kOffsetForGetFrameInGetPerCodeObject: ClassVar[int]
    """How many frames of this module to skip when the monitored frame is looked up: none."""
    _fEventId: int
    """The sys.monitoring event id that this instance serves."""
    _fSecondCallback: Callable[..., Any]
    """The tracer's callable for events of interest; set once."""
    _fCanReturnDisable: bool
    """Whether kSysMonitoringDisable may be returned for this event."""
    fAnySuspendThread: bool
    """True while some thread has to be suspended; set by the tracer."""
    fSteppingEventsNeededEveryThread: bool
    """True while stepping needs line events in every thread; set by the tracer."""

    def __init__(
        self,
        event_id: int,
        second_callback: Callable[..., Any],
        can_return_disable: bool,
    ) -> None:
        """Makes the first stage of the event `event_id` (an int): `second_callback` is the tracer's
        callable for events of interest, `can_return_disable` whether locations of internal code may
        be switched off for good. Raises AttributeError where the instance has been initialised
        before.
        """

    def _IsInitialCallbackLogging(self) -> bool:
        """Returns whether a diagnostic file is set, a bool; the mask is looked at for each line."""

    def Callback(self, code_object: CodeType, *args: Any) -> Any:
        """The sys.monitoring callback: decides whether the event is of interest and calls the second
        callback with `code_object` and the event's other arguments where it is. Returns
        kSysMonitoringDisable, None, or what the second callback returns. An exception on the way
        goes to the debugger's log, and None is returned.
        """

    def _SkipDetermination(self, code_object: CodeType, lineno_obj: int | None) -> Any:
        """Decides an event of `code_object`; `lineno_obj` is the line of a LINE event, else None.
        Returns False (call the second callback), None (skip) or kSysMonitoringDisable (skip for
        good).
        """

    def _SkipSecondCallback(
        self,
        code_object: CodeType,
        per_code_object: CPerCodeObject,
        per_thread: CPerThread,
        lineno_obj: int | None,
    ) -> bool:
        """Returns whether the second callback can be skipped, a bool, from the records
        `per_code_object` and `per_thread` and the line `lineno_obj`; `code_object` is not looked
        at.
        """

    def __GetPerCodeObjectCalledFromCallback(self, code_object: CodeType) -> CPerCodeObject:
        """Returns the CPerCodeObject of `code_object`, made where it is missing."""

    def __GetPerThreadCalledFromCallback(self) -> CPerThread:
        """Returns the calling thread's CPerThread, made where it is missing."""

    def _SuspendIfNeeded(self, per_thread: CPerThread) -> None:
        """Waits while the tracer holds `per_thread.fSuspendLock`, where fCheckSuspendLock is true.
        Returns None.
        """

# Pathname kinds
kRegularPathname: int  # 0
kFrozenImportLibPathname: int  # 3
kPseudoPathname: int  # 4
kVornShellPathname: int  # 5

def GetPathnameKind(pathname: str) -> int:
    """Returns what kind of name the str `pathname` is: kRegularPathname, kFrozenImportLibPathname
    ("<frozen ...>"), kPseudoPathname (any other "<...>", or no name) or kVornShellPathname (the
    debugger's interactive shell). Raises TypeError for what is no str.
    """

class _CCanonicalPathnameMgr:
    """Maps every name of a source file to one canonical pathname: by absolute name, by the file's
    identity on disk and by content checksum.
    """

    kNotFoundTtlSeconds: ClassVar[int]
    """How long a name that is not on disk is answered from the cache, in seconds."""
    fByName: dict[str, str]
    """dict: absolute name -> canonical pathname."""
    fByUniqueFileno: dict[tuple[int, int], str]
    """dict: (st_dev, st_ino) of the file -> canonical pathname."""
    fByChecksum: dict[str, str]
    """dict: checksum -> canonical pathname."""
    fNotFoundCache: dict[str, float]
    """dict: absolute name -> time.monotonic() when its stat last failed, in seconds."""
    fChecksumCallback: Callable[[str], str | None] | None
    """Callable that gives the checksum of a pathname, or None."""

    def __init__(self) -> None:
        """Makes a manager with empty indexes and no checksum callback."""

    def Reset(self) -> None:
        """Empties the indexes and the not-found cache, in place, and drops the checksum callback.
        Returns None.
        """

    def _AbsPath(self, pathname: str) -> str:
        """Returns os.path.abspath(pathname), a str."""

    def _Stat(self, abs_pathname: str) -> os.stat_result | None:
        """Returns os.stat(abs_pathname), or None where that raises OSError."""

    def _PrunePycPyo(self, pathname: str) -> str:
        """Returns the str `pathname`, without its last character where it ends in .pyc or .pyo in any
        case.
        """

    def _GetWindowsLongPathName(self, pathname: str) -> str:
        """Returns the long form of the str `pathname` on win32; the name itself elsewhere or where
        that fails.
        """

    def _IsObviousAbsPathname(self, pathname: str) -> bool:
        """Returns whether the str `pathname` is absolute in a form that needs no os.path.abspath."""

    def _GetAbsnameForCanonical(self, pathname: str) -> str:
        """Returns the absolute name, a str, under which `pathname` is indexed."""

    def _GetUniqueFileno(self, abs_pathname: str) -> tuple[int, int] | None:
        """Returns the tuple (st_dev, st_ino) of the file `abs_pathname`, or None where it is not on
        disk; a miss is remembered for kNotFoundTtlSeconds seconds.
        """

    def Lookup(self, pathname: str, checksum: str | None = None) -> str | None:
        """Finds the canonical pathname of the str `pathname`, by name, identity on disk or `checksum`
        (a str or None), without registering it. Returns a str, or None where it is not known or a
        pseudo name.
        """

    def Register(
        self,
        pathname: str,
        checksum: str | None = None,
        kind: int | None = None,
    ) -> str | None:
        """Finds the canonical pathname of the str `pathname`, or makes its absolute name canonical.
        `checksum` is a str or None; `kind` is the name's kind where the caller knows it, else None.
        Returns a str, or None for a pseudo name.
        """

    def Get(self, pathname: str, checksum: str | None = None) -> str | None:
        """Returns what Lookup finds for `pathname` and `checksum`, or registers the name. None for a
        pseudo name.
        """

    def SetChecksumCallback(self, callback: Callable[[str], str | None] | None) -> None:
        """Sets the callable that gives a pathname's checksum; `callback` None switches checksums off.
        Returns None.
        """

    def GetChecksumCallback(self) -> Callable[[str], str | None] | None:
        """Returns the checksum callback, or None."""

    def GetChecksumForPathname(self, pathname: str) -> str | None:
        """Returns what the checksum callback answers for the str `pathname`, or None where none is
        set. Raises what the callback raises.
        """

_gCanonicalPathnameMgr: _CCanonicalPathnameMgr
"""The manager that the module-level pathname functions ask."""

def lookup_canonical_pathname(pathname: str, checksum: str | None = None) -> str | None:
    """Finds the canonical pathname of the str `pathname` without registering it; `checksum` is a str
    or None. Returns a str, or None where it is not known. Raises TypeError for other types.
    """

def register_canonical_pathname(
    pathname: str,
    checksum: str | None = None,
    kind: int | None = None,
) -> str | None:
    """Finds the canonical pathname of the str `pathname`, or makes its absolute name canonical;
    `checksum` is a str or None, `kind` a pathname kind or None. Returns a str, or None for a pseudo
    name. Raises TypeError for other types.
    """

def get_canonical_pathname(pathname: str, checksum: str | None = None) -> str | None:
    """Finds the canonical pathname of the str `pathname`, or registers it; `checksum` is a str or
    None. Returns a str, or None for a pseudo name. Raises TypeError for other types.
    """

def set_checksum_callback(callback: Callable[[str], str | None] | None) -> None:
    """Sets the callable that is given a pathname and returns its checksum, a str, or None. `callback`
    None switches checksums off. Returns None.
    """

def get_checksum_callback() -> Callable[[str], str | None] | None:
    """Returns the checksum callback, or None."""

def _get_checksum_for_pathname(pathname: str) -> str | None:
    """Asks the checksum callback for the checksum of the str `pathname`. Returns its answer, or None
    where no callback is set. Raises what the callback raises.
    """

_gInternalPathnameDict: dict[str, Any]
"""The dict whose keys are the debugger's own pathnames."""

def SetInternalPathnameDict(d: dict[str, Any]) -> None:
    """Makes the keys of the dict `d` the debugger's own pathnames, whose code is never stopped in. The
    dict itself is kept, so later changes to it count at once. Returns None. Raises TypeError for
    what is no dict.
    """

def IsInternalPathname(pathname: object) -> bool:
    """Returns whether `pathname` is one of the debugger's own, a bool; False for what is no str."""

def IsInternalFrame(f: FrameType) -> bool:
    """Returns whether the frame `f` runs the debugger's own code, a bool. Makes no record. Raises what
    reading the frame raises.
    """

def GetNonInternalFrame(depth: int | None = None) -> FrameType | None:
    """Returns the caller's nearest frame that is not the debugger's own, or the one `depth` (an int or
    None) such frames further out; None where the stack has no such frame. Raises TypeError for
    another `depth`.
    """

def reset() -> None:
    """Returns the module to the state that it had after import: no diagnostic output, no records, no
    callbacks, no internal pathnames. Records in the slots of code objects stay with them. Returns
    None.
    """

def UpdateThisProcessPid() -> None:
    """Makes events of this process count again, in a forked child. Returns None."""

def AddToThreadStateTracing(count: int) -> None:
    """Raises the calling thread's tracing level by `count` (an int), or lowers it where that is
    negative: while the level is above zero, the thread raises no monitoring events. Callers pair 1
    with -1 in a try and finally. Returns None. Raises what the support module raises.
    """

def _bench_callback(callback: Callable[[CodeType], object], code_object: object, n: int) -> int:
    """Calls `callback(code_object)` `n` (an int) times in a native loop. Returns the number of calls.
    Raises what the callback raises, at once.
    """
