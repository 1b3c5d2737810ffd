// Thread-state tracing: keeping the debugger's own callbacks from raising monitoring events.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// Raises (count > 0) or lowers (count < 0) the calling thread's tracing level by |count|, through the debugger's
/// support module. False with an exception set.
bool AddToThreadStateTracing(ModuleState& m, Py_ssize_t count);

/// AddToThreadStateTracing(m, -1), after AddToThreadStateTracing(m, 1). The level is lowered even where the log line
/// cannot be written, and where there is no memory to go by way of the support module, the interpreter is asked
/// directly: a thread left at a raised level would raise no event ever again. False with an exception set.
bool leave_tracing(ModuleState& m);

/// Calls `callback(object)` untraced; a callback that is None is not called. The level is lowered again even when the
/// callback raises, and its exception then goes on. False with an exception set.
bool call_untraced(ModuleState& m, PyObject* callback, PyObject* object);

extern const FunctionDecl kAddToThreadStateTracing;
extern const FunctionDecl kCallNewObjectCallback;
