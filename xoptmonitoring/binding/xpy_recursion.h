// The interpreter's limit on recursion in native code, which every native callable has to keep to: Python code can
// make a callback of whatever calls that callback, and nothing else stands between that and the end of the stack.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

/// One level of native recursion, for the scope.
class [[nodiscard]] RecursionLevel {
  public:
    RecursionLevel() noexcept
        : entered_(xpy.Py_EnterRecursiveCall == nullptr || xpy.Py_EnterRecursiveCall(kWhere) == 0) {}
    ~RecursionLevel() {
        if (entered_ && xpy.Py_LeaveRecursiveCall != nullptr) {
            xpy.Py_LeaveRecursiveCall();
        }
    }
    RecursionLevel(const RecursionLevel&) = delete;
    RecursionLevel& operator=(const RecursionLevel&) = delete;
    RecursionLevel(RecursionLevel&&) = delete;
    RecursionLevel& operator=(RecursionLevel&&) = delete;

    /// Whether there is room for the call; otherwise RecursionError is set.
    bool is_entered() const noexcept {
        return entered_;
    }

  private:
    static constexpr const char* kWhere = " while calling a Python object";  // completes the interpreter's sentence

    bool entered_;
};
