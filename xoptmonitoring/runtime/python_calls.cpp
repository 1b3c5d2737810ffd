// Calling Python from native code.
#include "xoptmonitoring/runtime/python_calls.h"

void raise_unset() {
    xpy.PyErr_SetString(xpy.PyExc_AttributeError, "Attribute error");
}

void raise_none_has_no(const char* name) {
    const Ref found = Ref::steal(xpy.PyObject_GetAttrString(none(), name));
    if (found) {
        raise_unset();  // no interpreter gives None one of these names
    }
}

void raise_final_already_set(const char* name, PyObject* owner) {
    xpy.PyErr_Format(xpy.PyExc_AttributeError, "The final attribute '%s' is already set: %R", name, owner);
}

Ref get_attr(PyObject* object, PyObject* name) {
    if (object == nullptr || name == nullptr) {
        raise_unset();
        return {};
    }
    return Ref::steal(xpy.PyObject_GetAttr(object, name));
}

Ref call_vector(PyObject* callable, PyObject** args, Py_ssize_t nargs) {
    if (callable == nullptr) {
        raise_unset();
        return {};
    }
    for (Py_ssize_t index = 0; index < nargs; ++index) {
        if (args[index] == nullptr) {
            raise_unset();
            return {};
        }
    }
    if (xpy.PyObject_Vectorcall != nullptr) {
        const std::size_t nargsf = static_cast<std::size_t>(nargs) | PY_VECTORCALL_ARGUMENTS_OFFSET;
        return Ref::steal(xpy.PyObject_Vectorcall(callable, args, nargsf, nullptr));
    }
    // Before 3.11 vectorcall is no symbol of the interpreter.
    const Ref tuple = Ref::steal(xpy.PyTuple_New(nargs));
    if (!tuple) {
        return {};
    }
    for (Py_ssize_t index = 0; index < nargs; ++index) {
        if (xpy.PyTuple_SetItem(tuple.get(), index, Ref::share(args[index]).release()) != 0) {
            return {};
        }
    }
    return Ref::steal(xpy.PyObject_CallObject(callable, tuple.get()));
}

int compare(PyObject* left, PyObject* right, int operation) {
    const Ref result = Ref::steal(xpy.PyObject_RichCompare(left, right, operation));
    return result ? xpy.PyObject_IsTrue(result.get()) : -1;
}

Ref dict_get(PyObject* mapping, PyObject* key, PyObject* get_name) {
    if (type_of(mapping) != xpy.PyDict_Type_ptr) {
        return call_method(mapping, get_name, key);
    }
    PyObject* found = nullptr;
    const int status = xpy.PyDict_GetItemRef(mapping, key, &found);
    if (status < 0) {
        return {};
    }
    return status == 0 ? new_none() : Ref::steal(found);
}

Ref dict_pop(PyObject* mapping, PyObject* key, PyObject* pop_name) {
    if (type_of(mapping) != xpy.PyDict_Type_ptr) {
        return call_method(mapping, pop_name, key, none());
    }
    PyObject* found = nullptr;
    const int status = xpy.PyDict_Pop(mapping, key, &found);
    if (status < 0) {
        return {};
    }
    return status == 0 ? new_none() : Ref::steal(found);
}

bool dict_set(PyObject* mapping, PyObject* key, PyObject* value) {
    return xpy.PyObject_SetItem(mapping, key, value) == 0;
}

Ref values_snapshot(PyObject* mapping, PyObject* values_name) {
    if (type_of(mapping) == xpy.PyDict_Type_ptr) {
        return Ref::steal(xpy.PyDict_Values(mapping));
    }
    const Ref values = call_method(mapping, values_name);
    return values ? Ref::steal(xpy.PySequence_List(values.get())) : Ref();
}

bool to_ssize(PyObject* object, Py_ssize_t* value) {
    *value = xpy.PyLong_AsSsize_t(object);
    return *value != -1 || xpy.PyErr_Occurred() == nullptr;
}
