// ModuleState: everything that one execution of the module keeps, held in the module object's own state.
//
// Ownership: all object fields own one reference, except `module`, which is borrowed (the module object outlives its
// state) and serves as the address of the lock that guards the globals.
#pragma once

#include "xoptmonitoring/binding/refs.h"

/// The module's globals, published as read-only attributes of the module object.
struct ModuleGlobals {
#define GLOBAL_FINAL(name, doc) PyObject* name;
#define GLOBAL_OBJECT(name, doc) PyObject* name;
#define GLOBAL_INTEGER(name, doc) std::int64_t name;
#include "xoptmonitoring/runtime/module_globals.def"
};

/// The built-ins that the module calls.
struct CachedBuiltins {
#define BUILTIN(name) PyObject* name;
#include "xoptmonitoring/runtime/cached_builtins.def"
};

/// One interned string per attribute or method name.
struct InternedNames {
#define INTERNED_NAME(name) PyObject* name;
#include "xoptmonitoring/runtime/interned_names.def"
};

/// One interned string per message text.
struct MessageLiterals {
#define LITERAL(field, text) PyObject* field;
#include "xoptmonitoring/runtime/message_literals.def"
};

/// The types behind the module's functions and classes.
struct InternalTypes {
    PyObject* function;
    PyObject* managed_struct;
    PyObject* frame;
    PyObject* generator;
    PyObject* bound_callback;
    // One metaclass per class: its instance, the class, carries the class-level record.
    PyObject* CPerFile_class;
    PyObject* CPerCodeObject_class;
    PyObject* CPerThreadTssCache_class;
    PyObject* CPerThread_class;
    PyObject* CCapsule_class;
    PyObject* CCleanupSupport_class;
    PyObject* CInitialCallback_class;
    PyObject* CCanonicalPathnameMgr_class;
};

/// Marks a state as this module's.
inline constexpr char module_state_tag = 0;

struct ModuleState {
    /// `&module_state_tag` once execution has begun: a module of another kind can be given this module's type.
    const char* tag;
    PyObject* module;  ///< borrowed; null once teardown has begun
    /// The code-extra slot in which the fast road finds a code object's record, and from which a thread remembers one
    /// for the local road; -1 while the records lie elsewhere, or both roads are closed to this interpreter.
    Py_ssize_t quick_extra_index;
    InternalTypes types;
    ModuleGlobals globals;
    CachedBuiltins builtins;
    InternedNames names;
    MessageLiterals literals;
    /// list of what a finalised state held, or null; kept until the module is cleared or freed.
    PyObject* buried;
    /// tuple of the objects outside of this module that the arming of a thread's clean-up goes through, or null where
    /// nobody needs to know.
    PyObject* arming;
    /// The next of the living states; see add_living_state().
    ModuleState* next_living;
};

/// Enters a state into the list of those that have come to life, which clear_state() takes it out of again. Kept where
/// there is no global lock, for a forked child.
void add_living_state(ModuleState& m);

/// The first of them; for a forked child, which has no other thread that could hold the list's lock.
ModuleState* living_states_after_fork();

/// A new reference to the global in `slot`, taken under the module's lock; empty with AttributeError "Attribute
/// error" where it holds nothing.
Ref load_global(ModuleState& m, PyObject* const& slot);

/// Replaces a plain global; the old value is dropped after the lock.
void store_global(ModuleState& m, PyObject*& slot, Ref value);

/// Sets a final global, once. False with AttributeError where it already holds a value, which stays.
bool store_final_global(ModuleState& m, PyObject*& slot, const char* name, Ref value);

/// Sets an integer global under the module's lock.
void store_global(ModuleState& m, std::int64_t& slot, std::int64_t value);

/// An integer global: read without the lock, since the word is written whole.
inline std::int64_t load_global(const std::int64_t& slot) {
    return __atomic_load_n(&slot, __ATOMIC_RELAXED);
}

/// Whether an object global holds nothing: a test that needs no reference and so no lock.
inline bool global_is_unset(PyObject* const& slot) {
    return __atomic_load_n(&slot, __ATOMIC_RELAXED) == nullptr;
}

/// Whether an object global holds None or nothing, without the lock as well.
inline bool global_is_none(PyObject* const& slot) {
    PyObject* value = __atomic_load_n(&slot, __ATOMIC_RELAXED);
    return value == none() || value == nullptr;
}

/// A class of this module, borrowed; null with NameError "name '...' is not defined" where it is not there (yet).
PyTypeObject* defined_class(PyObject* const& slot, const char* name);

/// Fills the cached built-ins, the interned names and the literals, in that order. False with an exception set.
bool fill_tables(ModuleState& m);

/// Visits every object of the state, for the garbage collector.
int traverse_state(ModuleState& m, visitproc visit, void* arg);

/// Drops what module clearing drops: the self-reference, then built-ins, names and literals.
void clear_tables(ModuleState& m);

/// Empties the state as clear_state does, but keeps alive what it held: `module.__del__()` can be called by anybody,
/// also from inside a callback of this module that goes on to use a class it has borrowed.
void bury_state(ModuleState& m);

/// Drops everything: internal types and metaclasses, the object globals, then what clear_tables drops.
void clear_state(ModuleState& m);
