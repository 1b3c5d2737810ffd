// The first stage's decision.
//
// The order of the tests is the order of this file: the process, the code object's record, whose code it is, the line
// filter; most events end there, without a look at the thread. Then the thread's record, its policy, a wait where the
// tracer holds the thread, and the last filter.
#include "xoptmonitoring/callback/skip_determination.h"

#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/records/tss_cache.h"

void Event::hold() {
    if (!held_self) {
        held_self = Ref::share(self);
    }
    if (!held_per_code_object) {
        held_per_code_object = Ref::share(per_code_object);
    }
    if (!held_per_thread) {
        held_per_thread = Ref::share(per_thread);
    }
}

namespace initial_callback {
namespace {

template <class Word>
Word load_word(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

/// Truth of an object field: 1, 0, or -1 with an exception set. The usual values need no call.
int field_truth(Event& event, PyObject* owner, PyObject* const& slot) {
    PyObject* value = load_word(slot);
    if (XPY_LIKELY(value == xpy._Py_FalseStruct)) {
        return 0;
    }
    if (value == xpy._Py_TrueStruct) {
        return 1;
    }
    event.hold();
    const Ref held_value = load_field(owner, slot);
    return held_value ? xpy.PyObject_IsTrue(held_value.get()) : -1;
}

/// Writes a fixed line of the first stage.
XPY_COLD bool log_fixed(ModuleState& m, Event& event, PyObject* text) {
    event.hold();
    return write_log_line(m, Ref::share(text));
}

/// Whether the line is one of those with enabled breakpoints: 1, 0, or -1 with an exception set.
int is_enabled_line(PyObject* enabled_bp_linenos, PyObject* lineno_obj) {
    if (XPY_LIKELY(type_of(enabled_bp_linenos) == xpy.PySet_Type_ptr)) {
        return xpy.PySet_Contains(enabled_bp_linenos, lineno_obj);
    }
    return contains(enabled_bp_linenos, lineno_obj);
}

/// The answer for the debugger's own code.
Answer answer_internal(ModuleState& m, Event& event) {
    const bool disable = load_word(event.callback._fCanReturnDisable) != 0;
    if (is_logging_first_stage(m) && !log_fixed(m, event, disable ? m.literals.internal_returning_disable
                                                                  : m.literals.internal_returning_none)) {
        return Answer::Failed;
    }
    return disable ? Answer::Disable : Answer::Skip;
}

/// Whether a LINE event may be filtered by the code object's breakpoints alone.
bool is_line_filter_on(const ModuleState& m, const InitialCallbackData& callback,
                       const PerCodeObjectData& per_code_object) {
    return load_word(callback._fEventId) == m.globals.kPyLineEventId &&
           load_word(callback.fAnySuspendThread) == 0 &&
           load_word(callback.fSteppingEventsNeededEveryThread) == 0 &&
           load_word(per_code_object.fSteppingEventsNeededCount) == 0;
}

/// Finds the code object's record. False with an exception set.
bool find_per_code_object(ModuleState& m, Event& event) {
    event.per_code_object = per_code_object::peek_settled(m, event.code_object);
    if (XPY_UNLIKELY(event.per_code_object == nullptr)) {
        event.hold();
        event.held_per_code_object = __GetPerCodeObjectCalledFromCallback(m, event.code_object);
        event.per_code_object = event.held_per_code_object.get();
    }
    return event.per_code_object != nullptr;
}

/// Finds the calling thread's record. False with an exception set.
bool find_per_thread(ModuleState& m, Event& event) {
    event.per_thread = tss_cache::peek(m);
    if (XPY_UNLIKELY(event.per_thread == nullptr || !per_thread::is_named(m, event.per_thread))) {
        event.hold();
        event.held_per_thread = __GetPerThreadCalledFromCallback(m);
        event.per_thread = event.held_per_thread.get();
    }
    return event.per_thread != nullptr;
}

/// The thread's part of the decision.
Answer decide_by_thread(ModuleState& m, Event& event) {
    if (XPY_UNLIKELY(!find_per_thread(m, event))) {
        return Answer::Failed;
    }
    if (load_word(per_thread::data(event.per_thread).fDebugPolicy) == 0) {
        if (is_logging_first_stage(m) && !log_fixed(m, event, m.literals.policy_returning_none)) {
            return Answer::Failed;
        }
        return Answer::Skip;
    }
    if (load_word(event.callback.fAnySuspendThread) != 0) {
        event.hold();
        if (!_SuspendIfNeeded(m, event.per_thread)) {
            return Answer::Failed;
        }
    }
    const int skip = _SkipSecondCallback(m, event);
    if (XPY_LIKELY(skip > 0)) {
        return Answer::Skip;
    }
    return skip < 0 ? Answer::Failed : Answer::Call;
}

bool is_known_event(const ModuleGlobals& globals, Py_ssize_t event_id) {
    return event_id == globals.kPyStartEventId || event_id == globals.kPyReturnEventId ||
           event_id == globals.kPyResumeEventId || event_id == globals.kPyYieldEventId ||
           event_id == globals.kPyLineEventId;
}

/// One line about a suspension: the thread's id between two fixed texts.
bool log_suspension(ModuleState& m, PyObject* per_thread, PyObject* text) {
    if (!is_logging(m, load_global(m.globals.kLogThreading))) {
        return true;
    }
    const Ref thread_id = load_field(per_thread, per_thread::data(per_thread).fThreadId);
    if (!thread_id) {
        return false;
    }
    return write_log_line(
        m, Ref::steal(xpy.PyUnicode_FromFormat("%U%S%U", text, thread_id.get(), m.literals.suspend_line_end)));
}

}  // namespace

Answer _SkipDetermination(ModuleState& m, Event& event) {
    if (XPY_UNLIKELY(xpy.cached_pid != load_global(m.globals._gThisProcessPid))) {
        return Answer::Skip;  // a forked child that has not been told to go on
    }
    if (XPY_UNLIKELY(!find_per_code_object(m, event))) {
        return Answer::Failed;
    }
    const PerCodeObjectData& record = per_code_object::data(event.per_code_object);
    if (XPY_UNLIKELY(load_word(record.fIsInternal) != 0)) {
        return answer_internal(m, event);
    }
    if (is_line_filter_on(m, event.callback, record)) {
        const Ref enabled_bp_linenos = load_field(event.per_code_object, record.fEnabledBpLinenos);
        if (XPY_UNLIKELY(!enabled_bp_linenos)) {
            return Answer::Failed;
        }
        if (XPY_LIKELY(enabled_bp_linenos.get() != none())) {
            if (XPY_UNLIKELY(type_of(enabled_bp_linenos.get()) != xpy.PySet_Type_ptr)) {
                event.hold();
            }
            const int enabled = is_enabled_line(enabled_bp_linenos.get(), event.lineno_obj);
            if (XPY_LIKELY(enabled == 0)) {
                return Answer::Skip;
            }
            if (enabled < 0) {
                return Answer::Failed;
            }
        }
    }
    return decide_by_thread(m, event);
}

int _SkipSecondCallback(ModuleState& m, Event& event) {
    const Py_ssize_t event_id = load_word(event.callback._fEventId);
    if (!is_known_event(m.globals, event_id)) {
        return 0;
    }
    const int is_stepping =
        field_truth(event, event.per_thread, per_thread::data(event.per_thread).fSteppingEventsNeeded);
    if (is_stepping != 0) {
        return is_stepping < 0 ? -1 : 0;
    }
    const PerCodeObjectData& record = per_code_object::data(event.per_code_object);
    if (load_word(record.fSteppingEventsNeededCount) != 0) {
        return 0;
    }
    const bool returns = event_id == m.globals.kPyReturnEventId || event_id == m.globals.kPyYieldEventId;
    if (event_id != m.globals.kPyLineEventId) {
        PyObject* enabled_bp_linenos = load_word(record.fEnabledBpLinenos);
        if (XPY_UNLIKELY(enabled_bp_linenos == nullptr)) {
            raise_unset();
            return -1;
        }
        // Not known yet, so the tracer has to see the event; or a return that is wanted.
        return enabled_bp_linenos == none() || (returns && load_word(record.fReturnEventsNeededCount) != 0) ? 0 : 1;
    }
    const Ref enabled_bp_linenos = load_field(event.per_code_object, record.fEnabledBpLinenos);
    if (!enabled_bp_linenos) {
        return -1;
    }
    if (enabled_bp_linenos.get() == none()) {
        return 0;
    }
    event.hold();
    const int enabled = is_enabled_line(enabled_bp_linenos.get(), event.lineno_obj);
    return enabled < 0 ? -1 : 1 - enabled;
}

bool _SuspendIfNeeded(ModuleState& m, PyObject* per_thread) {
    const PerThreadData* record = per_thread::checked_data(m, per_thread);
    const Ref check = record != nullptr ? load_field(per_thread, record->fCheckSuspendLock) : Ref();
    const int needed = check ? xpy.PyObject_IsTrue(check.get()) : -1;
    if (needed <= 0) {
        return needed == 0;
    }
    if (!log_suspension(m, per_thread, m.literals.acquiring_suspend_lock)) {
        return false;
    }
    // One lock object for both calls: the field may be cleared while the thread waits. The release is not protected:
    // where the line between fails, the lock stays held.
    const Ref lock = load_field(per_thread, record->fSuspendLock);
    if (!lock || !call_method(lock.get(), m.names.acquire) ||
        !log_suspension(m, per_thread, m.literals.suspend_lock_acquired)) {
        return false;
    }
    return call_method(lock.get(), m.names.release) &&
           log_suspension(m, per_thread, m.literals.suspend_lock_released);
}

}  // namespace initial_callback
