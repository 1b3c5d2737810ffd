// Module definition and frame-evaluation hooks, on top of the bound interpreter.
//
// The functions themselves are declared in the public header, since other native modules call them, too:
// XPy_CreatePy3ModuleDef, XPy_InitModule, XPyModuleDef_Init, the three pairs of frame-evaluation hooks and
// the three functions that choose the diagnostic output of the binding layer.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

/// Size of the block in which the interpreter's module definition is built: more than any version has needed.
inline constexpr std::size_t kModuleDefBlockSize = 2048;

/// Entries of the slot array: create, exec, the GIL's, multiple interpreters, and the end.
inline constexpr std::size_t kModuleDefSlotCount = 5;
