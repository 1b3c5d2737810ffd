// Where the data blocks of the module's objects begin.
//
// Every class of the module extends `object` and every metaclass extends `type`, so there are just two offsets in a
// process: they follow from the sizes of those two types and are worked out before the first type is made.
#pragma once

#include "xoptmonitoring/binding/refs.h"

#include <cstddef>

/// Offsets in bytes of the data block in an instance and in a class object.
struct DataOffsets {
    Py_ssize_t instance;
    Py_ssize_t class_record;
};
extern DataOffsets data_offsets;

/// The interpreter's type `object`, borrowed.
extern PyTypeObject* object_type;

/// Works out `data_offsets` and `object_type`. False with an exception set where this interpreter's type layout is
/// not known.
bool learn_data_offsets();

/// The data block of an instance, which is the same place for a subclass made in Python.
inline void* instance_data(PyObject* self) {
    return reinterpret_cast<char*>(self) + data_offsets.instance;
}

/// The class-level record in a class object.
inline void* class_data(PyObject* cls) {
    return reinterpret_cast<char*>(cls) + data_offsets.class_record;
}

template <class Data>
Data& instance_data_as(PyObject* self) {
    return *static_cast<Data*>(instance_data(self));
}

template <class Data>
Data& class_data_as(PyTypeObject* cls) {
    return *static_cast<Data*>(class_data(as_object(cls)));
}

/// A type's base, borrowed; null for `object`.
inline PyTypeObject* base_of(PyTypeObject* type) {
    return *XPy_GetFieldAddress<PyTypeObject*>(type, xpy.typeobject_offsets.tp_base);
}
