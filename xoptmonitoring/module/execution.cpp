// Module execution: filling the globals, in a fixed order.
//
// The first failure stops it and everything made so far is dropped again, so that a later import starts from nothing.
#include "xoptmonitoring/module/execution.h"

#include "xoptmonitoring/callback/initial_callback.h"
#include "xoptmonitoring/callback/internal_frames.h"
#include "xoptmonitoring/callback/reset.h"
#include "xoptmonitoring/module/module_object.h"
#include "xoptmonitoring/pathnames/canonical_pathname_mgr.h"
#include "xoptmonitoring/pathnames/pathname_functions.h"
#include "xoptmonitoring/pathnames/pathname_kinds.h"
#include "xoptmonitoring/records/code_extra.h"
#include "xoptmonitoring/records/forked_child.h"
#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_file.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/records/thread_exit.h"
#include "xoptmonitoring/records/tracing.h"
#include "xoptmonitoring/records/tss_cache.h"
#include "xoptmonitoring/runtime/internal_types.h"
#include "xoptmonitoring/runtime/log_lines.h"

namespace {

/// Sets a final global by its field's name.
#define SET_FINAL(field, value) store_final_global(m, m.globals.field, #field, value)

bool add_function(ModuleState& m, PyObject*& slot, const FunctionDecl& decl) {
    return store_final_global(m, slot, decl.name, new_function(m, decl, nullptr, nullptr));
}

/// Adds a run of functions; each goes to the global of its own name.
struct FunctionRow {
    PyObject* ModuleGlobals::*slot;
    const FunctionDecl* decl;
};

bool add_functions(ModuleState& m, std::span<const FunctionRow> rows) {
    for (const FunctionRow& row : rows) {
        if (!add_function(m, m.globals.*row.slot, *row.decl)) {
            return false;
        }
    }
    return true;
}

// ---- imports ----

/// `__import__(name)`.
Ref import_module(ModuleState& m, const char* name) {
    const Ref module_name = Ref::steal(xpy.PyUnicode_FromString(name));
    return module_name ? call(m.builtins.__import__, module_name.get()) : Ref();
}

bool copy_if_present(PyObject* from, PyObject* to, PyObject* key) {
    const Ref value = Ref::share(xpy.PyDict_GetItem(from, key));
    return !value || xpy.PyDict_SetItem(to, key, value.get()) == 0;
}

/// Globals for a relative import: what tells the containing package.
Ref import_globals(ModuleState& m) {
    PyObject* own = xpy.PyModule_GetDict(m.module);
    Ref globals = Ref::steal(xpy.PyDict_New());
    if (!globals || !copy_if_present(own, globals.get(), m.names.__name__) ||
        !copy_if_present(own, globals.get(), m.names.__package__)) {
        return {};
    }
    return globals;
}

/// Attribute `member` of `__import__(package, globals, None, [member], level)`.
Ref import_member(ModuleState& m, PyObject* package, PyObject* member, long level) {
    const Ref globals = import_globals(m);
    const Ref from_list = globals ? Ref::steal(xpy.Py_BuildValue("[O]", member)) : Ref();
    const Ref level_number = from_list ? new_int(level) : Ref();
    const Ref module =
        level_number ? call(m.builtins.__import__, package, globals.get(), none(), from_list.get(), level_number.get())
                     : Ref();
    return module ? get_attr(module.get(), member) : Ref();
}

/// Whether the module is no member of a package, by the rule of the interpreter's relative imports: an empty package
/// says so, and where no package is told, a name without a dot does. False also where that cannot be found out.
bool is_outside_package(ModuleState& m) {
    const PendingException pending;
    PyObject* own = xpy.PyModule_GetDict(m.module);
    PyObject* package = xpy.PyDict_GetItem(own, m.names.__package__);
    if (package != nullptr && package != none()) {
        return is_str(package) && xpy.PyUnicode_CompareWithASCIIString(package, "") == 0;
    }
    PyObject* name = xpy.PyDict_GetItem(own, m.names.__name__);
    const Ref dot = Ref::steal(xpy.PyUnicode_FromString("."));
    const int has_dot = name != nullptr && dot && is_str(name) ? contains(name, dot.get()) : -1;
    if (has_dot < 0) {
        xpy.PyErr_Clear();
    }
    return has_dot == 0;
}

/// Raises ImportError that says what is missing around a module on its own. What the interpreter has to say about that,
/// which is pending, becomes its cause.
XPY_COLD void raise_no_package() {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    xpy.PyErr_Fetch(&type, &value, &traceback);
    xpy.PyErr_NormalizeException(&type, &value, &traceback);
    const Ref cause_type = Ref::steal(type);
    const Ref cause = Ref::steal(value);
    const Ref cause_traceback = Ref::steal(traceback);
    xpy.PyErr_SetString(xpy.PyExc_ImportError,
                        "xoptmonitoring has to be imported as a member of a package that has a module dbgpythonapi, "
                        "not on its own");
    xpy.PyErr_Fetch(&type, &value, &traceback);
    xpy.PyErr_NormalizeException(&type, &value, &traceback);
    if (value != nullptr && cause && xpy.PyObject_SetAttrString(value, "__cause__", cause.get()) != 0) {
        xpy.PyErr_Clear();
    }
    xpy.PyErr_Restore(type, value, traceback);
}

/// The sibling module of the containing package.
Ref import_sibling(ModuleState& m, PyObject* name) {
    Ref sibling = import_member(m, m.literals.empty, name, 1);
    if (!sibling && xpy.PyErr_ExceptionMatches(xpy.PyExc_ImportError) != 0 && is_outside_package(m)) {
        raise_no_package();
    }
    return sibling;
}

bool import_standard_modules(ModuleState& m) {
    return SET_FINAL(ctypes, import_module(m, "ctypes")) && SET_FINAL(os, import_module(m, "os")) &&
           SET_FINAL(sys, import_module(m, "sys")) && SET_FINAL(threading, import_module(m, "threading")) &&
           SET_FINAL(time, import_module(m, "time")) && SET_FINAL(traceback, import_module(m, "traceback")) &&
           SET_FINAL(types, import_module(m, "types")) && SET_FINAL(weakref, import_module(m, "weakref")) &&
           SET_FINAL(typing, import_module(m, "typing"));
}

bool import_companions(ModuleState& m) {
    if (!SET_FINAL(dbgpythonapi, import_sibling(m, m.names.dbgpythonapi)) ||
        !SET_FINAL(dlog, import_member(m, m.names.vornbase, m.names.dlog, 0))) {
        return false;
    }
    const int on_win32 = is_win32(m);
    if (on_win32 < 0) {
        return false;
    }
    return SET_FINAL(win32,
                     on_win32 != 0 ? import_member(m, m.names.vornbase, m.literals.win32_platform, 0) : new_none());
}

// ---- constants ----

void set_mask_constants(ModuleState& m) {
#define SET_MASK(name) store_global(m, m.globals.name, ::name)
    SET_MASK(kLogOther);
    SET_MASK(kLogFilenames);
    SET_MASK(kLogCore);
    SET_MASK(kLogBreakpoints);
    SET_MASK(kLogExceptions);
    SET_MASK(kLogIO);
    SET_MASK(kLogInternalFailures);
    SET_MASK(kLogThreading);
    SET_MASK(kLogInitialMonitoringCallbacks);
    SET_MASK(kLogSecondMonitoringCallbacks);
}

Ref monitoring_namespace(ModuleState& m) {
    const Ref sys = load_global(m, m.globals.sys);
    return sys ? get_attr(sys.get(), m.names.monitoring) : Ref();
}

bool set_event_id(ModuleState& m, std::int64_t& slot, PyObject* name) {
    const Ref monitoring = monitoring_namespace(m);
    const Ref events = monitoring ? get_attr(monitoring.get(), m.names.events) : Ref();
    const Ref id = events ? get_attr(events.get(), name) : Ref();
    Py_ssize_t value = 0;
    if (!id || !to_ssize(id.get(), &value)) {
        return false;
    }
    store_global(m, slot, value);
    return true;
}

bool set_monitoring_constants(ModuleState& m) {
    if (!set_event_id(m, m.globals.kPyStartEventId, m.names.PY_START) ||
        !set_event_id(m, m.globals.kPyReturnEventId, m.names.PY_RETURN) ||
        !set_event_id(m, m.globals.kPyResumeEventId, m.names.PY_RESUME) ||
        !set_event_id(m, m.globals.kPyYieldEventId, m.names.PY_YIELD) ||
        !set_event_id(m, m.globals.kPyLineEventId, m.names.LINE)) {
        return false;
    }
    const Ref monitoring = monitoring_namespace(m);
    return monitoring && SET_FINAL(kSysMonitoringDisable, get_attr(monitoring.get(), m.names.DISABLE));
}

void set_pathname_kinds(ModuleState& m) {
    store_global(m, m.globals.kRegularPathname, ::kRegularPathname);
    store_global(m, m.globals.kFrozenImportLibPathname, ::kFrozenImportLibPathname);
    store_global(m, m.globals.kPseudoPathname, ::kPseudoPathname);
    store_global(m, m.globals.kVornShellPathname, ::kVornShellPathname);
}

// ---- functions ----

using G = ModuleGlobals;

constexpr FunctionRow kInterpreterFunctions[] = {
    {&G::_GetPid, &kGetPid},
    {&G::_GetThreadIdent, &kGetThreadIdent},
    {&G::_GetPythonFrame, &kGetPythonFrame},
    {&G::_Code_RequestExtraIndexForOwnedRef, &kCodeRequestExtraIndexForOwnedRef},
    {&G::_Code_GetExtra, &kCodeGetExtra},
    {&G::_Code_SetExtra, &kCodeSetExtra},
};

constexpr FunctionRow kDiagnosticFunctions[] = {
    {&G::set_dprintf_file, &kSetDprintfFile},
    {&G::set_dprintf_mask, &kSetDprintfMask},
    {&G::get_dprintf_mask, &kGetDprintfMask},
    {&G::dprintf, &kDprintf},
    {&G::_CallNewObjectCallback, &kCallNewObjectCallback},
};

constexpr FunctionRow kPathnameFunctions[] = {
    {&G::lookup_canonical_pathname, &kLookupCanonicalPathname},
    {&G::register_canonical_pathname, &kRegisterCanonicalPathname},
    {&G::get_canonical_pathname, &kGetCanonicalPathname},
    {&G::set_checksum_callback, &kSetChecksumCallback},
    {&G::get_checksum_callback, &kGetChecksumCallback},
    {&G::_get_checksum_for_pathname, &kGetChecksumForPathname},
};

constexpr FunctionRow kLastFunctions[] = {
    {&G::SetInternalPathnameDict, &kSetInternalPathnameDict},
    {&G::IsInternalPathname, &kIsInternalPathname},
    {&G::IsInternalFrame, &kIsInternalFrame},
    {&G::GetNonInternalFrame, &kGetNonInternalFrame},
    {&G::reset, &kReset},
    {&G::UpdateThisProcessPid, &kUpdateThisProcessPid},
    {&G::AddToThreadStateTracing, &kAddToThreadStateTracing},
    {&G::_bench_callback, &kBenchCallback},
};

// ---- the order ----

bool set_constants(ModuleState& m) {
    store_global(m, m.globals.tCanonicalPathname, Ref::share(m.builtins.str));
    set_mask_constants(m);
    return set_monitoring_constants(m);
}

bool set_process_globals(ModuleState& m) {
    store_global(m, m.globals._gDPrintfFile, new_none());
    store_global(m, m.globals._gDPrintfMask, 0);
    store_global(m, m.globals._gThisProcessPid, xpy.cached_pid);
    return add_functions(m, kDiagnosticFunctions);
}

bool create_records(ModuleState& m) {
    if (!SET_FINAL(CPerFile, per_file::create(m)) || !SET_FINAL(CPerCodeObject, per_code_object::create(m))) {
        return false;
    }
    Ref key = call(m.builtins.object);
    if (!key) {
        return false;
    }
    store_global(m, m.globals._gThreadStateDictKey, std::move(key));
    return add_function(m, m.globals._GetThreadStateDict, kGetThreadStateDict) &&
           SET_FINAL(_CPerThreadTssCache, tss_cache::create(m)) && SET_FINAL(CPerThread, per_thread::create(m)) &&
           add_function(m, m.globals._FrameCodeMatches, kFrameCodeMatches) &&
           SET_FINAL(CInitialCallback, initial_callback::create(m));
}

bool create_pathnames(ModuleState& m) {
    set_pathname_kinds(m);
    if (!add_function(m, m.globals.GetPathnameKind, kGetPathnameKind) ||
        !SET_FINAL(_CCanonicalPathnameMgr, canonical_pathname_mgr::create(m))) {
        return false;
    }
    Ref mgr = call(m.globals._CCanonicalPathnameMgr);
    if (!mgr) {
        return false;
    }
    store_global(m, m.globals._gCanonicalPathnameMgr, std::move(mgr));
    return add_functions(m, kPathnameFunctions);
}

bool finish(ModuleState& m) {
    Ref internal = Ref::steal(xpy.PyDict_New());
    if (!internal) {
        return false;
    }
    store_global(m, m.globals._gInternalPathnameDict, std::move(internal));
    return add_functions(m, kLastFunctions);
}

bool execute(ModuleState& m) {
    return create_internal_types(m) && fill_tables(m) && import_standard_modules(m) && import_companions(m) &&
           set_constants(m) && add_functions(m, kInterpreterFunctions) && set_process_globals(m) && create_records(m) &&
           create_pathnames(m) && finish(m) && forked_child::watch_forks(m);
}

/// Names the interpreter entry points without which execution cannot even begin; older interpreters lack some.
const char* missing_entry_point() {
    if (xpy.PyType_FromSpecWithBases == nullptr) {
        return "PyType_FromSpecWithBases";
    }
    return xpy.PyVectorcall_Call == nullptr ? "PyVectorcall_Call" : nullptr;
}

}  // namespace

int execute_module(PyObject* module) {
    if (const char* missing = missing_entry_point()) {
        xpy.PyErr_Format(xpy.PyExc_ImportError, "xoptmonitoring needs Python 3.12 or later: no %s", missing);
        return -1;
    }
    ModuleState* m = begin_state(module);
    if (m == nullptr) {
        xpy.PyErr_SetString(xpy.PyExc_SystemError, "the module has no state");
        return -1;
    }
    if (m->globals.ctypes != nullptr) {
        // Executed before: refused by the first final global, and nothing of the first execution is touched.
        raise_final_already_set("ctypes", module);
        return -1;
    }
    m->module = module;
    if (execute(*m)) {
        return 0;
    }
    const PendingException pending;
    clear_state(*m);
    return -1;
}
