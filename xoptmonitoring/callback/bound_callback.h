// The callable that `instance.Callback` hands out: the shortest way from the interpreter into the first stage.
#pragma once

#include "xoptmonitoring/runtime/class_builder.h"

/// Creates the type of bound callbacks, for the class's module. False with an exception set.
bool create_bound_callback_type(ModuleState& m);

/// A new bound callback: `function` is the class's Callback, `self` an instance of `cls`. Null with an exception set.
PyObject* bind_callback(ModuleState& m, PyObject* function, PyObject* self, PyTypeObject* cls);

/// Arguments of a call of the first stage: at least the code object, and no keywords. False with TypeError set.
bool check_callback_arguments(Py_ssize_t nargs, PyObject* kwnames);
