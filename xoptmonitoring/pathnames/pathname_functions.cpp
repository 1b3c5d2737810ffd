// Module functions that forward to the module's canonical pathname manager, through ordinary attribute lookup, so
// that a manager with methods of its own is respected.
#include "xoptmonitoring/pathnames/pathname_functions.h"

#include "xoptmonitoring/pathnames/canonical_pathname_mgr.h"

namespace {

template <class... Args>
Ref forward(ModuleState& m, PyObject* method, Args... args) {
    const Ref mgr = load_global(m, m.globals._gCanonicalPathnameMgr);
    return mgr ? call_method(mgr.get(), method, args...) : Ref();
}

constexpr ParamDecl kLookupParams[] = {{"pathname", ValueType::Str}, {"checksum", ValueType::StrOrNone, Default::None}};
constexpr ParamDecl kRegisterParams[] = {{"pathname", ValueType::Str},
                                         {"checksum", ValueType::StrOrNone, Default::None},
                                         {"kind", ValueType::IntOrNone, Default::None}};
constexpr ParamDecl kCallbackParams[] = {{"callback"}};
constexpr ParamDecl kPathname[] = {{"pathname", ValueType::Str}};

}  // namespace

Ref get_canonical_pathname(ModuleState& m, PyObject* pathname) {
    return check_value(ValueType::Str, pathname) ? forward(m, m.names.Get, pathname, none()) : Ref();
}

Ref checksum_of_record_pathname(ModuleState& m, PyObject* pathname) {
    const Ref mgr = load_global(m, m.globals._gCanonicalPathnameMgr);
    return mgr ? canonical_pathname_mgr::GetChecksumForPathname(m, mgr.get(), pathname) : Ref();
}

const FunctionDecl kLookupCanonicalPathname = {
    "lookup_canonical_pathname", kLookupParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return forward(m, m.names.Lookup, args[0].object, args[1].object);
    },
    "Finds the canonical pathname of the str `pathname` without registering it; `checksum` is a str or None.\n"
    "Returns a str, or None where it is not known. Raises TypeError for other types."};

const FunctionDecl kRegisterCanonicalPathname = {
    "register_canonical_pathname", kRegisterParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return forward(m, m.names.Register, args[0].object, args[1].object, args[2].object);
    },
    "Finds the canonical pathname of the str `pathname`, or makes its absolute name canonical; `checksum` is a str\n"
    "or None, `kind` a pathname kind or None. Returns a str, or None for a pseudo name. Raises TypeError for other\n"
    "types."};

const FunctionDecl kGetCanonicalPathname = {
    "get_canonical_pathname", kLookupParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return forward(m, m.names.Get, args[0].object, args[1].object);
    },
    "Finds the canonical pathname of the str `pathname`, or registers it; `checksum` is a str or None. Returns a str,\n"
    "or None for a pseudo name. Raises TypeError for other types."};

const FunctionDecl kSetChecksumCallback = {
    "set_checksum_callback", kCallbackParams,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return forward(m, m.names.SetChecksumCallback, args[0].object);
    },
    "Sets the callable that is given a pathname and returns its checksum, a str, or None. `callback` None switches\n"
    "checksums off. Returns None."};

const FunctionDecl kGetChecksumCallback = {"get_checksum_callback",
                                           {},
                                           [](ModuleState& m, PyObject* /*self*/, const Argument* /*args*/) {
                                               return forward(m, m.names.GetChecksumCallback);
                                           },
                                           "Returns the checksum callback, or None."};

const FunctionDecl kGetChecksumForPathname = {
    "_get_checksum_for_pathname", kPathname,
    [](ModuleState& m, PyObject* /*self*/, const Argument* args) {
        return forward(m, m.names.GetChecksumForPathname, args[0].object);
    },
    "Asks the checksum callback for the checksum of the str `pathname`. Returns its answer, or None where no\n"
    "callback is set. Raises what the callback raises."};
