// Reference counting without a call into the interpreter where its layout allows that.
//
// Three cases, settled once at binding: no plain count to touch (free-threaded and reference-tracing builds), or one
// that the interpreter adds up as well (debug builds), goes through Py_IncRef and Py_DecRef; from 3.12 on the count is
// the low 32 bits and a negative one marks an immortal object; before 3.12 it is a plain 64-bit word.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

/// Whether the interpreter keeps a total of all references (sys.gettotalrefcount in a debug build), which would drift
/// if it were passed by. Set when binding has succeeded.
extern bool totals_references;

/// Whether a count is changed in place.
inline bool updates_refcounts() {
    return xpy.can_update_refcount_directly != 0 && !totals_references;
}

/// Address of the field `offset` bytes into `object`.
template <class Field>
inline Field* XPy_GetFieldAddress(void* object, std::int64_t offset) {
    return reinterpret_cast<Field*>(static_cast<char*>(object) + offset);
}

inline void XPy_CallIncRef(PyObject* object) {
    xpy.Py_IncRef(object);
}

inline void XPy_CallDecRef(PyObject* object) {
    xpy.Py_DecRef(object);
}

/// Whether the interpreter never counts references to `object` (3.12 and later, plain builds only).
inline bool XPy_IsImmortal(PyObject* object) {
    return xpy.can_update_refcount_directly != 0 && xpy.refcnt_is_32bit != 0 &&
           *XPy_GetFieldAddress<std::int32_t>(object, xpy.pyobject_offsets.refcnt) < 0;
}

/// Whether an object's last reference is gone and it is just being taken apart. For an interpreter with a global
/// lock, 3.12 and later, and an object that is still allocated.
inline bool XPy_IsDying(PyObject* object) {
    return *XPy_GetFieldAddress<std::int32_t>(object, xpy.pyobject_offsets.refcnt) == 0;
}

inline void XPy_DoIncRef(PyObject* object) {
    if (XPY_UNLIKELY(!updates_refcounts())) {
        XPy_CallIncRef(object);
        return;
    }
    if (XPY_LIKELY(xpy.refcnt_is_32bit != 0)) {
        auto* count = XPy_GetFieldAddress<std::int32_t>(object, xpy.pyobject_offsets.refcnt);
        if (*count >= 0) {
            // Unsigned, because the largest mortal count plus one is what makes an object immortal.
            *count = static_cast<std::int32_t>(static_cast<std::uint32_t>(*count) + 1U);
        }
        return;
    }
    ++*XPy_GetFieldAddress<std::int64_t>(object, xpy.pyobject_offsets.refcnt);
}

/// Drops one reference. The last one goes to the interpreter, which runs the object's destructor: any Python
/// code.
inline void XPy_DoDecRef(PyObject* object) {
    if (XPY_UNLIKELY(!updates_refcounts())) {
        XPy_CallDecRef(object);
        return;
    }
    if (XPY_LIKELY(xpy.refcnt_is_32bit != 0)) {
        auto* count = XPy_GetFieldAddress<std::int32_t>(object, xpy.pyobject_offsets.refcnt);
        if (*count < 0) {
            return;
        }
        if (*count > 1) {
            --*count;
            return;
        }
        XPy_CallDecRef(object);
        return;
    }
    auto* count = XPy_GetFieldAddress<std::int64_t>(object, xpy.pyobject_offsets.refcnt);
    if (*count > 1) {
        --*count;
        return;
    }
    XPy_CallDecRef(object);
}
