// Fallbacks, in three kinds: emulations, functions that raise ("not available"), functions that only say that
// they were called. Every one of them can be reached through its slot on some interpreter.
#include "xoptmonitoring/binding/xpy_fallbacks.h"

#include "xoptmonitoring/binding/refs.h"

#include <cstdio>

namespace {

/// Says that a function is missing, on standard error and as RuntimeError. Without a line end: the text is
/// the same in both places.
XPY_COLD void raise_not_available(const char* text) {
    std::fputs(text, stderr);
    xpy.PyErr_SetString(xpy.PyExc_RuntimeError, text);
}

/// Says that a function was called for which nothing can be done; nothing is raised.
XPY_COLD void report_call(const char* text) {
    std::fputs(text, stderr);
}

/// A new reference to the object in a field of a frame, or null: the field may be empty (f_locals of a frame
/// whose locals nobody has asked for).
PyObject* frame_field(PyObject* frame, std::int64_t offset, const char* text_if_unknown) {
    if (offset == -1) {
        xpy.PyErr_SetString(xpy.PyExc_RuntimeError, text_if_unknown);
        return nullptr;
    }
    return Ref::share(*XPy_GetFieldAddress<PyObject*>(frame, offset)).release();
}

/// The value under `key`, borrowed, or null with or without an error. Generation 2 has no look-up that
/// reports errors.
PyObject* borrow_item(PyObject* dict, PyObject* key) {
    return xpy.PyDict_GetItemWithError != nullptr ? xpy.PyDict_GetItemWithError(dict, key)
                                                  : xpy.PyDict_GetItem(dict, key);
}

/// What a function that found nothing returns: -1 when the search failed, else 0.
int absent_or_error() {
    return xpy.PyErr_Occurred() != nullptr ? -1 : 0;
}

}  // namespace

// ---- emulations ----

Py_ssize_t Backup_PyLong_AsSsize_t(PyObject* object) {
    return static_cast<Py_ssize_t>(xpy.PyLong_AsLongLong(object));
}

PyObject* Backup_PyLong_FromSsize_t(Py_ssize_t value) {
    return xpy.PyInt_FromLong != nullptr ? xpy.PyInt_FromLong(value) : xpy.PyLong_FromLong(value);
}

PyObject* Backup_PyFrame_GetGenerator(PyObject* /*frame*/) {
    return nullptr;
}

/// Installed and never called by this module: on a thread state that is in use, the function behind it
/// aborts.
void Backup_PyThreadState_SetCurrent(PyThreadState* tstate) {
    if (xpy._PyThreadState_Init != nullptr) {
        xpy._PyThreadState_Init(tstate);
    }
}

int Backup__Py_IsFinalizing() {
    return 0;
}

const char* Backup_PyUnicode_AsString(PyObject* text) {
    PyTypeObject* type = text == nullptr ? nullptr : type_of(text);
    if (type == nullptr ||
        (type != xpy.PyUnicode_Type_ptr && xpy.PyType_IsSubtype(type, xpy.PyUnicode_Type_ptr) == 0)) {
        xpy._PyErr_BadInternalCall("xoptmonitoring/xpy_c_api.c", __LINE__);
        return nullptr;
    }
    const Ref arguments = Ref::steal(xpy.PyTuple_New(1));
    if (!arguments || xpy.PyTuple_SetItem(arguments.get(), 0, Ref::share(text).release()) != 0) {
        return nullptr;
    }
    // The bytes belong to the string object, which the caller holds, and so outlive the tuple.
    const char* bytes = nullptr;
    return xpy.PyArg_ParseTuple(arguments.get(), "s", &bytes) != 0 ? bytes : nullptr;
}

void* Backup_PyObject_GetTypeData(PyObject* object, PyTypeObject* type) {
    const XPyTypeObjectOffsets& offsets = xpy.typeobject_offsets;
    PyTypeObject* base = offsets.tp_base == -1 ? nullptr : *XPy_GetFieldAddress<PyTypeObject*>(type, offsets.tp_base);
    if (base == nullptr || offsets.tp_basicsize == -1) {
        raise_not_available("PyObject_GetTypeData not available");
        return nullptr;
    }
    const Py_ssize_t base_size = *XPy_GetFieldAddress<Py_ssize_t>(base, offsets.tp_basicsize);
    return XPy_GetFieldAddress<char>(object, (base_size + xpy.max_align - 1) / xpy.max_align * xpy.max_align);
}

PyObject* Backup_PyObject_CallNoArgs(PyObject* callable) {
    return xpy.PyObject_CallObject(callable, nullptr);
}

PyObject* Backup_PyObject_CallOneArg(PyObject* callable, PyObject* argument) {
    const Ref arguments = Ref::steal(xpy.PyTuple_New(1));
    if (!arguments || xpy.PyTuple_SetItem(arguments.get(), 0, Ref::share(argument).release()) != 0) {
        return nullptr;
    }
    return xpy.PyObject_CallObject(callable, arguments.get());
}

int Backup_PyFrame_GetLineNumber(PyObject* frame) {
    const Ref number = Ref::steal(xpy.PyObject_GetAttrString(frame, "f_lineno"));
    Py_ssize_t line = -1;
    if (number) {
        line = xpy.PyInt_AsSsize_t != nullptr ? xpy.PyInt_AsSsize_t(number.get()) : xpy.PyLong_AsSsize_t(number.get());
    }
    if (xpy.PyErr_Occurred() != nullptr) {
        xpy.PyErr_Clear();
        return -1;
    }
    return static_cast<int>(line);
}

PyObject* Backup_PyFrame_GetCode(PyObject* frame) {
    return frame_field(frame, xpy.frame_offsets.code, "PyFrame_GetCode not available and frame_offsets.code not set");
}

PyObject* Backup_PyFrame_GetBuiltins(PyObject* frame) {
    return frame_field(frame, xpy.frame_offsets.builtins,
                       "PyFrame_GetBuiltins not available and frame_offsets.builtins not set");
}

PyObject* Backup_PyFrame_GetGlobals(PyObject* frame) {
    return frame_field(frame, xpy.frame_offsets.globals,
                       "PyFrame_GetGlobals not available and frame_offsets.globals not set");
}

PyObject* Backup_PyFrame_GetLocals(PyObject* frame) {
    return frame_field(frame, xpy.frame_offsets.locals,
                       "PyFrame_GetLocals not available and frame_offsets.locals not set");
}

PyObject* Backup_PyFrame_GetBack(PyObject* frame) {
    return frame_field(frame, xpy.frame_offsets.back, "PyFrame_GetBack not available and frame_offsets.back not set");
}

PyObject* Backup_PyThreadState_GetFrame(PyThreadState* tstate) {
    // From 3.11 on the innermost frame is no object, whatever the offset record holds.
    const bool frames_are_objects = xpy.major_version == 2 || xpy.minor_version < 11;
    if (xpy.tstate_offsets.frame == -1 || !frames_are_objects) {
        return nullptr;
    }
    return Ref::share(*XPy_GetFieldAddress<PyObject*>(tstate, xpy.tstate_offsets.frame)).release();
}

int Backup_PyIter_NextItem(PyObject* iterator, PyObject** item) {
    *item = xpy.PyIter_Next(iterator);
    return *item != nullptr ? 1 : absent_or_error();
}

int Backup_PyDict_GetItemRef(PyObject* dict, PyObject* key, PyObject** found) {
    *found = Ref::share(borrow_item(dict, key)).release();
    return *found != nullptr ? 1 : absent_or_error();
}

int Backup_PyDict_Pop(PyObject* dict, PyObject* key, PyObject** value) {
    if (value != nullptr) {
        *value = nullptr;
    }
    Ref item = Ref::share(borrow_item(dict, key));
    if (!item) {
        return absent_or_error();
    }
    if (xpy.PyDict_DelItem(dict, key) != 0) {
        return -1;
    }
    if (value != nullptr) {
        *value = item.release();
    }
    return 1;
}

void Backup_PyErr_FormatUnraisable(const char* format, ...) {
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    // Formatting is Python code like any other and must not run on top of the exception that is to be
    // reported.
    xpy.PyErr_Fetch(&type, &value, &traceback);
    Ref message;
    if (format != nullptr && xpy.PyUnicode_FromFormatV != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        message = Ref::steal(xpy.PyUnicode_FromFormatV(format, arguments));
        va_end(arguments);
    }
    xpy.PyErr_Restore(type, value, traceback);  // in place of the formatting's own error, if there was one
    xpy.PyErr_WriteUnraisable(message.get());
}

namespace {

/// Changes the depth of trace functions that a thread is in, which keeps it from tracing while it is not 0.
void add_to_tracing(PyThreadState* tstate, std::int32_t change) {
    const bool counts_itself = xpy.major_version == 3 && xpy.minor_version >= 11;
    if (tstate == nullptr || counts_itself || xpy.tstate_offsets.tracing == -1) {
        return;
    }
    auto* tracing = XPy_GetFieldAddress<std::int32_t>(tstate, xpy.tstate_offsets.tracing);
    const std::int32_t before = *tracing;
    *tracing += change;
    const bool leaves_or_reaches_zero = change > 0 ? before == 0 : *tracing == 0;
    if (xpy.major_version != 3 || xpy.minor_version != 10 || !leaves_or_reaches_zero) {
        return;
    }
    // 3.10 caches in its frame chain whether a thread traces, and works that out anew when a trace function
    // is set.
    const auto function = *XPy_GetFieldAddress<Py_tracefunc>(tstate, xpy.tstate_offsets.c_tracefunc);
    // Setting the function drops the object that was set before, which is this very one.
    const Ref object = Ref::share(*XPy_GetFieldAddress<PyObject*>(tstate, xpy.tstate_offsets.c_traceobj));
    xpy.PyEval_SetTrace(function, object.get());
}

}  // namespace

void Backup_PyThreadState_EnterTracing(PyThreadState* tstate) {
    add_to_tracing(tstate, 1);
}

void Backup_PyThreadState_LeaveTracing(PyThreadState* tstate) {
    add_to_tracing(tstate, -1);
}

// ---- functions that say so and raise ----

PyObject* Backup_PyObject_CallFunctionObjArgs(PyObject* /*callable*/, ...) {
    raise_not_available("PyObject_CallFunctionObjArgs not available");
    return nullptr;
}

const char* Backup_PyUnicode_AsUTF8AndSize(PyObject* /*text*/, Py_ssize_t* /*size*/) {
    raise_not_available("PyUnicode_AsUTF8AndSize not available");
    return nullptr;
}

void* Backup_PyType_GetSlot(PyTypeObject* /*type*/, int /*slot*/) {
    raise_not_available("PyType_GetSlot not available");
    return nullptr;
}

void* Backup_PyType_GetModuleState(PyTypeObject* /*type*/) {
    raise_not_available("PyType_GetModuleState() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_GetModule(PyTypeObject* /*type*/) {
    raise_not_available("PyType_GetModule() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_GetModuleByType(PyTypeObject* /*type*/, PyModuleDefBlock* /*definition*/) {
    raise_not_available("PyType_GetModule() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_FromModuleAndSpec(PyObject* /*module*/, PyType_Spec* /*spec*/, PyObject* /*bases*/) {
    raise_not_available("PyType_FromModuleAndSpec() not available before 3.9");
    return nullptr;
}

PyObject* Backup_PyType_FromMetaclass(PyTypeObject* /*metaclass*/, PyObject* /*module*/, PyType_Spec* /*spec*/,
                                      PyObject* /*bases*/) {
    raise_not_available("PyType_FromMetaclass() not available before 3.12");
    return nullptr;
}

void* Backup_PyModule_GetState(PyObject* /*module*/) {
    raise_not_available("PyModule_GetState() not available before 3.9");
    return nullptr;
}

Py_tss_t* Backup_PyThread_tss_alloc() {
    raise_not_available("PyThread_tss_alloc not available");
    return nullptr;
}

// Returns 0, which reads as success in this one family: the exception tells.
int Backup_PyThread_tss_create(Py_tss_t* /*key*/) {
    raise_not_available("PyThread_tss_create not available");
    return 0;
}

void* Backup_PyThread_tss_get(Py_tss_t* /*key*/) {
    raise_not_available("PyThread_tss_get not available");
    return nullptr;
}

int Backup_PyThread_tss_set(Py_tss_t* /*key*/, void* /*value*/) {
    raise_not_available("PyThread_tss_set not available");
    return 0;
}

void Backup_PyThread_tss_delete(Py_tss_t* /*key*/) {
    raise_not_available("PyThread_tss_delete not available");
}

void Backup_PyThread_tss_free(Py_tss_t* /*key*/) {
    raise_not_available("PyThread_tss_free not available");
}

Py_ssize_t Backup_PyUnstable_Eval_RequestCodeExtraIndex(freefunc /*release*/) {
    raise_not_available("_PyEval_RequestCodeExtraIndex not available");
    return -1;
}

int Backup_PyUnstable_Code_GetExtra(PyObject* /*code*/, Py_ssize_t /*index*/, void** /*extra*/) {
    raise_not_available("_PyCode_GetExtra not available");
    return -1;
}

int Backup_PyUnstable_Code_SetExtra(PyObject* /*code*/, Py_ssize_t /*index*/, void* /*extra*/) {
    raise_not_available("_PyCode_SetExtra not available");
    return -1;
}

PyObject* Backup_PyErr_GetRaisedException() {
    raise_not_available("PyErr_GetRaisedException not available");
    return nullptr;
}

void Backup_PyErr_SetRaisedException(PyObject* /*exception*/) {
    raise_not_available("PyErr_SetRaisedException not available");
}

PyObject* Backup_PyErr_GetHandledException() {
    raise_not_available("PyErr_GetHandledException not available");
    return nullptr;
}

void Backup_PyErr_SetHandledException(PyObject* /*exception*/) {
    raise_not_available("PyErr_SetHandledException not available");
}

PyObject* Backup_PyCapsule_New(void* /*pointer*/, const char* /*name*/, PyCapsule_Destructor /*destroy*/) {
    raise_not_available("PyCapsule not available");
    return nullptr;
}

void* Backup_PyCapsule_GetPointer(PyObject* /*capsule*/, const char* /*name*/) {
    raise_not_available("PyCapsule not available");
    return nullptr;
}

int Backup_PyCapsule_SetDestructor(PyObject* /*capsule*/, PyCapsule_Destructor /*destroy*/) {
    raise_not_available("PyCapsule not available");
    return 0;
}

PyObject* Backup_PyCMethod_New(PyMethodDef* /*definition*/, PyObject* /*self*/, PyObject* /*module*/,
                               PyTypeObject* /*defining_class*/) {
    raise_not_available("PyCMethod_New not available");
    return nullptr;
}

// ---- functions that say that they were called ----

PyObject* Backup_PyObject_VectorcallDict(PyObject* /*callable*/, PyObject* const* /*args*/, std::size_t /*nargsf*/,
                                         PyObject* /*keywords*/) {
    report_call("Backup_PyObject_VectorcallDict called\n");
    return nullptr;
}

PyInterpreterState* Backup_PyThreadState_GetInterpreter(PyThreadState* /*tstate*/) {
    report_call("Backup_PyThreadState_GetInterpreter called\n");
    return nullptr;
}

PyObject* Backup_PyThreadState_GetDict() {
    report_call("Backup_PyThreadState_GetDict called\n");
    return nullptr;
}

int Backup_PyThread_acquire_lock_timed(PyThread_type_lock /*lock*/, long long /*microseconds*/, int /*interruptible*/) {
    report_call("Backup_PyThread_acquire_lock_timed() called\n");
    return 0;
}

int Backup__PyEval_SetTrace(PyThreadState* /*tstate*/, Py_tracefunc /*function*/, PyObject* /*object*/) {
    report_call("Backup__PyEval_SetTrace() called\n");
    return 0;
}

void Backup_PyEval_SetTraceAllThreads(Py_tracefunc /*function*/, PyObject* /*object*/) {
    report_call("Backup_PyEval_SetTraceAllThreads called\n");
}

// ---- installation ----

namespace {

/// Fills the slot if it is empty.
template <class Slot>
void fill(Slot& slot, Slot function) {
    if (slot == nullptr) {
        slot = function;
    }
}

}  // namespace

void install_fallbacks() {
#define XPY_BACKED(need, backup, result, name, parameters) fill(xpy.name, &backup);
#define XPY_OLDER(older, backup, result, name, parameters) \
    fill(xpy.name, xpy.older);                             \
    fill(xpy.name, &backup);
#define XPY_UNICODE_BACKED(backup, result, name, suffix, parameters) fill(xpy.name, &backup);
#include "xoptmonitoring/binding/xpy_api_slots.def"
}
