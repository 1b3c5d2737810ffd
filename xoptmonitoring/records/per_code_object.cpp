// CPerCodeObject: the record of one code object, its registry and its pathnames.
//
// A record is found through a slot of the code object itself; where the interpreter offers none (or the tracer has
// set the index to -1), through a dictionary keyed by weak references. The registry owns the record; the record holds
// its code object weakly, so that it never keeps code alive. A record lives as long as its code object.
//
// Two threads can meet a new code object at once. The first record stored stays: the second store takes another look
// under the lock of all slots, and the record that came too late leaves its per-file record again, unannounced.
#include "xoptmonitoring/records/per_code_object.h"

#include "xoptmonitoring/pathnames/pathname_functions.h"
#include "xoptmonitoring/pathnames/pathname_kinds.h"
#include "xoptmonitoring/records/code_extra.h"
#include "xoptmonitoring/records/local_state.h"
#include "xoptmonitoring/records/per_file.h"
#include "xoptmonitoring/records/tracing.h"

namespace per_code_object {
namespace {

using Data = PerCodeObjectData;
using ClassData = PerCodeObjectClassData;

/// How many frames outside the given one are searched for the frame that runs a frozen module's code.
constexpr int kDepthGuard = 100;

/// Threads that are looking a line up in what was the set may go on with it. There is nothing to look up in None, which
/// stays in any case.
void let_breakpoints_go(PyObject* old) {
    if (is_free_threaded() && old != none()) {
        local_state::keep_for_borrowers(&CallInProgress::breakpoints, old, old);
    }
}

#define FIELD(name, type, doc) \
    { #name, FieldType::type, offsetof(Data, name), 0, doc }
constexpr FieldDecl kFields[] = {
    FIELD(fCodeObjectWeakRef, Object, "Weak reference to the code object."),
    FIELD(fPathnameToReport, Object, "The pathname under which the debugger reports this code."),
    FIELD(fCanonicalPathname, Object, "The canonical form of that pathname; None for pseudo names."),
    {"fEnabledBpLinenos", FieldType::Object, offsetof(Data, fEnabledBpLinenos), 0,
     "set of the line numbers with enabled breakpoints; None while not known.", nullptr, let_breakpoints_go},
    FIELD(fSteppingEventsNeededCount, Int, "How many reasons there are to see line events of this code."),
    FIELD(fReturnEventsNeededCount, Int, "How many reasons there are to see return events of this code."),
    FIELD(fIsInternalKnown, Bool, "Whether fIsInternal has been settled."),
    FIELD(fIsInternal, Bool, "Whether the code is the debugger's own."),
    FIELD(fUpdatePathnameNeeded, Bool, "Whether the pathname has to be worked out again once a frame is at hand."),
};
#undef FIELD
constexpr const FieldDecl& kBreakpointsField = kFields[3];

/// Keeps ModuleState::quick_extra_index up to date; a subclass has no say in it.
void update_quick_index(void* class_data) {
    const auto& fields = *static_cast<const ClassData*>(class_data);
    if (fields.record.m == nullptr) {
        return;
    }
    const bool is_open =
        (plain::is_fast_road_open() || shared::objects) && fields._fCodeObjectExtraIndex == fields.reserved_index;
    __atomic_store_n(&fields.record.m->quick_extra_index, is_open ? fields.reserved_index : -1, __ATOMIC_SEQ_CST);
    if (is_free_threaded()) {
        local_state::begin_epoch();  // what threads remember lies in slots that may not be looked at any more
    }
}

#define FIELD(name, type, doc) \
    { #name, FieldType::type, offsetof(ClassData, name), 0, doc }
constexpr FieldDecl kClassFields[] = {
    FIELD(_fPerCodeObjectDict, Dict, "dict: weak reference to code object -> record; used where there is no slot."),
    {"_fCodeObjectExtraIndex", FieldType::Int, offsetof(ClassData, _fCodeObjectExtraIndex), 0,
     "Index of the code-extra slot that holds the records, or -1.", update_quick_index},
    FIELD(_fNewPerCodeObjectCreatedCallback, Object, "Callable that is given each new record, or None."),
};
#undef FIELD
constexpr const FieldDecl& kExtraIndexField = kClassFields[1];

Py_ssize_t extra_index(PyTypeObject* cls) {
    return __atomic_load_n(&class_data_as<ClassData>(cls)._fCodeObjectExtraIndex, __ATOMIC_RELAXED);
}

void set_flag(std::int32_t& flag, bool value) {
    __atomic_store_n(&flag, value ? 1 : 0, __ATOMIC_RELEASE);
}

/// Passes a record or None on; anything else is a TypeError.
Ref checked_record(PyTypeObject* cls, Ref value) {
    if (value && value.get() != none() && !is_instance_of(value.get(), cls)) {
        raise_expected_or_none("CPerCodeObject", value.get());
        return {};
    }
    return value;
}

// ---- registry ----

Ref weak_reference(ModuleState& m, PyObject* code_object) {
    const Ref weakref = load_global(m, m.globals.weakref);
    return weakref ? call_method(weakref.get(), m.names.ref, code_object) : Ref();
}

Ref _GetExistingPerCodeObjectFromWeakref(ModuleState& m, PyTypeObject* cls, PyObject* code_object) {
    const Ref ref = weak_reference(m, code_object);
    const Ref registry = ref ? load_class_slot(cls, &ClassData::_fPerCodeObjectDict) : Ref();
    return registry ? checked_record(cls, dict_get(registry.get(), ref.get(), m.names.get)) : Ref();
}

/// Enters the record, an instance of `cls`, into the registry. `kept` tells that another record was there first.
bool store_record(ModuleState& m, PyTypeObject* cls, PyObject* code_object, PyObject* per_code_object, bool* kept) {
    *kept = false;
    const Py_ssize_t index = extra_index(cls);
    if (index != -1) {
        return set_code_extra(code_object, index, per_code_object, cls, kept);
    }
    const Ref ref = load_field(per_code_object, data(per_code_object).fCodeObjectWeakRef);
    const Ref registry = ref ? load_class_slot(cls, &ClassData::_fPerCodeObjectDict) : Ref();
    const Ref winner = registry ? call_method(registry.get(), m.names.setdefault, ref.get(), per_code_object) : Ref();
    if (!winner || winner.get() == per_code_object) {
        return static_cast<bool>(winner);
    }
    *kept = is_instance_of(winner.get(), cls);
    return *kept || dict_set(registry.get(), ref.get(), per_code_object);
}

// ---- per-file membership ----

/// The per-file record for the record's canonical pathname, or None.
Ref find_per_file(ModuleState& m, PyObject* self, bool create_missing) {
    PyTypeObject* per_file_class = defined_class(m.globals.CPerFile, "CPerFile");
    const Ref pathname = per_file_class != nullptr ? load_field(self, data(self).fCanonicalPathname) : Ref();
    return pathname ? per_file::GetPerFile(m, per_file_class, pathname.get(), create_missing) : Ref();
}

/// Calls a method of the per-file record's set with this record.
bool change_known(PyObject* self, const Ref& known, PyObject* method) {
    return known && call_method(known.get(), method, self);
}

bool _AddToPerFile(ModuleState& m, PyObject* self) {
    const Ref per_file = find_per_file(m, self, true);
    return per_file && change_known(self, per_file::known_per_code_objects(m, per_file.get()), m.names.add);
}

bool matches_attribute_or_type_error(ModuleState& m) {
    return xpy.PyErr_ExceptionMatches(m.builtins.AttributeError) != 0 ||
           xpy.PyErr_ExceptionMatches(m.builtins.TypeError) != 0;
}

bool _DiscardFromPerFile(ModuleState& m, PyObject* self) {
    const Ref per_file = find_per_file(m, self, false);
    if (!per_file) {
        if (!matches_attribute_or_type_error(m)) {
            return false;
        }
        xpy.PyErr_Clear();
        return true;
    }
    return per_file.get() == none() ||
           change_known(self, per_file::known_per_code_objects(m, per_file.get()), m.names.discard);
}

bool _RegisterPerCodeObject(ModuleState& m, PyObject* code_object, PyObject* per_code_object) {
    PyTypeObject* cls = this_class(m);
    if (cls == nullptr) {
        return false;
    }
    if (!is_instance_of(per_code_object, cls)) {
        raise_expected("CPerCodeObject", per_code_object);  // once it was stored, no look-up would succeed any more
        return false;
    }
    bool kept = false;
    if (!store_record(m, cls, code_object, per_code_object, &kept)) {
        return false;
    }
    if (kept) {
        return _DiscardFromPerFile(m, per_code_object);
    }
    const Ref callback = load_class_slot(cls, &ClassData::_fNewPerCodeObjectCreatedCallback);
    return callback && call_untraced(m, callback.get(), per_code_object);
}

// ---- pathnames ----

/// The frame, from `frame` outward, that runs `code_object`; None where the search ends without it.
Ref find_running_frame(ModuleState& m, PyObject* code_object, PyObject* frame) {
    Ref f = Ref::share(frame);
    for (int depth_guard = kDepthGuard; f && f.get() != none(); --depth_guard) {
        const Ref code = get_attr(f.get(), m.names.f_code);
        if (!code) {
            return {};
        }
        if (code.get() == code_object) {
            return f;
        }
        if (depth_guard <= 0) {
            return new_none();
        }
        f = get_attr(f.get(), m.names.f_back);
    }
    return f;
}

/// A frozen module's code names no real file; the frame that runs it may know one. `code_pathname` where it does not.
Ref frozen_pathname(ModuleState& m, PyObject* code_object, PyObject* frame, Ref code_pathname) {
    const Ref f = find_running_frame(m, code_object, frame);
    if (!f) {
        return {};
    }
    if (f.get() == none()) {
        return code_pathname;
    }
    const Ref globals = get_attr(f.get(), m.names.f_globals);
    if (!globals) {
        return {};
    }
    if (m.names.__file__ == nullptr) {
        raise_unset();
        return {};
    }
    Ref f_pathname = dict_get(globals.get(), m.names.__file__, m.names.get);
    if (f_pathname && f_pathname.get() == none()) {
        return code_pathname;
    }
    return f_pathname;
}

/// Truth of the name ending like a compiled file, in any case: 1, 0, or -1.
int is_compiled_name(ModuleState& m, PyObject* pathname) {
    const Ref lowered = call_method(pathname, m.names.lower);
    const Ref endings =
        lowered ? Ref::steal(xpy.Py_BuildValue("(OO)", m.literals.pyc_ending, m.literals.pyo_ending)) : Ref();
    const Ref answer = endings ? call_method(lowered.get(), m.names.endswith, endings.get()) : Ref();
    return answer ? xpy.PyObject_IsTrue(answer.get()) : -1;
}

/// The form in which a pathname is shown: absolute where it is a file's, in lower case on win32.
Ref reported_form(ModuleState& m, int kind, Ref pathname) {
    if (kind == kRegularPathname) {
        const Ref os = load_global(m, m.globals.os);
        const Ref path = os ? get_attr(os.get(), m.names.path) : Ref();
        pathname = path ? call_method(path.get(), m.names.abspath, pathname.get()) : Ref();
        if (!pathname) {
            return {};
        }
    }
    const int on_win32 = is_win32(m);
    if (on_win32 < 0) {
        return {};
    }
    return on_win32 != 0 ? call_method(pathname.get(), m.names.lower) : std::move(pathname);
}

// ---- life of a record ----

bool initialise(ModuleState& m, PyObject* self, PyObject* code_object, PyObject* frame_for_pathnames) {
    const bool update_pathname_needed = frame_for_pathnames == none();
    Ref pathname_to_report = _GetPathnameToUse(m, code_object, frame_for_pathnames, false);
    Ref canonical_pathname = pathname_to_report ? _GetPathnameToUse(m, code_object, frame_for_pathnames, true) : Ref();
    const Ref weakref = canonical_pathname ? load_global(m, m.globals.weakref) : Ref();
    const Ref on_death = weakref ? get_attr(self, m.names._cb_code_object_dealloc) : Ref();
    Ref reference = on_death ? call_method(weakref.get(), m.names.ref, code_object, on_death.get()) : Ref();
    if (!reference) {
        return false;
    }
    Data& record = data(self);
    store_field(self, record.fCodeObjectWeakRef, std::move(reference));
    store_field(self, record.fPathnameToReport, std::move(pathname_to_report));
    store_field(self, record.fCanonicalPathname, Ref::share(canonical_pathname.get()));
    replace_member(self, record.fEnabledBpLinenos, kBreakpointsField, new_none());
    __atomic_store_n(&record.fSteppingEventsNeededCount, 0, __ATOMIC_RELAXED);
    __atomic_store_n(&record.fReturnEventsNeededCount, 0, __ATOMIC_RELAXED);
    set_flag(record.fIsInternalKnown, !update_pathname_needed);
    const int internal = IsInternalPathname(m, canonical_pathname.get());
    if (internal < 0) {
        return false;
    }
    set_flag(record.fIsInternal, internal != 0);
    set_flag(record.fUpdatePathnameNeeded, update_pathname_needed);
    return _AddToPerFile(m, self) && _RegisterPerCodeObject(m, code_object, self);
}

/// The record's code object, or None where it is gone or cannot be had.
Ref referenced_code(PyObject* self) {
    const Ref reference = load_field(self, data(self).fCodeObjectWeakRef);
    if (!reference) {
        return {};
    }
    if (reference.get() == none()) {
        return reference.get() != nullptr ? new_none() : Ref();
    }
    Ref code = call(reference.get());
    if (!code) {
        xpy.PyErr_Clear();
        return new_none();
    }
    return code;
}

int is_code_object(ModuleState& m, PyObject* object) {
    const Ref types = load_global(m, m.globals.types);
    const Ref code_type = types ? get_attr(types.get(), m.names.CodeType) : Ref();
    return code_type ? is_instance(object, code_type.get()) : -1;
}

/// Moves the record to the per-file record of another canonical pathname.
bool refile(ModuleState& m, PyObject* self, PyObject* canonical_pathname) {
    const Ref prior_pathname = load_field(self, data(self).fCanonicalPathname);
    if (!prior_pathname) {
        return false;
    }
    const int changed = compare(canonical_pathname, prior_pathname.get(), Py_NE);
    if (changed <= 0) {
        return changed == 0;
    }
    if (!_DiscardFromPerFile(m, self)) {
        return false;
    }
    store_field(self, data(self).fCanonicalPathname, Ref::share(canonical_pathname));
    return _AddToPerFile(m, self);
}

/// Runs when the code object dies: the record leaves its per-file record and the weak-reference registry.
bool _cb_code_object_dealloc(ModuleState& m, PyObject* self) {
    if (!_DiscardFromPerFile(m, self)) {
        return false;
    }
    PyTypeObject* cls = this_class(m);
    const Ref registry = cls != nullptr ? load_class_slot(cls, &ClassData::_fPerCodeObjectDict) : Ref();
    if (!registry) {
        // The class's data is gone at interpreter shutdown.
        if (cls != nullptr && xpy.PyErr_ExceptionMatches(m.builtins.AttributeError) != 0) {
            xpy.PyErr_Clear();
            return true;
        }
        return false;
    }
    const Ref reference = load_field(self, data(self).fCodeObjectWeakRef);
    if (!reference) {
        return false;
    }
    // A dead reference has a hash only where it was asked for one while its object lived, as a key was.
    if (xpy.PyObject_Hash(reference.get()) == -1) {
        if (xpy.PyErr_ExceptionMatches(m.builtins.TypeError) == 0) {
            return false;
        }
        xpy.PyErr_Clear();
        return true;
    }
    return static_cast<bool>(dict_pop(registry.get(), reference.get(), m.names.pop));
}

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

constexpr ParamDecl kGetParams[] = {
    {"code_object"}, {"create", ValueType::Bool, Default::True}, {"frame", ValueType::Object, Default::None}};
constexpr ParamDecl kCodeParams[] = {{"code_object"}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}};
constexpr ParamDecl kRegisterParams[] = {{"code_object"}, {"per_code_object"}};
constexpr ParamDecl kPathnameParams[] = {{"code_object"}, {"frame"}, {"canonical", ValueType::Truth}};
constexpr ParamDecl kInitParams[] = {{"code_object"}, {"frame_for_pathnames"}};
constexpr ParamDecl kFrameParams[] = {{"f"}};

constexpr FunctionDecl kMethods[] = {
    {"GetPerCodeObject", kGetParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return GetPerCodeObject(m, args[0].object, args[1].object == xpy._Py_TrueStruct, args[2].object);
     },
     "Returns the record of `code_object`. A missing one is made and announced where `create` (a bool) is true; else\n"
     "None is returned. `frame` is a frame that runs the code, or None; it settles a record made without one.\n"
     "Raises what the callbacks raise.",
     Binding::Class},
    {"SetNewPerCodeObjectCreatedCallback", kCallbackParams,
     [](ModuleState& /*m*/, PyObject* cls, const Argument* args) {
         return none_or_error(xpy.PyObject_SetAttrString(cls, "_fNewPerCodeObjectCreatedCallback", args[0].object) ==
                              0);
     },
     "Sets the callable that is given each new record, untraced; `callback` None switches that off. Returns None.",
     Binding::Class},
    {"_GetExistingPerCodeObject", kCodeParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return _GetExistingPerCodeObject(m, args[0].object);
     },
     "Returns the record of `code_object`, or None. Raises the interpreter's error for what is no code object.",
     Binding::Class},
    {"_GetExistingPerCodeObjectFromWeakref", kCodeParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         PyTypeObject* own = this_class(m);
         return own != nullptr ? _GetExistingPerCodeObjectFromWeakref(m, own, args[0].object) : Ref();
     },
     "Returns the record of `code_object` in the weak-reference registry, or None.", Binding::Class},
    {"_RegisterPerCodeObject", kRegisterParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return none_or_error(_RegisterPerCodeObject(m, args[0].object, args[1].object));
     },
     "Enters the record `per_code_object` of `code_object` into the registry and announces it. A record that is there\n"
     "already stays. Returns None. Raises what the new-record callback raises.",
     Binding::Class},
    {"_GetPathnameToUse", kPathnameParams,
     [](ModuleState& m, PyObject* /*cls*/, const Argument* args) {
         return _GetPathnameToUse(m, args[0].object, args[1].object, args[2].truth != 0);
     },
     "Returns the pathname, a str, under which `code_object` is reported, or its canonical form where `canonical` is\n"
     "true (None for a pseudo name). `frame` is a frame that may run the code, or None.",
     Binding::Class},
    {"__init__", kInitParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return none_or_error(initialise(m, self, args[0].object, args[1].object));
     },
     "Makes, registers and announces the record of `code_object`; `frame_for_pathnames` is a frame that runs it, or\n"
     "None. Raises what the callbacks raise.",
     Binding::Instance},
    {"_AddToPerFile",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) { return none_or_error(_AddToPerFile(m, self)); },
     "Enters this record into the per-file record of its canonical pathname. Returns None.",
     Binding::Instance},
    {"_DiscardFromPerFile",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) {
         return none_or_error(_DiscardFromPerFile(m, self));
     },
     "Takes this record out of the per-file record of its canonical pathname. Returns None.",
     Binding::Instance},
    {"_cb_code_object_dealloc", kCodeParams,
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) {
         return none_or_error(_cb_code_object_dealloc(m, self));
     },
     "Takes this record out of the registries; runs when the code object dies. `code_object` is the dead weak\n"
     "reference. Returns None.",
     Binding::Instance},
    {"_UpdatePathnameFromFrame", kFrameParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return none_or_error(_UpdatePathnameFromFrame(m, self, args[0].object));
     },
     "Settles the pathnames of a record that was made without a frame; `f` is a frame. Returns None.",
     Binding::Instance},
};

constexpr std::size_t kCacheLine = 64;

constexpr ClassDecl kClass = {
    CLASS_NAMES(CPerCodeObject),
    "The record of one code object: its pathnames, the lines with enabled breakpoints, and which events of it are\n"
    "wanted.",
    sizeof(Data),
    kFields,
    sizeof(ClassData),
    kClassFields,
    kMethods,
    false,
    kCacheLine};

}  // namespace

bool is_in_slot(ModuleState& m, PyObject* code_object, PyObject* per_code_object) {
    PyObject* cls = as_object(type_of(per_code_object));
    const Py_ssize_t index = __atomic_load_n(&m.quick_extra_index, __ATOMIC_SEQ_CST);
    if (index < 0 || cls != __atomic_load_n(&m.globals.CPerCodeObject, __ATOMIC_RELAXED)) {
        return false;
    }
    const CodeExtra extra = get_code_extra(code_object, index);
    if (extra.failed) {
        xpy.PyErr_Clear();
    }
    return extra.value.get() == per_code_object;
}

Ref _GetExistingPerCodeObject(ModuleState& m, PyObject* code_object) {
    PyTypeObject* cls = this_class(m);
    if (cls == nullptr) {
        return {};
    }
    const Py_ssize_t index = extra_index(cls);
    if (index == -1) {
        return _GetExistingPerCodeObjectFromWeakref(m, cls, code_object);
    }
    CodeExtra extra = get_code_extra(code_object, index);
    if (extra.failed) {
        return {};
    }
    return extra.value ? checked_record(cls, std::move(extra.value)) : new_none();
}

Ref GetPerCodeObject(ModuleState& m, PyObject* code_object, bool create_missing, PyObject* frame) {
    Ref per_code_object = _GetExistingPerCodeObject(m, code_object);
    if (!per_code_object) {
        return {};
    }
    if (per_code_object.get() == none()) {
        if (!create_missing) {
            return per_code_object;
        }
        PyTypeObject* cls = this_class(m);
        // Python code may have replaced `__new__`, and then constructing gives whatever that returns.
        const Ref fresh = cls != nullptr ? checked_record(cls, call(as_object(cls), code_object, frame)) : Ref();
        if (!fresh) {
            return {};
        }
        // Another thread's record may have come first; the one in the registry counts.
        Ref registered = _GetExistingPerCodeObject(m, code_object);
        if (registered && registered.get() == none()) {
            return Ref::share(fresh.get());
        }
        return registered;
    }
    if (frame != none() && __atomic_load_n(&data(per_code_object.get()).fUpdatePathnameNeeded, __ATOMIC_ACQUIRE) != 0 &&
        !_UpdatePathnameFromFrame(m, per_code_object.get(), frame)) {
        return {};
    }
    return per_code_object;
}

Ref _GetPathnameToUse(ModuleState& m, PyObject* code_object, PyObject* frame, bool canonical) {
    Ref code_pathname = get_attr(code_object, m.names.co_filename);
    const int kind = code_pathname ? GetPathnameKind(m, code_pathname.get()) : -1;
    if (kind < 0) {
        return {};
    }
    Ref pathname_to_use = kind == kFrozenImportLibPathname
                              ? frozen_pathname(m, code_object, frame, std::move(code_pathname))
                              : std::move(code_pathname);
    if (!pathname_to_use) {
        return {};
    }
    const int compiled = is_compiled_name(m, pathname_to_use.get());
    if (compiled < 0) {
        return {};
    }
    if (compiled != 0) {
        pathname_to_use = Ref::steal(xpy.PySequence_GetSlice(pathname_to_use.get(), 0, -1));
        if (!pathname_to_use) {
            return {};
        }
    }
    if (canonical) {
        return get_canonical_pathname(m, pathname_to_use.get());
    }
    return reported_form(m, kind, std::move(pathname_to_use));
}

bool _UpdatePathnameFromFrame(ModuleState& m, PyObject* self, PyObject* f) {
    const Ref code = referenced_code(self);
    const int is_code = code ? is_code_object(m, code.get()) : -1;
    if (is_code <= 0) {
        return is_code == 0;
    }
    Ref pathname_to_report = _GetPathnameToUse(m, code.get(), f, false);
    const Ref canonical_pathname = pathname_to_report ? _GetPathnameToUse(m, code.get(), f, true) : Ref();
    if (!canonical_pathname) {
        return false;
    }
    Data& record = data(self);
    store_field(self, record.fPathnameToReport, std::move(pathname_to_report));
    if (!refile(m, self, canonical_pathname.get())) {
        return false;
    }
    set_flag(record.fUpdatePathnameNeeded, false);
    const int internal = IsInternalPathname(m, canonical_pathname.get());
    if (internal < 0) {
        return false;
    }
    set_flag(record.fIsInternal, internal != 0);
    set_flag(record.fIsInternalKnown, true);
    return true;
}

bool reset(ModuleState& m) {
    PyTypeObject* cls = this_class(m);
    const Ref registry = cls != nullptr ? load_class_slot(cls, &ClassData::_fPerCodeObjectDict) : Ref();
    if (!registry || !call_method(registry.get(), m.names.clear)) {
        return false;
    }
    store_class_slot(cls, &ClassData::_fNewPerCodeObjectCreatedCallback, new_none());
    return true;
}

Ref create(ModuleState& m) {
    Ref cls = create_class(m, blueprint<kClass>(), m.types.CPerCodeObject_class);
    Ref registry = cls ? Ref::steal(xpy.PyDict_New()) : Ref();
    if (!registry) {
        return {};
    }
    const Py_ssize_t index = request_code_extra_index();
    if (index < 0 && xpy.PyErr_Occurred() != nullptr) {
        return {};
    }
    if (!plain::learn_code_extras_offset(index)) {
        return {};
    }
    store_class_slot(as_type(cls.get()), &ClassData::_fPerCodeObjectDict, std::move(registry));
    if (is_free_threaded()) {
        local_state::create_key();
        local_state::begin_epoch();
    }
    note_record_class(index, as_type(cls.get()));
    class_data_as<ClassData>(as_type(cls.get())).reserved_index = index;
    set_class_word(as_type(cls.get()), kExtraIndexField, index);
    store_class_slot(as_type(cls.get()), &ClassData::_fNewPerCodeObjectCreatedCallback, new_none());
    return cls;
}

}  // namespace per_code_object
