// The module object.
//
// The globals are not kept in the module's dictionary, where anybody could replace them, but in its state; each is
// published under its name by a descriptor of the module's own type.
#include "xoptmonitoring/module/module_object.h"

#include "xoptmonitoring/binding/xpy_layouts.h"
#include "xoptmonitoring/runtime/managed_struct.h"

#include <array>

namespace {

/// One published global.
struct GlobalDecl {
    const char* name;
    FieldType type;
    std::size_t offset;  ///< within ModuleGlobals
    bool is_final;
    const char* doc;
};

constexpr GlobalDecl kGlobals[] = {
#define GLOBAL_FINAL(name, doc) {#name, FieldType::Object, offsetof(ModuleGlobals, name), true, doc},
#define GLOBAL_OBJECT(name, doc) {#name, FieldType::Object, offsetof(ModuleGlobals, name), false, doc},
#define GLOBAL_INTEGER(name, doc) {#name, FieldType::Int, offsetof(ModuleGlobals, name), false, doc},
#include "xoptmonitoring/runtime/module_globals.def"
};

const GlobalDecl& row_of(void* closure) {
    return *static_cast<const GlobalDecl*>(closure);
}

PyObject* get_global(PyObject* module, void* closure) {
    const GlobalDecl& global = row_of(closure);
    ModuleState* m = state_of(module);
    if (m == nullptr) {
        raise_unset();
        return nullptr;
    }
    const FieldDecl field = {global.name, global.type, global.offset, kReadOnlyField, global.doc};
    return read_member(module, &m->globals, field).release();
}

int set_global(PyObject* module, PyObject* value, void* closure) {
    const GlobalDecl& global = row_of(closure);
    if (value == nullptr) {
        raise_no_deletion();
    } else if (global.is_final) {
        raise_final_already_set(global.name, module);
    } else {
        raise_readonly(global.name);
    }
    return -1;
}

template <std::size_t... Index>
constexpr auto make_getsets(std::index_sequence<Index...> /*indexes*/) {
    return std::array<PyGetSetDef, sizeof...(Index) + 1>{
        PyGetSetDef{kGlobals[Index].name, get_global, set_global, kGlobals[Index].doc,
                    const_cast<GlobalDecl*>(&kGlobals[Index])}...,
        PyGetSetDef{}};
}

auto global_getsets = make_getsets(std::make_index_sequence<std::size(kGlobals)>{});

/// `dir(module)`: the globals beside what the module's dictionary holds.
PyObject* list_names(PyObject* module, PyObject* /*unused*/) {
    Ref names = Ref::steal(xpy.PyDict_Keys(xpy.PyModule_GetDict(module)));
    for (const GlobalDecl& global : kGlobals) {
        const Ref name = names ? Ref::steal(xpy.PyUnicode_FromString(global.name)) : Ref();
        if (!name || xpy.PyList_Append(names.get(), name.get()) != 0) {
            return nullptr;
        }
    }
    return names.release();
}

PyMethodDef module_methods[] = {
    {"__dir__", list_names, METH_NOARGS, "Returns the names of the module's attributes, a list."},
    {nullptr, nullptr, 0, nullptr},
};

/// A slot of the interpreter's module type, by its field's name. Read through the layout: before 3.10 the interpreter
/// answers PyType_GetSlot() for types made at run time only.
template <class Function>
Function base_slot(const char* field) {
    return *XPy_GetFieldAddress<Function>(xpy.PyModule_Type_ptr, FindFieldOffsetMissingOk(field, typeobject_fields));
}

bool is_global(PyObject* name) {
    for (const GlobalDecl& global : kGlobals) {
        if (xpy.PyUnicode_CompareWithASCIIString(name, global.name) == 0) {
            return true;
        }
    }
    return false;
}

/// Attribute access of the module. The interpreter's own would replace the error of an unset global by its "module
/// has no attribute".
PyObject* get_module_attribute(PyObject* module, PyObject* name) {
    PyObject* value = xpy.PyObject_GenericGetAttr(module, name);
    if (value != nullptr || xpy.PyErr_ExceptionMatches(xpy.PyExc_AttributeError) == 0 || is_global(name)) {
        return value;
    }
    xpy.PyErr_Clear();
    using getattrofunc = PyObject* (*)(PyObject*, PyObject*);
    return base_slot<getattrofunc>("tp_getattro")(module, name);
}

int traverse_module(PyObject* module, visitproc visit, void* arg) {
    if (const int stop = visit(as_object(type_of(module)), arg)) {
        return stop;
    }
    return base_slot<traverseproc>("tp_traverse")(module, visit, arg);
}

int clear_module(PyObject* module) {
    const int status = base_slot<inquiry>("tp_clear")(module);
    if (ModuleState* m = state_of(module)) {
        clear_state(*m);
    }
    return status;
}

void finalize_module(PyObject* module) {
    finalize_members(module, xpy.PyModule_Type_ptr, nullptr, {},
                     "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
    const PendingException pending;
    if (ModuleState* m = state_of(module)) {
        bury_state(*m);
    }
}

/// The module's own type. Made anew for each module object, which owns it.
Ref create_module_type() {
    PyType_Slot slots[] = {
        {Py_tp_doc, const_cast<char*>("What runs inside a Python process while it is being debugged.")},
        {Py_tp_traverse, reinterpret_cast<void*>(traverse_module)},
        {Py_tp_clear, reinterpret_cast<void*>(clear_module)},
        {Py_tp_finalize, reinterpret_cast<void*>(finalize_module)},
        {Py_tp_getattro, reinterpret_cast<void*>(get_module_attribute)},
        {Py_tp_getset, global_getsets.data()},
        {Py_tp_methods, module_methods},
        {0, nullptr},
    };
    PyType_Spec spec = {"xoptmonitoring._ModuleSubclass_xoptmonitoring", 0, 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC,
                        slots};
    const Ref bases = Ref::steal(xpy.Py_BuildValue("(O)", xpy.PyModule_Type_ptr));
    return bases ? Ref::steal(xpy.PyType_FromSpecWithBases(&spec, bases.get())) : Ref();
}

/// Whether the main interpreter runs. Code-extra slots are numbered by each interpreter on its own, while this module
/// knows its own by their numbers, and what threads keep for themselves is the process's, too.
bool is_main_interpreter() {
    if (xpy.PyInterpreterState_Get == nullptr || xpy.PyInterpreterState_Main == nullptr) {
        return true;  // before 3.9, where nothing is executed
    }
    return xpy.PyInterpreterState_Get() == xpy.PyInterpreterState_Main();
}

/// Raises what the interpreter itself raises in a subinterpreter that has a global lock of its own; it lets one that
/// shares the main interpreter's pass.
void refuse_subinterpreter(PyObject* spec) {
    const Ref name = Ref::steal(xpy.PyObject_GetAttrString(spec, "name"));
    if (name) {
        xpy.PyErr_Format(xpy.PyExc_ImportError, "module %S does not support loading in subinterpreters", name.get());
    }
}

}  // namespace

PyObject* create_module(PyObject* spec, PyModuleDefBlock* /*definition*/) {
    if (!is_main_interpreter()) {
        refuse_subinterpreter(spec);
        return nullptr;
    }
    const Ref type = create_module_type();
    const Ref name = type ? Ref::steal(xpy.PyUnicode_FromString("xoptmonitoring")) : Ref();
    return name ? call(type.get(), name.get()).release() : nullptr;
}

ModuleState* state_of(PyObject* module) {
    auto* m = static_cast<ModuleState*>(xpy.PyModule_GetState(module));
    return m != nullptr && m->tag == &module_state_tag ? m : nullptr;
}

ModuleState* begin_state(PyObject* module) {
    auto* m = static_cast<ModuleState*>(xpy.PyModule_GetState(module));
    if (m != nullptr) {
        m->tag = &module_state_tag;
    }
    return m;
}
