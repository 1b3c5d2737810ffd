// _CPerThreadTssCache: the running thread's record, one thread-specific read away.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

/// What a thread's slot points at. The record is borrowed: no reference is held, so the cache keeps nothing alive.
struct TssSlotRecord {
    PyObject* per_thread;   ///< null once detached
    PyThreadState* tstate;  ///< the thread state that was current when the record was stored
};

/// The cache's key: created on first use, under the cache's lock, and kept for the life of the process.
extern Py_tss_t* _gXOptPerThreadTssKey;

namespace tss_cache {

/// Creates the class and its metaclass. Empty with an exception set.
Ref create(ModuleState& m);

/// The calling thread's cached record, or None. Empty with an exception set.
Ref Get(ModuleState& m);

/// The calling thread's slot record, borrowed; null where there is none or it is not this thread state's. For the fast
/// road, where objects are plain and a global lock is held.
inline const TssSlotRecord* peek_slot_record() {
    if (XPY_UNLIKELY(_gXOptPerThreadTssKey == nullptr)) {
        return nullptr;
    }
    const PyThreadState* tstate = xpy.PyThreadState_Get();
    const auto* rec = static_cast<const TssSlotRecord*>(xpy.PyThread_tss_get(_gXOptPerThreadTssKey));
    // A detached record names no thread state, and so none that runs.
    return XPY_LIKELY(rec != nullptr && rec->tstate == tstate) ? rec : nullptr;
}

/// The record that a slot record names, borrowed, or null where Get() has to be asked. Only Python code could take it
/// away. For the fast road.
inline const PerThreadData* peek(const ModuleState& m, const TssSlotRecord& rec) {
    const bool is_own = as_object(plain::type_of(rec.per_thread)) == m.globals.CPerThread;
    return XPY_LIKELY(is_own) ? &plain::data<PerThreadData>(rec.per_thread) : nullptr;
}

/// Makes `per_thread` the calling thread's cached record. Does nothing where the slot cannot be had. False with an
/// exception set.
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
