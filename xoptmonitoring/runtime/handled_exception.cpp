// Handling an exception in native code.
//
// The interpreter keeps handled exceptions in a chain of records, one per generator being run; only the innermost may
// be changed, and it may be empty while an outer one is not. Asking the interpreter gives the innermost that is not
// empty, which is not the same question: putting that answer back into an empty record would leave a generator
// handling its caller's exception for good. Nor would comparing the two answers do, before the innermost record is
// emptied and after: a generator may well handle the same exception object as its caller.
#include "xoptmonitoring/runtime/handled_exception.h"

#include "xoptmonitoring/binding/xpy_layouts.h"

namespace {

/// What the innermost record holds, where the thread state's layout is known.
Ref innermost_by_layout(PyThreadState* tstate) {
    void* innermost = *XPy_GetFieldAddress<void*>(tstate, tstate_exc_info_offset);
    PyObject* value = *static_cast<PyObject**>(innermost);  // the record's first word, from 3.11 on
    return Ref::share(value == none() ? nullptr : value);
}

Py_ssize_t references_to(PyObject* object) {
    return xpy.Py_REFCNT != nullptr ? xpy.Py_REFCNT(object) : 0;
}

/// The same by asking, for an interpreter whose layout is not known: emptying the innermost record shows whether the
/// answer came from it, since the record then lets go of its reference. It leaves the record empty, which the caller
/// changes next anyway.
Ref innermost_by_asking() {
    Ref answer = Ref::steal(xpy.PyErr_GetHandledException());
    if (!answer) {
        return {};
    }
    const Py_ssize_t before = references_to(answer.get());
    xpy.PyErr_SetHandledException(none());
    if (references_to(answer.get()) < before) {
        return answer;
    }
    // Not counted where it is immortal, nor where the interpreter does not tell, before 3.14.
    const Ref outer = Ref::steal(xpy.PyErr_GetHandledException());
    return answer.get() == outer.get() ? Ref() : std::move(answer);
}

Ref innermost_handled() {
    return tstate_exc_info_offset != -1 ? innermost_by_layout(xpy.PyThreadState_Get()) : innermost_by_asking();
}

}  // namespace

HandledException::HandledException(Ref exception) noexcept : interrupted_(innermost_handled()) {
    xpy.PyErr_SetHandledException(exception ? exception.get() : none());
}

HandledException::~HandledException() {
    xpy.PyErr_SetHandledException(interrupted_ ? interrupted_.get() : none());
}
