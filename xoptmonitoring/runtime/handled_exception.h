// Handling an exception in native code as an `except` block does, unseen by the program that is interrupted.
#pragma once

#include "xoptmonitoring/binding/refs.h"

/// Makes an exception the handled one for the scope: `sys.exception()` and a bare `raise` see it. At the scope's end
/// the innermost record of the interrupted program is exactly as it was, so that its own `except` blocks go on
/// undisturbed, those of a suspended generator's callers included.
class [[nodiscard]] HandledException {
  public:
    explicit HandledException(Ref exception) noexcept;
    ~HandledException();
    HandledException(const HandledException&) = delete;
    HandledException& operator=(const HandledException&) = delete;
    HandledException(HandledException&&) = delete;
    HandledException& operator=(HandledException&&) = delete;

  private:
    Ref interrupted_;  ///< what the innermost record held; empty for nothing
};
