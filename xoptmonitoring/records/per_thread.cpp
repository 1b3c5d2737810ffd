// CPerThread: the record of one thread, its registry and its callbacks.
//
// The calling thread's own record is found through the storage cache; the registry, a dictionary by thread id, is
// for every other question. `_fRegistryLock` is held around changes of the three registry containers and never across
// a callback; a single dictionary read does without.
#include "xoptmonitoring/records/per_thread.h"

#include "xoptmonitoring/records/registry_lock.h"
#include "xoptmonitoring/records/thread_exit.h"
#include "xoptmonitoring/records/tracing.h"
#include "xoptmonitoring/records/tss_cache.h"

namespace per_thread {
namespace {

using Data = PerThreadData;
using ClassData = PerThreadClassData;

constexpr Py_ssize_t kPolicyUnknown = -1;
constexpr Py_ssize_t kPolicyDebugged = 1;

#define FIELD(name, type, doc) \
    { #name, FieldType::type, offsetof(Data, name), 0, doc }
constexpr FieldDecl kFields[] = {
    FIELD(fThreadId, Object, "The thread's id, an int: the key of the registry."),
    FIELD(fOuterMostFrame, Object, "The outermost frame that the debugger tracks; set by the tracer."),
    FIELD(fSteppingEventsNeeded, Object, "True while the thread is stepping and needs line events."),
    FIELD(fStopAtNextLine, Object, "True where the thread is to stop at its next line."),
    FIELD(fStopFrame, Object, "The frame in which a step is to stop, or None."),
    FIELD(fDontStopLinenoRange, Object, "The lines not to stop in, or None."),
    FIELD(fReturnFrame, Object, "The frame whose return is awaited, or None."),
    FIELD(fDebugPolicy, Int, "The thread's debug policy: -1 not known yet, 0 not debugged, 1 debugged."),
    FIELD(fSuspendLock, Object, "The lock on which the thread waits while it is suspended."),
    FIELD(fCheckSuspendLock, Object, "True where the thread has to pass through fSuspendLock at its next event."),
    FIELD(fThreadName, Object, "The thread's name, or None while not known."),
    FIELD(fExitingWithException, Object, "True while the thread unwinds with an exception."),
    FIELD(fSteppingCodeObjects, Object, "set of the code objects in which this thread enabled stepping events."),
};
#undef FIELD

#define FIELD(name, type, doc) \
    { #name, FieldType::type, offsetof(ClassData, name), 0, doc }
constexpr FieldDecl kClassFields[] = {
    FIELD(_CCapsule, Object, "The class of the marker in a thread-state dictionary."),
    FIELD(_CCleanupSupport, Object, "The class of what cleans up a thread's record."),
    FIELD(_fPerThreadDict, Dict, "dict: thread id -> CPerThread."),
    FIELD(_fDebugPolicyCallback, Object, "Callable that is given a thread id and returns its policy, or None."),
    FIELD(_fNewPerThreadCreatedCallback, Object, "Callable that is given each new record, or None."),
    FIELD(_fGetThreadNameCallback, Object, "Callable that is given a record and returns the thread's name, or None."),
    FIELD(_fRegistryLock, Object, "threading.Lock around changes of the registries."),
    FIELD(_fCleanupSupportByThreadId, Dict, "dict: thread id -> _CCleanupSupport."),
    FIELD(_fCleanedUpThreadIds, Object, "set of the ids of threads whose records were discarded at their exit."),
    FIELD(_fDestructorActiveThreadIds, Object, "set of the ids of threads inside their clean-up."),
};
#undef FIELD

Ref new_threading_lock(ModuleState& m) {
    const Ref threading = load_global(m, m.globals.threading);
    return threading ? call_method(threading.get(), m.names.Lock) : Ref();
}

/// Truth of `left == right`: 1, 0, or -1.
int equal(PyObject* left, PyObject* right) {
    return compare(left, right, Py_EQ);
}

/// The same test against the calling thread's id.
int is_current_thread(PyObject* thread_id) {
    const Ref current = thread_ident();
    return current ? equal(thread_id, current.get()) : -1;
}

/// Enters record and clean-up into the registries, under their lock.
bool enter_registries(ModuleState& m, PyObject* thread_id, PyObject* per_thread, PyObject* cleanup_support) {
    const Ref records = class_slot(m, &ClassData::_fPerThreadDict);
    const Ref supports = records ? class_slot(m, &ClassData::_fCleanupSupportByThreadId) : Ref();
    const int is_current = supports ? is_current_thread(thread_id) : -1;
    if (is_current < 0) {
        return false;
    }
    // A record that is replaced, for a reused id, goes after the lock: dropping it can run Python code.
    Ref replaced;
    Ref replaced_support;
    RegistryLock lock(m);
    replaced = lock.is_entered() ? dict_get(records.get(), thread_id, m.names.get) : Ref();
    replaced_support = replaced ? dict_get(supports.get(), thread_id, m.names.get) : Ref();
    if (!replaced_support || !dict_set(records.get(), thread_id, per_thread) ||
        !dict_set(supports.get(), thread_id, cleanup_support) || !lock.release()) {
        return false;
    }
    // Its thread is to meet the record that everybody else knows now.
    PyTypeObject* cls = this_class(m);
    if (cls != nullptr && is_current == 0 && is_instance_of(replaced.get(), cls)) {
        tss_cache::Detach(data(replaced.get()));
    }
    return cls != nullptr;
}

bool _RegisterNewPerThread(ModuleState& m, PyObject* per_thread) {
    const Ref cleanup_support = thread_exit::new_cleanup_support(m, per_thread);
    const Data* record = cleanup_support ? checked_data(m, per_thread) : nullptr;
    const Ref thread_id = record != nullptr ? load_field(per_thread, record->fThreadId) : Ref();
    if (!thread_id || !enter_registries(m, thread_id.get(), per_thread, cleanup_support.get())) {
        return false;
    }
    // Only the thread itself can reach its own thread-state dictionary.
    const int is_current = is_current_thread(thread_id.get());
    if (is_current < 0 || (is_current != 0 && !thread_exit::SetCapsuleInThreadStateDict(m, cleanup_support.get()))) {
        return false;
    }
    const Ref callback = class_slot(m, &ClassData::_fNewPerThreadCreatedCallback);
    return callback && call_untraced(m, callback.get(), per_thread);
}

bool initialise(ModuleState& m, PyObject* self, PyObject* thread_id) {
    Data& record = data(self);
    const auto set = [self](PyObject*& slot, Ref value) { store_field(self, slot, std::move(value)); };
    set(record.fThreadId, Ref::share(thread_id));
    set(record.fOuterMostFrame, new_none());
    set(record.fSteppingEventsNeeded, new_bool(false));
    set(record.fStopAtNextLine, new_bool(false));
    set(record.fStopFrame, new_none());
    set(record.fDontStopLinenoRange, new_none());
    set(record.fReturnFrame, new_none());
    __atomic_store_n(&record.fDebugPolicy, kPolicyUnknown, __ATOMIC_RELAXED);
    Ref lock = new_threading_lock(m);
    if (!lock) {
        return false;
    }
    set(record.fSuspendLock, std::move(lock));
    set(record.fCheckSuspendLock, new_bool(false));
    set(record.fThreadName, new_none());
    set(record.fExitingWithException, new_bool(false));
    Ref code_objects = Ref::steal(xpy.PySet_New(nullptr));
    if (!code_objects) {
        return false;
    }
    set(record.fSteppingCodeObjects, std::move(code_objects));
    tss_cache::Detach(record);
    return _RegisterNewPerThread(m, self);
}

/// What the registries held of a discarded thread; each may be None.
struct Discarded {
    Ref per_thread;
    Ref cleanup_support;
};

bool leave_registries(ModuleState& m, PyObject* thread_id, Discarded* discarded) {
    const Ref records = class_slot(m, &ClassData::_fPerThreadDict);
    const Ref cleaned_up = records ? class_slot(m, &ClassData::_fCleanedUpThreadIds) : Ref();
    const Ref supports = cleaned_up ? class_slot(m, &ClassData::_fCleanupSupportByThreadId) : Ref();
    if (!supports) {
        return false;
    }
    RegistryLock lock(m);
    if (!lock.is_entered()) {
        return false;
    }
    discarded->per_thread = dict_pop(records.get(), thread_id, m.names.pop);
    if (!discarded->per_thread || !call_method(cleaned_up.get(), m.names.discard, thread_id)) {
        return false;
    }
    discarded->cleanup_support = dict_pop(supports.get(), thread_id, m.names.pop);
    return discarded->cleanup_support && lock.release();
}

bool _DiscardPerThread(ModuleState& m, PyObject* thread_id) {
    Discarded discarded;
    if (!leave_registries(m, thread_id, &discarded)) {
        return false;
    }
    if (discarded.cleanup_support.get() != none() && !thread_exit::disarm(m, discarded.cleanup_support.get())) {
        return false;
    }
    if (discarded.per_thread.get() != none()) {
        Data* record = checked_data(m, discarded.per_thread.get());
        if (record == nullptr) {
            return false;
        }
        tss_cache::Detach(*record);
    }
    return true;
}

/// Caches the calling thread's own record for as long as it is registered. Whoever takes a record out of the registry
/// detaches it afterwards, and so before this one where it is taken out while it is not stored yet: it would stay
/// cached, and its thread would be unknown to everybody else.
bool cache_own(ModuleState& m, PyObject* thread_id, PyObject* per_thread) {
    if (!tss_cache::Store(m, per_thread)) {
        return false;
    }
    const Ref records = class_slot(m, &ClassData::_fPerThreadDict);
    const Ref registered = records ? dict_get(records.get(), thread_id, m.names.get) : Ref();
    if (registered.get() != per_thread) {
        Data* record = checked_data(m, per_thread);
        if (record == nullptr) {
            return false;
        }
        tss_cache::Detach(*record);
    }
    return static_cast<bool>(registered);
}

/// The clean-up that is registered for a thread id, or None.
Ref support_for(ModuleState& m, PyObject* thread_id) {
    const Ref supports = class_slot(m, &ClassData::_fCleanupSupportByThreadId);
    return supports ? dict_get(supports.get(), thread_id, m.names.get) : Ref();
}

/// Arms the clean-up of a record that another thread made, now that its own thread asks, and caches the record.
bool adopt_by_own_thread(ModuleState& m, PyObject* thread_id, PyObject* per_thread, PyObject* cs) {
    if (cs != none()) {
        const int armed = thread_exit::is_armed(m, cs);
        if (armed < 0 || (armed == 0 && !thread_exit::SetCapsuleInThreadStateDict(m, cs))) {
            return false;
        }
    }
    return cache_own(m, thread_id, per_thread);
}

/// Whether a record may be made for a thread id that is not registered: 1; 0 while that thread is inside its own
/// clean-up; -1 with an exception set.
int may_create(ModuleState& m, PyObject* thread_id) {
    const Ref cleaned_up = class_slot(m, &ClassData::_fCleanedUpThreadIds);
    const int was_cleaned_up = cleaned_up ? contains(cleaned_up.get(), thread_id) : -1;
    if (was_cleaned_up <= 0) {
        return was_cleaned_up < 0 ? -1 : 1;
    }
    const int in_destructor = thread_exit::_IsCapsuleDestructorBeingInvoked(m);
    if (in_destructor != 0) {
        return in_destructor < 0 ? -1 : 0;
    }
    // The id was given to a new thread.
    return call_method(cleaned_up.get(), m.names.discard, thread_id) ? 1 : -1;
}

/// The same object where it is a record: Python code can fill the registry, and have the class make something else.
Ref checked_record(ModuleState& m, Ref per_thread) {
    PyTypeObject* cls = per_thread ? this_class(m) : nullptr;
    if (cls == nullptr) {
        return {};
    }
    if (!is_instance_of(per_thread.get(), cls)) {
        raise_expected("CPerThread", per_thread.get());
        return {};
    }
    return per_thread;
}

/// The registered record of the calling thread's id, made ready for this thread. None where there is none, or only that
/// of an ended thread, which is discarded.
Ref find_own(ModuleState& m, PyObject* thread_id, Ref per_thread) {
    const Ref cs = support_for(m, thread_id);
    if (!cs) {
        return {};
    }
    if (thread_exit::is_left_behind(m, cs.get())) {
        return _DiscardPerThread(m, thread_id) ? new_none() : Ref();
    }
    return adopt_by_own_thread(m, thread_id, per_thread.get(), cs.get()) ? std::move(per_thread) : Ref();
}

Ref find_or_create(ModuleState& m, PyObject* thread_id, bool for_current_thread, bool create_missing) {
    if (for_current_thread && thread_exit::is_at_its_end()) {
        return new_none();
    }
    const Ref records = class_slot(m, &ClassData::_fPerThreadDict);
    Ref per_thread = records ? dict_get(records.get(), thread_id, m.names.get) : Ref();
    if (per_thread && per_thread.get() != none()) {
        per_thread = checked_record(m, std::move(per_thread));
        if (per_thread && for_current_thread) {
            per_thread = find_own(m, thread_id, std::move(per_thread));
        }
    }
    if (!per_thread || per_thread.get() != none() || !create_missing) {
        return per_thread;
    }
    const int allowed = may_create(m, thread_id);
    if (allowed <= 0) {
        return allowed < 0 ? Ref() : new_none();
    }
    per_thread = checked_record(m, call(as_object(this_class(m)), thread_id));
    if (per_thread && for_current_thread && !cache_own(m, thread_id, per_thread.get())) {
        return {};
    }
    return per_thread;
}

Ref GetDebugPolicy(PyObject* self) {
    Py_ssize_t& policy = data(self).fDebugPolicy;
    const Py_ssize_t known = __atomic_load_n(&policy, __ATOMIC_ACQUIRE);
    if (known != kPolicyUnknown) {
        return new_int(known);
    }
    const Ref callback = load_class_slot(type_of(self), &ClassData::_fDebugPolicyCallback);
    if (!callback) {
        return {};
    }
    Py_ssize_t asked = kPolicyDebugged;
    if (callback.get() != none()) {
        const Ref thread_id = load_field(self, data(self).fThreadId);
        const Ref answer = thread_id ? call(callback.get(), thread_id.get()) : Ref();
        const Ref number = answer ? Ref::steal(xpy.PyNumber_Long(answer.get())) : Ref();
        if (!number || !to_ssize(number.get(), &asked)) {
            return {};
        }
    }
    __atomic_store_n(&policy, asked, __ATOMIC_RELEASE);
    return new_int(asked);
}

/// Makes every thread ask the policy callback again.
bool forget_policies(ModuleState& m, PyTypeObject* cls) {
    const Ref registry = load_class_slot(cls, &ClassData::_fPerThreadDict);
    const Ref records = registry ? values_snapshot(registry.get(), m.names.values) : Ref();
    if (!records) {
        return false;
    }
    const Py_ssize_t count = xpy.PyList_Size(records.get());
    for (Py_ssize_t index = 0; index < count; ++index) {
        Data* record = checked_data(m, xpy.PyList_GetItem(records.get(), index));
        if (record == nullptr) {
            return false;
        }
        __atomic_store_n(&record->fDebugPolicy, kPolicyUnknown, __ATOMIC_RELEASE);
    }
    return true;
}

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

/// Sets a callback by ordinary attribute assignment on the class.
Ref set_callback(PyObject* cls, const char* name, PyObject* callback) {
    return none_or_error(xpy.PyObject_SetAttrString(cls, name, callback) == 0);
}

constexpr ParamDecl kGetParams[] = {{"thread_id", ValueType::Object, Default::None},
                                    {"create", ValueType::Bool, Default::True}};
constexpr ParamDecl kRegisterParams[] = {{"per_thread"}};
constexpr ParamDecl kDiscardParams[] = {{"thread_id", ValueType::Integer}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}};
constexpr ParamDecl kNameCallbackParams[] = {{"get_thread_name_callback"}};
constexpr ParamDecl kPolicyCallbackParams[] = {{"thread_policy_callback"}};
constexpr ParamDecl kInitParams[] = {{"thread_id"}};

constexpr FunctionDecl kMethods[] = {
    {"GetPerThread", kGetParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return GetPerThread(m, args[0].object, args[1].object == xpy._Py_TrueStruct);
     },
     "Returns the record of the thread `thread_id` (an int; None is the calling thread). A missing one is made and\n"
     "announced where `create` (a bool) is true; else None is returned, as it is while the thread is inside its own\n"
     "clean-up. Raises what the callbacks raise.",
     Binding::Class},
    {"_RegisterNewPerThread", kRegisterParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return none_or_error(_RegisterNewPerThread(m, args[0].object));
     },
     "Enters the record `per_thread` into the registries, arms its clean-up where it is the calling thread's, and\n"
     "announces it. Returns None. Raises what the new-record callback raises.",
     Binding::Class},
    {"_DiscardPerThread", kDiscardParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         const Ref thread_id = new_int(args[0].integer);
         return none_or_error(thread_id && _DiscardPerThread(m, thread_id.get()));
     },
     "Takes the thread `thread_id` (an int) out of the registries and disarms its clean-up. Returns None.",
     Binding::Class},
    {"SetNewPerThreadCreatedCallback", kCallbackParams,
     [](ModuleState& /*m*/, PyObject* cls, const Argument* args) {
         return set_callback(cls, "_fNewPerThreadCreatedCallback", args[0].object);
     },
     "Sets the callable that is given each new record, untraced; `callback` None switches that off. Returns None.",
     Binding::Class},
    {"SetGetThreadNameCallback", kNameCallbackParams,
     [](ModuleState& /*m*/, PyObject* cls, const Argument* args) {
         return set_callback(cls, "_fGetThreadNameCallback", args[0].object);
     },
     "Sets the callable that is given a record and returns the thread's name; `get_thread_name_callback` None\n"
     "switches that off. Returns None.",
     Binding::Class},
    {"SetDebugPolicyCallback", kPolicyCallbackParams,
     [](ModuleState& m, PyObject* cls, const Argument* args) {
         const bool set = static_cast<bool>(set_callback(cls, "_fDebugPolicyCallback", args[0].object));
         return none_or_error(set && forget_policies(m, as_type(cls)));
     },
     "Sets the callable that is given a thread id and returns its debug policy, an int; `thread_policy_callback` None\n"
     "makes every thread's policy 1. Every thread is asked for anew. Returns None.",
     Binding::Class},
    {"GetAllPerThreads",
     {},
     [](ModuleState& m, PyObject* cls, const Argument* /*args*/) {
         const Ref registry = load_class_slot(as_type(cls), &ClassData::_fPerThreadDict);
         return registry ? values_snapshot(registry.get(), m.names.values) : Ref();
     },
     "Returns a new list of all records.",
     Binding::Class},
    {"__init__", kInitParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return none_or_error(initialise(m, self, args[0].object));
     },
     "Makes, registers and announces the record of the thread `thread_id` (an int).", Binding::Instance},
    {"_Clear",
     {},
     [](ModuleState& /*m*/, PyObject* self, const Argument* /*args*/) {
         _Clear(self);
         return new_none();
     },
     "Drops everything that the record holds but the thread's id and its debug policy. Returns None.",
     Binding::Instance},
    {"GetDebugPolicy",
     {},
     [](ModuleState& /*m*/, PyObject* self, const Argument* /*args*/) { return GetDebugPolicy(self); },
     "Returns the thread's debug policy, an int; asks the callback where it is not known. Raises what the callback\n"
     "raises.",
     Binding::Instance},
    {"FindThreadName",
     {},
     [](ModuleState& /*m*/, PyObject* self, const Argument* /*args*/) { return FindThreadName(self); },
     "Returns the thread's name; asks the callback where it is not known. None where no name is to be had.",
     Binding::Instance},
};

constexpr ClassDecl kClass = {
    CLASS_NAMES(CPerThread),
    "The record of one thread: its stepping state, its debug policy and the lock that suspends it.",
    sizeof(Data),
    kFields,
    sizeof(ClassData),
    kClassFields,
    kMethods};

bool fill_class_fields(ModuleState& m, PyTypeObject* cls) {
    const auto set = [cls](PyObject* ClassData::*slot, Ref value) {
        const bool made = static_cast<bool>(value);
        store_class_slot(cls, slot, std::move(value));
        return made;
    };
    return set(&ClassData::_CCapsule, thread_exit::create_capsule_class(m)) &&
           set(&ClassData::_CCleanupSupport, thread_exit::create_cleanup_support_class(m)) &&
           set(&ClassData::_fPerThreadDict, Ref::steal(xpy.PyDict_New())) &&
           set(&ClassData::_fDebugPolicyCallback, new_none()) &&
           set(&ClassData::_fNewPerThreadCreatedCallback, new_none()) &&
           set(&ClassData::_fGetThreadNameCallback, new_none()) &&
           set(&ClassData::_fRegistryLock, new_threading_lock(m)) &&
           set(&ClassData::_fCleanupSupportByThreadId, Ref::steal(xpy.PyDict_New())) &&
           set(&ClassData::_fCleanedUpThreadIds, Ref::steal(xpy.PySet_New(nullptr))) &&
           set(&ClassData::_fDestructorActiveThreadIds, Ref::steal(xpy.PySet_New(nullptr)));
}

/// Calls `operation(value)` for each value in a list. False with an exception set, also where there is no list.
template <class Operation>
bool for_each_of(const Ref& values, Operation operation) {
    if (!values) {
        return false;
    }
    const Py_ssize_t count = xpy.PyList_Size(values.get());
    for (Py_ssize_t index = 0; index < count; ++index) {
        const Ref value = Ref::share(xpy.PyList_GetItem(values.get(), index));
        if (!operation(value.get())) {
            return false;
        }
    }
    return true;
}

/// Calls `operation(value)` for each value of a registry, over a snapshot.
template <class Operation>
bool for_each_value(ModuleState& m, PyObject* ClassData::*slot, Operation operation) {
    const Ref registry = class_slot(m, slot);
    return registry && for_each_of(values_snapshot(registry.get(), m.names.values), operation);
}

bool clear_registry(ModuleState& m, PyObject* ClassData::*slot) {
    const Ref registry = class_slot(m, slot);
    return registry && call_method(registry.get(), m.names.clear);
}

/// Takes the values of these keys out of a registry, and calls `operation(value)` for each once it is out.
template <class Operation>
bool pop_each(ModuleState& m, PyObject* registry, PyObject* keys, Operation operation) {
    const Py_ssize_t count = xpy.PyList_Size(keys);
    for (Py_ssize_t index = 0; index < count; ++index) {
        const Ref value = dict_pop(registry, xpy.PyList_GetItem(keys, index), m.names.pop);
        if (!value || (value.get() != none() && !operation(value.get()))) {
            return false;
        }
    }
    return true;
}

/// Empties a registry, as pop_each(): of what threads enter meanwhile, too, nothing goes unseen.
template <class Operation>
bool drain(ModuleState& m, PyObject* ClassData::*slot, Operation operation) {
    const Ref registry = class_slot(m, slot);
    if (registry && type_of(registry.get()) != xpy.PyDict_Type_ptr) {
        // An instance of a subclass empties itself in its own way; so what has been entered is looked at before.
        return for_each_of(Ref::steal(xpy.PyDict_Values(registry.get())), operation) &&
               call_method(registry.get(), m.names.clear);
    }
    // More passes than threads could need that enter their records and enter them again.
    for (int passes_left = 100; registry && passes_left > 0; --passes_left) {
        const Ref keys = Ref::steal(xpy.PyDict_Keys(registry.get()));
        if (!keys || xpy.PyList_Size(keys.get()) == 0) {
            return static_cast<bool>(keys);
        }
        if (!pop_each(m, registry.get(), keys.get(), operation)) {
            return false;
        }
    }
    // What is left now is not to be had by its key: its hash has changed, say.
    return registry && call_method(registry.get(), m.names.clear);
}

/// Takes the calling thread's own marker out of its dictionary, while its clean-up is still armed.
bool drop_own_capsule(ModuleState& m) {
    const Ref thread_state_dict = thread_exit::_GetThreadStateDict(m);
    if (!thread_state_dict || thread_state_dict.get() == none()) {
        return static_cast<bool>(thread_state_dict);
    }
    const Ref key = load_global(m, m.globals._gThreadStateDictKey);
    return key && dict_pop(thread_state_dict.get(), key.get(), m.names.pop);
}

}  // namespace

void finalize(PyObject* self) {
    // The cache borrows the record and would keep pointing at freed memory.
    tss_cache::retire(data(self));
    finalize_members(self, object_type, instance_data(self), kFields,
                     "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
}

void free_instance(void* self) {
    tss_cache::retire(data(static_cast<PyObject*>(self)));
    xpy.PyObject_GC_Del(self);
}

Ref GetPerThread(ModuleState& m, PyObject* thread_id, bool create_missing) {
    if (thread_id != none()) {
        const int for_current_thread = is_current_thread(thread_id);
        return for_current_thread < 0 ? Ref() : find_or_create(m, thread_id, for_current_thread != 0, create_missing);
    }
    Ref cached = tss_cache::Get(m);
    if (!cached || cached.get() != none()) {
        return cached;
    }
    const Ref current = thread_ident();
    return current ? find_or_create(m, current.get(), true, create_missing) : Ref();
}

Ref FindThreadName(PyObject* self) {
    Ref name = load_field(self, data(self).fThreadName);
    if (!name || name.get() != none()) {
        return name;
    }
    const Ref callback = load_class_slot(type_of(self), &ClassData::_fGetThreadNameCallback);
    if (!callback) {
        return {};
    }
    if (callback.get() == none()) {
        return name;
    }
    Ref found = call(callback.get(), self);
    if (found) {
        store_field(self, data(self).fThreadName, Ref::share(found.get()));
    }
    return found;
}

void _Clear(PyObject* self) {
    Data& record = data(self);
    tss_cache::Detach(record);
    const auto set = [self](PyObject*& slot, Ref value) { store_field(self, slot, std::move(value)); };
    set(record.fOuterMostFrame, new_none());
    set(record.fSteppingEventsNeeded, new_bool(false));
    set(record.fStopAtNextLine, new_bool(false));
    set(record.fStopFrame, new_none());
    set(record.fDontStopLinenoRange, new_none());
    set(record.fReturnFrame, new_none());
    set(record.fSuspendLock, new_none());
    set(record.fCheckSuspendLock, new_bool(false));
    set(record.fThreadName, new_none());
    set(record.fExitingWithException, new_bool(false));
    set(record.fSteppingCodeObjects, new_none());
}

bool replace_lost_lock(ModuleState& m) {
    const Ref lock = class_slot(m, &ClassData::_fRegistryLock);
    const Ref release = lock ? get_attr(lock.get(), m.names.release) : Ref();
    const Ref acquired = release ? call_method(lock.get(), m.names.acquire, xpy._Py_FalseStruct) : Ref();
    const int is_free = acquired ? xpy.PyObject_IsTrue(acquired.get()) : -1;
    if (is_free != 0) {
        return is_free > 0 && call(release.get());
    }
    Ref fresh = new_threading_lock(m);
    PyTypeObject* cls = fresh ? this_class(m) : nullptr;
    if (cls == nullptr) {
        return false;
    }
    store_class_slot(cls, &ClassData::_fRegistryLock, std::move(fresh));
    return true;
}

bool reset(ModuleState& m) {
    const auto detach = [&m](PyObject* per_thread) {
        Data* record = checked_data(m, per_thread);
        if (record != nullptr) {
            tss_cache::Detach(*record);
        }
        return record != nullptr;
    };
    const auto disarm = [&m](PyObject* cs) { return thread_exit::disarm(m, cs); };
    const auto disarm_own = [&m](PyObject* cs) {
        thread_exit::disarm_own(m, cs);
        return true;
    };
    if (!drop_own_capsule(m) || !for_each_value(m, &ClassData::_fPerThreadDict, detach)) {
        return false;
    }
    tss_cache::Clear();
    // Once more on their way out: threads that run meanwhile enter and store theirs.
    if (!drain(m, &ClassData::_fPerThreadDict, detach) ||
        !for_each_value(m, &ClassData::_fCleanupSupportByThreadId, disarm) ||
        !drain(m, &ClassData::_fCleanupSupportByThreadId, disarm_own) ||
        !clear_registry(m, &ClassData::_fCleanedUpThreadIds) ||
        !clear_registry(m, &ClassData::_fDestructorActiveThreadIds)) {
        return false;
    }
    PyTypeObject* cls = this_class(m);
    if (cls == nullptr) {
        return false;
    }
    store_class_slot(cls, &ClassData::_fDebugPolicyCallback, new_none());
    store_class_slot(cls, &ClassData::_fNewPerThreadCreatedCallback, new_none());
    store_class_slot(cls, &ClassData::_fGetThreadNameCallback, new_none());
    return true;
}

namespace {

PyObject* get_class(PyObject* self, void* /*closure*/) {
    return Ref::share(as_object(type_of(self))).release();
}

/// Another class may finalise otherwise. `object`'s own descriptor changes it all the same, where the layouts agree.
int refuse_class(PyObject* /*self*/, PyObject* /*value*/, void* /*closure*/) {
    xpy.PyErr_SetString(xpy.PyExc_TypeError, "the class of a CPerThread cannot be changed");
    return -1;
}

PyGetSetDef fixed_class = {"__class__", get_class, refuse_class, "The record's class, for good.", nullptr};

bool fix_class_of_instances(PyObject* cls) {
    const Ref descriptor = Ref::steal(xpy.PyDescr_NewGetSet(as_type(cls), &fixed_class));
    // Not by assignment, which would try to change the class's own class.
    PyObject* dict = *xpy._PyObject_GetDictPtr(cls);
    if (!descriptor || xpy.PyDict_SetItemString(dict, fixed_class.name, descriptor.get()) != 0) {
        return false;
    }
    xpy.PyType_Modified(as_type(cls));
    return true;
}

}  // namespace

Ref create(ModuleState& m) {
    ClassBlueprint plan = blueprint<kClass>(finalize);
    plan.instance.free = xpy.PyObject_GC_Del != nullptr ? free_instance : nullptr;
    Ref cls = create_class(m, plan, m.types.CPerThread_class);
    const bool made = cls && fix_class_of_instances(cls.get()) && fill_class_fields(m, as_type(cls.get()));
    return made ? std::move(cls) : Ref();
}

}  // namespace per_thread
