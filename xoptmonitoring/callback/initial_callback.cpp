// CInitialCallback: the first stage of a monitored event, from the interpreter's call to its answer.
//
// The interpreter calls `instance.Callback` for every monitored event of every thread. The object behind that name
// (bound_callback.cpp) tries the fast road first; what that cannot answer comes here. `Callback` asks
// `_SkipDetermination` and calls the tracer's second callback only where that says so. Nothing on the road to a skipped
// event allocates, looks anything up by name or calls Python code.
#include "xoptmonitoring/callback/initial_callback.h"

#include "xoptmonitoring/binding/xpy_recursion.h"
#include "xoptmonitoring/callback/bound_callback.h"
#include "xoptmonitoring/callback/internal_frames.h"
#include "xoptmonitoring/callback/skip_determination.h"
#include "xoptmonitoring/records/code_extra.h"
#include "xoptmonitoring/records/local_state.h"
#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/runtime/handled_exception.h"

namespace initial_callback {
namespace {

using Data = InitialCallbackData;
using ClassData = InitialCallbackClassData;

void store_kind(Data& callback, EventKind kind) {
    __atomic_store(&callback.kind, &kind, __ATOMIC_SEQ_CST);
}

void forget_kind(void* data) {
    store_kind(*static_cast<Data*>(data), EventKind::Unsettled);
}

#define FIELD(name, type, flags, doc) \
    { #name, FieldType::type, offsetof(Data, name), flags, doc }
constexpr FieldDecl kFields[] = {
    {"_fEventId", FieldType::Int, offsetof(Data, _fEventId), 0,
     "The sys.monitoring event id that this instance serves.", forget_kind},
    FIELD(_fSecondCallback, Object, kFinalField, "The tracer's callable for events of interest; set once."),
    FIELD(_fCanReturnDisable, Bool, 0, "Whether kSysMonitoringDisable may be returned for this event."),
    FIELD(fAnySuspendThread, Bool, 0, "True while some thread has to be suspended; set by the tracer."),
    FIELD(fSteppingEventsNeededEveryThread, Bool, 0,
          "True while stepping needs line events in every thread; set by the tracer."),
};
#undef FIELD

constexpr FieldDecl kClassFields[] = {
    {"_kOffsetForGetFrameInGetPerCodeObject", FieldType::Int,
     offsetof(ClassData, _kOffsetForGetFrameInGetPerCodeObject), 0,
     "How many frames of this module to skip when the monitored frame is looked up: none."},
};

/// Logs that the first stage was called.
XPY_COLD bool log_called(ModuleState& m, PyObject* self, PyObject* code_object) {
    const Ref second_callback = load_field(self, data(self)._fSecondCallback);
    if (!second_callback) {
        return false;
    }
    return write_log_line(
        m, Ref::steal(xpy.PyUnicode_FromFormat("%U%R%U%U%R%U", m.literals.initial_callback_called, code_object,
                                               m.literals.semicolon_newline, m.literals.second_callback_is,
                                               second_callback.get(), m.literals.newline)));
}

/// Logs that the second stage is about to be called.
XPY_COLD bool log_calling(ModuleState& m, PyObject* second_callback) {
    return write_log_line(
        m, Ref::steal(xpy.PyUnicode_FromFormat("%U%R%U", m.literals.calling, second_callback, m.literals.newline)));
}

/// Calls the second stage with the interpreter's own arguments.
Ref call_second(ModuleState& m, PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    const Ref second_callback = load_field(self, data(self)._fSecondCallback);
    if (!second_callback || (is_logging_first_stage(m) && !log_calling(m, second_callback.get()))) {
        return {};
    }
    // The second stage may be, or come to, this very callback.
    const RecursionLevel level;
    if (!level.is_entered()) {
        return {};
    }
    return Ref::steal(xpy.PyObject_Vectorcall(second_callback.get(), args, static_cast<std::size_t>(nargs), nullptr));
}

/// Hands the pending exception to the debugger's log and answers None: an exception that reached the interpreter's
/// monitoring machinery would switch the tool off. One that the log itself raises does go on.
XPY_COLD Ref log_exception(ModuleState& m) {
    const HandledException handled(Ref::steal(xpy.PyErr_GetRaisedException()));
    const Ref dlog = load_global(m, m.globals.dlog);
    if (!dlog || !call_method(dlog.get(), m.names.LogException, none(), xpy._Py_TrueStruct)) {
        return {};
    }
    return new_none();
}

PyObject* call_callback(ModuleState& m, PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return bind_callback_arguments(args, &nargs, kwnames) ? Callback(m, self, args, nargs) : nullptr;
}

#define CALLBACK_DOC                                                                                                \
    "The sys.monitoring callback: decides whether the event is of interest and calls the second callback with\n"    \
    "`code_object` and the event's other arguments where it is. Returns kSysMonitoringDisable, None, or what the\n" \
    "second callback returns. An exception on the way goes to the debugger's log, and None is returned."

/// Record found in the code object's slot or the weak-reference registry, or None.
Ref existing_record(ModuleState& m, PyObject* code_object) {
    return per_code_object::_GetExistingPerCodeObject(m, code_object);
}

bool is_settled(PyObject* per_code_object) {
    return __atomic_load_n(&per_code_object::data(per_code_object).fUpdatePathnameNeeded, __ATOMIC_ACQUIRE) == 0;
}

/// Makes the record of a code object, or settles one made without a frame, with the monitored frame.
XPY_COLD Ref create_or_settle(ModuleState& m, PyObject* code_object, Ref record) {
    const Ref frame = innermost_frame();
    if (!frame) {
        return {};
    }
    if (frame.get() == none()) {
        xpy.PyErr_SetString(xpy.PyExc_RuntimeError, "no Python frame in the monitored thread");
        return {};
    }
    if (record.get() == none()) {
        return per_code_object::GetPerCodeObject(m, code_object, true, frame.get());
    }
    return per_code_object::_UpdatePathnameFromFrame(m, record.get(), frame.get()) ? std::move(record) : Ref();
}

Ref answer_object(ModuleState& m, Answer answer) {
    switch (answer) {
        case Answer::Call:
            return new_bool(false);
        case Answer::Skip:
            return new_none();
        case Answer::Disable:
            return load_global(m, m.globals.kSysMonitoringDisable);
        default:
            return {};
    }
}

Ref initialise(PyObject* self, const Argument* args) {
    Data& callback = data(self);
    __atomic_store_n(&callback._fEventId, args[0].integer, __ATOMIC_SEQ_CST);
    forget_kind(&callback);
    if (write_member(self, &callback, kFields[1], args[1].object) != 0) {
        return {};
    }
    __atomic_store_n(&callback._fCanReturnDisable, args[2].truth, __ATOMIC_RELAXED);
    __atomic_store_n(&callback.fAnySuspendThread, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&callback.fSteppingEventsNeededEveryThread, 0, __ATOMIC_RELAXED);
    return new_none();
}

/// Works out what the event is, unless that is known. An id that is assigned meanwhile, on another thread, comes first
/// or unsettles the kind again.
EventKind settle_kind(ModuleState& m, Data& callback) {
    EventKind kind = load_kind(callback);
    if (kind == EventKind::Unsettled) {
        const Py_ssize_t event_id = __atomic_load_n(&callback._fEventId, __ATOMIC_SEQ_CST);
        kind = kind_of(m.globals, event_id);
        store_kind(callback, kind);
        if (__atomic_load_n(&callback._fEventId, __ATOMIC_SEQ_CST) != event_id) {
            forget_kind(&callback);
        }
    }
    return kind;
}

constexpr ParamDecl kInitParams[] = {
    {"event_id", ValueType::Integer}, {"second_callback"}, {"can_return_disable", ValueType::Truth}};
constexpr ParamDecl kCallbackParams[] = {{"code_object"}};
constexpr ParamDecl kDeterminationParams[] = {{"code_object"}, {"lineno_obj"}};
constexpr ParamDecl kSecondParams[] = {{"code_object"}, {"per_code_object"}, {"per_thread"}, {"lineno_obj"}};
constexpr ParamDecl kPerThreadParams[] = {{"per_thread"}};

constexpr FunctionDecl kMethods[] = {
    {"__init__", kInitParams,
     [](ModuleState& /*m*/, PyObject* self, const Argument* args) { return initialise(self, args); },
     "Makes the first stage of the event `event_id` (an int): `second_callback` is the tracer's callable for events of\n"
     "interest, `can_return_disable` whether locations of internal code may be switched off for good. Raises\n"
     "AttributeError where the instance has been initialised before.",
     Binding::Instance},
    {"_IsInitialCallbackLogging",
     {},
     [](ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) {
         return new_bool(_IsInitialCallbackLogging(m));
     },
     "Returns whether a diagnostic file is set, a bool; the mask is looked at for each line.",
     Binding::Instance},
    {"Callback", kCallbackParams, nullptr, CALLBACK_DOC, Binding::Instance, call_callback, bind_callback},
    {"_SkipDetermination", kDeterminationParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         HeldEvent event{args[0].object, args[1].object, Ref::share(self), Ref(), Ref()};
         return answer_object(m, _SkipDetermination(m, event));
     },
     "Decides an event of `code_object`; `lineno_obj` is the line of a LINE event, else None. Returns False (call the\n"
     "second callback), None (skip) or kSysMonitoringDisable (skip for good).",
     Binding::Instance},
    {"_SkipSecondCallback", kSecondParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         HeldEvent event{args[0].object, args[3].object, Ref::share(self), Ref::share(args[1].object),
                         Ref::share(args[2].object)};
         const Answer answer = _SkipSecondCallback(m, event);
         return answer == Answer::Failed ? Ref() : new_bool(answer == Answer::Skip);
     },
     "Returns whether the second callback can be skipped, a bool, from the records `per_code_object` and `per_thread`\n"
     "and the line `lineno_obj`; `code_object` is not looked at.",
     Binding::Instance},
    {"_CInitialCallback__GetPerCodeObjectCalledFromCallback", kCallbackParams,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
         return __GetPerCodeObjectCalledFromCallback(m, args[0].object);
     },
     "Returns the CPerCodeObject of `code_object`, made where it is missing.", Binding::Instance},
    {"_CInitialCallback__GetPerThreadCalledFromCallback",
     {},
     [](ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) { return __GetPerThreadCalledFromCallback(m); },
     "Returns the calling thread's CPerThread, made where it is missing.",
     Binding::Instance},
    {"_SuspendIfNeeded", kPerThreadParams,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
         return _SuspendIfNeeded(m, args[0].object) ? new_none() : Ref();
     },
     "Waits while the tracer holds `per_thread.fSuspendLock`, where fCheckSuspendLock is true. Returns None.",
     Binding::Instance},
};

constexpr ClassDecl kClass = {
    CLASS_NAMES(CInitialCallback),
    "The first stage of a monitored event: its Callback is registered with sys.monitoring and calls the tracer's\n"
    "second callback only for events of interest.",
    sizeof(Data),
    kFields,
    sizeof(ClassData),
    kClassFields,
    kMethods};

}  // namespace

EventKind kind_of(const ModuleGlobals& globals, Py_ssize_t event_id) {
    if (event_id == globals.kPyLineEventId) {
        return EventKind::Line;
    }
    if (event_id == globals.kPyStartEventId || event_id == globals.kPyResumeEventId) {
        return EventKind::Start;
    }
    const bool returns = event_id == globals.kPyReturnEventId || event_id == globals.kPyYieldEventId;
    return returns ? EventKind::Return : EventKind::Other;
}

PyObject* Callback(ModuleState& m, PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    const bool is_line = settle_kind(m, data(self)) == EventKind::Line;
    HeldEvent event{args[0], is_line && nargs > 1 ? args[1] : none(), Ref::share(self), Ref(), Ref()};
    if (is_logging_first_stage(m) && !log_called(m, self, args[0])) {
        return log_exception(m).release();
    }
    Ref answer;
    switch (_SkipDetermination(m, event)) {
        case Answer::Skip:
            return new_none().release();
        case Answer::Disable:
            answer = load_global(m, m.globals.kSysMonitoringDisable);
            break;
        case Answer::Call:
            answer = call_second(m, self, args, nargs);
            break;
        default:
            break;
    }
    return answer ? answer.release() : log_exception(m).release();
}

Ref __GetPerCodeObjectCalledFromCallback(ModuleState& m, PyObject* code_object) {
    const std::uint64_t epoch = local_state::current_epoch();
    Ref record = existing_record(m, code_object);
    if (XPY_UNLIKELY(!record)) {
        return {};
    }
    if (XPY_LIKELY(record.get() != none() && is_settled(record.get()))) {
        if (is_free_threaded() && per_code_object::is_in_slot(m, code_object, record.get())) {
            local_state::remember(code_object, record.get(), epoch);
        }
        return record;
    }
    return create_or_settle(m, code_object, std::move(record));
}

Ref __GetPerThreadCalledFromCallback(ModuleState& m) {
    Ref per_thread = per_thread::GetPerThread(m, none(), true);
    if (!per_thread) {
        return {};
    }
    if (per_thread.get() == none()) {
        // The thread is inside its own clean-up: the attribute read of a record that is not there.
        raise_none_has_no("fThreadName");
        return {};
    }
    const Ref name = load_field(per_thread.get(), per_thread::data(per_thread.get()).fThreadName);
    if (!name || (name.get() == none() && !per_thread::FindThreadName(per_thread.get()))) {
        return {};
    }
    return per_thread;
}

Ref create(ModuleState& m) {
    Ref cls = create_class(m, blueprint<kClass>(), m.types.CInitialCallback_class);
    if (cls && !create_bound_callback_type(m)) {
        return {};
    }
    if (cls) {
        set_class_word(as_type(cls.get()), kClassFields[0], 0);
    }
    return cls;
}

}  // namespace initial_callback
