// What a thread keeps for itself so that its events need no lock that other threads need: for interpreters without
// a global one.
//
// It remembers which record belongs to which code object that the thread ran lately. A remembered record is borrowed:
// the code object is running and its slot owns the record; a record that was replaced in its slot stays alive for good
// (code_extra.cpp). A code object's address says nothing once it has died, so whatever an owned slot lets go of begins
// a new epoch, and what was remembered in an older one is not asked any more.
//
// It also notes what the thread borrows from others while an event is decided. To note and then look whether the thing
// is still there, and to take it away and then look for notes, is one protocol: the functions below are its two sides.
#pragma once

#include "xoptmonitoring/binding/refs.h"
#include "xoptmonitoring/runtime/asymmetric_fence.h"

/// An object that a thread uses without a reference of its own: counting it up and down would have threads fight for
/// its count. Whoever takes such an object away looks for notes of it first.
struct Note {
    PyObject* borrowed;  ///< null while there is none
    /// What whoever took the object away left for the end of its use: a reference, or null. Changed under the lock of
    /// the list of all threads' states; while that is free and this is not null, the use is going on or just ending.
    PyObject* kept;
};

/// What a thread borrows for one call of the first stage.
struct CallInProgress {
    Note callable;     ///< from the interpreter, which holds no reference during the call
    Note breakpoints;  ///< the set that a line is looked up in, from the code object's record
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

/// Whether the thread remembers the record of a code object, which is then in `per_code_object`, borrowed.
inline bool recall(const LocalState& local, PyObject* code_object, PyObject*& per_code_object) {
    const LocalState::Remembered& found = local.records[place_of(code_object)];
    per_code_object = found.per_code_object;
    // The epoch is looked at after the code object came here: if that lies where another one died, the epoch which its
    // death has begun is seen. The fence of the call's note orders nothing here, since the other side may execute it.
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return local.epoch == current_epoch() && found.code_object == code_object;
}

/// Remembers a record that was found in the code object's slot, in an epoch that had begun before the look. Makes the
/// thread's state where it is missing and there is memory for it.
void remember(PyObject* code_object, PyObject* per_code_object, std::uint64_t epoch);

/// Takes the reference that was left for a note that has ended.
XPY_COLD void drop_kept(Note& note);

/// Notes an object, before the look whether it is still to be found where it was. The note also tells whoever reads it
/// that all earlier uses under this note have ended.
inline void begin_note(Note& note, PyObject* object) {
    __atomic_store_n(&note.borrowed, object, __ATOMIC_RELEASE);
    asymmetric_fence::light();
}

/// Ends a note. Either whoever took the object away sees that, or what it left is seen here.
inline void end_note(Note& note) {
    __atomic_store_n(&note.borrowed, nullptr, __ATOMIC_RELEASE);
    asymmetric_fence::light();
    if (XPY_UNLIKELY(__atomic_load_n(&note.kept, __ATOMIC_RELAXED) != nullptr)) {
        drop_kept(note);
    }
}

inline bool is_over(const CallInProgress& call) {
    return XPY_LIKELY(__atomic_load_n(&call.callable.borrowed, __ATOMIC_RELAXED) == nullptr);
}

/// Room for the note of one more call; null where so many are in progress already that there is none. Notes end in any
/// order: what a call runs may change the thread's stack for another one.
inline CallInProgress* room_for_call(LocalState& local) {
    CallInProgress* call = local.calls;
    while (!is_over(*call)) {
        if (++call == local.calls + LocalState::kMostCalls) {
            return nullptr;
        }
    }
    return call;
}

/// Notes a call. What has been noted just before needs no fence of its own.
inline void begin_call(CallInProgress& call, PyObject* callable) {
    begin_note(call.callable, callable);
}

inline void end_call(CallInProgress& call) {
    end_note(call.callable);
}

/// What a slot of a living object holds, borrowed under a note. Whoever writes to such a slot calls
/// `keep_for_borrowers` with what was there, after the slot's owner has been unlocked and before it drops it.
class [[nodiscard]] Borrowed {
  public:
    Borrowed(Note& note, PyObject* const& slot) noexcept
        : note_(note), object_(__atomic_load_n(&slot, __ATOMIC_ACQUIRE)) {
        begin_note(note_, object_);
        if (XPY_UNLIKELY(__atomic_load_n(&slot, __ATOMIC_ACQUIRE) != object_)) {
            object_ = nullptr;  // who took it away need not have seen the note
        }
    }
    ~Borrowed() {
        end_note(note_);
    }
    Borrowed(const Borrowed&) = delete;
    Borrowed& operator=(const Borrowed&) = delete;
    Borrowed(Borrowed&&) = delete;
    Borrowed& operator=(Borrowed&&) = delete;

    /// The object; null where the slot is empty, or has been changed just then.
    PyObject* get() const noexcept {
        return object_;
    }

  private:
    Note& note_;
    PyObject* object_;
};

/// Leaves a reference to `kept` with every note of `borrowed` that is for this `use`, on whatever thread. The caller
/// has taken `borrowed` away from where it can be found, has a reference to `kept`, holds no lock, and may drop both
/// afterwards.
void keep_for_borrowers(Note CallInProgress::*use, PyObject* borrowed, PyObject* kept);

}  // namespace local_state
