// Laying tables out, and choosing the table that describes the running interpreter.
#include "xoptmonitoring/binding/xpy_layouts.h"

#include "xoptmonitoring/binding/xpy_c_api.h"
#include "xoptmonitoring/diagnostics/dprintf.h"

#include <cstdio>
#include <cstring>
#include <string_view>

std::int64_t tstate_exc_info_offset = -1;

namespace {

constexpr Py_ssize_t kAbsent = -1;
constexpr Py_ssize_t kWord = 8;
/// No field is aligned to more than a machine word in any of the structures described here.
constexpr Py_ssize_t kAlignmentCap = 8;
/// Alignment of the data that a class adds behind its base's.
constexpr Py_ssize_t kMaxAlign = 16;
/// The two links that a reference-tracing build puts in front of every object header.
constexpr std::int64_t kTracingLinksSize = 16;

/// Size of one row, or kAbsent where it is not known (yet).
Py_ssize_t row_size(const XPy_FieldWithSize& row) {
    const std::string_view name = row.name;
    const bool header = name == "<PyObject_HEAD>";
    const bool var_header = name == "<PyObject_VAR_HEAD>";
    if (!header && !var_header) {
        return row.size < 1 ? kAbsent : row.size;
    }
    if (xpy.pyobject_offsets.type < 1) {
        return kAbsent;
    }
    const auto header_size = static_cast<Py_ssize_t>(xpy.pyobject_offsets.type) + kWord;
    return header ? header_size : header_size + kWord;  // the item count follows the plain header
}

Py_ssize_t align_up(Py_ssize_t offset, Py_ssize_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

bool is_generation_2() {
    return xpy.major_version == 2;
}

bool is_3_up_to(int minor) {
    return xpy.major_version == 3 && xpy.minor_version <= minor;
}

bool is_3_between(int first, int last) {
    return xpy.major_version == 3 && xpy.minor_version >= first && xpy.minor_version <= last;
}

const XPy_FieldWithSize* select_pyobject_fields(bool free_threaded) {
    if (free_threaded) {
        return free_t_pyobject_fields;
    }
    if (is_generation_2() || is_3_up_to(11)) {
        return pre312_pyobject_fields;
    }
    if (is_3_up_to(13)) {
        return py312_13_64bit_pyobject_fields;
    }
    return py314_64bit_pyobject_fields;
}

/// Null from 3.11 on: frames are no longer fixed structures worth reading.
const XPy_FieldWithSize* select_frame_fields() {
    if (is_generation_2() || is_3_up_to(3)) {
        return frame_fields_pre_py3d4;
    }
    if (is_3_up_to(6)) {
        return frame_fields_py3d4;
    }
    if (is_3_up_to(9)) {
        return frame_fields_py3d7;
    }
    return is_3_up_to(10) ? frame_fields_py3d10 : nullptr;
}

const XPy_FieldWithSize* select_cframe_fields() {
    if (is_3_between(10, 11)) {
        return py3d10_cframe_fields;
    }
    return is_3_between(12, 12) ? py3d12_cframe_fields : nullptr;
}

/// Null for a version whose thread state nobody has described yet.
const XPy_FieldWithSize* select_tstate_fields() {
    if (is_generation_2()) {
        return py2_tstate_fields;
    }
    if (is_3_up_to(3)) {
        return py3d0_tstate_fields;
    }
    if (is_3_up_to(6)) {
        return py3d4_tstate_fields;
    }
    if (is_3_up_to(9)) {
        return py3d7_tstate_fields;
    }
    switch (xpy.minor_version) {
        case 10:
            return py3d10_tstate_fields;
        case 11:
            return py3d11_tstate_fields;
        case 12:
            return py3d12_tstate_fields;
        case 13:
            return py3d13_tstate_fields;
        case 14:
            return py3d14_tstate_fields;
        default:
            return nullptr;
    }
}

void learn_frame_fields() {
    const XPy_FieldWithSize* table = select_frame_fields();
    if (table == nullptr) {
        return;
    }
    XPyFrameOffsets& frame = xpy.frame_offsets;
    frame.lineno = FindFieldOffset("f_lineno", table);
    frame.code = FindFieldOffset("f_code", table);
    frame.builtins = FindFieldOffset("f_builtins", table);
    frame.trace = FindFieldOffset("f_trace", table);
    frame.iblock = FindFieldOffset("f_iblock", table);
    frame.locals = FindFieldOffset("f_locals", table);
    frame.globals = FindFieldOffset("f_globals", table);
    frame.back = FindFieldOffset("f_back", table);
    if (is_3_between(10, 10)) {
        frame.state = FindFieldOffset("f_state", table);
    } else {
        frame.stacktop = FindFieldOffset("f_stacktop", table);
    }
}

void learn_cframe_fields() {
    if (const XPy_FieldWithSize* table = select_cframe_fields()) {
        xpy.cframe_offsets.current_frame = FindFieldOffset("current_frame", table);
    }
}

void learn_tstate_fields() {
    const XPy_FieldWithSize* table = select_tstate_fields();
    if (table == nullptr) {
        if (tells_of_later_versions()) {
            std::fputs("Cannot find tstate fields for this python version\n", stderr);
        }
        return;
    }
    XPyThreadStateOffsets& tstate = xpy.tstate_offsets;
    tstate.next = FindFieldOffset("next", table);
    tstate.interp = FindFieldOffset("interp", table);
    tstate.c_tracefunc = FindFieldOffset("c_tracefunc", table);
    tstate.c_traceobj = FindFieldOffset("c_traceobj", table);
    tstate.tracing = FindFieldOffset("tracing", table);
    tstate.use_tracing = FindFieldOffsetMissingOk("use_tracing", table);  // moved out in 3.10
    tstate.thread_id = FindFieldOffset("thread_id", table);
    tstate.what_event = FindFieldOffsetMissingOk("what_event", table);  // 3.12 and later
    if (is_3_between(11, 12)) {
        tstate.cframe = FindFieldOffset("cframe", table);
    } else {
        tstate.frame = FindFieldOffset(is_3_between(13, 14) ? "current_frame" : "frame", table);
    }
    tstate_exc_info_offset = FindFieldOffsetMissingOk("exc_info", table);  // 3.7 and later
}

/// Writes the total size of the structure that `nested` describes into the row `name` of `table`.
bool fill_nested_size(XPy_FieldWithSize* table, std::string_view name, const XPy_FieldWithSize* nested) {
    const Py_ssize_t size = FindFieldOffsetMissingOk(nullptr, nested);
    if (size < 0) {
        return false;
    }
    for (XPy_FieldWithSize* row = table; row->name != nullptr; ++row) {
        if (name == row->name) {
            row->size = size;
            return true;
        }
    }
    return false;
}

void learn_interpreter_state_fields() {
    const XPy_FieldWithSize* table = nullptr;
    bool sizes_known = true;
    if (is_3_between(6, 6)) {
        table = py3d6_interpreter_state_fields;
    } else if (is_3_between(7, 7)) {
        table = py3d7_interpreter_state_fields;
        sizes_known = fill_nested_size(py3d7_interpreter_state_fields, "core_config", py3d7_core_config_fields) &&
                      fill_nested_size(py3d7_interpreter_state_fields, "config", py3d7_main_interpreter_config_fields);
    } else if (is_3_between(8, 8)) {
        table = py3d8_interpreter_state_fields;
        sizes_known = fill_nested_size(py3d8_interpreter_state_fields, "config", py3d8_pyconfig_fields);
    }
    if (table == nullptr) {
        return;
    }
    if (!sizes_known) {
        std::fputs("Unable to find size of all fields\n", stderr);
        return;
    }
    xpy.interpreter_state_offsets.eval_frame = FindFieldOffset("eval_frame", table);
}

/// Fills one offset record, a plain run of 64-bit words, with -1.
template <class Offsets>
void forget(Offsets& offsets) {
    static_assert(sizeof(Offsets) % sizeof(std::int64_t) == 0);
    std::memset(&offsets, 0xff, sizeof offsets);
}

}  // namespace

Py_ssize_t FindFieldOffsetMissingOk(const char* name, const XPy_FieldWithSize* table) {
    Py_ssize_t offset = 0;
    for (const XPy_FieldWithSize* row = table; row->name != nullptr; ++row) {
        const Py_ssize_t size = row_size(*row);
        if (size == kAbsent) {
            return kAbsent;
        }
        if (row != table) {
            offset = align_up(offset, size <= kAlignmentCap ? size : kAlignmentCap);
        }
        if (name != nullptr && std::strcmp(row->name, name) == 0) {
            return offset;
        }
        offset += size;
    }
    return name == nullptr ? offset : kAbsent;
}

Py_ssize_t FindFieldOffset(const char* name, const XPy_FieldWithSize* table) {
    const Py_ssize_t offset = FindFieldOffsetMissingOk(name, table);
    if (offset == kAbsent) {
        std::fprintf(stderr, "Unable to find field offset for: %s\n", name);
    }
    return offset;
}

void forget_layouts() {
    forget(xpy.pyobject_offsets);
    forget(xpy.tstate_offsets);
    forget(xpy.frame_offsets);
    forget(xpy.interpreter_state_offsets);
    forget(xpy.cframe_offsets);
    forget(xpy.typeobject_offsets);
    tstate_exc_info_offset = kAbsent;
    xpy.max_align = kMaxAlign;
}

void learn_object_layout(bool free_threaded) {
    const XPy_FieldWithSize* table = select_pyobject_fields(free_threaded);
    XPyObjectOffsets& header = xpy.pyobject_offsets;
    forget(header);
    if (free_threaded) {
        header.type = FindFieldOffset("ob_type", table);
        header.mutex = FindFieldOffset("ob_mutex", table);
    } else {
        header.refcnt = FindFieldOffset("ob_refcnt", table);
        header.type = FindFieldOffset("ob_type", table);
        if (table == py314_64bit_pyobject_fields) {
            header.overflow = FindFieldOffset("ob_overflow", table);
        }
    }
    header.flags = FindFieldOffsetMissingOk("ob_flags", table);
    if (xpy.pydebug_build != 0) {
        for (std::int64_t* entry : {&header.refcnt, &header.type, &header.mutex, &header.overflow, &header.flags}) {
            *entry += *entry == kAbsent ? 0 : kTracingLinksSize;
        }
    }
    do_dp_no_py(gDP.core, "pyobject_offsets: refcnt=%i type=%i mutex=%i overflow=%i flags=%i\n",
                static_cast<int>(header.refcnt), static_cast<int>(header.type), static_cast<int>(header.mutex),
                static_cast<int>(header.overflow), static_cast<int>(header.flags));

    if (xpy.major_version > 2 && xpy.minor_version > 7) {
        XPyTypeObjectOffsets& type = xpy.typeobject_offsets;
        type.tp_basicsize = FindFieldOffset("tp_basicsize", typeobject_fields);
        type.tp_vectorcall_offset = FindFieldOffset("tp_vectorcall_offset", typeobject_fields);
        type.tp_flags = FindFieldOffset("tp_flags", typeobject_fields);
        type.tp_base = FindFieldOffset("tp_base", typeobject_fields);
        do_dp_no_py(gDP.core,
                    "typeobject: tp_basicsize offset = %i, tp_vectorcall_offset offset = %i, max_align = %i\n",
                    static_cast<int>(type.tp_basicsize), static_cast<int>(type.tp_vectorcall_offset),
                    static_cast<int>(xpy.max_align));
    }
}

void learn_frame_layouts() {
    learn_frame_fields();
    learn_cframe_fields();
    learn_tstate_fields();
    if (!is_generation_2()) {
        learn_interpreter_state_fields();
    }
}
