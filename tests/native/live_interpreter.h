// What the tests that run inside a live interpreter share: a bound record, a way to run Python code, and the
// promise that a test leaves interpreter and record as it found them.
#pragma once

#include "xoptmonitoring/binding/refs.h"
#include "xoptmonitoring/binding/xpy_c_api.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>

/// Holds a copy of the whole record and puts it back, so that a test may change any slot, offset or version
/// word.
class SavedRecord {
  public:
    SavedRecord() {
        std::memcpy(&saved_, &xpy, sizeof xpy);
    }
    SavedRecord(const SavedRecord&) = delete;
    SavedRecord& operator=(const SavedRecord&) = delete;
    ~SavedRecord() {
        std::memcpy(&xpy, &saved_, sizeof xpy);
    }

  private:
    XPy_C_API_Data saved_;
};

/// Lets the interpreter seem to be another version, until the end of the scope.
class PretendedVersion : SavedRecord {
  public:
    PretendedVersion(int major, int minor) {
        xpy.major_version = major;
        xpy.minor_version = minor;
    }
};

/// Catches what is written to the process's standard error, and puts that back even where a test gives up
/// early.
class CapturedStderr {
  public:
    CapturedStderr() {
        testing::internal::CaptureStderr();
    }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;
    ~CapturedStderr() {
        if (!taken_) {
            testing::internal::GetCapturedStderr();
        }
    }

    /// Everything that has been written so far; ends the capture.
    std::string take() {
        taken_ = true;
        return testing::internal::GetCapturedStderr();
    }

  private:
    bool taken_ = false;
};

/// The interpreter's version as one number, 312 for 3.12.
inline int version_number() {
    return 100 * xpy.major_version + xpy.minor_version;
}

/// The text of a str object (of either kind on generation 2).
inline std::string text_of(PyObject* object) {
    const char* text = xpy.PyUnicode_AsUTF8 != nullptr ? xpy.PyUnicode_AsUTF8(object) : xpy.PyString_AsString(object);
    if (text == nullptr) {
        xpy.PyErr_Clear();
        return "(no text)";
    }
    return text;
}

inline std::string repr_of(PyObject* object) {
    const Ref repr = Ref::steal(xpy.PyObject_Repr(object));
    return repr ? text_of(repr.get()) : "(no repr)";
}

/// Takes the pending exception away and tells it as "TypeName: message", or "" when there is none.
inline std::string take_exception() {
    if (xpy.PyErr_Occurred() == nullptr) {
        return "";
    }
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    xpy.PyErr_Fetch(&type, &value, &traceback);
    xpy.PyErr_NormalizeException(&type, &value, &traceback);
    const Ref type_ref = Ref::steal(type);
    const Ref value_ref = Ref::steal(value);
    const Ref traceback_ref = Ref::steal(traceback);
    const Ref name = Ref::steal(xpy.PyObject_GetAttrString(type, "__name__"));
    const Ref message = Ref::steal(xpy.PyObject_Str(value));
    return text_of(name.get()) + ": " + (message ? text_of(message.get()) : "(no message)");
}

/// A test inside a bound interpreter, with a namespace of its own for Python code.
class LiveInterpreterTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(XPy_Initialize(), 0);
        std::memcpy(&record_before_, &xpy, sizeof xpy);
        globals_ = Ref::steal(xpy.PyDict_New());
        ASSERT_EQ(xpy.PyDict_SetItemString(globals_.get(), "__builtins__", xpy.PyEval_GetBuiltins()), 0);
    }

    void TearDown() override {
        EXPECT_EQ(take_exception(), "") << "the test left an exception behind";
        globals_ = Ref();
        EXPECT_EQ(std::memcmp(&record_before_, &xpy, sizeof xpy), 0) << "the test changed the record for good";
    }

    /// Runs statements in the test's namespace.
    void run(const std::string& code) {
        constexpr int kFileInput = 257;
        const Ref result = Ref::steal(xpy.PyRun_String(code.c_str(), kFileInput, globals_.get(), globals_.get()));
        EXPECT_TRUE(result) << code << "\nraised " << take_exception();
    }

    /// The value of an expression in the test's namespace.
    Ref eval(const std::string& expression) {
        constexpr int kEvalInput = 258;
        Ref result = Ref::steal(xpy.PyRun_String(expression.c_str(), kEvalInput, globals_.get(), globals_.get()));
        EXPECT_TRUE(result) << expression << "\nraised " << take_exception();
        return result;
    }

    long eval_long(const std::string& expression) {
        const Ref value = eval(expression);
        return xpy.PyLong_AsLong(value.get());
    }

    std::string eval_text(const std::string& expression) {
        const Ref value = eval(expression);
        return value ? text_of(value.get()) : "(nothing)";
    }

    void set_global(const char* name, PyObject* value) {
        ASSERT_EQ(xpy.PyDict_SetItemString(globals_.get(), name, value), 0);
    }

    PyObject* globals() const {
        return globals_.get();
    }

  private:
    XPy_C_API_Data record_before_;
    Ref globals_;
};
