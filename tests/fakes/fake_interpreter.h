// A made-up interpreter: a program that exports the names of one and loads the module, for what no real
// interpreter on hand does.
//
// A program includes this file, says which interpreter it is, includes fake_names.inc, which defines the
// names, and adds an entry point for module creation:
//
//     #include "fake_interpreter.h"
//     #define FAKE_GENERATION 3              // 2 or 3
//     #define FAKE_UNICODE_INFIX "UCS4"      // what stands between "PyUnicode" and the rest of a name, often
//     "" #define PyDict_Keys hidden_PyDict_Keys // leaves the name PyDict_Keys out #include "fake_names.inc"
//     FAKE_ENTRY_POINT(PyModule_Create2)
//
// Nearly all names end the test when they are called, since binding looks them up and calls hardly any.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"
#include "xoptmonitoring/binding/xpy_c_api_extra.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

/// An object of the made-up interpreter: an integer, or any singleton or type.
struct FakeObject {
    std::int64_t words[8];
    long value;
};

inline PyObject* as_py(FakeObject* object) {
    return reinterpret_cast<PyObject*>(object);
}

/// What a made-up interpreter says of itself, and what it was asked to do.
struct FakeState {
    long version[3] = {3, 12, 0};
    long api_version = 1013;
    bool has_version_info = true;
    bool has_api_version = true;
    long failing_item = -1;  // index of version_info at which an exception is raised

    const char* pending = nullptr;  // name of the pending exception's class, as in "PyExc_ImportError"
    std::string message;
    int raised = 0;
    int printed = 0;
    int references = 0;  // objects handed out and not yet dropped
};

inline FakeState gFake;

/// The end of a program that called what nothing should call.
[[noreturn]] inline void unexpected_call(const char* name) {
    std::fprintf(stderr, "unexpected call of %s\n", name);
    std::abort();
}

/// A test that loads the module into this made-up interpreter and starts unbound.
class FakeInterpreter : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(module(), nullptr) << dlerror();
        std::memset(&record(), 0, sizeof(XPy_C_API_Data));
        gFake = FakeState();
    }

    static void* module() {
        static void* handle = dlopen(std::getenv("XOPT_MODULE"), RTLD_NOW | RTLD_LOCAL);
        return handle;
    }

    /// A function that the module exports.
    template <class Function>
    static Function* exported(const char* name) {
        void* found = dlsym(module(), name);
        EXPECT_NE(found, nullptr) << name;
        return reinterpret_cast<Function*>(found);
    }

    /// The module's record.
    static XPy_C_API_Data& record() {
        return *static_cast<XPy_C_API_Data*>(dlsym(module(), "global_XPy_C_API_Data"));
    }

    /// Binds, and returns the result and what went to standard error.
    static std::pair<int, std::string> bind() {
        testing::internal::CaptureStderr();
        const int result = exported<int()>("XPy_Initialize")();
        return {result, testing::internal::GetCapturedStderr()};
    }

    static PyObject* import() {
        return exported<PyObject*()>("PyInit_xoptmonitoring")();
    }

    static void expect_import_error() {
        ASSERT_NE(gFake.pending, nullptr);
        EXPECT_STREQ(gFake.pending, "PyExc_ImportError");
        EXPECT_EQ(gFake.message, "Unable to init XPy");
    }
};

using Bound = std::pair<int, std::string>;

/// Defines the entry point under which an interpreter is recognised.
#define FAKE_ENTRY_POINT(name)                                             \
    extern "C" PyObject* name(void* /*definition*/, int /*api_version*/) { \
        unexpected_call(#name);                                            \
    }
