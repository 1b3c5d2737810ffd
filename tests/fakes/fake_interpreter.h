// A made-up interpreter: a program that exports the names of one and loads the module, for what no real interpreter on
// hand does.
//
// Every required name of the module's own list is defined here, most with a body that ends the test, since binding
// looks names up and calls hardly any. The few that binding does call work. A program says which interpreter it is by
// macros before it includes this file:
//
//   FAKE_GENERATION          2 or 3 (3 unless said otherwise)
//   FAKE_UNICODE_INFIX       what stands between "PyUnicode" and the rest of a name ("" unless said otherwise)
//   #define PyX hidden_PyX   leaves the name PyX out
//
// and defines the module-creation entry point (or none) itself, after the include.
#pragma once

// The names that work, and those that a program leaves out, are renamed in the list only.
#pragma push_macro("PyErr_Format")
#include "xoptmonitoring/binding/xpy_c_api.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-parameter"
