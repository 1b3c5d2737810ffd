// An interpreter that lacks a private name which all known ones have.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define _PyThreadState_Init hidden_PyThreadState_Init
#include "fake_names.inc"
#undef _PyThreadState_Init
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class ThreadStateInit : public FakeInterpreter {};

TEST_F(ThreadStateInit, is_required) {
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for _PyThreadState_Init\n"));
    expect_import_error();
}

}  // namespace
