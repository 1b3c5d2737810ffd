// Where the data blocks of the module's objects begin.
#include "xoptmonitoring/runtime/object_layout.h"

DataOffsets data_offsets;
bool plain::objects = false;
bool shared::objects = false;
PyTypeObject* object_type;

namespace {

/// First place behind what `base` occupies that suits any data, as PyObject_GetTypeData() has it.
Py_ssize_t offset_behind(PyTypeObject* base) {
    const Py_ssize_t size = *XPy_GetFieldAddress<Py_ssize_t>(base, xpy.typeobject_offsets.tp_basicsize);
    return (size + xpy.max_align - 1) / xpy.max_align * xpy.max_align;
}

}  // namespace

bool learn_data_offsets() {
    if (xpy.typeobject_offsets.tp_basicsize == -1) {
        xpy.PyErr_SetString(xpy.PyExc_ImportError, "xoptmonitoring needs Python 3.12 or later");
        return false;
    }
    object_type = base_of(xpy.PyType_Type_ptr);
    data_offsets.instance = offset_behind(object_type);
    data_offsets.class_record = offset_behind(xpy.PyType_Type_ptr);
    plain::objects = xpy.can_update_refcount_directly != 0 && xpy.refcnt_is_32bit != 0 &&
                     xpy.pyobject_offsets.refcnt == offsetof(plain::Header, refcnt) &&
                     xpy.pyobject_offsets.type == offsetof(plain::Header, type) &&
                     data_offsets.instance == sizeof(plain::Header);
    shared::objects = xpy.pyobject_offsets.mutex == offsetof(shared::Header, mutex) &&
                      xpy.pyobject_offsets.type == offsetof(shared::Header, type) &&
                      data_offsets.instance == sizeof(shared::Header);
    return true;
}
