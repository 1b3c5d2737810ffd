// The first stage's decision.
//
// The order of the tests is the order of `decide`: the process, the code object's record, whose code it is, the line
// filter; most events end there, without a look at the thread. Then the thread's record, its policy, a wait where the
// tracer holds the thread, and the last filter.
//
// One text, two roads. The careful road can take every step: it makes records, runs Python code, waits, and holds
// what it needs meanwhile. The fast road borrows everything, which is safe as long as native code runs alone under the
// global lock, and gives up with "undecided" where a step would do more than read; the careful road then starts anew.
#include "xoptmonitoring/callback/skip_determination.h"

#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/records/tss_cache.h"

namespace initial_callback {
namespace {

template <class Word>
Word load_word(const Word& word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

/// What a yes-or-no step found out.
enum class Step { No, Yes, Stop };

Step step_of(int truth) {
    if (truth < 0) {
        return Step::Stop;
    }
    return truth != 0 ? Step::Yes : Step::No;
}

/// What a code object's breakpoints say about a line, from one look at the set.
enum class Line { Unknown, NotEnabled, Enabled, Stop };

/// Writes a fixed line of the first stage.
XPY_COLD bool log_fixed(ModuleState& m, PyObject* text) {
    return write_log_line(m, Ref::share(text));
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

/// The road on which every step can be taken. Stopping means that an exception is set.
struct CarefulRoad {
    using RoadEvent = HeldEvent;
    static constexpr Answer kStop = Answer::Failed;

    static bool find_per_code_object(ModuleState& m, HeldEvent& event) {
        event.held_per_code_object = __GetPerCodeObjectCalledFromCallback(m, event.code_object);
        event.per_code_object = event.held_per_code_object.get();
        return event.per_code_object != nullptr;
    }

    static bool find_per_thread(ModuleState& m, HeldEvent& event) {
        event.held_per_thread = __GetPerThreadCalledFromCallback(m);
        event.per_thread = event.held_per_thread.get();
        return event.per_thread != nullptr;
    }

    static bool log(ModuleState& m, PyObject* text) {
        return !is_logging_first_stage(m) || log_fixed(m, text);
    }

    static Ref breakpoints(const HeldEvent& event) {
        return load_field(event.per_code_object, per_code_object::data(event.per_code_object).fEnabledBpLinenos);
    }

    static Step are_breakpoints_known(const HeldEvent& event) {
        const Ref enabled_bp_linenos = breakpoints(event);
        return enabled_bp_linenos ? step_of(enabled_bp_linenos.get() != none()) : Step::Stop;
    }

    static Line look_at_line(const HeldEvent& event) {
        const Ref enabled_bp_linenos = breakpoints(event);
        if (!enabled_bp_linenos) {
            return Line::Stop;
        }
        if (enabled_bp_linenos.get() == none()) {
            return Line::Unknown;
        }
        const int enabled = contains(enabled_bp_linenos.get(), event.lineno_obj);
        if (enabled < 0) {
            return Line::Stop;
        }
        return enabled != 0 ? Line::Enabled : Line::NotEnabled;
    }

    static Step is_true(PyObject* owner, PyObject* const& slot) {
        const Ref value = load_field(owner, slot);
        return value ? step_of(xpy.PyObject_IsTrue(value.get())) : Step::Stop;
    }

    static bool suspend(ModuleState& m, const HeldEvent& event) {
        return _SuspendIfNeeded(m, event.per_thread);
    }
};

/// The road of nearly every event, under a global lock. Stopping means that the careful road has to be taken.
struct FastRoad {
    using RoadEvent = Event;
    static constexpr Answer kStop = Answer::Undecided;

    static bool find_per_code_object(const ModuleState& m, Event& event) {
        event.per_code_object = per_code_object::peek_settled(m, event.code_object);
        return event.per_code_object != nullptr;
    }

    static bool find_per_thread(const ModuleState& m, Event& event) {
        event.per_thread = tss_cache::peek(m);
        return event.per_thread != nullptr && per_thread::is_named(m, event.per_thread);
    }

    static bool log(ModuleState& /*m*/, PyObject* /*text*/) {
        return true;  // the road is closed while anything is logged
    }

    static Step are_breakpoints_known(const Event& event) {
        PyObject* enabled_bp_linenos = per_code_object::data(event.per_code_object).fEnabledBpLinenos;
        return enabled_bp_linenos != nullptr && enabled_bp_linenos != none() ? Step::Yes : Step::Stop;
    }

    /// Only "not enabled" is an answer here: a set may hold anything, and comparing with it may have run Python code,
    /// after which nothing borrowed can be trusted any more.
    static Line look_at_line(const Event& event) {
        PyObject* enabled_bp_linenos = per_code_object::data(event.per_code_object).fEnabledBpLinenos;
        if (XPY_UNLIKELY(enabled_bp_linenos == nullptr || type_of(enabled_bp_linenos) != xpy.PySet_Type_ptr)) {
            return Line::Stop;
        }
        const Ref held = Ref::share_mortal(enabled_bp_linenos);
        const int enabled = xpy.PySet_Contains(enabled_bp_linenos, event.lineno_obj);
        if (XPY_LIKELY(enabled == 0)) {
            return Line::NotEnabled;
        }
        if (enabled < 0) {
            xpy.PyErr_Clear();  // the careful road meets the same error
        }
        return Line::Stop;
    }

    static Step is_true(PyObject* /*owner*/, PyObject* const& slot) {
        return slot == xpy._Py_FalseStruct ? Step::No : Step::Stop;
    }

    static bool suspend(const ModuleState& /*m*/, const Event& event) {
        return per_thread::data(event.per_thread).fCheckSuspendLock == xpy._Py_FalseStruct;
    }
};

/// Whether a LINE event may be filtered by the code object's breakpoints alone.
bool is_line_filter_on(const ModuleState& m, const InitialCallbackData& callback,
                       const PerCodeObjectData& per_code_object) {
    return load_word(callback._fEventId) == m.globals.kPyLineEventId && load_word(callback.fAnySuspendThread) == 0 &&
           load_word(callback.fSteppingEventsNeededEveryThread) == 0 &&
           load_word(per_code_object.fSteppingEventsNeededCount) == 0;
}

bool is_known_event(const ModuleGlobals& globals, Py_ssize_t event_id) {
    return event_id == globals.kPyStartEventId || event_id == globals.kPyReturnEventId ||
           event_id == globals.kPyResumeEventId || event_id == globals.kPyYieldEventId ||
           event_id == globals.kPyLineEventId;
}

/// The answer for the debugger's own code.
template <class Road>
Answer answer_internal(ModuleState& m, const Event& event) {
    const bool disable = load_word(event.callback._fCanReturnDisable) != 0;
    if (!Road::log(m, disable ? m.literals.internal_returning_disable : m.literals.internal_returning_none)) {
        return Road::kStop;
    }
    return disable ? Answer::Disable : Answer::Skip;
}

/// The last filter.
template <class Road>
Answer decide_second(ModuleState& m, typename Road::RoadEvent& event) {
    const Py_ssize_t event_id = load_word(event.callback._fEventId);
    if (!is_known_event(m.globals, event_id)) {
        return Answer::Call;
    }
    const Step stepping = Road::is_true(event.per_thread, per_thread::data(event.per_thread).fSteppingEventsNeeded);
    if (stepping != Step::No) {
        return stepping == Step::Yes ? Answer::Call : Road::kStop;
    }
    const PerCodeObjectData& record = per_code_object::data(event.per_code_object);
    if (load_word(record.fSteppingEventsNeededCount) != 0) {
        return Answer::Call;
    }
    if (event_id == m.globals.kPyLineEventId) {
        const Line line = Road::look_at_line(event);
        if (line == Line::Stop) {
            return Road::kStop;
        }
        return line == Line::NotEnabled ? Answer::Skip : Answer::Call;
    }
    const Step known = Road::are_breakpoints_known(event);
    if (XPY_UNLIKELY(known != Step::Yes)) {
        // Not known yet, so the tracer has to see the event.
        return known == Step::No ? Answer::Call : Road::kStop;
    }
    const bool returns = event_id == m.globals.kPyReturnEventId || event_id == m.globals.kPyYieldEventId;
    return returns && load_word(record.fReturnEventsNeededCount) != 0 ? Answer::Call : Answer::Skip;
}

/// The thread's part of the decision.
template <class Road>
Answer decide_by_thread(ModuleState& m, typename Road::RoadEvent& event) {
    if (XPY_UNLIKELY(!Road::find_per_thread(m, event))) {
        return Road::kStop;
    }
    if (XPY_UNLIKELY(load_word(per_thread::data(event.per_thread).fDebugPolicy) == 0)) {
        return Road::log(m, m.literals.policy_returning_none) ? Answer::Skip : Road::kStop;
    }
    if (XPY_UNLIKELY(load_word(event.callback.fAnySuspendThread) != 0) && !Road::suspend(m, event)) {
        return Road::kStop;
    }
    return decide_second<Road>(m, event);
}

/// The whole decision.
template <class Road>
Answer decide(ModuleState& m, typename Road::RoadEvent& event) {
    if (XPY_UNLIKELY(xpy.cached_pid != load_global(m.globals._gThisProcessPid))) {
        return Answer::Skip;  // a forked child that has not been told to go on
    }
    if (XPY_UNLIKELY(!Road::find_per_code_object(m, event))) {
        return Road::kStop;
    }
    const PerCodeObjectData& record = per_code_object::data(event.per_code_object);
    if (XPY_UNLIKELY(load_word(record.fIsInternal) != 0)) {
        return answer_internal<Road>(m, event);
    }
    if (is_line_filter_on(m, event.callback, record)) {
        const Line line = Road::look_at_line(event);
        if (XPY_LIKELY(line == Line::NotEnabled)) {
            return Answer::Skip;
        }
        if (line == Line::Stop) {
            return Road::kStop;
        }
    }
    return decide_by_thread<Road>(m, event);
}

}  // namespace

Answer quick_answer(ModuleState& m, Event event) {
    if (XPY_UNLIKELY(!has_plain_refcounts || _IsInitialCallbackLogging(m))) {
        return Answer::Undecided;
    }
    return decide<FastRoad>(m, event);
}

Answer _SkipDetermination(ModuleState& m, HeldEvent& event) {
    return decide<CarefulRoad>(m, event);
}

Answer _SkipSecondCallback(ModuleState& m, HeldEvent& event) {
    return decide_second<CarefulRoad>(m, event);
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
    const Ref acquire = lock ? get_attr(lock.get(), m.names.acquire) : Ref();
    // Looked up before: once the lock is held there may be no memory left for it.
    const Ref release = acquire ? get_attr(lock.get(), m.names.release) : Ref();
    if (!release || !call(acquire.get()) || !log_suspension(m, per_thread, m.literals.suspend_lock_acquired)) {
        return false;
    }
    return call(release.get()) && log_suspension(m, per_thread, m.literals.suspend_lock_released);
}

}  // namespace initial_callback
