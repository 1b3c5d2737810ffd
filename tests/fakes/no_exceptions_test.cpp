// An interpreter too strange to raise an exception.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define FAKE_WITHOUT_PYERR_FORMAT
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class NoExceptions : public FakeInterpreter {};

TEST_F(NoExceptions, are_raised_where_nothing_can_raise_them) {
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyErr_Format\n"));
    EXPECT_EQ(gFake.pending, nullptr);
    EXPECT_EQ(gFake.raised, 0);
}

TEST_F(NoExceptions, come_from_the_test_switch_either) {
    EXPECT_EQ(exported<int(int)>("XPy_DbgSetFailOnImport")(1), 0);
    EXPECT_EQ(bind(), Bound(-1, ""));
    EXPECT_EQ(exported<int(int)>("XPy_DbgSetFailOnImport")(0), 1);
    EXPECT_EQ(gFake.raised, 0);
}

}  // namespace
