// Module definition and frame-evaluation hooks.
//
// The interpreter's module definition differs from version to version and we are compiled without its
// headers. So a module describes itself in a record of ours, XPyModuleDef, and the interpreter's structure is
// built from that in a block of zeros, each field at the offset that its layout table gives.
#include "xoptmonitoring/binding/xpy_c_api_extra.h"

#include "xoptmonitoring/binding/xpy_layouts.h"
#include "xoptmonitoring/binding/xpy_refcount.h"
#include "xoptmonitoring/diagnostics/dprintf.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

static_assert(sizeof(PyModuleDef_Slot) == 16, "the interpreter pads the 32-bit slot id to a machine word");

namespace {

/// Zeroed memory that the interpreter will keep pointers into for the life of the process. It is freed here
/// only when the interpreter never got to see it.
class PermanentBlock {
  public:
    explicit PermanentBlock(std::size_t size) : memory_(std::calloc(1, size)) {}
    PermanentBlock(const PermanentBlock&) = delete;
    PermanentBlock& operator=(const PermanentBlock&) = delete;
    ~PermanentBlock() {
        std::free(memory_);
    }

    void* get() const {
        return memory_;
    }

    /// Hands the memory over for good.
    void* keep() {
        return std::exchange(memory_, nullptr);
    }

  private:
    void* memory_;
};

/// Writes one field of the interpreter's definition. False means that its place is unknown, which was
/// reported.
template <class Value>
bool write_field(const PermanentBlock& definition, const char* name, Value value) {
    static_assert(sizeof(Value) == 8, "every field of a module definition is a machine word");
    const Py_ssize_t offset = FindFieldOffset(name, py3_mod_def_fields);
    if (offset < 0) {
        return false;
    }
    *XPy_GetFieldAddress<Value>(definition.get(), offset) = value;
    return true;
}

/// Fills the slot array in the order that interpreters expect. False means that no slots are wanted.
bool fill_slots(PyModuleDef_Slot* slots, const XPyModuleDef& module) {
    PyModuleDef_Slot* next = slots;
    const auto add = [&next](int id, void* value) {
        next->slot = id;
        next->value = value;
        ++next;
    };
    const auto flag_value = [](std::int32_t flag) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(flag)); };
    if (module.m_create != nullptr) {
        add(Py_mod_create, reinterpret_cast<void*>(module.m_create));
    }
    if (module.m_exec != nullptr) {
        add(Py_mod_exec, reinterpret_cast<void*>(module.m_exec));
    }
    if (module.m_no_gil_support_flag != 0 && xpy.minor_version > 12) {
        add(Py_mod_gil, flag_value(module.m_no_gil_support_flag));
    }
    if (next == slots) {
        // Nothing to run and nothing to claim: a single-phase module, which must not have slots at all, not
        // even the one about multiple interpreters.
        return false;
    }
    if (xpy.minor_version > 11) {
        add(Py_mod_multiple_interpreters, flag_value(module.m_multiple_interp_flag));
    }
    return true;  // the array was zeroed, so its end is in place
}

bool is_minor_between(int first, int last) {
    return xpy.initialized != 0 && xpy.major_version == 3 && xpy.minor_version >= first && xpy.minor_version <= last;
}

/// The interpreter that runs the calling thread, or null where the thread has none.
PyInterpreterState* current_interpreter() {
    PyThreadState* tstate = XPy_CurrentThreadStateOrNull();
    if (tstate == nullptr || xpy.tstate_offsets.interp == -1) {
        return nullptr;
    }
    return *XPy_GetFieldAddress<PyInterpreterState*>(tstate, xpy.tstate_offsets.interp);
}

/// Address of the current interpreter's eval_frame field, which 3.6 to 3.8 have; null elsewhere.
XPyEvalFrameNoThreadState* eval_frame_field() {
    if (xpy.initialized == 0 || xpy.interpreter_state_offsets.eval_frame == -1) {
        return nullptr;
    }
    PyInterpreterState* interpreter = current_interpreter();
    if (interpreter == nullptr) {
        return nullptr;
    }
    return XPy_GetFieldAddress<XPyEvalFrameNoThreadState>(interpreter, xpy.interpreter_state_offsets.eval_frame);
}

/// The frame-evaluation function of 3.9 to 3.11, read by the interpreter's own getter.
template <class Function>
Function get_eval_frame() {
    PyInterpreterState* interpreter = current_interpreter();
    if (interpreter == nullptr || xpy._PyInterpreterState_GetEvalFrameFunc == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<Function>(xpy._PyInterpreterState_GetEvalFrameFunc(interpreter));
}

template <class Function>
int set_eval_frame(Function function) {
    PyInterpreterState* interpreter = current_interpreter();
    if (interpreter == nullptr || xpy._PyInterpreterState_SetEvalFrameFunc == nullptr || function == nullptr) {
        return -1;
    }
    xpy._PyInterpreterState_SetEvalFrameFunc(interpreter, reinterpret_cast<void*>(function));
    return 0;
}

/// Binds unless that has happened. The test switch of binding has nothing to say any more once it has.
bool is_bound() {
    return xpy.initialized != 0 || XPy_Initialize() == 0;
}

/// A definition that would crash the interpreter is refused with the interpreter's own kind of complaint.
bool has_name(const char* name) {
    if (name != nullptr) {
        return true;
    }
    if (xpy.initialized != 0) {
        xpy.PyErr_SetString(xpy.PyExc_SystemError, "module definition has no name");
    }
    return false;
}

}  // namespace

PyModuleDefBlock* XPy_CreatePy3ModuleDef(XPyModuleDef* xpy_mod_def) {
    if (!has_name(xpy_mod_def == nullptr ? nullptr : xpy_mod_def->m_name)) {
        return nullptr;
    }
    PermanentBlock definition(kModuleDefBlockSize);
    PermanentBlock slots(kModuleDefSlotCount * sizeof(PyModuleDef_Slot));
    if (definition.get() == nullptr || slots.get() == nullptr) {
        return nullptr;
    }
    const XPyModuleDef& module = *xpy_mod_def;
    if (!write_field(definition, "m_name", module.m_name) || !write_field(definition, "m_doc", module.m_doc) ||
        !write_field(definition, "m_size", module.m_size) || !write_field(definition, "m_methods", module.m_methods)) {
        return nullptr;
    }
    if (xpy.minor_version < 5) {
        // The interpreter would ignore the hooks. Only a missing create hook is worth a word, and it gets no
        // line end: that is the text hosts know.
        if (module.m_create != nullptr) {
            std::fputs("Setting multi-phase module loading functions not supported before 3.5", stderr);
        }
        return static_cast<PyModuleDefBlock*>(definition.keep());
    }
    if (!write_field(definition, "m_traverse", module.m_traverse) ||
        !write_field(definition, "m_clear", module.m_clear) || !write_field(definition, "m_free", module.m_free)) {
        return nullptr;
    }
    if (fill_slots(static_cast<PyModuleDef_Slot*>(slots.get()), module)) {
        if (!write_field(definition, "m_slots", slots.get())) {
            return nullptr;
        }
        slots.keep();
    }
    return static_cast<PyModuleDefBlock*>(definition.keep());
}

PyObject* XPy_InitModule(const char* name, PyMethodDef* methods) {
    if (!is_bound() || !has_name(name)) {
        return nullptr;
    }
    if (xpy.major_version == 2) {
        return xpy.Py_InitModule(name, methods, nullptr, nullptr, xpy.api_version);
    }
    XPyModuleDef module{};
    module.m_name = name;
    module.m_size = -1;
    module.m_methods = methods;
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(&module);
    return definition == nullptr ? nullptr : xpy.PyModule_Create2(definition, xpy.api_version);
}

PyObject* XPyModuleDef_Init(XPyModuleDef* module_def) {
    if (!is_bound()) {
        return nullptr;
    }
    if (xpy.PyModuleDef_Init == nullptr) {  // before 3.5
        raise_unable_to_init();
        return nullptr;
    }
    PyModuleDefBlock* definition = XPy_CreatePy3ModuleDef(module_def);
    return definition == nullptr ? nullptr : xpy.PyModuleDef_Init(definition);
}

XPyEvalFrameNoThreadState XPy_GetEvalFrameFunctionNoThreadState() {
    XPyEvalFrameNoThreadState* field = eval_frame_field();
    return field == nullptr ? nullptr : *field;
}

int XPy_SetEvalFrameFunctionNoThreadState(XPyEvalFrameNoThreadState function) {
    XPyEvalFrameNoThreadState* field = eval_frame_field();
    if (field == nullptr || function == nullptr) {
        return -1;
    }
    *field = function;
    return 0;
}

XPyEvalFrameWithThreadState XPy_GetEvalFrameFunctionWithThreadState() {
    return is_minor_between(9, 10) ? get_eval_frame<XPyEvalFrameWithThreadState>() : nullptr;
}

int XPy_SetEvalFrameFunctionWithThreadState(XPyEvalFrameWithThreadState function) {
    return is_minor_between(9, 10) ? set_eval_frame(function) : -1;
}

XPyEvalFramePyInterpreterFrame XPy_GetEvalFrameFunctionPyInterpreterFrame() {
    return is_minor_between(11, 11) ? get_eval_frame<XPyEvalFramePyInterpreterFrame>() : nullptr;
}

int XPy_SetEvalFrameFunctionPyInterpreterFrame(XPyEvalFramePyInterpreterFrame function) {
    return is_minor_between(11, 11) ? set_eval_frame(function) : -1;
}

int XPy_SetDPrintfFile(PyObject* py_file, int fileno, void* win32_handle) {
    if (xpy.initialized == 0) {
        do_dp_no_py(gDP.core, "XPy_SetDPrintfFile() called when global_XPy_C_API_Data.initialized is false\n");
        return 0;
    }
    init_dp_data(&gDP, 0);
    set_dp_data_file_obj(&gDP, py_file, fileno, win32_handle);
    return 1;
}

int XPy_SetDPrintfNativeFile(int fileno, void* win32_handle) {
    init_dp_data(&gDP, 0);
    set_dp_data_file_obj(&gDP, nullptr, fileno, win32_handle);
    return 1;
}

long XPy_SetDPrintfMask(long mask) {
    init_dp_data(&gDP, 0);
    const long previous = get_dp_data_mask(&gDP);
    set_dp_data_mask(&gDP, static_cast<tDPrintfLogMask>(mask));
    return previous;
}
