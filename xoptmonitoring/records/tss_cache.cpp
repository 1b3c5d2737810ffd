// _CPerThreadTssCache: the running thread's record, one thread-specific read away.
//
// Each thread that has stored something owns one slot record. It points at the thread's CPerThread, and that points
// back: slot record R names X exactly when X's `_fPyTssDataPtr` is R, but for the moment inside Store. Another thread
// that detaches a record zeroes the slot record and leaves it to its owner. A slot record is freed by its own thread,
// at the latest when that ends; where it still names something then, whoever detaches that frees it.
//
// Locking: on free-threaded interpreters `_gXOptTssCacheLock` guards the key's creation and every change of slot
// records and back pointers, but for the native thread's end. Names that end in `_locked` are called with it held. A
// thread may look at what its own slot record names without it; whoever empties the slot record waits for the end of
// that look. A record whose count has come to zero stays in its slot until it is finalised, or freed where its class
// finalises otherwise, and must not be counted up again. With a global lock the count tells; without, Get asks a weak
// reference, which knows the living from the dying whatever thread that happens on.
#include "xoptmonitoring/records/tss_cache.h"

#include <cstdlib>
#include <ctime>
#include <new>
#include <pthread.h>

Py_tss_t* _gXOptPerThreadTssKey = nullptr;
constinit thread_local TssSlotRecord* current_slot_record = nullptr;

namespace {

PyMutex _gXOptTssCacheLock = {};

/// Under this key of the C library's each thread has its slot record once more, to be told of its own end: keys of the
/// interpreter's do not tell.
pthread_key_t end_key;
bool has_end_key = false;

/// What the thread-state field of a slot record says once its thread has ended.
PyThreadState* thread_gone() {
    return reinterpret_cast<PyThreadState*>(1);
}

/// The calling native thread ends. It may have no thread state any more and waits for nobody, the global lock included;
/// so it leaves a slot record that still names something to whoever detaches that.
void end_thread(void* slot_record) {
    auto* rec = static_cast<TssSlotRecord*>(slot_record);
    xpy.PyThread_tss_set(_gXOptPerThreadTssKey, nullptr);
    current_slot_record = nullptr;
    if (__atomic_exchange_n(&rec->tstate, thread_gone(), __ATOMIC_ACQ_REL) == nullptr) {
        std::free(rec);
    }
}

/// The key, or null where the interpreter cannot give one: the cache is then silently ineffective.
Py_tss_t* ensure_key_locked() {
    if (_gXOptPerThreadTssKey == nullptr) {
        Py_tss_t* key = xpy.PyThread_tss_alloc();
        if (key == nullptr) {
            return nullptr;
        }
        if (xpy.PyThread_tss_create(key) != 0) {
            xpy.PyThread_tss_free(key);
            return nullptr;
        }
        // Without it a slot record or two stays allocated for each thread, and all else works.
        has_end_key = pthread_key_create(&end_key, end_thread) == 0;
        _gXOptPerThreadTssKey = key;
    }
    return _gXOptPerThreadTssKey;
}

TssSlotRecord* current_record_locked(Py_tss_t* key) {
    return static_cast<TssSlotRecord*>(xpy.PyThread_tss_get(key));
}

/// Points the calling thread's slot at a slot record, or at nothing. False where that failed; to empty it never does.
bool set_current_record_locked(Py_tss_t* key, TssSlotRecord* rec) {
    if (xpy.PyThread_tss_set(key, rec) != 0) {
        return false;
    }
    if (has_end_key && pthread_setspecific(end_key, rec) != 0) {
        xpy.PyThread_tss_set(key, nullptr);
        return false;
    }
    current_slot_record = rec;
    return true;
}

/// A new slot record that names nothing; null where there is no memory for it.
TssSlotRecord* new_slot_record() {
    if (!is_free_threaded()) {
        return static_cast<TssSlotRecord*>(std::calloc(1, sizeof(TssSlotRecord)));
    }
    void* memory = std::aligned_alloc(alignof(SharedTssSlotRecord), sizeof(SharedTssSlotRecord));
    return memory != nullptr ? new (memory) SharedTssSlotRecord{} : nullptr;
}

/// Has another thread's slot record name nothing more: waits until that thread has done looking at what it named, and
/// frees the slot record where the thread has ended. Whichever of the two comes last finds the other one's mark.
void empty_locked(TssSlotRecord& rec) {
    __atomic_store_n(&rec.per_thread, nullptr, __ATOMIC_RELEASE);
    if (is_free_threaded()) {
        const pid_t& reader = static_cast<const SharedTssSlotRecord&>(rec).reader;
        constexpr timespec kMoment = {0, 10'000};
        asymmetric_fence::heavy();
        while (__atomic_load_n(&reader, __ATOMIC_ACQUIRE) == xpy.cached_pid) {
            nanosleep(&kMoment, nullptr);  // yielding would not let a thread of lower priority come to its end
        }
    }
    if (__atomic_exchange_n(&rec.tstate, nullptr, __ATOMIC_ACQ_REL) == thread_gone()) {
        std::free(&rec);
    }
}

/// In a forked child nobody is left who could give the lock back. Where the interpreter forks, nobody has it: it stops
/// the other threads first, and not while they hold it. Where a library does, what was just being changed stays so.
void forget_lock() {
    _gXOptTssCacheLock = {};
}

/// Frees the calling thread's slot record. What it names was checked when it was stored, by this module object or by
/// another one in the process; the back pointer lies at the same place in both.
void _DropCurrentSlot_locked() {
    Py_tss_t* key = ensure_key_locked();
    TssSlotRecord* rec = key != nullptr ? current_record_locked(key) : nullptr;
    if (rec == nullptr) {
        return;
    }
    set_current_record_locked(key, nullptr);
    if (rec->per_thread != nullptr) {
        PerThreadData& owner = per_thread::data(rec->per_thread);
        if (owner._fPyTssDataPtr == rec) {
            owner._fPyTssDataPtr = nullptr;
        }
    }
    std::free(rec);
}

/// Whether the record's end is sure to detach it. One way round it is a class that was made without its metaclass's
/// `__init__`.
bool is_cacheable(PyObject* per_thread) {
    return xpy.PyType_GetSlot(type_of(per_thread), Py_tp_free) == reinterpret_cast<void*>(per_thread::free_instance);
}

/// A new reference to what a slot record names; empty, with no exception set, where that is dying.
Ref take_locked(const TssSlotRecord& rec) {
    if (!is_free_threaded()) {
        return XPy_IsDying(rec.per_thread) ? Ref() : Ref::share(rec.per_thread);
    }
    PyObject* found = nullptr;
    PyObject* reference = per_thread::data(rec.per_thread).self_reference;
    if (reference != nullptr && xpy.PyWeakref_GetRef(reference, &found) < 0) {
        xpy.PyErr_Clear();
    }
    return Ref::steal(found);
}

void detach_locked(PerThreadData& per_thread) {
    TssSlotRecord* rec = std::exchange(per_thread._fPyTssDataPtr, nullptr);
    if (rec == nullptr) {
        return;
    }
    if (current_slot_record != rec) {
        empty_locked(*rec);
    } else {
        set_current_record_locked(_gXOptPerThreadTssKey, nullptr);
        std::free(rec);
    }
}

}  // namespace

namespace tss_cache {

Ref Get(ModuleState& m) {
    PyTypeObject* cls = per_thread::this_class(m);
    if (cls == nullptr) {
        return {};
    }
    const NativeLock lock(_gXOptTssCacheLock);
    Py_tss_t* key = ensure_key_locked();
    const TssSlotRecord* rec = key != nullptr ? current_record_locked(key) : nullptr;
    if (rec == nullptr) {
        return new_none();
    }
    // A second module object has a class of its own, whose records are not this one's to hand out.
    if (rec->per_thread != nullptr && rec->tstate == xpy.PyThreadState_Get() && is_instance_of(rec->per_thread, cls)) {
        if (Ref per_thread = take_locked(*rec)) {
            return per_thread;
        }
    }
    // Stale: detached, dying, or the operating system's thread has a new thread state.
    _DropCurrentSlot_locked();
    return new_none();
}

bool Store(ModuleState& m, PyObject* per_thread) {
    PerThreadData* owner = per_thread::checked_data(m, per_thread);
    if (owner == nullptr) {
        return false;
    }
    if (!is_cacheable(per_thread)) {
        Clear();  // the earlier one is not this thread's record any more
        return true;
    }
    Ref reference = is_free_threaded() ? Ref::steal(xpy.PyWeakref_NewRef(per_thread, nullptr)) : Ref();
    if (is_free_threaded() && !reference) {
        xpy.PyErr_Clear();
        return true;  // as where there is no memory for the slot record
    }
    const NativeLock lock(_gXOptTssCacheLock);
    Py_tss_t* key = ensure_key_locked();
    TssSlotRecord* rec = key != nullptr ? new_slot_record() : nullptr;
    if (rec == nullptr) {
        return true;  // the cache is an optimisation
    }
    _DropCurrentSlot_locked();
    if (!set_current_record_locked(key, rec)) {
        std::free(rec);
        return true;
    }
    if (owner->_fPyTssDataPtr != nullptr) {
        // Stored by another thread before: that slot must not name it any more.
        empty_locked(*owner->_fPyTssDataPtr);
    }
    rec->tstate = xpy.PyThreadState_Get();
    rec->per_thread = per_thread;
    owner->_fPyTssDataPtr = rec;
    if (owner->self_reference == nullptr) {
        owner->self_reference = reference.release();
    }
    return true;
}

void Clear() {
    const NativeLock lock(_gXOptTssCacheLock);
    _DropCurrentSlot_locked();
}

void Detach(PerThreadData& per_thread) {
    const NativeLock lock(_gXOptTssCacheLock);
    detach_locked(per_thread);
}

void retire(PerThreadData& per_thread) {
    Ref reference;  // dropped after the lock
    const NativeLock lock(_gXOptTssCacheLock);
    detach_locked(per_thread);
    reference = Ref::steal(std::exchange(per_thread.self_reference, nullptr));
}

namespace {

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

constexpr ParamDecl kPerThreadParams[] = {{"per_thread"}};

constexpr FunctionDecl kMethods[] = {
    {"Get",
     {},
     [](ModuleState& m, PyObject* /*cls*/, const Argument* /*args*/) { return Get(m); },
     "Returns the calling thread's cached CPerThread, or None.",
     Binding::Class},
    {"Store", kPerThreadParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) { return none_or_error(Store(m, args[0].object)); },
     "Makes `per_thread` (a CPerThread) the calling thread's cached record. No reference is kept. Returns None.",
     Binding::Class},
    {"_DropCurrentSlot",
     {},
     [](ModuleState& /*m*/, PyObject* /*cls*/, const Argument* /*args*/) {
         Clear();
         return new_none();
     },
     "Frees the calling thread's slot. Returns None.",
     Binding::Class},
    {"Clear",
     {},
     [](ModuleState& /*m*/, PyObject* /*cls*/, const Argument* /*args*/) {
         Clear();
         return new_none();
     },
     "Frees the calling thread's slot. Returns None.",
     Binding::Class},
    {"Detach", kPerThreadParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         PerThreadData* record = per_thread::checked_data(m, args[0].object);
         if (record == nullptr) {
             return Ref();
         }
         Detach(*record);
         return new_none();
     },
     "Makes sure that no thread's slot points at `per_thread` (a CPerThread) any more. Returns None.", Binding::Class},
};

constexpr ClassDecl kClass = {CLASS_NAMES(_CPerThreadTssCache),
                              "The cache of the running thread's record, in thread-specific storage.",
                              0,
                              {},
                              sizeof(ClassRecord),
                              {},
                              kMethods};

}  // namespace

Ref create(ModuleState& m) {
    static bool survives_fork = false;
    if (is_free_threaded() && !survives_fork) {
        survives_fork = pthread_atfork(nullptr, nullptr, forget_lock) == 0;
    }
    return create_class(m, blueprint<kClass>(), m.types.CPerThreadTssCache_class);
}

}  // namespace tss_cache

Ref thread_ident() {
    return Ref::steal(xpy.PyLong_FromUnsignedLong(xpy.PyThread_get_thread_ident()));
}

namespace {

Ref get_pid(ModuleState& /*m*/, PyObject* /*self*/, const Argument* /*args*/) {
    return new_int(xpy.cached_pid);
}

Ref get_thread_ident(ModuleState& /*m*/, PyObject* /*self*/, const Argument* /*args*/) {
    return thread_ident();
}

}  // namespace

const FunctionDecl kGetPid = {
    "_GetPid", {}, get_pid, "Returns this process's id, an int; a forked child gets its own."};

const FunctionDecl kGetThreadIdent = {
    "_GetThreadIdent", {}, get_thread_ident, "Returns the calling thread's id, an int."};
