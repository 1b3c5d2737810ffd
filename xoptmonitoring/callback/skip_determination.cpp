// The first stage's decision.
//
// The order of the tests is the order of `decide`: the process, the code object's record, whose code it is, the line
// filter; most events end there, without a look at the thread. Then the thread's record, its policy, a wait where the
// tracer holds the thread, and the last filter.
//
// One text, three roads. The careful road can take every step: it makes records, runs Python code, waits, and holds
// what it needs meanwhile. The fast road borrows everything, which is safe as long as native code runs alone under the
// global lock, and gives up with "undecided" where a step would do more than read; the careful road then starts anew.
// So does the local road, which is for interpreters without a global lock and borrows what the thread keeps for itself.
// What both take from an event they ask the road for; what is inlined by force is so for the fast one's sake.
#include "xoptmonitoring/callback/skip_determination.h"

#include "xoptmonitoring/records/per_code_object.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/records/thread_exit.h"
#include "xoptmonitoring/records/tss_cache.h"

#include <type_traits>
#include <utility>

namespace initial_callback {
namespace {

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

/// Whether two flags are clear that lie side by side in one word: one load and one test.
template <class Road>
XPY_ALWAYS_INLINE bool are_clear(const std::int32_t& first, const std::int32_t& second) {
    if (&first + 1 != &second) {
        return Road::load(first) == 0 && Road::load(second) == 0;
    }
    return Road::load(reinterpret_cast<const std::int64_t&>(first)) == 0;
}

/// Whether the debugger's own code is out of the question and no pathname has to be worked out again.
template <class Road>
XPY_ALWAYS_INLINE bool is_ordinary(const PerCodeObjectData& record) {
    return are_clear<Road>(record.fIsInternal, record.fUpdatePathnameNeeded);
}

/// Data of `object`, which has to be a record of `cls`, for reading `field` of it. Null with the error of reading that
/// through None, or with TypeError "expected NAME instance, got ...".
template <class Data>
const Data* record_with(const char* field, PyObject* object, PyTypeObject* cls, const char* name) {
    if (XPY_UNLIKELY(object == none() && cls != nullptr)) {
        raise_none_has_no(field);
        return nullptr;
    }
    return record_data<Data>(object, cls, name);
}

/// What is common to the roads on which the tracer may be changing flags, counts and policies on another thread. They
/// read in the order of the decision: a thread that finds the count of steps taken back must not go on to find the
/// breakpoints of before that, and one that finds that some thread is to be held finds out whether it is the one.
template <class Road>
struct SharedRoad {
    template <class RoadEvent>
    static bool is_internal(const RoadEvent& event) {
        return Road::load(Road::code_record(event).fIsInternal) != 0;
    }
};

/// The road on which every step can be taken. Stopping means that an exception is set.
struct CarefulRoad : SharedRoad<CarefulRoad> {
    using RoadEvent = HeldEvent;
    static constexpr Answer kStop = Answer::Failed;
    /// The field of the code object's record that is read first.
    static constexpr const char* kFirstOfCodeRecord = "fSteppingEventsNeededCount";

    /// Whatever is read later, under a lock or not, is read after this word.
    template <class Word>
    static Word load(const Word& word) {
        return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
    }

    static const InitialCallbackData& callback(const HeldEvent& event) {
        return data(event.self.get());
    }

    static EventKind kind(const ModuleState& m, const HeldEvent& event) {
        return kind_of(m.globals, load(callback(event)._fEventId));
    }

    static bool is_line(EventKind kind) {
        return kind == EventKind::Line;
    }

    static const PerCodeObjectData& code_record(const HeldEvent& event) {
        return per_code_object::data(event.per_code_object.get());
    }

    static const PerThreadData& thread_record(const HeldEvent& event) {
        return per_thread::data(event.per_thread.get());
    }

    /// None where constructing a record gave that: `CPerCodeObject.__new__` can be replaced.
    static bool find_code_record(ModuleState& m, HeldEvent& event) {
        event.per_code_object = __GetPerCodeObjectCalledFromCallback(m, event.code_object);
        return static_cast<bool>(event.per_code_object);
    }

    static bool has_code_record(const HeldEvent& event) {
        return event.per_code_object.get() != none();
    }

    /// Python code that asks for the last filter alone can give anything for a record.
    static bool check_code_record(ModuleState& m, const HeldEvent& event) {
        return record_with<PerCodeObjectData>(kFirstOfCodeRecord, event.per_code_object.get(),
                                              per_code_object::this_class(m), "CPerCodeObject") != nullptr;
    }

    static bool check_thread_record(ModuleState& m, const HeldEvent& event) {
        return record_with<PerThreadData>("fSteppingEventsNeeded", event.per_thread.get(), per_thread::this_class(m),
                                          "CPerThread") != nullptr;
    }

    static bool is_internal(const HeldEvent& event) {
        return has_code_record(event) && SharedRoad::is_internal(event);
    }

    static bool find_thread_record(ModuleState& m, HeldEvent& event) {
        event.per_thread = __GetPerThreadCalledFromCallback(m);
        return static_cast<bool>(event.per_thread);
    }

    /// A thread whose state is being cleared is not debugged any more, and that is no failure.
    static Answer answer_without_thread_record() {
        if (!thread_exit::is_silent_at_its_end() || xpy.PyErr_ExceptionMatches(xpy.PyExc_AttributeError) == 0) {
            return kStop;
        }
        xpy.PyErr_Clear();
        return Answer::Skip;
    }

    static bool log(ModuleState& m, PyObject* MessageLiterals::*text) {
        return !is_logging_first_stage(m) || log_fixed(m, m.literals.*text);
    }

    static Ref breakpoints(const HeldEvent& event) {
        return load_field(event.per_code_object.get(), code_record(event).fEnabledBpLinenos);
    }

    static Step are_breakpoints_known(const HeldEvent& event) {
        const Ref enabled_bp_linenos = breakpoints(event);
        return enabled_bp_linenos ? step_of(enabled_bp_linenos.get() != none()) : Step::Stop;
    }

    static Line look_at_line(const HeldEvent& event) {
        if (!has_code_record(event)) {
            raise_none_has_no(kFirstOfCodeRecord);
            return Line::Stop;
        }
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

    static Step is_stepping(const HeldEvent& event) {
        const Ref needed = load_field(event.per_thread.get(), thread_record(event).fSteppingEventsNeeded);
        return needed ? step_of(xpy.PyObject_IsTrue(needed.get())) : Step::Stop;
    }

    static bool suspend(ModuleState& m, const HeldEvent& event) {
        return _SuspendIfNeeded(m, event.per_thread.get());
    }
};

/// An event on the fast road: the interpreter's arguments, and what is found on the way. All borrowed.
struct QuickEvent {
    const InitialCallbackData& callback;
    PyObject* const* args;
    const TssSlotRecord* slot_record = nullptr;
    const PerCodeObjectData* code_record = nullptr;
    const PerThreadData* thread_record = nullptr;
};

/// The road of nearly every event, where objects are plain. Stopping means that the careful road has to be taken. There
/// is one for LINE events, which rarely come to the thread's part, and one for the other kinds, which always do.
template <bool kIsLine>
struct FastRoad {
    using RoadEvent = QuickEvent;
    static constexpr Answer kStop = Answer::Undecided;

    /// A copy, since two words of one type may be asked for as one of another.
    template <class Word>
    static Word load(const Word& word) {
        Word value;
        __builtin_memcpy(&value, &word, sizeof value);
        return value;
    }

    static const InitialCallbackData& callback(const QuickEvent& event) {
        return event.callback;
    }

    static EventKind kind(const ModuleState& /*m*/, const QuickEvent& event) {
        return event.callback.kind;
    }

    static bool is_line(EventKind /*kind*/) {
        return kIsLine;
    }

    static const PerCodeObjectData& code_record(const QuickEvent& event) {
        return *event.code_record;
    }

    static const PerThreadData& thread_record(const QuickEvent& event) {
        return *event.thread_record;
    }

    static bool find_code_record(const ModuleState& m, QuickEvent& event) {
        event.code_record = per_code_object::peek(m, event.args[0]);
        return event.code_record != nullptr &&
               (is_ordinary<FastRoad>(*event.code_record) || event.code_record->fUpdatePathnameNeeded == 0);
    }

    static bool is_internal(const QuickEvent& event) {
        return !is_ordinary<FastRoad>(*event.code_record);
    }

    static bool has_code_record(const QuickEvent& /*event*/) {
        return true;
    }

    static bool check_code_record(const ModuleState& /*m*/, const QuickEvent& /*event*/) {
        return true;
    }

    static bool find_thread_record(const ModuleState& m, QuickEvent& event) {
        const TssSlotRecord* slot_record = kIsLine ? tss_cache::peek_slot_record() : event.slot_record;
        if (kIsLine && slot_record == nullptr) {
            return false;
        }
        event.thread_record = tss_cache::peek(m, *slot_record);
        return event.thread_record != nullptr && per_thread::is_named(m, *event.thread_record);
    }

    static bool log(const ModuleState& /*m*/, PyObject* MessageLiterals::* /*text*/) {
        return true;  // the road is closed while anything is logged
    }

    static Step are_breakpoints_known(const QuickEvent& event) {
        PyObject* enabled_bp_linenos = event.code_record->fEnabledBpLinenos;
        return enabled_bp_linenos != nullptr && enabled_bp_linenos != none() ? Step::Yes : Step::Stop;
    }

    /// Only "not enabled" is an answer here: a set may hold anything, and comparing with it may have run Python code,
    /// after which nothing borrowed can be trusted any more.
    static Line look_at_line(const QuickEvent& event) {
        PyObject* enabled_bp_linenos = event.code_record->fEnabledBpLinenos;
        if (XPY_UNLIKELY(enabled_bp_linenos == nullptr || plain::type_of(enabled_bp_linenos) != xpy.PySet_Type_ptr)) {
            return Line::Stop;
        }
        const plain::Hold held(enabled_bp_linenos);
        const int enabled = xpy.PySet_Contains(enabled_bp_linenos, event.args[1]);
        if (XPY_LIKELY(enabled == 0)) {
            return Line::NotEnabled;
        }
        if (enabled < 0) {
            xpy.PyErr_Clear();  // the careful road meets the same error
        }
        return Line::Stop;
    }

    static Step is_stepping(const QuickEvent& event) {
        return event.thread_record->fSteppingEventsNeeded == xpy._Py_FalseStruct ? Step::No : Step::Stop;
    }

    static bool suspend(const ModuleState& /*m*/, const QuickEvent& event) {
        return event.thread_record->fCheckSuspendLock == xpy._Py_FalseStruct;
    }
};

/// An event without a global lock. The code object's record is borrowed, since its slot owns it; the thread's is there
/// while the look at it lasts.
struct LocalEvent {
    const InitialCallbackData& callback;
    PyObject* const* args;
    const LocalState& local;
    EventKind kind;
    /// While it is being looked at; null else. A LINE event begins the look when it comes to need one.
    TssSlotRecord* slot_record;
    Note* breakpoints = nullptr;  ///< for a LINE event: the note of the set
    PyObject* per_code_object = nullptr;
    bool is_ordinary = false;  ///< what `is_ordinary` says of the record
    const PerThreadData* thread_record = nullptr;
};

/// The road of nearly every event where there is no global lock. Of the thread's record it only sees which objects its
/// fields hold. Stopping means that the careful road has to be taken. There are two of it, as of the fast one.
template <bool kIsLine>
struct LocalRoad : SharedRoad<LocalRoad<kIsLine>> {
    using RoadEvent = LocalEvent;
    static constexpr Answer kStop = Answer::Undecided;

    /// Not ordered by itself, so that the compiler can compare a word where it lies: `order_loads` comes between those
    /// whose order counts.
    template <class Word>
    static Word load(const Word& word) {
        return __atomic_load_n(&word, __ATOMIC_RELAXED);
    }

    /// Has all that is read from here on be read after what has been read so far. No instruction on x86.
    static void order_loads() {
        __atomic_thread_fence(__ATOMIC_ACQUIRE);
    }

    static const InitialCallbackData& callback(const LocalEvent& event) {
        return event.callback;
    }

    static EventKind kind(const ModuleState& /*m*/, const LocalEvent& event) {
        return event.kind;
    }

    static bool is_line(EventKind /*kind*/) {
        return kIsLine;
    }

    static const PerCodeObjectData& code_record(const LocalEvent& event) {
        return shared::data<PerCodeObjectData>(event.per_code_object);
    }

    static const PerThreadData& thread_record(const LocalEvent& event) {
        return *event.thread_record;
    }

    static bool find_code_record(const ModuleState& m, LocalEvent& event) {
        // Another module object has a class of its own.
        if (!local_state::recall(event.local, event.args[0], event.per_code_object) ||
            as_object(shared::type_of(event.per_code_object)) != load(m.globals.CPerCodeObject)) {
            return false;
        }
        // Another thread may be settling the record: what is not clear now may be so at the next look.
        const PerCodeObjectData& record = code_record(event);
        event.is_ordinary = is_ordinary<LocalRoad>(record);
        return event.is_ordinary || load(record.fUpdatePathnameNeeded) == 0;
    }

    static bool is_internal(const LocalEvent& event) {
        return !event.is_ordinary && load(code_record(event).fIsInternal) != 0;
    }

    static bool has_code_record(const LocalEvent& /*event*/) {
        return true;
    }

    static bool check_code_record(const ModuleState& /*m*/, const LocalEvent& /*event*/) {
        return true;
    }

    static bool find_thread_record(const ModuleState& m, LocalEvent& event) {
        if constexpr (kIsLine) {
            event.slot_record = tss_cache::peek_slot_record();
            if (event.slot_record == nullptr) {
                return false;
            }
            tss_cache::begin_look(*event.slot_record);
            asymmetric_fence::light();
        }
        PyObject* per_thread = tss_cache::look_at(*event.slot_record);
        if (per_thread == nullptr || as_object(shared::type_of(per_thread)) != load(m.globals.CPerThread)) {
            return false;
        }
        event.thread_record = &shared::data<PerThreadData>(per_thread);
        return per_thread::is_named(m, *event.thread_record);
    }

    static bool log(const ModuleState& /*m*/, PyObject* MessageLiterals::* /*text*/) {
        return true;
    }

    /// Takes what it needs of an event, and not the event: that can then be kept in registers.
    static Line look_up(Note& note, PyObject* const& slot, PyObject* lineno_obj) {
        order_loads();
        const local_state::Borrowed enabled_bp_linenos(note, slot);
        if (enabled_bp_linenos.get() == nullptr || shared::type_of(enabled_bp_linenos.get()) != xpy.PySet_Type_ptr) {
            return Line::Stop;
        }
        const int enabled = xpy.PySet_Contains(enabled_bp_linenos.get(), lineno_obj);
        if (XPY_LIKELY(enabled == 0)) {
            return Line::NotEnabled;
        }
        if (enabled < 0) {
            xpy.PyErr_Clear();
        }
        return Line::Stop;
    }

    static Line look_at_line(const LocalEvent& event) {
        return look_up(*event.breakpoints, code_record(event).fEnabledBpLinenos, event.args[1]);
    }

    static Step are_breakpoints_known(const LocalEvent& event) {
        order_loads();
        const PyObject* enabled_bp_linenos = load(code_record(event).fEnabledBpLinenos);
        return enabled_bp_linenos != nullptr && enabled_bp_linenos != none() ? Step::Yes : Step::Stop;
    }

    /// The last that is read of the thread's record: what follows a LINE event may wait for the set's lock.
    static Step is_stepping(LocalEvent& event) {
        order_loads();
        const bool is_not = load(thread_record(event).fSteppingEventsNeeded) == xpy._Py_FalseStruct;
        if constexpr (kIsLine) {
            end_look(event);
        }
        return is_not ? Step::No : Step::Stop;
    }

    static void end_look(LocalEvent& event) {
        tss_cache::end_look(*std::exchange(event.slot_record, nullptr));
    }

    static bool suspend(const ModuleState& /*m*/, const LocalEvent& event) {
        order_loads();
        return load(thread_record(event).fCheckSuspendLock) == xpy._Py_FalseStruct;
    }
};

/// The roads differ in what they may do to the module's state.
template <class Road>
using RoadState = std::conditional_t<std::is_same_v<Road, CarefulRoad>, ModuleState, const ModuleState>;

/// The answer for the debugger's own code.
template <class Road>
Answer answer_internal(RoadState<Road>& m, const typename Road::RoadEvent& event) {
    const bool disable = Road::load(Road::callback(event)._fCanReturnDisable) != 0;
    if (!Road::log(
            m, disable ? &MessageLiterals::internal_returning_disable : &MessageLiterals::internal_returning_none)) {
        return Road::kStop;
    }
    return disable ? Answer::Disable : Answer::Skip;
}

/// Whether a LINE event may be filtered by the code object's breakpoints alone. So it may where there is no record of
/// the code object, which looking at the line then complains of.
template <class Road>
XPY_ALWAYS_INLINE bool is_line_filter_on(const typename Road::RoadEvent& event) {
    const InitialCallbackData& callback = Road::callback(event);
    return are_clear<Road>(callback.fAnySuspendThread, callback.fSteppingEventsNeededEveryThread) &&
           (!Road::has_code_record(event) || Road::load(Road::code_record(event).fSteppingEventsNeededCount) == 0);
}

/// The last filter.
template <class Road>
XPY_ALWAYS_INLINE Answer decide_second(RoadState<Road>& m, typename Road::RoadEvent& event, EventKind kind) {
    if (kind < EventKind::Line) {
        return Answer::Call;
    }
    const Step stepping = Road::is_stepping(event);
    if (stepping != Step::No) {
        return stepping == Step::Yes ? Answer::Call : Road::kStop;
    }
    if (!Road::check_code_record(m, event)) {
        return Road::kStop;
    }
    const PerCodeObjectData& record = Road::code_record(event);
    if (Road::load(record.fSteppingEventsNeededCount) != 0) {
        return Answer::Call;
    }
    if (Road::is_line(kind)) {
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
    // The count comes first: it is the one of the two that tells most events from the rest.
    const bool is_awaited = XPY_UNLIKELY(Road::load(record.fReturnEventsNeededCount) != 0) && kind == EventKind::Return;
    return is_awaited ? Answer::Call : Answer::Skip;
}

/// The thread's part of the decision.
template <class Road>
XPY_ALWAYS_INLINE Answer decide_by_thread(RoadState<Road>& m, typename Road::RoadEvent& event) {
    if (XPY_UNLIKELY(!Road::find_thread_record(m, event))) {
        if constexpr (std::is_same_v<Road, CarefulRoad>) {
            return Road::answer_without_thread_record();
        }
        return Road::kStop;
    }
    if (XPY_UNLIKELY(Road::load(Road::thread_record(event).fDebugPolicy) == 0)) {
        return Road::log(m, &MessageLiterals::policy_returning_none) ? Answer::Skip : Road::kStop;
    }
    if (XPY_UNLIKELY(Road::load(Road::callback(event).fAnySuspendThread) != 0) && !Road::suspend(m, event)) {
        return Road::kStop;
    }
    return decide_second<Road>(m, event, Road::kind(m, event));
}

/// The whole decision.
template <class Road>
XPY_ALWAYS_INLINE Answer decide(RoadState<Road>& m, typename Road::RoadEvent& event) {
    if (XPY_UNLIKELY(xpy.cached_pid != static_cast<pid_t>(load_global(m.globals._gThisProcessPid)))) {
        return Answer::Skip;  // a forked child that has not been told to go on
    }
    if (XPY_UNLIKELY(!Road::find_code_record(m, event))) {
        return Road::kStop;
    }
    if (XPY_UNLIKELY(Road::is_internal(event))) {
        return answer_internal<Road>(m, event);
    }
    if (Road::is_line(Road::kind(m, event)) && is_line_filter_on<Road>(event)) {
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

bool is_line_skipped(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args) {
    if (XPY_UNLIKELY(callback.kind != EventKind::Line || m.globals._gDPrintfFile != none())) {
        return false;
    }
    QuickEvent event{callback, args};
    return decide<FastRoad<true>>(m, event) == Answer::Skip;
}

bool is_call_skipped(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                     const TssSlotRecord& slot_record) {
    if (XPY_UNLIKELY(callback.kind < EventKind::Start || m.globals._gDPrintfFile != none())) {
        return false;
    }
    QuickEvent event{callback, args, &slot_record};
    return decide<FastRoad<false>>(m, event) == Answer::Skip;
}

bool is_line_skipped_locally(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                             const LocalState& local, CallInProgress& call) {
    if (XPY_UNLIKELY(load_kind(callback) != EventKind::Line || _IsInitialCallbackLogging(m))) {
        return false;
    }
    LocalEvent event{callback, args, local, EventKind::Line, nullptr, &call.breakpoints};
    const Answer answer = decide<LocalRoad<true>>(m, event);
    if (XPY_UNLIKELY(event.slot_record != nullptr)) {
        LocalRoad<true>::end_look(event);
    }
    return answer == Answer::Skip;
}

bool is_call_skipped_locally(const ModuleState& m, const InitialCallbackData& callback, PyObject* const* args,
                             const LocalState& local, TssSlotRecord& slot_record) {
    const EventKind kind = load_kind(callback);
    if (XPY_UNLIKELY(kind < EventKind::Start || _IsInitialCallbackLogging(m))) {
        return false;
    }
    LocalEvent event{callback, args, local, kind, &slot_record};
    return decide<LocalRoad<false>>(m, event) == Answer::Skip;
}

Answer _SkipDetermination(ModuleState& m, HeldEvent& event) {
    return decide<CarefulRoad>(m, event);
}

Answer _SkipSecondCallback(ModuleState& m, HeldEvent& event) {
    const EventKind kind = CarefulRoad::kind(m, event);
    if (kind >= EventKind::Line && !CarefulRoad::check_thread_record(m, event)) {
        return Answer::Failed;
    }
    return decide_second<CarefulRoad>(m, event, kind);
}

bool _SuspendIfNeeded(ModuleState& m, PyObject* per_thread) {
    const PerThreadData* record =
        record_with<PerThreadData>("fCheckSuspendLock", per_thread, per_thread::this_class(m), "CPerThread");
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
