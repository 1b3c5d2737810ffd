// A forked child of an interpreter without a global lock: mutexes that nobody is left to give back.
//
// Each object has a mutex in its header. The module's own guards never queue for one (runtime/locks.h), but the
// interpreter does, for dictionaries and sets above all: where threads compete for one, it hands the mutex over to a
// thread that sleeps, and that the child does not have. The child's own thread holds none of them: nothing runs Python
// code, and so nothing forks, while one is held.
//
// The child is made ready in two steps. The first comes before the interpreter's own, which ends the other threads'
// states and so runs their clean-up. A child is also made where another library forks, with the threads of the
// interpreter anywhere: so that step only looks at objects that are always there and never into a container. The rest
// is done when the debugger says that it goes on in the child.
#include "xoptmonitoring/records/forked_child.h"

#include "xoptmonitoring/runtime/locks.h"
#include "xoptmonitoring/runtime/python_calls.h"

#include <pthread.h>

namespace forked_child {
namespace {

void free_mutex(PyObject* object) {
    PyMutex* mutex = XPy_GetFieldAddress<PyMutex>(object, xpy.pyobject_offsets.mutex);
    if (mutex->bits != mutex_bits::kUnlocked) {
        mutex->bits = mutex_bits::kUnlocked;
    }
}

bool is_container(PyObject* object) {
    return type_of(object) == xpy.PyDict_Type_ptr || type_of(object) == xpy.PySet_Type_ptr;
}

bool is_own_class(const ModuleState& m, PyObject* object) {
    const InternalTypes& types = m.types;
    const PyObject* metaclass = as_object(type_of(object));
    for (const PyObject* own : {types.CPerFile_class, types.CPerCodeObject_class, types.CPerThreadTssCache_class,
                                types.CPerThread_class, types.CCapsule_class, types.CCleanupSupport_class,
                                types.CInitialCallback_class, types.CCanonicalPathnameMgr_class}) {
        if (metaclass == own) {
            return true;
        }
    }
    return false;
}

/// Calls `visit` with each object that this one refers to.
void for_each_referent(PyObject* object, visitproc visit, void* arg) {
    auto traverse = reinterpret_cast<traverseproc>(xpy.PyType_GetSlot(type_of(object), Py_tp_traverse));
    traverse(object, visit, arg);
}

int free_container(PyObject* object, void* /*arg*/) {
    if (is_container(object)) {
        free_mutex(object);
    }
    return 0;
}

/// A class of this module, and the containers that it holds.
int free_class(PyObject* object, void* module_state) {
    const ModuleState& m = *static_cast<const ModuleState*>(module_state);
    if (is_own_class(m, object)) {
        free_mutex(object);
        for_each_referent(object, free_container, nullptr);
    }
    return 0;
}

/// A record, and the containers that it holds.
int free_record(PyObject* object, void* module_state) {
    const ModuleState& m = *static_cast<const ModuleState*>(module_state);
    if (is_own_class(m, as_object(type_of(object)))) {
        free_mutex(object);
        for_each_referent(object, free_container, nullptr);
    }
    return 0;
}

int free_registry(PyObject* object, void* module_state) {
    if (is_container(object)) {
        for_each_referent(object, free_record, module_state);
    }
    return 0;
}

int free_registries_of_class(PyObject* object, void* module_state) {
    if (is_own_class(*static_cast<const ModuleState*>(module_state), object)) {
        for_each_referent(object, free_registry, module_state);
    }
    return 0;
}

void free_in_child() {
    for (ModuleState* m = living_states_after_fork(); m != nullptr; m = m->next_living) {
        if (m->module != nullptr) {
            free_mutex(m->module);
        }
        traverse_state(*m, free_class, m);
        if (m->arming != nullptr) {
            for (Py_ssize_t index = 0; index < xpy.PyTuple_Size(m->arming); ++index) {
                free_mutex(xpy.PyTuple_GetItem(m->arming, index));
            }
        }
    }
}

/// What `weakref.finalize` goes through when it is called, and when it calls back at a thread's end: the class, its
/// dictionary, its registry of all that are alive. Empty with an exception set.
Ref objects_of_arming(ModuleState& m) {
    const Ref weakref = load_global(m, m.globals.weakref);
    const Ref finalize = weakref ? get_attr(weakref.get(), m.names.finalize) : Ref();
    const Ref registry = finalize ? get_attr(finalize.get(), m.names._registry) : Ref();
    if (!registry || !is_container(registry.get()) || type_of(finalize.get()) != xpy.PyType_Type_ptr) {
        // Another implementation: its own mutexes are its own affair.
        xpy.PyErr_Clear();
        return Ref::steal(xpy.PyTuple_New(0));
    }
    PyObject* dict = *xpy._PyObject_GetDictPtr(finalize.get());
    return Ref::steal(xpy.Py_BuildValue("(OOO)", finalize.get(), dict, registry.get()));
}

}  // namespace

bool watch_forks(ModuleState& m) {
    if (!is_free_threaded()) {
        return true;
    }
    static bool is_watched = false;
    is_watched = is_watched || pthread_atfork(nullptr, nullptr, free_in_child) == 0;
    m.arming = objects_of_arming(m).release();
    if (m.arming == nullptr) {
        return false;
    }
    add_living_state(m);
    return true;
}

void free_registries(ModuleState& m) {
    if (!is_free_threaded()) {
        return;
    }
    traverse_state(m, free_registries_of_class, &m);
    const Ref mgr = load_global(m, m.globals._gCanonicalPathnameMgr);
    if (mgr) {
        free_record(mgr.get(), &m);
    }
    xpy.PyErr_Clear();
}

}  // namespace forked_child
