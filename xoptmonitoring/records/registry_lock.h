// Holding CPerThread._fRegistryLock, a lock made in Python, around changes of the per-thread registries.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

/// Acquires the registry lock and releases it at the scope's end, with a pending exception kept. No callback and no
/// other lock is taken while it is held.
class [[nodiscard]] RegistryLock {
  public:
    explicit RegistryLock(ModuleState& m)
        : m_(m),
          lock_(per_thread::class_slot(m, &PerThreadClassData::_fRegistryLock)),
          held_(lock_ && call_method(lock_.get(), m.names.acquire)) {}
    ~RegistryLock() {
        if (held_) {
            static_cast<void>(release());
        }
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;
    RegistryLock(RegistryLock&&) = delete;
    RegistryLock& operator=(RegistryLock&&) = delete;

    /// Whether the lock was acquired; otherwise an exception is set.
    bool is_held() const noexcept {
        return held_;
    }

    /// Releases the lock before the scope's end. False where that raised; the newer exception then stands.
    bool release() {
        held_ = false;
        PendingException pending;
        if (call_method(lock_.get(), m_.names.release)) {
            return true;
        }
        pending.drop();
        return false;
    }

  private:
    ModuleState& m_;
    Ref lock_;
    bool held_;
};
