// An interpreter that lacks the Unicode functions, and a name that stands behind them in the list.

#include "fake_interpreter.h"
#define FAKE_GENERATION 3
#define FAKE_UNICODE_INFIX "UCS8"
#define PyWeakref_NewRef hidden_PyWeakref_NewRef
#include "fake_names.inc"
#undef PyWeakref_NewRef
FAKE_ENTRY_POINT(PyModule_Create2)

namespace {

class UnicodeNames : public FakeInterpreter {};

TEST_F(UnicodeNames, are_looked_for_after_all_others) {
    EXPECT_EQ(bind(), Bound(-1, "GetPtr() failed for PyWeakref_NewRef\n"));
    expect_import_error();
}

}  // namespace
