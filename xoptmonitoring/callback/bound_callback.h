// The callable that `instance.Callback` hands out: the shortest way from the interpreter into the first stage.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

/// Creates the type of bound callbacks, for the class's module. False with an exception set.
bool create_bound_callback_type(ModuleState& m);

/// A new bound callback: `function` is the class's Callback, `self` an instance of `cls`. Null with an exception set.
PyObject* bind_callback(ModuleState& m, PyObject* function, PyObject* self, PyTypeObject* cls);

/// Binds the arguments of a call of the first stage: the code object, which can be given by name, and any others by
/// position. On success the positional ones are the first `*nargs` of `args`. False with TypeError set.
bool bind_callback_arguments(PyObject* const* args, Py_ssize_t* nargs, PyObject* kwnames);
