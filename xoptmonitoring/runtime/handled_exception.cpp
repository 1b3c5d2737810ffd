// Handling an exception in native code.
//
// The interpreter keeps handled exceptions in a chain of records, one per generator being run; only the innermost may
// be changed, and it may be empty while an outer one is not. Asking the interpreter gives the innermost that is not
// empty, which is not the same question: putting that answer back into an empty record would leave a generator
// handling its caller's exception for good.
#include "xoptmonitoring/runtime/handled_exception.h"

#include "xoptmonitoring/binding/xpy_layouts.h"

namespace {

/// What the innermost record holds, where the thread state's layout is known.
Ref innermost_by_layout(PyThreadState* tstate) {
    void* innermost = *XPy_GetFieldAddress<void*>(tstate, tstate_exc_info_offset);
    PyObject* value = *static_cast<PyObject**>(innermost);  // the record's first word, from 3.11 on
    return Ref::share(value == none() ? nullptr : value);
}

/// The same by asking, for an interpreter whose layout is not known: emptying the innermost record shows whether the
/// answer came from it. It leaves the record empty, which the caller changes next anyway.
Ref innermost_by_asking() {
    Ref first = Ref::steal(xpy.PyErr_GetHandledException());
    xpy.PyErr_SetHandledException(none());
    const Ref outer = Ref::steal(xpy.PyErr_GetHandledException());
    return first.get() == outer.get() ? Ref() : std::move(first);
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
