// What a thread keeps for itself so that its events need no lock that other threads need: for interpreters without
// a global one.
//
// It remembers which record belongs to which code object that the thread ran lately. A remembered record is borrowed:
// the code object is running and its slot owns the record; a record that was replaced in its slot stays alive for good
// (code_extra.cpp). A code object's address says nothing once it has died, so whatever an owned slot lets go of begins
// a new epoch, and what was remembered in an older one is not asked any more.
#pragma once

#include "xoptmonitoring/binding/refs.h"

/// A callable that its thread is calling, from the interpreter's borrowed reference. Counting it up and down would have
/// threads fight for its count; so it is noted here, and its finalisation looks for such notes.
struct CallInProgress {
    /// The callable; 0 while there is no call. Once a finalisation has taken a reference for the call: the instance
    /// behind the callable, with the lowest bit set.
    std::uintptr_t noted;
};

/// Aligned so that no two threads' states, one of which is written on every event, share a cache line.
struct alignas(128) LocalState {
    struct Remembered {
        PyObject* code_object;
        PyObject* per_code_object;
    };
    static constexpr std::size_t kRemembered = 64;
    static constexpr std::size_t kMostCalls = 4;  // calls inside each other; a deeper one goes the long way

    LocalState* next;  ///< of all threads' states, under their lock
    std::uint64_t epoch;
    CallInProgress calls[kMostCalls];
    Remembered records[kRemembered];
};

namespace local_state {

/// Makes the key under which threads keep their states. Does nothing where the C library has no more keys: no thread
/// has a state then.
void create_key();

/// The calling thread's state, or null while it has none; also under the key, which has it freed at the thread's end.
extern constinit thread_local LocalState* current;

/// The epoch that has begun last.
std::uint64_t current_epoch();

/// Begins a new epoch, before an object that a slot held can be gone.
void begin_epoch();

/// Where the record of a code object is remembered. Code objects are large, so the lowest bits of their addresses say
/// nothing.
inline std::size_t place_of(PyObject* code_object) {
    return reinterpret_cast<std::uintptr_t>(code_object) / 64 % LocalState::kRemembered;
}

/// The record that the thread remembers for a code object, borrowed; null where it has to be looked up.
inline PyObject* recall(const LocalState& local, PyObject* code_object) {
    const LocalState::Remembered& found = local.records[place_of(code_object)];
    return local.epoch == current_epoch() && found.code_object == code_object ? found.per_code_object : nullptr;
}

/// Remembers a record that was found in the code object's slot, in an epoch that had begun before the look. Makes the
/// thread's state where it is missing and there is memory for it.
void remember(PyObject* code_object, PyObject* per_code_object, std::uint64_t epoch);

/// Notes a call. Null where so many are in progress already that there is no room. Notes end in any order: what a call
/// runs may change the thread's stack for another one.
inline CallInProgress* begin_call(LocalState& local, PyObject* callable) {
    for (CallInProgress& call : local.calls) {
        if (XPY_LIKELY(__atomic_load_n(&call.noted, __ATOMIC_RELAXED) == 0)) {
            __atomic_store_n(&call.noted, reinterpret_cast<std::uintptr_t>(callable), __ATOMIC_RELEASE);
            return &call;
        }
    }
    return nullptr;
}

/// Ends a noted call and drops the reference that was taken for it, if any.
inline void end_call(CallInProgress& call) {
    const std::uintptr_t noted = __atomic_exchange_n(&call.noted, 0, __ATOMIC_ACQ_REL);
    if (XPY_UNLIKELY((noted & 1U) != 0)) {
        const Ref dropped = Ref::steal(reinterpret_cast<PyObject*>(noted - 1));
    }
}

/// Takes a reference to `instance` for each call of its `callable` that is in progress, on whatever thread. The caller
/// has a reference to the instance, and may drop it and the callable afterwards.
void keep_for_calls(PyObject* callable, PyObject* instance);

}  // namespace local_state
