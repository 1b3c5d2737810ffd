// The runtime's own types beside the function type: managed structs, frames and generators.
#pragma once

#include "xoptmonitoring/runtime/module_state.h"

/// Creates the types that come before any class: function, managed struct, frame, generator. False with an exception
/// set.
bool create_internal_types(ModuleState& m);
