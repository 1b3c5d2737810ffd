// Declared types: how a Python value is checked, converted and stored, for attributes and arguments alike.
#pragma once

#include "xoptmonitoring/runtime/python_calls.h"

/// What a parameter or an attribute accepts.
enum class ValueType {
    Object,     ///< anything, as it is
    Integer,    ///< a machine word, through the interpreter's own conversion and with its errors
    Truth,      ///< anything, by its truth
    Int,        ///< an int, "expected int, got ..." otherwise
    Bool,       ///< True or False, "expected bool, got ..." otherwise
    Str,        ///< a str
    Dict,       ///< a dict
    StrOrNone,  ///< a str or None
    IntOrNone,  ///< an int or None
};

/// One bound value: which member is set follows from the declared type.
union Argument {
    PyObject* object;    ///< borrowed from the caller
    Py_ssize_t integer;  ///< for Integer
    int truth;           ///< for Truth
};

/// Raises TypeError "expected WHAT, got %.200R".
XPY_COLD void raise_expected(const char* what, PyObject* got);

/// Raises TypeError "expected WHAT | None, got %.200R".
XPY_COLD void raise_expected_or_none(const char* what, PyObject* got);

/// Raises TypeError "expected WHAT instance, got %.200R".
XPY_COLD void raise_expected_instance(const char* what, PyObject* got);

/// Whether `value` is of the declared type. False with TypeError set. Types without a check always pass.
bool check_value(ValueType type, PyObject* value);

/// How a value of the declared type is stored: a member type code of the interpreter (object, word, int as boolean).
int member_type_of(ValueType type);

/// Converts `value` as `member_type` says and stores it at `target`; an object is stored as it is, borrowed.
/// False with an exception set.
bool XPy_StoreMemberValue(int member_type, PyObject* value, void* target);
