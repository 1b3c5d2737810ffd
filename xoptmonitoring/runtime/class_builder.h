// Classes from tables: one declaration per class, and the builder that turns it into a Python class.
//
// A class is two types: the class itself, whose instances carry the declared fields, and a metaclass whose one
// instance, the class, carries the class-level fields. Both describe their fields to the interpreter as object
// members too, so that its own deallocation, which knows about deep recursion, resurrection and weak references,
// releases them.
#pragma once

#include "xoptmonitoring/runtime/function.h"
#include "xoptmonitoring/runtime/object_layout.h"

#include <array>
#include <utility>

/// What every class-level record begins with.
struct ClassRecord {
    ModuleState* m;           ///< null in a subclass made in Python, and once the class has been torn down
    const ClassDecl* decl;    ///< null in a subclass made in Python
    std::uint64_t words_set;  ///< which word fields of this very record hold a value, by index
};

/// The module's state behind a record; null once the class has been torn down, on whatever thread that happens. The
/// state was there before the class was, so it needs no order.
inline ModuleState* state_of(const ClassRecord& record) {
    return __atomic_load_n(&record.m, __ATOMIC_RELAXED);
}

/// The declaration of a class.
struct ClassDecl {
    const char* name;         ///< "CPerFile"
    const char* spec_name;    ///< "xoptmonitoring.CPerFile"
    const char* qualname;     ///< differs from the name for a nested class
    const char* record_name;  ///< "CPerFile_class"
    const char* record_spec_name;
    const char* doc;
    std::size_t data_size;
    std::span<const FieldDecl> fields;
    std::size_t class_data_size;
    std::span<const FieldDecl> class_fields;
    std::span<const FunctionDecl> methods;
    bool slots_weakref_only = false;  ///< shows `__slots__ = ("__weakref__",)`
    /// Bytes left free behind the data on free-threaded interpreters, so that the mutex of the next object in memory,
    /// which another thread may be taking on each of its events, is in a cache line of its own.
    std::size_t free_threaded_padding = 0;
};

/// A class's name in all its forms.
#define CLASS_NAMES(name) #name, "xoptmonitoring." #name, #name, #name "_class", "xoptmonitoring." #name "_class"
#define NESTED_CLASS_NAMES(outer, name) \
#name, "xoptmonitoring." #name, #outer "." #name, #name "_class", "xoptmonitoring." #name "_class"

/// What the interpreter needs of one struct: entry points and descriptors made from its member table.
struct StructSlots {
    traverseproc traverse;
    inquiry clear;
    destructor finalize;
    std::span<PyGetSetDef> getsets;
    initproc init = nullptr;          ///< for a metaclass: a class made in Python
    setattrofunc setattro = nullptr;  ///< for a metaclass
    freefunc free = nullptr;          ///< frees an instance instead of the interpreter, and one of a subclass as well
};

/// Everything that the builder needs of one class.
struct ClassBlueprint {
    const ClassDecl* decl;
    StructSlots instance;
    StructSlots record;
    /// Class-level fields as an instance shows them, up to a closing row. They go into the class with its making:
    /// assigned later, they would be taken for the class-level fields themselves.
    PyGetSetDef* record_through_instance;
};

/// Makes the class: its metaclass goes to `metaclass`, the class is returned with its record zeroed but for the
/// head. Empty with an exception set.
Ref create_class(ModuleState& m, const ClassBlueprint& blueprint, PyObject*& metaclass);

// Attribute access by table row; `closure` is the row.
PyObject* get_instance_field(PyObject* self, void* closure);
int set_instance_field(PyObject* self, PyObject* value, void* closure);
PyObject* get_class_field(PyObject* cls, void* closure);
int set_class_field(PyObject* cls, PyObject* value, void* closure);
PyObject* get_class_field_through_instance(PyObject* self, void* closure);
int set_class_field_through_instance(PyObject* self, PyObject* value, void* closure);

// The work behind the generated entry points.
int traverse_instance(PyObject* self, std::span<const FieldDecl> fields, visitproc visit, void* arg);
int traverse_class(PyObject* cls, std::span<const FieldDecl> fields, visitproc visit, void* arg);
int clear_class(PyObject* cls, std::span<const FieldDecl> fields);

/// Finishes a subclass made in Python: class-level fields in its body become those of its record.
int init_class(PyObject* cls, PyObject* args, PyObject* keywords, std::span<const FieldDecl> fields);

/// Attribute assignment of a class. A `__del__` put into a class would take the place of the native finaliser, which
/// keeps borrowed pointers from outliving an object; a subclass may have one from the beginning.
int set_class_attribute(PyObject* cls, PyObject* name, PyObject* value);

/// An object class field read as Python would, through the class and then its bases: AttributeError "Attribute
/// error" where nobody set it. `cls` is an instance of the metaclass.
template <class Data>
Ref load_class_slot(PyTypeObject* cls, PyObject* Data::*slot) {
    PyTypeObject* const metaclass = type_of(as_object(cls));
    for (PyTypeObject* type = cls; type != nullptr && type_of(as_object(type)) == metaclass; type = base_of(type)) {
        if (Ref value = peek_slot(as_object(type), class_data_as<Data>(type).*slot)) {
            return value;
        }
    }
    raise_unset();
    return {};
}

/// Sets an object class field of this very class.
template <class Data>
void store_class_slot(PyTypeObject* cls, PyObject* Data::*slot, Ref value) {
    put_slot(as_object(cls), class_data_as<Data>(cls).*slot, std::move(value));
}

/// Data of `object` when it is an instance of `cls`, else null with TypeError "expected NAME instance, got ...".
template <class Data>
Data* record_data(PyObject* object, PyTypeObject* cls, const char* name) {
    if (XPY_UNLIKELY(cls == nullptr)) {
        return nullptr;  // NameError is set
    }
    if (XPY_UNLIKELY(!is_instance_of(object, cls))) {
        raise_expected_instance(name, object);
        return nullptr;
    }
    return &instance_data_as<Data>(object);
}

/// Marks a word class field as set in the record of `cls`.
void set_class_word(PyTypeObject* cls, const FieldDecl& field, Py_ssize_t value);

namespace generated {

constexpr std::size_t visible_count(std::span<const FieldDecl> fields) {
    std::size_t count = 0;
    for (const FieldDecl& field : fields) {
        count += (field.flags & kHiddenField) != 0 ? 0 : 1;
    }
    return count;
}

/// Descriptors for a member table; each one's closure is its row.
template <std::size_t Count>
constexpr std::array<PyGetSetDef, Count> make_getsets(std::span<const FieldDecl> fields, getter get, setter set) {
    std::array<PyGetSetDef, Count> table{};
    std::size_t next = 0;
    for (const FieldDecl& field : fields) {
        if ((field.flags & kHiddenField) == 0) {
            table[next++] = {field.name, get, set, field.doc, const_cast<FieldDecl*>(&field)};
        }
    }
    return table;
}

/// Tables and entry points of one class; they live as long as the process, as the interpreter demands.
template <const ClassDecl& D>
struct Class {
    static constexpr std::size_t kFields = visible_count(D.fields);
    static constexpr std::size_t kClassFields = visible_count(D.class_fields);
    inline static auto getsets = make_getsets<kFields>(D.fields, get_instance_field, set_instance_field);
    inline static auto class_getsets = make_getsets<kClassFields>(D.class_fields, get_class_field, set_class_field);
    inline static auto through_instance = make_getsets<kClassFields + 1>(
        D.class_fields, get_class_field_through_instance, set_class_field_through_instance);

    static int traverse(PyObject* self, visitproc visit, void* arg) {
        return traverse_instance(self, D.fields, visit, arg);
    }
    static int clear(PyObject* self) {
        clear_members(instance_data(self), D.fields);
        return 0;
    }
    static void finalize(PyObject* self) {
        finalize_members(self, object_type, instance_data(self), D.fields,
                         "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
    }
    static int class_traverse(PyObject* cls, visitproc visit, void* arg) {
        return traverse_class(cls, D.class_fields, visit, arg);
    }
    static int class_clear(PyObject* cls) {
        return clear_class(cls, D.class_fields);
    }
    static int class_init(PyObject* cls, PyObject* args, PyObject* keywords) {
        return init_class(cls, args, keywords, D.class_fields);
    }
    static void class_finalize(PyObject* cls) {
        finalize_members(cls, xpy.PyType_Type_ptr, class_data(cls), D.class_fields,
                         "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
    }
};

}  // namespace generated

/// The blueprint of a declared class. `finalize` replaces the ordinary finaliser where a class has more to do.
template <const ClassDecl& D>
ClassBlueprint blueprint(destructor finalize = &generated::Class<D>::finalize) {
    using Generated = generated::Class<D>;
    return {&D,
            {&Generated::traverse, &Generated::clear, finalize, Generated::getsets},
            {&Generated::class_traverse, &Generated::class_clear, &Generated::class_finalize, Generated::class_getsets,
             &Generated::class_init, &set_class_attribute},
            Generated::through_instance.data()};
}
