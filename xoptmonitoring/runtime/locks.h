// Locks that exist only where the interpreter has no global one.
//
// On a build with the global lock a guard is one predictable branch. On a free-threaded build a guard's scope holds
// loads and stores only: whatever is replaced is moved out and dropped after the guard is gone, because dropping a
// reference can run Python code.
#pragma once

#include "xoptmonitoring/binding/refs.h"

/// Holds a native mutex for the guard's scope. A null mutex locks nothing.
class [[nodiscard]] MutexGuard {
  public:
    explicit MutexGuard(PyMutex* mutex) noexcept : mutex_(mutex) {
        if (XPY_UNLIKELY(mutex_ != nullptr)) {
            xpy.PyMutex_Lock(mutex_);
        }
    }
    ~MutexGuard() {
        if (XPY_UNLIKELY(mutex_ != nullptr)) {
            xpy.PyMutex_Unlock(mutex_);
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
