// _CCanonicalPathnameMgr: maps every name of a source file to one canonical pathname.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

/// Instance fields of the manager; all are replaced by `__init__` and emptied by `Reset`.
struct CanonicalPathnameMgrData {
    PyObject* fByName;
    PyObject* fByUniqueFileno;
    PyObject* fByChecksum;
    PyObject* fNotFoundCache;
    PyObject* fChecksumCallback;
};

struct CanonicalPathnameMgrClassData {
    ClassRecord record;
    Py_ssize_t kNotFoundTtlSeconds;
};

namespace canonical_pathname_mgr {

/// Creates the class and its metaclass. Empty with an exception set.
Ref create(ModuleState& m);

/// What the manager's callback answers for `pathname` (any object): None where no callback is set.
Ref GetChecksumForPathname(ModuleState& m, PyObject* self, PyObject* pathname);

/// Empties the indexes and drops the callback. False with an exception set.
bool Reset(ModuleState& m, PyObject* self);

}  // namespace canonical_pathname_mgr
