// The fields of a thread's record, shared by the record itself, its storage cache and its exit clean-up.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

struct TssSlotRecord;

struct PerThreadData {
    PyObject* fThreadId;
    PyObject* fOuterMostFrame;
    PyObject* fSteppingEventsNeeded;
    PyObject* fStopAtNextLine;
    PyObject* fStopFrame;
    PyObject* fDontStopLinenoRange;
    PyObject* fReturnFrame;
    Py_ssize_t fDebugPolicy;
    PyObject* fSuspendLock;
    PyObject* fCheckSuspendLock;
    PyObject* fThreadName;
    PyObject* fExitingWithException;
    PyObject* fSteppingCodeObjects;
    /// The slot record of the storage cache that points here, or null; under the cache's lock.
    TssSlotRecord* _fPyTssDataPtr;
    /// On free-threaded interpreters, once cached: a weak reference to this very record, which the cache takes its
    /// strong ones from; under the cache's lock.
    PyObject* self_reference;
};

struct PerThreadClassData {
    ClassRecord record;
    PyObject* _CCapsule;
    PyObject* _CCleanupSupport;
    PyObject* _fPerThreadDict;
    PyObject* _fDebugPolicyCallback;
    PyObject* _fNewPerThreadCreatedCallback;
    PyObject* _fGetThreadNameCallback;
    PyObject* _fRegistryLock;
    PyObject* _fCleanupSupportByThreadId;
    PyObject* _fCleanedUpThreadIds;
    PyObject* _fDestructorActiveThreadIds;
};

namespace per_thread {

/// The finaliser of the class: it detaches the record from the storage cache first.
void finalize(PyObject* self);

/// Frees an instance, and detaches it before: a subclass can have a `__del__` in the finaliser's place, and what has
/// been finalised and came back is not finalised again.
void free_instance(void* self);

/// The class, borrowed; null with NameError set.
inline PyTypeObject* this_class(ModuleState& m) {
    return defined_class(m.globals.CPerThread, "CPerThread");
}

inline PerThreadData& data(PyObject* self) {
    return instance_data_as<PerThreadData>(self);
}

/// Data of `object`, or null with TypeError "expected CPerThread instance, got ..." set.
inline PerThreadData* checked_data(ModuleState& m, PyObject* object) {
    return record_data<PerThreadData>(object, this_class(m), "CPerThread");
}

/// An object class field of CPerThread itself. Empty with an exception set.
inline Ref class_slot(ModuleState& m, PyObject* PerThreadClassData::*slot) {
    PyTypeObject* cls = this_class(m);
    return cls != nullptr ? load_class_slot(cls, slot) : Ref();
}

}  // namespace per_thread
