"""The module's Python-visible surface as tables: attributes, functions, classes, fields and parameters."""

#: Every attribute of the module in the order in which execution sets it: name, kind of value.
MODULE_ATTRIBUTES = (
    ("ctypes", "module"),
    ("os", "module"),
    ("sys", "module"),
    ("threading", "module"),
    ("time", "module"),
    ("traceback", "module"),
    ("types", "module"),
    ("weakref", "module"),
    ("typing", "module"),
    ("dbgpythonapi", "module"),
    ("dlog", "module"),
    ("win32", "object"),
    ("tCanonicalPathname", "object"),
    ("kLogOther", "integer"),
    ("kLogFilenames", "integer"),
    ("kLogCore", "integer"),
    ("kLogBreakpoints", "integer"),
    ("kLogExceptions", "integer"),
    ("kLogIO", "integer"),
    ("kLogInternalFailures", "integer"),
    ("kLogThreading", "integer"),
    ("kLogInitialMonitoringCallbacks", "integer"),
    ("kLogSecondMonitoringCallbacks", "integer"),
    ("kPyStartEventId", "integer"),
    ("kPyReturnEventId", "integer"),
    ("kPyResumeEventId", "integer"),
    ("kPyYieldEventId", "integer"),
    ("kPyLineEventId", "integer"),
    ("kSysMonitoringDisable", "object"),
    ("_GetPid", "function"),
    ("_GetThreadIdent", "function"),
    ("_GetPythonFrame", "function"),
    ("_Code_RequestExtraIndexForOwnedRef", "function"),
    ("_Code_GetExtra", "function"),
    ("_Code_SetExtra", "function"),
    ("_gDPrintfFile", "object"),
    ("_gDPrintfMask", "integer"),
    ("_gThisProcessPid", "integer"),
    ("set_dprintf_file", "function"),
    ("set_dprintf_mask", "function"),
    ("get_dprintf_mask", "function"),
    ("dprintf", "function"),
    ("_CallNewObjectCallback", "function"),
    ("CPerFile", "class"),
    ("CPerCodeObject", "class"),
    ("_gThreadStateDictKey", "object"),
    ("_GetThreadStateDict", "function"),
    ("_CPerThreadTssCache", "class"),
    ("CPerThread", "class"),
    ("_FrameCodeMatches", "function"),
    ("CInitialCallback", "class"),
    ("kRegularPathname", "integer"),
    ("kFrozenImportLibPathname", "integer"),
    ("kPseudoPathname", "integer"),
    ("kVornShellPathname", "integer"),
    ("GetPathnameKind", "function"),
    ("_CCanonicalPathnameMgr", "class"),
    ("_gCanonicalPathnameMgr", "object"),
    ("lookup_canonical_pathname", "function"),
    ("register_canonical_pathname", "function"),
    ("get_canonical_pathname", "function"),
    ("set_checksum_callback", "function"),
    ("get_checksum_callback", "function"),
    ("_get_checksum_for_pathname", "function"),
    ("_gInternalPathnameDict", "object"),
    ("SetInternalPathnameDict", "function"),
    ("IsInternalPathname", "function"),
    ("IsInternalFrame", "function"),
    ("GetNonInternalFrame", "function"),
    ("reset", "function"),
    ("UpdateThisProcessPid", "function"),
    ("AddToThreadStateTracing", "function"),
    ("_bench_callback", "function"),
)

#: The attributes that may be set once only; setting any other is refused as read-only.
FINAL_ATTRIBUTES = tuple(name for name, kind in MODULE_ATTRIBUTES
                         if kind in ("module", "function", "class") or name == "kSysMonitoringDisable")

#: The module's functions and their parameters; a parameter with a default is written `name=default`.
FUNCTIONS = {
    "_GetPid": (),
    "_GetThreadIdent": (),
    "_GetPythonFrame": ("this_module_depth",),
    "_Code_RequestExtraIndexForOwnedRef": (),
    "_Code_GetExtra": ("code_object", "index"),
    "_Code_SetExtra": ("code_object", "index", "value"),
    "set_dprintf_file": ("f", "fileno", "win32_handle"),
    "set_dprintf_mask": ("mask",),
    "get_dprintf_mask": (),
    "dprintf": ("domain", "s"),
    "_CallNewObjectCallback": ("callback", "obj"),
    "_GetThreadStateDict": (),
    "_FrameCodeMatches": ("frame", "code_object"),
    "GetPathnameKind": ("pathname",),
    "lookup_canonical_pathname": ("pathname", "checksum=None"),
    "register_canonical_pathname": ("pathname", "checksum=None", "kind=None"),
    "get_canonical_pathname": ("pathname", "checksum=None"),
    "set_checksum_callback": ("callback",),
    "get_checksum_callback": (),
    "_get_checksum_for_pathname": ("pathname",),
    "SetInternalPathnameDict": ("d",),
    "IsInternalPathname": ("pathname",),
    "IsInternalFrame": ("f",),
    "GetNonInternalFrame": ("depth=None",),
    "reset": (),
    "UpdateThisProcessPid": (),
    "AddToThreadStateTracing": ("count",),
    "_bench_callback": ("callback", "code_object", "n"),
}


class ClassTable:
    """What one class offers.

    `fields` and `class_fields` map a name to the type that values are held as ("object", "int" or "bool").
    `class_methods` and `methods` map a name (mangled where it is private to its class) to the parameters
    after `cls` or `self`. All are in the order in which the class declares them.
    """

    def __init__(self, fields=(), class_fields=(), class_methods=(), methods=()):
        self.fields = dict(fields)
        self.class_fields = dict(class_fields)
        self.class_methods = dict(class_methods)
        self.methods = dict(methods)


#: The classes by the path that leads to them from the module.
CLASSES = {
    "CPerFile": ClassTable(
        fields={
            "fCanonicalPathname": "object",
            "fBpSetByLineno": "object",
            "fKnownPerCodeObjects": "object",
            "fChecksum": "object",
        },
        class_fields={
            "_fPerFileDict": "object",
            "_fByChecksum": "object",
            "_fNewPerFileCreatedCallback": "object",
        },
        class_methods={
            "GetPerFile": ("pathname", "create=True"),
            "GetPerFileSetForChecksum": ("checksum",),
            "GetAllPerFiles": (),
            "SetNewPerFileCreatedCallback": ("callback",),
        },
        methods={
            "__init__": ("pathname",),
            "UpdateChecksum": (),
            "_UpdateByChecksum": ("checksum=None", "remove=False"),
        },
    ),
    "CPerCodeObject": ClassTable(
        fields={
            "fCodeObjectWeakRef": "object",
            "fPathnameToReport": "object",
            "fCanonicalPathname": "object",
            "fEnabledBpLinenos": "object",
            "fSteppingEventsNeededCount": "int",
            "fReturnEventsNeededCount": "int",
            "fIsInternalKnown": "bool",
            "fIsInternal": "bool",
            "fUpdatePathnameNeeded": "bool",
        },
        class_fields={
            "_fPerCodeObjectDict": "object",
            "_fCodeObjectExtraIndex": "int",
            "_fNewPerCodeObjectCreatedCallback": "object",
        },
        class_methods={
            "GetPerCodeObject": ("code_object", "create=True", "frame=None"),
            "SetNewPerCodeObjectCreatedCallback": ("callback",),
            "_GetExistingPerCodeObject": ("code_object",),
            "_GetExistingPerCodeObjectFromWeakref": ("code_object",),
            "_RegisterPerCodeObject": ("code_object", "per_code_object"),
            "_GetPathnameToUse": ("code_object", "frame", "canonical"),
        },
        methods={
            "__init__": ("code_object", "frame_for_pathnames"),
            "_AddToPerFile": (),
            "_DiscardFromPerFile": (),
            "_cb_code_object_dealloc": ("code_object",),
            "_UpdatePathnameFromFrame": ("f",),
        },
    ),
    "_CPerThreadTssCache": ClassTable(
        class_methods={
            "Get": (),
            "Store": ("per_thread",),
            "_DropCurrentSlot": (),
            "Clear": (),
            "Detach": ("per_thread",),
        },
    ),
    "CPerThread": ClassTable(
        fields={
            "fThreadId": "object",
            "fOuterMostFrame": "object",
            "fSteppingEventsNeeded": "object",
            "fStopAtNextLine": "object",
            "fStopFrame": "object",
            "fDontStopLinenoRange": "object",
            "fReturnFrame": "object",
            "fDebugPolicy": "int",
            "fSuspendLock": "object",
            "fCheckSuspendLock": "object",
            "fThreadName": "object",
            "fExitingWithException": "object",
            "fSteppingCodeObjects": "object",
        },
        class_fields={
            "_fPerThreadDict": "object",
            "_fDebugPolicyCallback": "object",
            "_fNewPerThreadCreatedCallback": "object",
            "_fGetThreadNameCallback": "object",
            "_fRegistryLock": "object",
            "_fCleanupSupportByThreadId": "object",
            "_fCleanedUpThreadIds": "object",
            "_fDestructorActiveThreadIds": "object",
        },
        class_methods={
            "GetPerThread": ("thread_id=None", "create=True"),
            "_RegisterNewPerThread": ("per_thread",),
            "_DiscardPerThread": ("thread_id",),
            "SetNewPerThreadCreatedCallback": ("callback",),
            "SetGetThreadNameCallback": ("get_thread_name_callback",),
            "SetDebugPolicyCallback": ("thread_policy_callback",),
            "GetAllPerThreads": (),
        },
        methods={
            "__init__": ("thread_id",),
            "_Clear": (),
            "GetDebugPolicy": (),
            "FindThreadName": (),
        },
    ),
    "CPerThread._CCapsule": ClassTable(),
    "CPerThread._CCleanupSupport": ClassTable(
        fields={
            "fPerThread": "object",
            "_fFinalizer": "object",
        },
        class_methods={
            "_IsCapsuleDestructorBeingInvoked": (),
        },
        methods={
            "__init__": ("per_thread",),
            "Clear": ("invalidate_capsule=True",),
            "SetCapsuleInThreadStateDict": (),
            "_InvalidateCapsule": (),
            "_CCleanupSupport__CapsuleDestructor": (),
        },
    ),
    "CInitialCallback": ClassTable(
        fields={
            "_fEventId": "int",
            "_fSecondCallback": "object",
            "_fCanReturnDisable": "bool",
            "fAnySuspendThread": "bool",
            "fSteppingEventsNeededEveryThread": "bool",
        },
        class_fields={
            "_kOffsetForGetFrameInGetPerCodeObject": "int",
        },
        methods={
            "__init__": ("event_id", "second_callback", "can_return_disable"),
            "_IsInitialCallbackLogging": (),
            "Callback": ("code_object",),
            "_SkipDetermination": ("code_object", "lineno_obj"),
            "_SkipSecondCallback": ("code_object", "per_code_object", "per_thread", "lineno_obj"),
            "_CInitialCallback__GetPerCodeObjectCalledFromCallback": ("code_object",),
            "_CInitialCallback__GetPerThreadCalledFromCallback": (),
            "_SuspendIfNeeded": ("per_thread",),
        },
    ),
    "_CCanonicalPathnameMgr": ClassTable(
        fields={
            "fByName": "object",
            "fByUniqueFileno": "object",
            "fByChecksum": "object",
            "fNotFoundCache": "object",
            "fChecksumCallback": "object",
        },
        class_fields={
            "kNotFoundTtlSeconds": "int",
        },
        methods={
            "__init__": (),
            "Reset": (),
            "_AbsPath": ("pathname",),
            "_Stat": ("abs_pathname",),
            "_PrunePycPyo": ("pathname",),
            "_GetWindowsLongPathName": ("pathname",),
            "_IsObviousAbsPathname": ("pathname",),
            "_GetAbsnameForCanonical": ("pathname",),
            "_GetUniqueFileno": ("abs_pathname",),
            "Lookup": ("pathname", "checksum=None"),
            "Register": ("pathname", "checksum=None", "kind=None"),
            "Get": ("pathname", "checksum=None"),
            "SetChecksumCallback": ("callback",),
            "GetChecksumCallback": (),
            "GetChecksumForPathname": ("pathname",),
        },
    ),
}


def find_class(module, path):
    """The class that `path` (a key of `CLASSES`) names in `module`."""
    found = module
    for name in path.split("."):
        found = getattr(found, name)
    return found


def parameter_names(parameters):
    """The bare names of parameters written as in the tables."""
    return [parameter.partition("=")[0] for parameter in parameters]


def defaults(parameters):
    """The defaults of parameters written as in the tables, in order."""
    values = {"None": None, "True": True, "False": False}
    return tuple(values[parameter.partition("=")[2]] for parameter in parameters if "=" in parameter)


def required_count(parameters):
    """How many of the parameters have no default."""
    return sum("=" not in parameter for parameter in parameters)
