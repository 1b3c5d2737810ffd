// _CPerThreadTssCache: the running thread's record, one thread-specific read away.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"
#include "xoptmonitoring/runtime/asymmetric_fence.h"

/// What a thread's slot points at. The record is borrowed: no reference is held, so the cache keeps nothing alive.
struct TssSlotRecord {
    PyObject* per_thread;   ///< null once detached
    PyThreadState* tstate;  ///< the thread state that was current when the record was stored
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

/// What the calling thread's slot under that key points at, once more: reading the slot takes two calls, this none. The
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
    TssSlotRecord* rec = current_slot_record;
    if (XPY_UNLIKELY(rec == nullptr)) {
        return nullptr;
    }
    // A detached record names no thread state, and so none that runs.
    const bool is_own = __atomic_load_n(&rec->tstate, __ATOMIC_RELAXED) == xpy.PyThreadState_Get();
    return XPY_LIKELY(is_own) ? rec : nullptr;
}

/// The record that a slot record names, borrowed, or null where Get() has to be asked. For the fast road, where objects
/// are plain and a global lock is held: only Python code could take it away.
inline const PerThreadData* peek(const ModuleState& m, const TssSlotRecord& rec) {
    const bool is_own = as_object(plain::type_of(rec.per_thread)) == m.globals.CPerThread;
    return XPY_LIKELY(is_own) ? &plain::data<PerThreadData>(rec.per_thread) : nullptr;
}

/// The calling thread's look at the record that its slot record names, without any lock, the global one included. Other
/// threads can detach the record and drop it, but wait with that for the end of the look. So the thread reads words
/// meanwhile and nothing else: it calls nothing that could wait or take long.
class [[nodiscard]] Look {
  public:
    Look() noexcept = default;
    ~Look() {
        end();
    }
    Look(const Look&) = delete;
    Look& operator=(const Look&) = delete;
    Look(Look&&) = delete;
    Look& operator=(Look&&) = delete;

    /// The record, borrowed until the end of the look; null where it has been detached. The note comes first, so that
    /// whoever detaches the record now either finds the note or has been found out.
    PyObject* begin(TssSlotRecord& rec) noexcept {
        rec_ = &static_cast<SharedTssSlotRecord&>(rec);
        __atomic_store_n(&rec_->reader, xpy.cached_pid, __ATOMIC_RELAXED);
        asymmetric_fence::light();
        return __atomic_load_n(&rec.per_thread, __ATOMIC_ACQUIRE);
    }
    void end() noexcept {
        if (rec_ != nullptr) {
            __atomic_store_n(&rec_->reader, 0, __ATOMIC_RELEASE);
            rec_ = nullptr;
        }
    }

  private:
    SharedTssSlotRecord* rec_ = nullptr;
};

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
