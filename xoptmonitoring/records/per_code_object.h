// CPerCodeObject: the record of one code object that the monitoring callback has met.
#pragma once

#include "xoptmonitoring/records/code_extra.h"
#include "xoptmonitoring/runtime/class_builder.h"

struct PerCodeObjectData {
    PyObject* fCodeObjectWeakRef;
    PyObject* fPathnameToReport;
    PyObject* fCanonicalPathname;
    PyObject* fEnabledBpLinenos;
    Py_ssize_t fSteppingEventsNeededCount;
    Py_ssize_t fReturnEventsNeededCount;
    // These two are read together, in one word.
    alignas(std::int64_t) std::int32_t fIsInternal;
    std::int32_t fUpdatePathnameNeeded;
    std::int32_t fIsInternalKnown;
};

struct PerCodeObjectClassData {
    ClassRecord record;
    PyObject* _fPerCodeObjectDict;
    Py_ssize_t _fCodeObjectExtraIndex;
    PyObject* _fNewPerCodeObjectCreatedCallback;
    /// The index that was reserved for this class; the field above is the tracer's to change.
    Py_ssize_t reserved_index;
};

namespace per_code_object {

/// Creates the class and its metaclass and reserves its code-extra slot. Empty with an exception set.
Ref create(ModuleState& m);

/// The class, borrowed; null with NameError set.
inline PyTypeObject* this_class(ModuleState& m) {
    return defined_class(m.globals.CPerCodeObject, "CPerCodeObject");
}

/// The record of `code_object`, made with `frame` (a frame or None) where it is missing and `create_missing` says so;
/// None otherwise. Empty with an exception set.
Ref GetPerCodeObject(ModuleState& m, PyObject* code_object, bool create_missing, PyObject* frame);

/// The record of `code_object`, or None. Empty with an exception set.
Ref _GetExistingPerCodeObject(ModuleState& m, PyObject* code_object);

/// The pathname under which `code_object` is reported, or its canonical form. Empty with an exception set.
Ref _GetPathnameToUse(ModuleState& m, PyObject* code_object, PyObject* frame, bool canonical);

/// Settles a record that was made without a frame. False with an exception set.
bool _UpdatePathnameFromFrame(ModuleState& m, PyObject* self, PyObject* f);

/// Empties the weak-reference registry and drops the callback; records in code objects stay. False with an exception
/// set.
bool reset(ModuleState& m);

/// Whether a record of the class itself lies in the slot of `code_object`. Not while the tracer has records lie
/// elsewhere. Sets no exception.
bool is_in_slot(ModuleState& m, PyObject* code_object, PyObject* per_code_object);

inline PerCodeObjectData& data(PyObject* self) {
    return instance_data_as<PerCodeObjectData>(self);
}

/// The record in the slot of `code_object`, borrowed; null, with no exception set, where the long way has to be gone.
/// For the fast road, where objects are plain and a global lock is held: the code object is running and owns the slot,
/// and only Python code could put another record there.
inline const PerCodeObjectData* peek(const ModuleState& m, PyObject* code_object) {
    if (XPY_UNLIKELY(m.quick_extra_index < 0)) {
        return nullptr;
    }
    PyObject* record = plain::peek_code_extra(code_object, m.quick_extra_index);
    const bool is_own = record != nullptr && as_object(plain::type_of(record)) == m.globals.CPerCodeObject;
    return XPY_LIKELY(is_own) ? &plain::data<PerCodeObjectData>(record) : nullptr;
}

}  // namespace per_code_object
