// The module's state: loading and storing globals, and its traversal and clearing.
#include "xoptmonitoring/runtime/module_state.h"

#include "xoptmonitoring/runtime/locks.h"
#include "xoptmonitoring/runtime/python_calls.h"

#include <span>

namespace {

/// A record made of nothing but object fields, seen as the run of fields that it is.
template <class Record>
std::span<PyObject*> objects_of(Record& record) {
    static_assert(sizeof(Record) % sizeof(PyObject*) == 0);
    return {reinterpret_cast<PyObject**>(&record), sizeof(Record) / sizeof(PyObject*)};
}

/// Empties the fields one by one: each is null before what it held is dropped, since that can run Python code. Anybody
/// can finalise a module that other threads use, so each field is emptied in one step.
void drop_all(std::span<PyObject*> fields) {
    for (PyObject*& field : fields) {
        const Ref dropped = Ref::steal(__atomic_exchange_n(&field, nullptr, __ATOMIC_ACQ_REL));
    }
}

int visit_all(std::span<PyObject*> fields, visitproc visit, void* arg) {
    for (PyObject* field : fields) {
        if (field == nullptr) {
            continue;
        }
        if (const int stop = visit(field, arg)) {
            return stop;
        }
    }
    return 0;
}

PyMutex living_lock = {};
ModuleState* first_living = nullptr;

void remove_living_state(ModuleState& m) {
    const NativeLock lock(living_lock);
    for (ModuleState** place = &first_living; *place != nullptr; place = &(*place)->next_living) {
        if (*place == &m) {
            *place = m.next_living;
            return;
        }
    }
}

bool fill_builtin(PyObject* builtins, PyObject*& field, const char* name) {
    // Not by PyDict_GetItemString(), which hides that there was no memory to look the name up.
    const Ref key = Ref::steal(xpy.PyUnicode_FromString(name));
    field = key ? Ref::share(xpy.PyDict_GetItemWithError(builtins, key.get())).release() : nullptr;
    if (field == nullptr && xpy.PyErr_Occurred() == nullptr) {
        xpy.PyErr_Format(xpy.PyExc_NameError, "name '%s' is not defined", name);
    }
    return field != nullptr;
}

bool fill_text(PyObject*& field, const char* text) {
    field = xpy.PyUnicode_InternFromString(text);
    return field != nullptr;
}

/// The module object, whose mutex guards the globals; null once teardown has begun, on whatever thread.
PyObject* guard_of(const ModuleState& m) {
    return __atomic_load_n(&m.module, __ATOMIC_ACQUIRE);
}

void forget_module(ModuleState& m) {
    __atomic_store_n(&m.module, nullptr, __ATOMIC_RELEASE);
}

}  // namespace

Ref load_global(ModuleState& m, PyObject* const& slot) {
    Ref value = peek_slot(guard_of(m), slot);
    if (!value) {
        raise_unset();
    }
    return value;
}

void store_global(ModuleState& m, PyObject*& slot, Ref value) {
    put_slot(guard_of(m), slot, std::move(value));
}

bool store_final_global(ModuleState& m, PyObject*& slot, const char* name, Ref value) {
    if (!value) {
        return false;
    }
    {
        const ObjectLock lock(guard_of(m));
        if (slot == nullptr) {
            exchange_slot_locked(slot, value.release());
            return true;
        }
    }
    raise_final_already_set(name, m.module);
    return false;
}

void store_global(ModuleState& m, std::int64_t& slot, std::int64_t value) {
    const ObjectLock lock(guard_of(m));
    __atomic_store_n(&slot, value, __ATOMIC_RELEASE);
}

void add_living_state(ModuleState& m) {
    const NativeLock lock(living_lock);
    m.next_living = std::exchange(first_living, &m);
}

ModuleState* living_states_after_fork() {
    living_lock = {};
    return first_living;
}

PyTypeObject* defined_class(PyObject* const& slot, const char* name) {
    PyObject* value = __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
    if (XPY_UNLIKELY(value == nullptr)) {
        xpy.PyErr_Format(xpy.PyExc_NameError, "name '%s' is not defined", name);
    }
    return as_type(value);
}

bool fill_tables(ModuleState& m) {
    PyObject* builtins = xpy.PyEval_GetBuiltins();
    if (builtins == nullptr) {
        return false;
    }
#define BUILTIN(name)                                      \
    if (!fill_builtin(builtins, m.builtins.name, #name)) { \
        return false;                                      \
    }
#include "xoptmonitoring/runtime/cached_builtins.def"
#define INTERNED_NAME(name)                \
    if (!fill_text(m.names.name, #name)) { \
        return false;                      \
    }
#include "xoptmonitoring/runtime/interned_names.def"
#define LITERAL(field, text)                  \
    if (!fill_text(m.literals.field, text)) { \
        return false;                         \
    }
#include "xoptmonitoring/runtime/message_literals.def"
    return true;
}

int traverse_state(ModuleState& m, visitproc visit, void* arg) {
    if (const int stop = visit_all(objects_of(m.types), visit, arg)) {
        return stop;
    }
#define GLOBAL_FINAL(name, doc)                            \
    if (m.globals.name != nullptr) {                       \
        if (const int stop = visit(m.globals.name, arg)) { \
            return stop;                                   \
        }                                                  \
    }
#define GLOBAL_OBJECT(name, doc) GLOBAL_FINAL(name, doc)
#include "xoptmonitoring/runtime/module_globals.def"
    for (PyObject* object : {m.buried, m.arming}) {
        if (object != nullptr) {
            if (const int stop = visit(object, arg)) {
                return stop;
            }
        }
    }
    return visit_all(objects_of(m.builtins), visit, arg);
}

void clear_tables(ModuleState& m) {
    forget_module(m);
    drop_all(objects_of(m.builtins));
    drop_all(objects_of(m.names));
    drop_all(objects_of(m.literals));
}

void bury_state(ModuleState& m) {
    // What an earlier finalisation buried stays buried: it is one of the objects that are visited.
    Ref buried = Ref::steal(xpy.PyList_New(0));
    const visitproc bury = [](PyObject* object, void* list) {
        return xpy.PyList_Append(static_cast<PyObject*>(list), object);
    };
    if (!buried || traverse_state(m, bury, buried.get()) != 0) {
        xpy.PyErr_Clear();  // no memory: what could not be kept is dropped
    }
    for (std::span<PyObject*> objects : {objects_of(m.names), objects_of(m.literals)}) {
        for (PyObject* object : objects) {
            if (buried && object != nullptr && xpy.PyList_Append(buried.get(), object) != 0) {
                xpy.PyErr_Clear();
            }
        }
    }
    clear_state(m);
    m.buried = buried.release();
}

void clear_state(ModuleState& m) {
    remove_living_state(m);
    forget_module(m);
    const Ref buried = Ref::steal(std::exchange(m.buried, nullptr));
    const Ref arming = Ref::steal(std::exchange(m.arming, nullptr));
    drop_all(objects_of(m.types));
#define GLOBAL_FINAL(name, doc) drop_all({&m.globals.name, 1});
#define GLOBAL_OBJECT(name, doc) GLOBAL_FINAL(name, doc)
#include "xoptmonitoring/runtime/module_globals.def"
    clear_tables(m);
}
