// Structure layouts: tables of field names and sizes, and the offsets that follow from them.
//
// The interpreter's private structures are known here as data only: one table per range of interpreter
// versions, laid out with natural alignment when the module binds. An offset of -1 means that this
// interpreter has no such field; every user tests for it.
#pragma once

#include "xoptmonitoring/binding/xpy_abi.h"

/// One row of a layout table. A table ends with a row whose name is null.
struct XPy_FieldWithSize {
    /// Name as in the interpreter's structure; a dotted name is a member of an inner structure, counted in
    /// place.
    /// "<PyObject_HEAD>" and "<PyObject_VAR_HEAD>" stand for the object header and the variable-size header.
    const char* name;
    /// Size in bytes; -1 for a nested structure whose size is worked out when the module binds.
    Py_ssize_t size;
};

// The tables, by the first interpreter version that each describes.
extern const XPy_FieldWithSize pre312_pyobject_fields[];
extern const XPy_FieldWithSize py312_13_64bit_pyobject_fields[];
extern const XPy_FieldWithSize py314_64bit_pyobject_fields[];
extern const XPy_FieldWithSize free_t_pyobject_fields[];
extern const XPy_FieldWithSize typeobject_fields[];
extern const XPy_FieldWithSize typeobject_fields_from_base[];
extern const XPy_FieldWithSize py3_mod_def_fields[];
extern const XPy_FieldWithSize frame_fields_pre_py3d4[];
extern const XPy_FieldWithSize frame_fields_py3d4[];
extern const XPy_FieldWithSize frame_fields_py3d7[];
extern const XPy_FieldWithSize frame_fields_py3d10[];
extern const XPy_FieldWithSize py3d10_cframe_fields[];
extern const XPy_FieldWithSize py3d12_cframe_fields[];
extern const XPy_FieldWithSize py2_tstate_fields[];
extern const XPy_FieldWithSize py3d0_tstate_fields[];
extern const XPy_FieldWithSize py3d4_tstate_fields[];
extern const XPy_FieldWithSize py3d7_tstate_fields[];
extern const XPy_FieldWithSize py3d10_tstate_fields[];
extern const XPy_FieldWithSize py3d11_tstate_fields[];
extern const XPy_FieldWithSize py3d12_tstate_fields[];
extern const XPy_FieldWithSize py3d13_tstate_fields[];
extern const XPy_FieldWithSize py3d14_tstate_fields[];
extern const XPy_FieldWithSize py3d15_tstate_fields[];
extern const XPy_FieldWithSize py3d6_interpreter_state_fields[];
extern XPy_FieldWithSize py3d7_interpreter_state_fields[];  // its -1 rows are filled in at binding
extern XPy_FieldWithSize py3d8_interpreter_state_fields[];  // its -1 row is filled in at binding
extern const XPy_FieldWithSize py3d7_core_config_fields[];
extern const XPy_FieldWithSize py3d7_main_interpreter_config_fields[];
extern const XPy_FieldWithSize py3d8_pyconfig_fields[];

/// Byte offset of the field `name` in the structure that `table` describes, or -1 where the table has no such
/// row or a size before it is unknown. With a null name, the structure's total size: the offset just past its
/// last row.
Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* table);

/// As FindFieldOffsetMissingOk, but a miss is reported on the process's standard error.
Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* table);

/// Whether the interpreter is of a version that came after all that the tables describe. Needs the version words only.
bool is_later_than_tables();

/// Writes -1 into every offset of the record, so that what is not found reads as absent.
void forget_layouts();

/// Object header and type object: needed before any other layout, since header sizes follow from them.
void learn_object_layout(bool free_threaded);

/// Frame, frame chain holder, thread state and interpreter state. A miss is reported and leaves -1.
void learn_frame_layouts();

/// Offset in the thread state of the pointer to the innermost handled-exception record (3.7 to 3.14), or -1.
/// Kept beside the record, whose fields other native modules rely on.
extern std::int64_t tstate_exc_info_offset;

/// Offset in the thread state of the pointer to its dictionary, or -1; beside the record as well.
extern std::int64_t tstate_dict_offset;
