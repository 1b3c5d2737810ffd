// Module execution: filling the globals, in a fixed order.
#pragma once

#include "xoptmonitoring/runtime/module_state.h"

/// The interpreter's execution step. 0, or -1 with an exception set and nothing left half-made.
int execute_module(PyObject* module);
