// The first stage's decision: whether an event needs the tracer's second callback.
#pragma once

#include "xoptmonitoring/callback/initial_callback.h"
#include "xoptmonitoring/records/local_state.h"
#include "xoptmonitoring/records/tss_cache.h"
#include "xoptmonitoring/runtime/log_lines.h"

/// What the first stage answers.
enum class Answer {
    Undecided,  ///< the fast road's: take the careful one
    Failed,     ///< an exception is set
    Call,       ///< call the second callback
    Skip,       ///< None: keep the event enabled at this location
    Disable,    ///< kSysMonitoringDisable: never report it at this location again
};

/// One event on its way through the first stage. It keeps alive what it needs, so that Python code may run in between.
struct HeldEvent {
    PyObject* code_object;  ///< borrowed: the interpreter is about to run it
    PyObject* lineno_obj;   ///< borrowed; the line of a LINE event, else None
    Ref self;               ///< the CInitialCallback
    Ref per_code_object;    ///< once found
    Ref per_thread;         ///< once found
};

namespace initial_callback {

/// Decides one event.
Answer _SkipDetermination(ModuleState& m, HeldEvent& event);

/// The last filter, on stepping, breakpoints and wanted returns: Skip, Call, or Failed with an exception set. The two
/// records may be anything; each is looked at when it is needed.
Answer _SkipSecondCallback(ModuleState& m, HeldEvent& event);

/// The same decision as far as it can be had without Python code, references and locks, where objects are plain: for
/// LINE events, and for those that start or end a call. True to skip the event; false where it has to be looked at in
/// full. `args` are the interpreter's arguments: the code object, for LINE the line, and more. `slot_record` is what
/// the thread's storage cache points at. Sets no exception.
bool is_line_skipped(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args);
bool is_call_skipped(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                     const TssSlotRecord& slot_record);

/// The same without a global lock, with what the thread remembers in `local` and notes in `call`. `slot_record` is
/// being looked at already. The set of breakpoints is locked by its own membership test; no other lock is taken, unless
/// the set is replaced meanwhile.
bool is_line_skipped_locally(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                             const LocalState& local, CallInProgress& call);
bool is_call_skipped_locally(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                             const LocalState& local, TssSlotRecord& slot_record);

/// Waits while the tracer holds the thread's suspend lock. False with an exception set.
bool _SuspendIfNeeded(ModuleState& m, PyObject* per_thread);

/// Whether the first stage's lines can be written at all: a cheap test before the mask is looked at.
inline bool _IsInitialCallbackLogging(const ModuleState& m) {
    return !global_is_none(m.globals._gDPrintfFile);
}

/// Whether a line of the first stage is written.
inline bool is_logging_first_stage(ModuleState& m) {
    return XPY_UNLIKELY(_IsInitialCallbackLogging(m)) &&
           is_logging(m, load_global(m.globals.kLogInitialMonitoringCallbacks));
}

}  // namespace initial_callback
