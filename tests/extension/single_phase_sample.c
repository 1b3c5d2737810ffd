/* A small module made in one phase: one binary for generation 2 and 3. */

#include <xoptmonitoring/xpy.h>

enum { kMethVarArgs = 1 };

static PyObject* answer(PyObject* module, PyObject* args) {
    PyObject* (*make_integer)(long value) = NULL;
    (void)module;
    (void)args;
    *(void**)&make_integer = XPy_LookupPythonFunction("PyLong_FromLong");
    return make_integer == NULL ? NULL : make_integer(42);
}

static PyMethodDef functions[] = {
    {"answer", answer, kMethVarArgs, "Returns the answer."},
    {NULL, NULL, 0, NULL},
};

XPY_API PyObject* PyInit_single_phase_sample(void);
XPY_API void initsingle_phase_sample(void);

/* Generation 3 */
PyObject* PyInit_single_phase_sample(void) {
    return XPy_InitModule("single_phase_sample", functions);
}

/* Generation 2, where an exception that is left pending is the result */
void initsingle_phase_sample(void) {
    (void)XPy_InitModule("single_phase_sample", functions);
}
