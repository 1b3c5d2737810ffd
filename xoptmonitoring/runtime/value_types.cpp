// Checking and storing values of declared types.
#include "xoptmonitoring/runtime/value_types.h"

namespace {

struct CheckedType {
    ValueType type;
    const char* name;                     // as it stands in the message
    PyTypeObject* XPy_C_API_Data::*slot;  // the type whose instances pass
    bool none_passes;
};

constexpr CheckedType kCheckedTypes[] = {
    {ValueType::Int, "int", &XPy_C_API_Data::PyLong_Type_ptr, false},
    {ValueType::Bool, "bool", &XPy_C_API_Data::PyBool_Type_ptr, false},
    {ValueType::Str, "str", &XPy_C_API_Data::PyUnicode_Type_ptr, false},
    {ValueType::Dict, "dict", &XPy_C_API_Data::PyDict_Type_ptr, false},
    {ValueType::StrOrNone, "str", &XPy_C_API_Data::PyUnicode_Type_ptr, true},
    {ValueType::IntOrNone, "int", &XPy_C_API_Data::PyLong_Type_ptr, true},
};

}  // namespace

void raise_expected(const char* what, PyObject* got) {
    xpy.PyErr_Format(xpy.PyExc_TypeError, "expected %s, got %.200R", what, got);
}

void raise_expected_or_none(const char* what, PyObject* got) {
    xpy.PyErr_Format(xpy.PyExc_TypeError, "expected %s | None, got %.200R", what, got);
}

void raise_expected_instance(const char* what, PyObject* got) {
    xpy.PyErr_Format(xpy.PyExc_TypeError, "expected %s instance, got %.200R", what, got);
}

bool check_value(ValueType type, PyObject* value) {
    for (const CheckedType& checked : kCheckedTypes) {
        if (checked.type != type) {
            continue;
        }
        if (is_instance_of(value, xpy.*checked.slot) || (checked.none_passes && value == none())) {
            return true;
        }
        if (checked.none_passes) {
            raise_expected_or_none(checked.name, value);
        } else {
            raise_expected(checked.name, value);
        }
        return false;
    }
    return true;
}

int member_type_of(ValueType type) {
    switch (type) {
        case ValueType::Integer:
            return Py_T_PYSSIZET;
        case ValueType::Truth:
            return Py_T_INT;
        default:
            return Py_T_OBJECT_EX;
    }
}

bool XPy_StoreMemberValue(int member_type, PyObject* value, void* target) {
    switch (member_type) {
        case Py_T_OBJECT_EX:
            *static_cast<PyObject**>(target) = value;
            return true;
        case Py_T_PYSSIZET: {
            auto* word = static_cast<Py_ssize_t*>(target);
            *word = xpy.major_version == 2 ? xpy.PyInt_AsSsize_t(value) : xpy.PyLong_AsSsize_t(value);
            return *word != -1 || xpy.PyErr_Occurred() == nullptr;
        }
        case Py_T_INT: {
            auto* truth = static_cast<int*>(target);
            *truth = xpy.PyObject_IsTrue(value);
            return *truth >= 0;
        }
        default:
            xpy._PyErr_BadInternalCall(__FILE_NAME__, __LINE__);
            return false;
    }
}
