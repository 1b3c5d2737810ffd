// Pathname kinds and the debugger's own ("internal") pathnames.
#include "xoptmonitoring/pathnames/pathname_kinds.h"

namespace {

/// Truth of `text.method(argument)`, by the string's own method: 1, 0, or -1.
int text_test(PyObject* text, PyObject* method, PyObject* argument) {
    const Ref result = call_method(text, method, argument);
    return result ? xpy.PyObject_IsTrue(result.get()) : -1;
}

/// Whether `text` starts with `prefix` and ends with ">".
int is_bracketed(ModuleState& m, PyObject* text, PyObject* prefix) {
    const int starts = text_test(text, m.names.startswith, prefix);
    return starts > 0 ? text_test(text, m.names.endswith, m.literals.pseudo_ending) : starts;
}

/// A plain str that begins with neither "<" nor "x" is an ordinary name; this spares nearly every name the tests
/// below, which are method calls.
bool is_obviously_regular(PyObject* pathname) {
    if (type_of(pathname) != xpy.PyUnicode_Type_ptr || xpy.PyUnicode_GetLength(pathname) == 0) {
        return false;
    }
    const unsigned first = xpy.PyUnicode_ReadChar(pathname, 0);
    return first != '<' && first != 'x';
}

}  // namespace

int GetPathnameKind(ModuleState& m, PyObject* pathname) {
    if (is_obviously_regular(pathname)) {
        return kRegularPathname;
    }
    const Py_ssize_t length = xpy.PyObject_Size(pathname);
    if (length < 0) {
        return -1;
    }
    if (length == 0) {
        return kPseudoPathname;
    }
    int holds = is_bracketed(m, pathname, m.literals.frozen_prefix);
    if (holds != 0) {
        return holds < 0 ? -1 : kFrozenImportLibPathname;
    }
    holds = is_bracketed(m, pathname, m.literals.pseudo_prefix);
    if (holds != 0) {
        return holds < 0 ? -1 : kPseudoPathname;
    }
    PyObject* vorn_shell_prefix = m.literals.vorn_shell_prefix;
    holds = text_test(pathname, m.names.startswith, vorn_shell_prefix);
    if (holds != 0) {
        return holds < 0 ? -1 : kVornShellPathname;
    }
    return kRegularPathname;
}

int is_win32(ModuleState& m) {
    const Ref sys = load_global(m, m.globals.sys);
    if (!sys) {
        return -1;
    }
    const Ref platform = get_attr(sys.get(), m.names.platform);
    if (!platform) {
        return -1;
    }
    if (m.literals.win32_platform == nullptr) {
        raise_unset();
        return -1;
    }
    return compare(platform.get(), m.literals.win32_platform, Py_EQ);
}

int IsInternalPathname(ModuleState& m, PyObject* pathname) {
    const int is_text = pathname != none() ? is_str_instance(pathname) : 0;
    if (is_text <= 0) {
        return is_text;
    }
    const int on_win32 = is_win32(m);
    if (on_win32 < 0) {
        return -1;
    }
    // The keys are in lower case on win32; elsewhere case matters.
    const Ref key = on_win32 != 0 ? call_method(pathname, m.names.lower) : Ref::share(pathname);
    if (!key) {
        return -1;
    }
    const Ref internal = load_global(m, m.globals._gInternalPathnameDict);
    return internal ? contains(internal.get(), key.get()) : -1;
}

namespace {

Ref get_kind(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    const int kind = GetPathnameKind(m, args[0].object);
    return kind < 0 ? Ref() : new_int(kind);
}

Ref set_internal(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    store_global(m, m.globals._gInternalPathnameDict, Ref::share(args[0].object));
    return new_none();
}

Ref is_internal(ModuleState& m, PyObject* /*self*/, const Argument* args) {
    const int internal = IsInternalPathname(m, args[0].object);
    return internal < 0 ? Ref() : new_bool(internal != 0);
}

constexpr ParamDecl kStrPathname[] = {{"pathname", ValueType::Str}};
constexpr ParamDecl kAnyPathname[] = {{"pathname"}};
constexpr ParamDecl kDictParams[] = {{"d", ValueType::Dict}};

}  // namespace

const FunctionDecl kGetPathnameKind = {
    "GetPathnameKind", kStrPathname, get_kind,
    "Returns what kind of name the str `pathname` is: kRegularPathname, kFrozenImportLibPathname (\"<frozen ...>\"),\n"
    "kPseudoPathname (any other \"<...>\", or no name) or kVornShellPathname (the debugger's interactive shell).\n"
    "Raises TypeError for what is no str."};

const FunctionDecl kSetInternalPathnameDict = {
    "SetInternalPathnameDict", kDictParams, set_internal,
    "Makes the keys of the dict `d` the debugger's own pathnames, whose code is never stopped in. The dict itself is\n"
    "kept, so later changes to it count at once. Returns None. Raises TypeError for what is no dict."};

const FunctionDecl kIsInternalPathname = {
    "IsInternalPathname", kAnyPathname, is_internal,
    "Returns whether `pathname` is one of the debugger's own, a bool; False for what is no str."};
