// Internal frames: which frames belong to the debugger's own code.
//
// Native functions have no Python frame, so the innermost frame within any of them is their Python caller's and no
// depth has to be corrected for this module's own code.
#include "xoptmonitoring/callback/internal_frames.h"

#include "xoptmonitoring/pathnames/pathname_kinds.h"
#include "xoptmonitoring/records/per_code_object.h"

namespace {

/// The nearest frame from `f` outward that is not internal; None where there is none.
Ref skip_internal(ModuleState& m, Ref f) {
    while (f && f.get() != none()) {
        const int internal = IsInternalFrame(m, f.get());
        if (internal < 0) {
            return {};
        }
        if (internal == 0) {
            return f;
        }
        f = get_attr(f.get(), m.names.f_back);
    }
    return f;
}

/// The frame `depth` non-internal frames outward from `f`.
Ref go_outward(ModuleState& m, Ref f, PyObject* depth) {
    const Ref zero = new_int(0);
    const Ref one = zero ? new_int(1) : Ref();
    if (!one) {
        return {};
    }
    Ref left = Ref::share(depth);
    while (f && f.get() != none()) {
        const Ref is_left = Ref::steal(xpy.PyObject_RichCompare(left.get(), zero.get(), Py_GT));
        const int more = is_left ? xpy.PyObject_IsTrue(is_left.get()) : -1;
        if (more <= 0) {
            return more < 0 ? Ref() : std::move(f);
        }
        // A subtype of int may answer anything.
        left = Ref::steal(xpy.PyNumber_InPlaceSubtract(left.get(), one.get()));
        if (!left || !check_value(ValueType::IntOrNone, left.get())) {
            return {};
        }
        f = skip_internal(m, get_attr(f.get(), m.names.f_back));
    }
    return f;
}

Ref GetNonInternalFrame(ModuleState& m, PyObject* depth) {
    const Ref sys = load_global(m, m.globals.sys);
    Ref f = sys ? skip_internal(m, call_method(sys.get(), m.names._getframe)) : Ref();
    if (!f || depth == none()) {
        return f;
    }
    return go_outward(m, std::move(f), depth);
}

Ref _FrameCodeMatches(ModuleState& m, PyObject* frame, PyObject* code_object) {
    if (frame == none()) {
        return new_bool(false);
    }
    const Ref code = get_attr(frame, m.names.f_code);
    return code ? Ref::steal(xpy.PyObject_RichCompare(code.get(), code_object, Py_EQ)) : Ref();
}

constexpr ParamDecl kFrameParams[] = {{"f"}};
constexpr ParamDecl kDepthParams[] = {{"depth", ValueType::IntOrNone, Default::None}};
constexpr ParamDecl kMatchParams[] = {{"frame"}, {"code_object"}};
constexpr ParamDecl kModuleDepthParams[] = {{"this_module_depth", ValueType::Integer}};

}  // namespace

int IsInternalFrame(ModuleState& m, PyObject* f) {
    const Ref code = get_attr(f, m.names.f_code);
    const Ref record = code ? per_code_object::GetPerCodeObject(m, code.get(), false, f) : Ref();
    if (!record) {
        return -1;
    }
    if (record.get() != none()) {
        return __atomic_load_n(&per_code_object::data(record.get()).fIsInternal, __ATOMIC_ACQUIRE) != 0 ? 1 : 0;
    }
    const Ref canonical_pathname = per_code_object::_GetPathnameToUse(m, code.get(), f, true);
    return canonical_pathname ? IsInternalPathname(m, canonical_pathname.get()) : -1;
}

Ref innermost_frame() {
    PyThreadState* tstate = xpy.PyThreadState_Get();
    Ref frame = Ref::steal(xpy.PyThreadState_GetFrame(tstate));
    if (!frame && xpy.PyErr_Occurred() == nullptr) {
        return new_none();
    }
    return frame;
}

const FunctionDecl kIsInternalFrame = {
    "IsInternalFrame", kFrameParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        const int internal = IsInternalFrame(m, args[0].object);
        return internal < 0 ? Ref() : new_bool(internal != 0);
    },
    "Returns whether the frame `f` runs the debugger's own code, a bool. Makes no record. Raises what reading the\n"
    "frame raises."};

const FunctionDecl kGetNonInternalFrame = {
    "GetNonInternalFrame", kDepthParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) { return GetNonInternalFrame(m, args[0].object); },
    "Returns the caller's nearest frame that is not the debugger's own, or the one `depth` (an int or None) such\n"
    "frames further out; None where the stack has no such frame. Raises TypeError for another `depth`."};

const FunctionDecl kFrameCodeMatches = {
    "_FrameCodeMatches", kMatchParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return _FrameCodeMatches(m, args[0].object, args[1].object);
    },
    "Returns what `frame.f_code == code_object` gives, or False where `frame` is None."};

const FunctionDecl kGetPythonFrame = {
    "_GetPythonFrame", kModuleDepthParams,
    [](ModuleState& /*m*/, PyObject* /*self*/, const Argument* /*args*/) { return innermost_frame(); },
    "Returns the calling thread's innermost frame. `this_module_depth` (an int) is not used: this module's functions\n"
    "have no frames to skip."};
