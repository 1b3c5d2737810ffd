// _XNotPy_Function: the object behind every function and method of the module.
//
// A function is declared by a table row (FunctionDecl): its name, parameters and native body. Calling it binds the
// arguments by that row, checks their declared types and hands them to the body; reading it through an instance or a
// class binds it to that.
#pragma once

#include "xoptmonitoring/runtime/managed_struct.h"
#include "xoptmonitoring/runtime/module_state.h"
#include "xoptmonitoring/runtime/value_types.h"

struct ClassDecl;

/// What a parameter is bound to when the caller gives nothing.
enum class Default { Required, None, True, False };

struct ParamDecl {
    const char* name;
    ValueType type = ValueType::Object;
    Default default_value = Default::Required;
};

/// Body of a function: `self` is the instance or class for a method and null for a module function; `args` has one
/// value per declared parameter. Returns a new reference, or empty with an exception set.
using FunctionBody = Ref (*)(ModuleState& m, PyObject* self, const Argument* args);

/// Body that binds its arguments itself, for a method that takes any number of them.
using RawFunctionBody = PyObject* (*)(ModuleState& m, PyObject* self, PyObject* const* args, Py_ssize_t nargs,
                                      PyObject* kwnames);

/// Makes what binding a method to an instance hands out, where that is not a method object. `self` is an instance of
/// `cls`, the class that the method belongs to. A new reference, or null with an exception set.
using Binder = PyObject* (*)(ModuleState& m, PyObject* function, PyObject* self, PyTypeObject* cls);

/// What reading a function as an attribute binds it to.
enum class Binding {
    Nothing,   ///< a module function
    Instance,  ///< a method
    Class,     ///< a class method
};

struct FunctionDecl {
    const char* name;  ///< as Python sees it; a private method's name is mangled with its class
    std::span<const ParamDecl> params;
    FunctionBody body;
    const char* doc;
    Binding binding = Binding::Nothing;
    RawFunctionBody raw_body = nullptr;  ///< used instead of `params` and `body` where set
    Binder binder = nullptr;             ///< makes what binding hands out, instead of a method object
};

/// More parameters than any function of the module has.
inline constexpr std::size_t kMaxParams = 8;

/// Creates the function type. Part of module execution.
bool create_function_type(ModuleState& m);

/// A new function object for `decl`; `cls` is the class that it is a method of, or null.
Ref new_function(ModuleState& m, const FunctionDecl& decl, PyObject* cls, const ClassDecl* class_decl);
