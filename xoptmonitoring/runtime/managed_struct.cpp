// Managed structs: what follows from a member table.
#include "xoptmonitoring/runtime/managed_struct.h"

#include "xoptmonitoring/runtime/value_types.h"

int XPy_VisitDataObjrefMembers(void* data, std::span<const FieldDecl> fields, visitproc visit, void* arg) {
    for (const FieldDecl& field : fields) {
        if (!is_object_field(field)) {
            continue;
        }
        PyObject* value = field_at<PyObject*>(data, field);
        if (value == nullptr) {
            continue;
        }
        if (const int stop = visit(value, arg)) {
            return stop;
        }
    }
    return 0;
}

void clear_members(void* data, std::span<const FieldDecl> fields) {
    for (const FieldDecl& field : fields) {
        if (is_object_field(field)) {
            const Ref dropped = Ref::steal(std::exchange(field_at<PyObject*>(data, field), nullptr));
        }
    }
}

void finalize_members(PyObject* self, PyTypeObject* base, void* data, std::span<const FieldDecl> fields,
                      const char* where) {
    const PendingException pending;
    if (void* finalize = xpy.PyType_GetSlot(base, Py_tp_finalize)) {
        reinterpret_cast<destructor>(finalize)(self);
    } else {
        xpy.PyErr_Clear();  // before 3.10 a built-in type's slots are not to be asked for
    }
    for (const FieldDecl& field : fields) {
        if (is_object_field(field)) {
            // `__del__` can be called on a living object.
            replace_member(self, field_at<PyObject*>(data, field), field, Ref());
        }
    }
    if (xpy.PyErr_Occurred() != nullptr) {
        xpy.PyErr_FormatUnraisable(where);
    }
}

void replace_member(PyObject* owner, PyObject*& slot, const FieldDecl& field, Ref value) {
    const Ref old = exchange_slot(owner, slot, std::move(value));
    if (old && field.let_go != nullptr) {
        field.let_go(old.get());
    }
}

void raise_readonly(const char* name) {
    xpy.PyErr_Format(xpy.PyExc_AttributeError, "readonly attribute: %s", name);
}

void raise_no_deletion() {
    xpy.PyErr_SetString(xpy.PyExc_TypeError, "deletion not supported");
}

Ref load_field(PyObject* owner, PyObject* const& slot) {
    Ref value = peek_slot(owner, slot);
    if (XPY_UNLIKELY(!value)) {
        raise_unset();
    }
    return value;
}

Ref read_member(PyObject* owner, void* data, const FieldDecl& field) {
    switch (field.type) {
        case FieldType::Int:
            return new_int(__atomic_load_n(&field_at<Py_ssize_t>(data, field), __ATOMIC_ACQUIRE));
        case FieldType::Bool:
            return new_bool(__atomic_load_n(&field_at<std::int32_t>(data, field), __ATOMIC_ACQUIRE) != 0);
        default:
            return load_field(owner, field_at<PyObject*>(data, field));
    }
}

int write_member(PyObject* owner, void* data, const FieldDecl& field, PyObject* value) {
    if (value == nullptr) {
        raise_no_deletion();
        return -1;
    }
    if ((field.flags & kReadOnlyField) != 0) {
        raise_readonly(field.name);
        return -1;
    }
    switch (field.type) {
        case FieldType::Int: {
            Py_ssize_t word = 0;
            if (!check_value(ValueType::Int, value) || !to_ssize(value, &word)) {
                return -1;
            }
            __atomic_store_n(&field_at<Py_ssize_t>(data, field), word, __ATOMIC_SEQ_CST);
            if (field.changed != nullptr) {
                field.changed(data);
            }
            return 0;
        }
        case FieldType::Bool:
            if (!check_value(ValueType::Bool, value)) {
                return -1;
            }
            // Not before what the assigning thread wrote earlier: a thread that sees fAnySuspendThread has to find the
            // fCheckSuspendLock that was set before it.
            __atomic_store_n(&field_at<std::int32_t>(data, field), value == xpy._Py_TrueStruct ? 1 : 0,
                             __ATOMIC_RELEASE);
            return 0;
        case FieldType::Dict:
            if (!check_value(ValueType::Dict, value)) {
                return -1;
            }
            break;
        case FieldType::Object:
            break;
    }
    PyObject*& slot = field_at<PyObject*>(data, field);
    if ((field.flags & kFinalField) != 0) {
        {
            const ObjectLock lock(owner);
            if (slot == nullptr) {
                exchange_slot_locked(slot, Ref::share(value).release());
                return 0;
            }
        }
        raise_final_already_set(field.name, owner);
        return -1;
    }
    replace_member(owner, slot, field, Ref::share(value));
    return 0;
}
