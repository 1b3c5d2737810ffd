// An interpreter that exports none of the entry points for module creation.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#include "fake_names.inc"

namespace {

class NoEntryPoint : public FakeInterpreter {};

TEST_F(NoEntryPoint, fails_for_good_and_says_so_once) {
    EXPECT_EQ(bind(), Bound(-1, "Failed to find module init function\n"));
    expect_import_error();
    EXPECT_EQ(record().failed_to_initialize, 1);
    EXPECT_EQ(record().initialized, 0);

    for (int again = 0; again < 3; ++again) {
        gFake.pending = nullptr;
        gFake.message.clear();
        EXPECT_EQ(bind(), Bound(-1, "")) << "not tried again";
        expect_import_error();
    }
}

TEST_F(NoEntryPoint, makes_every_import_fail_in_the_same_way) {
    testing::internal::CaptureStderr();
    for (int again = 0; again < 3; ++again) {
        gFake.pending = nullptr;
        gFake.message.clear();
        EXPECT_EQ(import(), nullptr);
        expect_import_error();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to find module init function\n");
}

TEST_F(NoEntryPoint, is_reported_by_every_later_binding_by_name) {
    bind();
    gFake.pending = nullptr;
    EXPECT_EQ(exported<int(void*)>("XPy_InitializeWithDllPtr")(nullptr), -1);
    expect_import_error();
}

TEST_F(NoEntryPoint, leaves_a_pending_exception_alone) {
    gFake.pending = "PyExc_KeyError";
    EXPECT_EQ(bind(), Bound(-1, "Failed to find module init function\n"));
    EXPECT_STREQ(gFake.pending, "PyExc_KeyError");
    EXPECT_EQ(gFake.raised, 0);
}

}  // namespace
