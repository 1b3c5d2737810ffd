// Runs Python calls on a thread that the interpreter did not start, under thread states that come and go.
//
// The calls are callables without arguments; none of them may raise. The functions are called without the
// global lock held, and end when their thread has ended; 0 is success.
#include <pthread.h>

typedef struct _object PyObject;
typedef struct _ts PyThreadState;
typedef struct _is PyInterpreterState;

int PyGILState_Ensure(void);
void PyGILState_Release(int state);
PyInterpreterState* PyInterpreterState_Get(void);
PyObject* PyObject_CallNoArgs(PyObject* callable);
void PyThreadState_Clear(PyThreadState* state);
void PyThreadState_Delete(PyThreadState* state);
PyThreadState* PyThreadState_Get(void);
PyThreadState* PyThreadState_New(PyInterpreterState* interpreter);
PyThreadState* PyThreadState_Swap(PyThreadState* state);
void Py_DecRef(PyObject* object);

static void call(PyObject* callable) {
    Py_DecRef(PyObject_CallNoArgs(callable));
}

static int run_on_thread(void* (*body)(void*), PyObject** calls) {
    pthread_t thread;
    return pthread_create(&thread, 0, body, calls) != 0 || pthread_join(thread, 0) != 0;
}

// Each of two calls under a thread state of its own, one after the other.
static void* successive_states_body(void* argument) {
    PyObject** calls = argument;
    for (int index = 0; index < 2; ++index) {
        int state = PyGILState_Ensure();
        call(calls[index]);
        PyGILState_Release(state);
    }
    return 0;
}

// Two thread states that exist together, so that their addresses differ: the first call and the last under
// one, the call between them under the other.
static void* two_states_body(void* argument) {
    PyObject** calls = argument;
    int state = PyGILState_Ensure();
    PyThreadState* first = PyThreadState_Get();
    call(calls[0]);
    PyThreadState* other = PyThreadState_New(PyInterpreterState_Get());
    PyThreadState_Swap(other);
    call(calls[1]);
    PyThreadState_Clear(other);
    PyThreadState_Swap(first);
    PyThreadState_Delete(other);
    call(calls[2]);
    PyGILState_Release(state);
    return 0;
}

int run_under_successive_states(PyObject** calls) {
    return run_on_thread(successive_states_body, calls);
}

int run_under_two_states(PyObject** calls) {
    return run_on_thread(two_states_body, calls);
}
