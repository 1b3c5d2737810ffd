// The callable that `instance.Callback` hands out.
//
// A method object would add a copy of the arguments to every event, and a built-in the interpreter's check of the
// recursion depth. This one has a vectorcall entry of its own and goes straight to the first stage. It behaves like a
// method otherwise: it shows its instance and its function, and compares by them.
#include "xoptmonitoring/callback/bound_callback.h"

#include "xoptmonitoring/callback/initial_callback.h"
#include "xoptmonitoring/callback/skip_determination.h"
#include "xoptmonitoring/records/code_extra.h"
#include "xoptmonitoring/runtime/arguments.h"

namespace {

using initial_callback::is_call_skipped;
using initial_callback::is_call_skipped_locally;
using initial_callback::is_line_skipped;
using initial_callback::is_line_skipped_locally;
using initial_callback::kind_of;

struct BoundCallbackData {
    vectorcallfunc vectorcall;
    PyObject* __self__;
    PyObject* function;
    /// The record in the class of `__self__`, which keeps it alive; its module state is null after teardown.
    const ClassRecord* class_record;
};

constexpr FieldDecl kFields[] = {
    {"__self__", FieldType::Object, offsetof(BoundCallbackData, __self__), kReadOnlyField,
     "The CInitialCallback whose first stage this is."},
    {"__func__", FieldType::Object, offsetof(BoundCallbackData, function), kReadOnlyField,
     "The function behind it: CInitialCallback.Callback."},
};

BoundCallbackData& data(PyObject* bound) {
    return instance_data_as<BoundCallbackData>(bound);
}

/// What a field holds now, to be compared, or used where something else keeps it: without a global lock another thread
/// may be finalising the callable.
PyObject* look_at(PyObject* const& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

/// Gives a callable another entry, which the interpreter may be reading on another thread.
void set_entry(PyObject* bound, vectorcallfunc entry) {
    __atomic_store_n(&data(bound).vectorcall, entry, __ATOMIC_RELEASE);
}

/// The interpreter's entry where the fast road cannot answer, and everybody else's. The interpreter holds no reference
/// to `bound` during the call, so nothing of it is read once the event is on its way.
PyObject* call_bound(PyObject* bound, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    const BoundCallbackData& callback = data(bound);
    Py_ssize_t nargs = vectorcall_nargs(nargsf);
    if ((nargs == 0 || kwnames != nullptr) && !bind_callback_arguments(args, &nargs, kwnames)) {
        return nullptr;
    }
    PyObject* self = look_at(callback.__self__);
    ModuleState* m = self != nullptr ? state_of(*callback.class_record) : nullptr;
    if (m == nullptr) {
        raise_unset();
        return nullptr;
    }
    return initial_callback::Callback(*m, self, args, nargs);
}

/// The interpreter's entry for LINE events where the fast road is open: nearly every such event ends here. A set of
/// breakpoints may hold objects whose comparison runs Python code, and that may unregister the callable.
PyObject* call_for_line(PyObject* bound, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    const auto& callback = plain::data<BoundCallbackData>(bound);
    const ModuleState* m = callback.class_record->m;
    const plain::Hold held(bound);
    if (XPY_UNLIKELY(vectorcall_nargs(nargsf) < 2 || kwnames != nullptr || m == nullptr)) {
        return call_bound(bound, args, nargsf, kwnames);
    }
    if (XPY_UNLIKELY(!is_line_skipped(*m, plain::data<InitialCallbackData>(callback.__self__), args))) {
        return call_bound(bound, args, nargsf, nullptr);
    }
    return none();  // immortal wherever monitoring exists, so a reference costs nothing
}

/// The same for the events that start or end a call, which need the thread's record. That comes first, since it is the
/// one thing here behind a call of the interpreter: what is read after it need not be saved and restored. No Python
/// code runs before the answer.
PyObject* call_for_call(PyObject* bound, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    if (XPY_UNLIKELY(vectorcall_nargs(nargsf) == 0 || kwnames != nullptr)) {
        return call_bound(bound, args, nargsf, kwnames);
    }
    const TssSlotRecord* slot_record = tss_cache::peek_slot_record();
    const auto& callback = plain::data<BoundCallbackData>(bound);
    const ModuleState* m = callback.class_record->m;
    if (XPY_UNLIKELY(slot_record == nullptr || m == nullptr)) {
        return call_bound(bound, args, nargsf, nullptr);
    }
    if (XPY_UNLIKELY(!is_call_skipped(*m, plain::data<InitialCallbackData>(callback.__self__), args, *slot_record))) {
        return call_bound(bound, args, nargsf, nullptr);
    }
    return none();
}

/// The rest of a noted call that the local road leaves undecided. The module state is null after teardown.
XPY_COLD PyObject* finish_in_full(ModuleState* m, PyObject* self, PyObject* const* args, std::size_t nargsf,
                                  CallInProgress& call) {
    PyObject* answer = nullptr;
    if (m != nullptr) {
        answer = initial_callback::Callback(*m, self, args, vectorcall_nargs(nargsf));
    } else {
        raise_unset();
    }
    local_state::end_call(call);
    return answer;
}

/// An event without a global lock. Whoever unregisters the callable meanwhile, another thread or what runs while a
/// breakpoint is compared, finds the note of this call when the callable is finalised, and leaves the instance with it.
/// `slot_record` is the thread's; null for a LINE event, which looks for it where it is needed. Not inlined, so that it
/// need not save registers for what its callers call.
template <bool kIsLine>
[[gnu::noinline]] PyObject* answer_locally(PyObject* bound, PyObject* const* args, std::size_t nargsf,
                                           [[maybe_unused]] TssSlotRecord* slot_record) {
    LocalState* local = local_state::current;
    CallInProgress* call = XPY_LIKELY(local != nullptr) ? local_state::room_for_call(*local) : nullptr;
    if (XPY_UNLIKELY(call == nullptr)) {
        return call_bound(bound, args, nargsf, nullptr);
    }
    if constexpr (!kIsLine) {
        tss_cache::begin_look(*slot_record);  // the call's own note comes with a fence for both
    }
    local_state::begin_call(*call, bound);
    // The note keeps the instance, and not the callable: that is not read again.
    const auto& callback = shared::data<BoundCallbackData>(bound);
    const ClassRecord* class_record = callback.class_record;
    PyObject* self = look_at(callback.__self__);
    ModuleState* m = self != nullptr ? state_of(*class_record) : nullptr;
    bool is_skipped = false;
    if (XPY_LIKELY(m != nullptr)) {
        const auto& first_stage = shared::data<InitialCallbackData>(self);
        if constexpr (kIsLine) {
            is_skipped = is_line_skipped_locally(*m, first_stage, args, *local, *call);
        } else {
            is_skipped = is_call_skipped_locally(*m, first_stage, args, *local, *slot_record);
        }
    }
    if constexpr (!kIsLine) {
        tss_cache::end_look(*slot_record);
    }
    if (XPY_UNLIKELY(!is_skipped)) {
        return finish_in_full(m, self, args, nargsf, *call);
    }
    local_state::end_call(*call);
    return none();
}

/// The interpreter's entry for LINE events without a global lock.
PyObject* call_locally_for_line(PyObject* bound, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    if (XPY_UNLIKELY(vectorcall_nargs(nargsf) < 2 || kwnames != nullptr)) {
        return call_bound(bound, args, nargsf, kwnames);
    }
    return answer_locally<true>(bound, args, nargsf, nullptr);
}

/// The way of a call in a thread without a record: it is noted all the same, and the entry for lines leaves it to the
/// careful road then.
XPY_COLD PyObject* call_without_slot_record(PyObject* bound, PyObject* const* args, std::size_t nargsf) {
    return call_locally_for_line(bound, args, nargsf, nullptr);
}

/// The same for the events that start or end a call. The thread's slot comes first here too.
PyObject* call_locally_for_call(PyObject* bound, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    if (XPY_UNLIKELY(vectorcall_nargs(nargsf) == 0 || kwnames != nullptr)) {
        return call_bound(bound, args, nargsf, kwnames);
    }
    TssSlotRecord* slot_record = tss_cache::peek_slot_record();
    if (XPY_UNLIKELY(slot_record == nullptr)) {
        return call_without_slot_record(bound, args, nargsf);
    }
    return answer_locally<false>(bound, args, nargsf, slot_record);
}

/// The entry that suits the event that an instance serves now. Each entry works for every event.
vectorcallfunc entry_for(const ModuleState& m, PyObject* self) {
    const auto& first_stage = instance_data_as<InitialCallbackData>(self);
    const EventKind kind = kind_of(m.globals, __atomic_load_n(&first_stage._fEventId, __ATOMIC_SEQ_CST));
    if (kind < EventKind::Line || !(plain::is_fast_road_open() || shared::objects)) {
        return call_bound;
    }
    if (shared::objects) {
        return kind == EventKind::Line ? call_locally_for_line : call_locally_for_call;
    }
    return kind == EventKind::Line ? call_for_line : call_for_call;
}

/// Attributes that a bound callback lacks are its function's, as with a method.
PyObject* get_attribute(PyObject* bound, PyObject* name) {
    PyObject* value = xpy.PyObject_GenericGetAttr(bound, name);
    if (value != nullptr || xpy.PyErr_ExceptionMatches(xpy.PyExc_AttributeError) == 0) {
        return value;
    }
    const Ref function = peek_slot(bound, data(bound).function);
    if (!function) {
        return nullptr;
    }
    xpy.PyErr_Clear();
    return xpy.PyObject_GetAttr(function.get(), name);
}

PyObject* get_doc(PyObject* bound, void* /*closure*/) {
    const Ref function = load_field(bound, data(bound).function);
    return function ? xpy.PyObject_GetAttrString(function.get(), "__doc__") : nullptr;
}

PyObject* compare_bound(PyObject* left, PyObject* right, int operation) {
    const bool comparable = type_of(left) == type_of(right) && (operation == Py_EQ || operation == Py_NE);
    if (!comparable) {
        return Ref::share(xpy._Py_NotImplementedStruct).release();
    }
    const bool equal = look_at(data(left).__self__) == look_at(data(right).__self__) &&
                       look_at(data(left).function) == look_at(data(right).function);
    return new_bool(equal == (operation == Py_EQ)).release();
}

Py_hash_t hash_bound(PyObject* bound) {
    // Objects are aligned, so the low bits say nothing; -1 is the interpreter's word for failure.
    const auto address = reinterpret_cast<std::uintptr_t>(look_at(data(bound).__self__));
    const auto hash = static_cast<Py_hash_t>(address >> 4U);
    return hash == -1 ? -2 : hash;
}

PyObject* describe(PyObject* bound) {
    const Ref self = load_field(bound, data(bound).__self__);
    return self ? xpy.PyUnicode_FromFormat("<bound method CInitialCallback.Callback of %R>", self.get()) : nullptr;
}

int traverse(PyObject* bound, visitproc visit, void* arg) {
    return traverse_instance(bound, kFields, visit, arg);
}

int clear(PyObject* bound) {
    set_entry(bound, call_bound);  // the others do not ask whether there is an instance
    clear_members(instance_data(bound), kFields);
    return 0;
}

void finalize(PyObject* bound) {
    Ref instance;
    if (is_free_threaded()) {
        // Taken out before the look for calls: one that begins later finds nothing to work with.
        const ObjectLock lock(bound);
        instance = Ref::steal(exchange_slot_locked(data(bound).__self__, nullptr));
    }
    if (instance) {
        local_state::keep_for_borrowers(&CallInProgress::callable, bound, instance.get());
    }
    set_entry(bound, call_bound);
    finalize_members(bound, object_type, instance_data(bound), kFields,
                     "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
}

constexpr std::size_t kFieldCount = std::size(kFields);

/// The fields' descriptors, the doc string's, and the closing row.
std::array<PyGetSetDef, kFieldCount + 2> getsets = [] {
    auto table = generated::make_getsets<kFieldCount + 2>(kFields, get_instance_field, set_instance_field);
    table[kFieldCount] = {"__doc__", get_doc, nullptr, "The function's doc string.", nullptr};
    return table;
}();

template <class Function>
void* slot_value(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

XPY_COLD bool bind_callback_arguments(PyObject* const* args, Py_ssize_t* nargs, PyObject* kwnames) {
    PyObject* code_object = nullptr;
    const tFastArgInfo rows[] = {{"code_object", 0, false, Py_T_OBJECT_EX, &code_object}, {}};
    if (!XPy_GetFastArgs(args, *nargs, kwnames, rows, {.positional = true})) {
        return false;
    }
    // Values given by name follow the positional ones, so a code object given by name comes first.
    *nargs = *nargs == 0 ? 1 : *nargs;
    return true;
}

bool create_bound_callback_type(ModuleState& m) {
    PyMemberDef members[] = {
        {"__vectorcalloffset__", Py_T_PYSSIZET,
         data_offsets.instance + static_cast<Py_ssize_t>(offsetof(BoundCallbackData, vectorcall)), Py_READONLY,
         nullptr},
        {nullptr, 0, 0, 0, nullptr},
    };
    PyType_Slot slots[] = {
        {Py_tp_call, slot_value(xpy.PyVectorcall_Call)},
        {Py_tp_getattro, slot_value(get_attribute)},
        {Py_tp_richcompare, slot_value(compare_bound)},
        {Py_tp_hash, slot_value(hash_bound)},
        {Py_tp_repr, slot_value(describe)},
        {Py_tp_traverse, slot_value(traverse)},
        {Py_tp_clear, slot_value(clear)},
        {Py_tp_finalize, slot_value(finalize)},
        {Py_tp_members, members},
        {Py_tp_getset, getsets.data()},
        {0, nullptr},
    };
    PyType_Spec spec = {"xoptmonitoring._XNotPy_BoundCallback",
                        static_cast<int>(data_offsets.instance + static_cast<Py_ssize_t>(sizeof(BoundCallbackData))), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                            Py_TPFLAGS_MANAGED_WEAKREF | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
                        slots};
    m.types.bound_callback = xpy.PyType_FromModuleAndSpec(m.module, &spec, nullptr);
    return m.types.bound_callback != nullptr;
}

PyObject* bind_callback(ModuleState& m, PyObject* function, PyObject* self, PyTypeObject* cls) {
    if (m.types.bound_callback == nullptr) {
        raise_unset();
        return nullptr;
    }
    PyObject* bound = xpy.PyType_GenericAlloc(as_type(m.types.bound_callback), 0);
    if (bound != nullptr) {
        data(bound) = {entry_for(m, self), Ref::share(self).release(), Ref::share(function).release(),
                       static_cast<const ClassRecord*>(class_data(as_object(cls)))};
    }
    return bound;
}
