// The interpreter's code-extra slots, as far as this module reserved them.
//
// Other native modules reserve slots of their own and keep anything in them, so only an index that this module
// reserved is ever read or written: what lies there is an object and the slot owns a reference to it.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// Reserves a slot whose content the interpreter drops with Py_DecRef. Returns its index, or -1 where there is none
/// (an error only when an exception is set).
Py_ssize_t request_code_extra_index();

/// Whether `index` is a slot that this module reserved.
bool is_own_code_extra_index(Py_ssize_t index);

/// What lies in slot `index` of `code_object`: empty with `failed` unset where there is nothing, or where the slot is
/// not this module's; the interpreter's own error for what is no code object. The slot's owner may be replaced by
/// another thread, so reading and taking the reference happen under the lock of `guard`.
struct CodeExtra {
    Ref value;
    bool failed;
};
CodeExtra get_code_extra(PyObject* guard, PyObject* code_object, Py_ssize_t index);

/// Puts `value` into slot `index` of `code_object`; what was there is dropped after the lock of `guard`. Where
/// `keep_instance_of` is given and an instance of it is there already, nothing is stored and `kept` says so. False
/// with an exception set.
bool set_code_extra(PyObject* guard, PyObject* code_object, Py_ssize_t index, PyObject* value,
                    PyTypeObject* keep_instance_of, bool* kept);

extern const FunctionDecl kCodeRequestExtraIndexForOwnedRef;
extern const FunctionDecl kCodeGetExtra;
extern const FunctionDecl kCodeSetExtra;
