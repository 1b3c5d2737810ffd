// Calling Python from native code: attributes, calls, dictionaries, comparisons, and setting exceptions aside.
#pragma once

#include "xoptmonitoring/binding/refs.h"

#include <array>

/// Raises AttributeError "Attribute error": a field or global that holds nothing was read.
XPY_COLD void raise_unset();

/// Raises the AttributeError of reading the field `name` through None, in the interpreter's own words.
XPY_COLD void raise_none_has_no(const char* name);

/// Raises AttributeError "The final attribute '%s' is already set: %R" for the attribute `name` of `owner`.
XPY_COLD void raise_final_already_set(const char* name, PyObject* owner);

/// `object.name`. An empty name (module state torn down) raises as any unset field does.
Ref get_attr(PyObject* object, PyObject* name);

/// `callable(*args)`, all borrowed. `args[-1]` must be scratch space that the callee may overwrite.
Ref call_vector(PyObject* callable, PyObject** args, Py_ssize_t nargs);

/// `callable(args...)`.
template <class... Args>
Ref call(PyObject* callable, Args... args) {
    std::array<PyObject*, sizeof...(Args) + 1> vector{nullptr, args...};
    return call_vector(callable, vector.data() + 1, static_cast<Py_ssize_t>(sizeof...(Args)));
}

/// `object.name(args...)`.
template <class... Args>
Ref call_method(PyObject* object, PyObject* name, Args... args) {
    const Ref method = get_attr(object, name);
    return method ? call(method.get(), args...) : Ref();
}

/// Whether `object` is an instance of `type` or of a subtype; unlike isinstance() this runs no Python code.
inline bool is_instance_of(PyObject* object, PyTypeObject* type) {
    PyTypeObject* actual = type_of(object);
    return actual == type || xpy.PyType_IsSubtype(actual, type) != 0;
}

/// Whether `object` really is a str.
inline bool is_str(PyObject* object) {
    return is_instance_of(object, xpy.PyUnicode_Type_ptr);
}

/// `isinstance(object, type)`: 1, 0, or -1 with an exception set.
inline int is_instance(PyObject* object, PyObject* type) {
    return xpy.PyObject_IsInstance(object, type);
}

/// `isinstance(object, str)`, to which an object passes for a str whose `__class__` says so.
inline int is_str_instance(PyObject* object) {
    return is_instance(object, as_object(xpy.PyUnicode_Type_ptr));
}

/// Truth of `left == right` (or `!=`): 1, 0, or -1 with an exception set.
int compare(PyObject* left, PyObject* right, int operation);

/// `mapping.get(key)`: the value, None where there is none, empty with an exception set. A dictionary is asked
/// directly; anything else through its own `get`.
Ref dict_get(PyObject* mapping, PyObject* key, PyObject* get_name);

/// `mapping.pop(key, None)`, as dict_get.
Ref dict_pop(PyObject* mapping, PyObject* key, PyObject* pop_name);

/// `mapping[key] = value`. False with an exception set.
bool dict_set(PyObject* mapping, PyObject* key, PyObject* value);

/// `key in container`: 1, 0, or -1 with an exception set.
inline int contains(PyObject* container, PyObject* key) {
    return xpy.PySequence_Contains(container, key);
}

/// `list(mapping.values())`.
Ref values_snapshot(PyObject* mapping, PyObject* values_name);

/// A machine word from a Python integer. False with the interpreter's own conversion error set.
bool to_ssize(PyObject* object, Py_ssize_t* value);

/// A new Python integer.
inline Ref new_int(Py_ssize_t value) {
    return Ref::steal(xpy.PyLong_FromSsize_t(value));
}

/// Sets the pending exception aside for the scope and puts it back at its end, replacing whatever came up between.
class [[nodiscard]] PendingException {
  public:
    PendingException() noexcept {
        xpy.PyErr_Fetch(&type_, &value_, &traceback_);
    }
    ~PendingException() {
        if (type_ != nullptr) {
            xpy.PyErr_Restore(type_, value_, traceback_);
        }
    }
    PendingException(const PendingException&) = delete;
    PendingException& operator=(const PendingException&) = delete;
    PendingException(PendingException&&) = delete;
    PendingException& operator=(PendingException&&) = delete;

    /// Whether an exception was pending.
    bool was_set() const noexcept {
        return type_ != nullptr;
    }

    /// Forgets the exception set aside: a newer one replaces it.
    void drop() noexcept {
        Ref type = Ref::steal(std::exchange(type_, nullptr));
        Ref value = Ref::steal(std::exchange(value_, nullptr));
        Ref traceback = Ref::steal(std::exchange(traceback_, nullptr));
    }

  private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
};
