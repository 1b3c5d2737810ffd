// A fence of which only the rare side pays.
//
// A thread that notes what it uses and then looks whether that is still there, and another one that takes it away and
// then looks for notes, must not miss each other. Ordinarily that takes a fence on each side, which costs the frequent
// side as much as half of an event's other work. Linux executes a fence on all threads of a process at the wish of one
// (membarrier), so that the frequent side only has to keep the compiler from reordering.
#pragma once

#include "xoptmonitoring/binding/xpy_abi.h"

namespace asymmetric_fence {

/// Whether the system executes the fences. Where it does not, each side has one of its own.
extern constinit bool is_one_sided;

/// Asks the system for that, once in a process and before there are any notes. Takes some milliseconds in a process of
/// many threads.
void prepare();

/// For the frequent side, between its note and its look.
inline void light() {
    if (XPY_LIKELY(__atomic_load_n(&is_one_sided, __ATOMIC_RELAXED))) {
        __atomic_signal_fence(__ATOMIC_SEQ_CST);
    } else {
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
    }
}

/// For the rare side, between its taking away and its look. A call of the system, of some microseconds where other
/// threads of the process are running.
void heavy();

}  // namespace asymmetric_fence
