// _CPerThreadTssCache: the running thread's record, one thread-specific read away.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

/// What a thread's slot points at. The record is borrowed: no reference is held, so the cache keeps nothing alive.
struct TssSlotRecord {
    PyObject* per_thread;   ///< null once detached
    PyThreadState* tstate;  ///< the thread state that was current when the record was stored
};

namespace tss_cache {

/// Creates the class and its metaclass. Empty with an exception set.
Ref create(ModuleState& m);

/// The calling thread's cached record, or None. Empty with an exception set.
Ref Get(ModuleState& m);

/// The calling thread's cached record, borrowed, or null where Get() has to be asked. For the fast road, where objects
/// are plain and a global lock is held: only Python code could take the record away.
PerThreadData* peek(const ModuleState& m);

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
