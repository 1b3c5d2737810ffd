// Ref: an owned reference. A raw PyObject* is borrowed, everywhere above the binding layer.
#pragma once

#include "xoptmonitoring/binding/xpy_refcount.h"

#include <utility>

/// Owns one reference, or nothing. Moves and never copies; a count goes up only where `share` says so. An
/// empty Ref returned by a function means that a Python exception is set.
class [[nodiscard]] Ref {
  public:
    Ref() noexcept = default;
    Ref(Ref&& other) noexcept : object_(other.release()) {}
    Ref& operator=(Ref&& other) noexcept {
        Ref old(std::move(*this));
        object_ = other.release();
        return *this;
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    ~Ref() {
        if (object_ != nullptr) {
            XPy_DoDecRef(object_);
        }
    }

    /// Takes over a reference that the caller owns (a new reference from the interpreter, or null).
    static Ref steal(PyObject* object) noexcept {
        Ref ref;
        ref.object_ = object;
        return ref;
    }

    /// Takes a reference of its own to a borrowed object (or null).
    static Ref share(PyObject* object) noexcept {
        if (object != nullptr) {
            XPy_DoIncRef(object);
        }
        return steal(object);
    }

    /// The object, still owned by this Ref.
    PyObject* get() const noexcept {
        return object_;
    }

    /// Hands the reference to the caller.
    [[nodiscard]] PyObject* release() noexcept {
        return std::exchange(object_, nullptr);
    }

    explicit operator bool() const noexcept {
        return object_ != nullptr;
    }

  private:
    PyObject* object_ = nullptr;
};

/// The interpreter's None, borrowed.
inline PyObject* none() {
    return xpy._Py_NoneStruct;
}

/// A new reference to None.
inline Ref new_none() {
    return Ref::share(none());
}

/// A new reference to True or False. Generation 2 calls the latter zero.
inline Ref new_bool(bool value) {
    PyObject* no = xpy._Py_FalseStruct != nullptr ? xpy._Py_FalseStruct : xpy._Py_ZeroStruct;
    return Ref::share(value ? xpy._Py_TrueStruct : no);
}

/// `type(object)`, borrowed from the object: a field load, since this is asked on every event.
inline PyTypeObject* type_of(PyObject* object) {
    return *XPy_GetFieldAddress<PyTypeObject*>(object, xpy.pyobject_offsets.type);
}

/// A type seen as the object that it also is.
inline PyObject* as_object(PyTypeObject* type) {
    return reinterpret_cast<PyObject*>(type);
}

/// An object known to be a type.
inline PyTypeObject* as_type(PyObject* object) {
    return reinterpret_cast<PyTypeObject*>(object);
}
