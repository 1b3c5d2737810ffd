// _CCanonicalPathnameMgr: three indexes (by absolute name, by identity on disk, by content checksum) and a
// short-lived cache of names that are not on disk.
//
// The first canonical pathname stored for an identity or a checksum stays. No lock spans a method: the dictionaries
// are the interpreter's own and each operation on them is atomic, so two threads that register one new name at once
// each return what they decided, and the first writer's decision is what later calls find.
#include "xoptmonitoring/pathnames/canonical_pathname_mgr.h"

#include "xoptmonitoring/pathnames/pathname_kinds.h"

namespace canonical_pathname_mgr {
namespace {

using Data = CanonicalPathnameMgrData;
using ClassData = CanonicalPathnameMgrClassData;

constexpr Py_ssize_t kTtlSeconds = 3;
/// A UNC name is complete once a fourth separator closes server and share.
constexpr int kUncSeparators = 4;

#define FIELD(name, doc) \
    { #name, FieldType::Object, offsetof(Data, name), 0, doc }
constexpr FieldDecl kFields[] = {
    FIELD(fByName, "dict: absolute name -> canonical pathname."),
    FIELD(fByUniqueFileno, "dict: (st_dev, st_ino) of the file -> canonical pathname."),
    FIELD(fByChecksum, "dict: checksum -> canonical pathname."),
    FIELD(fNotFoundCache, "dict: absolute name -> time.monotonic() when its stat last failed, in seconds."),
    FIELD(fChecksumCallback, "Callable that gives the checksum of a pathname, or None."),
};
#undef FIELD

constexpr FieldDecl kClassFields[] = {
    {"kNotFoundTtlSeconds", FieldType::Int, offsetof(ClassData, kNotFoundTtlSeconds), kFinalField,
     "How long a name that is not on disk is answered from the cache, in seconds."},
};

Data& data(PyObject* self) {
    return instance_data_as<Data>(self);
}

Ref field(PyObject* self, PyObject* Data::*slot) {
    return load_field(self, data(self).*slot);
}

/// One attribute of a module global, such as `os.path`.
Ref global_attr(ModuleState& m, PyObject* const& global, PyObject* name) {
    const Ref value = load_global(m, global);
    return value ? get_attr(value.get(), name) : Ref();
}

/// Answers "found", "not there" and "failed" for a dictionary lookup: None counts as not there.
struct Found {
    Ref value;
    bool failed = false;

    explicit Found(Ref answer) : value(std::move(answer)), failed(!value) {
        if (!failed && value.get() == none()) {
            value = Ref();
        }
    }
};

/// What an index holds for a key, None included. A dictionary is asked once: another thread may be emptying it.
Found held_by(PyObject* self, PyObject* Data::*slot, PyObject* key) {
    const Ref dict = field(self, slot);
    Found found(dict ? new_none() : Ref());
    if (!dict) {
        return found;
    }
    int holds = 0;
    if (type_of(dict.get()) == xpy.PyDict_Type_ptr) {
        PyObject* held = nullptr;
        holds = xpy.PyDict_GetItemRef(dict.get(), key, &held);
        found.value = Ref::steal(held);
    } else {
        holds = contains(dict.get(), key);
        found.value = holds > 0 ? Ref::steal(xpy.PyObject_GetItem(dict.get(), key)) : Ref();
    }
    found.failed = holds < 0 || (holds > 0 && !found.value);
    return found;
}

Found look_in(ModuleState& m, PyObject* self, PyObject* Data::*slot, PyObject* key) {
    const Ref dict = field(self, slot);
    return Found(dict ? dict_get(dict.get(), key, m.names.get) : Ref());
}

bool put_in(PyObject* self, PyObject* Data::*slot, PyObject* key, PyObject* value) {
    const Ref dict = field(self, slot);
    return dict && dict_set(dict.get(), key, value);
}

bool set_default_in(ModuleState& m, PyObject* self, PyObject* Data::*slot, PyObject* key, PyObject* value) {
    const Ref dict = field(self, slot);
    return dict && call_method(dict.get(), m.names.setdefault, key, value);
}

// ---- names ----

Ref _AbsPath(ModuleState& m, PyObject* pathname) {
    const Ref path = global_attr(m, m.globals.os, m.names.path);
    return path ? call_method(path.get(), m.names.abspath, pathname) : Ref();
}

/// Truth of `text[-4:].lower()` being one of the two compiled endings: 1, 0, or -1.
int ends_compiled(ModuleState& m, PyObject* text, Py_ssize_t length) {
    const Ref tail = Ref::steal(xpy.PyUnicode_Substring(text, length - 4, length));
    const Ref lowered = tail ? call_method(tail.get(), m.names.lower) : Ref();
    if (!lowered) {
        return -1;
    }
    const int is_pyc = compare(lowered.get(), m.literals.pyc_ending, Py_EQ);
    return is_pyc != 0 ? is_pyc : compare(lowered.get(), m.literals.pyo_ending, Py_EQ);
}

Ref _PrunePycPyo(ModuleState& m, PyObject* pathname) {
    const Py_ssize_t length = xpy.PyUnicode_GetLength(pathname);
    if (length < 0) {
        return {};
    }
    if (length >= 4) {
        const int compiled = ends_compiled(m, pathname, length);
        if (compiled < 0) {
            return {};
        }
        if (compiled != 0) {
            return Ref::steal(xpy.PyUnicode_Substring(pathname, 0, length - 1));
        }
    }
    return Ref::share(pathname);
}

/// `win32.GetLongPathName(pathname)`, or the name itself where that raises an ordinary exception.
Ref _GetWindowsLongPathName(ModuleState& m, PyObject* pathname) {
    const int on_win32 = is_win32(m);
    if (on_win32 < 0) {
        return {};
    }
    const Ref win32 = load_global(m, m.globals.win32);
    if (!win32) {
        return {};
    }
    if (on_win32 == 0 || win32.get() == none()) {
        return Ref::share(pathname);
    }
    Ref long_name = call_method(win32.get(), m.names.GetLongPathName, pathname);
    if (!long_name && xpy.PyErr_ExceptionMatches(m.builtins.Exception) != 0) {
        xpy.PyErr_Clear();
        return Ref::share(pathname);
    }
    return long_name;
}

bool is_separator(unsigned character) {
    return character == '\\' || character == '/';
}

/// A UNC name with server, share and something behind them.
bool is_complete_unc(PyObject* pathname, Py_ssize_t length) {
    int sep_count = 2;
    for (Py_ssize_t index = 2; index < length; ++index) {
        if (is_separator(xpy.PyUnicode_ReadChar(pathname, index)) && ++sep_count == kUncSeparators) {
            return true;
        }
    }
    return false;
}

bool is_obvious_on_win32(PyObject* pathname, Py_ssize_t length) {
    const auto at = [pathname](Py_ssize_t index) { return xpy.PyUnicode_ReadChar(pathname, index); };
    const bool two_separators = length >= 2 && is_separator(at(0)) && is_separator(at(1));
    if (length >= 4 && two_separators && at(2) == '?' && is_separator(at(3))) {
        return true;
    }
    if (two_separators && is_complete_unc(pathname, length)) {
        return true;
    }
    return length >= 3 && at(1) == ':' && is_separator(at(2));
}

/// Whether the name is absolute in a form that needs no os.path.abspath: 1, 0, or -1.
int _IsObviousAbsPathname(ModuleState& m, PyObject* pathname) {
    const Py_ssize_t length = xpy.PyUnicode_GetLength(pathname);
    if (length <= 0) {
        return static_cast<int>(length);
    }
    const int on_win32 = is_win32(m);
    if (on_win32 < 0) {
        return -1;
    }
    if (on_win32 == 0) {
        return xpy.PyUnicode_ReadChar(pathname, 0) == '/' ? 1 : 0;
    }
    return is_obvious_on_win32(pathname, length) ? 1 : 0;
}

Ref lower(ModuleState& m, const Ref& text) {
    return text ? call_method(text.get(), m.names.lower) : Ref();
}

/// The absolute name that indexes `fByName` and that becomes the canonical pathname of a new file.
Ref _GetAbsnameForCanonical(ModuleState& m, PyObject* pathname) {
    Ref pruned = _PrunePycPyo(m, pathname);
    if (!pruned) {
        return {};
    }
    const int obvious = _IsObviousAbsPathname(m, pruned.get());
    const int on_win32 = obvious < 0 ? -1 : is_win32(m);
    if (on_win32 < 0) {
        return {};
    }
    if (obvious != 0) {
        if (on_win32 == 0) {
            return pruned;
        }
        return lower(m, call_method(pruned.get(), m.names.replace, m.literals.slash, m.literals.backslash));
    }
    Ref abs_pathname = _AbsPath(m, pruned.get());
    if (!abs_pathname || on_win32 == 0) {
        return abs_pathname;
    }
    const Ref lowered = lower(m, abs_pathname);
    return lowered ? lower(m, _GetWindowsLongPathName(m, lowered.get())) : Ref();
}

// ---- identity on disk ----

/// `os.stat(abs_pathname)`, or None where that raises OSError.
Ref _Stat(ModuleState& m, PyObject* abs_pathname) {
    const Ref os = load_global(m, m.globals.os);
    Ref st = os ? call_method(os.get(), m.names.stat, abs_pathname) : Ref();
    if (!st && xpy.PyErr_ExceptionMatches(m.builtins.OSError) != 0) {
        xpy.PyErr_Clear();
        return new_none();
    }
    return st;
}

/// Whether less than the class's time to live has passed between two times in seconds: 1, 0, or -1.
int is_fresh(PyObject* self, PyObject* cached_at, PyObject* now) {
    const Ref age = Ref::steal(xpy.PyNumber_Subtract(now, cached_at));
    if (!age) {
        return -1;
    }
    const Ref ttl = Ref::steal(xpy.PyObject_GetAttrString(as_object(type_of(self)), "kNotFoundTtlSeconds"));
    if (!ttl) {
        return -1;
    }
    return compare(age.get(), ttl.get(), Py_LT);
}

/// The file's identity as the tuple (st_dev, st_ino), or None where it is not on disk.
Ref _GetUniqueFileno(ModuleState& m, PyObject* self, PyObject* abs_pathname) {
    const Ref time = load_global(m, m.globals.time);
    const Ref now = time ? call_method(time.get(), m.names.monotonic) : Ref();
    if (!now) {
        return {};
    }
    const Found cached_at = look_in(m, self, &Data::fNotFoundCache, abs_pathname);
    if (cached_at.failed) {
        return {};
    }
    if (cached_at.value) {
        const int fresh = is_fresh(self, cached_at.value.get(), now.get());
        if (fresh != 0) {
            return fresh < 0 ? Ref() : new_none();
        }
        const Ref cache = field(self, &Data::fNotFoundCache);
        if (!cache || !dict_pop(cache.get(), abs_pathname, m.names.pop)) {
            return {};
        }
    }
    const Ref st = _Stat(m, abs_pathname);
    if (!st) {
        return {};
    }
    if (st.get() == none()) {
        return put_in(self, &Data::fNotFoundCache, abs_pathname, now.get()) ? new_none() : Ref();
    }
    const Ref st_dev = get_attr(st.get(), m.names.st_dev);
    const Ref st_ino = st_dev ? get_attr(st.get(), m.names.st_ino) : Ref();
    return st_ino ? Ref::steal(xpy.Py_BuildValue("(OO)", st_dev.get(), st_ino.get())) : Ref();
}

// ---- lookup and registration ----

/// Truth of a checksum: None and the empty string are no checksum. 1, 0, or -1.
int has_checksum(PyObject* checksum) {
    return checksum == none() ? 0 : xpy.PyObject_IsTrue(checksum);
}

/// The answer for a name of a kind that is never indexed: None for a pseudo name, else the name itself.
Ref answer_unindexed(int kind, PyObject* pathname) {
    return kind == kPseudoPathname ? new_none() : Ref::share(pathname);
}

Ref Lookup(ModuleState& m, PyObject* self, PyObject* pathname, PyObject* checksum) {
    const int kind = GetPathnameKind(m, pathname);
    if (kind != kRegularPathname) {
        return kind < 0 ? Ref() : answer_unindexed(kind, pathname);
    }
    const Ref abs_pathname = _GetAbsnameForCanonical(m, pathname);
    if (!abs_pathname) {
        return {};
    }
    Found by_name = held_by(self, &Data::fByName, abs_pathname.get());
    if (by_name.failed || by_name.value) {
        return std::move(by_name.value);
    }
    const Ref fileno = _GetUniqueFileno(m, self, abs_pathname.get());
    if (!fileno) {
        return {};
    }
    if (fileno.get() != none()) {
        Found by_fileno = held_by(self, &Data::fByUniqueFileno, fileno.get());
        if (by_fileno.failed || by_fileno.value) {
            return std::move(by_fileno.value);
        }
    }
    const int checked = has_checksum(checksum);
    if (checked <= 0) {
        return checked < 0 ? Ref() : new_none();
    }
    const Ref dict = field(self, &Data::fByChecksum);
    return dict ? dict_get(dict.get(), checksum, m.names.get) : Ref();
}

/// The canonical pathname of a name that is not indexed yet, from the file's identity or checksum. Empty, without an
/// exception, where neither is known.
Found find_canonical(ModuleState& m, PyObject* self, PyObject* fileno, PyObject* checksum, int checked) {
    Found found(new_none());
    if (fileno != none()) {
        found = look_in(m, self, &Data::fByUniqueFileno, fileno);
    }
    if (!found.failed && !found.value && checked != 0) {
        found = look_in(m, self, &Data::fByChecksum, checksum);
    }
    return found;
}

Ref register_regular(ModuleState& m, PyObject* self, PyObject* pathname, PyObject* checksum) {
    const Ref abs_pathname = _GetAbsnameForCanonical(m, pathname);
    if (!abs_pathname) {
        return {};
    }
    Found by_name = held_by(self, &Data::fByName, abs_pathname.get());
    if (by_name.failed || by_name.value) {
        return std::move(by_name.value);
    }
    const Ref fileno = _GetUniqueFileno(m, self, abs_pathname.get());
    const int checked = fileno ? has_checksum(checksum) : -1;
    if (checked < 0) {
        return {};
    }
    Found canonical = find_canonical(m, self, fileno.get(), checksum, checked);
    if (canonical.failed) {
        return {};
    }
    if (!canonical.value) {
        canonical.value = Ref::share(abs_pathname.get());  // a new file
    }
    if (!put_in(self, &Data::fByName, abs_pathname.get(), canonical.value.get())) {
        return {};
    }
    if (fileno.get() != none() &&
        !set_default_in(m, self, &Data::fByUniqueFileno, fileno.get(), canonical.value.get())) {
        return {};
    }
    if (checked != 0 && !set_default_in(m, self, &Data::fByChecksum, checksum, canonical.value.get())) {
        return {};
    }
    return std::move(canonical.value);
}

/// Registers a name; `kind` is the caller's word, an int or None for "find out".
Ref Register(ModuleState& m, PyObject* self, PyObject* pathname, PyObject* checksum, PyObject* kind) {
    int regular = 0;
    int pseudo = 0;
    if (kind == none()) {
        const int found = GetPathnameKind(m, pathname);
        if (found < 0) {
            return {};
        }
        regular = found == kRegularPathname ? 1 : 0;
        pseudo = found == kPseudoPathname ? 1 : 0;
    } else {
        const Ref pseudo_kind = new_int(kPseudoPathname);
        const Ref regular_kind = new_int(kRegularPathname);
        if (!pseudo_kind || !regular_kind) {
            return {};
        }
        pseudo = compare(kind, pseudo_kind.get(), Py_EQ);
        regular = pseudo < 0 ? -1 : compare(kind, regular_kind.get(), Py_EQ);
        if (regular < 0) {
            return {};
        }
    }
    if (pseudo != 0) {
        return new_none();
    }
    return regular != 0 ? register_regular(m, self, pathname, checksum) : Ref::share(pathname);
}

Ref Get(ModuleState& m, PyObject* self, PyObject* pathname, PyObject* checksum) {
    const int kind = GetPathnameKind(m, pathname);
    if (kind != kRegularPathname) {
        return kind < 0 ? Ref() : answer_unindexed(kind, pathname);
    }
    Ref canonical = Lookup(m, self, pathname, checksum);
    if (!canonical || canonical.get() != none()) {
        return canonical;
    }
    return register_regular(m, self, pathname, checksum);
}

bool initialise(PyObject* self) {
    for (PyObject* Data::*slot : {&Data::fByName, &Data::fByUniqueFileno, &Data::fByChecksum, &Data::fNotFoundCache}) {
        Ref dict = Ref::steal(xpy.PyDict_New());
        if (!dict) {
            return false;
        }
        store_field(self, data(self).*slot, std::move(dict));
    }
    store_field(self, data(self).fChecksumCallback, new_none());
    return true;
}

Ref none_or_error(bool done) {
    return done ? new_none() : Ref();
}

Ref bool_or_error(int answer) {
    return answer < 0 ? Ref() : new_bool(answer != 0);
}

constexpr ParamDecl kPathname[] = {{"pathname", ValueType::Str}};
constexpr ParamDecl kAbsPathname[] = {{"abs_pathname", ValueType::Str}};
constexpr ParamDecl kLookupParams[] = {{"pathname", ValueType::Str}, {"checksum", ValueType::StrOrNone, Default::None}};
constexpr ParamDecl kRegisterParams[] = {{"pathname", ValueType::Str},
                                         {"checksum", ValueType::StrOrNone, Default::None},
                                         {"kind", ValueType::IntOrNone, Default::None}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}};

constexpr FunctionDecl kMethods[] = {
    {"__init__",
     {},
     [](ModuleState& /*m*/, PyObject* self, const Argument* /*args*/) { return none_or_error(initialise(self)); },
     "Makes a manager with empty indexes and no checksum callback.",
     Binding::Instance},
    {"Reset",
     {},
     [](ModuleState& m, PyObject* self, const Argument* /*args*/) { return none_or_error(Reset(m, self)); },
     "Empties the indexes and the not-found cache, in place, and drops the checksum callback. Returns None.",
     Binding::Instance},
    {"_AbsPath", kPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) { return _AbsPath(m, args[0].object); },
     "Returns os.path.abspath(pathname), a str.", Binding::Instance},
    {"_Stat", kAbsPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) { return _Stat(m, args[0].object); },
     "Returns os.stat(abs_pathname), or None where that raises OSError.", Binding::Instance},
    {"_PrunePycPyo", kPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) { return _PrunePycPyo(m, args[0].object); },
     "Returns the str `pathname`, without its last character where it ends in .pyc or .pyo in any case.",
     Binding::Instance},
    {"_GetWindowsLongPathName", kPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
         return _GetWindowsLongPathName(m, args[0].object);
     },
     "Returns the long form of the str `pathname` on win32; the name itself elsewhere or where that fails.",
     Binding::Instance},
    {"_IsObviousAbsPathname", kPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
         return bool_or_error(_IsObviousAbsPathname(m, args[0].object));
     },
     "Returns whether the str `pathname` is absolute in a form that needs no os.path.abspath.", Binding::Instance},
    {"_GetAbsnameForCanonical", kPathname,
     [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
         return _GetAbsnameForCanonical(m, args[0].object);
     },
     "Returns the absolute name, a str, under which `pathname` is indexed.", Binding::Instance},
    {"_GetUniqueFileno", kAbsPathname,
     [](ModuleState& m, PyObject* self, const Argument* args) { return _GetUniqueFileno(m, self, args[0].object); },
     "Returns the tuple (st_dev, st_ino) of the file `abs_pathname`, or None where it is not on disk; a miss is\n"
     "remembered for kNotFoundTtlSeconds seconds.",
     Binding::Instance},
    {"Lookup", kLookupParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return Lookup(m, self, args[0].object, args[1].object);
     },
     "Finds the canonical pathname of the str `pathname`, by name, identity on disk or `checksum` (a str or None),\n"
     "without registering it. Returns a str, or None where it is not known or a pseudo name.",
     Binding::Instance},
    {"Register", kRegisterParams,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return Register(m, self, args[0].object, args[1].object, args[2].object);
     },
     "Finds the canonical pathname of the str `pathname`, or makes its absolute name canonical. `checksum` is a str\n"
     "or None; `kind` is the name's kind where the caller knows it, else None. Returns a str, or None for a pseudo\n"
     "name.",
     Binding::Instance},
    {"Get", kLookupParams,
     [](ModuleState& m, PyObject* self, const Argument* args) { return Get(m, self, args[0].object, args[1].object); },
     "Returns what Lookup finds for `pathname` and `checksum`, or registers the name. None for a pseudo name.",
     Binding::Instance},
    {"SetChecksumCallback", kCallbackParams,
     [](ModuleState& /*m*/, PyObject* self, const Argument* args) {
         store_field(self, data(self).fChecksumCallback, Ref::share(args[0].object));
         return new_none();
     },
     "Sets the callable that gives a pathname's checksum; `callback` None switches checksums off. Returns None.",
     Binding::Instance},
    {"GetChecksumCallback",
     {},
     [](ModuleState& /*m*/, PyObject* self, const Argument* /*args*/) { return field(self, &Data::fChecksumCallback); },
     "Returns the checksum callback, or None.",
     Binding::Instance},
    {"GetChecksumForPathname", kPathname,
     [](ModuleState& m, PyObject* self, const Argument* args) {
         return GetChecksumForPathname(m, self, args[0].object);
     },
     "Returns what the checksum callback answers for the str `pathname`, or None where none is set. Raises what the\n"
     "callback raises.",
     Binding::Instance},
};

constexpr ClassDecl kClass = {
    CLASS_NAMES(_CCanonicalPathnameMgr),
    "Maps every name of a source file to one canonical pathname: by absolute name, by the file's identity on disk\n"
    "and by content checksum.",
    sizeof(Data),
    kFields,
    sizeof(ClassData),
    kClassFields,
    kMethods};

}  // namespace

Ref GetChecksumForPathname(ModuleState& /*m*/, PyObject* self, PyObject* pathname) {
    Ref callback = field(self, &Data::fChecksumCallback);
    if (!callback || callback.get() == none()) {
        return callback;
    }
    return call(callback.get(), pathname);
}

bool Reset(ModuleState& m, PyObject* self) {
    for (PyObject* Data::*slot : {&Data::fByName, &Data::fByUniqueFileno, &Data::fByChecksum, &Data::fNotFoundCache}) {
        const Ref dict = field(self, slot);
        if (!dict || !call_method(dict.get(), m.names.clear)) {
            return false;
        }
    }
    store_field(self, data(self).fChecksumCallback, new_none());
    return true;
}

Ref create(ModuleState& m) {
    Ref cls = create_class(m, blueprint<kClass>(), m.types.CCanonicalPathnameMgr_class);
    if (cls) {
        set_class_word(as_type(cls.get()), kClassFields[0], kTtlSeconds);
    }
    return cls;
}

}  // namespace canonical_pathname_mgr
