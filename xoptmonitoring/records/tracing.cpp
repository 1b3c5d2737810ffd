// Thread-state tracing: keeping the debugger's own callbacks from raising monitoring events.
#include "xoptmonitoring/records/tracing.h"

#include "xoptmonitoring/runtime/log_lines.h"
#include "xoptmonitoring/runtime/thread_state_words.h"

namespace {

// The tracing level itself, which the interpreter changes when it is told to and never tells. Where the thread state
// keeps it is learnt by watching the interpreter raise it: that needs no table, so it also works on a version that no
// table knows yet.

using Word = std::uint32_t;
constexpr std::size_t kWatchedWords = 48;  // the smallest thread state, that of 3.12, has 72

/// Which word follows the level of the calling thread; -1 where that is not clear.
Py_ssize_t find_level(PyThreadState* tstate) {
    const auto before = words_of<Word, kWatchedWords>(tstate);
    xpy.PyThreadState_EnterTracing(tstate);
    const auto raised = words_of<Word, kWatchedWords>(tstate);
    xpy.PyThreadState_LeaveTracing(tstate);
    const auto lowered = words_of<Word, kWatchedWords>(tstate);
    Py_ssize_t found = -1;
    for (std::size_t word = 0; word < kWatchedWords; ++word) {
        if (raised[word] - before[word] == 1U && lowered[word] == before[word]) {
            if (found != -1) {
                return -1;
            }
            found = static_cast<Py_ssize_t>(word);
        }
    }
    return found;
}

/// The tracing level of the calling thread; -1 where it cannot be had.
TracingLevel tracing_level(PyThreadState* tstate) {
    static Py_ssize_t known_word = -1;
    Py_ssize_t word = __atomic_load_n(&known_word, __ATOMIC_RELAXED);
    if (word == -1) {
        word = find_level(tstate);
        __atomic_store_n(&known_word, word, __ATOMIC_RELAXED);
    }
    return word != -1 ? static_cast<TracingLevel>(load_word<Word>(tstate, static_cast<std::size_t>(word))) : -1;
}

Ref tracing_line(ModuleState& m, Py_ssize_t count) {
    const Ref number = new_int(count);
    if (!number) {
        return {};
    }
    return Ref::steal(xpy.PyUnicode_FromFormat("%U%U%R%U", m.literals.add_to_tracing, m.literals.count_is, number.get(),
                                               m.literals.newline));
}

/// `tracer(tstate)`, |count| times.
bool repeat(PyObject* support, PyObject* name, PyObject* tstate, Py_ssize_t count) {
    const Py_ssize_t step = count > 0 ? 1 : -1;
    for (Py_ssize_t left = count; left != 0; left -= step) {
        if (!call_method(support, name, tstate)) {
            return false;
        }
    }
    return true;
}

/// Whether the pending exception says that the interpreter's function was not reached for want of memory. ctypes puts
/// an ArgumentError in the place of what stopped it from converting an argument, a MemoryError included.
bool was_out_of_memory(ModuleState& m) {
    if (xpy.PyErr_ExceptionMatches(xpy.PyExc_MemoryError) != 0) {
        return true;
    }
    Ref argument_error;
    {
        const PendingException pending;
        const Ref ctypes = load_global(m, m.globals.ctypes);
        argument_error = ctypes ? get_attr(ctypes.get(), m.names.ArgumentError) : Ref();
    }
    return argument_error && xpy.PyErr_ExceptionMatches(argument_error.get()) != 0;
}

bool log_change(ModuleState& m, Py_ssize_t count) {
    return !is_logging(m, load_global(m.globals.kLogThreading)) || write_log_line(m, tracing_line(m, count));
}

bool change_level(ModuleState& m, Py_ssize_t count) {
    const Ref support = load_global(m, m.globals.dbgpythonapi);
    const Ref tstate = support ? call_method(support.get(), m.names.PyThreadState_Get) : Ref();
    if (!tstate) {
        return false;
    }
    PyObject* name = count > 0 ? m.names.PyThreadState_EnterTracing : m.names.PyThreadState_LeaveTracing;
    return repeat(support.get(), name, tstate.get(), count);
}

/// Brings the calling thread's level to what it was, whatever the support module made of it. One that is lowered twice
/// silences the thread as well.
void restore_level(TracingLevel before) {
    PyThreadState* tstate = xpy.PyThreadState_Get();
    while (tracing_level(tstate) > before) {
        xpy.PyThreadState_LeaveTracing(tstate);
    }
    while (tracing_level(tstate) < before) {
        xpy.PyThreadState_EnterTracing(tstate);
    }
}

bool lower_level(ModuleState& m, TracingLevel before) {
    if (change_level(m, -1)) {
        return true;
    }
    if (before != -1) {
        restore_level(before);
    } else if (was_out_of_memory(m)) {
        xpy.PyThreadState_LeaveTracing(xpy.PyThreadState_Get());
    }
    return false;
}

}  // namespace

bool AddToThreadStateTracing(ModuleState& m, Py_ssize_t count) {
    return log_change(m, count) && change_level(m, count);
}

bool enter_tracing(ModuleState& m, TracingLevel& before) {
    before = tracing_level(xpy.PyThreadState_Get());
    if (AddToThreadStateTracing(m, 1)) {
        return true;
    }
    if (before != -1) {
        restore_level(before);
    }
    return false;
}

bool leave_tracing(ModuleState& m, TracingLevel before) {
    if (log_change(m, -1)) {
        return lower_level(m, before);
    }
    const PendingException failure;  // of the log, which is the one to be told
    static_cast<void>(lower_level(m, before));
    return false;
}

bool call_untraced(ModuleState& m, PyObject* callback, PyObject* object) {
    if (callback == none()) {
        return true;
    }
    TracingLevel before = -1;
    if (!enter_tracing(m, before)) {
        return false;
    }
    const bool called = static_cast<bool>(call(callback, object));
    PendingException pending;
    if (!leave_tracing(m, before)) {
        pending.drop();
        return false;
    }
    return called;
}

namespace {

Ref add_to_tracing(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    return AddToThreadStateTracing(m, args[0].integer) ? new_none() : Ref();
}

Ref call_new_object_callback(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    return call_untraced(m, args[0].object, args[1].object) ? new_none() : Ref();
}

constexpr ParamDecl kCountParams[] = {{"count", ValueType::Integer}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}, {"obj"}};

}  // namespace

const FunctionDecl kAddToThreadStateTracing = {
    "AddToThreadStateTracing", kCountParams, add_to_tracing,
    "Raises the calling thread's tracing level by `count` (an int), or lowers it where that is negative: while the\n"
    "level is above zero, the thread raises no monitoring events. Callers pair 1 with -1 in a try and finally.\n"
    "Returns None. Raises what the support module raises."};

const FunctionDecl kCallNewObjectCallback = {
    "_CallNewObjectCallback", kCallbackParams, call_new_object_callback,
    "Calls `callback(obj)` while the calling thread raises no monitoring events; a `callback` of None is not called.\n"
    "Returns None. Raises what the callback raises."};
