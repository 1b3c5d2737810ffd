// CPerThread: the record of one thread.
#pragma once

#include "xoptmonitoring/records/per_thread_data.h"

namespace per_thread {

/// Creates the class, its nested classes and their metaclasses, with empty registries. Empty with an exception set.
Ref create(ModuleState& m);

/// The record of the thread `thread_id` (None: the calling thread), made where it is missing and `create_missing`
/// says so; None otherwise, and while the thread is inside its own clean-up. Empty with an exception set.
Ref GetPerThread(ModuleState& m, PyObject* thread_id, bool create_missing);

/// Whether there is nothing to ask for the thread's name: it is known, or nobody can tell. Reads fields only.
/// For a record of the class itself, on the fast and local roads.
inline bool is_named(const ModuleState& m, const PerThreadData& record) {
    const PyObject* name = __atomic_load_n(&record.fThreadName, __ATOMIC_RELAXED);
    if (XPY_UNLIKELY(name == nullptr)) {
        return false;
    }
    if (XPY_LIKELY(name != none())) {
        return true;
    }
    const auto& class_fields = class_data_as<PerThreadClassData>(as_type(m.globals.CPerThread));
    return __atomic_load_n(&class_fields._fGetThreadNameCallback, __ATOMIC_RELAXED) == none();
}

/// The thread's name, asked for where it is not known yet. Empty with an exception set.
Ref FindThreadName(PyObject* self);

/// Drops everything that the record holds, so that cycles through frames are broken.
void _Clear(PyObject* self);

/// After fork: gives the class a new registry lock where the old one is held, by a thread that the child does not
/// have. False with an exception set.
bool replace_lost_lock(ModuleState& m);

/// Empties the registries and drops the callbacks, in the order of the module's reset. False with an exception set.
bool reset(ModuleState& m);

}  // namespace per_thread
