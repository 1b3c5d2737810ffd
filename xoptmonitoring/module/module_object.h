// The module object: a subclass of the interpreter's module type whose attributes are the module's globals.
#pragma once

#include "xoptmonitoring/runtime/module_state.h"

/// Creates the module object; the interpreter's creation step of multi-phase initialisation.
PyObject* create_module(PyObject* spec, PyModuleDefBlock* definition);

/// The state of a module object, or null where it has none (yet), with no exception set.
ModuleState* state_of(PyObject* module);

/// The state of this module's own object at the beginning of its execution, marked as this module's.
ModuleState* begin_state(PyObject* module);
