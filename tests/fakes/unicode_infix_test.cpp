// An interpreter whose Unicode functions carry the width of its characters in their names. Built once for
// each width; the name FAKE_UNICODE_INFIX comes from the build.

#include "fake_interpreter.h"
#define FAKE_GENERATION 2
#include "fake_names.inc"
FAKE_ENTRY_POINT(Py_InitModule4_64)

namespace {

class UnicodeInfix : public FakeInterpreter {
  protected:
    void SetUp() override {
        FakeInterpreter::SetUp();
        gFake.version[0] = 2;
        gFake.version[1] = 7;
    }
};

TEST_F(UnicodeInfix, is_found_and_the_slots_keep_their_modern_names) {
    EXPECT_EQ(bind(), Bound(0, ""));
    EXPECT_EQ(reinterpret_cast<void*>(record().PyUnicode_FromString),
              dlsym(RTLD_DEFAULT, "PyUnicode" FAKE_UNICODE_INFIX "_FromString"));
    EXPECT_NE(record().PyUnicode_FromString, nullptr);
    EXPECT_EQ(reinterpret_cast<void*>(record().PyUnicode_Join),
              dlsym(RTLD_DEFAULT, "PyUnicode" FAKE_UNICODE_INFIX "_Join"));
    EXPECT_EQ(dlsym(RTLD_DEFAULT, "PyUnicode_Join"), nullptr);
}

}  // namespace
