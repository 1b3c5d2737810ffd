// The runtime's own types beside the function type.
//
// A managed struct is a record that shows the names of its fields; a frame is what a function defined inside another
// would find its outer variables in; a generator holds the frame that it runs. No Python code makes any of them.
#include "xoptmonitoring/runtime/internal_types.h"

#include "xoptmonitoring/runtime/class_builder.h"

namespace {

struct ManagedStructData {
    PyObject* __members;
};

struct FrameData {
    PyObject* __function__;
    PyObject* __outer_frame__;
};

struct GeneratorData {
    PyObject* __frame__;
};

constexpr FieldDecl kManagedStructFields[] = {
    {"__members", FieldType::Object, offsetof(ManagedStructData, __members), kReadOnlyField,
     "Tuple of the names of the record's fields."},
};

constexpr FieldDecl kFrameFields[] = {
    {"__function__", FieldType::Object, offsetof(FrameData, __function__), kReadOnlyField,
     "The function that the frame belongs to."},
    {"__outer_frame__", FieldType::Object, offsetof(FrameData, __outer_frame__), kReadOnlyField,
     "The frame that the function was made in."},
};

constexpr FieldDecl kGeneratorFields[] = {
    {"__frame__", FieldType::Object, offsetof(GeneratorData, __frame__), kReadOnlyField,
     "The frame that the generator runs."},
};

/// One internal type, as a table row would have it.
struct InternalTypeDecl {
    const char* spec_name;
    const char* unraisable_text;
    std::size_t data_size;
    std::span<const FieldDecl> fields;
};

constexpr InternalTypeDecl kManagedStruct = {"xoptmonitoring._XNotPy_ManagedStruct",
                                             "Exception ignored in _XNotPy_ManagedStruct tp_finalize",
                                             sizeof(ManagedStructData), kManagedStructFields};
constexpr InternalTypeDecl kFrame = {"xoptmonitoring._XNotPy_Frame", "Exception ignored in _XNotPy_Frame tp_finalize",
                                     sizeof(FrameData), kFrameFields};
constexpr InternalTypeDecl kGenerator = {"xoptmonitoring._XNotPy_Generator",
                                         "Exception ignored in _XNotPy_Frame tp_finalize", sizeof(GeneratorData),
                                         kGeneratorFields};

template <const InternalTypeDecl& D>
struct InternalType {
    inline static auto getsets = generated::make_getsets<generated::visible_count(D.fields) + 1>(
        D.fields, get_instance_field, set_instance_field);

    static int traverse(PyObject* self, visitproc visit, void* arg) {
        return traverse_instance(self, D.fields, visit, arg);
    }
    static int clear(PyObject* self) {
        clear_members(instance_data(self), D.fields);
        return 0;
    }
    static void finalize(PyObject* self) {
        finalize_members(self, object_type, instance_data(self), D.fields, D.unraisable_text);
    }

    static PyObject* create(ModuleState& m) {
        PyType_Slot slots[] = {
            {Py_tp_traverse, reinterpret_cast<void*>(&traverse)},
            {Py_tp_clear, reinterpret_cast<void*>(&clear)},
            {Py_tp_finalize, reinterpret_cast<void*>(&finalize)},
            {Py_tp_getset, getsets.data()},
            {0, nullptr},
        };
        PyType_Spec spec = {
            D.spec_name, static_cast<int>(data_offsets.instance + static_cast<Py_ssize_t>(D.data_size)), 0,
            Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
            slots};
        return xpy.PyType_FromModuleAndSpec(m.module, &spec, nullptr);
    }
};

}  // namespace

bool create_internal_types(ModuleState& m) {
    if (!learn_data_offsets() || !create_function_type(m)) {
        return false;
    }
    m.types.managed_struct = InternalType<kManagedStruct>::create(m);
    m.types.frame = m.types.managed_struct != nullptr ? InternalType<kFrame>::create(m) : nullptr;
    m.types.generator = m.types.frame != nullptr ? InternalType<kGenerator>::create(m) : nullptr;
    return m.types.generator != nullptr;
}
