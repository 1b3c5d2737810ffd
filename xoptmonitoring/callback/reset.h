// Returning the module to its initial state, re-arming it after fork, and timing a callback.
#pragma once

#include "xoptmonitoring/runtime/function.h"

extern const FunctionDecl kReset;
extern const FunctionDecl kUpdateThisProcessPid;
extern const FunctionDecl kBenchCallback;
