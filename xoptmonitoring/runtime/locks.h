// Locks that exist only where the interpreter has no global one.
//
// On a build with the global lock a guard is one predictable branch. On a free-threaded build a guard's scope holds
// loads and stores only: whatever is replaced is moved out and dropped after the guard is gone, because dropping a
// reference can run Python code.
//
// The mutexes are the interpreter's own, one byte each, but nobody queues for one here. The interpreter hands a mutex
// over to whoever has queued for it for a millisecond, and that thread may never come to use it: it is detached, and at
// the process's end cannot attach again, or a fork comes first and the child has the locked mutex and not the thread.
// Who waits here owns nothing until it is attached and finds the mutex free.
#pragma once

#include "xoptmonitoring/binding/refs.h"

namespace mutex_bits {

// The interpreter's values since 3.13; programs that were compiled against its headers have them built in.
inline constexpr std::uint8_t kUnlocked = 0;
inline constexpr std::uint8_t kLocked = 1;

inline bool is_exchanged(PyMutex& mutex, std::uint8_t expected, std::uint8_t desired, int order) noexcept {
    return __atomic_compare_exchange_n(&mutex.bits, &expected, desired, false, order, __ATOMIC_RELAXED);
}

/// Takes the mutex where nobody holds it.
inline bool try_lock(PyMutex& mutex) noexcept {
    return is_exchanged(mutex, kUnlocked, kLocked, __ATOMIC_ACQUIRE);
}

/// Takes the mutex when it comes free, waiting detached where the calling thread is attached.
XPY_COLD void wait_and_lock(PyMutex& mutex) noexcept;

/// Gives the mutex back where the interpreter has a thread queued for it.
XPY_COLD void unlock_and_wake(PyMutex& mutex) noexcept;

}  // namespace mutex_bits

/// Holds a native mutex for the guard's scope. A null mutex locks nothing.
class [[nodiscard]] MutexGuard {
  public:
    explicit MutexGuard(PyMutex* mutex) noexcept : mutex_(mutex) {
        if (XPY_UNLIKELY(mutex_ != nullptr) && XPY_UNLIKELY(!mutex_bits::try_lock(*mutex_))) {
            mutex_bits::wait_and_lock(*mutex_);
        }
    }
    ~MutexGuard() {
        if (XPY_UNLIKELY(mutex_ != nullptr) &&
            XPY_UNLIKELY(
                !mutex_bits::is_exchanged(*mutex_, mutex_bits::kLocked, mutex_bits::kUnlocked, __ATOMIC_RELEASE))) {
            mutex_bits::unlock_and_wake(*mutex_);
        }
    }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;
    MutexGuard(MutexGuard&&) = delete;
    MutexGuard& operator=(MutexGuard&&) = delete;

  private:
    PyMutex* mutex_;
};

/// A mutex of this module's own, taken on free-threaded interpreters only.
class [[nodiscard]] NativeLock : MutexGuard {
  public:
    explicit NativeLock(PyMutex& mutex) noexcept : MutexGuard(is_free_threaded() ? &mutex : nullptr) {}
};

/// The mutex in an object's own header, taken on free-threaded interpreters only. A null object locks nothing.
class [[nodiscard]] ObjectLock : MutexGuard {
  public:
    explicit ObjectLock(PyObject* object) noexcept : MutexGuard(mutex_of(object)) {}

  private:
    static PyMutex* mutex_of(PyObject* object) noexcept {
        if (XPY_LIKELY(!is_free_threaded()) || object == nullptr) {
            return nullptr;
        }
        return XPy_GetFieldAddress<PyMutex>(object, xpy.pyobject_offsets.mutex);
    }
};

/// A new reference to what `slot` of `owner` holds, taken under the owner's lock. Empty, with no exception set, where
/// the slot is empty.
inline Ref peek_slot(PyObject* owner, PyObject* const& slot) {
    const ObjectLock lock(owner);
    return Ref::share(slot);
}

/// Puts `value` into `slot` and returns what was there; the caller holds the owner's lock. One whole word is written,
/// after what it points at, because some readers take no lock: they only look which object is there, or borrow it under
/// a note.
inline PyObject* exchange_slot_locked(PyObject*& slot, PyObject* value) {
    PyObject* old = slot;
    __atomic_store_n(&slot, value, __ATOMIC_RELEASE);
    return old;
}

/// Replaces what `slot` of `owner` holds; returns the old value, which is to be dropped after the lock.
inline Ref exchange_slot(PyObject* owner, PyObject*& slot, Ref value) {
    PyObject* fresh = value.release();
    const ObjectLock lock(owner);
    return Ref::steal(exchange_slot_locked(slot, fresh));
}

/// Replaces what `slot` of `owner` holds and drops the old value.
inline void put_slot(PyObject* owner, PyObject*& slot, Ref value) {
    const Ref dropped = exchange_slot(owner, slot, std::move(value));
}
