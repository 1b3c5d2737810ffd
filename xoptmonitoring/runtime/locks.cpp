// Waiting for a mutex that another thread holds.
#include "xoptmonitoring/runtime/locks.h"

#include <algorithm>
#include <ctime>

namespace mutex_bits {
namespace {

/// Lets the interpreter stop this thread meanwhile: what the holder waits for may be just that.
class [[nodiscard]] Detached {
  public:
    Detached() noexcept : tstate_(XPy_CurrentThreadStateOrNull()) {
        if (tstate_ != nullptr) {
            xpy.PyEval_SaveThread();
        }
    }
    ~Detached() {
        if (tstate_ != nullptr) {
            xpy.PyEval_RestoreThread(tstate_);
        }
    }
    Detached(const Detached&) = delete;
    Detached& operator=(const Detached&) = delete;
    Detached(Detached&&) = delete;
    Detached& operator=(Detached&&) = delete;

  private:
    PyThreadState* tstate_;
};

/// Takes the mutex where it is free; whoever has queued for it is left in the queue.
bool try_lock_beside_queue(PyMutex& mutex) noexcept {
    const std::uint8_t bits = __atomic_load_n(&mutex.bits, __ATOMIC_RELAXED);
    return (bits & kLocked) == 0 && is_exchanged(mutex, bits, bits | kLocked, __ATOMIC_ACQUIRE);
}

}  // namespace

void wait_and_lock(PyMutex& mutex) noexcept {
    constexpr int kLooks = 100;  // the holder is done within some ten instructions, unless it has lost its processor
    constexpr long kShortestNap = 20'000;
    constexpr long kLongestNap = 1'000'000;
    for (long nap = kShortestNap;; nap = std::min(2 * nap, kLongestNap)) {
        for (int look = 0; look < kLooks; ++look) {
            if (try_lock_beside_queue(mutex)) {
                return;
            }
        }
        const timespec moment = {0, nap};
        const Detached detached;
        nanosleep(&moment, nullptr);
    }
}

void unlock_and_wake(PyMutex& mutex) noexcept {
    xpy.PyMutex_Unlock(&mutex);
}

}  // namespace mutex_bits
