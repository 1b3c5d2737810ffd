// Returning the module to its initial state, re-arming it after fork, and timing a callback.
#include "xoptmonitoring/callback/reset.h"

#include "xoptmonitoring/pathnames/canonical_pathname_mgr.h"
#include "xoptmonitoring/records/forked_child.h"
#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_file.h"
#include "xoptmonitoring/records/per_thread.h"

namespace {

bool reset_pathnames(ModuleState& m) {
    const Ref mgr = load_global(m, m.globals._gCanonicalPathnameMgr);
    if (!mgr || !canonical_pathname_mgr::Reset(m, mgr.get())) {
        return false;
    }
    Ref internal = Ref::steal(xpy.PyDict_New());
    if (!internal) {
        return false;
    }
    store_global(m, m.globals._gInternalPathnameDict, std::move(internal));
    return true;
}

/// Makes this process the one whose events count. False with an exception set.
bool adopt_process(ModuleState& m) {
    const bool forked = load_global(m.globals._gThisProcessPid) != xpy.cached_pid;
    if (forked) {
        forked_child::free_registries(m);
        if (!per_thread::replace_lost_lock(m)) {
            return false;
        }
    }
    store_global(m, m.globals._gThisProcessPid, xpy.cached_pid);
    return true;
}

/// The order matters: output first, so that nothing below writes a line; pathnames before the records filed under
/// them; threads last. A failure leaves done what was done.
Ref reset(ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) {
    store_global(m, m.globals._gDPrintfFile, new_none());
    store_global(m, m.globals._gDPrintfMask, 0);
    const bool done = adopt_process(m) && reset_pathnames(m) && per_file::reset(m) && per_code_object::reset(m) &&
                      per_thread::reset(m);
    return done ? new_none() : Ref();
}

Ref update_pid(ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) {
    return adopt_process(m) ? new_none() : Ref();
}

Ref bench_callback(ModuleState& /*m*/, PyObject* /*self*/, const Argument* args) {
    PyObject* callback = args[0].object;
    const Py_ssize_t calls = args[2].integer > 0 ? args[2].integer : 0;
    PyObject* vector[] = {nullptr, args[1].object};
    for (Py_ssize_t done = 0; done < calls; ++done) {
        if (!call_vector(callback, vector + 1, 1)) {
            return {};
        }
    }
    return new_int(calls);
}

constexpr ParamDecl kBenchParams[] = {{"callback"}, {"code_object"}, {"n", ValueType::Integer}};

}  // namespace

const FunctionDecl kReset = {
    "reset",
    {},
    reset,
    "Returns the module to the state that it had after import: no diagnostic output, no records, no callbacks, no\n"
    "internal pathnames. Records in the slots of code objects stay with them. Returns None."};

const FunctionDecl kUpdateThisProcessPid = {
    "UpdateThisProcessPid",
    {},
    update_pid,
    "Makes events of this process count again, in a forked child. Returns None."};

const FunctionDecl kBenchCallback = {
    "_bench_callback", kBenchParams, bench_callback,
    "Calls `callback(code_object)` `n` (an int) times in a native loop. Returns the number of calls. Raises what the\n"
    "callback raises, at once."};
