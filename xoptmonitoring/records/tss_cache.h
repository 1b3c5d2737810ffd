// _CPerThreadTssCache: the running thread's record, one thread-specific read away.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"
#include "xoptmonitoring/runtime/asymmetric_fence.h"

/// What a thread's slot points at. The record is borrowed: no reference is held, so the cache keeps nothing alive.
struct TssSlotRecord {
    PyObject* per_thread;  ///< null once detached
    /// The thread state that was current when the record was stored; null once detached, and a mark once the native
    /// thread has ended.
    PyThreadState* tstate;
};

/// What it is without a global lock. Aligned so that no two of them, each written on its thread's events, share a cache
/// line.
struct alignas(128) SharedTssSlotRecord : TssSlotRecord {
    /// While the slot's thread looks at `per_thread` without the cache's lock: the id of the process, since a forked
    /// child has a copy of this but not the thread; else 0. Who detaches the record waits for that.
    pid_t reader;
};

/// The cache's key: created on first use, under the cache's lock, and kept for the life of the process.
extern Py_tss_t* _gXOptPerThreadTssKey;

/// What the calling thread's slot under that key points at, once more: this is read in fewer instructions. The
/// two are always set together.
extern constinit thread_local TssSlotRecord* current_slot_record;

namespace tss_cache {

/// Creates the class and its metaclass. Empty with an exception set.
Ref create(ModuleState& m);

/// The calling thread's cached record, or None. Empty with an exception set.
Ref Get(ModuleState& m);

/// The calling thread's slot record, borrowed; null where there is none or it is not this thread state's. For the fast
/// and local roads. The slot record stays while its thread does nothing else.
inline TssSlotRecord* peek_slot_record() {
    const PyThreadState* tstate = xpy.PyThreadState_Get();  // a call, so it comes first
    TssSlotRecord* rec = current_slot_record;
    // A detached record names no thread state, and so none that runs.
    return XPY_LIKELY(rec != nullptr && __atomic_load_n(&rec->tstate, __ATOMIC_RELAXED) == tstate) ? rec : nullptr;
}

/// The record that a slot record names, borrowed, or null where Get() has to be asked. For the fast road, where objects
/// are plain and a global lock is held: only Python code could take it away.
inline const PerThreadData* peek(const ModuleState& m, const TssSlotRecord& rec) {
    const bool is_own = as_object(plain::type_of(rec.per_thread)) == m.globals.CPerThread;
    return XPY_LIKELY(is_own) ? &plain::data<PerThreadData>(rec.per_thread) : nullptr;
}

/// Notes that the calling thread looks at the record which its slot record names, without any lock, the global one
/// included. Other threads can detach the record and drop it, but wait with that for the end of the look. So the thread
/// reads words meanwhile, and writes its own: it calls nothing that could wait or take long. Between this and the first
/// `look_at` comes `asymmetric_fence::light()`: whoever detaches the record either finds the note or has been found
/// out.
inline void begin_look(TssSlotRecord& rec) {
    __atomic_store_n(&static_cast<SharedTssSlotRecord&>(rec).reader, xpy.cached_pid, __ATOMIC_RELAXED);
}

/// The record, borrowed until the end of the look; null where it has been detached.
inline PyObject* look_at(const TssSlotRecord& rec) {
    return __atomic_load_n(&rec.per_thread, __ATOMIC_ACQUIRE);
}

inline void end_look(TssSlotRecord& rec) {
    __atomic_store_n(&static_cast<SharedTssSlotRecord&>(rec).reader, 0, __ATOMIC_RELEASE);
}

/// Makes `per_thread` the calling thread's cached record. Where the slot cannot be had, or nobody would notice the
/// record's end, none is cached. False with an exception set.
bool Store(ModuleState& m, PyObject* per_thread);

/// Frees the calling thread's slot record. Raises nothing.
void Clear();

/// Makes sure that no slot record points at the record whose data this is; from any thread. Raises nothing.
void Detach(PerThreadData& per_thread);

/// The same for good, at the record's end.
void retire(PerThreadData& per_thread);

}  // namespace tss_cache

/// The calling thread's id, as the interpreter numbers threads.
Ref thread_ident();

extern const FunctionDecl kGetPid;
extern const FunctionDecl kGetThreadIdent;
