// A forked child of an interpreter without a global lock: mutexes that nobody is left to give back.
#pragma once

#include "xoptmonitoring/runtime/module_state.h"

namespace forked_child {

/// From now on a child finds the module's mutexes free: those of the module object, of its classes, of the containers
/// that these hold, and of what a thread's clean-up is armed through. Does nothing with a global lock. False with an
/// exception set.
bool watch_forks(ModuleState& m);

/// Frees the mutexes of what the registries hold as well, in a child that has one thread.
void free_registries(ModuleState& m);

}  // namespace forked_child
