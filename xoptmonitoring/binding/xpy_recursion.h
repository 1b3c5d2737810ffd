// The interpreter's limit on recursion in native code, which every native callable has to keep to: Python code can
// make a callback of whatever calls that callback, and nothing else stands between that and the end of the stack.
#pragma once

#include "xoptmonitoring/binding/xpy_c_api.h"

/// The interpreter's pair of functions; null before 3.9, where they are macros. Set when binding has succeeded, and
/// kept beside the record, whose fields other native modules rely on.
struct XPyRecursion {
    int (*enter)(const char* where);
    void (*leave)();
};
extern XPyRecursion xpy_recursion;

/// One level of native recursion, for the scope.
class [[nodiscard]] RecursionLevel {
  public:
    RecursionLevel() noexcept : entered_(xpy_recursion.enter == nullptr || xpy_recursion.enter(kWhere) == 0) {}
    ~RecursionLevel() {
        if (entered_ && xpy_recursion.leave != nullptr) {
            xpy_recursion.leave();
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
