// CPerCodeObject: the record of one code object that the monitoring callback has met.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

struct PerCodeObjectData {
    PyObject* fCodeObjectWeakRef;
    PyObject* fPathnameToReport;
    PyObject* fCanonicalPathname;
    PyObject* fEnabledBpLinenos;
    Py_ssize_t fSteppingEventsNeededCount;
    Py_ssize_t fReturnEventsNeededCount;
    std::int32_t fIsInternalKnown;
    std::int32_t fIsInternal;
    std::int32_t fUpdatePathnameNeeded;
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

inline PerCodeObjectData& data(PyObject* self) {
    return instance_data_as<PerCodeObjectData>(self);
}

/// The settled record in the slot of `code_object`, borrowed; null, with no exception set, where the long way has to
/// be gone. For the fast road under a global lock: the code object is running and owns the slot, and only Python code
/// could put another record there. Without a global lock there is no such moment, and the answer is always null.
inline PyObject* peek_settled(const ModuleState& m, PyObject* code_object) {
    PyTypeObject* cls = as_type(m.globals.CPerCodeObject);
    if (XPY_UNLIKELY(is_free_threaded() || cls == nullptr)) {
        return nullptr;
    }
    const auto& class_fields = class_data_as<PerCodeObjectClassData>(cls);
    void* extra = nullptr;
    if (XPY_UNLIKELY(class_fields._fCodeObjectExtraIndex != class_fields.reserved_index ||
                     class_fields.reserved_index < 0)) {
        return nullptr;
    }
    if (XPY_UNLIKELY(xpy.PyUnstable_Code_GetExtra(code_object, class_fields.reserved_index, &extra) < 0)) {
        xpy.PyErr_Clear();  // the long way meets the same error
        return nullptr;
    }
    auto* record = static_cast<PyObject*>(extra);
    if (XPY_UNLIKELY(record == nullptr || type_of(record) != cls || data(record).fUpdatePathnameNeeded != 0)) {
        return nullptr;
    }
    return record;
}

}  // namespace per_code_object
