/* xpy.h: what xoptmonitoring.so offers to other native modules, in plain C.
 *
 * xoptmonitoring finds the interpreter that runs this process by name, so neither it nor a module that uses
 * this header is tied to one Python version. No interpreter header is needed; where Python.h has been
 * included before this file, its own types are used.
 *
 * Link against xoptmonitoring.so, or look the functions up with dlsym. Every function has C linkage, is
 * called with the interpreter's lock held unless it says otherwise, and reports errors in one of two ways:
 *
 *   - functions that return an object or a definition give a null pointer, functions that return int give -1,
 * and a Python exception is pending wherever the interpreter is known well enough to raise one;
 *   - diagnostic functions (the second half of this file) never fail and never touch a pending exception.
 *
 * "Binding" is the look-up of the interpreter. It happens once per process, when xoptmonitoring is imported
 * or when one of the functions that say so is called, whichever comes first. Before that, the other functions
 * answer as if nothing was there.
 */
#ifndef XOPTMONITORING_XPY_H
#define XOPTMONITORING_XPY_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* NOLINTBEGIN(modernize-use-using, modernize-redundant-void-arg, modernize-deprecated-headers): this is C. */

#ifdef __cplusplus
extern "C" {
#endif

#define XPY_API __attribute__((visibility("default")))

/* ---- the interpreter's types, as far as the functions below need them ---- */

#ifndef Py_PYTHON_H

/* Objects of the interpreter. All of them are opaque. */
typedef struct PyObject PyObject;
typedef struct PyTypeObject PyTypeObject;
typedef struct PyThreadState PyThreadState;
typedef struct PyFrameObject PyFrameObject;

typedef ssize_t Py_ssize_t;

typedef PyObject* (*PyCFunction)(PyObject* self, PyObject* args);
typedef int (*visitproc)(PyObject* object, void* arg);
typedef int (*traverseproc)(PyObject* self, visitproc visit, void* arg);
typedef int (*inquiry)(PyObject* self);
typedef void (*freefunc)(void* self);

/* One function of a module. A table of them ends with an entry whose name is null. */
typedef struct PyMethodDef {
    const char* ml_name;
    PyCFunction ml_meth;
    int ml_flags;
    const char* ml_doc;
} PyMethodDef;

#else

/* Python.h of older versions leaves this one to another header. */
typedef struct _frame PyFrameObject;

#endif /* Py_PYTHON_H */

/* The interpreter's innermost frame of 3.11: not an object. */
struct _PyInterpreterFrame;

/* A module definition in the interpreter's own layout: what PyModuleDef_Init and PyModule_Create2 take. */
struct PyModuleDefBlock;

/* ---- binding ---- */

/* Binds to the interpreter of this process, once; a repeated call returns at once.
 * Returns 0, or -1 with ImportError "Unable to init XPy" pending (or the exception that was pending before).
 * Where the interpreter is too unlike any known one to raise an exception, -1 comes alone. What was missing
 * is written to standard error. After a failure the next call tries again, unless there was no interpreter at
 * all. */
XPY_API int XPy_Initialize(void);

/* As XPy_Initialize, but looks in the library that dlopen knows by the name `dll_ptr`; null stands for the
 * main program and everything it has loaded. Returns 0 or -1. A failure raises an exception only when an
 * earlier one had found no interpreter. Once bound, the name of a later call is not looked at. */
XPY_API int XPy_InitializeWithDllPtr(void* dll_ptr);

/* The address of any symbol of the interpreter, or null if it has none or `name` is null. Raises nothing. Can
 * be used before binding, when it searches the main program. Needs no lock. */
XPY_API void* XPy_LookupPythonFunction(const char* name);

/* The version of the bound interpreter: 3 and 14 for Python 3.14; 0 before binding. Need no lock. */
XPY_API int XPy_GetMajorVersion(void);
XPY_API int XPy_GetMinorVersion(void);

/* The type of `object`. The result is borrowed: it lives as long as the object has this type. Null, without
 * an exception, before binding and for a null object. */
XPY_API PyTypeObject* XPy_BorrowType(PyObject* object);

/* Whether `a == b`: 1 or 0, or -1 with the comparison's exception pending. -1 without an exception before
 * binding and where one of the two is null. Keeps no reference. */
XPY_API int XPy_PyObjectsEqual(PyObject* a, PyObject* b);

/* For tests: nonzero makes every XPy_Initialize fail without trying, zero lifts that. Returns the previous
 * setting. Needs no lock. */
XPY_API int XPy_DbgSetFailOnImport(int fail);

/* For a host to which it is no news that its interpreter is later than all that xoptmonitoring knows the layouts of:
 * nonzero makes binding say nothing about that to standard error, zero lifts that. Binding itself is not changed, and
 * what makes it fail is told all the same. To be called before the import, or whatever else binds. Returns the
 * previous setting. Needs no lock. */
XPY_API int XPy_SetQuietAboutLaterVersions(int quiet);

/* ---- module definition ---- */

/* Multi-phase hooks: create returns the new module (a new reference) or null with an exception; exec fills it
 * and returns 0, or -1 with an exception. `definition` is the interpreter's own structure. */
typedef PyObject* (*XPyModuleCreate)(PyObject* spec, struct PyModuleDefBlock* definition);
typedef int (*XPyModuleExec)(PyObject* module);

/* What a module says about itself, in one layout for every interpreter. Unused fields are zero. The record,
 * its strings and its method table are used for the life of the process. */
typedef struct XPyModuleDef {
    const char* m_name;             /* name of the module; never null */
    const char* m_doc;              /* doc string, or null */
    Py_ssize_t m_size;              /* bytes of state per module; -1: single-phase, no state */
    PyMethodDef* m_methods;         /* functions of the module, or null */
    XPyModuleCreate m_create;       /* 3.5 and later, or null */
    XPyModuleExec m_exec;           /* 3.5 and later, or null */
    int32_t m_multiple_interp_flag; /* 3.12 and later: 0 main interpreter only, 1 any interpreter that shares
                                       the main one's lock, 2 any interpreter */
    int32_t m_no_gil_support_flag;  /* 3.13 and later: 1 when the module needs no global lock */
    traverseproc m_traverse;        /* for the state, or null */
    inquiry m_clear;                /* for the state, or null */
    freefunc m_free;                /* for the state, or null */
} XPyModuleDef;

/* Converts a definition to the layout of the bound interpreter. Call XPyModuleDef_Init instead, unless the
 * interpreter's structure itself is wanted. The result is never freed: the interpreter keeps pointers into
 * it. Null when memory ran out, when `xpy_mod_def` or its name is null (an exception is pending), and before
 * binding (a message goes to standard error and nothing is raised). */
XPY_API struct PyModuleDefBlock* XPy_CreatePy3ModuleDef(XPyModuleDef* xpy_mod_def);

/* Creates a module in one phase, on generation 2 and 3 alike; binds if that has not happened. `name` must not
 * be null; `methods` may be. Both are used for the life of the process. Returns the module: a new reference
 * on generation 3, to be returned from PyInit_name; a reference borrowed from sys.modules on generation 2,
 * where initname returns nothing. Null with an exception pending on failure. */
XPY_API PyObject* XPy_InitModule(const char* name, PyMethodDef* methods);

/* Binds if that has not happened, converts `module_def` and hands it to the interpreter for multi-phase
 * initialisation (3.5 and later). Return the result from PyInit_name: the import machinery does the rest.
 * Each call makes a new definition, so a module that may be imported again keeps the first result (it is
 * borrowed and lives as long as the process). Null on failure, with ImportError pending where binding failed
 * or the interpreter has no multi-phase initialisation. */
XPY_API PyObject* XPyModuleDef_Init(XPyModuleDef* module_def);

/* ---- frame-evaluation hooks ----
 *
 * The function through which the current thread's interpreter runs each Python frame. One pair for each
 * signature that it has had; each answers only on the versions named, and elsewhere with null or -1. Getters
 * return null and setters -1 also before binding and on a thread that has no thread state. No exception is
 * raised. A setter does not accept a null function: to take a hook out, set the function that the getter gave
 * before. */

/* 3.6 to 3.8 */
typedef PyObject* (*XPyEvalFrameNoThreadState)(PyFrameObject* frame, int throwflag);
XPY_API XPyEvalFrameNoThreadState XPy_GetEvalFrameFunctionNoThreadState(void);
XPY_API int XPy_SetEvalFrameFunctionNoThreadState(XPyEvalFrameNoThreadState function);

/* 3.9 and 3.10 */
typedef PyObject* (*XPyEvalFrameWithThreadState)(PyThreadState* tstate, PyFrameObject* frame, int throwflag);
XPY_API XPyEvalFrameWithThreadState XPy_GetEvalFrameFunctionWithThreadState(void);
XPY_API int XPy_SetEvalFrameFunctionWithThreadState(XPyEvalFrameWithThreadState function);

/* 3.11 */
typedef PyObject* (*XPyEvalFramePyInterpreterFrame)(PyThreadState* tstate, struct _PyInterpreterFrame* frame,
                                                    int throwflag);
XPY_API XPyEvalFramePyInterpreterFrame XPy_GetEvalFrameFunctionPyInterpreterFrame(void);
XPY_API int XPy_SetEvalFrameFunctionPyInterpreterFrame(XPyEvalFramePyInterpreterFrame function);

/* ---- diagnostics: categories and records ---- */

/* A set of categories. */
typedef int32_t tDPrintfLogMask;
enum {
    kLogOther = 1,
    kLogFilenames = 2,
    kLogCore = 4,
    kLogBreakpoints = 8,
    kLogExceptions = 16,
    kLogIO = 32,
    kLogInternalFailures = 64,
    kLogThreading = 128,
    kLogInitialMonitoringCallbacks = 256,
    kLogSecondMonitoringCallbacks = 512
};

/* One output of diagnostic lines. */
typedef struct tSingleDPData {
    int initialized;
    PyObject* file_obj;  /* Python file object (owned), or null */
    int fileno;          /* native descriptor, -1 for none; never closed */
    void* win32_handle;  /* handle of another platform; stored and never used here */
    int in_dprint_count; /* nonzero while a diagnostic call is under way */
} tSingleDPData;

/* A diagnostic record. A category pointer is null while the category is off, and otherwise the output to hand
 * to do_dp or do_dp_no_py: `if (dp.core != NULL) do_dp(dp.core, "...\n");` costs one load while it is off. */
typedef struct tDPData {
    int initialized;
    tDPrintfLogMask mask;
    tSingleDPData shared_single_dp_data;
    tSingleDPData* core;
    tSingleDPData* filenames;
    tSingleDPData* internal_failures;
    tSingleDPData* threading;
    tSingleDPData* initial_monitoring_callbacks;
    tSingleDPData* second_monitoring_callbacks;
    char* _repr_str1; /* 4001 bytes for the text of a repr */
    char* _repr_str2;
} tDPData;

/* The process-wide record, and the record of the binding layer. */
extern XPY_API tDPData gUnsafeGlobalDPData;
extern XPY_API tDPData gDP;

/* What set_dprintf_mask and set_dprintf_file have set: at first kLogCore | kLogExceptions |
 * kLogInternalFailures, null and -1. Read them; do not write them. */
extern XPY_API tDPrintfLogMask gDPrintfMask;
extern XPY_API PyObject* gDPrintfFile;
extern XPY_API int gDPrintfNativeFileno;

/* ---- diagnostics: outputs of the binding layer's record ---- */

/* Sends the binding layer's lines to a Python file object (a reference is taken, the old file's is dropped;
 * null or None: no Python output) and to a native descriptor (-1: none). `win32_handle` is stored only.
 * Returns 1, or 0 without effect before binding. */
XPY_API int XPy_SetDPrintfFile(PyObject* py_file, int fileno, void* win32_handle);

/* Sends the binding layer's lines to a native descriptor alone. Can be used before binding, which makes the
 * steps of binding visible; needs no lock then. Returns 1. */
XPY_API int XPy_SetDPrintfNativeFile(int fileno, void* win32_handle);

/* Chooses the categories of the binding layer's record. Returns the previous ones; a record that nobody has
 * set has kLogCore | kLogExceptions | kLogInternalFailures. Keeps the outputs. Needs no lock. */
XPY_API long XPy_SetDPrintfMask(long mask);

/* ---- diagnostics: records ---- */

/* A new record without outputs, or null when memory ran out. It belongs to the caller, who ends it with
 * free_dp_data (null is allowed). */
XPY_API tDPData* create_dp_data(void);
XPY_API void free_dp_data(tDPData* dp_data);

/* Gives a record without outputs and with the first mask its start, unless it has been initialised; `force`
 * does so anyway and drops what it held. A new record has to be zeroed first. */
XPY_API void init_dp_data(tDPData* dp_data, int force);

/* Drops outputs and repr buffers. The record stays initialised, and its mask stays. */
XPY_API void clear_dp_data(tDPData* dp_data);

/* The record's categories. The category pointers follow them. */
XPY_API void set_dp_data_mask(tDPData* dp_data, tDPrintfLogMask mask);
XPY_API tDPrintfLogMask get_dp_data_mask(const tDPData* dp_data);

/* Replaces the outputs: arguments as for XPy_SetDPrintfFile. Before binding a file object cannot be kept, and
 * only the descriptor is taken. */
XPY_API void set_dp_data_file_obj(tDPData* dp_data, PyObject* file_obj, int fileno, void* win32_handle);

/* The same for the process-wide record, where all lines to a Python file go. */
XPY_API void set_dprintf_file(PyObject* file, int fileno, void* win32_handle);
XPY_API void set_dprintf_mask(tDPrintfLogMask mask);
XPY_API tDPrintfLogMask get_dprintf_mask(void);

/* ---- diagnostics: lines ----
 *
 * A format of do_dprintf, do_dp and do_dp_v is one of PyUnicode_FromFormat, of do_dp_no_py and do_dp_no_py_v
 * one of printf. Nothing is added to the text: a line end is part of the format. What cannot be written is
 * dropped. */

/* A line of category `kind` to the Python file of set_dprintf_file. */
XPY_API void do_dprintf(tDPrintfLogMask kind, const char* format, ...);

/* Meant to write prefix, repr of `obj` and suffix, in one line. Never writes anything: it holds the guard
 * against re-entry while it calls do_dprintf. Kept, since hosts have come to know it so. */
XPY_API void do_dprintf_repr(tDPrintfLogMask kind, const char* prefix, PyObject* obj, const char* suffix);

/* The pending exception with its traceback, to the Python file of set_dprintf_file. It stays pending. Once
 * this has been called while sys.stderr was missing or None, every later line of the process is dropped. */
XPY_API void do_dlogexception(void);

/* A line to the Python file of set_dprintf_file, guarded by the record `data`; null: nothing. */
XPY_API void do_dp(tSingleDPData* data, const char* format, ...);
XPY_API void do_dp_v(tSingleDPData* data, const char* format, va_list arguments);

/* As do_dlogexception, guarded by the record `data`; null: nothing. */
XPY_API void do_dp_logexception(tSingleDPData* data);

/* A line to the native descriptor of `data`; null: nothing. Calls no interpreter function and needs no lock.
 */
XPY_API void do_dp_no_py(tSingleDPData* data, const char* format, ...) __attribute__((format(printf, 2, 3)));
XPY_API void do_dp_no_py_v(tSingleDPData* data, const char* format, va_list arguments)
    __attribute__((format(printf, 2, 0)));

/* A text of category `kind` to the native descriptor of set_dprintf_file. Calls no interpreter function and
 * needs no lock. */
XPY_API void dprint_no_tstate(tDPrintfLogMask kind, const char* s);

/* ---- diagnostics: texts for use in a line ----
 *
 * Never null and never to be freed. */

/* "line 12 of run (/src/app.py: 10)" for a frame object, "" for null. Valid until the next call. */
XPY_API const char* get_dprintf_frame_str1(PyObject* frame);

/* The repr of `obj`, cut at 4000 bytes, in one of the record's two buffers: two reprs can stand in one line.
 * Valid until the next call with the same record. */
XPY_API const char* get_dprintf_repr_str1(tDPData* dp_data, PyObject* obj);
XPY_API const char* get_dprintf_repr_str2(tDPData* dp_data, PyObject* obj);

/* `s` itself, or a fixed text where it is null, or is not ASCII while lines go to a Python file. */
XPY_API const char* dprint_check_str(const char* s);

/* The text of a string object, or a fixed text where there is none. Valid as long as the object. */
XPY_API const char* dprint_check_pystr(PyObject* o);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* NOLINTEND(modernize-use-using, modernize-redundant-void-arg, modernize-deprecated-headers) */

#endif /* XOPTMONITORING_XPY_H */
