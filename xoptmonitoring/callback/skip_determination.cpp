// The first stage's decision.
//
// The order of the tests is the order of this file: the process, the code object's record, whose code it is, the line
// filter; most events end there, without a look at the thread. Then the thread's record, its policy, a wait where the
// tracer holds the thread, and the last filter.
#include "xoptmonitoring/callback/skip_determination.h"

#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_thread_data.h"

namespace initial_callback {
namespace {

template <class Word>
Word load_word(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

/// Writes a fixed line of the first stage.
XPY_COLD bool log_fixed(ModuleState& m, PyObject* text) {
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
Answer answer_internal(ModuleState& m, const InitialCallbackData& callback) {
    const bool disable = load_word(callback._fCanReturnDisable) != 0;
    if (is_logging_first_stage(m) && !log_fixed(m, disable ? m.literals.internal_returning_disable
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

/// Answer for the thread's part of the decision.
Answer decide_by_thread(ModuleState& m, InitialCallbackData& callback, PyObject* per_code_object,
                        PyObject* lineno_obj) {
    const Ref per_thread = __GetPerThreadCalledFromCallback(m);
    if (!per_thread) {
        return Answer::Failed;
    }
    if (per_thread.get() == none()) {
        // The thread is inside its own clean-up: what would be read next is missing.
        xpy.PyErr_Format(xpy.PyExc_AttributeError, "'NoneType' object has no attribute '%s'", "fDebugPolicy");
        return Answer::Failed;
    }
    if (load_word(per_thread::data(per_thread.get()).fDebugPolicy) == 0) {
        if (is_logging_first_stage(m) && !log_fixed(m, m.literals.policy_returning_none)) {
            return Answer::Failed;
        }
        return Answer::Skip;
    }
    if (load_word(callback.fAnySuspendThread) != 0 && !_SuspendIfNeeded(m, per_thread.get())) {
        return Answer::Failed;
    }
    const int skip = _SkipSecondCallback(m, callback, per_code_object, per_thread.get(), lineno_obj);
    if (skip < 0) {
        return Answer::Failed;
    }
    return skip != 0 ? Answer::Skip : Answer::Call;
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

Answer _SkipDetermination(ModuleState& m, InitialCallbackData& callback, PyObject* code_object,
                          PyObject* lineno_obj) {
    if (XPY_UNLIKELY(xpy.cached_pid != load_global(m.globals._gThisProcessPid))) {
        return Answer::Skip;  // a forked child that has not been told to go on
    }
    const Ref record = __GetPerCodeObjectCalledFromCallback(m, code_object);
    if (XPY_UNLIKELY(!record)) {
        return Answer::Failed;
    }
    const PerCodeObjectData& per_code_object = per_code_object::data(record.get());
    if (XPY_UNLIKELY(load_word(per_code_object.fIsInternal) != 0)) {
        return answer_internal(m, callback);
    }
    if (is_line_filter_on(m, callback, per_code_object)) {
        const Ref enabled_bp_linenos = load_field(record.get(), per_code_object.fEnabledBpLinenos);
        if (XPY_UNLIKELY(!enabled_bp_linenos)) {
            return Answer::Failed;
        }
        if (enabled_bp_linenos.get() != none()) {
            const int enabled = is_enabled_line(enabled_bp_linenos.get(), lineno_obj);
            if (XPY_LIKELY(enabled == 0)) {
                return Answer::Skip;
            }
            if (enabled < 0) {
                return Answer::Failed;
            }
        }
    }
    return decide_by_thread(m, callback, record.get(), lineno_obj);
}

int _SkipSecondCallback(ModuleState& m, InitialCallbackData& callback, PyObject* per_code_object,
                        PyObject* per_thread, PyObject* lineno_obj) {
    const Py_ssize_t event_id = load_word(callback._fEventId);
    if (!is_known_event(m.globals, event_id)) {
        return 0;
    }
    const Ref stepping = load_field(per_thread, per_thread::data(per_thread).fSteppingEventsNeeded);
    if (!stepping) {
        return -1;
    }
    const int is_stepping = xpy.PyObject_IsTrue(stepping.get());
    if (is_stepping != 0) {
        return is_stepping < 0 ? -1 : 0;
    }
    const PerCodeObjectData& record = per_code_object::data(per_code_object);
    if (load_word(record.fSteppingEventsNeededCount) != 0) {
        return 0;
    }
    const Ref enabled_bp_linenos = load_field(per_code_object, record.fEnabledBpLinenos);
    if (!enabled_bp_linenos) {
        return -1;
    }
    if (enabled_bp_linenos.get() == none()) {
        return 0;  // not known yet, so the tracer has to see the event
    }
    if (event_id == m.globals.kPyLineEventId) {
        const int enabled = is_enabled_line(enabled_bp_linenos.get(), lineno_obj);
        if (enabled != 0) {
            return enabled < 0 ? -1 : 0;
        }
    }
    if ((event_id == m.globals.kPyReturnEventId || event_id == m.globals.kPyYieldEventId) &&
        load_word(record.fReturnEventsNeededCount) != 0) {
        return 0;
    }
    return 1;
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
