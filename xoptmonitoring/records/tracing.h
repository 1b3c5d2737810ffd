// Thread-state tracing: keeping the debugger's own callbacks from raising monitoring events.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// Raises (count > 0) or lowers (count < 0) the calling thread's tracing level by |count|, through the debugger's
/// support module. False with an exception set.
bool AddToThreadStateTracing(ModuleState& m, Py_ssize_t count);

/// A thread's tracing level as it was before it was raised; -1 where the interpreter does not let on.
using TracingLevel = std::int32_t;

/// AddToThreadStateTracing(m, 1). Where that fails, the level is as before. False with an exception set.
bool enter_tracing(ModuleState& m, TracingLevel& before);

/// AddToThreadStateTracing(m, -1), after enter_tracing(). The level is as before then, whatever fails, the log line or
/// the support module: a thread left at a raised level would raise no event ever again. False with an exception set.
bool leave_tracing(ModuleState& m, TracingLevel before);

/// Calls `callback(object)` untraced; a callback that is None is not called. The level is lowered again even when the
/// callback raises, and its exception then goes on. False with an exception set.
bool call_untraced(ModuleState& m, PyObject* callback, PyObject* object);

extern const FunctionDecl kAddToThreadStateTracing;
extern const FunctionDecl kCallNewObjectCallback;
