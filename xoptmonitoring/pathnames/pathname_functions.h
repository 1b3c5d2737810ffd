// Module functions that forward to the module's canonical pathname manager.
#pragma once

#include "xoptmonitoring/runtime/function.h"

/// `get_canonical_pathname(pathname, None)` with its argument check: the canonical pathname, or None.
Ref get_canonical_pathname(ModuleState& m, PyObject* pathname);

/// The checksum of a per-file record's pathname, straight from the manager: a record of code with a pseudo name has
/// the pathname None, which the module function would refuse.
Ref checksum_of_record_pathname(ModuleState& m, PyObject* pathname);

extern const FunctionDecl kLookupCanonicalPathname;
extern const FunctionDecl kRegisterCanonicalPathname;
extern const FunctionDecl kGetCanonicalPathname;
extern const FunctionDecl kSetChecksumCallback;
extern const FunctionDecl kGetChecksumCallback;
extern const FunctionDecl kGetChecksumForPathname;
