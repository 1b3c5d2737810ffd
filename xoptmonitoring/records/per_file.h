// CPerFile: the record of one source file.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

struct PerFileData {
    PyObject* fCanonicalPathname;
    PyObject* fBpSetByLineno;
    PyObject* fKnownPerCodeObjects;
    PyObject* fChecksum;
};

struct PerFileClassData {
    ClassRecord record;
    PyObject* _fPerFileDict;
    PyObject* _fByChecksum;
    PyObject* _fNewPerFileCreatedCallback;
};

namespace per_file {

/// Creates the class and its metaclass, with empty registries. Empty with an exception set.
Ref create(ModuleState& m);

/// The record of `pathname` in the registry of `cls`, made where it is missing and `create_missing` says so; None
/// otherwise. Empty with an exception set.
Ref GetPerFile(ModuleState& m, PyTypeObject* cls, PyObject* pathname, bool create_missing);

/// The record's set of code-object records, or empty with TypeError for what is no per-file record.
Ref known_per_code_objects(ModuleState& m, PyObject* per_file);

/// Empties the registries and drops the callback. False with an exception set.
bool reset(ModuleState& m);

}  // namespace per_file
