// The interpreter's code-extra slots, as far as this module reserved them.
//
// Other native modules reserve slots of their own and keep anything in them, so only an index that this module
// reserved is ever read or written: what lies there is an object and the slot owns a reference to it.
#pragma once

#include "xoptmonitoring/runtime/function.h"
#include "xoptmonitoring/runtime/object_layout.h"

/// Reserves a slot whose content the interpreter drops with Py_DecRef. Returns its index, or -1 where there is none
/// (an error only when an exception is set).
Py_ssize_t request_code_extra_index();

/// Whether `index` is a slot that this module reserved.
bool is_own_code_extra_index(Py_ssize_t index);

/// Says whose records lie in slot `index`, which this module reserved.
void note_record_class(Py_ssize_t index, PyTypeObject* record_class);

/// What lies in slot `index` of `code_object`: empty with `failed` unset where there is nothing, or where the slot is
/// not this module's; the interpreter's own error for what is no code object. Another thread may replace what lies
/// there, so reading and taking the reference happen under the lock of all slots.
struct CodeExtra {
    Ref value;
    bool failed;
};
CodeExtra get_code_extra(PyObject* code_object, Py_ssize_t index);

/// Puts `value` into slot `index` of `code_object`; what was there is dropped after the lock, unless it is a record
/// that other threads may be looking at. `record_class` is that of the caller's records. Where `kept` is given and such
/// a record is there already, nothing is stored and `kept` says so. False with an exception set.
bool set_code_extra(PyObject* code_object, Py_ssize_t index, PyObject* value, PyTypeObject* record_class, bool* kept);

/// Where a code object keeps its slots, for the fast road, which reads them without a call.
namespace plain {

/// What a code object points to once a slot of it was stored; unchanged since the interface was new.
struct CodeExtras {
    Py_ssize_t size;
    PyObject* extras[1];  // `size` of them
};

/// Offset in bytes of that pointer in a code object; -1 where it is not known.
extern Py_ssize_t code_extras_offset;

/// Whether events can be decided on the fast road: objects are plain, and so are the slots of code objects.
inline bool is_fast_road_open() {
    return code_extras_offset != -1;
}

/// Finds `code_extras_offset` by watching the interpreter store something in slot `index`, which is this module's, of a
/// code object made for this. False with an exception set; an interpreter that stores otherwise is no error.
bool learn_code_extras_offset(Py_ssize_t index);

/// What lies in slot `index` of a code object, borrowed; null where nothing does, and for what is no code object. The
/// offset has to be known.
inline PyObject* peek_code_extra(PyObject* code_object, Py_ssize_t index) {
    if (XPY_UNLIKELY(plain::type_of(code_object) != xpy.PyCode_Type_ptr)) {
        return nullptr;
    }
    const auto* slots = *XPy_GetFieldAddress<const CodeExtras*>(code_object, code_extras_offset);
    return XPY_LIKELY(slots != nullptr && index < slots->size) ? slots->extras[index] : nullptr;
}

}  // namespace plain

extern const FunctionDecl kCodeRequestExtraIndexForOwnedRef;
extern const FunctionDecl kCodeGetExtra;
extern const FunctionDecl kCodeSetExtra;
