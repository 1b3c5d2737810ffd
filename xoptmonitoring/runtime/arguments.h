// Argument binding for fast calls: a vector of positional values, their count, and a tuple of keyword names.
#pragma once

#include "xoptmonitoring/runtime/value_types.h"

/// One parameter of a callable. A list of rows ends with a null name.
struct tFastArgInfo {
    const char* name;
    int pos;           ///< positional index, -1 for keyword-only
    bool has_default;  ///< whether `value_ptr` already holds a default
    int member_type;   ///< how the value is converted and stored
    void* value_ptr;   ///< where the bound value goes
};

/// Whether a callable takes more than its rows name.
struct ExtraArguments {
    bool positional = false;
    Ref* keywords = nullptr;  ///< takes a new dict of unmatched keywords; null where they are refused
};

/// Binds the arguments of one call to `rows`. Values are stored borrowed. False with an exception set: what was
/// stored before the failure stays stored.
bool XPy_GetFastArgs(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, const tFastArgInfo* rows,
                     ExtraArguments extra = {});
