// XPy_C_API_Data: the one record of the interpreter that loaded this module, and the binding that fills it.
//
// Every other file reaches the interpreter through the slots of this record. It is filled once, under the
// import lock of the importing thread, and read without locks afterwards; only `cached_pid` changes later, in
// a forked child and before that child runs anything else.
#pragma once

#include "xoptmonitoring/binding/xpy_abi.h"

/// Offsets of the object header's fields in bytes; -1 where this interpreter has no such field.
struct XPyObjectOffsets {
    std::int64_t refcnt;
    std::int64_t type;
    std::int64_t mutex;
    std::int64_t overflow;
    std::int64_t flags;
};

/// Offsets in the thread state. On 3.13 and later `frame` is the innermost interpreter frame, which is no
/// object.
struct XPyThreadStateOffsets {
    std::int64_t next;
    std::int64_t interp;
    std::int64_t frame;
    std::int64_t c_tracefunc;
    std::int64_t c_traceobj;
    std::int64_t thread_id;
    std::int64_t tracing;
    std::int64_t use_tracing;
    std::int64_t cframe;
    std::int64_t what_event;
};

/// Offsets in the frame object, up to 3.10; from 3.11 on all of them are -1.
struct XPyFrameOffsets {
    std::int64_t lineno;
    std::int64_t code;
    std::int64_t builtins;
    std::int64_t trace;
    std::int64_t iblock;
    std::int64_t locals;
    std::int64_t globals;
    std::int64_t back;
    std::int64_t stacktop;
    std::int64_t state;
};

struct XPyInterpreterStateOffsets {
    std::int64_t eval_frame;
};

struct XPyCFrameOffsets {
    std::int64_t current_frame;
};

struct XPyTypeObjectOffsets {
    std::int64_t tp_basicsize;
    std::int64_t tp_vectorcall_offset;
    std::int64_t tp_flags;
    std::int64_t tp_base;
};

struct XPy_C_API_Data {
    // ---- status and version words ----
    std::int32_t initialized;           ///< 1 once binding succeeded
    std::int32_t failed_to_initialize;  ///< 1 once no module-creation entry point was found; final
    std::int32_t major_version;
    std::int32_t minor_version;
    std::int32_t micro_version;
    std::int32_t api_version;  ///< the interpreter's sys.api_version
    /// 1 when the reference-tracing entry point was found (not for every --with-pydebug build)
    std::int32_t pydebug_build;
    std::int32_t can_update_refcount_directly;
    std::int32_t refcnt_is_32bit;
    pid_t cached_pid;  ///< the process id at binding time, refreshed in a forked child
    void* dll_ptr;     ///< the name handed to dlopen; null is the main program's global namespace
    // ---- layouts ----
    XPyObjectOffsets pyobject_offsets;
    XPyThreadStateOffsets tstate_offsets;
    XPyFrameOffsets frame_offsets;
    XPyInterpreterStateOffsets interpreter_state_offsets;
    XPyCFrameOffsets cframe_offsets;
    XPyTypeObjectOffsets typeobject_offsets;
    Py_ssize_t max_align;  ///< alignment of a class's data block within an object
    // ---- functions ----
#define XPY_SLOT(need, result, name, parameters) result(*name) parameters;
#define XPY_FOUND(result, name, parameters) result(*name) parameters;
#define XPY_BACKED(need, backup, result, name, parameters) result(*name) parameters;
#define XPY_OLDER(older, backup, result, name, parameters) result(*name) parameters;
#define XPY_UNICODE(need, result, name, suffix, parameters) result(*name) parameters;
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) result(*name) parameters;
    // ---- data and types ----
#define XPY_DATA(need, read, type, name) type name;
#define XPY_TYPE(need, name) PyTypeObject* name##_ptr;
#include "xoptmonitoring/binding/xpy_api_slots.def"
};

extern "C" {

/// The record, for other native modules of the debugger.
extern __attribute__((visibility("default"))) XPy_C_API_Data global_XPy_C_API_Data;

/// The same record under a name that this module reaches without the indirection of an exported symbol.
extern __attribute__((visibility("hidden"))) XPy_C_API_Data xpy;

}  // extern "C"

/// True where per-object locks are needed: the interpreter runs without a global lock.
/// The header's mutex tells, not a bound PyMutex_Lock, which every build exports from 3.13 on.
inline bool is_free_threaded() {
    return xpy.pyobject_offsets.mutex != -1;
}

/// Whether a person is told what follows from the interpreter's being later than the layout tables.
bool tells_of_later_versions();

/// Raises ImportError "Unable to init XPy", unless an exception is pending or the interpreter cannot raise
/// one.
void raise_unable_to_init();

/// The calling thread's state, or null where there is none; unlike PyThreadState_Get this never aborts.
PyThreadState* XPy_CurrentThreadStateOrNull();
