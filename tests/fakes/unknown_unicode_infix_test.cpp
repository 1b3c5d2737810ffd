// An interpreter whose Unicode functions are spelled as in none that is known.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define FAKE_UNICODE_INFIX "UCS8"
#include "fake_names.inc"
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class UnknownUnicodeInfix : public FakeInterpreter {};

TEST_F(UnknownUnicodeInfix, is_reported_with_the_first_name_that_is_missing) {
    EXPECT_EQ(bind(), Bound(-1, "GetUnicodeFunction() failed for: _AsEncodedString\n"));
    expect_import_error();
    EXPECT_EQ(record().failed_to_initialize, 0);
}

TEST_F(UnknownUnicodeInfix, fails_a_later_version_with_the_first_name_that_the_module_uses) {
    gFake.version[1] = 16;
    EXPECT_EQ(bind(), Bound(-1,
                            "GetUnicodeFunction() failed for: _AsEncodedString\n"
                            "GetUnicodeFunction() failed for: _AsUTF8\n"
                            "GetUnicodeFunction() failed for: _AsUTF8String\n"
                            "GetUnicodeFunction() failed for: _Compare\n"
                            "GetUnicodeFunction() failed for: _CompareWithASCIIString\n"));
    expect_import_error();
}

}  // namespace
