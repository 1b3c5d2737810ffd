// The entry points: binding to the interpreter, once per process, and handing it the module's definition.
#include "xoptmonitoring/xpy.h"

#include "xoptmonitoring/module/execution.h"
#include "xoptmonitoring/module/module_object.h"

namespace {

/// The interpreter's module state is cleared in two steps: what its own hook drops, and the rest with the object.
int traverse_hook(PyObject* module, visitproc visit, void* arg) {
    ModuleState* m = state_of(module);
    return m != nullptr ? traverse_state(*m, visit, arg) : 0;
}

int clear_hook(PyObject* module) {
    if (ModuleState* m = state_of(module)) {
        clear_tables(*m);
    }
    return 0;
}

void free_hook(void* module) {
    if (ModuleState* m = state_of(static_cast<PyObject*>(module))) {
        clear_state(*m);
    }
}

constexpr std::int32_t kMainInterpreterOnly = 0;
constexpr std::int32_t kRunsWithoutGil = 1;

XPyModuleDef gModuleDef = {
    "xoptmonitoring",
    "What runs inside a Python process while it is being debugged: records per file, code object and thread,\n"
    "canonical pathnames, and the first stage of every sys.monitoring event.",
    sizeof(ModuleState),
    nullptr,
    create_module,
    execute_module,
    kMainInterpreterOnly,
    kRunsWithoutGil,
    traverse_hook,
    clear_hook,
    free_hook,
};

/// Set once binding and conversion succeeded; a failed import leaves it clear, so that a later one tries again.
int gConverted = 0;
PyModuleDefBlock* gDefinition = nullptr;

/// Null with ImportError pending: this interpreter lacks what the entry needs.
PyObject* refuse() {
    if (xpy.PyErr_Occurred() == nullptr) {
        xpy.PyErr_SetString(xpy.PyExc_ImportError, "Unable to init XPy");
    }
    return nullptr;
}

}  // namespace

/// The module's definition for generation 3, ready for multi-phase initialisation; null with an exception set.
XPY_EXPORT PyObject* PyInit_xoptmonitoring(void) {
    if (gConverted == 0) {
        if (XPy_Initialize() != 0) {
            return nullptr;
        }
        if (xpy.PyModuleDef_Init == nullptr) {
            return refuse();  // generation 2 has no multi-phase initialisation
        }
        gDefinition = XPy_CreatePy3ModuleDef(&gModuleDef);
        if (gDefinition == nullptr) {
            return refuse();
        }
        gConverted = 1;
    }
    return xpy.PyModuleDef_Init(gDefinition);
}

/// The entry point of generation 2, which ends in ImportError there.
XPY_EXPORT void initxoptmonitoring(void) {
    static_cast<void>(PyInit_xoptmonitoring());
}
