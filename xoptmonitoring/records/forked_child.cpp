// A forked child of an interpreter without a global lock: mutexes that nobody is left to give back.
//
// Each object has a mutex in its header. The module's own guards never queue for one (runtime/locks.h), but the
// interpreter does, for dictionaries and sets above all: where threads compete for one, it hands the mutex over to a
// thread that sleeps, and that the child does not have.
//
// The child's own thread may hold some of them: a dictionary that compares keys or lets go of values runs Python code
// in a critical section, and that code may fork. So nothing is freed in a child that was forked from within a critical
// section, of whatever object.
//
// The child is made ready in two steps. The first comes before the interpreter's own, which ends the other threads'
// states and so runs their clean-up. A child is also made where a library forks without stopping the interpreter's
// threads first: so that step only looks at objects that are always there and never into a container. The rest is done
// when the debugger says that it goes on in the child, if the child has no second thread by then.
#include "xoptmonitoring/records/forked_child.h"

#include "xoptmonitoring/runtime/locks.h"
#include "xoptmonitoring/runtime/python_calls.h"
#include "xoptmonitoring/runtime/thread_state_words.h"

#include <array>
#include <pthread.h>

namespace forked_child {
namespace {

using Word = std::uintptr_t;
constexpr std::size_t kWatchedWords = 40;  // without a global lock, thread states have thousands

/// Which word of a thread state is not zero while the thread is in a critical section: learnt by being in one. -1 where
/// that is not clear.
Py_ssize_t find_section_word(PyObject* object) {
    if (xpy.PyCriticalSection_Begin == nullptr || xpy.PyCriticalSection_End == nullptr) {
        return -1;
    }
    alignas(16) std::array<Word, 16> section{};  // several times what the interpreter needs
    PyThreadState* tstate = xpy.PyThreadState_Get();
    xpy.PyCriticalSection_Begin(section.data(), object);
    const auto inside = words_of<Word, kWatchedWords>(tstate);
    xpy.PyCriticalSection_End(section.data());
    const auto outside = words_of<Word, kWatchedWords>(tstate);
    for (std::size_t word = 0; word < kWatchedWords; ++word) {
        // The address of the section, with flags in its lowest bits.
        if ((inside[word] & ~Word{3}) == reinterpret_cast<Word>(section.data()) && outside[word] != inside[word]) {
            return static_cast<Py_ssize_t>(word);
        }
    }
    return -1;
}

Py_ssize_t section_word = -1;

/// Whether the calling thread, if it is attached at all, holds no object's mutex for the interpreter.
bool is_outside_of_sections() {
    PyThreadState* tstate = XPy_CurrentThreadStateOrNull();
    return tstate != nullptr && section_word != -1 &&
           load_word<Word>(tstate, static_cast<std::size_t>(section_word)) == 0;
}

/// Whether the calling thread is the interpreter's only one.
bool is_alone() {
    PyThreadState* tstate = xpy.PyThreadState_Get();
    return xpy.PyInterpreterState_ThreadHead(xpy.PyInterpreterState_Get()) == tstate &&
           xpy.PyThreadState_Next(tstate) == nullptr;
}

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

/// Frees the mutex of an object of this module's, and those of the containers that it holds.
void free_with_containers(PyObject* object) {
    free_mutex(object);
    for_each_referent(object, free_container, nullptr);
}

int free_class(PyObject* object, void* module_state) {
    if (is_own_class(*static_cast<const ModuleState*>(module_state), object)) {
        free_with_containers(object);
    }
    return 0;
}

int free_record(PyObject* object, void* module_state) {
    if (is_own_class(*static_cast<const ModuleState*>(module_state), as_object(type_of(object)))) {
        free_with_containers(object);
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
    if (!is_outside_of_sections()) {
        return;
    }
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
    section_word = find_section_word(m.module);
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
    if (!is_free_threaded() || !is_outside_of_sections() || !is_alone()) {
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
