// Turning a class declaration into a Python class.
#include "xoptmonitoring/runtime/class_builder.h"

#include "xoptmonitoring/binding/xpy_layouts.h"

#include <cstring>
#include <iterator>

namespace {

/// A metaclass keeps its own items behind the record: 3.12's Py_TPFLAGS_ITEMS_AT_END.
constexpr unsigned kItemsAtEnd = 1U << 23;
constexpr std::size_t kMaxFields = 24;

/// A closing row alone.
std::array<PyGetSetDef, 1> kNoGetsets{};

template <class Function>
void* slot_value(Function* function) {
    return reinterpret_cast<void*>(function);
}

/// The object fields of a data block as members of the interpreter's kind, so that its deallocation drops them.
struct OwnedMembers {
    std::array<PyMemberDef, kMaxFields + 1> rows{};

    OwnedMembers(std::span<const FieldDecl> fields, Py_ssize_t data_offset) {
        std::size_t count = 0;
        for (const FieldDecl& field : fields) {
            if (is_object_field(field)) {
                rows[count++] = {field.name, Py_T_OBJECT_EX, data_offset + static_cast<Py_ssize_t>(field.offset), 0,
                                 field.doc};
            }
        }
    }
};

/// One of the two types of a class, described for the interpreter. `getsets` names no field of the type's own.
Ref create_type(ModuleState& m, PyObject* metaclass, PyTypeObject* base, const char* spec_name, const char* doc,
                Py_ssize_t basicsize, unsigned flags, const StructSlots& slots, OwnedMembers& members,
                PyGetSetDef* getsets) {
    PyType_Slot rows[] = {
        {Py_tp_doc, const_cast<char*>(doc)},
        {Py_tp_traverse, slot_value(slots.traverse)},
        {Py_tp_clear, slot_value(slots.clear)},
        {Py_tp_finalize, slot_value(slots.finalize)},
        {Py_tp_members, members.rows.data()},
        {Py_tp_getset, getsets},
        {0, nullptr},  // up to three more, and the closing row
        {0, nullptr},
        {0, nullptr},
        {0, nullptr},
    };
    PyType_Slot* next = std::end(rows) - 4;
    const auto add = [&next](int slot, void* value) {
        if (value != nullptr) {
            *next++ = {slot, value};
        }
    };
    add(Py_tp_init, slot_value(slots.init));
    add(Py_tp_setattro, slot_value(slots.setattro));
    add(Py_tp_free, slot_value(slots.free));
    PyType_Spec spec = {spec_name, static_cast<int>(basicsize), 0, flags, rows};
    if (metaclass == nullptr) {
        return Ref::steal(xpy.PyType_FromModuleAndSpec(m.module, &spec, as_object(base)));
    }
    return Ref::steal(xpy.PyType_FromMetaclass(as_type(metaclass), m.module, &spec, as_object(base)));
}

/// Puts typed descriptors in place of the plain members of the same names.
bool install_getsets(PyObject* type, std::span<PyGetSetDef> getsets) {
    for (PyGetSetDef& getset : getsets) {
        const Ref descriptor = Ref::steal(xpy.PyDescr_NewGetSet(as_type(type), &getset));
        if (!descriptor || xpy.PyObject_SetAttrString(type, getset.name, descriptor.get()) != 0) {
            return false;
        }
    }
    return true;
}

bool install_methods(ModuleState& m, PyObject* cls, const ClassDecl& decl) {
    for (const FunctionDecl& method : decl.methods) {
        const Ref function = new_function(m, method, cls, &decl);
        if (!function || xpy.PyObject_SetAttrString(cls, method.name, function.get()) != 0) {
            return false;
        }
    }
    return true;
}

bool set_text_attribute(PyObject* cls, const char* name, const char* text) {
    const Ref value = Ref::steal(xpy.PyUnicode_FromString(text));
    return value && xpy.PyObject_SetAttrString(cls, name, value.get()) == 0;
}

bool declare_slots(PyObject* cls) {
    const Ref slots = Ref::steal(xpy.Py_BuildValue("(s)", "__weakref__"));
    return slots && xpy.PyObject_SetAttrString(cls, "__slots__", slots.get()) == 0;
}

const FieldDecl& row_of(void* closure) {
    return *static_cast<const FieldDecl*>(closure);
}

/// Bit of a word field in its record's set mask: its place in the record, in words.
std::uint64_t word_bit(const FieldDecl& field) {
    return std::uint64_t{1} << (field.offset / sizeof(Py_ssize_t) % 64);
}

ClassRecord& record_head(PyObject* cls) {
    return *static_cast<ClassRecord*>(class_data(cls));
}

bool is_set_in(PyObject* cls, const FieldDecl& field) {
    if (is_object_field(field)) {
        return static_cast<bool>(peek_slot(cls, field_at<PyObject*>(class_data(cls), field)));
    }
    return (__atomic_load_n(&record_head(cls).words_set, __ATOMIC_ACQUIRE) & word_bit(field)) != 0;
}

/// The nearest class, from `cls` outward along its bases, whose record holds the field; null where none does. A
/// subclass made in Python has the same metaclass, which cannot be derived from, and so a record of its own.
PyObject* find_holder(PyObject* cls, const FieldDecl& field) {
    PyTypeObject* const metaclass = type_of(cls);
    for (PyTypeObject* type = as_type(cls); type != nullptr && type_of(as_object(type)) == metaclass;
         type = base_of(type)) {
        if (is_set_in(as_object(type), field)) {
            return as_object(type);
        }
    }
    return nullptr;
}

}  // namespace

Ref create_class(ModuleState& m, const ClassBlueprint& blueprint, PyObject*& metaclass) {
    const ClassDecl& decl = *blueprint.decl;
    OwnedMembers record_members(decl.class_fields, data_offsets.class_record);
    Ref meta = create_type(m, nullptr, xpy.PyType_Type_ptr, decl.record_spec_name, decl.doc,
                           data_offsets.class_record + static_cast<Py_ssize_t>(decl.class_data_size),
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | kItemsAtEnd, blueprint.record, record_members,
                           kNoGetsets.data());
    if (!meta || !install_getsets(meta.get(), blueprint.record.getsets)) {
        return {};
    }
    OwnedMembers instance_members(decl.fields, data_offsets.instance);
    const std::size_t padding = is_free_threaded() ? decl.free_threaded_padding : 0;
    Ref cls = create_type(m, meta.get(), object_type, decl.spec_name, decl.doc,
                          data_offsets.instance + static_cast<Py_ssize_t>(decl.data_size + padding),
                          Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_MANAGED_WEAKREF,
                          blueprint.instance, instance_members, blueprint.record_through_instance);
    if (!cls) {
        return {};
    }
    record_head(cls.get()) = {&m, &decl, 0};
    if (!install_getsets(cls.get(), blueprint.instance.getsets) || !install_methods(m, cls.get(), decl)) {
        return {};
    }
    if (std::strcmp(decl.qualname, decl.name) != 0 && !set_text_attribute(cls.get(), "__qualname__", decl.qualname)) {
        return {};
    }
    if (decl.slots_weakref_only && !declare_slots(cls.get())) {
        return {};
    }
    metaclass = meta.release();
    return cls;
}

PyObject* get_instance_field(PyObject* self, void* closure) {
    return read_member(self, instance_data(self), row_of(closure)).release();
}

int set_instance_field(PyObject* self, PyObject* value, void* closure) {
    return write_member(self, instance_data(self), row_of(closure), value);
}

PyObject* get_class_field(PyObject* cls, void* closure) {
    const FieldDecl& field = row_of(closure);
    PyObject* holder = find_holder(cls, field);
    if (holder == nullptr) {
        raise_unset();
        return nullptr;
    }
    return read_member(holder, class_data(holder), field).release();
}

int set_class_field(PyObject* cls, PyObject* value, void* closure) {
    const FieldDecl& field = row_of(closure);
    if (value != nullptr && (field.flags & kFinalField) != 0 && find_holder(cls, field) != nullptr) {
        raise_final_already_set(field.name, cls);
        return -1;
    }
    if (write_member(cls, class_data(cls), field, value) != 0) {
        return -1;
    }
    if (!is_object_field(field)) {
        __atomic_or_fetch(&record_head(cls).words_set, word_bit(field), __ATOMIC_RELEASE);
    }
    return 0;
}

PyObject* get_class_field_through_instance(PyObject* self, void* closure) {
    return get_class_field(as_object(type_of(self)), closure);
}

int set_class_field_through_instance(PyObject* /*self*/, PyObject* value, void* closure) {
    if (value == nullptr) {
        raise_no_deletion();
    } else {
        raise_readonly(row_of(closure).name);
    }
    return -1;
}

int traverse_instance(PyObject* self, std::span<const FieldDecl> fields, visitproc visit, void* arg) {
    if (const int stop = visit(as_object(type_of(self)), arg)) {
        return stop;
    }
    return XPy_VisitDataObjrefMembers(instance_data(self), fields, visit, arg);
}

int traverse_class(PyObject* cls, std::span<const FieldDecl> fields, visitproc visit, void* arg) {
    auto base = reinterpret_cast<traverseproc>(xpy.PyType_GetSlot(xpy.PyType_Type_ptr, Py_tp_traverse));
    if (const int stop = base(cls, visit, arg)) {
        return stop;
    }
    if (const int stop = visit(as_object(type_of(cls)), arg)) {
        return stop;
    }
    return XPy_VisitDataObjrefMembers(class_data(cls), fields, visit, arg);
}

int clear_class(PyObject* cls, std::span<const FieldDecl> fields) {
    // The base's clearing lets go of the module, whose state `m` points into.
    __atomic_store_n(&record_head(cls).m, nullptr, __ATOMIC_RELEASE);
    auto base = reinterpret_cast<inquiry>(xpy.PyType_GetSlot(xpy.PyType_Type_ptr, Py_tp_clear));
    const int status = base(cls);
    clear_members(class_data(cls), fields);
    return status;
}

namespace {

/// Takes one class-level field out of the class's own dictionary, where the class body put it, into its record.
int adopt_field(PyObject* cls, const FieldDecl& field) {
    PyObject* dict = *xpy._PyObject_GetDictPtr(cls);
    const Ref name = Ref::steal(xpy.PyUnicode_FromString(field.name));
    const Ref value = name ? Ref::share(xpy.PyDict_GetItemWithError(dict, name.get())) : Ref();
    if (!value) {
        return xpy.PyErr_Occurred() != nullptr ? -1 : 0;
    }
    if (xpy.PyDict_DelItem(dict, name.get()) != 0) {
        return -1;
    }
    xpy.PyType_Modified(as_type(cls));
    return set_class_field(cls, value.get(), const_cast<FieldDecl*>(&field));
}

/// Has the instances of a class made in Python freed as those of its base are; the interpreter gives each such class
/// its own way.
void inherit_free(PyTypeObject* cls) {
    const auto free_slot = [](PyTypeObject* type) { return xpy.PyType_GetSlot(type, Py_tp_free); };
    const std::int64_t offset =
        xpy.typeobject_offsets.tp_base + FindFieldOffsetMissingOk("tp_free", typeobject_fields_from_base);
    void** free = XPy_GetFieldAddress<void*>(cls, offset);
    if (*free == free_slot(cls)) {
        *free = free_slot(base_of(cls));
    }
}

}  // namespace

int init_class(PyObject* cls, PyObject* args, PyObject* keywords, std::span<const FieldDecl> fields) {
    auto base = reinterpret_cast<initproc>(xpy.PyType_GetSlot(xpy.PyType_Type_ptr, Py_tp_init));
    if (base(cls, args, keywords) != 0) {
        return -1;
    }
    inherit_free(as_type(cls));
    for (const FieldDecl& field : fields) {
        if (adopt_field(cls, field) != 0) {
            return -1;
        }
    }
    return 0;
}

int set_class_attribute(PyObject* cls, PyObject* name, PyObject* value) {
    if (is_str(name) && xpy.PyUnicode_CompareWithASCIIString(name, "__del__") == 0) {
        xpy.PyErr_SetString(xpy.PyExc_TypeError, "cannot set attribute '__del__' of a class of this module");
        return -1;
    }
    auto base = reinterpret_cast<setattrofunc>(xpy.PyType_GetSlot(xpy.PyType_Type_ptr, Py_tp_setattro));
    return base(cls, name, value);
}

void set_class_word(PyTypeObject* cls, const FieldDecl& field, Py_ssize_t value) {
    __atomic_store_n(&field_at<Py_ssize_t>(class_data(as_object(cls)), field), value, __ATOMIC_RELEASE);
    if (field.changed != nullptr) {
        field.changed(class_data(as_object(cls)));
    }
    __atomic_or_fetch(&record_head(as_object(cls)).words_set, word_bit(field), __ATOMIC_RELEASE);
}
