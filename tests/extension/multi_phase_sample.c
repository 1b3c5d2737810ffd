/* A small module of the kind that the public header is for: plain C, one binary for every interpreter
 * from 3.5 on, made in two phases. It includes no interpreter header and asks for the few functions it needs
 * by name. */

#include <xoptmonitoring/xpy.h>

#include <stdio.h>

enum { kMethVarArgs = 1 };

typedef struct State {
    long calls;
} State;

static int live_states;

/* ---- what this module takes from the interpreter ---- */

static PyObject* (*make_integer)(long value);
static int (*parse)(PyObject* args, const char* format, ...);
static PyObject* (*build)(const char* format, ...);
static State* (*state_of)(PyObject* module);
static int (*add_constant)(PyObject* module, const char* name, long value);

/* Function pointers and data pointers have the same form on every platform with dlsym. */
static int find(const char* name, void* slot) {
    *(void**)slot = XPy_LookupPythonFunction(name);
    return *(void**)slot == NULL ? -1 : 0;
}

static int find_all(void) {
    return find("PyLong_FromLong", &make_integer) || find("PyArg_ParseTuple", &parse) ||
                   find("Py_BuildValue", &build) || find("PyModule_GetState", &state_of) ||
                   find("PyModule_AddIntConstant", &add_constant)
               ? -1
               : 0;
}

/* ---- functions ---- */

static PyObject* count_calls(PyObject* module, PyObject* args) {
    State* state = state_of(module);
    if (!parse(args, "")) {
        return NULL;
    }
    return make_integer(++state->calls);
}

static PyObject* compare(PyObject* module, PyObject* args) {
    PyObject* a = NULL;
    PyObject* b = NULL;
    int result = 0;
    (void)module;
    if (!parse(args, "OO", &a, &b)) {
        return NULL;
    }
    result = XPy_PyObjectsEqual(a, b);
    return result == -1 ? NULL : build("i", result);
}

static PyObject* borrow_type(PyObject* module, PyObject* args) {
    PyObject* object = NULL;
    (void)module;
    if (!parse(args, "O", &object)) {
        return NULL;
    }
    return build("O", (PyObject*)XPy_BorrowType(object));
}

static PyObject* tell_version(PyObject* module, PyObject* args) {
    (void)module;
    if (!parse(args, "")) {
        return NULL;
    }
    return build("ii", XPy_GetMajorVersion(), XPy_GetMinorVersion());
}

/* log(file, frame, object): a line through the diagnostics, with a frame's position and a repr in it */
static PyObject* log_line(PyObject* module, PyObject* args) {
    PyObject* file = NULL;
    PyObject* frame = NULL;
    PyObject* object = NULL;
    char repr[64];
    (void)module;
    if (!parse(args, "OOO", &file, &frame, &object)) {
        return NULL;
    }
    set_dprintf_file(file, -1, NULL);
    set_dprintf_mask(kLogCore);
    snprintf(repr, sizeof repr, "%s", get_dprintf_repr_str1(&gUnsafeGlobalDPData, object));
    do_dprintf(kLogCore, "%s: %s\n", get_dprintf_frame_str1(frame), repr);
    do_dprintf(kLogThreading, "not in the mask\n");
    set_dprintf_file(NULL, -1, NULL);
    return make_integer(gUnsafeGlobalDPData.shared_single_dp_data.in_dprint_count);
}

static PyObject* count_live_states(PyObject* module, PyObject* args) {
    (void)module;
    if (!parse(args, "")) {
        return NULL;
    }
    return make_integer(live_states);
}

static PyMethodDef functions[] = {
    {"count_calls", count_calls, kMethVarArgs, "Returns how often it has been called."},
    {"compare", compare, kMethVarArgs, "Returns whether two objects are equal, as 0 or 1."},
    {"borrow_type", borrow_type, kMethVarArgs, "Returns the type of an object."},
    {"tell_version", tell_version, kMethVarArgs, "Returns major and minor version of the interpreter."},
    {"log_line", log_line, kMethVarArgs, "Writes a line to a file."},
    {"count_live_states", count_live_states, kMethVarArgs, "Returns the number of modules not yet freed."},
    {NULL, NULL, 0, NULL},
};

/* ---- the module ---- */

static int execute(PyObject* module) {
    ++live_states;
    return add_constant(module, "constant", 17);
}

static void release(void* module) {
    (void)module;
    --live_states;
}

static XPyModuleDef definition = {
    "multi_phase_sample", /* m_name */
    "A sample.",          /* m_doc */
    sizeof(State),        /* m_size */
    functions,            /* m_methods */
    NULL,                 /* m_create */
    execute,              /* m_exec */
    2,                    /* m_multiple_interp_flag */
    1,                    /* m_no_gil_support_flag */
    NULL,                 /* m_traverse */
    NULL,                 /* m_clear */
    release,              /* m_free */
};

XPY_API PyObject* PyInit_multi_phase_sample(void);

PyObject* PyInit_multi_phase_sample(void) {
    static PyObject* converted;
    if (converted == NULL && find_all() == 0) {
        converted = XPyModuleDef_Init(&definition);
    }
    return converted;
}
