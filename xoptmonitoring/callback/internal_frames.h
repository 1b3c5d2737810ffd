// Internal frames: which frames belong to the debugger's own code.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// Whether the frame `f` runs the debugger's own code: 1, 0, or -1 with an exception set. Makes no record.
int IsInternalFrame(ModuleState& m, PyObject* f);

/// The calling thread's innermost Python frame, or None where it has none. Empty with an exception set.
Ref innermost_frame();

extern const FunctionDecl kIsInternalFrame;
extern const FunctionDecl kGetNonInternalFrame;
extern const FunctionDecl kFrameCodeMatches;
extern const FunctionDecl kGetPythonFrame;
