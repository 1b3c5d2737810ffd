// Thread exit: the marker in a thread-state dictionary whose death discards the thread's record.
//
// The interpreter has no thread-exit hook. It does clear a thread's dictionary when it destroys the thread state, so
// a small object planted there dies exactly then, and the finaliser attached to it runs the clean-up on the exiting
// thread. Two sets of thread ids settle what can happen meanwhile: a record discarded by hand, an id given to a new
// thread, Python code that asks for the thread's record from within the clean-up.
//
// The clean-up is not the last that runs on the thread: `weakref.finalize` has to return from it, and the interpreter
// goes on clearing the thread state. So the capsule itself, as it dies, looks whether the dictionary that it was
// planted in is the thread state's no more, and notes that the thread is at its end.
#include "xoptmonitoring/records/thread_exit.h"

#include "xoptmonitoring/binding/xpy_layouts.h"
#include "xoptmonitoring/records/per_thread.h"
#include "xoptmonitoring/records/registry_lock.h"
#include "xoptmonitoring/records/tracing.h"
#include "xoptmonitoring/records/tss_cache.h"
#include "xoptmonitoring/runtime/handled_exception.h"

namespace thread_exit {
namespace {

using Data = CleanupSupportData;
using ThreadClassData = PerThreadClassData;

constexpr FieldDecl kFields[] = {
    {"fPerThread", FieldType::Object, offsetof(Data, fPerThread), 0,
     "The CPerThread that this object cleans up; None once cleared."},
    {"_fFinalizer", FieldType::Object, offsetof(Data, _fFinalizer), 0,
     "The weakref.finalize of the thread's capsule; None while no capsule is planted."},
};

/// What a capsule knows of the place it was planted in; all zero in one that was not.
struct CapsuleData {
    const PyObject* dict;  ///< borrowed, and only compared
    std::uint64_t thread_state_id;
};

/// The id of the thread state whose end has begun on this native thread, or 0. The interpreter gives no id twice.
constinit thread_local std::uint64_t ended_thread_state_id = 0;

/// Whether the calling thread is discarding its record, and raises no events.
constinit thread_local bool is_inside_clean_up = false;

/// A number of its own for each native thread that asks. The interpreter's id of a thread is given again once the
/// thread has ended, this one never.
std::uint64_t native_thread_number() {
    static std::uint64_t last = 0;
    constinit thread_local static std::uint64_t number = 0;
    if (number == 0) {
        number = __atomic_add_fetch(&last, 1, __ATOMIC_RELAXED);
    }
    return number;
}

/// 0 where the interpreter gives none.
std::uint64_t current_thread_state_id() {
    return xpy.PyThreadState_GetID != nullptr ? xpy.PyThreadState_GetID(xpy.PyThreadState_Get()) : 0;
}

/// The dictionary of the calling thread's state, borrowed, or null. Read in its place: the interpreter's function makes
/// one where there is none, and what it makes at a thread's end is never freed.
const PyObject* current_thread_state_dict() {
    if (tstate_dict_offset == -1) {
        return xpy.PyThreadState_GetDict();
    }
    return *XPy_GetFieldAddress<PyObject*>(xpy.PyThreadState_Get(), tstate_dict_offset);
}

Data& data(PyObject* self) {
    return instance_data_as<Data>(self);
}

/// Whether an object is an instance of a class made from this declaration, or of one that extends it: its class has the
/// declaration's metaclass, which nothing else has. The class-level fields say nothing, since anybody may fill them.
bool has_metaclass(PyObject* object, PyObject* metaclass) {
    return as_object(type_of(as_object(type_of(object)))) == metaclass;
}

bool is_own(const ModuleState& m, PyObject* object) {
    return has_metaclass(object, m.types.CCleanupSupport_class);
}

/// Data of `object`, or null with TypeError set; also for an object that Python code has put into a registry, or that a
/// class has made which it has put into the place of this one.
Data* checked_data(const ModuleState& m, PyObject* object) {
    if (!is_own(m, object)) {
        raise_expected_instance("_CCleanupSupport", object);
        return nullptr;
    }
    return &data(object);
}

/// `self._fFinalizer.detach()` where a capsule is planted: it may live on, but its death triggers nothing any more.
bool detach_finalizer(ModuleState& m, PyObject* self) {
    const Ref finalizer = load_field(self, data(self)._fFinalizer);
    if (!finalizer) {
        return false;
    }
    return finalizer.get() == none() || call_method(finalizer.get(), m.names.detach);
}

bool _InvalidateCapsule(ModuleState& m, PyObject* self) {
    if (!detach_finalizer(m, self)) {
        return false;
    }
    store_field(self, data(self)._fFinalizer, new_none());
    return true;
}

/// Failing to disarm is no failure of clearing.
void Clear(ModuleState& m, PyObject* self, bool invalidate_capsule) {
    if (invalidate_capsule && !_InvalidateCapsule(m, self)) {
        xpy.PyErr_Clear();
    }
    store_field(self, data(self).fPerThread, new_none());
    store_field(self, data(self)._fFinalizer, new_none());
}

bool is_instance_of_capsule(ModuleState& m, PyObject* object, int* answer) {
    const Ref capsule_class = per_thread::class_slot(m, &ThreadClassData::_CCapsule);
    *answer = capsule_class ? is_instance(object, capsule_class.get()) : -1;
    return *answer >= 0;
}

/// Pops `key` from a registry where it maps to `value`.
bool pop_if_same(ModuleState& m, PyObject* ThreadClassData::*slot, PyObject* key, PyObject* value) {
    const Ref registry = per_thread::class_slot(m, slot);
    const Ref found = registry ? dict_get(registry.get(), key, m.names.get) : Ref();
    if (!found) {
        return false;
    }
    return found.get() != value || dict_pop(registry.get(), key, m.names.pop);
}

bool note_clean_up(ModuleState& m, PyObject* thread_id) {
    const Ref ids = per_thread::class_slot(m, &ThreadClassData::_fCleanedUpThreadIds);
    return ids && call_method(ids.get(), m.names.add, thread_id);
}

/// The part of the clean-up under the registry lock: a record already replaced by a newer one for a reused id stays.
bool leave_registries(ModuleState& m, PyObject* self, PyObject* thread_id, PyObject* per_thread) {
    Ref finalizer;  // dropped after the lock
    RegistryLock lock(m);
    if (!lock.is_entered() || !pop_if_same(m, &ThreadClassData::_fPerThreadDict, thread_id, per_thread)) {
        return false;
    }
    finalizer = peek_slot(self, data(self)._fFinalizer);
    store_field(self, data(self)._fFinalizer, new_none());
    return pop_if_same(m, &ThreadClassData::_fCleanupSupportByThreadId, thread_id, self) && lock.release();
}

bool clean_up(ModuleState& m, PyObject* self) {
    const Ref per_thread = load_field(self, data(self).fPerThread);
    if (!per_thread || per_thread.get() == none()) {
        return static_cast<bool>(per_thread);
    }
    const PerThreadData* record = per_thread::checked_data(m, per_thread.get());
    const Ref thread_id = record != nullptr ? load_field(per_thread.get(), record->fThreadId) : Ref();
    if (!thread_id || !note_clean_up(m, thread_id.get()) ||
        !leave_registries(m, self, thread_id.get(), per_thread.get())) {
        return false;
    }
    per_thread::_Clear(per_thread.get());
    return true;
}

/// `traceback.print_exc()` while the pending exception is the handled one: a finaliser must not raise.
void print_and_swallow(ModuleState& m) {
    const HandledException handled(Ref::steal(xpy.PyErr_GetRaisedException()));
    const Ref traceback = load_global(m, m.globals.traceback);
    if (!traceback || !call_method(traceback.get(), m.names.print_exc)) {
        xpy.PyErr_Clear();
    }
}

/// The clean-up between its notes: the thread is inside it, and raises no events. What fails is printed, and the rest
/// is done all the same; a record that stayed would be met by the next thread of this id.
bool clean_up_noted(ModuleState& m, PyObject* self) {
    const Ref current_thread_id = thread_ident();
    const Ref active =
        current_thread_id ? per_thread::class_slot(m, &ThreadClassData::_fDestructorActiveThreadIds) : Ref();
    // Looked up before: there may be no memory left for it at the end, and a note that stays would keep the next
    // thread of this id from ever having a record.
    const Ref discard = active ? get_attr(active.get(), m.names.discard) : Ref();
    if (!discard || !call_method(active.get(), m.names.add, current_thread_id.get())) {
        return false;
    }
    TracingLevel before = -1;
    const bool is_quiet = enter_tracing(m, before);
    if (!is_quiet) {
        print_and_swallow(m);
    }
    is_inside_clean_up = true;
    if (!clean_up(m, self)) {
        print_and_swallow(m);
    }
    is_inside_clean_up = false;
    if (is_quiet && !leave_tracing(m, before)) {
        print_and_swallow(m);
    }
    return static_cast<bool>(call(discard.get(), current_thread_id.get()));
}

/// The finaliser's callback, on the exiting thread while its thread state is being cleared. Raises nothing.
void __CapsuleDestructor(ModuleState& m, PyObject* self) {
    if (!clean_up_noted(m, self)) {
        print_and_swallow(m);
    }
}

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

constexpr ParamDecl kInitParams[] = {{"per_thread"}};
constexpr ParamDecl kClearParams[] = {{"invalidate_capsule", ValueType::Truth, Default::True}};

constexpr FunctionDecl kCleanupMethods[] = {
    {"__init__", kInitParams,
     [](ModuleState& /*m*/, PyObject* self, const Argument* args) {
         store_field(self, data(self).fPerThread, Ref::share(args[0].object));
         store_field(self, data(self)._fFinalizer, new_none());
         __atomic_store_n(&data(self).armed_on, 0, __ATOMIC_RELAXED);
         return new_none();
     },
     "Makes the unarmed clean-up of the record `per_thread`.", Binding::Instance},
    {"Clear", kClearParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         Clear(m, self, args[0].truth != 0);
         return new_none();
     },
     "Disarms the clean-up and lets go of its record; where `invalidate_capsule` is true, a planted capsule's death\n"
     "triggers nothing any more. Returns None.",
     Binding::Instance},
    {"SetCapsuleInThreadStateDict",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) {
         return none_or_error(SetCapsuleInThreadStateDict(m, self));
     },
     "Plants a capsule in the calling thread's dictionary, which must be that of the record's thread. Returns None.",
     Binding::Instance},
    {"_InvalidateCapsule",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) {
         return none_or_error(_InvalidateCapsule(m, self));
     },
     "Makes the death of a planted capsule trigger nothing any more. Returns None.",
     Binding::Instance},
    {"_IsCapsuleDestructorBeingInvoked",
     {},
     [](ModuleState& m, PyObject* /*cls*/, const Argument* /*args*/) {
         const int invoked = _IsCapsuleDestructorBeingInvoked(m);
         return invoked < 0 ? Ref() : new_bool(invoked != 0);
     },
     "Returns whether the calling thread is inside its own clean-up, a bool.",
     Binding::Class},
    {"_CCleanupSupport__CapsuleDestructor",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) {
         __CapsuleDestructor(m, self);
         return new_none();
     },
     "Discards the record, on the exiting thread; the finaliser of the capsule calls it. Returns None. Exceptions are\n"
     "printed and swallowed.",
     Binding::Instance},
};

constexpr ClassDecl kCapsuleClass = {
    NESTED_CLASS_NAMES(CPerThread, _CCapsule),
    "The marker in a thread-state dictionary: it can be weakly referenced, and nothing else.",
    sizeof(CapsuleData),
    {},
    sizeof(ClassRecord),
    {},
    {},
    true};

constexpr ClassDecl kCleanupSupportClass = {NESTED_CLASS_NAMES(CPerThread, _CCleanupSupport),
                                            "What discards a thread's record when the thread ends.",
                                            sizeof(Data),
                                            kFields,
                                            sizeof(ClassRecord),
                                            {},
                                            kCleanupMethods};

/// Tells the capsule where it is being planted; nothing where that is not the thread state's own dictionary.
void note_place(const ModuleState& m, PyObject* capsule, PyObject* dict) {
    const bool is_thread_states = xpy.PyThreadState_GetDict() == dict && current_thread_state_dict() == dict;
    if (is_thread_states && has_metaclass(capsule, m.types.CCapsule_class)) {
        instance_data_as<CapsuleData>(capsule) = {dict, current_thread_state_id()};
    }
}

/// Comes before the weak references to the capsule are called, and so before the clean-up. The dictionary still lies
/// where it was while it is being cleared, so no other one can be in its place.
void finalize_capsule(PyObject* self) {
    const CapsuleData& capsule = instance_data_as<CapsuleData>(self);
    const bool is_thread_states =
        capsule.dict != nullptr && capsule.thread_state_id != 0 && capsule.thread_state_id == current_thread_state_id();
    if (is_thread_states && current_thread_state_dict() != capsule.dict) {
        ended_thread_state_id = capsule.thread_state_id;
        tss_cache::Clear();
    }
    generated::Class<kCapsuleClass>::finalize(self);
}

}  // namespace

bool is_at_its_end() {
    return XPY_UNLIKELY(ended_thread_state_id != 0) && ended_thread_state_id == current_thread_state_id();
}

bool is_silent_at_its_end() {
    return is_at_its_end() && !is_inside_clean_up;
}

Ref create_capsule_class(ModuleState& m) {
    return create_class(m, blueprint<kCapsuleClass>(finalize_capsule), m.types.CCapsule_class);
}

Ref create_cleanup_support_class(ModuleState& m) {
    return create_class(m, blueprint<kCleanupSupportClass>(), m.types.CCleanupSupport_class);
}

Ref new_cleanup_support(ModuleState& m, PyObject* per_thread) {
    const Ref cls = per_thread::class_slot(m, &ThreadClassData::_CCleanupSupport);
    Ref cleanup_support = cls ? call(cls.get(), per_thread) : Ref();
    return cleanup_support && checked_data(m, cleanup_support.get()) != nullptr ? std::move(cleanup_support) : Ref();
}

namespace {

/// A new capsule's finaliser, which runs the clean-up.
Ref watch(ModuleState& m, PyObject* self, PyObject* capsule) {
    const Ref weakref = load_global(m, m.globals.weakref);
    const Ref destructor = weakref ? get_attr(self, m.names._CCleanupSupport__CapsuleDestructor) : Ref();
    Ref finalizer = destructor ? call_method(weakref.get(), m.names.finalize, capsule, destructor.get()) : Ref();
    // Not at interpreter exit, where weakref would run it while the thread lives on: the next event would make a new
    // record with a new finaliser, and so on without end.
    if (!finalizer || xpy.PyObject_SetAttr(finalizer.get(), m.names.atexit, xpy._Py_FalseStruct) != 0) {
        return {};
    }
    return finalizer;
}

/// Puts the capsule into the dictionary. One that is there already goes without running this object's clean-up.
bool plant(ModuleState& m, PyObject* self, PyObject* dict, PyObject* capsule, Ref finalizer) {
    const Ref key = load_global(m, m.globals._gThreadStateDictKey);
    const Ref existing = key ? dict_get(dict, key.get(), m.names.get) : Ref();
    int is_capsule = 0;
    if (!existing || !is_instance_of_capsule(m, existing.get(), &is_capsule) ||
        (is_capsule != 0 && !detach_finalizer(m, self))) {
        return false;
    }
    note_place(m, capsule, dict);
    __atomic_store_n(&data(self).armed_on, native_thread_number(), __ATOMIC_RELAXED);
    store_field(self, data(self)._fFinalizer, std::move(finalizer));
    return dict_set(dict, key.get(), capsule);
}

}  // namespace

bool SetCapsuleInThreadStateDict(ModuleState& m, PyObject* cleanup_support) {
    PyObject* self = cleanup_support;
    if (checked_data(m, self) == nullptr) {
        return false;
    }
    if (is_at_its_end()) {
        return true;  // the dictionary is gone, and a new one would never be cleared
    }
    const Ref thread_local_dict = _GetThreadStateDict(m);
    if (!thread_local_dict || thread_local_dict.get() == none()) {
        return static_cast<bool>(thread_local_dict);
    }
    const Ref capsule_class = per_thread::class_slot(m, &ThreadClassData::_CCapsule);
    const Ref capsule = capsule_class ? call(capsule_class.get()) : Ref();
    Ref finalizer = capsule ? watch(m, self, capsule.get()) : Ref();
    // The look at what is planted already comes after that: where weakref's own code is monitored, its first event has
    // asked for this very record, and armed it.
    return finalizer && plant(m, self, thread_local_dict.get(), capsule.get(), std::move(finalizer));
}

int is_armed(ModuleState& m, PyObject* cleanup_support) {
    const Data* support = checked_data(m, cleanup_support);
    const Ref finalizer = support != nullptr ? load_field(cleanup_support, support->_fFinalizer) : Ref();
    if (!finalizer) {
        return -1;
    }
    return finalizer.get() != none() ? 1 : 0;
}

bool is_left_behind(const ModuleState& m, PyObject* cleanup_support) {
    if (!is_own(m, cleanup_support)) {
        return false;
    }
    const std::uint64_t armed_on = __atomic_load_n(&data(cleanup_support).armed_on, __ATOMIC_RELAXED);
    return armed_on != 0 && armed_on != native_thread_number();
}

bool disarm(ModuleState& m, PyObject* cleanup_support) {
    if (!is_own(m, cleanup_support)) {
        return static_cast<bool>(call_method(cleanup_support, m.names.Clear));
    }
    Clear(m, cleanup_support, true);
    return true;
}

void disarm_own(ModuleState& m, PyObject* cleanup_support) {
    if (is_own(m, cleanup_support)) {
        Clear(m, cleanup_support, true);
    }
}

int _IsCapsuleDestructorBeingInvoked(ModuleState& m) {
    const Ref current = thread_ident();
    const Ref active = current ? per_thread::class_slot(m, &ThreadClassData::_fDestructorActiveThreadIds) : Ref();
    return active ? contains(active.get(), current.get()) : -1;
}

Ref _GetThreadStateDict(ModuleState& m) {
    const Ref support = load_global(m, m.globals.dbgpythonapi);
    const Ref address = support ? call_method(support.get(), m.names.PyThreadState_GetDict_as_void_ptr) : Ref();
    return address ? call_method(support.get(), m.names.VoidPtrAsObject, address.get()) : Ref();
}

}  // namespace thread_exit

const FunctionDecl kGetThreadStateDict = {
    "_GetThreadStateDict",
    {},
    [](ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) { return thread_exit::_GetThreadStateDict(m); },
    "Returns the calling thread's thread-state dictionary, or None."};
