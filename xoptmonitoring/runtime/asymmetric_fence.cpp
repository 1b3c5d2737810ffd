// A fence of which only the rare side pays.
#include "xoptmonitoring/runtime/asymmetric_fence.h"

#include <cerrno>
#include <ctime>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace asymmetric_fence {

constinit bool is_one_sided = false;

namespace {

bool is_done(int command) {
    return syscall(SYS_membarrier, command, 0, 0) == 0;
}

bool is_registered() {
    return is_done(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED);
}

/// What the rare side goes by: true before `is_one_sided` is, and longer, for every processor that looks.
bool is_asked = false;

void decide() {
    const bool is_offered = is_registered();
    __atomic_store_n(&is_asked, is_offered, __ATOMIC_SEQ_CST);
    __atomic_store_n(&is_one_sided, is_offered, __ATOMIC_SEQ_CST);
}

/// Somebody has forbidden the call since. From now on each side has its own fence; whoever has not noticed that yet is
/// between its two steps, and a processor shows what it has stored in much less than this moment.
XPY_COLD void give_up() {
    __atomic_store_n(&is_one_sided, false, __ATOMIC_SEQ_CST);
    timespec left = {0, 1'000'000};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    __atomic_store_n(&is_asked, false, __ATOMIC_SEQ_CST);
}

}  // namespace

void prepare() {
    static pthread_once_t is_decided = PTHREAD_ONCE_INIT;
    pthread_once(&is_decided, decide);
}

void heavy() {
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    // Acquired, so that the look for notes does not come before this: what another thread has given up is long over.
    if (!__atomic_load_n(&is_asked, __ATOMIC_ACQUIRE)) {
        return;
    }
    // Whether a forked child is registered is the system's business; to register it again costs nothing there.
    const bool is_ordered =
        is_done(MEMBARRIER_CMD_PRIVATE_EXPEDITED) || (is_registered() && is_done(MEMBARRIER_CMD_PRIVATE_EXPEDITED));
    if (!is_ordered) {
        give_up();
    }
}

}  // namespace asymmetric_fence
