// An interpreter that cannot tell its version for once, as happens where memory is lacking, but has it as a constant.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

extern "C" {
extern const unsigned long Py_Version;
const unsigned long Py_Version = 0x030d05f0;
}

namespace {

class VersionConstant : public FakeInterpreter {};

TEST_F(VersionConstant, stands_in_where_the_version_cannot_be_read) {
    gFake.failing_item = 1;
    EXPECT_EQ(bind(), Bound(0, "Unable to get version numbers\n"));
    EXPECT_EQ(record().major_version, 3);
    EXPECT_EQ(record().minor_version, 13);
    EXPECT_EQ(record().micro_version, 5);
}

TEST_F(VersionConstant, is_not_asked_where_the_version_can_be_read) {
    EXPECT_EQ(bind(), Bound(0, ""));
    EXPECT_EQ(record().minor_version, 12);
    EXPECT_EQ(record().micro_version, 0);
}

}  // namespace
