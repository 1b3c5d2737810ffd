// CInitialCallback: the first stage of a monitored event.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

/// What an event is to the first stage. Unsettled until it is worked out from the event's id; Start and Return come
/// last, where one comparison tells them from the rest.
enum class EventKind : std::int32_t { Unsettled, Other, Line, Start, Return };

struct InitialCallbackData {
    Py_ssize_t _fEventId;
    PyObject* _fSecondCallback;
    // These two are read together, in one word.
    alignas(std::int64_t) std::int32_t fAnySuspendThread;
    std::int32_t fSteppingEventsNeededEveryThread;
    std::int32_t _fCanReturnDisable;
    /// Follows from `_fEventId`; unsettled again whenever that is assigned to.
    EventKind kind;
};

struct InitialCallbackClassData {
    ClassRecord record;
    Py_ssize_t _kOffsetForGetFrameInGetPerCodeObject;
};

namespace initial_callback {

/// Creates the class and its metaclass. Empty with an exception set.
Ref create(ModuleState& m);

/// The class, borrowed; null with NameError set.
inline PyTypeObject* this_class(ModuleState& m) {
    return defined_class(m.globals.CInitialCallback, "CInitialCallback");
}

inline InitialCallbackData& data(PyObject* self) {
    return instance_data_as<InitialCallbackData>(self);
}

/// What an instance's event is, as far as that is known; the event's id can be assigned to meanwhile, on another
/// thread.
inline EventKind load_kind(const InitialCallbackData& callback) {
    EventKind kind = EventKind::Unsettled;
    __atomic_load(&callback.kind, &kind, __ATOMIC_RELAXED);
    return kind;
}

/// What the event with that id is.
EventKind kind_of(const ModuleGlobals& globals, Py_ssize_t event_id);

/// One event, from the interpreter's arguments (at least the code object) to the answer: a new reference. Null with an
/// exception set only where the debugger's log itself failed.
PyObject* Callback(ModuleState& m, PyObject* self, PyObject* const* args, Py_ssize_t nargs);

/// The record of `code_object`, made where it is missing. Empty with an exception set.
Ref __GetPerCodeObjectCalledFromCallback(ModuleState& m, PyObject* code_object);

/// The calling thread's record, made where it is missing. Empty with an exception set: AttributeError while the thread
/// is inside its own clean-up, when it has none.
Ref __GetPerThreadCalledFromCallback(ModuleState& m);

}  // namespace initial_callback
