/* What the module is measured against: callbacks written by hand in C.
 *
 * One library for every interpreter, loaded through ctypes: it needs no headers, only the few functions
 * declared below, and returns None as it is, since None is never deallocated from 3.12 on.
 *
 *   floor            answers None, and nothing else: what the interpreter itself charges for an event
 *   disabling_floor  the same with DISABLE, which switches the event off in that place
 *   line_filter      the least that a filter of LINE events can do: the code object's own slot leads to a set
 *                    of line numbers, and the line is not in it
 *   thread_filter    the least that a filter of other events can do: the code object's own slot, and the
 *                    thread's
 *
 * The filters skip what they are given and are no use for anything else: where a look-up fails, or the line
 * is in the set, they raise, so that a measurement that does not measure a skip cannot go unnoticed.
 */
#include <stddef.h>

#ifdef XOPT_HAS_CALLGRIND
#include <valgrind/callgrind.h>
#else /* nothing can be counted */
#define RUNNING_ON_VALGRIND 0
#define CALLGRIND_START_INSTRUMENTATION (void)0
#define CALLGRIND_STOP_INSTRUMENTATION (void)0
#define CALLGRIND_ZERO_STATS (void)0
#define CALLGRIND_DUMP_STATS_AT(title) (void)(title)
#endif

/* The interpreter's side */

typedef struct _object PyObject;
typedef struct _Py_tss_t Py_tss_t;
typedef ptrdiff_t Py_ssize_t;
typedef PyObject* (*FastFunction)(PyObject*, PyObject* const*, Py_ssize_t);

typedef struct {
    const char* name;
    FastFunction function;
    int flags;
    const char* doc;
} PyMethodDef;

enum { METH_FASTCALL = 0x80 };

extern PyObject _Py_NoneStruct;
extern void Py_IncRef(PyObject* object);
extern PyObject* PyExc_RuntimeError;
extern void PyErr_SetString(PyObject* type, const char* message);
extern int PySet_Contains(PyObject* set, PyObject* key);
extern Py_ssize_t PyUnstable_Eval_RequestCodeExtraIndex(void (*drop)(void*));
extern int PyUnstable_Code_GetExtra(PyObject* code, Py_ssize_t index, void** extra);
extern int PyUnstable_Code_SetExtra(PyObject* code, Py_ssize_t index, void* extra);
extern Py_tss_t* PyThread_tss_alloc(void);
extern int PyThread_tss_create(Py_tss_t* key);
extern void* PyThread_tss_get(Py_tss_t* key);
extern int PyThread_tss_set(Py_tss_t* key, void* value);

/* The contestants */

static Py_ssize_t code_index = -1;
static Py_tss_t* thread_key;
static char thread_is_debugged;

static PyObject* refuse(void) {
    PyErr_SetString(PyExc_RuntimeError, "the event is none that is skipped");
    return NULL;
}

static PyObject* floor_callback(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    (void)self;
    (void)args;
    (void)nargs;
    return &_Py_NoneStruct;
}

static PyObject* disable;

static PyObject* disabling_floor_callback(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    (void)self;
    (void)args;
    (void)nargs;
    Py_IncRef(disable);
    return disable;
}

static PyObject* line_filter_callback(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    void* linenos = NULL;
    (void)self;
    (void)nargs;
    if (PyUnstable_Code_GetExtra(args[0], code_index, &linenos) < 0 || linenos == NULL) {
        return refuse();
    }
    return PySet_Contains((PyObject*)linenos, args[1]) == 0 ? &_Py_NoneStruct : refuse();
}

static PyObject* thread_filter_callback(PyObject* self, PyObject* const* args, Py_ssize_t nargs) {
    void* linenos = NULL;
    (void)self;
    (void)nargs;
    if (PyUnstable_Code_GetExtra(args[0], code_index, &linenos) < 0 || linenos == NULL) {
        return refuse();
    }
    return PyThread_tss_get(thread_key) != NULL ? &_Py_NoneStruct : refuse();
}

PyMethodDef floor_definition = {"floor", floor_callback, METH_FASTCALL, NULL};
PyMethodDef disabling_floor_definition = {"disabling_floor", disabling_floor_callback, METH_FASTCALL, NULL};
PyMethodDef line_filter_definition = {"line_filter", line_filter_callback, METH_FASTCALL, NULL};
PyMethodDef thread_filter_definition = {"thread_filter", thread_filter_callback, METH_FASTCALL, NULL};

/* Reserves the slots that the filters look into, and takes what the disabling floor answers, which somebody
 * else keeps alive. Returns 0, or -1 where there are no slots. */
int prepare(PyObject* disable_answer) {
    disable = disable_answer;
    code_index = PyUnstable_Eval_RequestCodeExtraIndex(NULL);
    thread_key = PyThread_tss_alloc();
    return code_index < 0 || thread_key == NULL || PyThread_tss_create(thread_key) != 0 ? -1 : 0;
}

/* Puts a set of line numbers, which somebody else keeps alive, into the slot of a code object. */
int watch_code(PyObject* code, PyObject* linenos) {
    return PyUnstable_Code_SetExtra(code, code_index, linenos);
}

/* Puts something into the slot of the calling thread. */
int watch_thread(void) {
    return PyThread_tss_set(thread_key, &thread_is_debugged);
}

/* Counting instructions, where callgrind is watching */

int is_counting_possible(void) {
    return RUNNING_ON_VALGRIND != 0;
}

void start_counting(void) {
    CALLGRIND_START_INSTRUMENTATION;
}

void stop_counting(void) {
    CALLGRIND_STOP_INSTRUMENTATION;
}

void zero_counts(void) {
    CALLGRIND_ZERO_STATS;
}

void dump_counts(const char* title) {
    CALLGRIND_DUMP_STATS_AT(title);
}
