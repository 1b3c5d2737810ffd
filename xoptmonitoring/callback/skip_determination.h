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

/// One event on its way through the first stage.
///
/// The interpreter calls through borrowed references, and under a global lock the fast road borrows the records too:
/// nothing can take any of them away until Python code runs or the thread waits. `hold` comes before every such step.
struct Event {
    PyObject* self;                 ///< the CInitialCallback
    InitialCallbackData& callback;  ///< its fields
    PyObject* code_object;
    PyObject* lineno_obj;            ///< the line of a LINE event, else None
    PyObject* per_code_object = nullptr;
    PyObject* per_thread = nullptr;
    Ref held_self = {};
    Ref held_per_code_object = {};
    Ref held_per_thread = {};

    /// Makes sure of everything that the event still needs.
    XPY_COLD void hold();
};

namespace initial_callback {

/// Decides one event. After Answer::Call and Answer::Failed, `self` is held.
Answer _SkipDetermination(ModuleState& m, Event& event);

/// The last filter, on stepping, breakpoints and wanted returns: 1 skip, 0 call, -1 with an exception set.
int _SkipSecondCallback(ModuleState& m, Event& event);

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
