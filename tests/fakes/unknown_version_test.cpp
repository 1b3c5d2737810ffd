// Interpreters that do not tell their version: binding goes on with what it has.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class UnknownVersion : public FakeInterpreter {
  protected:
    static constexpr const char* kMessage = "Unable to get version numbers\n";
};

TEST_F(UnknownVersion, is_reported_when_there_is_no_version_info) {
    gFake.has_version_info = false;
    EXPECT_EQ(bind(), Bound(0, kMessage));
    EXPECT_EQ(record().major_version, 3) << "known from the entry point";
    EXPECT_EQ(record().minor_version, 0);
    EXPECT_EQ(record().frame_offsets.lineno, 124) << "taken for the oldest of its generation";
    EXPECT_EQ(gFake.printed, 1) << "the interpreter is asked, whether there is an exception or not";
}

TEST_F(UnknownVersion, is_reported_when_an_item_cannot_be_read_and_the_error_is_printed) {
    gFake.failing_item = 2;
    EXPECT_EQ(bind(), Bound(0, kMessage));
    EXPECT_EQ(record().minor_version, 12) << "what was read before stays";
    EXPECT_EQ(record().micro_version, 0);
    EXPECT_EQ(gFake.printed, 1);
    EXPECT_EQ(gFake.pending, nullptr);
    EXPECT_EQ(gFake.references, 0);
}

TEST_F(UnknownVersion, is_reported_when_there_is_no_api_version) {
    gFake.has_api_version = false;
    EXPECT_EQ(bind(), Bound(0, kMessage));
    EXPECT_EQ(record().minor_version, 12);
    EXPECT_EQ(record().api_version, 0);
    EXPECT_EQ(gFake.printed, 1);
}

TEST_F(UnknownVersion, is_not_reported_when_all_is_told) {
    EXPECT_EQ(bind(), Bound(0, ""));
    EXPECT_EQ(record().api_version, 1013);
    EXPECT_EQ(gFake.printed, 0);
    EXPECT_EQ(gFake.references, 0);
}

}  // namespace
