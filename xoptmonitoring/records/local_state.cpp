// What a thread keeps for itself so that its events need no lock that other threads need.
#include "xoptmonitoring/records/local_state.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <utility>

namespace {

bool has_key = false;
pthread_key_t key;
std::uint64_t last_epoch = 1;  // not zero, which is that of an empty state

/// All threads' states, and what guards the list and the life of each. No Python code runs under it.
LocalState* all_states = nullptr;
pthread_mutex_t all_states_lock = PTHREAD_MUTEX_INITIALIZER;

class [[nodiscard]] ListLock {
  public:
    ListLock() noexcept {
        pthread_mutex_lock(&all_states_lock);
    }
    ~ListLock() {
        pthread_mutex_unlock(&all_states_lock);
    }
    ListLock(const ListLock&) = delete;
    ListLock& operator=(const ListLock&) = delete;
    ListLock(ListLock&&) = delete;
    ListLock& operator=(ListLock&&) = delete;
};

/// The state of a thread that ends. What still runs on it goes without. A reference that was left for a call that the
/// thread never came back to stays for good: the thread has no state in the interpreter any more, to drop it with.
void release(void* state) {
    local_state::current = nullptr;
    {
        const ListLock lock;
        for (LocalState** place = &all_states; *place != nullptr; place = &(*place)->next) {
            if (*place == state) {
                *place = (*place)->next;
                break;
            }
        }
    }
    std::free(state);
}

/// A forked child has one thread, and a lock that nobody will give back. The others' states are left as they are.
void forget_other_threads() {
    all_states_lock = PTHREAD_MUTEX_INITIALIZER;
    all_states = local_state::current;
    if (all_states != nullptr) {
        all_states->next = nullptr;
    }
}

/// A new state of the calling thread; null where there is no memory for it.
LocalState* create() {
    void* memory = std::aligned_alloc(alignof(LocalState), sizeof(LocalState));
    if (memory == nullptr || pthread_setspecific(key, memory) != 0) {
        std::free(memory);
        return nullptr;
    }
    auto* local = static_cast<LocalState*>(std::memset(memory, 0, sizeof(LocalState)));
    local_state::current = local;
    const ListLock lock;
    local->next = std::exchange(all_states, local);
    return local;
}

/// Names that end in `_locked` are called with the lock of the list held.
PyObject* exchange_kept_locked(Note& note, PyObject* kept) {
    return __atomic_exchange_n(&note.kept, kept, __ATOMIC_RELAXED);
}

bool is_note_of(const Note& note, PyObject* object) {
    return __atomic_load_n(&note.borrowed, __ATOMIC_ACQUIRE) == object;
}

/// Leaves a reference to `kept` with a note of `borrowed`. What has been left already is for the same use of it. The
/// reference comes from `spare`, and goes back there where it is not needed: to drop one, even if it is not the last,
/// may take a lock of the interpreter's.
void keep_for_note_locked(Note& note, PyObject* borrowed, PyObject* kept, Ref& spare) {
    if (!is_note_of(note, borrowed) || note.kept != nullptr) {
        return;
    }
    if (!spare) {
        spare = Ref::share(kept);
    }
    exchange_kept_locked(note, spare.release());
    asymmetric_fence::heavy();
    if (!is_note_of(note, borrowed)) {
        // Ended meanwhile. Where its thread has seen the reference after all, it waits for the lock and finds none.
        spare = Ref::steal(exchange_kept_locked(note, nullptr));
    }
}

}  // namespace

namespace local_state {

void create_key() {
    asymmetric_fence::prepare();
    // The C library's own key and not the interpreter's, since that frees what an ending thread leaves.
    has_key = has_key ||
              (pthread_atfork(nullptr, nullptr, forget_other_threads) == 0 && pthread_key_create(&key, release) == 0);
}

constinit thread_local LocalState* current = nullptr;

std::uint64_t current_epoch() {
    return __atomic_load_n(&last_epoch, __ATOMIC_ACQUIRE);
}

void begin_epoch() {
    __atomic_add_fetch(&last_epoch, 1, __ATOMIC_ACQ_REL);
}

void remember(PyObject* code_object, PyObject* per_code_object, std::uint64_t epoch) {
    LocalState* local = current;
    if (local == nullptr && has_key) {
        local = create();
    }
    if (local == nullptr) {
        return;
    }
    if (local->epoch != epoch) {
        for (LocalState::Remembered& forgotten : local->records) {
            forgotten = {};
        }
        local->epoch = epoch;
    }
    local->records[place_of(code_object)] = {code_object, per_code_object};
}

void drop_kept(Note& note) {
    Ref kept;  // dropped after the lock
    const ListLock lock;
    kept = Ref::steal(exchange_kept_locked(note, nullptr));
}

void keep_for_borrowers(Note CallInProgress::*use, PyObject* borrowed, PyObject* kept) {
    asymmetric_fence::heavy();
    Ref spare;  // dropped after the lock
    const ListLock lock;
    for (LocalState* local = all_states; local != nullptr; local = local->next) {
        for (CallInProgress& call : local->calls) {
            keep_for_note_locked(call.*use, borrowed, kept, spare);
        }
    }
}

}  // namespace local_state
