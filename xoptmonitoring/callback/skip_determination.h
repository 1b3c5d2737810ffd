// The first stage's decision: whether an event needs the tracer's second callback.
#pragma once

#include "xoptmonitoring/callback/initial_callback.h"
#include "xoptmonitoring/runtime/log_lines.h"

/// What the first stage answers.
enum class Answer {
    Failed,   ///< an exception is set
    Call,     ///< call the second callback
    Skip,     ///< None: keep the event enabled at this location
    Disable,  ///< kSysMonitoringDisable: never report it at this location again
};

namespace initial_callback {

/// Decides one event; `lineno_obj` is the line number of a LINE event, else None.
Answer _SkipDetermination(ModuleState& m, InitialCallbackData& callback, PyObject* code_object, PyObject* lineno_obj);

/// The last filter, on stepping, breakpoints and wanted returns: 1 skip, 0 call, -1 with an exception set.
int _SkipSecondCallback(ModuleState& m, InitialCallbackData& callback, PyObject* per_code_object,
                        PyObject* per_thread, PyObject* lineno_obj);

/// Waits while the tracer holds the thread's suspend lock. False with an exception set.
bool _SuspendIfNeeded(ModuleState& m, PyObject* per_thread);

/// Whether the first stage's lines can be written at all: a cheap test before the mask is looked at.
inline bool _IsInitialCallbackLogging(ModuleState& m) {
    return !global_is_none(m.globals._gDPrintfFile);
}

/// Whether a line of the first stage is written.
inline bool is_logging_first_stage(ModuleState& m) {
    return XPY_UNLIKELY(_IsInitialCallbackLogging(m)) &&
           is_logging(m, load_global(m.globals.kLogInitialMonitoringCallbacks));
}

}  // namespace initial_callback
