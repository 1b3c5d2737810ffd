// The interpreter's binary interface, as far as this module touches it.
//
// The module is compiled without the interpreter's headers, so the few types, constants and structures that
// cross the border are declared here, with the meaning that every supported interpreter gives them. Objects
// stay opaque: their fields are reached through offsets learned at import (see xpy_layouts.h) and never
// through a C++ structure.
//
// What other native modules see as well (PyObject, PyMethodDef, Py_ssize_t and the like) comes from the
// public header, so that inside and outside cannot come to differ.
#pragma once

#include "xoptmonitoring/xpy.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

struct PyInterpreterState;
struct PyCodeObject;
struct Py_tss_t;

using Py_hash_t = Py_ssize_t;
using PyThread_type_lock = void*;

/// The interpreter's one-byte mutex (3.13 and later). Zero is unlocked, so static storage needs no
/// initialisation.
struct PyMutex {
    std::uint8_t bits;
};

/// Fast call with keywords and the class that defines the method (METH_METHOD | METH_FASTCALL |
/// METH_KEYWORDS).
using PyCMethod = PyObject* (*)(PyObject* self, PyTypeObject* defining_class, PyObject* const* args, Py_ssize_t nargs,
                                PyObject* kwnames);
using vectorcallfunc = PyObject* (*)(PyObject* callable, PyObject* const* args, std::size_t nargsf, PyObject* kwnames);
using initproc = int (*)(PyObject* self, PyObject* args, PyObject* keywords);
using setattrofunc = int (*)(PyObject* self, PyObject* name, PyObject* value);
using destructor = void (*)(PyObject* self);
using freefunc = void (*)(void* self);
using descrgetfunc = PyObject* (*)(PyObject* self, PyObject* object, PyObject* type);
using getter = PyObject* (*)(PyObject* self, void* closure);
using setter = int (*)(PyObject* self, PyObject* value, void* closure);
using PyCapsule_Destructor = void (*)(PyObject* capsule);
using Py_tracefunc = int (*)(PyObject* object, PyFrameObject* frame, int what, PyObject* argument);

struct PyMemberDef {
    const char* name;
    int type;
    Py_ssize_t offset;
    int flags;
    const char* doc;
};

struct PyGetSetDef {
    const char* name;
    getter get;
    setter set;
    const char* doc;
    void* closure;
};

struct PyType_Slot {
    int slot;
    void* pfunc;
};

struct PyType_Spec {
    const char* name;
    int basicsize;
    int itemsize;
    unsigned int flags;
    PyType_Slot* slots;
};

/// One entry of a module definition's slot array.
struct PyModuleDef_Slot {
    int slot;
    void* value;
};

// Comparison opcodes.
inline constexpr int Py_LT = 0;
inline constexpr int Py_EQ = 2;
inline constexpr int Py_NE = 3;
inline constexpr int Py_GT = 4;

// Calling conventions of PyMethodDef.
inline constexpr int METH_VARARGS = 0x0001;
inline constexpr int METH_KEYWORDS = 0x0002;
inline constexpr int METH_NOARGS = 0x0004;
inline constexpr int METH_FASTCALL = 0x0080;
inline constexpr int METH_METHOD = 0x0200;

// Member types and flags of PyMemberDef. Type codes are those of 3.12's Py_T_ names and of T_ names before.
inline constexpr int Py_T_INT = 1;
inline constexpr int Py_T_OBJECT_EX = 16;
inline constexpr int Py_T_PYSSIZET = 19;
inline constexpr int Py_READONLY = 1;
/// The offset counts from the class's own data block and not from the object (3.12 and later).
inline constexpr int Py_RELATIVE_OFFSET = 8;

// Slots of PyType_Spec.
inline constexpr int Py_tp_base = 48;
inline constexpr int Py_tp_call = 50;
inline constexpr int Py_tp_clear = 51;
inline constexpr int Py_tp_dealloc = 52;
inline constexpr int Py_tp_descr_get = 54;
inline constexpr int Py_tp_doc = 56;
inline constexpr int Py_tp_getattro = 58;
inline constexpr int Py_tp_hash = 59;
inline constexpr int Py_tp_init = 60;
inline constexpr int Py_tp_methods = 64;
inline constexpr int Py_tp_new = 65;
inline constexpr int Py_tp_repr = 66;
inline constexpr int Py_tp_richcompare = 67;
inline constexpr int Py_tp_setattro = 69;
inline constexpr int Py_tp_traverse = 71;
inline constexpr int Py_tp_members = 72;
inline constexpr int Py_tp_getset = 73;
inline constexpr int Py_tp_free = 74;
inline constexpr int Py_tp_finalize = 80;

// Flags of PyType_Spec.
inline constexpr unsigned Py_TPFLAGS_MANAGED_WEAKREF = 1U << 3;         // 3.12 and later
inline constexpr unsigned Py_TPFLAGS_DISALLOW_INSTANTIATION = 1U << 7;  // 3.10 and later
inline constexpr unsigned Py_TPFLAGS_IMMUTABLETYPE = 1U << 8;           // 3.10 and later, nothing before
inline constexpr unsigned Py_TPFLAGS_BASETYPE = 1U << 10;
inline constexpr unsigned Py_TPFLAGS_HAVE_VECTORCALL = 1U << 11;
inline constexpr unsigned Py_TPFLAGS_HAVE_GC = 1U << 14;
inline constexpr unsigned Py_TPFLAGS_DEFAULT = 1U << 18;  // HAVE_VERSION_TAG, needed by 3.9 and earlier
inline constexpr unsigned long Py_TPFLAGS_LONG_SUBCLASS = 1UL << 24;
inline constexpr unsigned long Py_TPFLAGS_UNICODE_SUBCLASS = 1UL << 28;
inline constexpr unsigned long Py_TPFLAGS_DICT_SUBCLASS = 1UL << 29;

// Slots of a module definition.
inline constexpr int Py_mod_create = 1;
inline constexpr int Py_mod_exec = 2;
inline constexpr int Py_mod_multiple_interpreters = 3;
inline constexpr int Py_mod_gil = 4;

/// Set in the argument count of a vectorcall when the slot before the arguments may be used as scratch.
inline constexpr std::size_t PY_VECTORCALL_ARGUMENTS_OFFSET = std::size_t{1} << (8 * sizeof(std::size_t) - 1);

/// The number of positional arguments in a vectorcall's `nargsf`.
inline constexpr Py_ssize_t vectorcall_nargs(std::size_t nargsf) {
    return static_cast<Py_ssize_t>(nargsf & ~PY_VECTORCALL_ARGUMENTS_OFFSET);
}

#define XPY_EXPORT extern "C" __attribute__((visibility("default")))
#define XPY_LIKELY(condition) __builtin_expect(static_cast<bool>(condition), true)
#define XPY_UNLIKELY(condition) __builtin_expect(static_cast<bool>(condition), false)
#define XPY_ALWAYS_INLINE inline __attribute__((always_inline))
#define XPY_COLD __attribute__((cold, noinline))
