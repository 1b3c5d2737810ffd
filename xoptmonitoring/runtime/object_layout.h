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

/// Objects whose header is known when this is compiled: what is asked of them needs no look into the tables.
namespace known {

template <class Header>
PyTypeObject* type_of(PyObject* object) {
    return reinterpret_cast<Header*>(object)->type;
}

template <class Header, class Data>
Data& data(PyObject* self) {
    return *reinterpret_cast<Data*>(reinterpret_cast<Header*>(self) + 1);
}

}  // namespace known

/// What objects look like in the builds that nearly everybody runs: 3.12 or later, a global lock, no reference tracing.
namespace plain {

struct Header {
    std::int32_t refcnt;
    std::int32_t more;  // the count's upper half, from 3.14 on flags
    PyTypeObject* type;
};

/// Whether this interpreter's objects are plain; all else in this namespace is for those alone.
extern bool objects;

inline PyTypeObject* type_of(PyObject* object) {
    return known::type_of<Header>(object);
}

template <class Data>
Data& data(PyObject* self) {
    return known::data<Header, Data>(self);
}

/// Keeps an object alive that is not immortal. In a debug build the interpreter's own total does not see it.
class [[nodiscard]] Hold {
  public:
    explicit Hold(PyObject* object) noexcept : object_(object) {
        ++header().refcnt;
    }
    ~Hold() {
        if (XPY_UNLIKELY(--header().refcnt == 0)) {
            header().refcnt = 1;
            XPy_CallDecRef(object_);  // runs the destructor
        }
    }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    Hold(Hold&&) = delete;
    Hold& operator=(Hold&&) = delete;

  private:
    Header& header() const noexcept {
        return *reinterpret_cast<Header*>(object_);
    }

    PyObject* object_;
};

}  // namespace plain

/// The same without a global lock: 3.13 or later, no reference tracing.
namespace shared {

struct Header {
    std::uint64_t thread_id;
    std::uint16_t flags;
    std::uint8_t mutex;
    std::uint8_t gc_bits;
    std::uint32_t local_count;
    std::int64_t shared_count;
    PyTypeObject* type;
};

/// Whether this interpreter's objects are these; all else in this namespace is for those alone.
extern bool objects;

inline PyTypeObject* type_of(PyObject* object) {
    return known::type_of<Header>(object);
}

template <class Data>
Data& data(PyObject* self) {
    return known::data<Header, Data>(self);
}

}  // namespace shared

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
