// Pathname kinds and the debugger's own ("internal") pathnames.
#pragma once

#include "xoptmonitoring/runtime/function.h"

// Kinds of names that a code object can carry. The debugger's Python side compares against these numbers; 1 and 2
// stay unused.
inline constexpr int kRegularPathname = 0;
inline constexpr int kFrozenImportLibPathname = 3;
inline constexpr int kPseudoPathname = 4;
inline constexpr int kVornShellPathname = 5;

/// Kind of `pathname`, a str; -1 with an exception set.
int GetPathnameKind(ModuleState& m, PyObject* pathname);

/// Whether `pathname` (any object) is one of the debugger's own: 1, 0, or -1 with an exception set.
int IsInternalPathname(ModuleState& m, PyObject* pathname);

/// Whether the interpreter says that it runs on win32: 1, 0, or -1 with an exception set. Asked each time, since it
/// is the running interpreter's word and not the compiler's.
int is_win32(ModuleState& m);

extern const FunctionDecl kGetPathnameKind;
extern const FunctionDecl kSetInternalPathnameDict;
extern const FunctionDecl kIsInternalPathname;
