// _XNotPy_Function: calling, binding and describing the module's functions.
#include "xoptmonitoring/runtime/function.h"

#include "xoptmonitoring/binding/xpy_recursion.h"
#include "xoptmonitoring/runtime/arguments.h"
#include "xoptmonitoring/runtime/class_builder.h"

#include <array>

namespace {

struct FunctionData {
    vectorcallfunc __vectorcall_cfunction__;
    PyObject* __default_args__;
    PyObject* __mod__;
    PyObject* __doc__;
    PyObject* __name__;
    PyObject* __qualname__;
    PyObject* __text_signature__;
    PyObject* __obj_class__;
    PyObject* __outer_frame__;
    ModuleState* __m__;  ///< valid while `__mod__` is held; null after clearing
    const FunctionDecl* decl;
    const ClassDecl* class_decl;
};

#define FUNCTION_FIELD(name, doc) \
    { #name, FieldType::Object, offsetof(FunctionData, name), kReadOnlyField, doc }
constexpr FieldDecl kFunctionFields[] = {
    FUNCTION_FIELD(__default_args__, "Tuple of the default values of the last parameters; unset where none has one."),
    FUNCTION_FIELD(__mod__, "The module."),
    FUNCTION_FIELD(__doc__, "What the function takes, returns and raises."),
    FUNCTION_FIELD(__name__, "The function's name."),
    FUNCTION_FIELD(__qualname__, "The function's name with its class."),
    FUNCTION_FIELD(__text_signature__, "The function's parameters as text."),
    FUNCTION_FIELD(__obj_class__, "The class that the function is a method of; unset for a module function."),
    FUNCTION_FIELD(__outer_frame__, "The frame that the function was made in; unset, since all are module level."),
};

FunctionData& function_data(PyObject* function) {
    return instance_data_as<FunctionData>(function);
}

PyObject* default_object(Default value) {
    switch (value) {
        case Default::True:
            return xpy._Py_TrueStruct;
        case Default::False:
            return xpy._Py_FalseStruct;
        default:
            return none();
    }
}

using Values = std::array<Argument, kMaxParams>;

/// Binds and checks the arguments of one call. It has a frame of its own, which is gone before the body runs: bodies
/// call Python, and the interpreter's limit on recursion allows each level some 800 bytes of stack on 3.13.
[[gnu::noinline]] bool bind_arguments(const FunctionDecl& decl, PyObject* const* args, Py_ssize_t nargs,
                                      PyObject* kwnames, Values& values) {
    std::array<tFastArgInfo, kMaxParams + 1> rows{};
    const std::size_t count = decl.params.size();
    for (std::size_t index = 0; index < count; ++index) {
        const ParamDecl& param = decl.params[index];
        const bool has_default = param.default_value != Default::Required;
        if (has_default) {
            values[index].object = default_object(param.default_value);
        }
        rows[index] = {param.name, static_cast<int>(index), has_default, member_type_of(param.type), &values[index]};
    }
    if (!XPy_GetFastArgs(args, nargs, kwnames, rows.data())) {
        return false;
    }
    for (std::size_t index = 0; index < count; ++index) {
        if (!check_value(decl.params[index].type, values[index].object)) {
            return false;
        }
    }
    return true;
}

Ref call_body(ModuleState& m, const FunctionDecl& decl, PyObject* self, PyObject* const* args, Py_ssize_t nargs,
              PyObject* kwnames) {
    Values values{};
    return bind_arguments(decl, args, nargs, kwnames, values) ? decl.body(m, self, values.data()) : Ref();
}

/// Whether the first argument of a method call is what the method belongs to.
bool check_self(const FunctionData& function, PyObject* self) {
    PyObject* const cls = function.__obj_class__;
    if (cls == nullptr) {
        raise_unset();
        return false;
    }
    if (function.decl->binding == Binding::Class) {
        if (!is_instance_of(self, type_of(cls))) {
            raise_expected_instance(function.class_decl->record_name, self);
            return false;
        }
        return true;
    }
    if (!is_instance_of(self, as_type(cls))) {
        raise_expected(function.class_decl->name, self);
        return false;
    }
    return true;
}

PyObject* call_function(PyObject* callable, PyObject* const* args, std::size_t nargsf, PyObject* kwnames) {
    const FunctionData& function = function_data(callable);
    ModuleState* m = function.__m__;
    if (m == nullptr) {
        raise_unset();
        return nullptr;
    }
    const FunctionDecl& decl = *function.decl;
    Py_ssize_t nargs = vectorcall_nargs(nargsf);
    PyObject* self = nullptr;
    if (decl.binding != Binding::Nothing) {
        if (nargs == 0) {
            xpy.PyErr_SetString(xpy.PyExc_TypeError, "argument is missing");
            return nullptr;
        }
        self = *args++;
        --nargs;
        if (!check_self(function, self)) {
            return nullptr;
        }
    }
    const RecursionLevel level;
    if (!level.is_entered()) {
        return nullptr;
    }
    if (decl.raw_body != nullptr) {
        return decl.raw_body(*m, self, args, nargs, kwnames);
    }
    return call_body(*m, decl, self, args, nargs, kwnames).release();
}

/// Binds a method to its instance or class, as reading an attribute does.
PyObject* bind_function(PyObject* callable, PyObject* object, PyObject* type) {
    const FunctionData& function = function_data(callable);
    if (function.decl == nullptr) {
        raise_unset();
        return nullptr;
    }
    const FunctionDecl& decl = *function.decl;
    if (decl.binding == Binding::Class) {
        PyObject* cls = type != nullptr ? type : as_object(type_of(object));
        return xpy.PyMethod_New(callable, cls);
    }
    if (decl.binding == Binding::Nothing || object == nullptr || object == none()) {
        return Ref::share(callable).release();
    }
    if (decl.binder != nullptr && function.__m__ != nullptr) {
        // What it makes trusts its instance, so that is checked here.
        if (!check_self(function, object)) {
            return nullptr;
        }
        return decl.binder(*function.__m__, callable, object, as_type(function.__obj_class__));
    }
    return xpy.PyMethod_New(callable, object);
}

PyObject* describe_function(PyObject* callable) {
    const Ref name = load_field(callable, function_data(callable).__qualname__);
    return name ? xpy.PyUnicode_FromFormat("<function %U of xoptmonitoring>", name.get()) : nullptr;
}

int traverse_function(PyObject* callable, visitproc visit, void* arg) {
    return traverse_instance(callable, kFunctionFields, visit, arg);
}

int clear_function(PyObject* callable) {
    function_data(callable).__m__ = nullptr;
    clear_members(instance_data(callable), kFunctionFields);
    return 0;
}

void finalize_function(PyObject* callable) {
    function_data(callable).__m__ = nullptr;
    finalize_members(callable, object_type, instance_data(callable), kFunctionFields,
                     "Exception ignored in _XNotPy_ManagedStruct tp_finalize");
}

constexpr std::size_t kFieldCount = std::size(kFunctionFields);

PyObject* get_function_field(PyObject* self, void* closure) {
    return get_instance_field(self, closure);
}

int set_function_field(PyObject* self, PyObject* value, void* closure) {
    return set_instance_field(self, value, closure);
}

/// Room for every descriptor and the closing row.
std::array<PyGetSetDef, kFieldCount + 1> function_getsets =
    generated::make_getsets<kFieldCount + 1>(kFunctionFields, get_function_field, set_function_field);

/// Tuple of the defaults of a function's last parameters.
Ref make_defaults(const FunctionDecl& decl, Py_ssize_t count) {
    Ref defaults = Ref::steal(xpy.PyTuple_New(count));
    Py_ssize_t next = 0;
    for (const ParamDecl& param : decl.params) {
        if (!defaults || param.default_value == Default::Required) {
            continue;
        }
        PyObject* value = Ref::share(default_object(param.default_value)).release();
        if (xpy.PyTuple_SetItem(defaults.get(), next++, value) != 0) {
            return {};
        }
    }
    return defaults;
}

const char* default_text(Default value) {
    switch (value) {
        case Default::Required:
            return "";
        case Default::None:
            return "=None";
        case Default::True:
            return "=True";
        default:
            return "=False";
    }
}

/// The parameters as text, in the form that the interpreter uses for its own built-ins.
Ref make_text_signature(const FunctionDecl& decl) {
    const char* first = "";
    if (decl.binding == Binding::Instance) {
        first = "$self";
    } else if (decl.binding == Binding::Class) {
        first = "$type";
    }
    Ref text = Ref::steal(xpy.PyUnicode_FromFormat("(%s", first));
    const char* separator = *first == '\0' ? "" : ", ";
    for (const ParamDecl& param : decl.params) {
        if (!text) {
            return {};
        }
        text = Ref::steal(
            xpy.PyUnicode_FromFormat("%U%s%s%s", text.get(), separator, param.name, default_text(param.default_value)));
        separator = ", ";
    }
    if (!text) {
        return {};
    }
    const char* rest = decl.raw_body != nullptr ? ", *args)" : ")";
    return Ref::steal(xpy.PyUnicode_FromFormat("%U%s", text.get(), rest));
}

bool describe(FunctionData& data, const FunctionDecl& decl, const ClassDecl* class_decl) {
    Py_ssize_t defaults = 0;
    for (const ParamDecl& param : decl.params) {
        defaults += param.default_value == Default::Required ? 0 : 1;
    }
    if (defaults != 0) {
        data.__default_args__ = make_defaults(decl, defaults).release();
        if (data.__default_args__ == nullptr) {
            return false;
        }
    }
    data.__name__ = xpy.PyUnicode_FromString(decl.name);
    data.__doc__ = xpy.PyUnicode_FromString(decl.doc);
    data.__qualname__ = class_decl == nullptr ? xpy.PyUnicode_FromString(decl.name)
                                              : xpy.PyUnicode_FromFormat("%s.%s", class_decl->qualname, decl.name);
    data.__text_signature__ = make_text_signature(decl).release();
    return data.__name__ != nullptr && data.__doc__ != nullptr && data.__qualname__ != nullptr &&
           data.__text_signature__ != nullptr;
}

}  // namespace

bool create_function_type(ModuleState& m) {
    std::array<PyMemberDef, kFieldCount + 2> members{};
    members[0] = {"__vectorcalloffset__", Py_T_PYSSIZET,
                  data_offsets.instance + static_cast<Py_ssize_t>(offsetof(FunctionData, __vectorcall_cfunction__)),
                  Py_READONLY, nullptr};
    PyType_Slot slots[] = {
        {Py_tp_traverse, reinterpret_cast<void*>(traverse_function)},
        {Py_tp_clear, reinterpret_cast<void*>(clear_function)},
        {Py_tp_finalize, reinterpret_cast<void*>(finalize_function)},
        {Py_tp_call, reinterpret_cast<void*>(xpy.PyVectorcall_Call)},
        {Py_tp_descr_get, reinterpret_cast<void*>(bind_function)},
        {Py_tp_repr, reinterpret_cast<void*>(describe_function)},
        {Py_tp_members, members.data()},
        {Py_tp_getset, function_getsets.data()},
        {0, nullptr},
    };
    PyType_Spec spec = {"xoptmonitoring._XNotPy_Function",
                        static_cast<int>(data_offsets.instance + static_cast<Py_ssize_t>(sizeof(FunctionData))), 0,
                        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_HAVE_VECTORCALL |
                            Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
                        slots};
    m.types.function = xpy.PyType_FromModuleAndSpec(m.module, &spec, nullptr);
    return m.types.function != nullptr;
}

Ref new_function(ModuleState& m, const FunctionDecl& decl, PyObject* cls, const ClassDecl* class_decl) {
    Ref function = Ref::steal(xpy.PyType_GenericAlloc(as_type(m.types.function), 0));
    if (!function) {
        return {};
    }
    FunctionData& data = function_data(function.get());
    data.__vectorcall_cfunction__ = call_function;
    data.decl = &decl;
    data.class_decl = class_decl;
    if (!describe(data, decl, class_decl)) {
        return {};
    }
    data.__mod__ = Ref::share(m.module).release();
    data.__obj_class__ = Ref::share(cls).release();
    data.__m__ = &m;
    return function;
}
