// Entry to the native tests that run inside a live interpreter; run_native_tests.py calls it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

extern "C" [[gnu::visibility("default")]] int run_native_tests(const char* filter);

/// Runs the tests whose names match `filter` (all of them when it is null) on the calling thread, which holds
/// the interpreter's lock. Returns 0 when all passed; no match at all is a failure, too.
int run_native_tests(const char* filter) {
    int argument_count = 1;
    char program_name[] = "run_native_tests";
    char* arguments[] = {program_name, nullptr};
    testing::InitGoogleMock(&argument_count, arguments);
    if (filter != nullptr) {
        testing::GTEST_FLAG(filter) = filter;
    }

    const int result = RUN_ALL_TESTS();
    return testing::UnitTest::GetInstance()->test_to_run_count() == 0 ? 1 : result;
}
