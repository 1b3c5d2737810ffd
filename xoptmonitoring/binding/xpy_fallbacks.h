// Fallbacks: what stands in for an interpreter function that the running version lacks.
//
// A fallback has exactly the signature of the function whose slot it fills, since both come from the one
// list; so callers never ask for a version. Most emulate the function with older ones; where that cannot be
// done they say on the process's standard error which function is missing and return what means failure.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

/// Fills every empty slot that the list names a fallback for. Part of binding, after all lookups.
void install_fallbacks();

extern "C" {
#define XPY_BACKED(need, backup, result, name, parameters) result backup parameters;
#define XPY_OLDER(older, backup, result, name, parameters) result backup parameters;
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) result backup parameters;
#include "xoptmonitoring/binding/xpy_api_slots.def"
}
