// Holding CPerThread._fRegistryLock, a lock made in Python, around changes of the per-thread registries.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

/// Acquires the registry lock and releases it at the scope's end, with a pending exception kept. No callback and no
/// other lock is taken while it is held.
///
/// In a forked child the interpreter ends the other threads' states, and so runs their clean-up, before fork() even
/// returns. The thread that held the lock may be one of those that are gone, so until the child has been re-armed
/// this does not wait: there is nobody to be kept out.
class [[nodiscard]] RegistryLock {
  public:
    explicit RegistryLock(ModuleState& m) {
        lock_ = per_thread::class_slot(m, &PerThreadClassData::_fRegistryLock);
        // Looked up before: once the lock is held there may be no memory left for it, and the lock would stay held.
        release_ = lock_ ? get_attr(lock_.get(), m.names.release) : Ref();
        const bool may_wait = xpy.cached_pid == load_global(m.globals._gThisProcessPid);
        const Ref acquired = !release_  ? Ref()
                             : may_wait ? call_method(lock_.get(), m.names.acquire)
                                        : call_method(lock_.get(), m.names.acquire, xpy._Py_FalseStruct);
        entered_ = static_cast<bool>(acquired);
        held_ = entered_ && (may_wait || acquired.get() == xpy._Py_TrueStruct);
    }
    ~RegistryLock() {
        if (held_) {
            static_cast<void>(release());
        }
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
    RegistryLock(RegistryLock&&) = delete;
    RegistryLock& operator=(RegistryLock&&) = delete;

    /// Whether the registries may be changed; otherwise an exception is set.
    bool is_entered() const noexcept {
        return entered_;
    }

    /// Releases the lock before the scope's end. False where that raised; the newer exception then stands.
    bool release() {
        if (!std::exchange(held_, false)) {
            return true;
        }
        PendingException pending;
        if (call(release_.get())) {
            return true;
        }
        pending.drop();
        return false;
    }

  private:
    Ref lock_;
    Ref release_;
    bool entered_ = false;
    bool held_ = false;
};
